// The animation player: plays through the real worker thread, aborts, listeners,
// tracks of different lengths, eyelid switching and image-sequence ticking.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "PanelRecorder.h"
#include "WorkerSupport.h"

// Commands racing the player on purpose (see tsan.supp) are matched by the command's
// stack, which ThreadSanitizer keeps only with a longer history.
extern "C" const char* __tsan_default_options() {
  return "history_size=7";
}

namespace {

using eyetest::Recorder;
using eyetest::stopWorker;
using eyetest::waitUntil;
using eyetest::wireEye;

// Panel order of every frame written, to see which eye was redrawn when.
class PanelLog : public LcdOutput {
 public:
  static std::vector<int> panels() {
    std::lock_guard<std::mutex> lock(mutex);
    return log;
  }
  std::string describe() const override { return "panel log"; }

 protected:
  int open_() override {
    std::lock_guard<std::mutex> lock(mutex);
    log.clear();
    return 0;
  }
  int write_(uint8_t panel, const uint8_t*) override {
    std::lock_guard<std::mutex> lock(mutex);
    log.push_back(panel);
    return 0;
  }

 private:
  static inline std::mutex mutex;
  static inline std::vector<int> log;
};

// A keyframe at (x, y) with natural scale and open lids on lid image 0.
moveEvent key(short x, short y, short timeMs, short wait, short topLid = 0, short botLid = 0) {
  return moveEvent(x, y, timeMs, wait, 1.0f, 1.0f, 40.0, 0, 240, topLid, botLid, 0, 0);
}

std::shared_ptr<EyeAnimation> makeAnimation(uint16_t id, const std::string& name,
                                            std::vector<moveEvent> left,
                                            std::vector<moveEvent> right) {
  auto animation = std::make_shared<EyeAnimation>(id, name);
  animation->left.events = std::move(left);
  animation->right.events = std::move(right);
  return animation;
}

class PlayerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0); }

  void SetUp() override {
    ASSERT_FALSE(EyeControl::is_processing) << "a previous test left a worker running";
    eyetest::resetEyeControl();

    for (VContent* image : {&EyeControl::default_iris.left, &EyeControl::default_iris.right})
      image->AddFrame("", 40, 40, true, true, 0, 0, 255, 255);
    for (VContent* image :
         {&EyeControl::default_background.left, &EyeControl::default_background.right})
      image->AddFrame("", 240, 240, false, true, 255, 255, 255, 255);

    // Lid 0: a single still image. Lid 1: a four-frame sequence, each frame held two ticks.
    EyeControl::lid_images.resize(2);
    EyeLidPart& still = EyeControl::lid_images[0];
    still.content.AddFrame("", 240, 40, true, true, 200, 0, 0, 255);
    still.color[0] = 1;
    still.color[3] = 255;
    EyeLidPart& blink = EyeControl::lid_images[1];
    for (int f = 0; f < 4; ++f)
      blink.content.AddFrame("", 240, 40, true, true, 0, static_cast<uint8_t>(60 * f), 0, 255);
    blink.content.ratio = 2;
    blink.content.loop = 0;
    blink.color[1] = 9;
    blink.color[3] = 255;

    wireEye(EyeControl::Left_Eye, 100, 140);
    wireEye(EyeControl::Right_Eye, 140, 140);

    ASSERT_EQ(LcdControl::setOutput(std::make_unique<PanelLog>()), 0);
    LcdControl::resetCounters();
    EyeEvent::AddListener(&recorder_, false);
  }

  void TearDown() override {
    stopWorker();
    EyeEvent::RemoveListener(&recorder_);
  }

  Recorder recorder_;
};

TEST_F(PlayerTest, PlaysToCompletionAndTellsTheCallersId) {
  EyeControl::eye_animations.push_back(
      makeAnimation(3, "look", {key(60, 100, 80, 0), key(70, 110, 40, 0)}, {key(150, 90, 40, 40)}));
  ASSERT_FALSE(EyeControl::isActive());  // playing does not need init

  ASSERT_EQ(EyeControl::setAnimation(7, "look"), 0);
  EXPECT_EQ(EyeControl::active_type, BLOCK_EYE_ANIMATION);
  ASSERT_TRUE(recorder_.waitForCount(1));
  ASSERT_TRUE(waitUntil([] { return !EyeControl::isAnimating(); }));

  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::COMPLETE, 7}}));
  EXPECT_EQ(EyeControl::active_animation, nullptr);
  EXPECT_EQ(EyeControl::eye_animations[0]->state, AnimationState::COMPLETED);
  // Each eye keeps its last frame.
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 70);
  EXPECT_EQ(EyeControl::Left_Eye.getIrisY(), 110);
  EXPECT_EQ(EyeControl::Right_Eye.getIrisX(), 150);
  EXPECT_EQ(EyeControl::Right_Eye.getIrisY(), 90);

  // The same animation plays again from its start.
  ASSERT_EQ(EyeControl::setAnimation(8, std::string_view("look")), 0);
  ASSERT_TRUE(recorder_.waitForCount(2));
  EXPECT_EQ(recorder_.events().back(), (Recorder::Event{Recorder::COMPLETE, 8}));
}

TEST_F(PlayerTest, UnknownOrEmptyAnimations) {
  EyeControl::eye_animations.push_back(makeAnimation(1, "look", {key(60, 100, 40, 0)}, {}));
  EyeControl::eye_animations.push_back(makeAnimation(2, "nothing", {}, {}));

  // Found by exact name only: not by id, not by prefix or case.
  EXPECT_EQ(EyeControl::getAnimation("look"), EyeControl::eye_animations[0]);
  for (const char* other : {"loo", "Look", "1"})
    EXPECT_EQ(EyeControl::getAnimation(other), nullptr);
  EXPECT_EQ(EyeControl::setAnimation(5, "missing"), -1);
  EXPECT_FALSE(EyeControl::isAnimating());
  EXPECT_EQ(EyeControl::active_animation, nullptr);

  // Two empty tracks: completes without drawing anything.
  ASSERT_EQ(EyeControl::setAnimation(6, "nothing"), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::COMPLETE, 6}}));
  EXPECT_EQ(LcdControl::framesWritten(0) + LcdControl::framesWritten(1), 0u);

  // The worker body with nothing to play.
  ASSERT_TRUE(waitUntil([] { return !EyeControl::isAnimating(); }));
  EXPECT_EQ(EyeControl::processEyeAnimation(9), -1);
  EXPECT_EQ(recorder_.events().size(), 1u);

  // A null name throws, and the worker flag stays set.
  EXPECT_THROW(EyeControl::setAnimation(1, std::string_view(nullptr, 3)), std::logic_error);
  EXPECT_TRUE(EyeControl::is_processing);
  EyeControl::is_processing = false;
}

TEST_F(PlayerTest, AbortStopsThePlayAndANewPlayAbortsTheOldOne) {
  EyeControl::eye_animations.push_back(
      makeAnimation(1, "stare", {key(60, 100, 40, 5000)}, {key(180, 100, 40, 5000)}));
  EyeControl::eye_animations.push_back(makeAnimation(2, "glance", {key(90, 90, 40, 0)}, {}));

  auto playing = [] { return EyeControl::eye_animations[0]->state == AnimationState::PLAYING; };
  ASSERT_EQ(EyeControl::setAnimation(11, "stare"), 0);
  ASSERT_TRUE(waitUntil(playing));
  EyeControl::Abort();
  EXPECT_FALSE(EyeControl::isAnimating());
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::ABORT, 11}}));
  EXPECT_EQ(EyeControl::active_animation, nullptr);

  // Abort with nothing playing returns at once.
  EyeControl::Abort();

  ASSERT_EQ(EyeControl::setAnimation(12, "stare"), 0);
  ASSERT_TRUE(waitUntil(playing));
  ASSERT_EQ(EyeControl::setAnimation(13, "glance"), 0);
  ASSERT_TRUE(recorder_.waitForCount(3));
  EXPECT_EQ(recorder_.events(),
            (std::vector<Recorder::Event>{
                {Recorder::ABORT, 11}, {Recorder::ABORT, 12}, {Recorder::COMPLETE, 13}}));
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 90);
}

TEST_F(PlayerTest, CommandsAreNotRefusedWhilePlaying) {
  EyeControl::eye_animations.push_back(makeAnimation(1, "stare", {key(60, 100, 40, 5000)}, {}));
  ASSERT_EQ(EyeControl::setAnimation(31, "stare"), 0);
  ASSERT_TRUE(waitUntil([] { return LcdControl::framesWritten(0) > 0; }));

  // The command draws at once; the hold then snaps the eye back to its keyframe.
  EXPECT_EQ(EyeControl::setPosition(EyeSide::LEFT, 30, 30, 1.0f, 1.0f, 0, 240), 0);
  EXPECT_TRUE(waitUntil([] { return LcdControl::framesWritten(0) >= 3; }));
  EXPECT_TRUE(EyeControl::isAnimating());
  EyeControl::Abort();
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 60);
  EXPECT_EQ(EyeControl::Left_Eye.getIrisY(), 100);
}

TEST_F(PlayerTest, OnlyChangedFramesAreDrawnAndTheShorterTrackStops) {
  // One frame per keyframe, each to a new place, so every computed frame draws.
  EyeControl::eye_animations.push_back(
      makeAnimation(1, "uneven", {key(60, 100, 40, 0), key(61, 100, 40, 0)},
                    {key(150, 100, 40, 0), key(151, 100, 40, 0), key(152, 100, 40, 0),
                     key(153, 100, 40, 0), key(154, 100, 40, 0)}));
  // One frame of move, then five frames holding with still images.
  EyeControl::eye_animations.push_back(
      makeAnimation(2, "hold", {key(90, 120, 40, 200)}, {key(150, 120, 40, 200)}));

  ASSERT_EQ(EyeControl::setAnimation(4, "uneven"), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(PanelLog::panels(), (std::vector<int>{0, 1, 0, 1, 1, 1, 1}));
  EXPECT_EQ(EyeControl::Left_Eye.getIrisX(), 61);
  EXPECT_EQ(EyeControl::Right_Eye.getIrisX(), 154);
  EXPECT_EQ(recorder_.events(), (std::vector<Recorder::Event>{{Recorder::COMPLETE, 4}}));

  ASSERT_TRUE(waitUntil([] { return !EyeControl::isAnimating(); }));
  ASSERT_EQ(EyeControl::setAnimation(5, "hold"), 0);
  ASSERT_TRUE(recorder_.waitForCount(2));
  EXPECT_EQ(PanelLog::panels().size(), 9u);
}

// The ST7789 output sends only what changed; models of both panels, fed from the wire,
// must hold the composed frame after every write of a play.
class CheckedPanels : public St7789Output {
 public:
  explicit CheckedPanels(std::shared_ptr<eyetest::Wire> wire)
      : St7789Output(std::make_unique<eyetest::RecordingTransport>(wire)), wire_(wire) {
    wire_->keepEvents = false;
    for (uint8_t p = 0; p < 2; ++p) model_[p].follow(p), wire_->live[p] = &model_[p];
  }
  int frames = 0, mismatches = 0;

 protected:
  int write_(uint8_t panel, const uint8_t* frame) override {
    const int status = St7789Output::write_(panel, frame);
    ++frames;
    const std::vector<uint8_t> shown = LcdControl::lastFrame(panel);
    if (model_[panel].picture() != LcdControl::unpack12Bit(shown.data())) ++mismatches;
    return status;
  }

 private:
  std::shared_ptr<eyetest::Wire> wire_;
  std::array<eyetest::PanelModel, 2> model_;
};

TEST_F(PlayerTest, WindowedPanelsHoldEveryFrameOfAPlay) {
  auto wire = std::make_shared<eyetest::Wire>();
  auto owned = std::make_unique<CheckedPanels>(wire);
  CheckedPanels* panels = owned.get();
  ASSERT_EQ(LcdControl::setOutput(std::move(owned)), 0);
  auto lids = [](short x, short top, short bottom, short wait) {
    return moveEvent(x, 140, 80, wait, 1.0f, 1.0f, 40.0, top, bottom, 0, 0, 0, 0);
  };
  // Glances, a hold, a blink that closes and opens, a move while the lids are half shut.
  EyeControl::eye_animations.push_back(
      makeAnimation(1, "glance and blink",
                    {key(60, 100, 120, 0), key(130, 150, 80, 120), lids(130, 132, 112, 40),
                     lids(130, 0, 240, 0), lids(80, 60, 200, 0)},
                    {key(150, 100, 120, 0), lids(150, 132, 112, 0), lids(170, 0, 240, 80)}));
  ASSERT_EQ(EyeControl::setAnimation(1, "glance and blink"), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_GE(panels->frames, 15);
  EXPECT_EQ(panels->mismatches, 0);
  EXPECT_LT(wire->spiBytes, panels->frames * LcdControl::kFrameBytes / 2);
}

TEST_F(PlayerTest, KeyframeIrisImageReplacesTheShownIris) {
  eyetest::TempDir dir;
  const std::string file = dir.str() + "iris.png";
  std::vector<uint8_t> pixels(16 * 16 * 4, 255);
  ASSERT_TRUE(VContent::writePng(file, 16, 16, pixels.data(), true));

  auto animation = makeAnimation(1, "swap", {key(90, 140, 40, 0)}, {key(150, 140, 40, 0)});
  animation->left.events[0].iris_name = file.c_str();
  EyeControl::eye_animations.push_back(animation);

  ASSERT_EQ(EyeControl::setAnimation(1, "swap"), 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(EyeControl::default_iris.left.path, file);
  EXPECT_EQ(EyeControl::default_iris.left.width, 16);
  EXPECT_EQ(EyeControl::Left_Eye.iris, &EyeControl::default_iris.left);
  // The right track names no image: its iris stays.
  EXPECT_EQ(EyeControl::default_iris.right.width, 40);
}

// One eye, frame by frame, without the worker: lid switching and sequence ticking.
TEST_F(PlayerTest, LidSequenceSwitchesOnceAndTicksByItsRatio) {
  Eyes& eye = EyeControl::Left_Eye;
  // Two keyframes on the same lid sequence, four and five frames long; position,
  // scale and lid lines stay put.
  EyeSideAnimation track;
  track.events.push_back(moveEvent(555, 555, 0, 160, 555.0f, 555.0f, 40.0, 0, 240, 1, 0, 0, 0));
  track.events.push_back(moveEvent(555, 555, 0, 200, 555.0f, 555.0f, 40.0, 0, 240, 1, 0, 0, 0));
  VContent* iris = &EyeControl::default_iris.left;
  VContent* background = &EyeControl::default_background.left;
  VContent* sequence = &EyeControl::lid_images[1].content;

  std::vector<int> shown;
  std::vector<int> results;
  for (int frame = 0; frame < 9; ++frame) {
    results.push_back(eye.setAnimationFrame(&track, iris, background));
    ASSERT_EQ(eye.topLid, sequence);
    shown.push_back(eye.topLid->frameIndex);
  }
  EXPECT_EQ(eye.topLidIndex, 1);
  EXPECT_EQ(eye.topLidColor, EyeControl::lid_images[1].color);
  // The bottom lid index did not change: still lid 0.
  EXPECT_EQ(eye.bottomLid, &EyeControl::lid_images[0].content);
  // Each frame held for two ticks, the last one wrapping to the start; the second
  // keyframe (same lid) does not restart the sequence.
  EXPECT_EQ(shown, (std::vector<int>{0, 1, 1, 2, 2, 3, 0, 0, 1}));
  // Drawn on the switch and whenever the shown lid frame changed.
  EXPECT_EQ(results, (std::vector<int>{1, 0, 1, 0, 1, 0, 1, 1, 0}));
  EXPECT_EQ(LcdControl::framesWritten(0), 5u);
}

TEST_F(PlayerTest, LidIndexOutsideTheCatalogueKeepsTheLid) {
  Eyes& eye = EyeControl::Left_Eye;
  EyeSideAnimation track;
  track.events.push_back(moveEvent(555, 555, 0, 40, 555.0f, 555.0f, 40.0, 0, 240, 2, -1, 0, 0));
  EXPECT_EQ(eye.setAnimationFrame(&track, eye.iris, eye.background), 0);
  EXPECT_EQ(eye.topLid, &EyeControl::lid_images[0].content);
  EXPECT_EQ(eye.bottomLid, &EyeControl::lid_images[0].content);
  EXPECT_EQ(eye.topLidIndex, 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
}

}  // namespace
