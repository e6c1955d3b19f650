#include <cmath>
#include <iostream>
#include <locale>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "app/modes.h"
#include "common/files.h"
#include "common/json_io.h"
#include "model/scad_writer.h"
#include "quality/orientation_samples.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

std::ostringstream makeTextStream() {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  return stream;
}

}  // namespace

std::unique_ptr<SensorModel> runDesign(const DesignOptions& options, TrackedSurface& surface,
                                       const SensorModel* immutableModel, WorkerPool& pool) {
  AnnealerOptions annealerOptions(surface, options.nSensors, pool);
  // The map comes first: a map that cannot be read is reported and the design
  // goes on with equal weights, but one that weighs none of the directions
  // would score every placement 0, so nothing is searched.
  if (!options.qualityMapPath.empty()) {
    Result<QualityMap> map = QualityMap::load(options.qualityMapPath);
    if (!map) {
      std::cerr << map.message() << std::endl;
    } else {
      std::optional<double> normalization;
      if (const auto samples = sampleOrientations(options.nOrientations, *map, normalization); !samples) {
        std::cerr << samples.message() << std::endl;
        return nullptr;
      }
      if (!normalization) {
        std::cerr << "Quality map image '" << printablePath(options.qualityMapPath) << "' gives all "
                  << options.nOrientations << " sampled directions the weight 0 (black): every placement would score 0."
                  << std::endl;
        return nullptr;
      }
      annealerOptions.qualityMap = std::move(*map);
    }
  }

  surface.setMaxSurfaceAngle(options.maxSurfaceAngle);

  annealerOptions.progress = &std::cerr;
  annealerOptions.immutableModel = immutableModel;
  annealerOptions.coolingRate = options.coolingRate;
  annealerOptions.nIterations = options.nIterations;
  annealerOptions.nOrientations = options.nOrientations;
  annealerOptions.maxIncidenceDegrees = searchIncidenceDegrees(options.maxIncidenceAngle, options.nOrientations);
  if (options.qualityRangeLow > 0.0 && options.qualityRangeHigh > 0.0) {
    annealerOptions.qualityRangeLow = options.qualityRangeLow;
    annealerOptions.qualityRangeHigh = options.qualityRangeHigh;
  }

  Constellation result;
  if (const Status searched = runAnnealer(annealerOptions, result); !searched) {
    std::cerr << searched.message() << std::endl;
    return nullptr;
  }
  const double score = annealerOptions.finalQualityScore;

  const std::string json = writeStyledJson(constellationToJson(result));
  std::vector<OutputText> outputs;

  if (!options.outScadPath.empty()) {
    std::ostringstream script = makeTextStream();
    script << "/* Final Quality Score: " << score << " / " << annealFullScale << " (lower is better) */\n"
           << "/*\n"
           << json << "*/\n\n"
           << writeScad(result, surface.getSensorsPath(), surface.getObstaclePaths(), surface.getScale(),
                        options.withScadNormals, true);
    outputs.push_back({options.outScadPath, script.str(), "script"});
  }

  if (!options.outModelPath.empty()) {
    std::ostringstream modelText = makeTextStream();
    modelText << "// Final Quality Score: " << score << " / " << annealFullScale << " (lower is better)\n"
              << json << "\n";
    outputs.push_back({options.outModelPath, modelText.str(), "model file"});
  }

  // A design file cut short (a full disk) must not pass for a whole one, nor
  // may a new script stand beside an older model file; the run ends here
  // rather than report on a design that was not kept.
  const std::vector<std::string> cutShort = writeOutputFiles(outputs);
  if (!cutShort.empty()) {
    std::cerr << "\n";  // the progress dots end without a line end
    for (const std::string& message : cutShort) std::cerr << message << std::endl;
    return nullptr;
  }

  return std::make_unique<SensorModel>(result, ModelTransform());
}

}  // namespace sensorlay
