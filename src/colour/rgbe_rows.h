// Packing rows of linear colours into shared-exponent bytes, one kernel per processor level.
#pragma once

#include <cstddef>

#include "cpu/cpu_level.h"
#include "imagery/export.h"

namespace imagery::detail {

// RGBECLR::FromFloat of `count` colours given as three runs of channels: the four bytes of colour i
// (red, green, blue, exponent) are stored at out + i x step; `step` is at least 4 and the other bytes
// are left alone. Every kernel gives the bytes of FromFloat for every input.
using RGBERowFunction = void (*)(const float* r, const float* g, const float* b, unsigned char* out,
                                 std::size_t step, std::size_t count);

// The packer of the widest kernel at or below `level` that this build has.
IMAGERY_API RGBERowFunction RGBERowPacker(cpu::Level level);

}  // namespace imagery::detail
