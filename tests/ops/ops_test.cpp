// Channel and region operations against per-pixel references on the public cursors, on random images of
// every format (the large ones run again on one thread and must give the same bytes).
#include <gtest/gtest.h>

#include <algorithm>

#include "imagery/channel_ops.h"
#include "imagery/image_factory.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using Operation = std::function<void(Image&)>;
using RGBA = LinearRGBA_T<float>;
constexpr unsigned long kKeep = std::numeric_limits<unsigned long>::max();

Image Random(EImageType type, int width, int height, unsigned draw) {
  const GammaValue gamma = IsGammaEncoded(type) ? GammaValue(type == IT_RGB16 ? 2.2f : -2.0f) : gamma::Linear;
  return RandomImage(type, width, height, gamma, draw);
}

// `operation` on a deep copy of `source` gives `expected`; large images give the same on one thread.
void ExpectOperation(const Image& source, const Bytes& expected, const Operation& operation) {
  std::unique_ptr<Image> image(source.DeepCopy());
  operation(*image);
  ASSERT_EQ(PlaneBytes(*image), expected);
  if (source.Width() * source.Height() > 5000) {
    EXPECT_EQ(OnOneThread(source, operation), expected) << "on one thread";
  }
}

// Every pixel of a deep copy of `source` through `op(copy, x, y)`; the bytes op does not write stay.
template <class Op>
Bytes Reference(const Image& source, Op op) {
  std::unique_ptr<Image> copy(source.DeepCopy());
  for (int y = 0; y < source.Height(); ++y)
    for (int x = 0; x < source.Width(); ++x)
      op(*copy, x, y);
  return PlaneBytes(*copy);
}

// The frame of `source` at (left, top) in `type` (by default the source's): the first bytes of the old
// pixels where they exist, zero bytes elsewhere.
Bytes Reframed(const Image& source, int left, int top, int width, int height,
               EImageType type = IT_UNDEFINED) {
  Image expected(width, height, type == IT_UNDEFINED ? source.ImageType() : type, source.GetGamma());
  const PixelPlane& from = source.GetImplRef().Plane();
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      if (x + left >= 0 && x + left < from.Width() && y + top >= 0 && y + top < from.Height())
        std::memcpy(expected.GetImplRef().Plane().PixelAddress(x, y), from.PixelAddress(x + left, y + top),
                    static_cast<std::size_t>(expected.BytesPerPixel()));
  return PlaneBytes(expected);
}

// Every operation of every format on 1 x 1, a column, a row, padded rows, and an image large enough to
// spread over several threads, against its per-pixel reference; in a new implementation and in place.
TEST(ChannelOps, EveryOperationMatchesItsPerPixelReference) {
  const int kSizes[][2] = {{1, 1}, {1, 9}, {9, 1}, {5, 3}, {131, 67}};
  std::mt19937 rng(9);
  for (EImageType type : kAllFormats) {
    for (const auto& [width, height] : kSizes) {
      SCOPED_TRACE(::testing::Message() << "format " << type << ", " << width << " x " << height);
      const Image original = Random(type, width, height, rng());
      const Bytes before = PlaneBytes(original);
      const int bpp = BytesPerPixel(type);
      const bool alpha = HasAlpha(type);

      // Dropped alpha: the colour bytes stay; IT_RGBEA keeps its format with alpha 255. The inverted-alpha
      // flag is cleared and the picture type kept.
      const Operation discard = [&](Image& i) {
        i.SetInvertedAlpha(true);
        i.SetPtype(PT_Bump);
        DiscardAlphaInformation(i, CheckInImageList(false), CAI_Care);
        EXPECT_TRUE(i.GetInvertedAlpha() == (!alpha || type == IT_RGBEA) && i.GetPtype() == PT_Bump);
      };
      const auto opaque = [](Image& ref, int x, int y) { ref.SetPixelAlpha(x, y, 1.0f, ATO_None); };
      // The formats without alpha: IT_RGB8 comes two before IT_RGBA8, IT_RGB16 and IT_RGB32f one before.
      const EImageType dropped =
          alpha && type != IT_RGBEA ? EImageType(type - (type == IT_RGBA8 ? 2 : 1)) : type;
      ExpectOperation(
          original,
          type == IT_RGBEA ? Reference(original, opaque) : Reframed(original, 0, 0, width, height, dropped),
          discard);

      // Alpha as a linear 8-bit grey work copy, with every combination of the invert option and the
      // handle's flag (which flips it and is cleared).
      for (int flags = 0; flags < 4; ++flags) {
        Image grey = original;
        grey.SetInvertedAlpha(flags & 1);
        ASSERT_EQ(ExtractAlphaInformation(grey, CheckInImageList(false), InvertGrayRange(flags & 2)), alpha);
        Image expected(width, height, IT_Grayscale8, gamma::Linear);
        for (int y = 0; y < height; ++y)
          for (int x = 0; x < width; ++x) {
            float a = 0.0f;
            original.GetPixelAlpha(x, y, a, ATO_None);
            expected.SetPixelGrayscale(x, y, (flags & 1) != (flags >> 1) ? 1.0f - a : a, ATO_None);
          }
        EXPECT_TRUE(alpha ? PlaneBytes(grey) == PlaneBytes(expected) && grey.GetGamma() == gamma::Linear &&
                                grey.GetPtype() == PT_Alpha && grey.GetImplRef().IsWorkCopy() &&
                                !grey.GetInvertedAlpha()
                          : grey.GetImpl() == original.GetImpl());
      }

      const Bytes invertedAlpha = Reference(original, [&](Image& ref, int x, int y) {
        RGBA c;
        original.GetPixelRGBA(x, y, c, ATO_None);
        ref.SetPixelRGBA(x, y, RGBA(c, 1.0f - c.a), ATO_None);
      });
      const Bytes inverted = Reference(original, [&](Image& ref, int x, int y) {
        RGBA c;
        original.GetPixelRGBANoGammaConversion(x, y, c, ATO_None);
        if (IsGrayscale(type))
          ref.SetPixelGrayscaleNoGammaConversion(x, y, 1.0f - c.r, ATO_None);
        else
          ref.SetPixelRGBANoGammaConversion(x, y, RGBA(1.0f - c.r, 1.0f - c.g, 1.0f - c.b, c.a), ATO_None);
      });
      Bytes swapped = before;
      for (int y = 0; y < height && (type == IT_RGB8 || type == IT_RGBA8); ++y)
        for (int x = 0; x < width; ++x)
          std::swap(swapped[y * original.BytesPerLine() + x * bpp],
                    swapped[y * original.BytesPerLine() + x * bpp + 2]);
      for (ImplManagement m : {IM_NewImpl, IM_InPlace}) {
        ExpectOperation(original, alpha ? invertedAlpha : before, [m](Image& i) { InvertAlpha(i, m); });
        ExpectOperation(original, inverted, [m](Image& i) { InvertColorNoGamma(i, m); });
        ExpectOperation(original, swapped, [m](Image& i) { RGBToBGR(i, m); });
      }

      // Clearing writes row 0 pixel by pixel (the RG-encoded formats keep two bytes of each), then copies
      // it down, and invalidates the mip chains.
      const RGBA colour(0.25f, 0.5f, 0.75f, 0.5f);
      const Bytes cleared = Reference(original, [&](Image& ref, int x, int y) {
        PixelPlane& plane = ref.GetImplRef().Plane();
        if (y > 0)
          std::memcpy(plane.PixelAddress(x, y), plane.PixelAddress(x, 0), static_cast<std::size_t>(bpp));
        else
          ref.SetPixelRGBA(x, 0, colour, ATO_None);
      });
      std::unique_ptr<Image> clearedImage(original.DeepCopy());
      clearedImage->GetImplRef().ValidateMipMaps(true, true);
      ClearImage(clearedImage->GetImplRef(), colour);
      EXPECT_TRUE(PlaneBytes(*clearedImage) == cleared && !clearedImage->ValidMipMapsGamma() &&
                  !clearedImage->ValidMipMapsNoGamma());

      // Frames at random places, twice keeping the size; a size that cannot be stored changes nothing.
      std::uniform_int_distribution<int> x(-width, width), y(-height, height), w(0, 2 * width),
          h(0, 2 * height);
      for (int i = 0; i < 5; ++i) {
        const glm::tvec2<int> origin(i == 0 ? -2 : x(rng), i == 0 ? 0 : y(rng));
        const glm::tvec2<unsigned long> frame(i < 2 ? kKeep : w(rng), i < 2 ? kKeep : h(rng));
        ExpectOperation(original,
                        Reframed(original, origin.x, origin.y, i < 2 ? width : int(frame.x),
                                 i < 2 ? height : int(frame.y)),
                        [&](Image& im) { ReframeImage(im, origin, frame); });
      }
      Image image = original;
      ReframeImage(image, {0, 0}, {1ul << 40, 1});
      EXPECT_EQ(image.GetImpl(), original.GetImpl());
    }
  }
}

// With the image-list check, the list's version in the target format is taken.
TEST(ChannelOps, DiscardAlphaTakesTheImageListsVersion) {
  Image registered(4, 3, IT_RGB8, gamma::sRGB);
  registered.SetFilePath(ZELPath(L"/nonexistent/discard_alpha_source.png"));
  for (bool check : {false, true}) {
    Image image(4, 3, IT_RGBA8, gamma::sRGB);
    image.SetFilePath(registered.FilePath());
    DiscardAlphaInformation(image, CheckInImageList(check), CAI_Care);
    EXPECT_TRUE(image.ImageType() == IT_RGB8 && (image.GetImpl() == registered.GetImpl()) == check);
  }
}

// Other handles keep the old pixels only with a new implementation; the picture's properties stay. Work
// in place on an empty handle never reaches the default implementation every empty handle shares.
TEST(ChannelOps, NewImplementationsLeaveOtherHandlesAlone) {
  for (ImplManagement m : {IM_NewImpl, IM_InPlace}) {
    Image image = Random(IT_RGBA8, 6, 4, 3);
    image.SetTitle(ZELString(L"leaf"));
    const Image other = image;
    const Bytes before = PlaneBytes(other);
    InvertAlpha(image, m);
    RGBToBGR(image, m);
    InvertColorNoGamma(image, m);
    EXPECT_TRUE((image.GetImpl() == other.GetImpl()) == (m == IM_InPlace) &&
                (PlaneBytes(other) == before) == (m == IM_NewImpl) && image.Title() == ZELString(L"leaf"));
  }
  Image empty;
  const Bytes shared = PlaneBytes(empty);
  InvertColorNoGamma(empty, IM_InPlace);
  drawLine(empty, {0.0f, 0.0f}, {1.0f, 1.0f}, {1.0f, 1.0f, 1.0f}, {1.0f, 1.0f, 1.0f});
  EXPECT_TRUE(PlaneBytes(Image()) == shared && PlaneBytes(empty) != shared);
}

TEST(RegionOps, CropKeepsThePixelsInTheClippedFrame) {
  const struct {
    int width, height, x, y;
    unsigned long sizeX, sizeY;
    int left, top, keptWidth, keptHeight;  // kept width -1: nothing done
  } crops[] = {{25, 25, 10, 10, 20, 20, 10, 10, 15, 15}, {25, 25, -5, -5, 100, 100, 0, 0, -1, -1},
               {25, 25, 0, 0, 25, 25, 0, 0, -1, -1},     {25, 25, -3, 4, 10, 100, 0, 4, 7, 21},
               {25, 25, 30, 2, 5, 5, 24, 2, 1, 5},       {25, 25, 5, 5, 0, 3, 5, 5, 0, 3},
               {7, 5, -10, 1, 4, 2, 0, 1, 0, 2},         {25, 25, 0, 0, kKeep, 10, 0, 0, 25, 10}};
  for (const auto& c : crops) {
    Image image = Random(IT_RGBA16, c.width, c.height, 9);
    const Image original = image;
    CropImage(image, {c.x, c.y}, {c.sizeX, c.sizeY});
    EXPECT_TRUE(c.keptWidth < 0
                    ? image.GetImpl() == original.GetImpl()
                    : PlaneBytes(image) == Reframed(original, c.left, c.top, c.keptWidth, c.keptHeight))
        << &c - crops;
  }
}

// One band; several with a shorter last one; one row per band. IT_RGBA8 keeps its alpha bytes; other
// formats are left alone, their mip chains valid.
TEST(RegionOps, NormalizeNormalMapRenormalisesEveryBand) {
  const int sizes[][2] = {{5, 3}, {300, 700}, {70001, 2}};
  for (EImageType type : {IT_RGB8, IT_RGBA8, IT_RGB16})
    for (const auto& [width, height] : sizes) {
      Image image = Random(type, width, height, 13 + type);
      const Bytes expected =
          type == IT_RGB16 ? PlaneBytes(image) : Reference(image, [](Image& ref, int x, int y) {
            unsigned char* p = ref.GetImplRef().Plane().PixelAddress(x, y);
            const CLR n = NormalizeEncodedNormal(CLR(p[2], p[1], p[0]));
            p[0] = n.Blue(), p[1] = n.Green(), p[2] = n.Red();
          });
      image.GetImplRef().ValidateMipMaps(true, true);
      ExpectOperation(image, expected, [](Image& i) { NormalizeNormalMap<IT_RGB8>(i); });
      NormalizeNormalMap<IT_RGB8>(image);
      EXPECT_EQ(image.ValidMipMapsGamma(), type == IT_RGB16) << type << ", " << width;
    }
}

// Reversed (the ramp starts at x = 0), clipped, truncated, a point, x- and y-major with halves of the
// minor step rounded down, a falling minor coordinate, and wholly outside (clamped onto the border);
// pixels from the first of the ramp to the last, each written through the gamma with alpha 1. The last
// line in every format.
TEST(RegionOps, DrawLineStepsByBresenhamWithAColourRamp) {
  const LinearRGB_T<float> from(1.0f, 0.5f, 0.0f), to(0.0f, 0.25f, 1.0f);
  const struct {
    float fromX, fromY, toX, toY;
    std::vector<std::pair<int, int>> pixels;
  } lines[] = {{4, 0, 0, 0, {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}},
               {-10, 5, 24, 5, {{0, 5}, {1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}, {6, 5}}},
               {1.7f, 1.2f, 5.9f, 3.6f, {{1, 1}, {2, 1}, {3, 2}, {4, 2}, {5, 3}}},
               {3, 3, 3, 3, {{3, 3}}},
               {4, 0, 1, 8, {{4, 0}, {4, 1}, {3, 2}, {3, 3}, {3, 4}, {2, 5}, {2, 6}, {1, 7}, {1, 8}}},
               {0, 8, 6, 5, {{0, 8}, {1, 8}, {2, 7}, {3, 7}, {4, 6}, {5, 6}, {6, 5}}},
               {30, 2, 40, 5, {{6, 2}, {6, 3}, {6, 4}, {6, 5}}},
               {4, 2, 0, 0, {{0, 0}, {1, 0}, {2, 1}, {3, 1}, {4, 2}}}};
  for (const auto& line : lines) {
    for (EImageType type : kAllFormats) {
      if (&line - lines < 7 && type != IT_RGB32f)
        continue;
      Image image = Random(type, 7, 9, 17);
      std::unique_ptr<Image> expected(image.DeepCopy());
      for (std::size_t i = 0; i < line.pixels.size(); ++i) {
        const float t = i == 0 ? 0.0f : static_cast<float>(i) / static_cast<float>(line.pixels.size() - 1),
                    s = 1.0f - t;
        const LinearRGB_T<float> c(t * to.r + s * from.r, t * to.g + s * from.g, t * to.b + s * from.b);
        expected->SetPixelRGBA(line.pixels[i].first, line.pixels[i].second, {i == 0 ? from : c, 1.0f},
                               ATO_None);
      }
      image.GetImplRef().ValidateMipMaps(true, true);
      drawLine(image, {line.fromX, line.fromY}, {line.toX, line.toY}, from, to);
      EXPECT_TRUE(PlaneBytes(image) == PlaneBytes(*expected) && !image.ValidMipMapsGamma() &&
                  !image.ValidMipMapsNoGamma())
          << "line " << &line - lines << ", format " << type;
    }
  }
}

}  // namespace
}  // namespace imagery
