// Counts what operator new hands out on the calling thread while a tracker is alive, so that tests can
// bound what a reader allocates for a given input.
#pragma once

#include <cstddef>

namespace imagery::palette_testing {

class AllocationTracker {
 public:
  AllocationTracker();
  ~AllocationTracker();
  AllocationTracker(const AllocationTracker&) = delete;
  AllocationTracker& operator=(const AllocationTracker&) = delete;

  // The sum of every request since construction: an upper bound of the peak.
  std::size_t Total() const;
};

}  // namespace imagery::palette_testing
