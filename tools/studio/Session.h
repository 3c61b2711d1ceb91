// What the studio does to the eyes: catalogue reloads, the selected animation and
// its playback, appearance commands and saving an edited animation. Every member
// runs under `commands`, so page requests, the watcher and the player take turns.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AnimationXml.h"
#include "CatalogueWatch.h"
#include "EyeAnimation.h"
#include "FrameHub.h"
#include "Timeline.h"

namespace studio {

// A request the studio refuses; the page shows the message.
struct BadRequest {
  int status;
  std::string message;
};

struct LogEntry {
  uint64_t seq;
  std::string kind;  // start, pause, resume, loop, complete
  std::string name;
};

class Session {
 public:
  Session(std::string configDir, std::shared_ptr<FrameHub> hub);

  std::mutex commands;

  void reloadIfChanged();

  // Selects an animation and rewinds it to the rest pose; `running` starts it.
  void select(std::shared_ptr<EyeAnimation> animation, bool running);
  void pause();
  void resume();
  // Shows frame `frame` of the selected animation, paused.
  void step(int frame);
  // Advances a running animation by one frame; the player thread calls it every
  // frame period times `slowdown`.
  void tick();

  bool showIris(const std::string& shape, const std::string& style);
  bool showBackground(const std::string& type, const std::string& style);
  void showLids(unsigned short top, unsigned short bottom);

  // Writes `draft` into the animation catalogue in place of the animation named
  // `replaces` (empty: as a new one), after the checker passed the new file; then
  // reloads and selects it. Findings of a refused save are in `saveFindings`.
  void save(const std::string& replaces, const AnimationDraft& draft);

  void requireEyes() const;
  bool kept() const;  // the files have errors, the eyes play the previous catalogue

  CatalogueWatch watch;
  std::shared_ptr<FrameHub> hub;
  std::vector<Finding> findings;
  std::vector<Finding> saveFindings;  // of the refused save in this command
  uint64_t generation = 0;
  std::string irisShape, irisStyle, backgroundType, backgroundStyle;

  std::shared_ptr<EyeAnimation> selected;
  uint64_t selection = 0;  // counts selections, so the page knows to fetch the timeline
  std::vector<TimelineFrame> timeline;  // every frame of `selected`, from the rest pose
  int shownFrame = -1;                  // frame on the eyes, -1 before the first
  bool running = false;
  bool loop = false;
  std::atomic<int> slowdown{1};  // 1, 2 or 4 frame periods per frame; the player reads it

  std::vector<LogEntry> log;

 private:
  void reload();
  void bringUp();
  void rewind();
  void note(const char* kind);
  void setPose(bool left, const EyePose& pose, unsigned short top, unsigned short bottom);

  struct Rest {
    EyePose pose;
    unsigned short top = 0, bottom = 1;
  } rest_[2];
  std::shared_ptr<EyeAnimation> stepping_;
  int framesStepped_ = 0;
};

}  // namespace studio
