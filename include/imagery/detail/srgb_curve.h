// The sRGB curve in both directions, written once for two kinds of code: the library's own loops, built
// so that a multiply and an add are never fused, and the inline cursors of the public headers, built
// with whatever flags their caller chose. The `Products` policy decides how each product that an add
// takes is formed: as it is (LibraryProducts) or through Rounded (CallerProducts), which keeps a caller's
// compiler from fusing it. Both give the same bits where they are meant to be used.
#pragma once

#include <cstdint>

#include "imagery/gamma.h"

namespace imagery::detail {

struct LibraryProducts {
  static float Of(float product) { return product; }
};
struct CallerProducts {
  static float Of(float product) { return Rounded(product); }
};

// The decode polynomial above the linear segment; the linear coefficients are per stored unit v.
struct SRGBDecodeCoefficients {
  float linear, a, b, c, d, e, f, g, h;
};
inline constexpr SRGBDecodeCoefficients kSRGBDecode8{0.000303527f, 0.0005975676f,  -0.5723599f,
                                                     0.003611686f, -0.9020823f,    0.003464665f,
                                                     0.48110798f,  0.00013976179f, 0.000845854f};
inline constexpr SRGBDecodeCoefficients kSRGBDecode16{1.1810389e-06f, 2.3251655e-06f, -0.5723599f,
                                                      1.4053252e-05f, -0.9020823f,    1.3481186e-05f,
                                                      0.48110798f,    5.4382014e-07f, 0.000845854f};

// v is the stored code, x the code as a fraction of the largest one.
template <class Products>
inline float DecodeSRGB(float v, float x, const SRGBDecodeCoefficients& k) {
  using P = Products;
  if (x <= 0.04045f)
    return v * k.linear;
  const float x2 = x * x;
  float sum = P::Of(k.a * v) + k.b;
  sum = P::Of(sum * x2) + (P::Of(k.c * v) + k.d);
  sum = P::Of(sum * x2) + (P::Of(k.e * v) + k.f);
  return P::Of(sum * x2) + (P::Of(k.g * v) + k.h);
}

template <class Products, class Code>
inline float DecodeSRGBCode(Code v) {
  constexpr bool k8 = sizeof(Code) == 1;
  const float fv = static_cast<float>(v);
  return DecodeSRGB<Products>(fv, fv * (k8 ? kInv255 : kInv65535), k8 ? kSRGBDecode8 : kSRGBDecode16);
}

// c already clamped to [0, 1]. Above 0.0523 and at or below it the numerator takes other coefficients.
template <class Products>
inline float EncodeSRGBClamped(float c) {
  using P = Products;
  if (c <= 0.0031308f)
    return c * 12.92f;
  const float c2 = c * c;
  const bool high = c > 0.0523f;
  const float k0 = high ? -0.18730034f : -6681.4956f, k1 = high ? 0.6467743f : 1224.9712f;
  const float k2 = high ? -0.99032867f : -100.23414f, k3 = high ? 1.2093908f : 6.6036115f;
  const float k4 = high ? 0.33433458f : 0.06114809f, k5 = high ? -0.013450958f : -0.00022244139f;
  const float k6 = high ? 0.00044351685f : 4.123184e-07f, k7 = high ? -6.642636e-06f : -3.5133685e-10f;
  float numerator = P::Of(k0 * c) + k1;
  numerator = P::Of(numerator * c2) + (P::Of(k2 * c) + k3);
  numerator = P::Of(numerator * c2) + (P::Of(k4 * c) + k5);
  numerator = P::Of(numerator * c2) + (P::Of(k6 * c) + k7);
  return numerator / (c2 * c);
}

// Linear light to its stored sRGB code: clamped, encoded, times the largest code, rounded.
template <class Products, class Code>
inline Code EncodeSRGBCode(float c) {
  constexpr std::uint32_t kMax = sizeof(Code) == 1 ? 0xFFu : 0xFFFFu;
  return static_cast<Code>(
      RoundToCode<kMax>(Products::Of(EncodeSRGBClamped<Products>(ClampUnit(c)) * static_cast<float>(kMax))));
}

}  // namespace imagery::detail
