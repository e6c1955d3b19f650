#include "device/rigid_transform.h"

#include <json/json.h>
#include <sys/stat.h>
#include <Eigen/Geometry>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "common/files.h"
#include "common/json_io.h"
#include "common/output_file.h"
#include "common/result.h"
#include "tools/tools.h"

namespace sensorlay {

namespace {

bool isAllZeros(const Eigen::Vector3d& v) { return v.x() == 0.0 && v.y() == 0.0 && v.z() == 0.0; }

}  // namespace

int writeImuTemplate() {
  std::fputs(
      "// INSTRUCTIONS\n"
      "//\n"
      "// Refer to IMU datasheet for orientation of IMU axes relative to package.\n"
      "// Set imu_from_trackref to the CAD location of the centroid of the IMU package.\n"
      "// Set imu_plusz_in_trackref to a vector (in CAD coordinates) pointing in the +Z axis of the IMU (usually "
      "perpendicular to the PCB).\n"
      "// Set imu_plusx_in_trackref to a vector (in CAD coordinates) pointing in the +X axis of the IMU.\n"
      "// Feed this file back into sensorlay /trackref_from_imu to get the final transform for your calibration "
      "JSON.\n"
      "\n",
      stdout);
  JsonOut root = JsonOut::object();
  for (const char* key : {"imu_from_trackref", "imu_plusz_in_trackref", "imu_plusx_in_trackref"}) {
    JsonOut zeros = JsonOut::array();
    for (int i = 0; i < 3; ++i) zeros.append(0.0);
    root[key] = zeros;
  }
  std::fputs(writeStyledJson(root).c_str(), stdout);
  std::fputs("\n", stdout);
  const Status written = flushStandardOutput("the sample file");
  if (!written) {
    std::fprintf(stderr, "%s\n", written.message().c_str());
    return 1;
  }
  return 0;
}

namespace {

// The tool's complaints about its input: one line on the standard error
// stream, and the status of a failed run.
int fail(const std::string& verb, const std::string& path, const std::string& why) {
  std::fprintf(stderr, "couldn't %s %s: %s\n", verb.c_str(), printablePath(path).c_str(), why.c_str());
  return 1;
}

// One of the three vectors of the input: a missing key, a null, null
// elements and short arrays read as zeros, truth values as 1 and 0; anything
// else that is not an array of finite numbers is refused with a word on what
// is wrong.
Result<Eigen::Vector3d> readInputVector(const Json::Value& root, const char* key) {
  Eigen::Vector3d v = Eigen::Vector3d::Zero();
  if (!root.isMember(key)) return v;
  const Json::Value& value = root[key];
  if (value.isNull()) return v;
  const Status notNumbers = Status::failure(std::string(key) + " is not an array of three numbers");
  if (!value.isArray()) return notNumbers;
  for (Json::ArrayIndex i = 0; i < 3 && i < value.size(); ++i) {
    const Json::Value& element = value[i];
    if (element.isNull()) continue;
    if (!element.isNumeric() && !element.isBool()) return notNumbers;
    const double x = element.asDouble();
    if (!std::isfinite(x)) return Status::failure(std::string(key) + " holds a number out of range");
    v[static_cast<int>(i)] = x;
  }
  return v;
}

}  // namespace

int runImuTransform(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return fail("read", path, std::strerror(errno));
  // Only a regular file comes to an end: a device such as /dev/zero or a
  // pipe would be read for ever, as the other readers know too.
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode)) {
    std::fclose(file);
    return fail("read", path, "not a regular file");
  }
  std::string text;
  char buffer[65536];
  size_t n;
  try {
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
  } catch (const std::bad_alloc&) {
    std::fclose(file);
    return fail("read", path, "the file is too large to be read");
  }
  if (std::ferror(file)) {
    const int error = errno;
    std::fclose(file);
    return fail("read", path, std::strerror(error));
  }
  std::fclose(file);

  Json::Value root;
  std::string errors;
  if (!parseJsonText(text, root, errors)) return fail("parse", path, errors);
  if (!root.isObject() && !root.isNull()) return fail("parse", path, "the file does not hold a JSON object");

  Eigen::Vector3d vectors[3];
  const char* keys[3] = {"imu_from_trackref", "imu_plusz_in_trackref", "imu_plusx_in_trackref"};
  for (int k = 0; k < 3; ++k) {
    const Result<Eigen::Vector3d> read = readInputVector(root, keys[k]);
    if (!read) return fail("parse", path, read.message());
    vectors[k] = *read;
  }
  const Eigen::Vector3d& position = vectors[0];
  Eigen::Vector3d& plusZ = vectors[1];
  Eigen::Vector3d& plusX = vectors[2];

  if (plusZ.norm() != 0.0) plusZ /= plusZ.norm();
  if (plusX.norm() != 0.0) plusX /= plusX.norm();

  if (isAllZeros(plusZ)) {
    std::fputs("imu_plusz_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +Z direction.\n",
               stderr);
    return 1;
  }
  if (isAllZeros(plusX)) {
    std::fputs("imu_plusx_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +X direction.\n",
               stderr);
    return 1;
  }
  if (isAllZeros(position))
    std::fputs("WARNING: imu_from_trackref is 0,0,0!  This is only correct if your IMU is at your CAD origin.\n",
               stderr);
  if (std::fabs(plusZ.dot(plusX)) > 0.001)
    std::fputs("WARNING: imu_plusz_in_trackref isn't perpendicular to imu_plusx_in_trackref!\n", stderr);

  // Axes that transformFromAxes refuses leave the identity rotation at the
  // given position; the checks below then tell the user how far off it is.
  RigidTransformD result;
  result.translation = position;
  transformFromAxes(&result, position, plusX, plusZ);

  if (!(rotateByQuaternion(result.rotation, Eigen::Vector3d(0, 0, 1)).dot(plusZ) >= 0.999))
    std::fputs("WARNING: computed transform does not get matching +Z\n", stderr);
  if (!(rotateByQuaternion(result.rotation, Eigen::Vector3d(1, 0, 0)).dot(plusX) >= 0.999))
    std::fputs("WARNING: computed transform does not get matching +X\n", stderr);

  JsonOut pose = JsonOut::array();
  for (int i = 0; i < 4; ++i) pose.append(result.rotation[i]);
  for (int i = 0; i < 3; ++i) pose.append(result.translation[i]);
  JsonOut out = JsonOut::object();
  out["trackref_from_imu"] = pose;
  std::fputs(writeStyledJson(out).c_str(), stdout);
  std::fputs("\n", stdout);
  const Status written = flushStandardOutput("the transform");
  if (!written) {
    std::fprintf(stderr, "%s\n", written.message().c_str());
    return 1;
  }
  return 0;
}

}  // namespace sensorlay
