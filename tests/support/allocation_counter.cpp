#include "tests/support/allocation_counter.h"

#include <atomic>
#include <cstddef>

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define SENSORLAY_COUNTS_ALLOCATIONS 1
#endif

namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};

inline void note() {
  if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

#ifdef SENSORLAY_COUNTS_ALLOCATIONS
// Linking this file replaces the process's allocator entry points by
// counting ones that hand on to glibc's.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void* malloc(size_t size) {
  note();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  note();
  return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) {
  note();
  return __libc_realloc(p, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  note();
  return __libc_memalign(alignment, size);
}
}
#endif

namespace sensorlay::testing {

bool allocationCountingAvailable() {
#ifdef SENSORLAY_COUNTS_ALLOCATIONS
  return true;
#else
  return false;
#endif
}

void startCountingAllocations() {
  allocations = 0;
  counting = true;
}

long stopCountingAllocations() {
  counting = false;
  return allocations.load();
}

}  // namespace sensorlay::testing
