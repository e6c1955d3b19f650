#pragma once
// The scenes the benchmarks share: the bundled sample devices, and a sphere
// of about 20,000 triangles with 20 sensors spread evenly over it.

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/samples.h"

namespace sensorlay::bench {

using testing::samplePath;

struct BenchScene {
  std::unique_ptr<TrackedSurface> surface;
  std::unique_ptr<SensorModel> model;
};

// A sphere of radius 8 cm, 100 stacks by 100 slices, with 20 sensors facing out.
inline BenchScene& sphereScene() {
  static BenchScene scene = [] {
    BenchScene s;
    const std::string path = "/tmp/sensorlay_bench_sphere_" + std::to_string(getpid()) + ".stl";
    testing::writeStlBinary(path, testing::sphereMesh(0.08f, 100, 100));
    s.surface = std::make_unique<TrackedSurface>(path, std::vector<std::string>{});
    std::remove(path.c_str());
    s.model = testing::makeSphereSensors(20, 0.08f);
    return s;
  }();
  return scene;
}

// The headset shell with the head as obstacle, and 20 sensors drawn on the
// shell (with a fixed seed) where they fit.
inline BenchScene& headsetScene() {
  static BenchScene scene = [] {
    BenchScene s;
    s.surface = std::make_unique<TrackedSurface>(samplePath("headset.stl"),
                                                 std::vector<std::string>{samplePath("headset_head.stl")});
    s.surface->seedGenerator(20);
    std::vector<Eigen::Vector3f> points(20), normals(20);
    for (size_t i = 0; i < points.size(); ++i) s.surface->randomPlacement(points[i], normals[i]);
    s.model = testing::makeSensorModel(points, normals);
    return s;
  }();
  return scene;
}

}  // namespace sensorlay::bench
