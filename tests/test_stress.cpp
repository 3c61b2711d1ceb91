// Plays, blocks, aborts, appearance commands and listener changes at once from two
// threads on the bundled eye set, for ASan and TSan to watch. Counts are fixed; nothing
// here waits longer than it must.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "WorkerSupport.h"

// The plain-value races kept on purpose (see tsan.supp) are matched by the reader's
// stack, which ThreadSanitizer keeps only with a longer history.
extern "C" const char* __tsan_default_options() {
  return "history_size=7";
}

namespace {

using namespace std::chrono_literals;
using eyetest::Recorder;

// The application fires plays, blocks of the four eye kinds and aborts, some animation
// blocks aborted right after their start, while a second thread changes the appearance
// with every command (catalogue irises and backgrounds of different sizes, a catalogue
// reload among them) and registers and removes a listener. No composition may read
// pixels a command freed; every play and block ends exactly once, and a block aborted
// right after its start is told aborted, even if its worker had not begun.
TEST(StressTest, AppearanceCommandsWhilePlaysBlocksAndAbortsRun) {
  eyetest::resetEyeControl();
  ASSERT_EQ(EyeControl::initFrom(EYE_ASSETS_DIR, IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR,
                                 "WHITE"),
            0);
  const auto animations = EyeControl::eye_animations;
  auto stare = std::make_shared<EyeAnimation>(1, "stare");
  stare->left.events.push_back(moveEvent(60, 100, 40, 5000, 1, 1, 40, 0, 240, 0, 0, 0, 0));
  VContent ownIris, ownBackground, ownLid;
  ownIris.AddFrame("", 90, 90, true, true, 255, 0, 0, 255);
  ownLid.AddFrame("", 240, 30, true, true, 90, 60, 30, 255);
  ownBackground.AddFrame("", 240, 240, false, true, 0, 0, 90, 255);
  EyePart sclera;
  ASSERT_EQ(EyeControl::getBackground(EyeContentType::IMAGE, "SCLERA", sclera), 0);
  Recorder recorder;
  EyeEvent::AddListener(&recorder, false);

  std::atomic<bool> done{false};
  std::thread commander([&] {
    int i = 0;
    EyeSide side{};
    IrisShape shape{};
    ColorCode colour{};
    Recorder listener;
    const std::function<int()> commands[] = {
        [&] { return EyeControl::setIris(shape, colour, side); },
        [&] { return EyeControl::setIris(&ownIris, side); },
        [&] {
          EyePart part;
          return EyeControl::getIris(shape, "LIME", part) + EyeControl::setIris(part, side);
        },
        [&] { return EyeControl::setBackground(Color::getColor(colour)); },
        [&] { return EyeControl::setBackground(&ownBackground, side); },
        [&] { return EyeControl::setBackground(sclera, side); },
        [&] { return EyeControl::setEyes(shape, colour, ColorCode::SILVER); },
        [&] { return EyeControl::setLid(static_cast<uint16_t>(i % 2), uint16_t{1}, side); },
        [&] { return EyeControl::setLid(&ownLid, i % 2 == 0, side); },
        [&] { return EyeControl::setPosition(side, i % 200, 120, 1.2f, 0.8f, 40, 200); },
        [] { return EyeControl::loadDefaultIris() + EyeControl::loadDefaultBackground(); },
        [&] {
          auto& part = EyeControl::default_background;
          return EyeControl::FillBackgroundColor(part, Color::getColor(colour), true), 0;
        },
        [] { return EyeControl::loadEyeFilesFrom(EYE_ASSETS_DIR); },
        [&] { return EyeEvent::AddListener(&listener, i % 2), 0; },
        [&] { return EyeEvent::RemoveListener(&listener), 0; }};
    for (; i < 160 || !done; ++i) {
      side = static_cast<EyeSide>(i % 3);
      shape = i % 2 ? IrisShape::GLOW : IrisShape::CLASSIC;
      colour = i % 4 < 2 ? ColorCode::CYAN : ColorCode::MAGENTA;
      EXPECT_EQ(commands[i % 15](), 0) << "command " << i % 15;
    }
    EyeEvent::RemoveListener(&listener);
  });

  std::vector<unsigned short> plays, blocks, aborted;
  for (int n = 0; n < 120; ++n) {
    const auto& animation = animations[n % animations.size()];
    if (n % 4 == 0) {
      plays.push_back(static_cast<unsigned short>(30000 + n));
      EXPECT_EQ(EyeControl::setAnimation(plays.back(), animation->name), 0);
    } else if (n % 4 < 3) {
      static const BlockType kinds[] = {BLOCK_EYE_ANIMATION, BLOCK_EYE_POSITION, BLOCK_EYE_TYPE,
                                        BLOCK_EYE_BACKGROUND};
      auto block = std::make_shared<BlockEye>(n % 4 == 1 ? kinds[0] : kinds[n / 4 % 4]);
      block->animation = n % 4 == 1 ? stare : animation;
      block->style = "GREEN";  // a CLASSIC iris, a COLOR background
      block->side = static_cast<EyeSide>(n % 3);
      block->positions = {{EyeSide::BOTH, 0, static_cast<int16_t>(n % 50), 0}};
      blocks.push_back(block->id());
      EXPECT_EQ(EyeControl::ProcessEyeBlock(block), 0);
      if (n % 4 == 1) aborted.push_back(block->id());
    }
    if (n % 4 == 1 || n % 4 == 3) EyeControl::Abort();
    // A few frames now and then; otherwise the next start aborts what still plays.
    if (n % 3 == 0) eyetest::waitUntil([] { return !EyeControl::isAnimating(); }, 60ms);
  }
  done = true;
  commander.join();
  EyeControl::Abort();

  ASSERT_TRUE(recorder.waitForCount(plays.size() + 2 * blocks.size(), 10000ms));
  std::map<unsigned short, std::vector<Recorder::Kind>> heard;
  for (const auto& e : recorder.events()) heard[e.id].push_back(e.kind);
  for (unsigned short id : plays) EXPECT_EQ(heard[id].size(), 1u) << "play " << id;
  for (unsigned short id : blocks)
    EXPECT_TRUE(heard[id].size() == 2 && heard[id][0] == Recorder::START) << "block " << id;
  for (unsigned short id : aborted)
    EXPECT_EQ(heard[id], (std::vector<Recorder::Kind>{Recorder::START, Recorder::ABORT})) << id;
  EXPECT_EQ(recorder.events().size(), plays.size() + 2 * blocks.size());
  EyeEvent::RemoveListener(&recorder);
  eyetest::resetEyeControl();
}

}  // namespace
