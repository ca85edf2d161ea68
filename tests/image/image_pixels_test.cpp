// Per-pixel handle operations: which transformations reads and writes go through, mip levels, averages,
// constant checks and baking the transformations into new pixels.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/pixel_access.h"

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
  image.GetPixelGrayscale(1, 1, grey, ATO_None);
  EXPECT_EQ(grey, (0.35f * 0.25f + 0.5f * 0.5f) + 0.15f * 2.0f);
  image.SetPixelAlpha(1, 1, 0.125f, ATO_Inversions);
  image.GetPixelAlpha(1, 1, alpha, ATO_None);
  image.GetPixelAlpha(1, 1, grey, ATO_Inversions);
  EXPECT_TRUE(alpha == 0.125f && grey == 0.875f);
  // The linear-chain colour accessors map positions and carry alpha the same way.
  image.MirrorX();
  image.SetPixelRGBANoGammaConversion(0, 0, RGBA(0.5f, 0.25f, 1, 0.75f), ATO_Geometry);
  image.GetPixelRGBANoGammaConversion(1, 0, c, ATO_None);
  EXPECT_EQ(c, RGBA(0.5f, 0.25f, 1, 0.75f));
  RGB rgb;
  image.GetPixelRGBNoGammaConversion(0, 0, rgb, ATO_Geometry);
  EXPECT_EQ(rgb, RGB(0.5f, 0.25f, 1));
  // Formats without alpha read as opaque.
  Image opaque(3, 3, IT_RGB8, gamma::sRGB);
  opaque.SetInvertedAlpha(true);
  opaque.GetPixelAlpha(2, 2, alpha, ATO_None);
  opaque.GetPixelAlpha(2, 2, grey, ATO_Inversions);
  EXPECT_TRUE(alpha == 1.0f && grey == 0.0f);
}

TEST(ImagePixels, MipLevelsAndTheLinearChain) {
  Image image(4, 4, IT_RGB8, GammaValue(2.2f));
  ImageImpl& impl = image.GetImplRef();
  impl.AllocateMipMapGamma();
  impl.AllocateMipMapNoGamma();
  image.SetPixelGrayscale(1, 1, 1.0f, ATO_None, 1);
  EXPECT_TRUE(impl.MipGamma(1).PixelAddress(1, 1)[0] == 255 && impl.Plane().PixelAddress(1, 1)[0] == 0);
  // The linear chain stores plain fractions.
  image.SetPixelGrayscaleNoGammaConversion(0, 0, 0.5f, ATO_None, 2);
  EXPECT_EQ(impl.MipNoGamma(2).PixelAddress(0, 0)[1], 128);
  float grey;
  image.GetPixelGrayscaleNoGammaConversion(0, 0, grey, ATO_None, 2);
  EXPECT_EQ(grey, 128 * kInv255);
  // Geometry at a level uses that level's size; until marked valid, levels read level 0.
  image.MirrorX();
  image.GetPixelGrayscale(0, 1, grey, ATO_Geometry, 1);
  EXPECT_EQ(grey, 1.0f);
  impl.InvalidateMipMaps(true, true);
  image.GetPixelGrayscale(0, 1, grey, ATO_Geometry, 1);
  EXPECT_EQ(grey, 0.0f);
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

TEST(ImagePixels, ConstantImagesAreExact) {
  RGB colour, first;
  float grey = 0, alpha = 0;
  for (const EImageType type : {IT_RGB8, IT_Grayscale16, IT_RGBA16, IT_RGBEA}) {
    Image image(5, 3, type, gamma::sRGB);
    for (int i = 0; i < 15; ++i)
      image.SetPixelRGBA(i % 5, i / 5, RGBA(0.5f, 0.5f, 0.5f, 0.5f), ATO_None);
    EXPECT_TRUE(image.IsConstantColor(colour) && image.IsConstantGrayscale(grey) &&
                image.IsConstantAlpha(alpha))
        << int(type);
    image.GetPixelRGB(0, 0, first, ATO_None);
    EXPECT_EQ(colour, first);
    // One code more in the last pixel, then in a middle one.
    for (const auto& [x, y] : {std::pair{4, 2}, std::pair{2, 1}}) {
      Image changed(image);
      changed.NewImplFromExisting(nullptr);
      changed.GetImplRef().CopyMemoryFrom(image.GetImplRef());
      changed.GetImplRef().Plane().PixelAddress(x, y)[type != IT_RGBEA && Is16Bit(type) ? 1 : 0] += 1;
      EXPECT_FALSE(changed.IsConstantColor(colour)) << int(type) << " at " << x << "," << y;
    }
  }
  // Alpha alone differing leaves the colour constant.
  Image translucent(3, 3, IT_RGBA8, gamma::sRGB);
  translucent.SetPixelAlpha(2, 2, 1.0f, ATO_None);
  EXPECT_TRUE(!translucent.IsConstantAlpha(alpha) && translucent.IsConstantColor(colour));
}

TEST(ImagePixels, BakingTransformations) {
  ImageFactory& factory = ImageFactory::GetInstance();
  Image plain = CodedImage(3, 5, IT_RGBA8);
  EXPECT_EQ(std::unique_ptr<Image>(factory.BuildAndBakeTransformations(plain, false))->GetImpl(),
            plain.GetImpl());
  EXPECT_NE(std::unique_ptr<Image>(factory.BuildAndBakeTransformations(plain, true))->GetImpl(),
            plain.GetImpl());

  // A grey, an alpha and a colour format: the baked pixels are those the source shows in its transformed
  // frame with every value transformation, stored without any transformation of their own.
  Image grey(4, 2, IT_Grayscale32f, gamma::Linear);
  for (int i = 0; i < 8; ++i)
    grey.SetPixelGrayscale(i % 4, i / 4, static_cast<float>(i), ATO_None);
  grey.SetRotationAngle(90);
  grey.SetExposure(0.5f);
  Image mirrored = plain;
  mirrored.SetPixelRGBA(2, 4, RGBA(0, 0, 0, 1), ATO_None);
  mirrored.SetFilePath(ZELPath(L"/maps/brick.png"));
  mirrored.SetTitle(ZELString(L"Brick"));
  mirrored.MirrorX();
  // An angle that moves no pixel still bakes.
  Image inverted = CodedImage(2, 2, IT_RGB16);
  inverted.SetRotationAngle(45);
  inverted.SetInvertedColor(true);
  for (const Image* source : {&grey, &mirrored, &inverted}) {
    SCOPED_TRACE(int(source->ImageType()));
    std::unique_ptr<Image> baked(factory.BuildAndBakeTransformations(*source, false));
    ASSERT_EQ(baked->Width() * 10 + baked->Height(),
              source->GetTransformedWidth() * 10 + source->GetTransformedHeight());
    EXPECT_TRUE(baked->ImageType() == source->ImageType() &&
                baked->GetTransformations() == ImageTransformations());
    EXPECT_TRUE(baked->FilePath() == source->FilePath() && baked->Title().IsEmpty());
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

}  // namespace
}  // namespace imagery
