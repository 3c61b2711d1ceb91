// Interface for objects that want to hear when eye work starts, completes or aborts.
#pragma once

class EyeEventListener {
 public:
  virtual ~EyeEventListener();
  virtual void onEyeStart(unsigned short id);
  virtual void onEyeComplete(unsigned short id);
  virtual void onEyeAbort(unsigned short id);
};
