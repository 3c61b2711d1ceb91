// Registry of listeners told, by id, when an animation or eye block starts,
// completes or is aborted. Listener objects are called first, with the registry
// locked (they must not call back into EyeEvent); functions after, unlocked.
#pragma once

#include <mutex>
#include <vector>

#include "EyeEventListener.h"

class EyeEvent {
 public:
  using Callback = void (*)(unsigned short);

  static void AddListener(EyeEventListener* listener, bool first);
  static void RemoveListener(EyeEventListener* listener);
  static void AddListenerOnStart(Callback callback);
  static void AddListenerOnComplete(Callback callback);
  static void AddListenerOnAbort(Callback callback);
  static void RemoveListenerOnStart(Callback callback);
  static void RemoveListenerOnComplete(Callback callback);
  static void RemoveListenerOnAbort(Callback callback);

  static void EyeStart(unsigned short id);
  static void EyeComplete(unsigned short id);
  static void EyeAbort(unsigned short id);

  static std::vector<EyeEventListener*> observers;
  static std::vector<Callback> start_event_listeners;
  static std::vector<Callback> complete_event_listeners;
  static std::vector<Callback> abort_event_listeners;
  static std::mutex mtx;
};
