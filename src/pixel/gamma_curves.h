// The exact transfer curves, inline for the library's own loops (the table builders and the plain row
// kernels). The public per-value functions of gamma.h are these, out of line. Only code built with the
// library's options may include this: the arithmetic must run operation by operation, never fused.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "imagery/detail/srgb_curve.h"
#include "imagery/gamma.h"

namespace imagery::curves {

using detail::kSRGBDecode16;
using detail::kSRGBDecode8;
using detail::SRGBDecodeCoefficients;

inline float DecodeSRGB(float v, float x, const SRGBDecodeCoefficients& k) {
  return detail::DecodeSRGB<detail::LibraryProducts>(v, x, k);
}

// A stored 8- or 16-bit code to linear light.
template <class Code>
inline float Decode(Code v, GammaValue gamma) {
  constexpr bool k8 = sizeof(Code) == 1;
  const float fv = static_cast<float>(v);
  const float x = fv * (k8 ? kInv255 : kInv65535);
  if (gamma.IsSRGB())
    return DecodeSRGB(fv, x, k8 ? kSRGBDecode8 : kSRGBDecode16);
  return std::pow(x, gamma.Value());
}

// The gamma's bits: what tells one kept table or coder from another (no two values share them).
inline std::uint32_t GammaBits(GammaValue gamma) {
  const float value = gamma.Value();
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

inline float EncodeSRGBClamped(float c) {
  return detail::EncodeSRGBClamped<detail::LibraryProducts>(c);
}

inline float EncodeLinear(float c, GammaValue gamma, PowerPrecision precision) {
  c = ClampUnit(c);
  if (gamma.IsSRGB())
    return EncodeSRGBClamped(c);
  if (precision == PowerPrecision::Single)
    return std::pow(c, 1.0f / gamma.Value());
  return static_cast<float>(std::pow(static_cast<double>(c), 1.0 / static_cast<double>(gamma.Value())));
}

inline unsigned char QuantizeTo8(float encoded) {
  return static_cast<unsigned char>(detail::RoundToCode<0xFFu>(encoded * 255.0f));
}
inline unsigned short QuantizeTo16(float encoded) {
  return static_cast<unsigned short>(detail::RoundToCode<0xFFFFu>(encoded * 65535.0f));
}

}  // namespace imagery::curves
