// Time of the analysis tables: a 20-sensor model on a sphere of about 20,000
// triangles, the whole run as the command line makes it (grid, visibility with
// a ray per sensor that faces the station, Jacobian, 6 x 6 solve, grade, text),
// with the standard output stream sent to /dev/null.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "app/modes.h"
#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"

namespace {

using namespace sensorlay;

constexpr float kRadius = 0.06f;

// A 12 cm sphere in metres: 2 x 100 x 100 triangles less the pole fans.
TrackedSurface& sphere() {
  static TrackedSurface* surface = [] {
    const std::string path = "/tmp/sensorlay_report_bench_" + std::to_string(getpid()) + ".stl";
    testing::writeStlBinary(path, testing::sphereMesh(kRadius, 100, 100));
    auto* s = new TrackedSurface(path, {});
    std::remove(path.c_str());
    return s;
  }();
  return *surface;
}

// 20 sensors spread evenly over the sphere (a Fibonacci spiral), facing out.
SensorModel& model() {
  static SensorModel* m = [] {
    Constellation c;
    c.valid = true;
    const int n = 20;
    for (int i = 0; i < n; ++i) {
      const float z = 1.0f - (2.0f * i + 1.0f) / n;
      const float r = std::sqrt(1.0f - z * z);
      const float phi = 2.399963f * i;
      const Eigen::Vector3f normal(r * std::cos(phi), r * std::sin(phi), z);
      c.channelMap.push_back(i);
      c.modelPoints.push_back(normal * kRadius);
      c.modelNormals.push_back(normal);
    }
    return new SensorModel(c, ModelTransform());
  }();
  return *m;
}

// Runs with fd 1 on /dev/null, so that the table costs its formatting and its
// writes but no terminal.
int runSilently(const DesignOptions& options, TrackedSurface* surface) {
  std::fflush(stdout);
  const int saved = dup(1);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  close(devNull);
  CoverageEvaluator evaluator;
  const int status = runAnalysis(options, model(), surface, evaluator);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return status;
}

void analysis(benchmark::State& state, bool withSurface, bool sensitivity) {
  DesignOptions options;
  options.angleResolutionDegrees = static_cast<double>(state.range(0)) / 10.0;
  options.baseStationSensitivity = sensitivity;
  TrackedSurface* surface = withSurface ? &sphere() : nullptr;
  for (auto _ : state) benchmark::DoNotOptimize(runSilently(options, surface));
  const double rows = static_cast<double>((std::floor(180.0 / (state.range(0) / 10.0)) + 1) *
                                          (std::floor(360.0 / (state.range(0) / 10.0)) + 1));
  state.counters["rows/s"] = benchmark::Counter(rows, benchmark::Counter::kIsIterationInvariantRate);
  if (withSurface) state.counters["triangles"] = static_cast<double>(sphere().faceCount());
}

// The default grid, 0.5 degrees: 260,281 rows.
void BM_CoverageTableOnSurface(benchmark::State& state) { analysis(state, true, false); }
BENCHMARK(BM_CoverageTableOnSurface)->Arg(5)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_CoverageTableWithoutSurface(benchmark::State& state) { analysis(state, false, false); }
BENCHMARK(BM_CoverageTableWithoutSurface)->Arg(5)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_SensitivityTableOnSurface(benchmark::State& state) { analysis(state, true, true); }
BENCHMARK(BM_SensitivityTableOnSurface)->Arg(5)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
