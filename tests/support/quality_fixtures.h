#pragma once
// Sensor models and evaluators for the tests of the sweep model, the
// orientation samples and the score. Header only.

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "model/constellation.h"
#include "surface/coverage_evaluator.h"

namespace sensorlay::testing {

// A model of the given sensors on channels 0, 1, 2, ... unless channels are
// given; normals are normalised.
inline std::unique_ptr<SensorModel> makeSensorModel(const std::vector<Eigen::Vector3f>& points,
                                                    const std::vector<Eigen::Vector3f>& normals,
                                                    std::vector<int32_t> channels = {}) {
  Constellation c;
  c.valid = true;
  if (channels.empty())
    for (size_t i = 0; i < points.size(); ++i) channels.push_back(static_cast<int32_t>(i));
  c.channelMap = channels;
  c.modelPoints = points;
  for (const Eigen::Vector3f& n : normals) c.modelNormals.push_back(n.normalized());
  return std::make_unique<SensorModel>(c, ModelTransform());
}

// Sensors on a sphere of the given radius about the origin, spread by the
// golden angle, with outward normals.
inline std::unique_ptr<SensorModel> makeSphereSensors(int count, float radius) {
  std::vector<Eigen::Vector3f> points, normals;
  const double golden = 2.399963229728653;
  for (int i = 0; i < count; ++i) {
    const double z = 1.0 - (2.0 * i + 1.0) / count;
    const double r = std::sqrt(1.0 - z * z);
    const Eigen::Vector3f n(static_cast<float>(r * std::cos(golden * i)), static_cast<float>(r * std::sin(golden * i)),
                            static_cast<float>(z));
    normals.push_back(n);
    points.push_back(n * radius);
  }
  return makeSensorModel(points, normals);
}

// An evaluator holding the model (and surface) with its observations built.
inline void attach(CoverageEvaluator& evaluator, SensorModel* model, const TrackedSurface* surface = nullptr) {
  evaluator.model = model;
  evaluator.rebuildObservations();
  evaluator.surface = surface;
  evaluator.rebuildObservations();
}

}  // namespace sensorlay::testing
