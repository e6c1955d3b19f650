#include "tools/imu_transform.h"

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

// A general frame: the rotation takes X and Z where they were asked to go.
// The axis-aligned frames, exact to the digit, are pinned end to end below.
TEST(ImuTransform, AxesToQuaternion) {
  RigidTransformD t;
  const V3 plusX = V3(1, 2, 2).normalized();
  const V3 plusZ = V3(2, 1, -2).normalized();
  ASSERT_TRUE(transformFromAxes(&t, V3::Zero(), plusX * 4, plusZ * 0.5));
  EXPECT_NEAR(t.rotation.norm(), 1.0, 1e-12);
  EXPECT_LT((rotateByQuaternion(t.rotation, V3::UnitX()) - plusX).norm(), 1e-12);
  EXPECT_LT((rotateByQuaternion(t.rotation, V3::UnitZ()) - plusZ).norm(), 1e-12);
  EXPECT_LT((rotatedPlusX(t.rotation) - plusX).norm(), 1e-12);
  EXPECT_LT((rotatedPlusZ(t.rotation) - plusZ).norm(), 1e-12);

  // Perpendicular within 0.001 in cosine passes; beyond, nothing is stored.
  EXPECT_TRUE(transformFromAxes(nullptr, V3::Zero(), V3(1, 0, 0), V3(0.0005, 0, 1)));
  RigidTransformD untouched;
  untouched.translation = V3(7, 7, 7);
  EXPECT_FALSE(transformFromAxes(&untouched, V3::Zero(), V3(1, 0, 0), V3(0.0011, 0, 1)));
  EXPECT_EQ(untouched.translation, V3(7, 7, 7));
  EXPECT_FALSE(transformFromAxes(nullptr, V3::Zero(), V3::Zero(), V3(0, 0, 1)));
  EXPECT_FALSE(transformFromAxes(nullptr, V3::Zero(), V3(1, 0, 0), V3::Zero()));
}

TEST(ImuTransform, RotationBetweenAndRotate) {
  EXPECT_EQ(rotationBetween(V3(0, 0, 3), V3(0, 0, 1)), QuaternionXyzw(0, 0, 0, 1));
  // Opposite along X: the Y axis is taken, as X is parallel.
  EXPECT_EQ(rotationBetween(V3(-2, 0, 0), V3(1, 0, 0)), QuaternionXyzw(0, 0, 1, 6.123233995736766e-17));
  const QuaternionXyzw quarter = rotationBetween(V3(1, 0, 0), V3(0, 5, 0));
  EXPECT_NEAR(quarter.z(), std::sqrt(0.5), 1e-15);
  EXPECT_NEAR(quarter.w(), std::sqrt(0.5), 1e-15);
  EXPECT_LT((rotateByQuaternion(quarter, V3(1, 0, 3)) - V3(0, 1, 3)).norm(), 1e-15);
  EXPECT_EQ(multiplyQuaternions(quarter, QuaternionXyzw(0, 0, 0, 1)), quarter);
}

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
}

}  // namespace
}  // namespace sensorlay
