#pragma once
// What a long run needs besides its work: a stop on SIGINT or SIGTERM that
// lets it write what it has, and a progress report that suits where the
// standard error stream goes.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace sensorlay::lab {

// Catches SIGINT and SIGTERM for the rest of the process. A signal only sets
// the stop request, however many arrive: the run ends at its next check and
// writes its files whole, so a second Ctrl-C while they are written cannot
// leave half of one behind.
void catchStopSignals();
// The request the search checks once per trial.
const std::atomic<bool>& stopRequest();
// The first signal that asked for the stop, or 0.
int stopSignal();
// 130 for SIGINT, 143 for SIGTERM: the shell's status of a process that a
// signal ended.
int exitStatusForSignal(int signal);

// The search's progress on the standard error stream: on a terminal one line
// that is rewritten in place, otherwise a line every few seconds. Nothing
// when quiet.
class Progress {
 public:
  Progress(int64_t plannedTrials, bool quiet);
  // After each trial, with its score.
  void trial(double score);
  // Ends the report: the last state, and a line end on a terminal.
  void finish(const std::string& how);

  int64_t done() const { return done_; }
  double best() const { return best_; }

 private:
  std::string line() const;
  void show(bool force);

  using Clock = std::chrono::steady_clock;
  int64_t planned_;
  int64_t done_ = 0;
  double best_;
  bool quiet_;
  bool terminal_;
  Clock::time_point start_;
  Clock::time_point firstTrial_;  // the time left is told from the pace after it
  Clock::time_point lastShown_;
  bool shownAny_ = false;
};

}  // namespace sensorlay::lab
