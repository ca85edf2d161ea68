// The reference gamma curves: known answers, exhaustive properties over every 8-bit and 16-bit code,
// and an operation-by-operation evaluation of the sRGB polynomials that no compiler can fuse, which
// fails if the library was built with multiply-add contraction.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/color.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"

namespace imagery {
namespace {

const GammaValue kGamma22{2.2f};
const GammaValue kGamma045{0.45f};

std::uint32_t Bits(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

// Every result passes through memory, so each operation rounds on its own.
float Round(float v) {
  volatile float stored = v;
  return stored;
}
float Mul(float a, float b) {
  return Round(a * b);
}
float Add(float a, float b) {
  return Round(a + b);
}
float Div(float a, float b) {
  return Round(a / b);
}

float StrictDecodeSRGB(unsigned v, bool sixteen) {
  const float fv = static_cast<float>(v);
  const float x = Mul(fv, sixteen ? 1.5259022e-05f : 0.003921569f);
  if (x <= 0.04045f)
    return Mul(fv, sixteen ? 1.1810389e-06f : 0.000303527f);
  const float a = sixteen ? 2.3251655e-06f : 0.0005975676f;
  const float c = sixteen ? 1.4053252e-05f : 0.003611686f;
  const float e = sixteen ? 1.3481186e-05f : 0.003464665f;
  const float g = sixteen ? 5.4382014e-07f : 0.00013976179f;
  const float x2 = Mul(x, x);
  float r = Add(Mul(a, fv), -0.5723599f);
  r = Add(Mul(r, x2), Add(Mul(c, fv), -0.9020823f));
  r = Add(Mul(r, x2), Add(Mul(e, fv), 0.48110798f));
  return Add(Mul(r, x2), Add(Mul(g, fv), 0.000845854f));
}

float StrictEncodeSRGB(float c) {
  if (c <= 0.0031308f)
    return Mul(c, 12.92f);
  const bool high = c > 0.0523f;
  const float k[8] = {high ? -0.18730034f : -6681.4956f,     high ? 0.6467743f : 1224.9712f,
                      high ? -0.99032867f : -100.23414f,     high ? 1.2093908f : 6.6036115f,
                      high ? 0.33433458f : 0.06114809f,      high ? -0.013450958f : -0.00022244139f,
                      high ? 0.00044351685f : 4.123184e-07f, high ? -6.642636e-06f : -3.5133685e-10f};
  const float c2 = Mul(c, c);
  float r = Add(Mul(k[0], c), k[1]);
  r = Add(Mul(r, c2), Add(Mul(k[2], c), k[3]));
  r = Add(Mul(r, c2), Add(Mul(k[4], c), k[5]));
  r = Add(Mul(r, c2), Add(Mul(k[6], c), k[7]));
  return Div(r, Mul(c2, c));
}

TEST(GammaValue, EqualityIsExactAndSpecialValuesAreRecognised) {
  EXPECT_EQ(GammaValue(2.2f), GammaValue(2.2f));
  EXPECT_NE(GammaValue(2.2f), GammaValue(std::nextafter(2.2f, 3.0f)));
  EXPECT_FLOAT_EQ(gamma::Linear.Value(), 1.0f);
  EXPECT_TRUE(gamma::sRGB.IsSRGB());
  EXPECT_FALSE(GammaValue(2.0f).IsSRGB());
  EXPECT_FALSE(GammaValue().IsSet());
  EXPECT_FALSE(GammaValue(0.0f).IsSet());
  EXPECT_TRUE(gamma::sRGB.IsSet());
  EXPECT_TRUE(GammaValue(1.00005f).IsNearlyLinear());
  EXPECT_TRUE(GammaValue(0.99995f).IsNearlyLinear());
  EXPECT_FALSE(GammaValue(1.0002f).IsNearlyLinear());
}

TEST(GammaCurves, SRGBKnownAnswers) {
  EXPECT_EQ(EncodeChannel8(1.0f, gamma::sRGB), 255);
  EXPECT_EQ(EncodeChannel8(0.0f, gamma::sRGB), 0);
  EXPECT_EQ(Bits(DecodeChannel8(255, gamma::sRGB)), Bits(1.0000001f));
  EXPECT_EQ(DecodeChannel8(0, gamma::sRGB), 0.0f);
  EXPECT_EQ(DecodeChannel8(1, gamma::sRGB), 0.000303527f);
  // The 16-bit curve tops out below the last code.
  EXPECT_EQ(EncodeChannel16(1.0f, gamma::sRGB), 65526);
  EXPECT_EQ(DecodeChannel16(65535, gamma::sRGB), 1.0f);
  EXPECT_NEAR(EncodeSRGBClamped(1.0f), 0.99985659f, 1e-7f);
}

TEST(GammaCurves, PowerGammaKnownAnswers) {
  EXPECT_EQ(EncodeChannel8(0.5f, kGamma22), 186);
  EXPECT_EQ(EncodeChannel8(0.5f, kGamma22, PowerPrecision::Double), 186);
  for (unsigned v = 0; v < 256; ++v) {
    ASSERT_EQ(DecodeChannel8(static_cast<unsigned char>(v), gamma::Linear), static_cast<float>(v) * kInv255);
  }
  for (unsigned v = 0; v < 65536; v += 97) {
    ASSERT_EQ(DecodeChannel16(static_cast<unsigned short>(v), gamma::Linear),
              static_cast<float>(v) * kInv65535);
  }
  EXPECT_EQ(EncodeChannel16(0.25f, gamma::Linear), 16384);  // 16383.75 rounds up
}

TEST(GammaCurves, OutOfRangeLinearValuesClampInEveryGamma) {
  const float inf = std::numeric_limits<float>::infinity();
  for (GammaValue g : {gamma::sRGB, gamma::Linear, kGamma22, kGamma045}) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      SCOPED_TRACE(g.Value());
      EXPECT_EQ(EncodeChannel8(-0.5f, g, p), 0);
      EXPECT_EQ(EncodeChannel8(-inf, g, p), 0);
      EXPECT_EQ(EncodeChannel8(std::nanf(""), g, p), 0);
      EXPECT_EQ(EncodeChannel8(1.5f, g, p), EncodeChannel8(1.0f, g, p));
      EXPECT_EQ(EncodeChannel8(inf, g, p), EncodeChannel8(1.0f, g, p));
      EXPECT_EQ(EncodeChannel16(-0.5f, g, p), 0);
      EXPECT_EQ(EncodeChannel16(1e30f, g, p), EncodeChannel16(1.0f, g, p));
    }
  }
}

TEST(GammaCurves, NonsenseGammasStillGiveDefinedCodes) {
  // "Not set" and 0 are not gammas to encode with, but a bad value must not invoke undefined behaviour.
  for (float g : {-1.0f, 0.0f, -3.0f, std::numeric_limits<float>::infinity(), std::nanf("")}) {
    for (float c : {0.0f, 0.25f, 1.0f}) {
      (void)EncodeChannel8(c, GammaValue(g));
      (void)EncodeChannel16(c, GammaValue(g), PowerPrecision::Double);
    }
  }
  // c^(1/-1) = 2 -> 510, whose low 8 bits are kept.
  EXPECT_EQ(EncodeChannel8(0.5f, GammaValue(-1.0f)), 510 & 0xFF);
  EXPECT_EQ(EncodeChannel8(0.0f, GammaValue(-1.0f)), 0);  // infinity
}

TEST(GammaCurves, RoundingIsHalfAwayFromZeroOnTheLowBits) {
  EXPECT_EQ(detail::RoundToCode<0xFFu>(0.5f), 1u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(0.49999997f), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(2.5f), 3u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(254.5f), 255u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(255.5f), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFFFu>(65535.49f), 65535u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(-2.5f), static_cast<std::uint32_t>(-3) & 0xFFu);
  EXPECT_EQ(detail::RoundToCode<0xFFFFu>(std::nanf("")), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFFFu>(std::numeric_limits<float>::infinity()), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFFFu>(4294967296.0f + 1536.0f), 1536u);
}

TEST(GammaCurves, SRGBPolynomialsRoundEveryOperation) {
  for (unsigned v = 0; v < 256; ++v) {
    ASSERT_EQ(Bits(DecodeChannel8(static_cast<unsigned char>(v), gamma::sRGB)),
              Bits(StrictDecodeSRGB(v, false)))
        << v;
  }
  for (unsigned v = 0; v < 65536; ++v) {
    ASSERT_EQ(Bits(DecodeChannel16(static_cast<unsigned short>(v), gamma::sRGB)),
              Bits(StrictDecodeSRGB(v, true)))
        << v;
  }
  for (std::uint32_t bits = 0; bits <= 0x3F800000u; bits += 4099) {
    float c;
    std::memcpy(&c, &bits, sizeof c);
    ASSERT_EQ(Bits(EncodeSRGBClamped(c)), Bits(StrictEncodeSRGB(c))) << c;
  }
}

TEST(GammaCurves, DecodingIsMonotonicAndWithinRangeForEveryCode) {
  for (GammaValue g : {gamma::sRGB, gamma::Linear, kGamma22, kGamma045}) {
    SCOPED_TRACE(g.Value());
    for (unsigned v = 1; v < 256; ++v) {
      const float lower = DecodeChannel8(static_cast<unsigned char>(v - 1), g);
      const float upper = DecodeChannel8(static_cast<unsigned char>(v), g);
      ASSERT_LT(lower, upper) << v;
      ASSERT_LE(upper, 1.0000001f);
    }
    for (unsigned v = 1; v < 65536; ++v) {
      ASSERT_LT(DecodeChannel16(static_cast<unsigned short>(v - 1), g),
                DecodeChannel16(static_cast<unsigned short>(v), g))
          << v;
    }
    EXPECT_EQ(DecodeChannel8(0, g), 0.0f);
    EXPECT_EQ(DecodeChannel16(0, g), 0.0f);
  }
}

TEST(GammaCurves, EncodingRecoversEveryDecodedCode) {
  for (GammaValue g : {gamma::sRGB, gamma::Linear, kGamma22, kGamma045}) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      SCOPED_TRACE(g.Value());
      for (unsigned v = 0; v < 256; ++v) {
        ASSERT_EQ(EncodeChannel8(DecodeChannel8(static_cast<unsigned char>(v), g), g, p), v);
      }
      for (unsigned v = 0; v < 65536; ++v) {
        const unsigned back = EncodeChannel16(DecodeChannel16(static_cast<unsigned short>(v), g), g, p);
        if (g.IsSRGB()) {
          // The two sRGB approximations disagree by up to 0.00015, i.e. up to 9 codes; the low codes
          // round-trip exactly.
          ASSERT_LE(std::abs(static_cast<int>(back) - static_cast<int>(v)), 9) << v;
          if (v < 3000) {
            ASSERT_EQ(back, v);
          }
        } else {
          ASSERT_EQ(back, v);
        }
      }
    }
  }
}

TEST(GammaCurves, SRGBApproximatesTheStandardCurves) {
  for (unsigned v = 0; v < 65536; v += 7) {
    const double x = v / 65535.0;
    const double exact = x <= 0.04045 ? x / 12.92 : std::pow((x + 0.055) / 1.055, 2.4);
    ASSERT_NEAR(DecodeChannel16(static_cast<unsigned short>(v), gamma::sRGB), exact, 0.00015) << v;
  }
  for (int i = 0; i <= 10000; ++i) {
    const float c = static_cast<float>(i) / 10000.0f;
    const double exact =
        c <= 0.0031308 ? c * 12.92 : 1.055 * std::pow(static_cast<double>(c), 1.0 / 2.4) - 0.055;
    ASSERT_NEAR(EncodeLinear(c, gamma::sRGB), exact, 0.00015) << c;
  }
}

TEST(GammaCurves, PrecisionsDifferOnlyForPowerGammas) {
  int differences = 0;
  for (int i = 0; i <= 100000; ++i) {
    const float c = static_cast<float>(i) / 100000.0f;
    ASSERT_EQ(EncodeLinear(c, gamma::sRGB, PowerPrecision::Single),
              EncodeLinear(c, gamma::sRGB, PowerPrecision::Double));
    ASSERT_EQ(EncodeLinear(c, gamma::Linear, PowerPrecision::Single), c);
    ASSERT_EQ(EncodeLinear(c, gamma::Linear, PowerPrecision::Double), c);
    const float single = EncodeLinear(c, kGamma22, PowerPrecision::Single);
    const float precise = EncodeLinear(c, kGamma22, PowerPrecision::Double);
    ASSERT_NEAR(single, precise, 1e-6f);
    differences += single != precise;
  }
  // 1/2.2 rounded to single precision moves the curve measurably.
  EXPECT_GT(differences, 0);
}

TEST(ColourConversions, ChannelsAreConvertedIndependentlyInRGBOrder) {
  const LinearRGB_T<float> decoded =
      CLRFLOATFrom(static_cast<unsigned char>(10), static_cast<unsigned char>(128),
                   static_cast<unsigned char>(255), gamma::sRGB);
  EXPECT_EQ(decoded.r, DecodeChannel8(10, gamma::sRGB));
  EXPECT_EQ(decoded.g, DecodeChannel8(128, gamma::sRGB));
  EXPECT_EQ(decoded.b, DecodeChannel8(255, gamma::sRGB));

  const CLR clr(0x000A80FFu);
  EXPECT_EQ(LinearRGB_T<float>(clr, gamma::sRGB), decoded);
  EXPECT_EQ(decoded.ToCLR(gamma::sRGB).Value(), 0x000A80FFu);

  unsigned char r = 1, g = 1, b = 1;
  ToRGB(LinearRGB_T<float>(0.5f, 0.0f, 2.0f), r, g, b, kGamma22);
  EXPECT_EQ(r, 186);
  EXPECT_EQ(g, 0);
  EXPECT_EQ(b, 255);

  unsigned short r16 = 1, g16 = 1, b16 = 1;
  ToRGB(LinearRGB_T<float>(1.0f, -1.0f, 0.25f), r16, g16, b16, gamma::sRGB);
  EXPECT_EQ(r16, 65526);
  EXPECT_EQ(g16, 0);
  EXPECT_EQ(b16, EncodeChannel16(0.25f, gamma::sRGB));
  const LinearRGB_T<float> wide = CLRFLOATFrom(r16, g16, b16, gamma::Linear);
  EXPECT_EQ(wide.r, 65526 * kInv65535);
}

// Returns a linear value on which the two precisions give different codes, or NaN.
template <class Encode>
float FindPrecisionSplit(Encode encode) {
  for (std::uint32_t bits = 0x30000000u; bits <= 0x3F800000u; bits += 37) {
    float c;
    std::memcpy(&c, &bits, sizeof c);
    if (encode(c, PowerPrecision::Single) != encode(c, PowerPrecision::Double))
      return c;
  }
  return std::nanf("");
}

TEST(ColourConversions, ToCLREncodesPowerGammasInDoublePrecisionAndToRGBInSingle) {
  const float c8 =
      FindPrecisionSplit([](float c, PowerPrecision p) { return EncodeChannel8(c, kGamma22, p); });
  ASSERT_FALSE(std::isnan(c8));
  unsigned char r, g, b;
  ToRGB(LinearRGB_T<float>(c8, 0.0f, 0.0f), r, g, b, kGamma22);
  EXPECT_EQ(r, EncodeChannel8(c8, kGamma22, PowerPrecision::Single));
  EXPECT_EQ(LinearRGB_T<float>(c8, 0.0f, 0.0f).ToCLR(kGamma22).Red(),
            EncodeChannel8(c8, kGamma22, PowerPrecision::Double));

  const float c16 =
      FindPrecisionSplit([](float c, PowerPrecision p) { return EncodeChannel16(c, kGamma22, p); });
  ASSERT_FALSE(std::isnan(c16));
  unsigned short r16, g16, b16;
  ToRGB(LinearRGB_T<float>(0.0f, 0.0f, c16), r16, g16, b16, kGamma22);
  EXPECT_EQ(b16, EncodeChannel16(c16, kGamma22, PowerPrecision::Single));
  EXPECT_NE(b16, EncodeChannel16(c16, kGamma22, PowerPrecision::Double));
  EXPECT_EQ(EImageTrait<IT_RGB16>::ToColorType(LinearRGB_T<float>(0.0f, 0.0f, c16), kGamma22).b,
            EncodeChannel16(c16, kGamma22, PowerPrecision::Double));
}

}  // namespace
}  // namespace imagery
