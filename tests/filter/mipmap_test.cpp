// Mip-map chains: every format, method and chain against a plain chain written from the arithmetic
// (footprints, alpha weights, the min-or-max rule, the error diffusion), the row kernels at every
// processor level and thread count, opacity maps of the same and of another size, which chain is filled
// when, and the alpha coverage report.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "cpu/cpu_level.h"
#include "imagery/mipmap.h"
#include "imagery/resample.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using M = MipMapMethod;

constexpr M kMethods[] = {M::Standard, M::SharpAlphaNearest, M::SharpAlphaFixedThreshold,
                          M::SharpAlphaDither};

struct Px {
  LinearRGB_T<float> c;
  float a = 1.0f;
  float g = 0.0f;
};

Px Read(const PixelPlane& plane, int x, int y, bool gammaPath) {
  Px p;
  const auto read = [&](const auto& cursor) {
    cursor.GetPixelRGB(p.c);
    cursor.GetPixelGrayscale(p.g);
    cursor.GetPixelAlpha(p.a);
  };
  gammaPath ? read(ConstPixelAccess(plane, x, y)) : read(ConstPixelAccessNoGamma(plane, x, y));
  return p;
}

float Sharp(const float* v, float candidate) {
  const float low = std::min(std::min(std::min(v[0], v[1]), v[2]), v[3]);
  const float high = std::max(std::max(std::max(v[0], v[1]), v[2]), v[3]);
  return candidate < (low + high) * 0.5f ? low : high;
}

// One level of the plain chain. `alphaLevel`, when given, supplies the alphas (its grey without gamma);
// `greyOnly` computes an opacity map's grey chain.
void ReferenceLevel(const PixelPlane& from, PixelPlane& to, bool gammaPath, M method,
                    const PixelPlane* alphaLevel, bool greyOnly) {
  const int sw = from.Width(), sh = from.Height(), dw = to.Width(), dh = to.Height();
  const EImageType type = from.Type();
  const bool grey = IsGrayscale(type);
  std::vector<LinearRGBA_T<float>> error(static_cast<std::size_t>((dw + 2) * (dh + 1)));
  const auto e = [&](int x, int y) -> LinearRGBA_T<float>& {
    return error[static_cast<std::size_t>(y * (dw + 2) + x)];
  };
  for (int y = 0; y < dh; ++y) {
    for (int x = 0; x < dw; ++x) {
      const bool clamp = sw < 2 || sh < 2;
      const int xs[2] = {2 * x, clamp ? std::min(2 * x + 1, sw - 1) : 2 * x + 1};
      const int ys[2] = {2 * y, clamp ? std::min(2 * y + 1, sh - 1) : 2 * y + 1};
      Px p[4];
      float a[4], g[4];
      for (int i = 0; i < 4; ++i) {
        p[i] = Read(from, xs[i & 1], ys[i >> 1], gammaPath);
        if (alphaLevel != nullptr)
          p[i].a = Read(*alphaLevel, xs[i & 1], ys[i >> 1], false).g;
        a[i] = greyOnly ? p[i].g : p[i].a;
        g[i] = p[i].g;
      }
      const float s = ((a[0] + a[1]) + a[2]) + a[3];
      LinearRGB_T<float> weighted;
      float LinearRGB_T<float>::*channels[3] = {&LinearRGB_T<float>::r, &LinearRGB_T<float>::g,
                                                &LinearRGB_T<float>::b};
      for (auto ch : channels) {
        weighted.*ch =
            s <= 0.0f ? (((p[0].c.*ch + p[1].c.*ch) + p[2].c.*ch) + p[3].c.*ch) * 0.25f
                      : (((a[0] * p[0].c.*ch + a[1] * p[1].c.*ch) + a[2] * p[2].c.*ch) + a[3] * p[3].c.*ch) *
                            (1.0f / s);
      }
      const float mean = s * 0.25f;
      const bool sharpens = greyOnly || HasAlpha(type);
      LinearRGB_T<float> colour = weighted;
      float alpha = mean;
      if (method == M::SharpAlphaNearest) {
        colour = p[0].c;
        alpha = a[0];
      } else if (alphaLevel == nullptr && sharpens && method == M::SharpAlphaFixedThreshold) {
        alpha = Sharp(a, mean);
      } else if (alphaLevel == nullptr && sharpens && method == M::SharpAlphaDither) {
        const LinearRGBA_T<float> carried = e(x + 1, y);
        colour = {weighted.r + carried.r, weighted.g + carried.g, weighted.b + carried.b};
        alpha = Sharp(a, mean + carried.a);
        const LinearRGBA_T<float> err(weighted.r - colour.r, weighted.g - colour.g, weighted.b - colour.b,
                                      mean - alpha);
        const std::pair<LinearRGBA_T<float>*, float> targets[] = {{&e(x + 2, y), 0.4375f},
                                                                  {&e(x, y + 1), 0.1875f},
                                                                  {&e(x + 1, y + 1), 0.3125f},
                                                                  {&e(x + 2, y + 1), 0.0625f}};
        for (const auto& [t, w] : targets)
          *t = {t->r + err.r * w, t->g + err.g * w, t->b + err.b * w, t->a + err.a * w};
      }
      const auto write = [&](auto&& cursor) {
        if (greyOnly)
          cursor.SetPixelGrayscale(alpha);
        else if (grey && alphaLevel == nullptr)
          cursor.SetPixelGrayscale(method == M::SharpAlphaNearest ? g[0]
                                                                  : (((g[0] + g[1]) + g[2]) + g[3]) * 0.25f);
        else if (grey)
          cursor.SetPixelGrayscale(colour.r);
        else
          cursor.SetPixelRGBA(colour, alpha);
      };
      gammaPath ? write(PixelAccess(to, x, y)) : write(PixelAccessNoGamma(to, x, y));
    }
  }
}

// The plain chain of `image` as separate planes, level 1 first; with `opacity`, its alphas come from the
// opacity map's own plain chain.
std::vector<Image> ReferenceChain(const Image& image, bool gammaPath, M method,
                                  const Image* opacity = nullptr, bool greyOnly = false) {
  const std::vector<Image> alphaChain =
      opacity != nullptr ? ReferenceChain(*opacity, false, method, nullptr, true) : std::vector<Image>();
  std::vector<Image> levels;
  int w = image.Width(), h = image.Height();
  const GammaValue gamma = gammaPath ? image.GetGamma() : gamma::Linear;
  while (w > 1 || h > 1) {
    w = std::max(1, w / 2);
    h = std::max(1, h / 2);
    levels.emplace_back(w, h, image.ImageType(), gamma);
    const std::size_t l = levels.size() - 1;
    const PixelPlane& from = l == 0 ? image.GetImplRef().Plane() : levels[l - 1].GetImplRef().Plane();
    const PixelPlane* alpha = opacity == nullptr ? nullptr
                              : l == 0           ? &opacity->GetImplRef().Plane()
                                                 : &alphaChain[l - 1].GetImplRef().Plane();
    ReferenceLevel(from, levels.back().GetImplRef().Plane(), gammaPath, method, alpha, greyOnly);
  }
  return levels;
}

// The bytes a level's writes define (RG-encoded pixels leave their blue and fourth bytes alone).
Bytes PixelBytes(const PixelPlane& plane) {
  Bytes bytes;
  for (int y = 0; y < plane.Height(); ++y)
    for (int x = 0; x < plane.Width(); ++x)
      for (int b = 0; b < plane.BytesPerPixel(); ++b)
        if (!IsRGEncoded(plane.Type()) || b == 1 || b == 2)
          bytes.push_back(plane.PixelAddress(x, y)[b]);
  return bytes;
}

const std::vector<PixelPlane>& Chain(const Image& image, bool gammaPath) {
  const ImageImpl::MipMaps& mips = image.GetImplRef().GetMipMaps();
  return gammaPath ? mips.gammaLevels : mips.noGammaLevels;
}

void ExpectChain(const Image& image, bool gammaPath, const std::vector<Image>& expected) {
  const std::vector<PixelPlane>& levels = Chain(image, gammaPath);
  ASSERT_EQ(levels.size(), expected.size());
  for (std::size_t l = 0; l < levels.size(); ++l)
    EXPECT_EQ(PixelBytes(levels[l]), PixelBytes(expected[l].GetImplRef().Plane())) << "level " << l + 1;
}

// Computes the chain of a copy of `source` and compares it with the plain chain.
void CheckChain(const Image& source, bool gammaCorrect, M method,
                const std::vector<Image>* expected = nullptr) {
  SCOPED_TRACE(::testing::Message() << "format " << source.ImageType() << " method "
                                    << static_cast<int>(method) << " " << source.Width() << "x"
                                    << source.Height() << " gamma " << gammaCorrect);
  const bool gammaPath = UsesGammaMipMaps(source, GammaCorrectFlag(gammaCorrect));
  Image image(*std::unique_ptr<Image>(source.DeepCopy()));
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(gammaCorrect), method);
  ExpectChain(image, gammaPath, expected != nullptr ? *expected : ReferenceChain(source, gammaPath, method));
}

TEST(MipMapTest, EveryFormatMethodAndChainMatchesThePlainChain) {
  unsigned draw = 100;
  for (const EImageType type : kAllFormats) {
    for (const M method : kMethods) {
      for (const auto& [width, height] : {std::pair{7, 5}, {1, 8}, {8, 1}, {5, 3}, {16, 9}}) {
        const GammaValue gamma = !IsGammaEncoded(type) ? gamma::Linear
                                 : draw % 2            ? gamma::sRGB
                                                       : GammaValue(2.2f);
        const Image image = RandomImage(type, width, height, gamma, draw++);
        for (const bool gammaCorrect : {false, true})
          CheckChain(image, gammaCorrect, method);
      }
    }
  }
}

// The formats with row kernels, wide enough for whole vector blocks and a rest, one pixel wide or high,
// and large enough for the pool; transparent patches make footprints whose alphas are all 0. Every
// processor level, on one thread and on the pool.
TEST(MipMapTest, RowKernelsMatchThePlainChainAtEveryLevelAndThreadCount) {
  unsigned draw = 900;
  for (const EImageType type : {IT_RGBA8, IT_RGB8, IT_Grayscale8, IT_RGBA32f}) {
    for (const auto& [width, height] : {std::pair{75, 41}, {1, 300}, {300, 1}, {1030, 520}}) {
      Image source =
          RandomImage(type, width, height, IsGammaEncoded(type) ? gamma::sRGB : gamma::Linear, draw++);
      for (int y = 0; y < height && HasAlpha(type); ++y)
        for (int x = 0; x < width; ++x)
          if ((x / 4 + y / 4) % 3 == 0)
            source.SetPixelAlpha(x, y, 0.0f, ATO_None);
      for (const bool gammaCorrect : {false, true}) {
        const std::vector<Image> expected =
            ReferenceChain(source, UsesGammaMipMaps(source, GammaCorrectFlag(gammaCorrect)), M::Standard);
        for (const cpu::Level level : LevelsUpToDetected()) {
          for (const int threads : {1, 0}) {
            SCOPED_TRACE(std::string(cpu::Name(level)) + (threads ? " one thread" : ""));
            const cpu::ScopedLevel scoped(level);
            const tools::ScopedJobThreadLimit limit(threads);
            CheckChain(source, gammaCorrect, M::Standard, &expected);
          }
        }
      }
    }
  }
}

TEST(MipMapTest, OpacityMapsOfTheSameAndOfAnotherSize) {
  unsigned draw = 500;
  for (const M method : kMethods) {
    for (const EImageType type : {IT_RGB8, IT_RGBA16, IT_Grayscale8, IT_RGBA32f}) {
      for (const int alphaWidth : {12, 5}) {
        for (const EImageType alphaType : {IT_Grayscale8, IT_RGB16}) {
          SCOPED_TRACE(::testing::Message() << "method " << static_cast<int>(method) << " format " << type
                                            << " opacity " << alphaWidth << " wide");
          Image image = RandomImage(type, 12, 10, IsGammaEncoded(type) ? gamma::sRGB : gamma::Linear, draw++);
          Image opacity = RandomImage(alphaType, alphaWidth, alphaWidth == 12 ? 10 : 7, gamma::sRGB, draw++);
          const std::unique_ptr<Image> expectedOpacity(opacity.DeepCopy());
          ResampleOpts options;
          options.careAboutIncorporation = CAI_Care;
          Resample(*expectedOpacity, 12, 10, options);
          ComputeMipMapCombined(image, &opacity, GammaCorrectFlag(true), method);
          const bool gammaPath = UsesGammaMipMaps(image, GammaCorrectFlag(true));
          ExpectChain(image, gammaPath, ReferenceChain(image, gammaPath, method, expectedOpacity.get()));
          // The opacity map's own chain is left computed.
          ASSERT_TRUE(opacity.ValidMipMapsNoGamma());
          ExpectChain(opacity, false, ReferenceChain(opacity, false, method, nullptr, true));
        }
      }
    }
  }
  // An opacity map sharing the image's pixels is no opacity map.
  Image image = RandomImage(IT_RGBA8, 9, 6, gamma::sRGB, 7);
  Image same = image;
  ComputeMipMapCombined(image, &same, GammaCorrectFlag(true), M::SharpAlphaFixedThreshold);
  ExpectChain(image, true, ReferenceChain(image, true, M::SharpAlphaFixedThreshold));
}

// Gamma within 0.0001 of 1 takes the linear chain even when gamma-correct filtering is asked; a valid
// chain is kept whatever the method asked the second time; an unknown method computes nothing.
TEST(MipMapTest, WhichChainIsFilledAndWhen) {
  Image nearlyLinear = RandomImage(IT_RGB8, 8, 4, GammaValue(1.00005f), 1);
  ComputeMipMapCombined(nearlyLinear, nullptr, GammaCorrectFlag(true), M::Standard);
  EXPECT_TRUE(nearlyLinear.ValidMipMapsNoGamma() && !nearlyLinear.ValidMipMapsGamma());
  Image srgb = RandomImage(IT_RGBA8, 8, 4, gamma::sRGB, 2);
  ComputeMipMapCombined(srgb, nullptr, GammaCorrectFlag(false), M::Standard);
  EXPECT_FALSE(srgb.ValidMipMapsGamma());
  ComputeMipMapCombined(srgb, nullptr, GammaCorrectFlag(true), M::SharpAlphaNearest);
  EXPECT_TRUE(srgb.ValidMipMapsGamma() && srgb.ValidMipMapsNoGamma() &&
              srgb.GetImplRef().MipMapLevels_Gamma() == srgb.MipMapLevels_Ideal());
  const Bytes first = PixelBytes(Chain(srgb, true)[0]);
  ComputeMipMapCombined(srgb, nullptr, GammaCorrectFlag(true), M::Standard);
  EXPECT_EQ(PixelBytes(Chain(srgb, true)[0]), first);
  Image unknown = RandomImage(IT_RGBA8, 8, 4, gamma::sRGB, 3);
  ComputeMipMapCombined(unknown, nullptr, GammaCorrectFlag(true), static_cast<M>(4));
  EXPECT_FALSE(unknown.ValidMipMapsGamma() || unknown.ValidMipMapsNoGamma());
  Image single = RandomImage(IT_RGBA8, 1, 1, gamma::sRGB, 4);
  ComputeMipMapCombined(single, nullptr, GammaCorrectFlag(true), M::SharpAlphaDither);
  EXPECT_TRUE(Chain(single, true).empty());
}

// The fraction of pixels whose alpha is above the threshold, per level of the chosen chain; level 0
// alone without a computed chain; formats without alpha are fully covered. Level 1 has alphas 1 and 0.5
// (not above the threshold); level 2 is their mean over clamped rows.
TEST(MipMapTest, AlphaCoverageReport) {
  Image image(4, 2, IT_RGBA32f, gamma::Linear);
  for (int x = 0; x < 8; ++x)
    image.SetPixelRGBA(x % 4, x / 4, {0, 0, 0, x % 4 < 3 ? 1.0f : 0.0f}, ATO_None);
  ASSERT_EQ(MipMapAlphaCoverage(image, GammaCorrectFlag(false), 0.5f).size(), 1u);
  ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(false), M::Standard);
  const std::vector<MipMapCoverage> report = MipMapAlphaCoverage(image, GammaCorrectFlag(false), 0.5f);
  ASSERT_EQ(report.size(), 3u);
  const float covered[3] = {0.75f, 0.5f, 1.0f};
  for (int level = 0; level < 3; ++level)
    EXPECT_TRUE(report[level].width == 4 >> level && report[level].covered == covered[level]) << level;
  EXPECT_EQ(MipMapAlphaCoverage(Image(4, 4, IT_RGB8), GammaCorrectFlag(false), 0.5f)[0].covered, 1.0f);
}

}  // namespace
}  // namespace imagery
