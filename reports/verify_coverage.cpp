// The surface-fit preview: random valid placements drawn on the surface, to be
// written as the sensors of a CAD script that shows where a sensor fits at all.

#include <cstdint>

#include "reports/verify_coverage.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

Constellation drawFittingPlacements(TrackedSurface& surface, int32_t count) {
  Constellation constellation;  // never handed to a SensorModel: `valid` can stay false
  if (count > 0) {
    constellation.channelMap.reserve(static_cast<size_t>(count));
    constellation.modelPoints.reserve(static_cast<size_t>(count));
    constellation.modelNormals.reserve(static_cast<size_t>(count));
  }
  for (int32_t i = 0; i < count; ++i) {
    Eigen::Vector3f point, normal;
    // Does not come back before it has a spot where the sensor fits; on a
    // surface with no room it keeps drawing and says so through the
    // surface's notices.
    surface.randomPlacement(point, normal);
    constellation.modelPoints.push_back(point);
    constellation.modelNormals.push_back(normal);
    constellation.channelMap.push_back(i);
  }
  return constellation;
}

}  // namespace sensorlay
