// LCD driver substitute and its outputs: frame records and counters, EYE_LCD, PNG files,
// and the ST7789 panels, whose wire traffic feeds models of the controller that must hold
// every frame written (see PanelRecorder.h for what each message is checked for).
#include <algorithm>
#include <functional>
#include <numeric>
#include <random>
#include <tuple>

#include "EyeTestSupport.h"
#include "PanelRecorder.h"
#include "SpidevTransport.h"
#include "VContent.h"

namespace {

using eyetest::Bytes;
constexpr size_t kFrameBytes = LcdControl::kFrameBytes;

Bytes randomFrame(unsigned seed) {
  Bytes frame(kFrameBytes);
  std::generate(frame.begin(), frame.end(), std::mt19937(seed));
  return frame;
}

int8_t write(uint8_t panel, Bytes frame) {
  LcdData data{panel, {}, frame.data()};
  return LcdControl::writeLcd(&data);
}

int init(const std::string& lcd, int depth = LCD_COLOR_DEPTH_12BIT) {
  setenv("EYE_LCD", lcd.c_str(), 1);
  return LcdControl::init(depth);
}

// Each test starts on the memory output with zeroed counters and leaves it in place.
class LcdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(init(""), 0);
    LcdControl::resetCounters();
  }
  void TearDown() override { EXPECT_EQ(init("memory"), 0); }
};

TEST_F(LcdTest, InvalidWritesDoNotCountAndCountersSurviveReopening) {
  EXPECT_EQ(LcdControl::writeLcd(nullptr), -1);
  LcdData noBuffer{};
  EXPECT_EQ(LcdControl::writeLcd(&noBuffer), -1);
  EXPECT_EQ(write(2, Bytes(kFrameBytes)), -2);
  ASSERT_EQ(write(1, Bytes(kFrameBytes)), 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
  EXPECT_TRUE(LcdControl::lastFrame(0).empty() && LcdControl::lastFrame(2).empty());
  // Re-opening keeps the counters and writes nothing itself.
  ASSERT_EQ(LcdControl::init(3), 0);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);
  LcdControl::resetCounters();
  EXPECT_EQ(LcdControl::framesWritten(1), 0u);
  EXPECT_TRUE(LcdControl::lastFrame(1).empty());

  // An output that cannot open is refused with its status; the one before stays.
  auto wire = std::make_shared<eyetest::Wire>();
  wire->openStatus = -4;
  EXPECT_EQ(LcdControl::setOutput(std::make_unique<St7789Output>(
                std::make_unique<eyetest::RecordingTransport>(wire))),
            -4);
  EXPECT_LT(LcdControl::setOutput(nullptr), 0);
  EXPECT_EQ(write(0, Bytes(kFrameBytes)), 0);
  EXPECT_TRUE(wire->events.empty());
}

// Each failure logs one line naming its cause, and keeps the output that was working.
TEST_F(LcdTest, InitRejectsDepthsOutputsOptionsAndUnopenableDevices) {
  eyetest::TempDir dir;
  const std::string underFile = dir.write("plain", "not a directory") + "/frames";
  // Options at the edges of their ranges pass (the absent device fails then).
  const std::string edges = "st7789:dc1=65535,rst0=-1,rst1=0,hz=1,mode=3,spi0=/nonexistent/e";
  const std::tuple<std::string, int, int, std::string> cases[] = {
      {"memory", 0, -1, "depth 0"},
      {"memory", 4, -1, "depth 4"},
      {"png:" + underFile, 3, -3, underFile},
      {edges, 3, -3, "/nonexistent/e"},
      {"st7789:hz=4294967295,spi0=/dev/null", 3, -3, "/dev/null"}};  // not SPI: set-up fails
  for (const auto& [lcd, depth, status, named] : cases) {
    eyetest::LogCapture log;
    EXPECT_EQ(init(lcd, depth), status) << lcd;
    ASSERT_EQ(log.errors().size(), 1u) << lcd;
    EXPECT_NE(log.errors()[0].find(named), std::string::npos) << log.errors()[0];
  }
  // Unknown outputs and bad options (named in the line); dc1=22 is rst1's line.
  std::vector<std::string> bad = {"hdmi", "png:", "PNG:/tmp", "memory2", "st7789x"};
  for (const char* options :
       {"colour=bgr", "hz=fast", "dc0=-1", "dc1=65536", "rst1=-2", "mode=4", "hz=0",
        "hz=4294967296", "spi0=", "gpiochip=", "dc0", "=3", "hz=1,", ",hz=1", "dc0=1 ", "dc1=22"})
    bad.push_back(std::string("st7789:") + options);
  for (const std::string& lcd : bad) {
    eyetest::LogCapture log;
    EXPECT_EQ(init(lcd), -2) << lcd;
    EXPECT_EQ(log.errors().size(), 1u) << lcd;
  }
  EXPECT_EQ(write(0, Bytes(kFrameBytes)), 0);
}

TEST_F(LcdTest, PngOutputWritesNumberedFramesTheImageLibraryReadsBack) {
  eyetest::TempDir dir;
  const std::string out = (dir.path() / "a" / "b").string();  // created on open
  ASSERT_EQ(init("png:" + out), 0);
  const Bytes white(kFrameBytes, 0xff), frame = randomFrame(1);
  for (auto [panel, data] : {std::pair{0, white}, {1, frame}, {0, frame}})
    ASSERT_EQ(write(panel, data), 0);
  for (auto [name, data] :
       {std::pair{"lcd0_000000", white}, {"lcd0_000001", frame}, {"lcd1_000000", frame}}) {
    const VContent shown = VContent::getImage(out + "/" + name + ".png", false, false);
    EXPECT_EQ(shown.frames.at(0), LcdControl::unpack12Bit(data.data())) << name;
  }
  EXPECT_EQ(LcdControl::lastFrame(0), frame);  // a copy: the buffer written is gone
  // Files that cannot be written any more make writeLcd fail, but the frame still counts.
  std::filesystem::remove_all(out);
  eyetest::LogCapture log;
  EXPECT_EQ(write(1, frame), -3);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_EQ(LcdControl::lastFrame(1), frame);
}

// ---------------------------------------------------------------- ST7789 panels

// Each key to its field, over the defaults.
TEST(St7789Options, ParseOverTheDefaults) {
  St7789Options options;
  std::string error;
  EXPECT_TRUE(St7789Options::parse("spi1=/s,gpiochip=/g,dc0=5,dc1=6,rst0=-1,rst1=7,mode=3,hz=9",
                                   options, error));
  EXPECT_EQ(options.describe(),
            "spi0=/dev/spidev0.0,spi1=/s,gpiochip=/g,dc0=5,dc1=6,rst0=-1,rst1=7,hz=9,mode=3");
}

// A message takes pieces while their sizes, rounded up to the DMA alignment, fit the
// kernel's buffer (the first piece always), up to the transfer limit.
TEST(SpidevTransport, MessagesFitTheKernelBufferAndUnopenedPanelsFail) {
  const uint8_t byte = 0;
  const SpiPiece pieces[] = {{&byte, 100}, {&byte, 1}, {&byte, 129}, {&byte, 5000}};
  const size_t cases[][3] = {{4096, 64, 3}, {4096, 2, 2}, {256, 64, 2},
                             {255, 64, 1},  {64, 64, 1},  {8192, 64, 4}};
  for (auto [bufsiz, transfers, taken] : cases)
    EXPECT_EQ(spidevMessagePieces(pieces, 4, bufsiz, transfers), taken) << bufsiz << transfers;
  const auto transport = makeSpidevTransport(St7789Options{});
  for (uint8_t panel : {0, 1, 2})  // both fail
    EXPECT_EQ(transport->spiWrite(panel, pieces, 0) + transport->setDataCommand(panel, 1), -2);
}

// Opening pulses reset and starts both panels up with the controller's delays. Frames go
// as windows around what changed; whole when what a panel holds is not known (first
// frames, after a failure, on request). Failures give a negative status and one log line
// however many frames fail. The transport checks every message; models of both panels
// must hold every frame written.
TEST(St7789Output, StartsUpSendsWhatChangedAndThePanelsHoldEveryFrame) {
  auto wire = std::make_shared<eyetest::Wire>();
  St7789Output output(std::make_unique<eyetest::RecordingTransport>(wire));
  std::array<eyetest::PanelModel, 2> model;
  for (uint8_t p = 0; p < 2; ++p) model[p].follow(p), wire->live[p] = &model[p];
  std::array<Bytes, 2> frame = {randomFrame(8), randomFrame(9)};
  EXPECT_LT(output.write(0, frame[0].data()), 0);  // not opened yet
  ASSERT_EQ(output.open(), 0);
  const std::vector<std::pair<uint8_t, Bytes>> startUp = {
      {ST7789_SWRESET, {}}, {ST7789_SLPOUT, {}}, {ST7789_COLMOD, {0x53}}, {ST7789_MADCTL, {0x08}},
      {ST7789_INVON, {}},   {ST7789_NORON, {}},  {ST7789_DISPON, {}}};
  for (const auto& panel : model) {
    ASSERT_EQ(panel.commands, startUp);
    ASSERT_EQ(panel.resets.size(), 1u);
    EXPECT_GE(panel.resets[0].first, 1);  // ms held low
    // 120 ms from reset to the first command and from SWRESET to SLPOUT, 5 ms after SLPOUT.
    EXPECT_GE(panel.commandsAtMs[0] - panel.resets[0].second, 120);
    EXPECT_GE(panel.commandsAtMs[1] - panel.commandsAtMs[0], 120);
    EXPECT_GE(panel.commandsAtMs[2] - panel.commandsAtMs[1], 5);
  }

  // Changes both pixels of pairs [pair0, pair1] on the rows of each range.
  using Edit = std::function<void(Bytes&)>;
  auto change = [](std::vector<std::pair<int, int>> rows, int pair0, int pair1) -> Edit {
    return [=](Bytes& f) {
      for (auto [row0, row1] : rows)
        for (int r = row0; r <= row1; ++r)
          for (int p = pair0; p <= pair1; ++p) f[r * 360 + p * 3 + 1] ^= 0x11;
    };
  };
  const Edit none = [](Bytes&) {}, whole = [&](Bytes&) { output.requestFullFrames(); };
  // What, panel, edit, transfer limit, pixels sent (kFails: the write fails), windows,
  // SPI messages that go through before failing (-1: all).
  const size_t kFails = ~size_t{0}, kWhole = 57600;
  const std::tuple<const char*, uint8_t, Edit, size_t, size_t, size_t, long> steps[] = {
      {"first frame of panel 1", 1, none, 4096, kWhole, 1, -1},
      {"first frame of panel 0, in 2-byte messages", 0, none, 2, kWhole, 1, -1},
      {"hold", 0, none, 4096, 0, 0, -1},
      {"iris move", 0, change({{100, 139}}, 30, 49), 7, 40 * 40, 1, -1},
      {"iris move on the other panel", 1, change({{90, 129}}, 40, 59), 1000, 40 * 40, 1, -1},
      {"blink: two lid bands", 0, change({{0, 59}, {200, 239}}, 0, 119), 4096, 100 * 240, 2, -1},
      {"last pair of a row", 1, change({{5, 5}}, 119, 119), 4096, 2, 1, -1},
      {"bands a row apart merge", 0, change({{10, 11}, {13, 14}}, 0, 119), 4096, 5 * 240, 1, -1},
      {"a write cut short", 0, change({{0, 239}}, 0, 119), 4096, kFails, 0, 4},
      {"and the next", 0, none, 4096, kFails, 0, 0},
      {"one pixel after the failures", 0, change({{7, 7}}, 3, 3), 1000, kWhole, 1, -1},
      {"asked for whole frames", 1, whole, 4096, kWhole, 1, -1}};
  eyetest::LogCapture log;
  for (const auto& [what, panel, edit, limit, pixels, windows, failAfter] : steps) {
    SCOPED_TRACE(what);
    edit(frame[panel]);
    wire->maxTransfer = limit;
    wire->spiFailsAfter = failAfter;
    const size_t eventsBefore = wire->events.size();
    const std::vector<size_t>& writes = model[panel].pixelsPerWrite;
    const size_t writesBefore = writes.size();
    const int status = output.write(panel, frame[panel].data());
    wire->spiFailsAfter = -1;
    EXPECT_EQ(status < 0, pixels == kFails);
    if (pixels == kFails) continue;
    EXPECT_EQ(std::accumulate(writes.begin() + writesBefore, writes.end(), size_t{0}), pixels);
    EXPECT_EQ(writes.size() - writesBefore, windows);
    EXPECT_EQ(model[panel].leftoverNibbles, 0);
    EXPECT_TRUE(pixels > 0 || wire->events.size() == eventsBefore);  // not even a command
    for (uint8_t p = 0; p < 2; ++p)
      EXPECT_TRUE(model[p].pixelsPerWrite.empty() ||
                  model[p].picture() == LcdControl::unpack12Bit(frame[p].data()))
          << "panel " << int(p);
  }
  ASSERT_EQ(log.errors().size(), 1u);
  EXPECT_NE(log.errors()[0].find("panel 0"), std::string::npos) << log.errors()[0];

  // Colour order on the glass, independent of unpack12Bit: pixel 0 pure red, pixel 1
  // pure blue, pixel 2 pure green.
  Bytes colours(kFrameBytes, 0);
  colours[1] = 0xFF, colours[3] = 0x0F;  // [P.r Q.b], and of the next pair [P.b P.g]
  ASSERT_EQ(output.write(0, colours.data()), 0);
  EXPECT_EQ(Bytes(model[0].picture().begin(), model[0].picture().begin() + 9),
            (Bytes{255, 0, 0, 0, 0, 255, 0, 255, 0}));

  // Opening again with a start-up cut short: logged, and no frames go out after it.
  wire->spiFailsAfter = 5;
  EXPECT_LT(output.open(), 0);
  EXPECT_LT(output.write(0, colours.data()), 0);
  EXPECT_EQ(log.errors().size(), 2u);
}

}  // namespace
