#pragma once
// One static ray-casting scene of triangles, answering only "hit or no hit".
// Triangles count from both sides.

#include <embree3/rtcore.h>

#include <vector>

#include "surface/stl_reader.h"

namespace sensorlay {

// The library asserts on rays whose origin or direction has a part beyond its
// own bound of about 1.844e18; this one keeps a margin below it.
constexpr float kMaxRayCoordinate = 1e18f;

// One mesh of a scene: `faces` index its own `vertices` (both with 3 columns).
struct RayMesh {
  const StlVertices* vertices;
  const StlFaces* faces;
};

// Up to kSize rays asked together, laid out as the library's packet query
// reads them. Rays that start at one point and spread little, such as one
// sensor's rays to the station over neighbouring orientations, share most
// of their way through the scene, and a packet walks it once for all.
struct alignas(64) RayPacket {
  static constexpr int kSize = 16;
  float originX[kSize], originY[kSize], originZ[kSize];
  float directionX[kSize], directionY[kSize], directionZ[kSize];
  float tNear[kSize], tFar[kSize];
  bool blocked[kSize];  // the answers

  void set(int lane, const float origin[3], const float direction[3], float near, float far) {
    originX[lane] = origin[0];
    originY[lane] = origin[1];
    originZ[lane] = origin[2];
    directionX[lane] = direction[0];
    directionY[lane] = direction[1];
    directionZ[lane] = direction[2];
    tNear[lane] = near;
    tFar[lane] = far;
  }
};

class RayScene {
 public:
  // Builds one scene of all the meshes' triangles, as if their vertex lists
  // stood one below the other in the given order and so did their face lists,
  // each shifted past the vertices before it; nothing is copied on the way.
  // After an error of the ray-casting library, which is reported on the
  // standard error stream, the scene is empty and no ray hits.
  explicit RayScene(const std::vector<RayMesh>& meshes);
  ~RayScene();
  RayScene(const RayScene&) = delete;
  RayScene& operator=(const RayScene&) = delete;

  bool valid() const { return scene_ != nullptr; }

  // True when a triangle lies on the ray between origin + tNear * direction
  // and origin + tFar * direction. A ray the library cannot take counts as
  // blocked: a part of the origin or direction that is not finite or beyond
  // kMaxRayCoordinate, a zero direction, a tNear that is negative or not a
  // number, a tFar that is not a number. Allocates nothing.
  bool occluded(const float origin[3], const float direction[3], float tNear, float tFar) const;
  // The same answer for each of the first `count` rays of the packet, into
  // packet.blocked. Allocates nothing.
  void occluded(RayPacket& packet, int count) const;

 private:
  RTCScene scene_ = nullptr;
};

// The process's one device, made on first use; null if it could not be made.
RTCDevice rayDevice();

}  // namespace sensorlay
