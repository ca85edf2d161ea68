// The per-value transfer curves of gamma.h.
#include "imagery/gamma.h"

#include <cmath>

#include "pixel/gamma_curves.h"

namespace imagery {

float DecodeChannel8(unsigned char v, GammaValue gamma) {
  return curves::Decode(v, gamma);
}

float DecodeChannel16(unsigned short v, GammaValue gamma) {
  return curves::Decode(v, gamma);
}

float EncodeSRGBClamped(float c) {
  return curves::EncodeSRGBClamped(c);
}

float EncodeLinear(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::EncodeLinear(c, gamma, precision);
}

unsigned char QuantizeTo8(float encoded) {
  return curves::QuantizeTo8(encoded);
}

unsigned short QuantizeTo16(float encoded) {
  return curves::QuantizeTo16(encoded);
}

unsigned char EncodeChannel8(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::QuantizeTo8(curves::EncodeLinear(c, gamma, precision));
}

unsigned short EncodeChannel16(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::QuantizeTo16(curves::EncodeLinear(c, gamma, precision));
}

// The gamma is looked at once per pixel, and the three channels are left to run side by side.
template <class Code>
static void DecodeThree(const Code* codes, float* linear, GammaValue gamma) {
  constexpr bool k8 = sizeof(Code) == 1;
  const float scale = k8 ? kInv255 : kInv65535;
  if (gamma.IsSRGB()) {
    const curves::SRGBDecodeCoefficients& k = k8 ? curves::kSRGBDecode8 : curves::kSRGBDecode16;
    for (int i = 0; i < 3; ++i) {
      const float v = static_cast<float>(codes[i]);
      linear[i] = curves::DecodeSRGB(v, v * scale, k);
    }
    return;
  }
  for (int i = 0; i < 3; ++i)
    linear[i] = std::pow(static_cast<float>(codes[i]) * scale, gamma.Value());
}

template <class Code>
static void EncodeThree(const float* linear, Code* codes, GammaValue gamma) {
  constexpr bool k8 = sizeof(Code) == 1;
  const auto quantize = [](float encoded) {
    return k8 ? curves::QuantizeTo8(encoded) : curves::QuantizeTo16(encoded);
  };
  if (gamma.IsSRGB()) {
    for (int i = 0; i < 3; ++i)
      codes[i] = static_cast<Code>(quantize(curves::EncodeSRGBClamped(ClampUnit(linear[i]))));
    return;
  }
  const float exponent = 1.0f / gamma.Value();
  for (int i = 0; i < 3; ++i)
    codes[i] = static_cast<Code>(quantize(std::pow(ClampUnit(linear[i]), exponent)));
}

void DecodeThreeChannels8(const unsigned char* codes, float* linear, GammaValue gamma) {
  DecodeThree(codes, linear, gamma);
}

void DecodeThreeChannels16(const unsigned short* codes, float* linear, GammaValue gamma) {
  DecodeThree(codes, linear, gamma);
}

void EncodeThreeChannels8(const float* linear, unsigned char* codes, GammaValue gamma) {
  EncodeThree(linear, codes, gamma);
}

void EncodeThreeChannels16(const float* linear, unsigned short* codes, GammaValue gamma) {
  EncodeThree(linear, codes, gamma);
}

}  // namespace imagery
