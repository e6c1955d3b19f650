// A table row casts a ray for each sensor that faces the station and solves a
// 6 x 6 system; none of it may allocate, or the default table of a quarter of
// a million rows would allocate millions of times. Every allocation of the
// process is counted here by wrapping the C allocator, which both operator new
// and Eigen end in.

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
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
// Allocations of one table over the evaluator's samples, with the table sent
// to /dev/null.
long allocationsOfTable(CoverageEvaluator& evaluator, bool sensitivity) {
  std::fflush(stdout);
  const int saved = dup(1);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  close(devNull);
  allocations = 0;
  counting = true;
  if (sensitivity)
    evaluator.printSensitivityTable();
  else
    evaluator.printCoverageTable();
  counting = false;
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return allocations.load();
}

TEST(TableAllocation, RowsAllocateNothing) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("ball.stl"), testing::sphereMesh(0.05f, 24, 24));
  TrackedSurface surface(dir.file("ball.stl"), {});
  ASSERT_GT(surface.faceCount(), 0u);

  // Eight sensors round the equator and two at the poles, facing out.
  Constellation c;
  c.valid = true;
  for (int i = 0; i < 10; ++i) {
    const double a = i * 0.7853981633974483;
    const Eigen::Vector3f n =
        i < 8 ? Eigen::Vector3f(std::cos(a), std::sin(a), 0) : Eigen::Vector3f(0, 0, i == 8 ? 1 : -1);
    c.channelMap.push_back(i);
    c.modelPoints.push_back(n * 0.0499f);
    c.modelNormals.push_back(n);
  }
  SensorModel model(c, ModelTransform());
  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.surface = &surface;
  evaluator.rebuildObservations();

  // The same table over 73 and over 2701 directions: a cost per row would
  // show as a difference of thousands.
  for (bool sensitivity : {false, true}) {
    evaluator.buildReportGrid(6.283185307179586, 0.5235987755982988);
    const long few = allocationsOfTable(evaluator, sensitivity);
    evaluator.buildReportGrid(6.283185307179586, 0.08726646259971647);
    const long many = allocationsOfTable(evaluator, sensitivity);
    EXPECT_EQ(few, many) << (sensitivity ? "sensitivity" : "coverage");
    // The write block at least is seen, so the counter works; little else is.
    EXPECT_GE(many, 1);
    EXPECT_LE(many, 4);
  }
}
#endif

}  // namespace
}  // namespace sensorlay
