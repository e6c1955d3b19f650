#pragma once
// The flows that the entry point selects between after preparation. Each
// prints its own output and complaints and yields the process status, or what
// the next flow needs.

#include <memory>
#include <string>
#include <vector>

#include "app/design_options.h"
#include "model/constellation.h"

namespace sensorlay {

class TrackedSurface;
class CoverageEvaluator;
class WorkerPool;

// Builds the surface into `surface` when a sensors path is given, holds the
// model file's sensors against the options and the surface, and makes the
// run-time `model` of them. False after a complaint.
bool prepareRun(const DesignOptions& options, const Constellation* constellation, std::unique_ptr<SensorModel>& model,
                std::unique_ptr<TrackedSurface>& surface);

// The line that refuses to analyse a model, for the reason `problem`.
void refuseAnalysis(const DesignOptions& options, const std::string& problem);

// The design run: searches a placement on `pool`, writes the script and the
// model file, and yields the designed model for the analysis that follows;
// null after a complaint.
std::unique_ptr<SensorModel> runDesign(const DesignOptions& options, TrackedSurface& surface,
                                       const SensorModel* immutableModel, WorkerPool& pool);

// The analysis run: prints the coverage or sensitivity table. Yields the status.
int runAnalysis(const DesignOptions& options, SensorModel& model, TrackedSurface* surface, WorkerPool& pool);

// The model-to-script conversion. Yields the status.
int convertModelToScad(const DesignOptions& options, TrackedSurface* surface);

// The surface-fit preview. Yields the status.
int runVerifyCoverage(const DesignOptions& options, TrackedSurface& surface);

// A file a run writes: where, the whole text, and what it is ("script") for
// the complaint.
struct OutputText {
  std::string path;
  std::string text;
  std::string what;
};

// Writes files that belong together. Each goes to a temporary beside it, and
// only once every one is complete are they renamed into place, so that a
// failure (a disk that fills) leaves every older file as it was. Yields the
// complaints, one line each, and none on success. The entry point has refused
// paths that cannot be created before any work; one that became so since
// loses its output without a word.
std::vector<std::string> writeOutputFiles(const std::vector<OutputText>& outputs);

}  // namespace sensorlay
