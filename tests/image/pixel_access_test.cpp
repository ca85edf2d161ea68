#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "imagery/pixel_access.h"

namespace imagery {
namespace {

constexpr EImageType kFormats[] = {IT_RGB8,    IT_Grayscale8,   IT_RGBA8,       IT_RGBEA,
                                   IT_RGB16,   IT_RGBA16,       IT_Grayscale16, IT_RGB32f,
                                   IT_RGBA32f, IT_Grayscale32f, IT_RGEncoded,   IT_RGEncodedAlpha};
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

bool SameBits(float a, float b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}
bool SameBits(const LinearRGB_T<float>& a, const LinearRGB_T<float>& b) {
  return SameBits(a.r, b.r) && SameBits(a.g, b.g) && SameBits(a.b, b.b);
}

std::vector<unsigned char> Bytes(const PixelPlane& plane) {
  return {plane.Data(), plane.Data() + plane.ByteSize()};
}

void Fill(PixelPlane& plane, std::mt19937& random) {
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(random());
}

// A plane whose pixel (1, 1) holds `pixel` and whose other bytes are 0xA5.
PixelPlane PlaneWithPixel(EImageType type, GammaValue gamma, const std::vector<unsigned char>& pixel) {
  PixelPlane plane(3, 3, type, gamma);
  std::memset(plane.Data(), 0xA5, plane.ByteSize());
  std::memcpy(plane.PixelAddress(1, 1), pixel.data(), pixel.size());
  return plane;
}

std::vector<unsigned char> PixelBytes(const PixelPlane& plane, int x, int y) {
  const unsigned char* p = plane.PixelAddress(x, y);
  return {p, p + plane.BytesPerPixel()};
}

std::vector<unsigned char> FloatBytes(std::initializer_list<float> values) {
  std::vector<unsigned char> bytes(values.size() * 4);
  std::memcpy(bytes.data(), values.begin(), bytes.size());
  return bytes;
}

// --- Reading -------------------------------------------------------------------------------------

// Stored codes at hand-checked byte positions: blue first, 16-bit channels big-endian, RG grey with
// its high byte in byte 2.
TEST(PixelAccessRead, ChannelsComeFromTheirBytePositions) {
  struct Case {
    EImageType type;
    std::vector<unsigned char> bytes;
    unsigned r, g, b;
    int alpha;  // stored alpha code, -1 without alpha
  };
  const Case cases[] = {
      {IT_RGB8, {10, 20, 30}, 30, 20, 10, -1},
      {IT_RGBA8, {10, 20, 30, 40}, 30, 20, 10, 40},
      {IT_Grayscale8, {77}, 77, 77, 77, -1},
      {IT_RGB16, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, 0x0506, 0x0304, 0x0102, -1},
      {IT_RGBA16, {0x12, 0x34, 0x03, 0x04, 0x05, 0x06, 0xF0, 0x0F}, 0x0506, 0x0304, 0x1234, 0xF00F},
      {IT_Grayscale16, {0xAB, 0xCD}, 0xABCD, 0xABCD, 0xABCD, -1},
  };
  for (GammaValue gamma : {gamma::sRGB, GammaValue(2.2f), gamma::Linear}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << "type " << int(c.type) << " gamma " << gamma.Value());
      const PixelPlane plane = PlaneWithPixel(c.type, gamma, c.bytes);
      const bool wide = Is16Bit(c.type);
      auto decode = [&](unsigned v) {
        return wide ? DecodeChannel16(static_cast<unsigned short>(v), gamma)
                    : DecodeChannel8(static_cast<unsigned char>(v), gamma);
      };
      const float scale = wide ? kInv65535 : kInv255;
      const LinearRGB_T<float> decoded(decode(c.r), decode(c.g), decode(c.b));
      const LinearRGB_T<float> scaled(c.r * scale, c.g * scale, c.b * scale);
      const float alpha = c.alpha < 0 ? 1.0f : static_cast<float>(c.alpha) * scale;

      LinearRGB_T<float> rgb;
      float grey = -1.0f, a = -1.0f;
      const ConstPixelAccess withGamma(plane, 1, 1);
      withGamma.GetPixelRGB(rgb);
      withGamma.GetPixelGrayscale(grey);
      withGamma.GetPixelAlpha(a);
      EXPECT_TRUE(SameBits(rgb, decoded));
      EXPECT_TRUE(SameBits(grey, IsGrayscale(c.type) ? decoded.r : GreyValue(decoded)));
      EXPECT_EQ(a, alpha);

      const ConstPixelAccessNoGamma noGamma(plane, 1, 1);
      LinearRGBA_T<float> rgba;
      noGamma.GetPixelRGBA(rgba);
      noGamma.GetPixelGrayscale(grey);
      EXPECT_TRUE(SameBits(rgba, scaled));
      EXPECT_EQ(rgba.a, alpha);
      EXPECT_TRUE(SameBits(grey, IsGrayscale(c.type) ? scaled.r : GreyValue(scaled)));
    }
  }
}

TEST(PixelAccessRead, LinearFormatsIgnoreThePlaneGamma) {
  for (GammaValue gamma : {gamma::sRGB, GammaValue(2.2f)}) {
    // Floats are read as stored, out-of-range values included.
    const PixelPlane rgba32 = PlaneWithPixel(IT_RGBA32f, gamma, FloatBytes({0.25f, -0.5f, 3.0f, 1.5f}));
    LinearRGBA_T<float> c;
    PixelAccessBase<KORConstMemoryAccess, const PixelPlane&>(rgba32, 1, 1).GetPixelRGBA(c);
    EXPECT_EQ(c, LinearRGBA_T<float>(3.0f, -0.5f, 0.25f, 1.5f));
    const PixelPlane grey32 = PlaneWithPixel(IT_Grayscale32f, gamma, FloatBytes({-2.5f}));
    float grey = 0.0f, alpha = 0.0f;
    ConstPixelAccess(grey32, 1, 1).GetPixelGrayscale(grey);
    ConstPixelAccess(grey32, 1, 1).GetPixelAlpha(alpha);
    EXPECT_EQ(grey, -2.5f);
    EXPECT_EQ(alpha, 1.0f);

    // RG grey is (byte 2 x 256 + byte 1) / 65535 for both cursors; its fourth byte is not alpha.
    for (EImageType type : {IT_RGEncoded, IT_RGEncodedAlpha}) {
      const PixelPlane rg = PlaneWithPixel(type, gamma, {7, 0x34, 0x12, 0});
      LinearRGB_T<float> rgb;
      ConstPixelAccess(rg, 1, 1).GetPixelRGB(rgb);
      ConstPixelAccessNoGamma(rg, 1, 1).GetPixelGrayscale(grey);
      ConstPixelAccess(rg, 1, 1).GetPixelAlpha(alpha);
      EXPECT_EQ(grey, 0x1234 * kInv65535);
      EXPECT_FLOAT_EQ(grey, 0x1234 / 65535.0f);
      EXPECT_EQ(rgb, LinearRGB_T<float>(grey, grey, grey));
      EXPECT_EQ(alpha, 1.0f);
    }

    // Shared exponent: red, green, blue mantissas then the exponent, alpha in byte 4.
    const PixelPlane rgbe = PlaneWithPixel(IT_RGBEA, gamma, {200, 100, 50, 129, 51});
    LinearRGBA_T<float> hdr;
    ConstPixelAccessNoGamma(rgbe, 1, 1).GetPixelRGBA(hdr);
    ConstPixelAccess(rgbe, 1, 1).GetPixelGrayscale(grey);
    EXPECT_EQ(static_cast<LinearRGB_T<float>>(hdr), RGBECLR(200, 100, 50, 129).ToFloat());
    EXPECT_GT(hdr.r, 1.0f);
    EXPECT_EQ(hdr.a, 51 * kInv255);
    EXPECT_EQ(grey, GreyValue(hdr));
  }
}

TEST(PixelAccessRead, UnknownFormatsReadAndWriteNothing) {
  // Unknown format bytes read nothing and write nothing; an undefined plane holds no bytes at all.
  PixelPlane unknown(3, 2, static_cast<EImageType>(13), gamma::sRGB);
  std::memset(unknown.Data(), 0x42, unknown.ByteSize());
  PixelPlane undefined(3, 2, IT_UNDEFINED, gamma::sRGB);
  for (PixelPlane* plane : {&unknown, &undefined}) {
    const std::vector<unsigned char> before = Bytes(*plane);
    PixelAccess cursor(*plane, 1, 1);
    PixelAccessNoGamma noGamma(*plane, 0, 0);
    LinearRGBA_T<float> c(-7, -7, -7, -7);
    float grey = -7.0f, alpha = -7.0f;
    cursor.GetPixelRGBA(c);
    cursor.GetPixelGrayscale(grey);
    noGamma.GetPixelAlpha(alpha);
    noGamma.GetPixelRGB(c);
    EXPECT_EQ(c, LinearRGBA_T<float>(-7, -7, -7, -7));
    EXPECT_EQ(grey, -7.0f);
    EXPECT_EQ(alpha, -7.0f);
    cursor.SetPixelRGBA({1, 1, 1}, 1);
    cursor.SetPixelGrayscale(0.5f);
    noGamma.SetPixelRGB({1, 0, 0});
    noGamma.SetPixelAlpha(0.0f);
    EXPECT_EQ(Bytes(*plane), before);
  }
}

// --- Writing -------------------------------------------------------------------------------------

TEST(PixelAccessWrite, ColourCodesClampAndRoundHalvesAway) {
  // Gamma 1.0 and no gamma scale the same way: 0.5 x 255 = 127.5 rounds up, out-of-range values clamp.
  PixelPlane rgb8 = PlaneWithPixel(IT_RGB8, gamma::Linear, {1, 2, 3});
  PixelAccess(rgb8, 1, 1).SetPixelRGB({1.0f, 0.0f, 0.0f});
  EXPECT_EQ(PixelBytes(rgb8, 1, 1), (std::vector<unsigned char>{0, 0, 255}));
  PixelAccessNoGamma(rgb8, 1, 1).SetPixelRGB({-0.5f, 0.5f, 2.0f});
  EXPECT_EQ(PixelBytes(rgb8, 1, 1), (std::vector<unsigned char>{255, 128, 0}));
  PixelAccessNoGamma(rgb8, 1, 1).SetPixelRGB({kNaN, 0.25f, kInf});
  EXPECT_EQ(PixelBytes(rgb8, 1, 1), (std::vector<unsigned char>{255, 64, 0}));

  // 16-bit channels are written most significant byte first; 0.5 x 65535 = 32767.5 rounds up.
  PixelPlane rgb16 = PlaneWithPixel(IT_RGB16, gamma::sRGB, std::vector<unsigned char>(6, 9));
  PixelAccessNoGamma(rgb16, 1, 1).SetPixelRGB({0x1234 * kInv65535, 0.5f, -1.0f});
  EXPECT_EQ(PixelBytes(rgb16, 1, 1), (std::vector<unsigned char>{0, 0, 0x80, 0x00, 0x12, 0x34}));

  // Through sRGB, 1.0 encodes to the top code in 8 bits but to 65526 in 16 bits.
  PixelAccess(rgb16, 1, 1).SetPixelRGB({1.0f, 0.0f, 2.0f});
  EXPECT_EQ(PixelBytes(rgb16, 1, 1), (std::vector<unsigned char>{0xFF, 0xF6, 0, 0, 0xFF, 0xF6}));
  PixelPlane srgb8 = PlaneWithPixel(IT_RGB8, gamma::sRGB, {1, 2, 3});
  PixelAccess(srgb8, 1, 1).SetPixelRGB({0.5f, 1.0f, 0.0f});
  EXPECT_EQ(PixelBytes(srgb8, 1, 1), (std::vector<unsigned char>{0, 255, EncodeChannel8(0.5f, gamma::sRGB)}));
}

TEST(PixelAccessWrite, PowerGammasEncodeInSinglePrecision) {
  const GammaValue gamma(2.2f);
  float c = 0.0f;
  for (int i = 1; i < 1000000 && c == 0.0f; ++i) {
    const float candidate = i / 1000000.0f;
    if (EncodeChannel16(candidate, gamma, PowerPrecision::Single) !=
        EncodeChannel16(candidate, gamma, PowerPrecision::Double))
      c = candidate;
  }
  ASSERT_NE(c, 0.0f) << "no value tells the two precisions apart";
  PixelPlane plane(1, 1, IT_Grayscale16, gamma);
  PixelAccess(plane, 0, 0).SetPixelGrayscale(c);
  EXPECT_EQ(detail::LoadBE16(plane.Data()), EncodeChannel16(c, gamma, PowerPrecision::Single));
  TypedPixelAccess<IT_Grayscale16>(plane, 0, 0).SetPixelGrayscale(0.0f);
  TypedPixelAccess<IT_Grayscale16>(plane, 0, 0).SetPixelGrayscale(c);
  EXPECT_EQ(detail::LoadBE16(plane.Data()), EncodeChannel16(c, gamma, PowerPrecision::Single));
}

TEST(PixelAccessWrite, AlphaIsKeptByColourWritesAndScaledByAlphaWrites) {
  struct Case {
    EImageType type;
    std::vector<unsigned char> pixel;
    std::vector<unsigned char> afterRGBAHalf;  // alpha bytes after SetPixelRGBA(..., 0.5)
    int alphaAt;
  };
  const Case cases[] = {
      {IT_RGBA8, {1, 2, 3, 77}, {128}, 3},
      {IT_RGBA16, {1, 2, 3, 4, 5, 6, 0xAB, 0xCD}, {0x80, 0x00}, 6},
  };
  for (const Case& c : cases) {
    for (GammaValue gamma : {gamma::sRGB, gamma::Linear}) {
      PixelPlane plane = PlaneWithPixel(c.type, gamma, c.pixel);
      const std::vector<unsigned char> alphaBefore(c.pixel.begin() + c.alphaAt, c.pixel.end());
      auto alphaBytes = [&] {
        const std::vector<unsigned char> bytes = PixelBytes(plane, 1, 1);
        return std::vector<unsigned char>(bytes.begin() + c.alphaAt, bytes.end());
      };
      PixelAccess(plane, 1, 1).SetPixelRGB({1, 1, 1});
      PixelAccessNoGamma(plane, 1, 1).SetPixelGrayscale(0.25f);
      EXPECT_EQ(alphaBytes(), alphaBefore);
      PixelAccess(plane, 1, 1).SetPixelRGBA({1, 1, 1}, 0.5f);
      EXPECT_EQ(alphaBytes(), c.afterRGBAHalf);
      float alpha = 0.0f;
      ConstPixelAccess(plane, 1, 1).GetPixelAlpha(alpha);
      EXPECT_EQ(alpha, c.type == IT_RGBA8 ? 128 * kInv255 : 32768 * kInv65535);
      PixelAccessNoGamma(plane, 1, 1).SetPixelAlpha(-3.0f);
      EXPECT_EQ(alphaBytes(), std::vector<unsigned char>(alphaBefore.size(), 0));
      PixelAccess(plane, 1, 1).SetPixelAlpha(7.0f);
      EXPECT_EQ(alphaBytes(), std::vector<unsigned char>(alphaBefore.size(), 0xFF));
    }
  }

  // White with half alpha through sRGB.
  PixelPlane rgba8 = PlaneWithPixel(IT_RGBA8, gamma::sRGB, {0, 0, 0, 0});
  PixelAccess(rgba8, 1, 1).SetPixelRGBA({1, 1, 1}, 0.5f);
  EXPECT_EQ(PixelBytes(rgba8, 1, 1), (std::vector<unsigned char>{255, 255, 255, 128}));

  // Float alpha is stored as given.
  PixelPlane rgba32 = PlaneWithPixel(IT_RGBA32f, gamma::Linear, FloatBytes({0, 0, 0, 0.75f}));
  PixelAccess(rgba32, 1, 1).SetPixelRGB({2.0f, -1.0f, 0.5f});
  EXPECT_EQ(PixelBytes(rgba32, 1, 1), FloatBytes({0.5f, -1.0f, 2.0f, 0.75f}));
  PixelAccess(rgba32, 1, 1).SetPixelRGBA({1, 1, 1}, 1.5f);
  PixelAccessNoGamma(rgba32, 1, 1).SetPixelGrayscale(-0.25f);
  EXPECT_EQ(PixelBytes(rgba32, 1, 1), FloatBytes({-0.25f, -0.25f, -0.25f, 1.5f}));
  PixelAccess(rgba32, 1, 1).SetPixelAlpha(-2.0f);
  EXPECT_EQ(PixelBytes(rgba32, 1, 1), FloatBytes({-0.25f, -0.25f, -0.25f, -2.0f}));

  // Formats without alpha ignore it: SetPixelRGBA is SetPixelRGB, SetPixelAlpha does nothing.
  for (EImageType type : kFormats) {
    if (HasAlpha(type))
      continue;
    std::mt19937 random(type);
    PixelPlane a(3, 3, type, gamma::sRGB), b(3, 3, type, gamma::sRGB);
    Fill(a, random);
    b.CopyFrom(a);
    PixelAccess(a, 1, 1).SetPixelRGBA({0.2f, 0.6f, 0.9f}, 0.5f);
    PixelAccess(b, 1, 1).SetPixelRGB({0.2f, 0.6f, 0.9f});
    PixelAccessNoGamma(b, 1, 1).SetPixelAlpha(0.5f);
    EXPECT_EQ(Bytes(a), Bytes(b)) << "type " << int(type);
    float alpha = 0.0f;
    ConstPixelAccessNoGamma(a, 2, 0).GetPixelAlpha(alpha);
    EXPECT_EQ(alpha, 1.0f);
  }
}

TEST(PixelAccessWrite, GreyAndRGEncodedAndSharedExponent) {
  // Grey goes into every channel of colour formats, clamped and encoded except for floats.
  PixelPlane rgba8 = PlaneWithPixel(IT_RGBA8, gamma::sRGB, {1, 2, 3, 4});
  PixelAccess(rgba8, 1, 1).SetPixelGrayscale(1.5f);
  EXPECT_EQ(PixelBytes(rgba8, 1, 1), (std::vector<unsigned char>{255, 255, 255, 4}));
  PixelPlane rgb16 = PlaneWithPixel(IT_RGB16, gamma::Linear, std::vector<unsigned char>(6, 1));
  PixelAccessNoGamma(rgb16, 1, 1).SetPixelGrayscale(0.5f);
  EXPECT_EQ(PixelBytes(rgb16, 1, 1), (std::vector<unsigned char>{0x80, 0, 0x80, 0, 0x80, 0}));
  PixelPlane grey32 = PlaneWithPixel(IT_Grayscale32f, gamma::sRGB, FloatBytes({0}));
  PixelAccess(grey32, 1, 1).SetPixelGrayscale(1.5f);
  EXPECT_EQ(PixelBytes(grey32, 1, 1), FloatBytes({1.5f}));
  PixelPlane weights(3, 1, IT_Grayscale32f, gamma::Linear);
  PixelAccess weight(weights, 0, 0);
  for (const LinearRGB_T<float>& c : {LinearRGB_T<float>(1, 0, 0), {0, 1, 0}, {0, 0, 1}}) {
    weight.SetPixelRGB(c);
    weight.Next();
  }
  EXPECT_EQ(Bytes(weights), FloatBytes({0.35f, 0.5f, 0.15f}));
  PixelPlane grey8 = PlaneWithPixel(IT_Grayscale8, GammaValue(2.2f), {9});
  PixelAccess(grey8, 1, 1).SetPixelRGB({0.5f, 0.5f, 0.5f});
  EXPECT_EQ(PixelBytes(grey8, 1, 1)[0], EncodeChannel8(GreyValue({0.5f, 0.5f, 0.5f}), GammaValue(2.2f)));

  // RG-encoded pixels: linear 16-bit grey, green byte low, red byte high; bytes 0 and 3 stay.
  for (EImageType type : {IT_RGEncoded, IT_RGEncodedAlpha}) {
    PixelPlane rg = PlaneWithPixel(type, gamma::sRGB, {7, 0x34, 0x12, 99});
    PixelAccess(rg, 1, 1).SetPixelGrayscale(1.0f);
    EXPECT_EQ(PixelBytes(rg, 1, 1)[0], 7);
    EXPECT_EQ(PixelBytes(rg, 1, 1)[1], 0xFF);
    EXPECT_EQ(PixelBytes(rg, 1, 1)[2], 0xFF);
    PixelAccessNoGamma(rg, 1, 1).SetPixelGrayscale(0x1234 * kInv65535);
    EXPECT_EQ(PixelBytes(rg, 1, 1)[1], 0x34);
    EXPECT_EQ(PixelBytes(rg, 1, 1)[2], 0x12);
    PixelAccess(rg, 1, 1).SetPixelRGBA({0.0f, 1.0f, 0.0f}, 0.0f);
    EXPECT_EQ(detail::LoadBE16(PixelBytes(rg, 1, 1).data() + 1), 0x0080);  // 32768 little-endian
    if (type == IT_RGEncodedAlpha) {
      EXPECT_EQ(PixelBytes(rg, 1, 1)[3], 99);
    }
  }

  // Shared exponent: colour bytes from RGBECLR, alpha opaque unless given.
  PixelPlane rgbe = PlaneWithPixel(IT_RGBEA, gamma::sRGB, {1, 2, 3, 4, 0});
  const LinearRGB_T<float> hdr(3.0f, 0.5f, 0.125f);
  RGBECLR packed;
  packed.FromFloat(hdr);
  PixelAccess(rgbe, 1, 1).SetPixelRGB(hdr);
  EXPECT_EQ(PixelBytes(rgbe, 1, 1),
            (std::vector<unsigned char>{packed.r, packed.g, packed.b, packed.e, 255}));
  PixelAccessNoGamma(rgbe, 1, 1).SetPixelRGBA(hdr, 0.5f);
  EXPECT_EQ(PixelBytes(rgbe, 1, 1)[4], 128);
  PixelAccess(rgbe, 1, 1).SetPixelAlpha(0.0f);
  EXPECT_EQ(PixelBytes(rgbe, 1, 1)[4], 0);
  packed.FromFloat({0.25f, 0.25f, 0.25f});
  PixelAccess(rgbe, 1, 1).SetPixelGrayscale(0.25f);
  EXPECT_EQ(PixelBytes(rgbe, 1, 1),
            (std::vector<unsigned char>{packed.r, packed.g, packed.b, packed.e, 255}));
}

// Writers on distinct pixels may run at once, so no write may touch a byte outside its pixel.
TEST(PixelAccessWrite, EveryWriteStaysInsideItsPixel) {
  std::vector<EImageType> types(std::begin(kFormats), std::end(kFormats));
  types.push_back(static_cast<EImageType>(13));
  for (EImageType type : types) {
    std::mt19937 random(type);
    PixelPlane plane(3, 3, type, gamma::sRGB);
    Fill(plane, random);
    const std::vector<unsigned char> before = Bytes(plane);
    PixelAccess withGamma(plane, 1, 1);
    PixelAccessNoGamma noGamma(plane, 1, 1);
    withGamma.SetPixelRGB({0.3f, 2.0f, -1.0f});
    withGamma.SetPixelRGBA({0.1f, 0.2f, 0.3f}, 0.4f);
    withGamma.SetPixelGrayscale(0.7f);
    withGamma.SetPixelAlpha(0.9f);
    noGamma.SetPixelRGB({kInf, 0.5f, 0.25f});
    noGamma.SetPixelRGBA({0.1f, 0.2f, 0.3f}, 1.4f);
    noGamma.SetPixelGrayscale(-0.7f);
    noGamma.SetPixelAlpha(0.1f);
    const std::vector<unsigned char> after = Bytes(plane);
    const std::int64_t first = withGamma.Offset(), last = first + plane.BytesPerPixel();
    for (std::int64_t i = 0; i < static_cast<std::int64_t>(after.size()); ++i) {
      if (i < first || i >= last) {
        ASSERT_EQ(after[i], before[i]) << "type " << int(type) << " byte " << i;
      }
    }
  }
}

// Without gamma a cursor must act as a gamma cursor on a linear plane: the scaling rule and the
// gamma-1.0 curves are two formulations of one conversion.
TEST(PixelAccessWrite, NoGammaActsAsALinearPlane) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> value(-0.2f, 1.2f);
  for (EImageType type : kFormats) {
    PixelPlane plane(5, 3, type, gamma::Linear);
    Fill(plane, random);
    for (int y = 0; y < 3; ++y) {
      for (int x = 0; x < 5; ++x) {
        LinearRGBA_T<float> a, b;
        float greyA = 0, greyB = 0;
        ConstPixelAccess(plane, x, y).GetPixelRGBA(a);
        ConstPixelAccessNoGamma(plane, x, y).GetPixelRGBA(b);
        ConstPixelAccess(plane, x, y).GetPixelGrayscale(greyA);
        ConstPixelAccessNoGamma(plane, x, y).GetPixelGrayscale(greyB);
        ASSERT_TRUE(SameBits(a, b) && SameBits(a.a, b.a) && SameBits(greyA, greyB)) << "type " << int(type);
      }
    }
    PixelPlane other(5, 3, type, gamma::Linear);
    other.CopyFrom(plane);
    for (int i = 0; i < 200; ++i) {
      const LinearRGB_T<float> c(value(random), value(random), value(random));
      const float alpha = value(random);
      const int x = i % 5, y = i / 5 % 3;
      PixelAccess(plane, x, y).SetPixelRGBA(c, alpha);
      PixelAccessNoGamma(other, x, y).SetPixelRGBA(c, alpha);
      PixelAccess(plane, (x + 1) % 5, y).SetPixelGrayscale(c.g);
      PixelAccessNoGamma(other, (x + 1) % 5, y).SetPixelGrayscale(c.g);
    }
    EXPECT_EQ(Bytes(plane), Bytes(other)) << "type " << int(type);
  }

  // Around every rounding boundary of both code sizes.
  auto sameAtBoundaries = [](EImageType type, int maxCode) {
    PixelPlane linear(1, 1, type, gamma::Linear), scaled(1, 1, type, gamma::sRGB);
    for (int k = 0; k <= maxCode; ++k) {
      const float boundary = (static_cast<float>(k) + 0.5f) / static_cast<float>(maxCode);
      for (float c : {std::nextafter(boundary, 0.0f), boundary, std::nextafter(boundary, 2.0f)}) {
        PixelAccess(linear, 0, 0).SetPixelGrayscale(c);
        PixelAccessNoGamma(scaled, 0, 0).SetPixelGrayscale(c);
        ASSERT_EQ(PixelBytes(linear, 0, 0), PixelBytes(scaled, 0, 0)) << c;
      }
    }
  };
  sameAtBoundaries(IT_Grayscale8, 255);
  sameAtBoundaries(IT_Grayscale16, 65535);
}

// --- Placement -----------------------------------------------------------------------------------

TEST(PixelCursor, PlacementAndSteppingOnPaddedRows) {
  for (EImageType type : kFormats) {
    PixelPlane plane(5, 3, type, gamma::sRGB);
    const int step = BytesPerPixel(type);
    for (int y = 0; y < 3; ++y) {
      ConstRawAccess walker(plane, 0, y);
      ConstPixelAccessNoGamma reader(plane, 0, y);
      for (int x = 0; x < 5; ++x) {
        ASSERT_EQ(walker.Pointer(), plane.PixelAddress(x, y));
        ASSERT_EQ(reader.Offset(), static_cast<std::int64_t>(y) * plane.BytesPerLine() + x * step);
        walker.Next();
        reader.Next();
      }
    }
    PixelAccess cursor(plane, 0, 0);
    cursor.MoveTo(4, 2);
    EXPECT_EQ(cursor.Pointer(), plane.PixelAddress(4, 2));
    cursor.Advance(-3);
    EXPECT_EQ(cursor.Pointer(), plane.PixelAddress(1, 2));
    EXPECT_EQ(cursor.BytesPerPixel(), step);
  }

  // The typical raw loop: swap the first and third byte of every pixel, padding left alone.
  PixelPlane plane(3, 2, IT_RGB8, gamma::sRGB);
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(i);
  for (int y = 0; y < 2; ++y) {
    RawAccess raw(plane, 0, y);
    for (int x = 0; x < 3; ++x, raw.Next())
      std::swap(raw.Pointer()[0], raw.Pointer()[2]);
  }
  const std::vector<unsigned char> swapped = {2,  1,  0,  5,  4,  3,  8,  7,  6,  9,  10, 11,
                                              14, 13, 12, 17, 16, 15, 20, 19, 18, 21, 22, 23};
  EXPECT_EQ(Bytes(plane), swapped);
}

// --- Typed cursors -------------------------------------------------------------------------------

TEST(TypedPixelAccess, DispatchCoversEveryFormatByte) {
  for (int v = 0; v < 256; ++v) {
    const EImageType type = static_cast<EImageType>(v);
    const EImageType seen = DispatchImageType(type, [](auto t) { return decltype(t)::value; });
    EXPECT_EQ(seen, v < IT_UNDEFINED ? type : IT_UNDEFINED);
  }
  static int target = 0;
  int& same = DispatchImageType(IT_RGB8, [](auto) -> int& { return target; });
  EXPECT_EQ(&same, &target);
}

template <PixelConversion C, class Reader, class Writer>
void CompareWithRuntime(PixelPlane& runtimePlane, PixelPlane& typedPlane, std::mt19937& random) {
  using RuntimeReader =
      std::conditional_t<C == PixelConversion::Gamma, ConstPixelAccess, ConstPixelAccessNoGamma>;
  using RuntimeWriter = std::conditional_t<C == PixelConversion::Gamma, PixelAccess, PixelAccessNoGamma>;
  const int width = runtimePlane.Width(), height = runtimePlane.Height();
  const Reader typedReader(typedPlane, 0, 0);
  for (int y = 0; y < height; ++y) {
    Reader typed = typedReader;
    typed.MoveTo(0, y);
    RuntimeReader runtime(runtimePlane, 0, y);
    for (int x = 0; x < width; ++x, typed.Next(), runtime.Next()) {
      LinearRGBA_T<float> a(-9, -9, -9, -9), b(-9, -9, -9, -9);
      LinearRGB_T<float> rgbA, rgbB;
      float greyA = -9, greyB = -9, alphaA = -9, alphaB = -9;
      runtime.GetPixelRGBA(a);
      typed.GetPixelRGBA(b);
      runtime.GetPixelRGB(rgbA);
      typed.GetPixelRGB(rgbB);
      runtime.GetPixelGrayscale(greyA);
      typed.GetPixelGrayscale(greyB);
      runtime.GetPixelAlpha(alphaA);
      typed.GetPixelAlpha(alphaB);
      ASSERT_TRUE(SameBits(a, b) && SameBits(a.a, b.a) && SameBits(rgbA, rgbB) && SameBits(greyA, greyB) &&
                  SameBits(alphaA, alphaB))
          << "pixel " << x << "," << y;
    }
  }

  // Values mostly in range, some beyond it, and the awkward ones.
  const float awkward[] = {0.0f, -0.0f, 1.0f, 0.5f, 0.0031308f, 0.0523f, kNaN, kInf, -kInf, 1e-30f, 255.0f};
  std::uniform_real_distribution<float> value(-0.1f, 1.1f);
  auto next = [&](int i) { return i % 7 == 0 ? awkward[(i / 7) % std::size(awkward)] : value(random); };
  Writer typed(typedPlane, 0, 0);
  for (int i = 0; i < 4 * width * height; ++i) {
    const int x = i % width, y = i / width % height;
    RuntimeWriter runtime(runtimePlane, x, y);
    typed.MoveTo(x, y);
    const LinearRGB_T<float> c(next(i), next(i + 1), next(i + 2));
    const float extra = next(i + 3);
    switch (i / (width * height)) {
      case 0:
        runtime.SetPixelRGB(c);
        typed.SetPixelRGB(c);
        break;
      case 1:
        runtime.SetPixelRGBA(c, extra);
        typed.SetPixelRGBA(c, extra);
        break;
      case 2:
        runtime.SetPixelGrayscale(extra);
        typed.SetPixelGrayscale(extra);
        break;
      default:
        runtime.SetPixelAlpha(extra);
        typed.SetPixelAlpha(extra);
        break;
    }
  }
  EXPECT_EQ(Bytes(runtimePlane), Bytes(typedPlane));
}

TEST(TypedPixelAccess, MatchesRuntimeCursorsBitForBit) {
  std::vector<EImageType> types(std::begin(kFormats), std::end(kFormats));
  types.push_back(static_cast<EImageType>(13));
  const GammaValue gammas[] = {gamma::sRGB, gamma::Linear, GammaValue(2.2f), GammaValue(0.45f)};
  for (EImageType type : types) {
    for (GammaValue gamma : gammas) {
      SCOPED_TRACE(testing::Message() << "type " << int(type) << " gamma " << gamma.Value());
      std::mt19937 random(type * 31 + static_cast<int>(gamma.Value() * 100) + 1000);
      PixelPlane runtimePlane(31, 9, type, gamma), typedPlane(31, 9, type, gamma);
      Fill(runtimePlane, random);
      typedPlane.CopyFrom(runtimePlane);
      DispatchImageType(type, [&](auto t) {
        constexpr EImageType T = decltype(t)::value;
        CompareWithRuntime<PixelConversion::Gamma, ConstTypedPixelAccess<T, PixelConversion::Gamma>,
                           TypedPixelAccess<T, PixelConversion::Gamma>>(runtimePlane, typedPlane, random);
        CompareWithRuntime<PixelConversion::NoGamma, ConstTypedPixelAccess<T, PixelConversion::NoGamma>,
                           TypedPixelAccess<T, PixelConversion::NoGamma>>(runtimePlane, typedPlane, random);
      });
    }
  }
}

}  // namespace
}  // namespace imagery
