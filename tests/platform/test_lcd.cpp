// LCD driver substitute: frame record layout, 12-bit unpacking, outputs, counters and
// concurrent writers.
#include <gtest/gtest.h>
#include <png.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "EyeTestSupport.h"
#include "LcdControl.h"

namespace {

using Frame = std::vector<uint8_t>;

// Packs 8-bit RGB pixels the way the eye composer does: each pair P, Q becomes
// [P.b P.g] [P.r Q.b] [Q.g Q.r], high nibble first.
Frame pack(const std::vector<std::array<uint8_t, 3>>& rgb) {
  Frame out(LcdControl::kFrameBytes);
  for (size_t p = 0; p < rgb.size(); p += 2) {
    const auto& P = rgb[p];
    const auto& Q = rgb[p + 1];
    uint8_t* o = &out[p / 2 * 3];
    o[0] = static_cast<uint8_t>((P[2] >> 4) << 4 | P[1] >> 4);
    o[1] = static_cast<uint8_t>((P[0] >> 4) << 4 | Q[2] >> 4);
    o[2] = static_cast<uint8_t>((Q[1] >> 4) << 4 | Q[0] >> 4);
  }
  return out;
}

Frame filled(uint8_t value) {
  return Frame(LcdControl::kFrameBytes, value);
}

int8_t write(uint8_t panel, Frame& frame) {
  LcdData data{};
  data.lcd = panel;
  data.buffer = frame.data();
  return LcdControl::writeLcd(&data);
}

// Sets EYE_LCD for the scope of a test (or unsets it with nullptr).
class ScopedLcdEnv {
 public:
  explicit ScopedLcdEnv(const char* value) {
    if (const char* old = std::getenv("EYE_LCD")) {
      previous_ = old;
      hadPrevious_ = true;
    }
    set(hadValue(value), value);
  }
  ~ScopedLcdEnv() { set(hadPrevious_, previous_.c_str()); }

 private:
  static bool hadValue(const char* value) { return value != nullptr; }
  static void set(bool present, const char* value) {
    if (present)
      setenv("EYE_LCD", value, 1);
    else
      unsetenv("EYE_LCD");
  }

  std::string previous_;
  bool hadPrevious_ = false;
};

// Counts what reaches it, fails on demand, and notices two writes running at once.
class RecordingOutput : public LcdOutput {
 public:
  struct Log {
    std::atomic<int> opens{0};
    std::array<std::atomic<int>, 2> writes{};
    std::atomic<int> overlaps{0};
  };
  RecordingOutput(Log& log, int openStatus = 0, int failPanel = -1)
      : log_(log), openStatus_(openStatus), failPanel_(failPanel) {}
  std::string describe() const override { return "recording"; }

 protected:
  int open_() override {
    ++log_.opens;
    return openStatus_;
  }
  int write_(uint8_t panel, const uint8_t*) override {
    if (inside_.exchange(true)) ++log_.overlaps;
    ++log_.writes[panel];
    std::this_thread::yield();
    inside_ = false;
    return panel == failPanel_ ? -7 : 0;
  }

 private:
  Log& log_;
  int openStatus_;
  int failPanel_;
  std::atomic<bool> inside_{false};
};

class LcdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ScopedLcdEnv env(nullptr);
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    LcdControl::resetCounters();
  }
  // Outputs set by a test refer to its locals: put the memory output back.
  void TearDown() override {
    ScopedLcdEnv env(nullptr);
    EXPECT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  }
};

std::vector<uint8_t> readPng(const std::string& path, png_uint_32& width, png_uint_32& height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return {};
  width = image.width;
  height = image.height;
  return pixels;
}

}  // namespace

TEST(LcdDataTest, LayoutIsTheDriversRecord) {
  EXPECT_EQ(sizeof(LcdData), 16u);
  EXPECT_EQ(offsetof(LcdData, lcd), 0u);
  EXPECT_EQ(offsetof(LcdData, buffer), 8u);
  EXPECT_EQ(LcdControl::kFrameBytes,
            static_cast<size_t>(LcdControl::kWidth) * LcdControl::kHeight * 3 / 2);
}

TEST(Unpack12BitTest, RecoversEveryPixelOfAPackedFrame) {
  const size_t pixels = static_cast<size_t>(LcdControl::kWidth) * LcdControl::kHeight;
  std::vector<std::array<uint8_t, 3>> rgb(pixels);
  // Varied nibbles everywhere, with distinct ones at the row and frame edges.
  for (size_t i = 0; i < pixels; ++i)
    rgb[i] = {static_cast<uint8_t>((i * 7) % 16 * 17), static_cast<uint8_t>((i * 5 + 3) % 16 * 17),
              static_cast<uint8_t>((i / 240 + i) % 16 * 17)};
  rgb[0] = {0x10, 0x20, 0x30};
  rgb[1] = {0xf0, 0x00, 0xa0};
  rgb[239] = {0x50, 0x60, 0x70};
  rgb[240] = {0x80, 0x90, 0xb0};
  rgb[pixels - 1] = {0xc0, 0xd0, 0xe0};
  const Frame frame = pack(rgb);
  // Pixel 0's blue and green come first, then its red and pixel 1's blue.
  EXPECT_EQ(frame[0], 0x32);
  EXPECT_EQ(frame[1], 0x1a);
  EXPECT_EQ(frame[2], 0x0f);

  const std::vector<uint8_t> out = LcdControl::unpack12Bit(frame.data());
  ASSERT_EQ(out.size(), pixels * 3);
  for (size_t i = 0; i < pixels; ++i)
    for (int c = 0; c < 3; ++c)
      ASSERT_EQ(out[i * 3 + c], (rgb[i][c] >> 4) * 17) << "pixel " << i << " channel " << c;
  EXPECT_EQ(out[0], 0x11);
  EXPECT_EQ(out[(pixels - 1) * 3 + 2], 0xee);
  EXPECT_TRUE(LcdControl::unpack12Bit(nullptr).empty());
}

TEST_F(LcdTest, LastFrameIsACopyAndCountsFollowWrites) {
  EXPECT_TRUE(LcdControl::lastFrame(0).empty());
  EXPECT_TRUE(LcdControl::lastFrame(1).empty());
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);

  Frame frame = filled(0x5a);
  ASSERT_EQ(write(1, frame), 0);
  frame.assign(frame.size(), 0);  // the driver must not keep the caller's buffer
  EXPECT_EQ(LcdControl::lastFrame(1), filled(0x5a));
  EXPECT_TRUE(LcdControl::lastFrame(0).empty());
  ASSERT_EQ(write(1, frame), 0);
  EXPECT_EQ(LcdControl::lastFrame(1), filled(0));
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_TRUE(LcdControl::lastFrame(2).empty());
  EXPECT_EQ(LcdControl::framesWritten(2), 0u);

  // Re-opening keeps the counters and writes nothing itself.
  ASSERT_EQ(LcdControl::init(3), 0);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);

  LcdControl::resetCounters();
  EXPECT_EQ(LcdControl::framesWritten(1), 0u);
  EXPECT_TRUE(LcdControl::lastFrame(1).empty());
}

TEST_F(LcdTest, InvalidWritesAreRefusedAndNotCounted) {
  Frame frame = filled(1);
  EXPECT_EQ(LcdControl::writeLcd(nullptr), -1);
  LcdData noBuffer{};
  EXPECT_EQ(LcdControl::writeLcd(&noBuffer), -1);
  EXPECT_EQ(write(2, frame), -2);
  EXPECT_EQ(write(255, frame), -2);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
  EXPECT_EQ(LcdControl::framesWritten(1), 0u);
  EXPECT_TRUE(LcdControl::lastFrame(0).empty());
}

TEST(LcdUninitialisedTest, WriteBeforeInitFails) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process, so the driver has never been initialised there.
  EXPECT_EXIT(
      {
        Frame frame = filled(3);
        const int8_t status = write(0, frame);
        std::exit(status == -1 && LcdControl::framesWritten(0) == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(LcdTest, InitRejectsDepthsOutputsAndUnopenableDirectories) {
  eyetest::TempDir dir;
  const std::string file = dir.write("plain", "not a directory");
  const std::string underFile = "png:" + file + "/frames";
  for (const char* value : {"hdmi", "png:", "PNG:/tmp", "memory2", underFile.c_str()}) {
    ScopedLcdEnv env(value);
    eyetest::LogCapture log;
    EXPECT_LT(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0) << value;
    EXPECT_EQ(log.errors().size(), 1u) << value;
  }
  ScopedLcdEnv env("memory");
  for (int depth : {0, 1, 2, 4}) {
    eyetest::LogCapture log;
    EXPECT_LT(LcdControl::init(depth), 0) << depth;
    EXPECT_EQ(log.errors().size(), 1u) << depth;
  }
  eyetest::LogCapture log;
  EXPECT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  EXPECT_TRUE(log.errors().empty());

  // A failed init keeps the output that was working.
  Frame frame = filled(9);
  EXPECT_EQ(write(0, frame), 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
}

TEST_F(LcdTest, PngOutputWritesNumberedDecodedFrames) {
  eyetest::TempDir dir;
  const std::string out = (dir.path() / "a" / "b").string();  // created on open
  {
    ScopedLcdEnv env(("png:" + out).c_str());
    eyetest::LogCapture log;
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    EXPECT_TRUE(log.errors().empty());
  }
  EXPECT_TRUE(std::filesystem::is_directory(out));
  EXPECT_TRUE(std::filesystem::is_empty(out));

  Frame first = filled(0xff);
  Frame second(LcdControl::kFrameBytes);
  for (size_t i = 0; i < second.size(); ++i) second[i] = static_cast<uint8_t>(i * 37 + i / 720);
  Frame right = filled(0x00);
  ASSERT_EQ(write(0, first), 0);
  ASSERT_EQ(write(1, right), 0);
  ASSERT_EQ(write(0, second), 0);

  EXPECT_TRUE(std::filesystem::exists(out + "/lcd0_000000.png"));
  EXPECT_TRUE(std::filesystem::exists(out + "/lcd1_000000.png"));
  EXPECT_FALSE(std::filesystem::exists(out + "/lcd1_000001.png"));
  png_uint_32 width = 0, height = 0;
  const std::vector<uint8_t> pixels = readPng(out + "/lcd0_000001.png", width, height);
  EXPECT_EQ(width, 240u);
  EXPECT_EQ(height, 240u);
  EXPECT_EQ(pixels, LcdControl::unpack12Bit(second.data()));
  const std::vector<uint8_t> black = readPng(out + "/lcd1_000000.png", width, height);
  EXPECT_EQ(black, std::vector<uint8_t>(240 * 240 * 3, 0));

  // Files that cannot be written any more make writeLcd fail, but the frame still counts.
  std::filesystem::remove_all(out);
  eyetest::LogCapture log;
  EXPECT_EQ(write(1, first), -3);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_EQ(LcdControl::lastFrame(1), first);
}

TEST_F(LcdTest, SetOutputOpensAndReplacesTheOutput) {
  RecordingOutput::Log refused;
  EXPECT_LT(LcdControl::setOutput(std::make_unique<RecordingOutput>(refused, -4)), 0);
  EXPECT_EQ(refused.opens, 1);
  EXPECT_LT(LcdControl::setOutput(nullptr), 0);

  Frame frame = filled(0x21);
  ASSERT_EQ(write(0, frame), 0);  // still the memory output
  EXPECT_EQ(refused.writes[0], 0);

  RecordingOutput::Log log;
  ASSERT_EQ(LcdControl::setOutput(std::make_unique<RecordingOutput>(log, 0, 1)), 0);
  EXPECT_EQ(log.opens, 1);
  EXPECT_EQ(write(0, frame), 0);
  EXPECT_EQ(write(1, frame), -3);
  EXPECT_EQ(log.writes[0], 1);
  EXPECT_EQ(log.writes[1], 1);
  EXPECT_EQ(LcdControl::framesWritten(0), 2u);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);
  EXPECT_EQ(LcdControl::lastFrame(1), frame);
}

TEST_F(LcdTest, TwoEyesWritingAtOnce) {
  RecordingOutput::Log log;
  ASSERT_EQ(LcdControl::setOutput(std::make_unique<RecordingOutput>(log)), 0);
  constexpr int kFrames = 200;
  std::atomic<int> failures{0};
  auto eye = [&](uint8_t panel) {
    Frame frame(LcdControl::kFrameBytes);
    for (int i = 1; i <= kFrames; ++i) {
      frame.assign(frame.size(), static_cast<uint8_t>(panel * 100 + i % 100));
      if (write(panel, frame) != 0) ++failures;
      // Every recorded frame is whole: one value throughout, from this panel.
      const Frame last = LcdControl::lastFrame(panel);
      if (last.size() != frame.size() || last.front() != last.back()) ++failures;
    }
  };
  std::thread left(eye, 0), right(eye, 1);
  left.join();
  right.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(log.overlaps, 0);
  EXPECT_EQ(log.writes[0], kFrames);
  EXPECT_EQ(log.writes[1], kFrames);
  EXPECT_EQ(LcdControl::framesWritten(0), static_cast<uint64_t>(kFrames));
  EXPECT_EQ(LcdControl::framesWritten(1), static_cast<uint64_t>(kFrames));
  EXPECT_EQ(LcdControl::lastFrame(0), filled(kFrames % 100));
  EXPECT_EQ(LcdControl::lastFrame(1), filled(100 + kFrames % 100));
}
