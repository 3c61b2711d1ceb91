// Motion: keyframe arithmetic frame by frame, the seeded idle generator over long
// simulated runs, and the idle runner playing through the library with a hand-driven clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <tuple>
#include <vector>

#include "EyeControlReset.h"
#include "EyeIdle.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

using eyetest::Recorder;
using Pose = std::array<float, 6>;  // x, y, scale x, scale y, top lid line, bottom lid line

// An event with the reader's 40 ms frame.
moveEvent ev(short x, short y, short timeMs, short wait, float sx = 1, float sy = 1, short top = 0,
             short bot = 240, short rotate = 0, short ellipseH = 0) {
  return moveEvent(x, y, timeMs, wait, sx, sy, 40.0, top, bot, 0, 0, rotate, ellipseH);
}

// Plays `track` from `pose` the way the player does, feeding each frame back in.
std::vector<Pose> play(EyeSideAnimation& track, Pose pose) {
  std::vector<Pose> frames;
  short xy[2], lid[2];
  float scale[2];
  auto s = [&](int i) { return static_cast<short>(pose[i]); };
  while (frames.size() < 2000 &&
         track.calculateXY(s(0), s(1), xy, pose[2], pose[3], scale, s(4), s(5), lid)) {
    pose = {1.0f * xy[0], 1.0f * xy[1], scale[0], scale[1], 1.0f * lid[0], 1.0f * lid[1]};
    frames.push_back(pose);
  }
  return frames;
}

// Plays the events from `start`, and again after clearing the animation rewound them,
// and expects `frames`, six numbers each as in Pose.
void expectFrames(const std::vector<moveEvent>& events, const Pose& start,
                  const std::vector<float>& frames) {
  EyeAnimation animation(7, "look");
  animation.left.events = events;
  for (int round = 0; round < 2; ++round) {
    std::vector<float> played;
    for (const Pose& p : play(animation.left, start))
      played.insert(played.end(), p.begin(), p.end());
    EXPECT_EQ(played, frames);
    EXPECT_TRUE(animation.left.finished);
    EXPECT_EQ(animation.left.current_event, events.size() - 1);  // stays on the last
    animation.state = AnimationState::COMPLETED;
    animation.ClearAnimation();
    EXPECT_TRUE(!animation.left.finished && animation.state == AnimationState::IDLE);
  }
}

TEST(Motion, TracksMoveInEqualPartsOfTheRestAndEndOnTheirTargets) {
  // Straight, with scales and lids; then the steps truncate toward zero both ways.
  expectFrames({ev(120, 100, 160, 0, 2, 0.5f, 40, 200)}, {60, 140, 1, 1, 0, 240},
               {75,  130, 1.25f, 0.875f, 10, 230, 90,  120, 1.5f, 0.75f, 20, 220,  //
                105, 110, 1.75f, 0.625f, 30, 210, 120, 100, 2,    0.5f,  40, 200});
  expectFrames({ev(10, 0, 120, 0, 1, 1, 10, 0)}, {0, 10, 1, 1, 0, 10},
               {3, 7, 1, 1, 3, 7, 6, 4, 1, 1, 6, 4, 10, 0, 1, 1, 10, 0});
  // Hold frames stay on the target; events play in turn, an instant one included.
  expectFrames({ev(100, 140, 80, 40), ev(0, 0, 0, 0), ev(140, 100, 80, 0)}, {60, 140, 1, 1, 0, 240},
               {80, 140, 1, 1, 0, 240, 100, 140, 1, 1, 0, 240, 100, 140, 1, 1, 0, 240,  //
                0,  0,   1, 1, 0, 240, 70,  50,  1, 1, 0, 240, 140, 100, 1, 1, 0, 240});
  // 555 keeps the position (or scale) only when both values say so.
  expectFrames({ev(555, 555, 80, 0, 555, 555, 40, 200)}, {33, 44, 1.5f, 0.5f, 0, 240},
               {33, 44, 1.5f, 0.5f, 20, 220, 33, 44, 1.5f, 0.5f, 40, 200});
  expectFrames({ev(555, 100, 80, 0, 555, 2)}, {35, 140, 1, 1, 0, 240},
               {295, 120, 278, 1.5f, 0, 240, 555, 100, 555, 2, 0, 240});
  // A full elliptic turn from (170, 120), semi-axes 50 and 30, a fifth a frame. At
  // 360 degrees sin(2 pi) is -2.4e-16 in doubles: y truncates to 119.
  expectFrames({ev(170, 120, 200, 0, 1, 1, 0, 240, 360, 30)}, {0, 0, 1, 1, 0, 240},
               {135, 148, 1, 1, 0, 240, 79,  137, 1, 1, 0, 240, 79, 102, 1, 1, 0, 240,  //
                135, 91,  1, 1, 0, 240, 170, 119, 1, 1, 0, 240});
  // A turn starts at the target's angle (90 degrees, 50 away) on an ellipse 20 high:
  // 135 degrees gives (84.6, 134.1), 180 gives (70, 120).
  expectFrames({ev(120, 170, 80, 0, 1, 1, 0, 240, 90, 20)}, {0, 0, 1, 1, 0, 240},
               {84, 134, 1, 1, 0, 240, 70, 120, 1, 1, 0, 240});
  EXPECT_FALSE(EyeSideAnimation().nextEvent());
}

TEST(Motion, EventsRoundToWholeFramesAndCountThemDown) {
  // Time in, whole frames' ms out, frames of an event that moves and holds that long.
  const int cases[][3] = {{50, 40, 2},   {60, 80, 4},      {19, 0, 1},
                          {20, 40, 2},   {100, 120, 6},    {0, 0, 1},
                          {-60, -80, 1}, {1000, 1000, 50}, {32767, 32760, 1638}};
  for (const auto& [in, ms, frames] : cases) {
    EyeSideAnimation track;
    track.events = {ev(90, 90, static_cast<short>(in), static_cast<short>(in))};
    EXPECT_TRUE(track.events[0].move_ms == ms && track.events[0].wait_ms == ms) << in;
    EXPECT_EQ(play(track, {60, 140, 1, 1, 0, 240}).size(), static_cast<size_t>(frames)) << in;
    // The ended event is ready to play again, and stays ended until it is.
    moveEvent& e = track.events[0];
    EXPECT_TRUE(e.finished && e.moving && e.frameProcessed() && e.elapsed_ms == 0) << in;
  }
  // Three frames of move, one of hold: moving clears once fewer than two frames of move
  // are left, and the frame that ends the event says so (as ended * 10 + moving).
  moveEvent e = ev(0, 0, 120, 40);
  std::vector<int> seen;
  for (int i = 0; i < 4; ++i) seen.push_back(e.frameProcessed() ? 10 + e.moving : e.moving);
  EXPECT_EQ(seen, (std::vector<int>{1, 0, 0, 11}));
  // 100 ms at 40.9 ms a frame: round(100 / 40.9) * 40.9 = 81.8, truncated.
  EXPECT_EQ(moveEvent(1, 2, 100, 0, 0.5f, 2.0f, 40.9, 3, 4, 5, 6, 7, 8).move_ms, 81);
  // A zero frame period has no frames left rather than dividing by zero.
  EXPECT_EQ(moveEvent(0, 0, 100, 100, 1, 1, 0.0, 0, 0, 0, 0, 0, 0).restFrameCount(), 0);
}

// Starts of one kind lie minMs to maxMs apart, drawn evenly: their mean is the middle.
void expectIntervals(const std::vector<int64_t>& times, int minMs, int maxMs) {
  ASSERT_GT(times.size(), 50u);
  for (size_t i = 1; i < times.size(); ++i)
    EXPECT_TRUE(times[i] - times[i - 1] >= minMs && times[i] - times[i - 1] <= maxMs) << times[i];
  EXPECT_NEAR(double(times.back() - times.front()) / (times.size() - 1), (minMs + maxMs) / 2.0,
              (maxMs - minMs) * 0.1);
}

TEST(IdleMotionTest, RunsStayInRangeFollowTheIntervalsAndResumeWhereTheEyesWereLeft) {
  IdleSettings settings;
  settings.drift = true;
  IdleGaze gaze;
  gaze.left.x = 100, gaze.right.x = 140, gaze.left.y = gaze.right.y = 140;
  Pose left{100, 140, 1, 1, 0, 240}, right{140, 140, 1, 1, 0, 240};
  // A seed replays its run exactly; another seed gives another run.
  auto trace = [&](uint64_t seed) {
    std::vector<std::tuple<int64_t, int, float, float>> steps;
    for (const IdleStep& s : IdleMotion::generate(settings, seed, gaze, 60))
      steps.emplace_back(s.startMs, s.kinds, s.end.left.x, s.end.right.y);
    return steps;
  };
  EXPECT_EQ(trace(7), trace(7));
  EXPECT_NE(trace(7), trace(8));
  std::vector<int64_t> saccades, blinks;
  int doubleBlinks = 0, micros = 0, drifts = 0;
  for (const IdleStep& step : IdleMotion::generate(settings, 7, gaze, 900)) {
    SCOPED_TRACE(step.startMs);
    ASSERT_TRUE(step.startMs % 40 == 0 && step.delayMs >= 0);
    const Pose before = left;
    for (auto [pose, track, homeX] : {std::make_tuple(&left, &step.animation->left, 100),
                                      std::make_tuple(&right, &step.animation->right, 140)}) {
      const auto frames = play(*track, *pose);
      for (const Pose& p : frames)
        ASSERT_TRUE(std::abs(p[0] - homeX) <= 40 && std::abs(p[1] - 140) <= 24 && p[2] == 1 &&
                    p[4] >= 0 && p[4] <= 132 && p[5] >= 112 && p[5] <= 240)
            << p[0] << "," << p[1] << " lids " << p[4] << "/" << p[5];
      ASSERT_EQ(frames.size() * 40, step.durationMs);
      *pose = frames.back();
    }
    // Both eyes move together and every step ends open, where the step says.
    EXPECT_TRUE(right[0] - left[0] == 40 && left[4] == 0 && right[5] == 240 &&
                left[0] == step.end.left.x && right[1] == step.end.right.y);
    if (step.saccadeAtMs >= 0) saccades.push_back(step.saccadeAtMs);
    if (step.blinkAtMs >= 0) blinks.push_back(step.blinkAtMs);
    doubleBlinks += (step.kinds & IDLE_DOUBLE_BLINK) != 0;
    EXPECT_TRUE(step.kinds != IDLE_SACCADE || step.durationMs == 40 || step.durationMs == 80);
    const float reach = step.kinds == IDLE_DRIFT ? 4 : 3;
    if (step.kinds == IDLE_MICRO_SACCADE || step.kinds == IDLE_DRIFT) {
      EXPECT_TRUE(std::abs(left[0] - before[0]) <= reach && std::abs(left[1] - before[1]) <= reach);
      ++(step.kinds == IDLE_DRIFT ? drifts : micros);
    }
  }
  expectIntervals(saccades, 500, 3000);
  expectIntervals(blinks, 2000, 6000);
  EXPECT_NEAR(doubleBlinks, blinks.size() * 0.15, blinks.size() * 0.08);
  EXPECT_TRUE(micros > 100 && drifts > 10);

  // Left off the range, half closed, with lids the application left lower than usual:
  // the first step brings the gaze back and opens to those lids, not to the usual ones.
  settings = IdleSettings{};
  settings.microSaccadePixels = 0;
  for (IdleEyeState* eye : {&gaze.left, &gaze.right})
    eye->x = 5, eye->lidTop = 90, eye->restLidTop = 40;
  Pose pose{5, 140, 1, 1, 90, 240};
  int closes = 0;
  for (const IdleStep& step : IdleMotion::generate(settings, 1, gaze, 30)) {
    for (const Pose& p : play(step.animation->left, pose)) ASSERT_GE((pose = p)[4], 40);
    EXPECT_TRUE(pose[0] >= 60 && pose[4] == 40) << pose[0] << " " << pose[4];
    closes += step.blinkAtMs >= 0;
  }
  EXPECT_GT(closes, 2);
  // Settings that cannot be played, one fault each: none is valid and none starts.
  using Break = void (*)(IdleSettings&);
  for (Break broken : {+[](IdleSettings& s) { s.blinkMinIntervalMs = 7000; },
                       +[](IdleSettings& s) { s.blinkClosedMs = 10001; },  // a keyframe's limit
                       +[](IdleSettings& s) { s.closedTopLidY = 241; },
                       +[](IdleSettings& s) { s.driftMs = 79; }}) {  // under two frames
    settings = IdleSettings{};
    broken(settings);
    EXPECT_TRUE(!settings.valid() && EyeIdle::start(settings) == -1 && !EyeIdle::isRunning());
  }
}

// The runner, with a clock that moves only when the test says so.
class IdleRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::filesystem::path assets = EYE_ASSETS_DIR;
    if (!std::filesystem::exists(assets / "eyelid.xml")) GTEST_SKIP() << "eye set not built";
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    eyetest::resetEyeControl();
    ASSERT_TRUE(EyeControl::initFrom(assets.string(), IrisShape::CLASSIC, "BLUE",
                                     EyeContentType::COLOR, "SILVER") == 0);
    EyeEvent::AddListener(&recorder, false);
  }
  void TearDown() override {
    EyeIdle::stop();
    eyetest::stopWorker();
    EyeEvent::RemoveListener(&recorder);
  }
  // Lets the runner look a few times at the unchanged clock.
  bool settle() {
    const int seen = reads;
    return eyetest::waitUntil([&] { return reads >= seen + 5; });
  }
  // Moves the clock a frame at a time until `done`.
  bool advanceUntil(const std::function<bool()>& done) {
    return eyetest::waitUntil([&] { return done() || (now += 40, false); });
  }
  // Only idle's plays tell the start listeners here.
  size_t idleStarts() {
    const auto e = recorder.events();
    return std::count_if(e.begin(), e.end(), [](auto x) { return x.kind == Recorder::START; });
  }

  Recorder recorder;
  std::atomic<int64_t> now{1000};
  std::atomic<int> reads{0};
};

TEST_F(IdleRunnerTest, ApplicationWinsIdleResumesAfterTheQuietTimeAndStopEndsItAll) {
  IdleSettings settings;
  settings.saccadeMinIntervalMs = 40, settings.saccadeMaxIntervalMs = 120;
  settings.blinkMinIntervalMs = 200, settings.blinkMaxIntervalMs = 400;
  settings.microSaccadePixels = 0, settings.seed = 5;
  ASSERT_EQ(EyeIdle::start(settings, [this] { return ++reads, now.load(); }), 0);
  ASSERT_TRUE(advanceUntil([&] { return idleStarts() >= 2; }));

  // The application plays, then sends a command: idle stays away until the quiet time
  // has passed since the end of each, and does not draw over the command.
  for (bool play : {true, false}) {
    if (!play) EyeControl::setPosition(EyeSide::LEFT, 60, 150, 1.0f, 1.0f, 0, 240);
    ASSERT_TRUE(!play || EyeControl::setAnimation(7, "look_left") == 0);
    for (int frame = 0; frame < 2000 && EyeControl::isAnimating(); ++frame) {
      now += 40;  // the clock runs on while the application plays
      ASSERT_TRUE(settle());
    }
    ASSERT_TRUE(settle());
    const size_t starts = idleStarts();
    const int64_t quietFrom = play ? now - 40 : now.load();  // the runner may have seen it busy
    now = quietFrom + settings.quietMs - 40;
    ASSERT_TRUE(settle());
    EXPECT_EQ(idleStarts(), starts) << "idle came back inside the quiet time";
    EXPECT_TRUE(play || EyeControl::Left_Eye.getIrisX() == 60) << "drawn over the command";
    ASSERT_TRUE(advanceUntil([&] { return idleStarts() > starts; }));
    EXPECT_GE(now, quietFrom + settings.quietMs);
  }

  EyeIdle::stop();
  EXPECT_FALSE(EyeIdle::isRunning() || EyeControl::isAnimating());
  // Each idle play starts, then completes or aborts, under an id of its own from idle's range.
  std::map<unsigned short, std::vector<Recorder::Kind>> plays;
  for (const auto& e : recorder.events()) plays[e.id].push_back(e.kind);
  EXPECT_EQ(plays.erase(7), 1u);  // the application's play, which told its end only
  for (const auto& [id, kinds] : plays)
    EXPECT_TRUE(EyeIdle::isIdleId(id) && kinds.size() == 2 && kinds[0] == Recorder::START &&
                kinds[1] != Recorder::START)
        << id;
}

}  // namespace
