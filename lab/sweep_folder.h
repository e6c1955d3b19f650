#pragma once
// A sweep's folder, as the sweep, each of its runs and the summary share it:
//   DIR/sweep.json  what the sweep is: its variants with their meshes'
//                   SHA-256, counts, seeds, the design options
//   DIR/plan.tsv    one planned run a line
//   DIR/runs/<variant>-n<count>-s<seed>/  a run's design files
//                   (design.json, .scad, .coverage.json, .run.json) and
//                   the standard error stream of its last attempt
//   DIR/logs/       what the engines log
// The run record that a design writes is the one truth about a run, whatever
// engine ran it.

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/result.h"

namespace sensorlay::lab {

struct SweepVariant {
  std::string name;
  std::string sensors;  // absolute paths
  std::vector<std::string> obstacles;
};

struct PlannedRun {
  int32_t index = 0;  // from 0, as Slurm's array task ids
  std::string variant;
  int32_t count = 0;
  uint32_t seed = 0;
  std::string name;  // <variant>-n<count>-s<seed>, its folder under runs/
};

// Every variant, count and seed in this order, the seed changing fastest.
std::vector<PlannedRun> planRuns(const std::vector<SweepVariant>& variants, const std::vector<int32_t>& counts,
                                 const std::vector<uint32_t>& seeds);
std::string planText(const std::vector<PlannedRun>& runs);

struct Sweep {
  std::string folder;
  Json::Value definition;  // sweep.json
  std::vector<SweepVariant> variants;
  // Handed to every run's design, paths made absolute.
  std::vector<std::string> designOptions;
  std::vector<PlannedRun> runs;
};

// The sweep in `folder`: its sweep.json and plan.tsv. Fails, naming the
// file, when either is missing or not what a sweep writes.
Result<Sweep> readSweep(const std::string& folder);

std::string sweepFile(const std::string& folder);
std::string planFile(const std::string& folder);
std::string runFolder(const std::string& sweepFolder, const PlannedRun& run);
// The design's --out of the run: its files are this and a suffix.
std::string runPrefix(const std::string& sweepFolder, const PlannedRun& run);
std::string runLog(const std::string& sweepFolder, const PlannedRun& run);
// The file a run's attempt holds locked while it works.
std::string runLock(const std::string& sweepFolder, const PlannedRun& run);

// Where a run stands: "finished", "interrupted" or "failed" as its record
// says; "running" while an attempt on this machine holds its lock;
// "unrecorded" when an attempt left no record (killed, or still running on
// another host); "planned" when none began.
struct RunState {
  std::string status;
  Json::Value record;  // null without one
};
RunState readRunState(const std::string& sweepFolder, const PlannedRun& run);

// The last `lines` lines of the run's standard error stream, each prefixed
// with `indent`; empty when it wrote none.
std::string logTail(const std::string& sweepFolder, const PlannedRun& run, int lines, const std::string& indent);

// The runs by status, and those that did not finish, a line each: a failed
// run and one that left no record with the end of its standard error
// stream, which says why. Planned and running runs are only counted.
struct RunTally {
  std::map<std::string, int> byStatus;
  std::string unfinished;
  std::string counts() const;  // "2 failed, 10 finished"
};
RunTally tallyRuns(const std::string& sweepFolder, const std::vector<PlannedRun>& runs);

}  // namespace sensorlay::lab
