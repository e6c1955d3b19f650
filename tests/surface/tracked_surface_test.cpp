#include "surface/tracked_surface.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

// The first output of a generator in its default state (seed 5489).
constexpr uint32_t kDefaultFirstOutput = 3499211612u;

TEST(TrackedSurface, ScaleFollowsTheBoundingBoxDiagonal) {
  TempDir dir;
  // Legs 3 and 4 give a diagonal of exactly 5.
  const std::vector<std::pair<Mesh, double>> cases = {{cubeMesh(1.0f), 1.0},
                                                      {cubeMesh(3.0f), 0.001},
                                                      {{makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 4, 0})}, 0.001},
                                                      {{makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 3.9999f, 0})}, 1.0},
                                                      {{makeTriangle({0, 0, 0}, {3, 0, 0}, {0, 4.0001f, 0})}, 0.001}};
  for (const auto& [mesh, scale] : cases) {
    writeStlBinary(dir.file("m.stl"), mesh);
    TrackedSurface s(dir.file("m.stl"), {});
    ASSERT_EQ(s.faceCount(), mesh.size());
    EXPECT_EQ(s.getScale(), scale);
    EXPECT_EQ(s.vertices(1, 0), mesh[0].b.x() * static_cast<float>(scale));
  }
}

TEST(TrackedSurface, NormalsAreUnitAndTheAreaTableRunsInTriangleOrder) {
  TempDir dir;
  Mesh m = scaled(twoTrianglesMesh(), 0.5f);  // areas 0.25 and 0.75, in metres
  m[0].normal = Eigen::Vector3f(0, 0, 4);
  // A degenerate triangle in the middle, and one with a zero file normal.
  m.insert(m.begin() + 1, Triangle{{1, 1, 0}, {1, 1, 0}, {1.5f, 1.5f, 0}, {0, 0, 1}});
  m.push_back(Triangle{{0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {0, 0, 0}});
  writeStlAscii(dir.file("m.stl"), m);
  TrackedSurface s(dir.file("m.stl"), {});
  ASSERT_EQ(s.faceCount(), 4u);
  EXPECT_EQ(s.getScale(), 1.0);
  EXPECT_EQ(s.faceNormals.row(0), Eigen::RowVector3f(0, 0, 1));
  EXPECT_TRUE(std::isnan(s.faceNormals(3, 2)));
  ASSERT_EQ(s.cumulativeAreas.size(), 4u);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[0], 0.25);
  EXPECT_EQ(s.cumulativeAreas[1], s.cumulativeAreas[0]);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[2], 1.0);
  EXPECT_DOUBLE_EQ(s.cumulativeAreas[3], 1.5);
  EXPECT_EQ(s.areaHigh, s.cumulativeAreas.back());
  EXPECT_EQ(s.totalArea, s.cumulativeAreas.back());
}

TEST(TrackedSurface, FailedBuildsLeaveNoFacesAndTheGeneratorUnseeded) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), plateMesh(1.0f));
  writeStlBinary(dir.file("o.stl"), plateMesh(1.0f, 0.5f));
  writeStlBinary(dir.file("empty.stl"), {});
  writeFile(dir.file("bad.stl"), "solid\nfacet\n");
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"missing.stl", {}},
      {"empty.stl", {}},
      {"bad.stl", {}},
      {"s.stl", {"o.stl", "missing.stl"}},
      {"s.stl", {"bad.stl", "o.stl"}},
  };
  for (const auto& [surface, obstacles] : cases) {
    std::vector<std::string> paths;
    for (const auto& o : obstacles) paths.push_back(dir.file(o));
    TrackedSurface s(dir.file(surface), paths);
    EXPECT_EQ(s.faceCount(), 0u) << surface;
    EXPECT_EQ(s.generator(), kDefaultFirstOutput);
    EXPECT_EQ(s.loadProblem.substr(0, 9), surface == "empty.stl" ? "" : "IOError: ") << s.loadProblem;
  }
  // An empty obstacle file is no failure: it simply adds nothing.
  TrackedSurface s(dir.file("s.stl"), {dir.file("empty.stl")});
  EXPECT_EQ(s.faceCount(), 2u);
}

TEST(TrackedSurface, BuildSettingsNameTheUnitsAndMendZeroNormals) {
  TempDir dir;
  // A 4-unit plate (diagonal 5.7, millimetres by the size rule) whose first
  // triangle has a zero normal and is wound to face -z, and a 0.5-unit
  // obstacle plate 1 unit above it.
  Mesh plate = plateMesh(4.0f);
  plate[0].normal = Eigen::Vector3f::Zero();
  std::swap(plate[0].b, plate[0].c);
  writeStlBinary(dir.file("s.stl"), plate);
  writeStlBinary(dir.file("o.stl"), plateMesh(0.5f, 1.0f));

  SurfaceBuild inches;
  inches.scale = 0.0254;
  inches.obstacleScale = 1.0;
  inches.zeroNormalsFromWinding = true;
  TrackedSurface s(dir.file("s.stl"), {dir.file("o.stl")}, inches);
  ASSERT_EQ(s.faceCount(), 2u);
  EXPECT_EQ(s.getScale(), 0.0254);
  EXPECT_FLOAT_EQ(s.vertices.col(0).maxCoeff(), 2.0f * 0.0254f);
  EXPECT_EQ(s.normalsFromWinding, 1);
  EXPECT_EQ(s.faceNormals.row(0), Eigen::RowVector3f(0, 0, -1));
  EXPECT_EQ(s.faceNormals.row(1), Eigen::RowVector3f(0, 0, 1));
  // The obstacle, in metres, stands 1 m over the 10 cm plate's centre.
  EXPECT_TRUE(s.castRay({0, 0, 0.5f}, {0, 0, 1}, 0.0f, 1.0f));

  // The defaults: the size rule for both, and the zero normal as it was.
  TrackedSurface plain(dir.file("s.stl"), {dir.file("o.stl")});
  EXPECT_EQ(plain.getScale(), 0.001);
  EXPECT_EQ(plain.normalsFromWinding, 0);
  EXPECT_TRUE(std::isnan(plain.faceNormals(0, 2)));
  EXPECT_FALSE(plain.castRay({0, 0, 0.5f}, {0, 0, 1}, 0.0f, 1.0f));
}

}  // namespace
}  // namespace sensorlay
