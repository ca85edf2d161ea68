// The target side of conversions: what writing one target format takes (encoders of its gamma, the
// grey stretch, the shared-exponent packer), and the loops that store a chunk of planar linear values
// in the target's layout, read from pixel_format.h. Codes are those of the pixel cursors: the row
// encoders of gamma_tables.h reproduce EncodeChannel8/16, and alpha and plain values are quantised as
// detail::ScaleTo8/16 do.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include "colour/rgbe_rows.h"
#include "convert/row_converter.h"
#include "convert/source_decoding.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_format.h"

namespace imagery::convert {

// What writing one target format takes, made once per operation.
struct TargetEncoding {
  std::optional<GammaEncoder8> encode8;
  std::optional<GammaEncoder16> encode16;
  GreyStretch stretch;
  // (0, 1) not inverted, where the stretch gives every value back unchanged.
  bool identityStretch = true;
  detail::RGBERowFunction packRGBE = nullptr;

  TargetEncoding(EImageType target, GammaValue gamma, const GreyStretch& grey);

  void Stretch(float* v, int n) const {
    if (identityStretch)
      return;
    const float min = stretch.min;
    const float max = stretch.max;
    const float span = max - min;
    if (stretch.invert) {
      for (int i = 0; i < n; ++i)
        v[i] = (max - v[i]) / span;
    } else {
      for (int i = 0; i < n; ++i)
        v[i] = (v[i] - min) / span;
    }
  }
};

// Alpha codes of an opaque pixel, as the cursors quantise 1.0.
inline const unsigned char kOpaque8 = detail::ScaleTo8(1.0f);
inline const unsigned short kOpaque16 = detail::ScaleTo16(1.0f);

// --- Whole pixels as words ---------------------------------------------------------------------------

inline std::uint32_t Swap16(std::uint32_t code) {
  return ((code & 0xFFu) << 8) | (code >> 8);
}

// The little-endian word holding the stored bytes of one sample at its byte offset.
template <SampleKind K>
inline std::uint64_t SampleWord(unsigned code, int offset) {
  static_assert(K == SampleKind::Code8 || K == SampleKind::Code16);
  const std::uint64_t bytes = K == SampleKind::Code8 ? code : Swap16(code);
  return bytes << (8 * offset);
}

// The stored bytes of one 8- or 16-bit code pixel as a little-endian word.
template <EImageType D>
inline auto PixelWord(unsigned r, unsigned g, unsigned b, unsigned a) {
  constexpr FormatLayout F = LayoutOf(D);
  using Word = std::conditional_t<F.bytes <= 4, std::uint32_t, std::uint64_t>;
  std::uint64_t word =
      SampleWord<F.colour>(r, F.red) | SampleWord<F.colour>(g, F.green) | SampleWord<F.colour>(b, F.blue);
  if constexpr (F.alphaKind != SampleKind::None)
    word |= SampleWord<F.alphaKind>(a, F.alpha);
  else
    static_cast<void>(a);
  return static_cast<Word>(word);
}

// Stores the pixel of `word` with kBytes bytes, writing whole words: a pixel narrower than its word
// spills into the next pixel, which overwrites the spill, so only the last pixel of a run (`last`)
// stores its exact bytes.
template <int kBytes, class Word>
inline void StorePixel(unsigned char* q, Word word, bool last) {
  if (kBytes == static_cast<int>(sizeof word) || !last)
    std::memcpy(q, &word, sizeof word);
  else
    std::memcpy(q, &word, kBytes);
}

// --- Quantising and interleaving codes ---------------------------------------------------------------

#if defined(IMAGERY_X86_64)
// ScaleToCode on four values: the same clamps (maxps and minps keep their first operand exactly where
// the comparisons of the reference do, so NaN and -0 give 0), truncation and rounding step.
template <std::uint32_t Max>
inline __m128i ScaleToCodeFour(__m128 c) {
  const __m128 max = _mm_set1_ps(static_cast<float>(Max));
  __m128 scaled = _mm_max_ps(_mm_mul_ps(c, max), _mm_setzero_ps());
  scaled = _mm_min_ps(scaled, max);
  const __m128i whole = _mm_cvttps_epi32(scaled);
  const __m128 up = _mm_cmpge_ps(_mm_sub_ps(scaled, _mm_cvtepi32_ps(whole)), _mm_set1_ps(0.5f));
  return _mm_sub_epi32(whole, _mm_castps_si128(up));
}
#endif

// detail::ScaleTo8 or ScaleTo16 of `n` values.
template <cpu::Level L, class Code>
void ScaleRow(const float* v, Code* codes, int n) {
  int i = 0;
#if defined(IMAGERY_X86_64)
  if constexpr (kSSE2<L>) {
    for (; i + 8 <= n; i += 8) {
      if constexpr (sizeof(Code) == 1) {
        const __m128i low = ScaleToCodeFour<255>(_mm_loadu_ps(v + i));
        const __m128i high = ScaleToCodeFour<255>(_mm_loadu_ps(v + i + 4));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(codes + i),
                         _mm_packus_epi16(_mm_packs_epi32(low, high), _mm_setzero_si128()));
      } else {
        // Signed saturation would clip codes above 32767: pack them offset by 32768.
        const __m128i offset = _mm_set1_epi32(32768);
        const __m128i low = _mm_sub_epi32(ScaleToCodeFour<65535>(_mm_loadu_ps(v + i)), offset);
        const __m128i high = _mm_sub_epi32(ScaleToCodeFour<65535>(_mm_loadu_ps(v + i + 4)), offset);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + i),
                         _mm_xor_si128(_mm_packs_epi32(low, high), _mm_set1_epi16(-32768)));
      }
    }
  }
#endif
  for (; i < n; ++i) {
    if constexpr (sizeof(Code) == 1)
      codes[i] = detail::ScaleTo8(v[i]);
    else
      codes[i] = detail::ScaleTo16(v[i]);
  }
}

// Interleaves planar codes into `n` pixels of an 8- or 16-bit colour target; `a` is read only for the
// targets with alpha.
template <EImageType D, cpu::Level L, class Code>
void StorePixels(const Code* b, const Code* g, const Code* r, const Code* a, int n, unsigned char* q) {
  constexpr FormatLayout F = LayoutOf(D);
  int i = 0;
#if defined(IMAGERY_X86_64)
  if constexpr (kSSE2<L> && F.alphaKind != SampleKind::None) {
    static_assert(F.blue == 0 && F.green == F.bytes / 4 && F.red == F.bytes / 2 && F.alpha == 3 * F.bytes / 4,
                  "the interleaves below store blue, green, red, alpha in that order");
    if constexpr (F.colour == SampleKind::Code8) {
      for (; i + 16 <= n; i += 16) {
        auto load = [i](const Code* c) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i)); };
        const __m128i blue = load(b), green = load(g), red = load(r), alpha = load(a);
        const __m128i bgLow = _mm_unpacklo_epi8(blue, green), bgHigh = _mm_unpackhi_epi8(blue, green);
        const __m128i raLow = _mm_unpacklo_epi8(red, alpha), raHigh = _mm_unpackhi_epi8(red, alpha);
        __m128i* out = reinterpret_cast<__m128i*>(q + i * F.bytes);
        _mm_storeu_si128(out, _mm_unpacklo_epi16(bgLow, raLow));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(bgLow, raLow));
        _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(bgHigh, raHigh));
        _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(bgHigh, raHigh));
      }
    } else {
      // Big-endian codes: each 16-bit lane byte-swapped before interleaving.
      auto load = [](const Code* c) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c));
        return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
      };
      for (; i + 8 <= n; i += 8) {
        const __m128i blue = load(b + i), green = load(g + i), red = load(r + i), alpha = load(a + i);
        const __m128i bgLow = _mm_unpacklo_epi16(blue, green), bgHigh = _mm_unpackhi_epi16(blue, green);
        const __m128i raLow = _mm_unpacklo_epi16(red, alpha), raHigh = _mm_unpackhi_epi16(red, alpha);
        __m128i* out = reinterpret_cast<__m128i*>(q + i * F.bytes);
        _mm_storeu_si128(out, _mm_unpacklo_epi32(bgLow, raLow));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi32(bgLow, raLow));
        _mm_storeu_si128(out + 2, _mm_unpacklo_epi32(bgHigh, raHigh));
        _mm_storeu_si128(out + 3, _mm_unpackhi_epi32(bgHigh, raHigh));
      }
    }
  }
#endif
  for (; i < n; ++i) {
    unsigned char* pixel = q + i * F.bytes;
    if constexpr (F.colour == SampleKind::Code8 && F.alphaKind == SampleKind::None) {
      // Words three bytes apart would often straddle two cache lines: bytes are cheaper.
      pixel[F.blue] = static_cast<unsigned char>(b[i]);
      pixel[F.green] = static_cast<unsigned char>(g[i]);
      pixel[F.red] = static_cast<unsigned char>(r[i]);
    } else {
      StorePixel<F.bytes>(pixel, PixelWord<D>(r[i], g[i], b[i], F.alphaKind != SampleKind::None ? a[i] : 0u),
                          i + 1 == n);
    }
  }
}

// --- Chunks of linear values to the target -------------------------------------------------------------

// Grey values (already stretched) to a grey target.
template <EImageType D>
void EncodeGrey(const TargetEncoding& target, const float* v, int n, unsigned char* q) {
  constexpr FormatLayout F = LayoutOf(D);
  static_assert(F.grey && F.red == 0);
  if constexpr (F.colour == SampleKind::Code8) {
    static_assert(F.bytes == 1, "codes are encoded straight into the row");
    target.encode8->EncodeRow(v, q, static_cast<std::size_t>(n));
  } else if constexpr (F.colour == SampleKind::Code16) {
    unsigned short codes[kChunkPixels];
    target.encode16->EncodeRow(v, codes, static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
      detail::StoreStored<F.colour>(q + i * F.bytes, codes[i]);
  } else {
    static_assert(F.colour == SampleKind::Float32 && F.bytes == sizeof(float),
                  "floats are copied as they are");
    static_cast<void>(target);
    std::memcpy(q, v, static_cast<std::size_t>(n) * sizeof(float));
  }
}

// Planar colour (and alpha, for targets with alpha) to a colour target. With kGrey the three channels
// hold one value (a grey source), which is encoded once.
template <EImageType D, bool kGrey, cpu::Level L>
void EncodeColour(const TargetEncoding& target, const Planar& in, int n, unsigned char* q) {
  constexpr FormatLayout F = LayoutOf(D);
  constexpr bool kAlpha = F.alphaKind != SampleKind::None;
  const auto count = static_cast<std::size_t>(n);
  if constexpr (F.colour == SampleKind::Code8 || F.colour == SampleKind::Code16) {
    using Code = detail::StoredSample<F.colour>;
    Code r[kChunkPixels], g[kChunkPixels], b[kChunkPixels], a[kChunkPixels];
    const auto& encoder = [&target]() -> const auto& {
      if constexpr (F.colour == SampleKind::Code8)
        return *target.encode8;
      else
        return *target.encode16;
    }
    ();
    encoder.EncodeRow(in.r, r, count);
    if constexpr (!kGrey) {
      encoder.EncodeRow(in.g, g, count);
      encoder.EncodeRow(in.b, b, count);
    }
    if constexpr (kAlpha)
      ScaleRow<L>(in.a, a, n);
    StorePixels<D, L>(kGrey ? r : b, kGrey ? r : g, r, a, n, q);
  } else if constexpr (F.colour == SampleKind::Float32) {
    static_cast<void>(target);
    for (int i = 0; i < n; ++i, q += F.bytes) {
      detail::StoreFloat(q + F.blue, in.b[i]);
      detail::StoreFloat(q + F.green, in.g[i]);
      detail::StoreFloat(q + F.red, in.r[i]);
      if constexpr (kAlpha)
        detail::StoreFloat(q + F.alpha, in.a[i]);
    }
  } else {
    static_assert(F.colour == SampleKind::SharedExponent && F.red == 0 && F.green == 1 && F.blue == 2 &&
                      F.exponent == 3 && F.alphaKind == SampleKind::Code8,
                  "the packer stores red, green, blue and the exponent in the first four bytes");
    target.packRGBE(in.r, in.g, in.b, q, F.bytes, count);
    unsigned char alpha[kChunkPixels];
    ScaleRow<L>(in.a, alpha, n);
    for (int i = 0; i < n; ++i)
      q[i * F.bytes + F.alpha] = alpha[i];
  }
}

}  // namespace imagery::convert
