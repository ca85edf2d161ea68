#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "imagery/transformations.h"

namespace imagery {
namespace {

using Point = std::pair<int, int>;
using RGB = LinearRGB_T<float>;

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

TEST(ImageTransformations, AnglesAreKeptBetweenZeroAndThreeSixty) {
  const std::pair<float, double> cases[] = {{-90.0f, 270.0}, {450.5f, 90.5},     {720.0f, 0.0},
                                            {-0.5f, 359.5},  {-720.25f, 359.75}, {-1e9f, 80.0}};
  for (const auto& [given, expected] : cases)
    EXPECT_EQ(Rotated(given).GetAngle(), expected) << given;
  ImageTransformations t;
  for (int i = 0; i < 4; ++i)
    t.Rotate90(true);
  EXPECT_EQ(t.GetAngle(), 0.0);
  t.Rotate90(false);
  EXPECT_EQ(t.GetAngle(), 270.0);
}

TEST(ImageTransformations, QuarterTurnsSwapTheFrameOthersOnlyMirror) {
  const ImageTransformations t = Rotated(90);
  EXPECT_TRUE(t.IsTransformedSizeSwapped());
  EXPECT_EQ(Point(t.TransformedWidth(4, 2), t.TransformedHeight(4, 2)), Point(2, 4));
  EXPECT_EQ(Point(t.TransformedWidth(4, 2, 1), t.TransformedHeight(4, 2, 40)), Point(1, 1));
  EXPECT_EQ(Map(t, 4, 2, 0, 0, ATO_TransformedFrame | ATO_Geometry), Point(0, 1));
  // Stored frame: (3, 1) turns to (1, 0), then stretches to (trunc(1 * 4 / 2), trunc(0 * 2 / 4)).
  EXPECT_EQ(Map(t, 4, 2, 3, 1, ATO_Geometry), Point(2, 0));
  EXPECT_EQ(Map(t, 4, 2, 3, 1, ATO_ExposureContrast | ATO_Inversions), Point(3, 1));

  const ImageTransformations odd = Rotated(45, true);
  EXPECT_FALSE(odd.IsTransformedSizeSwapped());
  EXPECT_EQ(Map(odd, 4, 2, 0, 1, ATO_Geometry), Point(3, 1));
  EXPECT_EQ(Map(odd, 4, 2, 0, 1, ATO_TransformedFrame), Point(3, 1));
  EXPECT_TRUE(odd.HasTransformationsOtherThan(ImageTransformations::kAllFlags));
}

// Sweeps odd sizes: in the transformed frame every pixel reaches a distinct stored pixel; in the stored
// frame every pixel lands inside the plane, exactly where the transformed frame puts it unless a quarter
// turn of a non-square plane stretches it. Turns compose: two quarters make a half, a quarter and three
// quarters cancel.
TEST(ImageTransformations, GeometrySweep) {
  const ApplyTransformOpts frame = ATO_TransformedFrame;
  const Point sizes[] = {{1, 1}, {1, 5}, {3, 5}, {4, 2}, {6, 6}};
  for (const auto& [w, h] : sizes) {
    for (float angle : {0.0f, 90.0f, 180.0f, 270.0f, 45.0f}) {
      for (int mirror = 0; mirror < 4; ++mirror) {
        const ImageTransformations t = Rotated(angle, mirror & 1, mirror & 2);
        const bool stretched = w != h && t.IsTransformedSizeSwapped();
        std::set<Point> reached;
        for (int y = 0; y < t.TransformedHeight(w, h); ++y) {
          for (int x = 0; x < t.TransformedWidth(w, h); ++x)
            reached.insert(Map(t, w, h, x, y, frame));
        }
        EXPECT_EQ(reached.size(), static_cast<std::size_t>(w * h)) << w << "x" << h << " angle " << angle;
        for (int y = 0; y < h; ++y) {
          for (int x = 0; x < w; ++x) {
            const Point p = Map(t, w, h, x, y, ATO_Geometry);
            EXPECT_TRUE(reached.count(p) == 1 && (stretched || p == Map(t, w, h, x, y, frame))) << angle;
          }
        }
      }
    }
    const ImageTransformations quarter = Rotated(90), half = Rotated(180), three = Rotated(270);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const Point once = Map(quarter, h, w, x, y, frame);
        EXPECT_EQ(Map(quarter, w, h, once.first, once.second, frame), Map(half, w, h, x, y, frame));
        const Point back = Map(three, h, w, x, y, frame);
        EXPECT_EQ(Map(quarter, w, h, back.first, back.second, frame), Point(x, y));
      }
    }
  }
}

TEST(ImageTransformations, FlagRules) {
  ImageTransformations t;
  t.SetInvertedColor(true);
  t.SetInvertedNormal(true);
  t.SetInvertedColor(false);
  EXPECT_EQ(t.GetFlags(), TransfoFlags(TF_InvertedNormal));
  // InvertColor twice undoes itself only when normal inversion was off.
  t.InvertColor();
  t.InvertColor();
  t.Mirror(true);
  t.Mirror(false);
  t.MirrorY();
  t.InvertNormalGreen();
  t.SetExposure(0.5f);
  t.SetContrast(0.25f);
  t.SetExposure(0.0f);
  EXPECT_EQ(t.GetFlags(), TF_MirrorX | TF_InvertedNormalGreen | TF_ExposureContrast);
  t.SetContrast(0.0f);
  EXPECT_FALSE(t.HasExposureOrContrast());

  // Only the seven named bits count, and only when not allowed; a rotation always counts.
  t.SetFlags(TransfoFlags(128ull));
  EXPECT_FALSE(t.HasTransformationsOtherThan(TransfoFlags()));
  for (unsigned long long bit = 1; bit <= 64; bit <<= 1) {
    t.SetFlags(TransfoFlags(bit));
    EXPECT_TRUE(t.HasTransformationsOtherThan(TransfoFlags(~bit)) &&
                !t.HasTransformationsOtherThan(TransfoFlags(bit)))
        << bit;
  }
}

TEST(ImageTransformations, ValueMappings) {
  ImageTransformations t;
  t.SetInvertedNormal(true);
  t.SetInvertedNormalGreen(true);
  RGB c(0.2f, 0.3f, 0.4f);
  t.ApplyTransform(c, ATO_Inversions);
  EXPECT_FLOAT_EQ(c.r, 0.8f);
  EXPECT_FLOAT_EQ(c.g, 0.3f);
  EXPECT_EQ(c.b, 0.4f);
  // Normal inversion clamps blue without inverting it; grey ignores the normal flags.
  t.SetInvertedNormalGreen(false);
  c = {1.2f, -0.5f, 1.4f};
  float grey = 1.5f;
  t.ApplyTransform(c, ATO_Inversions);
  t.ApplyTransform(grey, ATO_Inversions);
  EXPECT_TRUE(c == RGB(0.0f, 1.0f, 1.0f) && grey == 1.5f);

  t.SetInvertedColor(true);
  t.SetInvertedAlpha(true);
  LinearRGBA_T<float> rgba(1.5f, -0.5f, 0.25f, -2.0f);
  t.ApplyTransform(rgba, ATO_Geometry | ATO_ExposureContrast);
  t.ApplyTransform(rgba, ATO_Inversions);
  t.ApplyTransform(grey, ATO_Inversions);
  EXPECT_TRUE(rgba == LinearRGBA_T<float>(0.0f, 1.0f, 0.75f, 1.0f) && grey == 0.0f);

  ImageTransformations e;
  e.SetExposure(0.1f);
  e.SetContrast(1.0f);
  grey = 0.25f;
  e.ApplyTransform(grey, ATO_ExposureContrast);
  EXPECT_EQ(grey, 0.6f);
  c = {0.25f, 0.5f, 2.0f};
  e.ApplyTransform(c, ATO_None);
  e.SetExposure(-1.0f);
  e.ApplyTransform(c, ATO_ExposureContrast);
  EXPECT_EQ(c, RGB(0.0f, 0.0f, 3.0f));
  // Values restored with the flag clear are carried but not applied.
  e.SetFlags(TransfoFlags());
  e.ApplyTransform(c, ATO_ExposureContrast);
  EXPECT_EQ(c, RGB(0.0f, 0.0f, 3.0f));
}

TEST(ImageTransformations, EqualityAndDigests) {
  ImageTransformations a, b;
  EXPECT_TRUE(a == b && a.GetDigest() == b.GetDigest());
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
