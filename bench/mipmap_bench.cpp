// The full Standard mip chain of a 4096 x 4096 sRGB IT_RGBA8 image, against references measured in the
// same run: "ratio_to_memcpy" divides the gamma-correct chain's time by a memcpy of level 0 into memory
// already in use (the chain allocates its levels every time, as users pay it). With OpenCV, the same
// halvings by cv::resize(INTER_AREA) level by level on the stored bytes, without gamma, whose time
// divides ours in "ratio_gamma_to_opencv" and in "ratio_no_gamma_to_opencv" (our linear chain, the
// same arithmetic as OpenCV's apart from our alpha weighting). The chain cuts its large levels into bands
// of rows on the host's pool; OpenCV with its default threading. "alloc_ms"/"alloc_share": the part of
// the gamma-correct chain that is making its levels (allocation_share.h, a plane of each level's size).
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocation_share.h"
#include "imagery/mipmap.h"

#ifdef IMAGERY_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

Image& Source() {
  static const std::unique_ptr<Image> image = [] {
    auto made = std::make_unique<Image>(kSize, kSize, IT_RGBA8, gamma::sRGB);
    PixelPlane& plane = made->GetImplRef().Plane();
    std::mt19937 random(7);
    for (int y = 0; y < kSize; ++y) {
      unsigned char* row = plane.Row(y);
      for (int i = 0; i < kSize * 4; ++i)
        row[i] = static_cast<unsigned char>(random());
    }
    return made;
  }();
  return *image;
}

template <class F>
double Seconds(F f) {
  const auto start = Clock::now();
  f();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double TimeChain(bool gammaCorrect) {
  Image& image = Source();
  image.GetImplRef().InvalidateMipMaps(true, true);
  return Seconds(
      [&] { ComputeMipMapCombined(image, nullptr, GammaCorrectFlag(gammaCorrect), MipMapMethod::Standard); });
}

void BM_StandardChain(benchmark::State& state) {
  const PixelPlane& plane = Source().GetImplRef().Plane();
  std::vector<unsigned char> copy(plane.ByteSize(), 1);
  double chain = 0.0, linearChain = 0.0, memcpySeconds = 0.0, opencv = 0.0, allocation = 0.0;
  for (auto _ : state) {
    chain += TimeChain(true);
    for (int size = kSize / 2; size >= 1; size /= 2)
      allocation += bench::NewImageSeconds(size, size, IT_RGBA8);
    linearChain += TimeChain(false);
    memcpySeconds += Seconds([&] { std::memcpy(copy.data(), plane.Data(), copy.size()); });
    benchmark::DoNotOptimize(copy.data());
#ifdef IMAGERY_BENCH_HAVE_OPENCV
    const cv::Mat level0(kSize, kSize, CV_8UC4, const_cast<unsigned char*>(plane.Data()),
                         static_cast<std::size_t>(plane.BytesPerLine()));
    opencv += Seconds([&] {
      cv::Mat previous = level0;
      while (previous.cols > 1 || previous.rows > 1) {
        cv::Mat next;
        cv::resize(previous, next, cv::Size(std::max(1, previous.cols / 2), std::max(1, previous.rows / 2)),
                   0, 0, cv::INTER_AREA);
        previous = next;
      }
      benchmark::DoNotOptimize(previous.data);
    });
#endif
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["ms_gamma_chain"] = 1000.0 * chain / n;
  state.counters["ms_no_gamma_chain"] = 1000.0 * linearChain / n;
  state.counters["ms_memcpy"] = 1000.0 * memcpySeconds / n;
  state.counters["ratio_to_memcpy"] = chain / memcpySeconds;
  bench::ReportAllocationShare(state, allocation, chain);
  if (opencv > 0.0) {
    state.counters["ms_opencv_area"] = 1000.0 * opencv / n;
    state.counters["ratio_gamma_to_opencv"] = chain / opencv;
    state.counters["ratio_no_gamma_to_opencv"] = linearChain / opencv;
  }
}
BENCHMARK(BM_StandardChain)
    ->Name("MipChain_Standard_RGBA8_sRGB_4096")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->UseRealTime();

}  // namespace
}  // namespace imagery
