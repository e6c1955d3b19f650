#pragma once
// A design's coverage in a few numbers: over the directions of the analysis
// grid, with the numbers of the coverage table's rows (sensors seen, grade,
// both uncertainties), each direction weighted by the share of the sphere it
// stands for, the cosine of its latitude. So a share is a share of the
// sphere, not of the grid's rows, which crowd towards the poles.

#include <cstdint>
#include <vector>

#include "common/json_io.h"
#include "common/result.h"
#include "quality/orientation_samples.h"
#include "reports/report_tables.h"

namespace sensorlay {

class CoverageEvaluator;
class WorkerPool;

// One direction as the coverage table's row gives it.
struct DirectionCoverage {
  int32_t visibleCount = 0;
  ViewGrade grade;
  double rotationSigma = 1.0;  // radians; 1 = no fix
  double positionSigma = 1.0;  // metres; 1 = no fix
  uint32_t visibleMask = 0;    // bit k: the sensor at index k of the model is seen
};

// The rows of the coverage table of the evaluator's model at each direction of
// `grid`, computed on `pool`; the same numbers for every thread count. Fails
// as the table does: a model the tables cannot serve, or a grade that needs a
// sensor position the model lacks.
Result<std::vector<DirectionCoverage>> computeCoverageRows(const CoverageEvaluator& evaluator,
                                                           const std::vector<OrientationSample>& grid,
                                                           WorkerPool& pool);

// The grades of the table, in this order in CoverageSummary::shareByGrade.
constexpr int32_t kGrades[4] = {0, 96, 99, 100};

// A weighted quantile pair of an uncertainty.
struct SigmaSpread {
  double median = 1.0;
  double p95 = 1.0;
};

struct CoverageSummary {
  double stepDegrees = 0.0;
  double distanceMeters = 0.0;
  int64_t directions = 0;
  // Element v: the share of the sphere from which exactly v sensors are seen.
  std::vector<double> shareByVisibleCount;
  // In the order of kGrades; grade 100 is a full fix.
  double shareByGrade[4] = {0.0, 0.0, 0.0, 0.0};
  double fullFixShare = 0.0;
  // The share with a fix at all: any grade but 0.
  double fixShare = 0.0;
  // Over the directions with a fix; 1 when there are none.
  SigmaSpread positionSigma;  // metres
  SigmaSpread rotationSigma;  // radians
  // The channels no direction sees, in model order.
  std::vector<int32_t> neverSeen;
};

// The summary of the rows of `grid` (in the grid's order) for `model`, laid
// with a step of `stepDegrees` at `distanceMeters`.
CoverageSummary summarizeCoverage(const std::vector<DirectionCoverage>& rows,
                                  const std::vector<OrientationSample>& grid, const SensorModel& model,
                                  double stepDegrees, double distanceMeters);

// The summary of the evaluator's model on the full-sphere grid of
// `stepDegrees`, with the device at the evaluator's position.
Result<CoverageSummary> summarizeModelCoverage(const CoverageEvaluator& evaluator, double stepDegrees,
                                               WorkerPool& pool);

// The summary as the JSON document that design runs write beside the model.
JsonOut coverageSummaryJson(const CoverageSummary& summary);

}  // namespace sensorlay
