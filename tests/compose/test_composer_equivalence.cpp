// The fast composer against the per-pixel rules: random scenes must give the same
// bytes, on every instruction set the machine has, without allocating. Then the eye
// around it: animation ticks, and one composition of an eye at a time.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "AllocationCounter.h"
#include "EyeSideAnimation.h"
#include "Eyes.h"
#include "LcdControl.h"
#include "ReferenceComposer.h"
#include "compose/Composer.h"

namespace {

constexpr int N = Eyes::kSize;
// Small and fast: the scenes need millions of bytes, in Debug builds too.
struct Rng {
  using result_type = uint32_t;
  explicit Rng(uint64_t seed) : state(seed * 2654435761u + 1) {}
  static constexpr result_type min() { return 0; }
  static constexpr result_type max() { return UINT32_MAX; }
  result_type operator()() {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    return static_cast<result_type>(state >> 16);
  }
  int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(*this); }
  bool chance(int percent) { return uniform(0, 99) < percent; }
  // Colour channels are 4-bit values; a few images break that to show the arithmetic
  // holds for any byte.
  uint8_t channel(bool wide) { return static_cast<uint8_t>((*this)() & (wide ? 255 : 15)); }
  uint64_t state;
};

// Alpha as real images have it: a disc with a soft rim, bands around the thresholds,
// all-or-nothing, and now and then anything at all. Clear pixels are often all zero.
void fillRgba(Rng& rng, std::vector<uint8_t>& frame, int w, int h) {
  static const uint8_t edge[] = {0, 1, 248, 249, 250, 251, 254, 255, 128};
  const int style = rng.uniform(0, 3);
  const bool wide = rng.chance(10), zeroClear = rng.chance(50);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &frame[(static_cast<size_t>(y) * w + x) * 4];
      const int d = (x - 30) * (x - 30) + (y - 30) * (y - 30);
      p[3] = style == 0   ? static_cast<uint8_t>(rng())
             : style == 1 ? (500 <= d && d <= 700 ? static_cast<uint8_t>(rng()) : (d < 500) * 255)
             : style == 2 ? edge[(x / 8 + y) % 9]
                          : ((rng() & 1) != 0 ? 255 : 0);
      for (int c = 0; c < 3; ++c) p[c] = zeroClear && p[3] == 0 ? 0 : rng.channel(wide);
    }
}

// An RGBA image of w x h, or one of the broken forms the composer must survive:
// no frames, a short frame, slack after the image, an index past the frames.
void randomRgbaImage(Rng& rng, VContent& image, int w, int h) {
  image = VContent{};
  image.width = static_cast<uint16_t>(w), image.height = static_cast<uint16_t>(h);
  const int frames = rng.chance(8) ? 0 : rng.uniform(1, 2);
  for (int f = 0; f < frames; ++f) {
    size_t bytes = static_cast<size_t>(w) * h * 4;
    if (rng.chance(5)) bytes -= std::min<size_t>(bytes, 4 * rng.uniform(1, 3));
    if (rng.chance(10)) bytes += 4 * rng.uniform(1, 64);
    image.frames.emplace_back(bytes, 0);
    fillRgba(rng, image.frames.back(), w,
             static_cast<int>(std::min<size_t>(bytes / 4 / std::max(w, 1), h)));
  }
  image.frameIndex =
      static_cast<uint16_t>(frames == 0 ? 0 : rng.uniform(0, frames - (rng.chance(5) ? 0 : 1)));
}

float randomScale(Rng& rng, int size) {
  static const float fixed[] = {1.0f, 1.0f, 0.5f, 1.1f, 1.3f, 2.0f, 2.5f, 0.01f, 3.7f};
  const int kind = rng.uniform(0, 3);
  if (kind == 0)  // lands on the image size without being 1
    return (static_cast<float>(size) + 0.5f) / static_cast<float>(std::max(size, 1));
  return kind == 1 ? std::uniform_real_distribution<float>(0.05f, 3.0f)(rng)
                   : fixed[rng.uniform(0, 8)];
}

struct Scene {
  VContent background, iris, topLid, bottomLid;
  uint8_t topFill[4] = {}, bottomFill[4] = {};
  float scaleX = 1, scaleY = 1;
  int x = 0, y = 0;
  short topLidY = 0, bottomLidY = 240;
};

void randomScene(Rng& rng, Scene& s, Eyes& eye) {
  // Background: nearly always whole (new content now and then: filling it is the
  // slowest part of a scene), sometimes missing or short (black).
  static std::vector<uint8_t> content;
  if (content.empty() || rng.chance(5)) {
    content.resize(static_cast<size_t>(N) * N * 3);
    const bool wide = rng.chance(10);
    for (uint8_t& b : content) b = rng.channel(wide);
  }
  s.background = VContent{};
  if (!rng.chance(5)) {
    s.background.frames.push_back(content);
    if (rng.chance(3)) s.background.frames.back().resize(content.size() - 3);
  }

  // Tiny irises reach past their image when sampled; big ones pass the 8-bit counters.
  int w = rng.uniform(4, 160), h = rng.uniform(4, 160);
  if (rng.chance(10)) w = rng.uniform(1, 3), h = rng.uniform(1, 3);
  if (rng.chance(10)) (rng.chance(50) ? w : h) = rng.uniform(200, 400);
  randomRgbaImage(rng, s.iris, w, h);
  s.scaleX = randomScale(rng, w);
  s.scaleY = rng.chance(50) ? s.scaleX : randomScale(rng, h);
  // Anywhere from far off the panel to its middle; mostly where part of it shows.
  s.x = rng.chance(15) ? rng.uniform(-400, 640) : rng.uniform(-60, 300);
  s.y = rng.chance(15) ? rng.uniform(-400, 640) : rng.uniform(-60, 300);

  // Lids: whole new images now and then, otherwise a fresh cut of the last ones.
  static VContent lidStock[2];
  for (int k = 0; k < 2; ++k) {
    VContent& lid = k == 0 ? s.topLid : s.bottomLid;
    const int lidH = rng.chance(10) ? 0 : rng.uniform(1, 120);
    if (lidStock[k].frames.empty() || rng.chance(10)) randomRgbaImage(rng, lidStock[k], N, 120);
    (lid = lidStock[k]).height = static_cast<uint16_t>(lidH);
    for (std::vector<uint8_t>& frame : lid.frames)
      if (rng.chance(70)) frame.resize(std::min(frame.size(), static_cast<size_t>(N) * lidH * 4));
  }
  static const uint8_t alphas[] = {0, 255, 250, 249, 100, 1};
  for (uint8_t* fill : {s.topFill, s.bottomFill}) {
    for (int c = 0; c < 3; ++c) fill[c] = rng.channel(false);
    fill[3] = alphas[rng.uniform(0, 5)];
  }
  s.topLidY = static_cast<short>(rng.chance(15) ? rng.uniform(-300, 600) : rng.uniform(-5, 245));
  s.bottomLidY = static_cast<short>(rng.chance(15) ? rng.uniform(-300, 600) : rng.uniform(-5, 245));

  eye.isLeft = rng.chance(50);
  eye.offsetX = static_cast<int8_t>(rng.chance(80) ? rng.uniform(-10, 10) : rng.uniform(-128, 127));
  eye.offsetY = static_cast<int8_t>(rng.uniform(-10, 10));
  eye.background = rng.chance(3) ? nullptr : &s.background;
  eye.iris = rng.chance(3) ? nullptr : &s.iris;
  eye.topLid = rng.chance(5) ? nullptr : &s.topLid;
  eye.bottomLid = rng.chance(5) ? nullptr : &s.bottomLid;
  eye.topLidColor = rng.chance(10) ? nullptr : s.topFill;
  eye.bottomLidColor = rng.chance(10) ? nullptr : s.bottomFill;
}

class ComposerEquivalenceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    unsetenv("EYE_LCD");
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    // A panel's first frame sets up what the later ones reuse.
    for (bool left : {true, false}) Eyes(left, 0, 0).set_Frame_12Bit(1, 1, 0, 0, 0, 240);
  }
  void TearDown() override { eyeframe::selectIsa(initial_); }
  const eyeframe::Isa initial_ = eyeframe::activeIsa();
};

// Every instruction set composes the scene into the reference's bytes, allocating nothing.
void expectReferenceBytes(Eyes& eye, const Scene& s, const std::string& what) {
  const long allocated = eyetest::threadAllocations().count;
  std::vector<uint8_t> expected(Eyes::kFrameBytes);
  ASSERT_GT(eyetest::threadAllocations().count, allocated) << "allocations go uncounted";
  eyetest::referenceCompose(eye, s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY,
                            expected.data());
  for (eyeframe::Isa isa : {eyeframe::Isa::Portable, eyeframe::Isa::Avx2, eyeframe::Isa::Neon}) {
    if (!eyeframe::selectIsa(isa)) continue;  // not on this machine
    const long before = eyetest::threadAllocations().count;
    EXPECT_EQ(eye.set_Frame_12Bit(s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY), 0);
    EXPECT_EQ(eyetest::threadAllocations().count, before) << what << " allocated";
    const std::vector<uint8_t> actual = LcdControl::lastFrame(eye.isLeft ? 0 : 1);
    ASSERT_TRUE(actual == expected) << what << " on " << eyeframe::isaName(isa);
  }
}

TEST_F(ComposerEquivalenceTest, RandomScenesAndEdgeSamplingMatchThePerPixelRules) {
  Rng rng(20240611);
  Eyes eye(true, 0, 0);
  Scene scene;
  constexpr int kScenes = 1000;
  int irisDrawn = 0;
  for (int n = 0; n < kScenes && !HasFatalFailure(); ++n) {
    randomScene(rng, scene, eye);
    expectReferenceBytes(eye, scene, "scene " + std::to_string(n));
    EXPECT_TRUE(eye.getIrisX() == static_cast<short>(scene.x) &&
                eye.getBottomLidY() == scene.bottomLidY);
    irisDrawn += eye.iris != nullptr && !scene.iris.frames.empty();
  }
  // The generator must keep exercising the iris, not only its failure forms.
  EXPECT_GT(irisDrawn, kScenes / 2);

  // Sample positions that land exactly on the last row or column, one-pixel images,
  // and frames with slack after the image that a pinned read would show.
  Eyes edge(false, 0, 0);
  scene = Scene{};
  scene.background.frames.emplace_back(static_cast<size_t>(N) * N * 3, 3);
  edge.background = &scene.background;
  edge.iris = &scene.iris;
  for (auto [w, h, sx, sy, slack] :
       {std::make_tuple(1, 1, 7.0f, 3.0f, 0), std::make_tuple(1, 40, 5.0f, 1.5f, 0),
        std::make_tuple(40, 1, 1.5f, 9.0f, 0), std::make_tuple(2, 2, 100.0f, 0.7f, 0),
        std::make_tuple(33, 17, 1.0f, 2.0f, 4), std::make_tuple(300, 300, 0.9f, 0.9f, 0),
        std::make_tuple(120, 120, 0.4f, 2.6f, 8), std::make_tuple(5, 260, 30.0f, 1.0f, 0)}) {
    scene.iris = VContent{};
    scene.iris.width = static_cast<uint16_t>(w), scene.iris.height = static_cast<uint16_t>(h);
    scene.iris.frames.emplace_back(static_cast<size_t>(w) * h * 4 + slack * 4, 255);
    fillRgba(rng, scene.iris.frames[0], w, h);
    scene.scaleX = sx, scene.scaleY = sy;
    for (int x : {120, 3, 236}) {
      scene.x = x, scene.y = 240 - x;
      expectReferenceBytes(edge, scene, "edge case");
    }
  }
}

// One eye around its composer: animation ticks that step image sequences and redraw
// only what changed, and one composition of an eye at a time.
using ComposerTest = ComposerEquivalenceTest;

// A sequence of `count` plain frames, frame f grey (base + f).
VContent greys(int size, int count, uint8_t base, bool alpha) {
  VContent out;
  for (int f = 0; f < count; ++f)
    out.AddFrame("frame", size, size, alpha, false, base + f, base + f, base + f, 255);
  return out;
}

TEST_F(ComposerTest, AnimationFramesTickSequencesAndDrawOnlyChanges) {
  LcdControl::resetCounters();
  Eyes eye(true, 100, 140);
  VContent previous = greys(10, 1, 0, true), iris = greys(10, 3, 0, true), topLid;
  VContent background = greys(N, 2, 10, false);
  iris.loop = 2, iris.frameIndex = 2;  // two plays, then the last frame stays
  background.ratio = 2;                // each frame held two ticks, for ever
  eye.iris = &previous, eye.irisSeq = SequenceState{5, 5, 5};
  eye.topLid = &topLid, topLid.frameIndex = 3, eye.topLidSeq = SequenceState{3, 1, 2};

  // A still keyframe held for ten frames; only the image sequences move. Frames shown
  // as iris frame * 10 + background frame.
  EyeSideAnimation track;
  track.events.push_back(moveEvent(555, 555, 0, 400, 555.0f, 555.0f, 40.0, 0, 240, 0, 0, 0, 0));
  std::vector<int> results, shown;
  for (int call = 0; call < 8; ++call) {
    results.push_back(eye.setAnimationFrame(&track, &iris, &background));
    shown.push_back(iris.frameIndex * 10 + background.frameIndex);
  }
  EXPECT_EQ(shown, (std::vector<int>{10, 21, 0, 10, 21, 20, 20, 21}));
  // The first call draws for the new iris; the eighth finds nothing changed.
  EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 1, 1, 1, 0}));
  EXPECT_EQ(LcdControl::framesWritten(0), 7u);
  // Drawn with the frames shown before the tick advanced them: iris 2, background 0.
  const std::vector<uint8_t> drawn = LcdControl::unpack12Bit(LcdControl::lastFrame(0).data());
  EXPECT_EQ(drawn[(140 * N + 100) * 3] / 17 * 100 + drawn[0] / 17, 2 * 100 + 10);
  EXPECT_TRUE(eye.iris == &iris && eye.irisSeq.loopsDone == 1);

  int result = 0;
  for (int call = 0; call < 20 && result != 2; ++call)
    result = eye.setAnimationFrame(&track, &iris, &background);
  EXPECT_TRUE(result == 2 && track.finished);
  // The end puts the lid sequences back to their start.
  EXPECT_TRUE(topLid.frameIndex == 0 && eye.topLidSeq.loopsDone == 0 && eye.topLidSeq.tick == 1);
  // A track without events has ended before it starts.
  EyeSideAnimation empty;
  const uint64_t written = LcdControl::framesWritten(0);
  EXPECT_TRUE(eye.setAnimationFrame(&empty, &iris, &background) == 2 &&
              LcdControl::framesWritten(0) == written);
}

// Notes whether the eye counted as busy while its frame was written.
struct BusyProbe : LcdOutput {
  explicit BusyProbe(const Eyes& eye) : eye(eye) {}
  std::string describe() const override { return "probe"; }
  int open_() override { return 0; }
  int write_(uint8_t, const uint8_t*) override { return busyWhileWriting = eye.busy, 0; }
  const Eyes& eye;
  static inline bool busyWhileWriting = false;
};

TEST_F(ComposerTest, ACompositionWaitsWhileTheEyeIsBusyAndHoldsItBusyItself) {
  LcdControl::resetCounters();
  Eyes eye(true, 100, 140);
  ASSERT_EQ(LcdControl::setOutput(std::make_unique<BusyProbe>(eye)), 0);
  eye.busy = true;  // as if another caller were composing this eye
  std::thread caller([&] { eye.set_Frame_12Bit(1.0f, 1.0f, 200, 200, 0, 240); });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
  eye.busy = false;
  caller.join();
  EXPECT_TRUE(LcdControl::framesWritten(0) == 1 && BusyProbe::busyWhileWriting && !eye.busy);
  ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
}

}  // namespace
