// The frame composer written the straightforward way: every pixel of the panel in
// order, through the public per-pixel methods of Eyes. Tests hold the library's fast
// composer to it byte for byte; the composer benchmark measures it as "literal".
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "Eyes.h"
#include "VContent.h"

namespace eyetest {

// The frame shown now, or null when the image has none to show.
inline const std::vector<uint8_t>* referenceFrame(const VContent* image) {
  if (image == nullptr || image->frameIndex >= image->frames.size()) return nullptr;
  return &image->frames[image->frameIndex];
}

// A float truncated toward zero, saturating at the ends of int; NaN gives 0.
inline int referenceTruncate(float value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483520.0f) return std::numeric_limits<int>::max();
  if (value <= -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Composes the frame `eye.set_Frame_12Bit(scaleX, scaleY, x, y, topLidY, bottomLidY)`
// shows into `out` (Eyes::kFrameBytes bytes). Changes nothing in the eye and writes
// nothing to the panel.
inline void referenceCompose(Eyes& eye, float scaleX, float scaleY, int x, int y, short topLidY,
                             short bottomLidY, uint8_t* out) {
  constexpr int kSize = Eyes::kSize;

  const long long centreX = eye.isLeft ? static_cast<long long>(x) - eye.offsetX
                                       : static_cast<long long>(x) + eye.offsetX;
  const long long centreY = static_cast<long long>(y) + eye.offsetY;

  const std::vector<uint8_t>* irisFrame = referenceFrame(eye.iris);
  const int irisW = eye.iris != nullptr ? eye.iris->width : 0;
  const int irisH = eye.iris != nullptr ? eye.iris->height : 0;
  const int scaledW = referenceTruncate(static_cast<float>(irisW) * scaleX);
  const int scaledH = referenceTruncate(static_cast<float>(irisH) * scaleY);
  const bool irisShown = irisFrame != nullptr && irisW > 0 && irisH > 0 && scaledW > 0 &&
                         scaledH > 0 && irisFrame->size() >= static_cast<size_t>(irisW) * irisH * 4;
  const float ratioX = irisShown ? static_cast<float>(irisW - 1) / static_cast<float>(scaledW) : 0;
  const float ratioY = irisShown ? static_cast<float>(irisH - 1) / static_cast<float>(scaledH) : 0;
  const bool unscaled = irisW == scaledW && irisH == scaledH;
  const long long left = centreX - scaledW / 2, right = left + scaledW;
  const long long top = centreY - scaledH / 2, bottom = top + scaledH;

  // Bilinear neighbours past the end of the frame carry weight 0; a zero-padded copy
  // keeps setResizedPixel's reads inside memory without changing a result.
  std::vector<uint8_t> padded;
  if (irisShown && !unscaled) {
    padded.assign(irisFrame->begin(), irisFrame->end());
    padded.resize(padded.size() + (static_cast<size_t>(irisW) + 2) * 4, 0);
  }
  const uint8_t* irisPixels = !irisShown ? nullptr : unscaled ? irisFrame->data() : padded.data();

  const std::vector<uint8_t>* backgroundFrame = referenceFrame(eye.background);
  if (backgroundFrame != nullptr &&
      backgroundFrame->size() < static_cast<size_t>(kSize) * kSize * 3)
    backgroundFrame = nullptr;

  uint8_t row = top < 0 ? static_cast<uint8_t>(-top) : 0;
  const uint8_t firstCol = left < 0 ? static_cast<uint8_t>(-left) : 0;
  bool irisRowsStarted = false, half = true;
  size_t pos = 0;

  for (int py = 0; py < kSize; ++py) {
    uint8_t col = firstCol;
    const bool irisRow = irisShown && top <= py && py < bottom;
    for (int px = 0; px < kSize; ++px) {
      unsigned char bg[3] = {0, 0, 0};  // black without a background
      if (backgroundFrame != nullptr)
        std::memcpy(bg, backgroundFrame->data() + (static_cast<size_t>(py) * kSize + px) * 3, 3);
      unsigned char pixel[4];
      if (irisRow && left <= px && px < right) {
        if (unscaled)
          std::memcpy(
              pixel,
              irisPixels + (static_cast<size_t>(col) + static_cast<size_t>(row) * scaledW) * 4, 4);
        else
          Eyes::setResizedPixel(pixel, irisPixels, ratioX, ratioY, col, row, irisW);
        Eyes::removeAlpha_AddBackground(pixel, bg);
        ++col;
        irisRowsStarted = true;
      } else {
        std::memcpy(pixel, bg, 3);
        pixel[3] = 255;
      }
      if (topLidY >= 1 && py < topLidY)
        eye.lid_top_Paint(pixel, topLidY, static_cast<unsigned char>(px),
                          static_cast<unsigned char>(py));
      if (bottomLidY <= kSize - 1 && py >= bottomLidY)
        eye.lid_bottom_Paint(pixel, bottomLidY, static_cast<unsigned char>(px),
                             static_cast<unsigned char>(py));
      pos += Eyes::set12bit_pixel(half, pixel[0], pixel[1], pixel[2], out[pos], out[pos + 1]);
    }
    if (irisRowsStarted) ++row;
  }
}

}  // namespace eyetest
