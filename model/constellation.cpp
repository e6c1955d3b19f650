#include "model/constellation.h"

#include <json/json.h>

#include <algorithm>
#include <cmath>

namespace sensorlay {

SensorModel::SensorModel(const Constellation& c, const ModelTransform& t) {
  const size_t n = c.channelMap.size();
  if (c.modelPoints.size() != n || c.modelNormals.size() != n) return;

  for (size_t i = 0; i < n; ++i) {
    const int32_t channel = c.channelMap[i];
    if (channel < 0) continue;
    channelIndex[channel] = static_cast<int32_t>(i);
    channels.push_back(channel);
    const Eigen::Vector3f p = t.rotation * c.modelPoints[i] + t.translation;
    const Eigen::Vector3f nrm = t.rotation * c.modelNormals[i];
    points.push_back(p.cast<double>());
    normals.push_back(nrm.cast<double>());
  }
  cosMaxIncidence = 0.5;

  double maxPair2 = 0.0, maxRadius2 = 0.0;
  for (size_t i = 0; i < points.size(); ++i) {
    maxRadius2 = std::max(maxRadius2, points[i].squaredNorm());
    for (size_t j = 0; j < points.size(); ++j) maxPair2 = std::max(maxPair2, (points[i] - points[j]).squaredNorm());
  }
  maxPairDistance = std::sqrt(maxPair2);
  maxRadius = std::sqrt(maxRadius2);
}

size_t keptSensorCount(const Constellation& c) {
  const size_t n = c.channelMap.size();
  if (c.modelPoints.size() != n || c.modelNormals.size() != n) return 0;
  return static_cast<size_t>(
      std::count_if(c.channelMap.begin(), c.channelMap.end(), [](int32_t ch) { return ch >= 0; }));
}

bool parseModelSection(Constellation& c, const Json::Value& root) {
  return readModelSection(c, root.isMember("beaconet_config") ? root["beaconet_config"] : root);
}

bool readModelSection(Constellation& c, const Json::Value& section) {
  c = Constellation();
  c.modelCad = section.get("modelCad", "").asString();
  if (!section.isMember("channelMap") || !section.isMember("modelPoints") || !section.isMember("modelNormals"))
    return false;

  const Json::Value& channels = section["channelMap"];
  for (Json::ArrayIndex i = 0; i < channels.size(); ++i) c.channelMap.push_back(channels.get(i, 0).asInt());

  auto readTriple = [](const Json::Value& v) {
    return Eigen::Vector3f(static_cast<float>(v.get(0u, 0.0).asDouble()), static_cast<float>(v.get(1u, 0.0).asDouble()),
                           static_cast<float>(v.get(2u, 0.0).asDouble()));
  };
  const Json::Value& points = section["modelPoints"];
  for (Json::ArrayIndex i = 0; i < points.size(); ++i) c.modelPoints.push_back(readTriple(points[i]));

  const Json::Value& normals = section["modelNormals"];
  for (Json::ArrayIndex i = 0; i < normals.size(); ++i) {
    Eigen::Vector3f nrm = readTriple(normals[i]);
    const float inverseLength = 1.0f / std::sqrt(nrm.x() * nrm.x() + nrm.y() * nrm.y() + nrm.z() * nrm.z());
    c.modelNormals.push_back(nrm * inverseLength);
  }
  c.valid = true;
  return true;
}

JsonOut constellationToJson(const Constellation& c) {
  JsonOut root;
  if (!c.valid) return root;
  if (!c.modelCad.empty()) root["modelCad"] = c.modelCad;
  for (int32_t channel : c.channelMap) root["channelMap"].append(channel);
  auto triple = [](const Eigen::Vector3f& v) {
    JsonOut a = JsonOut::array();
    a.append(v.x());
    a.append(v.y());
    a.append(v.z());
    return a;
  };
  for (const auto& p : c.modelPoints) root["modelPoints"].append(triple(p));
  for (const auto& n : c.modelNormals) root["modelNormals"].append(triple(n));
  return root;
}

}  // namespace sensorlay
