#include "tests/support/meshes.h"

#include <Eigen/Geometry>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>

namespace sensorlay::testing {

Eigen::Vector3f faceNormal(const Eigen::Vector3f& a, const Eigen::Vector3f& b, const Eigen::Vector3f& c) {
  Eigen::Vector3f n = (b - a).cross(c - a);
  const float len = n.norm();
  return len > 0 ? Eigen::Vector3f(n / len) : Eigen::Vector3f::Zero();
}

Triangle makeTriangle(const Eigen::Vector3f& a, const Eigen::Vector3f& b, const Eigen::Vector3f& c) {
  return Triangle{a, b, c, faceNormal(a, b, c)};
}

void writeStlBinary(const std::string& path, const Mesh& mesh, const std::string& header) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  char head[80] = {0};
  std::memcpy(head, header.data(), std::min<size_t>(header.size(), 80));
  out.write(head, 80);
  const uint32_t count = static_cast<uint32_t>(mesh.size());
  out.write(reinterpret_cast<const char*>(&count), 4);
  for (const auto& t : mesh) {
    const Eigen::Vector3f* vs[4] = {&t.normal, &t.a, &t.b, &t.c};
    for (const auto* v : vs) out.write(reinterpret_cast<const char*>(v->data()), 12);
    const uint16_t attribute = 0;
    out.write(reinterpret_cast<const char*>(&attribute), 2);
  }
}

void writeStlAscii(const std::string& path, const Mesh& mesh, const std::string& name) {
  std::ofstream out(path, std::ios::trunc);
  out.precision(9);
  out << "solid " << name << "\n";
  for (const auto& t : mesh) {
    out << "  facet normal " << t.normal.x() << " " << t.normal.y() << " " << t.normal.z() << "\n";
    out << "    outer loop\n";
    for (const auto* v : {&t.a, &t.b, &t.c}) out << "      vertex " << v->x() << " " << v->y() << " " << v->z() << "\n";
    out << "    endloop\n  endfacet\n";
  }
  out << "endsolid " << name << "\n";
}

namespace {

// A grid of n x n quads spanning origin + u*[0,1] + v*[0,1], wound so that the
// normal is u x v.
void addGrid(Mesh& mesh, const Eigen::Vector3f& origin, const Eigen::Vector3f& u, const Eigen::Vector3f& v, int n) {
  auto at = [&](int i, int j) -> Eigen::Vector3f { return origin + u * (float(i) / n) + v * (float(j) / n); };
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      mesh.push_back(makeTriangle(at(i, j), at(i + 1, j), at(i + 1, j + 1)));
      mesh.push_back(makeTriangle(at(i, j), at(i + 1, j + 1), at(i, j + 1)));
    }
}

// The mesh with f applied to every vertex; the file normals stay as they are.
template <class F>
Mesh mapped(const Mesh& m, F f) {
  Mesh r(m);
  for (auto& t : r) t = Triangle{f(t.a), f(t.b), f(t.c), t.normal};
  return r;
}

}  // namespace

Mesh boxMesh(const Eigen::Vector3f& lo, const Eigen::Vector3f& hi, int n) {
  Mesh m;
  const Eigen::Vector3f d = hi - lo;
  const Eigen::Vector3f X(d.x(), 0, 0), Y(0, d.y(), 0), Z(0, 0, d.z());
  addGrid(m, lo, Y, X, n);                                       // bottom, -z
  addGrid(m, Eigen::Vector3f(lo.x(), lo.y(), hi.z()), X, Y, n);  // top, +z
  addGrid(m, lo, X, Z, n);                                       // front, -y
  addGrid(m, Eigen::Vector3f(lo.x(), hi.y(), lo.z()), Z, X, n);  // back, +y
  addGrid(m, lo, Z, Y, n);                                       // left, -x
  addGrid(m, Eigen::Vector3f(hi.x(), lo.y(), lo.z()), Y, Z, n);  // right, +x
  return m;
}

Mesh cubeMesh(float side, int n) {
  const float h = side / 2;
  return boxMesh(Eigen::Vector3f(-h, -h, -h), Eigen::Vector3f(h, h, h), n);
}

Mesh plateMesh(float side, float height, int n) {
  Mesh m;
  const float h = side / 2;
  addGrid(m, Eigen::Vector3f(-h, -h, height), Eigen::Vector3f(side, 0, 0), Eigen::Vector3f(0, side, 0), n);
  return m;
}

Mesh sphereMesh(float radius, int stacks, int slices, const Eigen::Vector3f& center) {
  Mesh m;
  auto point = [&](int i, int j) {
    const double theta = M_PI * i / stacks;  // from +z down
    const double phi = 2 * M_PI * j / slices;
    return Eigen::Vector3f(center.x() + radius * float(std::sin(theta) * std::cos(phi)),
                           center.y() + radius * float(std::sin(theta) * std::sin(phi)),
                           center.z() + radius * float(std::cos(theta)));
  };
  for (int i = 0; i < stacks; ++i)
    for (int j = 0; j < slices; ++j) {
      const Eigen::Vector3f a = point(i, j), b = point(i + 1, j), c = point(i + 1, j + 1), d = point(i, j + 1);
      if (i != 0) m.push_back(makeTriangle(a, b, d));
      if (i != stacks - 1) m.push_back(makeTriangle(d, b, c));
    }
  return m;
}

Mesh twoTrianglesMesh() {
  Mesh m;
  // Legs 1 and 2: area 1. Legs 2 and 3: area 3.
  m.push_back(makeTriangle({0, 0, 0}, {1, 0, 0}, {0, 2, 0}));
  m.push_back(makeTriangle({2, 0, 0}, {4, 0, 0}, {2, 3, 0}));
  return m;
}

Mesh concaveCornerMesh(float side) {
  Mesh m;
  addGrid(m, Eigen::Vector3f(0, 0, 0), Eigen::Vector3f(side, 0, 0), Eigen::Vector3f(0, side, 0), 1);  // +z
  addGrid(m, Eigen::Vector3f(0, 0, 0), Eigen::Vector3f(0, side, 0), Eigen::Vector3f(0, 0, side), 1);  // +x
  return m;
}

Mesh concat(const Mesh& a, const Mesh& b) {
  Mesh m(a);
  m.insert(m.end(), b.begin(), b.end());
  return m;
}

Mesh translated(const Mesh& m, const Eigen::Vector3f& o) {
  return mapped(m, [&](const Eigen::Vector3f& v) -> Eigen::Vector3f { return v + o; });
}

Mesh scaled(const Mesh& m, float f) {
  return mapped(m, [&](const Eigen::Vector3f& v) -> Eigen::Vector3f { return v * f; });
}

}  // namespace sensorlay::testing
