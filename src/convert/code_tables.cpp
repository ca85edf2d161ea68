#include "convert/code_tables.h"

namespace imagery::convert {

// FromFloat sets every mantissa from its own channel and the largest one alone, and the exponent from
// the largest alone: tables by code give the same bytes wherever the largest code holds the largest
// value.
bool BuildSharedExponentTables8(const SourceDecoding& source, CodeTables& tables) {
  const float* linear = source.decode8->Data();
  for (int v = 1; v < 256; ++v) {
    if (!(linear[v] >= linear[v - 1]))
      return false;
  }
  tables.mantissas8.assign(256 * 256, 0);
  for (int top = 0; top < 256; ++top) {
    for (int v = 0; v <= top; ++v) {
      RGBECLR packed;
      packed.FromFloat({linear[v], linear[top], linear[top]});
      tables.mantissas8[static_cast<std::size_t>(top) * 256 + static_cast<std::size_t>(v)] = packed.r;
      tables.exponents8[static_cast<std::size_t>(top)] = packed.e;
    }
    tables.alpha8[static_cast<std::size_t>(top)] = detail::ScaleTo8(static_cast<float>(top) * kInv255);
  }
  return true;
}

}  // namespace imagery::convert
