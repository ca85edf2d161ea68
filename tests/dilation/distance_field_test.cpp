// The chamfer distance field: distances against a pixel-by-pixel two-pass transform, the predicate's
// calls, the neighbour order of the descent, and colour picking against a descent without memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "imagery/distance_field.h"
#include "imagery/image.h"
#include "imagery/pixel_access.h"
#include "imagery_host/scheduler.h"

namespace imagery {
namespace {

using Mask = std::vector<std::vector<bool>>;  // [y][x]

Mask RandomMask(int width, int height, unsigned draw, int percentDefined) {
  std::mt19937 random(draw);
  Mask mask(static_cast<std::size_t>(height), std::vector<bool>(static_cast<std::size_t>(width)));
  for (auto& row : mask)
    for (std::size_t x = 0; x < row.size(); ++x)
      row[x] = static_cast<int>(random() % 100) < percentDefined;
  return mask;
}

// Also checks that the predicate is called once per pixel, in row order, on the calling thread.
DistanceField FieldOf(const Mask& mask) {
  const int height = static_cast<int>(mask.size());
  const int width = height > 0 ? static_cast<int>(mask[0].size()) : 0;
  int calls = 0;
  const std::thread::id caller = std::this_thread::get_id();
  DistanceField field(Image(width, height, IT_Grayscale8, gamma::Linear), [&](int x, int y) {
    EXPECT_EQ(std::make_pair(x, y), std::make_pair(calls % width, calls / width));
    EXPECT_EQ(std::this_thread::get_id(), caller);
    ++calls;
    return static_cast<bool>(mask[y][x]);
  });
  EXPECT_EQ(calls, width * height);
  return field;
}

// The transform as its definition states it, one pixel at a time with saturating sums.
std::vector<std::uint32_t> PlainTwoPass(const Mask& mask) {
  const int h = static_cast<int>(mask.size()), w = static_cast<int>(mask[0].size());
  std::vector<std::uint32_t> d(static_cast<std::size_t>(w * h));
  const auto relax = [&](int x, int y, int dx, int dy, std::uint32_t k) {
    if (x + dx < 0 || x + dx >= w || y + dy < 0 || y + dy >= h)
      return;
    const std::uint32_t n = d[static_cast<std::size_t>((y + dy) * w + x + dx)];
    std::uint32_t& at = d[static_cast<std::size_t>(y * w + x)];
    at = std::min(at, n > kUnreachedDistance - k ? kUnreachedDistance : n + k);
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      d[static_cast<std::size_t>(y * w + x)] = mask[y][x] ? 0 : kUnreachedDistance;
      for (const auto& [dx, dy, k] : {std::tuple{-1, 0, 3u}, {-1, -1, 4u}, {0, -1, 3u}, {1, -1, 4u}})
        relax(x, y, dx, dy, k);
    }
  for (int y = h - 1; y >= 0; --y)
    for (int x = w - 1; x >= 0; --x)
      for (const auto& [dx, dy, k] : {std::tuple{1, 0, 3u}, {1, 1, 4u}, {0, 1, 3u}, {-1, 1, 4u}})
        relax(x, y, dx, dy, k);
  return d;
}

// Small odd sizes, single rows and columns, and fields large enough for a worker to build the forward
// pass behind the predicate and share the backward one; masks with no, every, one and some pixels
// defined. Whatever the worker does, or if none comes (a limit of one thread, or every worker busy), the
// distances are those of the plain transform; on the small sizes every pixel's picked colour is checked.
TEST(DistanceField, MatchesPlainTransformOnAnyThreads) {
  const std::pair<int, int> sizes[] = {{1, 1},    {1, 9},    {13, 1},   {7, 5},   {31, 17},
                                       {1, 5000}, {5000, 1}, {2, 2500}, {67, 71}, {129, 64}};
  const auto check = [](const Mask& mask, const char* how) {
    const std::vector<std::uint32_t> plain = PlainTwoPass(mask);
    const DistanceField field = FieldOf(mask);
    const int width = field.Width(), height = field.Height();
    bool any = false;
    for (const auto& row : mask)
      any |= std::find(row.begin(), row.end(), true) != row.end();
    EXPECT_EQ(field.HasDefinedPixels(), any);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        ASSERT_EQ(field.GetDistance(x, y), plain[static_cast<std::size_t>(y * width + x)])
            << how << ", " << width << "x" << height << " at " << x << "," << y;
    // Picking remembers its answers: asked in any order, every pixel must get the end of its own descent.
    std::vector<std::pair<int, int>> pixels;
    for (int i = 0; any && width * height <= 600 && i < 2 * width * height; ++i)
      pixels.emplace_back(i % width, i / width % height);
    std::shuffle(pixels.begin(), pixels.end(), std::mt19937(width));
    for (const auto& [x, y] : pixels) {
      int ex = x, ey = y, px = x, py = y;
      for (std::uint32_t d = field.GetDistance(ex, ey); d != 0;)
        d = field.GetNextDistance(ex, ey);
      field.GetColorToPickCoordinates(px, py);
      ASSERT_TRUE(std::make_pair(px, py) == std::make_pair(ex, ey) && mask[py][px])
          << how << " at " << x << "," << y;
    }
    EXPECT_TRUE(
        field.GetDistance(-1, 0) == kUnreachedDistance && field.GetDistance(width, 0) == kUnreachedDistance &&
        field.GetDistance(0, -1) == kUnreachedDistance && field.GetDistance(0, height) == kUnreachedDistance);
  };
  unsigned draw = 1;
  for (const auto& [width, height] : sizes) {
    std::vector<Mask> masks = {RandomMask(width, height, draw++, 0), RandomMask(width, height, draw++, 100),
                               RandomMask(width, height, draw++, 1), RandomMask(width, height, draw++, 30)};
    masks.push_back(masks[0]);
    masks.back()[static_cast<std::size_t>(height / 2)][static_cast<std::size_t>(width / 3)] = true;
    for (const Mask& mask : masks) {
      check(mask, "shared");
      {
        tools::ScopedJobThreadLimit alone(1);
        check(mask, "one thread");
      }
      // Every worker held up until the field is done: the calling thread must take both passes back.
      tools::CScheduler& scheduler = tools::GetScheduler<tools::SchedulerType::Default>();
      std::atomic<bool> release{false};
      std::vector<std::shared_ptr<tools::GenericFunctionTask<false>>> blockers;
      for (int i = 0; i < scheduler.GetWorkerCount(); ++i) {
        blockers.push_back(std::make_shared<tools::GenericFunctionTask<false>>([&release] {
          while (!release.load())
            std::this_thread::yield();
        }));
        scheduler.AddTask(blockers.back());
      }
      check(mask, "workers busy");
      release.store(true);
      for (const auto& blocker : blockers)
        blocker->WaitFinished();
    }
  }
}

// A predicate that throws part way leaves no worker waiting for rows that never come; an empty one
// throws at the first pixel.
TEST(DistanceField, ThrowingPredicateStopsTheWorker) {
  EXPECT_THROW(DistanceField(Image(2, 2, IT_RGB8, gamma::sRGB), std::function<bool(int, int)>()),
               std::bad_function_call);
  for (int failAt : {0, 40, 99}) {
    EXPECT_THROW(DistanceField(Image(100, 100, IT_Grayscale8, gamma::Linear),
                               [failAt](int x, int y) -> bool {
                                 if (y == failAt && x == 7)
                                   throw std::runtime_error("no");
                                 return x == y;
                               }),
                 std::runtime_error);
  }
}

// The centre of a 3 x 3 field whose first k neighbours (in the descent's order) are undefined as well:
// every defined neighbour is at 0, so the step goes to neighbour k, the earliest of the ties.
TEST(DistanceField, NextDistanceBreaksTiesInNeighbourOrder) {
  const std::pair<int, int> order[8] = {{-1, 0}, {1, 0}, {0, 1}, {0, -1}, {-1, 1}, {1, 1}, {1, -1}, {-1, -1}};
  for (int k = 0; k < 8; ++k) {
    const DistanceField field(Image(3, 3, IT_Grayscale8, gamma::Linear), [&](int x, int y) {
      if (x == 1 && y == 1)
        return false;
      for (int i = 0; i < k; ++i)
        if (x == 1 + order[i].first && y == 1 + order[i].second)
          return false;
      return true;
    });
    int x = 1, y = 1;
    EXPECT_EQ(field.GetNextDistance(x, y), 0u) << k;
    EXPECT_EQ(std::make_pair(x - 1, y - 1), order[k]) << k;
  }

  // The pixel's own distance plays no part: a defined pixel still steps to its nearest neighbour.
  const DistanceField line = FieldOf({{false, true, false, false}});
  int x = 1, y = 0;
  EXPECT_TRUE(line.GetNextDistance(x, y) == 3u && x == 0);
  // At a border the missing neighbours count as unreached.
  x = 3;
  EXPECT_TRUE(line.GetNextDistance(x, y) == 3u && x == 2);
}

// Distances as grey, 384 units to 1 (saturating in 8 bits); without defined pixels there is nothing to
// pick from.
TEST(DistanceField, FillImageWithDistanceAndPickingWithoutDefinedPixels) {
  const DistanceField none = FieldOf(RandomMask(6, 4, 1, 0));
  int noneX = 5, noneY = 3;
  none.GetColorToPickCoordinates(noneX, noneY);
  EXPECT_EQ(std::make_pair(noneX, noneY), std::make_pair(5, 3));
  Mask mask(1, std::vector<bool>(130, false));
  mask[0][0] = true;
  const DistanceField field = FieldOf(mask);
  Image image(130, 1, IT_Grayscale32f, gamma::Linear);
  field.FillImageWithDistance(image);
  for (int x = 0; x < 130; ++x) {
    float grey = -1.0f;
    ConstPixelAccess(image.GetImplRef().Plane(), x, 0).GetPixelGrayscale(grey);
    EXPECT_EQ(grey, static_cast<float>(3 * x) / 384.0f) << x;  // 1 at x = 128
  }
  // An 8-bit picture saturates beyond 1.
  Image bytes(130, 1, IT_Grayscale8, gamma::Linear);
  field.FillImageWithDistance(bytes);
  const unsigned char* codes = bytes.GetImplRef().Plane().Row(0);
  EXPECT_TRUE(codes[0] == 0 && codes[128] == 255 && codes[129] == 255);
}

}  // namespace
}  // namespace imagery
