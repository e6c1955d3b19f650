#include "surface/ray_scene.h"

#include <cmath>
#include <cstdint>
#include <iostream>
#include <limits>

namespace sensorlay {

namespace {

void reportError(void*, RTCError code, const char* text) {
  std::cerr << "Embree error " << static_cast<int>(code) << ": " << (text ? text : "(no description)") << std::endl;
}

struct DeviceHolder {
  RTCDevice device = nullptr;
  bool backfaceCulling = false;
  DeviceHolder() {
    // The scenes are built on the calling thread alone. The library's own
    // thread pool cannot cope with a system that refuses it threads (it ends
    // the process), while the program's pool falls back to one thread; and a
    // scene is built once per run, in milliseconds.
    device = rtcNewDevice("threads=1");
    if (!device) {
      std::cerr << "Embree error " << static_cast<int>(rtcGetDeviceError(nullptr))
                << ": the ray-casting device could not be created" << std::endl;
      return;
    }
    rtcSetDeviceErrorFunction(device, reportError, nullptr);
    backfaceCulling = rtcGetDeviceProperty(device, RTC_DEVICE_PROPERTY_BACKFACE_CULLING_ENABLED) != 0;
  }
  // The device lives as long as the process; scenes retain it themselves.
};

DeviceHolder& holder() {
  static DeviceHolder instance;
  return instance;
}

}  // namespace

RTCDevice rayDevice() { return holder().device; }

RayScene::RayScene(const std::vector<RayMesh>& meshes) {
  RTCDevice device = rayDevice();
  if (!device) return;
  int64_t nv = 0, nf = 0;
  for (const RayMesh& mesh : meshes) {
    const StlVertices& vertices = *mesh.vertices;
    const StlFaces& faces = *mesh.faces;
    if (vertices.cols() != 3 || faces.cols() != 3) {
      std::cerr << "Ray scene: the mesh is not a list of triangles" << std::endl;
      return;
    }
    for (Eigen::Index f = 0; f < faces.rows(); ++f)
      for (int k = 0; k < 3; ++k)
        if (faces(f, k) < 0 || faces(f, k) >= vertices.rows()) {
          std::cerr << "Ray scene: face " << nf + f << " refers to vertex " << faces(f, k) << " of " << vertices.rows()
                    << " in its mesh" << std::endl;
          return;
        }
    nv += vertices.rows();
    nf += faces.rows();
  }
  if (nv > INT32_MAX || nf > INT32_MAX / 2) {
    std::cerr << "Ray scene: the mesh is not a list of triangles of a usable size" << std::endl;
    return;
  }

  RTCScene scene = rtcNewScene(device);
  if (!scene) return;
  // Robust traversal keeps rays from slipping through the shared edges of
  // neighbouring triangles.
  rtcSetSceneFlags(scene, RTC_SCENE_FLAG_ROBUST);
  rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
  if (nf > 0) {
    // With back-face culling compiled into the library, each triangle goes in
    // a second time with the opposite winding so that both sides still count.
    const bool twice = holder().backfaceCulling;
    const size_t triangles = static_cast<size_t>(nf) * (twice ? 2 : 1);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    // Buffers made by the library carry the padding its vector loads need.
    auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                          3 * sizeof(float), static_cast<size_t>(nv)));
    auto* idx = static_cast<uint32_t*>(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(uint32_t), triangles));
    if (v && idx) {
      // The second copy of each face, reversed, follows all the faces.
      int64_t vertexBase = 0, faceBase = 0;
      for (const RayMesh& mesh : meshes) {
        const StlVertices& vertices = *mesh.vertices;
        const StlFaces& faces = *mesh.faces;
        for (Eigen::Index i = 0; i < vertices.rows(); ++i)
          for (int c = 0; c < 3; ++c) v[3 * (vertexBase + i) + c] = vertices(i, c);
        for (Eigen::Index f = 0; f < faces.rows(); ++f)
          for (int k = 0; k < 3; ++k) {
            const uint32_t index = static_cast<uint32_t>(vertexBase + faces(f, k));
            idx[3 * (faceBase + f) + k] = index;
            if (twice) idx[3 * (nf + faceBase + f) + 2 - k] = index;
          }
        vertexBase += vertices.rows();
        faceBase += faces.rows();
      }
      rtcCommitGeometry(geometry);
      rtcAttachGeometry(scene, geometry);
    }
    rtcReleaseGeometry(geometry);
    if (!v || !idx) {
      rtcReleaseScene(scene);
      return;
    }
  }
  rtcCommitScene(scene);
  if (rtcGetDeviceError(device) != RTC_ERROR_NONE) {
    // Already reported by the error callback.
    rtcReleaseScene(scene);
    return;
  }
  scene_ = scene;
}

RayScene::~RayScene() {
  if (scene_) rtcReleaseScene(scene_);
}

namespace {

// The library aborts on such rays or leaves them undefined. Counting them as
// blocked keeps every test on the safe side: a sensor whose ray cannot be
// cast neither fits nor is seen.
bool usableRay(const float origin[3], const float direction[3], float tNear, float tFar) {
  bool usable = tNear >= 0.0f && !std::isnan(tFar);
  for (int c = 0; c < 3; ++c)
    usable = usable && std::fabs(origin[c]) <= kMaxRayCoordinate && std::fabs(direction[c]) <= kMaxRayCoordinate;
  return usable && !(direction[0] == 0.0f && direction[1] == 0.0f && direction[2] == 0.0f);
}

// The library marks an occluded ray by setting its far distance to -inf.
bool markedOccluded(float tFarAfter, float tFar) {
  const float minusInfinity = -std::numeric_limits<float>::infinity();
  return tFarAfter == minusInfinity && tFar != minusInfinity;
}

}  // namespace

bool RayScene::occluded(const float origin[3], const float direction[3], float tNear, float tFar) const {
  if (!scene_) return false;
  if (!usableRay(origin, direction, tNear, tFar)) return true;
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  RTCRay ray;
  ray.org_x = origin[0];
  ray.org_y = origin[1];
  ray.org_z = origin[2];
  ray.dir_x = direction[0];
  ray.dir_y = direction[1];
  ray.dir_z = direction[2];
  ray.tnear = tNear;
  ray.tfar = tFar;
  ray.time = 0.0f;
  ray.mask = 0xFFFFFFFFu;
  ray.id = 0;
  ray.flags = 0;
  rtcOccluded1(scene_, &context, &ray);
  return markedOccluded(ray.tfar, tFar);
}

void RayScene::occluded(RayPacket& packet, int count) const {
  alignas(64) int valid[RayPacket::kSize];
  alignas(64) RTCRay16 rays;
  bool any = false;
  for (int i = 0; i < RayPacket::kSize; ++i) {
    const float origin[3] = {packet.originX[i], packet.originY[i], packet.originZ[i]};
    const float direction[3] = {packet.directionX[i], packet.directionY[i], packet.directionZ[i]};
    const bool cast = i < count && scene_ && usableRay(origin, direction, packet.tNear[i], packet.tFar[i]);
    // Unusable rays are blocked without asking, as one at a time; lanes past
    // the count are left out.
    if (i < count) packet.blocked[i] = scene_ && !cast;
    valid[i] = cast ? -1 : 0;
    any = any || cast;
    rays.org_x[i] = cast ? origin[0] : 0.0f;
    rays.org_y[i] = cast ? origin[1] : 0.0f;
    rays.org_z[i] = cast ? origin[2] : 0.0f;
    rays.dir_x[i] = cast ? direction[0] : 0.0f;
    rays.dir_y[i] = cast ? direction[1] : 0.0f;
    rays.dir_z[i] = cast ? direction[2] : 1.0f;
    rays.tnear[i] = cast ? packet.tNear[i] : 0.0f;
    rays.tfar[i] = cast ? packet.tFar[i] : 0.0f;
    rays.time[i] = 0.0f;
    rays.mask[i] = 0xFFFFFFFFu;
    rays.id[i] = static_cast<unsigned>(i);
    rays.flags[i] = 0;
  }
  if (!any) return;
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  // One origin and close directions: the library may keep the rays together.
  context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  rtcOccluded16(valid, scene_, &context, &rays);
  for (int i = 0; i < count; ++i)
    if (valid[i] != 0) packet.blocked[i] = markedOccluded(rays.tfar[i], packet.tFar[i]);
}

}  // namespace sensorlay
