// Idle motion: blinks, saccades, micro-saccades and an optional slow drift that keep
// the eyes alive while the application plays nothing itself.
//
// IdleMotion is a seeded generator without threads or clocks: given the settings and
// where the eyes are, it returns the next short EyeAnimation and the still time before
// it, in simulated milliseconds (offline renderers and tests use it alone). EyeIdle.h
// runs it on a thread.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "EyeAnimation.h"

// Times are milliseconds and are rounded to whole 40 ms frames (intervals to the frames
// inside [min, max]); distances and positions are panel pixels. An interval runs from the
// start of one event to the start of the next of its kind.
struct IdleSettings {
  // Saccades: both eyes jump together to a new gaze point.
  int saccadeMinIntervalMs = 500;
  int saccadeMaxIntervalMs = 3000;
  int saccadeMinMoveMs = 40;  // the jump lasts one...
  int saccadeMaxMoveMs = 80;  // ...or two frames
  int gazeRangeX = 40;        // farthest a gaze point lies from an eye's home point
  int gazeRangeY = 24;
  int centreBias = 2;  // uniform draws averaged per axis: 1 = even spread, more = nearer home
  // The middle of each eye's gaze range: the iris positions the library starts with.
  int leftHomeX = 100;
  int leftHomeY = 140;
  int rightHomeX = 140;
  int rightHomeY = 140;

  // Micro-saccades: one-frame jumps of a few pixels between the other events.
  int microSaccadeMinIntervalMs = 400;
  int microSaccadeMaxIntervalMs = 1200;
  int microSaccadePixels = 3;  // largest step per axis; 0 = none

  // Blinks: the lids close, stay closed, then open at half the closing speed.
  int blinkMinIntervalMs = 2000;
  int blinkMaxIntervalMs = 6000;
  int blinkCloseMs = 80;
  int blinkClosedMs = 40;
  int blinkOpenMs = 160;
  double doubleBlinkChance = 0.15;  // 0..1: share of blinks followed by a second one
  int doubleBlinkGapMs = 80;        // open time between the two blinks of a double blink
  int closedTopLidY = 132;          // lid lines of a closed eye (those of the bundled lids)
  int closedBottomLidY = 112;

  // Drift: a slow move of the gaze in the still time between the other events.
  bool drift = false;
  int driftMinIntervalMs = 1000;
  int driftMaxIntervalMs = 3000;
  int driftMs = 1200;   // length of one drift (cut short before the next blink or saccade)
  int driftPixels = 4;  // largest drift per axis

  // After the application's last play ends, or its last command, idle waits this long.
  int quietMs = 2000;

  uint64_t seed = 0;  // 0: a fresh seed at every EyeIdle::start

  // Every interval holds at least one frame, minimums are not above maximums, home points
  // and lid lines are on the panel, the chance is within 0..1.
  bool valid() const;
};

// One eye as the generator sees it.
struct IdleEyeState {
  short x = 0;  // iris centre
  short y = 0;
  short lidTop = 0;  // lid lines now
  short lidBottom = 240;
  short restLidTop = 0;  // lid lines of the open eye: where blinks open to
  short restLidBottom = 240;
  short topLidIndex = 0;  // lid images, kept as they are
  short bottomLidIndex = 0;
};

struct IdleGaze {
  IdleEyeState left;
  IdleEyeState right;
};

enum IdleMotionKind : uint8_t {
  IDLE_SACCADE = 1,
  IDLE_MICRO_SACCADE = 2,
  IDLE_BLINK = 4,
  IDLE_DOUBLE_BLINK = 8,  // set together with IDLE_BLINK
  IDLE_DRIFT = 16,
};

// One generated animation and when it plays, in simulated time.
struct IdleStep {
  int64_t startMs = 0;  // from the generator's start
  int delayMs = 0;      // still time between the end of the previous step and this one
  int durationMs = 0;
  uint8_t kinds = 0;                        // IdleMotionKind bits
  int64_t saccadeAtMs = -1;                 // start of the saccade in it, -1 without one
  int64_t blinkAtMs = -1;                   // start of the (first) blink in it, -1 without one
  IdleGaze end;                             // the eyes once it has played
  std::shared_ptr<EyeAnimation> animation;  // id 0, name "idle", category IDLE
};

class IdleMotion {
 public:
  // `settings` must be valid().
  IdleMotion(const IdleSettings& settings, uint64_t seed);

  // The next step, for eyes that are now as `from` says; advances simulated time to its end.
  IdleStep next(const IdleGaze& from);
  // After a break: every kind of event is scheduled afresh from now.
  void resume();
  int64_t nowMs() const { return now_; }

  // The steps that start within the first `seconds` of a run from `start`.
  static std::vector<IdleStep> generate(const IdleSettings& settings, uint64_t seed,
                                        const IdleGaze& start, int seconds);

 private:
  IdleStep mainStep(const IdleGaze& from, int64_t start);
  IdleStep fillerStep(const IdleGaze& from, int64_t start, bool drift, int frames);
  int64_t drawInterval(int minMs, int maxMs);
  int uniformInt(int low, int high);
  double unit();

  IdleSettings settings_;
  std::mt19937_64 random_;
  int64_t now_ = 0;
  int64_t nextSaccade_ = 0;
  int64_t nextBlink_ = 0;
  int64_t nextMicro_ = 0;
  int64_t nextDrift_ = 0;
};
