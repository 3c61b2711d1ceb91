// Replays the inputs kept in tests/fuzz/regressions/<entry>/ (ones a target failed on,
// and the documented failures each entry must accept) and the bundled set through the
// same entry points, in the normal build.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "EyeControlReset.h"
#include "FuzzEntries.h"

namespace {

namespace fs = std::filesystem;

void replay(const eyefuzz::Entry& entry, const fs::path& file) {
  SCOPED_TRACE(file.string());
  std::ifstream in(file, std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NO_THROW(entry.run(bytes.data(), bytes.size()));
}

TEST(FuzzRegressions, KeptInputsPassTheirEntry) {
  size_t replayed = 0;
  for (const auto& dir : fs::directory_iterator(EYE_FUZZ_REGRESSIONS)) {
    if (!dir.is_directory()) continue;
    const eyefuzz::Entry* entry = eyefuzz::findEntry(dir.path().filename().string());
    ASSERT_NE(entry, nullptr) << "no entry for " << dir.path();
    for (const auto& file : fs::directory_iterator(dir.path())) {
      replay(*entry, file.path());
      ++replayed;
    }
  }
  EXPECT_GT(replayed, 0u);
  eyetest::resetEyeControl();
}

TEST(FuzzRegressions, BundledCataloguesPassTheirEntry) {
  const std::pair<const char*, const char*> seeds[] = {
      {"iris_catalogue", "iris_type.xml"},
      {"background_catalogue", "background_type.xml"},
      {"eyelid_catalogue", "eyelid.xml"},
      {"animation_catalogue", "eyeanimations.xml"},
      {"png", "images/iris/classic_blue.png"}};
  for (const auto& [name, file] : seeds)
    replay(*eyefuzz::findEntry(name), fs::path(EYE_ASSETS_DIR) / file);
  eyetest::resetEyeControl();
}

}  // namespace
