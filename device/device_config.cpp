#include "device/device_config.h"

#include <json/json.h>

#include <cctype>
#include <cstdio>
#include <exception>

#include "device/json_read.h"

namespace sensorlay {

namespace {

const struct {
  const char* text;
  DeviceClass id;
} kDeviceClassNames[] = {
    {"unknown", DeviceClass::Unknown},
    {"hmd", DeviceClass::Hmd},
    {"controller", DeviceClass::Controller},
    {"generic_tracker", DeviceClass::GenericTracker},
    {"tracking_reference", DeviceClass::TrackingReference},
};

uint32_t swapLowBytes(uint32_t v) { return ((v & 0xFFu) << 8) | ((v >> 8) & 0xFFu); }

std::string toLower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The EDID ids come as three letters and hex text in the newer layouts, and
// as plain numbers in the oldest one; both are accepted in any layout.
uint32_t readEdidVendor(const Json::Value& root) {
  const Json::Value& value = jsonMember(root, "direct_mode_edid_vid");
  if (value.isString()) return edidVendorFromText(value.asString());
  return readUInt(root, "direct_mode_edid_vid", 0);
}

uint32_t readEdidProduct(const Json::Value& root) {
  const Json::Value& value = jsonMember(root, "direct_mode_edid_pid");
  if (value.isString()) return edidProductFromText(value.asString());
  return readUInt(root, "direct_mode_edid_pid", 0);
}

void readPoses(DeviceConfig& config, const Json::Value& root) {
  config.trackrefFromImu = RigidTransform();
  config.trackrefFromHead = RigidTransform();
  config.imuCalibration = ImuCalibration();
  config.jsonFormat = 0;

  if (jsonHas(root, "imu")) {
    config.jsonFormat = 1;
    const Json::Value& imu = jsonMember(root, "imu");
    config.imuCalibration = readImuCalibration(imu);
    if (jsonHas(imu, "position") || jsonHas(imu, "plus_x") || jsonHas(imu, "plus_z"))
      config.trackrefFromImu = readAxesTransform(imu);
  } else if (jsonHas(root, "trackref_from_imu")) {
    config.trackrefFromImu = readFlatTransform(jsonMember(root, "trackref_from_imu"));
  }

  if (jsonHas(root, "head")) {
    config.jsonFormat = 1;
    config.trackrefFromHead = readAxesTransform(jsonMember(root, "head"));
  } else if (jsonHas(root, "trackref_from_head")) {
    config.trackrefFromHead = readFlatTransform(jsonMember(root, "trackref_from_head"));
  }

  // The oldest layout keeps the IMU calibration at the root.
  if (config.jsonFormat == 0 && jsonHas(root, "gyro_bias")) config.imuCalibration = readImuCalibration(root);
}

void readIpd(DeviceConfig& config, const Json::Value& root) {
  if (jsonHas(root, "ipd")) {
    const Json::Value& ipd = jsonMember(root, "ipd");
    // The file gives millimetres, the record keeps metres; the default step
    // of -1 thus comes to -0.001, still below zero and so still "unset".
    config.ipdHigh = readFloat(ipd, "high_mm", 0.0f) * 0.001f;
    config.ipdLow = readFloat(ipd, "low_mm", 0.0f) * 0.001f;
    config.minimumIpdStep = readFloat(ipd, "minstep_mm", -1.0f) * 0.001f;
    config.ipdEnable = readBool(ipd, "enable", false);
  } else {
    config.ipdLow = 0.0f;
    config.ipdHigh = 0.0f;
    config.ipdEnable = false;
    config.minimumIpdStep = readFloat(root, "minimum_ipd_step", -1.0f);
  }
}

void writeIpd(JsonOut& root, const DeviceConfig& config) {
  if (config.jsonFormat == 0 && config.ipdHigh == config.ipdLow) {
    root["minimum_ipd_step"] = config.minimumIpdStep;
    return;
  }
  if (config.minimumIpdStep >= 0.0f) root["ipd"]["minstep_mm"] = config.minimumIpdStep * 1000.0;
  if (config.ipdHigh != config.ipdLow || config.ipdEnable) {
    JsonOut& ipd = root["ipd"];
    ipd["high_mm"] = config.ipdHigh * 1000.0;
    ipd["low_mm"] = config.ipdLow * 1000.0;
    ipd["enable"] = config.ipdEnable;
  }
}

void writeDisplayKeys(JsonOut& root, const DeviceConfig& config) {
  root["device"] = writeDisplaySection(config.display);
  JsonOut edid = JsonOut::array();
  for (int e = firstEyeIndex(config.display); e <= lastEyeIndex(config.display); ++e)
    edid.append(config.displayEdid[e]);
  root["display_edid"] = edid;

  if (config.displayMcType != 0) {
    JsonOut& mc = root["display_mc"];
    mc["type"] = config.displayMcType;
    mc["offset"] = static_cast<double>(config.displayMcOffset);
    mc["scale"] = static_cast<double>(config.displayMcScale);
    mc["left"] = config.displayMcLeft;
    mc["right"] = config.displayMcRight;
  }

  JsonOut gc = JsonOut::object();
  if (config.displayGcBlackClamp != 0.0f) gc["black_clamp"] = config.displayGcBlackClamp;
  if (config.displayGcType != 0) {
    gc["type"] = config.displayGcType;
    gc["offset"] = static_cast<double>(config.displayGcOffset);
    gc["scale"] = static_cast<double>(config.displayGcScale);
    gc["prescale"] = static_cast<double>(config.displayGcPrescale);
    gc["image"] = config.displayGcImage;
  }
  if (!gc.empty()) root["display_gc"] = gc;

  root["tracking_to_eye_transform"] = writeEyeList(config.eyes, config.display);

  if (config.directModeEdidVid != 0) {
    if (config.jsonFormat == 0)
      root["direct_mode_edid_vid"] = config.directModeEdidVid;
    else
      root["direct_mode_edid_vid"] = edidVendorText(config.directModeEdidVid);
  }
  if (config.directModeEdidPid != 0) {
    if (config.jsonFormat == 0)
      root["direct_mode_edid_pid"] = config.directModeEdidPid;
    else
      root["direct_mode_edid_pid"] = edidProductText(config.directModeEdidPid);
  }

  if (config.secondsFromVsyncToPhotons != 0.0f)
    root["seconds_from_vsync_to_photons"] = config.secondsFromVsyncToPhotons;
  if (config.secondsFromPhotonsToVblank != 0.0f)
    root["seconds_from_photons_to_vblank"] = config.secondsFromPhotonsToVblank;
  if (config.expectedControllers != 0) root["expected_controllers"] = config.expectedControllers;
  if (config.expectedBases != 0) root["expected_bases"] = config.expectedBases;

  writeIpd(root, config);
}

void setIfNotEmpty(JsonOut& root, const char* key, const std::string& value) {
  if (!value.empty()) root[key] = value;
}

}  // namespace

DeviceClass deviceClassFromText(const std::string& text) {
  for (const auto& row : kDeviceClassNames)
    if (equalsIgnoringCase(text, row.text)) return row.id;
  return DeviceClass::Unknown;
}

std::string deviceClassText(DeviceClass deviceClass) {
  for (const auto& row : kDeviceClassNames)
    if (row.id == deviceClass) return row.text;
  return "unknown";
}

uint32_t edidVendorFromText(const std::string& text) {
  if (text.size() != 3) return 0;
  uint32_t v = 0;
  for (char c : text) v = (v << 5) + (static_cast<uint32_t>(std::toupper(static_cast<unsigned char>(c))) & 31u);
  return swapLowBytes(v & 0xFFFFu);
}

std::string edidVendorText(uint32_t v) {
  const char letters[4] = {
      static_cast<char>((((v & 255u) >> 2) & 31u) + 64u),
      static_cast<char>(((swapLowBytes(v & 0xFFFFu) >> 5) & 31u) + 64u),
      static_cast<char>(((v >> 8) & 31u) + 64u),
      '\0',
  };
  return letters;
}

uint32_t edidProductFromText(const std::string& text) {
  if (text.size() >= 5) return 0;
  return static_cast<uint32_t>(std::stoi(text, nullptr, 16));
}

std::string edidProductText(uint32_t product) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "%04X", product & 0xFFFFu);
  return buffer;
}

void resetDeviceConfig(DeviceConfig& config) { config = DeviceConfig(); }

void readDeviceRecord(DeviceConfig& config, const Json::Value& root) {
  resetDeviceConfig(config);

  config.revision = readUInt(root, "revision", 0);
  config.deviceClass = deviceClassFromText(readString(root, "device_class"));
  config.deviceVid = readUInt(root, "device_vid", 0);
  config.devicePid = readUInt(root, "device_pid", 0);
  config.deviceSerialNumber = readString(root, "device_serial_number");
  config.renderModel = readString(root, "render_model");
  config.manufacturer = readString(root, "manufacturer");
  config.modelNumber = readString(root, "model_number");
  config.attachedDeviceId = readString(root, "attached_device_id");

  config.directModeEdidVid = readEdidVendor(root);
  config.directModeEdidPid = readEdidProduct(root);

  config.secondsFromVsyncToPhotons = readFloat(root, "seconds_from_vsync_to_photons", 0.0f);
  config.secondsFromPhotonsToVblank = readFloat(root, "seconds_from_photons_to_vblank", 0.0f);

  config.display = readDisplaySection(jsonMember(root, "device"));

  const Json::Value& edid = jsonMember(root, "display_edid");
  const int firstEye = firstEyeIndex(config.display);
  for (int e = firstEye; e <= lastEyeIndex(config.display); ++e)
    config.displayEdid[e] = elementString(edid, static_cast<unsigned>(e - firstEye));
  if (config.display.numWindows == 2 && config.displayEdid[1].empty()) config.displayEdid[1] = config.displayEdid[0];
  if (config.display.numWindows != 2) config.displayEdid[1].clear();

  const Json::Value& mc = jsonMember(root, "display_mc");
  config.displayMcType = readInt(mc, "type", 0);
  config.displayMcOffset = readFloat(mc, "offset", 0.0f);
  config.displayMcScale = readFloat(mc, "scale", 0.0f);
  config.displayMcLeft = readString(mc, "left");
  config.displayMcRight = readString(mc, "right");

  const Json::Value& gc = jsonMember(root, "display_gc");
  config.displayGcBlackClamp = readFloat(gc, "black_clamp", 0.0f);
  config.displayGcType = readInt(gc, "type", 0);
  config.displayGcOffset = readFloat(gc, "offset", 0.0f);
  config.displayGcScale = readFloat(gc, "scale", 0.0f);
  config.displayGcPrescale = readFloat(gc, "prescale", 1.0f);
  config.displayGcImage = readString(gc, "image");

  config.trackingCameraIntrinsics = readString(root, "tracking_camera_intrinsics");
  config.trackingCameraUniqueId = readUInt(root, "tracking_camera_unique_id", 0);

  readEyeList(config.eyes, config.display, jsonMember(root, "tracking_to_eye_transform"));

  readPoses(config, root);

  if (jsonHas(root, "beaconet_config")) {
    parseModelSection(config.constellation, root);
    const Json::Value& section = jsonMember(root, "beaconet_config");
    checkFloatTriples(jsonMember(section, "modelPoints"));
    checkFloatTriples(jsonMember(section, "modelNormals"));
  }

  readCameraSet(root, config.ispDrivers, config.cameras, config.jsonFormat);

  config.trackedControllerRole = readString(root, "tracked_controller_role");
  config.resourceRoot = toLower(readString(root, "resource_root"));
  config.firmwareConfig = jsonMember(root, "firmware_config");

  config.expectedControllers = readUInt(root, "expected_controllers", 2);
  config.expectedBases = readUInt(root, "expected_bases", 2);
  config.inputProfile = readString(root, "input_profile");
  config.registeredDeviceTypePrefix = readString(root, "registered_device_type_prefix");
  config.displayUsbProtocol = readString(root, "display_usb_protocol");
  config.displayUsbVid = static_cast<uint16_t>(readUInt(root, "display_usb_vid", 0) & 0xFFFFu);
  config.displayUsbPid = static_cast<uint16_t>(readUInt(root, "display_usb_pid", 0) & 0xFFFFu);

  readIpd(config, root);

  config.mfgBuildInfo = jsonMember(root, "mfg_build_info");
}

namespace {
// What any exception while reading a device file comes to.
constexpr const char* kCatchAllText = "exception thrown in JSON library";
}  // namespace

bool parseDeviceConfig(DeviceConfig& config, std::string& errorText, const std::string& text) {
  errorText.clear();
  if (text.empty()) {
    resetDeviceConfig(config);
    errorText = "configuration string is empty";
    return false;
  }
  try {
    Json::Value root;
    std::string errors;
    bool threw = false;
    if (!parseJsonText(text, root, errors, &threw)) {
      resetDeviceConfig(config);
      // The reader throws on nesting deeper than its limit.
      errorText = threw ? kCatchAllText : errors;
      return false;
    }
    readDeviceRecord(config, root);
    // The one requirement on content: a headset must say how to draw to it.
    if (config.deviceClass == DeviceClass::Hmd && !config.display.isComplete()) {
      resetDeviceConfig(config);
      errorText = "missing values from \"device\" section";
      return false;
    }
    return true;
  } catch (const FloatRangeError& e) {
    resetDeviceConfig(config);
    errorText = e.what();
    return false;
  } catch (...) {
    // Type errors of the JSON value class, our own container checks and the
    // hex conversion of the EDID product id all end here alike.
    resetDeviceConfig(config);
    errorText = kCatchAllText;
    return false;
  }
}

JsonOut writeDeviceRecord(const DeviceConfig& config) {
  JsonOut root = JsonOut::object();
  root["revision"] = config.revision;
  root["device_class"] = deviceClassText(config.deviceClass);
  if (config.deviceVid != 0) root["device_vid"] = config.deviceVid;
  if (config.devicePid != 0) root["device_pid"] = config.devicePid;
  setIfNotEmpty(root, "device_serial_number", config.deviceSerialNumber);
  setIfNotEmpty(root, "render_model", config.renderModel);
  setIfNotEmpty(root, "manufacturer", config.manufacturer);
  setIfNotEmpty(root, "model_number", config.modelNumber);
  setIfNotEmpty(root, "attached_device_id", config.attachedDeviceId);

  // Display keys only mean something for a headset.
  if (config.deviceClass == DeviceClass::Hmd) writeDisplayKeys(root, config);

  setIfNotEmpty(root, "tracking_camera_intrinsics", config.trackingCameraIntrinsics);
  if (config.trackingCameraUniqueId != 0) root["tracking_camera_unique_id"] = config.trackingCameraUniqueId;

  if (config.jsonFormat == 0) {
    root["trackref_from_imu"] = writeFlatTransform(config.trackrefFromImu);
    writeImuCalibration(root, config.imuCalibration, true);
    root["trackref_from_head"] = writeFlatTransform(config.trackrefFromHead);
  } else {
    JsonOut imu = writeAxesTransform(config.trackrefFromImu, AxesFrom::RotationMatrix);
    writeImuCalibration(imu, config.imuCalibration, false);
    root["imu"] = imu;
    root["head"] = writeAxesTransform(config.trackrefFromHead, AxesFrom::RotationMatrix);
  }

  // A valid record without sensors writes as null, which reads back as no model.
  if (config.constellation.valid) root["beaconet_config"] = constellationToJson(config.constellation);

  writeCameraSet(root, config.ispDrivers, config.cameras, config.jsonFormat);

  setIfNotEmpty(root, "tracked_controller_role", config.trackedControllerRole);
  setIfNotEmpty(root, "resource_root", config.resourceRoot);
  if (!config.firmwareConfig.isNull()) root["firmware_config"] = JsonOut::fromJson(config.firmwareConfig);
  setIfNotEmpty(root, "input_profile", config.inputProfile);
  setIfNotEmpty(root, "registered_device_type_prefix", config.registeredDeviceTypePrefix);
  if (!config.displayUsbProtocol.empty()) {
    root["display_usb_protocol"] = config.displayUsbProtocol;
    root["display_usb_vid"] = static_cast<uint32_t>(config.displayUsbVid);
    root["display_usb_pid"] = static_cast<uint32_t>(config.displayUsbPid);
  }
  if (!config.mfgBuildInfo.isNull()) root["mfg_build_info"] = JsonOut::fromJson(config.mfgBuildInfo);
  return root;
}

}  // namespace sensorlay
