// Playing an animation to its end from a benchmark, and the process's CPU time.
#pragma once

#include <time.h>

#include <condition_variable>
#include <mutex>

#include "EyeEvent.h"

namespace benchplay {

inline std::mutex doneMutex;
inline std::condition_variable doneChanged;
inline unsigned playsEnded = 0;

inline void onEnded(unsigned short) {
  std::lock_guard<std::mutex> lock(doneMutex);
  ++playsEnded;
  doneChanged.notify_all();
}

// Hears every play's end from here on.
inline void listen() {
  EyeEvent::AddListenerOnComplete(onEnded);
  EyeEvent::AddListenerOnAbort(onEnded);
}
inline void stopListening() {
  EyeEvent::RemoveListenerOnComplete(onEnded);
  EyeEvent::RemoveListenerOnAbort(onEnded);
}

inline unsigned ended() {
  std::lock_guard<std::mutex> lock(doneMutex);
  return playsEnded;
}

// Waits until a play ends after `before` = ended() was read.
inline void waitForEnd(unsigned before) {
  std::unique_lock<std::mutex> lock(doneMutex);
  doneChanged.wait(lock, [&] { return playsEnded != before; });
}

inline double cpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace benchplay
