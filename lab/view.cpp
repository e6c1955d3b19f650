// `sensorlay-lab view`: a design as one self-contained HTML page: the device,
// its obstacles and sensors, and a sphere of the coverage that the analysis
// table gives, to open from a file path or mail to a colleague.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "common/files.h"
#include "common/json_io.h"
#include "common/output_file.h"
#include "common/rotation.h"
#include "common/worker_pool.h"
#include "lab/cli.h"
#include "lab/decimation.h"
#include "lab/design_page.h"
#include "lab/lab.h"
#include "lab/scene.h"
#include "lab/settings.h"
#include "lab/view/view_assets.h"
#include "quality/coverage_evaluator.h"
#include "reports/coverage_summary.h"
#include "surface/stl_reader.h"

namespace sensorlay::lab {

namespace {

// A page that a browser opens at once and a mail takes.
constexpr double kPageBudgetBytes = 5e6;
// However fine the grid, the meshes keep this many triangles between them: a
// grid that leaves them less room is refused.
constexpr size_t kFewestTriangles = 20000;
// Nine float32 coordinates, in base64.
constexpr double kBytesPerTriangle = 48.0;
// Room kept for the sensors, settings, run record and warnings when a grid is
// judged before anything is computed.
constexpr double kOtherBytes = 65536.0;
// A run record is a few kilobytes; anything far larger is not one.
constexpr uint64_t kMostRecordBytes = 1 << 20;
constexpr double kFullTurn = 6.283185307179586;

struct ViewRequest {
  MeshInputs inputs;
  DesignSettings settings;
  std::string modelPath, out, title;
  int32_t threads = 0;
};

const CommandSyntax& viewSyntax() {
  static const CommandSyntax syntax = [] {
    CommandSyntax s{"view", "MODEL.json --sensors S.stl [--obstacles O.stl]... --out PAGE.html [options]",
                    "Writes a design as one HTML page that opens from its file path in a browser, with nothing\n"
                    "to install and no network, and can be mailed as it is: the device and its obstacles\n"
                    "(translucent, each with a switch), the sensors with their channels, and a sphere around the\n"
                    "device coloured by the coverage of sensorlay's analysis table on a grid of --step-degrees:\n"
                    "sensors seen, grade, position or rotation uncertainty, on scales that are the same on every\n"
                    "page. A click on the sphere shows that direction's numbers and lights the sensors seen; a\n"
                    "click on a sensor shows its channel, position, normal and the share of the sphere it is\n"
                    "seen from. The page also shows the design score under the settings given (as score gives\n"
                    "it), the settings, and the run record PREFIX.run.json when it lies beside PREFIX.json.\n"
                    "The page is kept under 5 MB: meshes too large for that are shown thinned by vertex\n"
                    "clustering, which the page says, and a grid too fine for it is refused. A model whose\n"
                    "sensors lie off the surface still gets its page, with a warning on it.",
                    meshOptionDefs(),
                    "  sensorlay-lab view puck-12.json --sensors puck.stl --out puck-12.html\n"
                    "  sensorlay-lab view hmd.json --sensors shell.stl --obstacles head.stl --unseen-cost flat \\\n"
                    "      --step-degrees 1 --out hmd.html"};
    s.options.push_back({"out", "PAGE.html", "the page to write (required)"});
    s.options.push_back({"step-degrees", "DEG", "grid step of the coverage sphere, degrees, 0.1 to 30 (default 2)"});
    s.options.push_back({"title", "TEXT", "the page's heading (default: the model's file name without .json)"});
    appendDesignSettingDefs(s.options, "accepted as a design takes it; it changes no number");
    s.options.push_back({"threads", "N", "threads for the coverage (default 0: one per core)"});
    for (OptionDef& def : s.options)
      if (std::string(def.name) == "coverage-step") def.help = "the same as --step-degrees";
    return s;
  }();
  return syntax;
}

std::string megabytes(double bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
  return text;
}

// The page's bytes for the coverage of a grid: per direction a mask, a count,
// a grade and two float32 uncertainties in base64, and the angles of its axes.
double coverageBytes(double stepDegrees) {
  const double step = degreesToRadians(stepDegrees);
  const double rows = static_cast<double>(estimateReportRows(kFullTurn, step));
  const double axes = std::floor(kFullTurn / step) + std::floor(M_PI / step) + 2.0;
  return rows * 14.0 * 4.0 / 3.0 + axes * 26.0;
}

Status checkGridFits(double stepDegrees) {
  const double rest =
      static_cast<double>(viewPageTemplate().size()) + kOtherBytes + kFewestTriangles * kBytesPerTriangle;
  if (rest + coverageBytes(stepDegrees) <= kPageBudgetBytes) return Status();
  double coarser = stepDegrees;
  while (rest + coverageBytes(coarser) > kPageBudgetBytes) coarser += 0.05;
  std::ostringstream why;
  why << "a coverage grid of " << stepDegrees << " degrees would take " << megabytes(coverageBytes(stepDegrees))
      << " of the page, which is kept under " << megabytes(kPageBudgetBytes)
      << " so that a browser opens it at once and a mail takes it; give --step-degrees "
      << std::ceil(coarser * 10.0 - 1e-9) / 10.0 << " or more";
  return Status::failure(why.str());
}

std::string baseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The model's file name without ".json".
std::string defaultTitle(const std::string& modelPath) {
  const std::string name = baseName(modelPath);
  return endsWith(name, ".json") && name.size() > 5 ? name.substr(0, name.size() - 5) : name;
}

struct PageMesh {
  std::string name;
  TriangleSoup soup;  // millimetres
  size_t triangles = 0;
  size_t shownFrom = 0;  // the file's count when thinned, else 0
};

PageMesh meshOf(const std::string& path, const StlVertices& vertices, const StlFaces& faces, double mmPerUnit) {
  PageMesh mesh;
  mesh.name = baseName(path);
  mesh.soup.reserve(9 * static_cast<size_t>(faces.rows()));
  for (Eigen::Index f = 0; f < faces.rows(); ++f)
    for (int corner = 0; corner < 3; ++corner)
      for (int k = 0; k < 3; ++k) mesh.soup.push_back(static_cast<float>(vertices(faces(f, corner), k) * mmPerUnit));
  mesh.triangles = static_cast<size_t>(faces.rows());
  return mesh;
}

JsonOut meshJson(const PageMesh& mesh, bool withPositions) {
  JsonOut json = JsonOut::object();
  json["name"] = mesh.name;
  json["triangles"] = static_cast<uint64_t>(mesh.soup.size() / 9);
  json["decimatedFrom"] = mesh.shownFrom ? JsonOut(static_cast<uint64_t>(mesh.shownFrom)) : JsonOut();
  json["positions"] = withPositions ? base64Float32(mesh.soup) : std::string();
  return json;
}

// The grid's rows as the page's arrays, and the share of the sphere from which
// each sensor is seen, weighted as the coverage summary weighs directions.
struct PageCoverage {
  JsonOut json = JsonOut::object();
  std::vector<double> seenShare;
};

PageCoverage pageCoverage(const std::vector<OrientationSample>& grid, const std::vector<DirectionCoverage>& rows,
                          size_t sensorCount, double stepDegrees) {
  PageCoverage page;
  size_t latitudeCount = 0;
  while (latitudeCount < grid.size() && grid[latitudeCount].longitude == grid[0].longitude) ++latitudeCount;
  JsonOut longitudes = JsonOut::array(), latitudes = JsonOut::array();
  for (size_t r = 0; r < grid.size(); r += latitudeCount) longitudes.append(grid[r].longitude);
  for (size_t r = 0; r < latitudeCount; ++r) latitudes.append(grid[r].latitude);

  std::vector<uint32_t> masks(rows.size());
  std::vector<uint8_t> counts(rows.size()), grades(rows.size());
  std::vector<float> positionSigma(rows.size()), rotationSigma(rows.size());
  std::vector<double> seen(sensorCount, 0.0);
  double total = 0.0;
  for (size_t r = 0; r < rows.size(); ++r) {
    masks[r] = rows[r].visibleMask;
    counts[r] = static_cast<uint8_t>(std::clamp(rows[r].visibleCount, 0, 255));
    grades[r] = static_cast<uint8_t>(std::clamp(rows[r].grade.first, 0, 255));
    positionSigma[r] = static_cast<float>(rows[r].positionSigma);
    rotationSigma[r] = static_cast<float>(rows[r].rotationSigma);
    const double weight = std::max(0.0, std::cos(grid[r].latitude));
    total += weight;
    for (size_t k = 0; k < sensorCount && k < 32; ++k)
      if (rows[r].visibleMask >> k & 1u) seen[k] += weight;
  }
  for (double& share : seen) share = total > 0.0 ? std::min(1.0, share / total) : 0.0;
  page.seenShare = seen;

  JsonOut& json = page.json;
  json["stepDegrees"] = stepDegrees;
  json["distanceMeters"] = 2.0;
  json["longitudes"] = longitudes;
  json["latitudes"] = latitudes;
  json["visibleMask"] = base64Uint32(masks);
  json["visibleCount"] = base64Uint8(counts);
  json["grade"] = base64Uint8(grades);
  json["positionSigma"] = base64Float32(positionSigma);
  json["rotationSigma"] = base64Float32(rotationSigma);
  return page;
}

// The run record a design writes beside its model: PREFIX.run.json for
// PREFIX.json, with the score it recorded. No record when there is none; a
// warning when there is one that cannot be used.
struct RunRecord {
  JsonOut json;
  std::optional<double> score;
};

RunRecord runRecordBeside(const std::string& modelPath, std::vector<std::string>& warnings) {
  if (!endsWith(modelPath, ".json") || endsWith(modelPath, ".run.json")) return {};
  const std::string path = modelPath.substr(0, modelPath.size() - 5) + ".run.json";
  const WholeFile file = readRegularFile(path, kMostRecordBytes);
  if (file.problem == WholeFile::Problem::CannotOpen && file.error == ENOENT) return {};
  Json::Value root;
  std::string errors;
  if (file.problem != WholeFile::Problem::None || !parseJsonText(file.bytes, root, errors) || !root.isObject()) {
    warnings.push_back("the run record " + printablePath(path) +
                       " beside the model is not a JSON object of at most 1 MB; the page leaves it out");
    return {};
  }
  RunRecord record{JsonOut::fromJson(root), std::nullopt};
  if (root["score"].isNumeric()) record.score = root["score"].asDouble();
  return record;
}

// Bytes of the page holding this data.
size_t pageBytes(const std::string& dataJson) {
  size_t escapes = 0;
  for (char c : dataJson) escapes += c == '<';
  return viewPageTemplate().size() - viewDataPlaceholder().size() + dataJson.size() + 5 * escapes;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "sensorlay-lab view: %s\n", message.c_str());
  return kExitFailed;
}

int writeView(ViewRequest& request) {
  const MeshInputs& inputs = request.inputs;
  const DesignSettings& settings = request.settings;
  // Nothing is worked on before the page is known to have a place.
  if (Status writable = checkWritable(request.out); !writable) return fail(writable.message());
  if (Status fits = checkGridFits(settings.coverageStepDegrees); !fits) return fail(fits.message());

  Result<std::unique_ptr<SensorModel>> loaded = loadModel(request.modelPath, true);
  if (!loaded) return fail(loaded.message());
  SensorModel& model = **loaded;
  Result<Scene> scene = buildScene(inputs);
  if (!scene) return fail(scene.message());
  const Result<QualityMap> map = loadWeights(settings);
  if (!map) return fail(map.message());

  std::vector<std::string> warnings;
  if (std::optional<std::string> off = offSurfaceNote(*scene->surface, model, request.modelPath))
    warnings.push_back(*off);
  if (model.sensorCount() == 0)
    warnings.push_back(request.modelPath + " holds no sensors: no direction sees any, and there is nothing to score");
  const RunRecord record = runRecordBeside(request.modelPath, warnings);

  JsonOut score;
  if (model.sensorCount() > 0) {
    const Result<double> scored = designScore(*scene, model, settings, *map);
    if (!scored) return fail(scored.message());
    score = *scored;
    const std::optional<double> recorded = record.score;
    if (recorded && std::fabs(*recorded - *scored) > 1e-9 * std::max(1.0, std::fabs(*recorded))) {
      std::ostringstream why;
      why << "the run record gives the score " << *recorded << ", and the settings of this page give " << *scored
          << ": give the design's settings (in its run record) to compare like with like";
      warnings.push_back(why.str());
    }
  }

  for (const std::string& note : scene->notes) std::fprintf(stderr, "note: %s\n", note.c_str());
  for (const std::string& warning : warnings) std::fprintf(stderr, "warning: %s\n", warning.c_str());

  // The table's own computation, on the grid of the page.
  const std::vector<OrientationSample> grid =
      buildReportGrid(kFullTurn, degreesToRadians(settings.coverageStepDegrees));
  std::vector<DirectionCoverage> rows(grid.size());
  if (model.sensorCount() > 0) {
    CoverageEvaluator evaluator;
    setUpTableEvaluator(evaluator, *scene, model, settings);
    WorkerPool pool(request.threads);
    if (std::optional<std::string> note = poolNote(pool)) std::fprintf(stderr, "note: %s\n", note->c_str());
    Result<std::vector<DirectionCoverage>> computed = computeCoverageRows(evaluator, grid, pool);
    if (!computed) return fail(computed.message());
    rows = std::move(*computed);
  }
  const PageCoverage coverage = pageCoverage(grid, rows, model.sensorCount(), settings.coverageStepDegrees);

  std::vector<PageMesh> meshes;
  const TrackedSurface& surface = *scene->surface;
  meshes.push_back(meshOf(inputs.sensors, surface.vertices, surface.faces, 1000.0));
  const double obstacleScale = metresPer(inputs.obstacleUnits).value_or(surface.getScale());
  for (const std::string& path : inputs.obstacles) {
    StlVertices vertices, normals;
    StlFaces faces;
    if (Status read = readStl(path, vertices, faces, normals); !read) return fail(read.message());
    meshes.push_back(meshOf(path, vertices, faces, 1000.0 * obstacleScale));
  }

  JsonOut data = JsonOut::object();
  data["format"] = 1;
  data["title"] = request.title.empty() ? defaultTitle(request.modelPath) : request.title;
  data["generatedBy"] = std::string("sensorlay-lab ") + labVersion() + ", from " + request.modelPath;
  data["score"] = score;
  data["settings"] = settingsJson(inputs, settings, false);
  data["runRecord"] = record.json;
  data["sensorSizeMm"] = inputs.sensorSizeMm;
  JsonOut sensors = JsonOut::array();
  for (size_t k = 0; k < model.sensorCount(); ++k) {
    JsonOut sensor = JsonOut::object();
    sensor["channel"] = model.channels[k];
    JsonOut position = JsonOut::array(), normal = JsonOut::array();
    for (int c = 0; c < 3; ++c) {
      position.append(model.points[k][c] * 1000.0);
      normal.append(model.normals[k][c]);
    }
    sensor["position"] = position;
    sensor["normal"] = normal;
    sensor["seenShare"] = coverage.seenShare[k];
    sensors.append(sensor);
  }
  data["sensors"] = sensors;
  data["coverage"] = coverage.json;

  // The meshes get what the rest leaves of the page.
  auto placeMeshes = [&](bool withPositions) {
    data["surface"] = meshJson(meshes[0], withPositions);
    JsonOut obstacles = JsonOut::array();
    for (size_t i = 1; i < meshes.size(); ++i) obstacles.append(meshJson(meshes[i], withPositions));
    data["obstacles"] = obstacles;
  };
  data["warnings"] = JsonOut::array();
  for (const std::string& warning : warnings) data["warnings"].append(warning);
  placeMeshes(false);
  const double room = kPageBudgetBytes - static_cast<double>(pageBytes(writeStyledJson(data)));
  const size_t budget = std::max(kFewestTriangles, static_cast<size_t>(std::max(0.0, room / kBytesPerTriangle)));
  std::vector<size_t> counts;
  for (const PageMesh& mesh : meshes) counts.push_back(mesh.triangles);
  const std::vector<size_t> shares = shareTriangleBudget(counts, budget);
  for (size_t i = 0; i < meshes.size(); ++i) {
    if (shares[i] >= meshes[i].triangles) continue;
    meshes[i].soup = decimateToBudget(meshes[i].soup, shares[i]);
    meshes[i].shownFrom = meshes[i].triangles;
    std::fprintf(stderr, "note: %s is shown with %zu of its %zu triangles, to keep the page under %s\n",
                 printablePath(meshes[i].name).c_str(), meshes[i].soup.size() / 9, meshes[i].triangles,
                 megabytes(kPageBudgetBytes).c_str());
  }
  placeMeshes(true);

  const std::string page = fillDesignPage(writeStyledJson(data));
  if (Status written = writeWholeFile(request.out, page); !written) return fail(written.message());
  std::fprintf(stderr, "written: %s (%s)\n", printablePath(request.out).c_str(),
               megabytes(static_cast<double>(page.size())).c_str());
  return kExitOk;
}

}  // namespace

int runView(int argc, char** argv) {
  ViewRequest request;
  std::vector<std::string> positionals;
  const ParseOutcome parsed =
      parseCommandLine(viewSyntax(), argc, argv, positionals, [&](const std::string& name, const char* value) {
        if (name == "out" || name == "title") {
          (name == "out" ? request.out : request.title) = value;
          return *value ? std::string() : badValue(name, value, name == "out" ? "a file name" : "a text");
        }
        if (name == "step-degrees") {
          const std::optional<double> step = parseNumber(value);
          if (!step || *step < 0.1 || *step > 30.0) return badValue(name, value, "an angle in degrees from 0.1 to 30");
          request.settings.coverageStepDegrees = *step;
          return std::string();
        }
        if (std::optional<std::string> taken = takeThreads(name, value, request.threads)) return *taken;
        if (std::optional<std::string> taken = takeMeshOption(request.inputs, name, value)) return *taken;
        return takeSetting(request.settings, name, value).value_or("--" + name + " is not an option of view");
      });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (positionals.size() != 1) {
    usageError("view", positionals.empty() ? "which model? give MODEL.json"
                                           : "one model at a time, not also '" + positionals[1] + "'");
    return kExitUsage;
  }
  for (const auto& [missing, name] :
       {std::pair<bool, const char*>{request.inputs.sensors.empty(), "--sensors"}, {request.out.empty(), "--out"}})
    if (missing) {
      usageError("view", std::string(name) + " is required");
      return kExitUsage;
    }
  request.modelPath = positionals[0];
  return writeView(request);
}

}  // namespace sensorlay::lab
