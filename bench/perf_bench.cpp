// The reference against the fast path, in one process on the same inputs: the
// bundled headset with the head as obstacle, 20 sensors, 1250 orientations and
// the design run's incidence limit. Prints
//   - a design trial (one sensor moved) on one thread and on two, against the
//     reference score, with the floor beside them: the moved sensor's rays
//     (where it faces the station), at the rate measured for those rays one
//     at a time and in packets of 16;
//   - a short design run through each path, with its placement compared;
//   - the default analysis table, the reference rows on one thread against
//     the fast rows on one and on two;
//   - the peak memory of a design's search with 32 sensors at 1,250, 5,000
//     and 20,000 orientations, and of the 0.1 degree table, each in a child
//     process of its own.
// The machine may be shared: every time is the best of a few repetitions,
// and the load is printed before and after.
//
// With --scaling it prints instead how a trial and the default table grow with
// the sensors (8, 16, 32), the orientations (1,250, 5,000, 20,000) and the
// size of the mesh (generated spheres of 30k, 300k and 3M triangles).
//
//   perf_bench [trials] [--no-memory]     (default 1000 trials in the design run)
//   perf_bench --scaling

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "app/modes.h"
#include "bench/bench_scenes.h"
#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"
#include "quality/fast_score.h"
#include "reports/report_tables.h"
#include "search/annealer.h"
#include "surface/ray_scene.h"
#include "surface/tracked_surface.h"
#include "surface/visibility.h"

namespace {

using namespace sensorlay;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

constexpr int kSensors = 20;
constexpr int kOrientations = 1250;
constexpr uint32_t kSurfaceSeed = 1;
constexpr uint32_t kAnnealSeed = 2;
// What a trial is to reach: this much faster than the reference, and no more
// than this multiple of the floor of its rays.
constexpr double kTrialGoalRatio = 50.0;
constexpr double kTrialGoalFloor = 1.5;

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

// The incidence limit a design run searches with: 60 degrees less its
// margin, which is in radians though taken off degrees.
double designIncidenceDegrees(int orientations) {
  return 60.0 - 0.5 * (2.0 * std::asin(1.9 / std::sqrt(static_cast<double>(orientations))));
}

// A search state as runAnnealer builds it, on a surface reseeded so that every
// instance starts from the same placement and draws the same moves.
struct Search {
  std::unique_ptr<SensorModel> model;
  std::unique_ptr<Annealer> annealer;

  Search(TrackedSurface& surface, WorkerPool& pool, int sensors, int orientations, int iterations, double coolingRate) {
    surface.seedGenerator(kSurfaceSeed);
    model = makeEmptySensorModel(sensors);
    model->cosMaxIncidence = std::cos(designIncidenceDegrees(orientations) * 0.017453292519943295);
    AnnealerOptions options(surface, sensors, pool);
    options.nIterations = iterations;
    options.nOrientations = orientations;
    options.coolingRate = coolingRate;
    options.annealSeed = kAnnealSeed;
    placeInitialSensors(options, *model);
    annealer = std::make_unique<Annealer>(*model, options);
  }
};

// Trials as the annealer makes them, at a mid temperature, every second one
// kept, on a fresh scorer: the best per-trial time of batches of 100, the
// rays cast per trial, and the scores.
struct Trials {
  double seconds = 0.0;
  double rays = 0.0;
  double evaluated = 0.0;
  std::vector<double> scores;
};

Trials runTrials(TrackedSurface& surface, WorkerPool& pool, int count, int sensors = kSensors,
                 int orientations = kOrientations) {
  Search search(surface, pool, sensors, orientations, 3, 0.96);
  Annealer& annealer = *search.annealer;
  FastScorer scorer(annealer.evaluator, pool);
  // The workers kept awake between trials, as a search keeps them.
  WorkerPool::KeepAwake awake(pool);
  Trials out;
  out.scores.push_back(scorer.scoreAll());
  double batch = 0.0, best = 1e300;
  int64_t rays = 0, evaluated = 0;
  for (int i = 0; i < count; ++i) {
    const int sensor = i % sensors;
    Eigen::Vector3d& point = search.model->points[sensor];
    Eigen::Vector3d& normal = search.model->normals[sensor];
    const Eigen::Vector3d savedPoint = point, savedNormal = normal;
    Eigen::Vector3f p = point.cast<float>(), n = normal.cast<float>();
    annealer.moveSensor(p, n, 10.0);
    point = p.cast<double>();
    normal = n.cast<double>();
    const auto t = Clock::now();
    out.scores.push_back(scorer.scoreMove(sensor));
    if (i % 2 == 0) {
      scorer.accept();
    } else {
      point = savedPoint;
      normal = savedNormal;
      scorer.reject();
    }
    batch += secondsSince(t);
    rays += scorer.lastCastRays();
    evaluated += scorer.lastEvaluatedSamples();
    if (i % 100 == 99) {
      best = std::min(best, batch / 100);
      batch = 0.0;
    }
  }
  out.seconds = best;
  out.rays = static_cast<double>(rays) / count;
  out.evaluated = static_cast<double>(evaluated) / count;
  return out;
}

// The time of one of the moved sensors' rays, one at a time and in packets
// of 16: every sensor of the first placement towards every sample it faces,
// in the order the scorer works the samples.
void rayRates(TrackedSurface& surface, WorkerPool& pool, double& single, double& packet) {
  Search search(surface, pool, kSensors, kOrientations, 3, 0.96);
  const CoverageEvaluator& evaluator = search.annealer->evaluator;
  const std::vector<int32_t> order = directionOrder(evaluator.score.samples);
  std::vector<float> origins, directions;
  for (int k = 0; k < kSensors; ++k) {
    const double* p = search.model->points[k].data();
    const double* n = search.model->normals[k].data();
    float origin[3];
    rayOrigin(p, n, origin);
    for (const int32_t s : order) {
      const OrientationSample& sample = evaluator.score.samples[static_cast<size_t>(s)];
      const StationPose pose = {
          {evaluator.position.x(), evaluator.position.y(), evaluator.position.z()},
          {sample.quaternion[0], sample.quaternion[1], sample.quaternion[2], sample.quaternion[3]}};
      double towards[3], conjugate[4];
      if (!facesStation(p, n, search.model->cosMaxIncidence, pose, towards)) continue;
      objectRotation(sample.quaternion, conjugate);
      float direction[3];
      rayDirection(conjugate, towards, direction);
      origins.insert(origins.end(), origin, origin + 3);
      directions.insert(directions.end(), direction, direction + 3);
    }
  }
  const size_t rays = directions.size() / 3;
  const float far = std::numeric_limits<float>::infinity();
  single = packet = 1e300;
  int blocked = 0;
  for (int repeat = 0; repeat < 20; ++repeat) {
    auto start = Clock::now();
    for (size_t r = 0; r < rays; ++r)
      blocked += surface.castRay(Eigen::Vector3f(origins[3 * r], origins[3 * r + 1], origins[3 * r + 2]),
                                 Eigen::Vector3f(directions[3 * r], directions[3 * r + 1], directions[3 * r + 2]),
                                 kRayNear, far);
    single = std::min(single, secondsSince(start) / static_cast<double>(rays));
    RayPacket rayPacket;
    start = Clock::now();
    for (size_t first = 0; first < rays; first += RayPacket::kSize) {
      const int count = static_cast<int>(std::min<size_t>(RayPacket::kSize, rays - first));
      for (int lane = 0; lane < count; ++lane)
        rayPacket.set(lane, &origins[3 * (first + lane)], &directions[3 * (first + lane)], kRayNear, far);
      surface.castRays(rayPacket, count);
      blocked += rayPacket.blocked[0];
    }
    packet = std::min(packet, secondsSince(start) / static_cast<double>(rays));
  }
  if (blocked < 0) std::printf("(unreachable)\n");
}

void trials(TrackedSurface& surface, WorkerPool& two) {
  Search search(surface, two, kSensors, kOrientations, 3, 0.96);
  double reference = 1e300;
  for (int batch = 0; batch < 6; ++batch) {
    const auto start = Clock::now();
    for (int i = 0; i < 10; ++i) search.annealer->evaluator.scorePlacement();
    reference = std::min(reference, secondsSince(start) / 10);
  }
  WorkerPool one(1);
  const int count = 3000;
  Trials onOne = runTrials(surface, one, count), onTwo = runTrials(surface, two, count);
  for (int repeat = 0; repeat < 2; ++repeat) {
    const Trials a = runTrials(surface, one, count), b = runTrials(surface, two, count);
    onOne.seconds = std::min(onOne.seconds, a.seconds);
    onTwo.seconds = std::min(onTwo.seconds, b.seconds);
  }
  double single = 0.0, packet = 0.0;
  rayRates(surface, one, single, packet);
  const double floorSingle = onOne.rays * single, floorPacket = onOne.rays * packet;

  std::printf("\nA design trial (one sensor moved; %.1f of %d samples rescored, %.1f rays cast)\n", onOne.evaluated,
              kOrientations, onOne.rays);
  std::printf("  ray: %.1f ns one at a time, %.1f ns in packets of 16; floor (the rays alone): %.4f ms, %.4f ms\n",
              single * 1e9, packet * 1e9, floorSingle * 1e3, floorPacket * 1e3);
  std::printf("  %-26s %10s %12s %22s\n", "", "ms", "vs reference", "vs floor (one, packets)");
  std::printf("  %-26s %10.4f\n", "reference score", reference * 1e3);
  for (const auto& [name, t] :
       {std::pair<const char*, double>{"fast, one thread", onOne.seconds}, {"fast, two threads", onTwo.seconds}})
    std::printf("  %-26s %10.4f %11.1fx %10.2fx %10.2fx\n", name, t * 1e3, reference / t, t / floorSingle,
                t / floorPacket);
  std::printf("  same scores on one and two threads: %s\n", onOne.scores == onTwo.scores ? "yes" : "NO");
  // The floor to hold a trial to is that of its rays cast one at a time, the
  // way the reference casts them: against the packet floor, the rays of a
  // trial in packets would leave nothing for the samples they change.
  std::printf("  goal: %.0fx the reference and at most %.1fx the floor of single rays:\n", kTrialGoalRatio,
              kTrialGoalFloor);
  for (const auto& [name, t] :
       {std::pair<const char*, double>{"one thread", onOne.seconds}, {"two threads", onTwo.seconds}}) {
    const bool met = reference / t >= kTrialGoalRatio && t / floorSingle <= kTrialGoalFloor;
    std::printf("    %-12s %s (%.1fx, %.2fx the floor)\n", name, met ? "MET" : "NOT MET", reference / t,
                t / floorSingle);
  }
}

// A design run of about `count` trials through each path: the same seeds,
// the same first placement.
void designRun(TrackedSurface& surface, WorkerPool& two, int count) {
  // One trial per sensor per level, and as many levels as give the trials.
  const double levels = std::max(1.0, std::round(static_cast<double>(count) / kSensors));
  const double rate = std::exp(std::log(annealEndTemperature / annealStartTemperature) / (levels - 0.5));
  WorkerPool one(1);
  WorkerPool* pools[3] = {&one, &one, &two};
  double seconds[3] = {1e300, 1e300, 1e300}, score[3] = {};
  Constellation result[3];
  int32_t done = 0;
  for (int repeat = 0; repeat < 2; ++repeat)
    for (int path = 0; path < 3; ++path) {
      Search search(surface, *pools[path], kSensors, kOrientations, 1, rate);
      search.annealer->useReferenceScore = path == 0;
      done = 0;
      search.annealer->trialObserver = [&done](int32_t, double, bool) { ++done; };
      const auto start = Clock::now();
      search.annealer->anneal(result[path]);
      seconds[path] = std::min(seconds[path], secondsSince(start));
      score[path] = search.annealer->bestScore;
    }
  std::printf("\nA design run of %d trials          s    ms per trial  vs reference\n", done);
  const char* names[3] = {"reference", "fast, one thread", "fast, two threads"};
  for (int path = 0; path < 3; ++path)
    std::printf("  %-26s %8.3f %10.4f %11.1fx\n", names[path], seconds[path], seconds[path] / done * 1e3,
                seconds[0] / seconds[path]);
  bool same = true;
  for (int path = 1; path < 3; ++path)
    same = same && score[path] == score[0] && result[path].modelPoints == result[0].modelPoints &&
           result[path].modelNormals == result[0].modelNormals;
  std::printf("  same best score and placement on every path: %s\n", same ? "yes" : "NO");
}

// The default analysis table of the design's first placement, to /dev/null.
double tableSeconds(const Search& search, WorkerPool& pool, RowPath path) {
  CoverageEvaluator evaluator;
  SensorModel& model = *search.model;
  model.cosMaxIncidence = std::cos(60.0 * 0.017453292519943295);
  evaluator.model = &model;
  evaluator.surface = search.annealer->surface;
  evaluator.rebuildObservations();
  const ReportGrid grid(6.283185307179586, 0.5 * 0.005555555555555556 * 3.141592653589793);
  std::FILE* devNull = std::fopen("/dev/null", "w");
  const auto start = Clock::now();
  printCoverageTable(evaluator, grid, pool, devNull, path);
  const double seconds = secondsSince(start);
  std::fclose(devNull);
  return seconds;
}

void table(TrackedSurface& surface, WorkerPool& two) {
  WorkerPool one(1);
  Search search(surface, one, kSensors, kOrientations, 3, 0.96);
  double reference = 1e300, fastOne = 1e300, fastTwo = 1e300;
  for (int repeat = 0; repeat < 3; ++repeat) {
    reference = std::min(reference, tableSeconds(search, one, RowPath::Reference));
    fastOne = std::min(fastOne, tableSeconds(search, one, RowPath::Fast));
    fastTwo = std::min(fastTwo, tableSeconds(search, two, RowPath::Fast));
  }
  std::printf("\nThe default analysis table (260,281 rows)   s  vs reference\n");
  std::printf("  %-26s %8.3f\n", "reference rows, one thread", reference);
  std::printf("  %-26s %8.3f %11.1fx\n", "fast rows, one thread", fastOne, reference / fastOne);
  std::printf("  %-26s %8.3f %11.1fx\n", "fast rows, two threads", fastTwo, reference / fastTwo);
}

// The peak resident memory of `work` run in a child process, in MB.
double peakMegabytes(const std::function<void()>& work) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    work();
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1.0;
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void memory() {
  std::printf("\nPeak memory (resident, child process)        MB\n");
  const double idle = peakMegabytes(
      [] { TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")}); });
  std::printf("  %-40s %6.0f\n", "the headset's surface alone", idle);
  for (int orientations : {1250, 5000, 20000}) {
    const double peak = peakMegabytes([orientations] {
      TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")});
      WorkerPool pool(0);
      Search search(surface, pool, 32, orientations, 1, 0.5);
      FastScorer scorer(search.annealer->evaluator, pool);
      scorer.scoreAll();
      for (int i = 0; i < 100; ++i) {
        scorer.scoreMove(i % 32);
        scorer.accept();
      }
    });
    std::printf("  search, 32 sensors, %6d orientations      %6.0f\n", orientations, peak);
  }
  const double table = peakMegabytes([] {
    TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")});
    WorkerPool pool(0);
    Search search(surface, pool, kSensors, kOrientations, 1, 0.5);
    CoverageEvaluator evaluator;
    evaluator.model = search.model.get();
    evaluator.surface = &surface;
    evaluator.rebuildObservations();
    const ReportGrid grid(6.283185307179586, 0.1 * 0.005555555555555556 * 3.141592653589793);
    std::FILE* devNull = std::fopen("/dev/null", "w");
    printCoverageTable(evaluator, grid, pool, devNull);
    std::fclose(devNull);
  });
  std::printf("  %-40s %6.0f\n", "the 0.1 degree table (6.5 million rows)", table);
}

// One line of the scaling table: the best trial time of three runs of 300
// trials, and the best of two default tables, on the pool.
void scalingLine(const char* what, TrackedSurface& surface, WorkerPool& pool, int sensors, int orientations) {
  double trial = 1e300, table = 1e300;
  for (int repeat = 0; repeat < 3; ++repeat)
    trial = std::min(trial, runTrials(surface, pool, 300, sensors, orientations).seconds);
  Search search(surface, pool, sensors, orientations, 3, 0.96);
  for (int repeat = 0; repeat < 2; ++repeat) table = std::min(table, tableSeconds(search, pool, RowPath::Fast));
  std::printf("  %-34s %8d %8d %12.4f %10.3f\n", what, sensors, orientations, trial * 1e3, table);
}

void scaling(TrackedSurface& headset, WorkerPool& pool) {
  std::printf("\n%-36s %8s %8s %12s %10s\n", "", "sensors", "orient.", "ms / trial", "table s");
  for (int sensors : {8, 16, 32}) scalingLine("headset, 30k triangles", headset, pool, sensors, kOrientations);
  for (int orientations : {5000, 20000}) scalingLine("headset, 30k triangles", headset, pool, 16, orientations);
  for (int side : {122, 387, 1225}) {
    const std::string path = "/tmp/sensorlay_perf_sphere_" + std::to_string(getpid()) + ".stl";
    testing::writeStlBinary(path, testing::sphereMesh(0.1f, side, side));
    TrackedSurface sphere(path, {});
    std::remove(path.c_str());
    const std::string what = "sphere, " + std::to_string(sphere.faceCount()) + " triangles";
    scalingLine(what.c_str(), sphere, pool, 16, kOrientations);
  }
}

}  // namespace

int main(int argc, char** argv) {
  int count = 1000;
  bool withMemory = true, scalingOnly = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-memory") == 0)
      withMemory = false;
    else if (std::strcmp(argv[i], "--scaling") == 0)
      scalingOnly = true;
    else
      count = std::max(1, std::atoi(argv[i]));
  }
  TrackedSurface surface(bench::samplePath("headset.stl"), {bench::samplePath("headset_head.stl")});
  WorkerPool two(2);
  std::printf("headset with head: %u triangles, %d sensors, %d orientations, %.4f degrees incidence\n",
              surface.faceCount(), kSensors, kOrientations, designIncidenceDegrees(kOrientations));
  std::printf("load average at start: %s (%u hardware threads)\n", loadAverage().c_str(),
              std::thread::hardware_concurrency());
  if (scalingOnly) {
    WorkerPool one(1);
    scaling(surface, one);
    std::printf("\nload average at end: %s\n", loadAverage().c_str());
    return 0;
  }
  trials(surface, two);
  designRun(surface, two, count);
  table(surface, two);
  if (withMemory) memory();
  std::printf("\nload average at end: %s\n", loadAverage().c_str());
  return 0;
}
