// Conversions of computed values to the 16-bit fields of animation events.
#pragma once

#include <cmath>
#include <cstdint>

namespace eyemath {

// double -> 16 bits the way the robot's CPU does it: truncate toward zero,
// saturate to 32 bits (NaN gives 0), keep the low 16 bits.
inline short toShort(double value) {
  if (std::isnan(value)) return 0;
  int32_t whole;
  if (value >= 2147483647.0)
    whole = INT32_MAX;
  else if (value <= -2147483648.0)
    whole = INT32_MIN;
  else
    whole = static_cast<int32_t>(value);
  return static_cast<short>(static_cast<uint16_t>(static_cast<uint32_t>(whole)));
}

}  // namespace eyemath
