#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "app/modes.h"
#include "common/json_io.h"
#include "model/scad_writer.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

// The search takes minutes to hours; it should not slow the machine's
// interactive work. Only this thread is lowered, and failure is harmless.
void lowerThreadPriority() {
  const id_t thread = static_cast<id_t>(syscall(SYS_gettid));
  (void)setpriority(PRIO_PROCESS, thread, 19);
}

// Writes the whole text in one go. A path that cannot be opened loses the
// output without a word, as every output file of the program does; false
// when the file was opened but could not be written in full.
bool writeWholeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.is_open()) return true;
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  file.close();
  return !file.fail();
}

std::ostringstream makeTextStream() {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  return stream;
}

}  // namespace

std::unique_ptr<SensorModel> runDesign(const DesignOptions& options, TrackedSurface& surface,
                                       const SensorModel* immutableModel) {
  lowerThreadPriority();
  surface.setMaxSurfaceAngle(options.maxSurfaceAngle);

  AnnealerOptions annealerOptions(surface, options.nSensors);
  annealerOptions.immutableModel = immutableModel;
  annealerOptions.coolingRate = options.coolingRate;
  annealerOptions.nIterations = options.nIterations;
  annealerOptions.nOrientations = options.nOrientations;
  // The margin is in radians but taken off the bound in degrees, which makes
  // it tiny; designs made so far depend on this bound, so it stays.
  annealerOptions.maxIncidenceDegrees =
      options.maxIncidenceAngle - 0.5 * (2.0 * std::asin(1.9 / std::sqrt(static_cast<double>(options.nOrientations))));
  if (options.qualityRangeLow > 0.0 && options.qualityRangeHigh > 0.0) {
    annealerOptions.qualityRangeLow = options.qualityRangeLow;
    annealerOptions.qualityRangeHigh = options.qualityRangeHigh;
  }
  annealerOptions.qualityMapPath = options.qualityMapPath;

  Constellation result;
  runAnnealer(annealerOptions, result);
  const double score = annealerOptions.finalQualityScore;

  const std::string json = writeStyledJson(constellationToJson(result));
  std::vector<std::string> cutShort;

  if (!options.outScadPath.empty()) {
    std::ostringstream script = makeTextStream();
    script << "/* Final Quality Score: " << score << " / " << annealFullScale << " (lower is better) */\n"
           << "/*\n"
           << json << "*/\n\n"
           << writeScad(result, surface.getSensorsPath(), surface.getObstaclePaths(), surface.getScale(),
                        options.withScadNormals, true);
    if (!writeWholeFile(options.outScadPath, script.str()))
      cutShort.push_back("Could not write the whole script to " + options.outScadPath + ".");
  }

  if (!options.outModelPath.empty()) {
    std::ostringstream modelText = makeTextStream();
    modelText << "// Final Quality Score: " << score << " / " << annealFullScale << " (lower is better)\n"
              << json << "\n";
    if (!writeWholeFile(options.outModelPath, modelText.str()))
      cutShort.push_back("Could not write the whole model file to " + options.outModelPath + ".");
  }

  // A design file cut short (a full disk) must not pass for a whole one; the
  // run ends here rather than report on a design that was not kept.
  if (!cutShort.empty()) {
    std::cerr << "\n";  // the progress dots end without a line end
    for (const std::string& message : cutShort) std::cerr << message << std::endl;
    std::exit(1);
  }

  return std::make_unique<SensorModel>(result, ModelTransform());
}

}  // namespace sensorlay
