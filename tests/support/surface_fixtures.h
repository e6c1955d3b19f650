#pragma once
// Tracked surfaces built from generated meshes, for the surface tests.
// Header-only, so that the support library needs none of the product's.

#include <gtest/gtest.h>

#include <memory>

#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay::testing {

// Writes the surface (binary) and any obstacle (ASCII) into `dir` and builds
// the surface from them, with a fixed seed.
inline std::unique_ptr<TrackedSurface> buildSurface(const TempDir& dir, const Mesh& mesh, const Mesh& obstacle = {},
                                                    uint32_t seed = 1) {
  writeStlBinary(dir.file("s.stl"), mesh);
  std::vector<std::string> obstacles;
  if (!obstacle.empty()) {
    writeStlAscii(dir.file("o.stl"), obstacle);
    obstacles.push_back(dir.file("o.stl"));
  }
  auto s = std::make_unique<TrackedSurface>(dir.file("s.stl"), obstacles);
  EXPECT_GT(s->faceCount(), 0u);
  s->seedGenerator(seed);
  return s;
}

}  // namespace sensorlay::testing
