// The row-by-row frame composer behind Eyes::set_Frame_12Bit. Internal to the library;
// it produces exactly the bytes the per-pixel rules of Eyes would, with far less work.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Scene.h"

namespace eyeframe {

// Float to int, truncating toward zero, pinned beyond int; NaN gives 0.
int truncateToInt(float value);

// Bilinear sample of a 4-byte-per-pixel image of `pixels` pixels with row stride
// `width`; neighbours that would fall outside are pinned to the nearest pixel inside
// (such neighbours always carry weight 0, so only the read changes, never a result).
void samplePinned(uint8_t* out, const uint8_t* src, size_t pixels, float ratioX, float ratioY,
                  short col, short row, int width);

// Composes the 86400-byte 12-bit frame of `scene` into `out`. Allocates nothing.
void compose(const Scene& scene, uint8_t* out);

// Instruction sets the composer has code for. Portable is plain C++ and always there.
enum class Isa : uint8_t { Portable, Avx2, Neon };

// The set in use: the best one the CPU has, unless a test or benchmark chose another.
Isa activeIsa();
// Selects `isa` for every later frame; false (and no change) if the CPU lacks it.
bool selectIsa(Isa isa);
const char* isaName(Isa isa);

}  // namespace eyeframe
