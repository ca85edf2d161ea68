// The row loop of whole-image operations and the row-band tasks: which rows run, where, and in what order
// results are folded.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "imagery/pixel_tasks.h"
#include "imagery/process_pixels.h"

namespace imagery {
namespace {

using RowFunction = std::function<void(ConstRawAccess&, RawAccess&, int)>;

// Which rows a ProcessPixelsT call visited, in order, and on which threads.
struct Visits {
  std::mutex mutex;
  std::vector<int> rows;
  std::set<std::thread::id> threads;
  RowFunction Recorder() {
    return [this](ConstRawAccess&, RawAccess&, int y) {
      std::lock_guard<std::mutex> lock(mutex);
      rows.push_back(y);
      threads.insert(std::this_thread::get_id());
    };
  }
};

TEST(ProcessPixels, RowRanges) {
  struct Case {
    int first, end;
    std::vector<int> rows;
  };
  const Case cases[] = {
      {0, -1, {0, 1, 2, 3, 4}}, {-3, 2, {0, 1}}, {3, 99, {3, 4}}, {5, -1, {}}, {0, -2, {}}, {2, 2, {}}};
  for (const Case& c : cases) {
    Image image(3, 5, IT_RGB8, gamma::sRGB);
    image.GetImplRef().AllocateMipMapGamma();
    image.GetImplRef().AllocateMipMapNoGamma();
    Visits visits;
    ProcessPixelsT<ConstRawAccess, RawAccess>(image, image, visits.Recorder(), InParallel(false), c.first,
                                              c.end);
    EXPECT_EQ(visits.rows, c.rows) << c.first << ".." << c.end;
    EXPECT_EQ(visits.threads.size(), c.rows.empty() ? 0u : 1u);
    // The chains are invalid even when nothing ran.
    EXPECT_FALSE(image.ValidMipMapsGamma());
    EXPECT_FALSE(image.ValidMipMapsNoGamma());
  }
  Image empty(4, 0, IT_RGB8, gamma::sRGB);
  Visits none;
  ProcessPixelsT<ConstRawAccess, RawAccess>(empty, empty, none.Recorder(), InParallel(true), 0, -1);
  EXPECT_TRUE(none.rows.empty());
}

TEST(PixelTasks, BandsCoverEveryRowOnce) {
  struct Case {
    int width, height, pixelsPerTask;
    std::size_t tasks;
  };
  const Case cases[] = {{1024, 130, kPixelsPerTask, 3},  // 64 rows per band, a short last band
                        {70000, 3, kPixelsPerTask, 3},   // wider than a band: one row each
                        {10, 0, kPixelsPerTask, 0},
                        {0, 10, kPixelsPerTask, 0},
                        {7, 1, kPixelsPerTask, 1}};
  for (const Case& c : cases) {
    std::vector<std::atomic<int>> visits(static_cast<std::size_t>(std::max(c.height, 0)));
    auto count = [&visits](int first, int end) {
      for (int y = first; y < end; ++y)
        visits[static_cast<std::size_t>(y)]++;
    };
    EXPECT_EQ(MakePixelTasks(c.width, c.height, count, c.pixelsPerTask).size(), c.tasks);
    ProcessPixelTasks(c.width, c.height, count, c.pixelsPerTask);
    for (int y = 0; y < c.height; ++y)
      EXPECT_EQ(visits[static_cast<std::size_t>(y)].load(), c.width > 0 ? 1 : 0) << y;
  }
}

TEST(PixelTasks, MapReduceFoldsInBandOrder) {
  // A fold that is not commutative: the bands' first rows in band order.
  std::vector<int> expected;
  for (int y = 0; y < 1000; y += 3)
    expected.push_back(y);
  for (int attempt = 0; attempt < 20; ++attempt) {
    const auto result = MapReducePixelTasks<std::vector<int>>(
        20000, 1000, [](int first, int) { return std::vector<int>{first}; },
        [](std::vector<int>& acc, const std::vector<int>& next) {
          acc.insert(acc.end(), next.begin(), next.end());
        },
        65536);
    ASSERT_EQ(result, expected);
  }
  EXPECT_EQ((MapReducePixelTasks<float>(
                10, 0, [](int, int) { return 1.0f; }, [](float& a, const float& b) { a += b; }, 65536)),
            0.0f);

  // The waiting thread takes untaken bands from the back of its list.
  std::vector<std::shared_ptr<PixelTask>> pending{std::make_shared<PixelTask>([] {}),
                                                  std::make_shared<PixelTask>([] {}), nullptr};
  EXPECT_EQ(tools::GetTaskToDo(pending), pending[1]);
  ASSERT_TRUE(pending[1]->TryTake());
  pending[1]->RunTaken();
  EXPECT_EQ(tools::GetTaskToDo(pending), pending[0]);
  EXPECT_EQ(pending.size(), 2u);
}

}  // namespace
}  // namespace imagery
