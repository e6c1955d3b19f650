#include <ceres/rotation.h>

#include <cmath>
#include <limits>

#include "surface/tracked_surface.h"
#include "surface/visibility.h"

namespace sensorlay {

bool isSensorVisible(const SensorVisibilityTest& test, const StationPose& pose) {
  const SensorModel& model = *test.model;
  // A record can point past the kept sensors when the model left some out;
  // such a sensor is never seen.
  if (test.sensorIndex < 0 || static_cast<size_t>(test.sensorIndex) >= model.points.size() ||
      static_cast<size_t>(test.sensorIndex) >= model.normals.size())
    return false;
  const double* p = model.points[test.sensorIndex].data();
  const double* n = model.normals[test.sensorIndex].data();
  const double* q = pose.quaternion;

  double P[3], M[3];
  ceres::UnitQuaternionRotatePoint(q, p, P);
  P[0] += pose.position[0];
  P[1] += pose.position[1];
  P[2] += pose.position[2];
  ceres::UnitQuaternionRotatePoint(q, n, M);

  // Unit vector from the sensor towards the station at the origin.
  const double length = std::sqrt(P[0] * P[0] + P[1] * P[1] + P[2] * P[2]);
  const double d[3] = {-P[0] / length, -P[1] / length, -P[2] / length};
  // Strict, so that a limit of 90 degrees refuses a grazing sensor, and a
  // not-a-number refuses as well.
  if (!(M[0] * d[0] + M[1] * d[1] + M[2] * d[2] > model.cosMaxIncidence)) return false;
  if (!test.surface) return true;

  // Back to object coordinates, where the scene lives.
  const double qLength = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  const double c[4] = {q[0] / qLength, -q[1] / qLength, -q[2] / qLength, -q[3] / qLength};
  double e[3];
  ceres::UnitQuaternionRotatePoint(c, d, e);

  // Lifted a millimetre off the surface along the sensor's normal, so that
  // its own triangle does not count.
  const Eigen::Vector3f origin(static_cast<float>(p[0] + 0.001 * n[0]), static_cast<float>(p[1] + 0.001 * n[1]),
                               static_cast<float>(p[2] + 0.001 * n[2]));
  const Eigen::Vector3f direction(static_cast<float>(e[0]), static_cast<float>(e[1]), static_cast<float>(e[2]));
  return !test.surface->castRay(origin, direction, 0.0001f, std::numeric_limits<float>::infinity());
}

}  // namespace sensorlay
