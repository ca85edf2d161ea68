// Channel operations on a 4096 x 4096 image against a memcpy of its plane measured in the same run
// ("ratio_to_memcpy"): dropping alpha (a new IT_RGB8 implementation filled on the worker pool),
// inverting colour in place (typed cursors on the calling thread), renormalising a normal map (row-band
// tasks) and reframing by a few pixels (row copies on the worker pool).
#include <chrono>
#include <cstring>
#include <functional>
#include <random>

#include <benchmark/benchmark.h>

#include "imagery/channel_ops.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

Image RandomImage(EImageType type) {
  Image image(kSize, kSize, type, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(type);
  std::uniform_int_distribution<int> byte(0, 255);
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(byte(random));
  return image;
}

// `operation` gets a handle on the random image (sharing its implementation) at every iteration.
void Measure(benchmark::State& state, EImageType type, const std::function<void(Image&)>& operation) {
  const Image source = RandomImage(type);
  const PixelPlane& plane = source.GetImplRef().Plane();
  PixelPlane copy(kSize, kSize, type, gamma::sRGB);
  const std::size_t bytes = static_cast<std::size_t>(plane.ByteSize());
  double passSeconds = 0.0;
  double copySeconds = 0.0;
  for (auto _ : state) {
    Image image = source;
    const auto start = Clock::now();
    operation(image);
    benchmark::ClobberMemory();
    passSeconds += std::chrono::duration<double>(Clock::now() - start).count();

    state.PauseTiming();
    const auto copyStart = Clock::now();
    std::memcpy(copy.Data(), plane.Data(), bytes);
    benchmark::ClobberMemory();
    copySeconds += std::chrono::duration<double>(Clock::now() - copyStart).count();
    state.ResumeTiming();
  }
  state.counters["ratio_to_memcpy"] = passSeconds / copySeconds;
}

void BM_DiscardAlpha(benchmark::State& state) {
  Measure(state, IT_RGBA8,
          [](Image& image) { DiscardAlphaInformation(image, CheckInImageList(false), CAI_DontCare); });
}
void BM_InvertColorInPlace(benchmark::State& state) {
  Measure(state, IT_RGB8, [](Image& image) { InvertColorNoGamma(image, IM_InPlace); });
}
void BM_NormalizeNormalMap(benchmark::State& state) {
  Measure(state, IT_RGB8, [](Image& image) { NormalizeNormalMap<IT_RGB8>(image); });
}
void BM_Reframe(benchmark::State& state) {
  Measure(state, IT_RGBA8, [](Image& image) {
    ReframeImage(image, {3, -2}, {static_cast<unsigned long>(kSize), static_cast<unsigned long>(kSize)});
  });
}

BENCHMARK(BM_DiscardAlpha)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InvertColorInPlace)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NormalizeNormalMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Reframe)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace imagery
