#pragma once
// sensorlay-lab, the engineer's front end: its subcommands, each taking the
// arguments after the program's name (argv[0] the subcommand) and yielding
// the exit status.

#include <optional>
#include <string>
#include <vector>

#include "reports/coverage_summary.h"

namespace sensorlay {
class WorkerPool;
}

namespace sensorlay::lab {

int runLab(int argc, char** argv);
int runCheck(int argc, char** argv);
int runScore(int argc, char** argv);
int runDesign(int argc, char** argv);
int runView(int argc, char** argv);
int runSweep(int argc, char** argv);
int runSweepRun(int argc, char** argv);
int runSummarize(int argc, char** argv);

// Runs a subcommand in this process on the words of its command line, the
// first its name, as the program runs it from a shell.
int runSubcommand(int (*subcommand)(int, char**), std::vector<std::string> words);

// "1.0.0.0", the version of the build.
const char* labVersion();

// Why a pool runs everything on the calling thread when it could start none
// of its own (a process limit, say); nothing when it started them all.
std::optional<std::string> poolNote(const WorkerPool& pool);

// The coverage summary as lines of text for people.
std::string coverageText(const CoverageSummary& summary);

}  // namespace sensorlay::lab
