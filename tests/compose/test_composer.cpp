// The 12-bit frame composer, read back from the LCD driver's memory output.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EyeSideAnimation.h"
#include "Eyes.h"
#include "LcdControl.h"
#include "VContent.h"
#include "moveEvent.h"

namespace {

constexpr int N = 240;
using Rgb = std::array<uint8_t, 3>;
using Rgba = std::array<uint8_t, 4>;
using Pattern = std::function<Rgba(int, int)>;

// A whole panel in 4-bit channels, row-major.
struct Frame {
  std::vector<uint8_t> px = std::vector<uint8_t>(N * N * 3, 0);
  Rgb at(int x, int y) const {
    const size_t i = (static_cast<size_t>(y) * N + x) * 3;
    return {px[i], px[i + 1], px[i + 2]};
  }
  void set(int x, int y, Rgb c) {
    const size_t i = (static_cast<size_t>(y) * N + x) * 3;
    px[i] = c[0], px[i + 1] = c[1], px[i + 2] = c[2];
  }
};

// Any image, 3 or 4 bytes per pixel, from a colour function.
VContent image(int w, int h, int bytes, const Pattern& colour) {
  VContent out;
  out.width = static_cast<uint16_t>(w);
  out.height = static_cast<uint16_t>(h);
  out.frames.emplace_back(static_cast<size_t>(w) * h * bytes);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const Rgba c = colour(x, y);
      std::copy(c.begin(), c.begin() + bytes,
                out.frames[0].begin() + (static_cast<size_t>(y) * w + x) * bytes);
    }
  return out;
}
VContent backgroundOf(const Pattern& colour) {
  return image(N, N, 3, colour);
}

// Patterns that differ from pixel to pixel, so misplacement shows.
Rgba backgroundPattern(int x, int y) {
  return {static_cast<uint8_t>(x % 16), static_cast<uint8_t>(y % 16),
          static_cast<uint8_t>((x / 16 + y) % 16), 255};
}
Rgba irisPattern(int x, int y) {
  return {static_cast<uint8_t>(x % 16), static_cast<uint8_t>(y % 16),
          static_cast<uint8_t>((x + 3 * y) % 16), 255};
}
Rgba plain(uint8_t r, uint8_t g, uint8_t b) {
  return {r, g, b, 255};
}
Rgb rgbOf(const Rgba& c) {
  return {c[0], c[1], c[2]};
}

// What an opaque, unscaled iris of w x h looks like with its top left at (left, top).
Frame placed(const Pattern& background, int w, int h, const Pattern& iris, long left, long top) {
  Frame f;
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x) {
      const bool inside = x >= left && x < left + w && y >= top && y < top + h;
      f.set(x, y,
            rgbOf(inside ? iris(static_cast<int>(x - left), static_cast<int>(y - top))
                         : background(x, y)));
    }
  return f;
}

class ComposerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    unsetenv("EYE_LCD");
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  }

  void SetUp() override {
    LcdControl::resetCounters();
    background_ = backgroundOf(backgroundPattern);
    for (Eyes* eye : {&left_, &right_}) {
      eye->iris = &iris_;
      eye->background = &background_;
      eye->topLid = &topLid_;
      eye->bottomLid = &bottomLid_;
      eye->topLidColor = topFill_;
      eye->bottomLidColor = bottomFill_;
    }
  }

  // The frame last written to a panel, back in 4-bit channels.
  static Frame shown(uint8_t panel) {
    const std::vector<uint8_t> packed = LcdControl::lastFrame(panel);
    Frame f;
    if (packed.size() != LcdControl::kFrameBytes) {
      ADD_FAILURE() << "panel " << int(panel) << " holds " << packed.size() << " bytes";
      return f;
    }
    const std::vector<uint8_t> rgb = LcdControl::unpack12Bit(packed.data());
    for (size_t i = 0; i < rgb.size(); ++i) f.px[i] = static_cast<uint8_t>(rgb[i] / 17);
    return f;
  }

  static void expectFrame(const Frame& expected, const Frame& actual, const std::string& what) {
    const size_t same =
        std::mismatch(expected.px.begin(), expected.px.end(), actual.px.begin()).first -
        expected.px.begin();
    EXPECT_EQ(same, expected.px.size())
        << what << ": first difference at (" << same / 3 % N << ", " << same / 3 / N << ")";
  }

  Frame compose(Eyes& eye, float sx, float sy, int x, int y, short top = 0, short bottom = 240) {
    EXPECT_EQ(eye.set_Frame_12Bit(sx, sy, x, y, top, bottom), 0);
    return shown(eye.isLeft ? 0 : 1);
  }

  Eyes left_{true, 100, 140};
  Eyes right_{false, 140, 140};
  VContent background_, iris_, topLid_, bottomLid_;
  uint8_t topFill_[4] = {9, 9, 9, 255};
  uint8_t bottomFill_[4] = {5, 5, 5, 255};
};

TEST_F(ComposerTest, IrisIsPlacedMirroredAndClippedAtEveryEdge) {
  iris_ = image(120, 120, 4, irisPattern);
  struct Case {
    int x, y;
  };
  const Case cases[] = {{120, 120}, {0, 0},     {239, 239},  {-50, 120}, {290, 120},
                        {120, -59}, {120, 299}, {-200, 120}, {-59, -59}, {-5, 250}};
  for (const Case& c : cases) {
    expectFrame(placed(backgroundPattern, 120, 120, irisPattern, c.x - 60, c.y - 60),
                compose(right_, 1.0f, 1.0f, c.x, c.y),
                "iris at (" + std::to_string(c.x) + ", " + std::to_string(c.y) + ")");
    EXPECT_EQ(right_.getIrisX(), c.x);
    EXPECT_EQ(right_.getIrisY(), c.y);
  }
  EXPECT_EQ(LcdControl::framesWritten(1), std::size(cases));
  // Positions are kept in 16 bits.
  compose(right_, 1.0f, 1.0f, 70000, -70000, 3, 200);
  EXPECT_EQ(right_.getIrisX(), static_cast<short>(70000));
  EXPECT_EQ(right_.getIrisY(), static_cast<short>(-70000));
  EXPECT_EQ(right_.getTopLidY(), 3);
  EXPECT_EQ(right_.getBottomLidY(), 200);

  // Offsets mirror: left centre 100 - 5, right 140 + 5, both 140 - 3; the eye keeps
  // the position asked for.
  iris_ = image(10, 10, 4, irisPattern);
  left_.offsetX = right_.offsetX = 5;
  left_.offsetY = right_.offsetY = -3;
  expectFrame(placed(backgroundPattern, 10, 10, irisPattern, 90, 132),
              compose(left_, 1.0f, 1.0f, 100, 140), "left eye");
  expectFrame(placed(backgroundPattern, 10, 10, irisPattern, 140, 132),
              compose(right_, 1.0f, 1.0f, 140, 140), "right eye");
  EXPECT_EQ(left_.getIrisX(), 100);
  EXPECT_EQ(left_.getIrisY(), 140);
}

TEST_F(ComposerTest, AlphaBlendsBelow250AndRoundsToNearest) {
  struct Case {
    Rgba pixel;
    Rgb background, blended;
  };
  const Case cases[] = {{{0, 0, 0, 250}, {255, 255, 255}, {0, 0, 0}},        // opaque above 249
                        {{0, 0, 0, 249}, {255, 255, 255}, {6, 6, 6}},        // 255 * 6/255 + 0.5
                        {{200, 100, 0, 100}, {0, 50, 255}, {78, 70, 155}}};  // 78.4, 69.6, 155.0
  for (const Case& c : cases) {
    unsigned char p[4] = {c.pixel[0], c.pixel[1], c.pixel[2], c.pixel[3]};
    unsigned char bg[3] = {c.background[0], c.background[1], c.background[2]};
    Eyes::removeAlpha_AddBackground(p, bg);
    EXPECT_EQ(Rgba({p[0], p[1], p[2], p[3]}),
              Rgba({c.blended[0], c.blended[1], c.blended[2], c.pixel[3]}));
  }
}

TEST_F(ComposerTest, ScaledIrisIsSampledBilinearlyAndTruncated) {
  // A 2 x 2 iris scaled by 4: 8 x 8 pixels, ratio 1/8, so every weight is an exact
  // binary fraction and the expected values can be worked out in double.
  const Rgba corner[4] = {{0, 15, 0, 255}, {8, 0, 15, 255}, {4, 0, 0, 255}, {12, 0, 0, 255}};
  iris_ = image(2, 2, 4, [&](int x, int y) { return corner[y * 2 + x]; });
  const Frame f = compose(left_, 4.0f, 4.0f, 120, 120);  // rows and columns 116..123
  for (int row = 0; row < 8; ++row)
    for (int col = 0; col < 8; ++col) {
      const double dx = col / 8.0, dy = row / 8.0;
      Rgb expected;
      for (int k = 0; k < 3; ++k)
        expected[k] = static_cast<uint8_t>(
            std::floor(corner[0][k] * (1 - dx) * (1 - dy) + corner[1][k] * dx * (1 - dy) +
                       corner[2][k] * (1 - dx) * dy + corner[3][k] * dx * dy));
      EXPECT_EQ(f.at(116 + col, 116 + row), expected) << "col " << col << " row " << row;
    }
  EXPECT_EQ(rgbOf(backgroundPattern(115, 116)), f.at(115, 116));
  EXPECT_EQ(rgbOf(backgroundPattern(124, 123)), f.at(124, 123));
}

TEST_F(ComposerTest, LidsPaintFromTheirLinesWithFillBeyondTheImage) {
  background_ = backgroundOf([](int, int) { return plain(0, 0, 0); });
  iris_ = VContent{};
  auto lidRow = [](uint8_t green) {
    return [green](int x, int y) -> Rgba {
      return {static_cast<uint8_t>(y), green, static_cast<uint8_t>(x % 16), 255};
    };
  };
  topLid_ = image(N, 10, 4, lidRow(1));
  bottomLid_ = image(N, 10, 4, lidRow(3));
  const Rgb black{0, 0, 0}, topFill{9, 9, 9}, bottomFill{5, 5, 5};

  struct Case {
    short top, bottom;
  };
  for (const Case c : {Case{0, 240}, Case{-3, 300}, Case{30, 200}, Case{5, 239}, Case{150, 100},
                       Case{240, 240}, Case{1, 0}}) {
    Frame expected;
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x) {
        Rgb p = black;
        if (c.top >= 1 && y < c.top)
          p = y >= c.top - 10 ? rgbOf(lidRow(1)(x, y - c.top + 10)) : topFill;
        if (c.bottom <= 239 && y >= c.bottom)
          p = y < c.bottom + 10 ? rgbOf(lidRow(3)(x, y - c.bottom)) : bottomFill;
        expected.set(x, y, p);
      }
    expectFrame(expected, compose(left_, 1.0f, 1.0f, 120, 120, c.top, c.bottom),
                "lids " + std::to_string(c.top) + "/" + std::to_string(c.bottom));
  }
}

TEST_F(ComposerTest, IrisCountersWrapAt256Pixels) {
  // An iris 400 long starting at -100 shows its column (row) 256 as 0.
  auto byIndex = [](int i) -> Rgba {
    return {static_cast<uint8_t>(i % 16), static_cast<uint8_t>(i / 16 % 16),
            static_cast<uint8_t>(i / 256), 255};
  };
  iris_ = image(400, 10, 4, [&](int x, int) { return byIndex(x); });
  Frame f = compose(left_, 1.0f, 1.0f, 100, 120);  // columns -100..299, rows 115..124
  for (int x = 0; x < N; ++x) EXPECT_EQ(f.at(x, 115), rgbOf(byIndex((x + 100) % 256))) << x;
  iris_ = image(10, 400, 4, [&](int, int y) { return byIndex(y); });
  f = compose(left_, 1.0f, 1.0f, 120, 100);
  for (int y = 0; y < N; ++y) EXPECT_EQ(f.at(120, y), rgbOf(byIndex((y + 100) % 256))) << y;
}

TEST_F(ComposerTest, LidsWithoutAWholeImagePaintTheirFillOnly) {
  // Without frames, null, or one pixel short of their rows.
  background_ = backgroundOf([](int, int) { return plain(0, 0, 0); });
  left_.iris = nullptr;
  VContent shortLid = image(N, 10, 4, [](int, int) { return plain(1, 1, 1); });
  shortLid.frames[0].resize(N * 10 * 4 - 4);
  for (VContent* lid : {&topLid_, static_cast<VContent*>(nullptr), &shortLid}) {
    left_.topLid = left_.bottomLid = lid;
    const Frame f = compose(left_, 1.0f, 1.0f, 120, 120, 50, 200);
    EXPECT_EQ(f.at(3, 49), Rgb({9, 9, 9}));
    EXPECT_EQ(f.at(3, 50), Rgb({0, 0, 0}));
    EXPECT_EQ(f.at(239, 200), Rgb({5, 5, 5}));
  }

  // Called for rows outside the lid image, the paint methods fall back to the fill.
  topLid_ = bottomLid_ = image(N, 10, 4, [](int, int) { return plain(2, 2, 2); });
  left_.topLid = left_.bottomLid = &topLid_;
  unsigned char pixel[4] = {0, 0, 0, 255};
  left_.lid_top_Paint(pixel, 50, 239, 200);  // would be image row 160 of 10
  EXPECT_EQ(Rgb({pixel[0], pixel[1], pixel[2]}), Rgb({9, 9, 9}));
  left_.lid_bottom_Paint(pixel, 200, 239, 100);  // image row -100
  EXPECT_EQ(Rgb({pixel[0], pixel[1], pixel[2]}), Rgb({5, 5, 5}));
}

// Holds every frame until released, to catch a second composition of the same eye.
class GateOutput : public LcdOutput {
 public:
  std::string describe() const override { return "gate"; }
  void release() {
    std::lock_guard<std::mutex> lock(m);
    open = true;
    cv.notify_all();
  }
  std::mutex m;
  std::condition_variable cv;
  bool open = false;
  int entered = 0;

 protected:
  int open_() override { return 0; }
  int write_(uint8_t, const uint8_t*) override {
    std::unique_lock<std::mutex> lock(m);
    ++entered;
    cv.notify_all();
    cv.wait(lock, [this] { return open; });
    return 0;
  }
};

TEST_F(ComposerTest, SecondCompositionOfAnEyeWaitsForTheFirst) {
  iris_ = image(10, 10, 4, irisPattern);
  auto gate = std::make_unique<GateOutput>();
  GateOutput* g = gate.get();
  ASSERT_EQ(LcdControl::setOutput(std::move(gate)), 0);

  std::thread first([&] { left_.set_Frame_12Bit(1.0f, 1.0f, 30, 30, 0, 240); });
  {
    std::unique_lock<std::mutex> lock(g->m);
    g->cv.wait(lock, [g] { return g->entered == 1; });
  }
  EXPECT_TRUE(left_.busy.load());
  std::atomic<bool> started{false};
  std::thread second([&] {
    started = true;
    left_.set_Frame_12Bit(1.0f, 1.0f, 200, 200, 0, 240);
  });
  while (!started) std::this_thread::yield();
  // Give the second caller time to (wrongly) get going; it must still be waiting.
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(left_.getIrisX(), 30);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  g->release();
  first.join();
  second.join();
  ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 2u);
  EXPECT_FALSE(left_.busy.load());
  expectFrame(placed(backgroundPattern, 10, 10, irisPattern, 195, 195), shown(0), "second frame");
}

// A sequence of plain frames, frame f coloured (base + f) in every channel.
VContent plainSequence(int w, int h, int count, uint8_t base, bool alpha) {
  VContent out;
  for (int f = 0; f < count; ++f) {
    const uint8_t v = static_cast<uint8_t>(base + f);
    out.AddFrame("frame", w, h, alpha, false, v, v, v, 255);
  }
  return out;
}

TEST_F(ComposerTest, AnimationFramesTickSequencesAndDrawOnlyChanges) {
  VContent previous = image(10, 10, 4, irisPattern);
  iris_ = plainSequence(10, 10, 3, 0, true);
  iris_.ratio = 1;
  iris_.loop = 2;  // two plays, then the last frame stays
  iris_.frameIndex = 2;
  background_ = plainSequence(N, N, 2, 10, false);
  background_.ratio = 2;  // each frame held two ticks, for ever
  left_.iris = &previous;
  left_.irisSeq = SequenceState{5, 5, 5};
  topLid_.frameIndex = 3;
  left_.topLidSeq = SequenceState{3, 1, 2};

  // A still keyframe held for ten frames; only the image sequences move.
  EyeSideAnimation track;
  track.events.push_back(moveEvent(555, 555, 0, 400, 555.0f, 555.0f, 40.0, 0, 240, 0, 0, 0, 0));
  std::vector<int> results, irisShown, backgroundShown;
  for (int call = 0; call < 8; ++call) {
    results.push_back(left_.setAnimationFrame(&track, &iris_, &background_));
    irisShown.push_back(iris_.frameIndex);
    backgroundShown.push_back(background_.frameIndex);
    if (call == 6) {
      // Drawn with the frames shown before this tick advanced them.
      const Frame f = shown(0);
      EXPECT_EQ(f.at(100, 140), Rgb({2, 2, 2}));
      EXPECT_EQ(f.at(0, 0), Rgb({10, 10, 10}));
    }
  }
  EXPECT_EQ(left_.iris, &iris_);
  EXPECT_EQ(irisShown, (std::vector<int>{1, 2, 0, 1, 2, 2, 2, 2}));
  EXPECT_EQ(backgroundShown, (std::vector<int>{0, 1, 0, 0, 1, 0, 0, 1}));
  // The first call draws for the new iris; the eighth finds nothing changed.
  EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 1, 1, 1, 0}));
  EXPECT_EQ(LcdControl::framesWritten(0), 7u);
  EXPECT_EQ(left_.irisSeq.loopsDone, 1);

  int result = 0;
  for (int call = 0; call < 20 && result != 2; ++call)
    result = left_.setAnimationFrame(&track, &iris_, &background_);
  EXPECT_EQ(result, 2);
  EXPECT_TRUE(track.finished);
  EXPECT_EQ(topLid_.frameIndex, 0);
  EXPECT_EQ(left_.topLidSeq.loopsDone, 0);
  EXPECT_EQ(left_.topLidSeq.tick, 1);

  // A track without events has ended before it starts.
  EyeSideAnimation empty;
  const uint64_t written = LcdControl::framesWritten(0);
  EXPECT_EQ(left_.setAnimationFrame(&empty, &iris_, &background_), 2);
  EXPECT_EQ(LcdControl::framesWritten(0), written);
}

TEST(EyeStateTest, LidIndexRestartsOnlyItsOwnSequence) {
  Eyes eye(false, -5, 260);
  eye.topLidSeq = eye.bottomLidSeq = SequenceState{4, 2, 7};
  eye.bottomLidIndex = 6;
  eye.SetLidIndex(3, true);
  EXPECT_EQ(eye.topLidIndex, 3);
  EXPECT_EQ(eye.topLidSeq.lastFrame + eye.topLidSeq.loopsDone, 0);
  EXPECT_EQ(eye.topLidSeq.tick, 1);
  EXPECT_EQ(eye.bottomLidIndex, 6);
  EXPECT_EQ(eye.bottomLidSeq.tick, 7);
  eye.SetLidIndex(2, false);
  EXPECT_EQ(eye.bottomLidIndex, 2);
  EXPECT_EQ(eye.bottomLidSeq.loopsDone, 0);

  // Lid records copy their image: the catalogue's frames never move.
  EyeLidPart lid;
  lid.name = "half";
  lid.content = image(2, 2, 4, irisPattern);
  EyeLidPart copy(lid);
  copy.content.frames[0][0] = 15;
  EXPECT_EQ(lid.content.frames[0][0], 0);
  EyeLidPart moved(std::move(lid));
  EXPECT_EQ(moved.name, "half");
  EXPECT_EQ(lid.content.frames.size(), 1u);
}

}  // namespace
