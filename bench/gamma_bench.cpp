// Gamma decoding and encoding over a 4096 x 4096 plane of 8-bit or 16-bit codes, through the tables
// and encoders that pixel loops use and through the per-value reference forms. Each benchmark also
// copies the plane's code bytes with memcpy in the same run and reports "ratio_to_memcpy": the time of
// one pass over the plane divided by the time of that copy.
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "imagery/gamma.h"
#include "imagery/gamma_tables.h"
#include "pixel/srgb_rows.h"

namespace imagery {
namespace {

constexpr std::size_t kPixels = std::size_t{4096} * 4096;
using Clock = std::chrono::steady_clock;

template <class Code>
const std::vector<Code>& CodePlane() {
  static const std::vector<Code> plane = [] {
    std::vector<Code> codes(kPixels);
    std::mt19937 random(2024);
    std::uniform_int_distribution<unsigned> code(0, std::numeric_limits<Code>::max());
    for (Code& c : codes)
      c = static_cast<Code>(code(random));
    return codes;
  }();
  return plane;
}

// Linear values spread over [0, 1] with a few outside it, as filters produce them.
const std::vector<float>& LinearPlane() {
  static const std::vector<float> plane = [] {
    std::vector<float> values(kPixels);
    std::mt19937 random(2025);
    std::uniform_real_distribution<float> value(-0.02f, 1.02f);
    for (float& v : values)
      v = value(random);
    return values;
  }();
  return plane;
}

// Per value through the table or encoder, a whole row at once, or the per-value reference arithmetic.
enum class Path { Table, Row, Reference };

// Runs `pass` once per iteration and a memcpy of `bytes` bytes beside it, outside the timed region.
template <class Pass>
void RunAgainstMemcpy(benchmark::State& state, std::size_t bytes, Pass pass) {
  std::vector<unsigned char> source(bytes, 1), target(bytes, 0);
  std::memcpy(target.data(), source.data(), bytes);  // touch the pages once
  double passSeconds = 0.0;
  double copySeconds = 0.0;
  for (auto _ : state) {
    const auto start = Clock::now();
    pass();
    passSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    benchmark::ClobberMemory();

    state.PauseTiming();
    const auto copyStart = Clock::now();
    std::memcpy(target.data(), source.data(), bytes);
    benchmark::ClobberMemory();
    copySeconds += std::chrono::duration<double>(Clock::now() - copyStart).count();
    state.ResumeTiming();
  }
  state.counters["ratio_to_memcpy"] = passSeconds / copySeconds;
  state.counters["ns_per_value"] = passSeconds * 1e9 / (static_cast<double>(state.iterations()) * kPixels);
}

template <class Code>
void BM_Decode(benchmark::State& state, GammaValue gamma, Path path) {
  const std::vector<Code>& codes = CodePlane<Code>();
  std::vector<float> linear(kPixels);
  const GammaDecodeTable<Code> table(gamma);
  RunAgainstMemcpy(state, kPixels * sizeof(Code), [&] {
    if (path == Path::Table) {
      for (std::size_t i = 0; i < kPixels; ++i)
        linear[i] = table(codes[i]);
    } else if (path == Path::Row) {
      table.DecodeRow(codes.data(), linear.data(), kPixels);
    } else if constexpr (sizeof(Code) == 1) {
      for (std::size_t i = 0; i < kPixels; ++i)
        linear[i] = DecodeChannel8(codes[i], gamma);
    } else {
      for (std::size_t i = 0; i < kPixels; ++i)
        linear[i] = DecodeChannel16(codes[i], gamma);
    }
    benchmark::DoNotOptimize(linear.data());
  });
}

template <class Code>
void BM_Encode(benchmark::State& state, GammaValue gamma, Path path) {
  const std::vector<float>& linear = LinearPlane();
  std::vector<Code> codes(kPixels);
  const GammaEncoder<Code> encoder(gamma);
  RunAgainstMemcpy(state, kPixels * sizeof(Code), [&] {
    if (path == Path::Table) {
      for (std::size_t i = 0; i < kPixels; ++i)
        codes[i] = encoder(linear[i]);
    } else if (path == Path::Row) {
      for (std::size_t row = 0; row < kPixels; row += 4096)
        encoder.EncodeRow(&linear[row], &codes[row], 4096);
    } else if constexpr (sizeof(Code) == 1) {
      for (std::size_t i = 0; i < kPixels; ++i)
        codes[i] = EncodeChannel8(linear[i], gamma);
    } else {
      for (std::size_t i = 0; i < kPixels; ++i)
        codes[i] = EncodeChannel16(linear[i], gamma);
    }
    benchmark::DoNotOptimize(codes.data());
  });
}

// The sRGB rows with each instruction set the processor has, for comparing the kernels.
void BM_EncodeSRGBKernel8(benchmark::State& state, cpu::Level kernel) {
  if (kernel > cpu::Detected()) {
    state.SkipWithError("not available on this processor");
    return;
  }
  const std::vector<float>& linear = LinearPlane();
  std::vector<unsigned char> codes(kPixels);
  RunAgainstMemcpy(state, kPixels, [&] {
    for (std::size_t row = 0; row < kPixels; row += 4096)
      detail::SRGBRowEncoder8(kernel)(&linear[row], &codes[row], 4096);
    benchmark::DoNotOptimize(codes.data());
  });
}

void BM_Decode8(benchmark::State& state, GammaValue gamma, Path path) {
  BM_Decode<unsigned char>(state, gamma, path);
}
void BM_Decode16(benchmark::State& state, GammaValue gamma, Path path) {
  BM_Decode<unsigned short>(state, gamma, path);
}
void BM_Encode8(benchmark::State& state, GammaValue gamma, Path path) {
  BM_Encode<unsigned char>(state, gamma, path);
}
void BM_Encode16(benchmark::State& state, GammaValue gamma, Path path) {
  BM_Encode<unsigned short>(state, gamma, path);
}

const GammaValue kPower(2.2f);

BENCHMARK_CAPTURE(BM_Decode8, srgb_table, gamma::sRGB, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode8, srgb_reference, gamma::sRGB, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode8, power_table, kPower, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode8, power_reference, kPower, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode16, srgb_table, gamma::sRGB, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode16, srgb_reference, gamma::sRGB, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode16, power_table, kPower, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode16, power_reference, kPower, Path::Reference)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(BM_Encode8, srgb_encoder, gamma::sRGB, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode8, srgb_reference, gamma::sRGB, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode8, power_encoder, kPower, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode8, power_reference, kPower, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, srgb_encoder, gamma::sRGB, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, srgb_reference, gamma::sRGB, Path::Reference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, power_encoder, kPower, Path::Table)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, power_reference, kPower, Path::Reference)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(BM_Encode8, srgb_rows, gamma::sRGB, Path::Row)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode8, power_rows, kPower, Path::Row)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, srgb_rows, gamma::sRGB, Path::Row)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode16, power_rows, kPower, Path::Row)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode8, srgb_rows, gamma::sRGB, Path::Row)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Decode16, power_rows, kPower, Path::Row)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(BM_EncodeSRGBKernel8, scalar, cpu::Level::Scalar)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EncodeSRGBKernel8, sse2, cpu::Level::SSE2)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EncodeSRGBKernel8, avx2, cpu::Level::AVX2)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EncodeSRGBKernel8, avx512, cpu::Level::AVX512)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace imagery
