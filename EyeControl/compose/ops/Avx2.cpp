// The composer's operations in AVX2, turned on per function (EYE_AVX2), so that this
// file builds with plain flags and runs only where the CPU has AVX2 (Isa.cpp checks).
#include "../Rows.h"

#ifdef EYE_COMPOSER_AVX2
#include <immintrin.h>

#include <cstring>

namespace eyeframe {

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
    if (alpha > kOpaqueAlpha) {
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
    const __m256i opaqueFrom = _mm256_set1_epi8(static_cast<char>(kOpaqueAlpha + 1));
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

EYE_AVX2 __attribute__((flatten)) void composeAvx2(const Plan& plan, uint8_t* out) {
  composeRows<Avx2Ops>(plan, out);
}

}  // namespace eyeframe

#endif
