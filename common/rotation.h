#pragma once
// Rotation helpers shared by the layers: a rotation matrix to a quaternion
// (the orientation samples and the report grid), and the quaternion algebra in
// the x, y, z, w order of the device files (the IMU tool and the device poses).

#include <Eigen/Core>

#include <cmath>

namespace sensorlay {

// Degrees to radians, multiplied by 1/180 and then by pi: the command line's
// angles are taken so, and the tables' grid, a running sum of such steps,
// lands on its end points or misses them by this rounding.
inline double degreesToRadians(double degrees) { return degrees * 0.005555555555555556 * 3.141592653589793; }

// Degrees to radians in one multiplication, which rounds apart from
// degreesToRadians: the search's incidence limit and the surface angle limit
// are taken so, and the designs made so far depend on it.
constexpr double kRadiansPerDegree = 0.017453292519943295;

// The quaternion (w, x, y, z) of rotation matrix `m`, from the trace when it
// is positive and otherwise from the largest diagonal element, with w made
// not negative. A matrix of not-a-numbers gives not-a-numbers.
inline void quaternionFromRotationMatrix(const Eigen::Matrix3d& m, double q[4]) {
  double w, x, y, z;
  const double trace = m(0, 0) + m(1, 1) + m(2, 2);
  if (trace > 0.0) {
    const double t = std::sqrt(trace + 1.0);
    w = 0.5 * t;
    const double f = 0.5 / t;
    x = (m(2, 1) - m(1, 2)) * f;
    y = (m(0, 2) - m(2, 0)) * f;
    z = (m(1, 0) - m(0, 1)) * f;
  } else if (m(0, 0) > m(1, 1) && m(0, 0) > m(2, 2)) {
    const double t = std::sqrt(m(0, 0) - m(1, 1) - m(2, 2) + 1.0);
    x = 0.5 * t;
    const double f = 0.5 / t;
    w = (m(2, 1) - m(1, 2)) * f;
    y = (m(0, 1) + m(1, 0)) * f;
    z = (m(0, 2) + m(2, 0)) * f;
  } else if (m(1, 1) > m(2, 2)) {
    const double t = std::sqrt(m(1, 1) - m(2, 2) - m(0, 0) + 1.0);
    y = 0.5 * t;
    const double f = 0.5 / t;
    w = (m(0, 2) - m(2, 0)) * f;
    x = (m(0, 1) + m(1, 0)) * f;
    z = (m(1, 2) + m(2, 1)) * f;
  } else {
    const double t = std::sqrt(m(2, 2) - m(0, 0) - m(1, 1) + 1.0);
    z = 0.5 * t;
    const double f = 0.5 / t;
    w = (m(1, 0) - m(0, 1)) * f;
    x = (m(0, 2) + m(2, 0)) * f;
    y = (m(1, 2) + m(2, 1)) * f;
  }
  const double sign = w < 0.0 ? -1.0 : 1.0;
  q[0] = sign * w;
  q[1] = sign * x;
  q[2] = sign * y;
  q[3] = sign * z;
}

// Quaternions here are x, y, z, w.
using QuaternionXyzw = Eigen::Vector4d;

// The shortest-arc rotation carrying `from` onto `to`.
QuaternionXyzw rotationBetween(const Eigen::Vector3d& from, const Eigen::Vector3d& to);

// v rotated by q, for a unit q; q is not normalised first.
Eigen::Vector3d rotateByQuaternion(const QuaternionXyzw& q, const Eigen::Vector3d& v);

// The Hamilton product a times b.
QuaternionXyzw multiplyQuaternions(const QuaternionXyzw& a, const QuaternionXyzw& b);

// The first and third columns of q's rotation matrix: where +X and +Z go.
Eigen::Vector3d rotatedPlusX(const QuaternionXyzw& q);
Eigen::Vector3d rotatedPlusZ(const QuaternionXyzw& q);

}  // namespace sensorlay
