// Shared by the worker tests: a listener that records notifications, bounded waits,
// and stopping whatever worker a test left running.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "EyeControl.h"
#include "EyeEvent.h"

namespace eyetest {

using namespace std::chrono_literals;

inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = 5000ms) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

class Recorder : public EyeEventListener {
 public:
  enum Kind { START, COMPLETE, ABORT };
  struct Event {
    Kind kind;
    unsigned short id;
    bool operator==(const Event& o) const { return kind == o.kind && id == o.id; }
  };

  void onEyeStart(unsigned short id) override { add({START, id}); }
  void onEyeComplete(unsigned short id) override { add({COMPLETE, id}); }
  void onEyeAbort(unsigned short id) override { add({ABORT, id}); }

  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  bool waitForCount(size_t n, std::chrono::milliseconds limit = 5000ms) {
    return waitUntil([&] { return events().size() >= n; }, limit);
  }

 private:
  void add(Event e) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(e);
  }
  std::mutex mutex_;
  std::vector<Event> events_;
};

// Never leaves a worker behind for the next test, nor hangs on one that cannot end.
inline void stopWorker() {
  if (EyeControl::active_type == BLOCK_EYE_ANIMATION)
    if (auto animation = std::atomic_load(&EyeControl::active_animation))
      animation->state = AnimationState::ABORTING;
  if (!waitUntil([] { return !EyeControl::isAnimating(); })) {
    ADD_FAILURE() << "the worker did not end";
    EyeControl::is_processing = false;
  }
}

// Points the eye at the default parts and the first catalogue lid, at (x, y) with the
// given scale and lid lines.
inline void wireEye(Eyes& eye, short x, short y, float scale = 1.0f, short topLidY = 0,
                    short bottomLidY = 240) {
  eye.iris = eye.isLeft ? &EyeControl::default_iris.left : &EyeControl::default_iris.right;
  eye.background =
      eye.isLeft ? &EyeControl::default_background.left : &EyeControl::default_background.right;
  eye.lidImages = &EyeControl::lid_images;
  eye.topLid = eye.bottomLid = &EyeControl::lid_images[0].content;
  eye.topLidColor = eye.bottomLidColor = EyeControl::lid_images[0].color;
  eye.offsetX = eye.offsetY = 0;
  eye.irisSeq = eye.topLidSeq = eye.bottomLidSeq = eye.backgroundSeq = SequenceState{};
  eye.irisX = x, eye.irisY = y;
  eye.scaleX = eye.scaleY = scale;
  eye.topLidY = topLidY, eye.bottomLidY = bottomLidY;
  eye.topLidIndex = eye.bottomLidIndex = 0;
}

}  // namespace eyetest
