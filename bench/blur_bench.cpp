// Blur of a 4096 x 4096 IT_RGBA32f image beside OpenCV measured in the same run ("ratio_to_opencv": our
// time divided by OpenCV's on the same pixels). Our borders wrap around (the texture tiles); OpenCV's
// reflect (its default, BORDER_REFLECT_101): the same amount of work, different border values. Both
// sides allocate their result every time, as users do, and use every thread they are given. The box
// row of radius 50 also reports "ratio_to_radius_10": the running sums make the radius free.
// "alloc_ms"/"alloc_share": the part of ours that is making its two planes (the pass between and the
// result; allocation_share.h). The first call of each side in the process is timed apart
// ("ms_first_ours", "ms_first_opencv") and left out of the rows: on a virtual machine it touches guest
// memory the host has not backed yet, which costs ten times the blur once and never again. Without
// OpenCV the rows are skipped.
#include <chrono>
#include <memory>
#include <random>

#include <benchmark/benchmark.h>

#include "allocation_share.h"
#include "imagery/blur.h"

#ifdef IMAGERY_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace imagery {
namespace {

#ifdef IMAGERY_BENCH_HAVE_OPENCV

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

const Image& Source() {
  static const std::unique_ptr<Image> image = [] {
    auto made = std::make_unique<Image>(kSize, kSize, IT_RGBA32f, gamma::Linear);
    PixelPlane& plane = made->GetImplRef().Plane();
    std::mt19937 random(42);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    for (int y = 0; y < kSize; ++y) {
      float* row = reinterpret_cast<float*>(plane.Row(y));
      for (int i = 0; i < kSize * 4; ++i)
        row[i] = value(random);
    }
    return made;
  }();
  return *image;
}

// The source's pixels seen by OpenCV, without a copy (blue, green, red, alpha floats, as stored).
cv::Mat SourceMat() {
  const PixelPlane& plane = Source().GetImplRef().Plane();
  return cv::Mat(kSize, kSize, CV_32FC4, const_cast<unsigned char*>(plane.Data()),
                 static_cast<std::size_t>(plane.BytesPerLine()));
}

template <class F>
double Seconds(F f) {
  const auto start = Clock::now();
  f();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double TimeBlur(const SeparableBlurKernel& kernel) {
  Image work = Source();
  const double s = Seconds([&] { Blur(work, kernel); });
  benchmark::DoNotOptimize(work.GetImplRef().Plane().Data());
  return s;
}

double BlurAllocationSeconds() {
  return 2.0 * bench::NewImageSeconds(kSize, kSize, IT_RGBA32f);
}

void Report(benchmark::State& state, double ours, double opencv, double allocation) {
  const double n = static_cast<double>(state.iterations());
  state.counters["ms_ours"] = 1000.0 * ours / n;
  state.counters["ms_opencv"] = 1000.0 * opencv / n;
  state.counters["ratio_to_opencv"] = ours / opencv;
  bench::ReportAllocationShare(state, allocation, ours);
}

struct FirstCalls {
  double ours, opencv;
};

const FirstCalls& FirstCallsOfTheProcess() {
  static const FirstCalls first = [] {
    const cv::Mat source = SourceMat();
    FirstCalls calls{};
    calls.ours = TimeBlur(BuildConstantBlurKernel(10, 10));
    calls.opencv = Seconds([&] {
      cv::Mat result;
      cv::blur(source, result, cv::Size(21, 21));
      benchmark::DoNotOptimize(result.data);
    });
    return calls;
  }();
  return first;
}

void BM_BoxBlur(benchmark::State& state) {
  const int radius = static_cast<int>(state.range(0));
  const cv::Mat source = SourceMat();
  const SeparableBlurKernel kernel = BuildConstantBlurKernel(radius, radius);
  const FirstCalls& first = FirstCallsOfTheProcess();
  double ours = 0.0, opencv = 0.0, radius10 = 0.0, allocation = 0.0;
  for (auto _ : state) {
    ours += TimeBlur(kernel);
    allocation += BlurAllocationSeconds();
    opencv += Seconds([&] {
      cv::Mat result;
      cv::blur(source, result, cv::Size(2 * radius + 1, 2 * radius + 1));
      benchmark::DoNotOptimize(result.data);
    });
    if (radius != 10)
      radius10 += TimeBlur(BuildConstantBlurKernel(10, 10));
  }
  Report(state, ours, opencv, allocation);
  if (radius != 10)
    state.counters["ratio_to_radius_10"] = ours / radius10;
  else {
    state.counters["ms_first_ours"] = 1000.0 * first.ours;
    state.counters["ms_first_opencv"] = 1000.0 * first.opencv;
  }
}
BENCHMARK(BM_BoxBlur)
    ->Name("BoxBlur_RGBA32f_4096_wraps_vs_cv_blur_reflects")
    ->Arg(10)
    ->Arg(50)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->UseRealTime();

void BM_GaussianBlur(benchmark::State& state) {
  const cv::Mat source = SourceMat();
  const SeparableBlurKernel kernel = BuildGaussianBlurKernel(2.0f, 2.0f, 6, 6);
  double ours = 0.0, opencv = 0.0, allocation = 0.0;
  for (auto _ : state) {
    ours += TimeBlur(kernel);
    allocation += BlurAllocationSeconds();
    opencv += Seconds([&] {
      cv::Mat result;
      cv::GaussianBlur(source, result, cv::Size(13, 13), 2.0, 2.0);
      benchmark::DoNotOptimize(result.data);
    });
  }
  Report(state, ours, opencv, allocation);
}
BENCHMARK(BM_GaussianBlur)
    ->Name("GaussianBlur_sigma2_r6_RGBA32f_4096_wraps_vs_cv_GaussianBlur_reflects")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->UseRealTime();

#endif

}  // namespace
}  // namespace imagery
