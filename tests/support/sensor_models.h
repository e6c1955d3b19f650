#pragma once
// Sensor models made in code for the tests. Header only.

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "model/constellation.h"

namespace sensorlay::testing {

// The sensors on channels 0, 1, 2, ... unless channels are given.
inline std::unique_ptr<SensorModel> makeSensorModel(const std::vector<Eigen::Vector3f>& points,
                                                    const std::vector<Eigen::Vector3f>& normals,
                                                    std::vector<int32_t> channels = {}) {
  Constellation c;
  c.valid = true;
  for (size_t i = channels.size(); i < points.size(); ++i) channels.push_back(static_cast<int32_t>(i));
  c.channelMap = channels;
  c.modelPoints = points;
  for (const Eigen::Vector3f& n : normals) c.modelNormals.push_back(n.normalized());
  return std::make_unique<SensorModel>(c, ModelTransform());
}

// Sensors spread over a sphere about the origin by the golden angle, facing out.
inline std::unique_ptr<SensorModel> makeSphereSensors(int count, float radius) {
  std::vector<Eigen::Vector3f> points, normals;
  for (int i = 0; i < count; ++i) {
    const double z = 1.0 - (2.0 * i + 1.0) / count, r = std::sqrt(1.0 - z * z), a = 2.399963229728653 * i;
    normals.push_back(Eigen::Vector3d(r * std::cos(a), r * std::sin(a), z).cast<float>());
    points.push_back(normals.back() * radius);
  }
  return makeSensorModel(points, normals);
}

}  // namespace sensorlay::testing
