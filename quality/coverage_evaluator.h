#pragma once
// The object on which coverage and tracking quality are computed: a sensor
// model, the surface that occludes it, the sampled orientations, the quality
// map and curve, and the one modelled base station.

#include <Eigen/Core>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "model/constellation.h"
#include "observation/sweep_model.h"

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

  // Orientation samples (quality/orientation_samples.cpp).
  void sampleOrientations(int32_t count);
  // Quality map (quality/quality_map.cpp). An empty path means no map.
  void loadQualityMap(const std::string& path);
  float qualityAt(double latitude, double longitude) const;
  // Score (quality/score.cpp).
  double scorePlacement();
  void setQualityRange(double low, double high);
  // Report tables (reports/).
  void buildReportGrid(double span, double step);
  void printCoverageTable();
  void printSensitivityTable();

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
  std::vector<float> qualityMapPixels;
  int32_t qualityMapWidth = 0;
  int32_t qualityMapHeight = 0;
  // Buffers that scorePlacement reuses from sample to sample and call to call.
  std::unique_ptr<ScoreScratch> scoreScratch;
};

}  // namespace sensorlay
