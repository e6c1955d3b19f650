#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/options.h"

namespace sensorlay {
namespace {

struct Scan {
  DesignOptions options;
  bool parseFailed = false;
  bool versionRequested = false;
  std::string err;
};

Scan scan(std::vector<std::string> args) {
  args.insert(args.begin(), "sensorlay");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  Scan s;
  ::testing::internal::CaptureStderr();
  scanOptions(static_cast<int>(argv.size()), argv.data(), s.options, s.parseFailed, s.versionRequested);
  s.err = ::testing::internal::GetCapturedStderr();
  return s;
}

TEST(OptionScan, NumbersConvertLikeScanfAndFailuresKeepTheField) {
  Scan s = scan({"/NSensors", " 12abc", "/coolingrate", "0.5x", "/maxincidenceangle", "1e1", "/niterations", "7"});
  EXPECT_EQ(s.options.nSensors, 12);
  EXPECT_EQ(s.options.coolingRate, 0.5);
  EXPECT_EQ(s.options.maxIncidenceAngle, 10.0);
  EXPECT_EQ(s.options.nIterations, 7);
  EXPECT_FALSE(s.parseFailed);
  EXPECT_EQ(s.err, "");

  // A value that does not convert fails the scan without a word of its own,
  // is consumed all the same, and ends the scan before the next switch.
  s = scan({"/norientations", "many", "/nsensors", "4"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.nOrientations, 1250);
  EXPECT_EQ(s.options.nSensors, -1);
  EXPECT_EQ(s.err, "");

  s = scan({"/srbtiltdegrees", "10"});
  EXPECT_EQ(s.options.srbTiltRadians, 10.0 * 0.005555555555555556 * 3.141592653589793);
  s = scan({"/srbtiltdegrees", "left"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.srbTiltRadians, 0.0);
}

TEST(OptionScan, ValuesAreTakenAsTheyStandAndLaterSwitchesOverwrite) {
  Scan s = scan({"/model", "/sensors", "/obstacles", "a.stl", "/OBSTACLES", "b.stl", "/nsensors", "3", "/nsensors", "5",
                 "/generate", "/withscadnormals", "/basestationsensitivity", "/outscad", "x.scad", "/outmodel", "y.json",
                 "/qualitymap", "q.png", "/verifycoverage", "-3", "/sensorsize", "0.01", "/distancebasemeters", "-3",
                 "/angleresolutiondegrees", "2", "/maxsurfaceangle", "45"});
  EXPECT_FALSE(s.parseFailed);
  EXPECT_EQ(s.options.modelPath, "/sensors");
  EXPECT_EQ(s.options.sensorsPath, "");
  EXPECT_EQ(s.options.obstaclePaths, (std::vector<std::string>{"a.stl", "b.stl"}));
  EXPECT_EQ(s.options.nSensors, 5);
  EXPECT_TRUE(s.options.generate && s.options.withScadNormals && s.options.baseStationSensitivity);
  EXPECT_EQ(s.options.outScadPath, "x.scad");
  EXPECT_EQ(s.options.outModelPath, "y.json");
  EXPECT_EQ(s.options.qualityMapPath, "q.png");
  EXPECT_EQ(s.options.verifyCoverage, -3);
  EXPECT_EQ(s.options.sensorSize, 0.01);
  EXPECT_EQ(s.options.distanceBaseMeters, -3.0);
  EXPECT_EQ(s.options.angleResolutionDegrees, 2.0);
  EXPECT_EQ(s.options.maxSurfaceAngle, 45.0);
}

TEST(OptionScan, QualityRangeReadsBothValuesAndSortsThem) {
  Scan s = scan({"/qualityrange", "0.9", "0.1"});
  EXPECT_EQ(s.options.qualityRangeLow, 0.1);
  EXPECT_EQ(s.options.qualityRangeHigh, 0.9);
  EXPECT_FALSE(s.parseFailed);

  // Each value fails on its own; the sort runs on what the fields then hold.
  s = scan({"/qualityrange", "x", "0.3"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.qualityRangeLow, -1.0);
  EXPECT_EQ(s.options.qualityRangeHigh, 0.3);
  s = scan({"/qualityrange", "0.9", "x"});
  EXPECT_EQ(s.options.qualityRangeLow, -1.0);
  EXPECT_EQ(s.options.qualityRangeHigh, 0.9);

  // Short of its two values the switch is not recognised at all.
  s = scan({"/qualityrange", "3"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.qualityRangeLow, -1.0);
  EXPECT_EQ(s.err, "Unrecognized command line switch [ /qualityrange ].\n");
}

TEST(OptionScan, BadTokensStopTheScan) {
  Scan s = scan({"stray", "/nsensors", "4"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.nSensors, -1);
  EXPECT_EQ(s.err, "Unrecognized command line argument [ stray ].\n");

  s = scan({"/nsensors"});
  EXPECT_EQ(s.err, "Unrecognized command line switch [ /nsensors ].\n");

  s = scan({"/version", "/bogus", "/generate"});
  EXPECT_TRUE(s.versionRequested);
  EXPECT_TRUE(s.parseFailed);
  EXPECT_FALSE(s.options.generate);

  s = scan({"/bogus", "/version"});
  EXPECT_FALSE(s.versionRequested);
  EXPECT_EQ(s.err, "Unrecognized command line switch [ /bogus ].\n");
}

TEST(OptionValidation, ChecksFireInOrder) {
  struct Case {
    std::vector<std::string> args;
    ValidationOutcome outcome;
    std::string message;
  };
  const std::vector<Case> cases = {
      // The sensor limit beats everything, in every mode.
      {{"/nsensors", "33", "/generate"}, ValidationOutcome::Failed, "Maximum of 32 sensors is allowed.\n"},
      {{"/nsensors", "32", "/model", "m.json"}, ValidationOutcome::Passed, ""},
      {{"/generate", "/verifycoverage", "9"}, ValidationOutcome::Failed, "/generate requires /sensors <surface.stl>\n"},
      {{"/generate", "/sensors", "s.stl", "/nsensors", "2"},
       ValidationOutcome::Failed,
       "/generate output needs /outscad <foo.scad> and/or /outmodel <foo.json>\n"},
      {{"/generate", "/sensors", "s.stl", "/outmodel", "o.json"},
       ValidationOutcome::Failed,
       "must specify /nsensors with /generate\n"},
      {{"/generate", "/sensors", "s.stl", "/outscad", "o.scad", "/nsensors", "0"},
       ValidationOutcome::Failed,
       "must specify /nsensors with /generate\n"},
      {{"/generate", "/sensors", "s.stl", "/outscad", "o.scad", "/nsensors", "4", "/coolingrate", "1.0"},
       ValidationOutcome::Failed,
       "/coolingrate >= 1.0 would never finish\n"},
      {{"/generate", "/sensors", "s.stl", "/outscad", "o.scad", "/nsensors", "4", "/coolingrate", "-2"},
       ValidationOutcome::Passed,
       ""},
      {{"/verifycoverage", "-3", "/sensors", "s.stl"},
       ValidationOutcome::Failed,
       "/verifycoverage requires /sensors and /outscad\n"},
      {{"/verifycoverage", "-3", "/sensors", "s.stl", "/outscad", "o.scad"}, ValidationOutcome::Passed, ""},
      {{"/nsensors", "4"}, ValidationOutcome::ShowUsage, ""},
      {{"/model", ""}, ValidationOutcome::ShowUsage, ""},
      {{"/generate", "/sensors", "s.stl", "/outscad", "o.scad", "/nsensors", "4", "/srbtiltdegrees", "10"},
       ValidationOutcome::Failed,
       "/srbtiltdegrees is not plumbed to /generate yet\n"},
      {{"/generate", "/sensors", "s.stl", "/outscad", "o.scad", "/nsensors", "4", "/srbtiltdegrees", "0"},
       ValidationOutcome::Passed,
       ""},
      // A bad number only reaches the usage when no earlier check fires.
      {{"/model", "m.json", "/nsensors", "x"}, ValidationOutcome::ShowUsage, ""},
      {{"/generate", "/nsensors", "many"}, ValidationOutcome::Failed, "/generate requires /sensors <surface.stl>\n"},
  };
  for (const Case& c : cases) {
    Scan s = scan(c.args);
    ::testing::internal::CaptureStderr();
    const ValidationOutcome outcome = validateOptions(s.options, s.parseFailed);
    const std::string err = ::testing::internal::GetCapturedStderr();
    std::string line;
    for (const auto& a : c.args) line += a + " ";
    EXPECT_EQ(outcome, c.outcome) << line;
    EXPECT_EQ(err, c.message) << line;
  }
}

}  // namespace
}  // namespace sensorlay
