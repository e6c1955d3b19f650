#include "device/rigid_transform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::runSensorlay;
using testing::TempDir;
using testing::writeFile;
using V3 = Eigen::Vector3d;

const char kZeroZ[] = "imu_plusz_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +Z direction.\n";
const char kZeroX[] = "imu_plusx_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +X direction.\n";
const char kZeroPosition[] =
    "WARNING: imu_from_trackref is 0,0,0!  This is only correct if your IMU is at your CAD origin.\n";
const char kSkew[] = "WARNING: imu_plusz_in_trackref isn't perpendicular to imu_plusx_in_trackref!\n";

std::string imuInput(const std::string& position, const std::string& plusZ, const std::string& plusX) {
  return "// from CAD\n{ \"imu_from_trackref\": " + position + ", \"imu_plusz_in_trackref\": " + plusZ +
         ", \"imu_plusx_in_trackref\": " + plusX + " }\n";
}

TEST(ImuTransformEndToEnd, TransformsAndMessages) {
  TempDir dir;
  const std::string input = dir.file("imu.json");

  writeFile(input, imuInput("[0.1, 0.2, 0.3]", "[0, 0, 2]", "[3, 0, 0]"));
  auto r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(
      r.out,
      "{\n   \"trackref_from_imu\" : [ 0, 0, 0, 1, 0.10000000000000001, 0.20000000000000001, 0.29999999999999999 ]\n}"
      "\n\n");

  // The sample, fed back as it stands, stops at the +Z test.
  r = runSensorlay({"/trackref_from_imu"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("// INSTRUCTIONS\n//\n", 0), 0u);
  writeFile(input, r.out);
  r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, kZeroZ);
  EXPECT_EQ(r.out, "");

  writeFile(input, imuInput("[1, 1, 1]", "[0, 0, 1]", "[]"));
  r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, kZeroX);

  // Warnings do not stop the run: a missing position, skewed axes.
  writeFile(input, "{ \"imu_plusz_in_trackref\": [0, 0, 1], \"imu_plusx_in_trackref\": [1, 0, 0.5] }");
  r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, std::string(kZeroPosition) + kSkew + "WARNING: computed transform does not get matching +X\n");
  EXPECT_EQ(r.out, "{\n   \"trackref_from_imu\" : [ 0, 0, 0, 1, 0, 0, 0 ]\n}\n\n");

  writeFile(input, imuInput("[1, 0, 0]", "[0, 0, -1]", "[1, 0, 0.0005]"));
  r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("[ 1, 0, 0, 0, 1, 0, 0 ]"), std::string::npos) << r.out;
}

TEST(ImuTransformEndToEnd, UnreadableInput) {
  TempDir dir;
  auto r = runSensorlay({"/trackref_from_imu", dir.file("absent.json")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "couldn't read " + dir.file("absent.json") + ": " + std::strerror(ENOENT) + "\n");

  const std::string input = dir.file("bad.json");
  writeFile(input, "{ \"imu_from_trackref\": [1, 2");
  r = runSensorlay({"/trackref_from_imu", input});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("couldn't parse " + input + ": * Line 1", 0), 0u) << r.err;

  for (const char* text :
       {"{ \"imu_plusz_in_trackref\": \"up\" }", "{ \"imu_plusz_in_trackref\": [0, \"1\", 0] }", "[ 1, 2, 3 ]"}) {
    writeFile(input, text);
    r = runSensorlay({"/trackref_from_imu", input});
    EXPECT_EQ(r.status, 1) << text;
    EXPECT_EQ(r.err.rfind("couldn't parse " + input + ": ", 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
  }

  // Devices, folders and pipes never come to a proper end (/dev/zero grows
  // without one): only regular files are read.
  for (const std::string& path : {std::string("/dev/zero"), dir.path()}) {
    r = runSensorlay({"/trackref_from_imu", path});
    EXPECT_EQ(r.status, 1) << path;
    EXPECT_EQ(r.err, "couldn't read " + path + ": not a regular file\n");
  }
}

}  // namespace
}  // namespace sensorlay
