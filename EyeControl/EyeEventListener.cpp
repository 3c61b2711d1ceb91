#include "EyeEventListener.h"

// Empty on purpose: a listener overrides only the notifications it cares about.
EyeEventListener::~EyeEventListener() = default;
void EyeEventListener::onEyeStart(unsigned short) {}
void EyeEventListener::onEyeComplete(unsigned short) {}
void EyeEventListener::onEyeAbort(unsigned short) {}
