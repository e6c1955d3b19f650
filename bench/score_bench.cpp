// The cost of one placement score, the inner step of every annealing trial:
// 20 sensors, 1250 orientation samples, a sphere of about 20,000 triangles.

#include <benchmark/benchmark.h>

#include <iostream>
#include <memory>

#include "bench/bench_scenes.h"
#include "quality/coverage_evaluator.h"

namespace {

using namespace sensorlay;
using namespace sensorlay::bench;

BenchScene& scene() { return sphereScene(); }

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
