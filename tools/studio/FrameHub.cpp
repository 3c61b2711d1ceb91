#include "FrameHub.h"

#include <chrono>

namespace studio {

void FrameHub::put(uint8_t panel, const uint8_t* frame) {
  if (muted_) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    frames_[panel].assign(frame, frame + LcdControl::kFrameBytes);
    ++counter_;
  }
  changed_.notify_all();
}

std::pair<uint64_t, std::string> FrameHub::next(uint64_t after) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(1), [&] { return counter_ > after || closed_; });
  // Unpacked after unlocking, so the eyes never wait for a page.
  const auto frames = frames_;
  const uint64_t counter = counter_;
  lock.unlock();
  std::string body;
  body.reserve(2 * 240 * 240 * 3);
  for (const auto& frame : frames) {
    std::vector<uint8_t> rgb =
        frame.empty() ? std::vector<uint8_t>(240 * 240 * 3) : LcdControl::unpack12Bit(frame.data());
    body.append(rgb.begin(), rgb.end());
  }
  return {counter, std::move(body)};
}

uint64_t FrameHub::counter() {
  std::lock_guard<std::mutex> lock(mutex_);
  return counter_;
}

void FrameHub::close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
}

}  // namespace studio
