// The cost of the design search on the bundled headset: one trial (a move and
// a whole score, as the annealer pays it) at the default sample count, the
// moves alone at a hot and a cold temperature, and the best-candidate start.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/bench_scenes.h"
#include "common/worker_pool.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"

namespace {

using namespace sensorlay;

struct HeadsetSearch {
  TrackedSurface surface{bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")}};
  WorkerPool pool{0};
  std::unique_ptr<SensorModel> model;
  std::unique_ptr<Annealer> annealer;

  HeadsetSearch(int sensors, int orientations) {
    surface.seedGenerator(1);
    model = makeEmptySensorModel(sensors);
    model->cosMaxIncidence = 0.5;
    AnnealerOptions options(surface, sensors, pool);
    options.nIterations = 3;
    options.nOrientations = orientations;
    options.coolingRate = 0.96;
    options.annealSeed = 2u;
    placeInitialSensors(options, *model);
    annealer = std::make_unique<Annealer>(*model, options);
  }
};

void BM_Trial(benchmark::State& state) {
  HeadsetSearch search(static_cast<int>(state.range(0)), 1250);
  Eigen::Vector3f point, normal;
  int32_t sensor = 0;
  for (auto _ : state) {
    point = search.model->points[sensor].cast<float>();
    normal = search.model->normals[sensor].cast<float>();
    search.annealer->moveSensor(point, normal, 10.0);
    search.model->points[sensor] = point.cast<double>();
    search.model->normals[sensor] = normal.cast<double>();
    benchmark::DoNotOptimize(search.annealer->evaluator.scorePlacement());
    sensor = (sensor + 1) % static_cast<int32_t>(state.range(0));
  }
}
BENCHMARK(BM_Trial)->Arg(8)->Arg(20)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_MoveSensor(benchmark::State& state) {
  HeadsetSearch search(20, 10);
  const double T = static_cast<double>(state.range(0)) / 1000.0;
  Eigen::Vector3f point = search.model->points[0].cast<float>();
  Eigen::Vector3f normal = search.model->normals[0].cast<float>();
  for (auto _ : state) {
    search.annealer->moveSensor(point, normal, T);
    benchmark::DoNotOptimize(point);
  }
}
BENCHMARK(BM_MoveSensor)->Arg(100000)->Arg(35)->Unit(benchmark::kMicrosecond);

void BM_PlaceInitialSensors(benchmark::State& state) {
  TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")});
  surface.seedGenerator(1);
  WorkerPool pool(1);
  AnnealerOptions options(surface, 20, pool);
  for (auto _ : state) {
    auto model = makeEmptySensorModel(20);
    placeInitialSensors(options, *model);
    benchmark::DoNotOptimize(model->points.data());
  }
}
BENCHMARK(BM_PlaceInitialSensors)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
