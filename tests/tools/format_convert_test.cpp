#include <gtest/gtest.h>

#include "tests/support/device_files.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::richDeviceJson;
using testing::runSensorlay;
using testing::TempDir;
using testing::writeFile;

TEST(FormatConvertEndToEnd, GenerationsAndStandaloneModels) {
  TempDir dir;
  const std::string device = dir.file("visor.json");
  writeFile(device, richDeviceJson());

  auto r0 = runSensorlay({"/formatconvert", "0", device});
  auto r1 = runSensorlay({"/FORMATCONVERT", "1", device});
  auto r2 = runSensorlay({"/formatconvert", "2", device});
  // The oldest generation keeps the IMU calibration at the root.
  EXPECT_EQ(r0.out.rfind("{\n   \"acc_bias\" : [ 0, 0, 0 ],\n   \"acc_scale\" : [ 1.00999999, 1, 0.99000001 ],\n", 0),
            0u);
  for (const auto* r : {&r0, &r1, &r2}) {
    EXPECT_EQ(r->status, 0);
    EXPECT_EQ(r->err, "");
    EXPECT_NE(r->out.find("\n   \"attached_device_id\" : \"LHR-1234-A\",\n   \"beaconet_config\" : {\n"),
              std::string::npos);
    EXPECT_EQ(r->out.substr(r->out.size() - 3), "}\n\n");
    EXPECT_EQ(r->out.find("not_a_device_key"), std::string::npos);
  }
  EXPECT_NE(r0.out.find("\"trackref_from_imu\" : [ 0, 0, 0.707106769, 0.707106769, 0.00999999978, 0.0199999996, "
                        "0.0299999993 ]"),
            std::string::npos)
      << r0.out;
  EXPECT_NE(r0.out.find("\"direct_mode_edid_pid\" : 4779,"), std::string::npos);
  EXPECT_NE(r1.out.find("\"direct_mode_edid_pid\" : \"12AB\","), std::string::npos);
  EXPECT_NE(r1.out.find("\"head_from_camera\""), std::string::npos);
  EXPECT_EQ(r2.out.find("\"head_from_camera\""), std::string::npos);

  // Taken back to the oldest generation and converted again: the same text.
  writeFile(device, r0.out);
  EXPECT_EQ(runSensorlay({"/formatconvert", "0", device}).out, r0.out);

  // A bad id is named, and the oldest generation is written.
  auto bad = runSensorlay({"/formatconvert", "7", device});
  EXPECT_EQ(bad.status, 0);
  EXPECT_EQ(bad.err, "Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n");
  EXPECT_EQ(bad.out, r0.out);

  // A standalone model file is a device of no class: its sensors go.
  const std::string model = dir.file("model.json");
  writeFile(model, "{ \"channelMap\": [0], \"modelPoints\": [[0, 0, 0]], \"modelNormals\": [[0, 0, 1]] }");
  auto r = runSensorlay({"/formatconvert", "1", model});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(
      r.out,
      "{\n   \"device_class\" : \"unknown\",\n   \"head\" : {\n      \"plus_x\" : [ 1, 0, 0 ],\n"
      "      \"plus_z\" : [ 0, 0, 1 ],\n      \"position\" : [ 0, 0, 0 ]\n   },\n   \"imu\" : {\n"
      "      \"plus_x\" : [ 1, 0, 0 ],\n      \"plus_z\" : [ 0, 0, 1 ],\n      \"position\" : [ 0, 0, 0 ]\n   },\n"
      "   \"revision\" : 0\n}\n\n");
}

TEST(FormatConvertEndToEnd, FailuresAndTheirStatus) {
  TempDir dir;
  // Missing and empty files are reported but the run still ends with 0.
  auto r = runSensorlay({"/formatconvert", "1", dir.file("absent.json")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "couldn't read " + dir.file("absent.json") + ": file is empty or does not exist\n");
  EXPECT_EQ(r.out, "");
  writeFile(dir.file("empty.json"), "");
  EXPECT_EQ(runSensorlay({"/formatconvert", "1", dir.file("empty.json")}).status, 0);

  // A file that is there but wrong ends with 1.
  const std::string path = dir.file("bad.json");
  const std::pair<const char*, const char*> cases[] = {
      {"{ \"device_class\": \"hmd\" }", "missing values from \"device\" section\n"},
      {"{ \"direct_mode_edid_pid\": \"zz\" }", "exception thrown in JSON library\n"},
      {"{ \"device_class\": ", "* Line 1, Column 19\n"},
  };
  for (const auto& [text, message] : cases) {
    writeFile(path, text);
    r = runSensorlay({"/formatconvert", "2", path});
    EXPECT_EQ(r.status, 1) << text;
    EXPECT_EQ(r.err.rfind("couldn't read " + path + ": " + message, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// What a conversion writes reads back to the same record: converted again, it
// gives the same text. What could not be written so is refused instead.
TEST(FormatConvertEndToEnd, NeverWritesWhatItCannotReadBack) {
  TempDir dir;
  const std::string path = dir.file("device.json");
  writeFile(path, richDeviceJson());
  for (const char* format : {"0", "1", "2"}) {
    const auto once = runSensorlay({"/formatconvert", format, path});
    ASSERT_EQ(once.status, 0) << once.err;
    writeFile(dir.file("once.json"), once.out);
    const auto twice = runSensorlay({"/formatconvert", format, dir.file("once.json")});
    EXPECT_EQ(twice.status, 0) << twice.err;
    EXPECT_EQ(twice.out, once.out) << format;
  }

  // A number beyond the float range would be written as an infinity
  // (1e+9999), wherever it stands; a model section with an empty list would
  // lose its sensors on the next reading.
  const std::string range = "the number 1e+39 is beyond the range of a 32-bit float\n";
  const std::string section =
      R"("beaconet_config": { "channelMap": [0, 1], "modelPoints": [[0, 0, 0.02], [0, 0.01, 0.02]],
                                   "modelNormals": [[0, 0, 1], [0, 0, 1]] })";
  auto with = [&](const std::string& from, const std::string& to) {
    std::string text = section;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::pair<std::string, std::string> cases[] = {
      {R"({ "gyro_bias": [1e39, 0, 0] })", "couldn't read " + path + ": " + range},
      {R"({ "imu": { "position": [0, 1e39, 0], "plus_x": [1, 0, 0], "plus_z": [0, 0, 1] } })",
       "couldn't read " + path + ": " + range},
      {"{ " + with("[0, 0.01, 0.02]", "[0, 1e39, 0.02]") + " }", "couldn't read " + path + ": " + range},
      {"{ " + with("[0, 0, 1], [0, 0, 1]", "[0, 0, 1], [0, 0, 1e39]") + " }", "couldn't read " + path + ": " + range},
      {"{ " + with("[0, 1]", "[]") + " }",
       "couldn't convert " + path +
           ": its beaconet_config lists 0 channels, 2 modelPoints and 2 modelNormals, and a section with an empty "
           "list would be lost on the next reading\n"},
  };
  for (const auto& [text, err] : cases) {
    writeFile(path, text);
    const auto r = runSensorlay({"/formatconvert", "1", path});
    EXPECT_EQ(r.status, 1) << text;
    EXPECT_EQ(r.err, err);
    EXPECT_EQ(r.out, "");
  }
  // The same reader serves a model given in a device file.
  writeFile(path, "{ " + with("[0, 0, 1], [0, 0, 1]", "[0, 0, 1], [0, 0, 1e39]") + " }");
  const auto r = runSensorlay({"/model", path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "couldn't read " + path + ": " + range);
}

}  // namespace
}  // namespace sensorlay
