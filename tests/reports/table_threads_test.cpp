// The tables are computed in blocks on several threads, by the fast rows;
// whatever the thread count, they must print the same bytes on both streams
// and leave the evaluator as the reference rows one after another on one
// thread leave it, and their rows must not allocate.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/samples.h"
#include "tests/support/surface_fixtures.h"
#include "tests/support/table_runs.h"

namespace sensorlay {
namespace {

using testing::TempDir;

using testing::degrees;

constexpr double kFullTurn = 6.283185307179586;

// Twelve sensors spread over a 5 cm ball on odd channels, and a thirteenth
// (channel 25) shut inside a small box: never seen. A plate hangs over one
// side and hides some sensors from some directions.
struct Fixture {
  Fixture() {
    const Eigen::Vector3f buried(0.0f, 0.0f, -0.0499f);
    const Eigen::Vector3f half(0.01f, 0.01f, 0.01f);
    surface = testing::buildSurface(
        dir, testing::sphereMesh(0.05f, 24, 24),
        testing::concat(testing::plateMesh(0.06f, 0.08f), testing::boxMesh(buried - half, buried + half)));
    std::vector<Eigen::Vector3f> points, normals;
    std::vector<int32_t> channels;
    for (int i = 0; i < 12; ++i) {
      const float z = 0.9f - 1.6f * i / 11.0f, r = std::sqrt(1.0f - z * z);
      normals.push_back({r * std::cos(2.4f * i), r * std::sin(2.4f * i), z});
      points.push_back(normals.back() * 0.0499f);
      channels.push_back(2 * i + 1);
    }
    points.push_back(buried);
    normals.push_back({0.0f, 0.0f, -1.0f});
    channels.push_back(25);
    model = testing::makeSensorModel(points, normals, channels);
  }
  TempDir dir;
  std::unique_ptr<TrackedSurface> surface;
  std::unique_ptr<SensorModel> model;
};

// A table's two streams and the evaluator's state after it.
struct TableRun {
  std::string out, err;
  std::vector<bool> visibleNow, everVisible;
};

TableRun printOnThreads(CoverageEvaluator& evaluator, int threads, bool sensitivity, RowPath path = RowPath::Fast) {
  WorkerPool pool(threads);
  const testing::PrintedTable table = testing::printTable(evaluator, pool, sensitivity, path);
  return TableRun{table.out, table.err, evaluator.observations->visibleNow, evaluator.observations->everVisible};
}

TEST(TableThreads, EveryThreadCountPrintsTheOneThreadTable) {
  Fixture f;
  // 2 degrees: 16,471 rows, more than one wave of blocks on two threads; 7.5
  // degrees: a few rows per block.
  for (double step : {2.0, 7.5})
    for (double tilt : {0.0, 10.0})
      for (bool sensitivity : {false, true}) {
        SCOPED_TRACE(std::string(sensitivity ? "sensitivity" : "coverage") + " step " + std::to_string(step) +
                     " tilt " + std::to_string(tilt));
        // The reference rows on one thread, the fast ones on one, two and
        // three.
        TableRun runs[4];
        for (int run = 0; run < 4; ++run) {
          CoverageEvaluator evaluator;
          if (tilt != 0.0) evaluator.stationConfig = {StationKind::TiltedRotor, degrees(tilt)};
          testing::attach(evaluator, f.model.get(), f.surface.get());
          evaluator.score.samples = buildReportGrid(kFullTurn, degrees(step));
          evaluator.position.z() = -1.5;
          runs[run] =
              printOnThreads(evaluator, std::max(run, 1), sensitivity, run == 0 ? RowPath::Reference : RowPath::Fast);
        }
        // Not a trivial table: views with and without sensors, and the
        // buried sensor reported.
        const TableRun& reference = runs[0];
        if (!sensitivity) {
          EXPECT_NE(reference.out.find(" 0 0 0 0 100 1.000000 1.000000\n"), std::string::npos);
          EXPECT_NE(reference.out.find(" 0 0 0 100 0 "), std::string::npos);
        }
        EXPECT_NE(reference.err.find("did not see sensor id 25\n"), std::string::npos);
        for (const TableRun& run : {runs[1], runs[2], runs[3]}) {
          EXPECT_TRUE(run.out == reference.out);
          EXPECT_EQ(run.err, reference.err);
          EXPECT_EQ(run.visibleNow, reference.visibleNow);
          EXPECT_EQ(run.everVisible, reference.everVisible);
        }
      }
}

// The fast rows on a real design: the headset with the head in the way and
// 20 sensors, whose views of four and more sensors take the closed-form
// covariance, print the reference rows' bytes.
TEST(TableThreads, FastRowsPrintTheReferenceTableOfTheHeadset) {
  TrackedSurface surface(testing::samplePath("headset.stl"), {testing::samplePath("headset_head.stl")});
  surface.seedGenerator(12);
  std::vector<Eigen::Vector3f> points(20), normals(20);
  for (size_t i = 0; i < points.size(); ++i) ASSERT_TRUE(surface.randomPlacement(points[i], normals[i]));
  auto model = testing::makeSensorModel(points, normals);
  for (bool sensitivity : {false, true}) {
    TableRun runs[2];
    for (int run = 0; run < 2; ++run) {
      CoverageEvaluator evaluator;
      testing::attach(evaluator, model.get(), &surface);
      evaluator.score.samples = buildReportGrid(kFullTurn, degrees(sensitivity ? 2.0 : 1.0));
      runs[run] = printOnThreads(evaluator, 2, sensitivity, run == 0 ? RowPath::Reference : RowPath::Fast);
    }
    EXPECT_GT(runs[0].out.size(), 1000000u >> (sensitivity ? 3 : 0));
    EXPECT_TRUE(runs[1].out == runs[0].out) << sensitivity;
    EXPECT_EQ(runs[1].err, runs[0].err);
    EXPECT_EQ(runs[1].everVisible, runs[0].everVisible);
  }
}

TEST(TableThreads, AMissingPositionStopsTheTableAfterTheRowsBefore) {
  // A sensor whose channel leaves the model's index after the observation set
  // was made is still seen, but the grade cannot place it: the rows before it
  // are written, whichever thread met it, and the complaint comes back.
  Fixture f;
  CoverageEvaluator evaluator;
  evaluator.model = f.model.get();
  evaluator.rebuildObservations();
  f.model->channelIndex.erase(7);
  evaluator.score.samples = buildReportGrid(kFullTurn, degrees(5.0));
  const TableRun run = printOnThreads(evaluator, 2, false);
  EXPECT_EQ(run.err, "The sensor model has no position for channel 7.\n");
  EXPECT_LT(static_cast<size_t>(std::count(run.out.begin(), run.out.end(), '\n')), evaluator.score.samples.size());
  EXPECT_EQ(printOnThreads(evaluator, 1, false).out, run.out);
}

// Allocations of one table, sent to /dev/null.
long allocationsOfTable(CoverageEvaluator& evaluator, WorkerPool& pool, bool sensitivity) {
  std::FILE* devNull = std::fopen("/dev/null", "w");
  const long count = testing::countAllocations([&] {
    const std::vector<OrientationSample>& grid = evaluator.score.samples;
    sensitivity ? printSensitivityTable(evaluator, grid, pool, devNull)
                : printCoverageTable(evaluator, grid, pool, devNull);
  });
  std::fclose(devNull);
  return count;
}

// A row casts a ray for each sensor that faces the station and solves a 6 x 6
// system; none of it may allocate, or the default table of a quarter of a
// million rows would allocate millions of times. The set-up of a table (the
// threads' own state and text buffers) allocates a fixed number of times.
TEST(TableAllocation, RowsAndPoolRunsAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "the allocator is not ours to count";
  Fixture f;
  CoverageEvaluator evaluator;
  testing::attach(evaluator, f.model.get(), f.surface.get());
  for (int threads : {1, 2, 3}) {
    WorkerPool pool(threads);  // the threads start before counting
    std::atomic<long> sum{0};
    EXPECT_EQ(testing::countAllocations([&] { pool.run(100, [&](int i) { sum += i; }); }), 0) << threads;
    // Over 2701 directions and over 16,471, which take more than one wave of
    // blocks: a cost per row or per block would show as a difference.
    for (bool sensitivity : {false, true}) {
      evaluator.score.samples = buildReportGrid(kFullTurn, degrees(5.0));
      const long few = allocationsOfTable(evaluator, pool, sensitivity);
      evaluator.score.samples = buildReportGrid(kFullTurn, degrees(2.0));
      const long many = allocationsOfTable(evaluator, pool, sensitivity);
      EXPECT_EQ(few, many) << threads << " threads";
      EXPECT_GE(many, 1);  // the set-up is seen: the counter works
      EXPECT_LE(many, 20 + 20 * threads) << threads << " threads";
    }
  }
}

}  // namespace
}  // namespace sensorlay
