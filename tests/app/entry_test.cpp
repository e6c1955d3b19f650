// The command line end to end: the real binary on generated files.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/device_files.h"
#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::runSensorlay;
using testing::TempDir;
using Args = std::vector<std::string>;

const std::string kVersionLine = "Version:  sensorlay  1000\n";

// The usage texts with a blank line before the first and after each, but for
// the /sensors line, which the /obstacles line follows directly.
const std::string kUsage =
    "\nusage: sensorlay /generate /nsensors <count> [/model <immutable_points.json>] [/maxsurfaceangle <0.0>] "
    "[/outmodel <json>] [/outscad <scad>] [/withscadnormals] /sensors <stl> [/obstacles <stl>]... [/model <json>] "
    "[/coolingrate <~0.95>] [/norientations <~1000-5000>] [/niterations <~1-20>] [/qualityrange low high] "
    "[/qualitymap latlongimg.ext] [/sensorsize 0.006] [plot options below]\n\n"
    "usage: sensorlay /verifycoverage <1000-5000> /outscad <scad> /sensors <stl> [/sensorsize 0.006]\n"
    "\t(shows where sensors will fit)\n\n"
    "usage: sensorlay /model <json> [/sensors <stl>] [/obstacles <stl>]... /distancebasemeters <2.0> "
    "/angleresolutiondegrees <0.5> /maxincidenceangle <70.0> > results.txt\n\n"
    "usage: sensorlay /trackref_from_imu [imu_cad_info.json] -- Run with no args for sample file and instructions.\n\n"
    "usage: sensorlay /formatconvert <jsonformatnumber> [object.json] -- Reformat the existing model file. Valid "
    "format ids: {0,1}\n\n"
    "\t/sensors\tsurface to place sensors on (also occludes sensors) -- scale in meters or mm inferred by object size\n"
    "\t/obstacles\tsurface for occlusion only (also blocks impossible sensor placement) -- same scale as /sensors.  "
    "Multiple /obstacles allowed.\n\n"
    "usage: sensorlay /version -- Print version information\n\n";

// The version line comes with the usage, and alone with a /version that wins.
TEST(Entry, VersionUsageAndValidationMessages) {
  struct Case {
    Args args;
    std::string err;
    int status = 1;
  };
  const std::vector<Case> cases = {
      {{}, kUsage},
      // The scan still complains about the switch behind /version, but the version wins.
      {{"/VERSION", "/bogus"}, "Unrecognized command line switch [ /bogus ].\n", 0},
      {{"/bogus", "/version"}, "Unrecognized command line switch [ /bogus ].\n" + kUsage},
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
      // Values that would make the result meaningless, refused before any file is read.
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "4", "/coolingrate", "nan"},
       "/coolingrate must be a number below 1.0, not nan\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "4", "/qualityrange", "0.02", "0.02"},
       "/qualityrange 0.02 0.02 cannot shape the quality curve: give two different finite values\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json", "/nsensors", "4", "/qualityrange", "inf", "0.5"},
       "/qualityrange 0.5 inf cannot shape the quality curve: give two different finite values\n"},
      {{"/model", "m.json", "/distancebasemeters", "0"},
       "/distancebasemeters 0 cannot place the base station: give a distance above 0 and at most 1e+150 metres\n"},
      {{"/model", "m.json", "/distancebasemeters", "-1e300"},
       "/distancebasemeters -1e+300 cannot place the base station: give a distance above 0 and at most 1e+150 "
       "metres\n"},
      {{"/model", "m.json", "/distancebasemeters", "nan"},
       "/distancebasemeters nan cannot place the base station: give a distance above 0 and at most 1e+150 metres\n"},
      {{"/model", "m.json", "/srbtiltdegrees", "-inf"}, "/srbtiltdegrees must be a finite number of degrees\n"},
      // The distance places no station in a script.
      {{"/model", "m.json", "/outscad", "x.scad", "/distancebasemeters", "0"},
       "couldn't read m.json: file is empty or does not exist\n"},
      {{"/nsensors", "32"}, kUsage},
      {{"/model", "m.json", "/nsensors"}, "Unrecognized command line switch [ /nsensors ].\n" + kUsage},
      {{"/model", "m.json", "stray"}, "Unrecognized command line argument [ stray ].\n" + kUsage},
      {{"/model", "m.json", "/niterations", "lots"}, kUsage},
      {{"/formatconvert"}, "Unrecognized command line switch [ /formatconvert ].\n" + kUsage},
      {{"/bogus", "/trackref_from_imu"}, "Unrecognized command line switch [ /bogus ].\n" + kUsage},
      // A /formatconvert number without a file behind it.
      {{"/formatconvert", "1"},
       "/formatconvert 1 needs a device file: /formatconvert <jsonformatnumber> <object.json>\n"},
      {{"/formatconvert", "7"},
       "Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n"
       "/formatconvert 7 needs a device file: /formatconvert <jsonformatnumber> <object.json>\n"},
  };
  for (const Case& c : cases) {
    const auto r = runSensorlay(c.args);
    const std::string what = ::testing::PrintToString(c.args);
    EXPECT_EQ(r.status, c.status) << what;
    EXPECT_EQ(r.err, c.err) << what;
    const bool usageShown = c.err.size() >= kUsage.size() && c.err.substr(c.err.size() - kUsage.size()) == kUsage;
    EXPECT_EQ(r.out, usageShown || c.status == 0 ? kVersionLine : "") << what;
  }

  // An empty file name is handed on like any other; a missing file ends in 0.
  const auto empty = runSensorlay({"/formatconvert", "7", ""});
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.err,
            "Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n"
            "couldn't read : file is empty or does not exist\n");

  // Past every check, the missing surface is the first thing to fail.
  // Values the run copes with are not refused: a negative or zero rate ends
  // the schedule after one level, a range with a bound at 0 is dropped.
  auto r = runSensorlay({"/generate",
                         "/sensors",
                         "s.stl",
                         "/outmodel",
                         "o.json",
                         "/nsensors",
                         "32",
                         "/srbtiltdegrees",
                         "0",
                         "/coolingrate",
                         "-2",
                         "/qualityrange",
                         "0",
                         "0",
                         "/norientations",
                         "0",
                         "/niterations",
                         "0",
                         "/distancebasemeters",
                         "-1e150"});
  EXPECT_EQ(r.status, 1);
  const std::string last = "Could not build tracked surface from \"s.stl\"\n";
  EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), last.size())), last) << r.err;
}

// What a full disk swallows on the standard output stream is reported and
// fails the run, in every mode that writes there (the tables have their own
// test); the usage fails anyway.
TEST(Entry, EveryModeChecksItsStandardOutput) {
  TempDir dir;
  testing::writeFile(dir.file("imu.json"),
                     "{ \"imu_from_trackref\": [1, 2, 3], \"imu_plusz_in_trackref\": [0, 0, 1], "
                     "\"imu_plusx_in_trackref\": [1, 0, 0] }");
  testing::writeFile(dir.file("device.json"), testing::richDeviceJson());
  const std::string full = " to the standard output stream: No space left on device\n";
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"/version"}, "couldn't write the version line" + full},
      {{}, kUsage + "couldn't write the version line" + full},
      {{"/trackref_from_imu"}, "couldn't write the sample file" + full},
      {{"/trackref_from_imu", "imu.json"}, "couldn't write the transform" + full},
      {{"/formatconvert", "1", "device.json"}, "couldn't write the conversion of device.json" + full},
  };
  testing::RunSetup toFullDisk;
  toFullDisk.workingDirectory = dir.path();
  toFullDisk.standardOutput = "/dev/full";
  for (const auto& [args, err] : cases) {
    const auto r = runSensorlay(args, toFullDisk);
    EXPECT_EQ(r.status, 1) << ::testing::PrintToString(args);
    EXPECT_EQ(r.err, err) << ::testing::PrintToString(args);
  }

  // A disk that fills part of the way through: the file holds what fitted,
  // and the run says so.
  testing::RunSetup shortOfSpace;
  shortOfSpace.workingDirectory = dir.path();
  shortOfSpace.standardOutput = dir.file("converted.json");
  shortOfSpace.launcher = {"prlimit", "--fsize=4096"};
  const auto r = runSensorlay({"/formatconvert", "1", "device.json"}, shortOfSpace);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "couldn't write the conversion of device.json to the standard output stream: File too large\n");
  EXPECT_EQ(testing::readFile(dir.file("converted.json")).size(), 4096u);
}

// A system that refuses threads (a process limit) leaves the run to one
// thread, with one note, and the same results.
TEST(Entry, RunsOnOneThreadWhenNoMoreCanBeStarted) {
#ifndef SENSORLAY_NO_THREADS
  GTEST_SKIP() << "a sanitizer's runtime takes no preloaded library";
#else
  TempDir dir;
  testing::writeModelFile(dir.file("m.json"), testing::threeSensorConstellation());
  testing::writeStlBinary(dir.file("s.stl"), testing::cubeMesh(0.1f, 2));
  testing::RunSetup noThreads;
  noThreads.workingDirectory = dir.path();
  noThreads.environment = {std::string("LD_PRELOAD=") + SENSORLAY_NO_THREADS};
  const std::string note =
      "note: running on one thread, as no more could be started (Resource temporarily unavailable)\n";

  const Args analysis = {"/model", "m.json", "/sensors", "s.stl", "/angleresolutiondegrees", "10"};
  const auto plain = runSensorlay(analysis, dir.path());
  ASSERT_EQ(plain.status, 0) << plain.err;
  auto r = runSensorlay(analysis, noThreads);
  EXPECT_EQ(r.status, 0);
  const size_t at = r.err.find(note);
  ASSERT_NE(at, std::string::npos) << r.err;
  EXPECT_EQ(r.err.substr(0, at) + r.err.substr(at + note.size()), plain.err);
  EXPECT_EQ(r.out, plain.out);
  if (geteuid() != 0) {  // the superuser is not held to the limit
    testing::RunSetup limited;
    limited.workingDirectory = dir.path();
    limited.launcher = {"prlimit", "--nproc=1"};
    r = runSensorlay(analysis, limited);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, plain.out);
  }

  r = runSensorlay({"/generate", "/nsensors", "5", "/sensors", "s.stl", "/outmodel", "d.json", "/norientations", "30",
                    "/coolingrate", "0.5", "/niterations", "1", "/angleresolutiondegrees", "30"},
                   noThreads);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.rfind(note + "quality map normalization: 1\n", 0), 0u) << r.err;
  EXPECT_EQ(r.err.find("note:", 1), std::string::npos) << r.err;
  EXPECT_TRUE(testing::fileExists(dir.file("d.json")));
#endif
}

TEST(Entry, ImmediateToolsSkipValidationAndTheRestOfTheLine) {
  auto r = runSensorlay({"/nsensors", "99", "/formatconvert", "7", "device.json", "/bogus"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err,
            "Unrecognized json format [ 7 ]. Allowed values {0,1,2}\n"
            "couldn't read device.json: file is empty or does not exist\n");

  r = runSensorlay({"/nsensors", "99", "/trackref_from_imu"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out, "");
}

TEST(Entry, ModelFilesEndToEnd) {
  TempDir dir;
  testing::writeModelFile(dir.file("good.json"), testing::threeSensorConstellation(), "Final Quality Score: 1 / 1000");
  auto r = runSensorlay({"/model", "no_such_name"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "couldn't read cfg/hmd/no_such_name.json: file is empty or does not exist\n");

  // A model as the design run writes it, comment line included, reaches the
  // analysis; /nsensors only limits the count there.
  r = runSensorlay({"/model", "good.json", "/nsensors", "2", "/angleresolutiondegrees", "45"}, dir.path());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out, "");

  // Bare names: tessdriver beside an ancestor of the working directory wins;
  // inside a tree named tessmain the root is its drivers/tessdriver.
  for (const std::string tree : {"project/tessdriver", "TessMain/drivers/tessdriver"}) {
    const std::string work = dir.file(tree.substr(0, tree.find('/')) + "/src/tools");
    std::filesystem::create_directories(work);
    std::filesystem::create_directories(dir.file(tree + "/cfg/hmd"));
    testing::writeModelFile(dir.file(tree + "/cfg/hmd/probe.json"), testing::threeSensorConstellation());
    r = runSensorlay({"/model", "probe", "/angleresolutiondegrees", "45"}, work);
    EXPECT_EQ(r.status, 0) << tree;
    EXPECT_EQ(r.err, "") << tree;
    std::filesystem::remove_all(dir.file(tree));
  }
}

}  // namespace
}  // namespace sensorlay
