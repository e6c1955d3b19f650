// The /verifycoverage run: the surface-fit preview written as a CAD script.

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "app/modes.h"
#include "model/scad_writer.h"
#include "reports/verify_coverage.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

void runVerifyCoverage(const DesignOptions& options, TrackedSurface& surface) {
  if (options.verifyCoverage > kMaxVerifyPlacements) {
    std::cerr << "/verifycoverage " << options.verifyCoverage << " is more than the " << kMaxVerifyPlacements
              << " placements that one preview can show." << std::endl;
    std::exit(1);
  }
  // A negative count draws nothing and writes a script without sensors.
  const Constellation constellation = drawFittingPlacements(surface, options.verifyCoverage);

  // Labels would bury thousands of sensors; and no comment stands ahead.
  const std::string script = writeScad(constellation, surface.getSensorsPath(), surface.getObstaclePaths(),
                                       surface.getScale(), options.withScadNormals, false);
  // A path that cannot be opened loses the script without a word, as every
  // output of the program does; a script cut short after opening is reported.
  std::ofstream file(options.outScadPath, std::ios::out | std::ios::trunc | std::ios::binary);
  if (file.is_open()) {
    file << script;
    // The process ends here without unwinding, so the file is closed first.
    file.close();
    if (file.fail()) {
      std::cerr << "Could not write the whole script to " << options.outScadPath << "." << std::endl;
      std::exit(1);
    }
  }
  std::exit(0);
}

}  // namespace sensorlay
