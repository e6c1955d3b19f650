#pragma once
// The device JSON record: identity, display, tracking calibration and sensors
// of one tracked device, read whole and written whole in one of its three
// layout generations (`jsonFormat` 0, 1 or 2).

#include <json/value.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "device/display_sections.h"
#include "device/rigid_transform.h"
#include "device/tracking_sections.h"
#include "model/constellation.h"

namespace sensorlay {

enum class DeviceClass : int32_t {
  Unknown = 0,
  Hmd = 1,
  Controller = 2,
  GenericTracker = 3,
  TrackingReference = 4,
};

// Matched without regard to case; anything else is Unknown.
DeviceClass deviceClassFromText(const std::string& text);
std::string deviceClassText(DeviceClass deviceClass);

struct DeviceConfig {
  DeviceClass deviceClass = DeviceClass::Hmd;
  int32_t jsonFormat = 2;
  uint32_t revision = 0;
  uint32_t deviceVid = 0;
  uint32_t devicePid = 0;
  std::string deviceSerialNumber;
  std::string renderModel;
  std::string manufacturer;
  std::string modelNumber;
  std::string attachedDeviceId;
  DisplaySection display;
  std::array<EyeSection, 2> eyes;
  std::string trackingCameraIntrinsics;
  uint32_t trackingCameraUniqueId = 0;
  std::array<std::string, 2> displayEdid;
  uint32_t directModeEdidVid = 0;
  uint32_t directModeEdidPid = 0;
  float secondsFromVsyncToPhotons = 0.0f;
  float secondsFromPhotonsToVblank = 0.0f;
  int32_t displayMcType = 0;
  float displayMcOffset = 0.0f;
  float displayMcScale = 0.0f;
  std::string displayMcLeft;
  std::string displayMcRight;
  float displayGcBlackClamp = 0.0f;
  int32_t displayGcType = 0;
  float displayGcOffset = 0.0f;
  float displayGcScale = 0.0f;
  float displayGcPrescale = 1.0f;
  std::string displayGcImage;
  RigidTransform trackrefFromImu;
  RigidTransform trackrefFromHead;
  ImuCalibration imuCalibration;
  Constellation constellation;
  std::vector<std::string> ispDrivers;
  std::vector<TrackedCamera> cameras;
  std::string trackedControllerRole;
  std::string resourceRoot;
  Json::Value firmwareConfig;
  uint32_t expectedBases = 2;
  uint32_t expectedControllers = 2;
  std::string inputProfile;
  std::string registeredDeviceTypePrefix;
  std::string displayUsbProtocol;
  uint16_t displayUsbVid = 0;
  uint16_t displayUsbPid = 0;
  float minimumIpdStep = -1.0f;  // meters
  float ipdLow = 0.0f;           // meters
  float ipdHigh = 0.0f;          // meters
  bool ipdEnable = false;
  Json::Value mfgBuildInfo;
};

// Parses and reads a whole device file. On false `errorText` says why and
// the record is reset: the text is empty, not JSON, an "hmd" without a
// complete "device" section, or a value of a type that the record cannot take
// ("exception thrown in JSON library").
bool parseDeviceConfig(DeviceConfig& config, std::string& errorText, const std::string& text);

// Fills the record from a parsed root, deriving `jsonFormat` from the keys
// present. Throws on values whose type the record cannot take.
void readDeviceRecord(DeviceConfig& config, const Json::Value& root);

// The record in layout generation `config.jsonFormat`; neutral values are
// left out.
JsonOut writeDeviceRecord(const DeviceConfig& config);

void resetDeviceConfig(DeviceConfig& config);

// The EDID manufacturer id from its three letters, stored as the two bytes of
// an EDID block read as a little-endian word; 0 for text of another length.
uint32_t edidVendorFromText(const std::string& text);
std::string edidVendorText(uint32_t vendor);
// The product id from up to four hex digits; text of five or more characters
// gives 0. Throws std::invalid_argument / std::out_of_range on text that is
// no hex number.
uint32_t edidProductFromText(const std::string& text);
std::string edidProductText(uint32_t product);

}  // namespace sensorlay
