// `sensorlay-lab check`: what the program will make of the meshes, and what
// to do about what is wrong with them.

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "lab/cli.h"
#include "lab/lab.h"
#include "lab/mesh_facts.h"
#include "lab/settings.h"
#include "surface/stl_reader.h"
#include "surface/tracked_surface.h"

namespace sensorlay::lab {

namespace {

// Random spots on the surface that the fit share is counted over, from a
// fixed seed, so that a check says the same each time.
constexpr int kFitSpots = 2000;
constexpr uint32_t kFitSeed = 1;

// A hand-held or head-worn device is this size or between; beyond, a wrong
// unit is the likelier story.
constexpr double kSmallestDevice = 0.02;  // metres across
constexpr double kLargestDevice = 1.0;
// An obstacle this many times larger or smaller than the surface is likely
// in another unit.
constexpr double kObstacleRatio = 30.0;

struct Finding {
  std::string severity;  // "fatal" (a design would be meaningless), "warning" or "note"
  std::string text;
};

std::string number(double value, int digits = 4) {
  std::ostringstream text;
  text.precision(digits);
  text << value;
  return text.str();
}

std::string mm(double metres) { return number(metres * 1000.0) + " mm"; }

// The units that would make the surface a plausible device, with its size in
// each.
std::string otherUnits(const MeshFacts& facts) {
  std::string list;
  for (MeshUnit unit : {MeshUnit::Millimetres, MeshUnit::Centimetres, MeshUnit::Inches, MeshUnit::Metres}) {
    const double across = facts.diagonalFile * *metresPer(unit);
    if (*metresPer(unit) == facts.metresPerUnit || across < kSmallestDevice || across > kLargestDevice) continue;
    list += std::string(list.empty() ? "" : "; ") + "in " + unitWord(unit) + " it would be " + mm(across) +
            " (--units " + unitWord(unit) + ")";
  }
  return list.empty() ? "no unit makes it so" : list;
}

struct SurfaceCheck {
  MeshFacts facts;
  int fits = 0;
  int spots = 0;
};

// The share of random spots, by area, where a sensor fits with its face's
// normal, on the surface as score and design build it.
void countFits(const MeshInputs& inputs, SurfaceCheck& check) {
  SurfaceBuild build;
  build.scale = check.facts.metresPerUnit;
  build.zeroNormalsFromWinding = true;
  TrackedSurface surface(inputs.sensors, {}, build);
  if (surface.faceCount() == 0 || !(surface.totalArea > 0.0)) return;
  surface.setSensorSize(inputs.sensorSizeMm * 0.001);
  surface.seedGenerator(kFitSeed);
  check.spots = kFitSpots;
  for (int i = 0; i < kFitSpots; ++i) {
    const int32_t face = surface.randomFace();
    const Eigen::Vector3f point = surface.randomPointOnFace(face);
    const Eigen::Vector3f normal = surface.faceNormals.row(face).transpose();
    if (normal.allFinite() && surface.sensorFits(point, normal)) ++check.fits;
  }
}

void meshFindings(const MeshFacts& f, bool isSurface, std::vector<Finding>& out) {
  const std::string name = f.path;
  if (f.zeroAreaTriangles > 0)
    out.push_back({"note", name + ": " + std::to_string(f.zeroAreaTriangles) +
                               " triangles have no area; they are never chosen for a sensor and do no harm"});
  if (isSurface && f.zeroNormals > 0 && f.zeroNormals >= f.triangles - f.zeroAreaTriangles)
    out.push_back({"fatal", name +
                                ": all normals are zero, so sensorlay finds nowhere to put a sensor; export "
                                "the file with normals, or let sensorlay-lab score and design take each from its "
                                "triangle's winding" +
                                (!f.closed()            ? ""
                                 : f.signedVolume > 0.0 ? " (wound outwards here, as it should be)"
                                                        : " (but wound inwards here: fix the winding first)")});
  else if (isSurface && f.zeroNormals > 0)
    out.push_back({"warning", name + ": " + std::to_string(f.zeroNormals) +
                                  " triangles have a zero normal; sensorlay never puts a sensor there, and "
                                  "sensorlay-lab score and design take their normal from the winding"});
  if (isSurface && f.nonUnitNormals > 0)
    out.push_back({"note", name + ": " + std::to_string(f.nonUnitNormals) +
                               " normals are not of unit length; they are scaled to it, which does no harm"});
  if (isSurface && f.normalsAgainstWinding > 0)
    out.push_back({"warning", name + ": " + std::to_string(f.normalsAgainstWinding) +
                                  " normals point against their triangle's winding; sensors face the way the normals "
                                  "point, so check in your CAD which of the two is right"});
  if (f.openEdges > 0 || f.nonManifoldEdges > 0)
    out.push_back({"note", name + ": " + std::to_string(f.openEdges) + " open edges and " +
                               std::to_string(f.nonManifoldEdges) +
                               " edges shared by more than two triangles; an open shell is fine for a design, "
                               "but whether it is inside out cannot be told"});
  // Which way the normals point can be told only where some are given.
  if (isSurface && f.closed() && f.normalsWithWinding + f.normalsAgainstWinding > 0) {
    const bool woundIn = f.signedVolume < 0.0;
    const bool normalsFollow = f.normalsWithWinding >= f.normalsAgainstWinding;
    if (woundIn == normalsFollow)
      out.push_back({"fatal", name + ": the closed shell's normals point into the device (signed volume " +
                                  number(f.signedVolume) +
                                  " m^3), so every sensor would face inwards and be hidden; flip the normals "
                                  "in your CAD export"});
    else if (woundIn)
      out.push_back({"note", name + ": the shell is wound inside out (signed volume " + number(f.signedVolume) +
                                 " m^3) but its normals point outwards; sensors follow the normals, so no harm"});
  }
}

// Text of the facts of one mesh, indented under its name.
std::string factsText(const MeshFacts& f, const char* role) {
  std::ostringstream t;
  const Eigen::Vector3d e = f.extentFile * f.metresPerUnit;
  t << role << " " << f.path << ": " << f.triangles << " triangles\n"
    << "  size: " << number(e.x() * 1000) << " x " << number(e.y() * 1000) << " x " << number(e.z() * 1000) << " mm ("
    << number(e.x()) << " x " << number(e.y()) << " x " << number(e.z()) << " m), " << mm(f.diagonalMetres())
    << " across\n"
    << "  unit: " << f.unit << ", " << f.unitReason << "\n"
    << "  centre: " << mm(f.centreFile.norm() * f.metresPerUnit) << " from the origin\n"
    << "  triangles without area: " << f.zeroAreaTriangles << "; normals zero: " << f.zeroNormals
    << ", not of unit length: " << f.nonUnitNormals << ", against the winding: " << f.normalsAgainstWinding << "\n"
    << "  edges open: " << f.openEdges << ", on three or more triangles: " << f.nonManifoldEdges << "; signed volume "
    << number(f.signedVolume) << " m^3\n";
  return t.str();
}

JsonOut factsJson(const MeshFacts& f) {
  JsonOut json = JsonOut::object();
  json["path"] = f.path;
  json["triangles"] = f.triangles;
  JsonOut size = JsonOut::array();
  for (int i = 0; i < 3; ++i) size.append(f.extentFile[i] * f.metresPerUnit * 1000.0);
  json["sizeMm"] = size;
  json["diagonalMm"] = f.diagonalMetres() * 1000.0;
  json["diagonalInFile"] = f.diagonalFile;
  json["unit"] = f.unit;
  json["unitReason"] = f.unitReason;
  json["centreDistanceMm"] = f.centreFile.norm() * f.metresPerUnit * 1000.0;
  json["zeroAreaTriangles"] = f.zeroAreaTriangles;
  json["zeroNormals"] = f.zeroNormals;
  json["nonUnitNormals"] = f.nonUnitNormals;
  json["normalsAgainstWinding"] = f.normalsAgainstWinding;
  json["openEdges"] = f.openEdges;
  json["nonManifoldEdges"] = f.nonManifoldEdges;
  json["signedVolumeM3"] = f.signedVolume;
  return json;
}

const CommandSyntax& checkSyntax() {
  static const CommandSyntax syntax = [] {
    CommandSyntax s{"check", "--sensors S.stl [--obstacles O.stl]... [options]",
                    "Tells what score and design will make of the meshes: the triangle count, the size in\n"
                    "millimetres and metres, the unit taken and why, the distance of the centre from the\n"
                    "origin (the device is turned about the origin), triangles without area, zero, non-unit\n"
                    "and reversed normals, open and non-manifold edges, an inside-out shell, an obstacle\n"
                    "whose size suggests another unit, and the share of random spots where a sensor of the\n"
                    "given size fits. Each finding says what to do. Exits with 1 when a finding makes a\n"
                    "design meaningless (no triangles, all normals zero, normals pointing inwards, no room\n"
                    "for a sensor), else with 0.",
                    meshOptionDefs(),
                    "  sensorlay-lab check --sensors puck.stl\n"
                    "  sensorlay-lab check --sensors headset.stl --obstacles head.stl --units mm --json"};
    s.options.push_back({"json", nullptr, "print the facts and findings as one JSON object instead of text"});
    return s;
  }();
  return syntax;
}

}  // namespace

int runCheck(int argc, char** argv) {
  MeshInputs inputs;
  bool json = false;
  std::vector<std::string> positionals;
  const ParseOutcome parsed =
      parseCommandLine(checkSyntax(), argc, argv, positionals, [&](const std::string& name, const char* value) {
        if (name == "json") {
          json = true;
          return std::string();
        }
        return takeMeshOption(inputs, name, value).value_or("--" + name + " is not an option of check");
      });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (!positionals.empty()) {
    usageError("check", "unexpected argument '" + positionals[0] + "'");
    return kExitUsage;
  }
  if (inputs.sensors.empty()) {
    usageError("check", "--sensors is required");
    return kExitUsage;
  }

  std::vector<Finding> findings;
  SurfaceCheck surface;
  std::vector<MeshFacts> obstacles;
  {
    StlVertices V, N;
    StlFaces F;
    if (Status read = readStl(inputs.sensors, V, F, N); !read) {
      std::fprintf(stderr, "%s\n", read.message().c_str());
      return kExitFailed;
    }
    surface.facts = measureMesh(inputs.sensors, V, F, N, inputs.units);
  }
  const MeshFacts& s = surface.facts;
  if (s.triangles == 0) {
    findings.push_back({"fatal", inputs.sensors + ": the file holds no triangles; export the surface again"});
  } else {
    countFits(inputs, surface);
    meshFindings(s, true, findings);
    const double across = s.diagonalMetres();
    if (across < kSmallestDevice || across > kLargestDevice)
      findings.push_back({"warning", inputs.sensors + ": taken in " + s.unit + ", the device is " + mm(across) +
                                         " across, " + (across < kSmallestDevice ? "small" : "large") +
                                         " for a tracked device; " + otherUnits(s)});
    const double offset = s.centreFile.norm() * s.metresPerUnit;
    if (offset > 0.5 * across)
      findings.push_back({"note", inputs.sensors + ": the centre of the bounding box is " + mm(offset) +
                                      " from the origin, outside the device; the device is turned about the "
                                      "origin, so move it there in your CAD unless that is meant"});
    const double share = surface.spots > 0 ? static_cast<double>(surface.fits) / surface.spots : 0.0;
    if (surface.fits == 0)
      findings.push_back({"fatal", "a sensor of " + number(inputs.sensorSizeMm) + " mm fits at none of " +
                                       std::to_string(surface.spots) + " random spots on " + inputs.sensors +
                                       "; give a smaller --sensor-size, or check the unit"});
    else if (share < 0.05)
      findings.push_back({"warning", "a sensor of " + number(inputs.sensorSizeMm) + " mm fits at only " +
                                         number(100.0 * share, 2) + " % of random spots on " + inputs.sensors +
                                         "; a design will spend its time looking for room"});
  }

  for (const std::string& path : inputs.obstacles) {
    StlVertices V, N;
    StlFaces F;
    if (Status read = readStl(path, V, F, N); !read) {
      std::fprintf(stderr, "%s\n", read.message().c_str());
      return kExitFailed;
    }
    obstacles.push_back(measureMesh(path, V, F, N, inputs.obstacleUnits, s.metresPerUnit));
    const MeshFacts& o = obstacles.back();
    if (o.triangles == 0) {
      findings.push_back({"warning", path + ": the obstacle holds no triangles and hides nothing"});
      continue;
    }
    meshFindings(o, false, findings);
    const double ratio = o.diagonalMetres() / s.diagonalMetres();
    if (s.triangles > 0 && (ratio > kObstacleRatio || ratio < 1.0 / kObstacleRatio)) {
      // The unit that brings it closest to the surface's size.
      MeshUnit best = MeshUnit::Millimetres;
      for (MeshUnit unit : {MeshUnit::Centimetres, MeshUnit::Metres, MeshUnit::Inches})
        if (std::abs(std::log(o.diagonalFile * *metresPer(unit) / s.diagonalMetres())) <
            std::abs(std::log(o.diagonalFile * *metresPer(best) / s.diagonalMetres())))
          best = unit;
      findings.push_back({"warning", path + ": taken in " + o.unit + ", the obstacle is " + mm(o.diagonalMetres()) +
                                         " across beside a surface of " + mm(s.diagonalMetres()) + "; if it is in " +
                                         unitWord(best) + ", give --obstacle-units " + unitWord(best) +
                                         " (it is then " + mm(o.diagonalFile * *metresPer(best)) + " across)"});
    }
  }

  bool meaningful = true;
  for (const Finding& f : findings) meaningful = meaningful && f.severity != "fatal";

  if (json) {
    JsonOut out = JsonOut::object();
    JsonOut surfaceJson = factsJson(s);
    surfaceJson["sensorSizeMm"] = inputs.sensorSizeMm;
    surfaceJson["fitSpots"] = surface.spots;
    surfaceJson["fitShare"] = surface.spots > 0 ? static_cast<double>(surface.fits) / surface.spots : 0.0;
    out["surface"] = surfaceJson;
    JsonOut obstacleList = JsonOut::array();
    for (const MeshFacts& o : obstacles) obstacleList.append(factsJson(o));
    out["obstacles"] = obstacleList;
    JsonOut findingList = JsonOut::array();
    for (const Finding& f : findings) {
      JsonOut item = JsonOut::object();
      item["severity"] = f.severity;
      item["text"] = f.text;
      findingList.append(item);
    }
    out["findings"] = findingList;
    out["designMeaningful"] = meaningful;
    std::fputs(writeStyledJson(out).c_str(), stdout);
  } else {
    std::string text = factsText(s, "surface");
    if (surface.spots > 0)
      text += "  room: a sensor of " + number(inputs.sensorSizeMm) + " mm fits at " +
              number(100.0 * surface.fits / surface.spots, 3) + " % of " + std::to_string(surface.spots) +
              " random spots\n";
    for (const MeshFacts& o : obstacles) text += factsText(o, "obstacle");
    text += findings.empty() ? "findings: none\n" : "findings:\n";
    for (const Finding& f : findings) text += "  " + f.severity + ": " + f.text + "\n";
    std::fputs(text.c_str(), stdout);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "sensorlay-lab check: the report could not be written in full\n");
    return kExitFailed;
  }
  return meaningful ? kExitOk : kExitFailed;
}

}  // namespace sensorlay::lab
