// The cost of one placement score, the inner step of every annealing trial:
// 20 sensors, 1250 orientation samples, a sphere of about 20,000 triangles.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/quality_fixtures.h"

namespace {

using namespace sensorlay;

struct Scene {
  std::unique_ptr<TrackedSurface> surface;
  std::unique_ptr<SensorModel> model;
};

// Built once: a sphere of radius 8 cm, 100 stacks by 100 slices, with 20
// sensors spread over it.
Scene& scene() {
  static Scene s = [] {
    Scene built;
    std::ostringstream name;
    name << "sensorlay_score_bench_" << getpid() << ".stl";
    const std::string path = (std::filesystem::temp_directory_path() / name.str()).string();
    testing::writeStlBinary(path, testing::sphereMesh(0.08f, 100, 100));
    built.surface = std::make_unique<TrackedSurface>(path, std::vector<std::string>{});
    std::remove(path.c_str());
    built.model = testing::makeSphereSensors(20, 0.08f);
    return built;
  }();
  return s;
}

void prepare(CoverageEvaluator& evaluator, const TrackedSurface* surface) {
  testing::attach(evaluator, scene().model.get(), surface);
  std::streambuf* saved = std::cerr.rdbuf(nullptr);  // the normalisation line
  evaluator.sampleOrientations(1250);
  std::cerr.rdbuf(saved);
}

void BM_ScorePlacement(benchmark::State& state) {
  CoverageEvaluator evaluator;
  prepare(evaluator, scene().surface.get());
  state.counters["triangles"] = scene().surface->faceCount();
  for (auto _ : state) benchmark::DoNotOptimize(evaluator.scorePlacement());
}
BENCHMARK(BM_ScorePlacement)->Unit(benchmark::kMillisecond);

// The same without ray casts: the share of the sweep model and the 6 x 6 solve.
void BM_ScorePlacementWithoutSurface(benchmark::State& state) {
  CoverageEvaluator evaluator;
  prepare(evaluator, nullptr);
  for (auto _ : state) benchmark::DoNotOptimize(evaluator.scorePlacement());
}
BENCHMARK(BM_ScorePlacementWithoutSurface)->Unit(benchmark::kMillisecond);

// Made once a run; quadratic in the count.
void BM_SampleOrientations(benchmark::State& state) {
  CoverageEvaluator evaluator;
  std::streambuf* saved = std::cerr.rdbuf(nullptr);
  for (auto _ : state) evaluator.sampleOrientations(static_cast<int32_t>(state.range(0)));
  std::cerr.rdbuf(saved);
}
BENCHMARK(BM_SampleOrientations)->Arg(1250)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
