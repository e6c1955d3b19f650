#pragma once
// Rigid transforms as device files store them, and their making from CAD
// vectors: a position and the directions of a frame's +X and +Z axes (the IMU
// tool prints one).

#include <Eigen/Core>

#include "common/rotation.h"

namespace sensorlay {

// A unit quaternion in the order x, y, z, w (the order of the device JSON),
// followed by a translation.
template <typename Scalar>
struct RigidTransformOf {
  using Quaternion = Eigen::Matrix<Scalar, 4, 1>;
  using Vector = Eigen::Matrix<Scalar, 3, 1>;

  Quaternion rotation = Quaternion(0, 0, 0, 1);
  Vector translation = Vector::Zero();

  template <typename Other>
  RigidTransformOf<Other> cast() const {
    RigidTransformOf<Other> out;
    out.rotation = rotation.template cast<Other>();
    out.translation = translation.template cast<Other>();
    return out;
  }
  bool operator==(const RigidTransformOf& o) const { return rotation == o.rotation && translation == o.translation; }
  bool operator!=(const RigidTransformOf& o) const { return !(*this == o); }
};

// The device record keeps poses in 32-bit floats; the maths runs in 64.
using RigidTransform = RigidTransformOf<float>;
using RigidTransformD = RigidTransformOf<double>;

// The rotation whose X axis lands on plusX and Z axis on plusZ, with
// `position` as the translation. False when either axis is zero or the two
// are more than 0.001 (in cosine) away from a right angle; `result` is then
// untouched. `result` may be null.
bool transformFromAxes(RigidTransformD* result, const Eigen::Vector3d& position, const Eigen::Vector3d& plusX,
                       const Eigen::Vector3d& plusZ);

}  // namespace sensorlay
