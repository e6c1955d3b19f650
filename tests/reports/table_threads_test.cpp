// The tables are computed in blocks on several threads; whatever the thread
// count, they must print the same bytes on both streams and leave the
// evaluator as the rows one after another on one thread leave it.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "surface/worker_pool.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"
#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using testing::TempDir;

constexpr double kFullTurn = 6.283185307179586;
double degrees(double d) { return d * 0.005555555555555556 * 3.141592653589793; }

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
    Constellation c;
    c.valid = true;
    for (int i = 0; i < 12; ++i) {
      const float z = 0.9f - 1.6f * i / 11.0f;
      const float r = std::sqrt(1.0f - z * z);
      const Eigen::Vector3f n(r * std::cos(2.4f * i), r * std::sin(2.4f * i), z);
      c.channelMap.push_back(2 * i + 1);
      c.modelPoints.push_back(n * 0.0499f);
      c.modelNormals.push_back(n);
    }
    c.channelMap.push_back(25);
    c.modelPoints.push_back(buried);
    c.modelNormals.push_back({0.0f, 0.0f, -1.0f});
    model = std::make_unique<SensorModel>(c, ModelTransform());
  }
  TempDir dir;
  std::unique_ptr<TrackedSurface> surface;
  std::unique_ptr<SensorModel> model;
};

struct TableRun {
  std::string out, err;
  std::array<double, 7> pose;
  std::vector<bool> visibleNow, everVisible;
};

// One table on `threads` threads, set up as the analysis run does it.
TableRun runTable(const Fixture& f, int threads, bool sensitivity, double tiltDegrees, double stepDegrees) {
  setDefaultThreadCount(threads);
  EXPECT_EQ(defaultWorkerPool().size(), threads);
  CoverageEvaluator evaluator;
  evaluator.model = f.model.get();
  evaluator.surface = f.surface.get();
  if (tiltDegrees != 0.0) {
    evaluator.stationConfig.stationKind = 7;
    evaluator.stationConfig.tiltRadians = degrees(tiltDegrees);
  }
  evaluator.rebuildObservations();
  evaluator.buildReportGrid(kFullTurn, degrees(stepDegrees));
  evaluator.pose[2] = -1.5;

  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  sensitivity ? evaluator.printSensitivityTable() : evaluator.printCoverageTable();
  TableRun run;
  run.out = ::testing::internal::GetCapturedStdout();
  run.err = ::testing::internal::GetCapturedStderr();
  run.pose = evaluator.pose;
  run.visibleNow = evaluator.observations->visibleNow;
  run.everVisible = evaluator.observations->everVisible;
  setDefaultThreadCount(0);
  return run;
}

TEST(TableThreads, EveryThreadCountPrintsTheOneThreadTable) {
  Fixture f;
  // 2 degrees: 16,471 rows, more than one wave of blocks on two threads; 7.5
  // degrees: a few rows per block.
  for (double step : {2.0, 7.5})
    for (double tilt : {0.0, 10.0})
      for (bool sensitivity : {false, true}) {
        const TableRun reference = runTable(f, 1, sensitivity, tilt, step);
        SCOPED_TRACE(std::string(sensitivity ? "sensitivity" : "coverage") + " step " + std::to_string(step) +
                     " tilt " + std::to_string(tilt));
        // The table is not trivial: views with and without sensors, and the
        // buried sensor reported.
        if (!sensitivity) {
          EXPECT_NE(reference.out.find(" 0 0 0 0 100 1.000000 1.000000\n"), std::string::npos);
          EXPECT_NE(reference.out.find(" 0 0 0 100 0 "), std::string::npos);
        }
        EXPECT_NE(reference.err.find("did not see sensor id 25\n"), std::string::npos);
        for (int threads : {2, 3}) {
          const TableRun run = runTable(f, threads, sensitivity, tilt, step);
          ASSERT_EQ(run.out.size(), reference.out.size()) << threads << " threads";
          EXPECT_TRUE(run.out == reference.out) << threads << " threads";
          EXPECT_EQ(run.err, reference.err) << threads << " threads";
          EXPECT_EQ(run.pose, reference.pose) << threads << " threads";
          EXPECT_EQ(run.visibleNow, reference.visibleNow) << threads << " threads";
          EXPECT_EQ(run.everVisible, reference.everVisible) << threads << " threads";
        }
      }
}

TEST(TableThreads, ASensorSeenInOneRowIsSeenWhicheverThreadHadIt) {
  // One sensor faces the station, one faces away; a single row turns the
  // device round and sees only the second. Whichever thread computed that row,
  // the second sensor counts as seen, and when the row is the last, the
  // evaluator is left with its bits and pose.
  Constellation c;
  c.valid = true;
  c.channelMap = {5, 6};
  c.modelPoints = {{0.0f, 0.0f, 0.01f}, {0.0f, 0.0f, -0.01f}};
  c.modelNormals = {{0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, -1.0f}};
  SensorModel model(c, ModelTransform());
  OrientationSample turned;
  turned.quaternion[0] = 0.0;
  turned.quaternion[1] = 1.0;  // half a turn about x
  turned.rotationVector[0] = 3.141592653589793;
  for (int threads : {2, 3})
    for (size_t row : {0, 57, 120, 199}) {
      setDefaultThreadCount(threads);
      CoverageEvaluator evaluator;
      evaluator.model = &model;
      evaluator.rebuildObservations();
      evaluator.samples.assign(200, OrientationSample());
      evaluator.samples[row] = turned;
      ::testing::internal::CaptureStdout();
      ::testing::internal::CaptureStderr();
      evaluator.printCoverageTable();
      const std::string out = ::testing::internal::GetCapturedStdout();
      EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << threads << " threads, row " << row;
      std::istringstream lines(out);
      size_t count = 0, turnedAt = 0;
      for (std::string line; std::getline(lines, line); ++count)
        if (line.substr(line.size() - 2) == " 6") turnedAt = count;
      EXPECT_EQ(count, 200u);
      EXPECT_EQ(turnedAt, row);
      const bool last = row == 199;
      EXPECT_EQ(evaluator.observations->visibleNow, (std::vector<bool>{!last, last})) << row;
      EXPECT_EQ(evaluator.pose[3], last ? 3.141592653589793 : 0.0) << row;  // its rotation vector
    }
  setDefaultThreadCount(0);
}

TEST(TableThreadsDeathTest, AMissingPositionEndsTheProcessFromTheCaller) {
  // A sensor whose channel leaves the model's index after the observation set
  // was made is still seen, but the grade cannot place it. The worker that
  // meets it must leave the ending to the calling thread: an exit from a
  // worker would wait on itself to be joined.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Fixture f;
  EXPECT_EXIT(
      {
        std::freopen("/dev/null", "w", stdout);
        setDefaultThreadCount(2);
        CoverageEvaluator evaluator;
        evaluator.model = f.model.get();
        evaluator.rebuildObservations();
        f.model->channelIndex.erase(7);
        evaluator.buildReportGrid(kFullTurn, degrees(5.0));
        evaluator.printCoverageTable();
      },
      ::testing::ExitedWithCode(1), "The sensor model has no position for channel 7\\.");
}

}  // namespace
}  // namespace sensorlay
