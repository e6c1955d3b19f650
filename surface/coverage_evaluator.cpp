#include "surface/coverage_evaluator.h"

namespace sensorlay {

CoverageEvaluator::CoverageEvaluator() = default;
CoverageEvaluator::~CoverageEvaluator() = default;

}  // namespace sensorlay
