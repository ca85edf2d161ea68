// The per-value transfer curves of gamma.h.
#include "imagery/gamma.h"

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

}  // namespace imagery
