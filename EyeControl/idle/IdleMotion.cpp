// Idle motion's generator: short animations from a seed, no threads, no clocks.
#include "IdleMotion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <set>
#include <utility>

#include "Eyes.h"
#include "moveEvent.h"

namespace {

constexpr int kFrame = FRAME_PERIOD_MS;
constexpr int kPanelLast = Eyes::kSize - 1;

int nearestFrames(int ms) {
  return static_cast<int>((static_cast<int64_t>(ms) + kFrame / 2) / kFrame);
}

int firstFrameAtOrAfter(int ms) {
  return static_cast<int>((static_cast<int64_t>(ms) + kFrame - 1) / kFrame);
}

bool validInterval(int minMs, int maxMs) {
  return minMs >= 1 && minMs <= maxMs && firstFrameAtOrAfter(minMs) <= maxMs / kFrame;
}

bool onPanel(int v) {
  return v >= 0 && v <= kPanelLast;
}

// Keeps a gaze coordinate inside the panel and within `range` of the eye's home point.
int clampToRange(int64_t v, int home, int range) {
  const int64_t low = std::max<int64_t>(0, static_cast<int64_t>(home) - range);
  const int64_t high = std::min<int64_t>(kPanelLast, static_cast<int64_t>(home) + range);
  return static_cast<int>(std::clamp(v, low, high));
}

using Values = std::array<int, 4>;

// Four values moving together piecewise linearly; times are frames from the step's start.
// Gaze: left x, left y, right x, right y. Lids: left top, left bottom, right top, right bottom.
struct Keys {
  std::vector<int> frames;
  std::vector<Values> values;

  void add(int frame, const Values& v) {
    if (!frames.empty() && frames.back() == frame) {
      values.back() = v;
      return;
    }
    frames.push_back(frame);
    values.push_back(v);
  }
  Values at(int frame) const {
    if (frame <= frames.front()) return values.front();
    if (frame >= frames.back()) return values.back();
    size_t i = 1;
    while (frames[i] < frame) ++i;
    const double share =
        static_cast<double>(frame - frames[i - 1]) / static_cast<double>(frames[i] - frames[i - 1]);
    Values v{};
    for (size_t k = 0; k < v.size(); ++k)
      v[k] = values[i - 1][k] +
             static_cast<int>(std::lround((values[i][k] - values[i - 1][k]) * share));
    return v;
  }
};

Values gazeOf(const IdleGaze& g) {
  return {g.left.x, g.left.y, g.right.x, g.right.y};
}
Values lidsOf(const IdleGaze& g) {
  return {g.left.lidTop, g.left.lidBottom, g.right.lidTop, g.right.lidBottom};
}
Values restLidsOf(const IdleGaze& g) {
  return {g.left.restLidTop, g.left.restLidBottom, g.right.restLidTop, g.right.restLidBottom};
}

moveEvent keyframe(int x, int y, int frames, int lidTop, int lidBottom, const IdleEyeState& eye) {
  // Scale 555 keeps whatever scale the eye has; lid images stay those shown.
  return moveEvent(static_cast<short>(x), static_cast<short>(y),
                   static_cast<short>(frames * kFrame), 0, 555.0f, 555.0f, kFrame,
                   static_cast<short>(lidTop), static_cast<short>(lidBottom), eye.topLidIndex,
                   eye.bottomLidIndex, 0, 0);
}

// Cuts the two key lists at every key of either into straight keyframes, so the player's
// linear moves pass exactly through every key.
std::shared_ptr<EyeAnimation> buildAnimation(const IdleGaze& from, const Keys& gaze,
                                             const Keys& lids, int totalFrames, IdleGaze& end) {
  std::set<int> cuts{totalFrames};
  for (int f : gaze.frames)
    if (f > 0) cuts.insert(f);
  for (int f : lids.frames)
    if (f > 0) cuts.insert(f);

  auto animation = std::make_shared<EyeAnimation>(0, "idle");
  animation->categories.push_back(EYEANIMATION_IDLE);
  int previous = 0;
  for (int cut : cuts) {
    const Values g = gaze.at(cut);
    const Values l = lids.at(cut);
    animation->left.events.push_back(keyframe(g[0], g[1], cut - previous, l[0], l[1], from.left));
    animation->right.events.push_back(keyframe(g[2], g[3], cut - previous, l[2], l[3], from.right));
    previous = cut;
  }

  const Values g = gaze.at(totalFrames);
  const Values l = lids.at(totalFrames);
  end = from;
  end.left.x = static_cast<short>(g[0]);
  end.left.y = static_cast<short>(g[1]);
  end.right.x = static_cast<short>(g[2]);
  end.right.y = static_cast<short>(g[3]);
  end.left.lidTop = static_cast<short>(l[0]);
  end.left.lidBottom = static_cast<short>(l[1]);
  end.right.lidTop = static_cast<short>(l[2]);
  end.right.lidBottom = static_cast<short>(l[3]);
  return animation;
}

}  // namespace

bool IdleSettings::valid() const {
  // Every keyframe must fit the player's 16-bit millisecond fields.
  constexpr int kLongestMoveMs = 10000;
  const bool movesFit = saccadeMaxMoveMs <= kLongestMoveMs && blinkCloseMs <= kLongestMoveMs &&
                        blinkClosedMs <= kLongestMoveMs && blinkOpenMs <= kLongestMoveMs &&
                        doubleBlinkGapMs <= kLongestMoveMs && driftMs <= kLongestMoveMs;
  const bool lidLinesOnPanel = closedTopLidY >= 0 && closedTopLidY <= Eyes::kSize &&
                               closedBottomLidY >= 0 && closedBottomLidY <= Eyes::kSize;
  return validInterval(saccadeMinIntervalMs, saccadeMaxIntervalMs) &&
         validInterval(microSaccadeMinIntervalMs, microSaccadeMaxIntervalMs) &&
         validInterval(blinkMinIntervalMs, blinkMaxIntervalMs) &&
         validInterval(driftMinIntervalMs, driftMaxIntervalMs) && saccadeMinMoveMs >= 1 &&
         saccadeMinMoveMs <= saccadeMaxMoveMs && gazeRangeX >= 0 && gazeRangeY >= 0 &&
         centreBias >= 1 && centreBias <= 16 && onPanel(leftHomeX) && onPanel(leftHomeY) &&
         onPanel(rightHomeX) && onPanel(rightHomeY) && microSaccadePixels >= 0 &&
         blinkCloseMs >= 1 && blinkClosedMs >= 0 && blinkOpenMs >= 1 && doubleBlinkChance >= 0.0 &&
         doubleBlinkChance <= 1.0 && doubleBlinkGapMs >= 0 && lidLinesOnPanel &&
         driftMs >= 2 * kFrame && driftPixels >= 0 && quietMs >= 0 && movesFit;
}

// --- generator ---

IdleMotion::IdleMotion(const IdleSettings& settings, uint64_t seed)
    : settings_(settings), random_(seed) {
  resume();
}

void IdleMotion::resume() {
  nextSaccade_ =
      now_ + drawInterval(settings_.saccadeMinIntervalMs, settings_.saccadeMaxIntervalMs);
  nextBlink_ = now_ + drawInterval(settings_.blinkMinIntervalMs, settings_.blinkMaxIntervalMs);
  nextMicro_ =
      now_ + drawInterval(settings_.microSaccadeMinIntervalMs, settings_.microSaccadeMaxIntervalMs);
  nextDrift_ = now_ + drawInterval(settings_.driftMinIntervalMs, settings_.driftMaxIntervalMs);
}

// The generator draws its own numbers from the engine, whose sequence the standard fixes,
// so a seed gives the same run with any standard library.
int IdleMotion::uniformInt(int low, int high) {
  const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(high) - low) + 1;
  return static_cast<int>(low + static_cast<int64_t>(random_() % span));
}

double IdleMotion::unit() {
  return static_cast<double>(random_() >> 11) * 0x1.0p-53;
}

int64_t IdleMotion::drawInterval(int minMs, int maxMs) {
  return static_cast<int64_t>(uniformInt(firstFrameAtOrAfter(minMs), maxMs / kFrame)) * kFrame;
}

IdleStep IdleMotion::next(const IdleGaze& from) {
  const int64_t mainStart = std::max(std::min(nextSaccade_, nextBlink_), now_);

  // Micro-saccades and drifts only fill still time that ends before the next blink or saccade.
  std::optional<IdleStep> filler;
  const int64_t microAt = std::max(nextMicro_, now_);
  const int64_t driftAt = std::max(nextDrift_, now_);
  const bool microFits = settings_.microSaccadePixels > 0 && microAt + kFrame <= mainStart;
  const int driftFrames = static_cast<int>(
      std::min<int64_t>(nearestFrames(settings_.driftMs), (mainStart - driftAt) / kFrame));
  const bool driftFits = settings_.drift && driftFrames >= 2;
  if (driftFits && (!microFits || driftAt < microAt)) {
    filler = fillerStep(from, driftAt, true, driftFrames);
    nextDrift_ = driftAt + drawInterval(settings_.driftMinIntervalMs, settings_.driftMaxIntervalMs);
  } else if (microFits) {
    filler = fillerStep(from, microAt, false, 1);
    nextMicro_ = microAt + drawInterval(settings_.microSaccadeMinIntervalMs,
                                        settings_.microSaccadeMaxIntervalMs);
  }

  IdleStep step = filler ? std::move(*filler) : mainStep(from, mainStart);
  const int64_t end = step.startMs + step.durationMs;
  if (!filler) {
    // Fillers that fell due during this step start afresh after it.
    if (nextMicro_ < end)
      nextMicro_ = end + drawInterval(settings_.microSaccadeMinIntervalMs,
                                      settings_.microSaccadeMaxIntervalMs);
    if (nextDrift_ < end)
      nextDrift_ = end + drawInterval(settings_.driftMinIntervalMs, settings_.driftMaxIntervalMs);
  }
  step.delayMs = static_cast<int>(step.startMs - now_);
  now_ = end;
  return step;
}

// A blink, a saccade, or both when one falls due while the other is under way.
IdleStep IdleMotion::mainStep(const IdleGaze& from, int64_t start) {
  const IdleSettings& s = settings_;
  IdleStep step;
  step.startMs = start;
  Keys gaze;
  Keys lids;
  gaze.add(0, gazeOf(from));
  lids.add(0, lidsOf(from));

  auto addSaccade = [&](int offset) {
    const int moveFrames = uniformInt(std::max(1, nearestFrames(s.saccadeMinMoveMs)),
                                      std::max(1, nearestFrames(s.saccadeMaxMoveMs)));
    // Averaging several draws weights the gaze toward the middle of its range.
    auto centred = [&](int range) {
      double sum = 0.0;
      for (int i = 0; i < s.centreBias; ++i) sum += 2.0 * unit() - 1.0;
      return std::lround(sum / s.centreBias * range);
    };
    const long dx = centred(s.gazeRangeX);
    const long dy = centred(s.gazeRangeY);
    gaze.add(offset, gazeOf(from));
    gaze.add(offset + moveFrames, {clampToRange(s.leftHomeX + dx, s.leftHomeX, s.gazeRangeX),
                                   clampToRange(s.leftHomeY + dy, s.leftHomeY, s.gazeRangeY),
                                   clampToRange(s.rightHomeX + dx, s.rightHomeX, s.gazeRangeX),
                                   clampToRange(s.rightHomeY + dy, s.rightHomeY, s.gazeRangeY)});
    step.kinds |= IDLE_SACCADE;
    return offset + moveFrames;
  };

  auto addBlink = [&](int offset) {
    const int close = std::max(1, nearestFrames(s.blinkCloseMs));
    const int closed = nearestFrames(s.blinkClosedMs);
    const int open = std::max(1, nearestFrames(s.blinkOpenMs));
    const Values shut{s.closedTopLidY, s.closedBottomLidY, s.closedTopLidY, s.closedBottomLidY};
    const Values rest = restLidsOf(from);
    int frame = offset;
    lids.add(frame, lidsOf(from));
    const int blinks = unit() < s.doubleBlinkChance ? 2 : 1;
    for (int b = 0; b < blinks; ++b) {
      if (b > 0) lids.add(frame += nearestFrames(s.doubleBlinkGapMs), rest);
      lids.add(frame += close, shut);
      lids.add(frame += closed, shut);
      lids.add(frame += open, rest);
    }
    step.kinds |= blinks == 2 ? IDLE_BLINK | IDLE_DOUBLE_BLINK : IDLE_BLINK;
    return frame;
  };

  auto offsetOf = [start](int64_t at) { return static_cast<int>((at - start) / kFrame); };
  int frames = 0;
  if (nextBlink_ <= nextSaccade_) {
    step.blinkAtMs = start;
    frames = addBlink(0);
    if (nextSaccade_ < start + static_cast<int64_t>(frames) * kFrame) {
      step.saccadeAtMs = std::max(nextSaccade_, start);
      frames = std::max(frames, addSaccade(offsetOf(step.saccadeAtMs)));
    }
  } else {
    step.saccadeAtMs = start;
    frames = addSaccade(0);
    if (nextBlink_ < start + static_cast<int64_t>(frames) * kFrame) {
      step.blinkAtMs = std::max(nextBlink_, start);
      frames = std::max(frames, addBlink(offsetOf(step.blinkAtMs)));
    }
  }
  // Without a blink the lids return to the open eye (after an interrupted blink).
  if (step.blinkAtMs < 0) lids.add(frames, restLidsOf(from));

  if (step.saccadeAtMs >= 0)
    nextSaccade_ = step.saccadeAtMs + drawInterval(s.saccadeMinIntervalMs, s.saccadeMaxIntervalMs);
  if (step.blinkAtMs >= 0)
    nextBlink_ = step.blinkAtMs + drawInterval(s.blinkMinIntervalMs, s.blinkMaxIntervalMs);

  step.durationMs = frames * kFrame;
  step.animation = buildAnimation(from, gaze, lids, frames, step.end);
  return step;
}

// A micro-saccade (one frame) or a drift (`frames` long), the same step for both eyes.
IdleStep IdleMotion::fillerStep(const IdleGaze& from, int64_t start, bool drift, int frames) {
  const IdleSettings& s = settings_;
  const int reach = drift ? s.driftPixels : s.microSaccadePixels;
  int dx = 0;
  int dy = 0;
  do {
    dx = uniformInt(-reach, reach);
    dy = uniformInt(-reach, reach);
  } while (dx == 0 && dy == 0 && reach > 0);

  Keys gaze;
  Keys lids;
  gaze.add(0, gazeOf(from));
  gaze.add(frames, {clampToRange(from.left.x + dx, s.leftHomeX, s.gazeRangeX),
                    clampToRange(from.left.y + dy, s.leftHomeY, s.gazeRangeY),
                    clampToRange(from.right.x + dx, s.rightHomeX, s.gazeRangeX),
                    clampToRange(from.right.y + dy, s.rightHomeY, s.gazeRangeY)});
  lids.add(0, lidsOf(from));
  lids.add(frames, restLidsOf(from));

  IdleStep step;
  step.startMs = start;
  step.durationMs = frames * kFrame;
  step.kinds = drift ? IDLE_DRIFT : IDLE_MICRO_SACCADE;
  step.animation = buildAnimation(from, gaze, lids, frames, step.end);
  return step;
}

std::vector<IdleStep> IdleMotion::generate(const IdleSettings& settings, uint64_t seed,
                                           const IdleGaze& start, int seconds) {
  std::vector<IdleStep> steps;
  IdleMotion motion(settings, seed);
  IdleGaze gaze = start;
  const int64_t endMs = static_cast<int64_t>(seconds) * 1000;
  for (;;) {
    IdleStep step = motion.next(gaze);
    if (step.startMs >= endMs) break;
    gaze = step.end;
    steps.push_back(std::move(step));
  }
  return steps;
}
