#include "tools/version.h"

#include <gtest/gtest.h>

#include <string>

#include "common/files.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

TEST(Version, LineAndErrorForm) {
  std::string error = "stale", name, version;
  EXPECT_TRUE(lookUpVersionInformation("/bin/x", "tool", "1.20.3.4", error, &name, &version));
  EXPECT_EQ(error + name + " " + version, "tool 12034");
  EXPECT_FALSE(lookUpVersionInformation("", "tool", "1.0.0.0", error, nullptr, nullptr));

  EXPECT_EQ(testing::capturedStdout([&] { EXPECT_FALSE(printVersionReport(false, error, "", "")); }),
            "ERROR:  GetExeVersionInformation() failed.\n"
            "    error string: ERROR:  Path_GetExecutablePath() failed in GetExeVersionInformation().\n\n");

  const std::string path = Path_GetExecutablePath();
  EXPECT_EQ(path.substr(path.rfind('/') + 1), "test_tools");
}

}  // namespace
}  // namespace sensorlay
