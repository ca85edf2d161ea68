// Pixel-format conversions against per-pixel references built on the public cursors and the
// single-value encodings, on random images of every format and awkward sizes. The conversions run in
// parallel; the references run one pixel after another.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/pixel_access.h"

namespace imagery {
namespace {

using Bytes = std::vector<unsigned char>;

struct Size {
  int width, height;
};
// 1 x 1, a column, a row, padded rows, and one large enough for several threads and the 16-bit tables.
const Size kSmallSizes[] = {{1, 1}, {1, 7}, {7, 1}, {5, 3}, {33, 17}};
const Size kLargeSize = {300, 220};

const GammaValue kGammas[] = {gamma::sRGB, GammaValue(2.2f), gamma::Linear};

std::string Describe(EImageType type, Size size, GammaValue gamma) {
  return "type " + std::to_string(type) + " " + std::to_string(size.width) + "x" +
         std::to_string(size.height) + " gamma " + std::to_string(gamma.Value());
}

// Random stored bytes; float formats get values a little outside [0, 1], and with `extremes` also
// zeros of both signs, infinities, NaN, huge values and values below the shared-exponent threshold.
Image RandomImage(EImageType type, Size size, GammaValue gamma, unsigned variant, bool extremes = false) {
  Image image(size.width, size.height, type, gamma);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(variant);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_real_distribution<float> value(-0.2f, 1.4f);
  const float kExtremes[] = {0.0f,
                             -0.0f,
                             1.0f,
                             std::numeric_limits<float>::infinity(),
                             -std::numeric_limits<float>::infinity(),
                             std::nanf(""),
                             3e38f,
                             1e-13f,
                             2.5f};
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

LinearRGB_T<float> Colour(const Image& image, int x, int y) {
  LinearRGB_T<float> c;
  ConstPixelAccess(image.GetImplRef().Plane(), x, y).GetPixelRGB(c);
  return c;
}

float Grey(const LinearRGB_T<float>& c) {
  return (0.35f * c.r + 0.5f * c.g) + 0.15f * c.b;
}

// The stored alpha by the plane's format, never gamma converted.
float StoredAlpha(const Image& image, int x, int y) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  const unsigned char* p = plane.PixelAddress(x, y);
  switch (plane.Type()) {
    case IT_RGBA8:
      return p[3] * 0.003921569f;
    case IT_RGBEA:
      return p[4] * 0.003921569f;
    case IT_RGBA16:
      return (p[6] << 8 | p[7]) * 1.5259022e-05f;
    case IT_RGBA32f: {
      float a;
      std::memcpy(&a, p + 12, sizeof a);
      return a;
    }
    default:
      return 1.0f;
  }
}

// Rounding of the conversions: add 0.49999997 and truncate. NaN gives 0.
unsigned RoundCode(float scaled, float max) {
  if (!(scaled > 0.0f))
    return 0;
  if (scaled >= max)
    return static_cast<unsigned>(max);
  return static_cast<unsigned>(scaled + 0.49999997f);
}

void Put16(Bytes& out, unsigned v) {
  out.push_back(static_cast<unsigned char>(v >> 8));
  out.push_back(static_cast<unsigned char>(v));
}
void PutFloat(Bytes& out, float v) {
  unsigned char b[4];
  std::memcpy(b, &v, 4);
  out.insert(out.end(), b, b + 4);
}

// What converting `source` to `target` with the target gamma and the grey range (min, max) stores.
Bytes Reference(const Image& source, EImageType target, GammaValue gamma, float min, float max, bool invert) {
  Bytes out;
  for (int y = 0; y < source.Height(); ++y) {
    for (int x = 0; x < source.Width(); ++x) {
      const LinearRGB_T<float> c = Colour(source, x, y);
      const float a = StoredAlpha(source, x, y);
      const float g = Grey(c);
      const float v = invert ? (max - g) / (max - min) : (g - min) / (max - min);
      switch (target) {
        case IT_Grayscale8:
          out.push_back(EncodeChannel8(v, gamma, PowerPrecision::Single));
          break;
        case IT_Grayscale16: {
          const float clamped = v >= 1.0f ? 1.0f : v > 0.0f ? v : 0.0f;
          Put16(out, RoundCode(EncodeLinear(clamped, gamma, PowerPrecision::Double) * 65535.0f, 65535.0f));
          break;
        }
        case IT_Grayscale32f:
          PutFloat(out, v);
          break;
        case IT_RGB8:
        case IT_RGBA8: {
          unsigned char r, gr, b;
          ToRGB(c, r, gr, b, gamma);
          out.insert(out.end(), {b, gr, r});
          if (target == IT_RGBA8)
            out.push_back(static_cast<unsigned char>(RoundCode(a * 255.0f, 255.0f)));
          break;
        }
        case IT_RGB16:
        case IT_RGBA16: {
          unsigned short r, gr, b;
          ToRGB(c, r, gr, b, gamma);
          Put16(out, b);
          Put16(out, gr);
          Put16(out, r);
          if (target == IT_RGBA16)
            Put16(out, RoundCode(a * 65535.0f, 65535.0f));
          break;
        }
        case IT_RGB32f:
        case IT_RGBA32f:
          PutFloat(out, c.b);
          PutFloat(out, c.g);
          PutFloat(out, c.r);
          if (target == IT_RGBA32f)
            PutFloat(out, a);
          break;
        case IT_RGBEA: {
          RGBECLR packed;
          packed.FromFloat(c);
          out.insert(out.end(), {packed.r, packed.g, packed.b, packed.e,
                                 static_cast<unsigned char>(RoundCode(a * 255.0f, 255.0f))});
          break;
        }
        default:
          ADD_FAILURE() << "no reference for " << target;
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

bool SameBits(float a, float b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Converts a handle sharing `source` and checks type, gamma and every stored byte.
template <class Convert>
void ExpectConversion(const Image& source, EImageType target, GammaValue gamma, const Bytes& expected,
                      Convert convert, const std::string& what) {
  Image image(source);
  convert(image);
  ASSERT_EQ(image.ImageType(), target) << what;
  EXPECT_EQ(image.GetGamma(), gamma) << what;
  EXPECT_NE(image.GetImpl(), source.GetImpl()) << what;
  const Bytes actual = PixelBytes(image);
  ASSERT_EQ(actual.size(), expected.size()) << what;
  const int bpp = BytesPerPixel(target);
  for (std::size_t i = 0; i < actual.size(); ++i) {
    if (actual[i] != expected[i]) {
      const int pixel = static_cast<int>(i) / bpp;
      ADD_FAILURE() << what << ": pixel (" << pixel % source.Width() << ", " << pixel / source.Width()
                    << ") byte " << i % bpp << " is " << int(actual[i]) << ", expected " << int(expected[i]);
      return;
    }
  }
}

// Every source format, small sizes with every gamma, the large size with one.
template <class Check>
void ForEverySource(Check check) {
  unsigned variant = 1;
  for (int t = IT_RGB8; t < IT_UNDEFINED; ++t) {
    const EImageType type = static_cast<EImageType>(t);
    for (const Size& size : kSmallSizes)
      for (GammaValue gamma : kGammas)
        check(RandomImage(type, size, gamma, variant++), Describe(type, size, gamma));
    check(RandomImage(type, kLargeSize, GammaValue(0.45f), variant++),
          Describe(type, kLargeSize, GammaValue(0.45f)));
    if (IsFloat(type)) {
      check(RandomImage(type, {9, 9}, gamma::Linear, variant++, true),
            Describe(type, {9, 9}, gamma::Linear) + " extremes");
    }
  }
}

// --- Grey ------------------------------------------------------------------------------------------

TEST(Conversions, GreyRangeIsThatOfASinglePass) {
  ForEverySource([](const Image& image, const std::string& what) {
    float min, max, refMin, refMax;
    GetGreyScale(image, min, max);
    ReferenceGreyRange(image, refMin, refMax);
    EXPECT_TRUE(SameBits(min, refMin) && SameBits(max, refMax))
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
  ForEverySource([](const Image& source, const std::string& what) {
    float min, max;
    ReferenceGreyRange(source, min, max);
    const bool spread = min < max || min > max;
    const float lo = spread ? min : 0.0f;
    const float hi = spread ? max : 1.0f;
    for (GammaValue gamma : {gamma::sRGB, GammaValue(1.8f)}) {
      const std::string g = what + " to gamma " + std::to_string(gamma.Value());
      if (source.ImageType() != IT_Grayscale8) {
        ExpectConversion(
            source, IT_Grayscale8, gamma, Reference(source, IT_Grayscale8, gamma, lo, hi, false),
            [&](Image& i) {
              ToGrayscale8(i, gamma, CheckInImageList(false), AutoScaleGrayScale(true),
                           InvertGrayRange(false), CAI_Care);
            },
            g + " grey8 scaled");
      }
      ExpectConversion(
          source, IT_Grayscale8, gamma, Reference(source, IT_Grayscale8, gamma, 0, 1, true),
          [&](Image& i) {
            ToGrayscale8(i, gamma, CheckInImageList(false), AutoScaleGrayScale(false), InvertGrayRange(true),
                         CAI_DontCare);
          },
          g + " grey8 inverted");
      if (source.ImageType() != IT_Grayscale16) {
        ExpectConversion(
            source, IT_Grayscale16, gamma, Reference(source, IT_Grayscale16, gamma, lo, hi, false),
            [&](Image& i) { ToGrayscale16(i, gamma, CheckInImageList(false), AutoScaleGrayScale(true)); },
            g + " grey16 scaled");
      }
    }
    if (source.ImageType() != IT_Grayscale8) {
      ExpectConversion(
          source, IT_Grayscale8, gamma::sRGB, Reference(source, IT_Grayscale8, gamma::sRGB, 0, 1, false),
          [&](Image& i) {
            ToGrayscale8(i, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(false),
                         InvertGrayRange(false), CAI_Care);
          },
          what + " grey8");
    }
    if (source.ImageType() != IT_Grayscale32f) {
      ExpectConversion(
          source, IT_Grayscale32f, gamma::Linear,
          Reference(source, IT_Grayscale32f, gamma::Linear, lo, hi, false),
          [&](Image& i) { ToGrayScale32f(i, CheckInImageList(false), AutoScaleGrayScale(true)); },
          what + " grey32f scaled");
    }
  });
}

TEST(Conversions, GreyRangeEdgeCases) {
  // A constant grey keeps its values; 0.2..0.6 stretches to 0..1 (inverted 1..0).
  Image constant(4, 3, IT_Grayscale32f, gamma::Linear);
  for (int x = 0; x < 4; ++x)
    for (int y = 0; y < 3; ++y)
      constant.SetPixelGrayscale(x, y, 0.5f, ATO_None);
  Image ramp(2, 1, IT_Grayscale32f, gamma::Linear);
  ramp.SetPixelGrayscale(0, 0, 0.2f, ATO_None);
  ramp.SetPixelGrayscale(1, 0, 0.6f, ATO_None);

  Image c8(constant);
  ToGrayscale8(c8, gamma::Linear, CheckInImageList(false), AutoScaleGrayScale(true), InvertGrayRange(false),
               CAI_Care);
  EXPECT_EQ(c8.GetImplRef().Plane().Row(2)[3], 128);

  Image r8(ramp), r16(ramp), inverted(ramp);
  ToGrayscale8(r8, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true), InvertGrayRange(false),
               CAI_Care);
  ToGrayscale16(r16, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true));
  ToGrayscale8(inverted, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true),
               InvertGrayRange(true), CAI_Care);
  EXPECT_EQ(PixelBytes(r8), (Bytes{0, 255}));
  // The sRGB curve reaches 65526 at 1.
  EXPECT_EQ(PixelBytes(r16), (Bytes{0, 0, 0xFF, 0xF6}));
  EXPECT_EQ(PixelBytes(inverted), (Bytes{255, 0}));
}

// --- Colour ------------------------------------------------------------------------------------------

TEST(Conversions, ColourConversionsMatchTheReference) {
  ForEverySource([](const Image& source, const std::string& what) {
    const EImageType type = source.ImageType();
    const bool alpha = HasAlpha(type);
    for (GammaValue gamma : {gamma::sRGB, GammaValue(2.2f)}) {
      const std::string g = what + " to gamma " + std::to_string(gamma.Value());
      for (const AlphaConversionOptions options :
           {AlphaConversionOptions(false, false), AlphaConversionOptions(true, false),
            AlphaConversionOptions(true, true)}) {
        const bool withAlpha = options.alphaWanted && (alpha || options.addAlphaIfMissing);
        const std::string o = g + (withAlpha ? " with alpha" : " without alpha");
        const EImageType to8 = withAlpha ? IT_RGBA8 : IT_RGB8;
        if (to8 != type || source.GetGamma() != gamma) {
          ExpectConversion(
              source, to8, gamma, Reference(source, to8, gamma, 0, 1, false),
              [&](Image& i) { ToRGB8(i, gamma, options, CAI_Care); }, o + " rgb8");
        }
        const EImageType to16 = withAlpha ? IT_RGBA16 : IT_RGB16;
        if (to16 != type) {
          ExpectConversion(
              source, to16, gamma, Reference(source, to16, gamma, 0, 1, false),
              [&](Image& i) { ToRGB16(i, gamma, options); }, o + " rgb16");
        }
        const EImageType to32 = withAlpha ? IT_RGBA32f : IT_RGB32f;
        if (to32 != type && gamma == gamma::sRGB) {
          ExpectConversion(
              source, to32, gamma::Linear, Reference(source, to32, gamma::Linear, 0, 1, false),
              [&](Image& i) { ToRGB32f(i, options); }, o + " rgb32f");
        }
      }
    }
    if (type != IT_RGBEA) {
      ExpectConversion(
          source, IT_RGBEA, gamma::Linear, Reference(source, IT_RGBEA, gamma::Linear, 0, 1, false),
          [](Image& i) { ToRGBEA(i); }, what + " rgbea");
    }
  });
}

TEST(Conversions, RequestsThatDoNotApplyLeaveTheImage) {
  struct Case {
    EImageType type;
    GammaValue gamma;
    std::function<void(Image&)> convert;
  };
  const AlphaConversionOptions none(false, false);
  const Case cases[] = {
      {IT_Grayscale8, GammaValue(2.2f),
       [](Image& i) {
         ToGrayscale8(i, gamma::sRGB, CheckInImageList(true), AutoScaleGrayScale(true),
                      InvertGrayRange(false), CAI_Care);
       }},
      {IT_Grayscale16, gamma::Linear,
       [](Image& i) { ToGrayscale16(i, gamma::sRGB, CheckInImageList(true), AutoScaleGrayScale(true)); }},
      {IT_Grayscale32f, gamma::Linear,
       [](Image& i) { ToGrayScale32f(i, CheckInImageList(true), AutoScaleGrayScale(true)); }},
      {IT_RGB8, gamma::sRGB, [none](Image& i) { ToRGB8(i, gamma::sRGB, none, CAI_Care); }},
      {IT_RGB16, gamma::Linear, [none](Image& i) { ToRGB16(i, gamma::sRGB, none); }},
      {IT_RGBA16, gamma::Linear,
       [](Image& i) { ToRGB16(i, gamma::sRGB, AlphaConversionOptions(true, false)); }},
      {IT_RGB32f, GammaValue(2.2f), [none](Image& i) { ToRGB32f(i, none); }},
      {IT_RGBEA, gamma::Linear, [](Image& i) { ToRGBEA(i); }},
      {IT_RGB8, gamma::sRGB, [](Image& i) { ToImageType(i, IT_UNDEFINED, true); }},
      {IT_RGB8, gamma::sRGB, [](Image& i) { ToImageType(i, IT_RGEncoded, true); }},
      {IT_RGB16, gamma::sRGB,
       [](Image& i) {
         ToGrayscaleUsingBitDepth(i, IT_UNDEFINED, gamma::sRGB, CheckInImageList(false),
                                  AutoScaleGrayScale(false));
       }},
      {IT_RGB32f, gamma::Linear, [](Image& i) { Reencode(i, gamma::Linear); }},
  };
  for (const Case& c : cases) {
    Image image = RandomImage(c.type, {3, 2}, c.gamma, 7);
    const ImageImpl* impl = image.GetImpl();
    const Bytes before = PixelBytes(image);
    c.convert(image);
    EXPECT_EQ(image.GetImpl(), impl) << c.type;
    EXPECT_EQ(image.GetGamma(), c.gamma) << c.type;
    EXPECT_EQ(PixelBytes(image), before) << c.type;
  }
  // The same 8-bit colour format with another gamma is re-encoded.
  const Image source = RandomImage(IT_RGB8, {5, 3}, gamma::sRGB, 8);
  ExpectConversion(
      source, IT_RGB8, GammaValue(2.2f), Reference(source, IT_RGB8, GammaValue(2.2f), 0, 1, false),
      [](Image& i) { ToRGB8(i, GammaValue(2.2f), AlphaConversionOptions(), CAI_Care); }, "re-encoded");
}

TEST(Conversions, OtherHandlesKeepTheirPixelsAndPropertiesCarryOver) {
  Image image = RandomImage(IT_RGBA16, {6, 5}, gamma::sRGB, 3);
  image.SetTitle(ZELString(L"bricks"));
  image.SetPtype(PT_Roughness);
  const Image other(image);
  const Bytes before = PixelBytes(other);
  ToGrayscale8(image, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true), InvertGrayRange(false),
               CAI_Care);
  EXPECT_EQ(other.ImageType(), IT_RGBA16);
  EXPECT_EQ(PixelBytes(other), before);
  EXPECT_EQ(image.Title(), ZELString(L"bricks"));
  EXPECT_EQ(image.GetPtype(), PT_Roughness);
  EXPECT_FALSE(image.ValidMipMapsGamma());

  // An image without pixels gets a 1 x 1 implementation at least, left black.
  Image empty(0, 4, IT_RGB8, gamma::sRGB);
  ToRGB16(empty, gamma::sRGB, AlphaConversionOptions());
  EXPECT_EQ(empty.ImageType(), IT_RGB16);
  EXPECT_EQ(empty.Width(), 1);
  EXPECT_EQ(PixelBytes(empty), Bytes(4 * 6, 0));

  // A plane without a format reads black and opaque.
  Image undefined(3, 2, IT_UNDEFINED, gamma::sRGB);
  ToRGB8(undefined, gamma::sRGB, AlphaConversionOptions(true, true), CAI_Care);
  EXPECT_EQ(undefined.ImageType(), IT_RGBA8);
  EXPECT_EQ(PixelBytes(undefined),
            (Bytes{0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255}));

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
  ToGrayscale8(listed, gamma::sRGB, CheckInImageList(true), AutoScaleGrayScale(false), InvertGrayRange(false),
               CAI_Care);
  EXPECT_EQ(listed.GetImpl(), grey.GetImpl());
  // Inverting never takes the listed version, and without the check the pixels are converted.
  ToGrayscale8(inverted, gamma::sRGB, CheckInImageList(true), AutoScaleGrayScale(false),
               InvertGrayRange(true), CAI_Care);
  EXPECT_EQ(PixelBytes(inverted), Reference(colour, IT_Grayscale8, gamma::sRGB, 0, 1, true));
  ToGrayscale8(unlisted, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(false),
               InvertGrayRange(false), CAI_Care);
  EXPECT_NE(unlisted.GetImpl(), grey.GetImpl());
  EXPECT_EQ(PixelBytes(unlisted), Reference(colour, IT_Grayscale8, gamma::sRGB, 0, 1, false));
  EXPECT_EQ(unlisted.FilePath(), path);
}

// --- Gamma re-encoding -----------------------------------------------------------------------------

TEST(Conversions, ReencodeRewritesColourCodesInPlace) {
  const EImageType types[] = {IT_RGB8, IT_Grayscale8, IT_RGBA8, IT_RGB16, IT_RGBA16, IT_Grayscale16};
  unsigned variant = 100;
  for (EImageType type : types) {
    for (const Size size : {Size{5, 3}, kLargeSize}) {
      const GammaValue from = gamma::sRGB;
      const GammaValue to(2.2f);
      Image image = RandomImage(type, size, from, variant++);
      const Bytes before = PixelBytes(image);
      Bytes expected = before;
      const int bpp = BytesPerPixel(type);
      const bool wide = Is16Bit(type);
      // Colour re-encodes as ToRGB does (single-precision powers), grey as single values (double).
      const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
      for (std::size_t p = 0; p < expected.size(); p += static_cast<std::size_t>(bpp)) {
        for (int ch = 0; ch < (IsGrayscale(type) ? 1 : 3); ++ch) {
          unsigned char* b = &expected[p + static_cast<std::size_t>(ch * (wide ? 2 : 1))];
          if (wide) {
            const unsigned short code = EncodeChannel16(
                DecodeChannel16(static_cast<unsigned short>(b[0] << 8 | b[1]), from), to, precision);
            b[0] = static_cast<unsigned char>(code >> 8);
            b[1] = static_cast<unsigned char>(code);
          } else {
            b[0] = EncodeChannel8(DecodeChannel8(b[0], from), to, precision);
          }
        }
      }
      const ImageImpl* impl = image.GetImpl();
      Reencode(image, to);
      EXPECT_EQ(image.GetImpl(), impl);
      EXPECT_EQ(image.GetGamma(), to);
      EXPECT_EQ(PixelBytes(image), expected) << Describe(type, size, to);
    }
  }
  // Values that are not gamma encoded only change their label.
  for (EImageType type : {IT_RGBEA, IT_RGBA32f, IT_RGEncoded}) {
    Image image = RandomImage(type, {4, 4}, gamma::sRGB, variant++);
    const Bytes before = PixelBytes(image);
    Reencode(image, GammaValue(2.2f));
    EXPECT_EQ(image.GetGamma(), GammaValue(2.2f));
    EXPECT_EQ(PixelBytes(image), before);
  }
}

// --- Dispatchers and helpers -------------------------------------------------------------------------

TEST(Conversions, ToImageTypeUsesTheOutputGamma) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  settings.SetOutputGamma(GammaValue(1.8f));
  struct Case {
    EImageType source, target;
    bool addAlpha;
    EImageType result;
    GammaValue gamma;
  };
  const Case cases[] = {
      {IT_Grayscale8, IT_RGBA8, false, IT_RGB8, GammaValue(1.8f)},
      {IT_Grayscale8, IT_RGBA8, true, IT_RGBA8, GammaValue(1.8f)},
      {IT_RGBA16, IT_RGB8, true, IT_RGB8, GammaValue(1.8f)},
      {IT_RGB8, IT_Grayscale8, false, IT_Grayscale8, GammaValue(1.8f)},
      {IT_RGB8, IT_RGBEA, false, IT_RGBEA, gamma::Linear},
      {IT_RGB32f, IT_RGBA16, false, IT_RGB16, GammaValue(1.8f)},
      {IT_RGBA8, IT_RGBA16, false, IT_RGBA16, GammaValue(1.8f)},
      {IT_RGB8, IT_Grayscale16, false, IT_Grayscale16, GammaValue(1.8f)},
      {IT_RGBA8, IT_RGB32f, false, IT_RGB32f, gamma::Linear},
      {IT_RGB16, IT_Grayscale32f, false, IT_Grayscale32f, gamma::Linear},
  };
  for (const Case& c : cases) {
    Image image = RandomImage(c.source, {3, 3}, gamma::sRGB, 5);
    ToImageType(image, c.target, c.addAlpha);
    EXPECT_EQ(image.ImageType(), c.result) << c.source << " to " << c.target;
    EXPECT_EQ(image.GetGamma(), c.gamma) << c.source << " to " << c.target;
    if (c.result == IT_RGBA8) {
      EXPECT_EQ(image.GetImplRef().Plane().Row(2)[11], 255);
    }
  }
  settings = saved;
}

TEST(Conversions, FormatImageInExpectedFormatKeepsTheGamma) {
  const EColorMode kModes[] = {CM_RGB8,   CM_Grayscale8,  CM_RGBA8,  CM_RGBEA,   CM_RGB16,
                               CM_RGBA16, CM_Grayscale16, CM_RGB32f, CM_RGBA32f, CM_Grayscale32f,
                               CM_RGB8,   CM_RGB8,        CM_RGB8};
  for (int t = IT_RGB8; t <= IT_UNDEFINED; ++t) {
    const EImageType expected = static_cast<EImageType>(t);
    Image image = RandomImage(IT_RGB16, {2, 3}, GammaValue(2.2f), 9);
    const EColorMode mode = FormatImageInExpectedFormat(image, expected);
    const bool converts = expected != IT_RGB16 && expected < IT_RGEncoded;
    EXPECT_EQ(image.ImageType(), converts ? expected : IT_RGB16) << t;
    EXPECT_EQ(mode, converts ? kModes[t] : CM_RGB16) << t;
    if (IsGammaEncoded(expected)) {
      EXPECT_EQ(image.GetGamma(), GammaValue(2.2f)) << t;
    }
  }
  // The added alpha is opaque; grey is neither stretched nor taken from the list.
  Image grey = RandomImage(IT_Grayscale32f, {3, 1}, gamma::Linear, 10);
  Image rgba(grey);
  FormatImageInExpectedFormat(rgba, IT_RGBA8);
  EXPECT_EQ(PixelBytes(rgba), Reference(grey, IT_RGBA8, gamma::Linear, 0, 1, false));
  Image grey8(grey);
  FormatImageInExpectedFormat(grey8, IT_Grayscale8);
  EXPECT_EQ(PixelBytes(grey8), Reference(grey, IT_Grayscale8, gamma::Linear, 0, 1, false));
}

TEST(Conversions, GreyAtABitDepth) {
  const EImageType kResult[] = {IT_Grayscale8,   IT_Grayscale8,   IT_Grayscale8,  IT_Grayscale8,
                                IT_Grayscale16,  IT_Grayscale16,  IT_Grayscale16, IT_Grayscale32f,
                                IT_Grayscale32f, IT_Grayscale32f, IT_Grayscale16, IT_Grayscale16,
                                IT_RGB8,         IT_Grayscale8};
  for (int t = IT_RGB8; t <= IT_UNDEFINED + 1; ++t) {
    Image image = RandomImage(IT_RGB8, {2, 2}, gamma::sRGB, 11);
    ToGrayscaleUsingBitDepth(image, static_cast<EImageType>(t), gamma::sRGB, CheckInImageList(false),
                             AutoScaleGrayScale(false));
    EXPECT_EQ(image.ImageType(), kResult[t]) << t;
  }
  Image wide = RandomImage(IT_RGBA16, {2, 2}, gamma::sRGB, 12);
  ToGrayscalePreservingBitDepth(wide, CheckInImageList(false), AutoScaleGrayScale(false));
  EXPECT_EQ(wide.ImageType(), IT_Grayscale16);
  EXPECT_EQ(wide.GetGamma(), gamma::sRGB);
}

TEST(Conversions, ColourModes) {
  const int kBits[] = {24, 48, 8, 16, 32, 40, 48, 64, 32, 96, 128};
  for (int m = 0; m <= 10; ++m)
    EXPECT_EQ(GetBPPFromColorMode(static_cast<EColorMode>(m)).Value(), kBits[m]);
  EXPECT_EQ(GetBPPFromColorMode(static_cast<EColorMode>(11)).Value(), 0);
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
  const auto colour = GetMapGetPixelFloatColorLambda(image, IOM_Color);
  const auto grey = GetMapGetPixelFloatColorLambda(image, IOM_Grayscale);
  const auto transparency = GetMapGetPixelFloatColorLambda(image, IOM_Transparency);
  const auto black = GetMapGetPixelFloatColorLambda(image, static_cast<ImageOutputMode>(7));
  const ApplyTransformOpts options = ATO_Geometry | ATO_ExposureContrast | ATO_Inversions;
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      LinearRGB_T<float> c;
      float g, a;
      image.GetPixelRGB(x, y, c, options);
      image.GetPixelGrayscale(x, y, g, options);
      image.GetPixelAlpha(x, y, a, options);
      EXPECT_EQ(colour(x, y), c);
      EXPECT_EQ(grey(x, y), LinearRGB_T<float>(g, g, g));
      EXPECT_EQ(transparency(x, y), LinearRGB_T<float>(1 - a, 1 - a, 1 - a));
      EXPECT_EQ(black(x, y), LinearRGB_T<float>());
    }
  }
}

}  // namespace
}  // namespace imagery
