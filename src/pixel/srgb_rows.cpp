// The sRGB row kernels. Each vector kernel is ClampUnit, the sRGB curve and the rounding of
// QuantizeTo8/16 lane by lane, operation for operation the scalar arithmetic, so each lane gives the
// scalar result bit for bit. Their arithmetic must stay operation by operation: the library is built
// with -ffp-contract=off, and the AVX-512 target (which implies FMA) relies on it.
#include "pixel/srgb_rows.h"

#include <cstdint>
#include <cstring>
#include <limits>

#include "pixel/byte_lookup.h"
#include "pixel/gamma_curves.h"

#if defined(IMAGERY_X86_64)
#include <immintrin.h>
#endif

namespace imagery::detail {
namespace {

// The sRGB encode coefficients, the column for c > 0.0523 first.
struct SRGBEncodeRow {
  float above, below;
};
constexpr SRGBEncodeRow kSRGBEncode[8] = {{-0.18730034f, -6681.4956f},     {0.6467743f, 1224.9712f},
                                          {-0.99032867f, -100.23414f},     {1.2093908f, 6.6036115f},
                                          {0.33433458f, 0.06114809f},      {-0.013450958f, -0.00022244139f},
                                          {0.00044351685f, 4.123184e-07f}, {-6.642636e-06f, -3.5133685e-10f}};

template <class Code>
void EncodeSRGBScalar(const float* linear, Code* codes, std::size_t count) {
  constexpr float kMax = static_cast<float>(std::numeric_limits<Code>::max());
  for (std::size_t i = 0; i < count; ++i)
    codes[i] = static_cast<Code>(detail::RoundToCode<std::numeric_limits<Code>::max()>(
        curves::EncodeSRGBClamped(ClampUnit(linear[i])) * kMax));
}

// Each vector kernel is ClampUnit, EncodeSRGBClamped and the rounding of Quantize lane by lane,
// operation for operation the scalar arithmetic, so each lane gives the scalar result bit for bit. The
// curve is evaluated on every lane and the linear segment chosen afterwards. Encoded values lie in
// [0, 1), so the scaled value is a small non-negative number and truncation plus a half step rounds it.
// Each returns how many values it encoded, a multiple of its width; the caller finishes the row.
#if defined(IMAGERY_X86_64)
__m128i EncodeSRGBFour(__m128 c, float maxCode) {
  const __m128 zero = _mm_setzero_ps();
  // min(1, c) keeps NaN, which max(c, 0) then turns into 0, as ClampUnit does.
  c = _mm_max_ps(_mm_min_ps(_mm_set1_ps(1.0f), c), zero);
  const __m128 high = _mm_cmpgt_ps(c, _mm_set1_ps(0.0523f));
  auto k = [high](int i) {
    return _mm_or_ps(_mm_and_ps(high, _mm_set1_ps(kSRGBEncode[i].above)),
                     _mm_andnot_ps(high, _mm_set1_ps(kSRGBEncode[i].below)));
  };
  const __m128 c2 = _mm_mul_ps(c, c);
  __m128 n = _mm_add_ps(_mm_mul_ps(k(0), c), k(1));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(2), c), k(3)));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(4), c), k(5)));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(6), c), k(7)));
  const __m128 curve = _mm_div_ps(n, _mm_mul_ps(c2, c));
  const __m128 linear = _mm_mul_ps(c, _mm_set1_ps(12.92f));
  const __m128 low = _mm_cmple_ps(c, _mm_set1_ps(0.0031308f));
  const __m128 encoded = _mm_or_ps(_mm_and_ps(low, linear), _mm_andnot_ps(low, curve));
  const __m128 scaled = _mm_mul_ps(encoded, _mm_set1_ps(maxCode));
  const __m128i whole = _mm_cvttps_epi32(scaled);
  const __m128 fraction = _mm_sub_ps(scaled, _mm_cvtepi32_ps(whole));
  const __m128i up = _mm_castps_si128(_mm_cmpge_ps(fraction, _mm_set1_ps(0.5f)));
  return _mm_sub_epi32(whole, up);  // a true lane is -1
}

template <class Code>
std::size_t EncodeSRGBSSE2(const float* linear, Code* codes, std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m128i four =
        EncodeSRGBFour(_mm_loadu_ps(linear + i), static_cast<float>(std::numeric_limits<Code>::max()));
    if constexpr (sizeof(Code) == 1) {
      const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(four, four), _mm_setzero_si128());
      const std::int32_t packed = _mm_cvtsi128_si32(bytes);
      std::memcpy(codes + i, &packed, sizeof packed);
    } else {
      // Signed packing saturates at 32767: pack the codes biased by -32768 and unbias the halves.
      const __m128i biased = _mm_sub_epi32(four, _mm_set1_epi32(32768));
      const __m128i halves = _mm_xor_si128(_mm_packs_epi32(biased, biased), _mm_set1_epi16(-32768));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(codes + i), halves);
    }
  }
  return i;
}
#endif

#if defined(IMAGERY_X86_64) && defined(__GNUC__)
__attribute__((target("avx2"))) __m256i EncodeSRGBEight(__m256 c, __m256 maxCode) {
  c = _mm256_max_ps(_mm256_min_ps(_mm256_set1_ps(1.0f), c), _mm256_setzero_ps());
  const __m256 high = _mm256_cmp_ps(c, _mm256_set1_ps(0.0523f), _CMP_GT_OQ);
  auto k = [high](int i) __attribute__((target("avx2"))) {
    return _mm256_blendv_ps(_mm256_set1_ps(kSRGBEncode[i].below), _mm256_set1_ps(kSRGBEncode[i].above), high);
  };
  const __m256 c2 = _mm256_mul_ps(c, c);
  __m256 n = _mm256_add_ps(_mm256_mul_ps(k(0), c), k(1));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(2), c), k(3)));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(4), c), k(5)));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(6), c), k(7)));
  const __m256 curve = _mm256_div_ps(n, _mm256_mul_ps(c2, c));
  const __m256 low = _mm256_cmp_ps(c, _mm256_set1_ps(0.0031308f), _CMP_LE_OQ);
  const __m256 encoded = _mm256_blendv_ps(curve, _mm256_mul_ps(c, _mm256_set1_ps(12.92f)), low);
  const __m256 scaled = _mm256_mul_ps(encoded, maxCode);
  const __m256i whole = _mm256_cvttps_epi32(scaled);
  const __m256 fraction = _mm256_sub_ps(scaled, _mm256_cvtepi32_ps(whole));
  const __m256i up = _mm256_castps_si256(_mm256_cmp_ps(fraction, _mm256_set1_ps(0.5f), _CMP_GE_OQ));
  return _mm256_sub_epi32(whole, up);
}

template <class Code>
__attribute__((target("avx2"))) std::size_t EncodeSRGBAVX2(const float* linear, Code* codes,
                                                           std::size_t count) {
  const __m256 maxCode = _mm256_set1_ps(static_cast<float>(std::numeric_limits<Code>::max()));
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256i eight = EncodeSRGBEight(_mm256_loadu_ps(linear + i), maxCode);
    const __m128i low = _mm256_castsi256_si128(eight);
    const __m128i high = _mm256_extracti128_si256(eight, 1);
    if constexpr (sizeof(Code) == 1) {
      const __m128i words = _mm_packs_epi32(low, high);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(codes + i), _mm_packus_epi16(words, words));
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + i), _mm_packus_epi32(low, high));
    }
  }
  return i;
}

IMAGERY_AVX512_KERNELS_BEGIN
__attribute__((target("avx512f"))) __m512i EncodeSRGBSixteen(__m512 c, __m512 maxCode) {
  c = _mm512_max_ps(_mm512_min_ps(_mm512_set1_ps(1.0f), c), _mm512_setzero_ps());
  const __mmask16 high = _mm512_cmp_ps_mask(c, _mm512_set1_ps(0.0523f), _CMP_GT_OQ);
  auto k = [high](int i) __attribute__((target("avx512f"))) {
    return _mm512_mask_blend_ps(high, _mm512_set1_ps(kSRGBEncode[i].below),
                                _mm512_set1_ps(kSRGBEncode[i].above));
  };
  const __m512 c2 = _mm512_mul_ps(c, c);
  __m512 n = _mm512_add_ps(_mm512_mul_ps(k(0), c), k(1));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(2), c), k(3)));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(4), c), k(5)));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(6), c), k(7)));
  const __m512 curve = _mm512_div_ps(n, _mm512_mul_ps(c2, c));
  const __mmask16 low = _mm512_cmp_ps_mask(c, _mm512_set1_ps(0.0031308f), _CMP_LE_OQ);
  const __m512 encoded = _mm512_mask_blend_ps(low, curve, _mm512_mul_ps(c, _mm512_set1_ps(12.92f)));
  const __m512 scaled = _mm512_mul_ps(encoded, maxCode);
  const __m512i whole = _mm512_cvttps_epi32(scaled);
  const __m512 fraction = _mm512_sub_ps(scaled, _mm512_cvtepi32_ps(whole));
  const __mmask16 up = _mm512_cmp_ps_mask(fraction, _mm512_set1_ps(0.5f), _CMP_GE_OQ);
  return _mm512_mask_add_epi32(whole, up, whole, _mm512_set1_epi32(1));
}

template <class Code>
__attribute__((target("avx512f"))) std::size_t EncodeSRGBAVX512(const float* linear, Code* codes,
                                                                std::size_t count) {
  const __m512 maxCode = _mm512_set1_ps(static_cast<float>(std::numeric_limits<Code>::max()));
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512i sixteen = EncodeSRGBSixteen(_mm512_loadu_ps(linear + i), maxCode);
    if constexpr (sizeof(Code) == 1) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + i), _mm512_cvtepi32_epi8(sixteen));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(codes + i), _mm512_cvtepi32_epi16(sixteen));
    }
  }
  return i;
}
IMAGERY_AVX512_KERNELS_END
#endif

// A whole row: the kernel's lanes, then the rest one value at a time.
template <class Code, std::size_t (*Kernel)(const float*, Code*, std::size_t)>
void EncodeRow(const float* linear, Code* codes, std::size_t count) {
  const std::size_t done = Kernel(linear, codes, count);
  EncodeSRGBScalar(linear + done, codes + done, count - done);
}

template <class Code>
SRGBRowFunction<Code> SRGBRowEncoder(cpu::Level level) {
  switch (level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
    case cpu::Level::AVX512:
      return &EncodeRow<Code, &EncodeSRGBAVX512<Code>>;
    case cpu::Level::AVX2:
      return &EncodeRow<Code, &EncodeSRGBAVX2<Code>>;
#endif
#if defined(IMAGERY_X86_64)
    case cpu::Level::SSE2:
      return &EncodeRow<Code, &EncodeSRGBSSE2<Code>>;
#endif
    default:
      return &EncodeSRGBScalar<Code>;
  }
}

template <class Code>
void EncodeThreeSRGBScalar(const float* linear, Code* codes) {
  EncodeSRGBScalar(linear, codes, 3);
}

#if defined(IMAGERY_X86_64)
// The three values in the first lanes of one vector; the fourth lane encodes a zero nobody reads.
template <class Code>
void EncodeThreeSRGBSSE2(const float* linear, Code* codes) {
  const __m128i four = EncodeSRGBFour(_mm_setr_ps(linear[0], linear[1], linear[2], 0.0f),
                                      static_cast<float>(std::numeric_limits<Code>::max()));
  alignas(16) std::int32_t lanes[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), four);
  for (int i = 0; i < 3; ++i)
    codes[i] = static_cast<Code>(lanes[i]);
}
#endif

template <class Code>
SRGBThreeFunction<Code> SRGBThreeEncoder(cpu::Level level) {
#if defined(IMAGERY_X86_64)
  if (level != cpu::Level::Scalar)
    return &EncodeThreeSRGBSSE2<Code>;
#endif
  (void)level;
  return &EncodeThreeSRGBScalar<Code>;
}

// --- Byte codes to floats through tables -----------------------------------------------------------

struct SRGBDecodeTables {
  float values[256];
  BytePlanes planes;
  SRGBDecodeTables() {
    for (int v = 0; v < 256; ++v)
      values[v] = curves::Decode(static_cast<unsigned char>(v), gamma::sRGB);
    planes.Split(values);
  }
};

const SRGBDecodeTables& SRGBDecode8() {
  static const SRGBDecodeTables tables;
  return tables;
}

void DecodeSRGBScalar(const unsigned char* codes, float* linear, std::size_t count) {
  const float* table = SRGBDecode8().values;
  for (std::size_t i = 0; i < count; ++i)
    linear[i] = table[codes[i]];
}

void DecodeSRGBAlphaScalar(const unsigned char* pixels, float* linear, std::size_t count) {
  const float* table = SRGBDecode8().values;
  for (std::size_t i = 0; i < 4 * count; i += 4) {
    for (std::size_t c = 0; c < 3; ++c)
      linear[i + c] = table[pixels[i + c]];
    linear[i + 3] = static_cast<float>(pixels[i + 3]) * kInv255;
  }
}

void CodeSumScalar(const ByteTables3& tables, const unsigned char* pixels, std::size_t pixelBytes,
                   float* sums, std::size_t count) {
  const auto& t = tables.values;
  for (std::size_t i = 0; i < count; ++i, pixels += pixelBytes)
    sums[i] = (t[0][pixels[2]] + t[1][pixels[1]]) + t[2][pixels[0]];
}

#if defined(IMAGERY_X86_64) && defined(__GNUC__)
IMAGERY_AVX512_KERNELS_BEGIN

// 8-bit sRGB codes to linear values, 64 at a time; with kAlpha the codes are pixels of four whose last
// is alpha, which becomes its code as a fraction instead. Returns how many codes it did.
template <bool kAlpha>
IMAGERY_BYTE_SHUFFLES std::size_t DecodeSRGBByteShuffles(const unsigned char* codes, float* linear,
                                                         std::size_t count) {
  const std::uint8_t(*planes)[256] = SRGBDecode8().planes.bytes;
  const __m512i transpose = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const __m512i loaded = _mm512_loadu_si512(codes + i);
    __m512i values[4];
    LookUp64(planes, _mm512_permutexvar_epi32(transpose, loaded), values);
    if constexpr (kAlpha) {
      const __m128i quarters[4] = {_mm512_castsi512_si128(loaded), _mm512_extracti32x4_epi32(loaded, 1),
                                   _mm512_extracti32x4_epi32(loaded, 2),
                                   _mm512_extracti32x4_epi32(loaded, 3)};
      for (int s = 0; s < 4; ++s) {
        const __m512 fractions =
            _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(quarters[s])), _mm512_set1_ps(kInv255));
        values[s] =
            _mm512_castps_si512(_mm512_mask_blend_ps(0x8888, _mm512_castsi512_ps(values[s]), fractions));
      }
    }
    for (int s = 0; s < 4; ++s)
      _mm512_storeu_si512(linear + i + 16 * s, values[s]);
  }
  return i;
}

// Byte 16j + 4c + m of a grouping order is byte c of pixel 4j + m, for pixels of three bytes and of
// four. Made once: building it on every call cost as much as the look-ups of a short row.
struct GroupingOrder {
  alignas(64) std::uint8_t bytes[64];
};
constexpr GroupingOrder GroupingOrderOf(int pixelBytes) {
  GroupingOrder order{};
  for (int j = 0; j < 4; ++j) {
    for (int c = 0; c < 4; ++c) {
      for (int m = 0; m < 4; ++m)
        order.bytes[16 * j + 4 * c + m] = static_cast<std::uint8_t>(c < 3 ? pixelBytes * (4 * j + m) + c : 0);
    }
  }
  return order;
}
constexpr GroupingOrder kGroupingOrders[2] = {GroupingOrderOf(3), GroupingOrderOf(4)};

// Sixteen pixels from `pixels` as dwords regrouped by byte inside each 128-bit lane: the first bytes of
// four pixels, then their second bytes, then their third.
IMAGERY_BYTE_SHUFFLES inline __m512i GroupBytes(const unsigned char* pixels, std::size_t pixelBytes,
                                                __m512i order) {
  const __m512i loaded = pixelBytes == 4 ? _mm512_loadu_si512(pixels)
                                         : _mm512_maskz_loadu_epi8((__mmask64{1} << 48) - 1, pixels);
  return _mm512_permutexvar_epi8(order, loaded);
}

IMAGERY_BYTE_SHUFFLES std::size_t CodeSumByteShuffles(const ByteTables3& tables, const unsigned char* pixels,
                                                      std::size_t pixelBytes, float* sums,
                                                      std::size_t count) {
  const __m512i grouping = _mm512_load_si512(kGroupingOrders[pixelBytes == 4].bytes);
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const unsigned char* p = pixels + i * pixelBytes;
    const __m512i g0 = GroupBytes(p, pixelBytes, grouping);
    const __m512i g1 = GroupBytes(p + 16 * pixelBytes, pixelBytes, grouping);
    const __m512i g2 = GroupBytes(p + 32 * pixelBytes, pixelBytes, grouping);
    const __m512i g3 = GroupBytes(p + 48 * pixelBytes, pixelBytes, grouping);
    // Byte 16j + 4t + m of each plane is a byte of pixel 16t + 4j + m: the lane-transposed order.
    const __m512i low01 = _mm512_unpacklo_epi32(g0, g1), high01 = _mm512_unpackhi_epi32(g0, g1);
    const __m512i low23 = _mm512_unpacklo_epi32(g2, g3), high23 = _mm512_unpackhi_epi32(g2, g3);
    __m512i first[4], second[4], third[4];
    LookUp64(tables.planes[0].bytes, _mm512_unpacklo_epi64(high01, high23), first);
    LookUp64(tables.planes[1].bytes, _mm512_unpackhi_epi64(low01, low23), second);
    LookUp64(tables.planes[2].bytes, _mm512_unpacklo_epi64(low01, low23), third);
    for (int s = 0; s < 4; ++s) {
      const __m512 sum =
          _mm512_add_ps(_mm512_add_ps(_mm512_castsi512_ps(first[s]), _mm512_castsi512_ps(second[s])),
                        _mm512_castsi512_ps(third[s]));
      _mm512_storeu_ps(sums + i + 16 * s, sum);
    }
  }
  return i;
}

void DecodeSRGBRow(const unsigned char* codes, float* linear, std::size_t count) {
  const std::size_t done = DecodeSRGBByteShuffles<false>(codes, linear, count);
  DecodeSRGBScalar(codes + done, linear + done, count - done);
}

void DecodeSRGBAlphaRow(const unsigned char* pixels, float* linear, std::size_t count) {
  const std::size_t done = DecodeSRGBByteShuffles<true>(pixels, linear, 4 * count) / 4;
  DecodeSRGBAlphaScalar(pixels + 4 * done, linear + 4 * done, count - done);
}

void CodeSumRow(const ByteTables3& tables, const unsigned char* pixels, std::size_t pixelBytes, float* sums,
                std::size_t count) {
  const std::size_t done = CodeSumByteShuffles(tables, pixels, pixelBytes, sums, count);
  CodeSumScalar(tables, pixels + done * pixelBytes, pixelBytes, sums + done, count - done);
}
IMAGERY_AVX512_KERNELS_END
#endif

}  // namespace

SRGBDecodeRowFunction SRGBRowDecoder8(cpu::Level level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  if (cpu::HasByteShuffles(level))
    return &DecodeSRGBRow;
#endif
  static_cast<void>(level);
  return &DecodeSRGBScalar;
}

SRGBDecodePixelsFunction SRGBAlphaPixelDecoder8(cpu::Level level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  if (cpu::HasByteShuffles(level))
    return &DecodeSRGBAlphaRow;
#endif
  static_cast<void>(level);
  return &DecodeSRGBAlphaScalar;
}

void BytePlanes::Split(const float* values) {
  for (int v = 0; v < 256; ++v) {
    std::uint32_t bits;
    std::memcpy(&bits, &values[v], sizeof bits);
    for (int k = 0; k < 4; ++k)
      bytes[k][v] = static_cast<std::uint8_t>(bits >> (8 * k));
  }
}

void ByteTables3::Split() {
  for (int t = 0; t < 3; ++t)
    planes[t].Split(values[t]);
}

CodeSumRowFunction CodeSumRow8(cpu::Level level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  if (cpu::HasByteShuffles(level))
    return &CodeSumRow;
#endif
  static_cast<void>(level);
  return &CodeSumScalar;
}

SRGBRowFunction<unsigned char> SRGBRowEncoder8(cpu::Level level) {
  return SRGBRowEncoder<unsigned char>(level);
}

SRGBRowFunction<unsigned short> SRGBRowEncoder16(cpu::Level level) {
  return SRGBRowEncoder<unsigned short>(level);
}

SRGBThreeFunction<unsigned char> SRGBThreeEncoder8(cpu::Level level) {
  return SRGBThreeEncoder<unsigned char>(level);
}

SRGBThreeFunction<unsigned short> SRGBThreeEncoder16(cpu::Level level) {
  return SRGBThreeEncoder<unsigned short>(level);
}

}  // namespace imagery::detail
