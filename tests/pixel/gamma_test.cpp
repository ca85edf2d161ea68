// The reference gamma curves: known answers, properties over every 8-bit and 16-bit code, and an
// operation-by-operation evaluation of the sRGB polynomials that no compiler can fuse, which fails if
// the library was built with multiply-add contraction or carries a wrong coefficient.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "imagery/color.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"

namespace imagery {
namespace {

const GammaValue kGamma22{2.2f};
const GammaValue kCurves[] = {gamma::sRGB, gamma::Linear, kGamma22, GammaValue(0.45f)};

std::uint32_t Bits(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

// a * b + c with the product rounded on its own: the volatile store cannot be fused away.
float MulAdd(float a, float b, float c) {
  volatile float product = a * b;
  return product + c;
}

float StrictDecodeSRGB(unsigned v, bool sixteen) {
  const float fv = static_cast<float>(v);
  const float x = fv * (sixteen ? 1.5259022e-05f : 0.003921569f);
  if (x <= 0.04045f)
    return fv * (sixteen ? 1.1810389e-06f : 0.000303527f);
  volatile float x2 = x * x;
  float r = MulAdd(sixteen ? 2.3251655e-06f : 0.0005975676f, fv, -0.5723599f);
  r = MulAdd(r, x2, MulAdd(sixteen ? 1.4053252e-05f : 0.003611686f, fv, -0.9020823f));
  r = MulAdd(r, x2, MulAdd(sixteen ? 1.3481186e-05f : 0.003464665f, fv, 0.48110798f));
  return MulAdd(r, x2, MulAdd(sixteen ? 5.4382014e-07f : 0.00013976179f, fv, 0.000845854f));
}

float StrictEncodeSRGB(float c) {
  if (c <= 0.0031308f)
    return c * 12.92f;
  const bool high = c > 0.0523f;
  volatile float c2 = c * c;
  float r = MulAdd(high ? -0.18730034f : -6681.4956f, c, high ? 0.6467743f : 1224.9712f);
  r = MulAdd(r, c2, MulAdd(high ? -0.99032867f : -100.23414f, c, high ? 1.2093908f : 6.6036115f));
  r = MulAdd(r, c2, MulAdd(high ? 0.33433458f : 0.06114809f, c, high ? -0.013450958f : -0.00022244139f));
  r = MulAdd(r, c2,
             MulAdd(high ? 0.00044351685f : 4.123184e-07f, c, high ? -6.642636e-06f : -3.5133685e-10f));
  volatile float cube = c2 * c;
  return r / cube;
}

TEST(GammaValue, EqualityIsExactAndSpecialValuesAreRecognised) {
  EXPECT_NE(GammaValue(2.2f), GammaValue(std::nextafter(2.2f, 3.0f)));
  EXPECT_TRUE(gamma::sRGB.IsSRGB());
  EXPECT_FALSE(GammaValue(2.0f).IsSRGB());
  EXPECT_FALSE(GammaValue().IsSet());
  EXPECT_FALSE(GammaValue(0.0f).IsSet());
  EXPECT_TRUE(GammaValue(1.00005f).IsNearlyLinear());
  EXPECT_FALSE(GammaValue(1.0002f).IsNearlyLinear());
}

TEST(GammaCurves, KnownAnswers) {
  EXPECT_EQ(EncodeChannel8(1.0f, gamma::sRGB), 255);
  EXPECT_EQ(EncodeChannel8(0.0f, gamma::sRGB), 0);
  EXPECT_EQ(Bits(DecodeChannel8(255, gamma::sRGB)), Bits(1.0000001f));
  EXPECT_EQ(DecodeChannel8(1, gamma::sRGB), 0.000303527f);
  EXPECT_EQ(EncodeChannel16(1.0f, gamma::sRGB), 65526);  // the curve tops out below the last code
  EXPECT_EQ(DecodeChannel16(65535, gamma::sRGB), 1.0f);
  EXPECT_EQ(EncodeChannel8(0.5f, kGamma22), 186);
  EXPECT_EQ(EncodeChannel16(0.25f, gamma::Linear), 16384);  // 16383.75 rounds up
  for (unsigned v = 0; v < 256; ++v) {
    ASSERT_EQ(DecodeChannel8(static_cast<unsigned char>(v), gamma::Linear), static_cast<float>(v) * kInv255);
  }
}

TEST(GammaCurves, OutOfRangeAndNonsenseInputsGiveDefinedCodes) {
  const float inf = std::numeric_limits<float>::infinity();
  for (GammaValue g : kCurves) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      for (float below : {-0.5f, -inf, std::nanf("")}) {
        EXPECT_EQ(EncodeChannel8(below, g, p), 0) << g.Value();
        EXPECT_EQ(EncodeChannel16(below, g, p), 0) << g.Value();
      }
      EXPECT_EQ(EncodeChannel8(inf, g, p), EncodeChannel8(1.0f, g, p));
      EXPECT_EQ(EncodeChannel16(1.5f, g, p), EncodeChannel16(1.0f, g, p));
    }
  }
  // "Not set" is no gamma to encode with, but must not be undefined behaviour: c^(1/-1) = 2 -> 510,
  // whose low 8 bits are kept; 0^-1 is infinite and gives 0.
  EXPECT_EQ(EncodeChannel8(0.5f, GammaValue(-1.0f)), 510 & 0xFF);
  EXPECT_EQ(EncodeChannel8(0.0f, GammaValue(-1.0f)), 0);
  EXPECT_EQ(EncodeChannel16(0.3f, GammaValue(std::nanf(""))), 0);
  // Rounding is half away from zero, on the low bits.
  EXPECT_EQ(detail::RoundToCode<0xFFu>(0.49999997f), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(254.5f), 255u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(255.5f), 0u);
  EXPECT_EQ(detail::RoundToCode<0xFFu>(-2.5f), static_cast<std::uint32_t>(-3) & 0xFFu);
  EXPECT_EQ(detail::RoundToCode<0xFFFFu>(4294967296.0f + 1536.0f), 1536u);
}

TEST(GammaCurves, SRGBPolynomialsRoundEveryOperation) {
  for (unsigned v = 0; v < 65536; ++v) {
    if (v < 256) {
      ASSERT_EQ(Bits(DecodeChannel8(static_cast<unsigned char>(v), gamma::sRGB)),
                Bits(StrictDecodeSRGB(v, false)));
    }
    ASSERT_EQ(Bits(DecodeChannel16(static_cast<unsigned short>(v), gamma::sRGB)),
              Bits(StrictDecodeSRGB(v, true)));
  }
  for (std::uint32_t bits = 0; bits <= 0x3F800000u; bits += 4099) {
    float c;
    std::memcpy(&c, &bits, sizeof c);
    ASSERT_EQ(Bits(EncodeSRGBClamped(c)), Bits(StrictEncodeSRGB(c))) << c;
  }
}

TEST(GammaCurves, EveryCodeDecodesMonotonicallyAndEncodesBack) {
  for (GammaValue g : kCurves) {
    SCOPED_TRACE(g.Value());
    for (unsigned v = 0; v < 65536; ++v) {
      const auto code16 = static_cast<unsigned short>(v);
      if (v > 0) {
        ASSERT_LT(DecodeChannel16(code16 - 1, g), DecodeChannel16(code16, g));
      }
      for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
        const int back = EncodeChannel16(DecodeChannel16(code16, g), g, p);
        // The two sRGB approximations disagree by up to 0.00015 (9 codes) above the lowest codes.
        ASSERT_LE(std::abs(back - static_cast<int>(v)), g.IsSRGB() && v >= 3000 ? 9 : 0) << v;
      }
      if (v >= 256)
        continue;
      const auto code8 = static_cast<unsigned char>(v);
      if (v > 0) {
        ASSERT_LT(DecodeChannel8(code8 - 1, g), DecodeChannel8(code8, g));
      }
      ASSERT_LE(DecodeChannel8(code8, g), 1.0000001f);
      ASSERT_EQ(EncodeChannel8(DecodeChannel8(code8, g), g), code8);
      ASSERT_EQ(EncodeChannel8(DecodeChannel8(code8, g), g, PowerPrecision::Double), code8);
    }
  }
}

TEST(ColourConversions, ChannelsAreConvertedIndependentlyInRGBOrder) {
  const CLR clr(0x000A80FFu);
  const LinearRGB_T<float> decoded(DecodeChannel8(10, gamma::sRGB), DecodeChannel8(128, gamma::sRGB),
                                   DecodeChannel8(255, gamma::sRGB));
  EXPECT_EQ(CLRFLOATFrom(clr.Red(), clr.Green(), clr.Blue(), gamma::sRGB), decoded);
  EXPECT_EQ(LinearRGB_T<float>(clr, gamma::sRGB), decoded);
  EXPECT_EQ(decoded.ToCLR(gamma::sRGB), clr);
  unsigned short r16 = 1, g16 = 1, b16 = 1;
  ToRGB(LinearRGB_T<float>(1.0f, -1.0f, 0.25f), r16, g16, b16, gamma::sRGB);
  EXPECT_EQ(CLRFLOATFrom(r16, g16, b16, gamma::Linear),
            LinearRGB_T<float>(65526 * kInv65535, 0.0f, EncodeChannel16(0.25f, gamma::sRGB) * kInv65535));
}

// A linear value on which the two precisions give different codes, or NaN.
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
  EXPECT_EQ(EImageTrait<IT_RGB16>::ToColorType(LinearRGB_T<float>(0.0f, 0.0f, c16), kGamma22).b,
            EncodeChannel16(c16, kGamma22, PowerPrecision::Double));
}

}  // namespace
}  // namespace imagery
