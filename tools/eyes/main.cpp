// eyes: see, check and summarise eye catalogues without a robot.
#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

#include "Studio.h"
#include "commands.h"
#include "lint.h"
#include "render.h"

#ifndef EYE_DEFAULT_ASSETS_DIR
#define EYE_DEFAULT_ASSETS_DIR ""
#endif

namespace eyes {

std::string bundledConfigDir() {
  return EYE_DEFAULT_ASSETS_DIR;
}

int runRender(const RenderRequest& request) {
  if (!std::filesystem::is_directory(request.configDir)) {
    std::fprintf(stderr, "eyes render: no catalogue directory \"%s\"\n", request.configDir.c_str());
    return kExitUsage;
  }
  if (const BringUp up = bringUpEyes(request.configDir, request.iris, request.background);
      !up.ok()) {
    std::fprintf(stderr, "eyes render: %s\n", up.problem.c_str());
    return up.badArgument ? kExitUsage : kExitProblems;
  }
  const bool idle = request.idleSeconds > 0;
  auto frames =
      idle ? renderIdle(request.idleSeconds, request.seed) : renderAnimation(request.animation);
  if (!frames) {
    std::fprintf(stderr, "eyes render: no animation named \"%s\" in %s\n",
                 request.animation.c_str(), request.configDir.c_str());
    return kExitUsage;
  }
  if (frames->empty()) frames->push_back(currentFrame());
  const std::string what =
      idle ? "idle life (seed " + std::to_string(request.seed) + ")" : request.animation;
  const std::string out =
      !request.out.empty() ? request.out : (idle ? "idle" : request.animation) + ".webp";
  std::string error;
  if (!writeRendering(out, *frames, error, request.every)) {
    std::fprintf(stderr, "eyes render: %s\n", error.c_str());
    return kExitUsage;
  }
  std::printf("%s: %zu frames (%.2f s) -> %s\n", what.c_str(), frames->size(),
              frames->size() * kFrameMs / 1000.0, out.c_str());
  return kExitOk;
}

int runLint(const std::string& dir) {
  if (!std::filesystem::is_directory(dir)) {
    std::fprintf(stderr, "eyes lint: %s is not a directory\n", dir.c_str());
    return kExitUsage;
  }
  const auto findings = lintCatalogues(dir);
  for (const Finding& finding : findings) std::printf("%s\n", formatFinding(finding).c_str());
  return hasErrors(findings) ? kExitProblems : kExitOk;
}

}  // namespace eyes

int main(int argc, char** argv) {
  using namespace eyes;
  CLI::App app{"See, check and summarise eye catalogues without a robot."};
  app.require_subcommand(1);

  RenderRequest render;
  render.configDir = bundledConfigDir();
  auto* renderCmd = app.add_subcommand(
      "render",
      "Play one animation, or generated idle motion, on both eyes and write what the panels "
      "show: an animated WebP (OUT.webp), a contact sheet (OUT.png) or numbered PNG frames (any "
      "other OUT, a directory).");
  renderCmd->add_option("--config", render.configDir, "catalogue directory")->capture_default_str();
  auto* what = renderCmd->add_option_group("what to play", "a catalogue animation or idle motion");
  what->add_option("--animation", render.animation, "animation name");
  auto* idleOption =
      what->add_option("--idle", render.idleSeconds,
                       "instead of an animation: SECONDS of idle motion (blinks, glances)")
          ->check(CLI::Range(1, kMaxIdleSeconds));
  what->require_option(1);
  renderCmd->add_option("--seed", render.seed, "idle motion: random seed")
      ->needs(idleOption)
      ->capture_default_str();
  renderCmd->add_option("--out", render.out,
                        "output file or directory (default NAME.webp, idle.webp)");
  renderCmd->add_option("--iris", render.iris, "iris as SHAPE:STYLE, e.g. GLOW:CYAN");
  renderCmd->add_option("--background", render.background,
                        "background as TYPE:STYLE, e.g. IMAGE:SCLERA");
  renderCmd->add_option("--every", render.every, "contact sheet: every n-th frame")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();

  std::string demoConfig = bundledConfigDir();
  std::string demoOut = "eye-demo";
  auto* demoCmd = app.add_subcommand(
      "demo",
      "Render every animation of a catalogue (WebP and contact sheet each) and an index.html.");
  demoCmd->add_option("--config", demoConfig, "catalogue directory")->capture_default_str();
  demoCmd->add_option("--out", demoOut, "output directory")->capture_default_str();

  std::string lintDir;
  auto* lintCmd = app.add_subcommand(
      "lint", "Check the four catalogues of DIR and the images they name; exit 1 on any error.");
  lintCmd->add_option("DIR", lintDir, "catalogue directory")->required();

  std::string infoDir;
  auto* infoCmd = app.add_subcommand("info", "Summarise the catalogues of DIR.");
  infoCmd->add_option("DIR", infoDir, "catalogue directory")->required();

  StudioOptions studio;
  studio.configDir = bundledConfigDir();
  auto* studioCmd =
      app.add_subcommand("studio",
                         "Serve a page on 127.0.0.1 that shows both eyes live and plays, steps and "
                         "re-reads the catalogues while you edit them.");
  studioCmd->add_option("--config", studio.configDir, "catalogue directory")->capture_default_str();
  studioCmd->add_option("--port", studio.port, "port (0 picks a free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }

  if (*renderCmd) return runRender(render);
  if (*demoCmd) return runDemo(demoConfig, demoOut);
  if (*lintCmd) return runLint(lintDir);
  if (*infoCmd) return runInfo(infoDir);
  if (*studioCmd) return runStudio(studio);
  return kExitUsage;
}
