#include "device/rigid_transform.h"

#include <gtest/gtest.h>

#include <cmath>

namespace sensorlay {
namespace {

using V3 = Eigen::Vector3d;

// A general frame: the rotation takes X and Z where they were asked to go.
// The axis-aligned frames, exact to the digit, are pinned end to end below.
TEST(RigidTransform, AxesToQuaternion) {
  RigidTransformD t;
  const V3 plusX = V3(1, 2, 2).normalized();
  const V3 plusZ = V3(2, 1, -2).normalized();
  ASSERT_TRUE(transformFromAxes(&t, V3::Zero(), plusX * 4, plusZ * 0.5));
  EXPECT_NEAR(t.rotation.norm(), 1.0, 1e-12);
  EXPECT_LT((rotateByQuaternion(t.rotation, V3::UnitX()) - plusX).norm(), 1e-12);
  EXPECT_LT((rotateByQuaternion(t.rotation, V3::UnitZ()) - plusZ).norm(), 1e-12);
  EXPECT_LT((rotatedPlusX(t.rotation) - plusX).norm(), 1e-12);
  EXPECT_LT((rotatedPlusZ(t.rotation) - plusZ).norm(), 1e-12);

  // Perpendicular within 0.001 in cosine passes; beyond, nothing is stored.
  EXPECT_TRUE(transformFromAxes(nullptr, V3::Zero(), V3(1, 0, 0), V3(0.0005, 0, 1)));
  RigidTransformD untouched;
  untouched.translation = V3(7, 7, 7);
  EXPECT_FALSE(transformFromAxes(&untouched, V3::Zero(), V3(1, 0, 0), V3(0.0011, 0, 1)));
  EXPECT_EQ(untouched.translation, V3(7, 7, 7));
  EXPECT_FALSE(transformFromAxes(nullptr, V3::Zero(), V3::Zero(), V3(0, 0, 1)));
  EXPECT_FALSE(transformFromAxes(nullptr, V3::Zero(), V3(1, 0, 0), V3::Zero()));
}

TEST(Rotation, RotationBetweenAndRotate) {
  EXPECT_EQ(rotationBetween(V3(0, 0, 3), V3(0, 0, 1)), QuaternionXyzw(0, 0, 0, 1));
  // Opposite along X: the Y axis is taken, as X is parallel.
  EXPECT_EQ(rotationBetween(V3(-2, 0, 0), V3(1, 0, 0)), QuaternionXyzw(0, 0, 1, 6.123233995736766e-17));
  const QuaternionXyzw quarter = rotationBetween(V3(1, 0, 0), V3(0, 5, 0));
  EXPECT_NEAR(quarter.z(), std::sqrt(0.5), 1e-15);
  EXPECT_NEAR(quarter.w(), std::sqrt(0.5), 1e-15);
  EXPECT_LT((rotateByQuaternion(quarter, V3(1, 0, 3)) - V3(0, 1, 3)).norm(), 1e-15);
  EXPECT_EQ(multiplyQuaternions(quarter, QuaternionXyzw(0, 0, 0, 1)), quarter);
}

}  // namespace
}  // namespace sensorlay
