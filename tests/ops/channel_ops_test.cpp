// Channel and region operations against per-pixel references on the public cursors, on random images of
// every format; the large ones run again on one thread and must give the same bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "imagery/channel_ops.h"
#include "imagery/image_factory.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using Operation = std::function<void(Image&)>;

// 1 x 1, a column, a row, padded rows, and one large enough to spread over several threads.
const int kSizes[][2] = {{1, 1}, {1, 9}, {9, 1}, {5, 3}, {131, 67}};

Image Random(EImageType type, int width, int height, unsigned seed) {
  const GammaValue gamma = IsGammaEncoded(type) ? GammaValue(type == IT_RGB16 ? 2.2f : -2.0f) : gamma::Linear;
  return RandomImage(type, width, height, gamma, seed);
}

// Every pixel of `source` through `op(x, y)` into a deep copy, which keeps the bytes op does not write.
template <class Op>
Bytes Reference(const Image& source, Op op) {
  std::unique_ptr<Image> copy(source.DeepCopy());
  for (int y = 0; y < source.Height(); ++y)
    for (int x = 0; x < source.Width(); ++x)
      op(*copy, x, y);
  return PlaneBytes(*copy);
}

// `operation` on a deep copy of `source` gives `expected`, in a new implementation or in place as it
// says; large images give the same on one thread.
void ExpectOperation(const Image& source, const Operation& operation, const Bytes& expected) {
  std::unique_ptr<Image> image(source.DeepCopy());
  operation(*image);
  ASSERT_TRUE(SameBytes(PlaneBytes(*image), expected));
  if (source.Width() * source.Height() > 5000) {
    EXPECT_TRUE(SameBytes(OnOneThread(source, operation), expected)) << "on one thread";
  }
}

TEST(ChannelOps, AlphaOperationsMatchPerPixelReferences) {
  unsigned seed = 7;
  for (EImageType type : kAllFormats)
    for (const auto& size : kSizes) {
      SCOPED_TRACE(::testing::Message() << "format " << type << ", " << size[0] << " x " << size[1]);
      const Image original = Random(type, size[0], size[1], seed++);
      const Bytes before = PlaneBytes(original);

      // Dropped alpha: the colour bytes stay; IT_RGBEA keeps its format with alpha 255.
      const int in = BytesPerPixel(type), kept = type == IT_RGBEA ? 5 : (HasAlpha(type) ? in * 3 / 4 : in);
      const Operation discard = [](Image& i) {
        i.SetInvertedAlpha(true);
        i.SetPtype(PT_Bump);
        DiscardAlphaInformation(i, CheckInImageList(false), CAI_Care);
      };
      std::unique_ptr<Image> discarded(original.DeepCopy());
      discard(*discarded);
      ASSERT_EQ(discarded->BytesPerPixel(), kept);
      EXPECT_EQ(discarded->GetInvertedAlpha(), !HasAlpha(type) || type == IT_RGBEA);
      EXPECT_EQ(discarded->GetPtype(), PT_Bump);
      Image expected(size[0], size[1], discarded->ImageType(), original.GetGamma());
      for (int y = 0; y < size[1]; ++y)
        for (int x = 0; x < size[0]; ++x) {
          unsigned char* to = expected.GetImplRef().Plane().PixelAddress(x, y);
          std::memcpy(to, original.GetImplRef().Plane().PixelAddress(x, y), static_cast<std::size_t>(kept));
          if (type == IT_RGBEA)
            to[4] = 255;
        }
      ExpectOperation(original, discard, type == IT_RGBEA || HasAlpha(type) ? PlaneBytes(expected) : before);

      // Alpha as grey, with every combination of the invert option and the handle's flag.
      for (int flags = 0; flags < 4; ++flags) {
        Image alpha = original;
        alpha.SetInvertedAlpha(flags & 1);
        ASSERT_EQ(ExtractAlphaInformation(alpha, CheckInImageList(false), InvertGrayRange(flags & 2)),
                  HasAlpha(type));
        if (!HasAlpha(type)) {
          EXPECT_EQ(alpha.GetImpl(), original.GetImpl());
          continue;
        }
        ASSERT_EQ(alpha.ImageType(), IT_Grayscale8);
        EXPECT_TRUE(alpha.GetGamma() == gamma::Linear && alpha.GetPtype() == PT_Alpha &&
                    alpha.GetImplRef().IsWorkCopy() && !alpha.GetInvertedAlpha());
        const bool inverted = (flags & 1) != (flags >> 1);
        for (int y = 0; y < size[1]; ++y)
          for (int x = 0; x < size[0]; ++x) {
            float a = 0.0f;
            original.GetPixelAlpha(x, y, a, ATO_None);
            const float scaled = std::min(255.0f, std::max(0.0f, (inverted ? 1.0f - a : a) * 255.0f));
            ASSERT_EQ(*alpha.GetImplRef().Plane().PixelAddress(x, y),
                      static_cast<int>(std::floor(scaled + 0.5f)));
          }
      }

      const Bytes inverted = Reference(original, [&](Image& ref, int x, int y) {
        LinearRGBA_T<float> c;
        original.GetPixelRGBA(x, y, c, ATO_None);
        ref.SetPixelRGBA(x, y, LinearRGBA_T<float>(c, 1.0f - c.a), ATO_None);
      });
      for (ImplManagement m : {IM_NewImpl, IM_InPlace})
        ExpectOperation(
            original, [m](Image& i) { InvertAlpha(i, m); }, HasAlpha(type) ? inverted : before);
      EXPECT_EQ(PlaneBytes(original), before);
    }
}

TEST(ChannelOps, DiscardAlphaFromCountedPixelsAndFromTheImageList) {
  Bytes pixels = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  Bytes packed(9);
  DiscardAlphaInformation(3, pixels.data(), packed.data());
  EXPECT_EQ(packed, (Bytes{1, 2, 3, 5, 6, 7, 9, 10, 11}));
  DiscardAlphaInformation(3, pixels.data(), pixels.data());
  EXPECT_EQ(Bytes(pixels.begin(), pixels.begin() + 9), packed);

  const ZELPath path(L"/nonexistent/discard_alpha_source.png");
  Image registered(4, 3, IT_RGB8, gamma::sRGB);
  registered.SetFilePath(path);
  for (bool check : {false, true}) {
    Image image(4, 3, IT_RGBA8, gamma::sRGB);
    image.SetFilePath(path);
    DiscardAlphaInformation(image, CheckInImageList(check), CAI_Care);
    EXPECT_EQ(image.ImageType(), IT_RGB8);
    EXPECT_EQ(image.GetImpl() == registered.GetImpl(), check);
  }
}

TEST(ChannelOps, ColourOperationsMatchPerPixelReferences) {
  unsigned seed = 11;
  for (EImageType type : kAllFormats)
    for (const auto& size : kSizes) {
      SCOPED_TRACE(::testing::Message() << "format " << type << ", " << size[0] << " x " << size[1]);
      const Image original = Random(type, size[0], size[1], seed++);
      const Bytes before = PlaneBytes(original);
      const int bpp = BytesPerPixel(type);

      const Bytes inverted = Reference(original, [&](Image& ref, int x, int y) {
        if (IsGrayscale(type)) {
          float g = 0.0f;
          original.GetPixelGrayscaleNoGammaConversion(x, y, g, ATO_None);
          ref.SetPixelGrayscaleNoGammaConversion(x, y, 1.0f - g, ATO_None);
        } else {
          LinearRGBA_T<float> c;
          original.GetPixelRGBANoGammaConversion(x, y, c, ATO_None);
          ref.SetPixelRGBANoGammaConversion(
              x, y, LinearRGBA_T<float>(1.0f - c.r, 1.0f - c.g, 1.0f - c.b, c.a), ATO_None);
        }
      });
      // Integer codes v become max - v: every pixel byte (not the zero padding) sums to 255.
      if (type == IT_RGB8 || type == IT_Grayscale8 || type == IT_RGB16) {
        int complements = 0;
        for (std::size_t i = 0; i < before.size(); ++i)
          complements += before[i] + inverted[i] == 255;
        EXPECT_EQ(complements, size[0] * size[1] * bpp);
      }
      Bytes swapped = before;
      if (type == IT_RGB8 || type == IT_RGBA8)
        for (int y = 0; y < size[1]; ++y)
          for (int x = 0; x < size[0]; ++x)
            std::swap(swapped[y * original.BytesPerLine() + x * bpp],
                      swapped[y * original.BytesPerLine() + x * bpp + 2]);
      for (ImplManagement m : {IM_NewImpl, IM_InPlace}) {
        ExpectOperation(
            original, [m](Image& i) { InvertColorNoGamma(i, m); }, inverted);
        ExpectOperation(
            original, [m](Image& i) { RGBToBGR(i, m); }, swapped);
      }

      float largest = 0.0f;
      for (int y = 0; y < size[1]; ++y)
        for (int x = 0; x < size[0]; ++x) {
          LinearRGB_T<float> c;
          original.GetPixelRGBNoGammaConversion(x, y, c, ATO_None);
          largest = std::max({largest, std::fabs(c.r - c.g), std::fabs(c.r - c.b)});
        }
      const bool greyType = type == IT_Grayscale8 || type == IT_Grayscale16 || type == IT_Grayscale32f;
      for (float tolerance : {0.0f, largest, std::nextafter(largest, 2.0f), 3.0f})
        EXPECT_EQ(IsGrayscale(original, tolerance), greyType || largest < tolerance) << tolerance;
    }
}

TEST(ChannelOps, NewImplementationsLeaveOtherHandlesAlone) {
  for (ImplManagement m : {IM_NewImpl, IM_InPlace}) {
    Image image = Random(IT_RGBA8, 6, 4, 3);
    image.SetTitle(ZELString(L"leaf"));
    image.SetPtype(PT_NormalMap);
    const Image other = image;
    const Bytes before = PlaneBytes(other);
    InvertAlpha(image, m);
    RGBToBGR(image, m);
    InvertColorNoGamma(image, m);
    EXPECT_EQ(image.GetImpl() == other.GetImpl(), m == IM_InPlace);
    EXPECT_EQ(PlaneBytes(other) == before, m == IM_NewImpl);
    EXPECT_TRUE(image.Title() == ZELString(L"leaf") && image.GetPtype() == PT_NormalMap);
  }
  // Work in place on an empty handle never reaches the default implementation that every empty handle
  // shares.
  Image empty;
  const Bytes shared = PlaneBytes(empty);
  InvertColorNoGamma(empty, IM_InPlace);
  drawLine(empty, {0.0f, 0.0f}, {1.0f, 1.0f}, {1.0f, 1.0f, 1.0f}, {1.0f, 1.0f, 1.0f});
  EXPECT_EQ(PlaneBytes(Image()), shared);
  EXPECT_NE(PlaneBytes(empty), shared);
}

TEST(RegionOps, ZeroAndClearWriteRowZeroAndCopyItDown) {
  const LinearRGBA_T<float> colour(0.25f, 0.5f, 0.75f, 0.5f);
  for (EImageType type : kAllFormats)
    for (bool clear : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "format " << type << (clear ? ", clear" : ", zero"));
      const Image original = Random(type, 7, 5, 5 + type);
      const int bpp = original.BytesPerPixel();
      // Row 0 pixel by pixel (the RG-encoded formats keep two bytes of each), then copied down.
      const Bytes expected = Reference(original, [&](Image& ref, int x, int y) {
        PixelPlane& plane = ref.GetImplRef().Plane();
        if (y > 0)
          std::memcpy(plane.PixelAddress(x, y), plane.PixelAddress(x, 0), static_cast<std::size_t>(bpp));
        else if (clear)
          ref.SetPixelRGBA(x, 0, colour, ATO_None);
        else
          ref.SetPixelRGBANoGammaConversion(x, 0, LinearRGBA_T<float>(), ATO_None);
      });
      std::unique_ptr<Image> image(original.DeepCopy());
      image->GetImplRef().ValidateMipMaps(true, true);
      clear ? ClearImage(image->GetImplRef(), colour) : ZeroImage(image->GetImplRef());
      EXPECT_EQ(PlaneBytes(*image), expected);
      EXPECT_EQ(image->ValidMipMapsGamma() && image->ValidMipMapsNoGamma(), !clear);
    }
}

// The frame of `source` at (left, top): old pixel bytes where they exist, zero bytes elsewhere.
Bytes Reframed(const Image& source, int left, int top, int width, int height) {
  Image expected(width, height, source.ImageType(), source.GetGamma());
  const PixelPlane& from = source.GetImplRef().Plane();
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      if (x + left >= 0 && x + left < from.Width() && y + top >= 0 && y + top < from.Height())
        std::memcpy(expected.GetImplRef().Plane().PixelAddress(x, y), from.PixelAddress(x + left, y + top),
                    static_cast<std::size_t>(from.BytesPerPixel()));
  return PlaneBytes(expected);
}

TEST(RegionOps, CropAndReframeKeepThePixelsInTheFrame) {
  constexpr unsigned long kKeep = std::numeric_limits<unsigned long>::max();
  struct Crop {
    int width, height, x, y;
    unsigned long sizeX, sizeY;
    int left, top, keptWidth, keptHeight;  // kept width -1: nothing done
  };
  const Crop crops[] = {{25, 25, 10, 10, 20, 20, 10, 10, 15, 15}, {25, 25, -5, -5, 100, 100, 0, 0, -1, -1},
                        {25, 25, 0, 0, 25, 25, 0, 0, -1, -1},     {25, 25, -3, 4, 10, 100, 0, 4, 7, 21},
                        {25, 25, 30, 2, 5, 5, 24, 2, 1, 5},       {25, 25, 5, 5, 0, 3, 5, 5, 0, 3},
                        {7, 5, -10, 1, 4, 2, 0, 1, 0, 2},         {25, 25, 0, 0, kKeep, 10, 0, 0, 25, 10}};
  for (const Crop& c : crops) {
    SCOPED_TRACE(::testing::Message() << "crop at " << c.x << ", " << c.y);
    Image image = Random(IT_RGBA16, c.width, c.height, 9);
    const Image original = image;
    CropImage(image, {c.x, c.y}, {c.sizeX, c.sizeY});
    if (c.keptWidth < 0) {
      EXPECT_EQ(image.GetImpl(), original.GetImpl());
      continue;
    }
    ASSERT_EQ(image.GetImplRef().Width(), c.keptWidth);
    ASSERT_EQ(image.GetImplRef().Height(), c.keptHeight);
    EXPECT_EQ(PlaneBytes(image), Reframed(original, c.left, c.top, c.keptWidth, c.keptHeight));
  }

  std::mt19937 rng(9);
  for (EImageType type : kAllFormats)
    for (const auto& size : kSizes) {
      SCOPED_TRACE(::testing::Message() << "format " << type << ", " << size[0] << " x " << size[1]);
      const Image original = Random(type, size[0], size[1], rng());
      std::uniform_int_distribution<int> x(-size[0], size[0]), y(-size[1], size[1]);
      std::uniform_int_distribution<int> width(0, 2 * size[0]), height(0, 2 * size[1]);
      for (int i = 0; i < 5; ++i) {
        const glm::tvec2<int> origin(i == 0 ? -2 : x(rng), i == 0 ? 0 : y(rng));
        const glm::tvec2<unsigned long> frame(i < 2 ? kKeep : width(rng), i < 2 ? kKeep : height(rng));
        const int w = frame.x == kKeep ? size[0] : static_cast<int>(frame.x);
        const int h = frame.y == kKeep ? size[1] : static_cast<int>(frame.y);
        ExpectOperation(
            original, [&](Image& i) { ReframeImage(i, origin, frame); },
            Reframed(original, origin.x, origin.y, w, h));
      }
      Image image = original;
      ReframeImage(image, {0, 0}, {1ul << 40, 1});
      EXPECT_EQ(image.GetImpl(), original.GetImpl());
    }
}

TEST(RegionOps, NormalizeNormalMapRenormalisesEveryBand) {
  // One band; several with a shorter last one; one row per band.
  const int sizes[][2] = {{1, 1}, {5, 3}, {300, 700}, {70001, 2}};
  for (EImageType type : {IT_RGB8, IT_RGBA8, IT_RGB16})
    for (const auto& size : sizes) {
      SCOPED_TRACE(::testing::Message() << "format " << type << ", " << size[0] << " x " << size[1]);
      Image image = Random(type, size[0], size[1], 13 + type);
      Bytes expected = PlaneBytes(image);
      if (type != IT_RGB16)
        for (int y = 0; y < size[1]; ++y)
          for (int x = 0; x < size[0]; ++x) {
            unsigned char* p = &expected[static_cast<std::size_t>(y) * image.BytesPerLine() +
                                         static_cast<std::size_t>(x) * image.BytesPerPixel()];
            const CLR n = NormalizeEncodedNormal(CLR(p[2], p[1], p[0]));
            p[0] = n.Blue();
            p[1] = n.Green();
            p[2] = n.Red();
          }
      image.GetImplRef().ValidateMipMaps(true, true);
      ExpectOperation(
          image, [](Image& i) { NormalizeNormalMap<IT_RGB8>(i); }, expected);
      NormalizeNormalMap<IT_RGB8>(image);
      EXPECT_EQ(image.ValidMipMapsGamma(), type == IT_RGB16);
    }
  Image known(2, 1, IT_RGB8, gamma::Linear);
  unsigned char* p = known.GetImplRef().Plane().Data();
  p[3] = 128;  // blue, green, red: the normal (1, 0, 0)
  p[4] = 128;
  p[5] = 255;
  NormalizeNormalMap<IT_RGB8>(known);
  EXPECT_EQ(Bytes(p, p + 6), (Bytes{54, 54, 54, 128, 128, 255}));
}

TEST(RegionOps, DrawLineStepsByBresenhamWithAColourRamp) {
  const LinearRGB_T<float> from(1.0f, 0.5f, 0.0f), to(0.0f, 0.25f, 1.0f);
  struct Line {
    float fromX, fromY, toX, toY;
    std::vector<std::pair<int, int>> pixels;  // from the first pixel of the ramp to the last
  };
  // Reversed (the ramp starts at x = 0), clipped, truncated, a point, x- and y-major with halves of the
  // minor step rounded down, a falling minor coordinate, and wholly outside (clamped onto the border).
  const Line lines[] = {
      {4, 0, 0, 0, {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}},
      {-10, 5, 24, 5, {{0, 5}, {1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}, {6, 5}}},
      {1.7f, 1.2f, 5.9f, 3.6f, {{1, 1}, {2, 1}, {3, 2}, {4, 2}, {5, 3}}},
      {3, 3, 3, 3, {{3, 3}}},
      {4, 0, 1, 8, {{4, 0}, {4, 1}, {3, 2}, {3, 3}, {3, 4}, {2, 5}, {2, 6}, {1, 7}, {1, 8}}},
      {0, 8, 6, 5, {{0, 8}, {1, 8}, {2, 7}, {3, 7}, {4, 6}, {5, 6}, {6, 5}}},
      {30, 2, 40, 5, {{6, 2}, {6, 3}, {6, 4}, {6, 5}}}};
  for (const Line& line : lines) {
    SCOPED_TRACE(::testing::Message() << "line from " << line.fromX << ", " << line.fromY);
    Image image = Random(IT_RGB32f, 7, 9, 17);
    std::unique_ptr<Image> expected(image.DeepCopy());
    const auto steps = static_cast<float>(line.pixels.size() - 1);
    for (std::size_t i = 0; i < line.pixels.size(); ++i) {
      const float t = i == 0 ? 0.0f : static_cast<float>(i) / steps, s = 1.0f - t;
      const LinearRGB_T<float> c(t * to.r + s * from.r, t * to.g + s * from.g, t * to.b + s * from.b);
      expected->SetPixelRGBA(line.pixels[i].first, line.pixels[i].second, {i == 0 ? from : c, 1.0f},
                             ATO_None);
    }
    image.GetImplRef().ValidateMipMaps(true, true);
    drawLine(image, {line.fromX, line.fromY}, {line.toX, line.toY}, from, to);
    EXPECT_EQ(PlaneBytes(image), PlaneBytes(*expected));
    EXPECT_FALSE(image.ValidMipMapsGamma() || image.ValidMipMapsNoGamma());
  }
  // Every format writes the ramp through its gamma, with alpha 1.
  for (EImageType type : kAllFormats) {
    Image image = Random(type, 7, 9, 19);
    std::unique_ptr<Image> expected(image.DeepCopy());
    for (int i = 0; i <= 4; ++i) {
      const float t = static_cast<float>(i) / 4.0f, s = 1.0f - t;
      expected->SetPixelRGBA(
          i, i / 2, {{t * to.r + s * from.r, t * to.g + s * from.g, t * to.b + s * from.b}, 1.0f}, ATO_None);
    }
    drawLine(image, {4, 2}, {0, 0}, from, to);
    EXPECT_EQ(PlaneBytes(image), PlaneBytes(*expected)) << type;
  }
}

}  // namespace
}  // namespace imagery
