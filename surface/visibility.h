#pragma once
// Whether the base station sees a sensor: within the incidence limit, and not
// hidden by the surface or an obstacle.

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

}  // namespace sensorlay
