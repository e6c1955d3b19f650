#include <cstdio>
#include <cstdlib>

#include "app/modes.h"

namespace sensorlay {

std::unique_ptr<SensorModel> runDesign(const DesignOptions&, TrackedSurface&, const SensorModel*) {
  std::fprintf(stderr, "the design run (/generate) is not built yet\n");
  std::exit(1);
}

}  // namespace sensorlay
