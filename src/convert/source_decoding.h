// The source side of conversions and grey-range scans: what a source format's rows need to be read
// (decode tables of its gamma, grey tables of its codes), and the loops that read a chunk of pixels into
// planar linear floats or grey values. Every loop reads the format's layout from pixel_format.h and its
// samples through the readers of detail/pixel_io.h, so each value is the one the pixel cursors give.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "convert/conversion_plan.h"
#include "cpu/cpu_level.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_format.h"
#include "pixel/srgb_rows.h"

#if defined(IMAGERY_X86_64)
#include <emmintrin.h>
#endif

namespace imagery::convert {

// Kernels take the SSE2 paths at this level and above, the plain ones below it.
template <cpu::Level L>
inline constexpr bool kSSE2 = L >= cpu::Level::SSE2;

// The level a converter's kernels are instantiated for: SSE2 is the widest they use.
inline cpu::Level KernelLevel() {
  return cpu::Active() >= cpu::Level::SSE2 ? cpu::Level::SSE2 : cpu::Level::Scalar;
}

// Calls f(std::integral_constant<cpu::Level, L>{}) for the kernel level `level`.
template <class F>
decltype(auto) DispatchKernelLevel(cpu::Level level, F&& f) {
#if defined(IMAGERY_X86_64)
  if (level >= cpu::Level::SSE2)
    return f(std::integral_constant<cpu::Level, cpu::Level::SSE2>{});
#endif
  static_cast<void>(level);
  return f(std::integral_constant<cpu::Level, cpu::Level::Scalar>{});
}

struct Planar {
  float r[kChunkPixels];
  float g[kChunkPixels];
  float b[kChunkPixels];
  float a[kChunkPixels];
};

// The grey of a grey value, as GreyValue computes it for a colour whose channels are all v.
inline float GreyOfGrey(float v) {
  return (0.35f * v + 0.5f * v) + 0.15f * v;
}

// Code to linear value through decode tables, for ReadSample; a plain pair of pointers that loops keep
// in registers.
struct TableDecoding {
  const float* codes8;
  const float* codes16;
  float Decode8(unsigned char v) const { return codes8[v]; }
  float Decode16(unsigned short v) const { return codes16[v]; }
};

// What reading one source format takes, made once per operation.
struct SourceDecoding {
  std::optional<GammaDecodeTable8> decode8;
  std::optional<GammaDecodeTable16> decode16;
  // 8-bit grey: the grey value of each code.
  std::vector<float> greyOfCode;
  // 8-bit colour: 0.35, 0.5 and 0.15 times the linear value of each code (red, green, blue): the same
  // floats the grey sum would multiply out, summed a row at a time by `greySum8`.
  std::unique_ptr<detail::ByteTables3> weighted8;
  detail::CodeSumRowFunction greySum8 = nullptr;

  SourceDecoding(EImageType type, GammaValue gamma);

  TableDecoding Tables() const {
    return {decode8 ? decode8->Data() : nullptr, decode16 ? decode16->Data() : nullptr};
  }

  // The linear value of every code of a code format, indexed by code.
  std::vector<float> LinearOfCodes(EImageType type) const;
};

// RGBECLR::ToFloat by a table of the scale of each exponent byte: 2^(e - 128) / 255 as that computes it,
// and 0 for e = 0, where every channel is 0. The largest exponent reads zero mantissas as 0.
extern const std::array<float, 256> kRGBEScales;

inline float RGBEChannel(unsigned mantissa, unsigned e, float scale) {
  const float value = (static_cast<float>(mantissa) + 0.5f) * scale;
  return e == 0xFF && mantissa == 0 ? 0.0f : value;
}

#if defined(IMAGERY_X86_64)
// Four shared-exponent pixels (`p` at the first) decoded as kRGBEScales and RGBEChannel do: the scale is
// the same product of the exponent's power of two and 1/255, a zero scale for e = 0.
template <EImageType S>
inline void DecodeRGBEFour(const unsigned char* p, float* r, float* g, float* b) {
  constexpr FormatLayout F = LayoutOf(S);
  static_assert(F.red == 0 && F.green == 1 && F.blue == 2 && F.exponent == 3,
                "the four colour bytes are read as one little-endian word");
  std::uint32_t w[4];
  for (int k = 0; k < 4; ++k)
    std::memcpy(&w[k], p + F.bytes * k, 4);
  const __m128i words = _mm_setr_epi32(static_cast<int>(w[0]), static_cast<int>(w[1]), static_cast<int>(w[2]),
                                       static_cast<int>(w[3]));
  const __m128i byte = _mm_set1_epi32(0xFF);
  const __m128i e = _mm_srli_epi32(words, 24);
  const __m128i one = _mm_set1_epi32(1);
  // 2^(e - 128): the float with exponent bits e - 1, and for e = 1 the denormal 2^-127.
  __m128i power = _mm_slli_epi32(_mm_sub_epi32(e, one), 23);
  const __m128i isOne = _mm_cmpeq_epi32(e, one);
  power = _mm_or_si128(_mm_andnot_si128(isOne, power), _mm_and_si128(isOne, _mm_set1_epi32(0x00400000)));
  power = _mm_andnot_si128(_mm_cmpeq_epi32(e, _mm_setzero_si128()), power);
  const __m128 scale = _mm_mul_ps(_mm_castsi128_ps(power), _mm_set1_ps(kInv255));
  const __m128i top = _mm_cmpeq_epi32(e, byte);
  auto channel = [&](int shift, float* out) {
    const __m128i mantissa = _mm_and_si128(_mm_srli_epi32(words, shift), byte);
    const __m128 value = _mm_mul_ps(_mm_add_ps(_mm_cvtepi32_ps(mantissa), _mm_set1_ps(0.5f)), scale);
    const __m128i zero = _mm_and_si128(top, _mm_cmpeq_epi32(mantissa, _mm_setzero_si128()));
    _mm_storeu_ps(out, _mm_andnot_ps(_mm_castsi128_ps(zero), value));
  };
  channel(0, r);
  channel(8, g);
  channel(16, b);
}
#endif

// The code of a grey code pixel.
template <EImageType S>
inline unsigned GreyCode(const unsigned char* p) {
  constexpr FormatLayout F = LayoutOf(S);
  static_assert(F.grey && F.colour != SampleKind::Float32);
  return detail::LoadStored<F.colour>(p + F.red);
}

// The linear value of a grey pixel.
template <EImageType S>
inline float GreyLinear(const TableDecoding& tables, const unsigned char* p) {
  constexpr FormatLayout F = LayoutOf(S);
  static_assert(F.grey);
  return detail::ReadSample<F.colour>(p + F.red, tables);
}

// The stored alpha, never gamma converted; formats without alpha read 1.
template <EImageType S>
inline float AlphaOf(const unsigned char* p) {
  float a = 1.0f;
  detail::ReadAlpha<S>(p, a);
  return a;
}

// `n` pixels to planar linear colour.
template <EImageType S, cpu::Level L>
void DecodeColour(const SourceDecoding& source, const unsigned char* p, int n, Planar& out) {
  constexpr FormatLayout F = LayoutOf(S);
  if constexpr (F.colour == SampleKind::SharedExponent) {
    static_cast<void>(source);
    int i = 0;
#if defined(IMAGERY_X86_64)
    if constexpr (kSSE2<L>) {
      for (; i + 4 <= n; i += 4, p += 4 * F.bytes)
        DecodeRGBEFour<S>(p, out.r + i, out.g + i, out.b + i);
    }
#endif
    for (; i < n; ++i, p += F.bytes) {
      const unsigned e = p[F.exponent];
      const float scale = kRGBEScales[e];
      out.r[i] = RGBEChannel(p[F.red], e, scale);
      out.g[i] = RGBEChannel(p[F.green], e, scale);
      out.b[i] = RGBEChannel(p[F.blue], e, scale);
    }
  } else if constexpr (F.grey) {
    const TableDecoding tables = source.Tables();
    for (int i = 0; i < n; ++i, p += F.bytes)
      out.r[i] = out.g[i] = out.b[i] = GreyLinear<S>(tables, p);
  } else if constexpr (F.colour != SampleKind::None) {
    const TableDecoding tables = source.Tables();
    for (int i = 0; i < n; ++i, p += F.bytes) {
      out.r[i] = detail::ReadSample<F.colour>(p + F.red, tables);
      out.g[i] = detail::ReadSample<F.colour>(p + F.green, tables);
      out.b[i] = detail::ReadSample<F.colour>(p + F.blue, tables);
    }
  } else {
    // No pixels to read: black, as a cursor on such a plane leaves a fresh colour.
    static_cast<void>(source);
    static_cast<void>(p);
    std::fill(out.r, out.r + n, 0.0f);
    std::fill(out.g, out.g + n, 0.0f);
    std::fill(out.b, out.b + n, 0.0f);
  }
}

// `n` pixels to their grey values.
template <EImageType S, cpu::Level L>
void DecodeGrey(const SourceDecoding& source, const unsigned char* p, int n, Planar& scratch, float* grey) {
  constexpr FormatLayout F = LayoutOf(S);
  if constexpr (F.grey && F.colour == SampleKind::Code8) {
    static_cast<void>(scratch);
    const float* table = source.greyOfCode.data();
    for (int i = 0; i < n; ++i, p += F.bytes)
      grey[i] = table[p[F.red]];
  } else if constexpr (F.grey) {
    static_cast<void>(scratch);
    const TableDecoding tables = source.Tables();
    for (int i = 0; i < n; ++i, p += F.bytes)
      grey[i] = GreyOfGrey(GreyLinear<S>(tables, p));
  } else if constexpr (F.colour == SampleKind::Code8) {
    static_assert(F.blue == 0 && F.green == 1 && F.red == 2 && (F.bytes == 3 || F.bytes == 4),
                  "the grey sum reads red, green and blue from the third, second and first byte");
    static_cast<void>(scratch);
    source.greySum8(*source.weighted8, p, F.bytes, grey, static_cast<std::size_t>(n));
  } else {
    DecodeColour<S, L>(source, p, n, scratch);
    for (int i = 0; i < n; ++i)
      grey[i] = (0.35f * scratch.r[i] + 0.5f * scratch.g[i]) + 0.15f * scratch.b[i];
  }
}

template <EImageType S>
void DecodeAlpha(const unsigned char* p, int n, float* a) {
  for (int i = 0; i < n; ++i, p += BytesPerPixel(S))
    a[i] = AlphaOf<S>(p);
}

}  // namespace imagery::convert
