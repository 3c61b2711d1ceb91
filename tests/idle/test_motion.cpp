// Keyframe arithmetic: event timing, frame-by-frame interpolation, snapping, the
// elliptic turn, and the animation records.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "EyeAnimation.h"

namespace {

struct Frame {
  short x, y;
  float sx, sy;
  short top, bot;
};

// An event with the reader's 40 ms frame.
moveEvent ev(short x, short y, short timeMs, short wait, float sx = 1.0f, float sy = 1.0f,
             short top = 0, short bot = 240, short rotate = 0, short ellipseH = 0) {
  return moveEvent(x, y, timeMs, wait, sx, sy, 40.0, top, bot, 0, 0, rotate, ellipseH);
}

// Plays `track` from `start` the way the player does, feeding each frame back in,
// until calculateXY reports the end.
std::vector<Frame> play(EyeSideAnimation& track, Frame start, size_t limit = 1000) {
  std::vector<Frame> frames;
  Frame cur = start;
  for (size_t i = 0; i < limit; ++i) {
    short xy[2] = {-1, -1};
    float scale[2] = {-1.0f, -1.0f};
    short lid[2] = {-1, -1};
    if (!track.calculateXY(cur.x, cur.y, xy, cur.sx, cur.sy, scale, cur.top, cur.bot, lid)) {
      // Nothing written once the track has ended.
      EXPECT_EQ(xy[0], -1);
      EXPECT_EQ(scale[0], -1.0f);
      EXPECT_EQ(lid[0], -1);
      return frames;
    }
    cur = {xy[0], xy[1], scale[0], scale[1], lid[0], lid[1]};
    frames.push_back(cur);
  }
  ADD_FAILURE() << "track did not end";
  return frames;
}

std::vector<short> xs(const std::vector<Frame>& frames) {
  std::vector<short> out;
  for (const auto& f : frames) out.push_back(f.x);
  return out;
}
std::vector<short> ys(const std::vector<Frame>& frames) {
  std::vector<short> out;
  for (const auto& f : frames) out.push_back(f.y);
  return out;
}

const Frame kStart{60, 140, 1.0f, 1.0f, 0, 240};

TEST(MoveEvent, ConstructorRoundsToWholeFrames) {
  const struct {
    short in, ms;
  } cases[] = {{50, 40}, {60, 80},     {19, 0},    {20, 40},      {100, 120},
               {0, 0},   {1000, 1000}, {-60, -80}, {32767, 32760}};
  for (const auto& c : cases) {
    const moveEvent e = ev(0, 0, c.in, c.in);
    EXPECT_EQ(e.move_ms, c.ms) << c.in;
    EXPECT_EQ(e.wait_ms, c.ms) << c.in;
  }
  const moveEvent e(1, 2, 100, 0, 0.5f, 2.0f, 40.9, 3, 4, 5, 6, 7, 8);
  EXPECT_EQ(e.frame_ms, 40);
  EXPECT_EQ(e.move_ms, 81);  // round(100 / 40.9) * 40.9 = 81.8, truncated
}

TEST(MoveEvent, FrameCountingMovingFlagAndEnd) {
  // Three frames of move, two of hold: moving clears with one move frame left.
  moveEvent e = ev(0, 0, 120, 80);
  std::vector<int> rest, moving;
  for (int frame = 0; frame < 4; ++frame) {
    rest.push_back(e.restFrameCount());
    EXPECT_FALSE(e.frameProcessed()) << frame;
    moving.push_back(e.moving);
  }
  EXPECT_EQ(rest, (std::vector<int>{3, 2, 1, 0}));
  EXPECT_EQ(moving, (std::vector<int>{1, 0, 0, 0}));
  EXPECT_EQ(e.restFrameCount(), -1);
  EXPECT_TRUE(e.frameProcessed());
  EXPECT_TRUE(e.finished);
  EXPECT_TRUE(e.moving);
  EXPECT_EQ(e.elapsed_ms, 0);
  EXPECT_TRUE(e.frameProcessed());  // ended: nothing changes any more
  EXPECT_EQ(e.elapsed_ms, 0);

  moveEvent instant = ev(0, 0, 0, 0);
  EXPECT_TRUE(instant.frameProcessed());
  // A zero frame period has no frames left rather than dividing by zero.
  moveEvent still(0, 0, 100, 100, 1, 1, 0.0, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(still.frame_ms, 0);
  EXPECT_EQ(still.restFrameCount(), 0);
}

TEST(Motion, StraightMoveDividesTheRestThenSnaps) {
  EyeSideAnimation track;
  track.events = {ev(120, 100, 200, 0, 2.0f, 0.5f, 40, 200)};
  const auto frames = play(track, kStart);
  ASSERT_EQ(frames.size(), 5u);
  EXPECT_EQ(xs(frames), (std::vector<short>{72, 84, 96, 108, 120}));
  // 140 -> 100: -40/5, -32/4, -24/3, -16/2, snap.
  EXPECT_EQ(ys(frames), (std::vector<short>{132, 124, 116, 108, 100}));
  const float sx[] = {1.2f, 1.4f, 1.6f, 1.8f, 2.0f};
  const float sy[] = {0.9f, 0.8f, 0.7f, 0.6f, 0.5f};
  const short top[] = {8, 16, 24, 32, 40};
  const short bot[] = {232, 224, 216, 208, 200};
  for (size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_NEAR(frames[i].sx, sx[i], 1e-6);
    EXPECT_NEAR(frames[i].sy, sy[i], 1e-6);
    EXPECT_EQ(frames[i].top, top[i]);
    EXPECT_EQ(frames[i].bot, bot[i]);
  }
  EXPECT_EQ(frames.back().sx, 2.0f);  // the snap is exact
  EXPECT_TRUE(track.finished);
  EXPECT_EQ(track.current_event, 0);
}

TEST(Motion, IntegerStepsTruncateTowardZero) {
  EyeSideAnimation track;
  // 0 -> 10 and 10 -> 0 over three frames: 10/3 = 3, 7/2 = 3; -10/3 = -3, -7/2 = -3.
  track.events = {ev(10, 0, 120, 0, 1, 1, 10, 0)};
  const auto frames = play(track, {0, 10, 1, 1, 0, 10});
  EXPECT_EQ(xs(frames), (std::vector<short>{3, 6, 10}));
  EXPECT_EQ(ys(frames), (std::vector<short>{7, 4, 0}));
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[1].top, 6);
  EXPECT_EQ(frames[1].bot, 4);
}

TEST(Motion, HoldFramesStayOnTheTarget) {
  EyeSideAnimation track;
  track.events = {ev(100, 100, 80, 120)};
  // Each frame starts from a disturbed position: hold frames must snap back.
  std::vector<Frame> frames;
  Frame cur{0, 0, 1, 1, 0, 240};
  short xy[2];
  float scale[2];
  short lid[2];
  while (track.calculateXY(cur.x, cur.y, xy, cur.sx, cur.sy, scale, cur.top, cur.bot, lid)) {
    frames.push_back({xy[0], xy[1], scale[0], scale[1], lid[0], lid[1]});
    cur = {static_cast<short>(xy[0] - 7), 3, 1, 1, 0, 240};
  }
  ASSERT_EQ(frames.size(), 5u);  // 2 frames of move and 3 of hold
  EXPECT_EQ(xs(frames), (std::vector<short>{50, 100, 100, 100, 100}));
  EXPECT_EQ(ys(frames), (std::vector<short>{50, 100, 100, 100, 100}));
}

TEST(Motion, FramesPerEvent) {
  const struct {
    short timeMs, wait;
    size_t frames;
  } cases[] = {{200, 0, 5},  {0, 0, 1},       {0, 80, 2}, {40, 0, 1},
               {80, 120, 5}, {100, 1000, 28}, {19, 19, 1}};
  for (const auto& c : cases) {
    EyeSideAnimation track;
    track.events = {ev(90, 90, c.timeMs, c.wait)};
    const auto frames = play(track, kStart);
    EXPECT_EQ(frames.size(), c.frames) << c.timeMs << " " << c.wait;
    if (c.timeMs < 20)  // without move time every frame sits on the target at once
      for (const auto& f : frames) EXPECT_EQ(f.x, 90);
  }
}

TEST(Motion, KeepCurrentSentinels) {
  EyeSideAnimation track;
  track.events = {ev(555, 555, 80, 0, 555.0f, 555.0f, 40, 200)};
  auto frames = play(track, {33, 44, 1.5f, 0.5f, 0, 240});
  ASSERT_EQ(frames.size(), 2u);
  for (const auto& f : frames) {
    EXPECT_EQ(f.x, 33);
    EXPECT_EQ(f.y, 44);
    EXPECT_EQ(f.sx, 1.5f);
    EXPECT_EQ(f.sy, 0.5f);
  }
  EXPECT_EQ(frames[0].top, 20);
  EXPECT_EQ(frames[1].top, 40);

  // Only both values together mean "keep".
  EyeSideAnimation half;
  half.events = {ev(555, 100, 80, 0, 555.0f, 2.0f)};
  frames = play(half, {35, 140, 1.0f, 1.0f, 0, 240});
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].x, 295);
  EXPECT_EQ(frames[0].y, 120);
  EXPECT_EQ(frames[0].sx, 278.0f);
  EXPECT_EQ(frames[0].sy, 1.5f);
  EXPECT_EQ(frames[1].x, 555);
  EXPECT_EQ(frames[1].y, 100);
  EXPECT_EQ(frames[1].sx, 555.0f);
}

TEST(Motion, EllipticTurnRunsRoundAndEndsOnItsTarget) {
  EyeSideAnimation track;
  // Full turn from (170, 120): horizontal semi-axis 50, vertical 30, 5 frames.
  track.events = {ev(170, 120, 200, 0, 1, 1, 0, 240, 360, 30)};
  const auto frames = play(track, {0, 0, 1, 1, 0, 240});
  ASSERT_EQ(frames.size(), 5u);

  // One fifth of the turn per frame from the start angle 0: 72 degrees (120 + 15.45,
  // 120 + 28.53), 144, 216, 288.
  EXPECT_EQ(xs(frames), (std::vector<short>{135, 79, 79, 135, 170}));
  // The last frame lands at 360 degrees, where sin(2 * pi) in doubles is -2.4e-16: y
  // comes out at 119.99999999999999 and truncates to 119, not 120.
  EXPECT_EQ(ys(frames), (std::vector<short>{148, 137, 102, 91, 119}));
  EXPECT_EQ(track.events[0].angle, 360.0f);

  // The rotation reached is kept in the event until the track is rewound.
  track.clearAnimationSide();
  EXPECT_EQ(track.events[0].angle, 0.0f);
  EXPECT_EQ(xs(play(track, {0, 0, 1, 1, 0, 240})), xs(frames));
}

TEST(Motion, EllipticTurnStartsAtTheTargetAngle) {
  EyeSideAnimation track;
  // Target straight below the centre (90 degrees), 50 away; turn 90 more over two frames
  // on an ellipse only 20 high.
  track.events = {ev(120, 170, 80, 0, 1, 1, 0, 240, 90, 20)};
  const auto frames = play(track, {0, 0, 1, 1, 0, 240});
  ASSERT_EQ(frames.size(), 2u);
  const double mid = 135.0 * 3.141592653589793 / 180.0;
  EXPECT_EQ(frames[0].x, static_cast<short>(50.0 * std::cos(mid) + 120.0));  // 84.6
  EXPECT_EQ(frames[0].y, static_cast<short>(20.0 * std::sin(mid) + 120.0));  // 134.1
  // At 180 degrees the horizontal radius (50, from the target) gives x = 70.
  EXPECT_EQ(frames[1].x, 70);
  EXPECT_EQ(frames[1].y, 120);
}

TEST(Motion, TrackPlaysEventsInTurnAndRewinds) {
  EyeSideAnimation track;
  track.events = {ev(100, 140, 80, 40), ev(0, 0, 0, 0), ev(140, 100, 80, 0)};
  const auto frames = play(track, kStart);
  EXPECT_EQ(xs(frames), (std::vector<short>{80, 100, 100, 0, 70, 140}));
  EXPECT_EQ(ys(frames), (std::vector<short>{140, 140, 140, 0, 50, 100}));
  EXPECT_TRUE(track.finished);
  EXPECT_EQ(track.current_event, 2);  // stays on the last
  EXPECT_FALSE(track.nextEvent());
  EXPECT_EQ(track.current_event, 2);

  track.clearAnimationSide();
  EXPECT_FALSE(track.finished);
  EXPECT_EQ(track.current_event, 0);
  for (const auto& e : track.events) EXPECT_TRUE(!e.finished && e.moving && e.elapsed_ms == 0);
  EXPECT_EQ(xs(play(track, kStart)), xs(frames));
  EXPECT_FALSE(EyeSideAnimation().nextEvent());
}

TEST(Animation, CopiesAreSeparateAndClearRewindsBothTracks) {
  EyeAnimation a(7, "wink");
  EXPECT_EQ(a.state.load(), AnimationState::IDLE);
  a.left.events = {ev(100, 100, 80, 0)};
  a.right.events = {ev(10, 10, 0, 0), ev(20, 20, 0, 0)};
  play(a.left, kStart);
  play(a.right, kStart);
  a.state = AnimationState::COMPLETED;

  const EyeAnimation copy(a);
  EXPECT_EQ(copy.name, "wink");
  EXPECT_TRUE(copy.left.finished);
  EXPECT_EQ(copy.right.current_event, 1);
  EXPECT_EQ(copy.right.events.at(1).x, 20);
  a.ClearAnimation();
  EXPECT_EQ(a.state.load(), AnimationState::IDLE);
  EXPECT_FALSE(a.left.finished || a.right.finished || a.right.events[1].finished);
  EXPECT_EQ(a.right.current_event, 0);
  EXPECT_EQ(copy.state.load(), AnimationState::COMPLETED);
  EXPECT_EQ(play(a.right, kStart).size(), 2u);
}

}  // namespace
