// The animation player and the eye-block worker: plays, aborts and notifications through
// the real worker thread, what each block kind does to the eyes, lid sequences.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

using namespace std::chrono_literals;
using eyetest::Recorder;
using eyetest::waitUntil;
using Events = std::vector<Recorder::Event>;
using P = EyePosition;
constexpr EyeSide L = EyeSide::LEFT, R = EyeSide::RIGHT, B = EyeSide::BOTH;
constexpr auto kStart = Recorder::START, kEnd = Recorder::COMPLETE, kAbort = Recorder::ABORT;
Eyes& left = EyeControl::Left_Eye;
Eyes& right = EyeControl::Right_Eye;

// A keyframe reaching (x, y) in `timeMs` and holding it `wait` ms; scale 1, lids open,
// the top lid on lid image `lid`.
moveEvent key(short x, short y, short wait, short lid = 0, short timeMs = 40) {
  return moveEvent(x, y, timeMs, wait, 1.0f, 1.0f, 40.0, 0, 240, lid, 0, 0, 0);
}

std::shared_ptr<EyeAnimation> add(const char* name, std::vector<moveEvent> leftTrack,
                                  std::vector<moveEvent> rightTrack = {}) {
  auto animation = std::make_shared<EyeAnimation>(1, name);
  animation->left.events = std::move(leftTrack);
  animation->right.events = std::move(rightTrack);
  EyeControl::eye_animations.push_back(animation);
  return animation;
}

std::shared_ptr<BlockEye> block(BlockType type, EyeSide side, std::vector<P> positions = {},
                                uint8_t content = 0, const char* style = "") {
  auto made = std::make_shared<BlockEye>(type);
  made->side = side, made->positions = std::move(positions);
  made->content = content, made->style = style;
  return made;
}

void expectAt(const Eyes& eye, short x, short y) {
  EXPECT_EQ(eye.getIrisX(), x);
  EXPECT_EQ(eye.getIrisY(), y);
}

class PlayerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0); }

  void SetUp() override {
    eyetest::resetEyeControl();
    EyeControl::default_iris.left.AddFrame("", 40, 40, true, true, 0, 0, 255, 255);
    EyeControl::default_iris.right = EyeControl::default_iris.left;
    EyeControl::default_background.left.AddFrame("", 240, 240, false, true, 255, 255, 255, 255);
    EyeControl::default_background.right = EyeControl::default_background.left;
    // Lid 0: a single still image. Lid 1: a four-frame sequence, each frame held two ticks.
    EyeControl::lid_images.resize(2);
    EyeControl::lid_images[0].content.AddFrame("", 240, 40, true, true, 200, 0, 0, 255);
    VContent& blink = EyeControl::lid_images[1].content;
    for (int f = 0; f < 4; ++f)
      blink.AddFrame("", 240, 40, true, true, 0, static_cast<uint8_t>(60 * f), 0, 255);
    blink.ratio = 2;
    blink.loop = 0;
    std::vector<uint8_t> pixels(20 * 10 * 4, 255);
    ASSERT_TRUE(VContent::writePng(png_, 20, 10, pixels.data(), true));
    EyeControl::iris_types.assign(1, IrisType{});  // CLASSIC
    EyeControl::iris_types[0].irises.push_back(Iris{0, 0, png_, png_, "BLUE"});
    EyeControl::background_types.assign(1, BackgroundType{});  // COLOR
    // Scaled, lids half shut: a pose neither a keyframe nor a position block leaves.
    eyetest::wireEye(left, 100, 140, 2.0f, 30, 200);
    eyetest::wireEye(right, 140, 140, 2.0f, 30, 200);
    LcdControl::resetCounters();
    EyeEvent::AddListener(&recorder_, false);
  }

  void TearDown() override {
    eyetest::stopWorker();
    EyeEvent::RemoveListener(&recorder_);
  }

  // Runs the block through the worker: started, and completed unless `ends` is false.
  void run(const std::shared_ptr<BlockEye>& eyeBlock, bool ends = true) {
    const size_t before = recorder_.events().size();
    ASSERT_EQ(EyeControl::ProcessEyeBlock(eyeBlock), 0);
    EXPECT_TRUE(recorder_.waitForCount(before + 1 + ends));
    EXPECT_EQ(waitUntil([] { return !EyeControl::isAnimating(); }, ends ? 5000ms : 20ms), ends);
    const Events all = recorder_.events();
    Events expected{{kStart, eyeBlock->id()}, {kEnd, eyeBlock->id()}};
    expected.resize(1 + ends);
    EXPECT_EQ(Events(all.begin() + before, all.end()), expected);
  }

  eyetest::TempDir dir_;
  const std::string png_ = dir_.str() + "iris.png";
  Recorder recorder_;
};

TEST_F(PlayerTest, PlaysDrawOnlyChangedFramesAndEndCompletedOrAborted) {
  // One frame per keyframe, each to a new place, so every frame draws; the shorter
  // track stops. Then one frame of move and five holding still images.
  add("uneven", {key(60, 100, 0), key(61, 100, 0)},
      {key(150, 100, 0), key(151, 100, 0), key(152, 100, 0), key(153, 100, 0), key(154, 110, 0)});
  add("nothing", {});
  add("hold", {key(90, 120, 200)}, {key(150, 120, 200)})->left.events[0].iris_name = png_.c_str();
  for (const char* other : {"loo", "Look", "1", "missing"})  // exact names only
    EXPECT_EQ(EyeControl::setAnimation(9, other), -1);
  EXPECT_FALSE(EyeControl::isAnimating());

  // The same animation twice plays twice from its start; each eye keeps its last frame.
  const struct {
    unsigned short id;
    const char* name;
    size_t leftFrames, rightFrames;
    short lx, ly, rx, ry;
  } plays[] = {{1, "uneven", 2, 5, 61, 100, 154, 110},
               {2, "uneven", 2, 5, 61, 100, 154, 110},
               {3, "nothing", 0, 0, 61, 100, 154, 110},
               {4, "hold", 1, 1, 90, 120, 150, 120}};
  for (const auto& play : plays) {
    LcdControl::resetCounters();
    ASSERT_EQ(EyeControl::setAnimation(play.id, play.name), 0);
    ASSERT_TRUE(waitUntil([] { return !EyeControl::isAnimating(); }));
    EXPECT_EQ(LcdControl::framesWritten(0), play.leftFrames) << play.id;
    EXPECT_EQ(LcdControl::framesWritten(1), play.rightFrames) << play.id;
    expectAt(left, play.lx, play.ly);
    expectAt(right, play.rx, play.ry);
  }
  // The keyframe's iris image replaced the left iris only.
  EXPECT_EQ(EyeControl::default_iris.left.path, png_);
  EXPECT_EQ(left.iris->width + right.iris->width, 20 + 40);

  // Abort, or a new start, stops a play.
  auto stare = add("stare", {key(60, 100, 5000)}, {key(180, 100, 5000)});
  auto playing = [&] { return stare->state == AnimationState::PLAYING; };
  ASSERT_EQ(EyeControl::setAnimation(5, "stare"), 0);
  ASSERT_TRUE(waitUntil(playing));
  EyeControl::Abort();
  EXPECT_EQ(EyeControl::active_animation, nullptr);
  ASSERT_EQ(EyeControl::setAnimation(6, "stare"), 0);
  ASSERT_TRUE(waitUntil(playing));
  ASSERT_EQ(EyeControl::setAnimation(7, "uneven"), 0);
  ASSERT_TRUE(recorder_.waitForCount(7));
  Events ends{{kEnd, 1}, {kEnd, 2}, {kEnd, 3}, {kEnd, 4}, {kAbort, 5}, {kAbort, 6}, {kEnd, 7}};
  EXPECT_EQ(recorder_.events(), ends);
  expectAt(left, 61, 100);
}

// One eye, frame by frame, without the worker: lid switching and sequence ticking.
TEST_F(PlayerTest, LidSequenceSwitchesOnceAndTicksByItsRatio) {
  // Two keyframes on the same lid sequence, four and five frames long, after two whose
  // lid indexes are outside the catalogue and keep the lid. Only lid frames change.
  EyeSideAnimation track;
  EXPECT_EQ(left.setAnimationFrame(&track, left.iris, left.background), 2);  // no events: ended
  track.events = {key(100, 140, 0, 2), key(100, 140, 0, -1), key(100, 140, 160, 1, 0),
                  key(100, 140, 200, 1, 0)};
  std::vector<int> shown, drawn;
  for (int frame = 0; frame < 11; ++frame) {
    drawn.push_back(left.setAnimationFrame(&track, left.iris, left.background));
    shown.push_back(left.topLidIndex * 10 + left.topLid->frameIndex);
  }
  EXPECT_EQ(left.topLid, &EyeControl::lid_images[1].content);
  EXPECT_EQ(left.topLidColor, EyeControl::lid_images[1].color);
  EXPECT_EQ(left.bottomLid, &EyeControl::lid_images[0].content);
  // Each frame held for two ticks, the last one wrapping to the start; the second
  // keyframe does not restart it. Drawn on the switch and whenever the frame changed.
  EXPECT_EQ(shown, (std::vector<int>{0, 0, 10, 11, 11, 12, 12, 13, 10, 10, 11}));
  EXPECT_EQ(drawn, (std::vector<int>{1, 0, 1, 0, 1, 0, 1, 0, 1, 1, 0}));
}

TEST_F(PlayerTest, PositionBlocksPickTheirRecordsBySide) {
  // One BOTH record moves both eyes. For BOTH, each record by its own side, a third
  // never used, one of no known side skipped, a BOTH record met second skipped. For one
  // eye, its first record whatever that record's side. Nothing to apply, or no eye
  // addressed: nothing moves. Only the eyes moved are drawn, at scale 1 with open lids,
  // range unchecked.
  const struct {
    EyeSide side;
    std::vector<P> positions;
    short lx, ly, rx, ry;
  } cases[] = {
      {B, {P{B, 0, 300, -20}}, 300, -20, 300, -20},
      {B, {P{L, 0, 10, 0}, P{R, 0, -10, 0}, P{L, 0, 99, 99}}, 10, 0, -10, 0},
      {B, {P{static_cast<EyeSide>(7), 0, 55, 55}, P{L, 0, 12, 13}}, 12, 13, -10, 0},
      {B, {P{R, 0, 1, 2}, P{B, 0, 77, 77}}, 12, 13, 1, 2},
      {L, {P{R, 0, 50, 60}, P{L, 0, 1, 1}}, 50, 60, 1, 2},
      {R, {P{L, 0, 70, 80}}, 50, 60, 70, 80},
      {B, {}, 50, 60, 70, 80},
      {L, {}, 50, 60, 70, 80},
      {static_cast<EyeSide>(3), {P{B, 0, 5, 5}}, 50, 60, 70, 80},
  };
  for (const auto& c : cases) {
    run(block(BLOCK_EYE_POSITION, c.side, c.positions));
    expectAt(left, c.lx, c.ly);
    expectAt(right, c.rx, c.ry);
    for (const Eyes* eye : {&left, &right})
      EXPECT_TRUE(eye->getScaleX() == 1 && eye->getScaleY() == 1 && eye->getTopLidY() == 0 &&
                  eye->getBottomLidY() == 240);
  }
  EXPECT_EQ(EyeControl::active_type, BLOCK_EYE_POSITION);
  EXPECT_EQ(LcdControl::framesWritten(0) + LcdControl::framesWritten(1), 2u + 6u);
}

TEST_F(PlayerTest, OtherBlockKindsPlayLoadOrBlankAndLog) {
  auto eyeBlock = block(BLOCK_EYE_ANIMATION, B);
  eyeBlock->animation = std::make_shared<EyeAnimation>(3, "not in the catalogue");
  eyeBlock->animation->left.events.push_back(key(60, 70, 0));
  run(eyeBlock);  // under the block's id
  EXPECT_EQ(eyeBlock->animation->state, AnimationState::COMPLETED);
  expectAt(left, 60, 70);

  eyetest::LogCapture log;
  run(block(BLOCK_EYE_TYPE, L, {}, 0, "BLUE"));  // CLASSIC
  EXPECT_EQ(left.iris->width + right.iris->width, 20 + 40);
  run(block(BLOCK_EYE_BACKGROUND, B, {}, 0, "RED"));  // COLOR
  EXPECT_EQ(right.background->frames.at(0)[0], Color::getColor(ColorCode::RED).red >> 4);
  EXPECT_TRUE(log.errors().empty());
  // A style not in the catalogue installs the empty part, and says so.
  run(block(BLOCK_EYE_TYPE, B, {}, static_cast<uint8_t>(IrisShape::SPACE), "NOPE"));
  run(block(BLOCK_EYE_BACKGROUND, R, {}, 1, "sky"));  // IMAGE
  EXPECT_TRUE(left.iris->frames.empty() && right.background->frames.empty());
  EXPECT_EQ(log.errors(),
            (std::vector<std::string>{
                "EyeControl Type Block getIris failed! Type:2 Style:NOPE",
                "EyeControl Background Block getBackground failed! Type:1 Style:sky"}));

  // Not an eye kind, or an animation block with nothing to play: started, never
  // completed, the worker flag stays set.
  for (BlockType type : {BLOCK_SOUND, BLOCK_EYE_ANIMATION}) {
    run(block(type, B), false);
    EyeControl::is_processing = false;
  }
}

}  // namespace
