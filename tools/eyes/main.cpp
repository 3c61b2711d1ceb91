// eyes: see, check and summarise eye catalogues without a robot.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

#include "Logging.h"
#include "Studio.h"
#include "commands.h"
#include "lint.h"
#include "render.h"

#ifndef EYE_DEFAULT_ASSETS_DIR
#define EYE_DEFAULT_ASSETS_DIR ""
#endif
#ifndef EYE_INSTALLED_ASSETS_DIR
#define EYE_INSTALLED_ASSETS_DIR ""
#endif
#ifndef EYE_VERSION
#define EYE_VERSION "unknown"
#endif

namespace fs = std::filesystem;

namespace eyes {

std::string bundledConfigDir() {
  // Installed, the eye set lies at a fixed place relative to this program.
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (!ec && *EYE_INSTALLED_ASSETS_DIR) {
    const fs::path installed = (self.parent_path() / EYE_INSTALLED_ASSETS_DIR).lexically_normal();
    const char* firstFile = catalogue::fileName(catalogue::kLoadOrder.front());
    if (fs::is_regular_file(installed / firstFile, ec)) return installed.string();
  }
  return EYE_DEFAULT_ASSETS_DIR;
}

bool reportCatalogueErrors(const char* command, const std::string& dir) {
  const auto findings = lintCatalogues(dir);
  size_t errors = 0;
  for (const Finding& finding : findings) {
    if (finding.severity != Severity::Error) continue;
    std::fprintf(stderr, "%s: %s\n", command, formatFinding(finding).c_str());
    ++errors;
  }
  if (errors > 0)
    std::fprintf(stderr, "%s: the catalogues in %s have %zu error%s (`eyes lint --config %s`)\n",
                 command, dir.c_str(), errors, errors == 1 ? "" : "s", dir.c_str());
  return errors > 0;
}

namespace {

bool isDirectory(const char* command, const std::string& dir) {
  if (!dir.empty() && fs::is_directory(dir)) return true;
  std::fprintf(stderr, "%s: no catalogue directory \"%s\"\n", command, dir.c_str());
  return false;
}

}  // namespace

int runRender(const RenderRequest& request) {
  const char* command = "eyes render";
  if (!isDirectory(command, request.configDir)) return kExitUsage;
  std::string error;
  if (!checkRenderingTarget(request.out, request.every, error)) {
    std::fprintf(stderr, "%s: %s\n", command, error.c_str());
    return kExitUsage;
  }
  const bool broken = reportCatalogueErrors(command, request.configDir);
  if (const BringUp up = bringUpEyes(request.configDir, request.iris, request.background);
      !up.ok()) {
    std::fprintf(stderr, "%s: %s\n", command, up.problem.c_str());
    return up.badArgument ? kExitUsage : kExitProblems;
  }
  const bool idle = request.idleSeconds > 0;
  auto frames =
      idle ? renderIdle(request.idleSeconds, request.seed) : renderAnimation(request.animation);
  if (!frames) {
    std::fprintf(stderr, "%s: no animation named \"%s\" in %s\n", command,
                 request.animation.c_str(), request.configDir.c_str());
    return kExitUsage;
  }
  if (frames->empty()) frames->push_back(currentFrame());
  const std::string what =
      idle ? "idle life (seed " + std::to_string(request.seed) + ")" : request.animation;
  const std::string out =
      !request.out.empty() ? request.out : (idle ? "idle" : request.animation) + ".webp";
  if (!writeRendering(out, *frames, error, request.every)) {
    std::fprintf(stderr, "%s: %s\n", command, error.c_str());
    return kExitUsage;
  }
  std::printf("%s: %zu frames (%.2f s) -> %s\n", what.c_str(), frames->size(),
              frames->size() * kFrameMs / 1000.0, out.c_str());
  return broken ? kExitProblems : kExitOk;
}

int runLint(const std::string& dir) {
  if (!isDirectory("eyes lint", dir)) return kExitUsage;
  const auto findings = lintCatalogues(dir);
  for (const Finding& finding : findings) std::printf("%s\n", formatFinding(finding).c_str());
  return hasErrors(findings) ? kExitProblems : kExitOk;
}

}  // namespace eyes

namespace {

// `--config DIR` on every sub-command; lint and info also take DIR alone.
CLI::Option* addConfig(CLI::App* command, std::string& dir, bool positionalToo) {
  auto* option = command->add_option("--config", dir, "catalogue directory")->capture_default_str();
  if (positionalToo)
    command->add_option("DIR", dir, "catalogue directory (the same as --config)")->excludes(option);
  return option;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace eyes;
  logToStderr("eyes");
  CLI::App app{"See, check and summarise eye catalogues without a robot."};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("eyes ") + EYE_VERSION);

  const std::string bundled = bundledConfigDir();
  RenderRequest render;
  render.configDir = bundled;
  auto* renderCmd = app.add_subcommand(
      "render",
      "Play one animation, or generated idle motion, on both eyes and write what the panels "
      "show: an animated WebP (OUT.webp), a contact sheet (OUT.png) or numbered PNG frames (OUT "
      "without extension, a directory).");
  addConfig(renderCmd, render.configDir, false);
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
                        "background as TYPE:STYLE, e.g. IMAGE:SCLERA or COLOR:WHITE");
  renderCmd->add_option("--every", render.every, "contact sheet (.png): every n-th frame")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();

  DemoRequest demo;
  demo.configDir = bundled;
  auto* demoCmd = app.add_subcommand(
      "demo",
      "Render every animation of a catalogue (WebP and contact sheet each) and an index.html.");
  addConfig(demoCmd, demo.configDir, false);
  demoCmd->add_option("--out", demo.out, "output directory")->capture_default_str();
  demoCmd->add_option("--iris", demo.iris, "iris as SHAPE:STYLE, e.g. GLOW:CYAN");
  demoCmd->add_option("--background", demo.background,
                      "background as TYPE:STYLE, e.g. IMAGE:SCLERA or COLOR:WHITE");

  std::string lintDir = bundled;
  auto* lintCmd = app.add_subcommand(
      "lint", "Check the four catalogues and the images they name; exit 1 on any error.");
  addConfig(lintCmd, lintDir, true);

  std::string infoDir = bundled;
  auto* infoCmd = app.add_subcommand("info", "Summarise the catalogues.");
  addConfig(infoCmd, infoDir, true);

  StudioOptions studio;
  studio.configDir = bundled;
  auto* studioCmd =
      app.add_subcommand("studio",
                         "Serve a page on 127.0.0.1 that shows both eyes live and plays, steps and "
                         "re-reads the catalogues while you edit them.");
  addConfig(studioCmd, studio.configDir, false);
  studioCmd->add_option("--port", studio.port, "port (0 picks a free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }

  if (*renderCmd) return runRender(render);
  if (*demoCmd) return runDemo(demo);
  if (*lintCmd) return runLint(lintDir);
  if (*infoCmd) return runInfo(infoDir);
  if (*studioCmd) return runStudio(studio);
  return kExitUsage;
}
