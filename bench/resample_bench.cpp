// Resample on large images: 4096 x 4096 reduced to 1024 x 1024 (area-weighted) and 1024 x 1024
// enlarged to 4096 x 4096 (bilinear), in sRGB IT_RGB8 and IT_RGBA8. Each benchmark also runs, in the
// same process, a plain single-threaded resampling with the same arithmetic (runtime cursors made per
// pixel, every weight and sample position computed where it is used) and reports "ratio_to_plain": the
// time of Resample divided by the time of the plain form. The two results are compared once; a
// difference fails the benchmark.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <utility>

#include <benchmark/benchmark.h>

#include "allocation_share.h"
#include "imagery/pixel_access.h"
#include "imagery/resample.h"

namespace imagery {
namespace {

using Clock = std::chrono::steady_clock;

const Image& SourceImage(int size, EImageType type) {
  static std::map<std::pair<int, EImageType>, std::unique_ptr<Image>> images;
  std::unique_ptr<Image>& image = images[{size, type}];
  if (!image) {
    image = std::make_unique<Image>(size, size, type, gamma::sRGB);
    std::mt19937 random(static_cast<unsigned>(size) + type);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    PixelPlane& plane = image->GetImplRef().Plane();
    for (int y = 0; y < size; ++y) {
      PixelAccessNoGamma cursor(plane, 0, y);
      for (int x = 0; x < size; ++x, cursor.Next())
        cursor.SetPixelRGBA({value(random), value(random), value(random)}, value(random));
    }
  }
  return *image;
}

template <bool Alpha>
LinearRGBA_T<float> Get(const PixelPlane& plane, long x, long y) {
  LinearRGBA_T<float> c;
  const ConstPixelAccess cursor(plane, static_cast<int>(x), static_cast<int>(y));
  if constexpr (Alpha) {
    cursor.GetPixelRGBA(c);
  } else {
    cursor.GetPixelRGB(c);
  }
  return c;
}

template <bool Alpha>
void Set(PixelPlane& plane, long x, long y, const LinearRGBA_T<float>& c) {
  PixelAccess cursor(plane, static_cast<int>(x), static_cast<int>(y));
  if constexpr (Alpha) {
    cursor.SetPixelRGBA(c, c.a);
  } else {
    cursor.SetPixelRGB(c);
  }
}

// The plain forms, without margins (the aspect ratio is kept by the sizes chosen).
template <bool Alpha>
void PlainUpsample(const PixelPlane& source, PixelPlane& target) {
  const long w = source.Width(), h = source.Height();
  const float sx = static_cast<float>(w) / static_cast<float>(target.Width());
  const float sy = static_cast<float>(h) / static_cast<float>(target.Height());
  for (long y = 0; y < target.Height(); ++y) {
    for (long x = 0; x < target.Width(); ++x) {
      const float u = (static_cast<float>(x) + 0.5f) * sx - 0.5f;
      const float v = (static_cast<float>(y) + 0.5f) * sy - 0.5f;
      const long x0 = static_cast<long>(std::floor(u)), y0 = static_cast<long>(std::floor(v));
      const float fx = u - static_cast<float>(x0), fy = v - static_cast<float>(y0);
      const long xa = std::clamp(x0, 0L, w - 1), xb = std::clamp(x0 + 1, 0L, w - 1);
      const long ya = std::clamp(y0, 0L, h - 1), yb = std::clamp(y0 + 1, 0L, h - 1);
      const LinearRGBA_T<float> c00 = Get<Alpha>(source, xa, ya), c10 = Get<Alpha>(source, xb, ya);
      const LinearRGBA_T<float> c01 = Get<Alpha>(source, xa, yb), c11 = Get<Alpha>(source, xb, yb);
      const auto mix = [fx, fy](float a, float b, float c, float d) {
        return (1.0f - fy) * ((1.0f - fx) * a + fx * b) + fy * ((1.0f - fx) * c + fx * d);
      };
      Set<Alpha>(target, x, y,
                 {mix(c00.r, c10.r, c01.r, c11.r), mix(c00.g, c10.g, c01.g, c11.g),
                  mix(c00.b, c10.b, c01.b, c11.b), mix(c00.a, c10.a, c01.a, c11.a)});
    }
  }
}

template <bool Alpha>
void PlainDownsample(const PixelPlane& source, PixelPlane& target) {
  const float w = static_cast<float>(source.Width()), h = static_cast<float>(source.Height());
  const float sx = w / static_cast<float>(target.Width());
  const float sy = h / static_cast<float>(target.Height());
  for (long y = 0; y < target.Height(); ++y) {
    for (long x = 0; x < target.Width(); ++x) {
      const float x0 = static_cast<float>(x) * sx, y0 = static_cast<float>(y) * sy;
      const float x1 = std::min(x0 + sx, w), y1 = std::min(y0 + sy, h);
      LinearRGBA_T<float> sum;
      float total = 0.0f;
      for (float ry = y0; ry < y1;) {
        const float nextY = std::min(std::floor(ry) + 1.0f, y1);
        for (float rx = x0; rx < x1;) {
          const float nextX = std::min(std::floor(rx) + 1.0f, x1);
          const float weight = (nextX - rx) * (nextY - ry);
          const LinearRGBA_T<float> c =
              Get<Alpha>(source, static_cast<long>(std::floor(rx)), static_cast<long>(std::floor(ry)));
          sum.r += weight * c.r;
          sum.g += weight * c.g;
          sum.b += weight * c.b;
          sum.a += weight * c.a;
          total += weight;
          rx = nextX;
        }
        ry = nextY;
      }
      Set<Alpha>(target, x, y, {sum.r / total, sum.g / total, sum.b / total, sum.a / total});
    }
  }
}

void BM_Resample(benchmark::State& state, int from, int to, EImageType type) {
  const Image& source = SourceImage(from, type);
  const bool alpha = HasAlpha(type);
  Image plain(to, to, type, gamma::sRGB);
  double resampleSeconds = 0.0;
  double plainSeconds = 0.0;
  double allocationSeconds = 0.0;
  bool compared = false;
  for (auto _ : state) {
    Image work = source;
    const auto start = Clock::now();
    Resample(work, to, to, ResampleOpts());
    resampleSeconds += std::chrono::duration<double>(Clock::now() - start).count();

    state.PauseTiming();
    allocationSeconds += bench::NewImageSeconds(to, to, type);
    const auto plainStart = Clock::now();
    PixelPlane& target = plain.GetImplRef().Plane();
    if (to > from) {
      alpha ? PlainUpsample<true>(source.GetImplRef().Plane(), target)
            : PlainUpsample<false>(source.GetImplRef().Plane(), target);
    } else {
      alpha ? PlainDownsample<true>(source.GetImplRef().Plane(), target)
            : PlainDownsample<false>(source.GetImplRef().Plane(), target);
    }
    benchmark::ClobberMemory();
    plainSeconds += std::chrono::duration<double>(Clock::now() - plainStart).count();
    if (!compared) {
      compared = true;
      const PixelPlane& mine = work.GetImplRef().Plane();
      if (mine.ByteSize() != target.ByteSize() ||
          std::memcmp(mine.Data(), target.Data(), static_cast<std::size_t>(mine.ByteSize())) != 0) {
        state.SkipWithError("Resample differs from the plain resampling");
      }
    }
    state.ResumeTiming();
  }
  state.counters["ratio_to_plain"] = resampleSeconds / plainSeconds;
  state.counters["ms_resample"] = 1000.0 * resampleSeconds / static_cast<double>(state.iterations());
  state.counters["ms_plain"] = 1000.0 * plainSeconds / static_cast<double>(state.iterations());
  bench::ReportAllocationShare(state, allocationSeconds, resampleSeconds);
}

BENCHMARK_CAPTURE(BM_Resample, area_4096_to_1024_RGB8, 4096, 1024, IT_RGB8)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Resample, area_4096_to_1024_RGBA8, 4096, 1024, IT_RGBA8)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_Resample, bilinear_1024_to_4096_RGB8, 1024, 4096, IT_RGB8)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);
BENCHMARK_CAPTURE(BM_Resample, bilinear_1024_to_4096_RGBA8, 1024, 4096, IT_RGBA8)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace
}  // namespace imagery
