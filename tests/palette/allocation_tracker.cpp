// The global allocation functions of the palette test program, counting requests for AllocationTracker.
// The array, sized and non-throwing forms the library provides go through these two.
#include "palette/allocation_tracker.h"

#include <cstdlib>
#include <new>

namespace {
thread_local int tracking = 0;
thread_local std::size_t total = 0;
}  // namespace

namespace imagery::palette_testing {

AllocationTracker::AllocationTracker() {
  ++tracking;
  total = 0;
}
AllocationTracker::~AllocationTracker() {
  --tracking;
}
std::size_t AllocationTracker::Total() const {
  return total;
}

}  // namespace imagery::palette_testing

void* operator new(std::size_t size) {
  if (tracking > 0)
    total += size;
  void* p = std::malloc(size ? size : 1);
  if (p == nullptr)
    throw std::bad_alloc();
  return p;
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
