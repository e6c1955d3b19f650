#include "surface/coverage_evaluator.h"

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

int32_t sweepKindForStation(int32_t stationKind) {
  switch (stationKind) {
    case 7:
    case 8:
      return 2;
    case 10:
      return 3;
    case 11:
      return 4;
    case 13:
    case 14:
      return 5;
    default:
      return 1;
  }
}

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

void CoverageEvaluator::rebuildObservations() {
  observations.reset();
  auto set = std::make_unique<SweepObservationSet>();
  set->surface = surface;

  const size_t n = model != nullptr ? model->points.size() : 0;
  const size_t channelCount = model != nullptr ? model->channels.size() : 0;
  if (n > 0) {
    const int32_t sweepKind = sweepKindForStation(stationConfig.stationKind);
    set->sensorSweeps.reserve(n);
    set->visibilityTests.reserve(n);
    set->visibleNow.reserve(n);
    set->everVisible.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      // The record carries the channel's index in the model file's numbering,
      // as the model keeps it; a channel without an entry (a model built by
      // hand) gets an index that no sensor has, so it is never seen.
      int32_t sensorIndex = -1;
      if (i < channelCount) {
        const auto found = model->channelIndex.find(model->channels[i]);
        if (found != model->channelIndex.end()) sensorIndex = found->second;
      }
      // Pointers, not copies: a moved sensor or a new tilt takes effect at once.
      set->sensorSweeps.push_back(SensorSweep{model, sensorIndex, &stationConfig, sweepKind});
      set->visibilityTests.push_back(SensorVisibilityTest{model, sensorIndex, surface});
      set->visibleNow.push_back(true);
      set->everVisible.push_back(false);
    }
  }
  observations = std::move(set);
}

}  // namespace sensorlay
