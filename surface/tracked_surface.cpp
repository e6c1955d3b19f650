#include "surface/tracked_surface.h"

#include <Eigen/Geometry>

#include <cmath>

#include "common/random_draws.h"
#include "common/rotation.h"
#include "surface/ray_scene.h"
#include "surface/stl_reader.h"

namespace sensorlay {

TrackedSurface::TrackedSurface(const std::string& sensorsPath_, const std::vector<std::string>& obstaclePaths_,
                               const SurfaceBuild& build)
    : sensorsPath(sensorsPath_), obstaclePaths(obstaclePaths_) {
  if (Status read = readStl(sensorsPath, vertices, faces, faceNormals); !read) {
    loadProblem = read.message();
    return;
  }
  if (vertices.size() == 0 || faces.size() == 0 || faceNormals.size() == 0) return;

  // Units follow from the size alone: a bounding-box diagonal of 5 or more
  // can only be millimetres for a hand-held device.
  const Eigen::RowVector3f extent = vertices.colwise().maxCoeff() - vertices.colwise().minCoeff();
  const float diagonal = std::sqrt(extent(0) * extent(0) + extent(1) * extent(1) + extent(2) * extent(2));
  scale = build.scale ? *build.scale : diagonal >= 5.0f ? 0.001 : 1.0;
  const float scaleF = static_cast<float>(scale);
  vertices *= scaleF;

  if (build.zeroNormalsFromWinding)
    for (Eigen::Index f = 0; f < faceNormals.rows(); ++f) {
      if (faceNormals(f, 0) != 0.0f || faceNormals(f, 1) != 0.0f || faceNormals(f, 2) != 0.0f) continue;
      const Eigen::Vector3f a = vertices.row(faces(f, 0)).transpose();
      const Eigen::Vector3f wound =
          (Eigen::Vector3f(vertices.row(faces(f, 1))) - a).cross(Eigen::Vector3f(vertices.row(faces(f, 2))) - a);
      // A triangle without area has no winding either; it is never drawn.
      if (wound.squaredNorm() == 0.0f) continue;
      faceNormals.row(f) = wound.transpose();
      ++normalsFromWinding;
    }

  // No guard on purpose: a zero file normal becomes not-a-number, and such a
  // triangle can never pass the ray tests.
  for (Eigen::Index f = 0; f < faceNormals.rows(); ++f) {
    const float x = faceNormals(f, 0), y = faceNormals(f, 1), z = faceNormals(f, 2);
    const float length = std::sqrt(x * x + y * y + z * z);
    faceNormals(f, 0) = x / length;
    faceNormals(f, 1) = y / length;
    faceNormals(f, 2) = z / length;
  }

  totalArea = 0.0;
  normalsAllZero = true;
  cumulativeAreas.reserve(static_cast<size_t>(faces.rows()));
  for (Eigen::Index f = 0; f < faces.rows(); ++f) {
    const Eigen::Vector3f a = vertices.row(faces(f, 0)).transpose();
    const Eigen::Vector3f b = vertices.row(faces(f, 1)).transpose();
    const Eigen::Vector3f c = vertices.row(faces(f, 2)).transpose();
    const Eigen::Vector3f cross = (b - a).cross(c - a);
    const float length = std::sqrt(cross.x() * cross.x() + cross.y() * cross.y() + cross.z() * cross.z());
    totalArea += static_cast<double>(length) * 0.5;
    cumulativeAreas.push_back(totalArea);
    if (length > 0.0f && faceNormals.row(f).allFinite()) normalsAllZero = false;
  }
  areaLow = 0.0;
  areaHigh = totalArea;

  // The obstacles are read one file after another, each kept as it stands:
  // the scene takes them in the order given, behind the surface, and copies
  // each once. Obstacles are never measured: they share the surface's unit
  // unless the build names theirs.
  const float obstacleScale = build.obstacleScale ? static_cast<float>(*build.obstacleScale) : scaleF;
  std::vector<StlVertices> obstacleVertices(obstaclePaths.size());
  std::vector<StlFaces> obstacleFaces(obstaclePaths.size());
  std::vector<RayMesh> meshes = {{&vertices, &faces}};
  for (size_t i = 0; i < obstaclePaths.size(); ++i) {
    StlVertices normals;
    if (Status read = readStl(obstaclePaths[i], obstacleVertices[i], obstacleFaces[i], normals); !read) {
      loadProblem = read.message();
      faces.resize(0, 3);
      return;
    }
    obstacleVertices[i] *= obstacleScale;
    meshes.push_back({&obstacleVertices[i], &obstacleFaces[i]});
  }
  scene = std::make_unique<RayScene>(meshes);
  // Without rays every test would pass silently; the library has said why.
  if (!scene->valid()) {
    faces.resize(0, 3);
    return;
  }

  generator.seed(clockSeed());
}

TrackedSurface::~TrackedSurface() = default;

void TrackedSurface::setSensorSize(double size) {
  sensorSize = size;
  sensorRadius = size * 0.5;
}

void TrackedSurface::setMaxSurfaceAngle(double degrees) {
  cosMaxSurfaceAngle = static_cast<float>(std::cos(degrees * kRadiansPerDegree));
}

bool TrackedSurface::castRay(const Eigen::Vector3f& origin, const Eigen::Vector3f& direction, float tNear,
                             float tFar) const {
  return scene && scene->occluded(origin.data(), direction.data(), tNear, tFar);
}

void TrackedSurface::castRays(RayPacket& packet, int count) const {
  if (scene) {
    scene->occluded(packet, count);
    return;
  }
  for (int i = 0; i < count; ++i) packet.blocked[i] = false;
}

void tangentFrame(const Eigen::Vector3f& normal, Eigen::Vector3f& t1, Eigen::Vector3f& t2) {
  const bool steep = std::abs(static_cast<double>(normal.y())) > 0.2 || std::abs(static_cast<double>(normal.z())) > 0.2;
  const Eigen::Vector3f helper = steep ? Eigen::Vector3f(1.0f, 0.0f, 0.0f) : Eigen::Vector3f(0.0f, 1.0f, 0.0f);
  t1 = helper.cross(normal);
  const float s1 = t1.squaredNorm();
  if (s1 > 0.0f) t1 /= std::sqrt(s1);
  t2 = t1.cross(normal);
  const float s2 = t2.squaredNorm();
  if (s2 > 0.0f) t2 /= std::sqrt(s2);
}

bool TrackedSurface::sensorFits(const Eigen::Vector3f& point, const Eigen::Vector3f& normal) const {
  // Four chords of the sensor's circle, 45 degrees apart, one millimetre under
  // the surface: a curve, an edge or an obstacle within the footprint cuts one.
  const Eigen::Vector3f centre = point - normal * 0.001f;
  Eigen::Vector3f t1, t2;
  tangentFrame(normal, t1, t2);
  Eigen::Vector3f d3 = t1 + t2, d4 = t1 - t2;
  const float s3 = d3.squaredNorm(), s4 = d4.squaredNorm();
  if (s3 > 0.0f) d3 /= std::sqrt(s3);
  if (s4 > 0.0f) d4 /= std::sqrt(s4);
  const float r = static_cast<float>(sensorRadius);
  const float s = static_cast<float>(sensorSize);
  const Eigen::Vector3f* directions[4] = {&t1, &t2, &d3, &d4};
  for (const Eigen::Vector3f* d : directions) {
    const Eigen::Vector3f start = centre - *d * r;
    if (castRay(start, *d, 0.0f, s)) return false;
  }
  return true;
}

bool TrackedSurface::isOnSurface(const Eigen::Vector3f& point, const Eigen::Vector3f& normal) const {
  const Eigen::Vector3f lifted = point + normal * 0.001f;
  if (castRay(lifted, normal, 0.0001f, 0.01f)) return false;  // something lies over the point
  const Eigen::Vector3f down = -normal;
  return castRay(lifted, down, 0.0001f, 0.005f);
}

}  // namespace sensorlay
