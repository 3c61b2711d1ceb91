// `eyes render --idle`: the rendered frames against the generated steps stepped through
// the player, and the command line.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "EyeControl.h"
#include "EyeIdle.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "render.h"

namespace fs = std::filesystem;

namespace {

using Panels = std::array<std::vector<uint8_t>, 2>;

std::vector<Panels> panelsOf(const std::vector<eyes::Frame>& frames) {
  std::vector<Panels> out;
  for (const eyes::Frame& frame : frames) out.push_back(frame.panels);
  return out;
}

TEST(EyesIdle, FramesFollowTheGeneratedStepsAndTheSeed) {
  ASSERT_EQ(eyes::bringUpEyes(EYE_ASSETS_DIR).problem, "");
  const std::vector<Panels> rendered = panelsOf(eyes::renderIdle(6, 3));
  ASSERT_EQ(rendered.size(), 150u);
  EXPECT_TRUE(panelsOf(eyes::renderIdle(6, 3)) == rendered);
  EXPECT_FALSE(panelsOf(eyes::renderIdle(6, 4)) == rendered);

  // Each step starts on its own frame and goes on from where the one before left the eyes;
  // the panels hold their picture in between.
  eyes::restEyes();
  std::vector<Panels> expected;
  auto shown = [&] { expected.push_back({LcdControl::lastFrame(0), LcdControl::lastFrame(1)}); };
  uint8_t kinds = 0;
  for (const IdleStep& step : IdleMotion::generate({}, 3, EyeIdle::currentGaze(), 6)) {
    while (static_cast<int64_t>(expected.size()) < step.startMs / 40) shown();
    step.animation->ClearAnimation();
    step.animation->state = AnimationState::PLAYING;
    while (EyeControl::stepAnimationFrame(*step.animation)) shown();
    kinds |= step.kinds;
  }
  ASSERT_TRUE((kinds & IDLE_BLINK) && (kinds & IDLE_SACCADE)) << "a run worth comparing";
  while (expected.size() < rendered.size()) shown();
  expected.resize(rendered.size());
  for (size_t i = 0; i < expected.size(); ++i) ASSERT_TRUE(expected[i] == rendered[i]) << i;
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
  EXPECT_EQ(run(render + " --animation blink --seed 4"), 2) << "a seed is for idle motion";

  eyetest::TempDir out;
  const fs::path dir = out.path() / "frames";
  ASSERT_EQ(run(render + " --idle 2 --seed 9 --out " + dir.string()), 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 50);
}

}  // namespace
