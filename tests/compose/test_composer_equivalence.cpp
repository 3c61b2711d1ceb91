// The fast composer against the per-pixel rules: random scenes must give the same
// bytes, on every instruction set the machine has, without allocating.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "AllocationCounter.h"
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
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<result_type>(state >> 16);
  }
  uint64_t state;
};

int uniform(Rng& rng, int lo, int hi) {
  return std::uniform_int_distribution<int>(lo, hi)(rng);
}
bool chance(Rng& rng, int percent) {
  return uniform(rng, 0, 99) < percent;
}
// Colour channels are 4-bit values; a few images break that to show the arithmetic
// holds for any byte.
uint8_t randomChannel(Rng& rng, bool wide) {
  return static_cast<uint8_t>(wide ? rng() & 255 : rng() & 15);
}

// Alpha as real images have it: a disc with a soft rim, bands around the thresholds,
// all-or-nothing, and now and then anything at all. Clear pixels are often all zero.
void fillRgba(Rng& rng, std::vector<uint8_t>& frame, int w, int h) {
  static const uint8_t edge[] = {0, 1, 248, 249, 250, 251, 254, 255, 128};
  const int style = uniform(rng, 0, 3);
  const bool wide = chance(rng, 10), zeroClear = chance(rng, 50);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &frame[(static_cast<size_t>(y) * w + x) * 4];
      const int d = (x - 30) * (x - 30) + (y - 30) * (y - 30);
      p[3] = style == 0   ? static_cast<uint8_t>(rng())
             : style == 1 ? (500 <= d && d <= 700 ? static_cast<uint8_t>(rng()) : (d < 500) * 255)
             : style == 2 ? edge[(x / 8 + y) % 9]
                          : ((rng() & 1) != 0 ? 255 : 0);
      for (int c = 0; c < 3; ++c) p[c] = zeroClear && p[3] == 0 ? 0 : randomChannel(rng, wide);
    }
}

// An RGBA image of w x h, or one of the broken forms the composer must survive:
// no frames, a short frame, slack after the image, an index past the frames.
void randomRgbaImage(Rng& rng, VContent& image, int w, int h) {
  image = VContent{};
  image.width = static_cast<uint16_t>(w);
  image.height = static_cast<uint16_t>(h);
  const int frames = chance(rng, 8) ? 0 : uniform(rng, 1, 2);
  for (int f = 0; f < frames; ++f) {
    size_t bytes = static_cast<size_t>(w) * h * 4;
    if (chance(rng, 5)) bytes -= std::min<size_t>(bytes, 4 * uniform(rng, 1, 3));
    if (chance(rng, 10)) bytes += 4 * uniform(rng, 1, 64);
    image.frames.emplace_back(bytes, 0);
    fillRgba(rng, image.frames.back(), w,
             static_cast<int>(std::min<size_t>(bytes / 4 / std::max(w, 1), h)));
  }
  image.frameIndex =
      static_cast<uint16_t>(frames == 0 ? 0 : uniform(rng, 0, frames - (chance(rng, 5) ? 0 : 1)));
}

float randomScale(Rng& rng, int size) {
  static const float fixed[] = {1.0f, 1.0f, 0.5f, 1.1f, 1.3f, 2.0f, 2.5f, 0.01f, 3.7f};
  const int kind = uniform(rng, 0, 3);
  if (kind == 0)  // lands on the image size without being 1
    return (static_cast<float>(size) + 0.5f) / static_cast<float>(std::max(size, 1));
  return kind == 1 ? std::uniform_real_distribution<float>(0.05f, 3.0f)(rng)
                   : fixed[uniform(rng, 0, 8)];
}

struct Scene {
  VContent background, iris, topLid, bottomLid;
  uint8_t topFill[4] = {0, 0, 0, 0};
  uint8_t bottomFill[4] = {0, 0, 0, 0};
  float scaleX = 1, scaleY = 1;
  int x = 0, y = 0;
  short topLidY = 0, bottomLidY = 240;
};

void randomScene(Rng& rng, Scene& s, Eyes& eye) {
  // Background: nearly always whole (new content now and then: filling it is the
  // slowest part of a scene), sometimes missing or short (black).
  static std::vector<uint8_t> content;
  if (content.empty() || chance(rng, 5)) {
    content.resize(static_cast<size_t>(N) * N * 3);
    const bool wide = chance(rng, 10);
    for (uint8_t& b : content) b = randomChannel(rng, wide);
  }
  s.background = VContent{};
  if (!chance(rng, 5)) {
    s.background.frames.push_back(content);
    if (chance(rng, 3)) s.background.frames.back().resize(content.size() - 3);
  }

  // Tiny irises reach past their image when sampled; big ones pass the 8-bit counters.
  int w = uniform(rng, 4, 160), h = uniform(rng, 4, 160);
  if (chance(rng, 10)) w = uniform(rng, 1, 3), h = uniform(rng, 1, 3);
  if (chance(rng, 10)) (chance(rng, 50) ? w : h) = uniform(rng, 200, 400);
  randomRgbaImage(rng, s.iris, w, h);
  s.scaleX = randomScale(rng, w);
  s.scaleY = chance(rng, 50) ? s.scaleX : randomScale(rng, h);
  // Anywhere from far off the panel to its middle; mostly where part of it shows.
  s.x = chance(rng, 15) ? uniform(rng, -400, 640) : uniform(rng, -60, 300);
  s.y = chance(rng, 15) ? uniform(rng, -400, 640) : uniform(rng, -60, 300);

  // Lids: whole new images now and then, otherwise a fresh cut of the last ones.
  static VContent lidStock[2];
  for (int k = 0; k < 2; ++k) {
    VContent& lid = k == 0 ? s.topLid : s.bottomLid;
    const int lidH = chance(rng, 10) ? 0 : uniform(rng, 1, 120);
    if (lidStock[k].frames.empty() || chance(rng, 10)) randomRgbaImage(rng, lidStock[k], N, 120);
    lid = lidStock[k];
    lid.height = static_cast<uint16_t>(lidH);
    for (std::vector<uint8_t>& frame : lid.frames)
      if (chance(rng, 70)) frame.resize(std::min(frame.size(), static_cast<size_t>(N) * lidH * 4));
  }
  static const uint8_t alphas[] = {0, 255, 250, 249, 100, 1};
  for (uint8_t* fill : {s.topFill, s.bottomFill}) {
    for (int c = 0; c < 3; ++c) fill[c] = randomChannel(rng, false);
    fill[3] = alphas[uniform(rng, 0, 5)];
  }
  s.topLidY = static_cast<short>(chance(rng, 15) ? uniform(rng, -300, 600) : uniform(rng, -5, 245));
  s.bottomLidY =
      static_cast<short>(chance(rng, 15) ? uniform(rng, -300, 600) : uniform(rng, -5, 245));

  eye.isLeft = chance(rng, 50);
  eye.offsetX =
      static_cast<int8_t>(chance(rng, 80) ? uniform(rng, -10, 10) : uniform(rng, -128, 127));
  eye.offsetY = static_cast<int8_t>(uniform(rng, -10, 10));
  eye.background = chance(rng, 3) ? nullptr : &s.background;
  eye.iris = chance(rng, 3) ? nullptr : &s.iris;
  eye.topLid = chance(rng, 5) ? nullptr : &s.topLid;
  eye.bottomLid = chance(rng, 5) ? nullptr : &s.bottomLid;
  eye.topLidColor = chance(rng, 10) ? nullptr : s.topFill;
  eye.bottomLidColor = chance(rng, 10) ? nullptr : s.bottomFill;
}

std::vector<eyeframe::Isa> availableIsas() {
  std::vector<eyeframe::Isa> isas;
  const eyeframe::Isa initial = eyeframe::activeIsa();
  for (eyeframe::Isa isa : {eyeframe::Isa::Portable, eyeframe::Isa::Avx2, eyeframe::Isa::Neon})
    if (eyeframe::selectIsa(isa)) isas.push_back(isa);
  eyeframe::selectIsa(initial);
  return isas;
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

  // Every instruction set composes the scene into the reference's bytes, allocating nothing.
  static void expectReferenceBytes(Eyes& eye, const Scene& s, const std::string& what) {
    const long allocated = eyetest::threadAllocations().count;
    std::vector<uint8_t> expected(Eyes::kFrameBytes);
    ASSERT_GT(eyetest::threadAllocations().count, allocated) << "allocations go uncounted";
    eyetest::referenceCompose(eye, s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY,
                              expected.data());
    for (eyeframe::Isa isa : availableIsas()) {
      ASSERT_TRUE(eyeframe::selectIsa(isa));
      const long before = eyetest::threadAllocations().count;
      EXPECT_EQ(eye.set_Frame_12Bit(s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY), 0);
      EXPECT_EQ(eyetest::threadAllocations().count, before) << what << " allocated";
      const std::vector<uint8_t> actual = LcdControl::lastFrame(eye.isLeft ? 0 : 1);
      size_t i = 0;
      while (i < actual.size() && i < expected.size() && actual[i] == expected[i]) ++i;
      ASSERT_EQ(actual, expected) << what << " on " << eyeframe::isaName(isa)
                                  << ", first difference at pixel " << i * 2 / 3 % N << ","
                                  << i * 2 / 3 / N;
    }
  }

  const eyeframe::Isa initial_ = eyeframe::activeIsa();
};

TEST_F(ComposerEquivalenceTest, RandomScenesMatchThePerPixelRules) {
  ASSERT_FALSE(availableIsas().empty());
  Rng rng(20240611);
  Eyes eye(true, 0, 0);
  Scene scene;
  constexpr int kScenes = 1000;
  int irisDrawn = 0;
  for (int n = 0; n < kScenes && !HasFatalFailure(); ++n) {
    randomScene(rng, scene, eye);
    expectReferenceBytes(eye, scene, "scene " + std::to_string(n));
    EXPECT_EQ(eye.getIrisX(), static_cast<short>(scene.x));
    EXPECT_EQ(eye.getBottomLidY(), scene.bottomLidY);
    irisDrawn += eye.iris != nullptr && !scene.iris.frames.empty();
  }
  // The generator must keep exercising the iris, not only its failure forms.
  EXPECT_GT(irisDrawn, kScenes / 2);
}

// Sample positions that land exactly on the last row or column, one-pixel images,
// and frames with slack after the image: the neighbour reads the rules pin.
TEST_F(ComposerEquivalenceTest, EdgeSamplingMatchesThePerPixelRules) {
  Rng rng(7);
  Eyes eye(false, 0, 0);
  Scene scene;
  struct Case {
    int w, h;
    float sx, sy;
    size_t slack;
  };
  const Case cases[] = {{1, 1, 7.0f, 3.0f, 0},     {1, 40, 5.0f, 1.5f, 0},
                        {40, 1, 1.5f, 9.0f, 0},    {2, 2, 100.0f, 0.7f, 0},
                        {33, 17, 1.0f, 2.0f, 4},   {300, 300, 0.9f, 0.9f, 0},
                        {120, 120, 0.4f, 2.6f, 8}, {5, 260, 30.0f, 1.0f, 0}};
  scene.background.frames.emplace_back(static_cast<size_t>(N) * N * 3, 3);
  eye.background = &scene.background;
  eye.iris = &scene.iris;
  for (const Case& c : cases) {
    scene.iris = VContent{};
    scene.iris.width = static_cast<uint16_t>(c.w);
    scene.iris.height = static_cast<uint16_t>(c.h);
    // Slack that a pinned read would show.
    scene.iris.frames.emplace_back(static_cast<size_t>(c.w) * c.h * 4 + c.slack * 4, 255);
    fillRgba(rng, scene.iris.frames[0], c.w, c.h);
    scene.scaleX = c.sx, scene.scaleY = c.sy;
    for (int x : {120, 3, 236}) {
      scene.x = x, scene.y = 240 - x;
      expectReferenceBytes(eye, scene, "edge case");
    }
  }
}

}  // namespace
