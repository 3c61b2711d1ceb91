// The destination of frames: memory, PNG files or the panels. LcdControl calls the
// public entry points, which take the lock, so no implementation needs its own; the
// implementations override the protected hooks.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

class LcdOutput {
 public:
  virtual ~LcdOutput() = default;
  // 0, or negative on failure.
  int open() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_();
  }
  // Sends one 86400-byte 12-bit frame to `panel`: 0, or negative on failure.
  int write(uint8_t panel, const uint8_t* frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    return write_(panel, frame);
  }
  virtual std::string describe() const = 0;

 protected:
  virtual int open_() = 0;
  virtual int write_(uint8_t panel, const uint8_t* frame) = 0;

 private:
  std::mutex mutex_;
};
