// Idle motion's runner: plays IdleMotion's animations on a thread of its own, each as an
// eye-animation block through EyeControl::ProcessEyeBlock, so listeners, Abort and
// is_processing behave as for any play. It steps aside whenever the application
// changes the eyes (it listens at the library's PlayGate).
#pragma once

#include <cstdint>
#include <functional>

#include "IdleMotion.h"

class EyeIdle {
 public:
  using Clock = std::function<int64_t()>;  // monotonic milliseconds

  // Idle's plays carry block ids from this range, in turn.
  static constexpr uint16_t kFirstBlockId = 0xFF00;
  static constexpr uint16_t kLastBlockId = 0xFFFF;

  // Starts idle motion (restarts it with the new settings when it runs): 0, or -1 when the
  // settings are not valid. The clock measures the still times and the quiet time.
  // Neither start nor stop may be called from a listener object.
  static int8_t start(const IdleSettings& settings);
  static int8_t start(const IdleSettings& settings, Clock clock);
  // Returns once nothing of idle's plays and its thread is left.
  static void stop();
  static bool isRunning();
  static bool isIdleId(unsigned short id) { return id >= kFirstBlockId; }

  // Where the two eyes are now, lids open as they are now.
  static IdleGaze currentGaze();
};
