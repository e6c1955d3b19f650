#pragma once
// Other programs that the lab starts: the engines a sweep hands its runs to,
// Slurm's clients and gnuplot. Each gets no standard input, so that none can
// wait for a terminal that nobody watches.

#include <sys/types.h>

#include <string>
#include <vector>

namespace sensorlay::lab {

struct ProgramRun {
  // The exit status; 128 + the signal when one ended it; 127 when the program
  // could not be started (`err` then says why).
  int status = 127;
  std::string out, err;
};

// Whether `program` is an executable file on the search path.
bool onSearchPath(const std::string& program);

// Runs argv[0], looked up on the search path, with the other words as its
// arguments, collects both of its streams and waits for it.
ProgramRun runProgram(const std::vector<std::string>& argv, const std::string& workingDirectory = "");

// Starts argv[0] on this process's standard output and error streams and
// hands back its pid, or -1 with `why` set. With `holdStopSignals` it starts
// with SIGINT and SIGTERM blocked, for a program of our own that unblocks
// them once its handlers are in place: a stop sent the moment it starts is
// then kept for it instead of killing it before it can record anything.
pid_t startProgram(const std::vector<std::string>& argv, bool holdStopSignals, std::string& why);

// The status of a child that waitpid reported, as runProgram gives it.
int exitStatusOf(int waitStatus);

// Releases the stop signals that startProgram held; for the started program.
void releaseStopSignals();

}  // namespace sensorlay::lab
