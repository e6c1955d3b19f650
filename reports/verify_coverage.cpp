#include <cstdio>
#include <cstdlib>

#include "app/modes.h"

namespace sensorlay {

void runVerifyCoverage(const DesignOptions&, TrackedSurface&) {
  std::fprintf(stderr, "/verifycoverage is not built yet\n");
  std::exit(1);
}

}  // namespace sensorlay
