// Colours derived for the host's interface (disabled, highlighted, more intense), blends and distances
// of byte colours, and black-body colours.
#include <cmath>
#include <mutex>

#include "imagery/colour_spaces.h"
#include "imagery/normal_encoding.h"

namespace imagery {
namespace {

unsigned char HIGHLIGHTED_COMPONENT[256];
unsigned char DISABLED_COMPONENT[256];

float Clamp255(float v) {
  if (!(v > 0.0f))
    return 0.0f;
  return v < 255.0f ? v : 255.0f;
}

}  // namespace

LinearRGB_T<float> GetTemperatureColor(float kelvin) {
  float k = kelvin > 1000.0f ? kelvin : 1000.0f;
  k = k < 10000.0f ? k : 10000.0f;
  const float t = k * 0.01f;
  const float red = t > 66.0f ? 329.69873f * std::pow(t - 60.0f, -0.13320476f) : 255.0f;
  const float green =
      t <= 66.0f ? 99.4708f * std::log(t) - 161.11957f : 288.12216f * std::pow(t - 60.0f, -0.075514846f);
  float blue;
  if (t >= 66.0f) {
    blue = 255.0f;
  } else if (t <= 19.0f) {
    blue = 0.0f;
  } else {
    blue = 138.51773f * std::log(t - 10.0f) - 305.0448f;
  }
  return {Clamp255(red) * kInv255, Clamp255(green) * kInv255, Clamp255(blue) * kInv255};
}

void InitColors() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (int i = 0; i < 256; ++i) {
      const float x = static_cast<float>(i) * kInv255;
      const float highlighted = std::pow(x, 0.8f) * 215.0f + 40.0f;
      HIGHLIGHTED_COMPONENT[i] = static_cast<unsigned char>(std::min(static_cast<int>(highlighted), 255));
      if (i <= 63) {
        DISABLED_COMPONENT[i] = 127;
      } else {
        const float root = x * RefinedReciprocalSqrt(x);
        DISABLED_COMPONENT[i] = detail::TruncToByte(root * 255.0f);
      }
    }
  });
}

CLR MakeDisabledColor(const CLR& c) {
  const float luminance = 0.35f * c.Red() + 0.5f * c.Green() + 0.15f * c.Blue();
  const float d = DISABLED_COMPONENT[detail::TruncToByte(luminance)] * 0.6f;
  return CLR(detail::TruncToByte(c.Red() * DisabledColorRatio + d),
             detail::TruncToByte(c.Green() * DisabledColorRatio + d),
             detail::TruncToByte(c.Blue() * DisabledColorRatio + d));
}

CLR MakeHighlightedColor(const CLR& c) {
  return CLR(HIGHLIGHTED_COMPONENT[c.Red()], HIGHLIGHTED_COMPONENT[c.Green()],
             HIGHLIGHTED_COMPONENT[c.Blue()]);
}

CLR MakeMoreIntenseColor(CLR c) {
  HLSCLR hls(LinearRGB_T<float>(c, gamma::Linear));
  if (hls.l != 0.0f && hls.s < 0.8f) {
    constexpr float a = -1.3333333f;
    constexpr float b = 2.0666666f;
    hls.s = hls.s * (a * hls.s + b);
  }
  return ToCLRFLOAT(hls).ToCLR(gamma::Linear);
}

namespace {
unsigned char LerpChannel(unsigned char a, unsigned char b, float t) {
  return detail::TruncToByte(static_cast<float>(b - a) * t + static_cast<float>(a));
}
}  // namespace

CLR PerceptualLerp(const CLR& a, const CLR& b, float t) {
  return CLR(LerpChannel(a.Red(), b.Red(), t), LerpChannel(a.Green(), b.Green(), t),
             LerpChannel(a.Blue(), b.Blue(), t));
}

CLRA PerceptualLerp(const CLRA& a, const CLRA& b, float t) {
  return CLRA(LerpChannel(a.Red(), b.Red(), t), LerpChannel(a.Green(), b.Green(), t),
              LerpChannel(a.Blue(), b.Blue(), t), LerpChannel(a.Alpha(), b.Alpha(), t));
}

unsigned char PerceptualDistance(const CLR& a, const CLR& b) {
  const int dr = a.Red() - b.Red();
  const int dg = a.Green() - b.Green();
  const int db = a.Blue() - b.Blue();
  const int sum = dr * dr + dg * dg + db * db;
  if (sum == 0)
    return 0;
  const float s = static_cast<float>(sum);
  const float distance = s * RefinedReciprocalSqrt(s);
  return static_cast<unsigned char>(distance < 255.0f ? distance : 255.0f);
}

}  // namespace imagery
