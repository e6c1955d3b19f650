#include "device/device_config.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>

#include "tests/support/device_files.h"

namespace sensorlay {
namespace {

using testing::minimalHmdJson;
using testing::richDeviceJson;

const char kCatchAll[] = "exception thrown in JSON library";

DeviceConfig parseOk(const std::string& text) {
  DeviceConfig config;
  std::string error;
  EXPECT_TRUE(parseDeviceConfig(config, error, text)) << error;
  return config;
}

std::string parseError(const std::string& text) {
  DeviceConfig config;
  std::string error;
  EXPECT_FALSE(parseDeviceConfig(config, error, text));
  return error;
}

JsonOut written(DeviceConfig config, int format) {
  config.jsonFormat = format;
  return writeDeviceRecord(config);
}

std::string member(const JsonOut& root, const std::string& key) {
  const JsonOut* v = root.find(key);
  return v == nullptr ? "<absent>" : writeStyledJson(*v, 1000);
}

// The same pose: q and -q are the same rotation.
void expectNear(const RigidTransform& a, const RigidTransform& b) {
  const float sign = a.rotation.dot(b.rotation) < 0.0f ? -1.0f : 1.0f;
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(a.rotation[i], sign * b.rotation[i], 1e-6) << i;
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(a.translation[i], b.translation[i], 1e-7) << i;
}

TEST(DeviceConfig, RichFileSurvivesEveryGeneration) {
  const DeviceConfig original = parseOk(richDeviceJson());
  EXPECT_EQ(original.resourceRoot, "visor");
  EXPECT_EQ(original.displayUsbVid, 70000 & 0xFFFF);
  ASSERT_EQ(original.cameras.size(), 2u);

  for (int format = 0; format <= 2; ++format) {
    SCOPED_TRACE(format);
    const std::string text = writeStyledJson(written(original, format));
    const DeviceConfig again = parseOk(text);
    // Two cameras are written as a tracked_cameras list, which reads as the
    // newest generation whatever generation wrote it.
    EXPECT_EQ(again.jsonFormat, 2);
    // What the first trip kept, a second trip through the same generation
    // keeps to the last digit.
    EXPECT_EQ(writeStyledJson(written(again, format)), text);
    EXPECT_EQ(again.imuCalibration, original.imuCalibration);
    expectNear(again.trackrefFromImu, original.trackrefFromImu);
    expectNear(again.trackrefFromHead, original.trackrefFromHead);
    for (size_t i = 0; i < 2; ++i) expectNear(again.cameras[i].extrinsics, original.cameras[i].extrinsics);
    EXPECT_EQ(again.eyes[0].distortionBlue, original.eyes[0].distortionBlue);
    EXPECT_EQ(again.firmwareConfig, original.firmwareConfig);
  }

  const JsonOut middle = written(original, 1);
  EXPECT_EQ(member(*middle.find("imu"), "gyro_bias"), "[ 0.00100000005, 0, 0 ]\n");
  EXPECT_FALSE(middle.find("imu")->isMember("gyro_scale"));
  EXPECT_EQ(member(middle, "ipd"),
            "{\n   \"enable\" : true,\n   \"high_mm\" : 70.000000298023224,\n   \"low_mm\" : 64.000003039836884,\n"
            "   \"minstep_mm\" : 0.50000002374872565\n}\n");
}

TEST(DeviceConfig, ClassesAndTheDisplayRequirement) {
  EXPECT_EQ(parseOk(minimalHmdJson()).deviceClass, DeviceClass::Hmd);
  EXPECT_EQ(parseError("{ \"device_class\": \"HMD\" }"), "missing values from \"device\" section");
  EXPECT_EQ(parseError(R"({ "device": { "eye_target_width_in_pixels": 1, "num_windows": 1,
                                        "eye_target_height_in_pixels": 0 }, "device_class": "Hmd" })"),
            "missing values from \"device\" section");
  EXPECT_EQ(parseError(""), "configuration string is empty");
  EXPECT_NE(parseError("{ \"device_class\": "), "");

  const DeviceConfig odd = parseOk("{ \"device_class\": \"toaster\", \"device\": { \"num_windows\": 1 } }");
  EXPECT_EQ(odd.deviceClass, DeviceClass::Unknown);
  EXPECT_EQ(member(writeDeviceRecord(odd), "device_class"), "\"unknown\"\n");
  // Display keys are read in every class but written only for a headset.
  EXPECT_EQ(odd.display.numWindows, 1);
  EXPECT_FALSE(writeDeviceRecord(odd).isMember("device"));

  const DeviceConfig controller = parseOk("{ \"device_class\": \"Controller\" }");
  EXPECT_EQ(controller.deviceClass, DeviceClass::Controller);
  EXPECT_EQ(controller.jsonFormat, 0);
}

TEST(DeviceConfig, EdidIds) {
  EXPECT_EQ(edidVendorFromText("abc"), 0x4304u);
  EXPECT_EQ(edidVendorText(0x4304u), "ABC");
  EXPECT_EQ(edidVendorText(edidVendorFromText("VLV")), "VLV");
  EXPECT_EQ(edidVendorFromText("ABCD"), 0u);
  EXPECT_EQ(edidProductText(4779), "12AB");
  EXPECT_EQ(edidProductText(0x1F), "001F");
  EXPECT_EQ(edidProductFromText("12345"), 0u);

  EXPECT_EQ(parseOk(minimalHmdJson("\"direct_mode_edid_pid\": \"12AB\"")).directModeEdidPid, 4779u);
  EXPECT_EQ(parseOk(minimalHmdJson("\"direct_mode_edid_vid\": 17154")).directModeEdidVid, 17154u);
  EXPECT_EQ(parseError(minimalHmdJson("\"direct_mode_edid_pid\": \"zz\"")), kCatchAll);
  EXPECT_EQ(parseError(minimalHmdJson("\"direct_mode_edid_pid\": \"\"")), kCatchAll);
  const JsonOut zero = written(parseOk(minimalHmdJson("\"direct_mode_edid_vid\": 0")), 1);
  EXPECT_FALSE(zero.isMember("direct_mode_edid_vid"));
  EXPECT_FALSE(zero.isMember("direct_mode_edid_pid"));
}

TEST(DeviceConfig, EyeDistance) {
  const DeviceConfig range = parseOk(minimalHmdJson("\"ipd\": { \"low_mm\": 60, \"high_mm\": 70 }"));
  EXPECT_FLOAT_EQ(range.minimumIpdStep, -0.001f);
  const JsonOut out = written(range, 1);
  EXPECT_FALSE(out.find("ipd")->isMember("minstep_mm"));
  EXPECT_TRUE(out.find("ipd")->isMember("enable"));

  const DeviceConfig none = parseOk(minimalHmdJson());
  EXPECT_EQ(none.minimumIpdStep, -1.0f);
  EXPECT_EQ(member(written(none, 0), "minimum_ipd_step"), "-1\n");
  EXPECT_FALSE(written(none, 1).isMember("ipd"));
  EXPECT_FALSE(written(none, 1).isMember("minimum_ipd_step"));
  EXPECT_FLOAT_EQ(parseOk(minimalHmdJson("\"minimum_ipd_step\": 0.002")).minimumIpdStep, 0.002f);
}

TEST(DeviceConfig, PosesAndCalibrationByGeneration) {
  const DeviceConfig old = parseOk(minimalHmdJson(
      "\"trackref_from_imu\": [0, 0, 1, 0, 0.1, 0.2, 0.3], \"gyro_bias\": [1, 2, 3], \"gyro_scale\": [0, 0, 0]"));
  EXPECT_EQ(old.jsonFormat, 0);
  EXPECT_EQ(old.imuCalibration.gyroBias, Eigen::Vector3f(1, 2, 3));
  EXPECT_EQ(old.imuCalibration.gyroScale, Eigen::Vector3f::Zero());
  EXPECT_EQ(old.trackrefFromImu.rotation, Eigen::Vector4f(0, 0, 1, 0));
  // A zero scale counts as unset in the newer layouts.
  EXPECT_FALSE(written(old, 1).find("imu")->isMember("gyro_scale"));

  // Brought forward and back, the pose comes home within float rounding.
  const DeviceConfig forward = parseOk(writeStyledJson(written(old, 1)));
  EXPECT_EQ(forward.jsonFormat, 1);
  const DeviceConfig back = parseOk(writeStyledJson(written(forward, 0)));
  expectNear(back.trackrefFromImu, old.trackrefFromImu);
  EXPECT_EQ(back.imuCalibration.gyroBias, old.imuCalibration.gyroBias);

  const DeviceConfig head = parseOk(minimalHmdJson("\"head\": {}, \"gyro_bias\": [1, 2, 3]"));
  EXPECT_EQ(head.jsonFormat, 1);
  EXPECT_EQ(head.imuCalibration, ImuCalibration());
  const DeviceConfig bareImu = parseOk(minimalHmdJson("\"imu\": { \"acc_bias\": [1, 1, 1] }"));
  EXPECT_EQ(bareImu.jsonFormat, 1);
  EXPECT_EQ(bareImu.trackrefFromImu, RigidTransform());
  // Axes that make no frame give the identity, the position included.
  const DeviceConfig skew =
      parseOk(minimalHmdJson("\"imu\": { \"position\": [1, 2, 3], \"plus_x\": [1, 0, 0], \"plus_z\": [1, 0, 1] }"));
  EXPECT_EQ(skew.trackrefFromImu, RigidTransform());
}

TEST(DeviceConfig, WrongTypes) {
  // Leaves of the wrong type read as their defaults...
  const DeviceConfig lenient = parseOk(minimalHmdJson(
      "\"revision\": \"three\", \"manufacturer\": 7, \"expected_bases\": -1, \"tracking_camera_intrinsics\": {}"));
  EXPECT_EQ(lenient.revision, 0u);
  EXPECT_EQ(lenient.manufacturer, "");
  EXPECT_EQ(lenient.expectedBases, 2u);
  // ...while containers of the wrong type, and eye names that are not text,
  // fail the whole record.
  for (const char* extra :
       {"\"display_edid\": \"AAAA\"", "\"display_mc\": [1]", "\"imu\": 5", "\"trackref_from_imu\": {}",
        "\"tracked_camera\": \"front\"", "\"isps\": { \"driver\": \"x\" }", "\"isps\": [ \"x\" ]",
        "\"tracked_cameras\": [ 1 ]", "\"ipd\": true", "\"beaconet_config\": \"model\"",
        "\"beaconet_config\": { \"channelMap\": [\"a\"], \"modelPoints\": [], \"modelNormals\": [] }",
        "\"tracking_to_eye_transform\": [ { \"distortion\": { \"coeffs\": \"1 2\" } } ]",
        "\"tracking_to_eye_transform\": { \"intrinsics\": [] }"}) {
    EXPECT_EQ(parseError(minimalHmdJson(extra)), kCatchAll) << extra;
  }
  EXPECT_EQ(parseError(R"({ "device_class": "hmd", "device": { "eye_target_width_in_pixels": 1,
      "eye_target_height_in_pixels": 1, "num_windows": 1, "first_eye": 1 } })"),
            kCatchAll);
  EXPECT_EQ(parseError("[ 1, 2 ]"), kCatchAll);
}

}  // namespace
}  // namespace sensorlay
