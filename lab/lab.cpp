#include "lab/lab.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "common/worker_pool.h"
#include "lab/cli.h"

namespace sensorlay::lab {

namespace {

const char* kProgramHelp =
    "usage: sensorlay-lab SUBCOMMAND [options]\n"
    "       sensorlay-lab SUBCOMMAND --help\n"
    "       sensorlay-lab --version\n"
    "\n"
    "The engineer's front end of sensorlay: the same search and score, with options in\n"
    "millimetres and degrees, reproducible seeds, runs that keep their work when stopped,\n"
    "and a record of every design.\n"
    "\n"
    "Subcommands:\n"
    "  check      what the program makes of the meshes: size, unit, faults, room for a sensor\n"
    "  score      the design score and coverage of an existing model\n"
    "  design     search a sensor placement, written as model, script, coverage and run record\n"
    "  view       one HTML page of a design: device, sensors and coverage sphere, for any browser\n"
    "  sweep      designs over sensor counts, seeds and variants, here, on GNU parallel or Slurm\n"
    "  summarize  a sweep's best design per count, its table, CSV, plot and pages\n"
    "  sweep-run  (internal) one run of a sweep, as its engines start it\n"
    "\n"
    "Exit status: 0 success, 1 a failed run, 2 a wrong command line, 130 or 143 when a design\n"
    "was stopped by SIGINT or SIGTERM after writing what it had.\n"
    "\n"
    "Example:\n"
    "  sensorlay-lab check --sensors puck.stl\n"
    "  sensorlay-lab design --sensors puck.stl --count 12 --seed 42 --out puck-12\n"
    "  sensorlay-lab score puck-12.json --sensors puck.stl\n"
    "  sensorlay-lab view puck-12.json --sensors puck.stl --out puck-12.html\n"
    "  sensorlay-lab sweep --out puck --counts 8:16:4 --seeds 5 -- --sensors puck.stl\n"
    "  sensorlay-lab summarize puck\n";

std::string percent(double share) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * share);
  return text;
}

std::string sigmaText(const SigmaSpread& spread, double factor, const char* unit) {
  char text[96];
  std::snprintf(text, sizeof text, "median %.3g %s, 95th percentile %.3g %s", spread.median * factor, unit,
                spread.p95 * factor, unit);
  return text;
}

}  // namespace

const char* labVersion() { return SENSORLAY_LAB_VERSION; }

std::optional<std::string> poolNote(const WorkerPool& pool) {
  if (pool.startProblem().empty()) return std::nullopt;
  return "running on one thread, as no more could be started (" + pool.startProblem() + ")";
}

int runSubcommand(int (*subcommand)(int, char**), std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return subcommand(static_cast<int>(words.size()), argv.data());
}

std::string coverageText(const CoverageSummary& s) {
  std::ostringstream t;
  t << "coverage over " << s.directions << " directions (a " << s.stepDegrees << " degree grid at " << s.distanceMeters
    << " m; shares of the sphere):\n";
  t << "  sensors seen:";
  for (size_t v = 0; v < s.shareByVisibleCount.size(); ++v)
    if (s.shareByVisibleCount[v] > 0.0) t << "  " << v << ": " << percent(s.shareByVisibleCount[v]);
  t << "\n  grade: 100 (full fix) " << percent(s.shareByGrade[3]) << ", 99 " << percent(s.shareByGrade[2]) << ", 96 "
    << percent(s.shareByGrade[1]) << ", 0 (no fix) " << percent(s.shareByGrade[0]) << "\n";
  if (s.fixShare > 0.0) {
    t << "  with a fix: position uncertainty " << sigmaText(s.positionSigma, 1000.0, "mm") << "\n";
    t << "              rotation uncertainty " << sigmaText(s.rotationSigma, 180.0 / M_PI, "degrees") << "\n";
  }
  if (s.neverSeen.empty()) {
    t << "  every sensor is seen from some direction\n";
  } else {
    t << "  never seen: channel";
    for (int32_t channel : s.neverSeen) t << " " << channel;
    t << "\n";
  }
  return t.str();
}

int runLab(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kProgramHelp, stderr);
    return kExitUsage;
  }
  const char* command = argv[1];
  if (std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0) {
    std::fputs(kProgramHelp, stdout);
    return kExitOk;
  }
  if (std::strcmp(command, "--version") == 0) {
    std::printf("sensorlay-lab %s\n", labVersion());
    return kExitOk;
  }
  if (std::strcmp(command, "check") == 0) return runCheck(argc - 1, argv + 1);
  if (std::strcmp(command, "score") == 0) return runScore(argc - 1, argv + 1);
  if (std::strcmp(command, "design") == 0) return runDesign(argc - 1, argv + 1);
  if (std::strcmp(command, "view") == 0) return runView(argc - 1, argv + 1);
  if (std::strcmp(command, "sweep") == 0) return runSweep(argc - 1, argv + 1);
  if (std::strcmp(command, "sweep-run") == 0) return runSweepRun(argc - 1, argv + 1);
  if (std::strcmp(command, "summarize") == 0) return runSummarize(argc - 1, argv + 1);
  std::fprintf(stderr, "sensorlay-lab: unknown subcommand '%s'\ntry 'sensorlay-lab --help'\n", command);
  return kExitUsage;
}

}  // namespace sensorlay::lab
