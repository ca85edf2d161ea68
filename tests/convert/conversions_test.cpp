// Pixel-format conversions against one per-pixel reference built on the public cursors and the
// single-value encodings, on random images of every format and awkward sizes, at the plain and the
// detected processor level, on the pool and (for the large images) on one thread. The row strategies at
// their thresholds (every strategy gives the same bytes, so the sweep cannot see which one ran), and the
// grey-range scans where random images would hide a position that is never read: the two extremes
// planted at every position of rows of many lengths, and zeros of both signs across row bands.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "convert/conversion_plan.h"
#include "convert/row_converter.h"
#include "cpu/cpu_level.h"
#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;

const CheckInImageList kNoList(false), kList(true);
const AutoScaleGrayScale kScale(true), kNoScale(false);
const InvertGrayRange kInvert(true), kKeep(false);
const GammaValue kSRGB = gamma::sRGB, kPower(2.2f);

// The grey of a pixel as the library defines it: (0.35 R + 0.5 G) + 0.15 B in single precision.
float Grey(const Image& image, int x, int y) {
  LinearRGB_T<float> c;
  ConstPixelAccess(image.GetImplRef().Plane(), x, y).GetPixelRGB(c);
  return (0.35f * c.r + 0.5f * c.g) + 0.15f * c.b;
}

// The grey range in one pass in pixel order: a value replaces the minimum when not above it and the
// maximum when above it (so NaN never counts).
void ReferenceGreyRange(const Image& image, float& min, float& max) {
  min = std::numeric_limits<float>::max();
  max = -min;
  for (int y = 0; y < image.Height(); ++y) {
    for (int x = 0; x < image.Width(); ++x) {
      const float g = Grey(image, x, y);
      min = g <= min ? g : min;
      max = g > max ? g : max;
    }
  }
}

// What converting `source` to `target` with the target gamma and the grey range (min, max) stores:
// colour and alpha (read as stored, 1 where there is none) written through a gamma cursor, as are 8-bit
// and float grey; 16-bit grey encoded in double precision, clamped, and rounded by adding 0.49999997
// and truncating.
Bytes Reference(const Image& source, EImageType target, GammaValue gamma, float min = 0, float max = 1,
                bool invert = false) {
  Image out(source.Width(), source.Height(), target, gamma);
  for (int y = 0; y < source.Height(); ++y) {
    for (int x = 0; x < source.Width(); ++x) {
      LinearRGB_T<float> c;
      float a = 1.0f;
      ConstPixelAccess(source.GetImplRef().Plane(), x, y).GetPixelRGB(c);
      ConstPixelAccessNoGamma(source.GetImplRef().Plane(), x, y).GetPixelAlpha(a);
      const float g = Grey(source, x, y), v = (invert ? max - g : g - min) / (max - min);
      PixelAccess to(out.GetImplRef().Plane(), x, y);
      if (target == IT_Grayscale16) {
        const float clamped = std::max(0.0f, std::min(v, 1.0f));  // NaN gives 0
        const float code = EncodeLinear(clamped, gamma, PowerPrecision::Double) * 65535.0f;
        detail::StoreBE16(to.Pointer(), static_cast<unsigned short>(code + 0.49999997f));
      } else if (IsGrayscale(target)) {
        to.SetPixelGrayscale(v);
      } else {
        to.SetPixelRGBA(c, a);
      }
    }
  }
  return PlaneBytes(out);
}

class ConversionsFrom : public ::testing::TestWithParam<EImageType> {};

// 1 x 1, a column, a row and padded rows with three gammas between them; a size large enough for
// several threads, row bands and the code tables of 16-bit and shared-exponent targets; and for float
// formats extreme values. Every target with and without alpha (auto-scaled grey targets stretch the
// reference grey range to [0, 1], so they also check the library's range), and the re-encoding, each at both
// processor levels and, when large, on the pool and on one thread. Memory of the result's size is dirtied and
// freed before each conversion, so that bytes it leaves unwritten are likely to show.
TEST_P(ConversionsFrom, EveryTargetAtEveryLevelMatchesTheReference) {
  // Each colour depth with and without alpha (the alpha options (true, true) and none); grey and
  // shared-exponent targets have one format.
  struct Case {
    EImageType opaque, alpha;
    GammaValue gamma;
    bool scale, invert;
    std::function<void(Image&, const AlphaConversionOptions&)> convert;
  };
  const GammaValue grey(1.8f);
  const Case cases[] = {
      {IT_Grayscale8, IT_Grayscale8, grey, true, false,
       [&](Image& i, auto&) { ToGrayscale8(i, grey, kNoList, kScale, kKeep, CAI_Care); }},
      {IT_Grayscale8, IT_Grayscale8, kSRGB, true, true,
       [](Image& i, auto&) { ToGrayscale8(i, kSRGB, kNoList, kScale, kInvert, CAI_DontCare); }},
      {IT_Grayscale16, IT_Grayscale16, kSRGB, true, false,
       [](Image& i, auto&) { ToGrayscale16(i, kSRGB, kNoList, kScale); }},
      {IT_Grayscale16, IT_Grayscale16, grey, false, false,
       [&](Image& i, auto&) { ToGrayscale16(i, grey, kNoList, kNoScale); }},
      {IT_Grayscale32f, IT_Grayscale32f, gamma::Linear, true, false,
       [](Image& i, auto&) { ToGrayScale32f(i, kNoList, kScale); }},
      {IT_RGB8, IT_RGBA8, kSRGB, false, false, [](Image& i, auto& o) { ToRGB8(i, kSRGB, o, CAI_Care); }},
      {IT_RGB8, IT_RGBA8, kPower, false, false, [](Image& i, auto& o) { ToRGB8(i, kPower, o, CAI_Care); }},
      {IT_RGB16, IT_RGBA16, kSRGB, false, false, [](Image& i, auto& o) { ToRGB16(i, kSRGB, o); }},
      {IT_RGB16, IT_RGBA16, kPower, false, false, [](Image& i, auto& o) { ToRGB16(i, kPower, o); }},
      {IT_RGB32f, IT_RGBA32f, gamma::Linear, false, false, [](Image& i, auto& o) { ToRGB32f(i, o); }},
      {IT_RGBEA, IT_RGBEA, gamma::Linear, false, false, [](Image& i, auto&) { ToRGBEA(i); }}};
  const struct {
    int width, height;
    GammaValue gamma;
  } sizes[] = {{1, 1, kSRGB},         {1, 7, kPower},   {7, 1, gamma::Linear},
               {5, 3, kSRGB},         {33, 17, kPower}, {300, 220, GammaValue(0.45f)},
               {37, 3, gamma::Linear}};
  const EImageType type = GetParam();
  for (const auto& s : sizes) {
    const bool extremes = s.width == 37, large = s.width * s.height > 60000;
    if (extremes && !IsFloat(type))
      continue;
    const Image source =
        RandomImage(type, s.width, s.height, s.gamma, 10 * type + s.width + s.height, extremes);
    // `check` at both levels, and on one thread as well for the large image.
    const auto everywhere = [&](const std::string& what, const std::function<void()>& check) {
      for (const cpu::Level level : {cpu::Level::Scalar, cpu::Detected()}) {
        for (int threads = 0; threads <= int{large}; ++threads) {
          SCOPED_TRACE(std::to_string(s.width) + "x" + std::to_string(s.height) + " " + what + " at " +
                       cpu::Name(level) + (threads ? " on one thread" : ""));
          const cpu::ScopedLevel scoped(level);
          const tools::ScopedJobThreadLimit limit(threads);
          check();
        }
      }
    };
    float min, max;
    ReferenceGreyRange(source, min, max);
    const bool spread = min < max || min > max;
    for (const Case& c : cases) {
      for (const AlphaConversionOptions options :
           {AlphaConversionOptions(), AlphaConversionOptions(true, true)}) {
        const EImageType target = options.ResultHasAlpha(HasAlpha(type)) ? c.alpha : c.opaque;
        if (options.alphaWanted && c.alpha == c.opaque)
          continue;
        // Only inversion and 8-bit colour of another gamma convert an image already in the target format;
        // otherwise it keeps its implementation, gamma and pixels.
        const bool kept =
            target == type && !c.invert && !((target == IT_RGB8 || target == IT_RGBA8) && s.gamma != c.gamma);
        const bool stretch = c.scale && spread;
        const Bytes expected =
            kept ? PlaneBytes(source)
                 : Reference(source, target, c.gamma, stretch ? min : 0, stretch ? max : 1, c.invert);
        everywhere("to " + std::to_string(target), [&] {
          std::make_unique<Bytes>(expected.size(), 0xA5).reset();
          Image image(source);
          c.convert(image, options);
          EXPECT_TRUE(image.ImageType() == target && image.GetGamma() == (kept ? s.gamma : c.gamma) &&
                      (image.GetImpl() == source.GetImpl()) == kept);
          EXPECT_EQ(PlaneBytes(image), expected);
        });
      }
    }
    // Re-encoding rewrites the colour codes in place: colour as ToRGB does (single-precision powers),
    // grey as single values (double precision); values that are not gamma encoded only change their gamma
    // label. Re-encoding to the image's own gamma changes nothing.
    Bytes expected = PlaneBytes(source);
    const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
    const int wide = Is16Bit(type) ? 2 : 1;
    for (int y = 0; y < s.height && IsGammaEncoded(type); ++y)
      for (int x = 0; x < s.width; ++x)
        for (int ch = 0; ch < (IsGrayscale(type) ? 1 : 3); ++ch) {
          unsigned char* b = &expected[y * source.BytesPerLine() + x * BytesPerPixel(type) + ch * wide];
          if (wide == 2)
            detail::StoreBE16(
                b, EncodeChannel16(DecodeChannel16(detail::LoadBE16(b), s.gamma), grey, precision));
          else
            *b = EncodeChannel8(DecodeChannel8(*b, s.gamma), grey, precision);
        }
    everywhere("re-encoded", [&] {
      std::unique_ptr<Image> image(source.DeepCopy()), same(source.DeepCopy());
      const ImageImpl* impl = image->GetImpl();
      Reencode(*image, grey);
      Reencode(*same, s.gamma);
      EXPECT_TRUE(image->GetImpl() == impl && image->GetGamma() == grey && PlaneBytes(*image) == expected);
      EXPECT_TRUE(same->GetGamma() == s.gamma && PlaneBytes(*same) == PlaneBytes(source));
    });
  }
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, ConversionsFrom, ::testing::ValuesIn(kAllFormats));

TEST(Conversions, OtherHandlesKeepTheirPixelsAndOddImagesConvert) {
  Image image = RandomImage(IT_RGBA16, 6, 5, kSRGB, 3);
  image.SetPtype(PT_Roughness);
  const Image other(image);
  const Bytes before = PlaneBytes(other);
  ToGrayscale8(image, kSRGB, kNoList, kScale, kKeep, CAI_Care);
  EXPECT_TRUE(other.ImageType() == IT_RGBA16 && PlaneBytes(other) == before &&
              image.GetPtype() == PT_Roughness);
  // An image without pixels gets a 1 x 1 implementation at least, black with zero padding, and has no
  // grey range; a plane without a format reads black and opaque.
  Image empty(0, 4, IT_RGB8, kSRGB);
  ToRGB16(empty, kSRGB, AlphaConversionOptions());
  EXPECT_TRUE(empty.ImageType() == IT_RGB16 && PlaneBytes(empty) == Bytes(4 * 8, 0));
  float min = 0, max = 0;
  GetGreyScale(Image(0, 3, IT_RGB8, kSRGB), min, max);
  EXPECT_TRUE(min == std::numeric_limits<float>::max() && max == -std::numeric_limits<float>::max());
  Image undefined(2, 1, IT_UNDEFINED, kSRGB);
  ToRGB8(undefined, kSRGB, AlphaConversionOptions(true, true), CAI_Care);
  EXPECT_EQ(PlaneBytes(undefined), (Bytes{0, 0, 0, 255, 0, 0, 0, 255}));
  // Re-encoding an empty handle leaves the implementation every empty handle shares.
  Image blank;
  const GammaValue shared = blank.GetGamma();
  Reencode(blank, GammaValue(3.0f));
  EXPECT_TRUE(blank.GetGamma() == GammaValue(3.0f) && Image().GetGamma() == shared);
}

TEST(Conversions, GreyTargetsComeFromTheImageListUnlessInverting) {
  const ZELPath path(L"/nonexistent/imagery-conversions/bricks_rough.png");
  Image grey = RandomImage(IT_Grayscale8, 4, 4, kSRGB, 20), colour = RandomImage(IT_RGB8, 4, 4, kSRGB, 21);
  grey.SetFilePath(path);
  colour.SetFilePath(path);
  Image listed(colour), inverted(colour);
  ToGrayscale8(listed, kSRGB, kList, kNoScale, kKeep, CAI_Care);
  EXPECT_EQ(listed.GetImpl(), grey.GetImpl());
  ToGrayscale8(inverted, kSRGB, kList, kNoScale, kInvert, CAI_Care);
  EXPECT_TRUE(PlaneBytes(inverted) == Reference(colour, IT_Grayscale8, kSRGB, 0, 1, true) &&
              inverted.FilePath() == path);
}

// FormatImageInExpectedFormat keeps the gamma (float and shared-exponent results are linear), adds an
// opaque alpha and neither stretches grey nor takes it from the list; ToImageType converts with the
// output gamma, giving alpha to a source without it only when asked to add it. Grey at the bit depth of
// 16-bit and RG-encoded formats is 16-bit, of float formats float, of IT_UNDEFINED nothing, otherwise
// 8-bit. Every format's colour mode leads back to it through its bit count.
TEST(Conversions, DispatchersColourModesAndBitDepths) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  settings.SetOutputGamma(GammaValue(1.8f));
  // What IT_RGB16 is formatted to; IT_Grayscale8 given the format without and with alpha added; the grey
  // of IT_RGB16 at the format's bit depth; the format's colour mode.
  const struct {
    EImageType type, formatted, opaque, alpha, grey;
    EColorMode mode;
  } cases[] = {
      {IT_RGB8, IT_RGB8, IT_RGB8, IT_RGB8, IT_Grayscale8, CM_RGB8},
      {IT_Grayscale8, IT_Grayscale8, IT_Grayscale8, IT_Grayscale8, IT_Grayscale8, CM_Grayscale8},
      {IT_RGBA8, IT_RGBA8, IT_RGB8, IT_RGBA8, IT_Grayscale8, CM_RGBA8},
      {IT_RGBEA, IT_RGBEA, IT_RGBEA, IT_RGBEA, IT_Grayscale8, CM_RGBEA},
      {IT_RGB16, IT_RGB16, IT_RGB16, IT_RGB16, IT_Grayscale16, CM_RGB16},
      {IT_RGBA16, IT_RGBA16, IT_RGB16, IT_RGBA16, IT_Grayscale16, CM_RGBA16},
      {IT_Grayscale16, IT_Grayscale16, IT_Grayscale16, IT_Grayscale16, IT_Grayscale16, CM_Grayscale16},
      {IT_RGB32f, IT_RGB32f, IT_RGB32f, IT_RGB32f, IT_Grayscale32f, CM_RGB32f},
      {IT_RGBA32f, IT_RGBA32f, IT_RGB32f, IT_RGBA32f, IT_Grayscale32f, CM_RGBA32f},
      {IT_Grayscale32f, IT_Grayscale32f, IT_Grayscale32f, IT_Grayscale32f, IT_Grayscale32f, CM_Grayscale32f},
      {IT_RGEncoded, IT_RGB16, IT_Grayscale8, IT_Grayscale8, IT_Grayscale16, CM_RGB8},
      {IT_RGEncodedAlpha, IT_RGB16, IT_Grayscale8, IT_Grayscale8, IT_Grayscale16, CM_RGB8},
      {IT_UNDEFINED, IT_RGB16, IT_Grayscale8, IT_Grayscale8, IT_RGB16, CM_RGB8},
      {EImageType(13), EImageType(13), IT_Grayscale8, IT_Grayscale8, IT_Grayscale8, CM_Grayscale8}};
  const auto gammaOf = [](EImageType type, GammaValue kept) {
    return IsFloat(type) || type == IT_RGBEA ? gamma::Linear : kept;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Image image = RandomImage(IT_RGB16, 2, 3, kPower, 9), grey(image);
    if (c.type <= IT_UNDEFINED) {
      EXPECT_EQ(FormatImageInExpectedFormat(image, c.type), c.formatted == c.type ? c.mode : CM_RGB16);
      EXPECT_TRUE(image.ImageType() == c.formatted && image.GetGamma() == gammaOf(c.formatted, kPower));
    }
    for (const bool add : {false, true}) {
      Image typed = RandomImage(IT_Grayscale8, 2, 3, kPower, 9);
      ToImageType(typed, c.type, add);
      const EImageType result = add ? c.alpha : c.opaque;
      EXPECT_TRUE(typed.ImageType() == result &&
                  typed.GetGamma() == (result == IT_Grayscale8 ? kPower : gammaOf(result, GammaValue(1.8f))))
          << "adding alpha " << add;
    }
    ToGrayscaleUsingBitDepth(grey, c.type, kSRGB, kNoList, kNoScale);
    EXPECT_TRUE(grey.ImageType() == c.grey && GetColorModeFromImageType(c.type) == c.mode);
    EXPECT_TRUE(c.type >= IT_RGEncoded ||
                GuessImageTypeFromBPP(GetBPPFromColorMode(c.mode), IsFloat(c.type)) == c.type);
  }
  settings = saved;
  const Image source = RandomImage(IT_Grayscale32f, 3, 1, gamma::Linear, 10);
  Image rgba(source), grey8(source);
  FormatImageInExpectedFormat(rgba, IT_RGBA8);
  FormatImageInExpectedFormat(grey8, IT_Grayscale8);
  EXPECT_TRUE(PlaneBytes(rgba) == Reference(source, IT_RGBA8, gamma::Linear) &&
              PlaneBytes(grey8) == Reference(source, IT_Grayscale8, gamma::Linear));
  EXPECT_TRUE(GetBPPFromColorMode(CM_RGB48).Value() == 48 &&
              GetBPPFromColorMode(EColorMode(11)).Value() == 0);
  EXPECT_TRUE(GuessImageTypeFromBPP(BitsPerPix(24), true) == IT_RGB8 &&
              GuessImageTypeFromBPP(BitsPerPix(33), false) == IT_RGB8);
}

// 8-bit code tables always pay; 16-bit ones from 65536 converted values (three per colour pixel: 21846
// pixels); shared exponents by 8-bit codes from 65536 pixels. Colour to grey needs all three channels;
// floats and shared exponents have no codes. 8-bit grey copies one of 256 result pixels, made by tables
// where they serve. Each below and at its count.
TEST(ConversionPlan, StrategiesAtTheirThresholds) {
  constexpr auto kFloats = convert::RowStrategy::ThroughFloats, kTable = convert::RowStrategy::CodeTable,
                 kShared = convert::RowStrategy::SharedExponentByCodes;
  const struct {
    EImageType source, target;
    std::int64_t pixels;
    convert::RowStrategy below, at;
  } cases[] = {{IT_RGB8, IT_RGB16, 1, kTable, kTable},
               {IT_RGB16, IT_RGB8, 21846, kFloats, kTable},
               {IT_Grayscale16, IT_Grayscale8, 65536, kFloats, kTable},
               {IT_RGEncodedAlpha, IT_Grayscale32f, 65536, kFloats, kTable},
               {IT_RGB8, IT_RGBEA, 65536, kFloats, kShared},
               {IT_RGB8, IT_Grayscale8, 1 << 20, kFloats, kFloats},
               {IT_RGB32f, IT_RGB8, 1 << 20, kFloats, kFloats},
               {IT_Grayscale8, IT_Grayscale32f, 1, kTable, kTable},
               {IT_Grayscale8, IT_RGB32f, 1, kFloats, kFloats},
               {IT_Grayscale8, IT_UNDEFINED, 1, kFloats, kFloats}};
  for (const auto& c : cases) {
    const bool perCode = c.source == IT_Grayscale8 && c.target != IT_UNDEFINED;
    const convert::ConversionPlan below{c.below, perCode}, at{c.at, perCode};
    EXPECT_TRUE(convert::PlanConversion(c.source, c.target, c.pixels - 1) == below &&
                convert::PlanConversion(c.source, c.target, c.pixels) == at)
        << &c - cases;
  }
}

class GreyRangeOf : public ::testing::TestWithParam<EImageType> {};

// The row scans of GetGreyScale, made at both processor levels for few pixels and for many (16-bit grey
// codes are scanned by their codes from 65536 pixels on, 8-bit ones always), on rows of every length up
// to 40 and beyond at every lane and chunk boundary (47, 48, 49, ..., 127, 128, 129, ..., 255, 256, 257);
// then GetGreyScale itself on whole images, at the edges of the blocks of eight and sixteen and of the row.
// The low value at x in row `lowRow`, the high one at width - 1 - x in the last row, on a background between
// them: the range is their greys. Grey code formats get their smallest, middle and largest codes; the others
// values away from zero, whose sign the scans treat specially.
TEST_P(GreyRangeOf, ExtremesAreFoundAtEveryPosition) {
  const EImageType type = GetParam();
  const bool codes = IsGrayscale(type) && !IsFloat(type);
  const float low = codes ? 0.0f : 0.125f, background = 0.5f, high = codes ? 1.0f : 0.875f;
  const auto everyPosition = [&](int width, int height, int lowRow, const auto& range) {
    Image image(width, height, type, gamma::sRGB);
    const auto set = [&image](int x, int y, float v) {
      PixelAccessNoGamma(image.GetImplRef().Plane(), x, y).SetPixelGrayscale(v);
    };
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        set(x, y, background);
    for (int x = 0; x < width; ++x) {
      set(x, lowRow, low);
      set(width - 1 - x, height - 1, high);
      float min = std::numeric_limits<float>::max(), max = -min;
      range(image, min, max);
      ASSERT_TRUE(SameBits(min, Grey(image, x, lowRow)) &&
                  SameBits(max, Grey(image, width - 1 - x, height - 1)))
          << width << " x " << height << ", x " << x;
      set(x, lowRow, background);
      set(width - 1 - x, height - 1, background);
    }
  };
  for (int length = 1; length <= 257; length += length < 40 || length % 8 != 1 ? 1 : 6) {
    for (const cpu::Level level : {cpu::Level::Scalar, cpu::Detected()}) {
      for (const std::int64_t pixels : {std::int64_t{2} * length, std::int64_t{65536}}) {
        SCOPED_TRACE(::testing::Message() << cpu::Name(level) << ", " << pixels << " pixels");
        const cpu::ScopedLevel scoped(level);
        const convert::GreyRangeScanner scanner(type, gamma::sRGB, pixels);
        everyPosition(length, 2, 0, [&](const Image& image, float& min, float& max) {
          for (int y = 0; y < 2; ++y)
            scanner.Scan(image.GetImplRef().Plane().Row(y), length, min, max);
        });
      }
    }
  }
  for (const int height : {2, 1639}) {
    everyPosition(40, height, height / 2,
                  [](const Image& image, float& min, float& max) { GetGreyScale(image, min, max); });
  }
}

INSTANTIATE_TEST_SUITE_P(PlantedExtremes, GreyRangeOf,
                         ::testing::Values(IT_Grayscale8, IT_Grayscale16, IT_RGEncoded, IT_RGEncodedAlpha,
                                           IT_Grayscale32f, IT_RGB8, IT_RGBA16, IT_RGBEA, IT_RGBA32f));

// A single pass keeps the last of equal minima and the first of equal maxima, so the sign of a zero
// extreme depends on the order: within a row (lanes) and across the row bands scanned in parallel (64
// rows each at this width). The zeros are placed so that any other order gives the other sign. Every
// processor level's scan keeps it.
TEST(GreyRange, ZeroExtremesKeepTheSignOfASinglePass) {
  for (const float background : {0.5f, -1.0f}) {
    Image image(1024, 130, IT_Grayscale32f, gamma::Linear);
    for (int y = 0; y < 130; ++y)
      for (int x = 0; x < 1024; ++x)
        image.SetPixelGrayscale(x, y, background, ATO_None);
    image.SetPixelGrayscale(7, 3, 0.0f, ATO_None);
    image.SetPixelGrayscale(8, 3, -0.0f, ATO_None);
    image.SetPixelGrayscale(9, 129, background > 0.0f ? 0.0f : -0.0f, ATO_None);
    float refMin, refMax;
    ReferenceGreyRange(image, refMin, refMax);
    ASSERT_EQ(background > 0.0f ? refMin : refMax, 0.0f);
    for (const cpu::Level level : LevelsUpToDetected()) {
      const cpu::ScopedLevel scoped(level);
      float min, max;
      GetGreyScale(image, min, max);
      EXPECT_TRUE(SameBits(min, refMin) && SameBits(max, refMax))
          << min << ".." << max << ", " << cpu::Name(level);
    }
  }
}

}  // namespace
}  // namespace imagery
