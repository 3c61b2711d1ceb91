#include "EyeEvent.h"

#include <algorithm>

std::vector<EyeEventListener*> EyeEvent::observers;
std::vector<EyeEvent::Callback> EyeEvent::start_event_listeners;
std::vector<EyeEvent::Callback> EyeEvent::complete_event_listeners;
std::vector<EyeEvent::Callback> EyeEvent::abort_event_listeners;
std::mutex EyeEvent::mtx;

namespace {

void addCallback(std::vector<EyeEvent::Callback>& list, EyeEvent::Callback callback) {
  std::lock_guard<std::mutex> lock(EyeEvent::mtx);
  list.push_back(callback);
}

void removeCallback(std::vector<EyeEvent::Callback>& list, EyeEvent::Callback callback) {
  std::lock_guard<std::mutex> lock(EyeEvent::mtx);
  auto it = std::find(list.begin(), list.end(), callback);
  if (it != list.end()) list.erase(it);
}

// Objects first, with the registry locked; then the functions, unlocked, walked by
// index with the size read again after every call so that a function may add or
// remove functions while it runs.
void deliver(unsigned short id, void (EyeEventListener::*notify)(unsigned short),
             std::vector<EyeEvent::Callback>& functions) {
  {
    std::lock_guard<std::mutex> lock(EyeEvent::mtx);
    auto& observers = EyeEvent::observers;
    observers.erase(std::remove(observers.begin(), observers.end(), nullptr), observers.end());
    for (EyeEventListener* listener : observers) (listener->*notify)(id);
  }
  for (size_t i = 0; i < functions.size(); ++i) {
    EyeEvent::Callback callback = functions[i];
    if (callback != nullptr) callback(id);
  }
}

}  // namespace

void EyeEvent::AddListener(EyeEventListener* listener, bool first) {
  std::lock_guard<std::mutex> lock(mtx);
  if (first)
    observers.insert(observers.begin(), listener);
  else
    observers.push_back(listener);
}

void EyeEvent::RemoveListener(EyeEventListener* listener) {
  std::lock_guard<std::mutex> lock(mtx);
  auto it = std::find(observers.begin(), observers.end(), listener);
  if (it != observers.end()) observers.erase(it);
}

void EyeEvent::AddListenerOnStart(Callback callback) {
  addCallback(start_event_listeners, callback);
}
void EyeEvent::AddListenerOnComplete(Callback callback) {
  addCallback(complete_event_listeners, callback);
}
void EyeEvent::AddListenerOnAbort(Callback callback) {
  addCallback(abort_event_listeners, callback);
}

void EyeEvent::RemoveListenerOnStart(Callback callback) {
  removeCallback(start_event_listeners, callback);
}
void EyeEvent::RemoveListenerOnComplete(Callback callback) {
  removeCallback(complete_event_listeners, callback);
}
void EyeEvent::RemoveListenerOnAbort(Callback callback) {
  removeCallback(abort_event_listeners, callback);
}

void EyeEvent::EyeStart(unsigned short id) {
  deliver(id, &EyeEventListener::onEyeStart, start_event_listeners);
}
void EyeEvent::EyeComplete(unsigned short id) {
  deliver(id, &EyeEventListener::onEyeComplete, complete_event_listeners);
}
void EyeEvent::EyeAbort(unsigned short id) {
  deliver(id, &EyeEventListener::onEyeAbort, abort_event_listeners);
}
