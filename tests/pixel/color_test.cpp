// Packed and linear colour values: byte layout, arithmetic and hashing.
#include <cstring>
#include <unordered_set>

#include <gtest/gtest.h>
#include <boost/functional/hash.hpp>

#include "imagery/color.h"

namespace imagery {
namespace {

TEST(Colours, MemoryLayoutArithmeticAndGrey) {
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
  // Distinct scales per channel expose swapped weights: 0.35 + 0.5 x 10 + 0.15 x 100.
  EXPECT_FLOAT_EQ(GreyValue(LinearRGB_T<float>(1.0f, 10.0f, 100.0f)), 20.35f);
}

TEST(LinearColours, HashFoldsTheChannelBitsIntoAStartValue) {
  // Known answers computed independently of the library from the start value 42 and the 64-bit combine step.
  const LinearRGB_T<float> c(1.0f, 0.5f, 0.25f);
  EXPECT_EQ(hash_value(c), 0x5a24d30447fe97a3ull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>()), 0x10c95e320d6a803eull);
  EXPECT_EQ(hash_value(LinearRGB_T<float>(-0.0f, 0.0f, -0.0f)), 0x10c95e320d6a803eull);
  // Both boost and the standard library find it.
  EXPECT_EQ(boost::hash<LinearRGB_T<float>>()(c), static_cast<std::size_t>(0x5a24d30447fe97a3ull));
  std::unordered_set<LinearRGB_T<float>> set{{0.0f, 0.0f, 0.0f}, {-0.0f, 0.0f, 0.0f}, c};
  EXPECT_EQ(set.size(), 2u);
}

}  // namespace
}  // namespace imagery
