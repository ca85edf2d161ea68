// Packed and linear colour values: byte layout, arithmetic and hashing.
#include <cstring>
#include <unordered_set>

#include <gtest/gtest.h>
#include <boost/functional/hash.hpp>

#include "imagery/color.h"

namespace imagery {
namespace {

TEST(PackedColours, WordAndBytesDescribeTheSameColour) {
  const CLR c(0x00123456u);
  EXPECT_EQ(c, CLR(0x12, 0x34, 0x56));
  EXPECT_EQ(std::memcmp(&c, "\x56\x34\x12\x00", 4), 0);  // blue first in memory
  EXPECT_EQ(CLR(0xAB123456u).Value(), 0xAB123456u);
  EXPECT_NE(CLR(0xAB123456u), c);
  const CLRA a(0x80123456u);
  EXPECT_EQ(std::memcmp(&a, "\x56\x34\x12\x80", 4), 0);
  EXPECT_EQ(a.ToCLR(), c);
  EXPECT_EQ(CLRA(c, 0x80), a);
}

TEST(LinearColours, LayoutArithmeticAndGrey) {
  const LinearRGBA_T<float> c(0.1f, 0.2f, 0.3f, 0.4f);
  const float floats[4] = {0.1f, 0.2f, 0.3f, 0.4f};
  EXPECT_EQ(std::memcmp(&c, floats, sizeof floats), 0);
  EXPECT_NE(c, LinearRGBA_T<float>(0.1f, 0.2f, 0.3f, 0.5f));
  LinearRGB_T<float> sum(1.0f, 2.0f, 3.0f);
  sum += LinearRGB_T<float>(0.5f, 0.5f, -4.0f);
  EXPECT_EQ(0.5f * sum - sum * 2.0f, LinearRGB_T<float>(-2.25f, -3.75f, 1.5f));
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(1.0f, 0.0f, 0.0f)), 0.35f);
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(0.0f, 1.0f, 0.0f)), 0.5f);
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(0.0f, 0.0f, 1.0f)), 0.15f);
}

TEST(LinearColours, HashFoldsTheChannelBitsIntoTheSeed) {
  // Known answers computed independently of the library from the seed 42 and the 64-bit combine step.
  const LinearRGB_T<float> c(1.0f, 0.5f, 0.25f);
  EXPECT_EQ(hash_value(c), 0x5a24d30447fe97a3ull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>()), 0x10c95e320d6a803eull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>(-0.0f, 0.0f, -0.0f)), 0x10c95e320d6a803eull);
  EXPECT_NE(hash_value(c), hash_value(LinearRGB_T<float>(0.25f, 0.5f, 1.0f)));
  // Both boost and the standard library find it.
  EXPECT_EQ(boost::hash<LinearRGB_T<float>>()(c), static_cast<std::size_t>(0x5a24d30447fe97a3ull));
  std::unordered_set<LinearRGB_T<float>> set{{0.0f, 0.0f, 0.0f}, {-0.0f, 0.0f, 0.0f}, c};
  EXPECT_EQ(set.size(), 2u);
}

}  // namespace
}  // namespace imagery
