#pragma once
// The object on which coverage and tracking quality are computed: a sensor
// model, the surface that occludes it, the sampled orientations, the quality
// map and curve, and the one modelled base station.

#include <Eigen/Core>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "model/constellation.h"
#include "observation/sweep_model.h"
#include "quality/quality_map.h"

namespace sensorlay {

class TrackedSurface;
struct ScoreScratch;  // quality/score_scratch.h

// Thirteen 64-bit floats; see sampleOrientations and buildReportGrid.
struct OrientationSample {
  double latitude = 0.0;
  double longitude = 0.0;
  double rotationVector[3] = {0.0, 0.0, 0.0};
  double quaternion[4] = {1.0, 0.0, 0.0, 0.0};  // w, x, y, z
  double direction[3] = {0.0, 0.0, 1.0};
  double weight = 1.0;
};

class CoverageEvaluator {
 public:
  CoverageEvaluator();
  ~CoverageEvaluator();
  // The records of the observation set point into this object.
  CoverageEvaluator(const CoverageEvaluator&) = delete;
  CoverageEvaluator& operator=(const CoverageEvaluator&) = delete;

  // Replaces the observation set from `model`, `surface` and `stationConfig`.
  void rebuildObservations();

  // Orientation samples (quality/orientation_samples.cpp), weighted by the
  // quality map. Yields the factor that rescaled the weights to average 1, or
  // nothing when they add up to nothing.
  std::optional<double> sampleOrientations(int32_t count);
  // Replaces the quality map by the one at `path`; an empty path means no
  // map, and so does a map that cannot be read, whose complaint comes back.
  Status loadQualityMap(const std::string& path);
  // Score (quality/score.cpp).
  double scorePlacement();
  void setQualityRange(double low, double high);
  SensorModel* model = nullptr;
  const TrackedSurface* surface = nullptr;
  std::unique_ptr<SweepObservationSet> observations;
  Eigen::MatrixXd measurementInformation;  // 64 x 64
  std::array<double, 7> pose = {0.0, 0.0, -2.0, 1.0, 0.0, 0.0, 0.0};
  double qualityBase = 0.9640275800758169;
  double qualityGain = 100.0;
  double qualityBias = -2.0;
  StationConfig stationConfig;
  std::vector<OrientationSample> samples;
  double scoreScale = 1.0;
  QualityMap qualityMap;
  // Buffers that scorePlacement reuses from sample to sample and call to call.
  std::unique_ptr<ScoreScratch> scoreScratch;
};

}  // namespace sensorlay
