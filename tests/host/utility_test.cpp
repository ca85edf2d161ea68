#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <type_traits>

#include "imagery_host/enum_combiner.h"
#include "imagery_host/geometry.h"
#include "imagery_host/tagged_value.h"

namespace {

struct FirstTag {};
struct SecondTag {};
using First = zellib::TaggedValue<bool, FirstTag>;
using Second = zellib::TaggedValue<bool, SecondTag>;

template <typename A, typename B, typename = void>
struct Comparable : std::false_type {};
template <typename A, typename B>
struct Comparable<A, B, std::void_t<decltype(std::declval<A>() == std::declval<B>())>> : std::true_type {};

// Compile-time only: these are the mix-ups the type exists to prevent.
static_assert(!std::is_convertible_v<bool, First>, "a bare bool must name its option");
static_assert(!std::is_convertible_v<First, Second>, "options of different tags are different types");
static_assert(!Comparable<First, Second>::value, "options of different tags do not compare");
static_assert(Comparable<First, First>::value && First(true) && First() == First(false));

enum Flag : int { kNone = 0, kGeometry = 1, kFrame = 2, kExposure = 4, kInversions = 8, kLook = 12 };
enum class Wide : unsigned long long { Low = 1, High = 1ULL << 63 };

TEST(EnumCombiner, MasksNeedAllBitsForIsSetAndOneForHasAny) {
  using Options = tools::EnumCombiner<Flag, int>;
  Options options = Options(kGeometry) | kInversions;
  EXPECT_FALSE(options.IsSet(kLook));
  EXPECT_TRUE(options.HasAny(kLook));
  EXPECT_FALSE(options.HasAny(kFrame));
  options.Set(kExposure, true).Set(kGeometry, false).Toggle(kFrame).Clear(kInversions);
  EXPECT_EQ(options, Options(kFrame) | kExposure);
  static_assert(Options().IsSet(kNone) && !Options().HasAny(kNone));
  // Flags reach the storage's top bit, and the complement covers all of it.
  using Flags = tools::EnumCombiner<Wide, unsigned long long>;
  EXPECT_EQ((~(Flags(Wide::High) | Wide::Low)).Value(), ~((1ULL << 63) | 1ULL));
}

using Point = zel::TPoint2<float>;

TEST(ClipSegment, KnownSegmentsAgainstTheSquareZeroToFour) {
  struct Case {
    Point a, b;
    bool inside;
    Point clippedA, clippedB;
  };
  const Case cases[] = {
      {{1, 1}, {2, 3}, true, {1, 1}, {2, 3}},    // wholly inside: untouched
      {{2, 2}, {6, 2}, true, {2, 2}, {4, 2}},    // leaves through the right edge
      {{6, 1}, {-2, 1}, true, {4, 1}, {0, 1}},   // crosses both sides, ends keep their roles
      {{-1, -1}, {5, 5}, true, {0, 0}, {4, 4}},  // through two corners
      {{-1, 3}, {1, 5}, true, {0, 4}, {0, 4}},   // touches one corner only
      {{0, -3}, {0, 9}, true, {0, 0}, {0, 4}},   // along an edge
      {{3, 3}, {3, 3}, true, {3, 3}, {3, 3}},    // a point inside
      {{5, 5}, {6, 7}, false, {}, {}},          {{-1, -1}, {-1, 5}, false, {}, {}},  // parallel, outside
      {{-1, 3}, {1, 6}, false, {}, {}},                                              // passes by a corner
      {{5, 1}, {5, 1}, false, {}, {}},                                               // a point outside
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "(" << c.a.x << "," << c.a.y << ")-(" << c.b.x << "," << c.b.y << ")");
    Point a = c.a;
    Point b = c.b;
    ASSERT_EQ(tools::ClipSegment(a, b, 0, 4, 0, 4), c.inside);
    EXPECT_EQ(a, c.inside ? c.clippedA : c.a);
    EXPECT_EQ(b, c.inside ? c.clippedB : c.b);
  }

  // The bounds come as x range then y range.
  Point a(-5, 1);
  Point b(20, 7);
  ASSERT_TRUE(tools::ClipSegment(a, b, 2, 10, 0, 3));
  EXPECT_FLOAT_EQ(a.x, 2);
  EXPECT_FLOAT_EQ(a.y, 2.68f);
  EXPECT_FLOAT_EQ(b.x, 10.0f / 3);
  EXPECT_FLOAT_EQ(b.y, 3);
  EXPECT_FALSE(tools::ClipSegment(a, b, 4, 0, 0, 4)) << "an empty rectangle";
  a = Point(std::numeric_limits<float>::quiet_NaN(), 1);
  b = Point(2, std::numeric_limits<float>::infinity());
  EXPECT_FALSE(tools::ClipSegment(a, b, 0, 4, 0, 4));
  EXPECT_TRUE(std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(b.x) && std::isfinite(b.y));
}

}  // namespace
