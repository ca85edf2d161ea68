// Table look-ups by AVX-512 byte permutes (VBMI): 64 values of a 256-entry float table at once from
// the table's four byte planes, with no memory access per value. Shared by the row kernels that decode
// 8-bit codes through tables.
#pragma once

#include <cstdint>

#include "cpu/cpu_level.h"

#if defined(IMAGERY_X86_64) && defined(__GNUC__)
#include <immintrin.h>

#define IMAGERY_BYTE_SHUFFLES __attribute__((target("avx512f,avx512bw,avx512vbmi")))

namespace imagery::detail {

// The table values of 64 byte indices, by two-register byte permutes on each byte plane (128 entries
// each, the top index bit choosing between them) and interleaves of the four planes. The interleaves
// work inside 128-bit lanes, so the indices come lane-transposed: dword 4j + s of `index` holds indices
// 16s + 4j .. 16s + 4j + 3. out[s] then holds the values of indices 16s .. 16s + 15 in order.
IMAGERY_BYTE_SHUFFLES inline void LookUp64(const std::uint8_t (*planes)[256], __m512i index, __m512i out[4]) {
  const __mmask64 upper = _mm512_movepi8_mask(index);
  __m512i bytes[4];
  for (int k = 0; k < 4; ++k) {
    const auto* plane = reinterpret_cast<const __m512i*>(planes[k]);
    const __m512i low =
        _mm512_permutex2var_epi8(_mm512_load_si512(plane), index, _mm512_load_si512(plane + 1));
    const __m512i high =
        _mm512_permutex2var_epi8(_mm512_load_si512(plane + 2), index, _mm512_load_si512(plane + 3));
    bytes[k] = _mm512_mask_blend_epi8(upper, low, high);
  }
  const __m512i low01 = _mm512_unpacklo_epi8(bytes[0], bytes[1]),
                high01 = _mm512_unpackhi_epi8(bytes[0], bytes[1]);
  const __m512i low23 = _mm512_unpacklo_epi8(bytes[2], bytes[3]),
                high23 = _mm512_unpackhi_epi8(bytes[2], bytes[3]);
  out[0] = _mm512_unpacklo_epi16(low01, low23);
  out[1] = _mm512_unpackhi_epi16(low01, low23);
  out[2] = _mm512_unpacklo_epi16(high01, high23);
  out[3] = _mm512_unpackhi_epi16(high01, high23);
}

}  // namespace imagery::detail
#endif
