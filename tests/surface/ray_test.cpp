#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <random>

#include "common/random_draws.h"
#include "surface/ray_scene.h"
#include "surface/visibility.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/samples.h"
#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;
using V3 = Eigen::Vector3f;

// The library aborts on rays whose parts are not finite or beyond its range;
// such a ray counts as blocked, however it points.
// In a packet, each such ray is blocked on its own and the others are cast.
TEST(CastRay, RaysTheLibraryCannotTakeCountAsBlocked) {
  TempDir dir;
  auto s = buildSurface(dir, plateMesh(0.1f, 0.0f, 3));
  const V3 up(0, 0, 1), above(0.01f, 0.02f, 1);
  const float inf = std::numeric_limits<float>::infinity();
  struct Ray {
    V3 origin, direction;
    float near, far;
    bool blocked;
  };
  const Ray rays[] = {{above, up, 0, 2, false},
                      {above, V3(std::nanf(""), 0, -1), 0, 2, true},
                      {above, V3::Zero(), 0, 2, true},
                      {above, V3(0, -inf, 0), 0, 2, true},
                      {V3(2e18f, 0, 1), up, 0, 2, true},
                      {above, V3(0, 0, 2e18f), 0, 2, true},
                      {above, up, -1, 2, true},
                      {above, up, std::nanf(""), 2, true},
                      {above, up, 0, std::nanf(""), true},
                      {above, -up, 0, 2, true},  // through the plate
                      // Far but within the library's range: an ordinary miss.
                      {V3(1e18f, 0, 1), up, 0, inf, false}};
  RayPacket packet;
  int count = 0;
  for (const Ray& r : rays) {
    EXPECT_EQ(s->castRay(r.origin, r.direction, r.near, r.far), r.blocked) << count;
    packet.set(count++, r.origin.data(), r.direction.data(), r.near, r.far);
  }
  packet.blocked[count] = true;
  s->castRays(packet, count);
  for (int i = 0; i < count; ++i) EXPECT_EQ(packet.blocked[i], rays[i].blocked) << i;
  EXPECT_TRUE(packet.blocked[count]);  // past the count: untouched
}

// A packet answers as its rays one at a time do, over the bundled headset and
// its head, where many rays graze edges.
TEST(CastRay, PacketsAgreeWithSingleRays) {
  TrackedSurface s(samplePath("headset.stl"), {samplePath("headset_head.stl")});
  s.seedGenerator(3);
  std::mt19937 draws(4);
  int blocked = 0, rays = 0;
  for (int sensor = 0; sensor < 200; ++sensor) {
    V3 p, n;
    ASSERT_TRUE(s.randomPlacement(p, n));
    const V3 origin = p + 0.001f * n;
    RayPacket packet;
    bool single[RayPacket::kSize];
    for (int lane = 0; lane < RayPacket::kSize; ++lane) {
      V3 direction(drawUnitDouble(draws) - 0.5, drawUnitDouble(draws) - 0.5, drawUnitDouble(draws) - 0.5);
      direction = (direction.normalized() + n).normalized();
      packet.set(lane, origin.data(), direction.data(), kRayNear, std::numeric_limits<float>::infinity());
      single[lane] = s.castRay(origin, direction, kRayNear, std::numeric_limits<float>::infinity());
    }
    const int count = RayPacket::kSize - sensor % 3;
    s.castRays(packet, count);
    for (int lane = 0; lane < count; ++lane, ++rays) {
      ASSERT_EQ(packet.blocked[lane], single[lane]) << sensor << " " << lane;
      blocked += single[lane] ? 1 : 0;
    }
  }
  EXPECT_GT(blocked, rays / 20);
  EXPECT_LT(blocked, rays - rays / 20);
}

TEST(SensorFits, FlatFacesFitAndConvexEdgesDoNot) {
  TempDir dir;
  auto s = buildSurface(dir, cubeMesh(0.1f, 4));  // top face at z = 0.05, edge at x = 0.05
  const V3 up(0, 0, 1);
  EXPECT_TRUE(s->sensorFits({0, 0, 0.05f}, up));
  EXPECT_TRUE(s->sensorFits({0.025f, 0.025f, 0.05f}, up));  // over the triangles' shared edges
  // The x chord reaches 3 mm out: 0.0495 stays inside, 0.0505 leaves.
  EXPECT_TRUE(s->sensorFits({0.0465f, 0, 0.05f}, up));
  EXPECT_FALSE(s->sensorFits({0.0475f, 0, 0.05f}, up));
  // Every face, whichever helper axis it takes.
  for (const V3& n : {V3(1, 0, 0), V3(-1, 0, 0), V3(0, 1, 0), V3(0, -1, 0), V3(0, 0, -1)}) {
    const V3 nearCorner = V3::Constant(0.048f).cwiseProduct(V3::Ones() - n.cwiseAbs());
    EXPECT_TRUE(s->sensorFits(n * 0.05f, n)) << n.transpose();
    EXPECT_FALSE(s->sensorFits(n * 0.05f + nearCorner, n)) << n.transpose();
  }
  s->setSensorSize(0.002);  // a smaller sensor fits closer to the edge
  EXPECT_TRUE(s->sensorFits({0.0475f, 0, 0.05f}, up));
}

TEST(SensorFits, ConcaveCornersObstaclesAndSmallSpheres) {
  TempDir dir;
  // In the corner of a solid the chords run inside the material, where no
  // face lies, so the footprint is not checked against the wall.
  EXPECT_TRUE(buildSurface(dir, concaveCornerMesh(0.1f))->sensorFits({0.002f, 0.05f, 0}, V3(0, 0, 1)));
  // Where the floor runs on behind the wall, the wall's chords cut it.
  auto finned = buildSurface(dir, concat(plateMesh(0.1f), translated(concaveCornerMesh(0.1f), {0, -0.05f, 0})));
  EXPECT_FALSE(finned->sensorFits({0, 0, 0.002f}, V3(1, 0, 0)));
  EXPECT_TRUE(finned->sensorFits({0, 0, 0.005f}, V3(1, 0, 0)));
  // An obstacle that reaches into the surface blocks the footprint.
  auto blocked = buildSurface(dir, plateMesh(0.1f), translated(cubeMesh(0.01f), {0.007f, 0, 0}));
  EXPECT_FALSE(blocked->sensorFits({0, 0, 0}, V3(0, 0, 1)));
  EXPECT_TRUE(blocked->sensorFits({-0.01f, 0, 0}, V3(0, 0, 1)));
  // At 1 mm depth a sphere of 4.5 mm is narrower than a 6 mm sensor.
  for (const auto& [radius, fits] : {std::pair{0.0045f, 0}, std::pair{0.05f, 200}}) {
    auto s = buildSurface(dir, sphereMesh(radius, 48, 96));
    int fitting = 0;
    for (int i = 0; i < 200; ++i) {
      const int32_t face = s->randomFace();
      fitting += s->sensorFits(s->randomPointOnFace(face), s->faceNormals.row(face).transpose());
    }
    EXPECT_EQ(fitting, fits) << radius;
  }
}

TEST(IsOnSurface, AcceptsFromFourMillimetresAboveToOneUnder) {
  TempDir dir;
  auto s = buildSurface(dir, plateMesh(0.1f, 0.0f, 2));
  const V3 up(0, 0, 1);
  for (const auto& [z, on] : {std::pair{0.0f, true},
                              {0.0035f, true},
                              {0.0045f, false},
                              {-0.0005f, true},
                              {-0.002f, false}}) {  // the last sees the plate from below
    EXPECT_EQ(s->isOnSurface({0.01f, 0.01f, z}, up), on) << z;
  }
  EXPECT_FALSE(s->isOnSurface({0.2f, 0, 0}, up));
  // The side of the triangle does not matter, as long as nothing lies behind.
  EXPECT_TRUE(s->isOnSurface({0.01f, 0.01f, 0}, -up));
  auto covered = buildSurface(dir, plateMesh(0.1f), plateMesh(0.1f, -0.005f));
  EXPECT_TRUE(covered->isOnSurface({0.01f, 0.01f, 0}, up));
  EXPECT_FALSE(covered->isOnSurface({0.01f, 0.01f, 0}, -up));
}

SensorModel oneSensor(const V3& normal, double cosMaxIncidence = 0.5, const V3& point = V3::Zero()) {
  Constellation c;
  c.channelMap = {0};
  c.modelPoints = {point};
  c.modelNormals = {normal};
  SensorModel model(c, ModelTransform());
  model.cosMaxIncidence = cosMaxIncidence;
  return model;
}

constexpr StationPose kFront = {{0, 0, -2}, {1, 0, 0, 0}};  // 2 m in front of the station

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
  const StationPose turned = {{0, 0, -2}, {h, h, 0, 0}}, away = {{0, 0, -2}, {h, -h, 0, 0}};
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

TEST(RayQueries, AllocateNothing) {
  if (!allocationCountingAvailable()) GTEST_SKIP() << "the allocator is not ours to count";
  TempDir dir;
  auto s = buildSurface(dir, cubeMesh(0.1f, 8), translated(cubeMesh(0.02f), {0, 0, 0.2f}));
  const SensorModel model = oneSensor({0, 0, 1}, 0.5, {0, 0, 0.05f});

  EXPECT_GT(countAllocations([] { std::vector<int> probe(3); }), 0);  // the counter works

  int hits = 0;
  EXPECT_EQ(countAllocations([&] {
              RayPacket packet;
              for (int i = 0; i < 1000; ++i) {
                const float down[3] = {0, 0, -1}, start[3] = {0.0001f * i - 0.05f, 0, 1.05f};
                packet.set(i % RayPacket::kSize, start, down, 0, 2);
                if (i % RayPacket::kSize == RayPacket::kSize - 1) s->castRays(packet, RayPacket::kSize);
                const V3 p(0.0001f * i - 0.05f, 0, 0.05f);
                hits += s->castRay(p + V3(0, 0, 1), V3(0, 0, -1), 0, 2) + s->sensorFits(p, V3(0, 0, 1)) +
                        s->isOnSurface(p, V3(0, 0, 1)) + isSensorVisible({&model, 0, s.get()}, kFront);
              }
            }),
            0);
  EXPECT_GT(hits, 0);
}

}  // namespace
}  // namespace sensorlay
