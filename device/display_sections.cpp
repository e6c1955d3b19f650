#include "device/display_sections.h"

#include <json/json.h>

#include "device/json_read.h"

namespace sensorlay {

namespace {

struct NameRow {
  const char* text;
  int32_t id;
};

const NameRow kEyeNames[] = {
    {"eEYE_LEFT", 0}, {"eEYE_L", 0}, {"eEYE_FIRST", 0}, {"eEYE_RIGHT", 1}, {"eEYE_R", 1}, {"eNUM_EYES", 2},
};

const NameRow kDistortionNames[] = {
    {"DISTORT_NONE", 0},
    {"DISTORT_POLY2_TANGENT", 1},
    {"DISTORT_POLY3_TANGENT", 2},
    {"DISTORT_POLY2", 3},
    {"DISTORT_POLY3", 4},
    {"DISTORT_FOV1", 5},
    {"DISTORT_FOV2", 6},
    {"DISTORT_FOV3", 7},
    {"DISTORT_RPOLY2_1", 8},
    {"DISTORT_RPOLY2_2", 9},
    {"DISTORT_DPOLY3", 10},
    {"DISTORT_DPOLY3_SCALED", 11},
    {"DISTORT_FTHETA", 12},
    {"DISTORT_R1_POLY_4", 13},
    {"DISTORT_EXTENDED_FTHETA", 14},
    {"DISTORT_EXTENDED_FTHETA_SCALED", 15},
    {"DISTORT__COUNT", 16},
};

const NameRow kStereoDeviceNames[] = {
    {"STEREO_DEV_NVIS_ST60", 0},
    {"STEREO_DEV_NVIS_ST50", 1},
    {"STEREO_DEV_NVIS_ST50_MARK2", 2},
    {"STEREO_DEV_VUZIX_STAR_1200", 3},
    {"STEREO_DEV_LUMUS_DK_32", 4},
    {"STEREO_DEV_LUMUS_DK_32_DUALCB", 5},
    {"STEREO_DEV_QORHAT_EMAGIN_SXGA", 6},
    {"STEREO_DEV_VELCRUSHER_MICROVISION", 7},
    {"STEREO_DEV_VELCRUSHER2_MICROVISION", 8},
    {"STEREO_DEV_MIRAPHOTONBLASTER", 9},
    {"STEREO_DEV_ST1080_FLIP_FORWARD", 10},
    {"STEREO_DEV_ST1080_FLIP_UPWARD", 11},
    {"STEREO_DEV_ST1080_UPWARD_GLUE_GUN_SPECIAL", 12},
    {"STEREO_DEV_OCULUS_RIFT_FLIP_UPWARD", 13},
    {"STEREO_DEV_TOLA_RETRO_MARK1", 14},
    {"STEREO_DEV_TEST", 15},
    {"STEREO_DEV_NUM", 16},
};

template <size_t N>
int32_t idFromText(const NameRow (&table)[N], const std::string& text) {
  for (const NameRow& row : table)
    if (equalsIgnoringCase(text, row.text)) return row.id;
  return 0;
}

template <size_t N>
std::string textFromId(const NameRow (&table)[N], int32_t id) {
  for (const NameRow& row : table)
    if (row.id == id) return row.text;
  return "Unknown";
}

JsonOut floatMatrix(const Eigen::Matrix3f& m) {
  JsonOut rows = JsonOut::array();
  for (int i = 0; i < 3; ++i) {
    JsonOut row = JsonOut::array();
    for (int j = 0; j < 3; ++j) row.append(m(i, j));
    rows.append(row);
  }
  return rows;
}

// Row by row, with 0 for anything missing: a key that is absent gives the
// zero matrix.
Eigen::Matrix3f readFloatMatrix(const Json::Value& value) {
  Eigen::Matrix3f m;
  for (unsigned i = 0; i < 3; ++i) {
    const Json::Value& row = jsonElement(value, i);
    for (unsigned j = 0; j < 3; ++j) m(i, j) = elementFloat(row, j, 0.0f);
  }
  return m;
}

JsonOut floatPair(const Eigen::Vector2f& v) {
  JsonOut out = JsonOut::array();
  out.append(v.x());
  out.append(v.y());
  return out;
}

// The eye keys admit text only: a number there is a broken file, not an
// unknown name.
EyeId readEyeName(const Json::Value& device, const char* key) {
  if (!jsonHas(device, key)) return EyeId::Left;
  const Json::Value& value = jsonMember(device, key);
  if (!value.isString()) throw DeviceJsonError(std::string(key) + " is not a text");
  return eyeIdFromText(value.asString());
}

}  // namespace

EyeId eyeIdFromText(const std::string& text) { return static_cast<EyeId>(idFromText(kEyeNames, text)); }
std::string eyeIdText(EyeId id) { return textFromId(kEyeNames, static_cast<int32_t>(id)); }
DistortionType distortionTypeFromText(const std::string& text) {
  return static_cast<DistortionType>(idFromText(kDistortionNames, text));
}
std::string distortionTypeText(DistortionType type) { return textFromId(kDistortionNames, static_cast<int32_t>(type)); }
StereoDeviceId stereoDeviceIdFromText(const std::string& text) {
  return static_cast<StereoDeviceId>(idFromText(kStereoDeviceNames, text));
}
std::string stereoDeviceIdText(StereoDeviceId id) { return textFromId(kStereoDeviceNames, static_cast<int32_t>(id)); }

bool isBlankDistortion(const DistortionSection& d) {
  if (d.type == DistortionType::None) return true;
  // A file may name the first model and give it no numbers; that says nothing.
  if (d.type != DistortionType::Poly2Tangent) return false;
  for (double c : d.coefficients)
    if (c != 0.0) return false;
  return d.centerX == 0.0 && d.centerY == 0.0;
}

DistortionSection readDistortion(const Json::Value& value) {
  DistortionSection d;
  d.type = distortionTypeFromText(readString(value, "type", "DISTORT_NONE"));
  d.centerX = readDouble(value, "center_x", 0.0);
  d.centerY = readDouble(value, "center_y", 0.0);
  const Json::Value& coeffs = jsonMember(value, "coeffs");
  for (unsigned i = 0; i < d.coefficients.size(); ++i) d.coefficients[i] = elementDouble(coeffs, i, 0.0);
  return d;
}

JsonOut writeDistortion(const DistortionSection& d) {
  JsonOut out;
  if (d.type != DistortionType::None) out["type"] = distortionTypeText(d.type);
  if (d.centerX != 0.0 || d.centerY != 0.0) {
    out["center_x"] = d.centerX;
    out["center_y"] = d.centerY;
  }
  int last = -1;
  for (int i = 0; i < static_cast<int>(d.coefficients.size()); ++i)
    if (d.coefficients[i] != 0.0) last = i;
  if (last >= 0) {
    JsonOut coeffs = JsonOut::array();
    for (int i = 0; i <= last; ++i) coeffs.append(d.coefficients[i]);
    out["coeffs"] = coeffs;
  }
  return out;
}

EyeSection readEyeSection(const Json::Value& value) {
  EyeSection eye;
  eye.intrinsics = readFloatMatrix(jsonMember(value, "intrinsics"));
  eye.distortion = readDistortion(jsonMember(value, "distortion"));
  eye.distortionRed = readDistortion(jsonMember(value, "distortion_red"));
  eye.distortionBlue = readDistortion(jsonMember(value, "distortion_blue"));
  // Colour channels that were left out follow the base model.
  if (!isBlankDistortion(eye.distortion)) {
    if (isBlankDistortion(eye.distortionRed)) eye.distortionRed = eye.distortion;
    if (isBlankDistortion(eye.distortionBlue)) eye.distortionBlue = eye.distortion;
  }
  eye.undistortR2Cutoff = readFloat(value, "undistort_r2_cutoff", 0.0f);
  eye.growForUndistort = readFloat(value, "grow_for_undistort", 0.0f);
  eye.eyeFlag = false;
  const Json::Value& eyeToHead = jsonMember(value, "eye_to_head");
  if (eyeToHead.isNull()) {
    eye.eyeToHead = Eigen::Matrix3f::Identity();
    eye.hasEyeToHead = false;
  } else {
    eye.eyeToHead = readFloatMatrix(eyeToHead);
    eye.hasEyeToHead = true;
  }
  return eye;
}

JsonOut writeEyeSection(const EyeSection& eye) {
  JsonOut out = JsonOut::object();
  if (eye.intrinsics != Eigen::Matrix3f::Identity()) out["intrinsics"] = floatMatrix(eye.intrinsics);
  const JsonOut base = writeDistortion(eye.distortion);
  if (!base.isNull()) {
    out["distortion"] = base;
    // Channels that merely follow the base are not repeated.
    JsonOut red = writeDistortion(eye.distortionRed);
    JsonOut blue = writeDistortion(eye.distortionBlue);
    if (red != base || blue != base) {
      out["distortion_red"] = red;
      out["distortion_blue"] = blue;
    }
  }
  if (eye.undistortR2Cutoff != 0.0f) out["undistort_r2_cutoff"] = eye.undistortR2Cutoff;
  if (eye.growForUndistort != 0.0f) out["grow_for_undistort"] = eye.growForUndistort;
  if (eye.hasEyeToHead) out["eye_to_head"] = floatMatrix(eye.eyeToHead);
  return out;
}

DisplaySection readDisplaySection(const Json::Value& value) {
  DisplaySection d;
  d.eyeTargetWidthInPixels = readInt(value, "eye_target_width_in_pixels", 0);
  d.eyeTargetHeightInPixels = readInt(value, "eye_target_height_in_pixels", 0);
  d.numWindows = readInt(value, "num_windows", 0);
  d.displayFlag = false;
  d.firstEye = readEyeName(value, "first_eye");
  d.lastEye = readEyeName(value, "last_eye");
  d.displayReserved = {0, 0};
  const Json::Value& red = jsonMember(value, "subpixel_shift_red_in_pixels");
  d.subpixelShiftRed = Eigen::Vector2f(elementFloat(red, 0, 0.0f), elementFloat(red, 1, 0.0f));
  const Json::Value& blue = jsonMember(value, "subpixel_shift_blue_in_pixels");
  d.subpixelShiftBlue = Eigen::Vector2f(elementFloat(blue, 0, 0.0f), elementFloat(blue, 1, 0.0f));
  // Only the kinds 0 to 5 exist; anything else, negative numbers included,
  // means kind 1.
  int64_t mesh = 0;
  if (jsonToInt64(jsonMember(value, "hidden_area_mesh"), mesh))
    d.hiddenAreaMesh = (mesh >= 0 && mesh < 6) ? static_cast<uint32_t>(mesh) : 1u;
  return d;
}

JsonOut writeDisplaySection(const DisplaySection& d) {
  JsonOut out = JsonOut::object();
  if (d.eyeTargetWidthInPixels != 0) out["eye_target_width_in_pixels"] = d.eyeTargetWidthInPixels;
  if (d.eyeTargetHeightInPixels != 0) out["eye_target_height_in_pixels"] = d.eyeTargetHeightInPixels;
  if (d.numWindows != 0) out["num_windows"] = d.numWindows;
  out["first_eye"] = eyeIdText(d.firstEye);
  out["last_eye"] = eyeIdText(d.lastEye);
  if (d.subpixelShiftRed.squaredNorm() > 0.0f) out["subpixel_shift_red_in_pixels"] = floatPair(d.subpixelShiftRed);
  if (d.subpixelShiftBlue.squaredNorm() > 0.0f) out["subpixel_shift_blue_in_pixels"] = floatPair(d.subpixelShiftBlue);
  if (d.hiddenAreaMesh != 0) out["hidden_area_mesh"] = d.hiddenAreaMesh;
  return out;
}

void readEyeList(std::array<EyeSection, 2>& eyes, const DisplaySection& display, const Json::Value& list) {
  const int first = firstEyeIndex(display);
  for (int e = first; e <= lastEyeIndex(display); ++e)
    eyes[e] = readEyeSection(jsonElement(list, static_cast<unsigned>(e - first)));
}

JsonOut writeEyeList(const std::array<EyeSection, 2>& eyes, const DisplaySection& display) {
  JsonOut out = JsonOut::array();
  for (int e = firstEyeIndex(display); e <= lastEyeIndex(display); ++e) out.append(writeEyeSection(eyes[e]));
  return out;
}

}  // namespace sensorlay
