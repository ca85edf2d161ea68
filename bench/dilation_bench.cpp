// The distance field and the edge dilation on a 4096 x 4096 texture whose centre, a disc of radius 1400,
// is undefined (the shape of a hole in an atlas, at a size where each stage shows).
//
// - DistanceField: building the field through its per-pixel predicate, against OpenCV's
//   distanceTransform (DIST_L2 with the 3 x 3 mask, the nearest peer: a two-pass chamfer transform too)
//   on the same mask, "ratio_to_opencv" = field time / OpenCV time. Without OpenCV only the time shows.
//   "ms_predicate_calls" is the floor the interface sets: the same std::function called once per pixel
//   in row order and nothing else.
// - DistanceRunningColor: the dilation of an sRGB IT_RGBA8 texture with a field built fresh for each
//   pass (so every pass picks colours from scratch, as a first dilation does), against a memcpy of the
//   texture's bytes: "ratio_to_memcpy". "peak_added_MB" is the largest resident memory seen during the
//   dilation above what the process held before it (sampled every 200 microseconds by a watching thread);
//   "work_image_MB" is the size of its float working image, the one large block it allocates;
//   "alloc_ms"/"alloc_share" the part of the dilation that is making that image (allocation_share.h).
//
// Every pass pays for its own allocations: the working image comes fresh from the system each time.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "allocation_share.h"
#include "imagery/distance_field.h"
#include "imagery/edge_dilation.h"
#include "imagery/image.h"

#ifdef IMAGERY_BENCH_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace imagery {
namespace {

constexpr int kSize = 4096;
constexpr int kRadius = 1400;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// 1 where the pixel is defined: everywhere outside the central disc.
const std::vector<std::uint8_t>& Mask() {
  static const std::vector<std::uint8_t> mask = [] {
    std::vector<std::uint8_t> m(static_cast<std::size_t>(kSize) * kSize);
    const long centre = kSize / 2;
    for (long y = 0; y < kSize; ++y)
      for (long x = 0; x < kSize; ++x)
        m[static_cast<std::size_t>(y * kSize + x)] =
            (x - centre) * (x - centre) + (y - centre) * (y - centre) > long(kRadius) * kRadius ? 1 : 0;
    return m;
  }();
  return mask;
}

DistanceField BuildField(const Image& image) {
  const std::uint8_t* mask = Mask().data();
  return DistanceField(image,
                       [mask](int x, int y) { return mask[static_cast<std::size_t>(y) * kSize + x] != 0; });
}

// Resident memory of the process, in bytes.
std::int64_t Resident() {
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
      resident = 0;
    std::fclose(statm);
  }
  return static_cast<std::int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

// Watches the resident memory while alive and keeps its highest value.
class PeakWatch {
 public:
  PeakWatch()
      : peak_(Resident()), thread_([this] {
          while (!stop_.load()) {
            peak_.store(std::max(peak_.load(), Resident()));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
          }
        }) {}
  std::int64_t Stop() {
    stop_.store(true);
    thread_.join();
    return std::max(peak_.load(), Resident());
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<std::int64_t> peak_;
  std::thread thread_;
};

void BM_DistanceField(benchmark::State& state) {
  const Image sizeOnly(kSize, kSize, IT_Grayscale8, gamma::Linear);
#ifdef IMAGERY_BENCH_HAVE_OPENCV
  // OpenCV measures the distance of non-zero pixels to the nearest zero one: defined pixels are zeros.
  cv::Mat undefined(kSize, kSize, CV_8U);
  for (int y = 0; y < kSize; ++y)
    for (int x = 0; x < kSize; ++x)
      undefined.at<std::uint8_t>(y, x) = Mask()[static_cast<std::size_t>(y) * kSize + x] ? 0 : 255;
  cv::Mat distances;
#endif
  // One untimed run of each first: the pool's threads, OpenCV's output and the first mapping of the
  // field's memory are paid once per process, not per field.
  BuildField(sizeOnly);
#ifdef IMAGERY_BENCH_HAVE_OPENCV
  cv::distanceTransform(undefined, distances, cv::DIST_L2, 3);
#endif
  double fieldSeconds = 0.0, openCVSeconds = 0.0, predicateSeconds = 0.0;
  for (auto _ : state) {
    const auto start = Clock::now();
    {
      const DistanceField field = BuildField(sizeOnly);
      benchmark::DoNotOptimize(field.GetDistance(kSize / 2, kSize / 2));
    }
    fieldSeconds += Seconds(start);
    state.PauseTiming();
    {
      const std::uint8_t* mask = Mask().data();
      const std::function<bool(int, int)> isDefined = [mask](int x, int y) {
        return mask[static_cast<std::size_t>(y) * kSize + x] != 0;
      };
      const auto predicateStart = Clock::now();
      unsigned defined = 0;
      for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x)
          defined += isDefined(x, y) ? 1u : 0u;
      benchmark::DoNotOptimize(defined);
      predicateSeconds += Seconds(predicateStart);
    }
    state.ResumeTiming();
#ifdef IMAGERY_BENCH_HAVE_OPENCV
    state.PauseTiming();
    const auto openCVStart = Clock::now();
    cv::distanceTransform(undefined, distances, cv::DIST_L2, 3);
    benchmark::ClobberMemory();
    openCVSeconds += Seconds(openCVStart);
    state.ResumeTiming();
#endif
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["ms_field"] = 1e3 * fieldSeconds / n;
  state.counters["ms_predicate_calls"] = 1e3 * predicateSeconds / n;
  if (openCVSeconds > 0.0) {
    state.counters["ms_opencv"] = 1e3 * openCVSeconds / n;
    state.counters["ratio_to_opencv"] = fieldSeconds / openCVSeconds;
  }
}

void BM_DistanceRunningColor(benchmark::State& state) {
  Image texture(kSize, kSize, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = texture.GetImplRef().Plane();
  {
    // Smooth colour with noise, alpha 255 where defined and 0 in the hole.
    std::mt19937 random(5);
    for (int y = 0; y < kSize; ++y) {
      unsigned char* p = plane.Row(y);
      for (int x = 0; x < kSize; ++x, p += 4) {
        p[0] = static_cast<unsigned char>((x >> 4) + (random() & 15));
        p[1] = static_cast<unsigned char>((y >> 4) + (random() & 15));
        p[2] = static_cast<unsigned char>(((x + y) >> 5) + (random() & 15));
        p[3] = Mask()[static_cast<std::size_t>(y) * kSize + x] ? 255 : 0;
      }
    }
  }
  const std::size_t bytes = static_cast<std::size_t>(plane.ByteSize());
  const std::vector<unsigned char> original(plane.Data(), plane.Data() + bytes);
  std::vector<unsigned char> copy(bytes, 1);
  double dilationSeconds = 0.0, copySeconds = 0.0, allocationSeconds = 0.0;
  std::int64_t peakAdded = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(plane.Data(), original.data(), bytes);
    std::unique_ptr<DistanceField> field = std::make_unique<DistanceField>(BuildField(texture));
    PeakWatch watch;
    const std::int64_t before = Resident();
    state.ResumeTiming();

    const auto start = Clock::now();
    DistanceRunningColor(texture, *field);
    dilationSeconds += Seconds(start);

    state.PauseTiming();
    peakAdded = std::max(peakAdded, watch.Stop() - before);
    field.reset();
    const auto copyStart = Clock::now();
    std::memcpy(copy.data(), plane.Data(), bytes);
    benchmark::ClobberMemory();
    copySeconds += Seconds(copyStart);
    allocationSeconds += bench::NewImageSeconds(kSize, kSize, IT_RGB32f);
    state.ResumeTiming();
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["ms_dilation"] = 1e3 * dilationSeconds / n;
  state.counters["ms_memcpy"] = 1e3 * copySeconds / n;
  state.counters["ratio_to_memcpy"] = dilationSeconds / copySeconds;
  state.counters["peak_added_MB"] = static_cast<double>(peakAdded) / (1 << 20);
  state.counters["work_image_MB"] = 12.0 * kSize * kSize / (1 << 20);
  bench::ReportAllocationShare(state, allocationSeconds, dilationSeconds);
}

BENCHMARK(BM_DistanceField)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_DistanceRunningColor)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
}  // namespace imagery
