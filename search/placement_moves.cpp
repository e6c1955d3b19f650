// Where the sensors start and how one of them moves during the search. All
// positions come from the surface's placement draws, so every placement made
// here fits the sensor's footprint and honours the surface angle limit.

#include <cmath>
#include <sstream>

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

// Whether `point` keeps `spacing` (metres) from the first `count` sensors of
// the model other than `skip`. In double precision, so that the written
// model, read back, shows the same distances.
bool keepsSpacing(const SensorModel& model, size_t count, size_t skip, const Eigen::Vector3f& point, double spacing) {
  const Eigen::Vector3d p = point.cast<double>();
  for (size_t j = 0; j < count; ++j)
    if (j != skip && (model.points[j] - p).squaredNorm() < spacing * spacing) return false;
  return true;
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

Status placeInitialSensors(const AnnealerOptions& options, SensorModel& model) {
  const size_t count = model.points.size();
  if (model.immutableCount >= count) return Status();

  TrackedSurface& surface = options.surface;
  const bool spaced = options.minSpacing > 0.0;
  Eigen::Vector3f point = Eigen::Vector3f::Zero(), normal = Eigen::Vector3f::Zero();
  Eigen::Vector3f keptPoint = point, keptNormal = normal;
  for (size_t i = model.immutableCount; i < count; ++i) {
    double bestDistance = 0.0;
    bool kept = false;
    int missed = 0;
    for (int candidate = 0; candidate < candidatesPerSensor; ++candidate) {
      surface.randomPlacement(point, normal);
      if (spaced && !keepsSpacing(model, i, i, point, options.minSpacing)) {
        // A draw too close to an earlier sensor is no candidate. Once the
        // draws run out, the candidates found so far have to do.
        if (++missed >= kSpacingDraws) {
          if (!kept) {
            std::ostringstream why;
            why << "no place for sensor " << i + 1 << " of " << count << " keeps " << options.minSpacing * 1000.0
                << " mm from the sensors before it in " << kSpacingDraws
                << " draws: the spacing cannot be kept on this surface";
            return Status::failure(why.str());
          }
          break;
        }
        --candidate;
        continue;
      }
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
  return Status();
}

void Annealer::moveSensor(Eigen::Vector3f& point, Eigen::Vector3f& normal, double T) {
  if (!(minSpacing > 0.0)) return drawMove(point, normal, T);
  // The whole move is drawn again while it lands too close to another
  // sensor. The present place keeps the spacing, so a sensor that finds no
  // other stays there.
  const Eigen::Vector3f fromPoint = point, fromNormal = normal;
  const size_t count = model->points.size();
  for (int draw = 0; draw < kSpacingDraws; ++draw) {
    point = fromPoint;
    normal = fromNormal;
    drawMove(point, normal, T);
    if (keepsSpacing(*model, count, static_cast<size_t>(pickedSensor), point, minSpacing)) return;
  }
  point = fromPoint;
  normal = fromNormal;
}

void Annealer::drawMove(Eigen::Vector3f& point, Eigen::Vector3f& normal, double T) {
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
