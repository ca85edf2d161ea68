// Gamma values and the transfer curves between stored 8-bit or 16-bit channel codes and linear light.
//
// These are the per-value reference forms: plain inline arithmetic, exact to the bit, and the definition
// that the table-driven forms of gamma_tables.h reproduce. Every curve is evaluated in single precision,
// operation by operation in the order written; the build must not fuse a multiply and an add into one
// rounding (GCC and Clang: -ffp-contract=off), which the library's compile options ensure for its own
// code and which code including this header with FMA-capable target flags must ensure too.
#pragma once

#include <cmath>
#include <cstdint>

#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace imagery {

// A gamma: -2.0 selects the sRGB curve, any value > 0 a power law (stored = linear^(1/g), linear =
// stored^g), -1.0 means "not set" and 0.0 is no gamma at all. Equality is float equality, no tolerance.
// A plain value, passed by copy.
class GammaValue {
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

// The sRGB decode polynomial above the linear segment; the linear coefficients are per stored unit v.
struct SRGBDecodeCoefficients {
  float linear, a, b, c, d, e, f, g, h;
};
inline constexpr SRGBDecodeCoefficients kSRGBDecode8{0.000303527f, 0.0005975676f,  -0.5723599f,
                                                     0.003611686f, -0.9020823f,    0.003464665f,
                                                     0.48110798f,  0.00013976179f, 0.000845854f};
inline constexpr SRGBDecodeCoefficients kSRGBDecode16{1.1810389e-06f, 2.3251655e-06f, -0.5723599f,
                                                      1.4053252e-05f, -0.9020823f,    1.3481186e-05f,
                                                      0.48110798f,    5.4382014e-07f, 0.000845854f};

inline float DecodeSRGB(float v, float x, const SRGBDecodeCoefficients& k) {
  if (x <= 0.04045f)
    return v * k.linear;
  const float x2 = x * x;
  return (((k.a * v + k.b) * x2 + (k.c * v + k.d)) * x2 + (k.e * v + k.f)) * x2 + (k.g * v + k.h);
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

// Decoding one stored channel to linear light. For sRGB the result lies in [0, 1.0000001]; a power
// gamma gives (v / max)^g.
inline float DecodeChannel8(unsigned char v, GammaValue gamma) {
  const float fv = static_cast<float>(v);
  const float x = fv * kInv255;
  if (gamma.IsSRGB())
    return detail::DecodeSRGB(fv, x, detail::kSRGBDecode8);
  return std::pow(x, gamma.Value());
}

inline float DecodeChannel16(unsigned short v, GammaValue gamma) {
  const float fv = static_cast<float>(v);
  const float x = fv * kInv65535;
  if (gamma.IsSRGB())
    return detail::DecodeSRGB(fv, x, detail::kSRGBDecode16);
  return std::pow(x, gamma.Value());
}

// Clamps linear light to [0, 1] (minimum with 1, then maximum with 0; NaN becomes 0).
inline float ClampUnit(float c) {
  if (!(c > 0.0f))
    return 0.0f;
  return c < 1.0f ? c : 1.0f;
}

// The sRGB encode curve on an already clamped value, in [0, 0.99985659] for c in [0, 1].
inline float EncodeSRGBClamped(float c) {
  if (c <= 0.0031308f)
    return c * 12.92f;
  const float c2 = c * c;
  float numerator;
  if (c > 0.0523f) {
    numerator = (((-0.18730034f * c + 0.6467743f) * c2 + (-0.99032867f * c + 1.2093908f)) * c2 +
                 (0.33433458f * c + -0.013450958f)) *
                    c2 +
                (0.00044351685f * c + -6.642636e-06f);
  } else {
    numerator = (((-6681.4956f * c + 1224.9712f) * c2 + (-100.23414f * c + 6.6036115f)) * c2 +
                 (0.06114809f * c + -0.00022244139f)) *
                    c2 +
                (4.123184e-07f * c + -3.5133685e-10f);
  }
  return numerator / (c2 * c);
}

// Linear light to its encoded fraction: clamped to [0, 1], then the sRGB curve or c^(1/g).
inline float EncodeLinear(float c, GammaValue gamma, PowerPrecision precision = PowerPrecision::Single) {
  c = ClampUnit(c);
  if (gamma.IsSRGB())
    return EncodeSRGBClamped(c);
  if (precision == PowerPrecision::Single)
    return std::pow(c, 1.0f / gamma.Value());
  return static_cast<float>(std::pow(static_cast<double>(c), 1.0 / static_cast<double>(gamma.Value())));
}

// An encoded fraction to its stored code: times 255 or 65535, rounded half away from zero, low bits.
inline unsigned char QuantizeTo8(float encoded) {
  return static_cast<unsigned char>(detail::RoundToCode<0xFFu>(encoded * 255.0f));
}
inline unsigned short QuantizeTo16(float encoded) {
  return static_cast<unsigned short>(detail::RoundToCode<0xFFFFu>(encoded * 65535.0f));
}

// Linear light to a stored channel code.
inline unsigned char EncodeChannel8(float c, GammaValue gamma,
                                    PowerPrecision precision = PowerPrecision::Single) {
  return QuantizeTo8(EncodeLinear(c, gamma, precision));
}
inline unsigned short EncodeChannel16(float c, GammaValue gamma,
                                      PowerPrecision precision = PowerPrecision::Single) {
  return QuantizeTo16(EncodeLinear(c, gamma, precision));
}

}  // namespace imagery
