// Idle motion's runner: the thread that plays the generator's animations as blocks.
#include "EyeIdle.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include "BlockEye.h"
#include "EyeControl.h"
#include "EyeEvent.h"
#include "PlayGate.h"

// --- runner ---

namespace {

// Idle's own eye-animation blocks, told apart from the application's by their type.
class IdleBlock : public BlockEye {
 public:
  IdleBlock(uint16_t id, std::shared_ptr<EyeAnimation> play) : BlockEye(BLOCK_EYE_ANIMATION) {
    blockId = id;
    animation = std::move(play);
  }
};

// What idle knows of its current play, from the listeners below.
struct PlayWatch {
  std::atomic<int> id{-1};
  std::atomic<bool> done{true};
  std::atomic<std::thread::id> worker{};  // the play's worker thread, once it has started
};

// Kept first among the listener objects, so the worker is known before any other start
// listener can call into the library on that thread.
class StartListener : public EyeEventListener {
 public:
  explicit StartListener(PlayWatch& watch) : watch_(watch) {}
  void onEyeStart(unsigned short id) override {
    if (static_cast<int>(id) == watch_.id) watch_.worker = std::this_thread::get_id();
  }

 private:
  PlayWatch& watch_;
};

// Kept last: once it hears the end, the worker holds the registry no more.
class EndListener : public EyeEventListener {
 public:
  EndListener(PlayWatch& watch, std::condition_variable& wake) : watch_(watch), wake_(wake) {}
  void onEyeComplete(unsigned short id) override { ended(id); }
  void onEyeAbort(unsigned short id) override { ended(id); }

 private:
  void ended(unsigned short id) {
    if (static_cast<int>(id) != watch_.id) return;
    watch_.worker = std::thread::id{};
    watch_.done = true;
    wake_.notify_all();
  }
  PlayWatch& watch_;
  std::condition_variable& wake_;
};

struct Runner {
  std::mutex control;  // serialises start and stop
  // Keeps the application's activity and idle's launches apart: a play is launched only
  // when no activity came in since the runner last looked, and commands wait while a
  // launched play has not begun its frames.
  std::mutex gate;
  std::atomic<bool> stopRequested{false};
  std::atomic<uint64_t> activity{0};
  std::atomic<int64_t> lastActivityMs{0};
  std::shared_ptr<EyeAnimation> currentPlay;  // under gate
  EyeIdle::Clock clock;                       // set under gate while not running
  std::mutex wakeMutex;
  std::condition_variable wake;
  PlayWatch watch;
  StartListener startListener{watch};
  EndListener endListener{watch, wake};
  std::thread thread;

  // An application that never stopped idle must not end with a joinable thread.
  ~Runner() {
    if (!thread.joinable()) return;
    stopRequested = true;
    thread.join();
  }

  void pause() {
    std::unique_lock<std::mutex> lock(wakeMutex);
    wake.wait_for(lock, std::chrono::milliseconds(2), [this] { return stopRequested.load(); });
  }

  void placeListeners() {
    EyeEvent::RemoveListener(&startListener);
    EyeEvent::AddListener(&startListener, true);
    EyeEvent::RemoveListener(&endListener);
    EyeEvent::AddListener(&endListener, false);
  }
};

Runner& runner() {
  static Runner r;
  return r;
}

// Outside Runner: every command asks it, also while the process's statics are torn down.
std::atomic<bool> idleRunning{false};

PlayGate::Player& gateHook();

struct LidLines {
  short leftTop, leftBottom, rightTop, rightBottom;
  bool operator==(const LidLines& o) const {
    return leftTop == o.leftTop && leftBottom == o.leftBottom && rightTop == o.rightTop &&
           rightBottom == o.rightBottom;
  }
};

LidLines lidLinesOf(const IdleGaze& g) {
  return {g.left.lidTop, g.left.lidBottom, g.right.lidTop, g.right.lidBottom};
}

// Plays `play` as idle's block `id` unless the application came in since `seenActivity`;
// returns once its frames have begun (or it has ended).
bool launch(Runner& r, uint16_t id, const std::shared_ptr<EyeAnimation>& play,
            uint64_t seenActivity) {
  // Outside the gate: a worker delivering to listener objects may be waiting for it.
  r.placeListeners();
  std::lock_guard<std::mutex> lock(r.gate);
  if (r.activity != seenActivity || EyeControl::is_processing || r.stopRequested) return false;
  play->id = id;
  r.currentPlay = play;
  r.watch.worker = std::thread::id{};
  r.watch.id = id;
  r.watch.done = false;
  EyeControl::ProcessEyeBlock(std::make_shared<IdleBlock>(id, play));
  // Until the frames begin an abort request would be lost (the player clears the state
  // first), so the application's commands wait here for that moment.
  while (play->state != AnimationState::PLAYING && !r.watch.done)
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  return true;
}

void runLoop(const IdleSettings settings, uint64_t seed) {
  Runner& r = runner();
  IdleMotion motion(settings, seed);
  uint64_t seenActivity = r.activity;
  int64_t quietUntil = 0;
  bool yielded = false;
  std::optional<IdleStep> step;
  int64_t lastEndMs = r.clock();
  int64_t dueMs = 0;
  uint16_t nextId = EyeIdle::kFirstBlockId;
  // The open lids blinks return to, and the lids as idle last let go of them: when the
  // application has not moved them since, an interrupted blink is opened again.
  LidLines rest = lidLinesOf(EyeIdle::currentGaze());
  LidLines leftByIdle = rest;

  while (!r.stopRequested) {
    const int64_t now = r.clock();
    const uint64_t activity = r.activity;
    if (activity != seenActivity) {
      seenActivity = activity;
      quietUntil = std::max(quietUntil, r.lastActivityMs + settings.quietMs);
      yielded = true;
    }
    if (EyeControl::is_processing) {  // the application plays; idle's own play has ended
      quietUntil = std::max(quietUntil, now + settings.quietMs);
      yielded = true;
    }
    if (yielded) {
      if (now < quietUntil) {
        r.pause();
        continue;
      }
      yielded = false;
      step.reset();
      motion.resume();
      lastEndMs = now;
      const LidLines lids = lidLinesOf(EyeIdle::currentGaze());
      if (!(lids == leftByIdle)) rest = lids;
    }
    if (!step) {
      IdleGaze gaze = EyeIdle::currentGaze();
      gaze.left.restLidTop = rest.leftTop;
      gaze.left.restLidBottom = rest.leftBottom;
      gaze.right.restLidTop = rest.rightTop;
      gaze.right.restLidBottom = rest.rightBottom;
      step = motion.next(gaze);
      dueMs = lastEndMs + step->delayMs;
    }
    if (now < dueMs) {
      r.pause();
      continue;
    }

    const auto play = step->animation;
    if (!launch(r, nextId, play, seenActivity)) continue;
    nextId = nextId == EyeIdle::kLastBlockId ? EyeIdle::kFirstBlockId : nextId + 1;
    while (!r.watch.done) {
      // A command from the play's own start listeners did not wait for the frames.
      if ((r.stopRequested || r.activity != seenActivity) && play->state == AnimationState::PLAYING)
        play->state = AnimationState::ABORTING;
      r.pause();
    }
    leftByIdle = lidLinesOf(EyeIdle::currentGaze());
    lastEndMs = r.clock();
    step.reset();
  }
}

int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

int8_t EyeIdle::start(const IdleSettings& settings) {
  return start(settings, steadyMs);
}

int8_t EyeIdle::start(const IdleSettings& settings, Clock clock) {
  if (!settings.valid() || !clock) return -1;
  Runner& r = runner();
  std::lock_guard<std::mutex> control(r.control);
  if (r.thread.joinable()) {
    r.stopRequested = true;
    r.wake.notify_all();
    r.thread.join();
  }
  {
    std::lock_guard<std::mutex> lock(r.gate);
    r.clock = std::move(clock);
    r.currentPlay.reset();
  }
  const uint64_t seed = settings.seed != 0 ? settings.seed : std::random_device{}();
  r.stopRequested = false;
  idleRunning = true;
  PlayGate::attach(&gateHook());
  r.thread = std::thread(runLoop, settings, seed);
  return 0;
}

void EyeIdle::stop() {
  Runner& r = runner();
  std::lock_guard<std::mutex> control(r.control);
  if (!r.thread.joinable()) return;
  r.stopRequested = true;
  r.wake.notify_all();
  r.thread.join();
  idleRunning = false;
  PlayGate::detach(&gateHook());
  EyeEvent::RemoveListener(&r.startListener);
  EyeEvent::RemoveListener(&r.endListener);
  std::lock_guard<std::mutex> lock(r.gate);
  r.currentPlay.reset();
}

bool EyeIdle::isRunning() {
  return idleRunning;
}

IdleGaze EyeIdle::currentGaze() {
  auto read = [](const Eyes& eye) {
    IdleEyeState s;
    s.x = eye.getIrisX();
    s.y = eye.getIrisY();
    s.lidTop = s.restLidTop = eye.getTopLidY();
    s.lidBottom = s.restLidBottom = eye.getBottomLidY();
    s.topLidIndex = static_cast<short>(eye.topLidIndex);
    s.bottomLidIndex = static_cast<short>(eye.bottomLidIndex);
    return s;
  };
  return {read(EyeControl::Left_Eye), read(EyeControl::Right_Eye)};
}

namespace {

// The application takes the eyes. An idle play in its frames is aborted and waited for;
// idle resumes after the quiet time.
void noteApplicationActivity() {
  if (!idleRunning) return;
  Runner& r = runner();
  if (std::this_thread::get_id() == r.watch.worker.load()) {
    // A listener of idle's own play, on its worker: the runner stops the play.
    r.lastActivityMs = r.clock();
    ++r.activity;
    return;
  }
  std::shared_ptr<EyeAnimation> play;
  {
    std::lock_guard<std::mutex> lock(r.gate);
    if (!idleRunning) return;
    r.lastActivityMs = r.clock();
    ++r.activity;
    play = r.currentPlay;
  }
  // A play in its frames is stopped and waited for, so the caller's change is not drawn over.
  if (!play || play->state != AnimationState::PLAYING) return;
  play->state = AnimationState::ABORTING;
  while (std::atomic_load(&EyeControl::active_animation) == play)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class GateHook : public PlayGate::Player {
 public:
  void applicationActivity() override { noteApplicationActivity(); }
  bool ownsBlock(const BlockEye& block) const override {
    return dynamic_cast<const IdleBlock*>(&block) != nullptr;
  }
};

// Never destroyed: commands may still ask it while the process's statics are torn down.
PlayGate::Player& gateHook() {
  static auto* hook = new GateHook;
  return *hook;
}

}  // namespace
