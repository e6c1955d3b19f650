// The search on the fast score: the same trials, kept and put back in the
// same order, the same best placement and score as on the reference score,
// on one thread and on two; no allocation from trial to trial; and the
// bundled devices it runs on.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/worker_pool.h"
#include "quality/fast_score.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/samples.h"
#include "tests/support/score_runs.h"

namespace sensorlay {
namespace {

struct Trial {
  int32_t sensor;
  double score;
  bool accepted;
};

struct Design {
  std::vector<Trial> trials;
  Constellation best;
  double bestScore = 0.0;
  std::string progress;
};

// The options of a short search on `surface` with a fixed trial seed.
AnnealerOptions searchOptions(TrackedSurface& surface, WorkerPool& pool, int32_t iterations, int32_t orientations,
                              double coolingRate, uint32_t seed) {
  AnnealerOptions options(surface, 20, pool);
  options.nIterations = iterations;
  options.nOrientations = orientations;
  options.coolingRate = coolingRate;
  options.annealSeed = seed;
  return options;
}

// A short design on the headset with the head in the way, with fixed seeds
// for the surface's draws and the trial generator.
Design design(bool reference, int threads) {
  TrackedSurface surface(testing::samplePath("headset.stl"), {testing::samplePath("headset_head.stl")});
  surface.seedGenerator(21);
  WorkerPool pool(threads);
  auto model = makeEmptySensorModel(20);
  model->cosMaxIncidence = std::cos(59.0 * 0.017453292519943295);
  AnnealerOptions options = searchOptions(surface, pool, 1, 200, 0.7, 5u);
  placeInitialSensors(options, *model);
  Design out;
  std::ostringstream progress;
  options.progress = &progress;
  Annealer annealer(*model, options);
  annealer.useReferenceScore = reference;
  annealer.trialObserver = [&out](int32_t sensor, double score, bool accepted) {
    out.trials.push_back({sensor, score, accepted});
  };
  annealer.anneal(out.best);
  out.progress = progress.str();
  out.bestScore = annealer.bestScore;
  return out;
}

TEST(FastAnnealer, SameSearchAsOnTheReferenceScoreOnOneThreadAndOnTwo) {
  const Design slow = design(true, 1);
  ASSERT_GT(slow.trials.size(), 400u);
  int kept = 0;
  for (const Trial& trial : slow.trials) kept += trial.accepted ? 1 : 0;
  // Both kinds of outcome, and improvements on the way.
  EXPECT_GT(kept, 20);
  EXPECT_LT(kept, static_cast<int>(slow.trials.size()) - 20);
  EXPECT_NE(slow.progress.find('('), std::string::npos);
  std::vector<double> oneThread;
  for (int threads : {1, 2}) {
    const Design fast = design(false, threads);
    SCOPED_TRACE(std::to_string(threads) + " threads");
    ASSERT_EQ(fast.trials.size(), slow.trials.size());
    for (size_t i = 0; i < fast.trials.size(); ++i) {
      ASSERT_EQ(fast.trials[i].sensor, slow.trials[i].sensor) << i;
      ASSERT_EQ(fast.trials[i].accepted, slow.trials[i].accepted) << i;
      ASSERT_NEAR(fast.trials[i].score, slow.trials[i].score, 1e-9 * slow.trials[i].score) << i;
    }
    EXPECT_EQ(fast.best.modelPoints, slow.best.modelPoints);
    EXPECT_EQ(fast.best.modelNormals, slow.best.modelNormals);
    // The score reported is scorePlacement's own for the best placement.
    EXPECT_EQ(fast.bestScore, slow.bestScore);
    EXPECT_EQ(fast.progress, slow.progress);
    if (threads == 2)
      for (size_t i = 0; i < fast.trials.size(); ++i) EXPECT_EQ(fast.trials[i].score, oneThread[i]) << i;
    else
      for (const Trial& trial : fast.trials) oneThread.push_back(trial.score);
  }
}

TEST(FastAnnealer, TrialsAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "no allocation count under a sanitizer";
  ASSERT_GT(testing::countAllocations([] { delete new std::vector<int>(100); }), 0);  // the counter works

  // A whole search allocates in its set-up only: as much for one level of
  // trials as for four, on two threads.
  WorkerPool pool(2);
  TrackedSurface surface(testing::samplePath("headset.stl"), {testing::samplePath("headset_head.stl")});
  surface.seedGenerator(2);
  auto model = makeEmptySensorModel(20);
  model->cosMaxIncidence = 0.5;
  placeInitialSensors(searchOptions(surface, pool, 1, 300, 0.5, 3u), *model);
  long perRun[2];
  for (int iterations : {1, 4}) {
    Annealer search(*model, searchOptions(surface, pool, iterations, 300, 0.5, 3u));
    Constellation result;
    perRun[iterations == 1 ? 0 : 1] = testing::countAllocations([&] { search.anneal(result); });
  }
  EXPECT_EQ(perRun[0], perRun[1]);
}

// The search's moves: late in the schedule nine in ten turn a sensor by no
// more than the facing cone (about 16 degrees at the end temperature) and the
// rest may land anywhere, so that a few jump far; early on they go anywhere.
TEST(SearchMoves, LateMovesStayNearAndAFewJumpFar) {
  TrackedSurface surface(testing::samplePath("headset.stl"), {testing::samplePath("headset_head.stl")});
  surface.seedGenerator(4);
  WorkerPool pool(1);
  const AnnealerOptions options = searchOptions(surface, pool, 1, 10, 0.9, 6u);
  auto model = makeEmptySensorModel(20);
  placeInitialSensors(options, *model);
  Annealer annealer(*model, options);
  for (double T : {annealEndTemperature, annealStartTemperature}) {
    int near = 0, far = 0;
    const int moves = 2000;
    for (int i = 0; i < moves; ++i) {
      Eigen::Vector3f point = model->points[i % 20].cast<float>(), normal = model->normals[i % 20].cast<float>();
      const Eigen::Vector3f before = normal;
      annealer.moveSensor(point, normal, T);
      const double degrees = std::acos(std::clamp(static_cast<double>(before.dot(normal)), -1.0, 1.0)) * 57.29577951;
      near += degrees < 16.5 ? 1 : 0;
      far += degrees > 45.0 ? 1 : 0;
    }
    SCOPED_TRACE("temperature " + std::to_string(T));
    if (T == annealEndTemperature) {
      EXPECT_GT(near, moves * 85 / 100);
      EXPECT_GT(far, moves * 3 / 100);
      EXPECT_LT(far, moves * 15 / 100);
    } else {
      EXPECT_LT(near, moves * 20 / 100);
      EXPECT_GT(far, moves * 60 / 100);
    }
  }
}

// Sensors spread over the device see it from more sides than sensors
// crowded on one patch, and a seeded search improves clearly on its start.
TEST(SearchOnTheBundledDevices, SpreadBeatsClusteredAndTheSearchImproves) {
  for (const auto& [name, obstacles] :
       {std::pair<std::string, std::vector<std::string>>{"headset.stl", {testing::samplePath("headset_head.stl")}},
        {"controller.stl", {}}}) {
    SCOPED_TRACE(name);
    TrackedSurface surface(testing::samplePath(name), obstacles);
    surface.seedGenerator(8);
    WorkerPool pool(2);
    AnnealerOptions options = searchOptions(surface, pool, 1, 300, 0.8, 9u);
    auto spread = makeEmptySensorModel(12);
    spread->cosMaxIncidence = 0.5;
    placeInitialSensors(options, *spread);
    // The clustered layout: every sensor near the first one, drawn as late
    // moves of it.
    auto clustered = makeEmptySensorModel(12);
    clustered->cosMaxIncidence = 0.5;
    clustered->points[0] = spread->points[0];
    clustered->normals[0] = spread->normals[0];
    for (int i = 1; i < 12; ++i) {
      Eigen::Vector3f p = spread->points[0].cast<float>(), n = spread->normals[0].cast<float>();
      surface.randomPlacementFacing(p, n, 0.96f);
      clustered->points[i] = p.cast<double>();
      clustered->normals[i] = n.cast<double>();
    }
    const double spreadScore = testing::freshScore(spread.get(), &surface, 300);
    const double clusteredScore = testing::freshScore(clustered.get(), &surface, 300);
    EXPECT_LT(spreadScore + 50.0, clusteredScore);

    Annealer annealer(*spread, options);
    Constellation best;
    annealer.anneal(best);
    EXPECT_LT(annealer.bestScore, 0.8 * spreadScore);
  }
}

}  // namespace
}  // namespace sensorlay
