#include "device/rigid_transform.h"

#include <cmath>

namespace sensorlay {

namespace {

// Scales v to unit length; false (and v untouched) when the length is zero or
// the scaled vector comes out all zeros.
bool normaliseInPlace(Eigen::Vector3d& v) {
  const double length = std::sqrt(v.x() * v.x() + v.y() * v.y() + v.z() * v.z());
  if (length == 0.0) return false;
  const Eigen::Vector3d unit = v / length;
  if (unit.x() == 0.0 && unit.y() == 0.0 && unit.z() == 0.0) return false;
  v = unit;
  return true;
}

}  // namespace

bool transformFromAxes(RigidTransformD* result, const Eigen::Vector3d& position, const Eigen::Vector3d& plusXIn,
                       const Eigen::Vector3d& plusZIn) {
  Eigen::Vector3d plusX = plusXIn;
  Eigen::Vector3d plusZ = plusZIn;
  if (!normaliseInPlace(plusX) || !normaliseInPlace(plusZ)) return false;
  if (std::fabs(plusX.dot(plusZ)) > 0.001) return false;

  // Turn the given frame back onto the reference axes, Z first and then X
  // about Z; the inverse of that turn is the frame's rotation.
  const QuaternionXyzw q1 = rotationBetween(plusZ, Eigen::Vector3d(0, 0, 1));
  const Eigen::Vector3d v = rotateByQuaternion(q1, plusX);
  const double planarLength = std::sqrt(v.x() * v.x() + v.y() * v.y());
  if (planarLength == 0.0) return false;
  const Eigen::Vector3d planar(v.x() / planarLength, v.y() / planarLength, 0.0);
  const QuaternionXyzw q2 = rotationBetween(planar, Eigen::Vector3d(1, 0, 0));

  QuaternionXyzw q = multiplyQuaternions(q2, q1);
  q.head<3>() = -q.head<3>();
  // Rounding leaves terms like 6e-17 where the exact answer is 0; files and
  // comparisons read better with a clean zero.
  for (int i = 0; i < 4; ++i)
    if (std::fabs(q[i]) < 1e-10) q[i] = 0.0;

  if (result != nullptr) {
    result->rotation = q;
    result->translation = position;
  }
  return true;
}

}  // namespace sensorlay
