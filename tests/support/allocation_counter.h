#pragma once
// Counts calls to the C allocator, where operator new and Eigen's storage end,
// so that a test can show a hot path allocates nothing. Calls from every
// thread count.

namespace sensorlay::testing {

// False where the count can't be taken (a sanitizer brings its own allocator).
bool allocationCountingAvailable();

void startCountingAllocations();
long stopCountingAllocations();

template <class F>
long countAllocations(F&& work) {
  startCountingAllocations();
  work();
  return stopCountingAllocations();
}

}  // namespace sensorlay::testing
