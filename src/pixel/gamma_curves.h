// The exact transfer curves, inline for the library's own loops (the table builders and the plain row
// kernels). The public per-value functions of gamma.h are these, out of line. Only code built with the
// library's options may include this: the arithmetic must run operation by operation, never fused.
#pragma once

#include <cmath>

#include "imagery/gamma.h"

namespace imagery::curves {

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
