#include "quality/coverage_evaluator.h"

#include <gtest/gtest.h>

#include "tests/support/quality_fixtures.h"

namespace sensorlay {
namespace {

TEST(CoverageEvaluator, InformationIsTheInverseOfTheAngleNoise) {
  CoverageEvaluator evaluator;
  // 15 pi urad on each angle, 4 pi urad shared by all angles of one kind.
  const double single = std::pow(15e-6 * M_PI, 2), shared = std::pow(4e-6 * M_PI, 2);
  Eigen::MatrixXd covariance(64, 64);
  for (int i = 0; i < 64; ++i)
    for (int j = 0; j < 64; ++j) covariance(i, j) = (i == j ? single : 0.0) + (i % 2 == j % 2 ? shared : 0.0);
  ASSERT_EQ(evaluator.score.measurementInformation.rows(), 64);
  EXPECT_LT(
      (evaluator.score.measurementInformation * covariance - Eigen::MatrixXd::Identity(64, 64)).cwiseAbs().maxCoeff(),
      1e-9);
  EXPECT_EQ(evaluator.score.measurementInformation(10, 33), 0.0);  // the two kinds of angle are independent
  EXPECT_EQ(evaluator.observations, nullptr);
}

TEST(CoverageEvaluator, RebuildFollowsTheModelsNumbering) {
  const std::pair<int32_t, int32_t> kinds[] = {{0, 1},  {7, 2},  {8, 2},  {9, 1},  {10, 3},
                                               {11, 4}, {12, 1}, {13, 5}, {14, 5}, {-1, 1}};
  for (const auto& [station, sweep] : kinds)
    EXPECT_EQ(static_cast<int32_t>(sweepKindForStation(static_cast<StationKind>(station))), sweep) << station;

  // Channel -1 drops the second sensor from the points, but the index keeps
  // the file's numbering and runs ahead; channel 5 twice gives two records of
  // the later sensor.
  auto model = testing::makeSensorModel({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}},
                                        std::vector<Eigen::Vector3f>(5, Eigen::Vector3f(0, 0, 1)), {3, -1, 4, 5, 5});
  CoverageEvaluator evaluator;
  evaluator.model = model.get();
  evaluator.stationConfig.stationKind = static_cast<StationKind>(13);
  evaluator.rebuildObservations();
  const int32_t expected[] = {0, 2, 4, 4};
  ASSERT_EQ(evaluator.observations->sensorSweeps.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    const SensorSweep& sweep = evaluator.observations->sensorSweeps[i];
    EXPECT_EQ(sweep.sensorIndex, expected[i]);
    EXPECT_EQ(evaluator.observations->visibilityTests[i].sensorIndex, expected[i]);
    EXPECT_EQ(sweep.sweepKind, SweepKind::TiltedRotorD);
    EXPECT_EQ(sweep.stationConfig, &evaluator.stationConfig);
  }

  // A rebuild starts the bits anew; no sensors give no records.
  evaluator.observations->visibleNow.assign(4, false);
  evaluator.observations->everVisible.assign(4, true);
  evaluator.rebuildObservations();
  EXPECT_EQ(evaluator.observations->visibleNow, std::vector<bool>(4, true));
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(4, false));
  auto empty = testing::makeSensorModel({}, {});
  evaluator.model = empty.get();
  evaluator.rebuildObservations();
  EXPECT_TRUE(evaluator.observations->sensorSweeps.empty());
  EXPECT_TRUE(evaluator.observations->visibleNow.empty());
}

}  // namespace
}  // namespace sensorlay
