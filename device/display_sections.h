#pragma once
// The display parts of a device record: the "device" section, one eye record
// for each eye in use, and the lens distortion that eyes and cameras share.
// A write leaves out what still holds its neutral value, so that a small file
// stays small through a round trip.

#include <Eigen/Core>

#include <array>
#include <cstdint>
#include <string>

#include "common/json_io.h"

namespace Json {
class Value;
}

namespace sensorlay {

enum class EyeId : int32_t { Left = 0, Right = 1, Count = 2 };

enum class DistortionType : int32_t {
  None = 0,
  Poly2Tangent = 1,
  Poly3Tangent = 2,
  Poly2 = 3,
  Poly3 = 4,
  Fov1 = 5,
  Fov2 = 6,
  Fov3 = 7,
  RPoly2_1 = 8,
  RPoly2_2 = 9,
  DPoly3 = 10,
  DPoly3Scaled = 11,
  FTheta = 12,
  R1Poly4 = 13,
  ExtendedFTheta = 14,
  ExtendedFThetaScaled = 15,
  Count = 16,
};

// The display kinds a device file may name; no key reads or writes them.
enum class StereoDeviceId : int32_t {
  NvisSt60 = 0,
  NvisSt50 = 1,
  NvisSt50Mark2 = 2,
  VuzixStar1200 = 3,
  LumusDk32 = 4,
  LumusDk32DualCb = 5,
  QorhatEmaginSxga = 6,
  VelcrusherMicrovision = 7,
  Velcrusher2Microvision = 8,
  MiraPhotonBlaster = 9,
  St1080FlipForward = 10,
  St1080FlipUpward = 11,
  St1080UpwardGlueGunSpecial = 12,
  OculusRiftFlipUpward = 13,
  TolaRetroMark1 = 14,
  Test = 15,
  Count = 16,
};

// Name tables: reading matches the text without regard to case, in table
// order, and unknown text gives 0; writing takes the first row of the id, or
// "Unknown" when no row has it.
EyeId eyeIdFromText(const std::string& text);
std::string eyeIdText(EyeId id);
DistortionType distortionTypeFromText(const std::string& text);
std::string distortionTypeText(DistortionType type);
StereoDeviceId stereoDeviceIdFromText(const std::string& text);
std::string stereoDeviceIdText(StereoDeviceId id);

struct DistortionSection {
  std::array<double, 8> coefficients{};
  double centerX = 0.0;
  double centerY = 0.0;
  DistortionType type = DistortionType::None;

  bool operator==(const DistortionSection& o) const {
    return coefficients == o.coefficients && centerX == o.centerX && centerY == o.centerY && type == o.type;
  }
  bool operator!=(const DistortionSection& o) const { return !(*this == o); }
};

// No model, or the first model named without any numbers.
bool isBlankDistortion(const DistortionSection& distortion);
DistortionSection readDistortion(const Json::Value& value);
// Null for a record that holds nothing.
JsonOut writeDistortion(const DistortionSection& distortion);

struct EyeSection {
  Eigen::Matrix3f intrinsics = Eigen::Matrix3f::Identity();
  Eigen::Matrix3f eyeToHead = Eigen::Matrix3f::Identity();
  DistortionSection distortion;
  DistortionSection distortionRed;
  DistortionSection distortionBlue;
  float undistortR2Cutoff = 0.0f;
  float growForUndistort = 0.0f;
  bool eyeFlag = false;
  bool hasEyeToHead = false;
};

EyeSection readEyeSection(const Json::Value& value);
JsonOut writeEyeSection(const EyeSection& eye);

struct DisplaySection {
  int32_t eyeTargetWidthInPixels = 0;
  int32_t eyeTargetHeightInPixels = 0;
  int32_t numWindows = 0;
  bool displayFlag = false;
  EyeId firstEye = EyeId::Left;
  EyeId lastEye = EyeId::Left;
  std::array<int32_t, 2> displayReserved{};
  Eigen::Vector2f subpixelShiftRed = Eigen::Vector2f::Zero();
  Eigen::Vector2f subpixelShiftBlue = Eigen::Vector2f::Zero();
  uint32_t hiddenAreaMesh = 0;

  // A display needs a size and a window count before anything can be drawn.
  bool isComplete() const { return eyeTargetWidthInPixels > 0 && eyeTargetHeightInPixels > 0 && numWindows > 0; }
};

// The eyes in use run from firstEye to lastEye. There are records for the
// left and the right eye only, so a range that names eNUM_EYES stops at the
// right eye.
inline int firstEyeIndex(const DisplaySection& d) { return static_cast<int>(d.firstEye); }
inline int lastEyeIndex(const DisplaySection& d) {
  const int last = static_cast<int>(d.lastEye);
  return last > 1 ? 1 : last;
}

DisplaySection readDisplaySection(const Json::Value& value);
JsonOut writeDisplaySection(const DisplaySection& display);

// tracking_to_eye_transform: element e - firstEye feeds eye e.
void readEyeList(std::array<EyeSection, 2>& eyes, const DisplaySection& display, const Json::Value& list);
JsonOut writeEyeList(const std::array<EyeSection, 2>& eyes, const DisplaySection& display);

}  // namespace sensorlay
