#pragma once
// Generated triangle meshes and STL writers for tests and benchmarks.

#include <Eigen/Core>

#include <string>
#include <vector>

namespace sensorlay::testing {

struct Triangle {
  Eigen::Vector3f a, b, c;
  Eigen::Vector3f normal;  // written to the file as given
};
using Mesh = std::vector<Triangle>;

// Normal of (b - a) x (c - a), normalised; zero for a degenerate triangle.
Eigen::Vector3f faceNormal(const Eigen::Vector3f& a, const Eigen::Vector3f& b, const Eigen::Vector3f& c);
Triangle makeTriangle(const Eigen::Vector3f& a, const Eigen::Vector3f& b, const Eigen::Vector3f& c);

void writeStlBinary(const std::string& path, const Mesh& mesh, const std::string& header = "sensorlay test mesh");
void writeStlAscii(const std::string& path, const Mesh& mesh, const std::string& name = "test");

// Axis-aligned box with outward normals, each face split into n x n squares of
// two triangles.
Mesh boxMesh(const Eigen::Vector3f& low, const Eigen::Vector3f& high, int n = 1);
// Cube of the given side centred on the origin.
Mesh cubeMesh(float side, int n = 1);
// Square plate in the plane z = height, facing +z, centred on the origin.
Mesh plateMesh(float side, float height = 0.0f, int n = 1);
// Sphere of the given radius about `center`, outward normals, made of
// latitude/longitude bands: 2 * stacks * slices triangles (fewer at the poles).
Mesh sphereMesh(float radius, int stacks, int slices, const Eigen::Vector3f& center = Eigen::Vector3f::Zero());
// Two triangles in z = 0 of areas 1 and 3, in that order.
Mesh twoTrianglesMesh();
// Floor z = 0 over [0,1]^2 facing +z and a wall x = 0 facing +x: a concave corner.
Mesh concaveCornerMesh(float side = 0.1f);

// A box of 12 x 8 x 6 cm in metres, each face in 4 x 4 squares: a device
// shell small enough for quick designs.
inline Mesh shellBox() { return boxMesh({-0.06f, -0.04f, -0.03f}, {0.06f, 0.04f, 0.03f}, 4); }

Mesh concat(const Mesh& a, const Mesh& b);
Mesh translated(const Mesh& m, const Eigen::Vector3f& offset);
Mesh scaled(const Mesh& m, float factor);

}  // namespace sensorlay::testing
