// Throughput of the tracked surface on a sphere of about 100,000 triangles:
// the build, single rays, the sensor-fit probes and the visibility test.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>

#include "common/random_draws.h"
#include "quality/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"

namespace {

using namespace sensorlay;
using V3 = Eigen::Vector3f;

// A 50 mm sphere in millimetres, written once for the whole process.
const std::string& sphereFile() {
  static const std::string path = [] {
    const std::string p = "/tmp/sensorlay_surface_bench_" + std::to_string(getpid()) + ".stl";
    testing::writeStlBinary(p, testing::sphereMesh(50.0f, 224, 224));
    std::atexit([] { std::remove(sphereFile().c_str()); });
    return p;
  }();
  return path;
}

TrackedSurface& sphere() {
  static TrackedSurface* surface = [] {
    auto* s = new TrackedSurface(sphereFile(), {});
    s->seedGenerator(1);
    return s;
  }();
  return *surface;
}

void BM_Build(benchmark::State& state) {
  const std::string& path = sphereFile();
  for (auto _ : state) {
    TrackedSurface s(path, {});
    benchmark::DoNotOptimize(s.faceCount());
  }
  state.counters["triangles"] = static_cast<double>(sphere().faceCount());
}
BENCHMARK(BM_Build)->Unit(benchmark::kMillisecond);

struct Ray {
  V3 origin, direction;
};

// Rays from points spread through a 12 cm cube in random directions: about
// half of them start inside the sphere and all of those hit.
void BM_CastRay(benchmark::State& state) {
  TrackedSurface& s = sphere();
  std::mt19937 g(3);
  std::vector<Ray> rays(4096);
  for (Ray& r : rays) {
    r.origin = V3(drawFloat(g, -0.06f, 0.06f), drawFloat(g, -0.06f, 0.06f), drawFloat(g, -0.06f, 0.06f));
    r.direction = V3(drawFloat(g, -1, 1), drawFloat(g, -1, 1), drawFloat(g, -1, 1)).normalized();
  }
  size_t i = 0;
  int64_t hits = 0;
  for (auto _ : state) {
    const Ray& r = rays[i++ & 4095];
    hits += s.castRay(r.origin, r.direction, 0.0f, 1.0f);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["hitShare"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_CastRay);

void BM_SensorFits(benchmark::State& state) {
  TrackedSurface& s = sphere();
  std::vector<std::pair<V3, V3>> spots(4096);
  for (auto& spot : spots) {
    const int32_t f = s.randomFace();
    spot = {s.randomPointOnFace(f), s.faceNormals.row(f).transpose()};
  }
  size_t i = 0;
  int64_t fits = 0;
  for (auto _ : state) {
    const auto& spot = spots[i++ & 4095];
    fits += s.sensorFits(spot.first, spot.second);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["fitShare"] = static_cast<double>(fits) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_SensorFits);

void BM_RandomPlacement(benchmark::State& state) {
  TrackedSurface& s = sphere();
  V3 point, normal;
  for (auto _ : state) {
    s.randomPlacement(point, normal);
    benchmark::DoNotOptimize(point);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RandomPlacement);

// The inner test of the score: 32 sensors on the sphere, one pose, with the
// occlusion ray for those that face the station.
void BM_IsSensorVisible(benchmark::State& state) {
  TrackedSurface& s = sphere();
  Constellation c;
  for (int k = 0; k < 32; ++k) {
    V3 point, normal;
    s.randomPlacement(point, normal);
    c.channelMap.push_back(k);
    c.modelPoints.push_back(point);
    c.modelNormals.push_back(normal);
  }
  SensorModel model(c, ModelTransform());
  const StationPose pose = {{0, 0, -2}, {1, 0, 0, 0}};
  int64_t visible = 0, k = 0;
  for (auto _ : state) {
    const SensorVisibilityTest test{&model, static_cast<int32_t>(k++ & 31), &s};
    visible += isSensorVisible(test, pose);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["visibleShare"] = static_cast<double>(visible) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_IsSensorVisible);

}  // namespace

BENCHMARK_MAIN();
