// A test hook that makes pixel-plane allocations fail on demand, so that the library's handling of
// running out of memory can be exercised without exhausting the machine. The failing allocation takes
// the same path a real one does: PixelPlane::Alloc throws std::bad_alloc and leaves the plane as it was.
// Every plane allocation counts, mip levels, backups and temporary planes included.
//
// The countdown is process-wide: tests that arm it must not run plane allocations on other threads
// meanwhile (the library's own worker threads write pixels but do not allocate planes). When no
// failure is armed, an allocation pays one relaxed atomic load.
#pragma once

#include "imagery/export.h"

namespace imagery {
namespace testing {

// Makes the n-th plane allocation from now on fail (n >= 1); n <= 0 disarms. Only one failure is armed
// at a time, and it disarms itself when it fires.
IMAGERY_API void FailPlaneAllocation(int n);
// The allocations still to come before the armed failure, that one included; 0 once it has fired or
// when none is armed. Arming INT_MAX and reading this afterwards counts an operation's allocations.
IMAGERY_API int PlaneAllocationsBeforeFailure();

// Arms a failure for the scope of the object and disarms it on the way out, whether it fired or not.
class ScopedPlaneAllocationFailure {
 public:
  explicit ScopedPlaneAllocationFailure(int n) { FailPlaneAllocation(n); }
  ~ScopedPlaneAllocationFailure() { FailPlaneAllocation(0); }
  ScopedPlaneAllocationFailure(const ScopedPlaneAllocationFailure&) = delete;
  ScopedPlaneAllocationFailure& operator=(const ScopedPlaneAllocationFailure&) = delete;
};

}  // namespace testing
}  // namespace imagery
