// Cost of composing one eye frame, three ways, on the same three scenes:
//   fast     the library's composer (eyeframe::compose, what set_Frame_12Bit runs)
//   literal  the per-pixel rules pixel by pixel (tests/support/ReferenceComposer.h)
//   pixman   the same visual work with pixman: background x8r8g8b8, bilinear OVER for
//            the iris, OVER for the lids, then a loop packing to 12 bits
// Scenes: a) iris 120x120 at scale 1, centred, no lids; b) iris at 1.3 x 1.1, top lid
// line 60, bottom 200, lid images 60 rows; c) eye closed, lids 130/110, iris at 1.
//
// Default: Google Benchmark, repetitions interleaved at random, then a table of median
// times and ratios. `bench_composer --frames SCENE IMPL COUNT` composes COUNT frames with
// callgrind collection switched on around each compose call only (scripts/callgrind-composer).
#include <benchmark/benchmark.h>
#include <pixman.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Eyes.h"
#include "ReferenceComposer.h"
#include "VContent.h"
#include "compose/Composer.h"

namespace {

constexpr int N = Eyes::kSize;

struct Scene {
  const char* name;
  float scaleX, scaleY;
  int x, y;
  short topLidY, bottomLidY;
};

const Scene kScenes[] = {
    {"a_open_unscaled", 1.0f, 1.0f, 120, 120, 0, 240},
    {"b_scaled_lids", 1.3f, 1.1f, 120, 120, 60, 200},
    {"c_closed", 1.0f, 1.0f, 120, 120, 130, 110},
};

// ---- Images: a textured iris disc with a soft rim, skin-coloured lids ----------------

uint8_t nibble(double v) {
  return static_cast<uint8_t>(std::clamp(v, 0.0, 15.0));
}

struct Images {
  VContent background, iris, topLid, bottomLid;
  uint8_t topFill[4] = {13, 9, 8, 255};
  uint8_t bottomFill[4] = {13, 9, 8, 255};

  Images() {
    background.width = background.height = N;
    background.frames.emplace_back(N * N * 3);
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x) {
        uint8_t* p = &background.frames[0][(y * N + x) * 3];
        p[0] = nibble(14 - y / 60.0), p[1] = nibble(14 - x / 80.0), p[2] = nibble(13 + (x + y) % 3);
      }

    const int s = 120;
    iris.width = iris.height = s;
    iris.frames.emplace_back(s * s * 4, 0);
    for (int y = 0; y < s; ++y)
      for (int x = 0; x < s; ++x) {
        const double dx = x + 0.5 - s / 2.0, dy = y + 0.5 - s / 2.0;
        const double r = std::sqrt(dx * dx + dy * dy);
        const double edge = std::clamp(59.0 - r, 0.0, 1.0);  // one pixel of soft rim
        if (edge <= 0) continue;                             // clear: all zero bytes
        const double fibre = 0.5 + 0.5 * std::sin(std::atan2(dy, dx) * 24.0);
        uint8_t* p = &iris.frames[0][(y * s + x) * 4];
        if (r < 18) {
          p[0] = p[1] = p[2] = 1;  // pupil
        } else {
          p[0] = nibble(2 + 3 * fibre), p[1] = nibble(5 + r / 8.0), p[2] = nibble(9 + 5 * fibre);
        }
        p[3] = static_cast<uint8_t>(std::lround(255 * edge));
      }

    // Lids 240 x 60: skin on the lid side of a curved edge, a soft edge, clear beyond.
    auto lid = [](VContent& image, bool top) {
      const int h = 60;
      image.width = N;
      image.height = h;
      image.frames.emplace_back(N * h * 4, 0);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < N; ++x) {
          const double u = (x - N / 2.0) / (N / 2.0);
          const double edgeRow = top ? 40 + 18 * u * u : 20 - 18 * u * u;
          const double depth = top ? edgeRow - y : y - edgeRow;
          const double cover = std::clamp(depth + 0.5, 0.0, 1.0);
          if (cover <= 0) continue;
          uint8_t* p = &image.frames[0][(y * N + x) * 4];
          p[0] = nibble(13 - (depth < 3 ? 6 : 0)), p[1] = 9, p[2] = 8;
          p[3] = static_cast<uint8_t>(std::lround(255 * cover));
        }
    };
    lid(topLid, true);
    lid(bottomLid, false);
  }

  void attach(Eyes& eye) {
    eye.background = &background;
    eye.iris = &iris;
    eye.topLid = &topLid;
    eye.bottomLid = &bottomLid;
    eye.topLidColor = topFill;
    eye.bottomLidColor = bottomFill;
  }
};

Images& images() {
  static Images all;
  return all;
}

Eyes& benchEye() {
  static Eyes eye(true, 120, 120);
  static bool attached = (images().attach(eye), true);
  (void)attached;
  return eye;
}

// ---- pixman doing the same visual work ---------------------------------------------------

uint32_t argb(const uint8_t* c, uint8_t alpha) {
  // 4-bit channels to 8 bits, premultiplied as pixman wants them.
  auto pre = [alpha](uint8_t v) { return static_cast<uint32_t>((v * 17 * alpha + 127) / 255); };
  return static_cast<uint32_t>(alpha) << 24 | pre(c[0]) << 16 | pre(c[1]) << 8 | pre(c[2]);
}

struct Pixman {
  std::vector<uint32_t> bg, iris, top, bottom, dst;
  pixman_image_t *bgImage, *irisImage, *topImage, *bottomImage, *dstImage, *topFill, *bottomFill;

  Pixman() {
    Images& im = images();
    bg.resize(N * N);
    for (int i = 0; i < N * N; ++i) bg[i] = argb(&im.background.frames[0][i * 3], 255);
    auto rgba = [](const VContent& image, std::vector<uint32_t>& out) {
      out.resize(static_cast<size_t>(image.width) * image.height);
      for (size_t i = 0; i < out.size(); ++i)
        out[i] = argb(&image.frames[0][i * 4], image.frames[0][i * 4 + 3]);
      return pixman_image_create_bits(PIXMAN_a8r8g8b8, image.width, image.height, out.data(),
                                      image.width * 4);
    };
    bgImage = pixman_image_create_bits(PIXMAN_x8r8g8b8, N, N, bg.data(), N * 4);
    irisImage = rgba(im.iris, iris);
    topImage = rgba(im.topLid, top);
    bottomImage = rgba(im.bottomLid, bottom);
    pixman_image_set_filter(irisImage, PIXMAN_FILTER_BILINEAR, nullptr, 0);
    dst.resize(N * N);
    dstImage = pixman_image_create_bits(PIXMAN_x8r8g8b8, N, N, dst.data(), N * 4);
    auto solid = [](const uint8_t* c) {
      const uint32_t v = argb(c, c[3]);
      pixman_color_t colour{
          static_cast<uint16_t>((v >> 16 & 255) * 257), static_cast<uint16_t>((v >> 8 & 255) * 257),
          static_cast<uint16_t>((v & 255) * 257), static_cast<uint16_t>((v >> 24) * 257)};
      return pixman_image_create_solid_fill(&colour);
    };
    topFill = solid(im.topFill);
    bottomFill = solid(im.bottomFill);
  }

  void compose(const Scene& s, uint8_t* out) {
    pixman_image_composite32(PIXMAN_OP_SRC, bgImage, nullptr, dstImage, 0, 0, 0, 0, 0, 0, N, N);
    const int w = static_cast<int>(120 * s.scaleX), h = static_cast<int>(120 * s.scaleY);
    pixman_transform_t t;
    pixman_transform_init_scale(&t, pixman_double_to_fixed(119.0 / w),
                                pixman_double_to_fixed(119.0 / h));
    pixman_image_set_transform(irisImage, &t);
    pixman_image_composite32(PIXMAN_OP_OVER, irisImage, nullptr, dstImage, 0, 0, 0, 0, s.x - w / 2,
                             s.y - h / 2, w, h);
    const int lidH = 60;
    if (s.topLidY >= 1) {
      pixman_image_composite32(PIXMAN_OP_OVER, topImage, nullptr, dstImage, 0, 0, 0, 0, 0,
                               s.topLidY - lidH, N, lidH);
      if (s.topLidY > lidH)
        pixman_image_composite32(PIXMAN_OP_OVER, topFill, nullptr, dstImage, 0, 0, 0, 0, 0, 0, N,
                                 s.topLidY - lidH);
    }
    if (s.bottomLidY <= N - 1) {
      pixman_image_composite32(PIXMAN_OP_OVER, bottomImage, nullptr, dstImage, 0, 0, 0, 0, 0,
                               s.bottomLidY, N, lidH);
      if (s.bottomLidY + lidH < N)
        pixman_image_composite32(PIXMAN_OP_OVER, bottomFill, nullptr, dstImage, 0, 0, 0, 0, 0,
                                 s.bottomLidY + lidH, N, N - s.bottomLidY - lidH);
    }
    // Two x8r8g8b8 pixels to three bytes of 4-bit blue, green, red.
    for (int i = 0; i < N * N; i += 2, out += 3) {
      const uint32_t p = dst[i], q = dst[i + 1];
      out[0] = static_cast<uint8_t>((p >> 12 & 0x0F) | (p >> 0 & 0xF0));
      out[1] = static_cast<uint8_t>((p >> 16 & 0xF0) | (q >> 4 & 0x0F));
      out[2] = static_cast<uint8_t>((q >> 20 & 0x0F) | (q >> 8 & 0xF0));
    }
  }
};

Pixman& pixmanState() {
  static Pixman state;
  return state;
}

// ---- The three implementations -------------------------------------------------------------

using Impl = void (*)(const Scene&, uint8_t*);

void fast(const Scene& s, uint8_t* out) {
  const Eyes& eye = benchEye();
  eyeframe::Scene scene = eyeframe::Scene::of(eye.background, eye.iris, eye.topLid, eye.bottomLid,
                                              eye.topLidColor, eye.bottomLidColor);
  scene.scaleX = s.scaleX, scene.scaleY = s.scaleY;
  scene.centreX = s.x, scene.centreY = s.y;
  scene.topLidY = s.topLidY, scene.bottomLidY = s.bottomLidY;
  eyeframe::compose(scene, out);
}
void literal(const Scene& s, uint8_t* out) {
  eyetest::referenceCompose(benchEye(), s.scaleX, s.scaleY, s.x, s.y, s.topLidY, s.bottomLidY, out);
}
void withPixman(const Scene& s, uint8_t* out) {
  pixmanState().compose(s, out);
}

const std::map<std::string, Impl>& impls() {
  static const std::map<std::string, Impl> all = {
      {"fast", fast}, {"literal", literal}, {"pixman", withPixman}};
  return all;
}

uint8_t frameBuffer[Eyes::kFrameBytes];

void runBenchmark(benchmark::State& state, const Scene* scene, Impl impl) {
  impl(*scene, frameBuffer);  // images and tables built outside the timing
  for (auto _ : state) {
    impl(*scene, frameBuffer);
    benchmark::DoNotOptimize(frameBuffer);
    benchmark::ClobberMemory();
  }
}

// Keeps each benchmark's median for the table at the end.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> medians;  // "scene/impl" -> microseconds per frame
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
        medians[run.run_name.function_name] = run.GetAdjustedRealTime();  // in microseconds
  }
};

int callgrindFrames(const std::string& sceneName, const std::string& implName, int count) {
  const Scene* scene = nullptr;
  for (const Scene& s : kScenes)
    if (sceneName == s.name || sceneName == std::string(1, s.name[0])) scene = &s;
  const auto impl = impls().find(implName);
  if (scene == nullptr || impl == impls().end() || count < 1) {
    std::fprintf(stderr, "usage: bench_composer --frames a|b|c fast|literal|pixman COUNT\n");
    return 2;
  }
  impl->second(*scene, frameBuffer);  // warm-up, not collected
  for (int i = 0; i < count; ++i) {
    CALLGRIND_TOGGLE_COLLECT;
    impl->second(*scene, frameBuffer);
    CALLGRIND_TOGGLE_COLLECT;
  }
  std::printf("%s %s %d frames (%s)\n", scene->name, implName.c_str(), count,
              eyeframe::isaName(eyeframe::activeIsa()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* isa = std::getenv("EYE_COMPOSER_ISA"))
    for (eyeframe::Isa candidate :
         {eyeframe::Isa::Portable, eyeframe::Isa::Avx2, eyeframe::Isa::Neon})
      if (std::string(isa) == eyeframe::isaName(candidate)) eyeframe::selectIsa(candidate);
  if (argc >= 2 && std::string(argv[1]) == "--frames")
    return argc == 5 ? callgrindFrames(argv[2], argv[3], std::atoi(argv[4])) : 2;

  for (const Scene& scene : kScenes)
    for (const auto& [name, impl] : impls())
      benchmark::RegisterBenchmark((std::string(scene.name) + "/" + name).c_str(), runBenchmark,
                                   &scene, impl)
          ->Unit(benchmark::kMicrosecond)
          ->Repetitions(9)
          ->ReportAggregatesOnly(true);

  // Repetitions of all benchmarks interleaved at random, so that a slow moment of the
  // machine does not fall on one implementation only.
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.push_back(interleave.data());
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  std::printf("\nmedian us per frame (%s composer)\n%-16s %9s %9s %9s %14s %14s\n",
              eyeframe::isaName(eyeframe::activeIsa()), "scene", "fast", "literal", "pixman",
              "literal/fast", "pixman/fast");
  for (const Scene& scene : kScenes) {
    const std::string base = std::string(scene.name) + "/";
    const double f = reporter.medians[base + "fast"], l = reporter.medians[base + "literal"],
                 p = reporter.medians[base + "pixman"];
    if (f <= 0) continue;
    std::printf("%-16s %9.1f %9.1f %9.1f %14.2f %14.2f\n", scene.name, f, l, p, l / f, p / f);
  }
  return 0;
}
