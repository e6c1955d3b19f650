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

// A table's two streams and the evaluator's state after it.
struct TableRun {
  std::string out, err;
  std::array<double, 7> pose;
  std::vector<bool> visibleNow, everVisible;
};

TableRun printOnThreads(CoverageEvaluator& evaluator, int threads, bool sensitivity) {
  setDefaultThreadCount(threads);
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  sensitivity ? evaluator.printSensitivityTable() : evaluator.printCoverageTable();
  TableRun run{::testing::internal::GetCapturedStdout(), ::testing::internal::GetCapturedStderr(), evaluator.pose,
               evaluator.observations->visibleNow, evaluator.observations->everVisible};
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
        SCOPED_TRACE(std::string(sensitivity ? "sensitivity" : "coverage") + " step " + std::to_string(step) +
                     " tilt " + std::to_string(tilt));
        TableRun runs[3];
        for (int threads : {1, 2, 3}) {
          CoverageEvaluator evaluator;  // set up as the analysis run does it
          evaluator.model = f.model.get();
          evaluator.surface = f.surface.get();
          if (tilt != 0.0) evaluator.stationConfig = {7, degrees(tilt)};
          evaluator.rebuildObservations();
          evaluator.buildReportGrid(kFullTurn, degrees(step));
          evaluator.pose[2] = -1.5;
          runs[threads - 1] = printOnThreads(evaluator, threads, sensitivity);
        }
        // Not a trivial table: views with and without sensors, and the
        // buried sensor reported.
        const TableRun& reference = runs[0];
        if (!sensitivity) {
          EXPECT_NE(reference.out.find(" 0 0 0 0 100 1.000000 1.000000\n"), std::string::npos);
          EXPECT_NE(reference.out.find(" 0 0 0 100 0 "), std::string::npos);
        }
        EXPECT_NE(reference.err.find("did not see sensor id 25\n"), std::string::npos);
        for (const TableRun& run : {runs[1], runs[2]}) {
          EXPECT_TRUE(run.out == reference.out);
          EXPECT_EQ(run.err, reference.err);
          EXPECT_EQ(run.pose, reference.pose);
          EXPECT_EQ(run.visibleNow, reference.visibleNow);
          EXPECT_EQ(run.everVisible, reference.everVisible);
        }
      }
}

TEST(TableThreads, ASensorSeenInOneRowIsSeenWhicheverThreadHadIt) {
  // One sensor faces the station, one faces away; a single row turns the
  // device round and sees only the second. Whichever thread computed that row,
  // its line stands in its place and the second sensor counts as seen; when
  // it is the last row, the evaluator keeps its bits and pose.
  Constellation c;
  c.valid = true;
  c.channelMap = {5, 6};
  c.modelPoints = {{0.0f, 0.0f, 0.01f}, {0.0f, 0.0f, -0.01f}};
  c.modelNormals = {{0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, -1.0f}};
  SensorModel model(c, ModelTransform());
  OrientationSample turned;  // half a turn about x
  turned.quaternion[0] = 0.0;
  turned.quaternion[1] = 1.0;
  turned.rotationVector[0] = 3.141592653589793;
  for (int threads : {2, 3})
    for (size_t row : {0, 57, 120, 199}) {
      CoverageEvaluator evaluator;
      evaluator.model = &model;
      evaluator.rebuildObservations();
      evaluator.samples.assign(200, OrientationSample());
      evaluator.samples[row] = turned;
      const TableRun run = printOnThreads(evaluator, threads, false);
      EXPECT_EQ(run.err, "") << threads << " threads, row " << row;
      std::istringstream lines(run.out);
      size_t count = 0, turnedAt = 0;
      for (std::string line; std::getline(lines, line); ++count)
        if (line.substr(line.size() - 2) == " 6") turnedAt = count;
      EXPECT_EQ(count, 200u);
      EXPECT_EQ(turnedAt, row);
      const bool last = row == 199;
      EXPECT_EQ(run.visibleNow, (std::vector<bool>{!last, last})) << row;
      EXPECT_EQ(run.pose[3], last ? 3.141592653589793 : 0.0) << row;  // its rotation vector
    }
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
