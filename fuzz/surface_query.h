#pragma once
// The input of the surface target: a fixed block of query values, then the
// surface's STL bytes and, after them, an obstacle's. Shared with the seed
// writer, which makes its inputs in this layout.

#include <cstdint>
#include <cstring>
#include <string>

namespace sensorlay::fuzz {

// The bytes after the surface are an obstacle file.
constexpr uint32_t kWithObstacle = 1;
// The surface is built with its zero normals taken from the winding.
constexpr uint32_t kNormalsFromWinding = 2;

struct SurfaceQuery {
  // Every float is taken as it stands, not-a-number and infinities included.
  float sensorSize = 0.006f;
  float maxSurfaceAngle = 0.0f;  // degrees
  float origin[3] = {0.0f, 0.0f, 0.0f};
  float direction[3] = {0.0f, 0.0f, 1.0f};
  float tNear = 0.0f;
  float tFar = 1.0f;
  float pose[7] = {0.0f, 0.0f, -2.0f, 1.0f, 0.0f, 0.0f, 0.0f};  // translation, quaternion w x y z
  uint32_t seed = 0;
  uint32_t surfaceBytes = 0;  // how many of the bytes after the block are the surface
  uint32_t flags = 0;         // kWithObstacle, kNormalsFromWinding
};

// The query at the start of `input`, zero-padded when the input is shorter.
inline SurfaceQuery readSurfaceQuery(const uint8_t* data, size_t size) {
  SurfaceQuery query;
  unsigned char block[sizeof(SurfaceQuery)] = {};
  std::memcpy(block, data, size < sizeof block ? size : sizeof block);
  std::memcpy(&query, block, sizeof query);
  return query;
}

inline std::string surfaceInput(const SurfaceQuery& query, const std::string& surface, const std::string& obstacle) {
  SurfaceQuery q = query;
  q.surfaceBytes = static_cast<uint32_t>(surface.size());
  q.flags = obstacle.empty() ? q.flags & ~kWithObstacle : q.flags | kWithObstacle;
  std::string input(sizeof q, '\0');
  std::memcpy(input.data(), &q, sizeof q);
  return input + surface + obstacle;
}

}  // namespace sensorlay::fuzz
