// Random sensor placements on a TrackedSurface. The order of the draws is
// part of the behaviour: it fixes what a given seed yields.

#include <Eigen/Geometry>

#include <algorithm>
#include <cmath>
#include <ostream>

#include "common/files.h"
#include "common/random_draws.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

// After this many fruitless attempts in one call the user is told once that
// the sensor may fit nowhere; the search itself goes on.
constexpr uint64_t kAttemptsBeforeWarning = 100000;

}  // namespace

int32_t TrackedSurface::randomFace() {
  const double x = drawDouble(generator, areaLow, areaHigh);
  if (cumulativeAreas.empty()) return 0;
  // The first running sum strictly above x: a triangle of zero area repeats
  // its predecessor's sum and can never be chosen.
  auto it = std::upper_bound(cumulativeAreas.begin(), cumulativeAreas.end(), x);
  // A draw can round up to the total itself; it then belongs to the last
  // triangle of non-zero area.
  if (it == cumulativeAreas.end())
    it = std::lower_bound(cumulativeAreas.begin(), cumulativeAreas.end(), cumulativeAreas.back());
  return static_cast<int32_t>(it - cumulativeAreas.begin());
}

Eigen::Vector3f TrackedSurface::randomPointOnFace(int32_t face) {
  float u = drawUnitFloat(generator);
  float v = drawUnitFloat(generator);
  if (u + v >= 1.0f) {
    u = 1.0f - u;
    v = 1.0f - v;
  }
  const Eigen::Vector3f a = vertices.row(faces(face, 0)).transpose();
  const Eigen::Vector3f b = vertices.row(faces(face, 1)).transpose();
  const Eigen::Vector3f c = vertices.row(faces(face, 2)).transpose();
  return a + (b - a) * u + (c - a) * v;
}

Eigen::Vector3f TrackedSurface::randomNormalOnFace(int32_t face) {
  const Eigen::Vector3f n = faceNormals.row(face).transpose();
  const float c = cosMaxSurfaceAngle;
  if (!(c < 1.0f)) return n;
  Eigen::Vector3f t1, t2;
  tangentFrame(n, t1, t2);
  const float u1 = drawUnitFloat(generator);
  const float u2 = drawUnitFloat(generator);
  // z uniform in [c, 1] is a uniform direction on the cap around n.
  const float z = (1.0f - c) * u1 + c;
  const float s = std::sqrt(1.0f - z * z);
  const float phi = u2 * 6.2831855f;
  Eigen::Vector3f result = t2 * s * std::sin(phi) + t1 * s * std::cos(phi) + n * z;
  const float length = result.norm();
  if (length > 0.0f) result /= length;
  return result;
}

void TrackedSurface::noteFruitlessAttempt(uint64_t attempts) {
  if (attempts != kAttemptsBeforeWarning || warnedNoRoom) return;
  warnedNoRoom = true;
  if (notices == nullptr) return;
  *notices << "WARNING: no room found for a sensor of size " << sensorSize << " on \"" << printablePath(sensorsPath)
           << "\" in " << kAttemptsBeforeWarning << " attempts"
           << (normalsAllZero ? ": all normals of the surface are zero" : "") << "; still searching" << std::endl;
}

bool TrackedSurface::randomPlacement(Eigen::Vector3f& point, Eigen::Vector3f& normal) {
  for (uint64_t attempts = 0;; ++attempts) {
    noteFruitlessAttempt(attempts);
    const int32_t face = randomFace();
    point = randomPointOnFace(face);
    normal = randomNormalOnFace(face);
    if (sensorFits(point, normal)) return true;
  }
}

bool TrackedSurface::randomPlacementFacing(Eigen::Vector3f& point, Eigen::Vector3f& normal, float minCos) {
  const Eigen::Vector3f given = normal;
  float bestCos = -2.0f;
  int tries = 20;
  Eigen::Vector3f bestPoint = point, bestNormal = normal;
  uint64_t attemptsWithoutKeep = 0;
  for (;;) {
    if (bestCos >= -1.0f && tries < 1) break;
    if (bestCos < -1.0f) noteFruitlessAttempt(attemptsWithoutKeep++);
    const int32_t face = randomFace();
    const Eigen::Vector3f m = faceNormals.row(face).transpose();
    const float k = given.dot(m);
    // The cheap test first; a face turned too far away costs no ray.
    if (!(k >= minCos) && !(k >= bestCos)) continue;
    point = randomPointOnFace(face);
    // Room is tested with the face's own normal, not the tilted result.
    if (!sensorFits(point, m)) continue;
    --tries;
    if (k > minCos) {
      normal = randomNormalOnFace(face);
      return true;
    }
    if (k > bestCos) {
      bestPoint = point;
      bestNormal = randomNormalOnFace(face);
      bestCos = k;
    }
  }
  point = bestPoint;
  normal = bestNormal;
  return true;
}

}  // namespace sensorlay
