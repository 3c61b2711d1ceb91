// Image-content library: PNG decoding into frame layouts, sequences, sheets, paths, writing.
// The decoder's colour types, depths, transparency and interlacing are checked against the
// PNG conformance suite at the end; the LCD's PNG output test round-trips writePng.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <tuple>

#include "EyeTestSupport.h"
#include "VContent.h"

namespace fs = std::filesystem;
using eyetest::LogCapture;
using Bytes = std::vector<uint8_t>;

namespace {

// A w x h RGB image whose every pixel is (r, g, b).
Bytes solid(uint32_t w, uint32_t h, uint8_t r, uint8_t g = 0, uint8_t b = 0) {
  Bytes px;
  for (uint32_t i = 0; i < w * h; ++i) px.insert(px.end(), {r, g, b});
  return px;
}

// Size, frame count and bytes per pixel, e.g. "3x2 5*4".
std::string shape(const VContent& v) {
  return std::to_string(v.width) + "x" + std::to_string(v.height) + " " +
         std::to_string(v.frames.size()) + "*" + std::to_string(v.bytesPerPixel);
}

// An unreadable file gives an empty image that keeps its path, and one error naming it.
void expectUnreadable(const std::string& path) {
  LogCapture log;
  VContent v = VContent::getImage(path, true, true);
  EXPECT_EQ(shape(v) + " " + v.path, "0x0 0*0 " + path);
  ASSERT_EQ(log.errors().size(), 1u) << path;
  EXPECT_NE(log.errors()[0].find(path), std::string::npos) << log.errors()[0];
}

// Every test ends with no base directory, the default, so a failing test cannot leak one.
class VContentTest : public ::testing::Test {
 protected:
  void TearDown() override { VContent::setBaseDirectory(""); }
  // Writes a w x h image of one colour to `name` under the temporary directory.
  void png(const std::string& name, uint32_t w, uint32_t h, uint8_t red) {
    fs::create_directories((tmp.path() / name).parent_path());
    EXPECT_TRUE(VContent::writePng(tmp.str() + name, w, h, solid(w, h, red).data(), false));
  }
  eyetest::TempDir tmp;
};

TEST_F(VContentTest, AddFrameFillsReducesAndKeepsTheFirstFramesSize) {
  VContent v;
  v.AddFrame("first", 1, 2, true, true, 0xF0, 0x3F, 0x77, 0x9C);  // alpha keeps 8 bits
  v.AddFrame("second", 5, 1, false, false, 0xF0, 0x3F, 0x77, 0x9C);
  EXPECT_EQ(v.frames.at(0), (Bytes{15, 3, 7, 0x9C, 15, 3, 7, 0x9C}));
  EXPECT_EQ(v.frames.at(1), solid(5, 1, 0xF0, 0x3F, 0x77));
  LogCapture log;  // a side may be as long as the limit, not longer
  for (auto [w, h] : {std::pair{65535, 1}, {1, 65535}, {65536, 1}, {1, 65536}, {0, 1}, {1, -1}})
    v.AddFrame("edge", w, h, false, false, 0, 0, 0, 0);
  EXPECT_EQ(shape(v), "1x2 4*4");
  EXPECT_EQ(log.errors().size(), 4u);
}

TEST_F(VContentTest, MissingEmptyOrNonRegularFilesGiveEmptyImageAndEmptyImagesAreNotWritten) {
  // Broken data: the conformance suite's corrupt images.
  for (const std::string& path :
       {tmp.str() + "missing.png", tmp.write("empty.png", ""), std::string("/dev/null")})
    expectUnreadable(path);
  LogCapture log;  // one that cannot be written: see the LCD's PNG output test
  EXPECT_FALSE(VContent::writePng(tmp.str() + "flat.png", 0, 2, solid(2, 2, 0).data(), false));
  EXPECT_EQ(log.errors().size(), 1u);
  EXPECT_FALSE(fs::exists(tmp.path() / "flat.png"));
}

TEST_F(VContentTest, DirectorySequenceInByteOrderSkippingOtherSizesWithinThePixelLimit) {
  // Red 0x10 to 0x50 in byte-wise name order: digits before upper before lower case.
  for (auto [name, red] :
       {std::pair{"b", 0x50}, {"a", 0x40}, {"B", 0x30}, {"10", 0x10}, {"2", 0x20}})
    png("blink/" + std::string(name) + ".png", 3, 2, red);
  png("blink/c.png", 2, 2, 0xF0);
  tmp.write("blink/readme.txt", "not a frame");

  // Relative paths are under the base directory, which may end in a slash or not.
  VContent::setBaseDirectory(tmp.str());
  EXPECT_EQ(VContent::resolvePath("a") + VContent::resolvePath("/abs"), tmp.str() + "a/abs");
  VContent seq;
  seq.path = "blink";
  LogCapture log;
  seq.loadSequence();
  EXPECT_EQ(log.errors().size(), 1u);                // the 2 x 2 frame
  EXPECT_EQ(shape(seq) + seq.path, "3x2 5*4blink");  // default: with alpha, 12-bit
  for (uint8_t i = 0; i < seq.frames.size(); ++i) EXPECT_EQ(seq.frames[i].at(0), i + 1);
  // getImage on a directory loads the same sequence, in the asked layout.
  VContent::setBaseDirectory(tmp.path().string());
  EXPECT_EQ(VContent::getImage("blink/", false, false).frames.at(4), solid(3, 2, 0x50));
  VContent::setBaseDirectory(tmp.str() + "elsewhere");
  expectUnreadable("blink");
  fs::create_directories(tmp.path() / "none");
  expectUnreadable(tmp.str() + "none");

  // The pixels of a sequence may add up to the limit, not beyond.
  const Bytes black(3 << 24);  // 4096 x 4096
  fs::create_directories(tmp.path() / "big");
  ASSERT_TRUE(VContent::writePng(tmp.str() + "big/0.png", 4096, 4096, black.data(), false));
  EXPECT_EQ(VContent::getImage(tmp.str() + "big", false, false).frames.size(), 1u);
  fs::create_symlink("0.png", tmp.path() / "big/1.png");
  expectUnreadable(tmp.str() + "big");
}

TEST_F(VContentTest, SpriteSheetIsCutRowByRow) {
  // 2 x 2 cells in 3 columns and 2 rows, pixel (x, y) = (16 x, 16 y, 0, 200); one spare
  // column and row of pixels that hold no whole frame.
  Bytes px;
  for (uint8_t y = 0; y < 5; ++y)
    for (uint8_t x = 0; x < 7; ++x) px.insert(px.end(), {uint8_t(16 * x), uint8_t(16 * y), 0, 200});
  VContent sheet;
  sheet.path = tmp.str() + "sheet.png";
  ASSERT_TRUE(VContent::writePng(sheet.path, 7, 5, px.data(), true));
  // Cell size, frames asked for (0 = all), flags -> shape, the last frame, errors.
  const uint8_t rgb8 = VContent::kLoadWithoutAlpha | VContent::kLoadFullDepth;
  const std::tuple<int, int, int, uint8_t, std::string, Bytes, size_t> cases[] = {
      {2, 2, 0, 0, "2x2 6*4", {4, 2, 0, 200, 5, 2, 0, 200, 4, 3, 0, 200, 5, 3, 0, 200}, 0},
      {2, 2, 4, rgb8, "2x2 4*3", {0, 32, 0, 16, 32, 0, 0, 48, 0, 16, 48, 0}, 0},
      {2, 2, 9, 0, "2x2 6*4", {4, 2, 0, 200, 5, 2, 0, 200, 4, 3, 0, 200, 5, 3, 0, 200}, 1},
      {8, 2, 0, 0, "8x2 0*0", {}, 1},
      {2, 0, 0, VContent::kLoadWithoutAlpha, "7x5 1*3", {}, 0}};  // the whole sheet
  for (const auto& [w, h, total, flags, expected, last, errors] : cases) {
    sheet.width = w, sheet.height = h, sheet.frameTotal = total, sheet.loadFlags = flags;
    LogCapture log;
    sheet.loadSequence();
    EXPECT_EQ(shape(sheet), expected);
    EXPECT_TRUE(last.empty() || (sheet.isReady() && sheet.frames.back() == last)) << expected;
    EXPECT_EQ(log.errors().size(), errors) << expected;
  }
}

// ---------------------------------------------------------------- conformance suite

// Every colour type and depth, palettes, tRNS, interlacing: grey of 1 to 16 bits widens
// to 8 (0x3 of 4 bits is 0x33), 16-bit samples keep their high byte (not rounded), tRNS
// makes alpha 0. Decoding ignores gAMA and bKGD on purpose: the g* images (gamma 0.35 to
// 2.5) match the references, which hold the stored samples, exactly. The *_to8 files are
// not used: the 16-bit grey ones were made by scaling (134 where the stored is 0x8700).
// Images named x* are corrupt.
TEST(PngSuite, ImagesMatchReferencePixelsAndCorruptOnesGiveEmptyImageAndOneError) {
  const std::string suite = EYE_PNGSUITE_DIR;
  if (!fs::is_directory(suite + "/png") || !fs::is_directory(suite + "/json"))
    GTEST_SKIP() << "PNG conformance suite not found at " << suite;
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(suite + "/png"))
    if (entry.path().extension() == ".png") names.push_back(entry.path().stem().string());
  ASSERT_GT(names.size(), 150u);
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    const std::string png = suite + "/png/" + name + ".png";
    if (name[0] == 'x') {
      expectUnreadable(png);
      continue;
    }
    // The reference: every number in the JSON file, RGBA of each pixel.
    std::ifstream in(suite + "/json/" + name + ".json");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; }, ' ');
    std::istringstream numbers(text);
    // Full depth with alpha; the other layouts are derived from it alike for every image.
    Bytes expected;
    const int shift = name.substr(name.size() - 2) == "16" ? 8 : 0;
    for (int v; numbers >> v;) expected.push_back(static_cast<uint8_t>(v >> shift));
    EXPECT_EQ(VContent::getImage(png, true, false).frames.at(0), expected);
  }
}

}  // namespace
