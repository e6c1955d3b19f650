#include "common/rotation.h"

#include <Eigen/Geometry>

namespace sensorlay {

QuaternionXyzw multiplyQuaternions(const QuaternionXyzw& a, const QuaternionXyzw& b) {
  const Eigen::Vector3d av = a.head<3>();
  const Eigen::Vector3d bv = b.head<3>();
  const double aw = a.w();
  const double bw = b.w();
  const Eigen::Vector3d v = aw * bv + bw * av + av.cross(bv);
  const double w = aw * bw - av.dot(bv);
  return QuaternionXyzw(v.x(), v.y(), v.z(), w);
}

QuaternionXyzw rotationBetween(const Eigen::Vector3d& fromIn, const Eigen::Vector3d& toIn) {
  const Eigen::Vector3d from = fromIn / fromIn.norm();
  const Eigen::Vector3d to = toIn / toIn.norm();
  const double d = from.dot(to);
  if (d >= 1.0) return QuaternionXyzw(0, 0, 0, 1);

  if (d < -0.9999998807907104) {
    // Opposite vectors: any axis perpendicular to `from` will do; X is tried
    // first and Y when `from` lies (nearly) along X.
    Eigen::Vector3d axis(0.0, -from.z(), from.y());
    if (axis.squaredNorm() < 1.1920928955078125e-07) axis = Eigen::Vector3d(from.z(), 0.0, -from.x());
    // Twice: the second pass can still move the last bit, and the IMU poses
    // written so far depend on it.
    axis /= axis.norm();
    axis /= axis.norm();
    // cos(pi / 2) as a 64-bit float, not a rounded zero.
    return QuaternionXyzw(axis.x(), axis.y(), axis.z(), 6.123233995736766e-17);
  }

  const Eigen::Vector3d c = from.cross(to);
  QuaternionXyzw q(c.x(), c.y(), c.z(), 1.0 + d);
  return q / q.norm();
}

Eigen::Vector3d rotateByQuaternion(const QuaternionXyzw& q, const Eigen::Vector3d& v) {
  const Eigen::Vector3d qv = q.head<3>();
  const Eigen::Vector3d t = qv.cross(v);
  return v + 2.0 * q.w() * t + 2.0 * qv.cross(t);
}

Eigen::Vector3d rotatedPlusX(const QuaternionXyzw& q) {
  const double x = q.x(), y = q.y(), z = q.z(), w = q.w();
  return Eigen::Vector3d(1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + z * w), 2.0 * (x * z - y * w));
}

Eigen::Vector3d rotatedPlusZ(const QuaternionXyzw& q) {
  const double x = q.x(), y = q.y(), z = q.z(), w = q.w();
  return Eigen::Vector3d(2.0 * (x * z + y * w), 2.0 * (y * z - x * w), 1.0 - 2.0 * (x * x + y * y));
}

}  // namespace sensorlay
