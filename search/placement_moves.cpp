// Where the sensors start and how one of them moves during the search. All
// positions come from the surface's placement draws, so every placement made
// here fits the sensor's footprint and honours the surface angle limit.

#include <cmath>

#include "common/random_draws.h"
#include "search/annealer.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

constexpr int candidatesPerSensor = 20;
constexpr double startingNearestDistance = 9999.0;
constexpr double unrestrictedMoveShare = 0.1;

// Distance in single precision, the width in which positions are drawn.
float singleDistance(const Eigen::Vector3f& a, const Eigen::Vector3d& b) {
  const Eigen::Vector3f bf = b.cast<float>();
  const float dx = a.x() - bf.x();
  const float dy = a.y() - bf.y();
  const float dz = a.z() - bf.z();
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

}  // namespace

std::unique_ptr<SensorModel> makeEmptySensorModel(int32_t count) {
  Constellation constellation;
  constellation.valid = true;
  for (int32_t i = 0; i < count; ++i) {
    constellation.channelMap.push_back(i);
    constellation.modelPoints.push_back(Eigen::Vector3f::Zero());
    constellation.modelNormals.push_back(Eigen::Vector3f::Zero());
  }
  auto model = std::make_unique<SensorModel>(constellation, ModelTransform());
  model->immutableCount = 0;
  return model;
}

void placeInitialSensors(const AnnealerOptions& options, SensorModel& model) {
  const size_t count = model.points.size();
  if (model.immutableCount >= count) return;

  TrackedSurface& surface = options.surface;
  Eigen::Vector3f point = Eigen::Vector3f::Zero(), normal = Eigen::Vector3f::Zero();
  Eigen::Vector3f keptPoint = point, keptNormal = normal;
  for (size_t i = model.immutableCount; i < count; ++i) {
    double bestDistance = 0.0;
    bool kept = false;
    for (int candidate = 0; candidate < candidatesPerSensor; ++candidate) {
      surface.randomPlacement(point, normal);
      double nearest = startingNearestDistance;
      for (size_t j = 0; j < i; ++j) {
        const float distance = singleDistance(point, model.points[j]);
        if (static_cast<double>(distance) < nearest) nearest = distance;
      }
      if (nearest > bestDistance) {
        keptPoint = point;
        keptNormal = normal;
        bestDistance = nearest;
        kept = true;
      }
    }
    // Every candidate sat exactly on an earlier sensor: the last one drawn
    // is as good as any, and it is a position that fits.
    if (!kept) {
      keptPoint = point;
      keptNormal = normal;
    }
    model.points[i] = keptPoint.cast<double>();
    model.normals[i] = keptNormal.cast<double>();
  }
}

void Annealer::moveSensor(Eigen::Vector3f& point, Eigen::Vector3f& normal, double T) {
  const double m = drawUnitDouble(rng) * (moveDrawHigh - moveDrawLow) + moveDrawLow;
  if (m > unrestrictedMoveShare) {
    // Facing move: only faces turned less than arccos(minCos) from the
    // present normal; the cone closes from no limit at the start
    // temperature towards about 16 degrees as T falls.
    const float minCos = static_cast<float>(1.96 - std::pow(3.0, T * inverseStartTemperature));
    surface->randomPlacementFacing(point, normal, minCos);
  } else {
    surface->randomPlacement(point, normal);
  }
}

}  // namespace sensorlay
