// sRGB encoding of rows of linear values, one kernel per processor level, each giving the codes of the
// per-value form (EncodeChannel8/16 with the sRGB gamma) bit for bit.
#pragma once

#include <cstddef>

#include "cpu/cpu_level.h"
#include "imagery/export.h"

namespace imagery::detail {

template <class Code>
using SRGBRowFunction = void (*)(const float* linear, Code* codes, std::size_t count);

// The encoder of the widest kernel at or below `level` that this build has; every one encodes a whole
// row (its vector part, then the rest value by value). The ranges may not overlap.
IMAGERY_API SRGBRowFunction<unsigned char> SRGBRowEncoder8(cpu::Level level);
IMAGERY_API SRGBRowFunction<unsigned short> SRGBRowEncoder16(cpu::Level level);

}  // namespace imagery::detail
