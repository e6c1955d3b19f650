#include "observation/sweep_model.h"

#include <ceres/rotation.h>
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/support/quality_fixtures.h"

namespace sensorlay {
namespace {

using testing::attach;
using testing::makeSensorModel;

constexpr double kHalfPi = 1.5707963267948966;
constexpr double kTwoPiOver3 = 2.0943951023931953;

// Angles of all visible sensors at the six pose parameters, without derivatives.
std::vector<double> anglesAt(const SweepObservationSet& set, const double pose[6], int rows) {
  std::vector<double> out(static_cast<size_t>(rows), 0.0);
  EXPECT_TRUE(evaluateObservations<double>(set, pose, out.data()));
  return out;
}

TEST(SweepModel, TwoSweepAnglesCentreAndSigns) {
  // Object 2 m in front of the station, unrotated: the sensor at the object's
  // origin is straight ahead; one 0.1 m to +x, one 0.1 m to +y.
  auto model = makeSensorModel({{0, 0, 0}, {0.1f, 0, 0}, {0, 0.1f, 0}}, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}});
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());

  const double pose[6] = {0, 0, -2, 0, 0, 0};
  double angles[6];
  ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, 6, angles, nullptr));
  EXPECT_DOUBLE_EQ(angles[0], kHalfPi);
  EXPECT_DOUBLE_EQ(angles[1], kHalfPi);
  EXPECT_LT(angles[2], kHalfPi);  // x > 0: the first angle falls
  EXPECT_DOUBLE_EQ(angles[3], kHalfPi);
  EXPECT_DOUBLE_EQ(angles[4], kHalfPi);
  EXPECT_GT(angles[5], kHalfPi);  // y > 0: the second angle rises
  EXPECT_NEAR(angles[2], std::atan2(2.0, 0.1), 1e-7);

  // Only visible sensors take rows, in list order.
  evaluator.observations->visibleNow = {false, false, true};
  ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, 2, angles, nullptr));
  EXPECT_DOUBLE_EQ(angles[0], kHalfPi);
  EXPECT_GT(angles[1], kHalfPi);
}

TEST(SweepModel, ZeroRotationDerivativesAreThoseOfTheCrossProduct) {
  auto model = makeSensorModel({{0.03f, -0.05f, 0.07f}}, {{0, 0, 1}});
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  const SensorSweep& sweep = evaluator.observations->sensorSweeps[0];
  const Eigen::Vector3d p = model->points[0];

  PoseJet pose[6];
  const double values[6] = {0.1, 0.2, -2.0, 0.0, 0.0, 0.0};
  for (int k = 0; k < 6; ++k) pose[k] = PoseJet(values[k], k);
  PoseJet stationPose[7] = {pose[0], pose[1], pose[2]};
  ceres::AngleAxisToQuaternion(pose + 3, stationPose + 3);
  EXPECT_EQ(stationPose[3].a, 1.0);
  EXPECT_EQ(stationPose[4].a, 0.0);

  PoseJet X[3];
  sensorInStationFrame(sweep, stationPose, X);
  // d(w x p)/dw at w = 0 is -[p]x.
  const double expected[3][3] = {{0, p.z(), -p.y()}, {-p.z(), 0, p.x()}, {p.y(), -p.x(), 0}};
  for (int i = 0; i < 3; ++i) {
    EXPECT_DOUBLE_EQ(X[i].a, p[i] + values[i]);
    for (int j = 0; j < 3; ++j) {
      EXPECT_DOUBLE_EQ(X[i].v[j], i == j ? 1.0 : 0.0) << i << "," << j;
      EXPECT_DOUBLE_EQ(X[i].v[3 + j], expected[i][j]) << i << "," << j;
    }
  }
}

TEST(SweepModel, JacobianMatchesCentralDifferences) {
  auto model = makeSensorModel({{0.03f, -0.05f, 0.07f}, {-0.06f, 0.02f, 0.01f}, {0.0f, 0.08f, -0.04f}, {0.05f, 0.05f, 0.05f}},
                               {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}});
  const double pose[6] = {0.12, -0.07, -1.8, 0.3, -0.5, 0.2};
  const int rows = 8;

  for (int32_t stationKind : {0, 7, 11}) {
    CoverageEvaluator evaluator;
    evaluator.stationConfig.stationKind = stationKind;
    evaluator.stationConfig.tiltRadians = 0.5;
    attach(evaluator, model.get());

    double angles[rows];
    double jacobian[rows * 6];
    ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, rows, angles, jacobian)) << stationKind;
    const std::vector<double> reference = anglesAt(*evaluator.observations, pose, rows);
    for (int r = 0; r < rows; ++r) EXPECT_DOUBLE_EQ(angles[r], reference[r]);

    const double h = 1e-6;
    for (int c = 0; c < 6; ++c) {
      double plus[6], minus[6];
      for (int k = 0; k < 6; ++k) plus[k] = minus[k] = pose[k];
      plus[c] += h;
      minus[c] -= h;
      const std::vector<double> up = anglesAt(*evaluator.observations, plus, rows);
      const std::vector<double> down = anglesAt(*evaluator.observations, minus, rows);
      for (int r = 0; r < rows; ++r) {
        const double numeric = (up[r] - down[r]) / (2 * h);
        EXPECT_NEAR(jacobian[r * 6 + c], numeric, 1e-6 * std::max(1.0, std::abs(numeric)))
            << "kind " << stationKind << " row " << r << " column " << c;
      }
    }
  }
}

TEST(SweepModel, TiltedRotorRowsAndTheirReach) {
  auto model = makeSensorModel({{0.1f, 0.2f, 0.0f}, {-0.3f, -0.1f, 0.2f}, {0.0f, 0.0f, 0.0f}}, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}});
  CoverageEvaluator evaluator;
  evaluator.stationConfig.stationKind = 7;
  evaluator.stationConfig.tiltRadians = 0.0;
  attach(evaluator, model.get());
  const double pose[6] = {0.05, 0.02, -2, 0.1, 0.2, 0.3};

  // Without tilt both planes read the same rotor angle, a third of a turn apart.
  double angles[6];
  ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, 6, angles, nullptr));
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(angles[2 * k + 1] - angles[2 * k], kTwoPiOver3, 1e-12);

  // The tilt is read through the evaluator at every call: no rebuild needed.
  // The rows then part by 2 pi/3 - 2 asin(tan(tilt) y / sqrt(x^2 + z^2)).
  evaluator.stationConfig.tiltRadians = 0.5;
  ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, 6, angles, nullptr));
  const double stationPose[7] = {pose[0], pose[1], pose[2], 1, 0, 0, 0};
  double q[4];
  ceres::AngleAxisToQuaternion(pose + 3, q);
  const double full[7] = {stationPose[0], stationPose[1], stationPose[2], q[0], q[1], q[2], q[3]};
  for (int k = 0; k < 3; ++k) {
    double X[3];
    sensorInStationFrame(evaluator.observations->sensorSweeps[static_cast<size_t>(k)], full, X);
    const double B = std::asin(std::tan(0.5) * X[1] / std::sqrt(X[0] * X[0] + X[2] * X[2]));
    EXPECT_NEAR(angles[2 * k + 1] - angles[2 * k], kTwoPiOver3 - 2 * B, 1e-12) << k;
    EXPECT_NEAR(angles[2 * k] + angles[2 * k + 1], 2 * std::atan2(-X[2], X[0]) + kTwoPiOver3 + 2 * 0.5235987755982988,
                1e-12);
  }
}

TEST(SweepModel, FailureWritesNothing) {
  // The second sensor sits straight above the station (x = z = 0 in its
  // frame); the third is beyond the tilted plane's reach.
  auto model = makeSensorModel({{0, 0, 0}, {0, 0.5f, 2.0f}, {0.1f, 4.0f, 0}}, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}});
  const double pose[6] = {0, 0, -2, 0, 0, 0};
  const double sentinel = -7.25;

  for (const std::vector<bool>& visible : {std::vector<bool>{true, true, false}, std::vector<bool>{true, false, true}}) {
    CoverageEvaluator evaluator;
    evaluator.stationConfig.stationKind = 8;
    attach(evaluator, model.get());
    evaluator.observations->visibleNow = visible;
    std::vector<double> angles(4, sentinel), jacobian(24, sentinel);
    EXPECT_FALSE(differentiateObservations(*evaluator.observations, pose, 4, angles.data(), jacobian.data()));
    for (double v : angles) EXPECT_EQ(v, sentinel);
    for (double v : jacobian) EXPECT_EQ(v, sentinel);
  }

  // The same sensors in the two-sweep model have an answer.
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  double angles[6];
  EXPECT_TRUE(differentiateObservations(*evaluator.observations, pose, 6, angles, nullptr));
}

TEST(SweepModel, RowCountMustMatchTheVisibleSensors) {
  auto model = testing::makeSphereSensors(40, 0.08f);
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  const double pose[6] = {0, 0, -2, 0.1, 0.2, 0.3};
  SweepObservationSet& set = *evaluator.observations;
  double angles[kMaxObservationRows + 16];
  double jacobian[(kMaxObservationRows + 16) * 6];

  // No visible sensor, no rows: success with nothing to write.
  set.visibleNow.assign(40, false);
  EXPECT_TRUE(differentiateObservations(set, pose, 0, angles, jacobian));

  // A count that disagrees with the visible sensors would overrun or leave
  // rows unset; it fails and writes nothing.
  set.visibleNow[3] = set.visibleNow[9] = true;
  angles[0] = 42.0;
  EXPECT_FALSE(differentiateObservations(set, pose, 2, angles, jacobian));
  EXPECT_FALSE(differentiateObservations(set, pose, 6, angles, jacobian));
  EXPECT_EQ(angles[0], 42.0);
  EXPECT_TRUE(differentiateObservations(set, pose, 4, angles, jacobian));

  // 32 visible sensors fill the 64 rows; 33 are more than the model carries.
  set.visibleNow.assign(40, false);
  for (int i = 0; i < 32; ++i) set.visibleNow[static_cast<size_t>(i)] = true;
  EXPECT_TRUE(differentiateObservations(set, pose, 64, angles, jacobian));
  set.visibleNow[32] = true;
  EXPECT_FALSE(differentiateObservations(set, pose, 66, angles, jacobian));
}

}  // namespace
}  // namespace sensorlay
