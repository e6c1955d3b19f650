#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <locale>
#include <sstream>

#include "app/modes.h"
#include "model/json_io.h"
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

// Writes the whole text in one go. An unwritable path loses the output
// without a word, as for every output file of the program; a write that
// fails half-way removes what it left, so no truncated file stands as good.
void writeWholeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) return;
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  file.close();
  if (file.fail()) std::remove(path.c_str());
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

  if (!options.outScadPath.empty()) {
    std::ostringstream script = makeTextStream();
    script << "/* Final Quality Score: " << score << " / " << annealFullScale << " (lower is better) */\n"
           << "/*\n"
           << json << "*/\n\n"
           << writeScad(result, surface.getSensorsPath(), surface.getObstaclePaths(), surface.getScale(),
                        options.withScadNormals, true);
    writeWholeFile(options.outScadPath, script.str());
  }

  if (!options.outModelPath.empty()) {
    std::ostringstream modelText = makeTextStream();
    modelText << "// Final Quality Score: " << score << " / " << annealFullScale << " (lower is better)\n"
              << json << "\n";
    writeWholeFile(options.outModelPath, modelText.str());
  }

  return std::make_unique<SensorModel>(result, ModelTransform());
}

}  // namespace sensorlay
