// A 4096 x 4096 IT_RGBA8 image incorporated in the scene stream: written into a new memory stream and
// read back from one, and the same through a file, each against a memcpy of the plane's bytes into a new
// buffer measured in the same run ("ratio_to_memcpy"). Every pass pays what a user pays: the stream grows
// from empty, the read allocates the new plane.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>

#include <benchmark/benchmark.h>

#include "imagery/image.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

Image RandomImage() {
  Image image(kSize, kSize, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(1);
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(random());
  return image;
}

double MemcpySeconds(const PixelPlane& plane) {
  const std::size_t bytes = static_cast<std::size_t>(plane.ByteSize());
  const auto start = Clock::now();
  std::unique_ptr<unsigned char, decltype(&std::free)> copy(static_cast<unsigned char*>(std::malloc(bytes)),
                                                            &std::free);
  std::memcpy(copy.get(), plane.Data(), bytes);
  benchmark::DoNotOptimize(copy.get());
  benchmark::ClobberMemory();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// `pass` returns the seconds of the measured part of one iteration.
void Measure(benchmark::State& state, const Image& source, const std::function<double()>& pass) {
  double passSeconds = 0.0;
  double copySeconds = 0.0;
  for (auto _ : state) {
    passSeconds += pass();
    copySeconds += MemcpySeconds(source.GetImplRef().Plane());
  }
  state.counters["ratio_to_memcpy"] = passSeconds / copySeconds;
}

void BM_StreamWriteMemory(benchmark::State& state) {
  const Image image = RandomImage();
  Measure(state, image, [&] {
    const auto start = Clock::now();
    ZELMemoryStream stream;
    if (!image.Write(&stream, true, false))
      state.SkipWithError("write failed");
    benchmark::DoNotOptimize(stream.Bytes().data());
    return std::chrono::duration<double>(Clock::now() - start).count();
  });
}

void BM_StreamReadMemory(benchmark::State& state) {
  const Image image = RandomImage();
  ZELMemoryStream written;
  image.Write(&written, true, false);
  Measure(state, image, [&] {
    ZELMemoryStream stream(written.Bytes());
    Image read;
    const auto start = Clock::now();
    if (!read.Read(&stream, IT_UNDEFINED))
      state.SkipWithError("read failed");
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return seconds;
  });
}

ZELPath BenchFile() {
  return ZELPath(
      ZELString::FromUTF8((std::filesystem::temp_directory_path() / "imagery_stream_bench.bin").string()));
}

void BM_StreamWriteFile(benchmark::State& state) {
  const Image image = RandomImage();
  Measure(state, image, [&] {
    const auto start = Clock::now();
    ZELFileStream stream(BenchFile(), ZELFileStream::Mode::Write);
    if (!image.Write(&stream, true, false) || !stream.Close())
      state.SkipWithError("write failed");
    return std::chrono::duration<double>(Clock::now() - start).count();
  });
}

void BM_StreamReadFile(benchmark::State& state) {
  const Image image = RandomImage();
  {
    ZELFileStream stream(BenchFile(), ZELFileStream::Mode::Write);
    image.Write(&stream, true, false);
  }
  Measure(state, image, [&] {
    const auto start = Clock::now();
    ZELFileStream stream(BenchFile(), ZELFileStream::Mode::Read);
    Image read;
    if (!read.Read(&stream, IT_UNDEFINED))
      state.SkipWithError("read failed");
    return std::chrono::duration<double>(Clock::now() - start).count();
  });
}

BENCHMARK(BM_StreamWriteMemory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StreamReadMemory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StreamWriteFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StreamReadFile)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace imagery
