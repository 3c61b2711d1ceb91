// What the composer works out once per frame (Plan.cpp) and shares with the row code
// of every instruction set (Rows.h, ops/).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "Composer.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define EYE_COMPOSER_AVX2 1
#endif
#if defined(__aarch64__) && defined(__ARM_NEON)
#define EYE_COMPOSER_NEON 1
#endif

namespace eyeframe {

constexpr size_t kRowBytes = kSize * 3;            // one RGB row
constexpr size_t kPackedRowBytes = kSize * 3 / 2;  // one 12-bit row
constexpr size_t kBackgroundBytes = kRowBytes * kSize;
constexpr size_t kLidStride = kSize * 4;  // lid rows are 240 RGBA pixels
constexpr int kShortMax = std::numeric_limits<short>::max();

// The blend weights, worked out as the blend rule does: in double, then used as float.
struct AlphaWeights {
  float a[256];
  float na[256];
};

const AlphaWeights& alphaWeights();

// One lid as a frame sees it.
struct Lid {
  bool on = false;  // the lid line shows this lid at all
  int line = 0;
  int height = 0;                   // of the lid image (0 without one)
  const uint8_t* image = nullptr;   // current frame when it holds all its rows, else null
  const uint8_t* colour = nullptr;  // fill beyond the image; null paints nothing
};

// Where each visible iris column samples the scaled iris.
struct Columns {
  alignas(32) float weight[kSize][8];  // 1-dx four times, then dx four times
  int32_t offset[kSize];               // byte offset of neighbour A within its row
  int32_t rowByte[kSize];              // byte offset of A within the float rows
  int ixMin = 0, ixMax = 0;
  bool monotonic = true;  // no 8-bit column wrap inside the visible span
};

// Float copies of the two iris rows (pixels ixMin .. ixMax + 1) the current panel row
// samples; an upscaled iris uses each row for two or more panel rows.
struct FloatRows {
  static constexpr int kMaxPixels = 258;
  alignas(32) float pixel[2][kMaxPixels][4];
  long long start[2] = {-1, -1};  // linear index of the first pixel held, -1: none
};

struct Plan {
  const uint8_t* background = nullptr;  // whole 240 x 240 RGB frame, or null: black
  const uint8_t* iris = nullptr;        // null: no iris pixel on the panel
  size_t irisPixels = 0;                // whole 4-byte pixels in the iris frame
  int irisW = 0, irisH = 0;
  bool unscaled = false;
  bool hugeIris = false;  // 16-bit sample positions could wrap
  float ratioX = 0, ratioY = 0;
  long long left = 0, top = 0;
  int x0 = 0, x1 = 0;  // visible iris columns [x0, x1)
  int y0 = 0, y1 = 0;  // visible iris rows [y0, y1)
  Lid topLid, bottomLid;
};

inline constexpr uint8_t kBlackRow[kRowBytes] = {};

// The lid's RGBA source for panel row py: a row of its image, its fill colour (with
// `fill` set), or null when nothing is painted.
inline const uint8_t* topLidSource(const Lid& lid, int py, bool& fill) {
  fill = false;
  if (lid.line <= py + lid.height && lid.image != nullptr)
    return lid.image + static_cast<size_t>(py - lid.line + lid.height) * kLidStride;
  fill = true;
  return lid.colour;
}

inline const uint8_t* bottomLidSource(const Lid& lid, int py, bool& fill) {
  fill = false;
  if (py - lid.line < lid.height && lid.image != nullptr)
    return lid.image + static_cast<size_t>(py - lid.line) * kLidStride;
  fill = true;
  return lid.colour;
}

Plan makePlan(const Scene& scene);
// Where each visible column of a scaled iris samples it.
void prepareColumns(const Plan& plan, Columns& cols);

}  // namespace eyeframe
