#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <random>
#include <thread>
#include <type_traits>

#include "imagery_host/enum_combiner.h"
#include "imagery_host/geometry.h"
#include "imagery_host/sync.h"
#include "imagery_host/tagged_value.h"

namespace {

struct FirstTag {};
struct SecondTag {};
using First = zellib::TaggedValue<bool, FirstTag>;
using Second = zellib::TaggedValue<bool, SecondTag>;
using Bits = zellib::TaggedValue<int, SecondTag>;

template <typename A, typename B, typename = void>
struct Comparable : std::false_type {};
template <typename A, typename B>
struct Comparable<A, B, std::void_t<decltype(std::declval<A>() == std::declval<B>())>> : std::true_type {};

TEST(TaggedValue, OptionsCannotBeMixedUp) {
  static_assert(!std::is_convertible_v<bool, First>, "a bare bool must name its option");
  static_assert(!std::is_convertible_v<First, Second>, "options of different tags are different types");
  static_assert(!Comparable<First, Second>::value, "options of different tags do not compare");
  static_assert(Comparable<First, First>::value);

  constexpr First on(true);
  static_assert(on.Value() && First() == First(false));
  EXPECT_TRUE(on);
  EXPECT_NE(on, First(false));
  const Bits bits(24);
  EXPECT_EQ(static_cast<int>(bits) / 8, 3);
}

enum Flag : int {
  kNone = 0,
  kGeometry = 1,
  kFrame = 2,
  kExposure = 4,
  kInversions = 8,
  kLook = kExposure | kInversions
};
enum class Wide : unsigned long long { Low = 1, High = 1ULL << 63 };

TEST(EnumCombiner, SetsClearsAndQueriesFlagsAndMasks) {
  using Options = tools::EnumCombiner<Flag, int>;
  Options options(kGeometry);
  options |= kInversions;
  EXPECT_EQ(options.Value(), 9);
  EXPECT_FALSE(options.IsSet(kLook));
  EXPECT_TRUE(options.HasAny(kLook));
  EXPECT_FALSE(options.HasAny(kFrame));

  options.Set(kExposure, true).Set(kGeometry, false);
  EXPECT_EQ(options, Options(12));
  options.Toggle(kInversions).Toggle(kFrame);
  EXPECT_EQ(options.Value(), kFrame | kExposure);
  options.Clear(kLook);
  EXPECT_EQ(options, Options(kFrame));
  EXPECT_TRUE(options.Reset().IsEmpty());

  constexpr Options all = Options(kGeometry) | kFrame | kLook;
  static_assert(all.Value() == 15);
  static_assert((all & ~Options(kFrame)).Value() == 13);
  static_assert((all ^ Options(kLook)).Value() == 3);
  static_assert(Options().IsSet(kNone) && !Options().HasAny(kNone));
}

TEST(EnumCombiner, UsesTheWholeStorage) {
  using Flags = tools::EnumCombiner<Wide, unsigned long long>;
  Flags flags(Wide::High);
  EXPECT_TRUE(flags.IsSet(Wide::High));
  EXPECT_FALSE(flags.IsSet(Wide::Low));
  flags |= Wide::Low;
  EXPECT_EQ(flags.Value(), (1ULL << 63) | 1ULL);
  EXPECT_EQ((~flags).Value(), ~((1ULL << 63) | 1ULL));
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
    if (c.inside) {
      EXPECT_FLOAT_EQ(a.x, c.clippedA.x);
      EXPECT_FLOAT_EQ(a.y, c.clippedA.y);
      EXPECT_FLOAT_EQ(b.x, c.clippedB.x);
      EXPECT_FLOAT_EQ(b.y, c.clippedB.y);
    }
  }
}

TEST(ClipSegment, BoundsAreXMinXMaxYMinYMax) {
  Point a(-5, 1);
  Point b(20, 1);
  ASSERT_TRUE(tools::ClipSegment(a, b, 2, 10, 0, 3));
  EXPECT_EQ(a, Point(2, 1));
  EXPECT_EQ(b, Point(10, 1));
}

TEST(ClipSegment, RefusesEmptyRectanglesAndNonFiniteInput) {
  Point a(1, 1);
  Point b(2, 2);
  EXPECT_FALSE(tools::ClipSegment(a, b, 4, 0, 0, 4));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  a = Point(nan, 1);
  b = Point(2, inf);
  EXPECT_FALSE(tools::ClipSegment(a, b, 0, 4, 0, 4));
  EXPECT_TRUE(std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(b.x) && std::isfinite(b.y));
}

// Random segments: the clipped part must lie in the rectangle, on the segment, and contain every sampled
// point of the segment that lies well inside the rectangle.
TEST(ClipSegment, AgreesWithSamplingOnRandomSegments) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> coordinate(-30.0f, 40.0f);
  const float xMin = 0, xMax = 17, yMin = 0, yMax = 9;
  const float margin = 1e-3f;
  for (int i = 0; i < 2000; ++i) {
    const Point a0(coordinate(random), coordinate(random));
    const Point b0(coordinate(random), coordinate(random));
    Point a = a0;
    Point b = b0;
    const bool kept = tools::ClipSegment(a, b, xMin, xMax, yMin, yMax);
    const Point d = b0 - a0;
    const double length2 = double(d.x) * d.x + double(d.y) * d.y;
    if (length2 == 0.0) {
      continue;
    }
    auto parameter = [&](Point p) {
      return ((p.x - a0.x) * double(d.x) + (p.y - a0.y) * double(d.y)) / length2;
    };
    if (kept) {
      for (Point end : {a, b}) {
        ASSERT_TRUE(end.x >= xMin && end.x <= xMax && end.y >= yMin && end.y <= yMax) << i;
        const double cross = (end.x - a0.x) * double(d.y) - (end.y - a0.y) * double(d.x);
        ASSERT_LT(std::abs(cross) / std::sqrt(length2), 1e-3) << i;
      }
    }
    for (int s = 0; s <= 200; ++s) {
      const float t = s / 200.0f;
      const Point p = a0 + t * d;
      if (p.x > xMin + margin && p.x < xMax - margin && p.y > yMin + margin && p.y < yMax - margin) {
        ASSERT_TRUE(kept) << i;
        ASSERT_GE(t, parameter(a) - 1e-4) << i;
        ASSERT_LE(t, parameter(b) + 1e-4) << i;
      }
    }
  }
}

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
  auto freeForAnotherThread = [](zel::CriticalSection& section) {
    bool acquired = false;
    std::thread([&] {
      acquired = section.try_lock();
      if (acquired) {
        section.unlock();
      }
    }).join();
    return acquired;
  };
  zel::CriticalSection section;
  {
    std::lock_guard<zel::CriticalSection> outer(section);
    std::unique_lock<zel::CriticalSection> inner(section);
    inner.unlock();
    EXPECT_FALSE(freeForAnotherThread(section));
    // A copy has a lock of its own, free even while the original is held.
    zel::CriticalSection copy(section);
    EXPECT_TRUE(freeForAnotherThread(copy));
  }
  EXPECT_TRUE(freeForAnotherThread(section));
}

}  // namespace
