// Row-by-row composer. Each panel row is sorted once into what it needs: a row that
// shows only the background is packed straight from the background image; any other
// row is built in a small RGB row buffer (background copy, the iris span, the lid
// rows) and then packed. The colour arithmetic is the per-pixel rules' own, operation
// for operation in single precision, so every byte matches them:
// - bilinear: ((A*(1-dx))*(1-dy) + (B*dx)*(1-dy)) + (C*(1-dx))*dy + (D*dx)*dy, the four
//   channels of one pixel side by side in a vector, never a reordered sum;
// - blend: only alpha 1..249 needs arithmetic; above 249 is a copy, 0 keeps the pixel.
#include "FrameComposer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

#include "Eyes.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define EYE_COMPOSER_AVX2 1
#include <immintrin.h>
#endif
#if defined(__aarch64__) && defined(__ARM_NEON)
#define EYE_COMPOSER_NEON 1
#include <arm_neon.h>
#endif

namespace eyeframe {

int truncateToInt(float value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483520.0f) return std::numeric_limits<int>::max();
  if (value <= -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Bilinear sample with neighbours pinned inside the frame, for the rare rows whose
// neighbours reach past it (such neighbours always carry weight 0).
void samplePinned(uint8_t* out, const uint8_t* src, size_t pixels, float ratioX, float ratioY,
                  short col, short row, int width) {
  const float fx = static_cast<float>(col) * ratioX;
  const float fy = static_cast<float>(row) * ratioY;
  const short ix = static_cast<short>(truncateToInt(fx));
  const short iy = static_cast<short>(truncateToInt(fy));
  const float dx = fx - static_cast<float>(ix);
  const float dy = fy - static_cast<float>(iy);
  const long long last = static_cast<long long>(pixels) - 1;
  auto at = [&](long long px, long long py) {
    long long index = py * width + px;
    if (index > last) index = last;
    if (index < 0) index = 0;
    return src + index * 4;
  };
  const uint8_t* a = at(ix, iy);
  const uint8_t* b = at(ix + 1, iy);
  const uint8_t* c = at(ix, iy + 1);
  const uint8_t* d = at(ix + 1, iy + 1);
  const float ndx = 1.0f - dx;
  const float ndy = 1.0f - dy;
  for (int k = 0; k < 4; ++k) {
    const float value = static_cast<float>(a[k]) * ndx * ndy + static_cast<float>(b[k]) * dx * ndy +
                        static_cast<float>(c[k]) * ndx * dy + static_cast<float>(d[k]) * dx * dy;
    out[k] = static_cast<uint8_t>(value);
  }
}

namespace {

constexpr int kSize = Eyes::kSize;
constexpr size_t kRowBytes = kSize * 3;            // one RGB row
constexpr size_t kPackedRowBytes = kSize * 3 / 2;  // one 12-bit row
constexpr size_t kBackgroundBytes = kRowBytes * kSize;
constexpr size_t kLidStride = kSize * 4;  // lid rows are 240 RGBA pixels
constexpr int kShortMax = std::numeric_limits<short>::max();

const std::vector<uint8_t>* currentFrame(const VContent* image) {
  if (image == nullptr || image->frameIndex >= image->frames.size()) return nullptr;
  return &image->frames[image->frameIndex];
}

// The blend weights, worked out as the blend rule does: in double, then used as float.
struct AlphaWeights {
  float a[256];
  float na[256];
};

const AlphaWeights& alphaWeights() {
  static const AlphaWeights weights = [] {
    AlphaWeights w{};
    for (int k = 0; k < 256; ++k) {
      w.a[k] = static_cast<float>(k / 255.0);
      w.na[k] = 1.0f - w.a[k];
    }
    return w;
  }();
  return weights;
}

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

const uint8_t kBlackRow[kRowBytes] = {};

// The lid's RGBA source for panel row py: a row of its image, its fill colour (with
// `fill` set), or null when nothing is painted.
const uint8_t* topLidSource(const Lid& lid, int py, bool& fill) {
  fill = false;
  if (lid.line <= py + lid.height && lid.image != nullptr)
    return lid.image + static_cast<size_t>(py - lid.line + lid.height) * kLidStride;
  fill = true;
  return lid.colour;
}

const uint8_t* bottomLidSource(const Lid& lid, int py, bool& fill) {
  fill = false;
  if (py - lid.line < lid.height && lid.image != nullptr)
    return lid.image + static_cast<size_t>(py - lid.line) * kLidStride;
  fill = true;
  return lid.colour;
}

// ---- Operations shared by every instruction set -------------------------------------

// Blends one RGBA pixel over an RGB pixel: the blend rule, channel by channel.
inline void blendPixel(uint8_t* dst, const uint8_t* src, float a, float na) {
  for (int c = 0; c < 3; ++c)
    dst[c] = static_cast<uint8_t>(static_cast<float>(src[c]) * a + static_cast<float>(dst[c]) * na +
                                  0.5f);
}

inline void overPixel(uint8_t* dst, const uint8_t* src, const AlphaWeights& w) {
  const uint8_t alpha = src[3];
  if (alpha > Eyes::kOpaqueAlpha) {
    dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
  } else if (alpha != 0) {  // alpha 0 leaves the pixel exactly as it is
    blendPixel(dst, src, w.a[alpha], w.na[alpha]);
  }
}

// A fill colour over a whole row.
inline void overColour(uint8_t* row, const uint8_t* colour, const AlphaWeights& w) {
  const uint8_t alpha = colour[3];
  if (alpha == 0) return;
  if (alpha > Eyes::kOpaqueAlpha) {
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

// ---- Portable operations ------------------------------------------------------------

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

// ---- AVX2 operations ------------------------------------------------------------------

#ifdef EYE_COMPOSER_AVX2
#define EYE_AVX2 __attribute__((target("avx2")))

struct Avx2Ops {
  // 16 pixels (48 bytes) at a time: each 128-bit lane packs 4 pairs into 12 bytes.
  EYE_AVX2 static void pack(const uint8_t* in, uint8_t* out, bool lastRow) {
    const __m256i loX =
        _mm256_setr_epi8(1, 5, 3, 7, 11, 9, 13, -128, 15, -128, -128, -128, -128, -128, -128, -128,
                         1, 5, 3, 7, 11, 9, 13, -128, 15, -128, -128, -128, -128, -128, -128, -128);
    const __m256i loY = _mm256_setr_epi8(-128, -128, -128, -128, -128, -128, -128, 9, -128, 11, 15,
                                         13, -128, -128, -128, -128, -128, -128, -128, -128, -128,
                                         -128, -128, 9, -128, 11, 15, 13, -128, -128, -128, -128);
    const __m256i hiX =
        _mm256_setr_epi8(2, 0, 4, 8, 6, 10, 14, 12, -128, -128, -128, -128, -128, -128, -128, -128,
                         2, 0, 4, 8, 6, 10, 14, 12, -128, -128, -128, -128, -128, -128, -128, -128);
    const __m256i hiY = _mm256_setr_epi8(-128, -128, -128, -128, -128, -128, -128, -128, 8, 12, 10,
                                         14, -128, -128, -128, -128, -128, -128, -128, -128, -128,
                                         -128, -128, -128, 8, 12, 10, 14, -128, -128, -128, -128);
    const __m256i low = _mm256_set1_epi8(0x0F);
    for (int i = 0; i < kSize; i += 16, in += 48, out += 24) {
      const __m256i x = _mm256_inserti128_si256(
          _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in))),
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 24)), 1);
      const __m256i y = _mm256_inserti128_si256(
          _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 8))),
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 32)), 1);
      const __m256i lo = _mm256_or_si256(_mm256_shuffle_epi8(x, loX), _mm256_shuffle_epi8(y, loY));
      const __m256i hi = _mm256_or_si256(_mm256_shuffle_epi8(x, hiX), _mm256_shuffle_epi8(y, hiY));
      const __m256i v = _mm256_or_si256(lo, _mm256_slli_epi16(_mm256_and_si256(hi, low), 4));
      const __m128i second = _mm256_extracti128_si256(v, 1);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(v));
      if (lastRow && i + 16 == kSize) {  // the frame's last bytes: nothing may spill past
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 12), second);
        const uint32_t tail = static_cast<uint32_t>(_mm_extract_epi32(second, 2));
        std::memcpy(out + 20, &tail, 4);
      } else {
        // Its four spare bytes land on the next group, which overwrites them.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 12), second);
      }
    }
  }

  // One pixel over another, the three channels (and a spare) side by side.
  EYE_AVX2 static void overPixel(uint8_t* dst, const uint8_t* src, const AlphaWeights& w) {
    const uint8_t alpha = src[3];
    if (alpha > Eyes::kOpaqueAlpha) {
      dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
      return;
    }
    if (alpha == 0) return;
    uint32_t fg, old;
    std::memcpy(&fg, src, 4);
    std::memcpy(&old, dst, 4);  // its fourth byte is the next pixel's, written back as it was
    const __m128 f = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(static_cast<int>(fg))));
    const __m128 b = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(static_cast<int>(old))));
    const __m128 sum = _mm_add_ps(
        _mm_add_ps(_mm_mul_ps(f, _mm_set1_ps(w.a[alpha])), _mm_mul_ps(b, _mm_set1_ps(w.na[alpha]))),
        _mm_set1_ps(0.5f));
    const __m128i narrow = _mm_setr_epi8(0, 4, 8, -128, -128, -128, -128, -128, -128, -128, -128,
                                         -128, -128, -128, -128, -128);
    const uint32_t rgb =
        static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi8(_mm_cvttps_epi32(sum), narrow)));
    const uint32_t result = rgb | (old & 0xFF000000u);
    std::memcpy(dst, &result, 4);
  }

  // 8 pixels at a time; groups that are all opaque or all clear take no arithmetic.
  EYE_AVX2 static void overRgba(uint8_t* dst, const uint8_t* src, int n, const AlphaWeights& w) {
    const __m256i alphaLanes = _mm256_set1_epi32(static_cast<int>(0xFF000000u));
    const __m256i opaqueFrom = _mm256_set1_epi8(static_cast<char>(Eyes::kOpaqueAlpha + 1));
    const __m256i toRgb =
        _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -128, -128, -128, -128, 0, 1, 2, 4,
                         5, 6, 8, 9, 10, 12, 13, 14, -128, -128, -128, -128);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * i));
      uint8_t* d = dst + 3 * i;
      if (_mm256_testz_si256(_mm256_subs_epu8(opaqueFrom, v), alphaLanes)) {
        const __m256i rgb = _mm256_shuffle_epi8(v, toRgb);
        const __m128i second = _mm256_extracti128_si256(rgb, 1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(rgb));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 12), second);
        const uint32_t tail = static_cast<uint32_t>(_mm_extract_epi32(second, 2));
        std::memcpy(d + 20, &tail, 4);
        continue;
      }
      if (_mm256_testz_si256(v, alphaLanes)) continue;
      for (int k = 0; k < 8; ++k) Avx2Ops::overPixel(d + 3 * k, src + 4 * (i + k), w);
    }
    for (; i < n; ++i) Avx2Ops::overPixel(dst + 3 * i, src + 4 * i, w);
  }

  // Pixels [start, start + count) of the iris as floats, four channels each.
  EYE_AVX2 static void toFloats(float (*out)[4], const uint8_t* pixels, long long start,
                                int count) {
    const uint8_t* p = pixels + start * 4;
    int k = 0;
    for (; k + 2 <= count; k += 2)
      _mm256_store_ps(out[k], _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(
                                  _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 4 * k)))));
    if (k < count) {
      uint32_t last;
      std::memcpy(&last, p + 4 * k, 4);
      _mm_store_ps(out[k],
                   _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(static_cast<int>(last)))));
    }
  }

  EYE_AVX2 static void sample(uint8_t* out, const uint8_t* base, size_t stride, const Columns& cols,
                              int j0, int j1, float dy, FloatRows& rows, long long startA) {
    const __m256 ndy = _mm256_set1_ps(1.0f - dy);
    const __m256 vdy = _mm256_set1_ps(dy);
    const float(*rowA)[4] = nullptr;
    const float(*rowC)[4] = nullptr;
    if (heldRows<Avx2Ops>(rows, base, stride, cols, startA, rowA, rowC))
      sampleLoop<true>(out, base, stride, cols, j0, j1, ndy, vdy, rowA, rowC);
    else
      sampleLoop<false>(out, base, stride, cols, j0, j1, ndy, vdy, rowA, rowC);
  }

  template <bool kFloatRows>
  EYE_AVX2 static void sampleLoop(uint8_t* out, const uint8_t* base, size_t stride,
                                  const Columns& cols, int j0, int j1, __m256 ndy, __m256 vdy,
                                  const float (*rowA)[4], const float (*rowC)[4]) {
    // Neighbours A and B (or C and D) of one sample, each channel weighted by its
    // column and then by its row: (A*(1-dx))*(1-dy) in the low half, (B*dx)*(1-dy) high.
    const float* weights = cols.weight[j0];
    const int32_t* offsets = (kFloatRows ? cols.rowByte : cols.offset) + j0;
    const uint8_t* rowABytes = reinterpret_cast<const uint8_t*>(rowA);
    const uint8_t* rowCBytes = reinterpret_cast<const uint8_t*>(rowC);
    auto weighted = [&](int k, __m256& top, __m256& bottom) EYE_AVX2 {
      const __m256 weight = _mm256_load_ps(weights + 8 * k);
      __m256 ab, cd;
      if (kFloatRows) {
        ab = _mm256_loadu_ps(reinterpret_cast<const float*>(rowABytes + offsets[k]));
        cd = _mm256_loadu_ps(reinterpret_cast<const float*>(rowCBytes + offsets[k]));
      } else {
        const uint8_t* a = base + offsets[k];
        ab = _mm256_cvtepi32_ps(
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a))));
        cd = _mm256_cvtepi32_ps(
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a + stride))));
      }
      top = _mm256_mul_ps(_mm256_mul_ps(ab, weight), ndy);
      bottom = _mm256_mul_ps(_mm256_mul_ps(cd, weight), vdy);
    };
    const __m256i narrow = _mm256_setr_epi8(
        0, 4, 8, 12, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, 0, 4,
        8, 12, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128);
    const __m256i gather = _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0);
    int j = j0;
    uint8_t* o = out + 4 * j0;
    for (; j + 2 <= j1; j += 2, weights += 16, offsets += 2, o += 8) {
      // Two samples side by side, one per 128-bit lane; the sum stays in rule order.
      __m256 top0, bottom0, top1, bottom1;
      weighted(0, top0, bottom0);
      weighted(1, top1, bottom1);
      __m256 sum = _mm256_add_ps(_mm256_permute2f128_ps(top0, top1, 0x20),
                                 _mm256_permute2f128_ps(top0, top1, 0x31));
      sum = _mm256_add_ps(sum, _mm256_permute2f128_ps(bottom0, bottom1, 0x20));
      sum = _mm256_add_ps(sum, _mm256_permute2f128_ps(bottom0, bottom1, 0x31));
      const __m256i bytes = _mm256_permutevar8x32_epi32(
          _mm256_shuffle_epi8(_mm256_cvttps_epi32(sum), narrow), gather);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(bytes));
    }
    if (j < j1) {
      __m256 top, bottom;
      weighted(0, top, bottom);
      __m128 sum = _mm_add_ps(_mm256_castps256_ps128(top), _mm256_extractf128_ps(top, 1));
      sum = _mm_add_ps(sum, _mm256_castps256_ps128(bottom));
      sum = _mm_add_ps(sum, _mm256_extractf128_ps(bottom, 1));
      const uint32_t bytes = static_cast<uint32_t>(_mm_cvtsi128_si32(
          _mm_shuffle_epi8(_mm_cvttps_epi32(sum), _mm256_castsi256_si128(narrow))));
      std::memcpy(o, &bytes, 4);
    }
  }

  EYE_AVX2 static void nonZero(const uint8_t* p, int n, int& first, int& end) {
    // Bit k of the mask: pixel k of the eight at q is not all zero bytes.
    auto mask = [](const uint8_t* q) EYE_AVX2 {
      const __m256i zero = _mm256_cmpeq_epi32(
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q)), _mm256_setzero_si256());
      return ~static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(zero))) & 0xFFu;
    };
    first = 0;
    for (; first + 8 <= n; first += 8)
      if (const unsigned m = mask(p + 4 * first)) {
        first += __builtin_ctz(m);
        break;
      }
    while (first < n && zeroPixel(p + 4 * first)) ++first;
    end = n;
    for (; end - 8 >= first; end -= 8)
      if (const unsigned m = mask(p + 4 * (end - 8))) {
        end -= __builtin_clz(m) - 24;
        break;
      }
    while (end > first && zeroPixel(p + 4 * (end - 1))) --end;
  }
};
#endif

// ---- NEON operations ----------------------------------------------------------------

#ifdef EYE_COMPOSER_NEON
struct NeonOps {
  // Two pixels P, Q into three bytes: P.g | P.b << 4, Q.b | P.r << 4, Q.r | Q.g << 4;
  // 32 pixels at a time with de-interleaving loads and stores, then the last 16.
  static void pack(const uint8_t* in, uint8_t* out, bool /*lastRow*/) {
    int i = 0;
    for (; i + 32 <= kSize; i += 32, in += 96, out += 48) {
      const uint8x16x3_t lo = vld3q_u8(in), hi = vld3q_u8(in + 48);
      const uint8x16_t pr = vuzp1q_u8(lo.val[0], hi.val[0]), qr = vuzp2q_u8(lo.val[0], hi.val[0]);
      const uint8x16_t pg = vuzp1q_u8(lo.val[1], hi.val[1]), qg = vuzp2q_u8(lo.val[1], hi.val[1]);
      const uint8x16_t pb = vuzp1q_u8(lo.val[2], hi.val[2]), qb = vuzp2q_u8(lo.val[2], hi.val[2]);
      uint8x16x3_t packed;
      packed.val[0] = vorrq_u8(pg, vshlq_n_u8(pb, 4));
      packed.val[1] = vorrq_u8(qb, vshlq_n_u8(pr, 4));
      packed.val[2] = vorrq_u8(qr, vshlq_n_u8(qg, 4));
      vst3q_u8(out, packed);
    }
    for (; i + 16 <= kSize; i += 16, in += 48, out += 24) {
      const uint8x8x3_t lo = vld3_u8(in), hi = vld3_u8(in + 24);
      const uint8x8_t pr = vuzp1_u8(lo.val[0], hi.val[0]), qr = vuzp2_u8(lo.val[0], hi.val[0]);
      const uint8x8_t pg = vuzp1_u8(lo.val[1], hi.val[1]), qg = vuzp2_u8(lo.val[1], hi.val[1]);
      const uint8x8_t pb = vuzp1_u8(lo.val[2], hi.val[2]), qb = vuzp2_u8(lo.val[2], hi.val[2]);
      uint8x8x3_t packed;
      packed.val[0] = vorr_u8(pg, vshl_n_u8(pb, 4));
      packed.val[1] = vorr_u8(qb, vshl_n_u8(pr, 4));
      packed.val[2] = vorr_u8(qr, vshl_n_u8(qg, 4));
      vst3_u8(out, packed);
    }
  }

  // One translucent pixel over another, the three channels (and a spare) side by side.
  static void blendLane(uint8_t* dst, const uint8_t* src, const AlphaWeights& w) {
    const uint8_t alpha = src[3];
    uint32_t old;
    std::memcpy(&old, dst, 4);  // its fourth byte is the next pixel's, written back as it was
    const float32x4_t sum = vaddq_f32(vaddq_f32(vmulq_n_f32(pixelFloats(src), w.a[alpha]),
                                                vmulq_n_f32(pixelFloats(dst), w.na[alpha])),
                                      vdupq_n_f32(0.5f));
    const uint16x4_t narrow = vmovn_u32(vcvtq_u32_f32(sum));
    const uint32_t rgb =
        vget_lane_u32(vreinterpret_u32_u8(vmovn_u16(vcombine_u16(narrow, narrow))), 0);
    const uint32_t result = (rgb & 0x00FFFFFFu) | (old & 0xFF000000u);
    std::memcpy(dst, &result, 4);
  }

  // 16, then 8 pixels at a time; groups that are all opaque or all clear take no
  // arithmetic; in the others the opaque pixels are selected side by side and only the
  // translucent ones are blended, one by one.
  static void overRgba(uint8_t* dst, const uint8_t* src, int n, const AlphaWeights& w) {
    const uint8x16_t opaqueFrom = vdupq_n_u8(Eyes::kOpaqueAlpha + 1);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
      const uint8x16x4_t v = vld4q_u8(src + 4 * i);
      const uint8x16_t alpha = v.val[3];
      uint8_t* d = dst + 3 * i;
      if (vminvq_u8(alpha) > Eyes::kOpaqueAlpha) {
        vst3q_u8(d, uint8x16x3_t{{v.val[0], v.val[1], v.val[2]}});
        continue;
      }
      if (vmaxvq_u8(alpha) == 0) continue;
      const uint8x16_t opaque = vcgeq_u8(alpha, opaqueFrom);
      uint8x16x3_t rgb = vld3q_u8(d);
      for (int c = 0; c < 3; ++c) rgb.val[c] = vbslq_u8(opaque, v.val[c], rgb.val[c]);
      vst3q_u8(d, rgb);
      // Four bits per pixel that is neither opaque nor clear.
      const uint8x16_t translucent = vbicq_u8(vtstq_u8(alpha, alpha), opaque);
      uint64_t lanes =
          vget_lane_u64(vreinterpret_u64_u8(vshrn_n_u16(vreinterpretq_u16_u8(translucent), 4)), 0);
      while (lanes != 0) {
        const int k = __builtin_ctzll(lanes) / 4;
        blendLane(d + 3 * k, src + 4 * (i + k), w);
        lanes &= ~(uint64_t{0xF} << (4 * k));
      }
    }
    if (i + 8 <= n) {
      const uint8x8x4_t v = vld4_u8(src + 4 * i);
      if (vminv_u8(v.val[3]) > Eyes::kOpaqueAlpha) {
        vst3_u8(dst + 3 * i, uint8x8x3_t{{v.val[0], v.val[1], v.val[2]}});
        i += 8;
      } else if (vmaxv_u8(v.val[3]) == 0) {
        i += 8;
      }
    }
    for (; i < n; ++i) overPixel(dst + 3 * i, src + 4 * i, w);
  }

  // Pixels [start, start + count) of the iris as floats, four channels each.
  static void toFloats(float (*out)[4], const uint8_t* pixels, long long start, int count) {
    const uint8_t* p = pixels + start * 4;
    int k = 0;
    for (; k + 4 <= count; k += 4) {
      const uint8x16_t bytes = vld1q_u8(p + 4 * k);
      const uint16x8_t lo = vmovl_u8(vget_low_u8(bytes)), hi = vmovl_high_u8(bytes);
      vst1q_f32(out[k], vcvtq_f32_u32(vmovl_u16(vget_low_u16(lo))));
      vst1q_f32(out[k + 1], vcvtq_f32_u32(vmovl_high_u16(lo)));
      vst1q_f32(out[k + 2], vcvtq_f32_u32(vmovl_u16(vget_low_u16(hi))));
      vst1q_f32(out[k + 3], vcvtq_f32_u32(vmovl_high_u16(hi)));
    }
    for (; k < count; ++k) vst1q_f32(out[k], pixelFloats(p + 4 * k));
  }

  static float32x4_t pixelFloats(const uint8_t* pixel) {
    uint32_t bytes;
    std::memcpy(&bytes, pixel, 4);
    const uint16x8_t wide = vmovl_u8(vcreate_u8(bytes));
    return vcvtq_f32_u32(vmovl_u16(vget_low_u16(wide)));
  }

  static void sample(uint8_t* out, const uint8_t* base, size_t stride, const Columns& cols, int j0,
                     int j1, float dy, FloatRows& rows, long long startA) {
    const float(*rowA)[4] = nullptr;
    const float(*rowC)[4] = nullptr;
    if (heldRows<NeonOps>(rows, base, stride, cols, startA, rowA, rowC))
      sampleLoop<true>(out, base, stride, cols, j0, j1, dy, rowA, rowC);
    else
      sampleLoop<false>(out, base, stride, cols, j0, j1, dy, rowA, rowC);
  }

  // Each sample's four channels side by side, the sum in rule order:
  // ((A*(1-dx))*(1-dy) + (B*dx)*(1-dy)) + (C*(1-dx))*dy + (D*dx)*dy. Separate multiplies
  // and adds (the build never contracts them into fused ones). Two samples a step.
  template <bool kFloatRows>
  static void sampleLoop(uint8_t* out, const uint8_t* base, size_t stride, const Columns& cols,
                         int j0, int j1, float dy, const float (*rowA)[4], const float (*rowC)[4]) {
    const float32x4_t ndy = vdupq_n_f32(1.0f - dy);
    const float32x4_t vdy = vdupq_n_f32(dy);
    const uint8_t* rowABytes = reinterpret_cast<const uint8_t*>(rowA);
    const uint8_t* rowCBytes = reinterpret_cast<const uint8_t*>(rowC);
    auto sampleAt = [&](const float* weight, int32_t at) {
      const float32x4_t ndx = vld1q_f32(weight), dx = vld1q_f32(weight + 4);
      float32x4_t a, b, c, d;
      if (kFloatRows) {
        const float32x4x2_t ab = vld1q_f32_x2(reinterpret_cast<const float*>(rowABytes + at));
        const float32x4x2_t cd = vld1q_f32_x2(reinterpret_cast<const float*>(rowCBytes + at));
        a = ab.val[0], b = ab.val[1], c = cd.val[0], d = cd.val[1];
      } else {
        const uint8_t* pa = base + at;
        a = pixelFloats(pa), b = pixelFloats(pa + 4);
        c = pixelFloats(pa + stride), d = pixelFloats(pa + stride + 4);
      }
      float32x4_t sum =
          vaddq_f32(vmulq_f32(vmulq_f32(a, ndx), ndy), vmulq_f32(vmulq_f32(b, dx), ndy));
      sum = vaddq_f32(sum, vmulq_f32(vmulq_f32(c, ndx), vdy));
      sum = vaddq_f32(sum, vmulq_f32(vmulq_f32(d, dx), vdy));
      return vmovn_u32(vcvtq_u32_f32(sum));  // truncation toward zero
    };
    const float* weight = cols.weight[j0];
    const int32_t* at = (kFloatRows ? cols.rowByte : cols.offset) + j0;
    uint8_t* o = out + 4 * j0;
    uint8_t* const end = out + 4 * j1;
    for (; o + 8 <= end; o += 8, weight += 16, at += 2)
      vst1_u8(o, vmovn_u16(vcombine_u16(sampleAt(weight, at[0]), sampleAt(weight + 8, at[1]))));
    if (o < end) {
      const uint16x4_t last = sampleAt(weight, at[0]);
      vst1_lane_u32(reinterpret_cast<uint32_t*>(o),
                    vreinterpret_u32_u8(vmovn_u16(vcombine_u16(last, last))), 0);
    }
  }

  // First and one past the last pixel of [p, p + n) that is not all zero bytes,
  // four pixels per step.
  static void nonZero(const uint8_t* p, int n, int& first, int& end) {
    auto any = [](const uint8_t* q) { return vmaxvq_u32(vreinterpretq_u32_u8(vld1q_u8(q))) != 0; };
    first = 0;
    while (first + 4 <= n && !any(p + 4 * first)) first += 4;
    while (first < n && zeroPixel(p + 4 * first)) ++first;
    end = n;
    while (end - 4 >= first && !any(p + 4 * (end - 4))) end -= 4;
    while (end > first && zeroPixel(p + 4 * (end - 1))) --end;
  }
};
#endif

// ---- The frame --------------------------------------------------------------------------

Plan makePlan(const Eyes& eye, float scaleX, float scaleY, long long centreX, long long centreY,
              short topLidY, short bottomLidY) {
  Plan plan;
  const std::vector<uint8_t>* backgroundFrame = currentFrame(eye.background);
  if (backgroundFrame != nullptr && backgroundFrame->size() >= kBackgroundBytes)
    plan.background = backgroundFrame->data();

  const std::vector<uint8_t>* irisFrame = currentFrame(eye.iris);
  const int irisW = eye.iris != nullptr ? eye.iris->width : 0;
  const int irisH = eye.iris != nullptr ? eye.iris->height : 0;
  const int scaledW = truncateToInt(static_cast<float>(irisW) * scaleX);
  const int scaledH = truncateToInt(static_cast<float>(irisH) * scaleY);
  const bool shown = irisFrame != nullptr && irisW > 0 && irisH > 0 && scaledW > 0 && scaledH > 0 &&
                     irisFrame->size() >= static_cast<size_t>(irisW) * irisH * 4;
  if (shown) {
    plan.left = centreX - scaledW / 2;
    plan.top = centreY - scaledH / 2;
    const long long right = plan.left + scaledW;
    const long long bottom = plan.top + scaledH;
    auto clampToPanel = [](long long v) {
      return static_cast<int>(v < 0 ? 0 : (v > kSize ? kSize : v));
    };
    plan.x0 = clampToPanel(plan.left);
    plan.x1 = clampToPanel(right);
    plan.y0 = clampToPanel(plan.top);
    plan.y1 = clampToPanel(bottom);
    if (plan.x0 < plan.x1 && plan.y0 < plan.y1) {
      plan.iris = irisFrame->data();
      plan.irisPixels = irisFrame->size() / 4;
      plan.irisW = irisW;
      plan.irisH = irisH;
      plan.unscaled = irisW == scaledW && irisH == scaledH;
      plan.hugeIris = irisW > kShortMax || irisH > kShortMax;
      plan.ratioX = static_cast<float>(irisW - 1) / static_cast<float>(scaledW);
      plan.ratioY = static_cast<float>(irisH - 1) / static_cast<float>(scaledH);
    }
  }

  auto lid = [](Lid& out, const VContent* image, const uint8_t* colour, int line, bool on) {
    out.on = on;
    out.line = line;
    out.colour = colour;
    out.height = image != nullptr ? image->height : 0;
    const std::vector<uint8_t>* frame = currentFrame(image);
    if (frame != nullptr && frame->size() >= kLidStride * static_cast<size_t>(out.height))
      out.image = frame->data();
  };
  lid(plan.topLid, eye.topLid, eye.topLidColor, topLidY, topLidY >= 1);
  lid(plan.bottomLid, eye.bottomLid, eye.bottomLidColor, bottomLidY, bottomLidY <= kSize - 1);
  return plan;
}

void prepareColumns(const Plan& plan, Columns& cols) {
  const int n = plan.x1 - plan.x0;
  cols.ixMin = std::numeric_limits<int>::max();
  cols.ixMax = 0;
  const int firstCol = static_cast<int>((plan.x0 - plan.left) & 255);
  cols.monotonic = firstCol + n <= 256;
  for (int j = 0; j < n; ++j) {
    const short col = static_cast<short>((firstCol + j) & 255);
    const float fx = static_cast<float>(col) * plan.ratioX;
    const short ix = static_cast<short>(truncateToInt(fx));
    const float dx = fx - static_cast<float>(ix);
    const float ndx = 1.0f - dx;
    for (int k = 0; k < 4; ++k) cols.weight[j][k] = ndx, cols.weight[j][k + 4] = dx;
    cols.offset[j] = ix * 4;
    cols.ixMin = std::min<int>(cols.ixMin, ix);
    cols.ixMax = std::max<int>(cols.ixMax, ix);
  }
  for (int j = 0; j < n; ++j) cols.rowByte[j] = (cols.offset[j] / 4 - cols.ixMin) * 16;
}

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

__attribute__((flatten)) void composePortable(const Plan& plan, uint8_t* out) {
  composeRows<PortableOps>(plan, out);
}

#ifdef EYE_COMPOSER_AVX2
EYE_AVX2 __attribute__((flatten)) void composeAvx2(const Plan& plan, uint8_t* out) {
  composeRows<Avx2Ops>(plan, out);
}
#endif

#ifdef EYE_COMPOSER_NEON
__attribute__((flatten)) void composeNeon(const Plan& plan, uint8_t* out) {
  composeRows<NeonOps>(plan, out);
}
#endif

bool cpuHas(Isa isa) {
  switch (isa) {
    case Isa::Portable:
      return true;
    case Isa::Avx2:
#ifdef EYE_COMPOSER_AVX2
      return __builtin_cpu_supports("avx2");
#else
      return false;
#endif
    case Isa::Neon:
#ifdef EYE_COMPOSER_NEON
      return true;  // every AArch64 CPU has it
#else
      return false;
#endif
  }
  return false;
}

std::atomic<int>& chosenIsa() {
  static std::atomic<int> chosen{static_cast<int>(
      cpuHas(Isa::Neon) ? Isa::Neon : (cpuHas(Isa::Avx2) ? Isa::Avx2 : Isa::Portable))};
  return chosen;
}

}  // namespace

Isa activeIsa() {
  return static_cast<Isa>(chosenIsa().load(std::memory_order_relaxed));
}

bool selectIsa(Isa isa) {
  if (!cpuHas(isa)) return false;
  chosenIsa().store(static_cast<int>(isa), std::memory_order_relaxed);
  return true;
}

const char* isaName(Isa isa) {
  switch (isa) {
    case Isa::Portable:
      return "portable";
    case Isa::Avx2:
      return "avx2";
    case Isa::Neon:
      return "neon";
  }
  return "?";
}

void compose(const Eyes& eye, float scaleX, float scaleY, long long centreX, long long centreY,
             short topLidY, short bottomLidY, uint8_t* out) {
  const Plan plan = makePlan(eye, scaleX, scaleY, centreX, centreY, topLidY, bottomLidY);
  switch (activeIsa()) {
#ifdef EYE_COMPOSER_AVX2
    case Isa::Avx2:
      composeAvx2(plan, out);
      return;
#endif
#ifdef EYE_COMPOSER_NEON
    case Isa::Neon:
      composeNeon(plan, out);
      return;
#endif
    default:
      composePortable(plan, out);
      return;
  }
}

}  // namespace eyeframe
