// The transformation record (angles, coordinate mapping in both frames, flag rules, value mappings) and
// the per-pixel handle operations that go through it: reads and writes, averages and baking the
// transformations into new pixels.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/pixel_access.h"
#include "imagery/transformations.h"

namespace imagery {
namespace {

using RGB = LinearRGB_T<float>;
using RGBA = LinearRGBA_T<float>;

// A linear image whose pixel (x, y) has red x * 10 + 1, green y * 10 + 1 (in 8-bit codes) and blue 7.
Image CodedImage(int width, int height, EImageType type = IT_RGB8) {
  Image image(width, height, type, gamma::Linear);
  for (int i = 0; i < width * height; ++i) {
    const int x = i % width, y = i / width;
    image.SetPixelRGBA(x, y, RGBA((x * 10 + 1) / 255.0f, (y * 10 + 1) / 255.0f, 7 / 255.0f, 0.5f), ATO_None);
  }
  return image;
}

// The value mappings themselves are the transformations' own; here only which handle operations apply
// them.
TEST(ImagePixels, ValueTransformationsApplyToReadsOnly) {
  Image image(2, 2, IT_RGBA32f, gamma::Linear);
  RGBA c, expected(0.25f, 0.5f, 2.0f, 0.25f);
  image.SetPixelRGBA(1, 1, expected, ATO_None);
  image.SetExposure(0.1f);
  image.SetContrast(1.0f);
  image.SetInvertedColor(true);
  image.SetInvertedAlpha(true);
  image.GetPixelRGBA(1, 1, c, ATO_ExposureContrast | ATO_Inversions);
  image.GetTransformations().ApplyTransform(expected, ATO_ExposureContrast | ATO_Inversions);
  EXPECT_EQ(c, expected);
  float grey, alpha;
  image.SetPixelAlpha(1, 1, 0.125f, ATO_Inversions);
  image.GetPixelAlpha(1, 1, alpha, ATO_None);
  image.GetPixelAlpha(1, 1, grey, ATO_Inversions);
  EXPECT_TRUE(alpha == 0.125f && grey == 0.875f);
  // Formats without alpha read as opaque.
  Image opaque(3, 3, IT_RGB8, gamma::sRGB);
  opaque.SetInvertedAlpha(true);
  opaque.GetPixelAlpha(2, 2, alpha, ATO_None);
  opaque.GetPixelAlpha(2, 2, grey, ATO_Inversions);
  EXPECT_TRUE(alpha == 1.0f && grey == 0.0f);
}

TEST(ImagePixels, AverageColorSamplesAGridThroughEveryTransformation) {
  Image image = CodedImage(4, 6);
  RGB c, sum;
  image.MirrorX();
  image.MirrorY();
  image.GetPixelRGB(3, 5, c, ATO_None);
  EXPECT_EQ(image.GetAverageColor(1), c);
  // Two by two samples at 0 and half of each side, summed in single precision.
  image.SetMirrorX(false);
  image.SetMirrorY(false);
  image.SetInvertedColor(true);
  for (const int i : {0, 1, 2, 3}) {
    image.GetPixelRGB(i % 2 * 2, i / 2 * 3, c, ATO_Inversions);
    sum += c;
  }
  EXPECT_EQ(image.GetAverageColor(2), sum * 0.25f);
}

TEST(ImagePixels, BakingTransformations) {
  ImageFactory& factory = ImageFactory::GetInstance();
  // A grey and an alpha format: the baked pixels are those the source shows in its transformed frame with
  // every value transformation, stored without any transformation of their own (mirrors and half turns
  // show in the tool's pictures).
  Image grey(4, 2, IT_Grayscale32f, gamma::Linear);
  for (int i = 0; i < 8; ++i)
    grey.SetPixelGrayscale(i % 4, i / 4, static_cast<float>(i), ATO_None);
  grey.SetRotationAngle(90);
  grey.SetExposure(0.5f);
  // An angle that moves no pixel still bakes.
  Image inverted = CodedImage(2, 2, IT_RGBA16);
  inverted.SetRotationAngle(45);
  inverted.SetInvertedColor(true);
  for (const Image* source : {&grey, &inverted}) {
    SCOPED_TRACE(int(source->ImageType()));
    std::unique_ptr<Image> baked(factory.BuildAndBakeTransformations(*source, false));
    ASSERT_EQ(baked->Width() * 10 + baked->Height(),
              source->GetTransformedWidth() * 10 + source->GetTransformedHeight());
    EXPECT_TRUE(baked->ImageType() == source->ImageType() &&
                baked->GetTransformations() == ImageTransformations());
    for (int i = 0; i < baked->Width() * baked->Height(); ++i) {
      RGBA expected, actual;
      source->GetPixelRGBA(i % baked->Width(), i / baked->Width(), expected,
                           ATO_TransformedFrame | ATO_ExposureContrast | ATO_Inversions);
      baked->GetPixelRGBA(i % baked->Width(), i / baked->Width(), actual, ATO_None);
      // 16-bit codes are rounded on the way.
      for (float gap :
           {actual.r - expected.r, actual.g - expected.g, actual.b - expected.b, actual.a - expected.a})
        EXPECT_LE(std::fabs(gap), 0.5f / 65535) << "pixel " << i;
    }
  }
  float corner;
  std::unique_ptr<Image>(factory.BuildAndBakeTransformations(grey, false))
      ->GetPixelGrayscale(0, 0, corner, ATO_None);
  EXPECT_EQ(corner, 4.5f);  // stored (0, 1) with the exposure
}

using Point = std::pair<int, int>;

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
  const std::pair<float, double> cases[] = {
      {-90.0f, 270.0}, {450.5f, 90.5}, {720.0f, 0.0}, {-0.5f, 359.5}, {-1e9f, 80.0}};
  for (const auto& [given, expected] : cases)
    EXPECT_EQ(Rotated(given).GetAngle(), expected) << given;

  // A quarter turn swaps the frame, down to 1 x 1 at deep levels. In the transformed frame of a 4 x 2
  // plane, (1, 2) is stored (2, 0) after a quarter turn and (1, 1) after three quarters (the half turn
  // shows in the tool's turned pictures).
  const ImageTransformations quarter = Rotated(90);
  EXPECT_TRUE(Point(quarter.TransformedWidth(4, 2), quarter.TransformedHeight(4, 2)) == Point(2, 4) &&
              Point(quarter.TransformedWidth(4, 2, 2), quarter.TransformedHeight(4, 2, 40)) == Point(1, 1) &&
              Map(quarter, 4, 2, 1, 2, ATO_TransformedFrame | ATO_Geometry) == Point(2, 0));
  EXPECT_EQ(Map(Rotated(270), 4, 2, 1, 2, ATO_TransformedFrame), Point(1, 1));
  // Stored frame: (3, 1) turns to (1, 0), then stretches to (trunc(1 * 4 / 2), trunc(0 * 2 / 4)).
  EXPECT_TRUE(Map(quarter, 4, 2, 3, 1, ATO_Geometry) == Point(2, 0) &&
              Map(quarter, 4, 2, 3, 1, ATO_ExposureContrast | ATO_Inversions) == Point(3, 1));
  // Other angles are carried and count as a transformation, but only mirror.
  const ImageTransformations odd = Rotated(45, true);
  EXPECT_TRUE(Map(odd, 4, 2, 0, 1, ATO_Geometry) == Point(3, 1) &&
              odd.HasTransformationsOtherThan(ImageTransformations::kAllFlags));
}

// Colour and normal inversion exclude each other, so InvertColor twice undoes itself only when normal
// inversion was off; exposure / contrast is flagged while either value is non-zero.
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

}  // namespace
}  // namespace imagery
