// The eye library as an application uses it: bring both eyes up from a catalogue
// folder, listen to what the eyes do, play an animation, run an eye block, and
// change the iris.
//
//   eye_example EYE_SET_DIR
//
// EYE_SET_DIR holds the four catalogues (the installed example set is
// <prefix>/share/EyeControl/examples/eye; on the robot EyeControl::init() reads
// /.tavi/config/eye/ instead). Frames go where EYE_LCD says (see LcdControl.h):
// memory by default, png:DIR for pictures, st7789 for the real panels.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>

// Both forms of include work against the installed package and the .pc file.
#include <EyeControl/EyeControl.h>

#include "BlockEye.h"
#include "EyeEvent.h"
#include "EyeEventListener.h"
#include "LcdControl.h"

namespace {

// Listeners are called on the library's worker thread.
class WorkListener : public EyeEventListener {
 public:
  void onEyeStart(unsigned short id) override { std::printf("started %u\n", id); }
  void onEyeComplete(unsigned short id) override { finish(id, "completed"); }
  void onEyeAbort(unsigned short id) override { finish(id, "aborted"); }

  // Waits until work `id` has completed or aborted; false after `limit`.
  bool waitFor(unsigned short id, std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, limit, [&] { return finished_ == id; });
  }

 private:
  void finish(unsigned short id, const char* how) {
    std::printf("%s %u\n", how, id);
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = id;
    done_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable done_;
  unsigned short finished_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s EYE_SET_DIR\n", argv[0]);
    return 2;
  }
  // A blue classic iris on a white background.
  if (EyeControl::initFrom(argv[1], IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR, "WHITE") !=
      0) {
    std::fprintf(stderr, "the eyes did not come up from %s\n", argv[1]);
    return 1;
  }
  WorkListener listener;
  EyeEvent::AddListener(&listener, false);

  // An animation from the catalogue, under an id of our choosing.
  const unsigned short blinkId = 1000;  // apart from the ids blocks draw (1, 2, ...)
  if (EyeControl::setAnimation(blinkId, "blink") != 0 ||
      !listener.waitFor(blinkId, std::chrono::seconds(10))) {
    std::fprintf(stderr, "blink did not play\n");
    return 1;
  }

  // An eye block, as the block-programming language sends it: look to the left.
  auto look = std::make_shared<BlockEye>(BLOCK_EYE_POSITION);
  look->positions.push_back(EyePosition{EyeSide::BOTH, 0, 80, 120});
  const unsigned short lookId = look->id();  // drawn here, before the worker reads it
  if (EyeControl::ProcessEyeBlock(look) != 0 ||
      !listener.waitFor(lookId, std::chrono::seconds(10))) {
    std::fprintf(stderr, "the eye block did not run\n");
    return 1;
  }

  // A green iris on both eyes, drawn at once.
  if (EyeControl::setIris(IrisShape::CLASSIC, ColorCode::GREEN, EyeSide::BOTH) != 0) {
    std::fprintf(stderr, "no green classic iris\n");
    return 1;
  }
  short x = 0, y = 0;
  EyeControl::getIrisPosition(EyeSide::LEFT, x, y);
  std::printf("left iris at %d,%d; frames: left %llu, right %llu\n", x, y,
              static_cast<unsigned long long>(LcdControl::framesWritten(0)),
              static_cast<unsigned long long>(LcdControl::framesWritten(1)));
  EyeEvent::RemoveListener(&listener);
  return 0;
}
