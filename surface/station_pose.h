#pragma once
// Where the device stands before the one modelled base station. The station
// is at the origin of its own frame and looks along -Z; the device is moved
// to the pose, a sensor at p landing at R p + t. The rotation is written in
// two forms: the visibility test and the sweep angles turn points by a unit
// quaternion, while the Jacobian is taken against an angle-axis vector.

namespace sensorlay {

// A position with a unit quaternion w, x, y, z.
template <typename T>
struct StationPoseOf {
  T position[3];
  T quaternion[4];
};
using StationPose = StationPoseOf<double>;

// The six numbers the Jacobian's columns belong to: the position, then the
// rotation as an angle-axis vector.
template <typename T>
struct PoseParametersOf {
  T position[3];
  T rotationVector[3];
};
using PoseParameters = PoseParametersOf<double>;

}  // namespace sensorlay
