#pragma once
// The flows that the entry point selects between after preparation.

#include <memory>

#include "app/design_options.h"
#include "model/constellation.h"

namespace sensorlay {

class TrackedSurface;
class CoverageEvaluator;

// Builds the surface when a sensors path is given and holds the model against
// the options and the surface; ends the process on a misfit.
std::unique_ptr<TrackedSurface> prepareRun(const DesignOptions& options, const SensorModel* model);

// The design run: searches a placement, writes the script and the model file,
// and yields the designed model for the analysis that follows.
std::unique_ptr<SensorModel> runDesign(const DesignOptions& options, TrackedSurface& surface,
                                       const SensorModel* immutableModel);

// The analysis run: prints the coverage or sensitivity table. Yields the status.
int runAnalysis(const DesignOptions& options, SensorModel& model, TrackedSurface* surface,
                CoverageEvaluator& evaluator);

// The model-to-script conversion. Yields the status.
int convertModelToScad(const DesignOptions& options, TrackedSurface* surface);

// The surface-fit preview; ends the process.
[[noreturn]] void runVerifyCoverage(const DesignOptions& options, TrackedSurface& surface);

}  // namespace sensorlay
