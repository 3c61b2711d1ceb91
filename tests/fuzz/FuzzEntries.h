// Entry points shared by the libFuzzer targets and by the test that replays the
// inputs they once crashed on. Each entry feeds one input to one reader of the
// library. The documented std::logic_error for a missing required attribute is an
// expected outcome and returns normally; any other exception leaves the entry (a
// finding), and so does an image whose frames do not match its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace eyefuzz {

struct Entry {
  const char* name;  // target fuzz_<name>; kept inputs in regressions/<name>/
  void (*run)(const uint8_t* data, size_t size);
};

const std::vector<Entry>& entries();
// The entry of that name, or null.
const Entry* findEntry(const std::string& name);

}  // namespace eyefuzz
