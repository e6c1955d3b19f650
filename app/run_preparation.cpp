#include <cstdio>
#include <cstdlib>

#include "app/modes.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

std::unique_ptr<TrackedSurface> prepareRun(const DesignOptions& options, const SensorModel* model) {
  if (options.sensorsPath.empty()) return nullptr;
  std::fprintf(stderr, "run preparation with a surface is not built yet\n");
  std::exit(1);
}

}  // namespace sensorlay
