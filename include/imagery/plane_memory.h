// Where the bytes of pixel planes come from, and the cache that keeps recently freed ones.
//
// A large plane (2 MiB and more) is mapped straight from the operating system, 2 MiB-aligned and
// advised for transparent huge pages, so that first touching a 64 MiB plane costs a few dozen page
// faults instead of sixteen thousand. A fresh mapping reads as zeros, so a zero-filled plane made from
// one needs no fill. When a large plane is freed its block goes to a bounded cache and the next large
// plane takes it (trimmed if it is bigger), paying neither the mapping nor the faults; a cached block
// handed to a zero-filled plane is filled. Smaller planes, and every plane off Linux, come from the heap.
//
// The cache never holds more than the setting "imagery/PlaneCacheMegabytes" of project "kor" (default
// 256; 0 turns it off); the oldest blocks go first when a new one would pass it. A block left unused for
// two seconds is returned at the next large allocation or release, and every cached block is marked
// reclaimable, so that the system can take it back under memory pressure even while the process sleeps.
// ReleaseCachedPlaneMemory returns everything at once; ImageList::OnSceneClosed calls it.
//
// Every function here is thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagery/export.h"

namespace imagery {

namespace config {
struct IMAGERY_API PlaneCacheKey {
  const char* name;
  const char* project;
  float default_value;
};
// Megabytes (2^20 bytes) the cache may keep. Writable so that a host can change the default before
// resetting the settings.
extern IMAGERY_API PlaneCacheKey PlaneCacheMegabytes;
}  // namespace config

struct PlaneMemoryStatistics {
  std::uint64_t cachedBytes = 0;
  std::size_t cachedBlocks = 0;
  // Since the process started: large blocks mapped fresh, and large blocks taken from the cache.
  std::uint64_t mappedBlocks = 0;
  std::uint64_t reusedBlocks = 0;
};

IMAGERY_API PlaneMemoryStatistics GetPlaneMemoryStatistics();
// Returns every cached block to the operating system.
IMAGERY_API void ReleaseCachedPlaneMemory();

// The allocation policy of plane stores (see ToolsBlockCache): null when the memory cannot be had.
struct IMAGERY_API PlaneMemoryPolicy {
  static unsigned char* Allocate(std::size_t size, bool zeroed) noexcept;
  static void Free(unsigned char* block, std::size_t size) noexcept;
};

}  // namespace imagery
