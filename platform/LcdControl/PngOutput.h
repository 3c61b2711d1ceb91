// EYE_LCD=png:DIR: every frame becomes DIR/lcd<panel>_<counter>.png (8-bit RGB, a
// counter of 6 digits per panel from 000000).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "LcdControl.h"

class PngOutput : public LcdOutput {
 public:
  explicit PngOutput(std::string dir) : dir_(std::move(dir)) {}
  std::string describe() const override { return "png:" + dir_; }

 protected:
  int open_() override;
  int write_(uint8_t panel, const uint8_t* frame) override;

 private:
  std::string dir_;
  std::array<uint64_t, LcdControl::kPanels> counters_{};
};
