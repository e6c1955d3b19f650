#pragma once
// Fresh scores for the tests of the score and the search. Header only.

#include "tests/support/quality_fixtures.h"

namespace sensorlay::testing {

// The score of the model on the surface (if any) over `orientations` samples,
// as a fresh evaluator computes it.
inline double freshScore(SensorModel* model, const TrackedSurface* surface, int32_t orientations) {
  CoverageEvaluator evaluator;
  attach(evaluator, model, surface);
  evaluator.sampleOrientations(orientations);
  return evaluator.scorePlacement();
}

}  // namespace sensorlay::testing
