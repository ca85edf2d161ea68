// HLS colours: conversions between linear RGB and HLS (with and without intensity), their hash, and the
// HLS helpers of CLR.
#include <algorithm>
#include <cmath>

#include "imagery/colour_spaces.h"

namespace imagery {
namespace {

// Wraps a hue of the RGB-to-HLS conversion into [0, 1].
float WrapHue(float h) {
  while (h < 0.0f)
    h += 1.0f;
  while (h > 1.0f)
    h -= 1.0f;
  return h;
}

// One channel of HLS to RGB; h is the hue shifted by a third of a turn for red and blue.
float HueToChannel(float m1, float m2, float h) {
  if (h < 0.0f || h > 1.0f)
    h -= std::floor(h);
  const float h6 = 6.0f * h;
  if (h6 < 1.0f)
    return m1 + (m2 - m1) * h6;
  if (2.0f * h < 1.0f)
    return m2;
  if (3.0f * h < 2.0f)
    return m1 + (m2 - m1) * (0.6666667f - h) * 6.0f;
  return m1;
}

LinearRGB_T<float> HLSToRGB(float h, float l, float s) {
  if (l < 0.0f)
    return {0.0f, 0.0f, 0.0f};
  if (s <= 0.0f)
    return {l, l, l};
  const float m2 = l > 0.5f ? l + s - l * s : l * (1.0f + s);
  const float m1 = 2.0f * l - m2;
  return {std::max(HueToChannel(m1, m2, h + 0.33333334f), 0.0f), std::max(HueToChannel(m1, m2, h), 0.0f),
          std::max(HueToChannel(m1, m2, h - 0.33333334f), 0.0f)};
}

}  // namespace

HLSECLR::HLSECLR(const LinearRGB_T<float>& rgb) {
  double r = rgb.r;
  double g = rgb.g;
  double b = rgb.b;
  const double largest = std::max(std::max(r, g), b);
  if (largest > 1.0) {
    e = static_cast<float>(largest);
    const double inverse = 1.0 / largest;
    r *= inverse;
    g *= inverse;
    b *= inverse;
  }
  const double mx = std::max(std::max(r, g), b);
  const double mn = std::min(std::min(r, g), b);
  l = static_cast<float>(0.5 * (mx + mn));
  if (mx == mn) {
    h = 0.0f;
    s = 0.0f;
    return;
  }
  const double d = mx - mn;
  s = static_cast<float>(l < 0.5f ? d / (mx + mn) : d / (2.0 - mx - mn));
  double hue;
  if (r == mx) {
    hue = (g - b) / d;
  } else if (g != mx) {
    hue = (r - g) / d + 4.0;
  } else {
    hue = (b - r) / d + 2.0;
  }
  h = WrapHue(static_cast<float>(hue) * 0.16666667f);
}

LinearRGB_T<float> HLSECLR::ToRGB() const {
  return ToCLRFLOAT(*this);
}

LinearRGB_T<float> ToCLRFLOAT(const HLSCLR& c) {
  return HLSToRGB(c.h, c.l, c.s);
}

LinearRGB_T<float> ToCLRFLOAT(const HLSECLR& c) {
  const LinearRGB_T<float> rgb = HLSToRGB(c.h, c.l, c.s);
  return {std::max(rgb.r * c.e, 0.0f), std::max(rgb.g * c.e, 0.0f), std::max(rgb.b * c.e, 0.0f)};
}

glm::dvec3 make_vector(const HLSCLR& c) {
  const LinearRGB_T<float> rgb = ToCLRFLOAT(c);
  return glm::dvec3(rgb.r, rgb.g, rgb.b);
}

}  // namespace imagery

HLSCLR::HLSCLR(const imagery::LinearRGB_T<float>& rgb) {
  const float r = rgb.r;
  const float g = rgb.g;
  const float b = rgb.b;
  const float mx = std::max(std::max(r, g), b);
  const float mn = std::min(std::min(r, g), b);
  l = 0.5f * (mx + mn);
  if (mx == mn)
    return;
  const float d = mx - mn;
  s = l < 0.5f ? d / (mx + mn) : d / (2.0f - mx - mn);
  float hue;
  if (r == mx) {
    hue = (g - b) / d;
  } else if (g != mx) {
    hue = (r - g) / d + 4.0f;
  } else {
    hue = (b - r) / d + 2.0f;
  }
  h = imagery::WrapHue(hue * 0.16666667f);
}

HLSCLR::HLSCLR(const imagery::HLSECLR& hlse) : h(hlse.h), l(hlse.l), s(hlse.s) {}

imagery::LinearRGB_T<float> HLSCLR::ToRGB() const {
  return imagery::ToCLRFLOAT(*this);
}

std::uint64_t hash_value(const HLSCLR& c) {
  std::uint64_t hash = 37;
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.h));
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.l));
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.s));
  return hash;
}

void CLR::FromHLSGamma(float h, float l, float s) {
  const CLR encoded = imagery::ToCLRFLOAT(HLSCLR(h, l, s)).ToCLR(imagery::gamma::Linear);
  red_ = encoded.red_;
  green_ = encoded.green_;
  blue_ = encoded.blue_;
}

void CLR::ToHLSGamma(float& h, float& l, float& s) const {
  const HLSCLR hls(imagery::LinearRGB_T<float>(*this, imagery::gamma::Linear));
  h = hls.h;
  l = hls.l;
  s = hls.s;
}
