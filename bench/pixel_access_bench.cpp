// Copying a 4096 x 4096 plane pixel by pixel through the cursors, for every format, through the plane's
// gamma (sRGB, and a power gamma for IT_RGB8) and without gamma, once with the runtime cursors (one
// switch on the format per operation) and once with the typed cursors (one dispatch per image). Grey
// formats copy grey values, formats with alpha colour and alpha, the others colour. Each benchmark
// also copies the plane's bytes with memcpy in the same run and reports "ratio_to_memcpy": the time of
// one pass over the plane divided by the time of that copy.
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

#include "imagery/pixel_access.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

enum class Path { Runtime, Typed };

// What one pixel copy moves, fixed per format so that the loops carry no per-pixel choice.
enum class Kind { Grey, Colour, ColourAlpha };

constexpr Kind KindOf(EImageType type) {
  return IsGrayscale(type) ? Kind::Grey : HasAlpha(type) ? Kind::ColourAlpha : Kind::Colour;
}

template <Kind K, class Reader, class Writer>
void CopyRow(Reader& source, Writer& target, int width) {
  for (int x = 0; x < width; ++x, source.Next(), target.Next()) {
    if constexpr (K == Kind::Grey) {
      float v = 0.0f;
      source.GetPixelGrayscale(v);
      target.SetPixelGrayscale(v);
    } else if constexpr (K == Kind::Colour) {
      LinearRGB_T<float> c;
      source.GetPixelRGB(c);
      target.SetPixelRGB(c);
    } else {
      LinearRGBA_T<float> c;
      source.GetPixelRGBA(c);
      target.SetPixelRGBA(c, c.a);
    }
  }
}

// Runtime cursors are made per row, as the row loops of the conversions make them.
template <Kind K, class Reader, class Writer>
void CopyRuntime(const PixelPlane& source, PixelPlane& target) {
  for (int y = 0; y < source.Height(); ++y) {
    Reader reader(source, 0, y);
    Writer writer(target, 0, y);
    CopyRow<K>(reader, writer, source.Width());
  }
}

// Typed cursors are made once per image and moved to each row.
template <PixelConversion C>
void CopyTyped(const PixelPlane& source, PixelPlane& target) {
  DispatchImageType(source.Type(), [&](auto t) {
    constexpr EImageType T = decltype(t)::value;
    ConstTypedPixelAccess<T, C> reader(source, 0, 0);
    TypedPixelAccess<T, C> writer(target, 0, 0);
    for (int y = 0; y < source.Height(); ++y) {
      reader.MoveTo(0, y);
      writer.MoveTo(0, y);
      CopyRow<KindOf(T)>(reader, writer, source.Width());
    }
  });
}

template <Kind K>
void CopyRuntime(const PixelPlane& source, PixelPlane& target, PixelConversion conversion) {
  if (conversion == PixelConversion::Gamma) {
    CopyRuntime<K, ConstPixelAccess, PixelAccess>(source, target);
  } else {
    CopyRuntime<K, ConstPixelAccessNoGamma, PixelAccessNoGamma>(source, target);
  }
}

void Copy(const PixelPlane& source, PixelPlane& target, PixelConversion conversion, Path path) {
  if (path == Path::Typed) {
    if (conversion == PixelConversion::Gamma) {
      CopyTyped<PixelConversion::Gamma>(source, target);
    } else {
      CopyTyped<PixelConversion::NoGamma>(source, target);
    }
    return;
  }
  switch (KindOf(source.Type())) {
    case Kind::Grey:
      CopyRuntime<Kind::Grey>(source, target, conversion);
      break;
    case Kind::Colour:
      CopyRuntime<Kind::Colour>(source, target, conversion);
      break;
    case Kind::ColourAlpha:
      CopyRuntime<Kind::ColourAlpha>(source, target, conversion);
      break;
  }
}

// The source plane of the last format and gamma asked for: filled once with colours of the range
// filters produce (a little outside [0, 1]) and random alphas, and kept while the benchmarks of that
// plane run, so that only one large source lives at a time.
const PixelPlane& SourcePlane(EImageType type, GammaValue gamma) {
  static std::unique_ptr<PixelPlane> plane;
  if (!plane || plane->Type() != type || plane->Gamma() != gamma) {
    plane.reset();
    plane = std::make_unique<PixelPlane>(kSize, kSize, type, gamma);
    plane->Zero();
    std::mt19937 random(type);
    std::uniform_real_distribution<float> value(-0.02f, 1.05f);
    std::uniform_real_distribution<float> alpha(0.0f, 1.0f);
    for (int y = 0; y < kSize; ++y) {
      PixelAccessNoGamma cursor(*plane, 0, y);
      for (int x = 0; x < kSize; ++x, cursor.Next())
        cursor.SetPixelRGBA({value(random), value(random), value(random)}, alpha(random));
    }
  }
  return *plane;
}

void BM_CopyPixels(benchmark::State& state, EImageType type, GammaValue gamma, PixelConversion conversion,
                   Path path) {
  const PixelPlane& source = SourcePlane(type, gamma);
  PixelPlane target(kSize, kSize, type, gamma);
  const std::size_t bytes = static_cast<std::size_t>(source.ByteSize());
  std::memcpy(target.Data(), source.Data(), bytes);  // touch the pages once
  double passSeconds = 0.0;
  double copySeconds = 0.0;
  for (auto _ : state) {
    const auto start = Clock::now();
    Copy(source, target, conversion, path);
    benchmark::ClobberMemory();
    passSeconds += std::chrono::duration<double>(Clock::now() - start).count();

    state.PauseTiming();
    const auto copyStart = Clock::now();
    std::memcpy(target.Data(), source.Data(), bytes);
    benchmark::ClobberMemory();
    copySeconds += std::chrono::duration<double>(Clock::now() - copyStart).count();
    state.ResumeTiming();
  }
  state.counters["ratio_to_memcpy"] = passSeconds / copySeconds;
  state.counters["ns_per_pixel"] =
      passSeconds * 1e9 / (static_cast<double>(state.iterations()) * kSize * kSize);
}

const char* FormatName(EImageType type) {
  static const char* const kNames[] = {"RGB8",    "Grayscale8",   "RGBA8",       "RGBEA",
                                       "RGB16",   "RGBA16",       "Grayscale16", "RGB32f",
                                       "RGBA32f", "Grayscale32f", "RGEncoded",   "RGEncodedAlpha"};
  return kNames[type];
}

// Registered in format order, so that the benchmarks of one source plane run one after another.
const bool kRegistered = [] {
  struct Variant {
    const char* name;
    GammaValue gamma;
    PixelConversion conversion;
    Path path;
  };
  const Variant variants[] = {
      {"srgb/runtime", gamma::sRGB, PixelConversion::Gamma, Path::Runtime},
      {"srgb/typed", gamma::sRGB, PixelConversion::Gamma, Path::Typed},
      {"nogamma/runtime", gamma::sRGB, PixelConversion::NoGamma, Path::Runtime},
      {"nogamma/typed", gamma::sRGB, PixelConversion::NoGamma, Path::Typed},
  };
  for (int t = IT_RGB8; t < IT_UNDEFINED; ++t) {
    const EImageType type = static_cast<EImageType>(t);
    for (const Variant& v : variants) {
      benchmark::RegisterBenchmark((std::string("BM_CopyPixels/") + FormatName(type) + "/" + v.name).c_str(),
                                   BM_CopyPixels, type, v.gamma, v.conversion, v.path)
          ->Unit(benchmark::kMillisecond);
    }
    if (type == IT_RGB8) {
      for (Path path : {Path::Runtime, Path::Typed}) {
        benchmark::RegisterBenchmark(
            (std::string("BM_CopyPixels/RGB8/power2.2/") + (path == Path::Runtime ? "runtime" : "typed"))
                .c_str(),
            BM_CopyPixels, type, GammaValue(2.2f), PixelConversion::Gamma, path)
            ->Unit(benchmark::kMillisecond);
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace imagery
