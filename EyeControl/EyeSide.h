// Which eye(s) a command addresses.
#pragma once

#include <cstdint>

enum class EyeSide : uint8_t {
  BOTH = 0,
  LEFT = 1,
  RIGHT = 2,
};

// The two tests every side-taking operation applies; values of 3 and above
// address no eye. Left is always handled before right.
constexpr bool affectsLeftEye(EyeSide side) { return static_cast<uint8_t>(side) < 2; }
constexpr bool affectsRightEye(EyeSide side) { return (static_cast<uint8_t>(side) & ~2u) == 0; }
