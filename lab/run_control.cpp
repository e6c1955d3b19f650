#include "lab/run_control.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <limits>

namespace sensorlay::lab {

namespace {

std::atomic<bool> requested{false};
volatile std::sig_atomic_t firstSignal = 0;

// Lines on a terminal are redrawn this often at most; elsewhere one is
// written this often, so that a log stays short.
constexpr std::chrono::milliseconds kTerminalInterval(200);
constexpr std::chrono::seconds kLogInterval(5);

extern "C" void onStopSignal(int signal) {
  if (firstSignal == 0) firstSignal = signal;
  requested.store(true, std::memory_order_relaxed);
}

std::string duration(double seconds) {
  char text[32];
  if (seconds < 90.0)
    std::snprintf(text, sizeof text, "%.0f s", seconds);
  else if (seconds < 5400.0)
    std::snprintf(text, sizeof text, "%.0f min", seconds / 60.0);
  else
    std::snprintf(text, sizeof text, "%.1f h", seconds / 3600.0);
  return text;
}

}  // namespace

void catchStopSignals() {
  static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler stores into the flag");
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  // Interrupted reads and writes resume.
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

const std::atomic<bool>& stopRequest() { return requested; }

int stopSignal() { return firstSignal; }

int exitStatusForSignal(int signal) { return 128 + signal; }

Progress::Progress(int64_t plannedTrials, bool quiet)
    : planned_(plannedTrials),
      best_(std::numeric_limits<double>::infinity()),
      quiet_(quiet),
      terminal_(isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      lastShown_(start_) {}

std::string Progress::line() const {
  char text[160];
  const double percent = planned_ > 0 ? 100.0 * static_cast<double>(done_) / static_cast<double>(planned_) : 100.0;
  // The set-up before the first trial says nothing of the pace.
  std::string left = "-";
  if (done_ > 1 && planned_ > done_) {
    const double pace =
        std::chrono::duration<double>(Clock::now() - firstTrial_).count() / static_cast<double>(done_ - 1);
    left = duration(pace * static_cast<double>(planned_ - done_));
  } else if (done_ >= planned_) {
    left = "0 s";
  }
  std::snprintf(text, sizeof text, "design: %lld of %lld trials (%.1f %%), best score %.6g, %s left",
                static_cast<long long>(done_), static_cast<long long>(planned_), percent, best_, left.c_str());
  return text;
}

void Progress::show(bool force) {
  if (quiet_) return;
  const Clock::time_point now = Clock::now();
  // The first trial is reported at once, so that whoever watches the log
  // sees the search under way.
  const bool due =
      !shownAny_ || now - lastShown_ >= (terminal_ ? std::chrono::duration_cast<Clock::duration>(kTerminalInterval)
                                                   : std::chrono::duration_cast<Clock::duration>(kLogInterval));
  if (!force && !due) return;
  lastShown_ = now;
  shownAny_ = true;
  if (terminal_)
    std::fprintf(stderr, "\r%s\033[K", line().c_str());
  else
    std::fprintf(stderr, "%s\n", line().c_str());
  std::fflush(stderr);
}

void Progress::trial(double score) {
  if (++done_ == 1) firstTrial_ = Clock::now();
  if (score < best_) best_ = score;
  show(false);
}

void Progress::finish(const std::string& how) {
  if (quiet_) return;
  show(true);
  const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
  std::fprintf(stderr, "%sdesign: %s after %lld trials in %s\n", terminal_ ? "\n" : "", how.c_str(),
               static_cast<long long>(done_), duration(elapsed).c_str());
}

}  // namespace sensorlay::lab
