// Time of the analysis tables at the default grid of 0.5 degrees (260,281
// rows), the whole run as the command line makes it (grid, visibility with a
// ray per sensor that faces the station, Jacobian, 6 x 6 solve, grade, text),
// with the standard output stream sent to /dev/null. Each case runs on one
// thread, the reference, and on every hardware thread (second argument 0).
//
// Models: 20 sensors on a 16 cm sphere of about 20,000 triangles, and 20
// sensors drawn (with a fixed seed) on the bundled headset shell with the
// head as obstacle.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <iostream>

#include "app/modes.h"
#include "bench/bench_scenes.h"
#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"

namespace {

using namespace sensorlay;
using namespace sensorlay::bench;

// Runs with fd 1 on /dev/null, so that the table costs its formatting and its
// writes but no terminal; the "did not see" lines go nowhere either.
int runSilently(const DesignOptions& options, BenchScene& scene, bool withSurface, WorkerPool& pool) {
  std::fflush(stdout);
  const int saved = dup(1);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  close(devNull);
  std::streambuf* savedErr = std::cerr.rdbuf(nullptr);
  const int status = runAnalysis(options, *scene.model, withSurface ? scene.surface.get() : nullptr, pool);
  std::cerr.rdbuf(savedErr);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return status;
}

// Arguments: the grid step in tenths of a degree, and the thread count.
void analysis(benchmark::State& state, BenchScene& scene, bool withSurface, bool sensitivity) {
  DesignOptions options;
  options.angleResolutionDegrees = static_cast<double>(state.range(0)) / 10.0;
  options.baseStationSensitivity = sensitivity;
  WorkerPool pool(static_cast<int>(state.range(1)));  // the threads start outside the timing
  for (auto _ : state) benchmark::DoNotOptimize(runSilently(options, scene, withSurface, pool));
  const double step = options.angleResolutionDegrees;
  const double rows = (std::floor(180.0 / step) + 1) * (std::floor(360.0 / step) + 1);
  state.counters["rows/s"] = benchmark::Counter(rows, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["threads"] = pool.size();
  if (withSurface) state.counters["triangles"] = static_cast<double>(scene.surface->faceCount());
}

// The default grid on one thread and on all, timed by the clock on the wall.
void oneAndAllThreads(benchmark::internal::Benchmark* b) {
  b->Args({5, 1})->Args({5, 0})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
}

void BM_CoverageTableOnSphere(benchmark::State& state) { analysis(state, sphereScene(), true, false); }
BENCHMARK(BM_CoverageTableOnSphere)->Apply(oneAndAllThreads);

void BM_CoverageTableOnHeadset(benchmark::State& state) { analysis(state, headsetScene(), true, false); }
BENCHMARK(BM_CoverageTableOnHeadset)->Apply(oneAndAllThreads);

void BM_CoverageTableWithoutSurface(benchmark::State& state) { analysis(state, sphereScene(), false, false); }
BENCHMARK(BM_CoverageTableWithoutSurface)->Apply(oneAndAllThreads);

void BM_SensitivityTableOnSphere(benchmark::State& state) { analysis(state, sphereScene(), true, true); }
BENCHMARK(BM_SensitivityTableOnSphere)->Apply(oneAndAllThreads);

}  // namespace

BENCHMARK_MAIN();
