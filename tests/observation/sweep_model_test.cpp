#include "observation/sweep_model.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "tests/support/sensor_models.h"

namespace sensorlay {
namespace {

using testing::makeSensorModel;

constexpr double kHalfPi = 1.5707963267948966;
const std::vector<Eigen::Vector3f> kUp(4, Eigen::Vector3f(0, 0, 1));

// Channel -1 drops the second sensor from the points, but the index keeps the
// file's numbering and runs ahead; channel 5 twice gives two records of the
// later sensor. A new set starts its bits anew.
TEST(ObservationSet, RecordsFollowTheModelsNumbering) {
  auto model = testing::makeSensorModel({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}},
                                        std::vector<Eigen::Vector3f>(5, Eigen::Vector3f(0, 0, 1)), {3, -1, 4, 5, 5});
  StationConfig station;
  station.stationKind = static_cast<StationKind>(13);
  const auto set = makeObservationSet(model.get(), nullptr, station);
  const int32_t expected[] = {0, 2, 4, 4};
  ASSERT_EQ(set->sensorSweeps.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(set->sensorSweeps[i].sensorIndex, expected[i]);
    EXPECT_EQ(set->visibilityTests[i].sensorIndex, expected[i]);
    EXPECT_EQ(set->sensorSweeps[i].sweepKind, SweepKind::TiltedRotorD);
    EXPECT_EQ(set->sensorSweeps[i].stationConfig, &station);
  }
  EXPECT_EQ(set->visibleNow, std::vector<bool>(4, true));
  EXPECT_EQ(set->everVisible, std::vector<bool>(4, false));
  auto empty = testing::makeSensorModel({}, {});
  EXPECT_TRUE(makeObservationSet(empty.get(), nullptr, station)->sensorSweeps.empty());
}

TEST(SweepModel, TwoSweepAnglesCentreAndSigns) {
  // 2 m in front of the station: one sensor straight ahead, one to +x, one to +y.
  auto model = makeSensorModel({{0, 0, 0}, {0.1f, 0, 0}, {0, 0.1f, 0}}, {kUp.begin(), kUp.begin() + 3});
  const StationConfig station;
  const auto set = makeObservationSet(model.get(), nullptr, station);
  const PoseParameters pose = {{0, 0, -2}, {0, 0, 0}};
  double angles[6];
  ASSERT_TRUE(differentiateObservations(*set, pose, 6, angles, nullptr));
  const double expected[6] = {kHalfPi, kHalfPi, std::atan2(2.0, model->points[1].x()),
                              kHalfPi, kHalfPi, std::atan2(2.0, -model->points[2].y())};
  for (int r = 0; r < 6; ++r) EXPECT_EQ(angles[r], expected[r]) << r;
}

// Also at the zero rotation vector, where the quaternion takes its Taylor
// form: there X moves as w x p, and its derivatives are not 0.
// The parameters as six numbers, the position first.
PoseParameters parametersOf(const std::array<double, 6>& p) { return {{p[0], p[1], p[2]}, {p[3], p[4], p[5]}}; }

TEST(SweepModel, JacobianMatchesCentralDifferences) {
  auto model =
      makeSensorModel({{0.03f, -0.05f, 0.07f}, {-0.06f, 0.02f, 0.01f}, {0, 0.08f, -0.04f}, {0.05f, 0.05f, 0.05f}}, kUp);
  for (const std::array<double, 6>& pose :
       {std::array<double, 6>{0.12, -0.07, -1.8, 0.3, -0.5, 0.2}, std::array<double, 6>{0.1, 0.2, -2, 0, 0, 0}}) {
    for (int32_t stationKind : {0, 7, 11}) {
      StationConfig station;
      station.stationKind = static_cast<StationKind>(stationKind);
      const auto set = makeObservationSet(model.get(), nullptr, station);
      double angles[8], jacobian[48], up[8], down[8];
      ASSERT_TRUE(differentiateObservations(*set, parametersOf(pose), 8, angles, jacobian));
      for (int c = 0; c < 6; ++c) {
        std::array<double, 6> plus = pose, minus = pose;
        plus[c] += 1e-6;
        minus[c] -= 1e-6;
        ASSERT_TRUE(evaluateObservations<double>(*set, parametersOf(plus), up));
        ASSERT_TRUE(evaluateObservations<double>(*set, parametersOf(minus), down));
        for (int r = 0; r < 8; ++r)
          EXPECT_NEAR(jacobian[r * 6 + c], (up[r] - down[r]) / 2e-6, 1e-6) << stationKind << " " << r << " " << c;
      }
    }
  }
}

TEST(SweepModel, TiltedRotorRowsAndTheirReach) {
  // Second sensor straight above the station (x = z = 0 there), third beyond
  // the tilted plane's reach.
  auto model = makeSensorModel({{0.1f, 0.2f, 0}, {0, 0.5f, 2}, {0.1f, 4, 0}}, {kUp.begin(), kUp.begin() + 3});
  StationConfig station;
  station.stationKind = StationKind::TiltedRotor;
  station.tiltRadians = 0.0;
  const auto observations = makeObservationSet(model.get(), nullptr, station);
  SweepObservationSet& set = *observations;
  const PoseParameters pose = {{0, 0, -2}, {0, 0, 0}};
  double angles[6] = {}, jacobian[36] = {};

  // Without tilt both planes read one rotor angle, a third of a turn apart.
  set.visibleNow = {true, false, false};
  ASSERT_TRUE(differentiateObservations(set, pose, 2, angles, jacobian));
  EXPECT_NEAR(angles[1] - angles[0], 2.0943951023931953, 1e-15);
  // The tilt is read through the station: no rebuild.
  station.tiltRadians = 0.5;
  ASSERT_TRUE(differentiateObservations(set, pose, 2, angles, jacobian));
  const Eigen::Vector3d X = model->points[0] + Eigen::Vector3d(0, 0, -2);
  const double B = std::asin(std::tan(0.5) * X.y() / std::hypot(X.x(), X.z()));
  EXPECT_NEAR(angles[1] - angles[0], 2.0943951023931953 - 2 * B, 1e-12);

  // A failing sensor makes the call fail, and nothing is written.
  for (const std::vector<bool>& visible :
       {std::vector<bool>{true, true, false}, std::vector<bool>{false, true, true}}) {
    set.visibleNow = visible;
    double a[4] = {-7, -7, -7, -7}, j[24];
    std::fill(j, j + 24, -7.0);
    EXPECT_FALSE(differentiateObservations(set, pose, 4, a, j));
    for (double v : a) EXPECT_EQ(v, -7.0);
    for (double v : j) EXPECT_EQ(v, -7.0);
  }
}

TEST(SweepModel, RowCountMustMatchTheVisibleSensors) {
  auto model = testing::makeSphereSensors(40, 0.08f);
  const StationConfig station;
  const auto observations = makeObservationSet(model.get(), nullptr, station);
  SweepObservationSet& set = *observations;
  const PoseParameters pose = {{0, 0, -2}, {0.1, 0.2, 0.3}};
  double angles[80] = {}, jacobian[480];
  set.visibleNow.assign(40, false);
  EXPECT_TRUE(differentiateObservations(set, pose, 0, angles, jacobian));
  set.visibleNow[3] = set.visibleNow[9] = true;  // a disagreeing count would overrun or leave rows unset
  EXPECT_FALSE(differentiateObservations(set, pose, 6, angles, jacobian));
  EXPECT_EQ(angles[0], 0.0);
  for (size_t i = 0; i < 32; ++i) set.visibleNow[i] = true;
  EXPECT_TRUE(differentiateObservations(set, pose, 64, angles, jacobian));
  set.visibleNow[32] = true;  // 33 are beyond the 64 rows of the noise model
  EXPECT_FALSE(differentiateObservations(set, pose, 66, angles, jacobian));
}

}  // namespace
}  // namespace sensorlay
