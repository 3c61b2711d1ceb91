// `eyes render --idle`: the rendered idle motion against the generated steps played
// through the real player, and its command line.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "BlockEye.h"
#include "EyeControl.h"
#include "EyeIdle.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "WorkerSupport.h"
#include "render.h"

namespace fs = std::filesystem;

namespace {

// The frames the player hands to each panel, in order.
struct PanelRecorder : LcdOutput {
  using Writes = std::array<std::vector<std::vector<uint8_t>>, 2>;
  std::shared_ptr<Writes> writes = std::make_shared<Writes>();
  std::string describe() const override { return "recorder"; }
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t* frame) override {
    (*writes)[panel].emplace_back(frame, frame + LcdControl::kFrameBytes);
    return 0;
  }
};

bool samePanels(const eyes::Frame& a, const eyes::Frame& b) {
  return a.panels == b.panels;
}

TEST(EyesIdle, RenderingFollowsTheGeneratedStepsThroughThePlayer) {
  ASSERT_EQ(eyes::bringUpEyes(EYE_ASSETS_DIR).problem, "");
  constexpr int kSeconds = 6;
  constexpr uint64_t kSeed = 3;
  const auto frames = eyes::renderIdle(kSeconds, kSeed);
  ASSERT_EQ(frames.size(), static_cast<size_t>(kSeconds * 25));

  const auto again = eyes::renderIdle(kSeconds, kSeed);
  const auto other = eyes::renderIdle(kSeconds, kSeed + 1);
  ASSERT_EQ(again.size(), frames.size());
  ASSERT_EQ(other.size(), frames.size());
  bool otherDiffers = false;
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_TRUE(samePanels(again[i], frames[i])) << "same seed, frame " << i;
    otherDiffers |= !samePanels(other[i], frames[i]);
  }
  EXPECT_TRUE(otherDiffers);

  // The same steps, one after another, from the rest pose through the real player.
  eyes::restEyes();
  const auto steps = IdleMotion::generate(IdleSettings{}, kSeed, EyeIdle::currentGaze(), kSeconds);
  auto recorder = std::make_unique<PanelRecorder>();
  const auto played = recorder->writes;
  ASSERT_EQ(LcdControl::setOutput(std::move(recorder)), 0);
  uint8_t kinds = 0;
  for (const IdleStep& step : steps) {
    auto block = std::make_shared<BlockEye>(BLOCK_EYE_ANIMATION);
    block->animation = step.animation;
    ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
    ASSERT_TRUE(eyetest::waitUntil([] { return !EyeControl::isAnimating(); }));
    kinds |= step.kinds;
  }
  ASSERT_TRUE((kinds & IDLE_BLINK) && (kinds & IDLE_SACCADE)) << "a run worth comparing";

  // Frames are drawn only while a step plays; all others hold the picture before them.
  std::vector<bool> playing(frames.size(), false);
  for (const IdleStep& step : steps)
    for (int64_t ms = step.startMs; ms < step.startMs + step.durationMs; ms += 40)
      if (ms / 40 < static_cast<int64_t>(playing.size())) playing[ms / 40] = true;
  const auto lastStep = steps.back();
  const bool lastCutShort = lastStep.startMs + lastStep.durationMs > kSeconds * 1000;
  for (uint8_t panel = 0; panel < 2; ++panel) {
    SCOPED_TRACE(panel);
    size_t drawn = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
      if (!playing[i]) {
        ASSERT_FALSE(frames[i].drawn[panel]) << "drawn in the still time, frame " << i;
        if (i > 0) {
          ASSERT_TRUE(frames[i].panels[panel] == frames[i - 1].panels[panel]) << i;
        }
      }
      if (!frames[i].drawn[panel]) continue;
      ASSERT_LT(drawn, (*played)[panel].size());
      ASSERT_TRUE(frames[i].panels[panel] == (*played)[panel][drawn]) << "frame " << i;
      ++drawn;
    }
    if (!lastCutShort) {
      EXPECT_EQ(drawn, (*played)[panel].size());
    }
  }
}

int run(const std::string& arguments) {
  const int status =
      std::system((std::string(EYES_TOOL) + " " + arguments + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(EyesIdle, CommandLine) {
  const std::string render = "render --config " + std::string(EYE_ASSETS_DIR);
  EXPECT_EQ(run(render + " --idle 2 --animation blink"), 2);
  EXPECT_EQ(run(render), 2) << "neither an animation nor idle motion";
  EXPECT_EQ(run(render + " --idle 0"), 2);
  EXPECT_EQ(run(render + " --animation blink --seed 4"), 2) << "a seed is for idle motion";

  eyetest::TempDir out;
  const fs::path dir = out.path() / "frames";
  ASSERT_EQ(run(render + " --idle 2 --seed 9 --out " + dir.string()), 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 50);
}

}  // namespace
