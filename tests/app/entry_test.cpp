// The command line end to end: the real binary on generated files.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::runSensorlay;
using testing::TempDir;

const std::string kVersionLine = "Version:  sensorlay  1000\n";

// The usage texts with a blank line before the first and after each, but for
// the /sensors line, which the /obstacles line follows directly.
std::string expectedUsage() {
  const std::vector<std::pair<std::string, bool>> lines = {
      {"usage: sensorlay /generate /nsensors <count> [/model <immutable_points.json>] [/maxsurfaceangle <0.0>] "
       "[/outmodel <json>] [/outscad <scad>] [/withscadnormals] /sensors <stl> [/obstacles <stl>]... [/model <json>] "
       "[/coolingrate <~0.95>] [/norientations <~1000-5000>] [/niterations <~1-20>] [/qualityrange low high] "
       "[/qualitymap latlongimg.ext] [/sensorsize 0.006] [plot options below]\n",
       true},
      {"usage: sensorlay /verifycoverage <1000-5000> /outscad <scad> /sensors <stl> [/sensorsize 0.006]\n"
       "\t(shows where sensors will fit)\n",
       true},
      {"usage: sensorlay /model <json> [/sensors <stl>] [/obstacles <stl>]... /distancebasemeters <2.0> "
       "/angleresolutiondegrees <0.5> /maxincidenceangle <70.0> > results.txt\n",
       true},
      {"usage: sensorlay /trackref_from_imu [imu_cad_info.json] -- Run with no args for sample file and "
       "instructions.\n",
       true},
      {"usage: sensorlay /formatconvert <jsonformatnumber> [object.json] -- Reformat the existing model file. Valid "
       "format ids: {0,1}\n",
       true},
      {"\t/sensors\tsurface to place sensors on (also occludes sensors) -- scale in meters or mm inferred by object "
       "size\n",
       false},
      {"\t/obstacles\tsurface for occlusion only (also blocks impossible sensor placement) -- same scale as "
       "/sensors.  Multiple /obstacles allowed.\n",
       true},
      {"usage: sensorlay /version -- Print version information\n", true},
  };
  std::string text = "\n";
  for (const auto& [line, blankAfter] : lines) text += line + (blankAfter ? "\n" : "");
  return text;
}

std::string joined(const std::vector<std::string>& args) {
  std::string s;
  for (const auto& a : args) s += "[" + a + "]";
  return s;
}

TEST(Entry, VersionAndUsageGoToTheirStreams) {
  auto r = runSensorlay({});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kVersionLine);
  EXPECT_EQ(r.err, expectedUsage());

  // The scan still complains about the switch behind /version, but the
  // version wins.
  r = runSensorlay({"/VERSION", "/bogus"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kVersionLine);
  EXPECT_EQ(r.err, "Unrecognized command line switch [ /bogus ].\n");

  r = runSensorlay({"/bogus", "/version"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kVersionLine);
  EXPECT_EQ(r.err, "Unrecognized command line switch [ /bogus ].\n" + expectedUsage());
}

TEST(Entry, ValidationMessagesAndUsageEndWithStatusOne) {
  const std::string usage = expectedUsage();
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"/nsensors", "33", "/model", "m.json"}, "Maximum of 32 sensors is allowed.\n"},
      {{"/generate", "/nsensors", "five"}, "/generate requires /sensors <surface.stl>\n"},
      {{"/GENERATE", "/Sensors", "s.stl", "/nsensors", "4"},
       "/generate output needs /outscad <foo.scad> and/or /outmodel <foo.json>\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "-4"},
       "must specify /nsensors with /generate\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "4", "/coolingrate", "1.0"},
       "/coolingrate >= 1.0 would never finish\n"},
      {{"/verifycoverage", "100", "/outscad", "x.scad"}, "/verifycoverage requires /sensors and /outscad\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "4", "/srbtiltdegrees", "5"},
       "/srbtiltdegrees is not plumbed to /generate yet\n"},
      {{"/nsensors", "32"}, usage},
      {{"/model", "m.json", "/nsensors"}, "Unrecognized command line switch [ /nsensors ].\n" + usage},
      {{"/model", "m.json", "/qualityrange", "3"}, "Unrecognized command line switch [ /qualityrange ].\n" + usage},
      {{"/model", "m.json", "stray"}, "Unrecognized command line argument [ stray ].\n" + usage},
      {{"/model", "m.json", "/niterations", "lots"}, usage},
      {{"/formatconvert"}, "Unrecognized command line switch [ /formatconvert ].\n" + usage},
      {{"/bogus", "/trackref_from_imu"}, "Unrecognized command line switch [ /bogus ].\n" + usage},
  };
  for (const Case& c : cases) {
    auto r = runSensorlay(c.args);
    EXPECT_EQ(r.status, 1) << joined(c.args);
    EXPECT_EQ(r.err, c.err) << joined(c.args);
    const bool usageShown = c.err.size() >= usage.size() && c.err.compare(c.err.size() - usage.size(), usage.size(),
                                                                          usage) == 0;
    EXPECT_EQ(r.out, usageShown ? kVersionLine : "") << joined(c.args);
  }
}

TEST(Entry, FormatConvertChecksItsNumberAndNeedsAFile) {
  auto r = runSensorlay({"/formatconvert", "1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "/formatconvert 1 needs a device file: /formatconvert <jsonformatnumber> <object.json>\n");
  EXPECT_EQ(r.out, "");

  r = runSensorlay({"/formatconvert", "7", ""});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n"
            "/formatconvert 7 needs a device file: /formatconvert <jsonformatnumber> <object.json>\n");

  // A bad number is reported and the conversion runs all the same; earlier
  // switches are never validated.
  r = runSensorlay({"/nsensors", "99", "/formatconvert", "7", "device.json", "/bogus"});
  EXPECT_EQ(r.err.rfind("Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n", 0), 0u) << r.err;
  EXPECT_EQ(r.err.find("Maximum of"), std::string::npos);
  EXPECT_EQ(r.err.find("/bogus"), std::string::npos);
}

TEST(Entry, ImmediateImuToolSkipsValidation) {
  auto r = runSensorlay({"/nsensors", "99", "/trackref_from_imu"});
  EXPECT_EQ(r.err.find("Maximum of"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("usage:"), std::string::npos) << r.err;
}

TEST(Entry, ModelFilesThatCannotBeReadEndTheRun) {
  TempDir dir;
  testing::writeFile(dir.file("empty.json"), "");
  testing::writeFile(dir.file("garbage.json"), std::string("\x00\xff\x13{[\x80", 6) + "binary");
  testing::writeFile(dir.file("array.json"), "[1, 2, 3]");
  testing::writeModelFile(dir.file("good.json"), testing::threeSensorConstellation(), "Final Quality Score: 1 / 1000");
  const std::string good = testing::readFile(dir.file("good.json"));
  testing::writeFile(dir.file("truncated.json"), good.substr(0, good.size() / 2));

  struct Case {
    std::string model;
    std::string errStart;
  };
  const std::vector<Case> cases = {
      {"missing.json", "couldn't read missing.json: file is empty or does not exist\n"},
      {"empty.json", "couldn't read empty.json: file is empty or does not exist\n"},
      {"garbage.json", "couldn't parse standalone beaconet_config garbage.json: "},
      {"truncated.json", "couldn't parse standalone beaconet_config truncated.json: "},
      {"array.json", "couldn't parse standalone beaconet_config array.json: "},
      {"no_such_name", "couldn't read cfg/hmd/no_such_name.json: file is empty or does not exist\n"},
  };
  for (const Case& c : cases) {
    auto r = runSensorlay({"/model", c.model}, dir.path());
    EXPECT_EQ(r.status, 1) << c.model;
    EXPECT_EQ(r.err.rfind(c.errStart, 0), 0u) << c.model << ": " << r.err;
    EXPECT_EQ(r.out, "") << c.model;
  }

  // A model as the design run writes it, comment line included, gets past the
  // reader to the analysis.
  auto r = runSensorlay({"/model", "good.json", "/nsensors", "2", "/angleresolutiondegrees", "45"}, dir.path());
  EXPECT_EQ(r.err.find("couldn't"), std::string::npos) << r.err;
  EXPECT_LT(r.status, 2);
}

TEST(Entry, BareModelNamesAreFoundUnderTheResourceRoot) {
  TempDir dir;
  // tessdriver beside an ancestor of the working directory wins outright.
  const std::string work = dir.file("project/work");
  std::filesystem::create_directories(work);
  std::filesystem::create_directories(dir.file("project/tessdriver/cfg/hmd"));
  testing::writeModelFile(dir.file("project/tessdriver/cfg/hmd/probe.json"), testing::threeSensorConstellation());
  auto r = runSensorlay({"/model", "probe", "/angleresolutiondegrees", "45"}, work);
  EXPECT_EQ(r.err.find("couldn't"), std::string::npos) << r.err;

  // Inside a tree named tessmain the root is its drivers/tessdriver.
  const std::string inner = dir.file("TessMain/src/tools");
  std::filesystem::create_directories(inner);
  std::filesystem::create_directories(dir.file("TessMain/drivers/tessdriver/cfg/hmd"));
  testing::writeModelFile(dir.file("TessMain/drivers/tessdriver/cfg/hmd/probe.json"),
                          testing::threeSensorConstellation());
  r = runSensorlay({"/model", "probe", "/angleresolutiondegrees", "45"}, inner);
  EXPECT_EQ(r.err.find("couldn't"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace sensorlay
