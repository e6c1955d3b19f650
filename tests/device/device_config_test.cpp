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

// The value as the wide writer prints it, or "<absent>".
std::string text(const JsonOut* v) { return v == nullptr ? "<absent>" : writeStyledJson(*v, 1000); }
std::string text(const JsonOut& v) { return text(&v); }

std::string displayWith(const std::string& members, const std::string& rootMembers = "") {
  return "{ \"device_class\": \"hmd\", \"device\": { \"eye_target_width_in_pixels\": 10, "
         "\"eye_target_height_in_pixels\": 10, " +
         members + " }" + (rootMembers.empty() ? "" : ", " + rootMembers) + " }";
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
  EXPECT_EQ(text(middle.find("imu")->find("gyro_bias")), "[ 0.00100000005, 0, 0 ]\n");
  EXPECT_FALSE(middle.find("imu")->isMember("gyro_scale"));
  EXPECT_EQ(text(middle.find("ipd")),
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
  EXPECT_EQ(text(writeDeviceRecord(odd).find("device_class")), "\"unknown\"\n");
  // Display keys are read in every class but written only for a headset.
  EXPECT_EQ(odd.display.numWindows, 1);
  EXPECT_FALSE(writeDeviceRecord(odd).isMember("device"));

  const DeviceConfig controller = parseOk("{ \"device_class\": \"Controller\" }");
  EXPECT_EQ(controller.deviceClass, DeviceClass::Controller);
  EXPECT_EQ(controller.jsonFormat, 0);

  // A model section that is complete but empty stays as a null section.
  const DeviceConfig empty = parseOk(
      R"({ "device_class": "controller", "beaconet_config": { "channelMap": [], "modelPoints": [], "modelNormals": [] } })");
  ASSERT_TRUE(writeDeviceRecord(empty).isMember("beaconet_config"));
  EXPECT_TRUE(writeDeviceRecord(empty).find("beaconet_config")->isNull());
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
        "\"tracking_to_eye_transform\": { \"intrinsics\": [] }", "\"gyro_bias\": [ \"a\", 1, 2 ]",
        "\"trackref_from_imu\": [ 0, 0, 0, [1], 0, 0, 0 ]"}) {
    EXPECT_EQ(parseError(minimalHmdJson(extra)), kCatchAll) << extra;
  }
  // Null and truth-value elements read as numbers; a text in place of the
  // driver list has no elements.
  const DeviceConfig loose = parseOk(minimalHmdJson("\"gyro_bias\": [ null, true, 2 ], \"isps\": \"abc\""));
  EXPECT_EQ(loose.imuCalibration.gyroBias, Eigen::Vector3f(0, 1, 2));
  EXPECT_TRUE(loose.ispDrivers.empty());
  // Nesting beyond the reader's limit makes it throw, which ends as any other
  // exception does.
  EXPECT_EQ(parseError(minimalHmdJson("\"mfg_build_info\": " + std::string(2000, '[') + std::string(2000, ']'))),
            kCatchAll);
  EXPECT_EQ(parseError(R"({ "device_class": "hmd", "device": { "eye_target_width_in_pixels": 1,
      "eye_target_height_in_pixels": 1, "num_windows": 1, "first_eye": 1 } })"),
            kCatchAll);
  EXPECT_EQ(parseError("[ 1, 2 ]"), kCatchAll);
}

TEST(DisplaySections, EyesWindowsAndHiddenAreaMesh) {
  const DeviceConfig two = parseOk(
      displayWith("\"num_windows\": 2, \"first_eye\": \"eeye_l\", \"last_eye\": \"eEYE_R\", \"hidden_area_mesh\": 5"));
  EXPECT_EQ(two.display.firstEye, EyeId::Left);
  EXPECT_EQ(two.display.lastEye, EyeId::Right);
  EXPECT_EQ(two.display.hiddenAreaMesh, 5u);
  EXPECT_EQ(text(writeDisplaySection(two.display)),
            "{\n   \"eye_target_height_in_pixels\" : 10,\n   \"eye_target_width_in_pixels\" : 10,\n"
            "   \"first_eye\" : \"eEYE_LEFT\",\n   \"hidden_area_mesh\" : 5,\n   \"last_eye\" : \"eEYE_RIGHT\",\n"
            "   \"num_windows\" : 2\n}\n");
  EXPECT_EQ(parseOk(displayWith("\"num_windows\": 1, \"hidden_area_mesh\": 6")).display.hiddenAreaMesh, 1u);
  EXPECT_EQ(parseOk(displayWith("\"num_windows\": 1, \"hidden_area_mesh\": -1")).display.hiddenAreaMesh, 1u);
  EXPECT_EQ(parseOk(displayWith("\"num_windows\": 1, \"last_eye\": \"eEYE_MIDDLE\"")).display.lastEye, EyeId::Left);

  // One window keeps one EDID text even when two eyes are in use; two
  // windows with one text give it to both.
  auto edids = [](const char* windows, const char* edid) {
    return parseOk(displayWith(std::string("\"num_windows\": ") + windows + ", \"last_eye\": \"eEYE_RIGHT\"",
                               std::string("\"display_edid\": ") + edid))
        .displayEdid;
  };
  EXPECT_EQ(edids("1", "[\"A\", \"B\"]"), (std::array<std::string, 2>{"A", ""}));
  EXPECT_EQ(edids("2", "[\"A\"]"), (std::array<std::string, 2>{"A", "A"}));

  // eNUM_EYES names no eye record: the range stops at the right eye.
  const DeviceConfig all = parseOk(displayWith("\"num_windows\": 2, \"last_eye\": \"eNUM_EYES\""));
  EXPECT_EQ(all.display.lastEye, EyeId::Count);
  EXPECT_EQ(writeEyeList(all.eyes, all.display).size(), 2u);
  EXPECT_EQ(eyeIdText(EyeId::Count), "eNUM_EYES");
}

TEST(TrackingSections, CameraPrecedenceAndNames) {
  const std::string lens = R"({ "width": 640, "height": 480 })";
  DeviceConfig c = parseOk(minimalHmdJson("\"tracked_camera\": { \"intrinsics\": " + lens + " }"));
  ASSERT_EQ(c.cameras.size(), 1u);
  EXPECT_EQ(c.cameras[0].name, "center");
  EXPECT_EQ(c.cameras[0].extrinsics, defaultCameraMounting());
  EXPECT_EQ(c.ispDrivers, std::vector<std::string>{"vidcamlib"});
  EXPECT_EQ(c.jsonFormat, 0);
  for (int format = 0; format <= 2; ++format) {
    c.jsonFormat = format;
    const JsonOut out = writeDeviceRecord(c);
    EXPECT_FALSE(out.isMember("isps"));
    EXPECT_EQ(text(out.find("tracked_camera")->find("head_from_camera")),
              "[ -0.216440007, 0, 0, 0.976296008, 0, -0.0381780006, -0.0742940009 ]\n");
  }

  c = parseOk(minimalHmdJson("\"tracked_camera\": { \"name\": \"old\", \"intrinsics\": " + lens +
                             " }, \"tracked_camera1\": { \"intrinsics\": { \"width\": 1 } }, "
                             "\"tracked_cameras\": [ {}, {} ]"));
  ASSERT_EQ(c.cameras.size(), 1u);
  EXPECT_EQ(c.cameras[0].name, "center");
  EXPECT_EQ(c.cameras[0].intrinsics.width, 640);
  EXPECT_EQ(c.cameras[0].intrinsics.undistHeight, 480);

  c = parseOk(minimalHmdJson(R"("tracked_camera": { "head_from_camera": [0, 0, 0, 1, 1, 2, 3] },
      "second_tracked_camera": { "head_from_camera": [0, 0, 0, 1, 9, 9, 9] },
      "dual_extrinsics": { "rotation": [0, 0, 1, 0], "translation": [1, 0, 0] })"));
  ASSERT_EQ(c.cameras.size(), 2u);
  EXPECT_EQ(c.jsonFormat, 2);
  EXPECT_EQ(c.cameras[0].name, "left");
  EXPECT_EQ(c.cameras[1].name, "right");
  EXPECT_EQ(c.cameras[1].extrinsics.translation, Eigen::Vector3f(2, 2, 3));
  EXPECT_EQ(c.cameras[1].extrinsics.rotation, Eigen::Vector4f(0, 0, 1, 0));

  c = parseOk(minimalHmdJson(R"("tracked_cameras": [ { "name": "a" }, {}, {} ])"));
  EXPECT_EQ(c.cameras[2].name, "Camera2");
  c.jsonFormat = 1;
  JsonOut out = writeDeviceRecord(c);
  EXPECT_EQ(text(out.find("isps")), "[\n   {\n      \"driver\" : \"vidcamlib\"\n   }\n]\n");
  EXPECT_TRUE(out.find("tracked_cameras")->at(2).isMember("head_from_camera"));
}

}  // namespace
}  // namespace sensorlay
