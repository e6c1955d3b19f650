// The search on the fast score: the same trials, kept and put back in the
// same order, the same best placement and score as on the reference score,
// on one thread and on two; no allocation from trial to trial; and the
// bundled devices it runs on.

#include <gtest/gtest.h>

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
#include "tests/support/score_runs.h"

namespace sensorlay {
namespace {

const std::string kSamples = std::string(SENSORLAY_SOURCE_DIR) + "/samples/";

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
  TrackedSurface surface(kSamples + "headset.stl", {kSamples + "headset_head.stl"});
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
  TrackedSurface surface(kSamples + "headset.stl", {kSamples + "headset_head.stl"});
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

// The bundled devices must be usable for a design: millimetre files, closed
// enough for rays, and with room for 6 mm sensors on most of their area, or a
// design on them would search for ever.
TEST(SampleDevices, MillimetreMeshesWithRoomForSensors) {
  for (const auto& [name, obstacles] :
       {std::pair<std::string, std::vector<std::string>>{"headset.stl", {kSamples + "headset_head.stl"}},
        {"controller.stl", {}}}) {
    SCOPED_TRACE(name);
    TrackedSurface surface(kSamples + name, obstacles);
    ASSERT_GT(surface.faceCount(), 10000u);
    EXPECT_EQ(surface.getScale(), 0.001);
    // Positions drawn by area, with the face's own normal, as in a design.
    // A fitting one finds its surface right below, unless something lies
    // within a centimetre above: the head covers part of the headset's back.
    surface.seedGenerator(1);
    int fits = 0, onSurface = 0;
    for (int i = 0; i < 2000; ++i) {
      const int32_t face = surface.randomFace();
      const Eigen::Vector3f point = surface.randomPointOnFace(face);
      const Eigen::Vector3f normal = surface.faceNormals.row(face).transpose();
      if (!surface.sensorFits(point, normal)) continue;
      ++fits;
      onSurface += surface.isOnSurface(point, normal) ? 1 : 0;
    }
    EXPECT_GE(fits, 1600);
    EXPECT_GE(onSurface, 0.9 * fits);
  }
}

}  // namespace
}  // namespace sensorlay
