// Area reduction's inner loop for the common case of a whole-number ratio across: every destination
// pixel of a row covers `span` whole source columns, the content pixels' spans one after the other, so
// every column weight is 1 and each part's weight is the row part. A vector kernel then adds one source
// row to several destination pixels at once, each pixel's parts still added in the order of the box
// filter's walk, so sums and totals are those of the plain loop. AVX-512 takes four pixels at a time,
// AVX2 two.
#pragma once

#include <cstddef>

#include "cpu/cpu_level.h"

namespace imagery::detail {

// Adds the source row `from` (four floats to a pixel, starting at the first content column) times
// rowPart to the sums (four floats to a pixel) and totals of the first of `count` destination pixels,
// as many as the kernel's width divides; returns how many it did. The plain loop does the rest. Null
// where the processor level has no kernel.
using AreaSpanKernel = std::size_t (*)(std::size_t span, std::size_t count, float rowPart, const float* from,
                                       float* sums, float* totals);
AreaSpanKernel AreaSpanKernel4(cpu::Level level);

}  // namespace imagery::detail
