// The composer's operations in plain C++: every CPU has them.
#pragma once

#include "../Rows.h"

namespace eyeframe {

struct PortableOps {
  static void pack(const uint8_t* in, uint8_t* out, bool /*lastRow*/) {
    for (int i = 0; i < kSize; i += 2, in += 6, out += 3) {
      out[0] = static_cast<uint8_t>(in[1] | (in[2] << 4));
      out[1] = static_cast<uint8_t>(in[5] | (in[0] << 4));
      out[2] = static_cast<uint8_t>(in[3] | (in[4] << 4));
    }
  }

  static void overRgba(uint8_t* dst, const uint8_t* src, int n, const AlphaWeights& w) {
    for (int i = 0; i < n; ++i) overPixel(dst + 3 * i, src + 4 * i, w);
  }

  static void sample(uint8_t* out, const uint8_t* base, size_t stride, const Columns& cols, int j0,
                     int j1, float dy, FloatRows& /*rows*/, long long /*startA*/) {
    const float ndy = 1.0f - dy;
    for (int j = j0; j < j1; ++j) {
      const uint8_t* a = base + cols.offset[j];
      const uint8_t* c = a + stride;
      const float ndx = cols.weight[j][0];
      const float dx = cols.weight[j][4];
      for (int k = 0; k < 4; ++k) {
        const float value =
            static_cast<float>(a[k]) * ndx * ndy + static_cast<float>(a[k + 4]) * dx * ndy +
            static_cast<float>(c[k]) * ndx * dy + static_cast<float>(c[k + 4]) * dx * dy;
        out[4 * j + k] = static_cast<uint8_t>(value);
      }
    }
  }

  // First and one past the last pixel of [p, p + n) that is not all zero bytes.
  static void nonZero(const uint8_t* p, int n, int& first, int& end) {
    first = 0;
    while (first < n && zeroPixel(p + 4 * first)) ++first;
    end = n;
    while (end > first && zeroPixel(p + 4 * (end - 1))) --end;
  }
};

}  // namespace eyeframe
