#include <gtest/gtest.h>
#include <json/json.h>

#include "device/device_config.h"
#include "tests/support/device_files.h"

namespace sensorlay {
namespace {

using testing::minimalHmdJson;

DeviceConfig parseOk(const std::string& text) {
  DeviceConfig config;
  std::string error;
  EXPECT_TRUE(parseDeviceConfig(config, error, text)) << error;
  return config;
}

Json::Value parsed(const std::string& text) {
  Json::Value v;
  std::string errors;
  EXPECT_TRUE(parseJsonText(text, v, errors)) << errors;
  return v;
}

std::string text(const JsonOut& v) { return writeStyledJson(v, 1000); }

std::string displayWith(const std::string& members, const std::string& rootMembers = "") {
  return "{ \"device_class\": \"hmd\", \"device\": { \"eye_target_width_in_pixels\": 10, "
         "\"eye_target_height_in_pixels\": 10, " +
         members + " }" + (rootMembers.empty() ? "" : ", " + rootMembers) + " }";
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

TEST(DisplaySections, Distortions) {
  DistortionSection d = readDistortion(parsed(R"({ "type": "distort_poly3", "coeffs": [1, 2, 0, 0] })"));
  EXPECT_EQ(d.type, DistortionType::Poly3);
  EXPECT_EQ(text(writeDistortion(d)), "{\n   \"coeffs\" : [ 1, 2 ],\n   \"type\" : \"DISTORT_POLY3\"\n}\n");
  d = readDistortion(parsed(R"({ "coeffs": [0, 1, 0, 3, 0, 0, 0, 0, 9], "center_y": 0.5 })"));
  EXPECT_EQ(text(writeDistortion(d)),
            "{\n   \"center_x\" : 0,\n   \"center_y\" : 0.5,\n   \"coeffs\" : [ 0, 1, 0, 3 ]\n}\n");
  EXPECT_TRUE(writeDistortion(readDistortion(Json::Value())).isNull());
  EXPECT_EQ(readDistortion(parsed(R"({ "type": "DISTORT__COUNT" })")).type, DistortionType::Count);
  EXPECT_EQ(distortionTypeText(DistortionType::Count), "DISTORT__COUNT");
  EXPECT_EQ(distortionTypeText(static_cast<DistortionType>(40)), "Unknown");
  EXPECT_EQ(stereoDeviceIdFromText("stereo_dev_test"), StereoDeviceId::Test);

  // A named first model without numbers says nothing, so the channel
  // follows the base; a channel equal to the base is not written back.
  const EyeSection eye = readEyeSection(parsed(R"({
      "distortion": { "type": "DISTORT_POLY3", "coeffs": [0.5] },
      "distortion_red": { "type": "DISTORT_POLY2_TANGENT" },
      "distortion_blue": { "type": "DISTORT_POLY3", "coeffs": [0.5] } })"));
  EXPECT_EQ(eye.distortionRed, eye.distortion);
  EXPECT_EQ(eye.distortionBlue, eye.distortion);
  const JsonOut out = writeEyeSection(eye);
  EXPECT_TRUE(out.isMember("distortion"));
  EXPECT_FALSE(out.isMember("distortion_red"));
  EXPECT_FALSE(out.isMember("distortion_blue"));
  // An eye without intrinsics reads zeros, and zeros are written.
  EXPECT_EQ(text(*out.find("intrinsics")), "[\n   [ 0, 0, 0 ],\n   [ 0, 0, 0 ],\n   [ 0, 0, 0 ]\n]\n");
  EXPECT_FALSE(out.isMember("eye_to_head"));

  EyeSection tinted = eye;
  tinted.distortionBlue.coefficients[1] = 0.25;
  const JsonOut both = writeEyeSection(tinted);
  EXPECT_EQ(text(*both.find("distortion_red")), text(*both.find("distortion")));
  EXPECT_EQ(text(*both.find("distortion_blue")),
            "{\n   \"coeffs\" : [ 0.5, 0.25 ],\n   \"type\" : \"DISTORT_POLY3\"\n}\n");
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
    EXPECT_EQ(text(*out.find("tracked_camera")->find("head_from_camera")),
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

  c = parseOk(minimalHmdJson(R"("tracked_camera": { "name": "nose" }, "second_tracked_camera": {})"));
  EXPECT_EQ(c.cameras[0].name, "nose");
  // Without a first camera the second is the only one, and a pair mounting
  // has nothing to be relative to.
  c = parseOk(minimalHmdJson(R"("second_tracked_camera": {}, "tracked_cameras": [ {} ],
      "dual_extrinsics": { "rotation": [0, 0, 1, 0], "translation": [1, 0, 0] })"));
  ASSERT_EQ(c.cameras.size(), 1u);
  EXPECT_EQ(c.cameras[0].name, "right");
  EXPECT_EQ(c.cameras[0].extrinsics, defaultCameraMounting());

  c = parseOk(minimalHmdJson(R"("tracked_cameras": [ { "name": "a" }, {}, {} ])"));
  EXPECT_EQ(c.cameras[2].name, "Camera2");
  c.jsonFormat = 1;
  JsonOut out = writeDeviceRecord(c);
  EXPECT_EQ(text(*out.find("isps")), "[\n   {\n      \"driver\" : \"vidcamlib\"\n   }\n]\n");
  EXPECT_TRUE(out.find("tracked_cameras")->at(2).isMember("head_from_camera"));
  c.jsonFormat = 2;
  out = writeDeviceRecord(c);
  EXPECT_EQ(text(*out.find("tracked_cameras")->at(0).find("extrinsics")),
            "{\n   \"plus_x\" : [ 1, 0, 0 ],\n   \"plus_z\" : [ 0, 0.42261902962925113, 0.90630744666126928 ],\n"
            "   \"position\" : [ 0, -0.038178000599145889, -0.074294000864028931 ]\n}\n");
}

TEST(TrackingSections, IntrinsicsCenterAndPoseForms) {
  const CameraIntrinsics lens = readCameraIntrinsics(parsed(
      R"({ "width": 640, "height": 480, "undist_width": 800, "undist_height": 480, "center_x": 400, "center_y": 240 })"));
  const JsonOut out = writeCameraIntrinsics(lens);
  EXPECT_EQ(text(*out.find("center_x")), "320\n");
  EXPECT_EQ(text(*out.find("center_y")), "240\n");
  EXPECT_FALSE(out.isMember("undist_width"));
  EXPECT_TRUE(out.find("distort")->isNull());

  TrackedCamera camera = readTrackedCamera(parsed(R"({ "extrinsics": "none" })"));
  EXPECT_EQ(camera.extrinsics, defaultCameraMounting());
  camera = readTrackedCamera(parsed(R"({ "extrinsics": { "position": [1, 2, 3] } })"));
  EXPECT_EQ(camera.extrinsics, RigidTransform());
  camera = readTrackedCamera(
      parsed(R"({ "extrinsics": { "position": [1, 2, 3], "plus_x": [0, 1, 0], "plus_z": [0, 0, 5] },
                  "head_from_camera": [1, 0, 0, 0, 0, 0, 0] })"));
  EXPECT_NEAR(camera.extrinsics.rotation[2], std::sqrt(0.5), 1e-7);
  EXPECT_NEAR(camera.extrinsics.rotation[3], std::sqrt(0.5), 1e-7);
  EXPECT_EQ(camera.extrinsics.translation, Eigen::Vector3f(1, 2, 3));
}

}  // namespace
}  // namespace sensorlay
