#pragma once
// Evaluators for the tests of the samples, the score and the tables. Header only.

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "quality/coverage_evaluator.h"
#include "tests/support/sensor_models.h"

namespace sensorlay::testing {

// Gives the evaluator the model and the surface, rebuilding as the annealer does.
inline void attach(CoverageEvaluator& evaluator, SensorModel* model, const TrackedSurface* surface = nullptr) {
  evaluator.model = model;
  evaluator.rebuildObservations();
  evaluator.surface = surface;
  evaluator.rebuildObservations();
}

}  // namespace sensorlay::testing
