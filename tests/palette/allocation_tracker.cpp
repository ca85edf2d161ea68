// The global allocation functions of the palette test program, counting requests for AllocationTracker.
#include "palette/allocation_tracker.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int tracking = 0;
thread_local std::size_t total = 0;
thread_local std::size_t largest = 0;

void* Allocate(std::size_t size) {
  if (tracking > 0) {
    total += size;
    if (size > largest)
      largest = size;
  }
  void* p = std::malloc(size ? size : 1);
  if (p == nullptr)
    throw std::bad_alloc();
  return p;
}

void* AllocateNoThrow(std::size_t size) noexcept {
  try {
    return Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

namespace imagery::palette_testing {

AllocationTracker::AllocationTracker() {
  ++tracking;
  total = largest = 0;
}
AllocationTracker::~AllocationTracker() {
  --tracking;
}
std::size_t AllocationTracker::Total() const {
  return total;
}
std::size_t AllocationTracker::Largest() const {
  return largest;
}

}  // namespace imagery::palette_testing

void* operator new(std::size_t size) {
  return Allocate(size);
}
void* operator new[](std::size_t size) {
  return Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateNoThrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateNoThrow(size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
