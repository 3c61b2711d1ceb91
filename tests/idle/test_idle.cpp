// Idle motion: the seeded generator over long simulated runs, and the runner playing
// through the library with a hand-driven clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <vector>

#include "EyeControlReset.h"
#include "EyeIdle.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

using eyetest::Recorder;

IdleGaze restGaze() {
  IdleGaze g;
  g.left.x = 100;
  g.left.y = 140;
  g.right.x = 140;
  g.right.y = 140;
  g.left.bottomLidIndex = g.right.bottomLidIndex = 1;
  return g;
}

struct Pose {
  short x, y, top, bottom;
  float scaleX = 1.0f, scaleY = 1.0f;
};

// Plays one track through the player's arithmetic, calling `check` on every frame.
int playTrack(EyeSideAnimation& track, Pose& pose, const std::function<void(const Pose&)>& check) {
  track.clearAnimationSide();
  int frames = 0;
  short xy[2];
  float scale[2];
  short lid[2];
  while (track.calculateXY(pose.x, pose.y, xy, pose.scaleX, pose.scaleY, scale, pose.top,
                           pose.bottom, lid)) {
    pose = {xy[0], xy[1], lid[0], lid[1], scale[0], scale[1]};
    ++frames;
    check(pose);
  }
  return frames;
}

void expectIntervals(const std::vector<int64_t>& times, int minMs, int maxMs, const char* what) {
  SCOPED_TRACE(what);
  ASSERT_GT(times.size(), 50u);
  for (size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], minMs);
    EXPECT_LE(times[i] - times[i - 1], maxMs);
  }
  // Drawn evenly: the mean lies near the middle of the range.
  const double mean = double(times.back() - times.front()) / (times.size() - 1);
  EXPECT_NEAR(mean, (minMs + maxMs) / 2.0, (maxMs - minMs) * 0.1);
}

TEST(IdleMotionTest, LongRunStaysInRangeAndFollowsTheIntervals) {
  IdleSettings settings;
  settings.drift = true;
  const auto steps = IdleMotion::generate(settings, 7, restGaze(), 900);

  Pose left{100, 140, 0, 240};
  Pose right{140, 140, 0, 240};
  std::vector<int64_t> saccades, blinks;
  int doubleBlinks = 0, micros = 0, drifts = 0, nearHome = 0, lone = 0;
  for (const IdleStep& step : steps) {
    SCOPED_TRACE(step.startMs);
    ASSERT_EQ(step.startMs % 40, 0);
    ASSERT_GE(step.delayMs, 0);
    const Pose before = left;
    for (auto [pose, track, homeX] : {std::make_tuple(&left, &step.animation->left, 100),
                                      std::make_tuple(&right, &step.animation->right, 140)}) {
      const int frames = playTrack(*track, *pose, [&](const Pose& p) {
        ASSERT_TRUE(p.x >= homeX - 40 && p.x <= homeX + 40 && p.y >= 116 && p.y <= 164)
            << p.x << "," << p.y;
        ASSERT_TRUE(p.top >= 0 && p.top <= 132 && p.bottom >= 112 && p.bottom <= 240)
            << p.top << "/" << p.bottom;
        ASSERT_EQ(p.scaleX, 1.0f);
      });
      ASSERT_EQ(frames * 40, step.durationMs);
    }
    EXPECT_EQ(left.x, step.end.left.x);
    EXPECT_EQ(right.y, step.end.right.y);
    EXPECT_EQ(left.top, 0);  // every step ends with the eyes open
    EXPECT_EQ(right.bottom, 240);
    EXPECT_EQ(right.x - left.x, 40) << "both eyes move together";

    if (step.saccadeAtMs >= 0) saccades.push_back(step.saccadeAtMs);
    if (step.blinkAtMs >= 0) blinks.push_back(step.blinkAtMs);
    doubleBlinks += (step.kinds & IDLE_DOUBLE_BLINK) != 0;
    if (step.kinds == IDLE_SACCADE) {
      EXPECT_TRUE(step.durationMs == 40 || step.durationMs == 80);
      nearHome += std::abs(left.x - 100) <= 20 && std::abs(left.y - 140) <= 12;
      ++lone;
    }
    if (step.kinds == IDLE_MICRO_SACCADE || step.kinds == IDLE_DRIFT) {
      const int reach = step.kinds == IDLE_DRIFT ? 4 : 3;
      EXPECT_LE(std::abs(left.x - before.x), reach);
      EXPECT_LE(std::abs(left.y - before.y), reach);
      (step.kinds == IDLE_DRIFT ? drifts : micros)++;
    }
  }
  expectIntervals(saccades, 500, 3000, "saccades");
  expectIntervals(blinks, 2000, 6000, "blinks");
  EXPECT_NEAR(doubleBlinks, blinks.size() * 0.15, blinks.size() * 0.08);
  EXPECT_GT(micros, 100);
  EXPECT_GT(drifts, 10);
  // Weighted toward home: half the range on both axes holds far more than a quarter.
  EXPECT_GT(nearHome, lone * 0.45);
}

TEST(IdleMotionTest, SeedsReproduceAndResumeFromWhereTheEyesWereLeft) {
  const IdleSettings settings;
  const auto a = IdleMotion::generate(settings, 42, restGaze(), 60);
  const auto b = IdleMotion::generate(settings, 42, restGaze(), 60);
  const auto c = IdleMotion::generate(settings, 43, restGaze(), 60);
  auto trace = [](const std::vector<IdleStep>& steps) {
    std::vector<int64_t> out;
    for (const auto& s : steps)
      out.insert(out.end(), {s.startMs, s.kinds, s.end.left.x, s.end.left.y});
    return out;
  };
  EXPECT_EQ(trace(a), trace(b));
  EXPECT_NE(trace(a), trace(c));

  // Left off the range, half closed, with lids the application left lower than usual:
  // the first step brings the gaze back and opens to those lids, not to the usual ones.
  IdleSettings noMicro;
  noMicro.microSaccadePixels = 0;
  IdleGaze away = restGaze();
  away.left.x = away.right.x = 5;
  away.left.lidTop = away.right.lidTop = 90;
  away.left.restLidTop = away.right.restLidTop = 40;
  Pose pose{away.left.x, away.left.y, away.left.lidTop, away.left.lidBottom};
  int blinks = 0;
  for (const IdleStep& step : IdleMotion::generate(noMicro, 1, away, 30)) {
    playTrack(step.animation->left, pose, [](const Pose& p) { ASSERT_GE(p.top, 40); });
    EXPECT_GE(pose.x, 60);
    EXPECT_EQ(pose.top, 40);
    blinks += step.blinkAtMs >= 0;
  }
  EXPECT_GT(blinks, 2);

  IdleSettings wrong;
  wrong.blinkMinIntervalMs = 7000;
  EXPECT_FALSE(wrong.valid());
  EXPECT_EQ(EyeIdle::start(wrong), -1);
  EXPECT_FALSE(EyeIdle::isRunning());
}

// A clock that moves only when the test says so, and counts how often the runner looked.
struct HandClock {
  std::atomic<int64_t> now{1000};
  std::atomic<int> reads{0};
  EyeIdle::Clock clock() {
    return [this] {
      ++reads;
      return now.load();
    };
  }
  // Lets the runner look a few times at the unchanged clock.
  bool settle() {
    const int seen = reads;
    return eyetest::waitUntil([&] { return reads >= seen + 5; });
  }
};

class IdleRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::filesystem::path assets = EYE_ASSETS_DIR;
    if (!std::filesystem::exists(assets / "eyelid.xml")) GTEST_SKIP() << "eye set not built";
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    eyetest::resetEyeControl();
    ASSERT_EQ(EyeControl::initFrom(assets.string(), IrisShape::CLASSIC, "BLUE",
                                   EyeContentType::COLOR, "SILVER"),
              0);
    EyeEvent::AddListener(&recorder, false);
    settings.saccadeMinIntervalMs = 40;
    settings.saccadeMaxIntervalMs = 120;
    settings.blinkMinIntervalMs = 200;
    settings.blinkMaxIntervalMs = 400;
    settings.microSaccadePixels = 0;
    settings.seed = 5;
  }
  void TearDown() override {
    EyeIdle::stop();
    eyetest::stopWorker();
    EyeEvent::RemoveListener(&recorder);
  }

  // Moves the clock a frame at a time until `done`.
  bool advanceUntil(const std::function<bool()>& done) {
    return eyetest::waitUntil([&] {
      if (done()) return true;
      clock.now += 40;
      return false;
    });
  }
  size_t idleStarts() {
    size_t n = 0;
    for (const auto& e : recorder.events())
      n += e.kind == Recorder::START && EyeIdle::isIdleId(e.id);
    return n;
  }

  Recorder recorder;
  HandClock clock;
  IdleSettings settings;
};

TEST_F(IdleRunnerTest, ListenersHearIdlePlaysAndStopLeavesNothingPlaying) {
  ASSERT_EQ(EyeIdle::start(settings, clock.clock()), 0);
  EXPECT_TRUE(EyeIdle::isRunning());
  ASSERT_TRUE(advanceUntil([&] { return recorder.events().size() >= 5; }));
  EyeIdle::stop();
  EXPECT_FALSE(EyeIdle::isRunning());
  EXPECT_FALSE(EyeControl::isAnimating());

  // Start, then completion (or abort for the play stop() cut short), with ids of their own.
  const auto events = recorder.events();
  ASSERT_EQ(events.size() % 2, 0u);
  for (size_t i = 0; i < events.size(); i += 2) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(EyeIdle::isIdleId(events[i].id));
    EXPECT_EQ(events[i].kind, Recorder::START);
    EXPECT_NE(events[i + 1].kind, Recorder::START);
    EXPECT_EQ(events[i + 1].id, events[i].id);
    if (i > 0) {
      EXPECT_NE(events[i].id, events[i - 2].id);
    }
  }
}

TEST_F(IdleRunnerTest, ApplicationWinsAndIdleResumesAfterTheQuietTime) {
  ASSERT_EQ(EyeIdle::start(settings, clock.clock()), 0);
  ASSERT_TRUE(advanceUntil([&] { return idleStarts() >= 1; }));

  ASSERT_EQ(EyeControl::setAnimation(7, "look_left"), 0);
  // The clock runs on while the application plays: the quiet time counts from its end.
  auto appDone = [&] {
    const auto e = recorder.events();
    return std::find(e.begin(), e.end(), Recorder::Event{Recorder::COMPLETE, 7}) != e.end();
  };
  for (int frame = 0; frame < 2000 && !appDone(); ++frame) {
    clock.now += 40;
    ASSERT_TRUE(clock.settle());
  }
  ASSERT_TRUE(appDone());
  const size_t startsBefore = idleStarts();
  const int64_t quietFrom = clock.now - 40;  // the runner saw this frame still busy
  clock.now = quietFrom + settings.quietMs - 40;
  ASSERT_TRUE(clock.settle());
  EXPECT_EQ(idleStarts(), startsBefore) << "idle came back inside the quiet time";
  for (const auto& e : recorder.events()) EXPECT_FALSE(e == (Recorder::Event{Recorder::ABORT, 7}));

  ASSERT_TRUE(advanceUntil([&] { return idleStarts() > startsBefore; }));
  EXPECT_GE(clock.now, quietFrom + settings.quietMs);

  // A command takes the eyes as well: it is not drawn over while the quiet time runs.
  EyeControl::setPosition(EyeSide::LEFT, 60, 150, 1.0f, 1.0f, 0, 240);
  const size_t startsAtCommand = idleStarts();
  ASSERT_TRUE(clock.settle());
  clock.now += settings.quietMs - 40;
  ASSERT_TRUE(clock.settle());
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 60);
  EXPECT_EQ(EyeControl::Left_Eye.getIrisY(), 150);
  EXPECT_EQ(idleStarts(), startsAtCommand);
}

}  // namespace
