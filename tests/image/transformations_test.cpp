// The transformation record: angles, coordinate mapping in both frames, flag rules, value mappings and
// the digest.
#include <gtest/gtest.h>

#include <utility>

#include "imagery/transformations.h"

namespace imagery {
namespace {

using Point = std::pair<int, int>;
using RGBA = LinearRGBA_T<float>;

Point Map(const ImageTransformations& t, int w, int h, int x, int y, ApplyTransformOpts options) {
  Point p;
  t.MapCoordinates(w, h, x, y, p.first, p.second, options);
  return p;
}

ImageTransformations Rotated(float angle, bool mirrorX = false, bool mirrorY = false) {
  ImageTransformations t;
  t.SetRotationAngle(angle);
  t.SetMirrorX(mirrorX);
  t.SetMirrorY(mirrorY);
  return t;
}

TEST(ImageTransformations, AnglesAndQuarterTurns) {
  const std::pair<float, double> cases[] = {{-90.0f, 270.0}, {450.5f, 90.5},     {720.0f, 0.0},
                                            {-0.5f, 359.5},  {-720.25f, 359.75}, {-1e9f, 80.0}};
  for (const auto& [given, expected] : cases)
    EXPECT_EQ(Rotated(given).GetAngle(), expected) << given;
  ImageTransformations t;
  for (const bool clockwise : {true, true, true, true, false})
    t.Rotate90(clockwise);
  EXPECT_EQ(t.GetAngle(), 270.0);

  // A quarter turn swaps the frame, down to 1 x 1 at deep levels. In the transformed frame of a 4 x 2
  // plane, (1, 2) is stored (2, 0) after a quarter turn and (1, 1) after three quarters; (1, 0) after a
  // half turn is (2, 1).
  const ImageTransformations quarter = Rotated(90);
  EXPECT_TRUE(Point(quarter.TransformedWidth(4, 2), quarter.TransformedHeight(4, 2)) == Point(2, 4) &&
              Point(quarter.TransformedWidth(4, 2, 2), quarter.TransformedHeight(4, 2, 40)) == Point(1, 1) &&
              Map(quarter, 4, 2, 1, 2, ATO_TransformedFrame | ATO_Geometry) == Point(2, 0));
  EXPECT_TRUE(Map(Rotated(270), 4, 2, 1, 2, ATO_TransformedFrame) == Point(1, 1) &&
              Map(Rotated(180), 4, 2, 1, 0, ATO_TransformedFrame) == Point(2, 1));
  // Stored frame: (3, 1) turns to (1, 0), then stretches to (trunc(1 * 4 / 2), trunc(0 * 2 / 4)).
  EXPECT_TRUE(Map(quarter, 4, 2, 3, 1, ATO_Geometry) == Point(2, 0) &&
              Map(quarter, 4, 2, 3, 1, ATO_ExposureContrast | ATO_Inversions) == Point(3, 1));
  // Other angles are carried and count as a transformation, but only mirror.
  const ImageTransformations odd = Rotated(45, true);
  EXPECT_TRUE(Map(odd, 4, 2, 0, 1, ATO_Geometry) == Point(3, 1) &&
              odd.HasTransformationsOtherThan(ImageTransformations::kAllFlags));
}

// Colour and normal inversion exclude each other, so InvertColor twice undoes itself only when normal
// inversion was off; exposure / contrast is flagged while either value is non-zero; only the seven named
// bits count as transformations, and only when not allowed.
TEST(ImageTransformations, FlagRules) {
  ImageTransformations t;
  t.SetInvertedColor(true);
  t.SetInvertedNormal(true);
  t.SetInvertedColor(false);
  EXPECT_EQ(t.GetFlags(), TransfoFlags(TF_InvertedNormal));
  t.InvertColor();
  t.InvertColor();
  t.Mirror(true);
  t.InvertNormalGreen();
  t.SetExposureContrastRaw(0.5f, 0.25f);
  t.SetExposure(0.0f);
  EXPECT_EQ(t.GetFlags(), TF_MirrorY | TF_InvertedNormalGreen | TF_ExposureContrast);
  t.SetContrast(0.0f);
  EXPECT_FALSE(t.HasExposureOrContrast());
  for (unsigned long long bit = 1; bit <= 128; bit <<= 1) {
    t.SetFlags(TransfoFlags(bit));
    EXPECT_EQ(t.HasTransformationsOtherThan(~t.GetFlags()) && !t.HasTransformationsOtherThan(t.GetFlags()),
              bit < 128);
  }
}

// One pixel through several records. Each has exposure -1 and contrast 1 (c <- max(0, 2c - 1)), applied
// only under its flag. Normal inversion inverts red and green and clamps all three; normal green clamps
// all three and inverts green; grey ignores both. Colour inversion wins over normal inversion and applies
// to grey; alpha inversion clamps.
TEST(ImageTransformations, ValueMappings) {
  const RGBA in(1.5f, 0.25f, -0.5f, -2);
  const float greyIn = 1.5f;
  // clang-format off
  const struct { TransfoFlags flags; ApplyTransformOpts options; RGBA out; float greyOut; } cases[] = {
      {TF_InvertedNormal | TF_InvertedNormalGreen, ATO_Inversions, {0, 0.25f, 0, -2}, greyIn},
      {TransfoFlags(TF_InvertedNormalGreen), ATO_Inversions, {1, 0.75f, 0, -2}, greyIn},
      {TF_InvertedColor | TF_InvertedNormal | TF_InvertedAlpha, ATO_Inversions, {0, 0.75f, 1, 1}, 0},
      {TF_InvertedColor | TF_InvertedAlpha, ATO_Geometry | ATO_ExposureContrast, in, greyIn},
      {TransfoFlags(TF_ExposureContrast), ATO_ExposureContrast, {2, 0, 0, -2}, 2},
      {TransfoFlags(TF_ExposureContrast), ATO_Geometry | ATO_Inversions, in, greyIn},
      {TransfoFlags(), ATO_ExposureContrast, in, greyIn}};
  // clang-format on
  ImageTransformations t;
  t.SetExposureContrastRaw(-1.0f, 1.0f);
  for (const auto& c : cases) {
    t.SetFlags(c.flags);
    RGBA rgba = in;
    float grey = greyIn;
    t.ApplyTransform(rgba, c.options);
    t.ApplyTransform(grey, c.options);
    EXPECT_TRUE(rgba == c.out && grey == c.greyOut) << "case " << &c - cases;
  }
}

TEST(ImageTransformations, EqualityAndDigests) {
  ImageTransformations a, b;
  b.DPI(300);
  EXPECT_TRUE(a != b && a.GetDigest() != b.GetDigest());
  b.SetRotationAngle(90.0f);
  b.SetExposure(0.5f);
  b.SetContrast(-0.25f);
  b.SetMirrorY(true);
  b.SetInvertedNormal(true);
  // Little-endian 90.0, 300, 0.5f, -0.25f, then colour, normal, alpha, mirror X, mirror Y, exposure /
  // contrast and normal green.
  const unsigned char bytes[27] = {0, 0,    0, 0, 0,    0x80, 0x56, 0x40, 0x2C, 0x01, 0, 0, 0, 0,
                                   0, 0x3F, 0, 0, 0x80, 0xBE, 0,    1,    0,    0,    1, 1, 0};
  EXPECT_EQ(b.GetDigest(), ComputeMD5(bytes, sizeof bytes));
  // Bits that name no transformation separate records but not digests.
  ImageTransformations c = b;
  c.SetFlags(b.GetFlags() | TransfoFlags(256ull));
  EXPECT_TRUE(c != b && c.GetDigest() == b.GetDigest());
  a.Swap(c);
  EXPECT_TRUE(a != b && c == ImageTransformations());
}

}  // namespace
}  // namespace imagery
