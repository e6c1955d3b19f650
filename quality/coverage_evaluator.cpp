#include "quality/coverage_evaluator.h"

#include <utility>

namespace sensorlay {

CoverageEvaluator::CoverageEvaluator() = default;

CoverageEvaluator::~CoverageEvaluator() = default;

void CoverageEvaluator::rebuildObservations() {
  observations.reset();
  observations = makeObservationSet(model, surface, stationConfig);
}

Status CoverageEvaluator::loadQualityMap(const std::string& path) {
  qualityMap = QualityMap();
  Result<QualityMap> loaded = QualityMap::load(path);
  if (!loaded) return loaded.status();
  qualityMap = std::move(*loaded);
  return Status();
}

}  // namespace sensorlay
