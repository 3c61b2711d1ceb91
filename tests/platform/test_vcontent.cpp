// Image-content library: PNG decoding into frame layouts, sequences, sheets, paths, writing.
// The decoder's colour types, depths, transparency and interlacing are checked against the
// PNG conformance suite at the end; LCD's PNG output test round-trips writePng.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

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

std::string size(const VContent& v) {
  return std::to_string(v.width) + "x" + std::to_string(v.height);
}

// An unreadable file gives an empty image that keeps its path, and one error naming it.
void expectUnreadable(const std::string& path) {
  LogCapture log;
  VContent v = VContent::getImage(path, true, true);
  EXPECT_EQ(size(v) + " " + v.path, "0x0 " + path);
  EXPECT_FALSE(v.isReady());
  ASSERT_EQ(log.errors().size(), 1u) << path;
  EXPECT_NE(log.errors()[0].find(path), std::string::npos) << log.errors()[0];
}

// Every test starts and ends with no base directory, so a failing test cannot leak one.
class VContentTest : public ::testing::Test {
 protected:
  void SetUp() override { VContent::setBaseDirectory(""); }
  void TearDown() override { VContent::setBaseDirectory(""); }
  // Writes a w x h image of one colour to `name` under the temporary directory.
  std::string png(const std::string& name, uint32_t w, uint32_t h, uint8_t red) {
    fs::create_directories((tmp.path() / name).parent_path());
    EXPECT_TRUE(VContent::writePng(tmp.str() + name, w, h, solid(w, h, red).data(), false));
    return tmp.str() + name;
  }
  eyetest::TempDir tmp;
};

TEST_F(VContentTest, AddFrameFillsReducesKeepsFirstSizeAndCopiesAreDeep) {
  VContent v;
  v.AddFrame("first", 1, 2, true, true, 0xF0, 0x3F, 0x77, 0x9C);  // alpha keeps 8 bits
  v.AddFrame("second", 5, 1, false, false, 0xF0, 0x3F, 0x77, 0x9C);
  EXPECT_EQ(size(v), "1x2");
  EXPECT_EQ(v.frames.at(0), (Bytes{15, 3, 7, 0x9C, 15, 3, 7, 0x9C}));
  EXPECT_EQ(v.frames.at(1), solid(5, 1, 0xF0, 0x3F, 0x77));
  LogCapture log;  // a side may be as long as the limit, not longer
  for (auto [w, h] : {std::pair{65535, 1}, {1, 65535}, {65536, 1}, {1, 65536}, {0, 1}, {1, -1}})
    v.AddFrame("edge", w, h, false, false, 0, 0, 0, 0);
  EXPECT_EQ(v.frames.size(), 4u);
  EXPECT_EQ(log.errors().size(), 4u);

  VContent copy(v), assigned;
  assigned = v;
  for (VContent* c : {&copy, &assigned}) {
    EXPECT_EQ(c->frames, v.frames);
    c->frames[0][0] = 9;
  }
  EXPECT_EQ(v.frames[0][0], 15);
}

TEST_F(VContentTest, MissingBrokenAndSpecialFilesGiveEmptyImageAndOneError) {
  std::ifstream in(png("ok.png", 16, 16, 9), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  for (const std::string& path :
       {tmp.str() + "missing.png", tmp.write("truncated.png", bytes.substr(0, bytes.size() / 2)),
        tmp.write("empty.png", ""), std::string("/dev/null")})
    expectUnreadable(path);
  // And writing where it cannot.
  LogCapture log;
  const Bytes px = solid(2, 2, 0);
  EXPECT_FALSE(VContent::writePng(tmp.str() + "no/such/dir/x.png", 2, 2, px.data(), false));
  EXPECT_FALSE(VContent::writePng(tmp.str() + "flat.png", 0, 2, px.data(), false));
  EXPECT_EQ(log.errors().size(), 2u);
  EXPECT_FALSE(fs::exists(tmp.path() / "flat.png"));
}

TEST_F(VContentTest, RelativePathsUseTheBaseDirectory) {
  EXPECT_EQ(VContent::resolvePath("a/b.png"), "a/b.png");
  VContent::setBaseDirectory("/cfg/eye");
  EXPECT_EQ(VContent::baseDirectory(), "/cfg/eye");
  EXPECT_EQ(VContent::resolvePath("a/b.png"), "/cfg/eye/a/b.png");
  EXPECT_EQ(VContent::resolvePath("/abs/b.png"), "/abs/b.png");
  VContent::setBaseDirectory("/cfg/eye/");
  EXPECT_EQ(VContent::resolvePath("b.png"), "/cfg/eye/b.png");

  png("iris/blue.png", 2, 2, 0x50);
  VContent::setBaseDirectory(tmp.path().string());
  VContent v = VContent::getImage("iris/blue.png", false, true);
  EXPECT_EQ(v.path, "iris/blue.png");
  EXPECT_EQ(v.frames.at(0), solid(2, 2, 5));
  VContent::setBaseDirectory(tmp.str() + "elsewhere");
  expectUnreadable("iris/blue.png");
}

TEST_F(VContentTest, DirectorySequenceInByteOrderSkippingOtherSizesWithinThePixelLimit) {
  // Red 0x10 to 0x50 in byte-wise name order: digits before upper before lower case.
  for (auto [name, red] :
       {std::pair{"b", 0x50}, {"a", 0x40}, {"B", 0x30}, {"10", 0x10}, {"2", 0x20}})
    png("blink/" + std::string(name) + ".png", 3, 2, red);
  png("blink/c.png", 2, 2, 0xF0);
  tmp.write("blink/readme.txt", "not a frame");

  VContent::setBaseDirectory(tmp.path().string());
  VContent seq;
  seq.path = "blink";
  seq.frameIndex = 2;
  LogCapture log;
  seq.loadSequence();
  EXPECT_EQ(log.errors().size(), 1u);  // the 2 x 2 frame
  EXPECT_EQ(seq.path + size(seq), "blink3x2");
  EXPECT_EQ(seq.frameIndex, 0);
  EXPECT_EQ(seq.bytesPerPixel, 4);  // default: with alpha, 12-bit
  ASSERT_EQ(seq.frames.size(), 5u);
  for (uint8_t i = 0; i < 5; ++i) EXPECT_EQ(seq.frames[i].at(0), i + 1);
  // getImage on a directory loads the same sequence, in the asked layout.
  EXPECT_EQ(VContent::getImage("blink/", false, false).frames.at(4), solid(3, 2, 0x50));
  fs::create_directories(tmp.path() / "none");
  expectUnreadable("none");

  // The pixels of a sequence may add up to the limit, not beyond.
  const Bytes black(3 << 24);  // 4096 x 4096
  fs::create_directories(tmp.path() / "big");
  ASSERT_TRUE(VContent::writePng(tmp.str() + "big/0.png", 4096, 4096, black.data(), false));
  EXPECT_EQ(VContent::getImage(tmp.str() + "big", false, false).frames.size(), 1u);
  fs::create_symlink("0.png", tmp.path() / "big/1.png");
  expectUnreadable(tmp.str() + "big");
}

TEST_F(VContentTest, SpriteSheetIsCutRowByRow) {
  // Six 2 x 2 cells in 3 columns and 2 rows, pixel (x, y) = (16 x, 16 y, 0, 200); one
  // spare column and row of pixels that hold no whole frame.
  Bytes px;
  for (uint8_t y = 0; y < 5; ++y)
    for (uint8_t x = 0; x < 7; ++x) px.insert(px.end(), {uint8_t(16 * x), uint8_t(16 * y), 0, 200});
  const std::string sheet = tmp.str() + "sheet.png";
  ASSERT_TRUE(VContent::writePng(sheet, 7, 5, px.data(), true));
  VContent all;
  all.path = sheet;
  all.width = all.height = 2;
  all.loadSequence();
  EXPECT_EQ(size(all), "2x2");
  ASSERT_EQ(all.frames.size(), 6u);
  for (uint8_t i = 0; i < 6; ++i) {
    const uint8_t x = (i % 3) * 2, x1 = x + 1, y = (i / 3) * 2, y1 = y + 1;
    EXPECT_EQ(all.frames[i], (Bytes{x, y, 0, 200, x1, y, 0, 200, x, y1, 0, 200, x1, y1, 0, 200}))
        << int(i);
  }

  VContent some = all;
  some.frameTotal = 4;
  some.loadFlags = VContent::kLoadWithoutAlpha | VContent::kLoadFullDepth;
  some.loadSequence();
  ASSERT_EQ(some.frames.size(), 4u);
  EXPECT_EQ(some.bytesPerPixel, 3);
  EXPECT_EQ(some.frames[3], (Bytes{0, 32, 0, 16, 32, 0, 0, 48, 0, 16, 48, 0}));

  LogCapture log;  // asking for more frames than the sheet holds, or a cell larger than it
  VContent tooMany = all, tooBig = all, whole = all;
  tooMany.frameTotal = 9;
  tooMany.loadSequence();
  EXPECT_EQ(tooMany.frames.size(), 6u);
  tooBig.width = 8;
  tooBig.loadSequence();
  EXPECT_FALSE(tooBig.isReady());
  EXPECT_EQ(log.errors().size(), 2u);
  whole.height = 0;  // the whole sheet is one frame
  whole.loadSequence();
  EXPECT_EQ(size(whole) + std::to_string(whole.frames.size()), "7x51");
}

// ---------------------------------------------------------------- conformance suite

const std::string kSuite = EYE_PNGSUITE_DIR;

std::vector<std::string> suiteImages(bool corrupt) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(kSuite + "/png", ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().stem().string();
    if (it->path().extension() == ".png" && (name[0] == 'x') == corrupt) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

#define REQUIRE_SUITE()                                                          \
  if (!fs::is_directory(kSuite + "/png") || !fs::is_directory(kSuite + "/json")) \
  GTEST_SKIP() << "PNG conformance suite not found at " << kSuite

// Every colour type and depth, palettes, tRNS, interlacing: grey of 1 to 16 bits widens
// to 8 (0x3 of 4 bits is 0x33), 16-bit samples keep their high byte (not rounded), tRNS
// makes alpha 0. Decoding ignores gAMA and bKGD on purpose: the g* images (gamma 0.35 to
// 2.5) match the references, which hold the stored samples, exactly. The *_to8 files are
// not used: the 16-bit grey ones were made by scaling (134 where the stored is 0x8700).
TEST(PngSuite, ValidImagesMatchReferencePixels) {
  REQUIRE_SUITE();
  const auto names = suiteImages(false);
  ASSERT_GT(names.size(), 100u);
  LogCapture log;
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    // The reference: every number in the JSON file, RGBA of each pixel.
    std::ifstream in(kSuite + "/json/" + name + ".json");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; }, ' ');
    std::istringstream numbers(text);
    // With alpha as stored, reduced to 12 bits (alpha kept), and without alpha.
    Bytes full, reduced, opaque;
    const int shift = name.substr(name.size() - 2) == "16" ? 8 : 0;
    for (int v, i = 0; numbers >> v; ++i) {
      full.push_back(static_cast<uint8_t>(v >> shift));
      reduced.push_back(i % 4 == 3 ? full.back() : full.back() >> 4);
      if (i % 4 != 3) opaque.push_back(reduced.back());
    }
    const std::string png = kSuite + "/png/" + name + ".png";
    EXPECT_EQ(VContent::getImage(png, true, false).frames.at(0), full);
    EXPECT_EQ(VContent::getImage(png, true, true).frames.at(0), reduced);
    EXPECT_EQ(VContent::getImage(png, false, true).frames.at(0), opaque);
  }
  EXPECT_TRUE(log.errors().empty()) << log.errors().front();
}

TEST(PngSuite, CorruptImagesGiveEmptyImageAndOneError) {
  REQUIRE_SUITE();
  const auto names = suiteImages(true);
  ASSERT_FALSE(names.empty());
  for (const auto& name : names) expectUnreadable(kSuite + "/png/" + name + ".png");
}

}  // namespace
