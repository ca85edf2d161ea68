// Byte encoding of normal-map components and the normalisation of encoded normals.
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "imagery/normal_encoding.h"

namespace imagery {
namespace {

TEST(NormalEncoding, KnownAnswers) {
  EXPECT_EQ(Encode(1.0f), 255);
  EXPECT_EQ(Encode(-1.0f), 0);
  EXPECT_EQ(Encode(0.0f), 128);  // 127.5 rounds away from zero
  EXPECT_EQ(Decode(128), 0.003921628f);
  EXPECT_EQ(Decode(255), 1.0f);
  EXPECT_EQ(Decode(0), -1.0f);
}

TEST(NormalEncoding, EveryByteSurvivesDecodeAndEncode) {
  for (unsigned v = 0; v < 256; ++v) {
    const unsigned char byte = static_cast<unsigned char>(v);
    ASSERT_NE(Decode(byte), 0.0f);
    ASSERT_EQ(Encode(Decode(byte)), byte);
    if (v > 0) {
      ASSERT_LT(Decode(static_cast<unsigned char>(v - 1)), Decode(byte));
    }
  }
}

TEST(NormalEncoding, RefinedReciprocalSqrtIsCloseToExact) {
  for (float s : {1e-6f, 0.01f, 0.5f, 1.0f, 2.0f, 3.0f, 1000.0f, 195075.0f}) {
    EXPECT_NEAR(RefinedReciprocalSqrt(s) * std::sqrt(s), 1.0f, 1e-6f) << s;
  }
}

TEST(NormalEncoding, NormalizationGivesUnitNormals) {
  EXPECT_EQ(NormalizeEncodedNormal(CLR(0x00FF8080u)), CLR(255, 128, 128));
  // The fourth byte is written as 0.
  EXPECT_EQ(NormalizeEncodedNormal(CLR(0x7F8080FFu)).Fourth(), 0);

  std::mt19937 random(7);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int i = 0; i < 20000; ++i) {
    const CLR in(static_cast<unsigned char>(byte(random)), static_cast<unsigned char>(byte(random)),
                 static_cast<unsigned char>(byte(random)));
    const CLR out = NormalizeEncodedNormal(in);
    const float x = Decode(out.Red()), y = Decode(out.Green()), z = Decode(out.Blue());
    // One byte step is 2/255 per component, so the length is 1 within a few steps.
    ASSERT_NEAR(std::sqrt(x * x + y * y + z * z), 1.0f, 0.015f) << std::hex << in.Value();
    // Normalising keeps the direction: each component keeps its sign.
    const float ix = Decode(in.Red());
    ASSERT_TRUE(ix * x >= 0.0f || std::fabs(x) < 0.01f);
    // And a unit normal is (nearly) a fixed point.
    const CLR again = NormalizeEncodedNormal(out);
    ASSERT_LE(std::abs(again.Red() - out.Red()), 1);
    ASSERT_LE(std::abs(again.Green() - out.Green()), 1);
    ASSERT_LE(std::abs(again.Blue() - out.Blue()), 1);
  }
}

}  // namespace
}  // namespace imagery
