// Eye blocks run on the worker: notifications, and what each kind does to the eyes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
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
using eyetest::stopWorker;
using eyetest::waitUntil;
using eyetest::wireEye;

std::shared_ptr<BlockEye> positionBlock(EyeSide side, std::vector<EyePosition> positions) {
  auto block = std::make_shared<BlockEye>(BLOCK_EYE_POSITION);
  block->side = side;
  block->positions = std::move(positions);
  return block;
}

std::shared_ptr<BlockEye> contentBlock(BlockType type, uint8_t content, const char* style,
                                       EyeSide side) {
  auto block = std::make_shared<BlockEye>(type);
  block->content = content;
  block->style = style;
  block->side = side;
  return block;
}

class EyeBlockTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0); }

  void SetUp() override {
    ASSERT_FALSE(EyeControl::is_processing) << "a previous test left a worker running";
    eyetest::resetEyeControl();

    irisLeft_ = dir_.str() + "iris_l.png";
    irisRight_ = dir_.str() + "iris_r.png";
    std::vector<uint8_t> pixels(20 * 10 * 4, 255);
    ASSERT_TRUE(VContent::writePng(irisLeft_, 20, 10, pixels.data(), true));
    ASSERT_TRUE(VContent::writePng(irisRight_, 10, 20, pixels.data(), true));
    EyeControl::iris_types.assign(1, IrisType{});
    EyeControl::iris_types[0].shape = IrisShape::CLASSIC;
    EyeControl::iris_types[0].irises.push_back(Iris{0, 0, irisLeft_, irisRight_, "BLUE"});
    EyeControl::background_types.assign(1, BackgroundType{});
    EyeControl::background_types[0].type = EyeContentType::COLOR;

    for (VContent* image : {&EyeControl::default_iris.left, &EyeControl::default_iris.right})
      image->AddFrame("", 40, 40, true, true, 0, 0, 255, 255);
    for (VContent* image :
         {&EyeControl::default_background.left, &EyeControl::default_background.right})
      image->AddFrame("", 240, 240, false, true, 255, 255, 255, 255);
    EyeControl::lid_images.resize(1);
    EyeControl::lid_images[0].content.AddFrame("", 240, 40, true, true, 200, 0, 0, 255);
    EyeControl::lid_images[0].color[3] = 255;

    // Somewhere a position block never leaves the eyes: scaled, lids half shut.
    wireEye(EyeControl::Left_Eye, 100, 140, 2.0f, 30, 200);
    wireEye(EyeControl::Right_Eye, 140, 140, 2.0f, 30, 200);
    LcdControl::resetCounters();
    EyeEvent::AddListener(&recorder_, false);
  }

  void TearDown() override {
    stopWorker();
    EyeEvent::RemoveListener(&recorder_);
  }

  // Runs the block through the worker and waits for its start and completion.
  std::vector<Recorder::Event> run(const std::shared_ptr<BlockEye>& block) {
    recorder_.clear();
    EXPECT_EQ(EyeControl::ProcessEyeBlock(block), 0);
    EXPECT_TRUE(recorder_.waitForCount(2));
    EXPECT_TRUE(waitUntil([] { return !EyeControl::isAnimating(); }));
    return recorder_.events();
  }

  static std::vector<Recorder::Event> startAndComplete(unsigned short id) {
    return {{Recorder::START, id}, {Recorder::COMPLETE, id}};
  }

  static void expectAt(const Eyes& eye, short x, short y) {
    EXPECT_EQ(eye.getIrisX(), x);
    EXPECT_EQ(eye.getIrisY(), y);
  }

  eyetest::TempDir dir_;
  std::string irisLeft_;
  std::string irisRight_;
  Recorder recorder_;
};

TEST_F(EyeBlockTest, PositionBlocksPickTheirRecordsBySide) {
  Eyes& left = EyeControl::Left_Eye;
  Eyes& right = EyeControl::Right_Eye;
  // One BOTH record moves both eyes, at scale 1 with open lids, unchecked range.
  auto block = positionBlock(EyeSide::BOTH, {{EyeSide::BOTH, 0, 300, -20}});
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  expectAt(left, 300, -20);
  expectAt(right, 300, -20);
  for (const Eyes* eye : {&left, &right}) {
    EXPECT_EQ(eye->getScaleX() + eye->getScaleY(), 2.0f);
    EXPECT_EQ(eye->getTopLidY(), 0);
    EXPECT_EQ(eye->getBottomLidY(), 240);
  }
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);
  EXPECT_EQ(EyeControl::active_type, BLOCK_EYE_POSITION);

  // For BOTH, each record by its own side, a third never used, one of no known side
  // skipped, a BOTH record met second skipped. For one eye, its first record whatever
  // that record's side.
  using P = EyePosition;
  const EyeSide L = EyeSide::LEFT, R = EyeSide::RIGHT, B = EyeSide::BOTH;
  const struct {
    EyeSide side;
    std::vector<EyePosition> positions;
    short lx, ly, rx, ry;
  } cases[] = {
      {B, {P{L, 0, 10, 0}, P{R, 0, -10, 0}, P{L, 0, 99, 99}}, 10, 0, -10, 0},
      {B, {P{static_cast<EyeSide>(7), 0, 55, 55}, P{L, 0, 12, 13}}, 12, 13, -10, 0},
      {B, {P{R, 0, 1, 2}, P{B, 0, 77, 77}}, 12, 13, 1, 2},
      {L, {P{R, 0, 50, 60}, P{L, 0, 1, 1}}, 50, 60, 1, 2},
      {R, {P{L, 0, 70, 80}}, 50, 60, 70, 80},
  };
  for (const auto& c : cases) {
    block = positionBlock(c.side, c.positions);
    EXPECT_EQ(run(block), startAndComplete(block->id()));
    expectAt(left, c.lx, c.ly);
    expectAt(right, c.rx, c.ry);
  }

  // Nothing to apply, or no eye addressed: still completes, draws nothing.
  LcdControl::resetCounters();
  for (auto empty : {positionBlock(EyeSide::BOTH, {}), positionBlock(EyeSide::LEFT, {}),
                     positionBlock(static_cast<EyeSide>(3), {{EyeSide::BOTH, 0, 5, 5}})})
    EXPECT_EQ(run(empty), startAndComplete(empty->id()));
  EXPECT_EQ(LcdControl::framesWritten(0) + LcdControl::framesWritten(1), 0u);
  expectAt(left, 50, 60);
}

TEST_F(EyeBlockTest, TypeAndBackgroundBlocksLoadOrBlankAndLog) {
  eyetest::LogCapture log;
  auto block = contentBlock(BLOCK_EYE_TYPE, 0, "BLUE", EyeSide::LEFT);  // CLASSIC
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  EXPECT_EQ(EyeControl::Left_Eye.iris, &EyeControl::default_iris.left);
  EXPECT_EQ(EyeControl::default_iris.left.path, irisLeft_);
  EXPECT_EQ(EyeControl::default_iris.left.width, 20);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  EXPECT_EQ(LcdControl::framesWritten(1), 0u);

  block = contentBlock(BLOCK_EYE_BACKGROUND, 0, "RED", EyeSide::BOTH);  // COLOR
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  const Color red = Color::getColor(ColorCode::RED);
  for (const Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye}) {
    const std::vector<uint8_t>& frame = eye->background->frames.at(0);
    EXPECT_EQ(std::vector<int>(frame.begin(), frame.begin() + 3),
              (std::vector<int>{red.red >> 4, red.green >> 4, red.blue >> 4}));
  }
  EXPECT_TRUE(log.errors().empty());

  // An unknown shape still installs the (empty) part on both eyes; no image
  // backgrounds in the catalogue: the right eye loses its background.
  block =
      contentBlock(BLOCK_EYE_TYPE, static_cast<uint8_t>(IrisShape::SPACE), "NOPE", EyeSide::BOTH);
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  EXPECT_TRUE(EyeControl::Left_Eye.iris->frames.empty());
  EXPECT_TRUE(EyeControl::Right_Eye.iris->frames.empty());
  block = contentBlock(BLOCK_EYE_BACKGROUND, 1, "sky", EyeSide::RIGHT);  // IMAGE
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  EXPECT_TRUE(EyeControl::Right_Eye.background->frames.empty());
  EXPECT_FALSE(EyeControl::Left_Eye.background->frames.empty());
  EXPECT_EQ(log.errors(),
            (std::vector<std::string>{
                "EyeControl Type Block getIris failed! Type:2 Style:NOPE",
                "EyeControl Background Block getBackground failed! Type:1 Style:sky"}));
}

TEST_F(EyeBlockTest, AnimationBlockPlaysItsAnimationUnderTheBlockId) {
  auto animation = std::make_shared<EyeAnimation>(3, "not in the catalogue");
  animation->left.events.push_back(moveEvent(60, 70, 40, 0, 1.0f, 1.0f, 40.0, 0, 240, 0, 0, 0, 0));
  auto block = std::make_shared<BlockEye>(BLOCK_EYE_ANIMATION);
  block->animation = animation;
  EXPECT_EQ(run(block), startAndComplete(block->id()));
  EXPECT_EQ(EyeControl::active_type, BLOCK_EYE_ANIMATION);
  EXPECT_EQ(EyeControl::active_animation, nullptr);
  EXPECT_EQ(animation->state, AnimationState::COMPLETED);
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 60);
}

TEST_F(EyeBlockTest, BlockAbortsARunningAnimationAndReleasesIt) {
  EyeControl::eye_animations.push_back(std::make_shared<EyeAnimation>(1, "stare"));
  auto& stare = EyeControl::eye_animations[0];
  stare->left.events.push_back(moveEvent(60, 70, 40, 5000, 1.0f, 1.0f, 40.0, 0, 240, 0, 0, 0, 0));

  ASSERT_EQ(EyeControl::setAnimation(21, "stare"), 0);
  ASSERT_TRUE(waitUntil([&] { return stare->state == AnimationState::PLAYING; }));
  auto block = positionBlock(EyeSide::LEFT, {{EyeSide::LEFT, 0, 5, 6}});
  const unsigned short id = block->id();
  ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
  ASSERT_TRUE(recorder_.waitForCount(3));
  // The abort may still be on its way when the block starts.
  auto events = recorder_.events();
  EXPECT_EQ(std::count(events.begin(), events.end(), Recorder::Event{Recorder::ABORT, 21}), 1);
  EXPECT_EQ(events.back(), (Recorder::Event{Recorder::COMPLETE, id}));
  expectAt(EyeControl::Left_Eye, 5, 6);

  // A block of another kind drops an animation left in active_animation.
  EyeControl::active_animation = stare;
  block = positionBlock(EyeSide::LEFT, {{EyeSide::LEFT, 0, 7, 8}});
  run(block);
  EXPECT_EQ(EyeControl::active_animation, nullptr);
}

TEST_F(EyeBlockTest, BlocksThatNeverComplete) {
  // Not an eye kind: started, never completed, the worker flag stays set.
  auto sound = std::make_shared<BlockEye>(BLOCK_SOUND);
  const unsigned short id = sound->id();
  ASSERT_EQ(EyeControl::ProcessEyeBlock(sound), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(EyeControl::active_type, BLOCK_SOUND);

  // Abort only waits for such work: it asks no animation to stop.
  auto idle = std::make_shared<EyeAnimation>(2, "idle");
  EyeControl::active_animation = idle;
  std::atomic<bool> returned{false};
  std::thread aborter([&] {
    EyeControl::Abort();
    returned = true;
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(returned);
  EXPECT_TRUE(EyeControl::isAnimating());
  EXPECT_EQ(idle->state, AnimationState::IDLE);
  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::START, id}}));
  EyeControl::is_processing = false;
  aborter.join();
  EXPECT_TRUE(returned);
  EyeControl::active_animation.reset();

  // An animation block with no animation while none is active: nothing to play.
  recorder_.clear();
  auto empty = std::make_shared<BlockEye>(BLOCK_EYE_ANIMATION);
  const unsigned short emptyId = empty->id();
  ASSERT_EQ(EyeControl::ProcessEyeBlock(empty), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::START, emptyId}}));
  EXPECT_TRUE(EyeControl::isAnimating());
  EyeControl::is_processing = false;
}

}  // namespace
