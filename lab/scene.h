#pragma once
// The device as the lab's score and design see it: the surface built in the
// units asked for, with zero normals taken from the winding; the model held
// against it; and the design score and the coverage summary, computed the same
// way for a design and for a model given to `score`.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "lab/settings.h"
#include "model/constellation.h"
#include "quality/quality_map.h"
#include "reports/coverage_summary.h"
#include "surface/tracked_surface.h"

namespace sensorlay {
class CoverageEvaluator;
class WorkerPool;
}  // namespace sensorlay

namespace sensorlay::lab {

struct Scene {
  std::unique_ptr<TrackedSurface> surface;
  // One line each on what the build changed or found, for the user.
  std::vector<std::string> notes;
};

// Builds the surface of `inputs`. Fails, naming the file, on a file that
// cannot be read or holds no triangles, and on a sensor larger than the
// surface.
Result<Scene> buildScene(const MeshInputs& inputs);

// The sensors of a model file, held to what the score and the tables take. A
// model without sensors fails unless `emptyAllowed`.
Result<std::unique_ptr<SensorModel>> loadModel(const std::string& path, bool emptyAllowed = false);

// One line when sensors of the model lie off the surface: how many, and how
// far the farthest is from it.
std::optional<std::string> offSurfaceNote(const TrackedSurface& surface, const SensorModel& model,
                                          const std::string& modelPath);

// The distance from `point` to the nearest triangle of the surface, metres.
double distanceToSurface(const TrackedSurface& surface, const Eigen::Vector3d& point);

// The quality map of the settings (empty without one). Fails, saying which,
// when it cannot be read or gives every sampled orientation the weight 0.
Result<QualityMap> loadWeights(const DesignSettings& settings);

// The design score of the model: the search's own computation, over the
// settings' orientations weighted by `map`, with the search's incidence
// bound.
Result<double> designScore(const Scene& scene, SensorModel& model, const DesignSettings& settings,
                           const QualityMap& map);

// Sets the evaluator up as the analysis table has it for the model: the
// table's incidence limit, the device 2 m from the station.
void setUpTableEvaluator(CoverageEvaluator& evaluator, const Scene& scene, SensorModel& model,
                         const DesignSettings& settings);

// The coverage summary of the model on the table's evaluator.
Result<CoverageSummary> coverageOf(const Scene& scene, SensorModel& model, const DesignSettings& settings,
                                   WorkerPool& pool);

}  // namespace sensorlay::lab
