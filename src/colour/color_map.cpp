// Colour maps: evaluation with the clamping modes, blending, comparison and averaging.
#include "imagery/color_map.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace imagery {

namespace {

bool SameComponent(float a, float b) {
  return !(a < b) && !(b < a);
}

bool SameColour(const LinearRGB_T<float>& a, const LinearRGB_T<float>& b) {
  return SameComponent(a.r, b.r) && SameComponent(a.g, b.g) && SameComponent(a.b, b.b);
}

// trunc(x * 10001) as an int. Positions far outside the map saturate (and NaN gives 0) instead of
// overflowing the conversion; they are folded back by the modes all the same.
int PositionOf(double x) {
  if (x == 1.0)
    return ColorMap::kLastPosition;
  const double scaled = std::trunc(x * 10001.0);
  if (!(scaled == scaled))
    return 0;
  if (scaled >= static_cast<double>(INT_MAX))
    return INT_MAX;
  if (scaled <= -static_cast<double>(INT_MAX))
    return -INT_MAX;
  return static_cast<int>(scaled);
}

int Fold(int k, ColorMap::EClampingMode mode) {
  constexpr int last = ColorMap::kLastPosition;
  switch (mode) {
    case ColorMap::Mirror: {
      const int r = std::abs(k) % (2 * last + 1);
      return last - std::abs(r - last);
    }
    case ColorMap::Repeat:
      return k > last ? k % (last + 1) : last - (std::abs(k) % (last + 1));
    default:
      return std::min(std::max(k, 0), last);
  }
}

}  // namespace

bool VALCLR::operator==(const VALCLR& other) const {
  return SameColour(colour, other.colour) && key == other.key;
}

ColorMap::ColorMap(EClampingMode below, EClampingMode above) : below_(below), above_(above) {
  keys_[keys_.IncrementSize()] = VALCLR(kLastPosition, LinearRGB_T<float>());
}

ColorMap::ColorMap(const LinearRGB_T<float>& colour) {
  keys_[keys_.IncrementSize()] = VALCLR(0, colour);
  keys_[keys_.IncrementSize()] = VALCLR(kLastPosition, colour);
}

void ColorMap::RAZ() {
  keys_.SetSize(0);
  keys_[keys_.IncrementSize()] = VALCLR(kLastPosition, LinearRGB_T<float>());
  below_ = above_ = Clamp;
}

std::optional<LinearRGB_T<float>> ColorMap::IsConstant() const {
  const int count = keys_.GetSize();
  if (count == 0)
    return LinearRGB_T<float>();
  for (int i = 1; i < count; ++i)
    if (!SameColour(keys_[i].colour, keys_[0].colour))
      return std::nullopt;
  return keys_[0].colour;
}

bool ColorMap::operator==(const ColorMap& other) const {
  if (below_ != other.below_ || above_ != other.above_ || keys_.GetSize() != other.keys_.GetSize())
    return false;
  for (int i = 0; i < keys_.GetSize(); ++i)
    if (keys_[i] != other.keys_[i])
      return false;
  return true;
}

void ColorMap::SetKey(int position, const LinearRGB_T<float>& colour) {
  const short key = static_cast<short>(std::min(std::max(position, 0), kLastPosition));
  int index = 0;
  while (index < keys_.GetSize() && keys_[index].key < key)
    ++index;
  if (index < keys_.GetSize() && keys_[index].key == key)
    keys_[index].colour = colour;
  else
    keys_.InsertAt(index, VALCLR(key, colour));
}

void ColorMap::Interpolate(const ColorMap* a, const ColorMap* b, float t) {
  // Either source may be this map, whose keys are about to be replaced.
  const ColorMap first = *a;
  const ColorMap second = *b;
  std::vector<short> positions;
  positions.reserve(static_cast<std::size_t>(first.keys_.GetSize() + second.keys_.GetSize()));
  for (int i = 0; i < first.keys_.GetSize(); ++i)
    positions.push_back(first.keys_[i].key);
  for (int i = 0; i < second.keys_.GetSize(); ++i)
    positions.push_back(second.keys_[i].key);
  std::sort(positions.begin(), positions.end());
  positions.erase(std::unique(positions.begin(), positions.end()), positions.end());

  keys_.SetSize(0);
  for (short k : positions) {
    const double v = k * 0.0002 - 1.0;
    LinearRGB_T<float> ca, cb;
    ExtraireCouleur(v, &first, ca, 1.0, 0.0);
    ExtraireCouleur(v, &second, cb, 1.0, 0.0);
    keys_[keys_.IncrementSize()] = VALCLR(k, ca * (1.0f - t) + cb * t);
  }
}

LinearRGB_T<float> ColorMap::GetAverageColor(int n) const {
  n = std::max(n, 0);
  const double step = 2.0 / n;
  LinearRGB_T<float> sum;
  double v = -1.0;
  for (int i = 0; i <= n; ++i, v += step) {
    LinearRGB_T<float> colour;
    ExtraireCouleur(v, this, colour, 1.0, 0.0);
    sum += colour;
  }
  return sum * (1.0f / static_cast<float>(n + 1));
}

void ExtraireCouleur(double v, const ColorMap* map, LinearRGB_T<float>& out, double scale, double offset) {
  const double x = (v * 0.5 + 0.5) * scale + offset;
  int k = PositionOf(x);
  if (k < 0)
    k = Fold(k, map->below_);
  else if (k > ColorMap::kLastPosition)
    k = Fold(k, map->above_);

  const auto& keys = map->keys_;
  const int count = keys.GetSize();
  if (count == 0) {
    out = LinearRGB_T<float>();
    return;
  }
  if (k <= keys[0].key) {
    out = keys[0].colour;
    return;
  }
  if (k >= keys[count - 1].key) {
    out = keys[count - 1].colour;
    return;
  }
  int i = 1;
  while (keys[i].key < k)
    ++i;
  const float w0 = static_cast<float>(keys[i].key - k);
  const float w1 = static_cast<float>(k - keys[i - 1].key);
  const float inverse = 1.0f / static_cast<float>(keys[i].key - keys[i - 1].key);
  out = (keys[i - 1].colour * w0 + keys[i].colour * w1) * inverse;
}

void ExtraireCouleur(double v, const ColorMap* map, CLR& out, double scale, double offset) {
  LinearRGB_T<float> colour;
  ExtraireCouleur(v, map, colour, scale, offset);
  const CLR encoded = colour.ToCLR(gamma::sRGB);
  out.SetRed(encoded.Red());
  out.SetGreen(encoded.Green());
  out.SetBlue(encoded.Blue());
}

}  // namespace imagery
