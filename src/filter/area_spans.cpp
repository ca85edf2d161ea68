#include "filter/area_spans.h"

#if defined(IMAGERY_X86_64)
#include <immintrin.h>
#endif

namespace imagery::detail {
namespace {

#if defined(IMAGERY_X86_64) && defined(__GNUC__)
// Two destination pixels to a register; the AVX-512 kernel's arithmetic.
__attribute__((target("avx2"))) std::size_t AddSpansAVX2(std::size_t span, std::size_t count, float rowPart,
                                                         const float* from, float* sums, float* totals) {
  const __m256 weight = _mm256_set1_ps(rowPart);
  std::size_t x = 0;
  for (; x + 2 <= count; x += 2) {
    __m256 sum = _mm256_loadu_ps(sums + 4 * x);
    __m256 total = _mm256_setr_ps(totals[x], 0.0f, 0.0f, 0.0f, totals[x + 1], 0.0f, 0.0f, 0.0f);
    const float* pixel = from + 4 * x * span;
    for (std::size_t k = 0; k < span; ++k, pixel += 4) {
      const __m256 colour = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(pixel)),
                                                 _mm_loadu_ps(pixel + 4 * span), 1);
      sum = _mm256_add_ps(sum, _mm256_mul_ps(weight, colour));
      total = _mm256_add_ps(total, weight);
    }
    _mm256_storeu_ps(sums + 4 * x, sum);
    totals[x] = _mm256_cvtss_f32(total);
    totals[x + 1] = _mm_cvtss_f32(_mm256_extractf128_ps(total, 1));
  }
  return x;
}

IMAGERY_AVX512_KERNELS_BEGIN
__attribute__((target("avx512f"))) std::size_t AddSpansAVX512(std::size_t span, std::size_t count,
                                                              float rowPart, const float* from, float* sums,
                                                              float* totals) {
  const __m512 weight = _mm512_set1_ps(rowPart);
  // The four totals of a group are its lanes 0, 4, 8 and 12.
  const __m512i firstLanes = _mm512_setr_epi32(0, 4, 8, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  std::size_t x = 0;
  for (; x + 4 <= count; x += 4) {
    __m512 sum = _mm512_loadu_ps(sums + 4 * x);
    __m512 total = _mm512_castps128_ps512(_mm_loadu_ps(totals + x));
    total = _mm512_permutexvar_ps(_mm512_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3), total);
    const float* pixel = from + 4 * x * span;
    for (std::size_t k = 0; k < span; ++k, pixel += 4) {
      __m512 colour = _mm512_castps128_ps512(_mm_loadu_ps(pixel));
      colour = _mm512_insertf32x4(colour, _mm_loadu_ps(pixel + 4 * span), 1);
      colour = _mm512_insertf32x4(colour, _mm_loadu_ps(pixel + 8 * span), 2);
      colour = _mm512_insertf32x4(colour, _mm_loadu_ps(pixel + 12 * span), 3);
      sum = _mm512_add_ps(sum, _mm512_mul_ps(weight, colour));
      total = _mm512_add_ps(total, weight);
    }
    _mm512_storeu_ps(sums + 4 * x, sum);
    _mm_storeu_ps(totals + x, _mm512_castps512_ps128(_mm512_permutexvar_ps(firstLanes, total)));
  }
  return x;
}
IMAGERY_AVX512_KERNELS_END
#endif

}  // namespace

AreaSpanKernel AreaSpanKernel4(cpu::Level level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  if (level >= cpu::Level::AVX512)
    return &AddSpansAVX512;
  if (level == cpu::Level::AVX2)
    return &AddSpansAVX2;
#endif
  static_cast<void>(level);
  return nullptr;
}

}  // namespace imagery::detail
