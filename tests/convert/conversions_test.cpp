// Pixel-format conversions against per-pixel references built on the public cursors and the
// single-value encodings, on random images of every format and awkward sizes. The conversions run on
// the pool; the large cases run again on one thread and must give the same bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using Convert = std::function<void(Image&)>;

const CheckInImageList kNoList(false), kList(true);
const AutoScaleGrayScale kScale(true), kNoScale(false);
const InvertGrayRange kInvert(true), kKeep(false);
const GammaValue kSRGB = gamma::sRGB, kPower(2.2f);

// Rounding of the conversions: clamp, add 0.49999997 and truncate. NaN gives 0.
unsigned RoundCode(float scaled, float max) {
  if (!(scaled > 0.0f))
    return 0;
  return scaled >= max ? static_cast<unsigned>(max) : static_cast<unsigned>(scaled + 0.49999997f);
}

void Put(Bytes& out, unsigned code16) {
  out.insert(out.end(), {static_cast<unsigned char>(code16 >> 8), static_cast<unsigned char>(code16)});
}
void Put(Bytes& out, float v) {
  unsigned char b[4];
  std::memcpy(b, &v, 4);
  out.insert(out.end(), b, b + 4);
}

// The linear colour and stored alpha of every pixel, and the grey range of one pass in pixel order.
struct Decoded {
  int width, height;
  std::vector<LinearRGB_T<float>> colour;
  std::vector<float> alpha;
  float min, max;
};
Decoded Decode(const Image& image) {
  Decoded d{image.Width(), image.Height(), {}, {}, 0, 0};
  for (int y = 0; y < d.height; ++y) {
    for (int x = 0; x < d.width; ++x) {
      d.colour.push_back(Colour(image, x, y));
      // Alpha as stored, never gamma converted; 1 where there is none.
      float a = 1.0f;
      ConstPixelAccessNoGamma(image.GetImplRef().Plane(), x, y).GetPixelAlpha(a);
      d.alpha.push_back(a);
    }
  }
  ReferenceGreyRange(image, d.min, d.max);
  return d;
}

// What converting `source` to `target` with the target gamma and the grey range (min, max) stores,
// rows padded with zeros.
Bytes Reference(const Decoded& source, EImageType target, GammaValue gamma, float min = 0, float max = 1,
                bool invert = false) {
  Bytes out;
  const auto byte = [](float a) { return static_cast<unsigned char>(RoundCode(a * 255.0f, 255.0f)); };
  for (int y = 0, i = 0; y < source.height; ++y) {
    for (int x = 0; x < source.width; ++x, ++i) {
      const LinearRGB_T<float> c = source.colour[i];
      const float a = source.alpha[i];
      const float v = invert ? (max - Grey(c)) / (max - min) : (Grey(c) - min) / (max - min);
      unsigned char r8, g8, b8;
      unsigned short r16, g16, b16;
      RGBECLR packed;
      if (target == IT_Grayscale8) {
        out.push_back(EncodeChannel8(v, gamma, PowerPrecision::Single));
      } else if (target == IT_Grayscale16) {
        const float clamped = v >= 1.0f ? 1.0f : v > 0.0f ? v : 0.0f;
        Put(out, RoundCode(EncodeLinear(clamped, gamma, PowerPrecision::Double) * 65535.0f, 65535.0f));
      } else if (target == IT_Grayscale32f) {
        Put(out, v);
      } else if (target == IT_RGB8 || target == IT_RGBA8) {
        ToRGB(c, r8, g8, b8, gamma);
        out.insert(out.end(), {b8, g8, r8, byte(a)});
      } else if (target == IT_RGB16 || target == IT_RGBA16) {
        ToRGB(c, r16, g16, b16, gamma);
        for (unsigned code : {unsigned{b16}, unsigned{g16}, unsigned{r16}, RoundCode(a * 65535.0f, 65535.0f)})
          Put(out, code);
      } else if (target == IT_RGB32f || target == IT_RGBA32f) {
        for (float channel : {c.b, c.g, c.r, a})
          Put(out, channel);
      } else {
        packed.FromFloat(c);
        out.insert(out.end(), {packed.r, packed.g, packed.b, packed.e, byte(a)});
      }
      if (target == IT_RGB8 || target == IT_RGB16 || target == IT_RGB32f)
        out.resize(out.size() - static_cast<std::size_t>(BytesPerPixel(target) / 3));  // no alpha
    }
    out.resize((out.size() + 3) / 4 * 4, 0);
  }
  return out;
}

// Converts a handle sharing `source` and checks format, gamma and every stored byte, row padding
// included; memory of the result's size is dirtied and freed first, so that bytes the conversion leaves
// unwritten are likely to show. Large sources are converted again on one thread.
void ExpectConversion(const Image& source, bool large, EImageType target, GammaValue gamma,
                      const Bytes& expected, const Convert& convert, const std::string& what) {
  std::make_unique<Bytes>(expected.size(), 0xA5).reset();
  Image image(source);
  convert(image);
  ASSERT_EQ(image.ImageType(), target) << what;
  EXPECT_EQ(image.GetGamma(), gamma) << what;
  EXPECT_TRUE(SameBytes(PlaneBytes(image), expected)) << what;
  if (large) {
    EXPECT_TRUE(SameBytes(OnOneThread(source, convert), expected)) << what << " on one thread";
  }
}

struct Source {
  Image image;
  bool large;
  std::string what;
};

// 1 x 1, a column, a row and padded rows with three gammas between them, a size large enough for
// several threads, row bands and the 16-bit code tables, and for float formats extreme values.
std::vector<Source> SourcesOf(EImageType type) {
  struct Size {
    int width, height;
    GammaValue gamma;
  };
  const Size kSizes[] = {{1, 1, kSRGB}, {1, 7, kPower},   {7, 1, gamma::Linear},
                         {5, 3, kSRGB}, {33, 17, kPower}, {300, 220, GammaValue(0.45f)}};
  std::vector<Source> sources;
  unsigned seed = 1 + 10 * type;
  for (const Size& s : kSizes) {
    sources.push_back({RandomImage(type, s.width, s.height, s.gamma, seed++), s.width * s.height > 60000,
                       std::to_string(s.width) + "x" + std::to_string(s.height) + " gamma " +
                           std::to_string(s.gamma.Value())});
  }
  if (IsFloat(type))
    sources.push_back({RandomImage(type, 9, 9, gamma::Linear, seed, true), false, "extremes"});
  return sources;
}

class ConversionsFrom : public ::testing::TestWithParam<EImageType> {};

// The grey range, which auto-scaled grey targets stretch to [0, 1], and every target.
TEST_P(ConversionsFrom, GreyRangeAndEveryTargetMatchTheReference) {
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
      {IT_Grayscale8, IT_Grayscale8, kSRGB, false, false,
       [](Image& i, auto&) { ToGrayscale8(i, kSRGB, kNoList, kNoScale, kKeep, CAI_Care); }},
      {IT_Grayscale8, IT_Grayscale8, kSRGB, true, true,
       [](Image& i, auto&) { ToGrayscale8(i, kSRGB, kNoList, kScale, kInvert, CAI_DontCare); }},
      {IT_Grayscale16, IT_Grayscale16, kSRGB, true, false,
       [](Image& i, auto&) { ToGrayscale16(i, kSRGB, kNoList, kScale); }},
      {IT_Grayscale16, IT_Grayscale16, grey, false, false,
       [&](Image& i, auto&) { ToGrayscale16(i, grey, kNoList, kNoScale); }},
      {IT_Grayscale32f, IT_Grayscale32f, gamma::Linear, true, false,
       [](Image& i, auto&) { ToGrayScale32f(i, kNoList, kScale); }},
      {IT_RGB8, IT_RGBA8, kSRGB, false, false, [](Image& i, auto& o) { ToRGB8(i, kSRGB, o, CAI_Care); }},
      {IT_RGB8, IT_RGBA8, kPower, false, false,
       [](Image& i, auto& o) { ToRGB8(i, kPower, o, CAI_DontCare); }},
      {IT_RGB16, IT_RGBA16, kSRGB, false, false, [](Image& i, auto& o) { ToRGB16(i, kSRGB, o); }},
      {IT_RGB16, IT_RGBA16, kPower, false, false, [](Image& i, auto& o) { ToRGB16(i, kPower, o); }},
      {IT_RGB32f, IT_RGBA32f, gamma::Linear, false, false, [](Image& i, auto& o) { ToRGB32f(i, o); }},
      {IT_RGBEA, IT_RGBEA, gamma::Linear, false, false, [](Image& i, auto&) { ToRGBEA(i); }}};
  const EImageType type = GetParam();
  for (const Source& source : SourcesOf(type)) {
    const Decoded decoded = Decode(source.image);
    const float min = decoded.min, max = decoded.max;
    for (int threads = 0; threads <= (source.large ? 1 : 0); ++threads) {
      const tools::ScopedJobThreadLimit limit(threads);
      float greyMin, greyMax;
      GetGreyScale(source.image, greyMin, greyMax);
      EXPECT_TRUE(SameBits(greyMin, min) && SameBits(greyMax, max))
          << source.what << ", " << threads << " threads: " << greyMin << ".." << greyMax;
    }
    const bool spread = min < max || min > max;
    for (const Case& c : cases) {
      for (const AlphaConversionOptions options :
           {AlphaConversionOptions(), AlphaConversionOptions(true, true)}) {
        if (c.alpha == c.opaque && options.alphaWanted)
          continue;
        const EImageType target = options.ResultHasAlpha(HasAlpha(type)) ? c.alpha : c.opaque;
        // Only inversion and 8-bit colour of another gamma convert an image already in the target format.
        if (target == type && !c.invert &&
            !((target == IT_RGB8 || target == IT_RGBA8) && source.image.GetGamma() != c.gamma))
          continue;
        const bool stretch = c.scale && spread;
        ExpectConversion(
            source.image, source.large, target, c.gamma,
            Reference(decoded, target, c.gamma, stretch ? min : 0, stretch ? max : 1, c.invert),
            [&](Image& i) { c.convert(i, options); }, source.what + " to " + std::to_string(target));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, ConversionsFrom, ::testing::ValuesIn(kAllFormats));

TEST(Conversions, ReencodeRewritesColourCodesInPlace) {
  unsigned seed = 100;
  for (EImageType type : {IT_RGB8, IT_Grayscale8, IT_RGBA8, IT_RGB16, IT_RGBA16, IT_Grayscale16}) {
    for (const int height : {3, 220}) {
      const Image source = RandomImage(type, 5 + 295 * (height > 3), height, kSRGB, seed++);
      Bytes expected = PixelBytes(source);
      // Colour re-encodes as ToRGB does (single-precision powers), grey as single values (double).
      const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
      const std::size_t width = Is16Bit(type) ? 2 : 1;
      for (std::size_t p = 0; p < expected.size(); p += static_cast<std::size_t>(BytesPerPixel(type))) {
        for (std::size_t ch = 0; ch < (IsGrayscale(type) ? 1u : 3u); ++ch) {
          unsigned char* b = &expected[p + ch * width];
          if (Is16Bit(type)) {
            const auto code = static_cast<unsigned short>(b[0] << 8 | b[1]);
            const unsigned short reencoded = EncodeChannel16(DecodeChannel16(code, kSRGB), kPower, precision);
            b[0] = static_cast<unsigned char>(reencoded >> 8);
            b[1] = static_cast<unsigned char>(reencoded);
          } else {
            b[0] = EncodeChannel8(DecodeChannel8(b[0], kSRGB), kPower, precision);
          }
        }
      }
      Image image(source);
      const ImageImpl* impl = image.GetImpl();
      Reencode(image, kPower);
      EXPECT_EQ(image.GetImpl(), impl);
      EXPECT_EQ(image.GetGamma(), kPower);
      EXPECT_TRUE(SameBytes(PixelBytes(image), expected)) << type << " " << height;
      if (height > 3) {
        EXPECT_EQ(OnOneThread(source, [](Image& i) { Reencode(i, kPower); }), PlaneBytes(image)) << type;
      }
    }
  }
}

// --- Requests that change nothing, sharing, the image list, dispatchers ------------------------------

TEST(Conversions, RequestsThatDoNotApplyLeaveThePixels) {
  const AlphaConversionOptions none(false, false);
  const GammaValue relabel(3.0f);
  struct Case {
    EImageType type;
    GammaValue after;
    Convert convert;
  };
  const Case cases[] = {
      {IT_Grayscale8, kPower, [](Image& i) { ToGrayscale8(i, kSRGB, kList, kScale, kKeep, CAI_Care); }},
      {IT_Grayscale16, kPower, [](Image& i) { ToGrayscale16(i, kSRGB, kList, kScale); }},
      {IT_Grayscale32f, kPower, [](Image& i) { ToGrayScale32f(i, kList, kScale); }},
      {IT_RGB8, kPower, [none](Image& i) { ToRGB8(i, kPower, none, CAI_Care); }},
      {IT_RGB16, kPower, [none](Image& i) { ToRGB16(i, kSRGB, none); }},
      {IT_RGBA16, kPower, [](Image& i) { ToRGB16(i, kSRGB, AlphaConversionOptions(true, false)); }},
      {IT_RGB32f, kPower, [none](Image& i) { ToRGB32f(i, none); }},
      {IT_RGBEA, kPower, [](Image& i) { ToRGBEA(i); }},
      {IT_RGB8, kPower, [](Image& i) { ToImageType(i, IT_UNDEFINED, true); }},
      {IT_RGB8, kPower, [](Image& i) { ToImageType(i, IT_RGEncoded, true); }},
      {IT_RGB16, kPower,
       [](Image& i) { ToGrayscaleUsingBitDepth(i, IT_UNDEFINED, kSRGB, kNoList, kNoScale); }},
      {IT_RGB8, kPower, [](Image& i) { Reencode(i, kPower); }},
      // Values that are not gamma encoded only change their gamma label.
      {IT_RGBEA, relabel, [relabel](Image& i) { Reencode(i, relabel); }},
      {IT_RGBA32f, relabel, [relabel](Image& i) { Reencode(i, relabel); }},
      {IT_RGEncoded, relabel, [relabel](Image& i) { Reencode(i, relabel); }}};
  for (const Case& c : cases) {
    Image image = RandomImage(c.type, 3, 2, kPower, 7);
    const ImageImpl* impl = image.GetImpl();
    const Bytes before = PlaneBytes(image);
    c.convert(image);
    EXPECT_EQ(image.GetImpl(), impl) << c.type;
    EXPECT_EQ(image.GetGamma(), c.after) << c.type;
    EXPECT_EQ(PlaneBytes(image), before) << c.type;
  }
}

TEST(Conversions, OtherHandlesKeepTheirPixelsAndOddImagesConvert) {
  Image image = RandomImage(IT_RGBA16, 6, 5, kSRGB, 3);
  image.SetTitle(ZELString(L"bricks"));
  image.SetPtype(PT_Roughness);
  const Image other(image);
  const Bytes before = PlaneBytes(other);
  ToGrayscale8(image, kSRGB, kNoList, kScale, kKeep, CAI_Care);
  EXPECT_EQ(other.ImageType(), IT_RGBA16);
  EXPECT_EQ(PlaneBytes(other), before);
  EXPECT_EQ(image.Title(), ZELString(L"bricks"));
  EXPECT_EQ(image.GetPtype(), PT_Roughness);

  // An image without pixels gets a 1 x 1 implementation at least, black with zero padding.
  Image empty(0, 4, IT_RGB8, kSRGB);
  ToRGB16(empty, kSRGB, AlphaConversionOptions());
  EXPECT_EQ(empty.ImageType(), IT_RGB16);
  EXPECT_EQ(PlaneBytes(empty), Bytes(4 * 8, 0));
  // A plane without a format reads black and opaque.
  Image undefined(2, 1, IT_UNDEFINED, kSRGB);
  ToRGB8(undefined, kSRGB, AlphaConversionOptions(true, true), CAI_Care);
  EXPECT_EQ(PixelBytes(undefined), (Bytes{0, 0, 0, 255, 0, 0, 0, 255}));
  // Re-encoding an empty handle leaves the implementation every empty handle shares.
  Image blank;
  const GammaValue shared = blank.GetGamma();
  Reencode(blank, GammaValue(3.0f));
  EXPECT_EQ(blank.GetGamma(), GammaValue(3.0f));
  EXPECT_EQ(Image().GetGamma(), shared);
}

TEST(Conversions, GreyVersionsComeFromTheImageListUnlessInverting) {
  const ZELPath path(L"/nonexistent/imagery-conversions/bricks_rough.png");
  Image grey = RandomImage(IT_Grayscale8, 4, 4, kSRGB, 20);
  grey.SetFilePath(path);
  Image colour = RandomImage(IT_RGB8, 4, 4, kSRGB, 21);
  colour.SetFilePath(path);
  Image listed(colour), inverted(colour);
  ToGrayscale8(listed, kSRGB, kList, kNoScale, kKeep, CAI_Care);
  EXPECT_EQ(listed.GetImpl(), grey.GetImpl());
  ToGrayscale8(inverted, kSRGB, kList, kNoScale, kInvert, CAI_Care);
  EXPECT_EQ(PlaneBytes(inverted), Reference(Decode(colour), IT_Grayscale8, kSRGB, 0, 1, true));
  EXPECT_EQ(inverted.FilePath(), path);
}

TEST(Conversions, AutoScaleStretchesTheGreyRange) {
  Image ramp(2, 1, IT_Grayscale32f, gamma::Linear);
  ramp.SetPixelGrayscale(0, 0, 0.2f, ATO_None);
  ramp.SetPixelGrayscale(1, 0, 0.6f, ATO_None);
  Image r8(ramp), r16(ramp), inverted(ramp);
  ToGrayscale8(r8, kSRGB, kNoList, kScale, kKeep, CAI_Care);
  ToGrayscale16(r16, kSRGB, kNoList, kScale);
  ToGrayscale8(inverted, kSRGB, kNoList, kScale, kInvert, CAI_Care);
  EXPECT_EQ(PixelBytes(r8), (Bytes{0, 255}));
  EXPECT_EQ(PixelBytes(r16), (Bytes{0, 0, 0xFF, 0xF6}));  // the sRGB curve reaches 65526 at 1
  EXPECT_EQ(PixelBytes(inverted), (Bytes{255, 0}));
}

TEST(Conversions, ToImageTypeUsesTheOutputGamma) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  const GammaValue out(1.8f);
  settings.SetOutputGamma(out);
  // A target with alpha gets it from a source without only when asked to add it.
  struct Case {
    EImageType source, target;
    bool addAlpha;
    EImageType result;
  };
  const Case cases[] = {
      {IT_Grayscale8, IT_RGBA8, false, IT_RGB8}, {IT_Grayscale8, IT_RGBA8, true, IT_RGBA8},
      {IT_RGBA16, IT_RGB8, true, IT_RGB8},       {IT_RGB8, IT_Grayscale8, false, IT_Grayscale8},
      {IT_RGB8, IT_RGBEA, false, IT_RGBEA},      {IT_RGB32f, IT_RGBA16, false, IT_RGB16},
      {IT_RGBA8, IT_RGBA16, false, IT_RGBA16},   {IT_RGB8, IT_Grayscale16, false, IT_Grayscale16},
      {IT_RGBA8, IT_RGB32f, false, IT_RGB32f},   {IT_RGB16, IT_Grayscale32f, false, IT_Grayscale32f}};
  for (const Case& c : cases) {
    Image image = RandomImage(c.source, 3, 3, kSRGB, 5);
    ToImageType(image, c.target, c.addAlpha);
    EXPECT_EQ(image.ImageType(), c.result) << c.source << " to " << c.target;
    const bool linear = IsFloat(c.result) || c.result == IT_RGBEA;
    EXPECT_EQ(image.GetGamma(), linear ? gamma::Linear : out) << c.source << " to " << c.target;
  }
  settings = saved;
}

TEST(Conversions, ExpectedFormatsColourModesAndBitDepths) {
  const EColorMode kModes[] = {CM_RGB8,   CM_Grayscale8,  CM_RGBA8,  CM_RGBEA,   CM_RGB16,
                               CM_RGBA16, CM_Grayscale16, CM_RGB32f, CM_RGBA32f, CM_Grayscale32f};
  for (int t = IT_RGB8; t <= IT_UNDEFINED + 1; ++t) {
    const auto expected = static_cast<EImageType>(t);
    Image image = RandomImage(IT_RGB16, 2, 3, kPower, 9);
    Image grey(image);
    const bool converts = expected != IT_RGB16 && expected < IT_RGEncoded;
    if (t <= IT_UNDEFINED) {
      EXPECT_EQ(FormatImageInExpectedFormat(image, expected), converts ? kModes[t] : CM_RGB16) << t;
      EXPECT_EQ(image.ImageType(), converts ? expected : IT_RGB16) << t;
      EXPECT_EQ(image.GetGamma(), IsFloat(expected) || expected == IT_RGBEA ? gamma::Linear : kPower) << t;
    }
    // Grey at 16 bits for the 16-bit and RG-encoded formats, float for the float ones, none for
    // IT_UNDEFINED, 8 bits otherwise.
    ToGrayscaleUsingBitDepth(grey, expected, kSRGB, kNoList, kNoScale);
    const EImageType greyType = Is16Bit(expected) || IsRGEncoded(expected) ? IT_Grayscale16
                                : IsFloat(expected)                        ? IT_Grayscale32f
                                : expected == IT_UNDEFINED                 ? IT_RGB16
                                                                           : IT_Grayscale8;
    EXPECT_EQ(grey.ImageType(), greyType) << t;
    // Every format's mode leads back to it through its bit count.
    if (t < IT_RGEncoded) {
      EXPECT_EQ(GuessImageTypeFromBPP(GetBPPFromColorMode(kModes[t]), IsFloat(expected)), expected);
    }
    EXPECT_EQ(GetColorModeFromImageType(expected), t < IT_RGEncoded    ? kModes[t]
                                                   : t <= IT_UNDEFINED ? CM_RGB8
                                                                       : CM_Grayscale8);
  }
  // The added alpha is opaque; grey is neither stretched nor taken from the list.
  const Image source = RandomImage(IT_Grayscale32f, 3, 1, gamma::Linear, 10);
  Image rgba(source), grey8(source);
  FormatImageInExpectedFormat(rgba, IT_RGBA8);
  EXPECT_EQ(PlaneBytes(rgba), Reference(Decode(source), IT_RGBA8, gamma::Linear));
  FormatImageInExpectedFormat(grey8, IT_Grayscale8);
  EXPECT_EQ(PlaneBytes(grey8), Reference(Decode(source), IT_Grayscale8, gamma::Linear));

  EXPECT_EQ(GetBPPFromColorMode(CM_RGB48).Value(), 48);
  EXPECT_EQ(GetBPPFromColorMode(static_cast<EColorMode>(11)).Value(), 0);
  EXPECT_EQ(GuessImageTypeFromBPP(BitsPerPix(24), true), IT_RGB8);
  EXPECT_EQ(GuessImageTypeFromBPP(BitsPerPix(33), false), IT_RGB8);
}

}  // namespace
}  // namespace imagery
