// The host's small value types and containers: tagged options, flag sets, segment clipping and block
// stores. Segments wholly inside, crossing both sides or wholly outside are checked through line drawing.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "imagery_host/block_cache.h"
#include "imagery_host/enum_combiner.h"
#include "imagery_host/geometry.h"
#include "imagery_host/tagged_value.h"

namespace {

struct FirstTag {};
struct SecondTag {};
using First = zellib::TaggedValue<bool, FirstTag>;
using Second = zellib::TaggedValue<bool, SecondTag>;

// Compile-time only: these are the mix-ups the type exists to prevent.
static_assert(!std::is_convertible_v<bool, First>, "a bare bool must name its option");
static_assert(!std::is_convertible_v<First, Second>, "options of different tags are different types");
static_assert(First(true) && First() == First(false));

enum Flag : int { kNone = 0, kGeometry = 1, kFrame = 2, kExposure = 4, kInversions = 8, kLook = 12 };

TEST(EnumCombiner, MasksNeedAllBitsForIsSetAndOneForHasAny) {
  using Options = tools::EnumCombiner<Flag, int>;
  Options options = Options(kGeometry) | kInversions;
  EXPECT_TRUE(!options.IsSet(kLook) && options.HasAny(kLook) && !options.HasAny(kFrame));
  options.Set(kExposure, true).Set(kGeometry, false).Toggle(kFrame).Clear(kInversions);
  EXPECT_EQ(options, Options(kFrame) | kExposure);
  static_assert(Options().IsSet(kNone) && !Options().HasAny(kNone));
}

using Point = zel::TPoint2<float>;

TEST(ClipSegment, KnownSegmentsAgainstTheSquareZeroToFour) {
  struct Case {
    Point a, b;
    bool inside;
    Point clippedA, clippedB;
  };
  const Case cases[] = {
      {{2, 2}, {6, 2}, true, {2, 2}, {4, 2}},   // leaves through the right edge
      {{-1, 3}, {1, 5}, true, {0, 4}, {0, 4}},  // touches one corner only
      {{-1, -1}, {-1, 5}, false, {}, {}},       // parallel, outside
      {{-1, 3}, {1, 6}, false, {}, {}},         // passes by a corner
  };
  for (const Case& c : cases) {
    Point a = c.a, b = c.b;
    EXPECT_EQ(tools::ClipSegment(a, b, 0, 4, 0, 4), c.inside) << "case " << &c - cases;
    EXPECT_TRUE(a == (c.inside ? c.clippedA : c.a) && b == (c.inside ? c.clippedB : c.b))
        << "case " << &c - cases;
  }
  // The bounds come as x range then y range.
  Point a(-5, 1), b(20, 7);
  ASSERT_TRUE(tools::ClipSegment(a, b, 2, 10, 0, 3));
  EXPECT_TRUE(a == Point(2, 2.68f) && b == Point(10.0f / 3, 3))
      << a.x << "," << a.y << " " << b.x << "," << b.y;
  a = Point(std::numeric_limits<float>::quiet_NaN(), 1);
  b = Point(2, std::numeric_limits<float>::infinity());
  EXPECT_FALSE(tools::ClipSegment(a, b, 0, 4, 0, 4));
  EXPECT_TRUE(std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(b.x) && std::isfinite(b.y));
}

TEST(ToolsBlockCache, ImpossibleStoresHoldNothingOffsetsMapToBlocksAndTheLastBlockIsShort) {
  ToolsBlockCache<KORByteArrayPolicy> store;
  ASSERT_TRUE(store.Create(0, 0));
  EXPECT_TRUE(store.GetBlockSize() == 1048576u && store.GetBlockCount() == 1u &&
              store.GetBlock(0) == nullptr);
  // Far more than any machine has: refused without throwing, and the store stays usable.
  EXPECT_FALSE(store.Create(std::uint64_t(1) << 62, std::uint64_t(1) << 62));
  EXPECT_EQ(store.GetTotalSize(), 0u);
  ASSERT_TRUE(store.Create(10, 4));
  ASSERT_EQ(store.GetBlockCount(), 3u);
  for (std::uint64_t offset = 0; offset < 10; ++offset) {
    unsigned char* block = store.GetBlock(offset / 4);
    ASSERT_NE(block, nullptr);
    block[offset % 4] = static_cast<unsigned char>(offset);
  }
  EXPECT_TRUE(store.GetBlock(2)[1] == 9 && store.GetBlock(3) == nullptr);
}

}  // namespace
