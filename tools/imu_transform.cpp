#include "tools/imu_transform.h"

#include <json/json.h>
#include <Eigen/Geometry>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "model/json_io.h"
#include "tools/tools.h"

namespace sensorlay {

namespace {

// Scales v to unit length; false (and v untouched) when the length is zero or
// the scaled vector comes out all zeros.
bool normaliseInPlace(Eigen::Vector3d& v) {
  const double length = std::sqrt(v.x() * v.x() + v.y() * v.y() + v.z() * v.z());
  if (length == 0.0) return false;
  const Eigen::Vector3d unit = v / length;
  if (unit.x() == 0.0 && unit.y() == 0.0 && unit.z() == 0.0) return false;
  v = unit;
  return true;
}

bool isAllZeros(const Eigen::Vector3d& v) { return v.x() == 0.0 && v.y() == 0.0 && v.z() == 0.0; }

}  // namespace

QuaternionXyzw multiplyQuaternions(const QuaternionXyzw& a, const QuaternionXyzw& b) {
  const Eigen::Vector3d av = a.head<3>();
  const Eigen::Vector3d bv = b.head<3>();
  const double aw = a.w();
  const double bw = b.w();
  const Eigen::Vector3d v = aw * bv + bw * av + av.cross(bv);
  const double w = aw * bw - av.dot(bv);
  return QuaternionXyzw(v.x(), v.y(), v.z(), w);
}

QuaternionXyzw rotationBetween(const Eigen::Vector3d& fromIn, const Eigen::Vector3d& toIn) {
  const Eigen::Vector3d from = fromIn / fromIn.norm();
  const Eigen::Vector3d to = toIn / toIn.norm();
  const double d = from.dot(to);
  if (d >= 1.0) return QuaternionXyzw(0, 0, 0, 1);

  if (d < -0.9999998807907104) {
    // Opposite vectors: any axis perpendicular to `from` will do; X is tried
    // first and Y when `from` lies (nearly) along X.
    Eigen::Vector3d axis(0.0, -from.z(), from.y());
    if (axis.squaredNorm() < 1.1920928955078125e-07) axis = Eigen::Vector3d(from.z(), 0.0, -from.x());
    axis /= axis.norm();
    axis /= axis.norm();
    // cos(pi / 2) as a 64-bit float, not a rounded zero.
    return QuaternionXyzw(axis.x(), axis.y(), axis.z(), 6.123233995736766e-17);
  }

  const Eigen::Vector3d c = from.cross(to);
  QuaternionXyzw q(c.x(), c.y(), c.z(), 1.0 + d);
  return q / q.norm();
}

Eigen::Vector3d rotateByQuaternion(const QuaternionXyzw& q, const Eigen::Vector3d& v) {
  const Eigen::Vector3d qv = q.head<3>();
  const Eigen::Vector3d t = qv.cross(v);
  return v + 2.0 * q.w() * t + 2.0 * qv.cross(t);
}

Eigen::Vector3d rotatedPlusX(const QuaternionXyzw& q) {
  const double x = q.x(), y = q.y(), z = q.z(), w = q.w();
  return Eigen::Vector3d(1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + z * w), 2.0 * (x * z - y * w));
}

Eigen::Vector3d rotatedPlusZ(const QuaternionXyzw& q) {
  const double x = q.x(), y = q.y(), z = q.z(), w = q.w();
  return Eigen::Vector3d(2.0 * (x * z + y * w), 2.0 * (y * z - x * w), 1.0 - 2.0 * (x * x + y * y));
}

bool transformFromAxes(RigidTransformD* result, const Eigen::Vector3d& position, const Eigen::Vector3d& plusXIn,
                       const Eigen::Vector3d& plusZIn) {
  Eigen::Vector3d plusX = plusXIn;
  Eigen::Vector3d plusZ = plusZIn;
  if (!normaliseInPlace(plusX) || !normaliseInPlace(plusZ)) return false;
  if (std::fabs(plusX.dot(plusZ)) > 0.001) return false;

  // Turn the given frame back onto the reference axes, Z first and then X
  // about Z; the inverse of that turn is the frame's rotation.
  const QuaternionXyzw q1 = rotationBetween(plusZ, Eigen::Vector3d(0, 0, 1));
  const Eigen::Vector3d v = rotateByQuaternion(q1, plusX);
  const double planarLength = std::sqrt(v.x() * v.x() + v.y() * v.y());
  if (planarLength == 0.0) return false;
  const Eigen::Vector3d planar(v.x() / planarLength, v.y() / planarLength, 0.0);
  const QuaternionXyzw q2 = rotationBetween(planar, Eigen::Vector3d(1, 0, 0));

  QuaternionXyzw q = multiplyQuaternions(q2, q1);
  q.head<3>() = -q.head<3>();
  // Rounding leaves terms like 6e-17 where the exact answer is 0; files and
  // comparisons read better with a clean zero.
  for (int i = 0; i < 4; ++i)
    if (std::fabs(q[i]) < 1e-10) q[i] = 0.0;

  if (result != nullptr) {
    result->rotation = q;
    result->translation = position;
  }
  return true;
}

void writeImuTemplate() {
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
  std::fflush(stdout);
}

namespace {

[[noreturn]] void failWith(const char* format, const std::string& a, const std::string& b = std::string()) {
  std::fprintf(stderr, format, a.c_str(), b.c_str());
  std::exit(1);
}

// One of the three vectors of the input: a missing key, a null, null
// elements and short arrays read as zeros, truth values as 1 and 0; anything
// else that is not an array of finite numbers is refused with a word on what
// is wrong.
Eigen::Vector3d readInputVector(const std::string& path, const Json::Value& root, const char* key) {
  Eigen::Vector3d v = Eigen::Vector3d::Zero();
  if (!root.isMember(key)) return v;
  const Json::Value& value = root[key];
  if (value.isNull()) return v;
  if (!value.isArray())
    failWith("couldn't parse %s: %s\n", path, std::string(key) + " is not an array of three numbers");
  for (Json::ArrayIndex i = 0; i < 3 && i < value.size(); ++i) {
    const Json::Value& element = value[i];
    if (element.isNull()) continue;
    if (!element.isNumeric() && !element.isBool())
      failWith("couldn't parse %s: %s\n", path, std::string(key) + " is not an array of three numbers");
    const double x = element.asDouble();
    if (!std::isfinite(x)) failWith("couldn't parse %s: %s\n", path, std::string(key) + " holds a number out of range");
    v[static_cast<int>(i)] = x;
  }
  return v;
}

}  // namespace

void runImuTransform(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) failWith("couldn't read %s: %s\n", path, std::strerror(errno));
  std::string text;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
  if (std::ferror(file)) {
    const int error = errno;
    std::fclose(file);
    failWith("couldn't read %s: %s\n", path, std::strerror(error));
  }
  std::fclose(file);

  Json::Value root;
  std::string errors;
  if (!parseJsonText(text, root, errors)) failWith("couldn't parse %s: %s\n", path, errors);
  if (!root.isObject() && !root.isNull())
    failWith("couldn't parse %s: %s\n", path, "the file does not hold a JSON object");

  const Eigen::Vector3d position = readInputVector(path, root, "imu_from_trackref");
  Eigen::Vector3d plusZ = readInputVector(path, root, "imu_plusz_in_trackref");
  Eigen::Vector3d plusX = readInputVector(path, root, "imu_plusx_in_trackref");

  if (plusZ.norm() != 0.0) plusZ /= plusZ.norm();
  if (plusX.norm() != 0.0) plusX /= plusX.norm();

  if (isAllZeros(plusZ)) {
    std::fputs("imu_plusz_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +Z direction.\n",
               stderr);
    std::exit(1);
  }
  if (isAllZeros(plusX)) {
    std::fputs("imu_plusx_in_trackref can't be 0,0,0.  Set it to a vector pointing in the IMU's +X direction.\n",
               stderr);
    std::exit(1);
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
  std::fflush(stdout);
}

}  // namespace sensorlay
