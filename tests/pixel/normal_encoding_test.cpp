// Byte encoding of normal-map components and the normalisation of encoded normals.
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "imagery/normal_encoding.h"

namespace imagery {
namespace {

TEST(NormalEncoding, BytesComponentsAndUnitNormalsOfTheSameDirection) {
  EXPECT_EQ(Encode(1.0f), 255);
  EXPECT_EQ(Encode(-1.0f), 0);
  EXPECT_EQ(Encode(0.0f), 128);  // 127.5 rounds away from zero
  EXPECT_EQ(Decode(128), 0.003921628f);
  EXPECT_EQ(Decode(255), 1.0f);
  for (unsigned v = 0; v < 256; ++v)
    ASSERT_TRUE(Decode(static_cast<unsigned char>(v)) != 0.0f &&
                Encode(Decode(static_cast<unsigned char>(v))) == v);
  for (float s : {1e-6f, 0.5f, 3.0f, 195075.0f})
    EXPECT_NEAR(RefinedReciprocalSqrt(s) * std::sqrt(s), 1.0f, 1e-6f);

  EXPECT_EQ(NormalizeEncodedNormal(CLR(0x00FF8080u)), CLR(255, 128, 128));
  EXPECT_EQ(NormalizeEncodedNormal(CLR(0x7F8080FFu)).Fourth(), 0);
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    const CLR in(static_cast<std::uint32_t>(random()) & 0xFFFFFFu);
    const CLR out = NormalizeEncodedNormal(in);
    const float x = Decode(out.Red()), y = Decode(out.Green()), z = Decode(out.Blue());
    // One byte step is 2/255 per component, so the length is 1 within a few steps.
    ASSERT_NEAR(std::sqrt(x * x + y * y + z * z), 1.0f, 0.015f) << std::hex << in.Value();
    ASSERT_TRUE(Decode(in.Red()) * x >= 0.0f || std::fabs(x) < 0.01f);
    ASSERT_LE(std::abs(NormalizeEncodedNormal(out).Green() - out.Green()), 1);  // nearly a fixed point
  }
}

}  // namespace
}  // namespace imagery
