#include "app/entry.h"

#include <cstdio>
#include <memory>

#include "app/modes.h"
#include "app/options.h"
#include "device/model_loading.h"
#include "quality/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tools/tools.h"

namespace sensorlay {

namespace {

// The model and the surface are held by pointer by everything that runs after
// preparation, and the early exits of the modes do not unwind; they are kept
// here for the life of the process and never released.
struct ProcessLifetime {
  SensorModel* loadedModel = nullptr;
  SensorModel* designedModel = nullptr;
  TrackedSurface* surface = nullptr;
};
ProcessLifetime processLifetime;

}  // namespace

int runEntry(int argc, char** argv) {
  // The analysis's evaluator exists before anything else happens and is
  // destroyed as the last act of a normal return.
  CoverageEvaluator evaluator;

  DesignOptions options;
  bool parseFailed = false;
  bool versionRequested = false;
  scanOptions(argc, argv, options, parseFailed, versionRequested);

  // /version wins over a bad switch that follows it; a bad switch before it
  // stopped the scan, so it was never seen.
  if (versionRequested) return printVersion() ? 0 : 1;

  switch (validateOptions(options, parseFailed)) {
    case ValidationOutcome::Failed:
      return 1;
    case ValidationOutcome::ShowUsage:
      printUsage();
    case ValidationOutcome::Passed:
      break;
  }

  SensorModel* model = nullptr;
  if (!options.modelPath.empty()) {
    Result<std::unique_ptr<SensorModel>> loaded = loadSensorModel(options.modelPath);
    if (!loaded) {
      std::fprintf(stderr, "%s\n", loaded.message().c_str());
      return 1;
    }
    processLifetime.loadedModel = loaded->release();
    model = processLifetime.loadedModel;
  }

  processLifetime.surface = prepareRun(options, model).release();
  TrackedSurface* surface = processLifetime.surface;

  if (model != nullptr && !options.generate && !options.outScadPath.empty())
    return convertModelToScad(options, surface);

  if (options.verifyCoverage != 0 || options.generate) {
    // Both modes require /sensors, and preparation ends the process when the
    // surface cannot be built.
    if (surface == nullptr) {
      std::fprintf(stderr, "no tracked surface was built from %s\n", options.sensorsPath.c_str());
      return 1;
    }
    if (options.verifyCoverage != 0) runVerifyCoverage(options, *surface);

    // The designed model takes the place of the immutable one for the analysis.
    processLifetime.designedModel = runDesign(options, *surface, model).release();
    model = processLifetime.designedModel;
  }

  if (model == nullptr) return 1;
  return runAnalysis(options, *model, surface, evaluator);
}

}  // namespace sensorlay
