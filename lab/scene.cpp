#include "lab/scene.h"

#include <Eigen/Geometry>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "common/rotation.h"
#include "device/model_loading.h"
#include "quality/coverage_evaluator.h"
#include "search/annealer.h"

namespace sensorlay::lab {

namespace {

// The device stands this far in front of the station, as in the analysis.
constexpr double kStationDistance = 2.0;

std::string millimetres(double metres) {
  std::ostringstream text;
  text.precision(3);
  text << metres * 1000.0 << " mm";
  return text.str();
}

// The closest point of triangle abc to p, by the regions of its Voronoi
// diagram.
Eigen::Vector3d closestOnTriangle(const Eigen::Vector3d& p, const Eigen::Vector3d& a, const Eigen::Vector3d& b,
                                  const Eigen::Vector3d& c) {
  const Eigen::Vector3d ab = b - a, ac = c - a, ap = p - a;
  const double d1 = ab.dot(ap), d2 = ac.dot(ap);
  if (d1 <= 0 && d2 <= 0) return a;
  const Eigen::Vector3d bp = p - b;
  const double d3 = ab.dot(bp), d4 = ac.dot(bp);
  if (d3 >= 0 && d4 <= d3) return b;
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0 && d1 >= 0 && d3 <= 0) return a + ab * (d1 / (d1 - d3));
  const Eigen::Vector3d cp = p - c;
  const double d5 = ab.dot(cp), d6 = ac.dot(cp);
  if (d6 >= 0 && d5 <= d6) return c;
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0 && d2 >= 0 && d6 <= 0) return a + ac * (d2 / (d2 - d6));
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
  const double denominator = 1.0 / (va + vb + vc);
  return a + ab * (vb * denominator) + ac * (vc * denominator);
}

}  // namespace

Result<Scene> buildScene(const MeshInputs& inputs) {
  SurfaceBuild build;
  build.scale = metresPer(inputs.units);
  build.obstacleScale = metresPer(inputs.obstacleUnits);
  build.zeroNormalsFromWinding = true;
  Scene scene;
  scene.surface = std::make_unique<TrackedSurface>(inputs.sensors, inputs.obstacles, build);
  TrackedSurface& surface = *scene.surface;
  if (surface.faceCount() == 0) {
    if (!surface.loadProblem.empty()) return Status::failure(surface.loadProblem);
    return Status::failure(inputs.sensors + ": the surface holds no triangles");
  }
  surface.setSensorSize(inputs.sensorSizeMm * 0.001);
  if (surface.normalsFromWinding > 0)
    scene.notes.push_back(std::to_string(surface.normalsFromWinding) + " of the " +
                          std::to_string(surface.faceCount()) + " triangles of " + inputs.sensors +
                          " have a zero normal; each was given the normal of its triangle as wound");

  const Eigen::RowVector3f extent = surface.vertices.colwise().maxCoeff() - surface.vertices.colwise().minCoeff();
  const double across = extent.cast<double>().norm();
  if (inputs.sensorSizeMm * 0.001 > across)
    return Status::failure("a sensor of " + millimetres(inputs.sensorSizeMm * 0.001) + " is larger than the surface " +
                           inputs.sensors + ", " + millimetres(across) +
                           " across its bounding box (check --sensor-size and --units)");
  return scene;
}

Result<std::unique_ptr<SensorModel>> loadModel(const std::string& path, bool emptyAllowed) {
  Result<std::unique_ptr<SensorModel>> loaded = loadSensorModel(path);
  if (!loaded) return loaded.status();
  const SensorModel& model = **loaded;
  if (model.sensorCount() == 0 && !emptyAllowed)
    return Status::failure(path + ": the model holds no sensors (channelMap, modelPoints and modelNormals)");
  if (const std::string problem = reportModelProblem(model); !problem.empty())
    return Status::failure(path + ": " + problem);
  for (size_t i = 0; i < model.sensorCount(); ++i)
    if (!model.points[i].allFinite() || !model.normals[i].allFinite() || model.normals[i].norm() == 0.0)
      return Status::failure(path + ": sensor " + std::to_string(i) + " has no usable position or normal");
  return loaded;
}

double distanceToSurface(const TrackedSurface& surface, const Eigen::Vector3d& point) {
  double best = INFINITY;
  for (Eigen::Index f = 0; f < surface.faces.rows(); ++f) {
    const Eigen::Vector3d a = surface.vertices.row(surface.faces(f, 0)).transpose().cast<double>();
    const Eigen::Vector3d b = surface.vertices.row(surface.faces(f, 1)).transpose().cast<double>();
    const Eigen::Vector3d c = surface.vertices.row(surface.faces(f, 2)).transpose().cast<double>();
    best = std::min(best, (closestOnTriangle(point, a, b, c) - point).squaredNorm());
  }
  return std::sqrt(best);
}

std::optional<std::string> offSurfaceNote(const TrackedSurface& surface, const SensorModel& model,
                                          const std::string& modelPath) {
  size_t off = 0;
  double farthest = 0.0;
  for (size_t i = 0; i < model.sensorCount(); ++i) {
    if (surface.isOnSurface(model.points[i].cast<float>(), model.normals[i].cast<float>())) continue;
    ++off;
    farthest = std::max(farthest, distanceToSurface(surface, model.points[i]));
  }
  if (off == 0) return std::nullopt;
  return std::to_string(off) + " of the " + std::to_string(model.sensorCount()) + " sensors of " + modelPath +
         " are not on the surface " + surface.getSensorsPath() + " (the farthest is " + millimetres(farthest) +
         " from it): is the model of another device, or in other units?";
}

Result<QualityMap> loadWeights(const DesignSettings& settings) {
  Result<QualityMap> map = QualityMap::load(settings.qualityMap);
  if (!map) return map;
  std::optional<double> normalization;
  const auto samples = sampleOrientations(settings.orientations, *map, normalization);
  if (!samples) return samples.status();
  if (!normalization)
    return Status::failure("the quality map " + settings.qualityMap + " gives all " +
                           std::to_string(settings.orientations) +
                           " sampled directions the weight 0 (black): every placement would score 0");
  return map;
}

Result<double> designScore(const Scene& scene, SensorModel& model, const DesignSettings& settings,
                           const QualityMap& map) {
  model.cosMaxIncidence =
      std::cos(searchIncidenceDegrees(settings.maxIncidenceDegrees, settings.orientations) * kRadiansPerDegree);
  // In the order the search sets its evaluator up.
  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.rebuildObservations();
  evaluator.surface = scene.surface.get();
  evaluator.rebuildObservations();
  evaluator.qualityMap = map;
  if (const auto sampled = evaluator.sampleOrientations(settings.orientations); !sampled) return sampled.status();
  if (hasQualityRange(settings))
    evaluator.setQualityRange(*settings.qualityLowMm * 0.001, *settings.qualityHighMm * 0.001);
  evaluator.score.unseenCost = settings.unseenCost;
  return evaluator.scorePlacement();
}

void setUpTableEvaluator(CoverageEvaluator& evaluator, const Scene& scene, SensorModel& model,
                         const DesignSettings& settings) {
  model.cosMaxIncidence = std::cos(degreesToRadians(settings.maxIncidenceDegrees));
  evaluator.model = &model;
  evaluator.rebuildObservations();
  evaluator.surface = scene.surface.get();
  evaluator.rebuildObservations();
  evaluator.position = Eigen::Vector3d(0.0, 0.0, -kStationDistance);
}

Result<CoverageSummary> coverageOf(const Scene& scene, SensorModel& model, const DesignSettings& settings,
                                   WorkerPool& pool) {
  CoverageEvaluator evaluator;
  setUpTableEvaluator(evaluator, scene, model, settings);
  return summarizeModelCoverage(evaluator, settings.coverageStepDegrees, pool);
}

}  // namespace sensorlay::lab
