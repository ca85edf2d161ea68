// Pixel-format conversions against per-pixel references built on the public cursors and the
// single-value encodings, on random images of every format and awkward sizes. The conversions run in
// parallel; the references run one pixel after another.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "imagery/pixel_access.h"

namespace imagery {
namespace {

using Bytes = std::vector<unsigned char>;
struct Size {
  int width, height;
};

const CheckInImageList kNoList(false), kList(true);
const AutoScaleGrayScale kScale(true), kNoScale(false);
const InvertGrayRange kInvert(true), kKeep(false);
const float kInf = std::numeric_limits<float>::infinity();

// Random stored bytes; float formats get values a little outside [0, 1], and with `extremes` also
// zeros of both signs, infinities, NaN, huge values and values below the shared-exponent threshold.
Image RandomImage(EImageType type, Size size, GammaValue gamma, unsigned variant, bool extremes = false) {
  Image image(size.width, size.height, type, gamma);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(variant);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_real_distribution<float> value(-0.2f, 1.4f);
  const float kExtremes[] = {0.0f, -0.0f, 1.0f, kInf, -kInf, std::nanf(""), 3e38f, 1e-13f, 2.5f};
  for (int y = 0; y < size.height; ++y) {
    unsigned char* p = plane.Row(y);
    for (int i = 0; i < size.width * plane.BytesPerPixel(); i += IsFloat(type) ? 4 : 1) {
      if (!IsFloat(type)) {
        p[i] = static_cast<unsigned char>(byte(random));
        continue;
      }
      float v = value(random);
      if (extremes && byte(random) < 40)
        v = kExtremes[byte(random) % 9];
      std::memcpy(p + i, &v, sizeof v);
    }
  }
  return image;
}

// The pixel bytes of level 0 without the row padding.
Bytes PixelBytes(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  Bytes bytes;
  for (int y = 0; y < plane.Height(); ++y)
    bytes.insert(bytes.end(), plane.Row(y), plane.Row(y) + plane.Width() * plane.BytesPerPixel());
  return bytes;
}

// --- References ------------------------------------------------------------------------------------

float Grey(const LinearRGB_T<float>& c) {
  return (0.35f * c.r + 0.5f * c.g) + 0.15f * c.b;
}

LinearRGB_T<float> Colour(const Image& image, int x, int y) {
  LinearRGB_T<float> c;
  ConstPixelAccess(image.GetImplRef().Plane(), x, y).GetPixelRGB(c);
  return c;
}

// The stored alpha by the plane's format, never gamma converted.
float StoredAlpha(const Image& image, int x, int y) {
  const unsigned char* p = image.GetImplRef().Plane().PixelAddress(x, y);
  float a = 1.0f;
  switch (image.ImageType()) {
    case IT_RGBA8:
      return p[3] * 0.003921569f;
    case IT_RGBEA:
      return p[4] * 0.003921569f;
    case IT_RGBA16:
      return (p[6] << 8 | p[7]) * 1.5259022e-05f;
    case IT_RGBA32f:
      std::memcpy(&a, p + 12, sizeof a);
      return a;
    default:
      return a;
  }
}

// Rounding of the conversions: clamp, add 0.49999997 and truncate. NaN gives 0.
unsigned RoundCode(float scaled, float max) {
  if (!(scaled > 0.0f))
    return 0;
  return scaled >= max ? static_cast<unsigned>(max) : static_cast<unsigned>(scaled + 0.49999997f);
}

// v >= 1 gives 1, v <= 0 gives 0, NaN gives 0.
float Clamp(float v) {
  return v >= 1.0f ? 1.0f : v > 0.0f ? v : 0.0f;
}

void Put16(Bytes& out, unsigned v) {
  out.insert(out.end(), {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)});
}
void PutFloat(Bytes& out, float v) {
  unsigned char b[4];
  std::memcpy(b, &v, 4);
  out.insert(out.end(), b, b + 4);
}

// What converting `source` to `target` with the target gamma and the grey range (min, max) stores.
Bytes Reference(const Image& source, EImageType target, GammaValue gamma, float min = 0, float max = 1,
                bool invert = false) {
  Bytes out;
  for (int y = 0; y < source.Height(); ++y) {
    for (int x = 0; x < source.Width(); ++x) {
      const LinearRGB_T<float> c = Colour(source, x, y);
      const float a = StoredAlpha(source, x, y);
      const float g = Grey(c);
      const float v = invert ? (max - g) / (max - min) : (g - min) / (max - min);
      unsigned char r8, g8, b8;
      unsigned short r16, g16, b16;
      RGBECLR packed;
      switch (target) {
        case IT_Grayscale8:
          out.push_back(EncodeChannel8(v, gamma, PowerPrecision::Single));
          break;
        case IT_Grayscale16:
          Put16(out, RoundCode(EncodeLinear(Clamp(v), gamma, PowerPrecision::Double) * 65535.0f, 65535.0f));
          break;
        case IT_Grayscale32f:
          PutFloat(out, v);
          break;
        case IT_RGB8:
        case IT_RGBA8:
          ToRGB(c, r8, g8, b8, gamma);
          out.insert(out.end(), {b8, g8, r8});
          if (target == IT_RGBA8)
            out.push_back(static_cast<unsigned char>(RoundCode(a * 255.0f, 255.0f)));
          break;
        case IT_RGB16:
        case IT_RGBA16:
          ToRGB(c, r16, g16, b16, gamma);
          for (unsigned code : {b16, g16, r16})
            Put16(out, code);
          if (target == IT_RGBA16)
            Put16(out, RoundCode(a * 65535.0f, 65535.0f));
          break;
        case IT_RGB32f:
        case IT_RGBA32f:
          for (float channel : {c.b, c.g, c.r})
            PutFloat(out, channel);
          if (target == IT_RGBA32f)
            PutFloat(out, a);
          break;
        default:
          packed.FromFloat(c);
          out.insert(out.end(), {packed.r, packed.g, packed.b, packed.e,
                                 static_cast<unsigned char>(RoundCode(a * 255.0f, 255.0f))});
      }
    }
  }
  return out;
}

void ReferenceGreyRange(const Image& image, float& min, float& max) {
  min = std::numeric_limits<float>::max();
  max = -min;
  for (int y = 0; y < image.Height(); ++y) {
    for (int x = 0; x < image.Width(); ++x) {
      const float g = Grey(Colour(image, x, y));
      if (g <= min)
        min = g;
      if (g > max)
        max = g;
    }
  }
}

bool Is8BitColour(EImageType type) {
  return type == IT_RGB8 || type == IT_RGBA8;
}

// Converts a handle sharing `source` and checks format, gamma and every stored byte.
void ExpectConversion(const Image& source, EImageType target, GammaValue gamma, const Bytes& expected,
                      const std::function<void(Image&)>& convert, const std::string& what) {
  Image image(source);
  convert(image);
  ASSERT_EQ(image.ImageType(), target) << what;
  EXPECT_EQ(image.GetGamma(), gamma) << what;
  const Bytes actual = PixelBytes(image);
  ASSERT_EQ(actual.size(), expected.size()) << what;
  const auto mismatch = std::mismatch(actual.begin(), actual.end(), expected.begin());
  if (mismatch.first != actual.end()) {
    const auto i = static_cast<int>(mismatch.first - actual.begin());
    const int pixel = i / BytesPerPixel(target);
    ADD_FAILURE() << what << ": pixel (" << pixel % source.Width() << ", " << pixel / source.Width()
                  << ") byte " << i % BytesPerPixel(target) << " is " << int(*mismatch.first) << ", expected "
                  << int(*mismatch.second);
  }
}

// Every source format: 1 x 1, a column, a row and padded rows with three gammas, then a size large
// enough for several threads and the 16-bit code tables, and float images with extreme values.
void ForEverySource(const std::function<void(const Image&, const std::string&)>& check) {
  const GammaValue kSRGB = gamma::sRGB, kPower(2.2f), kLinear = gamma::Linear;
  const std::pair<Size, GammaValue> kCases[] = {
      {{1, 1}, kSRGB},  {{1, 7}, kPower},  {{7, 1}, kLinear}, {{5, 3}, kSRGB},
      {{5, 3}, kPower}, {{5, 3}, kLinear}, {{33, 17}, kSRGB}, {{300, 220}, GammaValue(0.45f)}};
  unsigned variant = 1;
  for (int t = IT_RGB8; t < IT_UNDEFINED; ++t) {
    const EImageType type = static_cast<EImageType>(t);
    for (const auto& c : kCases) {
      check(RandomImage(type, c.first, c.second, variant++),
            "type " + std::to_string(t) + " " + std::to_string(c.first.width) + "x" +
                std::to_string(c.first.height) + " gamma " + std::to_string(c.second.Value()));
    }
    if (IsFloat(type))
      check(RandomImage(type, {9, 9}, kLinear, variant++, true), "type " + std::to_string(t) + " extremes");
  }
}

// --- Conversions against the references ------------------------------------------------------------

TEST(Conversions, GreyRangeIsThatOfASinglePass) {
  ForEverySource([](const Image& image, const std::string& what) {
    float min, max, refMin, refMax;
    GetGreyScale(image, min, max);
    ReferenceGreyRange(image, refMin, refMax);
    EXPECT_TRUE(std::memcmp(&min, &refMin, 4) == 0 && std::memcmp(&max, &refMax, 4) == 0)
        << what << ": " << min << ".." << max << " expected " << refMin << ".." << refMax;
  });
  // The last of equal minima and the first of equal maxima keep their sign, across the row bands that
  // are scanned in parallel (64 rows each at this width).
  for (const float background : {0.5f, -1.0f}) {
    Image image(1024, 130, IT_Grayscale32f, gamma::Linear);
    for (int y = 0; y < 130; ++y)
      for (int x = 0; x < 1024; ++x)
        image.SetPixelGrayscale(x, y, background, ATO_None);
    const bool minimum = background > 0.0f;
    image.SetPixelGrayscale(7, 3, minimum ? -0.0f : 0.0f, ATO_None);
    image.SetPixelGrayscale(9, 129, minimum ? 0.0f : -0.0f, ATO_None);
    float min, max;
    GetGreyScale(image, min, max);
    EXPECT_EQ(minimum ? min : max, 0.0f);
    EXPECT_FALSE(std::signbit(minimum ? min : max));
  }
}

TEST(Conversions, GreyConversionsMatchTheReference) {
  const GammaValue power(1.8f), srgb = gamma::sRGB;
  struct Case {
    EImageType target;
    GammaValue gamma;
    bool scale, invert;
    std::function<void(Image&)> convert;
  };
  const Case cases[] = {
      {IT_Grayscale8, power, true, false,
       [&](Image& i) { ToGrayscale8(i, power, kNoList, kScale, kKeep, CAI_Care); }},
      {IT_Grayscale8, srgb, false, false,
       [&](Image& i) { ToGrayscale8(i, srgb, kNoList, kNoScale, kKeep, CAI_Care); }},
      {IT_Grayscale8, srgb, false, true,
       [&](Image& i) { ToGrayscale8(i, srgb, kNoList, kNoScale, kInvert, CAI_DontCare); }},
      {IT_Grayscale8, srgb, true, true,
       [&](Image& i) { ToGrayscale8(i, srgb, kNoList, kScale, kInvert, CAI_DontCare); }},
      {IT_Grayscale16, srgb, true, false, [&](Image& i) { ToGrayscale16(i, srgb, kNoList, kScale); }},
      {IT_Grayscale16, power, false, false, [&](Image& i) { ToGrayscale16(i, power, kNoList, kNoScale); }},
      {IT_Grayscale32f, gamma::Linear, true, false, [&](Image& i) { ToGrayScale32f(i, kNoList, kScale); }},
  };
  ForEverySource([&](const Image& source, const std::string& what) {
    float min, max;
    ReferenceGreyRange(source, min, max);
    const bool spread = min < max || min > max;
    for (const Case& c : cases) {
      // Only inversion converts an image that already has the target format.
      if (c.target == source.ImageType() && !c.invert)
        continue;
      const bool stretch = c.scale && spread;
      ExpectConversion(source, c.target, c.gamma,
                       Reference(source, c.target, c.gamma, stretch ? min : 0, stretch ? max : 1, c.invert),
                       c.convert, what + " to grey " + std::to_string(c.target));
    }
  });
}

TEST(Conversions, ColourConversionsMatchTheReference) {
  using Convert = std::function<void(Image&, const AlphaConversionOptions&)>;
  struct Depth {
    EImageType opaque, alpha;
    GammaValue gamma;
    Convert convert;
  };
  const GammaValue power(2.2f), srgb = gamma::sRGB;
  const Depth depths[] = {
      {IT_RGB8, IT_RGBA8, srgb,
       [&](Image& i, const AlphaConversionOptions& o) { ToRGB8(i, srgb, o, CAI_Care); }},
      {IT_RGB8, IT_RGBA8, power,
       [&](Image& i, const AlphaConversionOptions& o) { ToRGB8(i, power, o, CAI_DontCare); }},
      {IT_RGB16, IT_RGBA16, srgb, [&](Image& i, const AlphaConversionOptions& o) { ToRGB16(i, srgb, o); }},
      {IT_RGB16, IT_RGBA16, power, [&](Image& i, const AlphaConversionOptions& o) { ToRGB16(i, power, o); }},
      {IT_RGB32f, IT_RGBA32f, gamma::Linear,
       [](Image& i, const AlphaConversionOptions& o) { ToRGB32f(i, o); }},
  };
  const AlphaConversionOptions kOptions[] = {{false, false}, {true, false}, {true, true}};
  ForEverySource([&](const Image& source, const std::string& what) {
    const EImageType type = source.ImageType();
    for (const Depth& d : depths) {
      std::map<EImageType, Bytes> expected;
      for (const AlphaConversionOptions& options : kOptions) {
        const bool alpha = options.alphaWanted && (HasAlpha(type) || options.addAlphaIfMissing);
        const EImageType target = alpha ? d.alpha : d.opaque;
        // Only 8-bit colour of another gamma converts an image that already has the target format.
        if (target == type && (!Is8BitColour(target) || source.GetGamma() == d.gamma))
          continue;
        if (expected.count(target) == 0)
          expected[target] = Reference(source, target, d.gamma);
        ExpectConversion(
            source, target, d.gamma, expected[target], [&](Image& i) { d.convert(i, options); },
            what + " to " + std::to_string(target));
      }
    }
    if (type != IT_RGBEA) {
      ExpectConversion(
          source, IT_RGBEA, gamma::Linear, Reference(source, IT_RGBEA, gamma::Linear),
          [](Image& i) { ToRGBEA(i); }, what + " to RGBEA");
    }
  });
}

TEST(Conversions, ReencodeRewritesColourCodesInPlace) {
  unsigned variant = 100;
  for (EImageType type : {IT_RGB8, IT_Grayscale8, IT_RGBA8, IT_RGB16, IT_RGBA16, IT_Grayscale16}) {
    for (const Size size : {Size{5, 3}, Size{300, 220}}) {
      const GammaValue to(2.2f);
      Image image = RandomImage(type, size, gamma::sRGB, variant++);
      Bytes expected = PixelBytes(image);
      const std::size_t bpp = static_cast<std::size_t>(BytesPerPixel(type));
      // Colour re-encodes as ToRGB does (single-precision powers), grey as single values (double).
      const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
      for (std::size_t p = 0; p < expected.size(); p += bpp) {
        for (int ch = 0; ch < (IsGrayscale(type) ? 1 : 3); ++ch) {
          unsigned char* b = &expected[p + static_cast<std::size_t>(ch * (Is16Bit(type) ? 2 : 1))];
          if (Is16Bit(type)) {
            const auto code = static_cast<unsigned short>(b[0] << 8 | b[1]);
            const unsigned short reencoded =
                EncodeChannel16(DecodeChannel16(code, gamma::sRGB), to, precision);
            b[0] = static_cast<unsigned char>(reencoded >> 8);
            b[1] = static_cast<unsigned char>(reencoded);
          } else {
            b[0] = EncodeChannel8(DecodeChannel8(b[0], gamma::sRGB), to, precision);
          }
        }
      }
      const ImageImpl* impl = image.GetImpl();
      Reencode(image, to);
      EXPECT_EQ(image.GetImpl(), impl);
      EXPECT_EQ(image.GetGamma(), to);
      EXPECT_EQ(PixelBytes(image), expected) << type << " " << size.width;
    }
  }
}

// --- Requests that change nothing, sharing, the image list ------------------------------------------

TEST(Conversions, RequestsThatDoNotApplyLeaveTheImage) {
  const AlphaConversionOptions none(false, false);
  const std::pair<EImageType, std::function<void(Image&)>> cases[] = {
      {IT_Grayscale8, [](Image& i) { ToGrayscale8(i, gamma::sRGB, kList, kScale, kKeep, CAI_Care); }},
      {IT_Grayscale16, [](Image& i) { ToGrayscale16(i, gamma::sRGB, kList, kScale); }},
      {IT_Grayscale32f, [](Image& i) { ToGrayScale32f(i, kList, kScale); }},
      {IT_RGB8, [none](Image& i) { ToRGB8(i, GammaValue(2.2f), none, CAI_Care); }},
      {IT_RGB16, [none](Image& i) { ToRGB16(i, gamma::sRGB, none); }},
      {IT_RGBA16, [](Image& i) { ToRGB16(i, gamma::sRGB, AlphaConversionOptions(true, false)); }},
      {IT_RGB32f, [none](Image& i) { ToRGB32f(i, none); }},
      {IT_RGBEA, [](Image& i) { ToRGBEA(i); }},
      {IT_RGB8, [](Image& i) { ToImageType(i, IT_UNDEFINED, true); }},
      {IT_RGB8, [](Image& i) { ToImageType(i, IT_RGEncoded, true); }},
      {IT_RGB16, [](Image& i) { ToGrayscaleUsingBitDepth(i, IT_UNDEFINED, gamma::sRGB, kNoList, kNoScale); }},
      {IT_RGB8, [](Image& i) { Reencode(i, GammaValue(2.2f)); }},
  };
  for (const auto& c : cases) {
    Image image = RandomImage(c.first, {3, 2}, GammaValue(2.2f), 7);
    const ImageImpl* impl = image.GetImpl();
    const Bytes before = PixelBytes(image);
    c.second(image);
    EXPECT_EQ(image.GetImpl(), impl) << c.first;
    EXPECT_EQ(image.GetGamma(), GammaValue(2.2f)) << c.first;
    EXPECT_EQ(PixelBytes(image), before) << c.first;
  }
  // Values that are not gamma encoded only change their gamma label.
  for (EImageType type : {IT_RGBEA, IT_RGBA32f, IT_RGEncoded}) {
    Image image = RandomImage(type, {4, 4}, gamma::sRGB, 8);
    const Bytes before = PixelBytes(image);
    Reencode(image, GammaValue(2.2f));
    EXPECT_EQ(image.GetGamma(), GammaValue(2.2f));
    EXPECT_EQ(PixelBytes(image), before);
  }
}

TEST(Conversions, OtherHandlesKeepTheirPixelsAndOddImagesConvert) {
  Image image = RandomImage(IT_RGBA16, {6, 5}, gamma::sRGB, 3);
  image.SetTitle(ZELString(L"bricks"));
  image.SetPtype(PT_Roughness);
  const Image other(image);
  const Bytes before = PixelBytes(other);
  ToGrayscale8(image, gamma::sRGB, kNoList, kScale, kKeep, CAI_Care);
  EXPECT_EQ(other.ImageType(), IT_RGBA16);
  EXPECT_EQ(PixelBytes(other), before);
  EXPECT_EQ(image.Title(), ZELString(L"bricks"));
  EXPECT_EQ(image.GetPtype(), PT_Roughness);

  // An image without pixels gets a 1 x 1 implementation at least, left black.
  Image empty(0, 4, IT_RGB8, gamma::sRGB);
  ToRGB16(empty, gamma::sRGB, AlphaConversionOptions());
  EXPECT_EQ(empty.ImageType(), IT_RGB16);
  EXPECT_EQ(PixelBytes(empty), Bytes(4 * 6, 0));
  // A plane without a format reads black and opaque.
  Image undefined(2, 1, IT_UNDEFINED, gamma::sRGB);
  ToRGB8(undefined, gamma::sRGB, AlphaConversionOptions(true, true), CAI_Care);
  EXPECT_EQ(PixelBytes(undefined), (Bytes{0, 0, 0, 255, 0, 0, 0, 255}));
  // Re-encoding an empty handle leaves the implementation every empty handle shares.
  Image blank;
  const GammaValue shared = blank.GetGamma();
  Reencode(blank, GammaValue(3.0f));
  EXPECT_EQ(blank.GetGamma(), GammaValue(3.0f));
  EXPECT_EQ(Image().GetGamma(), shared);
}

TEST(Conversions, GreyVersionsComeFromTheImageList) {
  const ZELPath path(L"/nonexistent/imagery-conversions/bricks_rough.png");
  Image grey = RandomImage(IT_Grayscale8, {4, 4}, gamma::sRGB, 20);
  grey.SetFilePath(path);
  Image colour = RandomImage(IT_RGB8, {4, 4}, gamma::sRGB, 21);
  colour.SetFilePath(path);
  Image listed(colour), inverted(colour), unlisted(colour);
  ToGrayscale8(listed, gamma::sRGB, kList, kNoScale, kKeep, CAI_Care);
  EXPECT_EQ(listed.GetImpl(), grey.GetImpl());
  // Inverting never takes the listed version, and without the check the pixels are converted.
  ToGrayscale8(inverted, gamma::sRGB, kList, kNoScale, kInvert, CAI_Care);
  EXPECT_EQ(PixelBytes(inverted), Reference(colour, IT_Grayscale8, gamma::sRGB, 0, 1, true));
  ToGrayscale8(unlisted, gamma::sRGB, kNoList, kNoScale, kKeep, CAI_Care);
  EXPECT_EQ(PixelBytes(unlisted), Reference(colour, IT_Grayscale8, gamma::sRGB));
  EXPECT_EQ(unlisted.FilePath(), path);
}

// --- Edge cases and dispatchers ----------------------------------------------------------------------

TEST(Conversions, GreyRangeEdgeCases) {
  // A constant grey keeps its values; 0.2..0.6 stretches to 0..1 (inverted 1..0).
  Image constant(4, 3, IT_Grayscale32f, gamma::Linear);
  for (int x = 0; x < 4; ++x)
    for (int y = 0; y < 3; ++y)
      constant.SetPixelGrayscale(x, y, 0.5f, ATO_None);
  ToGrayscale8(constant, gamma::Linear, kNoList, kScale, kKeep, CAI_Care);
  EXPECT_EQ(PixelBytes(constant), Bytes(12, 128));

  Image ramp(2, 1, IT_Grayscale32f, gamma::Linear);
  ramp.SetPixelGrayscale(0, 0, 0.2f, ATO_None);
  ramp.SetPixelGrayscale(1, 0, 0.6f, ATO_None);
  Image r8(ramp), r16(ramp), inverted(ramp);
  ToGrayscale8(r8, gamma::sRGB, kNoList, kScale, kKeep, CAI_Care);
  ToGrayscale16(r16, gamma::sRGB, kNoList, kScale);
  ToGrayscale8(inverted, gamma::sRGB, kNoList, kScale, kInvert, CAI_Care);
  EXPECT_EQ(PixelBytes(r8), (Bytes{0, 255}));
  EXPECT_EQ(PixelBytes(r16), (Bytes{0, 0, 0xFF, 0xF6}));  // the sRGB curve reaches 65526 at 1
  EXPECT_EQ(PixelBytes(inverted), (Bytes{255, 0}));
}

TEST(Conversions, ToImageTypeUsesTheOutputGamma) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  settings.SetOutputGamma(GammaValue(1.8f));
  const GammaValue out(1.8f);
  struct Case {
    EImageType source, target;
    bool addAlpha;
    EImageType result;
    GammaValue gamma;
  };
  const Case cases[] = {
      {IT_Grayscale8, IT_RGBA8, false, IT_RGB8, out},
      {IT_Grayscale8, IT_RGBA8, true, IT_RGBA8, out},
      {IT_RGBA16, IT_RGB8, true, IT_RGB8, out},
      {IT_RGB8, IT_Grayscale8, false, IT_Grayscale8, out},
      {IT_RGB8, IT_RGBEA, false, IT_RGBEA, gamma::Linear},
      {IT_RGB32f, IT_RGBA16, false, IT_RGB16, out},
      {IT_RGBA8, IT_RGBA16, false, IT_RGBA16, out},
      {IT_RGB8, IT_Grayscale16, false, IT_Grayscale16, out},
      {IT_RGBA8, IT_RGB32f, false, IT_RGB32f, gamma::Linear},
      {IT_RGB16, IT_Grayscale32f, false, IT_Grayscale32f, gamma::Linear},
  };
  for (const Case& c : cases) {
    Image image = RandomImage(c.source, {3, 3}, gamma::sRGB, 5);
    ToImageType(image, c.target, c.addAlpha);
    EXPECT_EQ(image.ImageType(), c.result) << c.source << " to " << c.target;
    EXPECT_EQ(image.GetGamma(), c.gamma) << c.source << " to " << c.target;
  }
  settings = saved;
}

TEST(Conversions, ExpectedFormatsAndBitDepths) {
  const EColorMode kModes[] = {CM_RGB8,   CM_Grayscale8,  CM_RGBA8,  CM_RGBEA,   CM_RGB16,
                               CM_RGBA16, CM_Grayscale16, CM_RGB32f, CM_RGBA32f, CM_Grayscale32f,
                               CM_RGB8,   CM_RGB8,        CM_RGB8};
  const EImageType kGrey[] = {IT_Grayscale8,   IT_Grayscale8,   IT_Grayscale8,  IT_Grayscale8,
                              IT_Grayscale16,  IT_Grayscale16,  IT_Grayscale16, IT_Grayscale32f,
                              IT_Grayscale32f, IT_Grayscale32f, IT_Grayscale16, IT_Grayscale16,
                              IT_RGB16};
  for (int t = IT_RGB8; t <= IT_UNDEFINED; ++t) {
    const EImageType expected = static_cast<EImageType>(t);
    Image image = RandomImage(IT_RGB16, {2, 3}, GammaValue(2.2f), 9);
    Image grey(image);
    const EColorMode mode = FormatImageInExpectedFormat(image, expected);
    const bool converts = expected != IT_RGB16 && expected < IT_RGEncoded;
    EXPECT_EQ(image.ImageType(), converts ? expected : IT_RGB16) << t;
    EXPECT_EQ(mode, converts ? kModes[t] : CM_RGB16) << t;
    EXPECT_EQ(image.GetGamma(), IsFloat(expected) || expected == IT_RGBEA ? gamma::Linear : GammaValue(2.2f))
        << t;
    ToGrayscaleUsingBitDepth(grey, expected, gamma::sRGB, kNoList, kNoScale);
    EXPECT_EQ(grey.ImageType(), kGrey[t]) << t;
  }
  // The added alpha is opaque; grey is neither stretched nor taken from the list.
  const Image source = RandomImage(IT_Grayscale32f, {3, 1}, gamma::Linear, 10);
  Image rgba(source), grey8(source), wide(source);
  FormatImageInExpectedFormat(rgba, IT_RGBA8);
  EXPECT_EQ(PixelBytes(rgba), Reference(source, IT_RGBA8, gamma::Linear));
  FormatImageInExpectedFormat(grey8, IT_Grayscale8);
  EXPECT_EQ(PixelBytes(grey8), Reference(source, IT_Grayscale8, gamma::Linear));
  ToGrayscaleUsingBitDepth(wide, static_cast<EImageType>(13), gamma::sRGB, kNoList, kNoScale);
  EXPECT_EQ(wide.ImageType(), IT_Grayscale8);
}

TEST(Conversions, ColourModes) {
  const int kBits[] = {24, 48, 8, 16, 32, 40, 48, 64, 32, 96, 128, 0};
  for (int m = 0; m <= 11; ++m)
    EXPECT_EQ(GetBPPFromColorMode(static_cast<EColorMode>(m)).Value(), kBits[m]);
  // Every mode with a format leads back to it through its bit count.
  for (int t = IT_RGB8; t < IT_RGEncoded; ++t) {
    const EImageType type = static_cast<EImageType>(t);
    EXPECT_EQ(GuessImageTypeFromBPP(GetBPPFromColorMode(GetColorModeFromImageType(type)), IsFloat(type)),
              type);
  }
  EXPECT_EQ(GuessImageTypeFromBPP(BitsPerPix(24), true), IT_RGB8);
  EXPECT_EQ(GuessImageTypeFromBPP(BitsPerPix(32), false), IT_RGBA8);
  EXPECT_EQ(GuessImageTypeFromBPP(BitsPerPix(33), false), IT_RGB8);
  EXPECT_EQ(GetColorModeFromImageType(static_cast<EImageType>(40)), CM_Grayscale8);
}

TEST(Conversions, MapReadersApplyTheHandleTransformations) {
  Image image = RandomImage(IT_RGBA8, {4, 3}, gamma::sRGB, 13);
  image.MirrorX();
  image.SetExposure(0.25f);
  image.SetInvertedAlpha(true);
  const ApplyTransformOpts options = ATO_Geometry | ATO_ExposureContrast | ATO_Inversions;
  for (int mode = IOM_Color; mode <= 3; ++mode) {
    const auto read = GetMapGetPixelFloatColorLambda(image, static_cast<ImageOutputMode>(mode));
    for (int y = 0; y < 3; ++y) {
      for (int x = 0; x < 4; ++x) {
        LinearRGB_T<float> c;
        float g = 0, a = 0;
        image.GetPixelRGB(x, y, c, options);
        image.GetPixelGrayscale(x, y, g, options);
        image.GetPixelAlpha(x, y, a, options);
        const LinearRGB_T<float> expected[] = {c, {g, g, g}, {1 - a, 1 - a, 1 - a}, {}};
        EXPECT_EQ(read(x, y), expected[mode]) << mode;
      }
    }
  }
}

}  // namespace
}  // namespace imagery
