// Every conversion of a 4096 x 4096 image from every source format, against copies measured in the
// same run: "ratio_to_memcpy" is the time of one conversion divided by the time of a memcpy of the
// source bytes; "ratio_to_memcpy_larger" divides it by a memcpy of the larger of the source and the
// result (a conversion that widens each pixel, say 8-bit grey to four floats, writes many times the bytes
// it reads, and no copy of the source alone can match that). "cpu_ms" is the processor time of one
// conversion summed over its threads. Sources are sRGB where the format is gamma encoded; grey
// conversions auto-scale where noted (a second pass over the source).
//
// Every conversion allocates its result (and writes every byte of it, without a zero fill first), as a
// caller's conversion does: "alloc_ms" and "alloc_share" give the allocation's part (allocation_share.h).
#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocation_share.h"
#include "imagery/colour_spaces.h"
#include "imagery/conversions.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

// The source of the last format asked for, kept while the benchmarks of that format run, so that
// only one large source lives at a time.
const Image& Source(EImageType type) {
  static std::unique_ptr<Image> image;
  if (!image || image->ImageType() != type) {
    image.reset();
    image = std::make_unique<Image>(kSize, kSize, type, gamma::sRGB);
    PixelPlane& plane = image->GetImplRef().Plane();
    std::mt19937 random(type);
    std::uniform_real_distribution<float> value(-0.02f, 1.05f);
    for (int y = 0; y < kSize; ++y) {
      unsigned char* p = plane.Row(y);
      const int bytes = kSize * plane.BytesPerPixel();
      if (IsFloat(type)) {
        for (int i = 0; i < bytes; i += 4) {
          const float v = value(random);
          std::memcpy(p + i, &v, sizeof v);
        }
      } else if (type == IT_RGBEA) {
        // Packed colours of the same range: random exponent bytes would mostly stand for values far
        // below the smallest normal float, which no picture holds and which slow every operation down.
        for (int i = 0; i < bytes; i += 5) {
          RGBECLR packed;
          packed.FromFloat({value(random), value(random), value(random)});
          p[i] = packed.r;
          p[i + 1] = packed.g;
          p[i + 2] = packed.b;
          p[i + 3] = packed.e;
          p[i + 4] = static_cast<unsigned char>(random());
        }
      } else {
        for (int i = 0; i < bytes; i += 4) {
          const std::uint32_t word = random();
          std::memcpy(p + i, &word, static_cast<std::size_t>(std::min(4, bytes - i)));
        }
      }
    }
  }
  return *image;
}

using Conversion = std::function<void(Image&)>;

void BM_Convert(benchmark::State& state, EImageType type, const Conversion& convert, bool inPlace) {
  const Image& source = Source(type);
  const PixelPlane& plane = source.GetImplRef().Plane();
  const std::size_t bytes = static_cast<std::size_t>(plane.ByteSize());
  std::vector<unsigned char> copy(bytes);
  std::memcpy(copy.data(), plane.Data(), bytes);  // touch the pages once
  std::size_t resultBytes = 0;
  EImageType resultType = type;
  {
    std::unique_ptr<Image> probe(inPlace ? source.DeepCopy() : new Image(source));
    convert(*probe);
    resultBytes = static_cast<std::size_t>(probe->GetImplRef().Plane().ByteSize());
    resultType = probe->ImageType();
  }
  // The copy of the larger side, between two blocks of its own, both touched once.
  const std::size_t largerBytes = std::max(bytes, resultBytes);
  std::vector<unsigned char> largerFrom(largerBytes, 1);
  std::vector<unsigned char> largerTo(largerBytes, 0);
  double convertSeconds = 0.0;
  double convertCpuSeconds = 0.0;
  double copySeconds = 0.0;
  double largerCopySeconds = 0.0;
  double allocationSeconds = 0.0;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<Image> image(inPlace ? source.DeepCopy() : new Image(source));
    state.ResumeTiming();
    const auto start = Clock::now();
    const std::clock_t cpuStart = std::clock();
    convert(*image);
    benchmark::ClobberMemory();
    convertSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    convertCpuSeconds += static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;

    state.PauseTiming();
    image.reset();
    const auto copyStart = Clock::now();
    std::memcpy(copy.data(), plane.Data(), bytes);
    benchmark::ClobberMemory();
    copySeconds += std::chrono::duration<double>(Clock::now() - copyStart).count();
    const auto largerStart = Clock::now();
    std::memcpy(largerTo.data(), largerFrom.data(), largerBytes);
    benchmark::ClobberMemory();
    largerCopySeconds += std::chrono::duration<double>(Clock::now() - largerStart).count();
    allocationSeconds += bench::NewImageSeconds(kSize, kSize, resultType);
    state.ResumeTiming();
  }
  state.counters["ratio_to_memcpy"] = convertSeconds / copySeconds;
  state.counters["ratio_to_memcpy_larger"] = convertSeconds / largerCopySeconds;
  // Processor time of every thread of the process: less disturbed than wall time on a busy machine.
  state.counters["cpu_ms"] = convertCpuSeconds * 1e3 / static_cast<double>(state.iterations());
  bench::ReportAllocationShare(state, allocationSeconds, convertSeconds);
  state.counters["ns_per_pixel"] =
      convertSeconds * 1e9 / (static_cast<double>(state.iterations()) * kSize * kSize);
}

const char* FormatName(EImageType type) {
  static const char* const kNames[] = {"RGB8",    "Grayscale8",   "RGBA8",       "RGBEA",
                                       "RGB16",   "RGBA16",       "Grayscale16", "RGB32f",
                                       "RGBA32f", "Grayscale32f", "RGEncoded",   "RGEncodedAlpha"};
  return kNames[type];
}

struct Target {
  const char* name;
  EImageType result;  // the benchmark is skipped when the source already has this format
  Conversion convert;
  bool inPlace = false;  // rewrites the image's own pixels, so each pass works on a deep copy
};

const std::vector<Target>& Targets() {
  const AlphaConversionOptions opaque(false, false);
  const AlphaConversionOptions alpha(true, true);
  static const std::vector<Target> targets = {
      {"ToGrayscale8", IT_Grayscale8,
       [](Image& i) {
         ToGrayscale8(i, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(false),
                      InvertGrayRange(false), CAI_Care);
       }},
      {"ToGrayscale8/autoscale", IT_Grayscale8,
       [](Image& i) {
         ToGrayscale8(i, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true),
                      InvertGrayRange(false), CAI_Care);
       }},
      {"ToGrayscale16/autoscale", IT_Grayscale16,
       [](Image& i) { ToGrayscale16(i, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true)); }},
      {"ToGrayScale32f", IT_Grayscale32f,
       [](Image& i) { ToGrayScale32f(i, CheckInImageList(false), AutoScaleGrayScale(false)); }},
      {"ToRGB8", IT_RGB8, [opaque](Image& i) { ToRGB8(i, gamma::sRGB, opaque, CAI_Care); }},
      {"ToRGBA8", IT_RGBA8, [alpha](Image& i) { ToRGB8(i, gamma::sRGB, alpha, CAI_Care); }},
      {"ToRGB16", IT_RGB16, [opaque](Image& i) { ToRGB16(i, gamma::sRGB, opaque); }},
      {"ToRGBA16", IT_RGBA16, [alpha](Image& i) { ToRGB16(i, gamma::sRGB, alpha); }},
      {"ToRGB32f", IT_RGB32f, [opaque](Image& i) { ToRGB32f(i, opaque); }},
      {"ToRGBA32f", IT_RGBA32f, [alpha](Image& i) { ToRGB32f(i, alpha); }},
      {"ToRGBEA", IT_RGBEA, [](Image& i) { ToRGBEA(i); }},
      {"Reencode/power2.2", IT_UNDEFINED, [](Image& i) { Reencode(i, GammaValue(2.2f)); }, true},
  };
  return targets;
}

// Registered by source format, so that the benchmarks of one source run one after another.
const bool kRegistered = [] {
  for (int t = IT_RGB8; t < IT_UNDEFINED; ++t) {
    const EImageType type = static_cast<EImageType>(t);
    for (const Target& target : Targets()) {
      if (target.result == type || (target.result == IT_UNDEFINED && !IsGammaEncoded(type)))
        continue;
      benchmark::RegisterBenchmark(
          (std::string("BM_Convert/") + FormatName(type) + "/" + target.name).c_str(), BM_Convert, type,
          target.convert, target.inPlace)
          ->Unit(benchmark::kMillisecond)
          ->Iterations(4);
    }
  }
  return true;
}();

}  // namespace
}  // namespace imagery
