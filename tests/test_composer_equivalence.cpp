// The fast composer against the per-pixel rules: random scenes must give the same
// bytes, on every instruction set the machine has, and a frame allocates nothing.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "Eyes.h"
#include "FrameComposer.h"
#include "LcdControl.h"
#include "ReferenceComposer.h"
#include "VContent.h"

// Counts every allocation through the global operator new, the library's included.
namespace {
std::atomic<long> allocations{0};
}

__attribute__((noinline)) void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void* operator new[](std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete[](void* p) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}

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

// Alpha as real images have it: long opaque and clear runs, soft edges, and now and
// then anything at all.
uint8_t randomAlpha(Rng& rng, int x, int y, int style) {
  switch (style) {
    case 0:
      return static_cast<uint8_t>(rng());
    case 1: {  // a disc with a soft rim, clear outside
      const int d = (x - 30) * (x - 30) + (y - 30) * (y - 30);
      if (d < 500) return 255;
      if (d > 700) return 0;
      return static_cast<uint8_t>(rng());
    }
    case 2: {  // bands around the thresholds
      const uint8_t edge[] = {0, 1, 248, 249, 250, 251, 254, 255, 128};
      return edge[(x / 8 + y) % 9];
    }
    default:
      return (rng() & 1) != 0 ? 255 : 0;
  }
}

// Colour channels are 4-bit values; a few images break that to show the arithmetic
// holds for any byte.
uint8_t randomChannel(Rng& rng, bool wide) {
  return static_cast<uint8_t>(wide ? rng() & 255 : rng() & 15);
}

void fillRgba(Rng& rng, std::vector<uint8_t>& frame, int w, int h) {
  const int style = uniform(rng, 0, 3);
  const bool wide = chance(rng, 10);
  const bool zeroClear = chance(rng, 50);  // clear pixels all zero bytes, as PNGs often are
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &frame[(static_cast<size_t>(y) * w + x) * 4];
      p[3] = randomAlpha(rng, x, y, style);
      for (int c = 0; c < 3; ++c) p[c] = randomChannel(rng, wide);
      if (zeroClear && p[3] == 0) p[0] = p[1] = p[2] = 0;
    }
}

// An RGBA image of w x h, or one of the broken forms the composer must survive.
void randomRgbaImage(Rng& rng, VContent& image, int w, int h) {
  image = VContent{};
  image.width = static_cast<uint16_t>(w);
  image.height = static_cast<uint16_t>(h);
  const int frames = chance(rng, 8) ? 0 : uniform(rng, 1, 2);
  for (int f = 0; f < frames; ++f) {
    size_t bytes = static_cast<size_t>(w) * h * 4;
    if (chance(rng, 5)) bytes -= std::min<size_t>(bytes, 4 * uniform(rng, 1, 3));  // short
    if (chance(rng, 10)) bytes += 4 * uniform(rng, 1, 64);                         // slack
    image.frames.emplace_back(bytes, 0);
    fillRgba(rng, image.frames.back(), w,
             static_cast<int>(std::min<size_t>(bytes / 4 / std::max(w, 1), h)));
  }
  image.frameIndex =
      static_cast<uint16_t>(frames == 0 ? 0 : uniform(rng, 0, frames - (chance(rng, 5) ? 0 : 1)));
}

float randomScale(Rng& rng, int size) {
  switch (uniform(rng, 0, 5)) {
    case 0:
    case 1:
      return 1.0f;
    case 2:  // lands on the image size without being 1
      return (static_cast<float>(size) + 0.5f) / static_cast<float>(std::max(size, 1));
    case 3: {
      const float fixed[] = {0.5f, 1.1f, 1.3f, 2.0f, 2.5f, 0.01f, 3.7f};
      return fixed[uniform(rng, 0, 6)];
    }
    default:
      return std::uniform_real_distribution<float>(0.05f, 3.0f)(rng);
  }
}

struct Scene {
  VContent background, iris, topLid, bottomLid;
  uint8_t topFill[4] = {0, 0, 0, 0};
  uint8_t bottomFill[4] = {0, 0, 0, 0};
  bool left = true;
  float scaleX = 1, scaleY = 1;
  int x = 0, y = 0;
  short topLidY = 0, bottomLidY = 240;
  std::string describe() const {
    return std::string(left ? "left" : "right") + " iris " + std::to_string(iris.width) + "x" +
           std::to_string(iris.height) + " scale " + std::to_string(scaleX) + "," +
           std::to_string(scaleY) + " at " + std::to_string(x) + "," + std::to_string(y) +
           " lids " + std::to_string(topLidY) + "/" + std::to_string(bottomLidY) + " (" +
           std::to_string(topLid.height) + "/" + std::to_string(bottomLid.height) + " rows)";
  }
};

void randomScene(Rng& rng, Scene& s, Eyes& eye) {
  // Background: nearly always a whole image (new content now and then, filling it is
  // the slowest part of a scene); sometimes none or a short one (black).
  static std::vector<uint8_t> content;
  if (content.empty() || chance(rng, 5)) {
    content.resize(static_cast<size_t>(N) * N * 3);
    const bool wide = chance(rng, 10);
    for (uint8_t& b : content) b = randomChannel(rng, wide);
  }
  s.background = VContent{};
  s.background.width = s.background.height = N;
  if (!chance(rng, 5)) {
    s.background.frames.push_back(content);
    if (chance(rng, 3)) s.background.frames.back().resize(content.size() - 3);
  }

  int w, h;
  switch (uniform(rng, 0, 9)) {
    case 0:  // tiny: bilinear neighbours reach past the image
      w = uniform(rng, 1, 3), h = uniform(rng, 1, 3);
      break;
    case 1:  // wider or taller than the 8-bit counters
      w = uniform(rng, 200, 400), h = uniform(rng, 1, 300);
      if (chance(rng, 50)) std::swap(w, h);
      break;
    default:
      w = uniform(rng, 4, 160), h = uniform(rng, 4, 160);
  }
  randomRgbaImage(rng, s.iris, w, h);
  s.scaleX = randomScale(rng, w);
  s.scaleY = chance(rng, 50) ? s.scaleX : randomScale(rng, h);

  // Anywhere from far off the panel to its middle; mostly where part of it shows.
  auto position = [&rng] {
    return chance(rng, 15) ? uniform(rng, -400, 640) : uniform(rng, -60, 300);
  };
  s.x = position();
  s.y = position();

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
  for (uint8_t* fill : {s.topFill, s.bottomFill}) {
    for (int c = 0; c < 3; ++c) fill[c] = randomChannel(rng, false);
    const uint8_t alphas[] = {0, 255, 250, 249, 100, 1};
    fill[3] = alphas[uniform(rng, 0, 5)];
  }
  auto lidLine = [&rng] {
    return static_cast<short>(chance(rng, 15) ? uniform(rng, -300, 600) : uniform(rng, -5, 245));
  };
  s.topLidY = lidLine();
  s.bottomLidY = lidLine();
  s.left = chance(rng, 50);

  eye.isLeft = s.left;
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
  }
  void TearDown() override { eyeframe::selectIsa(initial_); }

  // The panel's frame after the eye composed the scene.
  std::vector<uint8_t> composed(Eyes& eye, const Scene& s) {
    EXPECT_EQ(eye.set_Frame_12Bit(s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY), 0);
    return LcdControl::lastFrame(eye.isLeft ? 0 : 1);
  }

  const eyeframe::Isa initial_ = eyeframe::activeIsa();
};

// Where two frames first differ, as panel pixel coordinates.
std::string firstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (a[i] != b[i]) {
      const size_t pixel = i * 2 / 3;
      return "byte " + std::to_string(i) + " (pixel " + std::to_string(pixel % N) + "," +
             std::to_string(pixel / N) + ")";
    }
  return "sizes " + std::to_string(a.size()) + " and " + std::to_string(b.size());
}

TEST_F(ComposerEquivalenceTest, RandomScenesMatchThePerPixelRules) {
  const std::vector<eyeframe::Isa> isas = availableIsas();
  ASSERT_FALSE(isas.empty());
  Rng rng(20240611);
  Eyes eye(true, 0, 0);
  Scene scene;
  std::vector<uint8_t> expected(Eyes::kFrameBytes);
  constexpr int kScenes = 1000;
  int irisDrawn = 0;
  for (int n = 0; n < kScenes; ++n) {
    randomScene(rng, scene, eye);
    eyetest::referenceCompose(eye, scene.scaleX, scene.scaleY, scene.x, scene.y, scene.topLidY,
                              scene.bottomLidY, expected.data());
    for (eyeframe::Isa isa : isas) {
      ASSERT_TRUE(eyeframe::selectIsa(isa));
      const std::vector<uint8_t> actual = composed(eye, scene);
      ASSERT_EQ(actual, expected) << "scene " << n << " on " << eyeframe::isaName(isa) << ": "
                                  << scene.describe() << ", first difference at "
                                  << firstDifference(actual, expected);
    }
    EXPECT_EQ(eye.getIrisX(), static_cast<short>(scene.x));
    EXPECT_EQ(eye.getBottomLidY(), scene.bottomLidY);
    irisDrawn += eye.iris != nullptr && !scene.iris.frames.empty();
  }
  // The generator must keep exercising the iris, not only its failure forms.
  EXPECT_GT(irisDrawn, kScenes / 2);
  RecordProperty("scenes", kScenes);
}

// Sample positions that land exactly on the last row or column, one-pixel images,
// and frames with slack after the image: the neighbour reads the rules pin.
TEST_F(ComposerEquivalenceTest, EdgeSamplingMatchesThePerPixelRules) {
  const std::vector<eyeframe::Isa> isas = availableIsas();
  Rng rng(7);
  Eyes eye(false, 0, 0);
  Scene scene;
  std::vector<uint8_t> expected(Eyes::kFrameBytes);
  struct Case {
    int w, h;
    float sx, sy;
    size_t slack;
  };
  const Case cases[] = {{1, 1, 7.0f, 3.0f, 0},     {1, 40, 5.0f, 1.5f, 0},
                        {40, 1, 1.5f, 9.0f, 0},    {2, 2, 100.0f, 0.7f, 0},
                        {33, 17, 1.0f, 2.0f, 4},   {300, 300, 0.9f, 0.9f, 0},
                        {120, 120, 0.4f, 2.6f, 8}, {5, 260, 30.0f, 1.0f, 0}};
  for (const Case& c : cases) {
    scene.background = VContent{};
    scene.background.frames.emplace_back(static_cast<size_t>(N) * N * 3, 3);
    scene.iris = VContent{};
    scene.iris.width = static_cast<uint16_t>(c.w);
    scene.iris.height = static_cast<uint16_t>(c.h);
    scene.iris.frames.emplace_back(static_cast<size_t>(c.w) * c.h * 4 + c.slack * 4, 0);
    fillRgba(rng, scene.iris.frames[0], c.w, c.h);
    for (size_t i = static_cast<size_t>(c.w) * c.h * 4; i < scene.iris.frames[0].size(); ++i)
      scene.iris.frames[0][i] = 255;  // slack that a pinned read would show
    eye.iris = &scene.iris;
    eye.background = &scene.background;
    eye.topLid = eye.bottomLid = nullptr;
    eye.topLidColor = eye.bottomLidColor = nullptr;
    scene.scaleX = c.sx, scene.scaleY = c.sy;
    for (int x : {120, 3, 236}) {
      scene.x = x, scene.y = 240 - x;
      eyetest::referenceCompose(eye, c.sx, c.sy, scene.x, scene.y, 0, 240, expected.data());
      for (eyeframe::Isa isa : isas) {
        ASSERT_TRUE(eyeframe::selectIsa(isa));
        const std::vector<uint8_t> actual = composed(eye, scene);
        ASSERT_EQ(actual, expected)
            << eyeframe::isaName(isa) << ": " << scene.describe() << ", first difference at "
            << firstDifference(actual, expected);
      }
    }
  }
}

TEST_F(ComposerEquivalenceTest, FramesAllocateNothing) {
  Rng rng(3);
  Scene scene;
  Eyes eye(true, 0, 0);
  scene.background = VContent{};
  scene.background.frames.emplace_back(static_cast<size_t>(N) * N * 3, 7);
  randomRgbaImage(rng, scene.iris, 120, 120);
  scene.iris.frames.resize(1, std::vector<uint8_t>(120 * 120 * 4, 0));
  fillRgba(rng, scene.iris.frames[0], 120, 120);
  scene.iris.frameIndex = 0;
  for (VContent* lid : {&scene.topLid, &scene.bottomLid}) {
    *lid = VContent{};
    lid->width = N, lid->height = 60;
    lid->frames.emplace_back(static_cast<size_t>(N) * 60 * 4);
    fillRgba(rng, lid->frames[0], N, 60);
  }
  scene.topFill[3] = 255;
  scene.bottomFill[3] = 120;
  eye.background = &scene.background;
  eye.iris = &scene.iris;
  eye.topLid = &scene.topLid;
  eye.bottomLid = &scene.bottomLid;
  eye.topLidColor = scene.topFill;
  eye.bottomLidColor = scene.bottomFill;

  ASSERT_EQ(eye.set_Frame_12Bit(1.0f, 1.0f, 120, 120, 0, 240), 0);  // the panel's first frame
  for (eyeframe::Isa isa : availableIsas()) {
    ASSERT_TRUE(eyeframe::selectIsa(isa));
    const long before = allocations.load();
    eye.set_Frame_12Bit(1.0f, 1.0f, 120, 120, 0, 240);
    eye.set_Frame_12Bit(1.3f, 1.1f, 120, 120, 60, 200);
    eye.set_Frame_12Bit(1.0f, 1.0f, 100, 140, 130, 110);
    eye.set_Frame_12Bit(2.7f, 0.6f, -20, 250, -4, 90);
    EXPECT_EQ(allocations.load() - before, 0) << eyeframe::isaName(isa);
  }
  // The counter sees allocations at all.
  const long before = allocations.load();
  std::vector<uint8_t> probe(10);
  EXPECT_GT(allocations.load(), before);
}

}  // namespace
