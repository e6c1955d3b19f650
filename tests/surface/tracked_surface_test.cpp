#include "surface/tracked_surface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

// The first output of a generator in its default state (seed 5489).
constexpr uint32_t kDefaultFirstOutput = 3499211612u;

TEST(TrackedSurface, ScaleFollowsTheBoundingBoxDiagonal) {
  TempDir dir;
  struct Case {
    Mesh mesh;
    double scale;
  };
  // A right triangle with legs 3 and 4 has a diagonal of exactly 5.
  const Mesh exact = {makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 4, 0})};
  const Mesh below = {makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 3.9999f, 0})};
  const Mesh above = {makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 4.0001f, 0})};
  const std::vector<Case> cases = {
      {cubeMesh(1.0f), 1.0}, {cubeMesh(3.0f), 0.001}, {exact, 0.001}, {below, 1.0}, {above, 0.001}};
  for (const Case& c : cases) {
    writeStlBinary(dir.file("m.stl"), c.mesh);
    TrackedSurface s(dir.file("m.stl"), {});
    ASSERT_EQ(s.faceCount(), c.mesh.size());
    EXPECT_EQ(s.getScale(), c.scale);
    // Vertices are scaled by the factor rounded to a float.
    EXPECT_EQ(s.vertices(1, 0), c.mesh[0].b.x() * static_cast<float>(c.scale));
  }
}

TEST(TrackedSurface, NormalsAreUnitAndTheAreaTableRunsInTriangleOrder) {
  TempDir dir;
  // Halved, so that the diagonal stays below 5 and the file is in metres.
  Mesh m = scaled(twoTrianglesMesh(), 0.5f);
  m[0].normal = Eigen::Vector3f(0, 0, 4);
  // A degenerate triangle in the middle, and one with a zero file normal.
  m.insert(m.begin() + 1, Triangle{{1, 1, 0}, {1, 1, 0}, {1.5f, 1.5f, 0}, {0, 0, 1}});
  m.push_back(Triangle{{0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {0, 0, 0}});
  writeStlAscii(dir.file("m.stl"), m);
  TrackedSurface s(dir.file("m.stl"), {});
  ASSERT_EQ(s.faceCount(), 4u);
  EXPECT_EQ(s.faceNormals.row(0), Eigen::RowVector3f(0, 0, 1));
  EXPECT_TRUE(std::isnan(s.faceNormals(3, 2)));
  ASSERT_EQ(s.cumulativeAreas.size(), 4u);
  EXPECT_EQ(s.getScale(), 1.0);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[0], 0.25);
  EXPECT_EQ(s.cumulativeAreas[1], s.cumulativeAreas[0]);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[2], 1.0);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[3], 1.5);
  EXPECT_EQ(s.totalArea, s.cumulativeAreas.back());
  EXPECT_EQ(s.areaLow, 0.0);
  EXPECT_EQ(s.areaHigh, s.totalArea);
}

TEST(TrackedSurface, ObstaclesJoinTheSceneButNotTheMesh) {
  TempDir dir;
  // A 10 mm plate in millimetres; obstacles in the same unit above it.
  writeStlBinary(dir.file("s.stl"), plateMesh(10.0f, 0.0f));
  writeStlBinary(dir.file("o1.stl"), translated(plateMesh(2.0f), {3, 0, 5}));
  writeStlAscii(dir.file("o2.stl"), translated(plateMesh(2.0f), {-3, 0, 5}));
  TrackedSurface s(dir.file("s.stl"), {dir.file("o1.stl"), dir.file("o2.stl")});
  ASSERT_EQ(s.faceCount(), 2u);
  EXPECT_EQ(s.getScale(), 0.001);
  EXPECT_EQ(s.vertices.rows(), 6);
  const Eigen::Vector3f up(0, 0, 1);
  // Over each obstacle, scaled with the surface's factor, a ray is blocked.
  EXPECT_TRUE(s.castRay({0.003f, 0, 0.001f}, up, 0, 1));
  EXPECT_TRUE(s.castRay({-0.003f, 0, 0.001f}, up, 0, 1));
  EXPECT_FALSE(s.castRay({0, 0, 0.001f}, up, 0, 1));
  EXPECT_FALSE(s.castRay({0.003f, 0, 0.006f}, up, 0, 1));
  EXPECT_NE(s.generator(), kDefaultFirstOutput);
}

TEST(TrackedSurface, FailedBuildsLeaveNoFacesAndTheGeneratorUnseeded) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), plateMesh(1.0f));
  writeStlBinary(dir.file("o.stl"), plateMesh(1.0f, 0.5f));
  writeStlBinary(dir.file("empty.stl"), {});
  writeFile(dir.file("bad.stl"), "solid\nfacet\n");
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {dir.file("missing.stl"), {}},
      {dir.file("empty.stl"), {}},
      {dir.file("bad.stl"), {}},
      {dir.file("s.stl"), {dir.file("o.stl"), dir.file("missing.stl")}},
      {dir.file("s.stl"), {dir.file("bad.stl"), dir.file("o.stl")}},
  };
  for (const auto& c : cases) {
    ::testing::internal::CaptureStderr();
    TrackedSurface s(c.first, c.second);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(s.faceCount(), 0u) << c.first;
    EXPECT_EQ(s.generator(), kDefaultFirstOutput);
    if (c.first != dir.file("empty.stl")) {
      EXPECT_EQ(err.rfind("IOError: ", 0), 0u) << err;
    }
  }
  // An empty obstacle file is no failure: it simply adds nothing.
  TrackedSurface s(dir.file("s.stl"), {dir.file("empty.stl")});
  EXPECT_EQ(s.faceCount(), 2u);
}

TEST(TrackedSurface, LargeMeshBuildsQuickly) {
  TempDir dir;
  const Mesh sphere = sphereMesh(50.0f, 224, 224);  // about 100,000 triangles, millimetres
  ASSERT_GT(sphere.size(), 99000u);
  writeStlBinary(dir.file("big.stl"), sphere);
  const auto start = std::chrono::steady_clock::now();
  TrackedSurface s(dir.file("big.stl"), {});
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(s.faceCount(), sphere.size());
  EXPECT_NEAR(s.totalArea, 4 * M_PI * 0.05 * 0.05, 1e-4);
  // Generous against a loaded machine; the benchmark gives the real figure.
  EXPECT_LT(seconds, 3.0);
}

}  // namespace
}  // namespace sensorlay
