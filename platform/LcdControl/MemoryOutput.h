// EYE_LCD=memory: keeps nothing itself, since LcdControl records every frame whatever
// the output.
#pragma once

#include "LcdOutput.h"

class MemoryOutput : public LcdOutput {
 public:
  std::string describe() const override { return "memory"; }

 protected:
  int open_() override { return 0; }
  int write_(uint8_t, const uint8_t*) override { return 0; }
};
