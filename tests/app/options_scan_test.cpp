#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/options.h"
#include "tests/support/run_binary.h"

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
  s.err = testing::capturedStderr(
      [&] { scanOptions(static_cast<int>(argv.size()), argv.data(), s.options, s.parseFailed, s.versionRequested); });
  return s;
}

TEST(OptionScan, ValuesConvertLikeScanfAndLaterSwitchesOverwrite) {
  Scan s = scan({"/model", "/sensors", "/obstacles", "b.stl", "/OBSTACLES", "a.stl", "/NSensors", " 12abc", "/nsensors",
                 "5", "/coolingrate", "0.5x", "/maxincidenceangle", "1e1", "/srbtiltdegrees", "10"});
  EXPECT_FALSE(s.parseFailed);
  EXPECT_EQ(s.err, "");
  EXPECT_EQ(s.options.modelPath, "/sensors");  // a value is taken as it stands
  EXPECT_EQ(s.options.obstaclePaths, (std::vector<std::string>{"b.stl", "a.stl"}));
  EXPECT_EQ(s.options.nSensors, 5);
  EXPECT_EQ(s.options.coolingRate, 0.5);
  EXPECT_EQ(s.options.maxIncidenceAngle, 10.0);
  EXPECT_EQ(s.options.srbTiltRadians, 10.0 * 0.005555555555555556 * 3.141592653589793);

  // A value that does not convert fails without a word of its own, keeps the
  // field, is consumed, and ends the scan before the next switch.
  for (const char* name : {"/norientations", "/srbtiltdegrees", "/sensorsize"}) {
    s = scan({name, "many", "/nsensors", "4"});
    EXPECT_TRUE(s.parseFailed) << name;
    EXPECT_EQ(s.err, "") << name;
    EXPECT_EQ(s.options.nSensors, -1) << name;
  }
  EXPECT_EQ(s.options.sensorSize, 0.006);
}

TEST(OptionScan, QualityRangeReadsBothValuesAndSortsThem) {
  Scan s = scan({"/qualityrange", "0.9", "0.1"});
  EXPECT_EQ(s.options.qualityRangeLow, 0.1);
  EXPECT_EQ(s.options.qualityRangeHigh, 0.9);
  EXPECT_FALSE(s.parseFailed);

  // Each value fails on its own; the sort runs on what the fields then hold.
  s = scan({"/qualityrange", "0.9", "x"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.qualityRangeLow, -1.0);
  EXPECT_EQ(s.options.qualityRangeHigh, 0.9);

  // Short of its two values the switch is not recognised at all.
  s = scan({"/qualityrange", "3"});
  EXPECT_TRUE(s.parseFailed);
  EXPECT_EQ(s.options.qualityRangeLow, -1.0);
  EXPECT_EQ(s.err, "Unrecognized command line switch [ /qualityrange ].\n");
}

}  // namespace
}  // namespace sensorlay
