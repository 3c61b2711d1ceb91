// Frame pacing and CPU cost of the animation player, measured on its real worker.
//
// Plays "roll_eyes" of the bundled eye set (or BENCH_ANIMATION=<name>, or else its
// first animation) over and over for a few seconds; without the bundled set, a
// built-in animation that moves every frame. Counters:
//   period_ms_mean     mean time between two consecutive drawn frames of the left eye
//   dev_ms_p99         99th percentile of |frame period - 40 ms|
//   cpu_ms_per_s       process CPU time per second of playback (both eyes)
//   periods            frame periods measured
//   gaps               longer intervals left out (still holds that drew nothing)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeEvent.h"
#include "Helper.h"
#include "LcdControl.h"
#include "PlayWait.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kPlaySeconds = 4.0;

// Timestamps every frame written to the left panel.
class StampingOutput : public LcdOutput {
 public:
  std::string describe() const override { return "frame timestamps"; }

  static std::vector<Clock::time_point> take() {
    std::lock_guard<std::mutex> lock(mutex());
    std::vector<Clock::time_point> out;
    out.swap(stamps());
    return out;
  }

 protected:
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t*) override {
    if (panel != 0) return 0;
    std::lock_guard<std::mutex> lock(mutex());
    stamps().push_back(Clock::now());
    return 0;
  }

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<Clock::time_point>& stamps() {
    static std::vector<Clock::time_point> s;
    return s;
  }
};

moveEvent key(short x, short y, short timeMs, float scale, short lidTop, short lidBot,
              short rotate = 0, short ellipseH = 0) {
  return moveEvent(x, y, timeMs, 0, scale, scale, 40.0, lidTop, lidBot, 0, 0, rotate, ellipseH);
}

// Eyes painted in code and a two-second animation that changes every frame.
std::string setUpBuiltIn() {
  LcdControl::init(LCD_COLOR_DEPTH_12BIT);
  for (VContent* image : {&EyeControl::default_iris.left, &EyeControl::default_iris.right})
    image->AddFrame("", 80, 80, true, true, 30, 90, 220, 255);
  for (VContent* image :
       {&EyeControl::default_background.left, &EyeControl::default_background.right})
    image->AddFrame("", 240, 240, false, true, 250, 250, 250, 255);
  EyeControl::lid_images.resize(1);
  EyeControl::lid_images[0].content.AddFrame("", 240, 60, true, true, 120, 80, 60, 255);
  EyeControl::lid_images[0].color[3] = 255;
  for (Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye}) {
    eye->iris = eye->isLeft ? &EyeControl::default_iris.left : &EyeControl::default_iris.right;
    eye->background =
        eye->isLeft ? &EyeControl::default_background.left : &EyeControl::default_background.right;
    eye->topLid = eye->bottomLid = &EyeControl::lid_images[0].content;
    eye->topLidColor = eye->bottomLidColor = EyeControl::lid_images[0].color;
    eye->lidImages = &EyeControl::lid_images;
  }

  auto animation = std::make_shared<EyeAnimation>(1, "built-in");
  animation->left.events = {key(170, 120, 1200, 1.0f, 0, 240, 360, 30),
                            key(100, 140, 400, 1.4f, 0, 240), key(100, 140, 200, 1.0f, 110, 130),
                            key(100, 140, 200, 1.0f, 0, 240)};
  animation->right.events = {key(70, 120, 1200, 1.0f, 0, 240, -360, 30),
                             key(140, 140, 400, 1.4f, 0, 240), key(140, 140, 200, 1.0f, 110, 130),
                             key(140, 140, 200, 1.0f, 0, 240)};
  EyeControl::eye_animations.push_back(animation);
  return animation->name;
}

// The animation to play, with the eyes brought up.
std::string setUpEyes() {
#ifdef EYE_ASSETS_DIR
  if (Helper::getPathInfo(EYE_ASSETS_DIR "/eyeanimations.xml") == 1) {
    const Settings& settings = Helper::getSettings();
    const int8_t status = EyeControl::initFrom(
        EYE_ASSETS_DIR, static_cast<IrisShape>(settings.defaultIrisShape),
        settings.defaultIrisStyle, static_cast<EyeContentType>(settings.defaultBackgroundType),
        settings.defaultBackgroundStyle);
    if (status == 0 && !EyeControl::eye_animations.empty()) {
      if (const char* wanted = std::getenv("BENCH_ANIMATION")) return wanted;
      // A full turn of both irises: a new frame every period.
      if (EyeControl::getAnimation("roll_eyes")) return "roll_eyes";
      return EyeControl::eye_animations.front()->name;
    }
  }
#endif
  return setUpBuiltIn();
}

void BM_PlayAnimation(benchmark::State& state) {
  static const std::string name = setUpEyes();
  state.SetLabel(name);
  LcdControl::setOutput(std::make_unique<StampingOutput>());
  benchplay::listen();

  std::vector<double> periods;
  unsigned gaps = 0;
  double played = 0.0;
  double cpu = 0.0;
  for (auto _ : state) {
    periods.clear();
    gaps = 0;
    played = 0.0;
    const double cpu0 = benchplay::cpuSeconds();
    while (played < kPlaySeconds) {
      StampingOutput::take();
      const unsigned before = benchplay::ended();
      const auto start = Clock::now();
      if (EyeControl::setAnimation(1, name) != 0) {
        state.SkipWithError(("no animation named " + name).c_str());
        return;
      }
      benchplay::waitForEnd(before);
      played += std::chrono::duration<double>(Clock::now() - start).count();

      // An interval of more than one and a half periods spans frames that drew
      // nothing (a still hold); only back-to-back frames measure the period.
      const auto stamps = StampingOutput::take();
      for (size_t i = 1; i < stamps.size(); ++i) {
        const double ms =
            std::chrono::duration<double, std::milli>(stamps[i] - stamps[i - 1]).count();
        if (ms < 1.5 * FRAME_PERIOD_MS)
          periods.push_back(ms);
        else
          ++gaps;
      }
    }
    cpu = benchplay::cpuSeconds() - cpu0;
  }
  benchplay::stopListening();

  if (periods.empty()) {
    state.SkipWithError("the animation drew fewer than two frames on the left eye");
    return;
  }
  double sum = 0.0;
  std::vector<double> deviations;
  for (double p : periods) {
    sum += p;
    deviations.push_back(std::fabs(p - FRAME_PERIOD_MS));
  }
  std::sort(deviations.begin(), deviations.end());
  const size_t p99 =
      std::min(deviations.size() - 1, static_cast<size_t>(std::ceil(0.99 * deviations.size())) - 1);
  state.counters["period_ms_mean"] = sum / static_cast<double>(periods.size());
  state.counters["dev_ms_p99"] = deviations[p99];
  state.counters["cpu_ms_per_s"] = cpu * 1000.0 / played;
  state.counters["periods"] = static_cast<double>(periods.size());
  state.counters["gaps"] = gaps;
}
BENCHMARK(BM_PlayAnimation)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
