// ST7789 panel output without hardware: a recording transport captures the wire
// traffic and a model of the controller replays it into panel memory.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "St7789.h"

namespace {

using Bytes = std::vector<uint8_t>;

// What went over the wires, in order.
struct Wire {
  enum Kind { RESET, DATA_COMMAND, SPI, DELAY };
  struct Event {
    Kind kind;
    uint8_t panel;
    bool level;  // reset level, D/C level, or the D/C level the SPI bytes went with
    Bytes bytes;
    int ms;
  };
  std::vector<Event> events;
  size_t maxTransfer = 4096;
  int openStatus = 0;
  int opens = 0;
  long spiFailsAfter = -1;  // successful SPI writes left before they fail; -1 = never
};

class RecordingTransport : public PanelTransport {
 public:
  explicit RecordingTransport(std::shared_ptr<Wire> wire) : wire_(std::move(wire)) {}
  int open() override {
    ++wire_->opens;
    return wire_->openStatus;
  }
  int setDataCommand(uint8_t panel, bool data) override {
    dc_.at(panel) = data;
    wire_->events.push_back({Wire::DATA_COMMAND, panel, data, {}, 0});
    return 0;
  }
  int reset(uint8_t panel, bool level) override {
    wire_->events.push_back({Wire::RESET, panel, level, {}, 0});
    return 0;
  }
  int spiWrite(uint8_t panel, const uint8_t* bytes, size_t size) override {
    if (wire_->spiFailsAfter == 0) return -5;
    if (wire_->spiFailsAfter > 0) --wire_->spiFailsAfter;
    wire_->events.push_back({Wire::SPI, panel, dc_.at(panel), Bytes(bytes, bytes + size), 0});
    return 0;
  }
  size_t maxTransfer() const override { return wire_->maxTransfer; }
  void delayMs(int ms) override { wire_->events.push_back({Wire::DELAY, 0, false, {}, ms}); }
  std::string describe() const override { return "recording"; }

 private:
  std::shared_ptr<Wire> wire_;
  std::array<bool, 2> dc_{};
};

// One ST7789 as far as this driver uses it: commands with their parameters, the
// address window, and 12-bit pixel data into a 240 x 240 memory.
class PanelModel {
 public:
  struct Command {
    uint8_t code;
    Bytes params;
    int atMs;  // time stamp from the recorded delays
  };

  // Replays the traffic of `panel`; the clock advances with every recorded delay.
  PanelModel(const Wire& wire, uint8_t panel) {
    memory_.fill(kUnwritten);
    int now = 0;
    bool resetLow = false;
    for (const auto& e : wire.events) {
      if (e.kind == Wire::DELAY) now += e.ms;
      if (e.panel != panel) continue;
      if (e.kind == Wire::RESET) {
        if (e.level && resetLow) resetsAtMs.push_back(now), softwareReset();
        resetLow = !e.level;
      } else if (e.kind == Wire::SPI) {
        for (uint8_t byte : e.bytes) e.level ? data(byte) : command(byte, now);
      }
    }
  }

  std::vector<Command> commands;
  std::vector<int> resetsAtMs;
  std::vector<size_t> pixelsPerWrite;  // pixels streamed after each RAMWR
  int leftoverNibbles = 0;             // of the last RAMWR: a pixel cut short

  // 8-bit RGB like LcdControl::unpack12Bit; pixels never written come out as 1, 2, 3,
  // which no 12-bit colour expands to.
  Bytes picture() const {
    Bytes rgb;
    for (uint16_t p : memory_) {
      if (p == kUnwritten) rgb.insert(rgb.end(), {1, 2, 3});
      for (int shift : {8, 4, 0})
        if (p != kUnwritten) rgb.push_back(static_cast<uint8_t>((p >> shift & 15) * 17));
    }
    return rgb;
  }

 private:
  static constexpr uint16_t kUnwritten = 0xFFFF;
  static constexpr int kSize = 240;

  void softwareReset() {
    madctl_ = 0, colmod_ = 0x66;
    x0_ = y0_ = 0, x1_ = y1_ = 239;
    inRamWrite_ = false;
  }

  void command(uint8_t code, int now) {
    commands.push_back({code, {}, now});
    inRamWrite_ = code == ST7789_RAMWR;
    if (code == ST7789_SWRESET) softwareReset();
    if (inRamWrite_) {
      x_ = x0_, y_ = y0_;
      nibbleCount_ = leftoverNibbles = 0;
      pixelsPerWrite.push_back(0);
    }
  }

  void data(uint8_t byte) {
    if (commands.empty()) {
      ADD_FAILURE() << "data byte before any command";
      return;
    }
    if (inRamWrite_) {
      nibble(byte >> 4);
      nibble(byte & 15);
      return;
    }
    Command& c = commands.back();
    c.params.push_back(byte);
    const Bytes& p = c.params;
    if (c.code == ST7789_CASET && p.size() == 4) x0_ = p[0] << 8 | p[1], x1_ = p[2] << 8 | p[3];
    if (c.code == ST7789_RASET && p.size() == 4) y0_ = p[0] << 8 | p[1], y1_ = p[2] << 8 | p[3];
    if (c.code == ST7789_COLMOD) colmod_ = p[0];
    if (c.code == ST7789_MADCTL) madctl_ = p[0];
  }

  void nibble(uint8_t n) {
    ASSERT_EQ(colmod_ & 7, 3) << "pixel data while not in 12-bit mode";
    nibbles_[nibbleCount_++] = n;
    leftoverNibbles = nibbleCount_;
    if (nibbleCount_ < 3) return;
    nibbleCount_ = leftoverNibbles = 0;
    // The controller takes red first unless MADCTL asks for blue first.
    const bool bgr = madctl_ & ST7789_MADCTL_BGR;
    const uint8_t r = nibbles_[bgr ? 2 : 0], g = nibbles_[1], b = nibbles_[bgr ? 0 : 2];
    if (x_ < kSize && y_ < kSize)
      memory_[y_ * kSize + x_] = static_cast<uint16_t>(r << 8 | g << 4 | b);
    ++pixelsPerWrite.back();
    if (++x_ > x1_) {
      x_ = x0_;
      if (++y_ > y1_) y_ = y0_;
    }
  }

  std::array<uint16_t, kSize * kSize> memory_;
  bool inRamWrite_ = false;
  int madctl_ = 0, colmod_ = 0x66;
  int x0_ = 0, x1_ = 239, y0_ = 0, y1_ = 239, x_ = 0, y_ = 0;
  uint8_t nibbles_[3] = {};
  int nibbleCount_ = 0;
};

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

  // The next frame starts over with a fresh window and arrives whole.
  wire->spiFailsAfter = -1;
  const Bytes next = randomFrame(6);
  ASSERT_EQ(output.write(0, next.data()), 0);
  EXPECT_EQ(PanelModel(*wire, 0).picture(), LcdControl::unpack12Bit(next.data()));
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
  EXPECT_EQ(LcdControl::writeLcd(&data), -3);
}

}  // namespace
