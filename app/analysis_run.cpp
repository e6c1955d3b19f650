#include <cstdio>

#include "app/modes.h"

namespace sensorlay {

int runAnalysis(const DesignOptions&, SensorModel&, TrackedSurface*, CoverageEvaluator&) {
  std::fprintf(stderr, "the analysis run is not built yet\n");
  return 1;
}

int convertModelToScad(const DesignOptions&, TrackedSurface*) {
  std::fprintf(stderr, "the model-to-script conversion is not built yet\n");
  return 1;
}

}  // namespace sensorlay
