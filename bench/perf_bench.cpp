// The reference against the fast path, in one process on the same inputs: the
// bundled headset with the head as obstacle, 20 sensors, 1250 orientations and
// the design run's incidence limit. Prints one score, a short design run with
// fixed seeds, and the default analysis table (single-threaded against the
// default thread count), each with the ratio. The machine may be shared:
// every time is the best of a few repetitions.
//
//   perf_bench [trials]     (default 1000 trials in the design run)

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "app/modes.h"
#include "bench/bench_scenes.h"
#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"
#include "quality/fast_score.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"

namespace {

using namespace sensorlay;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

constexpr int kSensors = 20;
constexpr int kOrientations = 1250;
constexpr uint32_t kSurfaceSeed = 1;
constexpr uint32_t kAnnealSeed = 2;

// The incidence limit a default design run searches with: 60 degrees less its
// margin, which is in radians though taken off degrees.
double designIncidenceDegrees() {
  return 60.0 - 0.5 * (2.0 * std::asin(1.9 / std::sqrt(static_cast<double>(kOrientations))));
}

// A search state as runAnnealer builds it, on a surface reseeded so that every
// instance starts from the same placement and draws the same moves.
struct Search {
  std::unique_ptr<SensorModel> model;
  std::unique_ptr<Annealer> annealer;

  Search(TrackedSurface& surface, WorkerPool& pool, int iterations, double coolingRate) {
    surface.seedGenerator(kSurfaceSeed);
    model = makeEmptySensorModel(kSensors);
    model->cosMaxIncidence = std::cos(designIncidenceDegrees() * 0.017453292519943295);
    AnnealerOptions options(surface, kSensors, pool);
    options.nIterations = iterations;
    options.nOrientations = kOrientations;
    options.coolingRate = coolingRate;
    options.annealSeed = kAnnealSeed;
    placeInitialSensors(options, *model);
    annealer = std::make_unique<Annealer>(*model, options);
  }
};

struct Row {
  std::string what;
  double reference;
  double fast;
  std::string unit;
};

void printRows(const std::vector<Row>& rows) {
  std::printf("%-44s %14s %14s %9s\n", "", "reference", "fast", "ratio");
  for (const Row& r : rows)
    std::printf("%-44s %11.4f %-2s %11.4f %-2s %8.1fx\n", r.what.c_str(), r.reference, r.unit.c_str(), r.fast,
                r.unit.c_str(), r.reference / r.fast);
}

// Scores: the reference's scorePlacement, and the fast path's score of one
// trial (a move of one sensor), over the same sequence of moves.
void scores(TrackedSurface& surface, WorkerPool& pool, std::vector<Row>& rows) {
  Search search(surface, pool, 3, 0.96);
  Annealer& annealer = *search.annealer;
  CoverageEvaluator& evaluator = annealer.evaluator;

  double reference = 1e300, referenceScore = 0.0;
  for (int batch = 0; batch < 6; ++batch) {
    const auto start = Clock::now();
    for (int i = 0; i < 10; ++i) referenceScore = evaluator.scorePlacement();
    reference = std::min(reference, secondsSince(start) / 10);
  }

  FastScorer scorer(evaluator, pool);
  auto start = Clock::now();
  const double fastScore = scorer.scoreAll();
  const double setUp = secondsSince(start);

  // Trials as the annealer makes them, at a mid temperature; every second
  // one is kept. The best of batches of 100.
  const int trials = 2000;
  double moving = 0.0, batchBest = 1e300, worst = 0.0;
  int64_t reused = 0, referenceSamples = 0, evaluated = 0;
  for (int i = 0; i < trials; ++i) {
    const int sensor = i % kSensors;
    Eigen::Vector3d& point = search.model->points[sensor];
    Eigen::Vector3d& normal = search.model->normals[sensor];
    const Eigen::Vector3d savedPoint = point, savedNormal = normal;
    Eigen::Vector3f p = point.cast<float>(), n = normal.cast<float>();
    annealer.moveSensor(p, n, 10.0);
    point = p.cast<double>();
    normal = n.cast<double>();
    const auto t = Clock::now();
    const double score = scorer.scoreMove(sensor);
    moving += secondsSince(t);
    if (i % 100 == 99) {
      batchBest = std::min(batchBest, moving / 100);
      moving = 0.0;
    }
    referenceSamples += scorer.lastReferenceSamples();
    evaluated += scorer.lastEvaluatedSamples();
    if (i % 100 == 0) worst = std::max(worst, std::abs(score - evaluator.scorePlacement()) / score);
    if (i % 2 == 0) {
      scorer.accept();
    } else {
      point = savedPoint;
      normal = savedNormal;
      scorer.reject();
      ++reused;
    }
  }
  const double fast = batchBest;

  rows.push_back({"score, whole placement (fast: set-up)", reference * 1e3, setUp * 1e3, "ms"});
  rows.push_back({"score of one trial (fast: one sensor moved)", reference * 1e3, fast * 1e3, "ms"});
  std::printf("start score: reference %.17g, fast %.17g (relative difference %.2g)\n", referenceScore, fastScore,
              std::abs(referenceScore - fastScore) / referenceScore);
  std::printf("trial scores: largest relative difference to the reference %.2g over %d checks\n", worst, trials / 100);
  std::printf("trial scores: %.1f samples rescored per trial of %d, %.2f through the reference solve\n",
              static_cast<double>(evaluated) / trials, kOrientations, static_cast<double>(referenceSamples) / trials);
}

// A design run of about `trials` trials through each path: the same seeds,
// the same first placement.
void designRun(TrackedSurface& surface, WorkerPool& pool, int trials, std::vector<Row>& rows) {
  // One trial per sensor per level, and as many levels as give the trials.
  const double levels = std::max(1.0, std::round(static_cast<double>(trials) / kSensors));
  const double rate = std::exp(std::log(annealEndTemperature / annealStartTemperature) / (levels - 0.5));
  double seconds[2] = {1e300, 1e300};
  double score[2];
  Constellation result[2];
  int32_t count = 0;
  for (int repeat = 0; repeat < 2; ++repeat) {
    for (int path = 0; path < 2; ++path) {
      Search search(surface, pool, 1, rate);
      search.annealer->useReferenceScore = path == 0;
      count = 0;
      search.annealer->trialObserver = [&count](int32_t, double, bool) { ++count; };
      const auto start = Clock::now();
      search.annealer->anneal(result[path]);
      seconds[path] = std::min(seconds[path], secondsSince(start));
      score[path] = search.annealer->bestScore;
    }
  }
  const std::string what = "design run, " + std::to_string(count) + " trials";
  rows.push_back({what, seconds[0], seconds[1], "s"});
  rows.push_back({"  per trial", seconds[0] / count * 1e3, seconds[1] / count * 1e3, "ms"});
  std::printf("design run: best score reference %.17g, fast %.17g; same placement: %s\n", score[0], score[1],
              result[0].modelPoints == result[1].modelPoints && result[0].modelNormals == result[1].modelNormals
                  ? "yes"
                  : "NO");
}

// The analysis table at the default grid, standard output to /dev/null.
double analysisSeconds(TrackedSurface& surface, SensorModel& model, WorkerPool& pool) {
  DesignOptions options;
  std::fflush(stdout);
  const int saved = dup(1);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  close(devNull);
  std::streambuf* savedErr = std::cerr.rdbuf(nullptr);  // the "did not see" lines
  const auto start = Clock::now();
  runAnalysis(options, model, &surface, pool);
  std::cerr.rdbuf(savedErr);
  std::fflush(stdout);
  const double seconds = secondsSince(start);
  dup2(saved, 1);
  close(saved);
  return seconds;
}

void analysis(TrackedSurface& surface, WorkerPool& pool, std::vector<Row>& rows) {
  Search search(surface, pool, 3, 0.96);
  WorkerPool single(1);
  double reference = 1e300, fast = 1e300;
  for (int repeat = 0; repeat < 2; ++repeat) {
    reference = std::min(reference, analysisSeconds(surface, *search.model, single));
    fast = std::min(fast, analysisSeconds(surface, *search.model, pool));
  }
  rows.push_back({"analysis table, 0.5 degree grid", reference, fast, "s"});
}

}  // namespace

int main(int argc, char** argv) {
  const int trials = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
  TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")});
  WorkerPool pool(0);
  std::printf("headset with head: %u triangles, %d sensors, %d orientations, %.4f degrees incidence, %d threads\n",
              surface.faceCount(), kSensors, kOrientations, designIncidenceDegrees(), pool.size());

  std::vector<Row> rows;
  scores(surface, pool, rows);
  designRun(surface, pool, trials, rows);
  analysis(surface, pool, rows);
  std::printf("\n");
  printRows(rows);
  return 0;
}
