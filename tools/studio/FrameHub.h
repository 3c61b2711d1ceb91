// The newest frame of each panel, handed from the eyes to waiting page requests.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LcdControl.h"

namespace studio {

class FrameHub {
 public:
  void put(uint8_t panel, const uint8_t* frame);

  // Both panels as 8-bit RGB once the counter passes `after` (or after a second).
  std::pair<uint64_t, std::string> next(uint64_t after);

  uint64_t counter();

  // While muted, frames are not passed on (frames drawn only to reach another).
  void mute(bool muted) { muted_ = muted; }
  bool muted() const { return muted_; }

  void close();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::array<std::vector<uint8_t>, LcdControl::kPanels> frames_;
  uint64_t counter_ = 0;
  bool closed_ = false;
  std::atomic<bool> muted_{false};
};

// The LCD output the eyes draw into while the studio runs.
class HubOutput : public LcdOutput {
 public:
  explicit HubOutput(std::shared_ptr<FrameHub> hub) : hub_(std::move(hub)) {}
  std::string describe() const override { return "eye studio"; }

 protected:
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t* frame) override {
    hub_->put(panel, frame);
    return 0;
  }

 private:
  std::shared_ptr<FrameHub> hub_;
};

}  // namespace studio
