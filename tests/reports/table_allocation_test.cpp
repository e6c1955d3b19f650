// A table row casts a ray for each sensor that faces the station and solves a
// 6 x 6 system; none of it may allocate, or the default table of a quarter of
// a million rows would allocate millions of times. operator new and Eigen both
// end in malloc, which is counted here.

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
namespace {
bool counting = false;
long allocations = 0;
}  // namespace

extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t size) {
  if (counting) ++allocations;
  return __libc_malloc(size);
}

namespace sensorlay {
namespace {

// Allocations of one table, sent to /dev/null.
long allocationsOfTable(CoverageEvaluator& evaluator, bool sensitivity) {
  std::fflush(stdout);
  const int saved = dup(1), devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  allocations = 0;
  counting = true;
  sensitivity ? evaluator.printSensitivityTable() : evaluator.printCoverageTable();
  counting = false;
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  close(devNull);
  return allocations;
}

TEST(TableAllocation, RowsAllocateNothing) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("ball.stl"), testing::sphereMesh(0.05f, 24, 24));
  TrackedSurface surface(dir.file("ball.stl"), {});
  // Eight sensors round the equator and two at the poles, facing out.
  Constellation c;
  c.valid = true;
  for (int i = 0; i < 10; ++i) {
    const Eigen::Vector3f n = i < 8 ? Eigen::Vector3f(std::cos(0.785f * i), std::sin(0.785f * i), 0)
                                    : Eigen::Vector3f(0, 0, i == 8 ? 1 : -1);
    c.channelMap.push_back(i);
    c.modelPoints.push_back(n * 0.0499f);
    c.modelNormals.push_back(n);
  }
  SensorModel model(c, ModelTransform());
  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.surface = &surface;
  evaluator.rebuildObservations();

  // Over 73 and over 2701 directions: a cost per row would show as thousands.
  for (bool sensitivity : {false, true}) {
    evaluator.buildReportGrid(6.283185307179586, 0.5235987755982988);
    const long few = allocationsOfTable(evaluator, sensitivity);
    evaluator.buildReportGrid(6.283185307179586, 0.08726646259971647);
    const long many = allocationsOfTable(evaluator, sensitivity);
    EXPECT_EQ(few, many);
    EXPECT_GE(many, 1);  // the write block is seen: the counter works
    EXPECT_LE(many, 4);
  }
}

}  // namespace
}  // namespace sensorlay
#endif
