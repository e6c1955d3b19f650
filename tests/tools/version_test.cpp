#include "tools/version.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

TEST(Version, LookUpFailsAtTheFirstMissingPiece) {
  std::string error = "stale", name, version;
  EXPECT_TRUE(lookUpVersionInformation("/bin/x", "tool", "1.20.3.4", error, &name, &version));
  EXPECT_EQ(error, "");
  EXPECT_EQ(name, "tool");
  EXPECT_EQ(version, "12034");
  // Results that are not wanted are not delivered, and the lookup still runs.
  EXPECT_TRUE(lookUpVersionInformation("/bin/x", "tool", "1.0.0.0", error, nullptr, nullptr));
  EXPECT_FALSE(lookUpVersionInformation("/bin/x", "tool", "", error, nullptr, nullptr));
  EXPECT_EQ(error, "ERROR:  Could not read FileVersion in GetExeVersionInformation().\n");

  EXPECT_FALSE(lookUpVersionInformation("", "tool", "1.0.0.0", error, &name, &version));
  EXPECT_EQ(error, "ERROR:  Path_GetExecutablePath() failed in GetExeVersionInformation().\n");
  EXPECT_FALSE(lookUpVersionInformation("/bin/x", "", "1.0.0.0", error, &name, &version));
  EXPECT_EQ(error, "ERROR:  Could not read InternalName in GetExeVersionInformation().\n");
}

TEST(Version, ReportsTheLineOrTheErrorForm) {
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(printVersionReport(true, "", "sensorlay", "1000"));
  EXPECT_FALSE(printVersionReport(false, "ERROR:  Path_GetExecutablePath() failed in GetExeVersionInformation().\n",
                                  "", ""));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Version:  sensorlay  1000\n"
            "ERROR:  GetExeVersionInformation() failed.\n"
            "    error string: ERROR:  Path_GetExecutablePath() failed in GetExeVersionInformation().\n\n");
}

TEST(Version, ReadsTheRunningBuild) {
  const std::string path = Path_GetExecutablePath();
  EXPECT_EQ(path.substr(path.rfind('/') + 1), "test_tools");
  std::string error, name, version;
  EXPECT_TRUE(GetExeVersionInformation(error, &name, &version));
  EXPECT_EQ(name, "sensorlay");
  EXPECT_EQ(version, "1000");

  auto r = testing::runSensorlay({"/version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Version:  sensorlay  1000\n");
  EXPECT_EQ(r.err, "");
}

}  // namespace
}  // namespace sensorlay
