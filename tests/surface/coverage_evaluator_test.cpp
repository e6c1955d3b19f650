#include "surface/coverage_evaluator.h"

#include <gtest/gtest.h>

#include <Eigen/Core>

#include "tests/support/quality_fixtures.h"

namespace sensorlay {
namespace {

using testing::makeSensorModel;

TEST(CoverageEvaluator, InformationIsTheInverseOfTheAngleNoise) {
  CoverageEvaluator evaluator;
  const Eigen::MatrixXd& information = evaluator.measurementInformation;
  ASSERT_EQ(information.rows(), 64);
  ASSERT_EQ(information.cols(), 64);

  // 15 pi urad on each angle, 4 pi urad shared by all angles of one kind.
  const double single = std::pow(15e-6 * M_PI, 2), shared = std::pow(4e-6 * M_PI, 2);
  Eigen::MatrixXd covariance(64, 64);
  for (int i = 0; i < 64; ++i)
    for (int j = 0; j < 64; ++j) covariance(i, j) = (i == j ? single : 0.0) + (i % 2 == j % 2 ? shared : 0.0);
  const Eigen::MatrixXd product = information * covariance;
  EXPECT_LT((product - Eigen::MatrixXd::Identity(64, 64)).cwiseAbs().maxCoeff(), 1e-9);

  // First and second angles are independent: mixed parity stays zero.
  EXPECT_EQ(information(0, 1), 0.0);
  EXPECT_EQ(information(10, 33), 0.0);
  EXPECT_LT(information(0, 2), 0.0);
  EXPECT_NEAR(information(0, 2), information(1, 3), 1e-3 * std::abs(information(0, 2)));

  // Nothing else is set up: no observations until a model is given.
  EXPECT_EQ(evaluator.observations, nullptr);
  EXPECT_EQ(evaluator.scoreScale, 1.0);
  const std::array<double, 7> pose = {0, 0, -2, 1, 0, 0, 0};
  EXPECT_EQ(evaluator.pose, pose);
}

TEST(CoverageEvaluator, StationKindSelectsTheSweepKind) {
  const std::pair<int32_t, int32_t> table[] = {{0, 1}, {7, 2}, {8, 2}, {9, 1}, {10, 3}, {11, 4}, {12, 1},
                                               {13, 5}, {14, 5}, {15, 1}, {-1, 1}, {6, 1}};
  for (const auto& [station, sweep] : table) EXPECT_EQ(sweepKindForStation(station), sweep) << station;

  auto model = makeSensorModel({{0, 0, 0}, {1, 0, 0}}, {{0, 0, 1}, {0, 0, 1}});
  CoverageEvaluator evaluator;
  evaluator.model = model.get();
  evaluator.stationConfig.stationKind = 7;
  evaluator.rebuildObservations();
  for (const SensorSweep& sweep : evaluator.observations->sensorSweeps) {
    EXPECT_EQ(sweep.sweepKind, 2);
    EXPECT_EQ(sweep.stationConfig, &evaluator.stationConfig);
    EXPECT_EQ(sweep.model, model.get());
  }
}

TEST(CoverageEvaluator, RebuildFollowsTheModelsNumbering) {
  // Channel -1 drops the second sensor from the model's points, but the
  // channel index keeps the file's numbering: the third sensor's record reads
  // index 2, which runs past the two kept points. Channel 5 appears twice, so
  // both of its records carry the later sensor.
  auto model = makeSensorModel({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}},
                               {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}}, {3, -1, 4, 5, 5});
  ASSERT_EQ(model->points.size(), 4u);
  CoverageEvaluator evaluator;
  evaluator.model = model.get();
  evaluator.rebuildObservations();
  const SweepObservationSet& set = *evaluator.observations;
  ASSERT_EQ(set.sensorSweeps.size(), 4u);
  const int32_t expected[] = {0, 2, 4, 4};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(set.sensorSweeps[i].sensorIndex, expected[i]);
    EXPECT_EQ(set.visibilityTests[i].sensorIndex, expected[i]);
    EXPECT_EQ(set.visibilityTests[i].surface, nullptr);
  }

  // A rebuild starts the bits anew.
  evaluator.observations->visibleNow.assign(4, false);
  evaluator.observations->everVisible.assign(4, true);
  evaluator.rebuildObservations();
  EXPECT_EQ(evaluator.observations->visibleNow, std::vector<bool>(4, true));
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(4, false));

  // No sensors, no records.
  auto empty = makeSensorModel({}, {});
  evaluator.model = empty.get();
  evaluator.rebuildObservations();
  ASSERT_NE(evaluator.observations, nullptr);
  EXPECT_TRUE(evaluator.observations->sensorSweeps.empty());
  EXPECT_TRUE(evaluator.observations->visibilityTests.empty());
  EXPECT_TRUE(evaluator.observations->visibleNow.empty());
}

}  // namespace
}  // namespace sensorlay
