// Replays the inputs kept in tests/fuzz/regressions/<entry>/ (ones a target failed on,
// and the documented failures each entry must accept) and the bundled set through the
// same entry points, in the normal build.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "EyeControlReset.h"
#include "FuzzEntries.h"

namespace {

namespace fs = std::filesystem;

TEST(FuzzRegressions, KeptInputsAndTheBundledSetPassTheirEntry) {
  const fs::path assets = EYE_ASSETS_DIR;
  std::vector<std::pair<std::string, fs::path>> inputs = {
      {"iris_catalogue", assets / "iris_type.xml"},
      {"background_catalogue", assets / "background_type.xml"},
      {"eyelid_catalogue", assets / "eyelid.xml"},
      {"animation_catalogue", assets / "eyeanimations.xml"},
      {"png", assets / "images/iris/classic_blue.png"}};
  for (const auto& dir : fs::directory_iterator(EYE_FUZZ_REGRESSIONS))
    for (const auto& file : fs::directory_iterator(dir.path()))
      inputs.emplace_back(dir.path().filename().string(), file.path());
  EXPECT_GT(inputs.size(), 5u);
  for (const auto& [name, file] : inputs) {
    const eyefuzz::Entry* entry = eyefuzz::findEntry(name);
    ASSERT_NE(entry, nullptr) << "no entry for " << file;
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NO_THROW(entry->run(bytes.data(), bytes.size())) << file;
  }
  eyetest::resetEyeControl();
}

}  // namespace
