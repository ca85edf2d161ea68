// Packed and linear colour values: byte layout, arithmetic and hashing.
#include <cstring>
#include <unordered_set>

#include <gtest/gtest.h>
#include <boost/functional/hash.hpp>

#include "imagery/color.h"

namespace imagery {
namespace {

TEST(CLR, WordAndBytesDescribeTheSameColour) {
  const CLR c(0x00123456u);
  EXPECT_EQ(c.Red(), 0x12);
  EXPECT_EQ(c.Green(), 0x34);
  EXPECT_EQ(c.Blue(), 0x56);
  EXPECT_EQ(c.Fourth(), 0);
  unsigned char bytes[4];
  std::memcpy(bytes, &c, 4);
  EXPECT_EQ(bytes[0], 0x56);  // blue first in memory
  EXPECT_EQ(bytes[1], 0x34);
  EXPECT_EQ(bytes[2], 0x12);
  EXPECT_EQ(CLR(0x12, 0x34, 0x56), c);
  EXPECT_EQ(CLR(0xAB123456u).Value(), 0xAB123456u);
  EXPECT_NE(CLR(0xAB123456u), c);

  const CLRA a(0x80123456u);
  EXPECT_EQ(a.Alpha(), 0x80);
  std::memcpy(bytes, &a, 4);
  EXPECT_EQ(bytes[3], 0x80);
  EXPECT_EQ(a.ToCLR(), c);
  EXPECT_EQ(CLRA(c, 0x80), a);
}

TEST(LinearRGB, AlphaFollowsTheColourInMemory) {
  const LinearRGBA_T<float> c(0.1f, 0.2f, 0.3f, 0.4f);
  float floats[4];
  std::memcpy(floats, &c, sizeof floats);
  EXPECT_EQ(floats[0], 0.1f);
  EXPECT_EQ(floats[2], 0.3f);
  EXPECT_EQ(floats[3], 0.4f);
  EXPECT_NE(c, LinearRGBA_T<float>(0.1f, 0.2f, 0.3f, 0.5f));
  EXPECT_EQ(LinearRGBA_T<float>(LinearRGB_T<float>(0.1f, 0.2f, 0.3f), 0.4f), c);
}

TEST(LinearRGB, ArithmeticIsPerChannel) {
  LinearRGB_T<float> sum(1.0f, 2.0f, 3.0f);
  sum += LinearRGB_T<float>(0.5f, 0.5f, -4.0f);
  EXPECT_EQ(sum, LinearRGB_T<float>(1.5f, 2.5f, -1.0f));
  EXPECT_EQ(sum * 2.0f, LinearRGB_T<float>(3.0f, 5.0f, -2.0f));
  EXPECT_EQ(0.5f * sum - sum, LinearRGB_T<float>(-0.75f, -1.25f, 0.5f));
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(1.0f, 0.0f, 0.0f)), 0.35f);
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(0.0f, 1.0f, 0.0f)), 0.5f);
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(0.0f, 0.0f, 1.0f)), 0.15f);
}

TEST(LinearRGBHash, FoldsTheChannelBitsIntoTheSeed) {
  // Known answer computed independently of the library from the seed 42 and the 64-bit combine step.
  EXPECT_EQ(hash_value(LinearRGB_T<float>(1.0f, 0.5f, 0.25f)), 0x5a24d30447fe97a3ull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>(0.0f, 0.0f, 0.0f)), 0x10c95e320d6a803eull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>(0.0f, 0.0f, 0.0f)),
            hash_value(LinearRGB_T<float>(-0.0f, 0.0f, -0.0f)));
  EXPECT_NE(hash_value(LinearRGB_T<float>(1.0f, 0.5f, 0.25f)),
            hash_value(LinearRGB_T<float>(0.25f, 0.5f, 1.0f)));

  // Both boost and the standard library find it.
  EXPECT_EQ(boost::hash<LinearRGB_T<float>>()(LinearRGB_T<float>(1.0f, 0.5f, 0.25f)),
            static_cast<std::size_t>(0x5a24d30447fe97a3ull));
  std::unordered_set<LinearRGB_T<float>> set{{0.0f, 0.0f, 0.0f}, {-0.0f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
  EXPECT_EQ(set.size(), 2u);
}

}  // namespace
}  // namespace imagery
