// sRGB encoding of rows of linear values, one kernel per processor level, each giving the codes of the
// per-value form (EncodeChannel8/16 with the sRGB gamma) bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu/cpu_level.h"
#include "imagery/export.h"

namespace imagery::detail {

template <class Code>
using SRGBRowFunction = void (*)(const float* linear, Code* codes, std::size_t count);

// The encoder of the widest kernel at or below `level` that this build has; every one encodes a whole
// row (its vector part, then the rest value by value). The ranges may not overlap.
IMAGERY_API SRGBRowFunction<unsigned char> SRGBRowEncoder8(cpu::Level level);
IMAGERY_API SRGBRowFunction<unsigned short> SRGBRowEncoder16(cpu::Level level);

// The same for a pixel's three colour values, which kernels with vectors encode in one.
template <class Code>
using SRGBThreeFunction = void (*)(const float* linear, Code* codes);
IMAGERY_API SRGBThreeFunction<unsigned char> SRGBThreeEncoder8(cpu::Level level);
IMAGERY_API SRGBThreeFunction<unsigned short> SRGBThreeEncoder16(cpu::Level level);

// 8-bit sRGB codes to linear light, each value that of the decode table (DecodeChannel8 with the sRGB
// gamma). The ranges may not overlap.
using SRGBDecodeRowFunction = void (*)(const unsigned char* codes, float* linear, std::size_t count);
IMAGERY_API SRGBDecodeRowFunction SRGBRowDecoder8(cpu::Level level);

// A table of 256 floats split into its four bytes (least significant first), for the kernels that
// look values up by byte shuffles instead of loads.
struct BytePlanes {
  alignas(64) std::uint8_t bytes[4][256];

  IMAGERY_API void Split(const float* values);
};

// Pixels of four 8-bit codes whose last is alpha, `count` of them, into four floats each: the colour
// codes as SRGBRowDecoder8 decodes them, alpha as code x (1 / 255). The ranges may not overlap.
using SRGBDecodePixelsFunction = void (*)(const unsigned char* pixels, float* linear, std::size_t count);
IMAGERY_API SRGBDecodePixelsFunction SRGBAlphaPixelDecoder8(cpu::Level level);

// Three tables of 256 floats, each also split into byte planes.
struct ByteTables3 {
  float values[3][256];
  BytePlanes planes[3];

  // Splits `values` into `planes`; call after filling or changing the values.
  IMAGERY_API void Split();
};

// For `count` pixels of `pixelBytes` (3 or 4) bytes from `pixels`, the sum
// (values[0][byte 2] + values[1][byte 1]) + values[2][byte 0] in that order, as floats.
using CodeSumRowFunction = void (*)(const ByteTables3& tables, const unsigned char* pixels,
                                    std::size_t pixelBytes, float* sums, std::size_t count);
IMAGERY_API CodeSumRowFunction CodeSumRow8(cpu::Level level);

}  // namespace imagery::detail
