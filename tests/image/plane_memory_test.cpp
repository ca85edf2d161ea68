#include "imagery/plane_memory.h"

#include <cstdint>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_impl.h"
#include "imagery/image_list.h"
#include "imagery_host/settings.h"

#if defined(__SANITIZE_ADDRESS__)
#define IMAGERY_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define IMAGERY_TEST_ASAN 1
#endif
#endif

namespace imagery {
namespace {

constexpr std::uint64_t kMiB = 1048576;

// IT_Grayscale8 planes of a whole number of MiB: 1024 bytes per row, no padding.
Image GreyImageOfMiB(int mebibytes) {
  return Image(1024, 1024 * mebibytes, IT_Grayscale8, gamma::sRGB);
}

class PlaneMemory : public ::testing::Test {
 protected:
  // Every test starts and ends with the default limit and an empty cache.
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    SetLimitMiB(config::PlaneCacheMegabytes.default_value);
    ReleaseCachedPlaneMemory();
  }
  static void SetLimitMiB(float megabytes) {
    ::config::xml::SetProperty(config::PlaneCacheMegabytes.name, megabytes,
                               config::PlaneCacheMegabytes.project);
  }
  static constexpr bool kCached =
#if defined(__linux__)
      true;
#else
      false;
#endif
};

// The tests of the cache itself.
class PlaneCache : public PlaneMemory {
 protected:
  void SetUp() override {
    if (!kCached)
      GTEST_SKIP() << "planes come from the heap here";
    PlaneMemory::SetUp();
  }
};

TEST_F(PlaneMemory, ZeroFilledImagesReadAsZeroAlsoOnReusedDirtyBlocks) {
  const std::uint64_t reusedBefore = GetPlaneMemoryStatistics().reusedBlocks;
  for (int round = 0; round < 3; ++round) {
    Image image = GreyImageOfMiB(4);
    PixelPlane& plane = image.GetImplRef().Plane();
    for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
      ASSERT_EQ(plane.Data()[i], 0) << "round " << round << " byte " << i;
    std::memset(plane.Data(), 0xAB, static_cast<std::size_t>(plane.ByteSize()));
  }
  EXPECT_TRUE(!kCached || GetPlaneMemoryStatistics().reusedBlocks - reusedBefore == 2u);
}

TEST_F(PlaneCache, TheCacheNeverKeepsMoreThanItsLimitDropsTheOldestFirstAndEmptiesWithTheScene) {
  SetLimitMiB(10.0f);
  {
    Image first = GreyImageOfMiB(4), second = GreyImageOfMiB(3), third = GreyImageOfMiB(5),
          tooLarge = GreyImageOfMiB(12);
  }
  // Dropped in reverse order: 12 MiB passes the limit alone and goes back at once; 5 + 3 fit, then the
  // 4 MiB block pushes the total to 12 and the oldest (5) leaves.
  PlaneMemoryStatistics statistics = GetPlaneMemoryStatistics();
  EXPECT_TRUE(statistics.cachedBytes == 7 * kMiB && statistics.cachedBlocks == 2u);

  // The 4 MiB block fits a 4 MiB plane best; the 3 MiB block is left.
  {
    Image again = GreyImageOfMiB(4);
    EXPECT_EQ(GetPlaneMemoryStatistics().cachedBytes, 3 * kMiB);
  }
  ImageFactory::GetInstance().GetImageList()->OnSceneClosed();
  EXPECT_EQ(GetPlaneMemoryStatistics().cachedBytes, 0u) << "closing the scene returns the cache";
  // A lowered limit holds from the next release on, for what was kept before too.
  { Image kept = GreyImageOfMiB(2); }
  SetLimitMiB(0.0f);
  { Image off = GreyImageOfMiB(4); }
  statistics = GetPlaneMemoryStatistics();
  EXPECT_TRUE(statistics.cachedBytes == 0u && statistics.cachedBlocks == 0u);
}

TEST_F(PlaneCache, AnUnusableLimitTurnsTheCacheOff) {
  for (float limit : {-5.0f, std::numeric_limits<float>::quiet_NaN()}) {
    SetLimitMiB(limit);
    { Image image = GreyImageOfMiB(4); }
    EXPECT_EQ(GetPlaneMemoryStatistics().cachedBytes, 0u) << limit;
  }
}

#if IMAGERY_TEST_ASAN
// Mapped blocks are not the heap's, so AddressSanitizer sees overruns only where the cache poisons.
TEST_F(PlaneCache, AddressSanitizerSeesWritesPastAPlaneAndIntoCachedBlocks) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        Image image(1000, 3000, IT_Grayscale8, gamma::sRGB);  // 3,000,000 bytes, ending inside a page
        volatile unsigned char* past = image.GetImplRef().Plane().Data() + 3000000;
        *past = 1;
      },
      "use-after-poison");
  EXPECT_DEATH(
      {
        unsigned char* data = nullptr;
        {
          Image image = GreyImageOfMiB(4);
          data = image.GetImplRef().Plane().Data();
        }
        *static_cast<volatile unsigned char*>(data) = 1;
      },
      "use-after-poison");
}
#endif

}  // namespace
}  // namespace imagery
