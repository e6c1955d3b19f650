// The score runs once for each annealing trial over every sample and sensor;
// it must not allocate once its buffers exist. Every allocation of the
// process is counted here by wrapping the C allocator, which both operator
// new and Eigen end in.

#include <cstdlib>

#include <gtest/gtest.h>

#include <atomic>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/run_binary.h"

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
#define SENSORLAY_COUNT_ALLOCATIONS 1

namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
inline void note() {
  if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

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
void* realloc(void* pointer, size_t size) {
  note();
  return __libc_realloc(pointer, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  note();
  return __libc_memalign(alignment, size);
}
void* memalign(size_t alignment, size_t size) {
  note();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
  note();
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return 12;  // ENOMEM
  *out = p;
  return 0;
}
}
#endif

namespace sensorlay {
namespace {

#ifdef SENSORLAY_COUNT_ALLOCATIONS
long allocationsDuring(CoverageEvaluator& evaluator, double& score) {
  allocations = 0;
  counting = true;
  score = evaluator.scorePlacement();
  counting = false;
  return allocations.load();
}

TEST(ScoreAllocation, RepeatedScoresAllocateNothing) {
  // The counter itself must see an allocation.
  allocations = 0;
  counting = true;
  std::vector<int>* probe = new std::vector<int>(100);
  counting = false;
  delete probe;
  ASSERT_GT(allocations.load(), 0);

  testing::TempDir dir;
  testing::writeStlBinary(dir.file("sphere.stl"), testing::sphereMesh(0.08f, 24, 32));
  testing::writeStlBinary(dir.file("wall.stl"), testing::translated(testing::plateMesh(0.3f, 0.0f), {0.0f, 0.0f, 0.12f}));
  TrackedSurface surface(dir.file("sphere.stl"), {dir.file("wall.stl")});
  ASSERT_GT(surface.faceCount(), 0u);

  // 20 sensors leave views with a dozen or more visible; 40 exceed the 32
  // that the noise model has rows for.
  for (int sensors : {20, 40}) {
    for (const TrackedSurface* occluder : std::initializer_list<const TrackedSurface*>{nullptr, &surface}) {
      auto model = testing::makeSphereSensors(sensors, 0.0805f);
      model->cosMaxIncidence = sensors == 40 ? -1.0 : 0.2;
      CoverageEvaluator evaluator;
      testing::attach(evaluator, model.get(), occluder);
      ::testing::internal::CaptureStderr();
      evaluator.sampleOrientations(200);
      ::testing::internal::GetCapturedStderr();

      double first = 0.0, second = 0.0;
      allocationsDuring(evaluator, first);  // sets up the buffers
      EXPECT_EQ(allocationsDuring(evaluator, second), 0) << sensors << " sensors";
      EXPECT_EQ(first, second);
      if (sensors == 40 && occluder == nullptr) {
        // All 40 seen at every pose: no sample has an answer.
        EXPECT_EQ(first, 1000.0);
      } else {
        EXPECT_GT(first, 0.0);
        EXPECT_LT(first, 1000.0);
      }
    }
  }
}
#endif

}  // namespace
}  // namespace sensorlay
