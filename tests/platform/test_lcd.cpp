// LCD driver substitute: frame record layout, 12-bit unpacking, outputs, counters and
// concurrent writers.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "VContent.h"

namespace {

using Frame = std::vector<uint8_t>;

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
    if (const char* old = std::getenv("EYE_LCD")) previous_ = old;
    value != nullptr ? setenv("EYE_LCD", value, 1) : unsetenv("EYE_LCD");
  }
  ~ScopedLcdEnv() { previous_ ? setenv("EYE_LCD", previous_->c_str(), 1) : unsetenv("EYE_LCD"); }

 private:
  std::optional<std::string> previous_;
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

}  // namespace

TEST(LcdDataTest, LayoutIsTheDriversRecord) {
  EXPECT_EQ(sizeof(LcdData), 16u);
  EXPECT_EQ(offsetof(LcdData, lcd), 0u);
  EXPECT_EQ(offsetof(LcdData, buffer), 8u);
}

TEST(Unpack12BitTest, RecoversEveryPixelOfAPackedFrame) {
  // Pair P, Q: [P.b P.g] [P.r Q.b] [Q.g Q.r]; every byte value at every position.
  Frame frame(LcdControl::kFrameBytes);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7 + i / 256);
  const std::vector<uint8_t> out = LcdControl::unpack12Bit(frame.data());
  ASSERT_EQ(out.size(), frame.size() * 2);
  for (size_t pair = 0; pair < frame.size() / 3; ++pair) {
    const uint8_t* in = &frame[pair * 3];
    const std::vector<int> nibbles = {in[1] >> 4, in[0] & 15, in[0] >> 4,
                                      in[2] & 15, in[2] >> 4, in[1] & 15};
    for (int k = 0; k < 6; ++k) ASSERT_EQ(out[pair * 6 + k], nibbles[k] * 17) << pair << "/" << k;
  }
  EXPECT_TRUE(LcdControl::unpack12Bit(nullptr).empty());
}

TEST_F(LcdTest, LastFrameIsACopyAndOnlyValidWritesCount) {
  Frame frame = filled(0x5a);
  ASSERT_EQ(write(1, frame), 0);
  frame.assign(frame.size(), 0);  // the driver must not keep the caller's buffer
  EXPECT_EQ(LcdControl::lastFrame(1), filled(0x5a));
  ASSERT_EQ(write(1, frame), 0);
  EXPECT_EQ(LcdControl::lastFrame(1), filled(0));

  EXPECT_EQ(LcdControl::writeLcd(nullptr), -1);
  LcdData noBuffer{};
  EXPECT_EQ(LcdControl::writeLcd(&noBuffer), -1);
  EXPECT_EQ(write(2, frame), -2);
  EXPECT_EQ(write(255, frame), -2);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_TRUE(LcdControl::lastFrame(0).empty());
  EXPECT_TRUE(LcdControl::lastFrame(2).empty());

  // Re-opening keeps the counters and writes nothing itself.
  ASSERT_EQ(LcdControl::init(3), 0);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  LcdControl::resetCounters();
  EXPECT_EQ(LcdControl::framesWritten(1), 0u);
  EXPECT_TRUE(LcdControl::lastFrame(1).empty());
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

  // The image library reads them back as 8-bit RGB of the 12-bit pixels.
  const VContent shown = VContent::getImage(out + "/lcd0_000001.png", false, false);
  EXPECT_EQ(shown.width * shown.height, 240 * 240);
  EXPECT_EQ(shown.frames.at(0), LcdControl::unpack12Bit(second.data()));
  EXPECT_EQ(VContent::getImage(out + "/lcd1_000000.png", false, false).frames.at(0),
            std::vector<uint8_t>(240 * 240 * 3, 0));
  EXPECT_TRUE(std::filesystem::exists(out + "/lcd0_000000.png"));
  EXPECT_FALSE(std::filesystem::exists(out + "/lcd1_000001.png"));

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
  EXPECT_EQ(log.writes[0] + log.writes[1], 2 * kFrames);
  EXPECT_EQ(LcdControl::framesWritten(0) + LcdControl::framesWritten(1), 2u * kFrames);
  EXPECT_EQ(LcdControl::lastFrame(0), filled(kFrames % 100));
  EXPECT_EQ(LcdControl::lastFrame(1), filled(100 + kFrames % 100));
}
