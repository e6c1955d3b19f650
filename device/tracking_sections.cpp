#include "device/tracking_sections.h"

#include <json/json.h>

#include "device/json_read.h"

namespace sensorlay {

namespace {

Eigen::Vector3f readFloatTriple(const Json::Value& array) {
  return Eigen::Vector3f(elementFloat(array, 0, 0.0f), elementFloat(array, 1, 0.0f), elementFloat(array, 2, 0.0f));
}

JsonOut floatTriple(const Eigen::Vector3f& v) {
  JsonOut out = JsonOut::array();
  for (int i = 0; i < 3; ++i) out.append(v[i]);
  return out;
}

JsonOut doubleTriple(const Eigen::Vector3d& v) {
  JsonOut out = JsonOut::array();
  for (int i = 0; i < 3; ++i) out.append(v[i]);
  return out;
}

bool isNeutralScale(const Eigen::Vector3f& s) { return s == Eigen::Vector3f::Ones() || s == Eigen::Vector3f::Zero(); }

// Drivers of a device that names none; only the driver name is kept.
const char kDefaultDriverText[] = "{\"driver\":\"vidcamlib\", \"streams\": { \"mono\": \"NV12\" } }";

}  // namespace

ImuCalibration readImuCalibration(const Json::Value& value) {
  ImuCalibration c;
  if (jsonHas(value, "gyro_bias")) c.gyroBias = readFloatTriple(jsonMember(value, "gyro_bias"));
  if (jsonHas(value, "gyro_scale")) c.gyroScale = readFloatTriple(jsonMember(value, "gyro_scale"));
  if (jsonHas(value, "acc_bias")) c.accBias = readFloatTriple(jsonMember(value, "acc_bias"));
  if (jsonHas(value, "acc_scale")) c.accScale = readFloatTriple(jsonMember(value, "acc_scale"));
  return c;
}

void writeImuCalibration(JsonOut& target, const ImuCalibration& c, bool all) {
  if (all || c.gyroBias != Eigen::Vector3f::Zero()) target["gyro_bias"] = floatTriple(c.gyroBias);
  if (all || !isNeutralScale(c.gyroScale)) target["gyro_scale"] = floatTriple(c.gyroScale);
  if (all || c.accBias != Eigen::Vector3f::Zero()) target["acc_bias"] = floatTriple(c.accBias);
  if (all || !isNeutralScale(c.accScale)) target["acc_scale"] = floatTriple(c.accScale);
}

RigidTransform defaultCameraMounting() {
  RigidTransform t;
  t.rotation = Eigen::Vector4f(-0.21644f, 0.0f, 0.0f, 0.976296f);
  t.translation = Eigen::Vector3f(0.0f, -0.038178f, -0.074294f);
  return t;
}

CameraIntrinsics readCameraIntrinsics(const Json::Value& value) {
  CameraIntrinsics c;
  c.interface = readString(value, "interface");
  c.width = readInt(value, "width", 0);
  c.height = readInt(value, "height", 0);
  c.undistWidth = readInt(value, "undist_width", 0);
  c.undistHeight = readInt(value, "undist_height", 0);
  c.focalX = readDouble(value, "focal_x", 0.0);
  c.centerX = readDouble(value, "center_x", 0.0);
  c.focalY = readDouble(value, "focal_y", 0.0);
  c.centerY = readDouble(value, "center_y", 0.0);
  c.distort = readDistortion(jsonMember(value, "distort"));
  if (c.undistWidth == 0) c.undistWidth = c.width;
  if (c.undistHeight == 0) c.undistHeight = c.height;
  return c;
}

JsonOut writeCameraIntrinsics(const CameraIntrinsics& c) {
  JsonOut out = JsonOut::object();
  out["interface"] = c.interface;
  out["width"] = c.width;
  out["height"] = c.height;
  out["focal_x"] = c.focalX;
  out["focal_y"] = c.focalY;
  const double growX = static_cast<double>(static_cast<int64_t>(c.undistWidth) - c.width);
  const double growY = static_cast<double>(static_cast<int64_t>(c.undistHeight) - c.height);
  out["center_x"] = c.centerX - growX * 0.5;
  out["center_y"] = c.centerY - growY * 0.5;
  out["distort"] = writeDistortion(c.distort);
  return out;
}

RigidTransform readFlatTransform(const Json::Value& array) {
  RigidTransform t;
  for (unsigned i = 0; i < 4; ++i) t.rotation[i] = elementFloat(array, i, 0.0f);
  for (unsigned i = 0; i < 3; ++i) t.translation[i] = elementFloat(array, 4 + i, 0.0f);
  return t;
}

JsonOut writeFlatTransform(const RigidTransform& t) {
  JsonOut out = JsonOut::array();
  for (int i = 0; i < 4; ++i) out.append(t.rotation[i]);
  for (int i = 0; i < 3; ++i) out.append(t.translation[i]);
  return out;
}

RigidTransform readAxesTransform(const Json::Value& object) {
  const Eigen::Vector3d position = readTriple(jsonMember(object, "position"));
  const Eigen::Vector3d plusX = readTriple(jsonMember(object, "plus_x"));
  const Eigen::Vector3d plusZ = readTriple(jsonMember(object, "plus_z"));
  RigidTransformD result;
  if (!transformFromAxes(&result, position, plusX, plusZ)) return RigidTransform();
  RigidTransform narrowed;
  for (int i = 0; i < 4; ++i) narrowed.rotation[i] = narrowToFloat(result.rotation[i]);
  for (int i = 0; i < 3; ++i) narrowed.translation[i] = narrowToFloat(result.translation[i]);
  return narrowed;
}

JsonOut writeAxesTransform(const RigidTransform& t, AxesFrom method) {
  const QuaternionXyzw q = t.rotation.cast<double>();
  JsonOut out = JsonOut::object();
  out["position"] = doubleTriple(t.translation.cast<double>());
  if (method == AxesFrom::RotationMatrix) {
    out["plus_x"] = doubleTriple(rotatedPlusX(q));
    out["plus_z"] = doubleTriple(rotatedPlusZ(q));
  } else {
    out["plus_x"] = doubleTriple(rotateByQuaternion(q, Eigen::Vector3d(1, 0, 0)));
    out["plus_z"] = doubleTriple(rotateByQuaternion(q, Eigen::Vector3d(0, 0, 1)));
  }
  return out;
}

TrackedCamera readTrackedCamera(const Json::Value& value) {
  TrackedCamera camera;
  camera.name = readString(value, "name");
  camera.intrinsics = readCameraIntrinsics(jsonMember(value, "intrinsics"));
  const char* poseKey = jsonHas(value, "extrinsics")         ? "extrinsics"
                        : jsonHas(value, "head_from_camera") ? "head_from_camera"
                                                             : nullptr;
  if (poseKey != nullptr) {
    const Json::Value& pose = jsonMember(value, poseKey);
    if (pose.isArray()) {
      camera.extrinsics = readFlatTransform(pose);
    } else if (pose.isObject() && (jsonHas(pose, "position") || jsonHas(pose, "plus_x") || jsonHas(pose, "plus_z"))) {
      camera.extrinsics = readAxesTransform(pose);
    }
  }
  return camera;
}

JsonOut writeTrackedCamera(const TrackedCamera& camera, int32_t generation) {
  JsonOut out = JsonOut::object();
  out["name"] = camera.name;
  out["intrinsics"] = writeCameraIntrinsics(camera.intrinsics);
  if (generation < 2)
    out["head_from_camera"] = writeFlatTransform(camera.extrinsics);
  else
    out["extrinsics"] = writeAxesTransform(camera.extrinsics, AxesFrom::RotatedVectors);
  return out;
}

void readCameraSet(const Json::Value& root, std::vector<std::string>& ispDrivers, std::vector<TrackedCamera>& cameras,
                   int32_t& jsonFormat) {
  // A text or a number has no elements and adds no driver; an object's
  // members can't be taken by position.
  const Json::Value& isps = jsonMember(root, "isps");
  if (isps.isObject() && !isps.empty()) throw DeviceJsonError("isps is an object, not an array");
  if (isps.isArray())
    for (Json::ArrayIndex i = 0; i < isps.size(); ++i) ispDrivers.push_back(readString(isps[i], "driver"));

  // tracked_camera1 takes the lens of tracked_camera when both are given.
  Json::Value first = jsonMember(root, "tracked_camera1");
  const Json::Value& single = jsonMember(root, "tracked_camera");
  if (!first.isNull() && !single.isNull()) {
    if (!first.isObject()) throw DeviceJsonError("tracked_camera1 is not an object");
    first["intrinsics"] = jsonMember(single, "intrinsics");
  }
  if (!first.isNull() || jsonHas(root, "tracked_camera")) {
    TrackedCamera camera = readTrackedCamera(!first.isNull() ? first : single);
    if (camera.name.empty()) camera.name = "center";
    cameras.push_back(camera);
  }

  if (jsonHas(root, "second_tracked_camera")) {
    jsonFormat = 2;
    TrackedCamera second = readTrackedCamera(jsonMember(root, "second_tracked_camera"));
    if (second.name.empty()) second.name = "right";
    if (!cameras.empty() && (cameras.front().name.empty() || cameras.front().name == "center"))
      cameras.front().name = "left";
    // The pair is mounted relative to the first camera; without one there is
    // nothing to compose with, and the second camera keeps its own mounting.
    if (jsonHas(root, "dual_extrinsics")) {
      jsonFormat = 2;
      const Json::Value& dual = jsonMember(root, "dual_extrinsics");
      const Json::Value& rotationValue = jsonMember(dual, "rotation");
      const Json::Value& translationValue = jsonMember(dual, "translation");
      Eigen::Vector4f rotation;
      for (unsigned i = 0; i < 4; ++i) rotation[i] = elementFloat(rotationValue, i, 0.0f);
      Eigen::Vector3f translation;
      for (unsigned i = 0; i < 3; ++i) translation[i] = elementFloat(translationValue, i, 0.0f);
      if (!cameras.empty()) {
        RigidTransform composed = cameras.front().extrinsics;
        const QuaternionXyzw q = composed.rotation.cast<double>();
        const Eigen::Vector3d moved =
            composed.translation.cast<double>() + rotateByQuaternion(q, translation.cast<double>());
        const QuaternionXyzw turned = multiplyQuaternions(q, rotation.cast<double>());
        for (int i = 0; i < 3; ++i) composed.translation[i] = narrowToFloat(moved[i]);
        for (int i = 0; i < 4; ++i) composed.rotation[i] = narrowToFloat(turned[i]);
        second.extrinsics = composed;
      }
    }
    cameras.push_back(second);
  }

  if (cameras.empty()) {
    const Json::Value& list = jsonMember(root, "tracked_cameras");
    int count = 0;
    for (auto it = list.begin(); it != list.end(); ++it, ++count) {
      jsonFormat = 2;
      TrackedCamera camera = readTrackedCamera(*it);
      if (camera.name.empty()) camera.name = "Camera" + std::to_string(count);
      cameras.push_back(camera);
    }
  }

  if (ispDrivers.empty() && !cameras.empty()) {
    Json::Value defaults;
    std::string errors;
    parseJsonText(kDefaultDriverText, defaults, errors);
    ispDrivers.push_back(readString(defaults, "driver"));
  }
}

void writeCameraSet(JsonOut& root, const std::vector<std::string>& ispDrivers,
                    const std::vector<TrackedCamera>& cameras, int32_t jsonFormat) {
  if (cameras.empty()) return;
  if (cameras.size() == 1) {
    root["tracked_camera"] = writeTrackedCamera(cameras.front(), 1);
    return;
  }
  JsonOut isps = JsonOut::array();
  for (const std::string& driver : ispDrivers) {
    JsonOut entry = JsonOut::object();
    entry["driver"] = driver;
    isps.append(entry);
  }
  root["isps"] = isps;
  JsonOut list = JsonOut::array();
  for (const TrackedCamera& camera : cameras) list.append(writeTrackedCamera(camera, jsonFormat));
  root["tracked_cameras"] = list;
}

}  // namespace sensorlay
