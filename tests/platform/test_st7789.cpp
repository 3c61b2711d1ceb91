// ST7789 panel output without hardware: a recording transport captures the wire
// traffic and a model of the controller replays it into panel memory.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "PanelRecorder.h"
#include "SpidevTransport.h"
#include "St7789Output.h"

namespace {

using eyetest::Bytes;
using eyetest::PanelModel;
using eyetest::RecordingTransport;
using eyetest::Wire;

Bytes randomFrame(unsigned seed) {
  std::mt19937 random(seed);
  Bytes frame(LcdControl::kFrameBytes);
  for (auto& b : frame) b = static_cast<uint8_t>(random());
  return frame;
}

class St7789Test : public ::testing::Test {
 protected:
  std::shared_ptr<Wire> wire = std::make_shared<Wire>();
  St7789Output output{std::make_unique<RecordingTransport>(wire)};
};

TEST(St7789Options, ParsesKeysOverTheDefaultsAndRejectsBadOnes) {
  St7789Options options;
  std::string error;
  ASSERT_TRUE(St7789Options::parse("", options, error));
  EXPECT_EQ(options.describe(), St7789Options().describe());

  ASSERT_TRUE(St7789Options::parse(
      "spi1=/dev/spidev1.0,gpiochip=/dev/gpiochip4,dc0=5,dc1=5,rst0=-1,rst1=17,hz=32000000,mode=3",
      options, error))
      << error;
  EXPECT_EQ(options.spi[0], "/dev/spidev0.0");
  EXPECT_EQ(options.spi[1], "/dev/spidev1.0");
  EXPECT_EQ(options.gpiochip, "/dev/gpiochip4");
  EXPECT_EQ(options.dc, (std::array<int, 2>{5, 5}));
  EXPECT_EQ(options.rst, (std::array<int, 2>{-1, 17}));
  EXPECT_EQ(options.hz, 32000000u);
  EXPECT_EQ(options.mode, 3);

  const std::string before = options.describe();
  for (const char* bad :
       {"foo=1", "dc0=x", "dc0=-1", "dc1=", "rst1=-2", "mode=4", "hz=0", "hz=4294967296",
        "spi0=", "dc0", "=3", "hz=1,", ",hz=1", "dc0=1 ", "dc1=17"}) {
    error.clear();
    EXPECT_FALSE(St7789Options::parse(bad, options, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
    EXPECT_EQ(options.describe(), before) << bad;  // untouched on failure
  }
}

// One session per transfer limit, checked whole: reset pulses, start-up sequence and
// its timing, a full window per frame, frame data in whole pixel pairs within the
// limit, and panel memory holding the last frame of each panel.
TEST_F(St7789Test, SessionStartsUpAndStreamsWholeFramesWithinTheTransportLimit) {
  const Bytes left = randomFrame(1), right = randomFrame(2), again = randomFrame(3);
  using Commands = std::vector<std::pair<uint8_t, Bytes>>;
  const Commands startUp = {{ST7789_SWRESET, {}},    {ST7789_SLPOUT, {}}, {ST7789_COLMOD, {0x53}},
                            {ST7789_MADCTL, {0x08}}, {ST7789_INVON, {}},  {ST7789_NORON, {}},
                            {ST7789_DISPON, {}}};
  const Commands window = {
      {ST7789_CASET, {0, 0, 0, 239}}, {ST7789_RASET, {0, 0, 0, 239}}, {ST7789_RAMWR, {}}};
  for (size_t limit : {size_t{4096}, size_t{1000}, size_t{7}, size_t{2}}) {
    SCOPED_TRACE(limit);
    wire->events.clear();
    wire->maxTransfer = limit;
    ASSERT_EQ(output.open(), 0);
    ASSERT_EQ(output.write(1, right.data()), 0);
    ASSERT_EQ(output.write(0, left.data()), 0);
    ASSERT_EQ(output.write(0, again.data()), 0);

    // Both reset pulses, at least 1 ms low, come before any SPI traffic.
    for (uint8_t panel = 0; panel < 2; ++panel) {
      int lowMs = -1;
      bool pulsed = false;
      for (const auto& e : wire->events) {
        if (e.kind == Wire::SPI) break;
        if (e.kind == Wire::DELAY && lowMs >= 0 && !pulsed) lowMs += e.ms;
        if (e.kind == Wire::RESET && e.panel == panel) {
          if (!e.level) lowMs = 0;
          if (e.level && lowMs >= 0) pulsed = true;
        }
      }
      EXPECT_TRUE(pulsed && lowMs >= 1) << int(panel) << " low for " << lowMs;
    }

    for (uint8_t panel = 0; panel < 2; ++panel) {
      const PanelModel model(*wire, panel);
      Commands expected = startUp;
      for (size_t frame = 0; frame < 2u - panel; ++frame)
        expected.insert(expected.end(), window.begin(), window.end());
      Commands sent;
      for (const auto& c : model.commands) sent.emplace_back(c.code, c.params);
      ASSERT_EQ(sent, expected) << int(panel);
      ASSERT_EQ(model.resetsAtMs.size(), 1u);
      // 120 ms from reset to the first command and from SWRESET to SLPOUT, 5 ms after SLPOUT.
      EXPECT_GE(model.commands[0].atMs - model.resetsAtMs[0], 120);
      EXPECT_GE(model.commands[1].atMs - model.commands[0].atMs, 120);
      EXPECT_GE(model.commands[2].atMs - model.commands[1].atMs, 5);
      EXPECT_EQ(model.pixelsPerWrite, std::vector<size_t>(2u - panel, 57600));
      EXPECT_EQ(model.leftoverNibbles, 0);
      EXPECT_EQ(model.picture(), LcdControl::unpack12Bit((panel == 0 ? again : right).data()));
    }

    // Frame data in whole pixel pairs, using the limit (every chunk but a frame's last).
    std::vector<size_t> pixelChunks;
    bool afterRamWrite = false;
    for (const auto& e : wire->events) {
      if (e.kind != Wire::SPI) continue;
      EXPECT_LE(e.bytes.size(), limit);
      if (!e.level) afterRamWrite = e.bytes == Bytes{ST7789_RAMWR};
      if (e.level && afterRamWrite) pixelChunks.push_back(e.bytes.size());
    }
    size_t total = 0;
    for (size_t i = 0; i < pixelChunks.size(); ++i) {
      total += pixelChunks[i];
      EXPECT_TRUE(limit < 3 || pixelChunks[i] % 3 == 0) << i;
      EXPECT_TRUE(total % LcdControl::kFrameBytes == 0 || pixelChunks[i] + 3 > limit) << i;
    }
    EXPECT_EQ(total, 3 * LcdControl::kFrameBytes);
  }

  // Colour order on the glass, independent of unpack12Bit: pixel 0 pure red, pixel 1
  // pure blue, pixel 2 pure green.
  Bytes frame(LcdControl::kFrameBytes, 0);
  frame[1] = 0xFF;  // [P.r Q.b]
  frame[3] = 0x0F;  // next pair: [P.b P.g]
  ASSERT_EQ(output.write(0, frame.data()), 0);
  const Bytes rgb = PanelModel(*wire, 0).picture();
  EXPECT_EQ(Bytes(rgb.begin(), rgb.begin() + 9), (Bytes{255, 0, 0, 0, 0, 255, 0, 255, 0}));
}

TEST_F(St7789Test, TransportFailuresGiveNegativeStatusAndFramesRecover) {
  const Bytes frame = randomFrame(5);
  eyetest::LogCapture log;

  // Not opened yet, and an open that fails: nothing goes out.
  EXPECT_LT(output.write(0, frame.data()), 0);
  wire->openStatus = -1;
  EXPECT_LT(output.open(), 0);
  EXPECT_LT(output.write(0, frame.data()), 0);
  EXPECT_TRUE(wire->events.empty());

  // Failing during the start-up sequence.
  wire->openStatus = 0;
  wire->spiFailsAfter = 5;
  EXPECT_LT(output.open(), 0);
  EXPECT_EQ(log.errors().size(), 1u);
  EXPECT_LT(output.write(0, frame.data()), 0);

  // Failing in the middle of a frame: one log line however many frames fail.
  wire->spiFailsAfter = -1;
  ASSERT_EQ(output.open(), 0);
  log.clear();
  wire->spiFailsAfter = 10;  // the window commands and a few chunks of pixels
  EXPECT_LT(output.write(0, frame.data()), 0);
  EXPECT_LT(output.write(0, frame.data()), 0);
  ASSERT_EQ(log.errors().size(), 1u);
  EXPECT_NE(log.errors()[0].find("panel 0"), std::string::npos) << log.errors()[0];
  // What comes after a failure: ChangedRegionsGoAsWindowsAndThePanelsAlwaysHoldTheFrame.
}

// Frames after the first go as windows around what changed, checked against live
// models of both panels after every write.
TEST_F(St7789Test, ChangedRegionsGoAsWindowsAndThePanelsAlwaysHoldTheFrame) {
  eyetest::LogCapture log;  // the cut-short write logs
  std::array<PanelModel, 2> model;
  for (uint8_t p = 0; p < 2; ++p) model[p].follow(p), wire->live[p] = &model[p];
  ASSERT_EQ(output.open(), 0);
  std::array<Bytes, 2> frame = {randomFrame(8), randomFrame(9)};
  // Changes bytes [pair0 * 3, pair1 * 3 + 3) of rows [row0, row1]: both pixels of each pair.
  auto change = [](int row0, int row1, int pair0, int pair1) {
    return [=](Bytes& f) {
      for (int r = row0; r <= row1; ++r)
        for (int p = pair0; p <= pair1; ++p) f[r * 360 + p * 3 + 1] ^= 0x11;
    };
  };
  auto whole = change(0, 239, 0, 119);
  struct Step {
    const char* what;
    uint8_t panel;
    std::function<void(Bytes&)> edit;
    size_t pixels, windows;  // sent; ~0 = the write fails
    long failAfter = -1;
  };
  const size_t kFails = ~size_t{0};
  const Step steps[] = {
      {"first frame of panel 1", 1, [](Bytes&) {}, 57600, 1},
      {"first frame of panel 0", 0, [](Bytes&) {}, 57600, 1},
      {"hold", 0, [](Bytes&) {}, 0, 0},
      {"iris move", 0, change(100, 139, 30, 49), 40 * 40, 1},
      {"iris move on the other panel", 1, change(90, 129, 40, 59), 40 * 40, 1},
      {"blink: two lid bands", 0,
       [&](Bytes& f) { change(0, 59, 0, 119)(f), change(200, 239, 0, 119)(f); }, 100 * 240, 2},
      {"last pair of a row", 1, change(5, 5, 119, 119), 2, 1},
      {"bands one row apart merge", 0,
       [&](Bytes& f) { change(10, 11, 0, 119)(f), change(13, 14, 0, 119)(f); }, 5 * 240, 1},
      {"a write cut short", 0, whole, kFails, 0, 4},
      {"one pixel after the failure", 0, change(7, 7, 3, 3), 57600, 1},
      {"hold on the other panel", 1, [](Bytes&) {}, 0, 0},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.edit(frame[step.panel]);
    const size_t pixelsBefore = wire->spiBytes;
    const size_t writesBefore = model[step.panel].pixelsPerWrite.size();
    wire->spiFailsAfter = step.failAfter;
    const int status = output.write(step.panel, frame[step.panel].data());
    wire->spiFailsAfter = -1;
    if (step.pixels == kFails) {
      EXPECT_LT(status, 0);
      continue;
    }
    ASSERT_EQ(status, 0);
    const auto& writes = model[step.panel].pixelsPerWrite;
    size_t pixels = 0;
    for (size_t i = writesBefore; i < writes.size(); ++i) pixels += writes[i];
    EXPECT_EQ(pixels, step.pixels);
    EXPECT_EQ(writes.size() - writesBefore, step.windows);
    if (step.pixels == 0) {
      EXPECT_EQ(wire->spiBytes, pixelsBefore);  // not even a command
    }
    for (uint8_t p = 0; p < 2; ++p)
      if (!model[p].pixelsPerWrite.empty()) {
        ASSERT_EQ(model[p].picture(), LcdControl::unpack12Bit(frame[p].data())) << int(p);
      }
  }
  output.requestFullFrames();
  ASSERT_EQ(output.write(1, frame[1].data()), 0);
  EXPECT_EQ(model[1].pixelsPerWrite.back(), 57600u);
}

// EYE_LCD selects the output; LcdControl's state is put back to memory afterwards.
class St7789LcdControlTest : public ::testing::Test {
 protected:
  void TearDown() override {
    setenv("EYE_LCD", "memory", 1);
    EXPECT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    LcdControl::resetCounters();
  }
};

TEST_F(St7789LcdControlTest, EyeLcdOptionsAndAbsentDevicesFailInitWithALogLine) {
  // Absent, and present but not an SPI device (its set-up ioctls fail).
  for (const char* device : {"/nonexistent/spidev9.9", "/dev/null"}) {
    setenv("EYE_LCD", ("st7789:spi0=" + std::string(device)).c_str(), 1);
    eyetest::LogCapture log;
    EXPECT_LT(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    ASSERT_EQ(log.errors().size(), 1u);
    EXPECT_NE(log.errors()[0].find(device), std::string::npos) << log.errors()[0];
  }
  for (const char* bad : {"st7789:colour=bgr", "st7789:hz=fast", "st7789x"}) {
    setenv("EYE_LCD", bad, 1);
    eyetest::LogCapture log;
    EXPECT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), -2) << bad;
    EXPECT_EQ(log.errors().size(), 1u) << bad;
  }
}

TEST_F(St7789LcdControlTest, WriteLcdReachesThePanelAndReportsTransportFailure) {
  auto wire = std::make_shared<Wire>();
  ASSERT_EQ(LcdControl::setOutput(
                std::make_unique<St7789Output>(std::make_unique<RecordingTransport>(wire))),
            0);
  Bytes frame = randomFrame(7);
  LcdData data{};
  data.lcd = 1;
  data.buffer = frame.data();
  EXPECT_EQ(LcdControl::writeLcd(&data), 0);
  EXPECT_EQ(PanelModel(*wire, 1).picture(), LcdControl::unpack12Bit(frame.data()));

  eyetest::LogCapture log;
  wire->spiFailsAfter = 0;
  frame[0] ^= 0x11;  // the same frame again would send nothing
  EXPECT_EQ(LcdControl::writeLcd(&data), -3);
}

}  // namespace
