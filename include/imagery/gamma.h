// Gamma values and the transfer curves between stored 8-bit or 16-bit channel codes and linear light.
//
// The curves are the per-value reference forms, exact to the bit, and the definition that the
// table-driven forms of gamma_tables.h reproduce. Each is evaluated in single precision, operation by
// operation in the order its documentation gives, inside the library (which is built so that a multiply
// and an add are never fused into one rounding): they are out of line, so that a caller's own compiler
// flags cannot change a stored value.
#pragma once

#include <cmath>
#include <cstdint>

#include "imagery/export.h"

namespace imagery {

// A gamma: -2.0 selects the sRGB curve, any value > 0 a power law (stored = linear^(1/g), linear =
// stored^g), -1.0 means "not set" and 0.0 is no gamma at all. Equality is float equality, no tolerance.
// A plain value, passed by copy.
class IMAGERY_API GammaValue {
 public:
  // A default gamma is "not set".
  constexpr GammaValue() = default;
  constexpr explicit GammaValue(float value) : value_(value) {}

  constexpr float Value() const { return value_; }
  constexpr bool IsSRGB() const { return value_ == -2.0f; }
  // Neither "not set" (-1) nor 0; such gammas are not applied to planes.
  constexpr bool IsSet() const { return value_ != -1.0f && value_ != 0.0f; }
  // Where linear and gamma-encoded storage are told apart, values within 0.0001 of 1 count as linear.
  bool IsNearlyLinear() const { return std::fabs(value_ - 1.0f) <= 0.0001f; }

  friend constexpr bool operator==(GammaValue a, GammaValue b) { return a.value_ == b.value_; }
  friend constexpr bool operator!=(GammaValue a, GammaValue b) { return !(a == b); }

 private:
  float value_ = -1.0f;
};

namespace gamma {
inline constexpr GammaValue Linear{1.0f};
inline constexpr GammaValue sRGB{-2.0f};
inline constexpr GammaValue NotSet{-1.0f};
}  // namespace gamma

// Power gammas are encoded either with 1/g and the power in single precision (the form of ToRGB) or in
// double precision with the result rounded to single (the form of ToCLR and ToColorType). Decoding and
// the sRGB curve have one form only.
enum class PowerPrecision : unsigned char { Single, Double };

// 1/255 and 1/65535 as the single-precision constants every decoder multiplies by.
inline constexpr float kInv255 = 0.003921569f;
inline constexpr float kInv65535 = 1.5259022e-05f;

namespace detail {

// `product` rounded to single precision on its own. A caller's compiler may fuse a multiply with the add
// that follows into one rounding (contraction, as with -march=native and FMA); inline arithmetic of the
// public headers passes each product that an add or subtract takes through here, so that it gives the
// values it is defined with whatever the caller's flags. It costs no instruction.
inline float Rounded(float product) {
#if defined(__GNUC__) && (defined(__x86_64__) || (defined(__i386__) && defined(__SSE__)))
  __asm__("" : "+x"(product));
#elif defined(__GNUC__) && defined(__aarch64__)
  __asm__("" : "+w"(product));
#endif
  return product;
}

// Rounds half away from zero and keeps the low `Mask` bits. Encoded values of valid gammas lie in
// [0, max code]; the slow branch only gives a defined answer for the encodings of nonsense gammas
// (negative, infinite or NaN products).
template <std::uint32_t Mask>
inline std::uint32_t RoundToCode(float scaled) {
  if (scaled >= 0.0f && scaled < 4294967296.0f) {
    const auto whole = static_cast<std::uint32_t>(scaled);
    return (whole + (scaled - static_cast<float>(whole) >= 0.5f ? 1u : 0u)) & Mask;
  }
  // Beyond 2^40 every float is a multiple of 2^17, so its low 16 bits are 0; NaN gives 0 too.
  if (!(std::fabs(scaled) < 1099511627776.0f))
    return 0;
  const auto whole = static_cast<std::int64_t>(scaled);
  const float fraction = std::fabs(scaled - static_cast<float>(whole));
  const std::int64_t away = fraction >= 0.5f ? (scaled < 0.0f ? -1 : 1) : 0;
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(whole + away) & Mask);
}

}  // namespace detail

// Decoding one stored channel to linear light: code / max (times 0.003921569 or 1.5259022e-05), then for
// sRGB a segment v x k below 0.04045 and above it a polynomial in the fraction; for a power gamma
// fraction^g. For sRGB the result lies in [0, 1.0000001].
IMAGERY_API float DecodeChannel8(unsigned char v, GammaValue gamma);
IMAGERY_API float DecodeChannel16(unsigned short v, GammaValue gamma);

// Clamps linear light to [0, 1] (minimum with 1, then maximum with 0; NaN becomes 0).
inline float ClampUnit(float c) {
  if (!(c > 0.0f))
    return 0.0f;
  return c < 1.0f ? c : 1.0f;
}

// The sRGB encode curve on an already clamped value, in [0, 0.99985659] for c in [0, 1]: c x 12.92 at or
// below 0.0031308, above it a rational polynomial with one set of coefficients up to 0.0523 and another
// beyond.
IMAGERY_API float EncodeSRGBClamped(float c);

// Linear light to its encoded fraction: clamped to [0, 1], then the sRGB curve or c^(1/g).
IMAGERY_API float EncodeLinear(float c, GammaValue gamma, PowerPrecision precision = PowerPrecision::Single);

// An encoded fraction to its stored code: times 255 or 65535, rounded half away from zero, low bits.
IMAGERY_API unsigned char QuantizeTo8(float encoded);
IMAGERY_API unsigned short QuantizeTo16(float encoded);

// Linear light to a stored channel code.
IMAGERY_API unsigned char EncodeChannel8(float c, GammaValue gamma,
                                         PowerPrecision precision = PowerPrecision::Single);
IMAGERY_API unsigned short EncodeChannel16(float c, GammaValue gamma,
                                           PowerPrecision precision = PowerPrecision::Single);

// A pixel's three channels at once, with the results of three single calls (single precision): one call
// into the library per pixel instead of three. 8-bit power gammas go through tables, built once for each
// of the first gammas met.
IMAGERY_API void DecodeThreeChannels8(const unsigned char* codes, float* linear, GammaValue gamma);
IMAGERY_API void DecodeThreeChannels16(const unsigned short* codes, float* linear, GammaValue gamma);
IMAGERY_API void EncodeThreeChannels8(const float* linear, unsigned char* codes, GammaValue gamma);
IMAGERY_API void EncodeThreeChannels16(const float* linear, unsigned short* codes, GammaValue gamma);

}  // namespace imagery
