#pragma once
// The tracking parts of a device record: the IMU calibration, the cameras
// with their lenses and mounting, and the camera drivers. Camera keys grew in
// three steps, so one camera list is fed from several key sets by a fixed
// precedence.

#include <Eigen/Core>

#include <cstdint>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "device/display_sections.h"
#include "device/rigid_transform.h"

namespace Json {
class Value;
}

namespace sensorlay {

struct ImuCalibration {
  Eigen::Vector3f gyroBias = Eigen::Vector3f::Zero();
  Eigen::Vector3f gyroScale = Eigen::Vector3f::Ones();
  Eigen::Vector3f accBias = Eigen::Vector3f::Zero();
  Eigen::Vector3f accScale = Eigen::Vector3f::Ones();

  bool operator==(const ImuCalibration& o) const {
    return gyroBias == o.gyroBias && gyroScale == o.gyroScale && accBias == o.accBias && accScale == o.accScale;
  }
};

// Reads from the "imu" object or from the root of an old file; members not
// present stay neutral.
ImuCalibration readImuCalibration(const Json::Value& value);
// Adds the members to `target`: all four, or only those that change something
// (a scale of all zeros counts as unset, like all ones).
void writeImuCalibration(JsonOut& target, const ImuCalibration& calibration, bool all);

struct CameraIntrinsics {
  std::string interface;
  int32_t width = 0;
  int32_t height = 0;
  int32_t undistWidth = 0;
  int32_t undistHeight = 0;
  double focalX = 0.0;
  double centerX = 0.0;
  double focalY = 0.0;
  double centerY = 0.0;
  DistortionSection distort;
};

// Where a camera sits on the head when its file entry does not say.
RigidTransform defaultCameraMounting();

struct TrackedCamera {
  std::string name;
  CameraIntrinsics intrinsics;
  RigidTransform extrinsics = defaultCameraMounting();
};

CameraIntrinsics readCameraIntrinsics(const Json::Value& value);
// The undistorted size is not written; the center is written as seen on the
// distorted image.
JsonOut writeCameraIntrinsics(const CameraIntrinsics& intrinsics);

TrackedCamera readTrackedCamera(const Json::Value& value);
// Generations below 2 write "head_from_camera" as seven numbers, 2 writes an
// "extrinsics" object of axes.
JsonOut writeTrackedCamera(const TrackedCamera& camera, int32_t generation);

// Seven numbers, quaternion x, y, z, w and translation; missing ones read as 0.
RigidTransform readFlatTransform(const Json::Value& array);
JsonOut writeFlatTransform(const RigidTransform& transform);
// "position", "plus_x" and "plus_z" of an object (missing ones as zeros) made
// into a transform; axes that make none give the identity at the origin.
RigidTransform readAxesTransform(const Json::Value& object);
// The same three keys as 64-bit triples: plus_x and plus_z are where the
// rotation takes the X and Z axes. Poses of the IMU and the head take them
// from the columns of the rotation matrix, cameras by rotating the two unit
// vectors; the two can differ in the last digit.
enum class AxesFrom { RotationMatrix, RotatedVectors };
JsonOut writeAxesTransform(const RigidTransform& transform, AxesFrom method);

// The camera keys of a root, in their order of precedence. Keys of the
// newest layout raise `jsonFormat` to 2.
void readCameraSet(const Json::Value& root, std::vector<std::string>& ispDrivers, std::vector<TrackedCamera>& cameras,
                   int32_t& jsonFormat);
void writeCameraSet(JsonOut& root, const std::vector<std::string>& ispDrivers,
                    const std::vector<TrackedCamera>& cameras, int32_t jsonFormat);

}  // namespace sensorlay
