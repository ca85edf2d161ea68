// Blur: every format and awkward shape against a plain blur written from the arithmetic (wrapped
// positions, sums in kernel order, running sums for boxes), the kernels' known coefficients, the new
// implementation a blur leaves, and the same bytes whatever the number of threads.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "imagery/blur.h"
#include "imagery/mipmap.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;

// p modulo n, non-negative, spelled as the documented rule for negative positions.
int WrapReference(long long p, int n) {
  if (p >= 0)
    return static_cast<int>(p % n);
  const int r = static_cast<int>((-p) % n);
  return r == 0 ? 0 : n - r;
}

LinearRGBA_T<float> ReadLinear(const PixelPlane& plane, int x, int y) {
  LinearRGBA_T<float> c;
  const ConstPixelAccess cursor(plane, x, y);
  cursor.GetPixelRGB(c);
  cursor.GetPixelAlpha(c.a);
  return c;
}

// One pass, pixel by pixel through the runtime cursors.
Image ReferencePass(const Image& source, const MonoDimBlurKernel& k) {
  const PixelPlane& from = source.GetImplRef().Plane();
  const int w = from.Width(), h = from.Height();
  Image out(w, h, source.ImageType(), source.GetGamma());
  PixelPlane& to = out.GetImplRef().Plane();
  const bool across = k.IsHorizontal();
  const int lines = across ? h : w, length = across ? w : h;
  const auto at = [&](int line, long long p) {
    const int q = WrapReference(p, length);
    return across ? ReadLinear(from, q, line) : ReadLinear(from, line, q);
  };
  const auto put = [&](int line, int p, const LinearRGBA_T<float>& c) {
    PixelAccess(to, across ? p : line, across ? line : p).SetPixelRGBA(c, c.a);
  };
  for (int line = 0; line < lines; ++line) {
    if (!k.IsConstant()) {
      for (int p = 0; p < length; ++p) {
        LinearRGBA_T<float> sum(0.0f, 0.0f, 0.0f, 0.0f);
        for (int i = k.FirstOffset(); i <= k.LastOffset(); ++i) {
          const LinearRGBA_T<float> c = at(line, static_cast<long long>(p) + i);
          const float f = k.GetCoeff(i);
          sum = {sum.r + c.r * f, sum.g + c.g * f, sum.b + c.b * f, sum.a + c.a * f};
        }
        put(line, p, sum);
      }
      continue;
    }
    const float w1 = 1.0f / static_cast<float>(k.LastOffset() - k.FirstOffset() + 1);
    LinearRGBA_T<float> sum(0.0f, 0.0f, 0.0f, 0.0f);
    for (long long i = k.FirstOffset(); i <= k.LastOffset(); ++i) {
      const LinearRGBA_T<float> c = at(line, i);
      sum = {sum.r + c.r, sum.g + c.g, sum.b + c.b, sum.a + c.a};
    }
    put(line, 0, {sum.r * w1, sum.g * w1, sum.b * w1, sum.a * w1});
    for (int p = 1; p < length; ++p) {
      const LinearRGBA_T<float> out = at(line, p - 1LL + k.FirstOffset()),
                                in = at(line, p + 0LL + k.LastOffset());
      sum = {sum.r - out.r + in.r, sum.g - out.g + in.g, sum.b - out.b + in.b, sum.a - out.a + in.a};
      put(line, p, {sum.r * w1, sum.g * w1, sum.b * w1, sum.a * w1});
    }
  }
  return out;
}

Bytes ReferenceBlur(const Image& source, const SeparableBlurKernel& kernel) {
  return PlaneBytes(ReferencePass(ReferencePass(source, kernel.horizontal), kernel.vertical));
}

Bytes Blurred(const Image& source, const SeparableBlurKernel& kernel) {
  Image work(*std::unique_ptr<Image>(source.DeepCopy()));
  Blur(work, kernel);
  return PlaneBytes(work);
}

GammaValue GammaFor(EImageType type, int variant) {
  if (!IsGammaEncoded(type))
    return gamma::Linear;
  return variant == 0 ? gamma::sRGB : GammaValue(2.2f);
}

struct Shape {
  int width, height;
};

TEST(BlurTest, EveryFormatAndShapeMatchesThePlainBlur) {
  const SeparableBlurKernel kernels[] = {
      BuildGaussianBlurKernel(1.3f, 0.8f, 2, 1),
      BuildWhiteBlurKernel(1, 3),
      BuildConstantBlurKernel(2, 1),
      // Windows wider than the image wrap around it more than once.
      BuildConstantBlurKernel(9, 6),
      BuildGaussianBlurKernel(3.0f, 2.0f, 7, 5),
  };
  const Shape shapes[] = {{7, 5}, {1, 6}, {6, 1}, {1, 1}, {13, 4}};
  unsigned draw = 1;
  for (const EImageType type : kAllFormats) {
    for (const Shape& shape : shapes) {
      for (std::size_t k = 0; k < std::size(kernels); ++k) {
        const Image source = RandomImage(type, shape.width, shape.height, GammaFor(type, draw % 2), draw);
        ++draw;
        EXPECT_EQ(Blurred(source, kernels[k]), ReferenceBlur(source, kernels[k]))
            << "format " << type << ", " << shape.width << " x " << shape.height << ", kernel " << k;
      }
    }
  }
}

TEST(BlurTest, SameBytesOnOneThreadAndOnThePool) {
  const SeparableBlurKernel kernels[] = {BuildGaussianBlurKernel(2.0f, 2.0f, 6, 6),
                                         BuildConstantBlurKernel(5, 7), BuildWhiteBlurKernel(3, 2)};
  for (const EImageType type : {IT_RGBA8, IT_RGBA32f, IT_Grayscale16}) {
    // Tall and wide enough for several bands in each direction.
    const Image source = RandomImage(type, 613, 301, GammaFor(type, 0), 77);
    for (const SeparableBlurKernel& kernel : kernels) {
      const Bytes pooled = Blurred(source, kernel);
      EXPECT_EQ(pooled, OnOneThread(source, [&](Image& image) { Blur(image, kernel); })) << type;
    }
  }
  // The large image against the plain blur once, so that band edges are checked too.
  const Image source = RandomImage(IT_RGBA8, 613, 301, gamma::sRGB, 78);
  const SeparableBlurKernel box = BuildConstantBlurKernel(4, 9);
  EXPECT_EQ(Blurred(source, box), ReferenceBlur(source, box));
}

TEST(BlurTest, KernelsHoldTheirDocumentedCoefficients) {
  const MonoDimBlurKernel identity;
  EXPECT_EQ(identity.Coefficients(), std::vector<float>{1.0f});
  EXPECT_TRUE(identity.IsHorizontal() && !identity.IsConstant());

  const SeparableBlurKernel gaussian = BuildGaussianBlurKernel(1.0f, 1.0f, 1, 1);
  EXPECT_NEAR(gaussian.vertical.GetCoeff(-1), 0.274069f, 1e-6f);
  EXPECT_NEAR(gaussian.vertical.GetCoeff(0), 0.451863f, 1e-6f);
  EXPECT_FALSE(gaussian.vertical.IsHorizontal());

  const SeparableBlurKernel white = BuildWhiteBlurKernel(2, 0);
  EXPECT_EQ(white.horizontal.Coefficients(), std::vector<float>(5, 0.2f));
  EXPECT_EQ(white.vertical.Coefficients(), std::vector<float>{1.0f});

  const SeparableBlurKernel box = BuildConstantBlurKernel(3, 4);
  EXPECT_TRUE(box.horizontal.IsConstant() && box.horizontal.FirstOffset() == -3 &&
              box.vertical.LastOffset() == 4);

  MonoDimBlurKernel custom(-1, 2, false, true);
  custom.SetCoeff(-1, 1.0f);
  custom.SetCoeff(2, 3.0f);
  custom.Normalize();
  EXPECT_EQ(custom.Coefficients(), (std::vector<float>{0.25f, 0.0f, 0.0f, 0.75f}));
}

TEST(BlurTest, KnownValues) {
  // The first pixel of a wrapped box of radius 1 averages positions 2, 0 and 1.
  Image row(3, 1, IT_Grayscale32f, gamma::Linear);
  row.SetPixelGrayscale(2, 0, 3.0f, ATO_None);
  BlurMono(row, BuildConstantBlurKernel(1, 0).horizontal);
  for (int x = 0; x < 3; ++x) {
    float v = 0.0f;
    row.GetPixelGrayscale(x, 0, v, ATO_None);
    EXPECT_EQ(v, 1.0f) << x;
  }

  // Radius 0 in both directions keeps every 8-bit code through the sRGB round trip.
  const Image source = RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 5);
  EXPECT_EQ(Blurred(source, BuildConstantBlurKernel(0, 0)), PlaneBytes(source));

  // Alpha takes the colour's weights: a single opaque pixel spreads as the box does.
  Image alpha(5, 1, IT_RGBA32f, gamma::Linear);
  alpha.SetPixelRGBA(0, 0, {1.0f, 1.0f, 1.0f, 1.0f}, ATO_None);
  Blur(alpha, BuildWhiteBlurKernel(2, 0));
  for (int x = 0; x < 5; ++x) {
    LinearRGBA_T<float> c;
    alpha.GetPixelRGBA(x, 0, c, ATO_None);
    EXPECT_TRUE(c.a == 0.2f && c.r == 0.2f) << x;
  }
}

TEST(BlurTest, LeavesAnUnsynchronisedWorkCopyAndOtherHandlesUntouched) {
  Image image = RandomImage(IT_RGB8, 17, 9, gamma::sRGB, 9);
  image.SetTitle(ZELString(L"leaves"));
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(true), MipMapMethod::Standard);
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(false), MipMapMethod::Standard);
  ASSERT_TRUE(image.ValidMipMapsGamma() && image.ValidMipMapsNoGamma());
  const Image other = image;
  const Bytes before = PlaneBytes(image);

  Blur(image, BuildGaussianBlurKernel(1.5f, 1.5f, 3, 3));
  EXPECT_NE(image.GetImpl(), other.GetImpl());
  EXPECT_TRUE(image.GetImplRef().IsWorkCopy() && !image.Synchronized());
  EXPECT_FALSE(image.ValidMipMapsGamma() || image.ValidMipMapsNoGamma());
  EXPECT_TRUE(image.Title() == ZELString(L"leaves") && image.ImageType() == IT_RGB8);
  EXPECT_EQ(image.GetGamma().Value(), gamma::sRGB.Value());
  EXPECT_NE(PlaneBytes(image), before);
  EXPECT_EQ(PlaneBytes(other), before);
  EXPECT_TRUE(other.ValidMipMapsGamma());
}

}  // namespace
}  // namespace imagery
