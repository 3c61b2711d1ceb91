// The sub-commands of `eyes`. Each returns the process's exit status:
// 0 fine, 1 problems found, 2 usage or I/O error.
#pragma once

#include <cstdint>
#include <string>

namespace eyes {

constexpr int kExitOk = 0;
constexpr int kExitProblems = 1;
constexpr int kExitUsage = 2;

// What demo, render and info say before their work when `dir`'s catalogues have errors:
// each error on stderr and how to see them all. True when there were errors, and
// the command then ends with kExitProblems.
bool reportCatalogueErrors(const char* command, const std::string& dir);

struct RenderRequest {
  std::string configDir;
  std::string animation;
  int idleSeconds = 0;  // instead of an animation: this long of idle motion
  uint64_t seed = 1;    // of the idle motion
  std::string out;      // empty: <animation>.webp, idle.webp
  std::string iris;
  std::string background;
  int every = 1;  // contact sheets: every n-th frame
};

int runRender(const RenderRequest& request);
struct DemoRequest {
  std::string configDir;
  std::string out = "eye-demo";
  std::string iris;  // as for render; empty: the settings' default
  std::string background;
};
int runDemo(const DemoRequest& request);
int runLint(const std::string& dir);
int runInfo(const std::string& dir);

// Every frame and its picture stay in memory until written: about 16 MB a second.
constexpr int kMaxIdleSeconds = 30;
// What the demo page shows as idle life.
constexpr int kDemoIdleSeconds = 10;
constexpr uint64_t kDemoIdleSeed = 1;

// The directory of the eye set installed beside this program, else the one built
// with it.
std::string bundledConfigDir();

}  // namespace eyes
