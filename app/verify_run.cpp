// The /verifycoverage run: the surface-fit preview written as a CAD script.

#include <iostream>
#include <string>

#include "app/modes.h"
#include "model/scad_writer.h"
#include "reports/verify_coverage.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

int runVerifyCoverage(const DesignOptions& options, TrackedSurface& surface) {
  if (options.verifyCoverage > kMaxVerifyPlacements) {
    std::cerr << "/verifycoverage " << options.verifyCoverage << " is more than the " << kMaxVerifyPlacements
              << " placements that one preview can show." << std::endl;
    return 1;
  }
  // A negative count draws nothing and writes a script without sensors.
  const Constellation constellation = drawFittingPlacements(surface, options.verifyCoverage);

  // Labels would bury thousands of sensors; and no comment stands ahead.
  const std::string script = writeScad(constellation, surface.getSensorsPath(), surface.getObstaclePaths(),
                                       surface.getScale(), options.withScadNormals, false);
  const std::vector<std::string> cutShort = writeOutputFiles({{options.outScadPath, script, "script"}});
  for (const std::string& message : cutShort) std::cerr << message << std::endl;
  if (!cutShort.empty()) return 1;
  return 0;
}

}  // namespace sensorlay
