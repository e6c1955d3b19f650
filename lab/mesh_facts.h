#pragma once
// What a mesh file holds, as `check` tells it: its size and the unit it is
// taken in, and the faults of its triangles that change what a design can do
// with them.

#include <Eigen/Core>
#include <Eigen/Geometry>

#include <cstdint>
#include <string>

#include "lab/settings.h"
#include "surface/stl_reader.h"

namespace sensorlay::lab {

struct MeshFacts {
  std::string path;
  int64_t triangles = 0;
  Eigen::Vector3d extentFile = Eigen::Vector3d::Zero();  // in the file's numbers
  Eigen::Vector3d centreFile = Eigen::Vector3d::Zero();
  double diagonalFile = 0.0;
  double metresPerUnit = 1.0;
  std::string unit;        // "mm", "cm", "m" or "in"
  std::string unitReason;  // why that unit
  int64_t zeroAreaTriangles = 0;
  int64_t zeroNormals = 0;
  int64_t nonUnitNormals = 0;  // neither zero nor of length 1 within 0.001
  int64_t normalsAgainstWinding = 0;
  int64_t openEdges = 0;         // on one triangle only
  int64_t nonManifoldEdges = 0;  // on three or more
  double signedVolume = 0.0;     // cubic metres; negative when wound inwards
  // Triangles with an area whose normal, when not zero, agrees with the
  // winding; for telling which way a closed shell's normals point.
  int64_t normalsWithWinding = 0;

  double diagonalMetres() const { return diagonalFile * metresPerUnit; }
  bool closed() const { return triangles > 0 && openEdges == 0 && nonManifoldEdges == 0; }
};

// The facts of a mesh read from `path`, taken in `unit` (Auto: the size rule,
// told in unitReason; Same: `sameMetresPerUnit`, the surface's).
MeshFacts measureMesh(const std::string& path, const StlVertices& vertices, const StlFaces& faces,
                      const StlVertices& normals, MeshUnit unit, double sameMetresPerUnit = 1.0);

// The unit word of a factor to metres.
const char* unitOfFactor(double metresPerUnit);

}  // namespace sensorlay::lab
