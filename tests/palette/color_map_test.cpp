// Colour maps: evaluation with the three clamping modes, blending and averaging.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "imagery/color_map.h"

namespace imagery {
namespace {

using RGB = LinearRGB_T<float>;

// Black at 0, white at 10000: the colour evaluated is the position over 10000.
ColorMap Ramp(ColorMap::EClampingMode below, ColorMap::EClampingMode above) {
  ColorMap map(below, above);
  map.SetKey(10000, RGB(1, 1, 1));
  map.SetKey(0, RGB(0, 0, 0));
  return map;
}

bool Near(const RGB& a, const RGB& b, float tolerance) {
  return std::fabs(a.r - b.r) <= tolerance && std::fabs(a.g - b.g) <= tolerance &&
         std::fabs(a.b - b.b) <= tolerance;
}

float At(const ColorMap& map, double v, double scale = 1.0, double offset = 0.0) {
  RGB colour(-1, -1, -1);
  ExtraireCouleur(v, &map, colour, scale, offset);
  EXPECT_TRUE(colour.r == colour.g && colour.g == colour.b);
  return colour.r;
}

TEST(ColorMap, ConstructionResetAndConstantMaps) {
  const ColorMap single;
  ASSERT_EQ(single.GetKeyCount(), 1);
  EXPECT_EQ(single.GetKey(0), VALCLR(10000, RGB()));
  const RGB orange(0.9f, 0.4f, 0.1f);
  const ColorMap flat(orange);
  EXPECT_TRUE(flat.GetKeyCount() == 2 && flat.GetKey(0).key == 0 && flat.IsConstant() == orange);
  // Between the keys the weighted sum is scaled by the reciprocal of their distance in single
  // precision, which may leave the last bit of a component.
  for (double v : {-7.0, -1.0, -0.25, 0.0, 0.6, 1.0, 1.0001, 3.5}) {
    RGB colour;
    ExtraireCouleur(v, &flat, colour);
    EXPECT_TRUE(Near(colour, orange, 1e-7f)) << v;
  }
  ColorMap map = Ramp(ColorMap::Mirror, ColorMap::Repeat);
  EXPECT_FALSE(map.IsConstant().has_value());
  map.RAZ();
  EXPECT_TRUE(map == ColorMap() && map.IsConstant() == RGB());
}

struct Evaluation {
  double v, scale, offset;
  ColorMap::EClampingMode mode;
  int position;  // expected, 0..10000
};

TEST(ColorMap, PositionsAndTheModesBeyondEitherEnd) {
  // x = (v / 2 + 1/2) x scale + offset; position trunc(x x 10001), or 10000 when x is 1.
  const Evaluation cases[] = {
      {0.0, 1, 0, ColorMap::Clamp, 5000},      {-1.0, 1, 0, ColorMap::Clamp, 0},
      {1.0, 1, 0, ColorMap::Mirror, 10000},    {1.0001, 1, 0, ColorMap::Clamp, 10000},
      {1.0001, 1, 0, ColorMap::Mirror, 9999},  {1.0001, 1, 0, ColorMap::Repeat, 0},
      {-1.0002, 1, 0, ColorMap::Clamp, 0},     {-1.0002, 1, 0, ColorMap::Mirror, 1},
      {-1.0002, 1, 0, ColorMap::Repeat, 9999}, {0.0, 1, 1.0, ColorMap::Mirror, 4999},
      {0.0, 1, 1.0, ColorMap::Repeat, 5000},   {0.0, 4, 0, ColorMap::Mirror, 1},
      {0.0, 1, 1e30, ColorMap::Clamp, 10000},
  };
  for (const Evaluation& e : cases) {
    const ColorMap map = Ramp(e.mode, e.mode);
    EXPECT_NEAR(At(map, e.v, e.scale, e.offset), e.position / 10000.0, 1e-6)
        << e.v << " " << e.scale << " " << e.offset << " mode " << e.mode;
  }
  // Each mode applies on its own side only.
  EXPECT_FLOAT_EQ(At(Ramp(ColorMap::Repeat, ColorMap::Clamp), 1.0001), 1.0f);
  EXPECT_FLOAT_EQ(At(Ramp(ColorMap::Clamp, ColorMap::Mirror), -1.0002), 0.0f);
  // A NaN position does not crash.
  At(Ramp(ColorMap::Mirror, ColorMap::Mirror), std::numeric_limits<double>::quiet_NaN());
}

TEST(ColorMap, InterpolationBetweenKeysAndTheEightBitForm) {
  ColorMap map;
  map.SetKey(0, RGB(1, 0, 0));
  map.SetKey(2000, RGB(0, 1, 0));
  map.SetKey(10000, RGB(0, 0, 1));
  RGB colour;
  ExtraireCouleur(-0.8, &map, colour);  // x = 0.1, position 1000: halfway between the first two keys
  EXPECT_TRUE(Near(colour, RGB(0.5f, 0.5f, 0), 1e-6f));
  ExtraireCouleur(0.2, &map, colour);  // x = 0.6, position 6000
  EXPECT_TRUE(Near(colour, RGB(0, 0.5f, 0.5f), 1e-6f));

  CLR bytes(0xAB000000u);
  const ColorMap ramp = Ramp(ColorMap::Clamp, ColorMap::Clamp);
  ExtraireCouleur(0.0, &ramp, bytes);
  EXPECT_EQ(bytes, CLR(0xABBCBCBCu)) << "0.5 in sRGB is 188; the fourth byte stays";
}

TEST(ColorMap, BlendsKeepTheUnionOfKeysAndAverages) {
  const ColorMap a = Ramp(ColorMap::Clamp, ColorMap::Clamp);
  ColorMap b;
  b.SetKey(0, RGB(1, 0, 0));
  b.SetKey(3000, RGB(0, 1, 0));
  b.SetKey(10000, RGB(0, 0, 1));
  for (float t : {0.0f, 0.25f, 1.0f}) {
    ColorMap blend(ColorMap::Mirror, ColorMap::Repeat);
    blend.Interpolate(&a, &b, t);
    ASSERT_TRUE(blend.GetBelowMode() == ColorMap::Mirror && blend.GetKeyCount() == 3);
    const int keys[] = {0, 3000, 10000};
    const RGB fromA[] = {RGB(0, 0, 0), RGB(0.3f, 0.3f, 0.3f), RGB(1, 1, 1)};
    for (int i = 0; i < 3; ++i)
      EXPECT_TRUE(blend.GetKey(i).key == keys[i] &&
                  Near(blend.GetKey(i).colour, fromA[i] * (1 - t) + b.GetKey(i).colour * t, 1e-5f))
          << t << " " << i;
  }
  // The map may blend itself with another.
  ColorMap self = a;
  self.Interpolate(&self, &b, 1.0f);
  EXPECT_TRUE(self.GetKeyCount() == 3 && std::fabs(self.GetKey(1).colour.g - 1.0f) < 1e-6f);

  // Averages over n + 1 evenly spaced samples.
  EXPECT_TRUE(a.GetAverageColor(1).r == 0.5f && std::fabs(a.GetAverageColor(100).r - 0.5f) < 1e-3f);
}

}  // namespace
}  // namespace imagery
