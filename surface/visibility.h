#pragma once
// Whether the base station sees a sensor: within the incidence limit, and not
// hidden by the surface or an obstacle.

#include <ceres/rotation.h>

#include <cmath>
#include <cstdint>

#include "model/constellation.h"
#include "surface/station_pose.h"

namespace sensorlay {

class TrackedSurface;

struct SensorVisibilityTest {
  const SensorModel* model = nullptr;
  int32_t sensorIndex = 0;
  const TrackedSurface* surface = nullptr;
};

// True when the sensor is within the incidence limit at the pose and, with a
// surface, not occluded.
bool isSensorVisible(const SensorVisibilityTest& test, const StationPose& pose);

// The steps of isSensorVisible, for callers that test many poses or cast
// their rays together; each gives the very numbers the test itself uses.

// The pose's rotation back to object coordinates: the conjugate of its
// quaternion, normalised.
inline void objectRotation(const double q[4], double conjugate[4]) {
  const double length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  conjugate[0] = q[0] / length;
  conjugate[1] = -q[1] / length;
  conjugate[2] = -q[2] / length;
  conjugate[3] = -q[3] / length;
}

// Whether a sensor at `point` with `normal` is within the incidence limit at
// the pose; if so, `towards` is the unit vector from it to the station, in
// the station's frame.
inline bool facesStation(const double point[3], const double normal[3], double cosMaxIncidence, const StationPose& pose,
                         double towards[3]) {
  const double* q = pose.quaternion;
  double P[3], M[3];
  ceres::UnitQuaternionRotatePoint(q, point, P);
  P[0] += pose.position[0];
  P[1] += pose.position[1];
  P[2] += pose.position[2];
  ceres::UnitQuaternionRotatePoint(q, normal, M);
  // The station is at the origin.
  const double length = std::sqrt(P[0] * P[0] + P[1] * P[1] + P[2] * P[2]);
  towards[0] = -P[0] / length;
  towards[1] = -P[1] / length;
  towards[2] = -P[2] / length;
  // Strict, so that a limit of 90 degrees refuses a grazing sensor, and a
  // not-a-number refuses as well.
  return M[0] * towards[0] + M[1] * towards[1] + M[2] * towards[2] > cosMaxIncidence;
}

// The ray's direction: `towards` in object coordinates, where the scene lives.
// `conjugate` is the pose's objectRotation.
inline void rayDirection(const double conjugate[4], const double towards[3], float direction[3]) {
  double e[3];
  ceres::UnitQuaternionRotatePoint(conjugate, towards, e);
  for (int c = 0; c < 3; ++c) direction[c] = static_cast<float>(e[c]);
}

// Where a sensor's ray starts: lifted a millimetre off the surface along its
// normal, so that its own triangle does not count.
inline void rayOrigin(const double point[3], const double normal[3], float origin[3]) {
  for (int c = 0; c < 3; ++c) origin[c] = static_cast<float>(point[c] + 0.001 * normal[c]);
}

// The near end of a sensor's ray.
constexpr float kRayNear = 0.0001f;

}  // namespace sensorlay
