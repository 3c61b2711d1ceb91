// Row-by-row composer. Each panel row is sorted once into what it needs: a row that
// shows only the background is packed straight from the background image; any other
// row is built in a small RGB row buffer (background copy, the iris span, the lid
// rows) and then packed. The colour arithmetic is the per-pixel rules' own, operation
// for operation in single precision, so every byte matches them:
// - bilinear: ((A*(1-dx))*(1-dy) + (B*dx)*(1-dy)) + (C*(1-dx))*dy + (D*dx)*dy, the four
//   channels of one pixel side by side in a vector, never a reordered sum;
// - blend: only alpha 1..249 needs arithmetic; above 249 is a copy, 0 keeps the pixel.
//
// The row code every instruction set shares, written over the set's operations (Ops:
// pack, overRgba, sample, nonZero, toFloats); each ops/ file instantiates it.
#pragma once

#include <algorithm>
#include <cstring>

#include "Plan.h"

namespace eyeframe {

// Blends one RGBA pixel over an RGB pixel: the blend rule, channel by channel.
inline void blendPixel(uint8_t* dst, const uint8_t* src, float a, float na) {
  for (int c = 0; c < 3; ++c)
    dst[c] = static_cast<uint8_t>(static_cast<float>(src[c]) * a + static_cast<float>(dst[c]) * na +
                                  0.5f);
}

inline void overPixel(uint8_t* dst, const uint8_t* src, const AlphaWeights& w) {
  const uint8_t alpha = src[3];
  if (alpha > kOpaqueAlpha) {
    dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
  } else if (alpha != 0) {  // alpha 0 leaves the pixel exactly as it is
    blendPixel(dst, src, w.a[alpha], w.na[alpha]);
  }
}

// A fill colour over a whole row.
inline void overColour(uint8_t* row, const uint8_t* colour, const AlphaWeights& w) {
  const uint8_t alpha = colour[3];
  if (alpha == 0) return;
  if (alpha > kOpaqueAlpha) {
    // 16 pixels of the colour, then whole copies of them: a few wide stores a row.
    uint8_t pattern[48];
    for (int x = 0; x < 16; ++x)
      pattern[3 * x] = colour[0], pattern[3 * x + 1] = colour[1], pattern[3 * x + 2] = colour[2];
    for (size_t at = 0; at < kRowBytes; at += sizeof pattern)
      std::memcpy(row + at, pattern, sizeof pattern);
    return;
  }
  for (int x = 0; x < kSize; ++x, row += 3) blendPixel(row, colour, w.a[alpha], w.na[alpha]);
}

inline bool zeroPixel(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v == 0;
}

// The float row holding pixels from `start`, converting it unless held already;
// `keep` is the row the caller needs alongside, which must not be replaced.
template <class Ops>
const float (*floatRow(FloatRows& rows, const uint8_t* pixels, long long start, int count,
                       long long keep))[4] {
  for (int k = 0; k < 2; ++k)
    if (rows.start[k] == start) return rows.pixel[k];
  const int slot = rows.start[0] == keep ? 1 : 0;
  Ops::toFloats(rows.pixel[slot], pixels, start, count);
  rows.start[slot] = start;
  return rows.pixel[slot];
}

// Float copies of the iris rows of neighbours A (from linear pixel `startA`) and C
// below; false when the sampled span is too wide to hold.
template <class Ops>
bool heldRows(FloatRows& rows, const uint8_t* base, size_t stride, const Columns& cols,
              long long startA, const float (*&rowA)[4], const float (*&rowC)[4]) {
  const int count = cols.ixMax - cols.ixMin + 2;
  if (count > FloatRows::kMaxPixels) return false;
  const uint8_t* pixels = base - startA * 4 + static_cast<long long>(cols.ixMin) * 4;
  const long long startC = startA + static_cast<long long>(stride / 4);
  rowA = floatRow<Ops>(rows, pixels, startA, count, startC);
  rowC = floatRow<Ops>(rows, pixels, startC, count, startA);
  return true;
}

// ---- The frame, row by row ----------------------------------------------------------

template <class Ops>
void scaledIrisRow(const Plan& plan, const Columns& cols, FloatRows& rows, int py, uint8_t* row,
                   uint8_t* samples, const AlphaWeights& w) {
  const int n = plan.x1 - plan.x0;
  const short irisRow = static_cast<short>((py - plan.top) & 255);
  const float fy = static_cast<float>(irisRow) * plan.ratioY;
  const short iy = static_cast<short>(truncateToInt(fy));
  const float dy = fy - static_cast<float>(iy);
  const long long width = plan.irisW;
  const long long lastNeeded = (static_cast<long long>(iy) + 1) * width + cols.ixMax + 1;
  if (plan.hugeIris || iy < 0 || cols.ixMin < 0 ||
      lastNeeded >= static_cast<long long>(plan.irisPixels)) {
    const int firstCol = static_cast<int>((plan.x0 - plan.left) & 255);
    for (int j = 0; j < n; ++j)
      samplePinned(samples + 4 * j, plan.iris, plan.irisPixels, plan.ratioX, plan.ratioY,
                   static_cast<short>((firstCol + j) & 255), irisRow, plan.irisW);
    Ops::overRgba(row + plan.x0 * 3, samples, n, w);
    return;
  }

  const uint8_t* base = plan.iris + static_cast<size_t>(iy) * width * 4;
  const size_t stride = static_cast<size_t>(width) * 4;
  int j0 = 0, j1 = n;
  if (cols.monotonic) {
    // Samples whose four neighbours are all zero bytes are zero: alpha 0, nothing drawn.
    const int span = cols.ixMax - cols.ixMin + 2;
    int f0, e0, f1, e1;
    Ops::nonZero(base + cols.ixMin * 4, span, f0, e0);
    Ops::nonZero(base + stride + cols.ixMin * 4, span, f1, e1);
    if (f0 >= e0 && f1 >= e1) return;
    const int first = cols.ixMin + std::min(f0 >= e0 ? span : f0, f1 >= e1 ? span : f1);
    const int last = cols.ixMin + std::max(f0 >= e0 ? -1 : e0 - 1, f1 >= e1 ? -1 : e1 - 1);
    // Columns sample left to right here, so both ends are found by bisection.
    const int32_t* offsets = cols.offset;
    j0 = static_cast<int>(std::lower_bound(offsets, offsets + n, (first - 1) * 4) - offsets);
    j1 = static_cast<int>(std::upper_bound(offsets + j0, offsets + n, last * 4) - offsets);
  }
  Ops::sample(samples, base, stride, cols, j0, j1, dy, rows,
              static_cast<long long>(iy) * width + cols.ixMin);
  Ops::overRgba(row + (plan.x0 + j0) * 3, samples + 4 * j0, j1 - j0, w);
}

template <class Ops>
void paintLid(const Lid& lid, bool top, int py, uint8_t* row, const AlphaWeights& w) {
  bool fill = false;
  const uint8_t* source = top ? topLidSource(lid, py, fill) : bottomLidSource(lid, py, fill);
  if (source == nullptr) return;
  if (fill)
    overColour(row, source, w);
  else
    Ops::overRgba(row, source, kSize, w);
}

template <class Ops>
void composeRows(const Plan& plan, uint8_t* out) {
  const AlphaWeights& w = alphaWeights();
  alignas(32) Columns cols;
  alignas(32) FloatRows rows;
  if (plan.iris != nullptr && !plan.unscaled) prepareColumns(plan, cols);
  // Room for the wide stores that spill a few bytes past the last pixel.
  alignas(32) uint8_t row[kRowBytes + 32];
  alignas(32) uint8_t samples[kSize * 4 + 32];

  for (int py = 0; py < kSize; ++py) {
    const uint8_t* background = plan.background != nullptr
                                    ? plan.background + static_cast<size_t>(py) * kRowBytes
                                    : kBlackRow;
    const bool irisRow = plan.iris != nullptr && py >= plan.y0 && py < plan.y1;
    const bool topRow = plan.topLid.on && py < plan.topLid.line;
    const bool bottomRow = plan.bottomLid.on && py >= plan.bottomLid.line;
    uint8_t* packed = out + static_cast<size_t>(py) * kPackedRowBytes;
    if (!irisRow && !topRow && !bottomRow) {
      Ops::pack(background, packed, py == kSize - 1);
      continue;
    }
    std::memcpy(row, background, kRowBytes);
    if (irisRow) {
      if (plan.unscaled) {
        // A copy-and-blend of the image row; the 8-bit column counter restarts the
        // image row after 256 pixels.
        const size_t irisRowOffset =
            static_cast<size_t>((py - plan.top) & 255) * static_cast<size_t>(plan.irisW) * 4;
        int px = plan.x0;
        int col = static_cast<int>((plan.x0 - plan.left) & 255);
        while (px < plan.x1) {
          const int run = std::min(plan.x1 - px, 256 - col);
          Ops::overRgba(row + px * 3, plan.iris + irisRowOffset + static_cast<size_t>(col) * 4, run,
                        w);
          px += run;
          col = 0;
        }
      } else {
        scaledIrisRow<Ops>(plan, cols, rows, py, row, samples, w);
      }
    }
    if (topRow) paintLid<Ops>(plan.topLid, true, py, row, w);
    if (bottomRow) paintLid<Ops>(plan.bottomLid, false, py, row, w);
    Ops::pack(row, packed, py == kSize - 1);
  }
}

}  // namespace eyeframe
