// `sensorlay-lab sweep`: many designs of one device, over sensor counts,
// seeds and variants of its meshes, run on this machine, GNU parallel or
// Slurm; and `sweep-run`, the one run that every engine starts.

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "common/files.h"
#include "common/json_io.h"
#include "common/output_file.h"
#include "lab/cli.h"
#include "lab/design.h"
#include "lab/lab.h"
#include "lab/processes.h"
#include "lab/run_control.h"
#include "lab/sweep_engines.h"
#include "lab/sweep_folder.h"

namespace sensorlay::lab {

namespace {

const CommandSyntax& sweepSyntax() {
  static const CommandSyntax syntax{
      "sweep",
      "--out DIR --counts LIST --seeds K [--variant NAME=S.stl[,O.stl...]]...\n"
      "       [--engine ENGINE] [options] -- [design options]",
      "Runs one design for every variant, sensor count and seed: how many sensors the device\n"
      "needs, and the best of several seeds for each count, since one annealing chain varies\n"
      "from seed to seed. The design options after -- go to every run as design takes them\n"
      "(sensorlay-lab design --help), without --count, --seed, --out and --threads, which\n"
      "the sweep sets; without --variant, --sensors and --obstacles there make the one variant,\n"
      "named after the surface's file. Every input is read through and its SHA-256 kept.\n"
      "\n"
      "The folder gets sweep.json (what the sweep is), plan.tsv (one run a line) and, for each\n"
      "run, runs/<variant>-n<count>-s<seed>/ with the design's model, script, coverage summary,\n"
      "run record and the run's standard error stream. The same command again resumes: runs\n"
      "whose record says finished are kept as they are, failed and interrupted ones run again.\n"
      "A folder that holds another sweep is refused, with what differs. A failed run does not\n"
      "stop the others; the sweep lists it with the end of its standard error stream. Then\n"
      "sensorlay-lab summarize DIR tells the best of each count.\n"
      "\n"
      "Engines (each runs `sensorlay-lab sweep-run DIR INDEX` for a run, so they make the same\n"
      "files from the same seeds):\n"
      "  local     a pool of processes on this machine\n"
      "  parallel  GNU parallel: this machine, or the ssh hosts of --sshloginfile, which must\n"
      "            share the folder and have the inputs and this program at the same paths\n"
      "  slurm     one sbatch job array over the runs to do, on a folder the nodes share;\n"
      "            with --wait the sweep waits for it, else it prints the job id and ends\n"
      "\n"
      "Exit status: 0 when every run finished (or the job was handed to Slurm), 1 when a run or\n"
      "the engine failed, 2 for a wrong command line, 130 or 143 when stopped by SIGINT or\n"
      "SIGTERM: the runs under way are stopped and kept as interrupted, to run again.",
      {
          {"out", "DIR", "the sweep's folder: new, empty, or holding this same sweep (required)"},
          {"counts", "LIST",
           "sensor counts, 1 to 32: a list such as 8,12,16 or FIRST:LAST:STEP such as\n8:24:4 (required)"},
          {"seeds", "K", "seeds per count, 1 to 10000 (required)"},
          {"first-seed", "S", "the first seed; the others follow it (default 1)"},
          {"variant", "NAME=S.STL[,O.STL...]",
           "a variant of the device: its surface and obstacles; repeat for more.\nNAME: letters, digits, '.', '_' "
           "and '-'"},
          {"engine", "ENGINE", "local (default), parallel or slurm"},
          {"threads", "N", "threads of each run, 1 to 1024 (default 1)"},
          {"jobs", "N",
           "local and parallel: runs at once (on each host for parallel; default:\nits cores / --threads)"},
          {"sshloginfile", "FILE", "parallel: the hosts, as GNU parallel reads them (\":\" is this machine)"},
          {"partition", "NAME", "slurm: the partition (default: the cluster's)"},
          {"time", "LIMIT", "slurm: the time limit of each run, as sbatch --time takes it"},
          {"cpus-per-task", "N", "slurm: CPUs, and so threads, of each run (default: --threads)"},
          {"array-limit", "N", "slurm: runs at once at most (sbatch --array=...%N)"},
          {"wait", nullptr, "slurm: wait for the job to end"},
      },
      "  sensorlay-lab sweep --out ctl --counts 8:20:4 --seeds 3 -- --sensors controller.stl\n"
      "  sensorlay-lab sweep --out hmd --counts 12,16,20 --seeds 10 --engine slurm --time 1:00:00 --wait \\\n"
      "      --variant open=shell.stl,head.stl --variant closed=shell-closed.stl,head.stl -- --orientations 5000\n"
      "  sensorlay-lab summarize ctl"};
  return syntax;
}

const CommandSyntax& sweepRunSyntax() {
  static const CommandSyntax syntax{
      "sweep-run",
      "DIR INDEX [--threads N]",
      "The one run of a sweep that every engine starts: line INDEX (from 0) of DIR/plan.tsv, as\n"
      "a design with the sweep's settings into its folder under DIR/runs/, its standard error\n"
      "stream kept there in stderr.log. A run whose record says finished is kept as it is; one\n"
      "that another process is running is left to it. Used by the sweep; not needed by hand.",
      {{"threads", "N", "threads of the run (default 1)"}},
      "  sensorlay-lab sweep-run /shared/ctl 4 --threads 2"};
  return syntax;
}

struct SweepRequest {
  std::string out;
  std::vector<int32_t> counts;
  int64_t seeds = 0;
  uint32_t firstSeed = 1;
  std::vector<SweepVariant> variants;
  std::string engine = "local";
  EngineRequest run;
  std::optional<int32_t> cpusPerTask;
  std::set<std::string> given;
  // The design options, taken and as they go to every run.
  DesignRequest design;
  std::vector<std::string> designOptions;
};

bool validName(const std::string& name) {
  if (name.empty() || name[0] == '.' || name[0] == '-') return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
  return true;
}

std::optional<int32_t> wholeIn(const char* value, int64_t low, int64_t high) {
  const std::optional<int64_t> n = parseWholeNumber(value);
  if (!n || *n < low || *n > high) return std::nullopt;
  return static_cast<int32_t>(*n);
}

// "8,12,16" or "8:24:4"; an empty text when taken, else what is wrong.
std::string takeCounts(const char* value, std::vector<int32_t>& counts) {
  const std::string text = value;
  const std::string requirement = "sensor counts from 1 to " + std::to_string(kMaxSensors) + ", as 8,12,16 or 8:24:4";
  counts.clear();
  if (text.find(':') != std::string::npos) {
    std::vector<std::optional<int32_t>> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ':');) parts.push_back(wholeIn(part.c_str(), 1, kMaxSensors));
    if (parts.size() != 3 || !parts[0] || !parts[1] || !parts[2]) return badValue("counts", value, requirement);
    for (int32_t n = *parts[0]; n <= *parts[1]; n += *parts[2]) counts.push_back(n);
    if (counts.empty())
      return "--counts " + text + " gives no count: FIRST:LAST:STEP needs FIRST <= LAST, and the plan would be empty";
    return std::string();
  }
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, ',');) {
    const std::optional<int32_t> n = wholeIn(part.c_str(), 1, kMaxSensors);
    if (!n) return badValue("counts", value, requirement);
    if (std::find(counts.begin(), counts.end(), *n) != counts.end())
      return "--counts lists " + std::to_string(*n) + " twice";
    counts.push_back(*n);
  }
  return counts.empty() || text.back() == ',' ? badValue("counts", value, requirement) : std::string();
}

std::string takeVariant(const char* value, std::vector<SweepVariant>& variants) {
  const std::string text = value;
  const size_t equals = text.find('=');
  const std::string requirement = "NAME=S.stl[,O.stl...] with a NAME of letters, digits, '.', '_' and '-'";
  if (equals == std::string::npos) return badValue("variant", value, requirement);
  SweepVariant variant;
  variant.name = text.substr(0, equals);
  std::vector<std::string> files;
  std::istringstream in(text.substr(equals + 1));
  for (std::string file; std::getline(in, file, ',');) files.push_back(file);
  if (!validName(variant.name) || files.empty() || std::count(files.begin(), files.end(), "") != 0)
    return badValue("variant", value, requirement);
  for (const SweepVariant& other : variants)
    if (other.name == variant.name) return "--variant " + variant.name + " is given twice";
  variant.sensors = files[0];
  variant.obstacles.assign(files.begin() + 1, files.end());
  variants.push_back(variant);
  return std::string();
}

std::string takeSweepOption(SweepRequest& r, const std::string& name, const char* value) {
  r.given.insert(name);
  if (name == "out") {
    r.out = value;
    return r.out.empty() ? badValue(name, value, "a folder") : std::string();
  }
  if (name == "counts") return takeCounts(value, r.counts);
  if (name == "seeds") {
    const std::optional<int64_t> n = parseWholeNumber(value);
    if (n && *n == 0) return "--seeds 0 gives no seed: the plan would be empty";
    if (!n || *n < 1 || *n > 10000) return badValue(name, value, "a whole number from 1 to 10000");
    r.seeds = *n;
    return std::string();
  }
  if (name == "first-seed") {
    const std::optional<int64_t> n = parseWholeNumber(value);
    if (!n || *n < 0 || *n > UINT32_MAX) return badValue(name, value, "a whole number from 0 to 4294967295");
    r.firstSeed = static_cast<uint32_t>(*n);
    return std::string();
  }
  if (name == "variant") return takeVariant(value, r.variants);
  if (name == "engine") {
    r.engine = value;
    return r.engine == "local" || r.engine == "parallel" || r.engine == "slurm"
               ? std::string()
               : "unknown engine '" + r.engine + "': give local, parallel or slurm";
  }
  const auto whole = [&](int64_t low, int64_t high, std::optional<int32_t>& field) {
    field = wholeIn(value, low, high);
    return field ? std::string()
                 : badValue(name, value, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  };
  if (name == "threads") {
    std::optional<int32_t> threads;
    const std::string problem = whole(1, 1024, threads);
    if (threads) r.run.threads = *threads;
    return problem;
  }
  if (name == "jobs") return whole(1, 100000, r.run.jobs);
  if (name == "cpus-per-task") return whole(1, 1024, r.cpusPerTask);
  if (name == "array-limit") return whole(1, 100000, r.run.arrayLimit);
  std::string* text = name == "sshloginfile" ? &r.run.sshLoginFile
                      : name == "partition"  ? &r.run.partition
                      : name == "time"       ? &r.run.timeLimit
                                             : nullptr;
  if (text != nullptr) {
    *text = value;
    return text->empty() ? badValue(name, value, "not empty") : std::string();
  }
  if (name == "wait") r.run.wait = true;
  return std::string();
}

// Options that belong to one engine, and to no other.
std::string engineMismatch(const SweepRequest& r) {
  const std::map<std::string, std::set<std::string>> owners = {
      {"jobs", {"local", "parallel"}}, {"sshloginfile", {"parallel"}}, {"partition", {"slurm"}}, {"time", {"slurm"}},
      {"cpus-per-task", {"slurm"}},    {"array-limit", {"slurm"}},     {"wait", {"slurm"}}};
  for (const auto& [option, engines] : owners)
    if (r.given.count(option) != 0 && engines.count(r.engine) == 0)
      return "--" + option + " is an option of --engine " + *engines.begin() +
             (engines.size() > 1 ? " and " + *engines.rbegin() : std::string()) + ", not of " + r.engine;
  return std::string();
}

// The design options after --: checked as design checks them, with the
// paths made absolute so that a run finds them from any folder and host.
std::string takeDesignOptions(SweepRequest& r, int argc, char** argv) {
  const std::map<std::string, std::string> sweeps = {{"count", "--counts"},
                                                     {"seed", "--seeds and --first-seed"},
                                                     {"out", "--out"},
                                                     {"threads", "--threads"},
                                                     {"quiet", "the runs' own logs"}};
  const std::set<std::string> paths = {"sensors", "obstacles", "quality-map", "fixed"};
  CommandSyntax syntax = designSyntax();
  syntax.name = "sweep";
  std::vector<std::string> positionals;
  std::string problem;
  const ParseOutcome parsed =
      parseCommandLine(syntax, argc, argv, positionals, [&](const std::string& name, const char* value) {
        if (const auto owner = sweeps.find(name); owner != sweeps.end())
          return "--" + name + " is the sweep's to set for each run (" + owner->second + "); leave it out after --";
        const std::string given = value != nullptr && paths.count(name) != 0 ? absolutePath(value) : "";
        const char* taken = paths.count(name) != 0 ? given.c_str() : value;
        if (std::string wrong = takeDesignOption(r.design, name, taken); !wrong.empty()) return wrong;
        if (name != "sensors" && name != "obstacles") {
          r.designOptions.push_back("--" + name);
          if (taken != nullptr) r.designOptions.push_back(taken);
        }
        return std::string();
      });
  if (parsed == ParseOutcome::Help) return "--help is not a design option; see sensorlay-lab design --help";
  if (parsed == ParseOutcome::Usage) return "\n";  // already said
  if (!positionals.empty()) return "unexpected argument '" + positionals[0] + "' after --";
  return std::string();
}

// An input as the sweep keeps it: the absolute path, its size and SHA-256.
Result<JsonOut> keptInput(const std::string& path) {
  Result<JsonOut> described = describeInput(path);
  if (!described) return described.status();
  JsonOut kept = JsonOut::object();
  kept["path"] = *described->find("absolutePath");
  kept["bytes"] = *described->find("bytes");
  kept["sha256"] = *described->find("sha256");
  return kept;
}

// sweep.json: what makes this sweep itself (the variants with the contents
// of their meshes, counts, seeds, settings, other inputs), and what is
// handed to each run.
Result<JsonOut> definitionOf(const SweepRequest& r, const std::vector<uint32_t>& seeds) {
  JsonOut json = JsonOut::object();
  json["program"] = "sensorlay-lab";
  json["version"] = labVersion();
  json["created"] = utcNow();
  JsonOut& variants = json["variants"] = JsonOut::array();
  for (const SweepVariant& variant : r.variants) {
    JsonOut entry = JsonOut::object();
    entry["name"] = variant.name;
    Result<JsonOut> sensors = keptInput(variant.sensors);
    if (!sensors) return sensors.status();
    entry["sensors"] = *sensors;
    JsonOut& obstacles = entry["obstacles"] = JsonOut::array();
    for (const std::string& path : variant.obstacles) {
      Result<JsonOut> obstacle = keptInput(path);
      if (!obstacle) return obstacle.status();
      obstacles.append(*obstacle);
    }
    variants.append(entry);
  }
  JsonOut& counts = json["counts"] = JsonOut::array();
  for (int32_t count : r.counts) counts.append(count);
  JsonOut& seedList = json["seeds"] = JsonOut::array();
  for (uint32_t seed : seeds) seedList.append(seed);
  json["settings"] = settingsJson(r.design.inputs, r.design.settings, true);
  JsonOut& inputs = json["inputs"] = JsonOut::object();
  for (const auto& [key, path] : {std::pair<const char*, std::string>{"fixed", r.design.fixedPath},
                                  {"qualityMap", r.design.settings.qualityMap}}) {
    if (path.empty()) {
      inputs[key] = JsonOut();
      continue;
    }
    Result<JsonOut> kept = keptInput(path);
    if (!kept) return kept.status();
    inputs[key] = *kept;
  }
  JsonOut& options = json["designOptions"] = JsonOut::array();
  for (const std::string& option : r.designOptions) options.append(option);
  return json;
}

Json::Value reparsed(const JsonOut& value) {
  Json::Value root;
  std::string errors;
  parseJsonText(writeStyledJson(value), root, errors);
  return root;
}

// A value in a message: a list of named entries by their names, anything
// else as compact JSON.
std::string shown(const Json::Value& value) {
  if (value.isArray() && !value.empty() && value[0].isObject() && value[0]["name"].isString()) {
    std::string names;
    for (const Json::Value& entry : value) names += (names.empty() ? "" : ", ") + entry["name"].asString();
    return names;
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["precision"] = 15;
  return Json::writeString(builder, value);
}

// What differs between the sweep in the folder and the one asked for, one
// entry per differing value, with its place ("settings.orientations").
void differences(const Json::Value& kept, const Json::Value& asked, const std::string& place,
                 std::vector<std::string>& found) {
  if (kept == asked) return;
  if (kept.isObject() && asked.isObject()) {
    std::set<std::string> keys;
    for (const std::string& key : kept.getMemberNames()) keys.insert(key);
    for (const std::string& key : asked.getMemberNames()) keys.insert(key);
    for (const std::string& key : keys) differences(kept[key], asked[key], place + "." + key, found);
    return;
  }
  const bool sameNames = kept.isArray() && asked.isArray() && shown(kept) == shown(asked) && !kept.empty() &&
                         kept[0].isObject() && kept[0]["name"].isString();
  if (sameNames) {
    for (Json::ArrayIndex i = 0; i < kept.size(); ++i)
      differences(kept[i], asked[i], place + "[" + kept[i]["name"].asString() + "]", found);
    return;
  }
  found.push_back(place.substr(1) + ": " + shown(kept) + " in the folder, " + shown(asked) + " asked");
}

int failed(const std::string& message) {
  std::fprintf(stderr, "sensorlay-lab sweep: %s\n", message.c_str());
  return kExitFailed;
}

bool makeFolder(const std::string& path, std::string& why) {
  if (mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return true;
  why = "cannot make the folder " + printablePath(path) + ": " + std::strerror(errno);
  return false;
}

bool folderIsEmpty(const std::string& path) {
  DIR* folder = opendir(path.c_str());
  if (folder == nullptr) return false;
  bool empty = true;
  while (dirent* entry = readdir(folder))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) empty = false;
  closedir(folder);
  return empty;
}

// Sets up the folder for the sweep: a new sweep writes its definition and
// plan; the same sweep again is resumed; another is refused.
Result<Sweep> prepareFolder(const std::string& folder, const JsonOut& definition, const std::vector<PlannedRun>& plan) {
  struct stat info;
  const bool exists = stat(folder.c_str(), &info) == 0;
  if (exists && !S_ISDIR(info.st_mode)) return Status::failure(printablePath(folder) + " is not a folder");
  if (exists && stat(sweepFile(folder).c_str(), &info) == 0) {
    Result<Sweep> kept = readSweep(folder);
    if (!kept) return kept.status();
    std::vector<std::string> found;
    const Json::Value asked = reparsed(definition);
    for (const char* key : {"variants", "counts", "seeds", "settings", "inputs"})
      differences(kept->definition[key], asked[key], std::string(".") + key, found);
    if (!found.empty()) {
      std::string message = printablePath(folder) + " holds another sweep; what differs:";
      for (const std::string& line : found) message += "\n  " + line;
      return Status::failure(message + "\ngive another --out, or remove the folder to start over");
    }
    std::fprintf(stderr, "sensorlay-lab sweep: resuming the sweep in %s\n", printablePath(folder).c_str());
    return kept;
  }
  if (exists && !folderIsEmpty(folder))
    return Status::failure(printablePath(folder) + " is not empty and holds no sweep: give a new or empty folder");
  std::string why;
  for (const std::string& path : {folder, folder + "/runs", folder + "/logs"})
    if (!makeFolder(path, why)) return Status::failure(why);
  if (Status s = writeWholeFile(sweepFile(folder), writeStyledJson(definition)); !s) return s;
  if (Status s = writeWholeFile(planFile(folder), planText(plan)); !s) return s;
  return readSweep(folder);
}

// The runs that did not finish; the status: 0 when all finished.
int reportRuns(const Sweep& sweep) {
  const RunTally tally = tallyRuns(sweep.folder, sweep.runs);
  std::fprintf(stderr, "sensorlay-lab sweep: %s: %s\n%s", plural(sweep.runs.size(), "run").c_str(),
               tally.counts().c_str(), tally.unfinished.c_str());
  std::fprintf(stderr, "summary: sensorlay-lab summarize %s\n", printablePath(sweep.folder).c_str());
  const auto finished = tally.byStatus.find("finished");
  return finished != tally.byStatus.end() && finished->second == static_cast<int>(sweep.runs.size()) ? kExitOk
                                                                                                     : kExitFailed;
}

// A record left by an attempt that did not finish says nothing of the next
// one, which is about to start.
void clearStaleRecord(const std::string& folder, const PlannedRun& run) {
  const RunState state = readRunState(folder, run);
  if (!state.record.isNull() && state.status != "finished") unlink((runPrefix(folder, run) + ".run.json").c_str());
}

}  // namespace

int runSweep(int argc, char** argv) {
  int split = argc;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--") == 0) {
      split = i;
      break;
    }
  SweepRequest r;
  std::vector<std::string> positionals;
  const ParseOutcome parsed =
      parseCommandLine(sweepSyntax(), split, argv, positionals,
                       [&](const std::string& name, const char* value) { return takeSweepOption(r, name, value); });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  const auto usage = [](const std::string& message) {
    if (message != "\n") usageError("sweep", message);
    return kExitUsage;
  };
  if (!positionals.empty()) return usage("unexpected argument '" + positionals[0] + "'; design options go after --");
  // The design options are parsed as a command line of their own.
  std::vector<char*> designArgs = {argv[0]};
  for (int i = split + 1; i < argc; ++i) designArgs.push_back(argv[i]);
  if (std::string problem = takeDesignOptions(r, static_cast<int>(designArgs.size()), designArgs.data());
      !problem.empty())
    return usage(problem);
  for (const auto& [missing, name] : {std::pair<bool, const char*>{r.out.empty(), "--out"},
                                      {r.counts.empty(), "--counts"},
                                      {r.seeds == 0, "--seeds"}})
    if (missing) return usage(std::string(name) + " is required");
  if (std::string problem = engineMismatch(r); !problem.empty()) return usage(problem);
  const bool meshesAfter = !r.design.inputs.sensors.empty() || !r.design.inputs.obstacles.empty();
  if (!r.variants.empty() && meshesAfter)
    return usage(
        "--sensors and --obstacles after -- and --variant cannot be mixed: give each variant's meshes in its "
        "--variant");
  if (r.variants.empty()) {
    if (r.design.inputs.sensors.empty())
      return usage("which meshes? give --variant NAME=S.stl[,O.stl...], or --sensors S.stl after --");
    SweepVariant only;
    only.sensors = r.design.inputs.sensors;
    only.obstacles = r.design.inputs.obstacles;
    // The surface's file name without its folder and extension, in the
    // letters a run's folder name takes.
    only.name = only.sensors.substr(only.sensors.rfind('/') + 1);
    if (const size_t dot = only.name.rfind('.'); dot != std::string::npos && dot > 0) only.name.resize(dot);
    for (char& c : only.name)
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') c = '_';
    if (!validName(only.name)) only.name = "device";
    r.variants.push_back(only);
  }
  for (SweepVariant& variant : r.variants) {
    variant.sensors = absolutePath(variant.sensors);
    for (std::string& obstacle : variant.obstacles) obstacle = absolutePath(obstacle);
  }
  if (r.seeds - 1 > static_cast<int64_t>(UINT32_MAX - r.firstSeed))
    return usage("--first-seed " + std::to_string(r.firstSeed) + " with --seeds " + std::to_string(r.seeds) +
                 " goes beyond the last seed, 4294967295");
  if (r.engine == "slurm") {
    if (r.cpusPerTask && r.given.count("threads") != 0 && *r.cpusPerTask != r.run.threads)
      return usage("--threads and --cpus-per-task differ: a Slurm run has as many threads as CPUs");
    if (r.cpusPerTask) r.run.threads = *r.cpusPerTask;
  }

  // What the engine needs comes first: nothing is written for a sweep that
  // cannot run.
  if (const std::optional<EngineTool> tool = engineTool(r.engine); tool && !onSearchPath(tool->program))
    return failed(std::string(tool->program) + " not found: --engine " + r.engine +
                  " needs it; install the Debian package " + tool->package);
  if (!r.run.sshLoginFile.empty()) {
    if (readRegularFile(r.run.sshLoginFile).problem != WholeFile::Problem::None)
      return failed("cannot read the login file " + printablePath(r.run.sshLoginFile));
    r.run.sshLoginFile = absolutePath(r.run.sshLoginFile);
  }
  std::vector<uint32_t> seeds;
  for (int64_t i = 0; i < r.seeds; ++i) seeds.push_back(r.firstSeed + static_cast<uint32_t>(i));
  const Result<JsonOut> definition = definitionOf(r, seeds);
  if (!definition) return failed(definition.message());
  Result<Sweep> sweep = prepareFolder(r.out, *definition, planRuns(r.variants, r.counts, seeds));
  if (!sweep) return failed(sweep.message());

  r.run.folder = absolutePath(r.out);
  r.run.program = Path_GetExecutablePath();
  int32_t finishedBefore = 0;
  for (const PlannedRun& run : sweep->runs) {
    const std::string status = readRunState(sweep->folder, run).status;
    if (status == "finished")
      ++finishedBefore;
    else if (status != "running")
      r.run.runs.push_back(run);
  }
  std::fprintf(stderr, "sensorlay-lab sweep: %s: %s, %d finished before\n", printablePath(planFile(r.out)).c_str(),
               plural(sweep->runs.size(), "run").c_str(), finishedBefore);
  if (r.run.runs.empty()) return reportRuns(*sweep);
  for (const PlannedRun& run : r.run.runs) clearStaleRecord(sweep->folder, run);

  catchStopSignals();
  const EngineEnd end = r.engine == "local"      ? runLocal(r.run)
                        : r.engine == "parallel" ? runParallel(r.run)
                                                 : runSlurm(r.run);
  if (!end.runsEnded) return end.status;
  const int outcome = reportRuns(*sweep);
  return end.status != kExitOk ? end.status : outcome;
}

int runSweepRun(int argc, char** argv) {
  // A stop that came while this program started was held for it (see
  // startProgram): it is taken from here on.
  catchStopSignals();
  releaseStopSignals();
  int32_t threads = 1;
  std::vector<std::string> positionals;
  const ParseOutcome parsed =
      parseCommandLine(sweepRunSyntax(), argc, argv, positionals, [&](const std::string& name, const char* value) {
        const std::optional<int32_t> n = wholeIn(value, 1, 1024);
        if (n) threads = *n;
        return n ? std::string() : badValue(name, value, "a whole number from 1 to 1024");
      });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (positionals.size() != 2) {
    usageError("sweep-run", "give the sweep's folder and the run's index");
    return kExitUsage;
  }
  const auto fail = [](const std::string& message) {
    std::fprintf(stderr, "sensorlay-lab sweep-run: %s\n", message.c_str());
    return kExitFailed;
  };
  const Result<Sweep> sweep = readSweep(positionals[0]);
  if (!sweep) return fail(sweep.message());
  const std::optional<int32_t> index = wholeIn(positionals[1].c_str(), 0, static_cast<int64_t>(sweep->runs.size()) - 1);
  if (!index)
    return fail("the plan of " + printablePath(sweep->folder) + " has no run " + printablePath(positionals[1]) +
                " (it has " + std::to_string(sweep->runs.size()) + ", from 0)");
  const PlannedRun& run = sweep->runs[static_cast<size_t>(*index)];
  const SweepVariant* variant = nullptr;
  for (const SweepVariant& v : sweep->variants)
    if (v.name == run.variant) variant = &v;
  if (variant == nullptr) return fail("the plan names a variant that sweep.json lacks: " + run.variant);

  std::string why;
  if (!makeFolder(sweep->folder + "/runs", why) || !makeFolder(runFolder(sweep->folder, run), why)) return fail(why);
  // The lock keeps two engines, or two sweeps, from running one run at once;
  // it goes with the process.
  const int lock = open(runLock(sweep->folder, run).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (lock < 0) return fail("cannot make " + printablePath(runLock(sweep->folder, run)) + ": " + std::strerror(errno));
  if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    std::fprintf(stderr, "%s: under way in another process; left to it\n", run.name.c_str());
    return kExitOk;
  }
  if (readRunState(sweep->folder, run).status == "finished") {
    std::fprintf(stderr, "%s: finished before; kept as it is\n", run.name.c_str());
    return kExitOk;
  }
  clearStaleRecord(sweep->folder, run);
  const std::string logPath = runLog(sweep->folder, run);
  const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (log < 0) return fail("cannot write " + printablePath(logPath) + ": " + std::strerror(errno));

  std::vector<std::string> words = {"design", "--sensors", variant->sensors};
  for (const std::string& obstacle : variant->obstacles) words.insert(words.end(), {"--obstacles", obstacle});
  words.insert(words.end(), sweep->designOptions.begin(), sweep->designOptions.end());
  words.insert(words.end(), {"--count", std::to_string(run.count), "--seed", std::to_string(run.seed), "--threads",
                             std::to_string(threads), "--out", runPrefix(sweep->folder, run)});

  std::fprintf(stderr, "%s: started\n", run.name.c_str());
  std::fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  dup2(log, STDERR_FILENO);
  const int status = runSubcommand(runDesign, std::move(words));
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(log);

  const RunState state = readRunState(sweep->folder, run);
  const Json::Value& record = state.record;
  char wall[32] = "";
  if (record["wallSeconds"].isNumeric())
    std::snprintf(wall, sizeof wall, " in %.1f s", record["wallSeconds"].asDouble());
  if (state.status == "finished" && record["score"].isNumeric())
    std::fprintf(stderr, "%s: finished, score %.6g%s\n", run.name.c_str(), record["score"].asDouble(), wall);
  else if (state.status == "failed")
    std::fprintf(stderr, "%s: failed: %s\n", run.name.c_str(), record["error"].asString().c_str());
  else if (state.status == "interrupted")
    std::fprintf(stderr, "%s: interrupted%s; it runs again when the sweep is resumed\n", run.name.c_str(), wall);
  else
    std::fprintf(stderr, "%s: ended with status %d and left no run record; see %s\n", run.name.c_str(), status,
                 printablePath(logPath).c_str());
  return status;
}

}  // namespace sensorlay::lab
