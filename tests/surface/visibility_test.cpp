#include <gtest/gtest.h>

#include <cmath>

#include "surface/coverage_evaluator.h"
#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

SensorModel oneSensor(const Eigen::Vector3f& normal, double cosMaxIncidence = 0.5) {
  Constellation c;
  c.channelMap = {0};
  c.modelPoints = {Eigen::Vector3f::Zero()};
  c.modelNormals = {normal};
  SensorModel model(c, ModelTransform());
  model.cosMaxIncidence = cosMaxIncidence;
  return model;
}

constexpr double kFront[7] = {0, 0, -2, 1, 0, 0, 0};  // 2 m in front of the station

TEST(IsSensorVisible, OcclusionByTheSceneAndItsAbsence) {
  TempDir dir;
  const SensorModel model = oneSensor({0, 0, 1});
  // The sensor's own plate lies under the lifted ray's start.
  EXPECT_TRUE(isSensorVisible({&model, 0, buildSurface(dir, plateMesh(0.1f)).get()}, kFront));
  auto covered = buildSurface(dir, plateMesh(0.1f), plateMesh(0.1f, 0.5f));
  EXPECT_FALSE(isSensorVisible({&model, 0, covered.get()}, kFront));
  EXPECT_TRUE(isSensorVisible({&model, 0, nullptr}, kFront));
  // The ray does not stop at the station: a triangle beyond it occludes too.
  auto beyond = buildSurface(dir, plateMesh(0.1f), plateMesh(1.0f, 3.0f));
  EXPECT_FALSE(isSensorVisible({&model, 0, beyond.get()}, kFront));
  // A record that points past the model's sensors is never visible.
  EXPECT_FALSE(isSensorVisible({&model, 1, nullptr}, kFront));
}

TEST(IsSensorVisible, RotatedPoseCastsInObjectCoordinates) {
  TempDir dir;
  // The sensor faces +y; turning the object 90 degrees about x brings +y to +z,
  // towards the station. An obstacle on the +y side then blocks the view.
  const SensorModel model = oneSensor({0, 1, 0});
  const double h = std::sqrt(0.5);
  const double turned[7] = {0, 0, -2, h, h, 0, 0}, away[7] = {0, 0, -2, h, -h, 0, 0};
  auto blocked = buildSurface(dir, plateMesh(0.1f), boxMesh({-0.05f, 0.4f, -0.05f}, {0.05f, 0.45f, 0.05f}));
  auto other = buildSurface(dir, plateMesh(0.1f), boxMesh({-0.05f, -0.45f, -0.05f}, {0.05f, -0.4f, 0.05f}));
  EXPECT_FALSE(isSensorVisible({&model, 0, blocked.get()}, turned));
  EXPECT_TRUE(isSensorVisible({&model, 0, other.get()}, turned));
  EXPECT_FALSE(isSensorVisible({&model, 0, nullptr}, kFront));  // across the line of sight
  EXPECT_FALSE(isSensorVisible({&model, 0, nullptr}, away));
}

TEST(IsSensorVisible, IncidenceLimitIsStrict) {
  for (const auto& [degrees, visible] : {std::pair{59.9, true}, std::pair{60.1, false}}) {
    const double a = degrees * M_PI / 180.0;
    const SensorModel model = oneSensor({float(std::sin(a)), 0, float(std::cos(a))}, std::cos(M_PI / 3));
    EXPECT_EQ(isSensorVisible({&model, 0, nullptr}, kFront), visible) << degrees;
  }
  // A limit of 90 degrees leaves about 6e-17, which a grazing sensor does not exceed.
  const SensorModel grazing = oneSensor({1, 0, 0}, std::cos(90.0 * 0.017453292519943295));
  EXPECT_FALSE(isSensorVisible({&grazing, 0, nullptr}, kFront));
  const SensorModel broken = oneSensor({std::nanf(""), 0, 1}, -2.0);
  EXPECT_FALSE(isSensorVisible({&broken, 0, nullptr}, kFront));
}

}  // namespace
}  // namespace sensorlay
