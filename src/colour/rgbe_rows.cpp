// Rows of shared-exponent colours. FromFloat takes the exponent n of the largest channel m from frexp
// and scales every channel by f x 255 / m in double precision, where f = m x 2^-n; for m at or above
// 1e-12 (a normal float) that quotient is exactly 255 x 2^-n, a power of two times 255, which the kernels
// build from m's exponent bits. Each channel times that scale is exact in double precision, so the
// truncations agree wherever the reference's do, out-of-range products included: the converting
// instructions give 0x80000000 there, whose low byte is the 0 of TruncToByte. Colours with a black,
// infinite or NaN maximum take the per-colour form.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "colour/rgbe_rows.h"
#include "imagery/colour_spaces.h"

#if defined(IMAGERY_X86_64)
#include <immintrin.h>
#endif

namespace imagery {

namespace {

inline void PackOne(float r, float g, float b, unsigned char* out) {
  RGBECLR packed;
  packed.FromFloat({r, g, b});
  std::memcpy(out, &packed, 4);
}

// The scale 255 x 2^-n of the largest channel has the double exponent 1149 - E for its biased float
// exponent E (n = E - 126), and the stored exponent is n + 128 = E + 2.
constexpr int kScaleExponentBase = 1149;

void PackScalar(const float* r, const float* g, const float* b, unsigned char* out, std::size_t step,
                std::size_t count) {
  for (std::size_t i = 0; i < count; ++i)
    PackOne(r[i], g[i], b[i], out + i * step);
}

#if defined(IMAGERY_X86_64)
// The smallest float whose double value is at least 1e-12, the black threshold in single precision.
const float kMinimum = [] {
  float f = static_cast<float>(1e-12);
  return static_cast<double>(f) < 1e-12 ? std::nextafter(f, 1.0f) : f;
}();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Stores packed little-endian words red | green << 8 | blue << 16 | exponent << 24.
template <int kCount>
inline void StoreWords(const std::uint32_t* words, unsigned char* out, std::size_t step) {
  for (int i = 0; i < kCount; ++i, out += step)
    std::memcpy(out, &words[i], 4);
}

std::size_t PackSSE2(const float* r, const float* g, const float* b, unsigned char* out, std::size_t step,
                     std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m128 red = _mm_loadu_ps(r + i);
    const __m128 green = _mm_loadu_ps(g + i);
    const __m128 blue = _mm_loadu_ps(b + i);
    // std::max(a, b) keeps a unless a < b: maxps(b, a).
    const __m128 m = _mm_max_ps(blue, _mm_max_ps(green, red));
    const __m128 normal =
        _mm_and_ps(_mm_cmpge_ps(m, _mm_set1_ps(kMinimum)), _mm_cmplt_ps(m, _mm_set1_ps(kInfinity)));
    if (_mm_movemask_ps(normal) != 0xF) {
      PackScalar(r + i, g + i, b + i, out + i * step, step, 4);
      continue;
    }
    const __m128i biased = _mm_and_si128(_mm_srli_epi32(_mm_castps_si128(m), 23), _mm_set1_epi32(0xFF));
    const __m128i powers = _mm_sub_epi32(_mm_set1_epi32(kScaleExponentBase), biased);
    const __m128d k255 = _mm_set1_pd(255.0);
    const __m128d scaleLow = _mm_mul_pd(
        k255, _mm_castsi128_pd(_mm_slli_epi64(_mm_unpacklo_epi32(powers, _mm_setzero_si128()), 52)));
    const __m128d scaleHigh = _mm_mul_pd(
        k255, _mm_castsi128_pd(_mm_slli_epi64(_mm_unpackhi_epi32(powers, _mm_setzero_si128()), 52)));
    const __m128i byte = _mm_set1_epi32(0xFF);
    auto mantissas = [&](__m128 channel) {
      const __m128i low = _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtps_pd(channel), scaleLow));
      const __m128i high =
          _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(channel, channel)), scaleHigh));
      return _mm_and_si128(_mm_unpacklo_epi64(low, high), byte);
    };
    __m128i words = mantissas(red);
    words = _mm_or_si128(words, _mm_slli_epi32(mantissas(green), 8));
    words = _mm_or_si128(words, _mm_slli_epi32(mantissas(blue), 16));
    words = _mm_or_si128(words, _mm_slli_epi32(_mm_add_epi32(biased, _mm_set1_epi32(2)), 24));
    alignas(16) std::uint32_t packed[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(packed), words);
    StoreWords<4>(packed, out + i * step, step);
  }
  return i;
}

__attribute__((target("avx2"))) std::size_t PackAVX2(const float* r, const float* g, const float* b,
                                                     unsigned char* out, std::size_t step,
                                                     std::size_t count) {
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 red = _mm256_loadu_ps(r + i);
    const __m256 green = _mm256_loadu_ps(g + i);
    const __m256 blue = _mm256_loadu_ps(b + i);
    const __m256 m = _mm256_max_ps(blue, _mm256_max_ps(green, red));
    const __m256 normal = _mm256_and_ps(_mm256_cmp_ps(m, _mm256_set1_ps(kMinimum), _CMP_GE_OQ),
                                        _mm256_cmp_ps(m, _mm256_set1_ps(kInfinity), _CMP_LT_OQ));
    if (_mm256_movemask_ps(normal) != 0xFF) {
      PackScalar(r + i, g + i, b + i, out + i * step, step, 8);
      continue;
    }
    const __m256i biased =
        _mm256_and_si256(_mm256_srli_epi32(_mm256_castps_si256(m), 23), _mm256_set1_epi32(0xFF));
    const __m256i powers = _mm256_sub_epi32(_mm256_set1_epi32(kScaleExponentBase), biased);
    const __m256d k255 = _mm256_set1_pd(255.0);
    const __m256d scaleLow = _mm256_mul_pd(
        k255,
        _mm256_castsi256_pd(_mm256_slli_epi64(_mm256_cvtepu32_epi64(_mm256_castsi256_si128(powers)), 52)));
    const __m256d scaleHigh =
        _mm256_mul_pd(k255, _mm256_castsi256_pd(_mm256_slli_epi64(
                                _mm256_cvtepu32_epi64(_mm256_extracti128_si256(powers, 1)), 52)));
    const __m256i byte = _mm256_set1_epi32(0xFF);
    auto mantissas = [&](__m256 channel) __attribute__((target("avx2"))) {
      const __m128i low =
          _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(channel)), scaleLow));
      const __m128i high =
          _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(channel, 1)), scaleHigh));
      return _mm256_and_si256(_mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1), byte);
    };
    __m256i words = mantissas(red);
    words = _mm256_or_si256(words, _mm256_slli_epi32(mantissas(green), 8));
    words = _mm256_or_si256(words, _mm256_slli_epi32(mantissas(blue), 16));
    words = _mm256_or_si256(words, _mm256_slli_epi32(_mm256_add_epi32(biased, _mm256_set1_epi32(2)), 24));
    alignas(32) std::uint32_t packed[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(packed), words);
    StoreWords<8>(packed, out + i * step, step);
  }
  return i;
}
#endif

// A whole row: the kernel's lanes, then the rest one colour at a time.
template <std::size_t (*Kernel)(const float*, const float*, const float*, unsigned char*, std::size_t,
                                std::size_t)>
void PackRow(const float* r, const float* g, const float* b, unsigned char* out, std::size_t step,
             std::size_t count) {
  const std::size_t done = Kernel(r, g, b, out, step, count);
  PackScalar(r + done, g + done, b + done, out + done * step, step, count - done);
}

#if defined(IMAGERY_X86_64)
// AVX2 eight colours at a time, then SSE2 four at a time.
std::size_t PackAVX2ThenSSE2(const float* r, const float* g, const float* b, unsigned char* out,
                             std::size_t step, std::size_t count) {
  const std::size_t done = PackAVX2(r, g, b, out, step, count);
  return done + PackSSE2(r + done, g + done, b + done, out + done * step, step, count - done);
}
#endif

}  // namespace

namespace detail {

RGBERowFunction RGBERowPacker(cpu::Level level) {
#if defined(IMAGERY_X86_64)
  if (level >= cpu::Level::AVX2)
    return &PackRow<&PackAVX2ThenSSE2>;
  if (level >= cpu::Level::SSE2)
    return &PackRow<&PackSSE2>;
#endif
  static_cast<void>(level);
  return &PackScalar;
}

}  // namespace detail
}  // namespace imagery
