#include "quality/coverage_evaluator.h"

#include <Eigen/LU>

#include "quality/score_scratch.h"

namespace sensorlay {

namespace {

constexpr int kAngleRows = 64;
// Variance of one sweep angle: (15 pi 1e-6 rad)^2.
constexpr double kSingleAngleVariance = 2.2206609902451057e-9;
// Variance shared by all angles of one kind (all first, or all second angles):
// (4 pi 1e-6 rad)^2.
constexpr double kSharedAngleVariance = 1.579136704174297e-10;

}  // namespace

CoverageEvaluator::CoverageEvaluator() {
  // Row 2k is a sensor's first angle and row 2k + 1 its second. Each angle has
  // its own noise, and each kind of angle shares one more noise term across
  // all sensors; first and second angles are independent of each other.
  Eigen::MatrixXd covariance = Eigen::MatrixXd::Zero(kAngleRows, kAngleRows);
  for (int i = 0; i < kAngleRows; ++i) covariance(i, i) = kSingleAngleVariance;
  for (int i = 0; i < kAngleRows; ++i)
    for (int j = 0; j < kAngleRows; ++j)
      if ((i % 2) == (j % 2)) covariance(i, j) += kSharedAngleVariance;
  // Formed once: the noise is a constant of the design, never recomputed per pose.
  measurementInformation = covariance.inverse();
}

CoverageEvaluator::~CoverageEvaluator() = default;

Status CoverageEvaluator::loadQualityMap(const std::string& path) {
  qualityMap = QualityMap();
  Result<QualityMap> loaded = QualityMap::load(path);
  if (!loaded) return loaded.status();
  qualityMap = std::move(*loaded);
  return Status();
}

void CoverageEvaluator::rebuildObservations() {
  observations.reset();
  observations = makeObservationSet(model, surface, stationConfig);
}

}  // namespace sensorlay
