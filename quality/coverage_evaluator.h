#pragma once
// A sensor model as the one modelled base station sees it: the model, the
// surface that occludes it, the station, the observation records built from
// them and where the device stands; with the quality map and the placement
// score judged on them.

#include <Eigen/Core>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/result.h"
#include "model/constellation.h"
#include "observation/sweep_model.h"
#include "quality/placement_score.h"
#include "quality/quality_map.h"

namespace sensorlay {

class TrackedSurface;

class CoverageEvaluator {
 public:
  CoverageEvaluator();
  ~CoverageEvaluator();
  // The records of the observation set point into this object.
  CoverageEvaluator(const CoverageEvaluator&) = delete;
  CoverageEvaluator& operator=(const CoverageEvaluator&) = delete;

  // Replaces the observation set from `model`, `surface` and `stationConfig`.
  // Needed when one of them changes, not when a sensor moves.
  void rebuildObservations();

  // Replaces the quality map by the one at `path`; an empty path means no
  // map, and so does a map that cannot be read, whose complaint comes back.
  Status loadQualityMap(const std::string& path);
  // The score's samples, weighted by the quality map.
  Result<std::optional<double>> sampleOrientations(int32_t count) {
    return score.sampleOrientations(count, qualityMap);
  }
  void setQualityRange(double low, double high) { score.curve = QualityCurve::forRange(low, high); }
  // The placement score of the model as it stands.
  double scorePlacement() { return score.evaluate(*observations, position); }

  SensorModel* model = nullptr;
  const TrackedSurface* surface = nullptr;
  StationConfig stationConfig;
  std::unique_ptr<SweepObservationSet> observations;
  // The device's position in the station's frame: in front, along -Z.
  Eigen::Vector3d position{0.0, 0.0, -2.0};
  QualityMap qualityMap;
  PlacementScore score;
};

}  // namespace sensorlay
