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

TEST(RandomPlacement, DrawsFourOutputsATrialUniformlyOnTheTriangle) {
  TempDir dir;
  // A single sheet: no face lies under the chords, so every trial fits.
  auto s = buildSurface(dir, {makeTriangle({0, 0, 0}, {0.2f, 0, 0}, {0, 0.1f, 0})}, {}, 99);
  Eigen::Vector3d sum = Eigen::Vector3d::Zero();
  const int n = 20000;
  for (int i = 0; i < n; ++i) {
    std::mt19937 expected = s->generator;
    expected.discard(4);  // two for the area axis, one each for u and v
    V3 point, normal;
    ASSERT_TRUE(s->randomPlacement(point, normal));
    ASSERT_TRUE(s->generator == expected);
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

TEST(RandomPlacementFacing, KeepsCloseToTheGivenNormal) {
  TempDir dir;
  auto s = buildSurface(dir, cubeMesh(0.1f, 2), {}, 2024);
  const V3 up(0, 0, 1);
  int aboveThreshold = 0, bestIsTop = 0;
  for (int i = 0; i < 200; ++i) {
    // Beyond 0.5 lies only the top face; failing that the best of 20 counted
    // draws wins, and side faces can fill the count as they tie with the
    // best. The bottom would need 20 bottom draws in a row.
    V3 point, normal = up;
    ASSERT_TRUE(s->randomPlacementFacing(point, normal, 0.5f));
    ASSERT_GE(normal.dot(up), 0.0f);
    aboveThreshold += normal == up && point.z() == 0.05f;
    normal = up;  // a threshold that can't be exceeded
    ASSERT_TRUE(s->randomPlacementFacing(point, normal, 2.0f));
    ASSERT_GE(normal.dot(up), 0.0f);
    bestIsTop += normal == up;
    // Below -1 the first fitting draw wins, with the draws of a plain placement.
    const std::mt19937 before = s->generator;
    V3 facingPoint, facingNormal = -up, plainPoint, plainNormal;
    ASSERT_TRUE(s->randomPlacementFacing(facingPoint, facingNormal, -1.5f));
    const std::mt19937 after = s->generator;
    s->generator = before;
    ASSERT_TRUE(s->randomPlacement(plainPoint, plainNormal));
    ASSERT_TRUE(s->generator == after);
    ASSERT_EQ(facingPoint, plainPoint);
    ASSERT_EQ(facingNormal, plainNormal);
  }
  EXPECT_GT(aboveThreshold, 180);
  EXPECT_GT(bestIsTop, 170);
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
