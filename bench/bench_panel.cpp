// The panels' share of the robot's frame: every bundled animation and a minute of
// generated idle motion, played by the real player through the ST7789 output onto a
// modelled bus, both panels on one SPI bus.
//
//   bench_panel [--whole] [HZ...]        (default: 32000000 40000000)
//
// The bus model: each SPI message costs its bytes x 8 / HZ plus kMessageOverhead (the
// system call, the data/command line switch before it, chip select and DMA set-up), in
// spidev's messages of at most kBufsiz bytes. The output's write sleeps until its bus
// time is over, so the player's pacing sees it as it would on the robot. Per play:
//   kB/s      bytes sent per second of playback, both panels
//   saved     share of the full-frame traffic (86,400 bytes per written frame) not sent
//   mean, worst  frame period the player reaches (intervals between one panel's
//             consecutive writes; longer intervals are holds that drew nothing)
//   bus       the longest modelled bus time of one player frame, both panels
// --whole sends every frame whole, as the output did before it sent windows.
// and overall the share saved and the process CPU per second of playback.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeIdle.h"
#include "Helper.h"
#include "LcdControl.h"
#include "PlayWait.h"
#include "SpidevTransport.h"
#include "St7789Output.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kMessageOverhead = std::chrono::microseconds(25);
constexpr size_t kBufsiz = 4096;  // spidev's default bounce buffer
constexpr int kIdleSeconds = 60;

struct Traffic {
  uint64_t bytes = 0, messages = 0, frames = 0;
  Clock::duration bus{};
};

// Counts what would go over the bus and how long it would take there.
class BusModel : public PanelTransport {
 public:
  BusModel(uint32_t hz, Traffic& traffic) : hz_(hz), traffic_(traffic) {}
  int open() override { return 0; }
  int setDataCommand(uint8_t, bool) override { return 0; }
  int reset(uint8_t, bool) override { return 0; }
  int spiWrite(uint8_t, const SpiPiece* pieces, size_t count) override {
    while (count > 0) {
      const size_t n = spidevMessagePieces(pieces, count, kBufsiz, 64);
      uint64_t bytes = 0;
      for (size_t i = 0; i < n; ++i) bytes += pieces[i].size;
      traffic_.bytes += bytes;
      ++traffic_.messages;
      traffic_.bus += kMessageOverhead + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(bytes * 8.0 / hz_));
      pieces += n;
      count -= n;
    }
    return 0;
  }
  size_t maxTransfer() const override { return kBufsiz; }
  void delayMs(int) override {}  // start-up is not measured
  std::string describe() const override { return "bus model"; }

 private:
  double hz_;
  Traffic& traffic_;
};

// The ST7789 output whose writes last as long as the bus would take; stamps each write.
class ModelledPanels : public St7789Output {
 public:
  ModelledPanels(uint32_t hz, Traffic& traffic)
      : St7789Output(std::make_unique<BusModel>(hz, traffic)), traffic_(traffic) {}
  std::vector<Clock::time_point> stamps[LcdControl::kPanels];
  bool wholeFrames = false;         // as before windows: every frame whole
  Clock::duration worstFrameBus{};  // of one player frame, both panels

 protected:
  int write_(uint8_t panel, const uint8_t* frame) override {
    const Clock::time_point start = Clock::now();
    stamps[panel].push_back(start);
    const Clock::duration before = traffic_.bus;
    if (wholeFrames) requestFullFrames();
    const int status = St7789Output::write_(panel, frame);
    ++traffic_.frames;
    // The player draws the left eye (panel 0) before the right one in each frame.
    if (panel == 0 || lastPanel_ == 1) frameBus_ = {};
    lastPanel_ = panel;
    frameBus_ += traffic_.bus - before;
    worstFrameBus = std::max(worstFrameBus, frameBus_);
    const auto end = start + (traffic_.bus - before);
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end.time_since_epoch()).count();
    timespec until{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
    }
    return status;
  }

 private:
  Traffic& traffic_;
  Clock::duration frameBus_{};
  uint8_t lastPanel_ = 1;
};

// Plays `name` to its end; the seconds it took.
double play(const std::string& name) {
  const unsigned before = benchplay::ended();
  const auto start = Clock::now();
  if (EyeControl::setAnimation(1, name) != 0) return 0.0;
  benchplay::waitForEnd(before);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Periods {
  double sumMs = 0, worstMs = 0;
  size_t count = 0;
  void add(const std::vector<Clock::time_point>& stamps) {
    for (size_t i = 1; i < stamps.size(); ++i) {
      const double ms =
          std::chrono::duration<double, std::milli>(stamps[i] - stamps[i - 1]).count();
      if (ms >= 1.5 * FRAME_PERIOD_MS) continue;  // a hold in between
      sumMs += ms, worstMs = std::max(worstMs, ms), ++count;
    }
  }
};

// One table row: one play, or several added up.
struct Row {
  Traffic traffic;
  Periods periods;
  double seconds = 0, cpu = 0, busWorstMs = 0;
  size_t plays = 0;

  void add(const Row& r) {
    traffic.bytes += r.traffic.bytes;
    traffic.frames += r.traffic.frames;
    traffic.messages += r.traffic.messages;
    periods.sumMs += r.periods.sumMs;
    periods.count += r.periods.count;
    periods.worstMs = std::max(periods.worstMs, r.periods.worstMs);
    seconds += r.seconds;
    cpu += r.cpu;
    busWorstMs = std::max(busWorstMs, r.busWorstMs);
    plays += r.plays;
  }
  double saved() const {
    const double full = static_cast<double>(traffic.frames) * LcdControl::kFrameBytes;
    return full > 0 ? 1.0 - static_cast<double>(traffic.bytes) / full : 0.0;
  }
  double meanMs() const { return periods.count ? periods.sumMs / periods.count : 0.0; }
  void print(const std::string& label) const {
    std::printf("| %-22s | %7.1f | %5.1f %% | %5.1f | %5.1f | %5.1f |\n", label.c_str(),
                static_cast<double>(traffic.bytes) / 1000.0 / seconds, 100.0 * saved(), meanMs(),
                periods.worstMs, busWorstMs);
  }
};

Row measure(ModelledPanels& panels, Traffic& traffic, const std::string& name) {
  traffic = Traffic{};
  for (auto& s : panels.stamps) s.clear();
  panels.worstFrameBus = {};
  Row row;
  const double cpu0 = benchplay::cpuSeconds();
  row.seconds = play(name);
  row.cpu = benchplay::cpuSeconds() - cpu0;
  row.traffic = traffic;
  for (const auto& s : panels.stamps) row.periods.add(s);
  row.plays = 1;
  row.busWorstMs = std::chrono::duration<double, std::milli>(panels.worstFrameBus).count();
  return row;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // rows as they come: a run takes minutes
  std::vector<uint32_t> clocks;
  bool wholeFrames = false;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--whole")
      wholeFrames = true;
    else
      clocks.push_back(static_cast<uint32_t>(std::atof(argv[i])));
  }
  if (clocks.empty()) clocks = {32000000, 40000000};

#ifdef EYE_ASSETS_DIR
  const Settings& settings = Helper::getSettings();
  if (EyeControl::initFrom(EYE_ASSETS_DIR, static_cast<IrisShape>(settings.defaultIrisShape),
                           settings.defaultIrisStyle,
                           static_cast<EyeContentType>(settings.defaultBackgroundType),
                           settings.defaultBackgroundStyle) != 0 ||
      EyeControl::eye_animations.empty()) {
    std::fprintf(stderr, "bench_panel: cannot load the bundled eye set from %s\n", EYE_ASSETS_DIR);
    return 1;
  }
#else
  std::fprintf(stderr, "bench_panel: built without the bundled eye set\n");
  return 1;
#endif
  benchplay::listen();
  std::vector<std::string> names;
  for (const auto& animation : EyeControl::eye_animations) names.push_back(animation->name);

  for (uint32_t hz : clocks) {
    Traffic traffic;
    auto owned = std::make_unique<ModelledPanels>(hz, traffic);
    ModelledPanels& panels = *owned;
    panels.wholeFrames = wholeFrames;
    LcdControl::setOutput(std::move(owned));
    std::printf("\n%.0f MHz, both panels on one bus, %lld us per message, %zu-byte messages%s\n\n",
                hz / 1e6, static_cast<long long>(kMessageOverhead.count()), kBufsiz,
                wholeFrames ? ", every frame whole" : "");
    std::printf("| %-22s | %7s | %7s | %5s | %5s | %5s |\n", "play", "kB/s", "saved", "mean",
                "worst", "bus");
    std::printf("|%s|%s|%s|%s|%s|%s|\n", std::string(24, '-').c_str(), std::string(9, '-').c_str(),
                std::string(9, '-').c_str(), std::string(7, '-').c_str(),
                std::string(7, '-').c_str(), std::string(7, '-').c_str());
    EyeControl::SetFrames(EyeSide::BOTH);  // every play starts on panels in step
    Row bundled;
    size_t outside = 0;
    for (const std::string& name : names) {
      const Row row = measure(panels, traffic, name);
      row.print(name);
      bundled.add(row);
      if (std::abs(row.meanMs() - FRAME_PERIOD_MS) > 0.5) ++outside;
    }

    // A minute of idle motion, its steps played back to back (their still times cut out).
    Row idle;
    const auto steps =
        IdleMotion::generate(IdleSettings{}, 1, EyeIdle::currentGaze(), kIdleSeconds);
    for (const IdleStep& step : steps) {
      step.animation->name = "idle step";
      EyeControl::eye_animations.push_back(step.animation);
      idle.add(measure(panels, traffic, "idle step"));
      EyeControl::eye_animations.pop_back();
    }
    idle.print("idle, " + std::to_string(kIdleSeconds) + " s generated");
    Row all = bundled;
    all.add(idle);
    std::printf(
        "\nbundled: %zu plays, %.1f %% of the full-frame traffic saved, mean period %.2f ms, "
        "worst %.1f ms, bus at most %.1f ms a frame, %zu plays with a mean outside 40 +- 0.5 ms\n",
        bundled.plays, 100.0 * bundled.saved(), bundled.meanMs(), bundled.periods.worstMs,
        bundled.busWorstMs, outside);
    std::printf(
        "idle: %.1f %% saved; all: %.1f %% saved, %llu messages, %.2f ms CPU per second "
        "of playback (both eyes)\n",
        100.0 * idle.saved(), 100.0 * all.saved(),
        static_cast<unsigned long long>(all.traffic.messages), 1000.0 * all.cpu / all.seconds);
  }
  benchplay::stopListening();
  return 0;
}
