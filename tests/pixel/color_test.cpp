// Packed and linear colour values: byte layout, arithmetic and hashing; normal-map components and the
// normalisation of encoded normals.
#include <cmath>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "imagery/color.h"
#include "imagery/normal_encoding.h"

namespace imagery {
namespace {

TEST(Colours, MemoryLayoutAndArithmetic) {
  const CLR c(0x00123456u);
  EXPECT_EQ(c, CLR(0x12, 0x34, 0x56));
  EXPECT_EQ(std::memcmp(&c, "\x56\x34\x12\x00", 4), 0);  // blue first in memory
  EXPECT_NE(CLR(0xAB123456u), c);                        // the fourth byte takes part
  const CLRA a(0x80123456u);
  EXPECT_EQ(std::memcmp(&a, "\x56\x34\x12\x80", 4), 0);
  EXPECT_TRUE(a.ToCLR() == c && CLRA(c, 0x80) == a);
  const LinearRGBA_T<float> f(0.1f, 0.2f, 0.3f, 0.4f);
  const float floats[4] = {0.1f, 0.2f, 0.3f, 0.4f};
  EXPECT_EQ(std::memcmp(&f, floats, sizeof floats), 0);
  EXPECT_NE(f, LinearRGBA_T<float>(0.1f, 0.2f, 0.3f, 0.5f));
  LinearRGB_T<float> sum(1.0f, 2.0f, 3.0f);
  sum += LinearRGB_T<float>(0.5f, 0.5f, -4.0f);
  EXPECT_EQ(0.5f * sum - sum * 2.0f, LinearRGB_T<float>(-2.25f, -3.75f, 1.5f));
}

TEST(LinearColours, HashFoldsTheChannelBitsIntoAStartValue) {
  // Known answers computed independently of the library from the start value 42 and the 64-bit combine step.
  const LinearRGB_T<float> c(1.0f, 0.5f, 0.25f);
  EXPECT_EQ(hash_value(c), 0x5a24d30447fe97a3ull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>()), 0x10c95e320d6a803eull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>(-0.0f, 0.0f, -0.0f)), 0x10c95e320d6a803eull);
}

TEST(NormalEncoding, BytesComponentsAndUnitNormalsOfTheSameDirection) {
  // 127.5 rounds away from zero.
  EXPECT_TRUE(Encode(1.0f) == 255 && Encode(-1.0f) == 0 && Encode(0.0f) == 128);
  EXPECT_TRUE(Decode(128) == 0.003921628f && Decode(255) == 1.0f);
  for (unsigned v = 0; v < 256; ++v)
    ASSERT_TRUE(Decode(static_cast<unsigned char>(v)) != 0.0f &&
                Encode(Decode(static_cast<unsigned char>(v))) == v);

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
