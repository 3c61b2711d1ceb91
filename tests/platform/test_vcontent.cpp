// Image-content library: PNG decoding into frame layouts, sequences, paths, writing.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
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
using eyetest::TempDir;

namespace {

// Every test starts and ends with no base directory, so a failing test cannot leak one.
class VContentTest : public ::testing::Test {
 protected:
  void SetUp() override { VContent::setBaseDirectory(""); }
  void TearDown() override { VContent::setBaseDirectory(""); }
  TempDir tmp;
};

// Writes a PNG of any colour type and depth with libpng directly, so that the decoder
// is checked against a writer other than its own. `rows` are raw packed scanlines.
// The conformance suite is not on every machine; these cases check the decoder without it.
bool writeRawPng(const std::string& path, uint32_t w, uint32_t h, int depth, int colorType,
                 const std::vector<std::vector<uint8_t>>& rows,
                 const std::vector<png_color>& palette = {},
                 const std::vector<uint8_t>& trnsAlpha = {},
                 const png_color_16* trnsColor = nullptr, bool interlaced = false) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  std::vector<png_bytep> ptrs;
  for (const auto& r : rows) ptrs.push_back(const_cast<png_bytep>(r.data()));
  bool ok = false;
  if (!setjmp(png_jmpbuf(png))) {
    png_init_io(png, f);
    png_set_IHDR(png, info, w, h, depth, colorType,
                 interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!palette.empty()) png_set_PLTE(png, info, palette.data(), int(palette.size()));
    if (!trnsAlpha.empty() || trnsColor)
      png_set_tRNS(png, info, trnsAlpha.empty() ? nullptr : trnsAlpha.data(), int(trnsAlpha.size()),
                   trnsColor);
    png_write_info(png, info);
    png_write_image(png, ptrs.data());
    png_write_end(png, nullptr);
    ok = true;
  }
  png_destroy_write_struct(&png, &info);
  std::fclose(f);
  return ok;
}

// A w x h RGB image whose every pixel is (r, g, b).
std::vector<uint8_t> solid(uint32_t w, uint32_t h, uint8_t r, uint8_t g, uint8_t b) {
  std::vector<uint8_t> px;
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
  EXPECT_FALSE(v.isReady()) << path;
  EXPECT_EQ(size(v), "0x0") << path;
  EXPECT_EQ(v.path, path);
  ASSERT_EQ(log.errors().size(), 1u) << path;
  EXPECT_NE(log.errors()[0].find(path), std::string::npos) << log.errors()[0];
}

TEST_F(VContentTest, AddFrameFillsReducesKeepsFirstSizeAndCopiesAreDeep) {
  VContent v;
  v.AddFrame("", 240, 240, false, true, 255, 0x80, 0x1F, 255);
  EXPECT_EQ(v.frames.at(0), solid(240, 240, 15, 8, 1));
  // Alpha stays 8-bit under the reduction; a later frame does not change the size.
  v = VContent{};
  v.AddFrame("first", 1, 2, true, true, 0xF0, 0x0F, 0x77, 0x9C);
  v.AddFrame("second", 5, 1, true, false, 0xF0, 0x0F, 0x77, 0x9C);
  EXPECT_EQ(size(v), "1x2");
  ASSERT_EQ(v.frames.size(), 2u);
  EXPECT_EQ(v.frames[0], (std::vector<uint8_t>{15, 0, 7, 0x9C, 15, 0, 7, 0x9C}));
  EXPECT_EQ(v.frames[1].size(), 20u);
  EXPECT_EQ(v.frames[1][0], 0xF0);

  v.path = "lid";
  v.ratio = 3;
  VContent copy(v), assigned;
  assigned.AddFrame("", 1, 1, false, false, 0, 0, 0, 0);
  assigned = v;
  for (VContent* c : {&copy, &assigned}) {
    EXPECT_EQ(c->frames, v.frames);
    EXPECT_EQ(c->path + std::to_string(c->ratio), "lid3");
    c->frames[0][0] = 99;
  }
  EXPECT_EQ(v.frames[0][0], 15);
}

TEST_F(VContentTest, WritePngRoundTripsAndReportsFailures) {
  std::vector<uint8_t> rgb = {255, 0, 0, 0, 255, 0, 0, 0, 255, 17, 34, 51, 240, 128, 1, 9, 8, 7};
  const std::string rgbPath = tmp.str() + "rgb.png";
  ASSERT_TRUE(VContent::writePng(rgbPath, 3, 2, rgb.data(), false));
  VContent full = VContent::getImage(rgbPath, false, false);
  EXPECT_EQ(size(full), "3x2");
  EXPECT_EQ(full.bytesPerPixel, 3);
  EXPECT_EQ(full.path, rgbPath);
  EXPECT_EQ(full.frames.at(0), rgb);
  EXPECT_EQ(VContent::getImage(rgbPath, true, true).bytesPerPixel, 4);

  std::vector<uint8_t> rgba = {10, 20, 30, 0, 200, 150, 100, 128};
  const std::string rgbaPath = tmp.str() + "rgba.png";
  ASSERT_TRUE(VContent::writePng(rgbaPath, 1, 2, rgba.data(), true));
  EXPECT_EQ(VContent::getImage(rgbaPath, true, false).frames.at(0), rgba);

  LogCapture log;
  EXPECT_FALSE(VContent::writePng(tmp.str() + "no/such/dir/x.png", 2, 2, rgb.data(), false));
  EXPECT_FALSE(VContent::writePng(tmp.str() + "empty.png", 0, 2, rgb.data(), false));
  EXPECT_EQ(log.errors().size(), 2u);
  EXPECT_FALSE(fs::exists(tmp.path() / "empty.png"));
}

TEST_F(VContentTest, DecodesColourTypesAndDepths) {
  const std::string dir = tmp.str();

  // Grey 4-bit: 0x3 scales to 0x33, 0xF to 0xFF.
  ASSERT_TRUE(writeRawPng(dir + "g4.png", 3, 1, 4, PNG_COLOR_TYPE_GRAY, {{0x3F, 0x00}}));
  EXPECT_EQ(VContent::getImage(dir + "g4.png", true, false).frames.at(0),
            (std::vector<uint8_t>{0x33, 0x33, 0x33, 255, 255, 255, 255, 255, 0, 0, 0, 255}));

  // Grey 1-bit with a tRNS grey value: the black pixels become transparent.
  png_color_16 black{};
  ASSERT_TRUE(writeRawPng(dir + "g1.png", 4, 1, 1, PNG_COLOR_TYPE_GRAY, {{0xA0}}, {}, {}, &black));
  EXPECT_EQ(VContent::getImage(dir + "g1.png", true, false).frames.at(0),
            (std::vector<uint8_t>{255, 255, 255, 255, 0, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0}));

  // Palette 2-bit with tRNS alpha for the first two entries only.
  std::vector<png_color> pal = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {0x12, 0x34, 0x56}};
  ASSERT_TRUE(
      writeRawPng(dir + "p2.png", 4, 1, 2, PNG_COLOR_TYPE_PALETTE, {{0x1B}}, pal, {0, 128}));
  EXPECT_EQ(VContent::getImage(dir + "p2.png", true, true).frames.at(0),
            (std::vector<uint8_t>{15, 0, 0, 0, 0, 15, 0, 128, 0, 0, 15, 255, 1, 3, 5, 255}));

  // 16-bit grey+alpha: the low byte is dropped, not rounded (0x12FF gives 0x12).
  ASSERT_TRUE(writeRawPng(dir + "ga16.png", 2, 1, 16, PNG_COLOR_TYPE_GRAY_ALPHA,
                          {{0x12, 0xFF, 0x80, 0xFF, 0xFF, 0xFF, 0x00, 0x01}}));
  EXPECT_EQ(VContent::getImage(dir + "ga16.png", true, false).frames.at(0),
            (std::vector<uint8_t>{0x12, 0x12, 0x12, 0x80, 0xFF, 0xFF, 0xFF, 0x00}));

  // 16-bit RGB with a tRNS colour, interlaced, in a size that leaves passes empty.
  png_color_16 key{};
  key.red = 0x0102;
  key.green = 0x0304;
  key.blue = 0x0506;
  std::vector<std::vector<uint8_t>> rows;
  for (int y = 0; y < 3; ++y) {
    std::vector<uint8_t> row;
    for (int x = 0; x < 2; ++x) {
      if (x == 1 && y == 2)
        row.insert(row.end(), {1, 2, 3, 4, 5, 6});
      else
        row.insert(row.end(), {uint8_t(16 * x), 0xFF, uint8_t(32 * y), 0xFF, 0xAB, 0x00});
    }
    rows.push_back(row);
  }
  ASSERT_TRUE(writeRawPng(dir + "c16.png", 2, 3, 16, PNG_COLOR_TYPE_RGB, rows, {}, {}, &key, true));
  VContent c16 = VContent::getImage(dir + "c16.png", true, false);
  EXPECT_EQ(c16.width, 2);
  EXPECT_EQ(c16.height, 3);
  EXPECT_EQ(c16.frames.at(0),
            (std::vector<uint8_t>{0,  0,  0xAB, 255, 16, 0,  0xAB, 255, 0, 32, 0xAB, 255,
                                  16, 32, 0xAB, 255, 0,  64, 0xAB, 255, 1, 3,  5,    0}));
}

TEST_F(VContentTest, MissingAndBrokenFilesGiveEmptyImageAndOneError) {
  const std::string png = tmp.str() + "ok.png";
  std::vector<uint8_t> px = solid(16, 16, 9, 9, 9);
  ASSERT_TRUE(VContent::writePng(png, 16, 16, px.data(), false));
  std::ifstream in(png, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  for (const std::string& path :
       {tmp.str() + "missing.png", tmp.write("truncated.png", bytes.substr(0, bytes.size() / 2)),
        tmp.write("empty.png", "")})
    expectUnreadable(path);
}

TEST_F(VContentTest, RelativePathsUseTheBaseDirectory) {
  EXPECT_EQ(VContent::resolvePath("a/b.png"), "a/b.png");
  VContent::setBaseDirectory("/cfg/eye");
  EXPECT_EQ(VContent::baseDirectory(), "/cfg/eye");
  EXPECT_EQ(VContent::resolvePath("a/b.png"), "/cfg/eye/a/b.png");
  EXPECT_EQ(VContent::resolvePath("/abs/b.png"), "/abs/b.png");
  VContent::setBaseDirectory("/cfg/eye/");
  EXPECT_EQ(VContent::resolvePath("b.png"), "/cfg/eye/b.png");

  std::vector<uint8_t> px = solid(2, 2, 0x50, 0x60, 0x70);
  fs::create_directories(tmp.path() / "iris");
  ASSERT_TRUE(VContent::writePng(tmp.str() + "iris/blue.png", 2, 2, px.data(), false));
  VContent::setBaseDirectory(tmp.path().string());
  VContent v = VContent::getImage("iris/blue.png", false, true);
  EXPECT_EQ(v.path, "iris/blue.png");
  ASSERT_TRUE(v.isReady());
  EXPECT_EQ(v.frames[0][0], 5);
  VContent::setBaseDirectory(tmp.str() + "elsewhere");
  expectUnreadable("iris/blue.png");
}

TEST_F(VContentTest, DirectorySequenceInByteOrderSkippingOtherSizes) {
  // File name -> red value; byte-wise order puts digits before upper before lower case.
  fs::create_directories(tmp.path() / "blink");
  for (const auto& [name, red] : std::vector<std::pair<std::string, uint8_t>>{
           {"b.png", 0x50}, {"a.png", 0x40}, {"B.png", 0x30}, {"10.png", 0x10}, {"2.png", 0x20}}) {
    std::vector<uint8_t> px = solid(3, 2, red, 0, 0);
    ASSERT_TRUE(VContent::writePng(tmp.str() + "blink/" + name, 3, 2, px.data(), false));
  }
  std::vector<uint8_t> odd = solid(2, 2, 0xF0, 0, 0);
  ASSERT_TRUE(VContent::writePng(tmp.str() + "blink/c.png", 2, 2, odd.data(), false));
  tmp.write("blink/readme.txt", "not a frame");

  VContent::setBaseDirectory(tmp.path().string());
  VContent seq;
  seq.path = "blink";
  seq.ratio = 4;
  seq.frameIndex = 2;
  LogCapture log;
  seq.loadSequence();
  EXPECT_EQ(log.errors().size(), 1u);  // the 2 x 2 frame
  EXPECT_EQ(seq.path + std::to_string(seq.ratio), "blink4");
  EXPECT_EQ(seq.frameIndex, 0);
  EXPECT_EQ(size(seq), "3x2");
  EXPECT_EQ(seq.bytesPerPixel, 4);  // default: with alpha, 12-bit
  std::vector<int> firstBytes;
  for (const auto& frame : seq.frames) firstBytes.push_back(frame.size() == 24 ? frame[0] : -1);
  EXPECT_EQ(firstBytes, (std::vector<int>{1, 2, 3, 4, 5}));

  // getImage on a directory loads the same sequence, in the asked layout.
  VContent viaGet = VContent::getImage("blink/", false, false);
  ASSERT_EQ(viaGet.frames.size(), 5u);
  EXPECT_EQ(viaGet.frames[4], solid(3, 2, 0x50, 0, 0));
  fs::create_directories(tmp.path() / "none");
  expectUnreadable("none");
}

TEST_F(VContentTest, SpriteSheetIsCutRowByRow) {
  // Six 2 x 2 cells in 3 columns and 2 rows: red = x, green = 16 * cell, alpha 200;
  // one spare column and row of pixels that hold no whole frame.
  const uint32_t w = 7, h = 5;
  std::vector<uint8_t> px(w * h * 4, 0);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      uint8_t* p = &px[(y * w + x) * 4];
      p[0] = uint8_t(x * 16);
      p[1] = x < 6 && y < 4 ? uint8_t(16 * ((y / 2) * 3 + x / 2)) : 0xFF;
      p[3] = 200;
    }
  const std::string sheet = tmp.str() + "sheet.png";
  ASSERT_TRUE(VContent::writePng(sheet, w, h, px.data(), true));

  VContent all;
  all.path = sheet;
  all.width = all.height = 2;
  all.loadSequence();
  ASSERT_EQ(all.frames.size(), 6u);
  EXPECT_EQ(size(all), "2x2");
  for (uint8_t i = 0; i < 6; ++i) {
    const uint8_t x = (i % 3) * 2;
    EXPECT_EQ(all.frames[i], (std::vector<uint8_t>{x, i, 0, 200, uint8_t(x + 1), i, 0, 200, x, i, 0,
                                                   200, uint8_t(x + 1), i, 0, 200}))
        << "frame " << int(i);
  }

  VContent some = all;
  some.frames.clear();
  some.frameTotal = 4;
  some.loadFlags = VContent::kLoadWithoutAlpha | VContent::kLoadFullDepth;
  some.loadSequence();
  ASSERT_EQ(some.frames.size(), 4u);
  EXPECT_EQ(some.bytesPerPixel, 3);
  EXPECT_EQ(some.frames[3], (std::vector<uint8_t>{0, 48, 0, 16, 48, 0, 0, 48, 0, 16, 48, 0}));

  LogCapture log;
  VContent tooMany = all;
  tooMany.frameTotal = 9;
  tooMany.loadSequence();
  EXPECT_EQ(tooMany.frames.size(), 6u);
  VContent tooBig;
  tooBig.path = sheet;
  tooBig.width = 8;
  tooBig.height = 2;
  tooBig.loadSequence();
  EXPECT_FALSE(tooBig.isReady());
  EXPECT_EQ(log.errors().size(), 2u);

  VContent whole;
  whole.path = sheet;
  whole.width = 2;  // height 0: the whole sheet is one frame
  whole.loadSequence();
  ASSERT_EQ(whole.frames.size(), 1u);
  EXPECT_EQ(size(whole), "7x5");
}

// ---------------------------------------------------------------- conformance suite

const std::string kSuite = EYE_PNGSUITE_DIR;

std::vector<int> readReference(const std::string& file) {
  std::ifstream in(file);
  std::vector<int> values;
  std::string text((std::istreambuf_iterator<char>(in)), {});
  for (char& c : text)
    if (!(c >= '0' && c <= '9')) c = ' ';
  std::istringstream numbers(text);
  for (int v; numbers >> v;) values.push_back(v);
  return values;
}

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

// Decoding ignores gAMA on purpose: the g* images (gamma 0.35 to 2.5) match the
// references, which hold the stored samples, exactly. bKGD is ignored as well.
// 16-bit images are compared with the high byte of their 16-bit reference. Their
// *_to8 files agree with that, except for the 16-bit grey ones, which were made by
// scaling (134 where the stored sample is 0x8700), so the *_to8 files are not used.
TEST(PngSuite, ValidImagesMatchReferencePixels) {
  REQUIRE_SUITE();
  const auto names = suiteImages(false);
  ASSERT_GT(names.size(), 100u);
  LogCapture log;
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    const std::string png = kSuite + "/png/" + name + ".png";
    std::vector<int> expected = readReference(kSuite + "/json/" + name + ".json");
    if (name.compare(name.size() - 2, 2, "16") == 0)
      for (int& v : expected) v >>= 8;

    // With alpha as stored, reduced to 12 bits (alpha kept), and without alpha.
    std::vector<uint8_t> full, reduced, opaque;
    for (size_t i = 0; i < expected.size(); ++i) {
      full.push_back(static_cast<uint8_t>(expected[i]));
      reduced.push_back(i % 4 == 3 ? full.back() : full.back() >> 4);
      if (i % 4 != 3) opaque.push_back(reduced.back());
    }
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
