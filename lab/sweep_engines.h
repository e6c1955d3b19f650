#pragma once
// The engines that run a sweep's planned runs: a pool of processes on this
// machine, GNU parallel (this machine or ssh hosts that share the folder),
// and a Slurm job array. Each starts the same command for a run,
// `sensorlay-lab sweep-run DIR INDEX --threads N`, so that every engine makes
// the same run folders from the same seeds.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/sweep_folder.h"

namespace sensorlay::lab {

struct EngineRequest {
  std::string folder;            // absolute
  std::string program;           // this program's absolute path
  std::vector<PlannedRun> runs;  // those to run
  int32_t threads = 1;           // per run
  std::optional<int32_t> jobs;   // runs at once (per host for parallel)
  std::string sshLoginFile;
  // Slurm's own settings, handed to sbatch as given.
  std::string partition, timeLimit;
  std::optional<int32_t> arrayLimit;
  bool wait = false;
};

struct EngineEnd {
  // Every run handed over has ended, so its record tells how.
  bool runsEnded = false;
  // 0; 1 when the engine failed (it said why); 130 or 143 when a signal
  // stopped the sweep.
  int status = 0;
};

// The word of the engine's program that must be installed, and its Debian
// package; nothing for the local pool.
struct EngineTool {
  const char* program;
  const char* package;
};
std::optional<EngineTool> engineTool(const std::string& engine);

EngineEnd runLocal(const EngineRequest& request);
EngineEnd runParallel(const EngineRequest& request);
EngineEnd runSlurm(const EngineRequest& request);

// The command that runs one planned run, as every engine starts it.
std::vector<std::string> runCommand(const EngineRequest& request, const std::string& index);

}  // namespace sensorlay::lab
