// The allocation's share of an operation that makes a new image. Measured beside each call: the time
// to make an image of the result's size and format for a writer, touch each of its pages once (which
// is when the system delivers them) and drop it, as the benchmark loop makes, writes and drops each
// result. Whatever the plane cache saves a real caller repeating an operation, it saves here too.
#pragma once

#include <chrono>

#include <benchmark/benchmark.h>

#include "imagery/image.h"
#include "imagery/image_impl.h"

namespace imagery {
namespace bench {

inline double NewImageSeconds(int width, int height, EImageType type) {
  const auto start = std::chrono::steady_clock::now();
  {
    auto* impl = new ImageImpl(width, height, type, gamma::sRGB, nullptr, NewPixels::Unset);
    PixelPlane& plane = impl->Plane();
    for (std::uint64_t offset = 0; offset < plane.ByteSize(); offset += 4096)
      plane.Data()[offset] = 0;
    benchmark::ClobberMemory();
    impl->PixelsWritten();
    Image drop(impl);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// "alloc_ms": the allocation per call; "alloc_share": its fraction of the whole call.
inline void ReportAllocationShare(benchmark::State& state, double allocationSeconds, double callSeconds) {
  state.counters["alloc_ms"] = 1000.0 * allocationSeconds / static_cast<double>(state.iterations());
  state.counters["alloc_share"] = callSeconds > 0.0 ? allocationSeconds / callSeconds : 0.0;
}

}  // namespace bench
}  // namespace imagery
