// Many plays, blocks, aborts, commands and compositions at once from several threads,
// on the bundled eye set. Counts are fixed; nothing here waits longer than it must.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

// The plain-value races kept on purpose (see tsan.supp) are matched by the reader's
// stack, which ThreadSanitizer keeps only with a longer history.
extern "C" const char* __tsan_default_options() {
  return "history_size=7";
}

namespace {

using namespace std::chrono_literals;
using eyetest::Recorder;
using eyetest::waitUntil;

class StressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    ASSERT_EQ(EyeControl::initFrom(EYE_ASSETS_DIR, IrisShape::CLASSIC, "BLUE",
                                   EyeContentType::COLOR, "WHITE"),
              0);
    ASSERT_FALSE(EyeControl::eye_animations.empty());
    EyeEvent::AddListener(&recorder_, false);
  }
  void TearDown() override {
    eyetest::stopWorker();
    EyeEvent::RemoveListener(&recorder_);
    eyetest::resetEyeControl();
  }

  // Every id handed out must end in exactly one complete or abort notification, and
  // every block id in exactly one start before it.
  void expectOneEndEach(const std::vector<unsigned short>& plays,
                        const std::vector<unsigned short>& blocks) {
    ASSERT_TRUE(recorder_.waitForCount(plays.size() + 2 * blocks.size(), 10000ms))
        << recorder_.events().size() << " notifications";
    std::map<unsigned short, int> ends, starts;
    for (const auto& e : recorder_.events()) ++(e.kind == Recorder::START ? starts : ends)[e.id];
    for (unsigned short id : plays) EXPECT_EQ(ends[id], 1) << "play " << id;
    for (unsigned short id : blocks) {
      EXPECT_EQ(ends[id], 1) << "block " << id;
      EXPECT_EQ(starts[id], 1) << "block " << id;
    }
    EXPECT_EQ(recorder_.events().size(), plays.size() + 2 * blocks.size());
  }

  Recorder recorder_;
};

// A listener that only counts, added and removed over and over by another thread.
struct Counter : EyeEventListener {
  std::atomic<int> calls{0};
  void onEyeStart(unsigned short) override { ++calls; }
  void onEyeComplete(unsigned short) override { ++calls; }
  void onEyeAbort(unsigned short) override { ++calls; }
};

// Registers and removes two such listeners on a thread of its own while it lives.
class ListenerChurn {
 public:
  ListenerChurn()
      : thread_([this] {
          Counter a, b;
          while (!done_) {
            EyeEvent::AddListener(&a, true);
            EyeEvent::AddListener(&b, false);
            EyeEvent::RemoveListener(&a);
            EyeEvent::RemoveListener(&b);
          }
        }) {}
  ~ListenerChurn() {
    done_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

std::shared_ptr<BlockEye> makeBlock(int n, std::shared_ptr<EyeAnimation> animation) {
  static const BlockType kinds[] = {BLOCK_EYE_ANIMATION, BLOCK_EYE_POSITION, BLOCK_EYE_TYPE,
                                    BLOCK_EYE_BACKGROUND};
  auto block = std::make_shared<BlockEye>(kinds[n % 4]);
  block->animation = std::move(animation);
  block->content = 0;  // a CLASSIC iris, a COLOR background
  block->style = n % 3 ? "RED" : "GREEN";
  block->positions = {{EyeSide::BOTH, 0, static_cast<int16_t>(n % 50), 0}};
  return block;
}

// Two application threads fire plays, blocks and aborts back to back (each call made
// under the application's lock, as two callers of one library must), while a third
// thread keeps registering and removing listeners.
TEST_F(StressTest, PlaysBlocksAndAbortsFromTwoThreadsEachEndOnce) {
  constexpr int kCallsPerThread = 150;
  std::mutex idsMutex;
  std::vector<unsigned short> plays, blocks;
  ListenerChurn churn;

  auto application = [&](int thread) {
    for (int i = 0; i < kCallsPerThread; ++i) {
      const int n = thread * kCallsPerThread + i;
      std::lock_guard<std::mutex> app(EyeControl::mutex_eye_conrol);
      switch (n % 3) {
        case 0: {
          const auto& animation = EyeControl::eye_animations[n % EyeControl::eye_animations.size()];
          const auto id = static_cast<unsigned short>(40000 + n);
          ASSERT_EQ(EyeControl::setAnimation(id, animation->name), 0);
          std::lock_guard<std::mutex> lock(idsMutex);
          plays.push_back(id);
          break;
        }
        case 1: {
          auto block =
              makeBlock(n, EyeControl::eye_animations[n % EyeControl::eye_animations.size()]);
          const unsigned short id = block->id();
          ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
          std::lock_guard<std::mutex> lock(idsMutex);
          blocks.push_back(id);
          break;
        }
        default:
          EyeControl::Abort();
          EXPECT_FALSE(EyeControl::is_processing);
      }
    }
  };
  std::thread first(application, 0), second(application, 1);
  first.join();
  second.join();
  EyeControl::Abort();

  EXPECT_FALSE(EyeControl::is_processing);
  expectOneEndEach(plays, blocks);
}

// Abort right after a start stops that play, even before its worker has begun: the
// play is told aborted, not completed after playing to its end.
TEST_F(StressTest, AbortRightAfterTheStartIsNotLost) {
  auto length = [](const std::shared_ptr<EyeAnimation>& a) {
    int ms = 0;
    for (const auto& e : a->left.events) ms += e.move_ms + e.wait_ms;
    return ms;
  };
  const auto& animations = EyeControl::eye_animations;
  const auto longest =
      *std::max_element(animations.begin(), animations.end(),
                        [&](const auto& a, const auto& b) { return length(a) < length(b); });
  ASSERT_GT(length(longest), 400);
  constexpr unsigned short kPlays = 20;
  for (unsigned short id = 1; id <= kPlays; ++id) {
    ASSERT_EQ(EyeControl::setAnimation(id, longest->name), 0);
    if (id % 2) EyeControl::Abort();  // else the next start aborts it
  }
  EyeControl::Abort();
  ASSERT_TRUE(recorder_.waitForCount(kPlays));
  for (const auto& e : recorder_.events()) EXPECT_EQ(e.kind, Recorder::ABORT) << "play " << e.id;
}

// The application changes what the eyes show with every appearance command, catalogue
// irises and backgrounds of different sizes and a catalogue reload among them, while a
// second thread plays animations and blocks of all four eye kinds and a third churns
// listeners. No composition may read pixels a command freed (ASan and TSan watch); every
// play and block still ends once.
TEST_F(StressTest, AppearanceCommandsWhilePlaysAndBlocksRun) {
  constexpr int kStarts = 40;  // eight plays and eight blocks of each kind
  constexpr int kCommands = 160;
  constexpr int kCommandKinds = 16;
  VContent ownIris, ownBackground, ownLid;
  ownIris.AddFrame("", 90, 90, true, true, 255, 0, 0, 255);
  ownLid.AddFrame("", 240, 30, true, true, 90, 60, 30, 255);
  ownBackground.AddFrame("", 240, 240, false, true, 0, 0, 90, 255);
  std::vector<std::string> names;
  for (const auto& animation : EyeControl::eye_animations) names.push_back(animation->name);

  std::atomic<bool> done{false};
  std::vector<unsigned short> plays, blocks;
  std::thread player([&] {
    struct Finish {
      std::atomic<bool>& done;
      ~Finish() { done = true; }  // also when an assertion ends the thread early
    } finish{done};
    for (int n = 0; n < kStarts; ++n) {
      if (n % 5 == 0) {
        const auto id = static_cast<unsigned short>(30000 + n);
        ASSERT_EQ(EyeControl::setAnimation(id, names[n % names.size()]), 0);
        plays.push_back(id);
      } else {
        // The four block kinds in turn.
        auto block = makeBlock(n % 5 - 1, EyeControl::getAnimation(names[n % names.size()]));
        // Iris blocks alternate sizes (glow irises are larger); background blocks images.
        if (n % 2) {
          const bool iris = block->type == BLOCK_EYE_TYPE;
          block->content = iris ? static_cast<uint8_t>(IrisShape::GLOW)
                                : static_cast<uint8_t>(EyeContentType::IMAGE);
          block->style = iris ? "CYAN" : "AURORA";
        }
        block->side = static_cast<EyeSide>(n % 3);
        blocks.push_back(block->id());
        ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
      }
      // A few frames each: the next start aborts what still plays.
      waitUntil([] { return !EyeControl::isAnimating(); }, 60ms);
    }
    EyeControl::Abort();
  });
  ListenerChurn churn;

  EyePart sclera;
  ASSERT_EQ(EyeControl::getBackground(EyeContentType::IMAGE, "SCLERA", sclera), 0);
  for (int i = 0; i < kCommands || !done; ++i) {
    const auto side = static_cast<EyeSide>(i % 3);
    const IrisShape shape = i % 2 ? IrisShape::GLOW : IrisShape::CLASSIC;
    const ColorCode colour = i % 4 < 2 ? ColorCode::CYAN : ColorCode::MAGENTA;
    int r = 0;
    switch (i % kCommandKinds) {
      case 0:
        r = EyeControl::setIris(shape, colour, side);
        break;
      case 1:
        r = EyeControl::setIris(&ownIris, side);
        break;
      case 2: {
        EyePart part;
        r = EyeControl::getIris(shape, "LIME", part) + EyeControl::setIris(part, side);
        break;
      }
      case 3:
        r = EyeControl::setBackground(Color::getColor(colour));
        break;
      case 4:
        r = EyeControl::setBackground(&ownBackground, side);
        break;
      case 5:
        r = EyeControl::setBackground(EyeContentType::COLOR, ColorCode::NAVY);
        break;
      case 6:
        r = EyeControl::setBackground(sclera, side);
        break;
      case 7:
        r = EyeControl::setEyes(shape, colour, ColorCode::SILVER);
        break;
      case 8:
        r = EyeControl::setLid(static_cast<uint16_t>(i % 2), uint16_t{1}, side);
        break;
      case 9:
        r = EyeControl::setLid(&ownLid, i % 2 == 0, side);
        break;
      case 10:
        r = EyeControl::setPosition(side, static_cast<short>(i % 200), 120, 1.2f, 0.8f, 40, 200);
        break;
      case 11:
        r = EyeControl::loadDefaultIris();
        break;
      case 12:
        r = EyeControl::loadDefaultBackground();
        break;
      case 13:
        EyeControl::FillBackgroundColor(EyeControl::default_background, Color::getColor(colour),
                                        true);
        break;
      case 14:
        r = EyeControl::loadEyeFilesFrom(EYE_ASSETS_DIR);
        break;
      default:
        r = EyeControl::SetFrames(side);
    }
    EXPECT_EQ(r, 0) << "command " << i % kCommandKinds;
  }
  player.join();

  EXPECT_FALSE(EyeControl::is_processing);
  expectOneEndEach(plays, blocks);
}

// Checks every frame a panel gets against the one frame that state must give.
class FrameCheck : public LcdOutput {
 public:
  std::vector<uint8_t> expected[2];
  std::atomic<int> frames{0}, wrong{0};
  std::string describe() const override { return "frame check"; }

 protected:
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t* frame) override {
    ++frames;
    if (!std::equal(expected[panel].begin(), expected[panel].end(), frame)) ++wrong;
    return 0;
  }
};

// Six threads compose both eyes from one unchanging state: every frame is the same
// as the single-threaded one, so no composer scratch state is shared between frames.
TEST_F(StressTest, ComposingBothEyesFromSeveralThreadsGivesTheSameFrames) {
  constexpr int kThreads = 6, kFramesPerThread = 40;
  ASSERT_EQ(EyeControl::setLid(uint16_t{0}, uint16_t{1}, EyeSide::BOTH), 0);
  ASSERT_EQ(EyeControl::setPosition(EyeSide::LEFT, 90, 130, 1.3f, 0.9f, 50, 190), 0);
  ASSERT_EQ(EyeControl::setPosition(EyeSide::RIGHT, 150, 110, 0.7f, 1.1f, 30, 220), 0);
  auto check = std::make_unique<FrameCheck>();
  FrameCheck* frames = check.get();
  for (uint8_t panel : {0, 1}) frames->expected[panel] = LcdControl::lastFrame(panel);
  ASSERT_EQ(LcdControl::setOutput(std::move(check)), 0);

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kFramesPerThread; ++i) {
        if ((t + i) % 2)
          EyeControl::SetFrames(EyeSide::BOTH);
        else
          EyeControl::SetEyePosition((t + i) % 4 == 0, (t + i) % 4 == 0 ? 90 : 150,
                                     (t + i) % 4 == 0 ? 130 : 110, (t + i) % 4 == 0 ? 1.3f : 0.7f,
                                     (t + i) % 4 == 0 ? 0.9f : 1.1f, (t + i) % 4 == 0 ? 50 : 30,
                                     (t + i) % 4 == 0 ? 190 : 220);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(frames->frames, kThreads * kFramesPerThread * 3 / 2);
  EXPECT_EQ(frames->wrong, 0);
}

}  // namespace
