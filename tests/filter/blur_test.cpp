// Blur: every format and awkward shape against a plain blur written from the arithmetic (wrapped
// positions, sums in kernel order, running sums for boxes), the kernels' known coefficients, the new
// implementation a blur leaves, and the same bytes whatever the number of threads.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <vector>

#include "imagery/blur.h"
#include "imagery/mipmap.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;

// p modulo n, non-negative: positions outside the line wrap around it.
int WrapReference(long long p, int n) {
  return static_cast<int>((p % n + n) % n);
}

// One pass, pixel by pixel through the runtime cursors.
Image ReferencePass(const Image& source, const MonoDimBlurKernel& k) {
  using RGBA = std::array<float, 4>;
  const PixelPlane& from = source.GetImplRef().Plane();
  const int w = from.Width(), h = from.Height();
  Image out(w, h, source.ImageType(), source.GetGamma());
  const bool across = k.IsHorizontal();
  const int lines = across ? h : w, length = across ? w : h;
  const auto at = [&](int line, long long p) {
    const int q = WrapReference(p, length);
    LinearRGBA_T<float> c;
    const ConstPixelAccess cursor(from, across ? q : line, across ? line : q);
    cursor.GetPixelRGB(c);
    cursor.GetPixelAlpha(c.a);
    return RGBA{c.r, c.g, c.b, c.a};
  };
  const auto put = [&](int line, int p, const RGBA& c, float f) {
    PixelAccess(out.GetImplRef().Plane(), across ? p : line, across ? line : p)
        .SetPixelRGBA({c[0] * f, c[1] * f, c[2] * f}, c[3] * f);
  };
  for (int line = 0; line < lines; ++line) {
    if (!k.IsConstant()) {
      for (int p = 0; p < length; ++p) {
        RGBA sum{};
        for (int i = k.FirstOffset(); i <= k.LastOffset(); ++i)
          for (int c = 0; c < 4; ++c)
            sum[c] += at(line, static_cast<long long>(p) + i)[c] * k.GetCoeff(i);
        put(line, p, sum, 1.0f);
      }
      continue;
    }
    // The box: a running sum, the pixel leaving the window subtracted before the one entering is added.
    const float w1 = 1.0f / static_cast<float>(k.LastOffset() - k.FirstOffset() + 1);
    RGBA sum{};
    for (long long i = k.FirstOffset(); i <= k.LastOffset(); ++i)
      for (int c = 0; c < 4; ++c)
        sum[c] += at(line, i)[c];
    put(line, 0, sum, w1);
    for (int p = 1; p < length; ++p) {
      const RGBA out = at(line, p - 1LL + k.FirstOffset()), in = at(line, p + 0LL + k.LastOffset());
      for (int c = 0; c < 4; ++c)
        sum[c] = sum[c] - out[c] + in[c];
      put(line, p, sum, w1);
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

// Gamma-encoded formats alternate between sRGB and a power curve. A radius of 0 keeps every 8-bit code
// through the decode and encode.
TEST(BlurTest, EveryFormatAndShapeMatchesThePlainBlur) {
  const SeparableBlurKernel kernels[] = {
      BuildGaussianBlurKernel(1.3f, 0.8f, 2, 1),
      BuildWhiteBlurKernel(1, 3),
      BuildConstantBlurKernel(2, 1),
      // Windows wider than the image wrap around it more than once.
      BuildConstantBlurKernel(9, 6),
      BuildGaussianBlurKernel(3.0f, 2.0f, 7, 5),
  };
  const int shapes[][2] = {{7, 5}, {1, 6}, {6, 1}, {1, 1}, {13, 4}};
  unsigned draw = 1;
  for (const EImageType type : kAllFormats) {
    for (const auto& [width, height] : shapes) {
      for (std::size_t k = 0; k < std::size(kernels); ++k, ++draw) {
        const GammaValue gamma = !IsGammaEncoded(type) ? gamma::Linear
                                 : draw % 2            ? GammaValue(2.2f)
                                                       : gamma::sRGB;
        const Image source = RandomImage(type, width, height, gamma, draw);
        EXPECT_EQ(Blurred(source, kernels[k]), ReferenceBlur(source, kernels[k]))
            << "format " << type << ", " << width << " x " << height << ", kernel " << k;
      }
    }
  }
  const Image source = RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 5);
  EXPECT_EQ(Blurred(source, BuildConstantBlurKernel(0, 0)), PlaneBytes(source));
}

// Tall and wide enough for several bands in each direction: the same bytes on one thread and on the
// pool, and the plain blur's bytes at the band edges.
TEST(BlurTest, SameBytesOnOneThreadAndOnThePool) {
  const SeparableBlurKernel kernels[] = {BuildGaussianBlurKernel(2.0f, 2.0f, 6, 6),
                                         BuildConstantBlurKernel(5, 7), BuildWhiteBlurKernel(3, 2)};
  for (const EImageType type : {IT_RGBA8, IT_RGBA32f, IT_Grayscale16}) {
    const Image source = RandomImage(type, 613, 301, IsGammaEncoded(type) ? gamma::sRGB : gamma::Linear, 77);
    for (const SeparableBlurKernel& kernel : kernels) {
      const Bytes pooled = Blurred(source, kernel);
      EXPECT_EQ(pooled, OnOneThread(source, [&](Image& image) { Blur(image, kernel); })) << type;
      if (type == IT_RGBA8 && kernel.horizontal.IsConstant()) {
        EXPECT_EQ(pooled, ReferenceBlur(source, kernel));
      }
    }
  }
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

TEST(BlurTest, LeavesAnUnsynchronisedWorkCopyAndOtherHandlesUntouched) {
  Image image = RandomImage(IT_RGB8, 17, 9, gamma::sRGB, 9);
  image.SetTitle(ZELString(L"leaves"));
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(true), MipMapMethod::Standard);
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(false), MipMapMethod::Standard);
  ASSERT_TRUE(image.ValidMipMapsGamma() && image.ValidMipMapsNoGamma());
  const Image other = image;
  const Bytes before = PlaneBytes(image);

  Blur(image, BuildGaussianBlurKernel(1.5f, 1.5f, 3, 3));
  EXPECT_TRUE(image.GetImpl() != other.GetImpl() && image.GetImplRef().IsWorkCopy() && !image.Synchronized());
  EXPECT_FALSE(image.ValidMipMapsGamma() || image.ValidMipMapsNoGamma());
  EXPECT_TRUE(image.Title() == ZELString(L"leaves") && image.ImageType() == IT_RGB8 &&
              image.GetGamma() == gamma::sRGB);
  EXPECT_TRUE(PlaneBytes(image) != before && PlaneBytes(other) == before && other.ValidMipMapsGamma());
}

}  // namespace
}  // namespace imagery
