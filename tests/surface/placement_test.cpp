#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <iostream>

#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;
using V3 = Eigen::Vector3f;

TEST(RandomFace, PicksTrianglesInProportionToTheirArea) {
  TempDir dir;
  Mesh m = twoTrianglesMesh();
  m.insert(m.begin() + 1, Triangle{{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {0, 0, 1}});  // zero area: never picked
  auto s = buildSurface(dir, m, {}, 12345);
  const int n = 200000;
  int counts[3] = {0, 0, 0};
  for (int i = 0; i < n; ++i) ++counts[s->randomFace()];
  EXPECT_EQ(counts[1], 0);
  // The share's standard deviation is about 0.001; 0.006 is six of them.
  EXPECT_NEAR(counts[2] / double(n), 0.75, 0.006);
}

TEST(RandomPlacement, UniformlyOnTheTriangle) {
  TempDir dir;
  // A single sheet: no face lies under the chords, so every trial fits.
  auto s = buildSurface(dir, {makeTriangle({0, 0, 0}, {0.2f, 0, 0}, {0, 0.1f, 0})}, {}, 99);
  Eigen::Vector3d sum = Eigen::Vector3d::Zero();
  const int n = 20000;
  for (int i = 0; i < n; ++i) {
    V3 point, normal;
    ASSERT_TRUE(s->randomPlacement(point, normal));
    ASSERT_EQ(normal, V3(0, 0, 1));  // no tilt allowed: the face normal itself
    ASSERT_TRUE(point.x() >= 0 && point.y() >= 0 && point.x() / 0.2f + point.y() / 0.1f <= 1.000001f);
    sum += point.cast<double>();
  }
  EXPECT_NEAR(sum.x() / n, 0.2 / 3, 0.002);  // the centroid
  EXPECT_NEAR(sum.y() / n, 0.1 / 3, 0.001);
}

TEST(RandomNormalOnFace, TiltsUniformlyOverTheCap) {
  TempDir dir;
  auto s = buildSurface(dir, cubeMesh(0.1f), {}, 5);
  s->setMaxSurfaceAngle(30.0);
  const float c = s->cosMaxSurfaceAngle;
  for (int32_t face : {0, 3, 7, 11}) {  // faces with either helper axis
    const V3 n = s->faceNormals.row(face).transpose();
    double sumZ = 0;
    Eigen::Vector3d sumTangent = Eigen::Vector3d::Zero();
    const int count = 20000;
    for (int i = 0; i < count; ++i) {
      std::mt19937 expected = s->generator;
      expected.discard(2);
      const V3 r = s->randomNormalOnFace(face);
      ASSERT_TRUE(s->generator == expected);
      ASSERT_NEAR(r.norm(), 1.0f, 1e-6f);
      const float z = r.dot(n);
      ASSERT_GE(z, c - 1e-6f);
      sumZ += z;
      sumTangent += (r - n * z).cast<double>();
    }
    EXPECT_NEAR(sumZ / count, (1.0 + c) / 2, 0.002);  // z is uniform on [c, 1]
    EXPECT_LT(sumTangent.norm() / count, 0.01);
  }
}

TEST(RandomPlacementDeathTest, ASurfaceWithoutRoomWarnsAndKeepsSearching) {
  // The child runs the test anew, away from the ray library's threads.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  auto s = buildSurface(dir, sphereMesh(0.004f, 16, 32));
  s->notices = &std::cerr;
  auto searchForever = [&] {
    alarm(3);  // the search never ends; the alarm stops the child after the warning
    V3 point;
    V3 normal;
    s->randomPlacement(point, normal);
  };
  EXPECT_EXIT(searchForever(), ::testing::KilledBySignal(SIGALRM),
              "WARNING: no room found for a sensor of size 0.006 on \".*s.stl\" in 100000 attempts; still searching");
}

}  // namespace
}  // namespace sensorlay
