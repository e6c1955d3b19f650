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
  double towards[3];
  if (!facesStation(p, n, model.cosMaxIncidence, pose, towards)) return false;
  if (!test.surface) return true;
  double conjugate[4];
  objectRotation(pose.quaternion, conjugate);
  float direction[3];
  rayDirection(conjugate, towards, direction);
  float origin[3];
  rayOrigin(p, n, origin);
  return !test.surface->castRay(Eigen::Vector3f(origin[0], origin[1], origin[2]),
                                Eigen::Vector3f(direction[0], direction[1], direction[2]), kRayNear,
                                std::numeric_limits<float>::infinity());
}

}  // namespace sensorlay
