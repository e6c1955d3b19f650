// A table row casts a ray for each sensor that faces the station and solves a
// 6 x 6 system; none of it may allocate, or the default table of a quarter of
// a million rows would allocate millions of times. The set-up of a table (the
// threads' own state and text buffers) allocates a fixed number of times,
// whatever the number of rows.

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "surface/worker_pool.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::countAllocations;

// Allocations of one table, sent to /dev/null.
long allocationsOfTable(CoverageEvaluator& evaluator, bool sensitivity) {
  std::fflush(stdout);
  const int saved = dup(1), devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  const long count =
      countAllocations([&] { sensitivity ? evaluator.printSensitivityTable() : evaluator.printCoverageTable(); });
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  close(devNull);
  return count;
}

TEST(TableAllocation, RowsAndPoolRunsAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "the allocator is not ours to count";
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

  for (int threads : {1, 2, 3}) {
    setDefaultThreadCount(threads);
    WorkerPool& pool = defaultWorkerPool();  // the threads start before counting
    std::atomic<long> sum{0};
    EXPECT_EQ(countAllocations([&] { pool.run(100, [&](int i) { sum += i; }); }), 0) << threads;

    // Over 2701 directions and over 16,471, which take more than one wave of
    // blocks: a cost per row or per block would show as a difference.
    for (bool sensitivity : {false, true}) {
      evaluator.buildReportGrid(6.283185307179586, 0.08726646259971647);
      const long few = allocationsOfTable(evaluator, sensitivity);
      evaluator.buildReportGrid(6.283185307179586, 0.03490658503988659);
      const long many = allocationsOfTable(evaluator, sensitivity);
      EXPECT_EQ(few, many) << threads << " threads";
      EXPECT_GE(many, 1);  // the set-up is seen: the counter works
      EXPECT_LE(many, 16 + 16 * threads) << threads << " threads";
    }
  }
  setDefaultThreadCount(0);
}

}  // namespace
}  // namespace sensorlay
