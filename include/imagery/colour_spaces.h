// Colour spaces and colour utilities: HLS colours (HLSCLR, and HLSECLR with an intensity for colours
// brighter than white), the shared-exponent byte colour RGBECLR, black-body colours, the stream form of
// linear and HLS colours, and the derived colours of the host's interface (disabled, highlighted, more
// intense, blends and distances of byte colours).
//
// All plain value code without state, except the two interface tables that InitColors fills once; call
// it before MakeDisabledColor and MakeHighlightedColor (until then the tables hold zeros).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <glm/vec3.hpp>

#include "imagery/color.h"
#include "imagery/export.h"

class ZELStream;

namespace imagery {
class HLSECLR;
}  // namespace imagery

// An HLS colour: hue (0..1, a full turn), lightness (0..1), saturation (0..1), as three floats.
class IMAGERY_API HLSCLR {
 public:
  float h = 0.0f;
  float l = 0.0f;
  float s = 0.0f;

  HLSCLR() = default;
  HLSCLR(float hue, float lightness, float saturation) : h(hue), l(lightness), s(saturation) {}
  // RGB to HLS in single precision; grey gives hue 0 and saturation 0.
  explicit HLSCLR(const imagery::LinearRGB_T<float>& rgb);
  // Keeps hue, lightness and saturation; drops the intensity.
  explicit HLSCLR(const imagery::HLSECLR& hlse);

  // HLS to linear RGB (the same as imagery::ToCLRFLOAT).
  imagery::LinearRGB_T<float> ToRGB() const;

  // The stream form: a chunk 0x11F of three typed floats h, l, s.
  bool Write(ZELStream* stream) const;
  // Reads the next chunk (0x11F floats, 0x111 doubles or 0x112 16-bit values; see imagery::Read). On
  // false this colour is unchanged; the chunk is skipped whole in every case.
  bool Read(ZELStream* stream);

  friend bool operator==(const HLSCLR& a, const HLSCLR& b) { return a.h == b.h && a.l == b.l && a.s == b.s; }
  friend bool operator!=(const HLSCLR& a, const HLSCLR& b) { return !(a == b); }
};

// H, L and S folded into a hash that starts at 37; components equal to 0 (either sign) hash as 0.
IMAGERY_API std::uint64_t hash_value(const HLSCLR& c);

namespace imagery {

// An HLS colour with an intensity factor: colours whose largest channel m exceeds 1 are stored as the
// HLS of the colour divided by m, with e = m (1 otherwise).
class IMAGERY_API HLSECLR {
 public:
  float h = 0.0f;
  float l = 0.0f;
  float s = 0.0f;
  float e = 1.0f;

  HLSECLR() = default;
  HLSECLR(float hue, float lightness, float saturation, float intensity)
      : h(hue), l(lightness), s(saturation), e(intensity) {}
  // RGB to HLS with intensity, computed in double precision.
  explicit HLSECLR(const LinearRGB_T<float>& rgb);

  // HLS to RGB, each channel times the intensity and kept at least 0.
  LinearRGB_T<float> ToRGB() const;
};

IMAGERY_API LinearRGB_T<float> ToCLRFLOAT(const HLSCLR& c);
IMAGERY_API LinearRGB_T<float> ToCLRFLOAT(const HLSECLR& c);
// The RGB of ToCLRFLOAT as three doubles (red, green, blue).
IMAGERY_API glm::dvec3 make_vector(const HLSCLR& c);

namespace detail {
// Truncation toward zero keeping the low 8 bits; non-finite values and those beyond the int range
// give 0.
inline unsigned char TruncToByte(double x) {
  if (!(x > -2147483648.0 && x < 2147483648.0))
    return 0;
  return static_cast<unsigned char>(static_cast<int>(x));
}
}  // namespace detail

// A shared-exponent colour: red, green, blue mantissas (scaled by 255) and an exponent byte e with
// bias 128; e = 0 is black. These are the first four bytes of an IT_RGBEA pixel.
struct IMAGERY_API RGBECLR {
  unsigned char r = 0;
  unsigned char g = 0;
  unsigned char b = 0;
  unsigned char e = 0;

  RGBECLR() = default;
  RGBECLR(unsigned char red, unsigned char green, unsigned char blue, unsigned char exponent)
      : r(red), g(green), b(blue), e(exponent) {}

  // Each channel (mantissa + 0.5) x 2^(e - 128) / 255; with e = 255 a mantissa 0 stays exactly 0.
  LinearRGB_T<float> ToFloat() const {
    if (e == 0)
      return {};
    float power;
    const std::uint32_t bits = e == 1 ? 0x00400000u : static_cast<std::uint32_t>(e - 1) << 23;
    std::memcpy(&power, &bits, sizeof power);
    const float scale = power * kInv255;
    if (e == 0xFF)
      return {Channel255(r, scale), Channel255(g, scale), Channel255(b, scale)};
    return {(r + 0.5f) * scale, (g + 0.5f) * scale, (b + 0.5f) * scale};
  }

  // Packs a linear colour. The largest channel m sets the exponent (m = f x 2^n, 0.5 <= f < 1); each
  // mantissa is the channel x (f x 255 / m) truncated, in double precision. m below 1e-12 (or NaN)
  // gives four zero bytes; an infinite m gives mantissas 0xFE for the non-finite channels, 0 for the
  // others, and e = 0xFF.
  void FromFloat(const LinearRGB_T<float>& c) {
    const float m = std::max(std::max(c.r, c.g), c.b);
    const double md = m;
    if (!(md >= 1e-12)) {
      r = g = b = e = 0;
      return;
    }
    if (std::isinf(m)) {
      r = std::isfinite(c.r) ? 0 : 0xFE;
      g = std::isfinite(c.g) ? 0 : 0xFE;
      b = std::isfinite(c.b) ? 0 : 0xFE;
      e = 0xFF;
      return;
    }
    int n = 0;
    const double f = std::frexp(md, &n);
    const double scale = f * 255.0 / md;
    r = detail::TruncToByte(c.r * scale);
    g = detail::TruncToByte(c.g * scale);
    b = detail::TruncToByte(c.b * scale);
    e = static_cast<unsigned char>(n + 128);
  }

  friend bool operator==(const RGBECLR& x, const RGBECLR& y) {
    return x.r == y.r && x.g == y.g && x.b == y.b && x.e == y.e;
  }
  friend bool operator!=(const RGBECLR& x, const RGBECLR& y) { return !(x == y); }

 private:
  static float Channel255(unsigned char mantissa, float scale) {
    return mantissa == 0 ? 0.0f : (mantissa + 0.5f) * scale;
  }
};
static_assert(sizeof(RGBECLR) == 4, "RGBECLR is four bytes, red first");

// The colour of a black body at `kelvin` (clamped to 1000..10000 K), each channel in [0, 1].
IMAGERY_API LinearRGB_T<float> GetTemperatureColor(float kelvin);

// Chunk identifiers of the stream form of colours. Writers use kColorChunk; readers also accept the
// older forms.
inline constexpr unsigned short kColorChunk = 0x11F;         // three typed floats
inline constexpr unsigned short kColorChunkFloatV0 = 0x110;  // three typed floats (RGB only)
inline constexpr unsigned short kColorChunkDouble = 0x111;   // three typed doubles
inline constexpr unsigned short kColorChunkShort = 0x112;    // three typed 16-bit values
inline constexpr unsigned short kColorChunkBytes = 8;        // three raw bytes (RGB only)

// Writes a chunk 0x11F of three typed floats red, green, blue.
IMAGERY_API bool Write(const LinearRGB_T<float>& c, ZELStream* stream);
// Reads the next chunk as a linear colour: 0x11F and 0x110 three floats; 0x111 three doubles; 0x112
// three 16-bit values / 255; 8 three raw bytes / 255. Any other chunk, a wrong value tag or missing data
// gives false and leaves `c` unchanged. The chunk is skipped whole in every case. The stream is not
// marked failed: a caller may be probing for an optional colour.
IMAGERY_API bool Read(LinearRGB_T<float>& c, ZELStream* stream);

// The share of the original colour in a disabled colour.
inline constexpr float DisabledColorRatio = 0.4f;

// Fills the highlight and disable tables. Safe to call more than once and from several threads.
IMAGERY_API void InitColors();
// A greyed version of an interface colour: 0.4 x channel + 0.6 x a table value of its luminance.
IMAGERY_API CLR MakeDisabledColor(const CLR& c);
// A brighter version: every channel through the highlight table.
IMAGERY_API CLR MakeHighlightedColor(const CLR& c);
// Raises the saturation of weakly saturated colours (S < 0.8) along a curve that reaches 0.8 at 0.8.
IMAGERY_API CLR MakeMoreIntenseColor(CLR c);
// Per channel a + (b - a) x t, truncated; CLR results have the fourth byte 0, CLRA blends alpha too.
IMAGERY_API CLR PerceptualLerp(const CLR& a, const CLR& b, float t);
IMAGERY_API CLRA PerceptualLerp(const CLRA& a, const CLRA& b, float t);
// The Euclidean distance of the byte channels, capped at 255.
IMAGERY_API unsigned char PerceptualDistance(const CLR& a, const CLR& b);

}  // namespace imagery
