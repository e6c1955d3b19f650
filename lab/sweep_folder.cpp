#include "lab/sweep_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "common/files.h"
#include "common/json_io.h"
#include "lab/cli.h"

namespace sensorlay::lab {

namespace {

// Lines of a run's standard error stream shown for a run that did not finish.
constexpr int kTailLines = 4;

constexpr const char* kPlanHeader = "run\tvariant\tcount\tseed\tfolder";

// A log's tail is told from at most this many of its last bytes.
constexpr off_t kTailBytes = 16384;

Result<Json::Value> readJsonFile(const std::string& path) {
  const WholeFile file = readRegularFile(path);
  if (file.problem != WholeFile::Problem::None) return Status::failure("cannot read " + printablePath(path));
  Json::Value root;
  std::string errors;
  if (!parseJsonText(file.bytes, root, errors) || !root.isObject())
    return Status::failure(printablePath(path) + " is not a JSON object: " + errors);
  return root;
}

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, '\t')) fields.push_back(field);
  return fields;
}

Result<std::vector<PlannedRun>> readPlan(const std::string& path) {
  const WholeFile file = readRegularFile(path);
  if (file.problem != WholeFile::Problem::None) return Status::failure("cannot read " + printablePath(path));
  std::istringstream lines(file.bytes);
  std::string line;
  std::vector<PlannedRun> runs;
  const auto bad = [&](const std::string& why) {
    return Status::failure(printablePath(path) + " line " + std::to_string(runs.size() + 2) + ": " + why);
  };
  if (!std::getline(lines, line) || line != kPlanHeader)
    return bad("the header is not '" + std::string(kPlanHeader) + "'");
  while (std::getline(lines, line)) {
    const std::vector<std::string> fields = splitTabs(line);
    if (fields.size() != 5) return bad("not five fields");
    PlannedRun run;
    const std::optional<int64_t> index = parseWholeNumber(fields[0].c_str());
    const std::optional<int64_t> count = parseWholeNumber(fields[2].c_str());
    const std::optional<int64_t> seed = parseWholeNumber(fields[3].c_str());
    if (!index || *index != static_cast<int64_t>(runs.size())) return bad("the runs are not numbered from 0 in order");
    if (!count || !seed || *count < 1 || *seed < 0 || *seed > UINT32_MAX) return bad("not a count and a seed");
    run.index = static_cast<int32_t>(*index);
    run.variant = fields[1];
    run.count = static_cast<int32_t>(*count);
    run.seed = static_cast<uint32_t>(*seed);
    run.name = fields[4].substr(fields[4].find('/') + 1);
    if (fields[4] != "runs/" + run.name || run.name.empty()) return bad("the folder is not under runs/");
    runs.push_back(run);
  }
  return runs;
}

}  // namespace

std::vector<PlannedRun> planRuns(const std::vector<SweepVariant>& variants, const std::vector<int32_t>& counts,
                                 const std::vector<uint32_t>& seeds) {
  std::vector<PlannedRun> runs;
  for (const SweepVariant& variant : variants)
    for (int32_t count : counts)
      for (uint32_t seed : seeds) {
        PlannedRun run;
        run.index = static_cast<int32_t>(runs.size());
        run.variant = variant.name;
        run.count = count;
        run.seed = seed;
        run.name = variant.name + "-n" + std::to_string(count) + "-s" + std::to_string(seed);
        runs.push_back(run);
      }
  return runs;
}

std::string planText(const std::vector<PlannedRun>& runs) {
  std::ostringstream text;
  text << kPlanHeader << "\n";
  for (const PlannedRun& run : runs)
    text << run.index << "\t" << run.variant << "\t" << run.count << "\t" << run.seed << "\truns/" << run.name << "\n";
  return text.str();
}

std::string sweepFile(const std::string& folder) { return folder + "/sweep.json"; }
std::string planFile(const std::string& folder) { return folder + "/plan.tsv"; }
std::string runFolder(const std::string& sweepFolder, const PlannedRun& run) {
  return sweepFolder + "/runs/" + run.name;
}
std::string runPrefix(const std::string& sweepFolder, const PlannedRun& run) {
  return runFolder(sweepFolder, run) + "/design";
}
std::string runLog(const std::string& sweepFolder, const PlannedRun& run) {
  return runFolder(sweepFolder, run) + "/stderr.log";
}
std::string runLock(const std::string& sweepFolder, const PlannedRun& run) {
  return runFolder(sweepFolder, run) + "/.lock";
}

Result<Sweep> readSweep(const std::string& folder) {
  Sweep sweep;
  sweep.folder = folder;
  Result<Json::Value> definition = readJsonFile(sweepFile(folder));
  if (!definition) {
    struct stat info;
    if (stat(sweepFile(folder).c_str(), &info) != 0)
      return Status::failure(printablePath(folder) + " holds no sweep: it has no sweep.json");
    return definition.status();
  }
  sweep.definition = *definition;
  const Json::Value& root = sweep.definition;
  const auto bad = [&](const std::string& what) {
    return Status::failure(printablePath(sweepFile(folder)) + ": " + what + " is missing or not what a sweep writes");
  };
  if (!root["variants"].isArray() || root["variants"].empty()) return bad("\"variants\"");
  for (const Json::Value& entry : root["variants"]) {
    SweepVariant variant;
    if (!entry["name"].isString() || !entry["sensors"]["path"].isString() || !entry["obstacles"].isArray())
      return bad("a variant");
    variant.name = entry["name"].asString();
    variant.sensors = entry["sensors"]["path"].asString();
    for (const Json::Value& obstacle : entry["obstacles"]) {
      if (!obstacle["path"].isString()) return bad("an obstacle");
      variant.obstacles.push_back(obstacle["path"].asString());
    }
    sweep.variants.push_back(variant);
  }
  if (!root["designOptions"].isArray()) return bad("\"designOptions\"");
  for (const Json::Value& option : root["designOptions"]) {
    if (!option.isString()) return bad("\"designOptions\"");
    sweep.designOptions.push_back(option.asString());
  }
  Result<std::vector<PlannedRun>> runs = readPlan(planFile(folder));
  if (!runs) return runs.status();
  sweep.runs = std::move(*runs);
  return sweep;
}

RunState readRunState(const std::string& sweepFolder, const PlannedRun& run) {
  RunState state;
  const std::string record = runPrefix(sweepFolder, run) + ".run.json";
  if (Result<Json::Value> read = readJsonFile(record); read && (*read)["status"].isString()) {
    state.record = *read;
    state.status = state.record["status"].asString();
    return state;
  }
  const int lock = open(runLock(sweepFolder, run).c_str(), O_RDONLY | O_CLOEXEC);
  if (lock >= 0) {
    const bool held = flock(lock, LOCK_SH | LOCK_NB) != 0;
    close(lock);
    state.status = held ? "running" : "unrecorded";
    return state;
  }
  state.status = "planned";
  return state;
}

std::string logTail(const std::string& sweepFolder, const PlannedRun& run, int lines, const std::string& indent) {
  const int fd = open(runLog(sweepFolder, run).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();
  struct stat info;
  std::string text;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    const off_t start = info.st_size > kTailBytes ? info.st_size - kTailBytes : 0;
    text.resize(static_cast<size_t>(info.st_size - start));
    const ssize_t n = pread(fd, text.data(), text.size(), start);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  }
  close(fd);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  size_t from = text.size();
  for (int i = 0; i < lines && from != std::string::npos && from > 0; ++i) from = text.rfind('\n', from - 1);
  text = from == std::string::npos || from == text.size() ? text : text.substr(from + 1);
  if (text.empty()) return text;
  std::string tail;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) tail += indent + printablePath(line) + "\n";
  return tail;
}

std::string RunTally::counts() const {
  std::string text;
  for (const auto& [status, n] : byStatus) text += (text.empty() ? "" : ", ") + std::to_string(n) + " " + status;
  return text;
}

RunTally tallyRuns(const std::string& sweepFolder, const std::vector<PlannedRun>& runs) {
  RunTally tally;
  for (const PlannedRun& run : runs) {
    const RunState state = readRunState(sweepFolder, run);
    ++tally.byStatus[state.status];
    if (state.status == "finished" || state.status == "planned" || state.status == "running") continue;
    tally.unfinished += "  " + run.name + ": " + state.status + "\n";
    if (state.status != "interrupted") tally.unfinished += logTail(sweepFolder, run, kTailLines, "    | ");
  }
  return tally;
}

}  // namespace sensorlay::lab
