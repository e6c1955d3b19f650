#pragma once
// The sensor model: where the photodiodes of a tracked object sit, which way
// each faces and on which channel each reports.

#include <Eigen/Core>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/json_io.h"

namespace Json {
class Value;
}

namespace sensorlay {

// The most sensors a run takes: the noise model has rows for 32 sensors seen
// at once, and the tables keep one mask bit per channel below 32.
constexpr int32_t kMaxSensors = 32;

// The design's result and the model file's content, in metres and single
// precision. The three sequences run in parallel by index.
struct Constellation {
  bool valid = false;
  std::string modelCad;
  std::vector<int32_t> channelMap;
  std::vector<Eigen::Vector3f> modelPoints;
  std::vector<Eigen::Vector3f> modelNormals;
};

// Row-major rotation followed by a translation, both single precision.
struct ModelTransform {
  Eigen::Matrix3f rotation = Eigen::Matrix3f::Identity();
  Eigen::Vector3f translation = Eigen::Vector3f::Zero();
};

// The run-time form of a Constellation, in double precision. Sensors on a
// negative channel are left out of `channels`, `points` and `normals`, while
// `channelIndex` keeps the Constellation's numbering.
struct SensorModel {
  SensorModel(const Constellation& constellation, const ModelTransform& transform);

  size_t sensorCount() const { return points.size(); }

  std::map<int32_t, int32_t> channelIndex;
  std::vector<int32_t> channels;
  std::vector<Eigen::Vector3d> points;
  std::vector<Eigen::Vector3d> normals;
  double cosMaxIncidence = 0.5;
  double maxPairDistance = 0.0;
  double maxRadius = 0.0;
  // The first `immutableCount` sensors are fixed during a design run.
  uint64_t immutableCount = 0;
};

// The number of sensors a SensorModel made from `constellation` holds: those on
// a channel that is not negative; none when the sequences disagree in length.
size_t keptSensorCount(const Constellation& constellation);

// Fills the record from a root that holds the section under "beaconet_config"
// or is the section itself; yields `valid`.
bool parseModelSection(Constellation& constellation, const Json::Value& root);
// The same from the section itself.
bool readModelSection(Constellation& constellation, const Json::Value& section);

// The section as JSON; null for a record that is not valid or has no sensors.
JsonOut constellationToJson(const Constellation& constellation);

}  // namespace sensorlay
