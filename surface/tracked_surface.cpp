#include "surface/tracked_surface.h"

namespace sensorlay {

class RayScene {};

TrackedSurface::TrackedSurface(const std::string& sensorsPath_, const std::vector<std::string>& obstaclePaths_)
    : sensorsPath(sensorsPath_), obstaclePaths(obstaclePaths_) {}

TrackedSurface::~TrackedSurface() = default;

}  // namespace sensorlay
