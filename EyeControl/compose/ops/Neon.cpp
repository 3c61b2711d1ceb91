// The composer's operations in NEON, which every AArch64 CPU has.
#include "../Rows.h"

#ifdef EYE_COMPOSER_NEON
#include <arm_neon.h>

#include <cstring>

namespace eyeframe {

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
    const uint8x16_t opaqueFrom = vdupq_n_u8(kOpaqueAlpha + 1);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
      const uint8x16x4_t v = vld4q_u8(src + 4 * i);
      const uint8x16_t alpha = v.val[3];
      uint8_t* d = dst + 3 * i;
      if (vminvq_u8(alpha) > kOpaqueAlpha) {
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
      if (vminv_u8(v.val[3]) > kOpaqueAlpha) {
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

__attribute__((flatten)) void composeNeon(const Plan& plan, uint8_t* out) {
  composeRows<NeonOps>(plan, out);
}

}  // namespace eyeframe

#endif
