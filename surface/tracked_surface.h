#pragma once
// The geometry of one tracked object as the design search sees it: the
// surface mesh in metres, its area table for drawing positions, and one
// ray-casting scene of the surface and its obstacles together.

#include <Eigen/Core>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace sensorlay {

class RayScene;
struct RayPacket;

// Two unit tangents of a surface with unit normal `normal`: the footprint of
// a sensor and the cone of its drawn normals are laid out in them. The helper
// axis is chosen from y and z alone, so that it is never close to the normal.
void tangentFrame(const Eigen::Vector3f& normal, Eigen::Vector3f& t1, Eigen::Vector3f& t2);

// What a front end that knows more about the files than their size tells
// may settle for the build. The defaults build the surface as the size rule
// and the files' own normals make it.
struct SurfaceBuild {
  // The factor from the surface file's unit to metres; none: 0.001 when the
  // bounding box's diagonal is 5 or more, else 1.
  std::optional<double> scale;
  // The same for the obstacle files; none: the surface's.
  std::optional<double> obstacleScale;
  // A zero file normal of the surface becomes its triangle's normal as wound,
  // (b - a) x (c - a); otherwise it is a row of not-a-numbers.
  bool zeroNormalsFromWinding = false;
};

class TrackedSurface {
 public:
  // All work happens here. A failed build leaves `faces` without rows, and
  // `loadProblem` says why when a file could not be read.
  TrackedSurface(const std::string& sensorsPath, const std::vector<std::string>& obstaclePaths,
                 const SurfaceBuild& build = SurfaceBuild());
  ~TrackedSurface();
  TrackedSurface(const TrackedSurface&) = delete;
  TrackedSurface& operator=(const TrackedSurface&) = delete;

  void setSensorSize(double size);
  void setMaxSurfaceAngle(double degrees);
  // Replaces the clock seed of the generator, for reproducible tests.
  void seedGenerator(uint32_t seed) { generator.seed(seed); }

  const std::string& getSensorsPath() const { return sensorsPath; }
  const std::vector<std::string>& getObstaclePaths() const { return obstaclePaths; }
  double getScale() const { return scale; }
  // The low 32 bits of the face count.
  uint32_t faceCount() const { return static_cast<uint32_t>(faces.rows()); }

  // Ray queries; a triangle counts from either side.
  bool castRay(const Eigen::Vector3f& origin, const Eigen::Vector3f& direction, float tNear, float tFar) const;
  // castRay for each of the first `count` rays of the packet, into
  // packet.blocked.
  void castRays(RayPacket& packet, int count) const;
  bool sensorFits(const Eigen::Vector3f& point, const Eigen::Vector3f& normal) const;
  bool isOnSurface(const Eigen::Vector3f& point, const Eigen::Vector3f& normal) const;

  // Random placement; all draws come from `generator`.
  int32_t randomFace();
  Eigen::Vector3f randomPointOnFace(int32_t face);
  Eigen::Vector3f randomNormalOnFace(int32_t face);
  bool randomPlacement(Eigen::Vector3f& point, Eigen::Vector3f& normal);
  bool randomPlacementFacing(Eigen::Vector3f& point, Eigen::Vector3f& normal, float minCos);

  using MatrixXf = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic>;
  using MatrixXi = Eigen::Matrix<int32_t, Eigen::Dynamic, Eigen::Dynamic>;

  std::string sensorsPath;
  std::vector<std::string> obstaclePaths;
  MatrixXf vertices;     // V x 3, metres
  MatrixXf faceNormals;  // F x 3, unit
  MatrixXi faces;        // F x 3
  double scale = 1.0;
  float cosMaxSurfaceAngle = 1.0f;
  std::unique_ptr<RayScene> scene;
  double totalArea = 0.0;
  double areaLow = 0.0;  // bounds of the area draw
  double areaHigh = 1.0;
  std::mt19937 generator;
  std::vector<double> cumulativeAreas;
  double sensorSize = 0.006;
  double sensorRadius = 0.003;
  std::string loadProblem;
  // No triangle that a draw can pick (one with an area) has a usable normal:
  // a zero file normal cannot be normalised, and a sensor never fits there.
  bool normalsAllZero = false;
  // Zero file normals replaced from the winding (SurfaceBuild).
  int64_t normalsFromWinding = 0;
  // Where a placement search that finds no room says so, once; none: quiet.
  std::ostream* notices = nullptr;
  bool warnedNoRoom = false;

 private:
  // Warns once when `attempts` fruitless tries in one placement call reach
  // the limit; the search goes on regardless.
  void noteFruitlessAttempt(uint64_t attempts);
};

}  // namespace sensorlay
