#pragma once
// Scores taken quietly and thread counts set for a test, for the tests of the
// score, the search and the tables. Header only.

#include <gtest/gtest.h>

#include "common/worker_pool.h"
#include "tests/support/quality_fixtures.h"

namespace sensorlay::testing {

// Lays the orientation samples without the normalisation line on stderr.
inline void quietSamples(CoverageEvaluator& evaluator, int32_t count) {
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(count);
  ::testing::internal::GetCapturedStderr();
}

// The score of the model on the surface (if any) over `orientations` samples,
// as a fresh evaluator computes it.
inline double freshScore(SensorModel* model, const TrackedSurface* surface, int32_t orientations) {
  CoverageEvaluator evaluator;
  attach(evaluator, model, surface);
  quietSamples(evaluator, orientations);
  return evaluator.scorePlacement();
}

// Sets the default thread count for the life of the object.
struct ThreadCount {
  explicit ThreadCount(int threads) { setDefaultThreadCount(threads); }
  ~ThreadCount() { setDefaultThreadCount(0); }
};

}  // namespace sensorlay::testing
