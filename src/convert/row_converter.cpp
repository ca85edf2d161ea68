// Row kernels of the conversions. A row is cut into chunks; each chunk is decoded into planar linear
// floats by a loop fixed for the source format, then encoded by a loop fixed for the target layout,
// through the row encoders of gamma_tables.h. Sources whose values are codes (8- and 16-bit channels,
// RG grey) skip the floats when the target is a code too: every code maps to one result, so a table of
// results per code gives the same values with one lookup per channel. 8-bit grey goes further: its
// 256 codes are converted once into whole result pixels, which rows then copy.
//
// Every value is the one the pixel cursors give: the tables and encoders of gamma_tables.h reproduce
// DecodeChannel8/16 and EncodeChannel8/16 bit for bit, and the arithmetic below is written in the
// order of the reference definitions.
#include "convert/row_converter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

#include "imagery/colour_spaces.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_access.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define IMAGERY_CONVERT_SSE2 1
#endif

namespace imagery::convert {

namespace {

constexpr int kChunk = 128;

using detail::LoadBE16;
using detail::LoadFloat;
using detail::StoreBE16;
using detail::StoreFloat;

// --- Formats and layouts ---------------------------------------------------------------------------

constexpr bool IsGreyLayout(Layout d) {
  return d == Layout::Grey8 || d == Layout::Grey16 || d == Layout::Grey32f;
}
constexpr bool HasAlphaLayout(Layout d) {
  return d == Layout::RGBA8 || d == Layout::RGBA16 || d == Layout::RGBA32f || d == Layout::RGBEA;
}
constexpr bool Is8BitCodeLayout(Layout d) {
  return d == Layout::Grey8 || d == Layout::RGB8 || d == Layout::RGBA8;
}
constexpr bool Is16BitCodeLayout(Layout d) {
  return d == Layout::Grey16 || d == Layout::RGB16 || d == Layout::RGBA16;
}
constexpr int BytesOf(Layout d) {
  return BytesPerPixel(TypeOf(d));
}

// Formats whose channels are codes with one linear value each.
constexpr bool IsCoded(EImageType s) {
  return IsGammaEncoded(s) || IsRGEncoded(s);
}
constexpr bool Has8BitCodes(EImageType s) {
  return s == IT_RGB8 || s == IT_RGBA8 || s == IT_Grayscale8;
}
constexpr std::size_t CodeCount(EImageType s) {
  return Has8BitCodes(s) ? 256 : 65536;
}

// Code-to-result tables: colour codes to colour codes per channel; grey codes to any code layout
// (stretched grey for the grey layouts, the value itself in every channel for the colour layouts), to
// floats and to the four shared-exponent bytes of the value in every channel.
template <EImageType S, Layout D>
constexpr bool kTableKernel = IsCoded(S) && (D == Layout::RGB8 || D == Layout::RGBA8 || D == Layout::RGB16 ||
                                             D == Layout::RGBA16 ||
                                             (IsGrayscale(S) && (IsGreyLayout(D) || D == Layout::RGBEA)));

// RGBECLR::ToFloat by a table of the scale of each exponent byte: 2^(e - 128) / 255 as that computes it,
// and 0 for e = 0, where every channel is 0. The largest exponent reads zero mantissas as 0.
const std::array<float, 256> kRGBEScales = [] {
  std::array<float, 256> scales{};
  for (unsigned e = 1; e < 256; ++e) {
    const std::uint32_t bits = e == 1 ? 0x00400000u : (e - 1) << 23;
    float power;
    std::memcpy(&power, &bits, sizeof power);
    scales[e] = power * kInv255;
  }
  return scales;
}();

inline float RGBEChannel(unsigned mantissa, unsigned e, float scale) {
  const float value = (static_cast<float>(mantissa) + 0.5f) * scale;
  return e == 0xFF && mantissa == 0 ? 0.0f : value;
}

#if defined(IMAGERY_CONVERT_SSE2)
// Four shared-exponent pixels (`p` at the first, five bytes each) decoded as kRGBEScales and RGBEChannel
// do: the scale is the same product of the exponent's power of two and 1/255, a zero scale for e = 0.
inline void DecodeRGBEFour(const unsigned char* p, float* r, float* g, float* b) {
  std::uint32_t w[4];
  for (int k = 0; k < 4; ++k)
    std::memcpy(&w[k], p + 5 * k, 4);
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

inline float GreyOfGrey(float v) {
  return (0.35f * v + 0.5f * v) + 0.15f * v;
}

// Alpha codes of an opaque pixel, as the cursors quantise 1.0.
const unsigned char kOpaque8 = detail::ScaleTo8(1.0f);
const unsigned short kOpaque16 = detail::ScaleTo16(1.0f);

// --- Storing whole pixels ------------------------------------------------------------------------------

inline std::uint32_t Swap16(std::uint32_t code) {
  return ((code & 0xFFu) << 8) | (code >> 8);
}

// One pixel of 8-bit codes in memory order blue, green, red (and alpha) as a little-endian word.
inline std::uint32_t Word8(unsigned b, unsigned g, unsigned r, unsigned a = 0) {
  return b | g << 8 | r << 16 | a << 24;
}
// One pixel of big-endian 16-bit codes in memory order blue, green, red (and alpha) as a
// little-endian double word.
inline std::uint64_t Word16(unsigned b, unsigned g, unsigned r, unsigned a = 0) {
  return static_cast<std::uint64_t>(Swap16(b) | Swap16(g) << 16) |
         static_cast<std::uint64_t>(Swap16(r) | Swap16(a) << 16) << 32;
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

#if defined(IMAGERY_CONVERT_SSE2)
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

// ScaleTo8 or ScaleTo16 of `n` values.
template <class Code>
void ScaleRow(const float* v, Code* codes, int n) {
  int i = 0;
#if defined(IMAGERY_CONVERT_SSE2)
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
#endif
  for (; i < n; ++i) {
    if constexpr (sizeof(Code) == 1)
      codes[i] = detail::ScaleTo8(v[i]);
    else
      codes[i] = detail::ScaleTo16(v[i]);
  }
}

// Interleaves planar codes into `n` pixels of an 8- or 16-bit colour layout; `a` is read only for the
// layouts with alpha.
template <Layout D, class Code>
void StorePixels(const Code* b, const Code* g, const Code* r, const Code* a, int n, unsigned char* q) {
  constexpr int kStep = BytesOf(D);
  int i = 0;
#if defined(IMAGERY_CONVERT_SSE2)
  if constexpr (D == Layout::RGBA8) {
    for (; i + 16 <= n; i += 16) {
      auto load = [i](const Code* c) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i)); };
      const __m128i blue = load(b), green = load(g), red = load(r), alpha = load(a);
      const __m128i bgLow = _mm_unpacklo_epi8(blue, green), bgHigh = _mm_unpackhi_epi8(blue, green);
      const __m128i raLow = _mm_unpacklo_epi8(red, alpha), raHigh = _mm_unpackhi_epi8(red, alpha);
      __m128i* out = reinterpret_cast<__m128i*>(q + i * kStep);
      _mm_storeu_si128(out, _mm_unpacklo_epi16(bgLow, raLow));
      _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(bgLow, raLow));
      _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(bgHigh, raHigh));
      _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(bgHigh, raHigh));
    }
  } else if constexpr (D == Layout::RGBA16) {
    auto load = [](const Code* c) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c));
      return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
    };
    for (; i + 8 <= n; i += 8) {
      const __m128i blue = load(b + i), green = load(g + i), red = load(r + i), alpha = load(a + i);
      const __m128i bgLow = _mm_unpacklo_epi16(blue, green), bgHigh = _mm_unpackhi_epi16(blue, green);
      const __m128i raLow = _mm_unpacklo_epi16(red, alpha), raHigh = _mm_unpackhi_epi16(red, alpha);
      __m128i* out = reinterpret_cast<__m128i*>(q + i * kStep);
      _mm_storeu_si128(out, _mm_unpacklo_epi32(bgLow, raLow));
      _mm_storeu_si128(out + 1, _mm_unpackhi_epi32(bgLow, raLow));
      _mm_storeu_si128(out + 2, _mm_unpacklo_epi32(bgHigh, raHigh));
      _mm_storeu_si128(out + 3, _mm_unpackhi_epi32(bgHigh, raHigh));
    }
  }
#endif
  for (; i < n; ++i) {
    unsigned char* pixel = q + i * kStep;
    if constexpr (D == Layout::RGB8) {
      // Words three bytes apart would often straddle two cache lines: bytes are cheaper.
      pixel[0] = b[i];
      pixel[1] = g[i];
      pixel[2] = r[i];
    } else if constexpr (D == Layout::RGBA8) {
      StorePixel<kStep>(pixel, Word8(b[i], g[i], r[i], a[i]), i + 1 == n);
    } else {
      StorePixel<kStep>(pixel, Word16(b[i], g[i], r[i], HasAlphaLayout(D) ? a[i] : 0u), i + 1 == n);
    }
  }
}

}  // namespace

// --- State ------------------------------------------------------------------------------------------

struct ConverterState {
  using Kernel = void (*)(const ConverterState&, const unsigned char*, unsigned char*, int);
  using ScanKernel = void (*)(const ConverterState&, const unsigned char*, int, float&, float&);

  std::optional<GammaDecodeTable8> decode8;
  std::optional<GammaDecodeTable16> decode16;
  std::optional<GammaEncoder8> encode8;
  std::optional<GammaEncoder16> encode16;
  GreyStretch stretch;
  // (0, 1) not inverted, where the stretch gives every value back unchanged.
  bool identityStretch = true;
  std::vector<unsigned char> table8;
  std::vector<unsigned short> table16;
  std::vector<float> tableFloat;
  std::vector<std::uint32_t> tableRGBE;  // the four bytes in memory order
  std::vector<unsigned char> pixels;     // 8-bit grey: the converted pixel of each code
  // 8-bit colour: 0.35, 0.5 and 0.15 times the linear value of each code, one run of 256 each.
  std::vector<float> weighted8;
  // Code-to-code conversions from formats with stored alpha codes to layouts with alpha: the alpha code
  // stored for each.
  std::vector<unsigned short> alphaCodes;
  // The grey value of each code: always for 8-bit grey, and for the other grey code sources whose range
  // scan reads it.
  std::vector<float> greyOfCode;
  // 8-bit colour to shared exponent, where the linear values never decrease with the code (so the
  // largest code of a pixel holds its largest channel): the mantissa byte of every code under every
  // largest code (a run of 256 per largest code), the exponent byte of each largest code, and the
  // alpha byte of each stored alpha code.
  std::vector<unsigned char> rgbeMantissas8;
  std::array<unsigned char, 256> rgbeExponents8{};
  std::array<unsigned char, 256> alpha8{};
  Kernel kernel = nullptr;
  ScanKernel scan = nullptr;

  void SetDecoders(EImageType s, GammaValue gamma) {
    if (Has8BitCodes(s) && IsGammaEncoded(s))
      decode8.emplace(gamma);
    else if (Is16Bit(s))
      decode16.emplace(gamma);
    if (s == IT_Grayscale8) {
      greyOfCode.resize(256);
      for (int v = 0; v < 256; ++v)
        greyOfCode[v] = GreyOfGrey((*decode8)(static_cast<unsigned char>(v)));
    }
    if (s == IT_RGB8 || s == IT_RGBA8) {
      // The three products of the grey sum per code: the same floats the sum would multiply out.
      weighted8.resize(3 * 256);
      for (int v = 0; v < 256; ++v) {
        const float linear = (*decode8)(static_cast<unsigned char>(v));
        weighted8[v] = 0.35f * linear;
        weighted8[256 + v] = 0.5f * linear;
        weighted8[512 + v] = 0.15f * linear;
      }
    }
  }

  void SetStretch(const GreyStretch& s) {
    stretch = s;
    identityStretch = !s.invert && s.min == 0.0f && !std::signbit(s.min) && s.max == 1.0f;
  }

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

namespace {

struct Planar {
  float r[kChunk];
  float g[kChunk];
  float b[kChunk];
  float a[kChunk];
};

// --- Source side -------------------------------------------------------------------------------------

// The code of a grey pixel.
template <EImageType S>
inline unsigned GreyCode(const unsigned char* p) {
  if constexpr (S == IT_Grayscale8) {
    return p[0];
  } else if constexpr (S == IT_Grayscale16) {
    return LoadBE16(p);
  } else {
    static_assert(IsRGEncoded(S));
    return static_cast<unsigned>(p[2] << 8 | p[1]);
  }
}

// The linear value of every code of a coded format, indexed by code.
template <EImageType S>
std::vector<float> LinearOfCodes(const ConverterState& state) {
  std::vector<float> linear(CodeCount(S));
  if constexpr (Has8BitCodes(S)) {
    std::copy(state.decode8->Data(), state.decode8->Data() + 256, linear.begin());
  } else if constexpr (Is16Bit(S)) {
    std::copy(state.decode16->Data(), state.decode16->Data() + 65536, linear.begin());
  } else {
    for (std::size_t code = 0; code < linear.size(); ++code)
      linear[code] = static_cast<float>(code) * kInv65535;
  }
  return linear;
}

template <EImageType S>
inline float GreyLinear(const ConverterState& state, const unsigned char* p) {
  if constexpr (S == IT_Grayscale8) {
    return (*state.decode8)(p[0]);
  } else if constexpr (S == IT_Grayscale16) {
    return (*state.decode16)(LoadBE16(p));
  } else if constexpr (S == IT_Grayscale32f) {
    return LoadFloat(p);
  } else {
    return static_cast<float>(GreyCode<S>(p)) * kInv65535;
  }
}

template <EImageType S>
void DecodeColour(const ConverterState& state, const unsigned char* p, int n, Planar& out) {
  constexpr int kStep = BytesPerPixel(S);
  if constexpr (S == IT_RGB8 || S == IT_RGBA8) {
    const float* t = state.decode8->Data();
    for (int i = 0; i < n; ++i, p += kStep) {
      out.r[i] = t[p[2]];
      out.g[i] = t[p[1]];
      out.b[i] = t[p[0]];
    }
  } else if constexpr (S == IT_RGB16 || S == IT_RGBA16) {
    const float* t = state.decode16->Data();
    for (int i = 0; i < n; ++i, p += kStep) {
      out.r[i] = t[LoadBE16(p + 4)];
      out.g[i] = t[LoadBE16(p + 2)];
      out.b[i] = t[LoadBE16(p)];
    }
  } else if constexpr (S == IT_RGB32f || S == IT_RGBA32f) {
    for (int i = 0; i < n; ++i, p += kStep) {
      out.r[i] = LoadFloat(p + 8);
      out.g[i] = LoadFloat(p + 4);
      out.b[i] = LoadFloat(p);
    }
  } else if constexpr (S == IT_RGBEA) {
    static_cast<void>(state);
    int i = 0;
#if defined(IMAGERY_CONVERT_SSE2)
    for (; i + 4 <= n; i += 4, p += 4 * kStep)
      DecodeRGBEFour(p, out.r + i, out.g + i, out.b + i);
#endif
    for (; i < n; ++i, p += kStep) {
      const unsigned e = p[3];
      const float scale = kRGBEScales[e];
      out.r[i] = RGBEChannel(p[0], e, scale);
      out.g[i] = RGBEChannel(p[1], e, scale);
      out.b[i] = RGBEChannel(p[2], e, scale);
    }
  } else if constexpr (IsGrayscale(S)) {
    for (int i = 0; i < n; ++i, p += kStep)
      out.r[i] = out.g[i] = out.b[i] = GreyLinear<S>(state, p);
  } else {
    // No pixels to read: black, as a cursor on such a plane leaves a fresh colour.
    static_cast<void>(state);
    static_cast<void>(p);
    std::fill(out.r, out.r + n, 0.0f);
    std::fill(out.g, out.g + n, 0.0f);
    std::fill(out.b, out.b + n, 0.0f);
  }
}

template <EImageType S>
void DecodeGrey(const ConverterState& state, const unsigned char* p, int n, Planar& scratch, float* grey) {
  if constexpr (S == IT_Grayscale8) {
    static_cast<void>(scratch);
    for (int i = 0; i < n; ++i)
      grey[i] = state.greyOfCode[p[i]];
  } else if constexpr (IsGrayscale(S)) {
    static_cast<void>(scratch);
    for (int i = 0; i < n; ++i, p += BytesPerPixel(S))
      grey[i] = GreyOfGrey(GreyLinear<S>(state, p));
  } else if constexpr (S == IT_RGB8 || S == IT_RGBA8) {
    static_cast<void>(scratch);
    const float* w = state.weighted8.data();
    for (int i = 0; i < n; ++i, p += BytesPerPixel(S))
      grey[i] = (w[p[2]] + w[256 + p[1]]) + w[512 + p[0]];
  } else {
    DecodeColour<S>(state, p, n, scratch);
    for (int i = 0; i < n; ++i)
      grey[i] = (0.35f * scratch.r[i] + 0.5f * scratch.g[i]) + 0.15f * scratch.b[i];
  }
}

// The stored alpha, never gamma converted; formats without alpha read 1.
template <EImageType S>
inline float AlphaOf(const unsigned char* p) {
  if constexpr (S == IT_RGBA8) {
    return static_cast<float>(p[3]) * kInv255;
  } else if constexpr (S == IT_RGBEA) {
    return static_cast<float>(p[4]) * kInv255;
  } else if constexpr (S == IT_RGBA16) {
    return static_cast<float>(LoadBE16(p + 6)) * kInv65535;
  } else if constexpr (S == IT_RGBA32f) {
    return LoadFloat(p + 12);
  } else {
    static_cast<void>(p);
    return 1.0f;
  }
}

template <EImageType S>
void DecodeAlpha(const unsigned char* p, int n, float* a) {
  for (int i = 0; i < n; ++i, p += BytesPerPixel(S))
    a[i] = AlphaOf<S>(p);
}

// --- Target side ---------------------------------------------------------------------------------------

template <Layout D>
void EncodeGrey(const ConverterState& state, const float* v, int n, unsigned char* q) {
  if constexpr (D == Layout::Grey8) {
    state.encode8->EncodeRow(v, q, static_cast<std::size_t>(n));
  } else if constexpr (D == Layout::Grey16) {
    unsigned short codes[kChunk];
    state.encode16->EncodeRow(v, codes, static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
      StoreBE16(q + 2 * i, codes[i]);
  } else {
    static_assert(D == Layout::Grey32f);
    static_cast<void>(state);
    std::memcpy(q, v, static_cast<std::size_t>(n) * sizeof(float));
  }
}

// With kGrey the three channels hold one value (a grey source), which is encoded once.
template <Layout D, bool kGrey>
void EncodeColour(const ConverterState& state, const Planar& in, int n, unsigned char* q) {
  constexpr int kStep = BytesOf(D);
  const auto count = static_cast<std::size_t>(n);
  if constexpr (D == Layout::RGB8 || D == Layout::RGBA8 || D == Layout::RGB16 || D == Layout::RGBA16) {
    using Code = std::conditional_t<Is8BitCodeLayout(D), unsigned char, unsigned short>;
    Code r[kChunk], g[kChunk], b[kChunk], a[kChunk];
    const auto& encoder = [&state]() -> const auto& {
      if constexpr (Is8BitCodeLayout(D))
        return *state.encode8;
      else
        return *state.encode16;
    }
    ();
    encoder.EncodeRow(in.r, r, count);
    if constexpr (!kGrey) {
      encoder.EncodeRow(in.g, g, count);
      encoder.EncodeRow(in.b, b, count);
    }
    if constexpr (HasAlphaLayout(D))
      ScaleRow(in.a, a, n);
    StorePixels<D>(kGrey ? r : b, kGrey ? r : g, r, a, n, q);
  } else if constexpr (D == Layout::RGB32f || D == Layout::RGBA32f) {
    static_cast<void>(state);
    for (int i = 0; i < n; ++i, q += kStep) {
      StoreFloat(q, in.b[i]);
      StoreFloat(q + 4, in.g[i]);
      StoreFloat(q + 8, in.r[i]);
      if constexpr (D == Layout::RGBA32f)
        StoreFloat(q + 12, in.a[i]);
    }
  } else {
    static_assert(D == Layout::RGBEA);
    static_cast<void>(state);
    PackRGBERow(in.r, in.g, in.b, q, kStep, count);
    unsigned char alpha[kChunk];
    ScaleRow(in.a, alpha, n);
    for (int i = 0; i < n; ++i)
      q[i * kStep + 4] = alpha[i];
  }
}

// --- Kernels -------------------------------------------------------------------------------------------

template <EImageType S, Layout D>
void ConvertThroughFloats(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  Planar planar;
  for (int done = 0; done < count; done += kChunk) {
    const int n = std::min(kChunk, count - done);
    if constexpr (IsGreyLayout(D)) {
      float grey[kChunk];
      DecodeGrey<S>(state, p, n, planar, grey);
      state.Stretch(grey, n);
      EncodeGrey<D>(state, grey, n, q);
    } else {
      DecodeColour<S>(state, p, n, planar);
      if constexpr (HasAlphaLayout(D))
        DecodeAlpha<S>(p, n, planar.a);
      EncodeColour<D, IsGrayscale(S)>(state, planar, n, q);
    }
    p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
    q += static_cast<std::ptrdiff_t>(n) * BytesOf(D);
  }
}

template <Layout D>
inline void StoreCode(unsigned char* q, unsigned code) {
  if constexpr (Is8BitCodeLayout(D)) {
    *q = static_cast<unsigned char>(code);
  } else {
    StoreBE16(q, static_cast<unsigned short>(code));
  }
}

template <EImageType S, Layout D>
void ConvertByTable(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  constexpr int kIn = BytesPerPixel(S);
  constexpr int kOut = BytesOf(D);
  constexpr int kChannelBytes = Is8BitCodeLayout(D) ? 1 : 2;
  if constexpr (D == Layout::Grey32f) {
    const float* table = state.tableFloat.data();
    for (int i = 0; i < count; ++i, p += kIn, q += kOut)
      StoreFloat(q, table[GreyCode<S>(p)]);
    return;
  } else if constexpr (D == Layout::RGBEA) {
    const std::uint32_t* table = state.tableRGBE.data();
    for (int i = 0; i < count; ++i, p += kIn, q += kOut) {
      std::memcpy(q, &table[GreyCode<S>(p)], 4);
      q[4] = HasAlpha(S) ? detail::ScaleTo8(AlphaOf<S>(p)) : kOpaque8;
    }
    return;
  } else {
    using Code = std::conditional_t<Is8BitCodeLayout(D), unsigned char, unsigned short>;
    const Code* table;
    if constexpr (Is8BitCodeLayout(D)) {
      table = state.table8.data();
    } else {
      table = state.table16.data();
    }
    for (int i = 0; i < count; ++i, p += kIn, q += kOut) {
      if constexpr (IsGrayscale(S)) {
        const unsigned code = table[GreyCode<S>(p)];
        StoreCode<D>(q, code);
        if constexpr (!IsGreyLayout(D)) {
          StoreCode<D>(q + kChannelBytes, code);
          StoreCode<D>(q + 2 * kChannelBytes, code);
        }
      } else if constexpr (Has8BitCodes(S)) {
        StoreCode<D>(q, table[p[0]]);
        StoreCode<D>(q + kChannelBytes, table[p[1]]);
        StoreCode<D>(q + 2 * kChannelBytes, table[p[2]]);
      } else {
        StoreCode<D>(q, table[LoadBE16(p)]);
        StoreCode<D>(q + kChannelBytes, table[LoadBE16(p + 2)]);
        StoreCode<D>(q + 2 * kChannelBytes, table[LoadBE16(p + 4)]);
      }
      if constexpr (D == Layout::RGBA8 || D == Layout::RGBA16) {
        unsigned a;
        if constexpr (S == IT_RGBA8)
          a = state.alphaCodes[p[3]];
        else if constexpr (S == IT_RGBA16)
          a = state.alphaCodes[LoadBE16(p + 6)];
        else if constexpr (D == Layout::RGBA8)
          a = HasAlpha(S) ? detail::ScaleTo8(AlphaOf<S>(p)) : kOpaque8;
        else
          a = HasAlpha(S) ? detail::ScaleTo16(AlphaOf<S>(p)) : kOpaque16;
        StoreCode<D>(q + 3 * kChannelBytes, a);
      }
    }
  }
}

// The alpha code of the layout for every stored alpha code of the source, as AlphaOf reads it.
template <EImageType S, Layout D>
void BuildAlphaTable(ConverterState& state) {
  if constexpr ((S == IT_RGBA8 || S == IT_RGBA16) && (D == Layout::RGBA8 || D == Layout::RGBA16)) {
    state.alphaCodes.resize(CodeCount(S));
    for (std::size_t code = 0; code < state.alphaCodes.size(); ++code) {
      const float a = static_cast<float>(code) * (S == IT_RGBA8 ? kInv255 : kInv65535);
      state.alphaCodes[code] = D == Layout::RGBA8 ? detail::ScaleTo8(a) : detail::ScaleTo16(a);
    }
  } else {
    static_cast<void>(state);
  }
}

// FromFloat sets every mantissa from its own channel and the largest one alone, and the exponent from
// the largest alone: tables by code give the same bytes wherever the largest code holds the largest
// value.
template <EImageType S>
void ConvertRGBEByCodes(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  constexpr int kIn = BytesPerPixel(S);
  const unsigned char* mantissas = state.rgbeMantissas8.data();
  for (int i = 0; i < count; ++i, p += kIn, q += 5) {
    const unsigned b = p[0];
    const unsigned g = p[1];
    const unsigned r = p[2];
    const unsigned top = std::max(std::max(b, g), r);
    const unsigned char* run = mantissas + top * 256;
    const unsigned alpha = S == IT_RGBA8 ? state.alpha8[p[3]] : kOpaque8;
    const std::uint64_t word = run[r] | run[g] << 8 | run[b] << 16 |
                               static_cast<std::uint32_t>(state.rgbeExponents8[top]) << 24 |
                               static_cast<std::uint64_t>(alpha) << 32;
    StorePixel<5>(q, word, i + 1 == count);
  }
}

// False, leaving the tables empty, where a larger code decodes to a smaller value (or to NaN).
bool BuildRGBETables8(ConverterState& state) {
  const float* linear = state.decode8->Data();
  for (int v = 1; v < 256; ++v) {
    if (!(linear[v] >= linear[v - 1]))
      return false;
  }
  state.rgbeMantissas8.assign(256 * 256, 0);
  for (int top = 0; top < 256; ++top) {
    for (int v = 0; v <= top; ++v) {
      RGBECLR packed;
      packed.FromFloat({linear[v], linear[top], linear[top]});
      state.rgbeMantissas8[static_cast<std::size_t>(top) * 256 + static_cast<std::size_t>(v)] = packed.r;
      state.rgbeExponents8[static_cast<std::size_t>(top)] = packed.e;
    }
    state.alpha8[static_cast<std::size_t>(top)] = detail::ScaleTo8(static_cast<float>(top) * kInv255);
  }
  return true;
}

template <Layout D>
void ConvertByPixels(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  constexpr std::size_t kOut = BytesOf(D);
  const unsigned char* pixels = state.pixels.data();
  for (int i = 0; i < count; ++i, q += kOut)
    std::memcpy(q, pixels + p[i] * kOut, kOut);
}

template <EImageType S, Layout D>
void BuildTable(ConverterState& state) {
  std::vector<float> linear = LinearOfCodes<S>(state);
  if constexpr (IsGreyLayout(D)) {
    for (float& v : linear)
      v = GreyOfGrey(v);
    state.Stretch(linear.data(), static_cast<int>(linear.size()));
  }
  if constexpr (D == Layout::Grey32f) {
    state.tableFloat = std::move(linear);
  } else if constexpr (D == Layout::RGBEA) {
    state.tableRGBE.resize(linear.size());
    for (std::size_t code = 0; code < linear.size(); ++code) {
      RGBECLR packed;
      packed.FromFloat({linear[code], linear[code], linear[code]});
      std::memcpy(&state.tableRGBE[code], &packed, 4);
    }
  } else if constexpr (Is8BitCodeLayout(D)) {
    state.table8.resize(linear.size());
    state.encode8->EncodeRow(linear.data(), state.table8.data(), linear.size());
  } else {
    state.table16.resize(linear.size());
    state.encode16->EncodeRow(linear.data(), state.table16.data(), linear.size());
  }
}

// The running extremes of ScanGrey in several independent lanes. Folding lane by lane and then the
// lanes together gives the extremes of one pass in pixel order wherever equal values are the same bits,
// that is unless an extreme is a zero that may have either sign. Grey of codes is never -0.
struct GreyLanes {
#if defined(IMAGERY_CONVERT_SSE2)
  __m128 low[2], high[2];

  GreyLanes(float l, float h) : low{_mm_set1_ps(l), _mm_set1_ps(l)}, high{_mm_set1_ps(h), _mm_set1_ps(h)} {}

  // `n` is a multiple of 8.
  void Fold(const float* grey, int n) {
    for (int i = 0; i < n; i += 8) {
      for (int k = 0; k < 2; ++k) {
        const __m128 g = _mm_loadu_ps(grey + i + 4 * k);
        const __m128 below = _mm_cmple_ps(g, low[k]);
        low[k] = _mm_or_ps(_mm_and_ps(below, g), _mm_andnot_ps(below, low[k]));
        const __m128 above = _mm_cmpgt_ps(g, high[k]);
        high[k] = _mm_or_ps(_mm_and_ps(above, g), _mm_andnot_ps(above, high[k]));
      }
    }
  }

  void Into(float& minGrey, float& maxGrey) const {
    alignas(16) float lows[8], highs[8];
    for (int k = 0; k < 2; ++k) {
      _mm_store_ps(lows + 4 * k, low[k]);
      _mm_store_ps(highs + 4 * k, high[k]);
    }
    for (int i = 0; i < 8; ++i) {
      minGrey = lows[i] <= minGrey ? lows[i] : minGrey;
      maxGrey = highs[i] > maxGrey ? highs[i] : maxGrey;
    }
  }
#else
  float low[8], high[8];

  GreyLanes(float l, float h) {
    std::fill(low, low + 8, l);
    std::fill(high, high + 8, h);
  }

  void Fold(const float* grey, int n) {
    for (int i = 0; i < n; i += 8) {
      for (int k = 0; k < 8; ++k) {
        low[k] = grey[i + k] <= low[k] ? grey[i + k] : low[k];
        high[k] = grey[i + k] > high[k] ? grey[i + k] : high[k];
      }
    }
  }

  void Into(float& minGrey, float& maxGrey) const {
    for (int i = 0; i < 8; ++i) {
      minGrey = low[i] <= minGrey ? low[i] : minGrey;
      maxGrey = high[i] > maxGrey ? high[i] : maxGrey;
    }
  }
#endif
};

template <EImageType S>
void ScanGrey(const ConverterState& state, const unsigned char* p, int count, float& minGrey,
              float& maxGrey) {
  Planar planar;
  float grey[kChunk];
  float low = minGrey;
  float high = maxGrey;
  GreyLanes lanes(low, high);
  const unsigned char* const first = p;
  for (int done = 0; done < count; done += kChunk) {
    const int n = std::min(kChunk, count - done);
    DecodeGrey<S>(state, p, n, planar, grey);
    const int lanesEnd = n / 8 * 8;
    lanes.Fold(grey, lanesEnd);
    for (int i = lanesEnd; i < n; ++i) {
      low = grey[i] <= low ? grey[i] : low;
      high = grey[i] > high ? grey[i] : high;
    }
    p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
  }
  lanes.Into(low, high);
  if (!IsCoded(S) && (low == 0.0f || high == 0.0f)) {
    // Which zero a single pass keeps depends on the order: take the pixels one by one.
    low = minGrey;
    high = maxGrey;
    p = first;
    for (int done = 0; done < count; done += kChunk) {
      const int n = std::min(kChunk, count - done);
      DecodeGrey<S>(state, p, n, planar, grey);
      for (int i = 0; i < n; ++i) {
        low = grey[i] <= low ? grey[i] : low;
        high = grey[i] > high ? grey[i] : high;
      }
      p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
    }
  }
  minGrey = low;
  maxGrey = high;
}

// Whether every value is at least the one before, none NaN or -0: then the extremes of the values of
// some codes are the values of the extreme codes, with the bits a fold in any order keeps.
bool NeverDecreases(const std::vector<float>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (std::isnan(values[i]) || (values[i] == 0.0f && std::signbit(values[i])) ||
        (i > 0 && values[i] < values[i - 1]))
      return false;
  }
  return true;
}

// The smallest and largest grey code of `count` pixels.
template <EImageType S>
void CodeRange(const unsigned char* p, int count, unsigned& low, unsigned& high) {
  int i = 0;
#if defined(IMAGERY_CONVERT_SSE2)
  if constexpr (S == IT_Grayscale8) {
    __m128i lows = _mm_set1_epi8(static_cast<char>(0xFF));
    __m128i highs = _mm_setzero_si128();
    for (; i + 16 <= count; i += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
      lows = _mm_min_epu8(lows, v);
      highs = _mm_max_epu8(highs, v);
    }
    alignas(16) unsigned char l[16], h[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), lows);
    _mm_store_si128(reinterpret_cast<__m128i*>(h), highs);
    for (int k = 0; k < 16; ++k) {
      low = std::min<unsigned>(low, l[k]);
      high = std::max<unsigned>(high, h[k]);
    }
  } else if constexpr (S == IT_Grayscale16) {
    // Codes offset by 32768 compare as signed 16-bit values.
    const __m128i offset = _mm_set1_epi16(-32768);
    __m128i lows = _mm_set1_epi16(32767);
    __m128i highs = _mm_set1_epi16(-32768);
    for (; i + 8 <= count; i += 8) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2 * i));
      const __m128i codes = _mm_xor_si128(_mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)), offset);
      lows = _mm_min_epi16(lows, codes);
      highs = _mm_max_epi16(highs, codes);
    }
    alignas(16) std::uint16_t l[8], h[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), _mm_xor_si128(lows, offset));
    _mm_store_si128(reinterpret_cast<__m128i*>(h), _mm_xor_si128(highs, offset));
    for (int k = 0; k < 8; ++k) {
      low = std::min<unsigned>(low, l[k]);
      high = std::max<unsigned>(high, h[k]);
    }
  }
#endif
  for (p += static_cast<std::ptrdiff_t>(i) * BytesPerPixel(S); i < count; ++i, p += BytesPerPixel(S)) {
    const unsigned code = GreyCode<S>(p);
    low = std::min(low, code);
    high = std::max(high, code);
  }
}

// ScanGrey where grey never decreases with the code: the extremes are the grey of the extreme codes.
template <EImageType S>
void ScanGreyCodes(const ConverterState& state, const unsigned char* p, int count, float& minGrey,
                   float& maxGrey) {
  unsigned low = std::numeric_limits<unsigned>::max();
  unsigned high = 0;
  CodeRange<S>(p, count, low, high);
  const float lowest = state.greyOfCode[low];
  const float highest = state.greyOfCode[high];
  minGrey = lowest <= minGrey ? lowest : minGrey;
  maxGrey = highest > maxGrey ? highest : maxGrey;
}

// Calls f(std::integral_constant<Layout, D>{}) for the layout `d`.
template <class F>
decltype(auto) DispatchLayout(Layout d, F&& f) {
  switch (d) {
    case Layout::Grey8:
      return f(std::integral_constant<Layout, Layout::Grey8>{});
    case Layout::Grey16:
      return f(std::integral_constant<Layout, Layout::Grey16>{});
    case Layout::Grey32f:
      return f(std::integral_constant<Layout, Layout::Grey32f>{});
    case Layout::RGB8:
      return f(std::integral_constant<Layout, Layout::RGB8>{});
    case Layout::RGBA8:
      return f(std::integral_constant<Layout, Layout::RGBA8>{});
    case Layout::RGB16:
      return f(std::integral_constant<Layout, Layout::RGB16>{});
    case Layout::RGBA16:
      return f(std::integral_constant<Layout, Layout::RGBA16>{});
    case Layout::RGB32f:
      return f(std::integral_constant<Layout, Layout::RGB32f>{});
    case Layout::RGBA32f:
      return f(std::integral_constant<Layout, Layout::RGBA32f>{});
    case Layout::RGBEA:
      break;
  }
  return f(std::integral_constant<Layout, Layout::RGBEA>{});
}

}  // namespace

// --- RowConverter -----------------------------------------------------------------------------------------

RowConverter::RowConverter(EImageType sourceType, GammaValue sourceGamma, Layout target,
                           GammaValue targetGamma, const GreyStretch& stretch, std::int64_t pixelCount)
    : state_(std::make_unique<ConverterState>()) {
  ConverterState& state = *state_;
  state.SetDecoders(sourceType, sourceGamma);
  state.SetStretch(stretch);
  if (Is8BitCodeLayout(target)) {
    state.encode8.emplace(targetGamma, PowerPrecision::Single);
  } else if (target == Layout::Grey16) {
    state.encode16.emplace(targetGamma, PowerPrecision::Double);
  } else if (Is16BitCodeLayout(target)) {
    state.encode16.emplace(targetGamma, PowerPrecision::Single);
  }
  state.kernel = DispatchImageType(sourceType, [&](auto s) {
    return DispatchLayout(target, [&](auto d) -> ConverterState::Kernel {
      constexpr EImageType S = decltype(s)::value;
      constexpr Layout D = decltype(d)::value;
      ConverterState::Kernel kernel = &ConvertThroughFloats<S, D>;
      if constexpr (kTableKernel<S, D>) {
        // A 16-bit table costs about as much as encoding 65536 values directly.
        const std::int64_t values = pixelCount * (IsGrayscale(S) ? 1 : 3);
        if (Has8BitCodes(S) || values >= static_cast<std::int64_t>(CodeCount(S))) {
          BuildTable<S, D>(state);
          BuildAlphaTable<S, D>(state);
          kernel = &ConvertByTable<S, D>;
        }
      }
      if constexpr ((S == IT_RGB8 || S == IT_RGBA8) && D == Layout::RGBEA) {
        // 65536 mantissas cost about as much as packing as many pixels directly.
        if (pixelCount >= 65536 && BuildRGBETables8(state))
          kernel = &ConvertRGBEByCodes<S>;
      }
      if constexpr (S == IT_Grayscale8) {
        // Every result pixel is one of 256: convert each code once and copy pixels.
        unsigned char codes[256];
        for (int code = 0; code < 256; ++code)
          codes[code] = static_cast<unsigned char>(code);
        state.pixels.resize(256 * static_cast<std::size_t>(BytesOf(D)));
        kernel(state, codes, state.pixels.data(), 256);
        kernel = &ConvertByPixels<D>;
      }
      return kernel;
    });
  });
}

RowConverter::~RowConverter() = default;

void RowConverter::Convert(const unsigned char* source, unsigned char* target, int count) const {
  if (count > 0)
    state_->kernel(*state_, source, target, count);
}

// --- GreyRangeScanner -------------------------------------------------------------------------------------

GreyRangeScanner::GreyRangeScanner(EImageType type, GammaValue gamma, std::int64_t pixelCount)
    : state_(std::make_unique<ConverterState>()) {
  ConverterState& state = *state_;
  state.SetDecoders(type, gamma);
  state.scan = DispatchImageType(type, [&](auto s) -> ConverterState::ScanKernel {
    constexpr EImageType S = decltype(s)::value;
    if constexpr (IsGrayscale(S) && IsCoded(S)) {
      if (S == IT_Grayscale8 || pixelCount >= 65536) {
        if (state.greyOfCode.empty()) {
          state.greyOfCode = LinearOfCodes<S>(state);
          for (float& v : state.greyOfCode)
            v = GreyOfGrey(v);
        }
        if (NeverDecreases(state.greyOfCode))
          return &ScanGreyCodes<S>;
      }
    }
    return &ScanGrey<S>;
  });
}

GreyRangeScanner::~GreyRangeScanner() = default;

void GreyRangeScanner::Scan(const unsigned char* pixels, int count, float& minGrey, float& maxGrey) const {
  if (count > 0)
    state_->scan(*state_, pixels, count, minGrey, maxGrey);
}

// --- RowReencoder -----------------------------------------------------------------------------------------

struct RowReencoder::State {
  EImageType type = IT_UNDEFINED;
  std::vector<unsigned char> table8;
  std::vector<unsigned short> table16;
  // 16-bit images too small to pay for a table convert each value.
  std::optional<GammaDecodeTable16> decode16;
  std::optional<GammaEncoder16> encode16;

  unsigned short Map16(unsigned short code) const {
    return table16.empty() ? (*encode16)((*decode16)(code)) : table16[code];
  }
};

RowReencoder::RowReencoder(EImageType type, GammaValue from, GammaValue to, std::int64_t valueCount)
    : state_(std::make_unique<State>()) {
  State& state = *state_;
  if (!IsGammaEncoded(type))
    return;
  state.type = type;
  // Colour goes through CLRFLOATFrom and ToRGB (single-precision powers); grey through the encoding of
  // single values (double-precision powers).
  const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
  if (!Is16Bit(type)) {
    const GammaDecodeTable8 decode(from);
    const GammaEncoder8 encode(to, precision);
    state.table8.resize(256);
    encode.EncodeRow(decode.Data(), state.table8.data(), 256);
    return;
  }
  state.decode16.emplace(from);
  state.encode16.emplace(to, precision);
  if (valueCount >= 65536) {
    state.table16.resize(65536);
    state.encode16->EncodeRow(state.decode16->Data(), state.table16.data(), 65536);
  }
}

RowReencoder::~RowReencoder() = default;

void RowReencoder::Reencode(unsigned char* pixels, int count) const {
  const State& state = *state_;
  const int step = BytesPerPixel(state.type);
  switch (state.type) {
    case IT_RGB8:
    case IT_RGBA8:
      for (int i = 0; i < count; ++i, pixels += step) {
        pixels[0] = state.table8[pixels[0]];
        pixels[1] = state.table8[pixels[1]];
        pixels[2] = state.table8[pixels[2]];
      }
      break;
    case IT_Grayscale8:
      for (int i = 0; i < count; ++i)
        pixels[i] = state.table8[pixels[i]];
      break;
    case IT_RGB16:
    case IT_RGBA16:
      for (int i = 0; i < count; ++i, pixels += step) {
        StoreBE16(pixels, state.Map16(LoadBE16(pixels)));
        StoreBE16(pixels + 2, state.Map16(LoadBE16(pixels + 2)));
        StoreBE16(pixels + 4, state.Map16(LoadBE16(pixels + 4)));
      }
      break;
    case IT_Grayscale16:
      for (int i = 0; i < count; ++i, pixels += step)
        StoreBE16(pixels, state.Map16(LoadBE16(pixels)));
      break;
    default:
      break;
  }
}

}  // namespace imagery::convert
