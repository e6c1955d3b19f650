#include <gtest/gtest.h>

#include <cmath>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

SensorModel oneSensor(const Eigen::Vector3f& point, const Eigen::Vector3f& normal, double cosMaxIncidence) {
  Constellation c;
  c.valid = true;
  c.channelMap = {0};
  c.modelPoints = {point};
  c.modelNormals = {normal};
  SensorModel model(c, ModelTransform());
  model.cosMaxIncidence = cosMaxIncidence;
  return model;
}

std::unique_ptr<TrackedSurface> plateWith(const TempDir& dir, const Mesh& obstacle) {
  writeStlBinary(dir.file("s.stl"), plateMesh(0.1f));
  std::vector<std::string> obstacles;
  if (!obstacle.empty()) {
    writeStlBinary(dir.file("o.stl"), obstacle);
    obstacles.push_back(dir.file("o.stl"));
  }
  return std::make_unique<TrackedSurface>(dir.file("s.stl"), obstacles);
}

constexpr double kFront[7] = {0, 0, -2, 1, 0, 0, 0};  // 2 m in front of the station

TEST(IsSensorVisible, OcclusionByTheSceneAndItsAbsence) {
  TempDir dir;
  const SensorModel model = oneSensor({0, 0, 0}, {0, 0, 1}, 0.5);
  auto bare = plateWith(dir, {});
  // The sensor's own plate lies under the lifted ray's start.
  EXPECT_TRUE(isSensorVisible({&model, 0, bare.get()}, kFront));
  auto covered = plateWith(dir, plateMesh(0.1f, 0.5f));
  EXPECT_FALSE(isSensorVisible({&model, 0, covered.get()}, kFront));
  EXPECT_TRUE(isSensorVisible({&model, 0, nullptr}, kFront));
  // The ray does not stop at the station: a triangle beyond it occludes too.
  auto beyond = plateWith(dir, plateMesh(1.0f, 3.0f));
  EXPECT_FALSE(isSensorVisible({&model, 0, beyond.get()}, kFront));
  // Off to the side, the ray misses the obstacle.
  auto aside = plateWith(dir, translated(plateMesh(0.1f, 0.5f), {0.3f, 0, 0}));
  EXPECT_TRUE(isSensorVisible({&model, 0, aside.get()}, kFront));
  // A record that points past the model's sensors is never visible.
  EXPECT_FALSE(isSensorVisible({&model, 1, nullptr}, kFront));
}

TEST(IsSensorVisible, RotatedPoseCastsInObjectCoordinates) {
  TempDir dir;
  // The sensor faces +y; turning the object 90 degrees about x brings +y to +z,
  // towards the station. An obstacle on the +y side then blocks the view.
  const SensorModel model = oneSensor({0, 0, 0}, {0, 1, 0}, 0.5);
  const double h = std::sqrt(0.5);
  const double turned[7] = {0, 0, -2, h, h, 0, 0};
  auto blocked = plateWith(dir, boxMesh({-0.05f, 0.4f, -0.05f}, {0.05f, 0.45f, 0.05f}));
  auto other = plateWith(dir, boxMesh({-0.05f, -0.45f, -0.05f}, {0.05f, -0.4f, 0.05f}));
  EXPECT_FALSE(isSensorVisible({&model, 0, blocked.get()}, turned));
  EXPECT_TRUE(isSensorVisible({&model, 0, other.get()}, turned));
  // Unturned, the sensor looks across the line of sight and is refused before any ray.
  EXPECT_FALSE(isSensorVisible({&model, 0, nullptr}, kFront));
  // Turned the other way it faces away.
  const double away[7] = {0, 0, -2, h, -h, 0, 0};
  EXPECT_FALSE(isSensorVisible({&model, 0, nullptr}, away));
}

TEST(IsSensorVisible, IncidenceLimitIsStrict) {
  const double limit = std::cos(60.0 * M_PI / 180.0);
  for (const auto& [degrees, visible] : {std::pair{59.9, true}, std::pair{60.1, false}}) {
    const double a = degrees * M_PI / 180.0;
    const SensorModel model = oneSensor({0, 0, 0}, {float(std::sin(a)), 0, float(std::cos(a))}, limit);
    EXPECT_EQ(isSensorVisible({&model, 0, nullptr}, kFront), visible) << degrees;
  }
  // A limit of 90 degrees leaves about 6e-17, which a grazing sensor does not exceed.
  const SensorModel grazing = oneSensor({0, 0, 0}, {1, 0, 0}, std::cos(90.0 * 0.017453292519943295));
  EXPECT_FALSE(isSensorVisible({&grazing, 0, nullptr}, kFront));
  const SensorModel broken = oneSensor({0, 0, 0}, {std::nanf(""), 0, 1}, -2.0);
  EXPECT_FALSE(isSensorVisible({&broken, 0, nullptr}, kFront));
}

}  // namespace
}  // namespace sensorlay
