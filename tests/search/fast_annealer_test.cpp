// The search on the fast score: the same trials, kept and put back in the
// same order, the same best placement and score as on the reference score;
// the same on one thread and on two; and no allocation from trial to trial.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "quality/fast_score.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"
#include "surface/worker_pool.h"
#include "tests/support/allocation_counter.h"

namespace sensorlay {
namespace {

const std::string kSamples = std::string(SENSORLAY_SOURCE_DIR) + "/samples/";

struct ThreadCount {
  explicit ThreadCount(int threads) { setDefaultThreadCount(threads); }
  ~ThreadCount() { setDefaultThreadCount(0); }
};

struct Trial {
  int32_t sensor;
  double score;
  bool accepted;
};

struct Design {
  std::vector<Trial> trials;
  Constellation best;
  double bestScore = 0.0;
  std::string progress;  // the standard error stream of the run
};

// A short design on the headset with the head in the way, with fixed seeds
// for the surface's draws and the trial generator.
Design design(bool reference, int32_t iterations = 1, double coolingRate = 0.7) {
  TrackedSurface surface(kSamples + "headset.stl", {kSamples + "headset_head.stl"});
  surface.seedGenerator(21);
  auto model = makeEmptySensorModel(20);
  model->cosMaxIncidence = std::cos(59.0 * 0.017453292519943295);
  placeInitialSensors(AnnealerOptions(surface, 20), *model);
  Design out;
  ::testing::internal::CaptureStderr();
  Annealer annealer(*model, surface, "", iterations, 200, coolingRate, -1.0, -1.0, 5u);
  annealer.useReferenceScore = reference;
  annealer.trialObserver = [&out](int32_t sensor, double score, bool accepted) {
    out.trials.push_back({sensor, score, accepted});
  };
  annealer.anneal(out.best);
  out.progress = ::testing::internal::GetCapturedStderr();
  out.bestScore = annealer.bestScore;
  return out;
}

TEST(FastAnnealer, SameSearchAsOnTheReferenceScore) {
  const Design fast = design(false), slow = design(true);
  ASSERT_EQ(fast.trials.size(), slow.trials.size());
  ASSERT_GT(fast.trials.size(), 400u);
  int kept = 0;
  for (size_t i = 0; i < fast.trials.size(); ++i) {
    ASSERT_EQ(fast.trials[i].sensor, slow.trials[i].sensor) << i;
    ASSERT_EQ(fast.trials[i].accepted, slow.trials[i].accepted) << i;
    ASSERT_NEAR(fast.trials[i].score, slow.trials[i].score, 1e-9 * slow.trials[i].score) << i;
    kept += fast.trials[i].accepted ? 1 : 0;
  }
  // Both kinds of outcome, and improvements on the way.
  EXPECT_GT(kept, 20);
  EXPECT_LT(kept, static_cast<int>(fast.trials.size()) - 20);
  EXPECT_EQ(fast.best.modelPoints, slow.best.modelPoints);
  EXPECT_EQ(fast.best.modelNormals, slow.best.modelNormals);
  // The score reported is scorePlacement's own for the best placement.
  EXPECT_EQ(fast.bestScore, slow.bestScore);
  EXPECT_EQ(fast.progress, slow.progress);
  EXPECT_NE(fast.progress.find('('), std::string::npos);
}

TEST(FastAnnealer, SameSearchOnOneThreadAndOnTwo) {
  Design runs[2];
  for (int threads : {1, 2}) {
    ThreadCount count(threads);
    runs[threads - 1] = design(false);
  }
  ASSERT_EQ(runs[0].trials.size(), runs[1].trials.size());
  for (size_t i = 0; i < runs[0].trials.size(); ++i) {
    EXPECT_EQ(runs[0].trials[i].sensor, runs[1].trials[i].sensor) << i;
    EXPECT_EQ(runs[0].trials[i].score, runs[1].trials[i].score) << i;
    EXPECT_EQ(runs[0].trials[i].accepted, runs[1].trials[i].accepted) << i;
  }
  EXPECT_EQ(runs[0].best.modelPoints, runs[1].best.modelPoints);
  EXPECT_EQ(runs[0].bestScore, runs[1].bestScore);
}

TEST(FastAnnealer, TheOptionReachesTheSearch) {
  // Through runAnnealer: the reference switch gives the same progress text
  // and placement.
  std::string progress[2];
  Constellation results[2];
  for (int reference : {0, 1}) {
    TrackedSurface surface(kSamples + "controller.stl", {});
    surface.seedGenerator(4);
    AnnealerOptions options(surface, 8);
    options.nOrientations = 150;
    options.nIterations = 1;
    options.coolingRate = 0.6;
    options.annealSeed = 9;
    options.useReferenceScore = reference == 1;
    ::testing::internal::CaptureStderr();
    runAnnealer(options, results[reference]);
    progress[reference] = ::testing::internal::GetCapturedStderr();
  }
  EXPECT_EQ(progress[0], progress[1]);
  EXPECT_EQ(results[0].modelPoints, results[1].modelPoints);
  EXPECT_NE(progress[0].find('('), std::string::npos);
}

TEST(FastAnnealer, TrialsAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "no allocation count under a sanitizer";
  ASSERT_GT(testing::countAllocations([] { delete new std::vector<int>(100); }), 0);  // the counter works

  ThreadCount count(2);
  defaultWorkerPool();
  TrackedSurface surface(kSamples + "headset.stl", {kSamples + "headset_head.stl"});
  surface.seedGenerator(2);
  auto model = makeEmptySensorModel(20);
  model->cosMaxIncidence = 0.5;
  placeInitialSensors(AnnealerOptions(surface, 20), *model);
  ::testing::internal::CaptureStderr();
  Annealer annealer(*model, surface, "", 1, 300, 0.5, -1.0, -1.0, 3u);
  ::testing::internal::GetCapturedStderr();

  // The scorer's trials, once it is set up.
  FastScorer scorer(annealer.evaluator);
  scorer.scoreAll();
  testing::startCountingAllocations();
  for (int i = 0; i < 300; ++i) {
    const int32_t k = i % 20;
    const Eigen::Vector3d point = model->points[k], normal = model->normals[k];
    Eigen::Vector3f p = point.cast<float>(), n = normal.cast<float>();
    annealer.moveSensor(p, n, 10.0);
    model->points[k] = p.cast<double>();
    model->normals[k] = n.cast<double>();
    scorer.scoreMove(k);
    if (i % 2 == 0) {
      scorer.accept();
    } else {
      model->points[k] = point;
      model->normals[k] = normal;
      scorer.reject();
    }
  }
  EXPECT_EQ(testing::stopCountingAllocations(), 0);

  // A whole search: the allocations of its set-up, the same however many
  // trials follow.
  long perRun[2];
  for (int iterations : {1, 4}) {
    ::testing::internal::CaptureStderr();
    Annealer search(*model, surface, "", iterations, 300, 0.5, -1.0, -1.0, 3u);
    Constellation result;
    perRun[iterations == 1 ? 0 : 1] = testing::countAllocations([&] { search.anneal(result); });
    ::testing::internal::GetCapturedStderr();
  }
  EXPECT_EQ(perRun[0], perRun[1]);
}

}  // namespace
}  // namespace sensorlay
