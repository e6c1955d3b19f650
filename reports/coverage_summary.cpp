#include "reports/coverage_summary.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <sstream>
#include <string>
#include <utility>

#include "common/rotation.h"
#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"

namespace sensorlay {

namespace {

constexpr double kFullTurn = 6.283185307179586;

// Rows per task: enough to pay for the hand-out, few enough to even out.
constexpr size_t kRowsPerTask = 256;

// The smallest value whose weight, with that of all smaller ones, reaches
// `share` of the total. `values` holds (value, weight) pairs, sorted.
double weightedQuantile(const std::vector<std::pair<double, double>>& values, double total, double share) {
  double running = 0.0;
  for (const auto& [value, weight] : values) {
    running += weight;
    if (running >= share * total) return value;
  }
  return values.empty() ? 1.0 : values.back().first;
}

SigmaSpread spreadOf(std::vector<std::pair<double, double>>& values, double total) {
  if (values.empty() || !(total > 0.0)) return SigmaSpread();
  std::sort(values.begin(), values.end());
  return {weightedQuantile(values, total, 0.5), weightedQuantile(values, total, 0.95)};
}

int gradeIndex(const ViewGrade& grade) {
  for (int g = 0; g < 4; ++g)
    if (kGrades[g] == grade.first) return g;
  return 0;
}

}  // namespace

Result<std::vector<DirectionCoverage>> computeCoverageRows(const CoverageEvaluator& evaluator,
                                                           const std::vector<OrientationSample>& grid,
                                                           WorkerPool& pool) {
  if (Status ready = readyForTable(evaluator); !ready) return ready;
  std::vector<RowWorker> workers;
  workers.reserve(static_cast<size_t>(pool.size()));
  for (int i = 0; i < pool.size(); ++i) workers.emplace_back(evaluator);

  std::vector<DirectionCoverage> rows(grid.size());
  // The first row, in grid order, whose grade needed a position the model
  // lacks; the rows after it do not matter then.
  std::atomic<size_t> firstFailed{grid.size()};
  std::vector<int32_t> missing(grid.size() == 0 ? 0 : (grid.size() + kRowsPerTask - 1) / kRowsPerTask, -1);
  pool.run(static_cast<int>(missing.size()), [&](int task, int worker) {
    RowWorker& w = workers[static_cast<size_t>(worker)];
    const size_t end = std::min(grid.size(), (static_cast<size_t>(task) + 1) * kRowsPerTask);
    for (size_t r = static_cast<size_t>(task) * kRowsPerTask; r < end; ++r) {
      CoverageRow row;
      if (!computeCoverageRow(evaluator, grid[r], w, row)) {
        missing[static_cast<size_t>(task)] = w.missingChannel;
        size_t seen = firstFailed.load();
        while (r < seen && !firstFailed.compare_exchange_weak(seen, r)) {
        }
        return;
      }
      DirectionCoverage& out = rows[r];
      out.visibleCount = row.visibleCount;
      out.grade = row.grade;
      out.rotationSigma = row.rotationSigma;
      out.positionSigma = row.positionSigma;
      out.visibleMask = 0;
      for (size_t k = 0; k < w.view.visibleNow.size() && k < 32; ++k)
        if (w.view.visibleNow[k]) out.visibleMask |= uint32_t{1} << k;
    }
  });
  if (firstFailed.load() < grid.size())
    return Status::failure("The sensor model has no position for channel " +
                           std::to_string(missing[firstFailed.load() / kRowsPerTask]) + ".");
  return rows;
}

CoverageSummary summarizeCoverage(const std::vector<DirectionCoverage>& rows,
                                  const std::vector<OrientationSample>& grid, const SensorModel& model,
                                  double stepDegrees, double distanceMeters) {
  CoverageSummary summary;
  summary.stepDegrees = stepDegrees;
  summary.distanceMeters = distanceMeters;
  summary.directions = static_cast<int64_t>(rows.size());
  summary.shareByVisibleCount.assign(model.sensorCount() + 1, 0.0);

  double total = 0.0, fixTotal = 0.0;
  uint32_t seen = 0;
  std::vector<std::pair<double, double>> positions, rotations;
  for (size_t r = 0; r < rows.size() && r < grid.size(); ++r) {
    const DirectionCoverage& row = rows[r];
    // The share of the sphere of a grid cell: the cosine of its latitude,
    // which is never below 0 there.
    const double weight = std::max(0.0, std::cos(grid[r].latitude));
    total += weight;
    const size_t count = std::min(static_cast<size_t>(std::max(row.visibleCount, 0)), model.sensorCount());
    summary.shareByVisibleCount[count] += weight;
    summary.shareByGrade[gradeIndex(row.grade)] += weight;
    seen |= row.visibleMask;
    if (row.grade.first != 0) {
      fixTotal += weight;
      positions.emplace_back(row.positionSigma, weight);
      rotations.emplace_back(row.rotationSigma, weight);
    }
  }
  if (total > 0.0) {
    for (double& share : summary.shareByVisibleCount) share /= total;
    for (double& share : summary.shareByGrade) share /= total;
  }
  summary.fullFixShare = summary.shareByGrade[3];
  summary.fixShare = total > 0.0 ? fixTotal / total : 0.0;
  summary.positionSigma = spreadOf(positions, fixTotal);
  summary.rotationSigma = spreadOf(rotations, fixTotal);
  for (size_t k = 0; k < model.channels.size(); ++k)
    if (k >= 32 || !(seen >> k & 1u)) summary.neverSeen.push_back(model.channels[k]);
  return summary;
}

Result<CoverageSummary> summarizeModelCoverage(const CoverageEvaluator& evaluator, double stepDegrees,
                                               WorkerPool& pool) {
  const double step = degreesToRadians(stepDegrees);
  if (estimateReportRows(kFullTurn, step) > kReportRowLimit) {
    std::ostringstream why;
    why << "a coverage grid step of " << stepDegrees << " degrees is too fine or not a positive number";
    return Status::failure(why.str());
  }
  const std::vector<OrientationSample> grid = buildReportGrid(kFullTurn, step);
  Result<std::vector<DirectionCoverage>> rows = computeCoverageRows(evaluator, grid, pool);
  if (!rows) return rows.status();
  return summarizeCoverage(*rows, grid, *evaluator.model, stepDegrees, evaluator.position.norm());
}

JsonOut coverageSummaryJson(const CoverageSummary& summary) {
  JsonOut json = JsonOut::object();
  json["stepDegrees"] = summary.stepDegrees;
  json["distanceMeters"] = summary.distanceMeters;
  json["directions"] = summary.directions;
  json["weighting"] = "cosine of latitude";
  JsonOut& byCount = json["shareByVisibleCount"] = JsonOut::array();
  for (double share : summary.shareByVisibleCount) byCount.append(share);
  JsonOut& byGrade = json["shareByGrade"] = JsonOut::object();
  for (int g = 0; g < 4; ++g) byGrade[std::to_string(kGrades[g])] = summary.shareByGrade[g];
  json["fullFixShare"] = summary.fullFixShare;
  json["fixShare"] = summary.fixShare;
  JsonOut& position = json["positionSigmaMeters"] = JsonOut::object();
  position["median"] = summary.positionSigma.median;
  position["p95"] = summary.positionSigma.p95;
  JsonOut& rotation = json["rotationSigmaRadians"] = JsonOut::object();
  rotation["median"] = summary.rotationSigma.median;
  rotation["p95"] = summary.rotationSigma.p95;
  JsonOut& never = json["neverSeen"] = JsonOut::array();
  for (int32_t channel : summary.neverSeen) never.append(channel);
  return json;
}

}  // namespace sensorlay
