#include "imagery/plane_memory.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <sanitizer/asan_interface.h>

#include "imagery_host/settings.h"

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#define IMAGERY_MAPPED_PLANES 1
#endif

namespace imagery {
namespace config {
PlaneCacheKey PlaneCacheMegabytes{"imagery/PlaneCacheMegabytes", "kor", 256.0f};
}  // namespace config

namespace {

namespace settings = ::config::xml;

// The initialiser reads the record when it runs, so a host's changed default is the one stored.
void StoreDefault() {
  const config::PlaneCacheKey& key = config::PlaneCacheMegabytes;
  if (!settings::PropertyExists(key.name, key.project))
    settings::SetProperty(key.name, key.default_value, key.project);
}

[[maybe_unused]] const bool kRegistered = [] {
  ::config::xml2::Register(config::PlaneCacheMegabytes.project, config::PlaneCacheMegabytes.name,
                           StoreDefault);
  return true;
}();

std::uint64_t CacheLimitBytes() {
  const config::PlaneCacheKey& key = config::PlaneCacheMegabytes;
  const float megabytes = settings::GetPropertyRef(key.name, key.project, key.default_value);
  // Also refuses NaN. The upper bound keeps the product representable.
  if (!(megabytes > 0.0f))
    return 0;
  return static_cast<std::uint64_t>(std::min(megabytes, 1048576.0f) * 1048576.0f);
}

#if IMAGERY_MAPPED_PLANES

constexpr std::size_t kHugePage = std::size_t(2) << 20;
constexpr std::size_t kMappedFrom = kHugePage;
constexpr auto kIdleLife = std::chrono::seconds(2);
using Clock = std::chrono::steady_clock;

std::size_t PageRounded(std::size_t size) {
  static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

// AddressSanitizer does not watch mapped memory: poisoning what lies outside the plane (the rest of the
// last page, and whole blocks while cached) keeps overruns and uses after release visible to it. A
// mapping given back is unpoisoned first, as the next mapping at that address is someone else's.
void HandOut(unsigned char* block, std::size_t size, std::size_t mapped) {
  ASAN_UNPOISON_MEMORY_REGION(block, size);
  ASAN_POISON_MEMORY_REGION(block + size, mapped - size);
}

void Unmap(unsigned char* block, std::size_t mapped) {
  ASAN_UNPOISON_MEMORY_REGION(block, mapped);
  munmap(block, mapped);
}

unsigned char* MapFresh(std::size_t mapped) {
  // Over-map by one huge page and cut both ends, leaving a 2 MiB-aligned start.
  const std::size_t reserved = mapped + kHugePage;
  void* raw = mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED)
    return nullptr;
  auto* start = static_cast<unsigned char*>(raw);
  const auto address = reinterpret_cast<std::uintptr_t>(start);
  auto* aligned = reinterpret_cast<unsigned char*>((address + kHugePage - 1) / kHugePage * kHugePage);
  if (aligned != start)
    munmap(start, static_cast<std::size_t>(aligned - start));
  unsigned char* end = aligned + mapped;
  if (end != start + reserved)
    munmap(end, static_cast<std::size_t>(start + reserved - end));
  // Refused only where huge pages are off; the mapping works the same with small pages.
  madvise(aligned, mapped, MADV_HUGEPAGE);
  return aligned;
}

struct CachedBlock {
  unsigned char* data;
  std::size_t mapped;
  Clock::time_point freedAt;
};

class BlockCache {
 public:
  // A cached block of at least `mapped` bytes (the smallest that fits, its excess returned), or null.
  unsigned char* Take(std::size_t mapped) {
    std::vector<CachedBlock> expired;
    CachedBlock found{nullptr, 0, {}};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // The only step that can throw comes before any change.
      expired.reserve(blocks_.size());
      TakeExpired(Clock::now(), expired);
      auto best = blocks_.end();
      for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
        if (it->mapped >= mapped && (best == blocks_.end() || it->mapped < best->mapped))
          best = it;
      }
      if (best != blocks_.end()) {
        found = *best;
        blocks_.erase(best);
        cachedBytes_ -= found.mapped;
        ++reused_;
      }
    }
    for (const CachedBlock& block : expired)
      Unmap(block.data, block.mapped);
    if (found.data != nullptr && found.mapped > mapped)
      Unmap(found.data + mapped, found.mapped - mapped);
    return found.data;
  }

  void CountMapped() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++mapped_;
  }

  // Keeps the block, or returns it at once when it alone passes the limit; either way the cache ends
  // within the limit, which may have been lowered since the last call.
  void Give(unsigned char* block, std::size_t mapped) {
    const std::uint64_t limit = CacheLimitBytes();
    const bool keep = mapped <= limit;
    if (keep) {
      // Kept, the pages stay ours until reused, unless the system needs them first; either way their
      // contents no longer matter.
      madvise(block, mapped, MADV_FREE);
      ASAN_POISON_MEMORY_REGION(block, mapped);
    }
    std::vector<CachedBlock> released;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // The only steps that can throw come before any change.
      released.reserve(blocks_.size() + 1);
      blocks_.reserve(blocks_.size() + 1);
      const Clock::time_point now = Clock::now();
      TakeExpired(now, released);
      if (keep) {
        blocks_.push_back({block, mapped, now});
        cachedBytes_ += mapped;
      }
      std::size_t evicted = 0;
      while (cachedBytes_ > limit) {
        cachedBytes_ -= blocks_[evicted].mapped;
        released.push_back(blocks_[evicted++]);
      }
      blocks_.erase(blocks_.begin(), blocks_.begin() + static_cast<std::ptrdiff_t>(evicted));
    }
    if (!keep)
      Unmap(block, mapped);
    for (const CachedBlock& old : released)
      Unmap(old.data, old.mapped);
  }

  void ReleaseAll() {
    std::vector<CachedBlock> released;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      released.swap(blocks_);
      cachedBytes_ = 0;
    }
    for (const CachedBlock& block : released)
      Unmap(block.data, block.mapped);
  }

  PlaneMemoryStatistics Statistics() {
    std::lock_guard<std::mutex> lock(mutex_);
    PlaneMemoryStatistics statistics;
    statistics.cachedBytes = cachedBytes_;
    statistics.cachedBlocks = blocks_.size();
    statistics.mappedBlocks = mapped_;
    statistics.reusedBlocks = reused_;
    return statistics;
  }

 private:
  // Blocks are kept in the order they were freed, so the expired ones lead.
  void TakeExpired(Clock::time_point now, std::vector<CachedBlock>& out) {
    std::size_t count = 0;
    while (count < blocks_.size() && now - blocks_[count].freedAt > kIdleLife) {
      cachedBytes_ -= blocks_[count].mapped;
      out.push_back(blocks_[count++]);
    }
    blocks_.erase(blocks_.begin(), blocks_.begin() + static_cast<std::ptrdiff_t>(count));
  }

  std::mutex mutex_;
  std::vector<CachedBlock> blocks_;
  std::uint64_t cachedBytes_ = 0;
  std::uint64_t mapped_ = 0;
  std::uint64_t reused_ = 0;
};

// Never destroyed: planes of static images are freed after every destructor of this file has run.
BlockCache& Cache() {
  static BlockCache* const cache = new BlockCache;
  return *cache;
}

#endif  // IMAGERY_MAPPED_PLANES

}  // namespace

unsigned char* PlaneMemoryPolicy::Allocate(std::size_t size, bool zeroed) noexcept {
#if IMAGERY_MAPPED_PLANES
  if (size >= kMappedFrom) {
    try {
      const std::size_t mapped = PageRounded(size);
      if (unsigned char* block = Cache().Take(mapped)) {
        HandOut(block, size, mapped);
        if (zeroed)
          std::memset(block, 0, size);
        return block;
      }
      unsigned char* block = MapFresh(mapped);
      if (block == nullptr) {
        // What the cache keeps may be what stands between this plane and success.
        Cache().ReleaseAll();
        block = MapFresh(mapped);
      }
      if (block == nullptr)
        return nullptr;
      Cache().CountMapped();
      HandOut(block, size, mapped);
      return block;
    } catch (...) {
      // The cache's bookkeeping could not grow, or the setting could not be read: no block.
      return nullptr;
    }
  }
#endif
  return static_cast<unsigned char*>(zeroed ? std::calloc(size, 1) : std::malloc(size));
}

void PlaneMemoryPolicy::Free(unsigned char* block, std::size_t size) noexcept {
#if IMAGERY_MAPPED_PLANES
  if (size >= kMappedFrom) {
    const std::size_t mapped = PageRounded(size);
    try {
      Cache().Give(block, mapped);
    } catch (...) {
      Unmap(block, mapped);
    }
    return;
  }
#endif
  std::free(block);
}

PlaneMemoryStatistics GetPlaneMemoryStatistics() {
#if IMAGERY_MAPPED_PLANES
  return Cache().Statistics();
#else
  return {};
#endif
}

void ReleaseCachedPlaneMemory() {
#if IMAGERY_MAPPED_PLANES
  Cache().ReleaseAll();
#endif
}

}  // namespace imagery
