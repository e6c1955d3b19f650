// `sensorlay-lab design`: a reproducible design run that keeps its work when
// stopped and records how it was made.

#include <sys/stat.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "common/json_io.h"
#include "common/output_file.h"
#include "common/random_draws.h"
#include "common/worker_pool.h"
#include "lab/cli.h"
#include "lab/design.h"
#include "lab/lab.h"
#include "lab/run_control.h"
#include "lab/scene.h"
#include "lab/settings.h"
#include "lab/sha256.h"
#include "model/scad_writer.h"
#include "search/annealer.h"

namespace sensorlay::lab {

namespace {

// The surface's generator is seeded with the seed XOR this, the search's
// trial generator with the seed itself: two streams from one number.
constexpr uint32_t kSurfaceSeedMask = 0x9E3779B9u;

// Random spots tried before the search, to refuse a surface without room for
// a sensor instead of searching for ever.
constexpr int kRoomSpots = 2000;

struct Outputs {
  std::string model, script, coverage, record;
};

struct InputRecord {
  std::string role, path;
};

// The number of trials the schedule runs: a level of trials at each
// temperature from the start down to the end.
int64_t plannedTrials(int64_t trialsPerLevel, double coolingRate) {
  int64_t levels = 0;
  for (double T = annealStartTemperature; T >= annealEndTemperature; T *= coolingRate) ++levels;
  return levels * trialsPerLevel;
}

// The design as sensorlay-lab writes it: the model's keys and what tells
// where it came from.
JsonOut modelJson(const Constellation& result, double score, uint32_t seed, const std::string& status) {
  JsonOut json = constellationToJson(result);
  json["score"] = score;
  json["seed"] = seed;
  json["status"] = status;
  json["designedBy"] = std::string("sensorlay-lab ") + labVersion();
  return json;
}

// The model as `score` reads it back from its text, so that the recorded score
// is the one `score` gives the file: the reader normalises the normals again.
Result<std::unique_ptr<SensorModel>> modelAsWritten(const std::string& text) {
  Json::Value root;
  std::string errors;
  if (!parseJsonText(text, root, errors)) return Status::failure("the model's own text does not parse: " + errors);
  Constellation read;
  parseModelSection(read, root);
  return std::make_unique<SensorModel>(read, ModelTransform());
}

// The script: a header, the model in a comment, the template with the meshes
// imported by absolute path and drawn in their own units.
std::string scriptText(const Constellation& result, const std::string& modelText, double score, uint32_t seed,
                       const std::string& status, const TrackedSurface& surface, const MeshInputs& inputs) {
  std::vector<std::string> obstacles;
  for (const std::string& path : inputs.obstacles) obstacles.push_back(absolutePath(path));
  std::string script = writeScad(result, absolutePath(inputs.sensors), obstacles, surface.getScale(), false, true);
  // The template scales every import by the surface's unit; obstacles in a
  // unit of their own get the difference.
  if (const std::optional<double> own = metresPer(inputs.obstacleUnits); own && *own != surface.getScale()) {
    std::ostringstream factor;
    factor.precision(17);
    factor << *own / surface.getScale();
    const std::string plain = "color(\"white\") import(";
    for (size_t at = script.find(plain); at != std::string::npos; at = script.find(plain, at + 1))
      script.replace(at, plain.size(), "color(\"white\") scale(" + factor.str() + ") import(");
  }
  std::ostringstream header;
  header << "/* sensorlay-lab design, " << status << ": score " << score << " / 1000 (lower is better), seed " << seed
         << " */\n/*\n"
         << modelText << "*/\n\n";
  return header.str() + script;
}

class DesignRun {
 public:
  DesignRun(DesignRequest request, JsonOut commandLine)
      : request_(std::move(request)), commandLine_(std::move(commandLine)), pool_(request_.threads) {
    const std::string& prefix = request_.prefix;
    outputs_ = {prefix + ".json", prefix + ".scad", prefix + ".coverage.json", prefix + ".run.json"};
  }

  int run();

 private:
  int fail(const std::string& message);
  int stopBeforeSearch();
  Status recordInputs();
  Status checkRoom(TrackedSurface& surface) const;
  JsonOut record(const std::string& status) const;
  Status writeRecord(const std::string& status);

  DesignRequest request_;
  JsonOut commandLine_;
  WorkerPool pool_;
  Outputs outputs_;
  uint32_t seed_ = 0;
  bool seedFromClock_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::string started_ = utcNow();
  JsonOut inputs_ = JsonOut::object();
  std::vector<std::string> notes_;
  std::string error_;
  std::optional<double> score_;
  int64_t trialsDone_ = 0, trialsPlanned_ = 0;
  bool outputsWritten_ = false;
};

JsonOut DesignRun::record(const std::string& status) const {
  JsonOut json = JsonOut::object();
  json["program"] = "sensorlay-lab";
  json["version"] = labVersion();
  json["commandLine"] = commandLine_;
  json["status"] = status;
  json["seed"] = seed_;
  json["seedFrom"] = seedFromClock_ ? "clock" : "--seed";
  json["threads"] = pool_.size();
  json["count"] = request_.count;
  json["inputs"] = inputs_;
  JsonOut settings = settingsJson(request_.inputs, request_.settings, true);
  json["settings"] = settings;
  json["score"] = score_ ? JsonOut(*score_) : JsonOut();
  JsonOut trials = JsonOut::object();
  trials["planned"] = trialsPlanned_;
  trials["done"] = trialsDone_;
  json["trials"] = trials;
  json["started"] = started_;
  json["wallSeconds"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  JsonOut outputs = JsonOut::object();
  if (outputsWritten_) {
    outputs["model"] = outputs_.model;
    outputs["script"] = outputs_.script;
    outputs["coverage"] = outputs_.coverage;
  }
  json["outputs"] = outputs;
  JsonOut notes = JsonOut::array();
  for (const std::string& note : notes_) notes.append(note);
  json["notes"] = notes;
  if (!error_.empty()) json["error"] = error_;
  return json;
}

Status DesignRun::writeRecord(const std::string& status) {
  return writeWholeFile(outputs_.record, writeStyledJson(record(status)));
}

int DesignRun::fail(const std::string& message) {
  std::fprintf(stderr, "sensorlay-lab design: %s\n", message.c_str());
  error_ = message;
  if (Status written = writeRecord("failed"); !written)
    std::fprintf(stderr, "sensorlay-lab design: %s\n", written.message().c_str());
  return kExitFailed;
}

int DesignRun::stopBeforeSearch() {
  std::fprintf(stderr, "sensorlay-lab design: stopped before the search began; no design was made\n");
  if (Status written = writeRecord("interrupted"); !written)
    std::fprintf(stderr, "sensorlay-lab design: %s\n", written.message().c_str());
  return exitStatusForSignal(stopSignal());
}

Status DesignRun::recordInputs() {
  auto add = [&](const std::string& role, const std::string& path) -> Status {
    Result<JsonOut> described = describeInput(path);
    if (!described) return described.status();
    inputs_[role] = *described;
    return Status();
  };
  if (Status s = add("sensors", request_.inputs.sensors); !s) return s;
  JsonOut obstacles = JsonOut::array();
  for (const std::string& path : request_.inputs.obstacles) {
    Result<JsonOut> described = describeInput(path);
    if (!described) return described.status();
    obstacles.append(*described);
  }
  inputs_["obstacles"] = obstacles;
  if (!request_.fixedPath.empty())
    if (Status s = add("fixed", request_.fixedPath); !s) return s;
  if (!request_.settings.qualityMap.empty())
    if (Status s = add("qualityMap", request_.settings.qualityMap); !s) return s;
  return Status();
}

Status DesignRun::checkRoom(TrackedSurface& surface) const {
  for (int i = 0; i < kRoomSpots; ++i) {
    const int32_t face = surface.randomFace();
    const Eigen::Vector3f point = surface.randomPointOnFace(face);
    const Eigen::Vector3f normal = surface.faceNormals.row(face).transpose();
    if (normal.allFinite() && surface.sensorFits(point, normal)) return Status();
  }
  std::ostringstream why;
  why << "a sensor of " << request_.inputs.sensorSizeMm << " mm fits at none of " << kRoomSpots << " random spots on "
      << request_.inputs.sensors << "; give a smaller --sensor-size, or check the unit (sensorlay-lab check)";
  return Status::failure(why.str());
}

int DesignRun::run() {
  const DesignSettings& settings = request_.settings;
  // Nothing is worked on before every output is known to have a place.
  for (const std::string& path : {outputs_.model, outputs_.script, outputs_.coverage, outputs_.record})
    if (Status writable = checkWritable(path); !writable) {
      std::fprintf(stderr, "sensorlay-lab design: %s\n", writable.message().c_str());
      return kExitFailed;
    }
  catchStopSignals();

  seedFromClock_ = !request_.seed;
  seed_ = request_.seed ? *request_.seed : clockSeed();
  if (seedFromClock_) std::fprintf(stderr, "sensorlay-lab design: seed %u, drawn from the clock\n", seed_);

  if (Status s = recordInputs(); !s) return fail(s.message());
  Result<Scene> scene = buildScene(request_.inputs);
  if (!scene) return fail(scene.message());
  TrackedSurface& surface = *scene->surface;
  notes_ = scene->notes;
  if (std::optional<std::string> note = poolNote(pool_)) notes_.push_back(*note);
  Result<QualityMap> map = loadWeights(settings);
  if (!map) return fail(map.message());

  std::unique_ptr<SensorModel> fixed;
  if (!request_.fixedPath.empty()) {
    Result<std::unique_ptr<SensorModel>> loaded = loadModel(request_.fixedPath);
    if (!loaded) return fail(loaded.message());
    fixed = std::move(*loaded);
    if (static_cast<int64_t>(fixed->sensorCount()) >= request_.count)
      return fail("the fixed model " + request_.fixedPath + " has " + std::to_string(fixed->sensorCount()) +
                  " sensors, and --count " + std::to_string(request_.count) + " leaves none to place");
    if (std::optional<std::string> off = offSurfaceNote(surface, *fixed, request_.fixedPath)) notes_.push_back(*off);
  }
  for (const std::string& note : notes_) std::fprintf(stderr, "note: %s\n", note.c_str());

  surface.setMaxSurfaceAngle(settings.maxSurfaceAngleDegrees);
  surface.seedGenerator(seed_);
  if (Status room = checkRoom(surface); !room) return fail(room.message());
  // The search's draws start from the seed, whatever the check drew.
  surface.seedGenerator(seed_ ^ kSurfaceSeedMask);
  if (stopRequest().load()) return stopBeforeSearch();

  AnnealerOptions options(surface, request_.count, pool_);
  options.immutableModel = fixed.get();
  options.nOrientations = settings.orientations;
  options.nIterations = settings.iterations;
  options.coolingRate = settings.coolingRate;
  options.maxIncidenceDegrees = searchIncidenceDegrees(settings.maxIncidenceDegrees, settings.orientations);
  if (hasQualityRange(settings)) {
    options.qualityRangeLow = *settings.qualityLowMm * 0.001;
    options.qualityRangeHigh = *settings.qualityHighMm * 0.001;
  }
  options.qualityMap = *map;
  options.unseenCost = settings.unseenCost;
  options.minSpacing = settings.minSpacingMm * 0.001;
  options.annealSeed = seed_;
  options.stopRequest = &stopRequest();
  trialsPlanned_ = plannedTrials(static_cast<int64_t>(request_.count) * settings.iterations, settings.coolingRate);
  Progress progress(trialsPlanned_, request_.quiet);
  options.trialObserver = [&progress](int32_t, double score, bool) { progress.trial(score); };

  Constellation result;
  const Status searched = runAnnealer(options, result);
  trialsDone_ = progress.done();
  const bool interrupted = stopRequest().load();
  progress.finish(interrupted ? "stopped" : "finished");
  if (!searched) return fail(searched.message());
  const std::string status = interrupted ? "interrupted" : "finished";

  // The score recorded is that of the file as written, read back.
  const std::string draft = writeStyledJson(modelJson(result, 0.0, seed_, status));
  Result<std::unique_ptr<SensorModel>> written = modelAsWritten(draft);
  if (!written) return fail(written.message());
  const Result<double> score = designScore(*scene, **written, settings, *map);
  if (!score) return fail(score.message());
  score_ = *score;
  const std::string modelText = writeStyledJson(modelJson(result, *score, seed_, status));
  const Result<CoverageSummary> coverage = coverageOf(*scene, **written, settings, pool_);
  if (!coverage) return fail(coverage.message());

  const std::string script = scriptText(result, modelText, *score, seed_, status, surface, request_.inputs);
  for (const auto& [path, text] : {std::pair<std::string, std::string>{outputs_.model, modelText},
                                   {outputs_.script, script},
                                   {outputs_.coverage, writeStyledJson(coverageSummaryJson(*coverage))}})
    if (Status s = writeWholeFile(path, text); !s) return fail(s.message());
  outputsWritten_ = true;
  if (Status s = writeRecord(status); !s) {
    std::fprintf(stderr, "sensorlay-lab design: %s\n", s.message().c_str());
    return kExitFailed;
  }

  if (!request_.quiet) {
    std::ostringstream summary;
    summary << "score " << *score << " / 1000 (lower is better), seed " << seed_ << "\n"
            << coverageText(*coverage) << "written: " << outputs_.model << ", " << outputs_.script << ", "
            << outputs_.coverage << ", " << outputs_.record << "\n";
    std::fputs(summary.str().c_str(), stderr);
  }
  return interrupted ? exitStatusForSignal(stopSignal()) : kExitOk;
}

}  // namespace

std::string absolutePath(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) != nullptr ? std::string(buffer) : path;
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

const CommandSyntax& designSyntax() {
  static const CommandSyntax syntax = [] {
    CommandSyntax s{
        "design", "--sensors S.stl --count N --out PREFIX [--obstacles O.stl]... [options]",
        "Searches by simulated annealing for the placement of N sensors on the surface that lets the\n"
        "pose be solved best, as sensorlay /generate does, and writes:\n"
        "  PREFIX.json           the model (plain JSON, metres) with its \"score\", \"seed\" and \"status\"\n"
        "  PREFIX.scad           OpenSCAD view; it imports the meshes by absolute path\n"
        "  PREFIX.coverage.json  the coverage summary, as score --json gives it\n"
        "  PREFIX.run.json       the run record: command line, version, seed, threads, each input's\n"
        "                        path, size and SHA-256, the settings, score, trials, wall time, status\n"
        "Every output path is checked before the search, and each file is written whole or not at\n"
        "all. The same seed gives the same files, but for the record's times and thread count, on\n"
        "any number of threads: the search's trial generator is seeded with the seed, the surface's\n"
        "generator with the seed XOR 0x9E3779B9. Without --seed one is drawn from the clock, printed\n"
        "and recorded. SIGINT or SIGTERM stops the search at its next trial; the best placement so\n"
        "far is written, marked \"interrupted\", and the exit status is 130 or 143. Progress goes to\n"
        "the standard error stream: one updating line on a terminal, else a line every 5 seconds.",
        meshOptionDefs(),
        "  sensorlay-lab design --sensors puck.stl --count 12 --seed 42 --out runs/puck-12\n"
        "  sensorlay-lab design --sensors shell.stl --obstacles head.stl --count 20 --min-spacing 8 \\\n"
        "      --quality-map front.png --seed 7 --threads 2 --out hmd-20"};
    s.options.push_back({"count", "N", "number of sensors, fixed ones included, 1 to 32 (required)"});
    s.options.push_back({"out", "PREFIX", "where the four files go: PREFIX.json, .scad, .coverage.json, .run.json"});
    s.options.push_back({"fixed", "MODEL.json", "sensors that stay where they are; they count towards --count"});
    appendDesignSettingDefs(s.options);
    s.options.push_back({"seed", "N", "seed of the search, 0 to 4294967295 (default: drawn from the clock)"});
    s.options.push_back({"threads", "N", "threads that score the trials (default 0: one per core)"});
    s.options.push_back({"quiet", nullptr, "no progress report"});
    return s;
  }();
  return syntax;
}

Result<JsonOut> describeInput(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    return Status::failure("cannot read " + path + ": it is not a file that can be read");
  Sha256 hash;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return Status::failure("cannot read " + path);
  char buffer[65536];
  size_t n;
  int64_t size = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
    hash.update(buffer, n);
    size += static_cast<int64_t>(n);
  }
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) return Status::failure("cannot read " + path);
  JsonOut json = JsonOut::object();
  json["path"] = path;
  json["absolutePath"] = absolutePath(path);
  json["bytes"] = size;
  json["sha256"] = hash.hexDigest();
  return json;
}

std::string takeDesignOption(DesignRequest& request, const std::string& name, const char* value) {
  if (name == "count") {
    const std::optional<int64_t> n = parseWholeNumber(value);
    if (!n || *n < 1 || *n > kMaxSensors)
      return badValue(name, value, "a whole number from 1 to " + std::to_string(kMaxSensors));
    request.count = static_cast<int32_t>(*n);
    return std::string();
  }
  if (name == "out") {
    request.prefix = value;
    return request.prefix.empty() ? badValue(name, value, "a path") : std::string();
  }
  if (name == "fixed") {
    request.fixedPath = value;
    return request.fixedPath.empty() ? badValue(name, value, "a model file") : std::string();
  }
  if (name == "seed") {
    const std::optional<int64_t> n = parseWholeNumber(value);
    if (!n || *n < 0 || *n > UINT32_MAX) return badValue(name, value, "a whole number from 0 to 4294967295");
    request.seed = static_cast<uint32_t>(*n);
    return std::string();
  }
  if (std::optional<std::string> taken = takeThreads(name, value, request.threads)) return *taken;
  if (name == "quiet") {
    request.quiet = true;
    return std::string();
  }
  if (std::optional<std::string> taken = takeMeshOption(request.inputs, name, value)) return *taken;
  return takeSetting(request.settings, name, value).value_or("--" + name + " is not an option of design");
}

int runDesign(int argc, char** argv) {
  // As typed: the parser reorders argv.
  JsonOut commandLine = JsonOut::array();
  commandLine.append("sensorlay-lab");
  for (int i = 0; i < argc; ++i) commandLine.append(argv[i]);
  DesignRequest request;
  std::vector<std::string> positionals;
  const ParseOutcome parsed = parseCommandLine(
      designSyntax(), argc, argv, positionals,
      [&](const std::string& name, const char* value) { return takeDesignOption(request, name, value); });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (!positionals.empty()) {
    usageError("design", "unexpected argument '" + positionals[0] + "'");
    return kExitUsage;
  }
  for (const auto& [missing, name] : {std::pair<bool, const char*>{request.inputs.sensors.empty(), "--sensors"},
                                      {request.count == 0, "--count"},
                                      {request.prefix.empty(), "--out"}})
    if (missing) {
      usageError("design", std::string(name) + " is required");
      return kExitUsage;
    }
  DesignRun run(std::move(request), std::move(commandLine));
  return run.run();
}

}  // namespace sensorlay::lab
