#pragma once
// One static ray-casting scene of triangles, answering only "hit or no hit".
// Triangles count from both sides.

#include <embree3/rtcore.h>

#include "surface/stl_reader.h"

namespace sensorlay {

// The library asserts on rays whose origin or direction has a part beyond its
// own bound of about 1.844e18; this one keeps a margin below it.
constexpr float kMaxRayCoordinate = 1e18f;

class RayScene {
 public:
  // Builds the scene of all `faces` over `vertices` (both with 3 columns).
  // After an error of the ray-casting library, which is reported on the
  // standard error stream, the scene is empty and no ray hits.
  RayScene(const StlVertices& vertices, const StlFaces& faces);
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

 private:
  RTCScene scene_ = nullptr;
};

// The process's one device, made on first use; null if it could not be made.
RTCDevice rayDevice();

}  // namespace sensorlay
