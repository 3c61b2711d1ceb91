// Image files and records whose sizes lie: refused before anything large is
// allocated, or drawn without reading outside the image (run under ASan too).
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"

namespace {

namespace fs = std::filesystem;
using eyetest::LogCapture;
using eyetest::TempDir;

std::string bigEndian(uint32_t v) {
  return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

std::string chunk(const std::string& type, const std::string& data) {
  const std::string body = type + data;
  const auto crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size());
  return bigEndian(static_cast<uint32_t>(data.size())) + body +
         bigEndian(static_cast<uint32_t>(crc));
}

// A valid header of a w x h RGBA PNG and the start of its pixel data: all a decoder
// sees before it has to size its buffers.
std::string firstRowPng(const std::string& path, uint32_t w, uint32_t h) {
  const std::string header = bigEndian(w) + bigEndian(h) + std::string("\x08\x06\0\0\0", 5);
  std::ofstream(path, std::ios::binary)
      << "\x89PNG\r\n\x1a\n"
      << chunk("IHDR", header) << chunk("IDAT", std::string("\x78\x9c\x63\0", 4));
  return path;
}

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs `load` and returns the largest single allocation it made on this thread.
template <typename Load>
size_t largestAllocation(Load load) {
  eyetest::threadAllocations().largest = 0;
  load();
  return eyetest::threadAllocations().largest;
}

constexpr size_t kSmall = 1 << 20;  // far below any image beyond the limits

TEST(LyingFiles, HugeHeadersAreRefusedOnEveryPathBeforeAllocating) {
  TempDir tmp;
  LogCapture log;
  const std::string past = firstRowPng(tmp.str() + "past.png", 4097, 4096);
  const std::string wide = firstRowPng(tmp.str() + "wide.png", 65535, 65535);
  fs::create_directory(tmp.str() + "frames");
  firstRowPng(tmp.str() + "frames/a.png", 60000, 60000);

  for (const std::string& path : {past, wide, tmp.str() + "frames"}) {
    log.clear();
    VContent image;
    EXPECT_LT(largestAllocation([&] { image = VContent::getImage(path, true, true); }), kSmall)
        << path;
    EXPECT_FALSE(image.isReady()) << path;
    ASSERT_EQ(log.errors().size(), 1u) << path;
    EXPECT_NE(log.errors()[0].find("too large"), std::string::npos) << log.errors()[0];
  }

  // As a sprite sheet, and as a frame made in memory.
  VContent sheet;
  sheet.path = wide;
  sheet.width = sheet.height = 240;
  EXPECT_LT(largestAllocation([&] { sheet.loadSequence(); }), kSmall);
  EXPECT_FALSE(sheet.isReady());
  VContent made;
  EXPECT_LT(largestAllocation([&] { made.AddFrame("", 5000, 5000, true, true, 1, 2, 3, 4); }),
            kSmall);
  EXPECT_FALSE(made.isReady());
}

TEST(LyingFiles, MoreSheetCellsThanFrameIndexesAreRefused) {
  TempDir tmp;
  LogCapture log;
  VContent source;
  source.AddFrame("", 300, 300, true, false, 9, 9, 9, 255);
  const std::string path = tmp.str() + "sheet.png";
  ASSERT_TRUE(VContent::writePng(path, 300, 300, source.frames[0].data(), true));

  VContent cells;  // 1 x 1 cells: 90000 frames, more than a 16-bit index reaches
  cells.path = path;
  cells.width = cells.height = 1;
  cells.loadSequence();
  EXPECT_FALSE(cells.isReady());
  ASSERT_EQ(log.errors().size(), 1u);
  cells.width = cells.height = 2;  // 22500 cells fit
  cells.loadSequence();
  EXPECT_EQ(cells.frames.size(), 22500u);
}

// Every prefix of a valid file either decodes whole or gives no frames and one error.
TEST(LyingFiles, EveryTruncationOfAnImageIsRefusedCleanly) {
  TempDir tmp;
  const std::string bytes =
      fileBytes(std::string(EYE_ASSETS_DIR) + "/images/iris/classic_blue.png");
  ASSERT_GT(bytes.size(), 100u);
  for (size_t length = 0; length < bytes.size(); length += 1 + length / 16) {
    const std::string path = tmp.write("cut.png", bytes.substr(0, length));
    LogCapture log;
    VContent image = VContent::getImage(path, true, true);
    if (image.isReady()) {
      EXPECT_EQ(image.frames[0].size(), size_t{image.width} * image.height * 4) << length;
    } else {
      EXPECT_EQ(log.errors().size(), 1u) << length;
    }
  }
}

// ---- records that do not fit the panel -------------------------------------------------

class LyingRecords : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    eye_.iris = &iris_;
    eye_.background = &background_;
    eye_.topLid = eye_.bottomLid = &lid_;
    eye_.topLidColor = eye_.bottomLidColor = lidColour_;
  }
  void TearDown() override { eyetest::resetEyeControl(); }

  // The left panel's pixels (R, G, B widened to 8 bits) after composing.
  std::vector<uint8_t> draw(float scale, int x, int y, short top = 0, short bottom = 240) {
    eye_.set_Frame_12Bit(scale, scale, x, y, top, bottom);
    return LcdControl::unpack12Bit(LcdControl::lastFrame(0).data());
  }
  static bool pixelIs(const std::vector<uint8_t>& rgb, int x, int y, uint8_t r, uint8_t g,
                      uint8_t b) {
    const uint8_t* p = &rgb[(static_cast<size_t>(y) * 240 + x) * 3];
    return p[0] == r * 17 && p[1] == g * 17 && p[2] == b * 17;  // 4-bit values given
  }

  Eyes& eye_ = EyeControl::Left_Eye;
  VContent iris_, background_, lid_;
  uint8_t lidColour_[4] = {3, 3, 3, 255};
};

// An iris larger than the panel covers it and is clipped, wherever it stands and
// however it is scaled.
TEST_F(LyingRecords, IrisLargerThanThePanelIsClipped) {
  iris_.AddFrame("", 300, 280, true, true, 255, 0, 0, 255);
  background_.AddFrame("", 240, 240, false, true, 0, 0, 255, 255);
  const auto covered = draw(1.0f, 120, 120);
  for (int y = 0; y < 240; y += 7)
    for (int x = 0; x < 240; x += 7) ASSERT_TRUE(pixelIs(covered, x, y, 15, 0, 0)) << x << "," << y;
  for (float scale : {0.5f, 1.7f, 3.0f})
    for (int x : {-250, 0, 239, 250}) draw(scale, x, x / 2);
}

// A background smaller than the panel, or a frame shorter than its size says, is not
// read at all: the composer shows black there. The iris still shows.
TEST_F(LyingRecords, SmallBackgroundShowsBlack) {
  iris_.AddFrame("", 20, 20, true, true, 0, 255, 0, 255);
  background_.AddFrame("", 100, 100, false, true, 255, 255, 255, 255);
  auto frame = draw(1.0f, 120, 120);
  EXPECT_TRUE(pixelIs(frame, 0, 0, 0, 0, 0));
  EXPECT_TRUE(pixelIs(frame, 239, 239, 0, 0, 0));
  EXPECT_TRUE(pixelIs(frame, 120, 120, 0, 15, 0));

  VContent lying;  // claims 240 x 240 but holds one row
  lying.AddFrame("", 240, 1, false, true, 255, 255, 255, 255);
  lying.height = 240;
  eye_.background = &lying;
  frame = draw(1.0f, 120, 120);
  EXPECT_TRUE(pixelIs(frame, 0, 0, 0, 0, 0));
}

// Lid images narrower than 240 pixels or shorter than they claim give way to the
// lid's fill colour; an iris frame shorter than its size is not drawn.
TEST_F(LyingRecords, ShortLidAndIrisFramesAreNotRead) {
  background_.AddFrame("", 240, 240, false, true, 255, 255, 255, 255);
  lid_.AddFrame("", 100, 40, true, true, 0, 0, 255, 255);
  iris_.AddFrame("", 40, 40, true, true, 255, 0, 0, 255);
  iris_.frames[0].resize(40 * 4);
  const auto frame = draw(1.0f, 120, 120, 60, 180);
  EXPECT_TRUE(pixelIs(frame, 10, 30, 3, 3, 3));       // top lid rows
  EXPECT_TRUE(pixelIs(frame, 10, 200, 3, 3, 3));      // bottom lid rows
  EXPECT_TRUE(pixelIs(frame, 120, 120, 15, 15, 15));  // background, no iris
}

}  // namespace
