#include "lab/mesh_facts.h"

#include <array>
#include <cmath>
#include <map>
#include <sstream>
#include <utility>

namespace sensorlay::lab {

namespace {

using Corner = std::array<float, 3>;

}  // namespace

const char* unitOfFactor(double metresPerUnit) {
  for (MeshUnit unit : {MeshUnit::Millimetres, MeshUnit::Centimetres, MeshUnit::Metres, MeshUnit::Inches})
    if (metresPer(unit) == metresPerUnit) return unitWord(unit);
  return "?";
}

MeshFacts measureMesh(const std::string& path, const StlVertices& V, const StlFaces& F, const StlVertices& N,
                      MeshUnit unit, double sameMetresPerUnit) {
  MeshFacts facts;
  facts.path = path;
  facts.triangles = F.rows();
  if (F.rows() == 0 || V.rows() == 0) return facts;

  const Eigen::RowVector3f low = V.colwise().minCoeff(), high = V.colwise().maxCoeff();
  const Eigen::RowVector3f extent = high - low;
  facts.extentFile = extent.transpose().cast<double>();
  facts.centreFile = (0.5 * (low + high)).transpose().cast<double>();
  // In single precision, as the size rule measures it.
  const float diagonal = std::sqrt(extent(0) * extent(0) + extent(1) * extent(1) + extent(2) * extent(2));
  facts.diagonalFile = diagonal;

  std::ostringstream reason;
  reason.precision(4);
  if (unit == MeshUnit::Auto) {
    const bool millimetres = diagonal >= 5.0f;
    facts.metresPerUnit = millimetres ? 0.001 : 1.0;
    reason << "inferred: the bounding box's diagonal reads " << diagonal << " in the file's numbers, "
           << (millimetres ? "5 or more, so millimetres" : "less than 5, so metres");
  } else if (unit == MeshUnit::Same) {
    facts.metresPerUnit = sameMetresPerUnit;
    reason << "the surface's unit, as obstacles are never measured on their own (--obstacle-units to name theirs)";
  } else {
    facts.metresPerUnit = *metresPer(unit);
    reason << "as given";
  }
  facts.unit = unitOfFactor(facts.metresPerUnit);
  facts.unitReason = reason.str();

  // Corners are welded where their numbers are equal, to find the edges that
  // triangles share.
  std::map<Corner, int64_t> cornerIds;
  std::map<std::pair<int64_t, int64_t>, int32_t> edgeUses;
  const double m = facts.metresPerUnit;
  for (Eigen::Index f = 0; f < F.rows(); ++f) {
    Eigen::Vector3d p[3];
    int64_t id[3];
    for (int k = 0; k < 3; ++k) {
      const Eigen::Index v = F(f, k);
      const Corner corner = {V(v, 0), V(v, 1), V(v, 2)};
      id[k] = cornerIds.emplace(corner, static_cast<int64_t>(cornerIds.size())).first->second;
      p[k] = V.row(v).transpose().cast<double>() * m;
    }
    const Eigen::Vector3d wound = (p[1] - p[0]).cross(p[2] - p[0]);
    const bool flat = wound.squaredNorm() == 0.0;
    facts.zeroAreaTriangles += flat ? 1 : 0;
    facts.signedVolume += p[0].dot(p[1].cross(p[2])) / 6.0;

    const Eigen::Vector3d n = N.row(f).transpose().cast<double>();
    const double length = n.norm();
    if (length == 0.0) {
      ++facts.zeroNormals;
    } else {
      if (std::abs(length - 1.0) > 1e-3) ++facts.nonUnitNormals;
      if (!flat) (n.dot(wound) < 0.0 ? facts.normalsAgainstWinding : facts.normalsWithWinding) += 1;
    }

    for (int k = 0; k < 3; ++k) {
      const int64_t a = id[k], b = id[(k + 1) % 3];
      if (a != b) ++edgeUses[{std::min(a, b), std::max(a, b)}];
    }
  }
  for (const auto& [edge, uses] : edgeUses) {
    if (uses == 1) ++facts.openEdges;
    if (uses > 2) ++facts.nonManifoldEdges;
  }
  return facts;
}

}  // namespace sensorlay::lab
