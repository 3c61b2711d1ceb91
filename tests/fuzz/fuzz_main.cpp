// One libFuzzer target; EYE_FUZZ_ENTRY names the entry it drives.
#include <cstdio>
#include <cstdlib>

#include "FuzzEntries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const eyefuzz::Entry* entry = [] {
    const eyefuzz::Entry* found = eyefuzz::findEntry(EYE_FUZZ_ENTRY);
    if (found == nullptr) {
      std::fprintf(stderr, "no fuzz entry named %s\n", EYE_FUZZ_ENTRY);
      std::abort();
    }
    return found;
  }();
  entry->run(data, size);
  return 0;
}
