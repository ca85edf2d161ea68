// What a new 4096 x 4096 IT_RGBA8 image costs, made and dropped in a loop as operations make and drop
// their results: "ratio_to_memcpy" divides the time of one round by a memcpy of the image's 64 MiB
// between two buffers touched beforehand, measured in the same run.
//   Zeroed            a new zero-filled image (what Image's constructor gives);
//   ZeroedAndWritten  the same, then one byte written per 4 KiB, which is when the pages arrive: the
//                     price a writer pays before its first pixel;
//   UnsetAndWritten   an image made for a writer that fills every byte (as conversions do), then touched;
//   HeapReference     the plain form: operator new[] of the bytes, a zero fill, delete[].
// The rows run with the plane cache at its default and with the cache off ("imagery/PlaneCacheMegabytes"
// 0), which is what every allocation costs when nothing has been freed recently.
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/plane_memory.h"
#include "imagery_host/settings.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
constexpr std::size_t kBytes = std::size_t(kSize) * kSize * 4;
using Clock = std::chrono::steady_clock;

double MemcpySeconds() {
  static const double seconds = [] {
    std::vector<unsigned char> a(kBytes, 1), b(kBytes, 2);
    double best = 1e9;
    for (int i = 0; i < 5; ++i) {
      const auto start = Clock::now();
      std::memcpy(b.data(), a.data(), kBytes);
      benchmark::DoNotOptimize(b.data());
      best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return best;
  }();
  return seconds;
}

void TouchPages(PixelPlane& plane) {
  unsigned char* data = plane.Data();
  for (std::size_t offset = 0; offset < plane.ByteSize(); offset += 4096)
    data[offset] = 1;
  benchmark::ClobberMemory();
}

class CacheSetting {
 public:
  explicit CacheSetting(bool on) {
    const config::PlaneCacheKey& key = config::PlaneCacheMegabytes;
    ::config::xml::SetProperty(key.name, on ? key.default_value : 0.0f, key.project);
    ReleaseCachedPlaneMemory();
  }
  ~CacheSetting() {
    const config::PlaneCacheKey& key = config::PlaneCacheMegabytes;
    ::config::xml::SetProperty(key.name, key.default_value, key.project);
  }
};

enum class Round { Zeroed, ZeroedAndWritten, UnsetAndWritten, HeapReference };

void BM_NewImage(benchmark::State& state) {
  const auto round = static_cast<Round>(state.range(0));
  const CacheSetting cache(state.range(1) != 0);
  for (auto _ : state) {
    switch (round) {
      case Round::Zeroed: {
        Image image(kSize, kSize, IT_RGBA8, gamma::sRGB);
        benchmark::DoNotOptimize(image.GetImplRef().Plane().Data());
        break;
      }
      case Round::ZeroedAndWritten: {
        Image image(kSize, kSize, IT_RGBA8, gamma::sRGB);
        TouchPages(image.GetImplRef().Plane());
        break;
      }
      case Round::UnsetAndWritten: {
        auto* impl = new ImageImpl(kSize, kSize, IT_RGBA8, gamma::sRGB, nullptr, NewPixels::Unset);
        TouchPages(impl->Plane());
        impl->PixelsWritten();
        Image image(impl);
        break;
      }
      case Round::HeapReference: {
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[kBytes]);
        std::memset(bytes.get(), 0, kBytes);
        benchmark::DoNotOptimize(bytes.get());
        break;
      }
    }
  }
  state.counters["ratio_to_memcpy"] =
      benchmark::Counter(MemcpySeconds() * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["memcpy_ms"] = MemcpySeconds() * 1e3;
  const PlaneMemoryStatistics statistics = GetPlaneMemoryStatistics();
  state.counters["reused_blocks"] = static_cast<double>(statistics.reusedBlocks);
}

BENCHMARK(BM_NewImage)
    ->ArgNames({"round", "cache"})
    ->ArgsProduct({{0, 1, 2, 3}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace imagery
