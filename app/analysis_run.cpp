#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iostream>

#include "app/modes.h"
#include "common/files.h"
#include "common/output_file.h"
#include "common/rotation.h"
#include "device/model_loading.h"
#include "model/scad_writer.h"
#include "quality/coverage_evaluator.h"
#include "reports/report_tables.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

constexpr double kFullTurn = 6.283185307179586;

}  // namespace

void refuseAnalysis(const DesignOptions& options, const std::string& problem) {
  if (options.generate)
    std::cerr << "Cannot analyse the designed model: " << problem << std::endl;
  else
    std::cerr << "Cannot analyse " << printablePath(options.modelPath) << ": " << problem << std::endl;
}

int runAnalysis(const DesignOptions& options, SensorModel& model, TrackedSurface* surface, WorkerPool& pool) {
  // The tables hold two angle rows per visible sensor in a 64-row matrix and
  // one mask entry per channel below 32; a model beyond that is refused
  // before anything is printed rather than reported on in part.
  const std::string problem = reportModelProblem(model);
  if (!problem.empty()) {
    refuseAnalysis(options, problem);
    return 1;
  }

  const double step = degreesToRadians(options.angleResolutionDegrees);
  const uint64_t rows = estimateReportRows(kFullTurn, step);
  if (rows > kReportRowLimit) {
    if (!(step > 0.0) || !std::isfinite(step))
      std::cerr << "/angleresolutiondegrees must be a number of degrees above 0, not " << options.angleResolutionDegrees
                << "." << std::endl;
    else
      std::cerr << "/angleresolutiondegrees " << options.angleResolutionDegrees << " would make a table of about "
                << rows << " rows; the most is " << kReportRowLimit << " (a step of 0.1 degrees or more)." << std::endl;
    return 1;
  }

  // The plain angle of the option, also after a design run: the design's
  // margin belongs to the search only.
  model.cosMaxIncidence = std::cos(degreesToRadians(options.maxIncidenceAngle));

  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.rebuildObservations();
  // Without a surface nothing occludes: only the incidence limit applies.
  evaluator.surface = surface;
  evaluator.rebuildObservations();
  if (options.srbTiltRadians != 0.0) {
    evaluator.stationConfig.stationKind = StationKind::TiltedRotor;
    evaluator.stationConfig.tiltRadians = options.srbTiltRadians;
    evaluator.rebuildObservations();
  }

  // Worked out block by block as the rows are printed.
  const ReportGrid grid(kFullTurn, step);
  // The sign of the distance is ignored: the device always stands in front.
  evaluator.position.z() = -std::fabs(options.distanceBaseMeters);

  const Result<std::vector<int32_t>> unseen = options.baseStationSensitivity
                                                  ? printSensitivityTable(evaluator, grid, pool, stdout)
                                                  : printCoverageTable(evaluator, grid, pool, stdout);
  if (!unseen) {
    std::cerr << unseen.message() << std::endl;
    return 1;
  }
  for (int32_t channel : *unseen) std::cerr << "did not see sensor id " << channel << std::endl;
  // A table cut short by a full disk must not pass for a whole one.
  const Status written = flushStandardOutput("the table");
  if (!written) {
    std::cerr << written.message() << std::endl;
    return 1;
  }
  return 0;
}

int convertModelToScad(const DesignOptions& options, TrackedSurface* surface) {
  // A fresh read: the loaded SensorModel has dropped the negative channels,
  // while the script shows every sensor of the file.
  const Result<Constellation> read = readModelFile(options.modelPath);
  if (!read) {
    std::fprintf(stderr, "%s\n", read.message().c_str());
    return 1;
  }
  const Constellation& constellation = *read;

  std::string script;
  if (surface != nullptr)
    script = writeScad(constellation, surface->getSensorsPath(), surface->getObstaclePaths(), surface->getScale(),
                       options.withScadNormals, true);
  else
    script = writeScad(constellation, std::string(), std::vector<std::string>(), 1.0, options.withScadNormals, true);

  const std::vector<std::string> cutShort = writeOutputFiles(
      {{options.outScadPath, "/* From " + scadCommentText(options.modelPath) + "*/\n\n" + script, "script"}});
  for (const std::string& message : cutShort) std::cerr << message << std::endl;
  if (!cutShort.empty()) return 1;
  return 0;
}

}  // namespace sensorlay
