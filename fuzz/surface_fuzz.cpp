// The tracked surface built from fuzzed STL files, surface and obstacle, and
// every ray query on it: a free ray, and drawn placements put to sensorFits,
// isOnSurface and isSensorVisible. Coordinates reach the whole float range,
// not-a-number and infinities included; nothing may reach the ray caster
// that it cannot take, and the area table must stay usable.

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/input_file.h"
#include "fuzz/surface_query.h"
#include "model/constellation.h"
#include "surface/tracked_surface.h"
#include "surface/visibility.h"

namespace {

using sensorlay::SurfaceBuild;
using sensorlay::TrackedSurface;

void check(bool good) {
  if (!good) std::abort();
}

void checkBuild(const TrackedSurface& surface) {
  for (Eigen::Index i = 0; i < surface.vertices.size(); ++i) check(std::isfinite(surface.vertices.data()[i]));
  double previous = 0.0;
  for (double sum : surface.cumulativeAreas) {
    check(std::isfinite(sum) && sum >= previous);
    previous = sum;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  static const fuzz::InputFile surfaceFile("surface.stl");
  static const fuzz::InputFile obstacleFile("obstacle.stl");

  const fuzz::SurfaceQuery query = fuzz::readSurfaceQuery(data, size);
  const size_t offset = sizeof(fuzz::SurfaceQuery);
  const size_t rest = size > offset ? size - offset : 0;
  const size_t surfaceBytes = query.surfaceBytes < rest ? query.surfaceBytes : rest;
  surfaceFile.write(data + offset, surfaceBytes);
  std::vector<std::string> obstacles;
  if (query.flags & fuzz::kWithObstacle) {
    obstacleFile.write(data + offset + surfaceBytes, rest - surfaceBytes);
    obstacles.push_back(obstacleFile.path());
  }

  SurfaceBuild build;
  build.zeroNormalsFromWinding = (query.flags & fuzz::kNormalsFromWinding) != 0;
  TrackedSurface surface(surfaceFile.path(), obstacles, build);
  if (surface.faceCount() == 0) return 0;
  checkBuild(surface);
  surface.seedGenerator(query.seed);
  surface.setSensorSize(query.sensorSize);
  surface.setMaxSurfaceAngle(query.maxSurfaceAngle);

  surface.castRay(Eigen::Vector3f(query.origin), Eigen::Vector3f(query.direction), query.tNear, query.tFar);

  // A few drawn placements, each put to every query. randomPlacement itself
  // would search for ever on a surface where nothing fits.
  Constellation sensors;
  sensors.valid = true;
  for (int32_t k = 0; k < 4; ++k) {
    const int32_t face = surface.randomFace();
    check(face >= 0 && static_cast<uint32_t>(face) < surface.faceCount());
    const Eigen::Vector3f point = surface.randomPointOnFace(face);
    const Eigen::Vector3f normal = surface.randomNormalOnFace(face);
    const Eigen::Vector3f faceNormal = surface.faceNormals.row(face).transpose();
    surface.sensorFits(point, normal);
    surface.sensorFits(point, faceNormal);
    surface.isOnSurface(point, normal);
    sensors.channelMap.push_back(k);
    sensors.modelPoints.push_back(point);
    sensors.modelNormals.push_back(normal);
  }
  SensorModel model(sensors, ModelTransform());
  StationPose pose;
  for (int i = 0; i < 3; ++i) pose.position[i] = query.pose[i];
  for (int i = 0; i < 4; ++i) pose.quaternion[i] = query.pose[3 + i];
  for (int32_t k = 0; k < static_cast<int32_t>(model.sensorCount()); ++k) {
    const SensorVisibilityTest test{&model, k, &surface};
    isSensorVisible(test, pose);
  }
  return 0;
}
