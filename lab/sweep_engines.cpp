#include "lab/sweep_engines.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "common/files.h"
#include "lab/cli.h"
#include "lab/processes.h"
#include "lab/run_control.h"

namespace sensorlay::lab {

namespace {

using Clock = std::chrono::steady_clock;

// How often a wait looks at its children and at the stop request.
constexpr std::chrono::milliseconds kTick(50);

// Runs still writing what they have after a stop are waited for this long.
constexpr std::chrono::seconds kStopGrace(120);

// Pending reasons with which Slurm will not start a job until someone
// changes the job or the cluster: waiting for it would never end.
const std::set<std::string> kNeverReasons = {"PartitionConfig", "PartitionNodeLimit", "PartitionTimeLimit",
                                             "BadConstraints",  "InvalidAccount",     "InvalidQOS"};

// Without --wait the sweep still watches a fresh job this long, for a reason
// of that kind.
constexpr std::chrono::seconds kSubmitWatch(5);
// squeue is asked every few seconds while a sweep waits, less often as the
// job goes on; a sweep that cannot reach the controller for this long gives up.
constexpr std::chrono::seconds kFirstPoll(1), kLongestPoll(15), kOutOfTouch(300);

void say(const std::string& text) { std::fprintf(stderr, "sensorlay-lab sweep: %s\n", text.c_str()); }

void pause(std::chrono::milliseconds span) { std::this_thread::sleep_for(span); }

// A word for a shell: in single quotes, each single quote written as '\''.
std::string shellWord(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Task ids as sbatch's --array takes them: "0-3,5,7-9".
std::string arrayList(const std::vector<PlannedRun>& runs) {
  std::vector<int32_t> ids;
  for (const PlannedRun& run : runs) ids.push_back(run.index);
  std::sort(ids.begin(), ids.end());
  std::string list;
  for (size_t i = 0; i < ids.size();) {
    size_t j = i;
    while (j + 1 < ids.size() && ids[j + 1] == ids[j] + 1) ++j;
    if (!list.empty()) list += ",";
    list += std::to_string(ids[i]);
    if (j > i) list += "-" + std::to_string(ids[j]);
    i = j + 1;
  }
  return list;
}

// The runs that have ended, by their records.
int32_t endedRuns(const EngineRequest& request) {
  int32_t ended = 0;
  for (const PlannedRun& run : request.runs) {
    const std::string status = readRunState(request.folder, run).status;
    if (status == "finished" || status == "failed" || status == "interrupted") ++ended;
  }
  return ended;
}

// After a stop, the runs that got it write what they have; this waits for
// those on this machine, which hold their locks until they are done.
void awaitStoppedRuns(const EngineRequest& request) {
  const Clock::time_point deadline = Clock::now() + kStopGrace;
  for (;;) {
    bool busy = false;
    for (const PlannedRun& run : request.runs) busy = busy || readRunState(request.folder, run).status == "running";
    if (!busy || Clock::now() > deadline) return;
    pause(kTick);
  }
}

// Waits for a child, handing it the stop signal once when the sweep is told
// to stop.
int awaitChild(pid_t pid) {
  bool forwarded = false;
  for (;;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return exitStatusOf(status);
    if (stopRequest().load() && !forwarded) {
      kill(pid, stopSignal());
      forwarded = true;
    }
    pause(kTick);
  }
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// The tasks of a Slurm job as squeue lists them: state and reason, one line
// each; a job that squeue no longer knows has ended.
struct JobView {
  bool reached = false;  // squeue answered
  bool gone = false;
  std::vector<std::pair<std::string, std::string>> tasks;
  std::string error;
};

JobView viewJob(const std::string& job) {
  JobView view;
  const ProgramRun run = runProgram({"squeue", "--noheader", "--jobs=" + job, "--format=%T|%r"});
  if (run.status != 0) {
    view.gone = run.err.find("Invalid job id") != std::string::npos;
    view.reached = view.gone;
    view.error = trimmed(run.err);
    return view;
  }
  view.reached = true;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    const size_t bar = line.find('|');
    if (bar != std::string::npos) view.tasks.emplace_back(line.substr(0, bar), trimmed(line.substr(bar + 1)));
  }
  view.gone = view.tasks.empty();
  return view;
}

// The reason that keeps a task of the job pending for ever, if one does.
std::string neverReason(const JobView& view) {
  for (const auto& [state, reason] : view.tasks)
    if (state == "PENDING" && kNeverReasons.count(reason) != 0) return reason;
  return std::string();
}

bool cancelNeverStarting(const std::string& job, const JobView& view) {
  const std::string reason = neverReason(view);
  if (reason.empty()) return false;
  runProgram({"scancel", job});
  say("Slurm would never start job " + job + ": it is pending with the reason " + reason +
      " (the partition cannot give what the job asks: see --partition, --time and --cpus-per-task);"
      " the job is cancelled");
  return true;
}

}  // namespace

std::optional<EngineTool> engineTool(const std::string& engine) {
  if (engine == "parallel") return EngineTool{"parallel", "parallel"};
  if (engine == "slurm") return EngineTool{"sbatch", "slurm-client (or slurm-wlm)"};
  return std::nullopt;
}

std::vector<std::string> runCommand(const EngineRequest& request, const std::string& index) {
  return {request.program, "sweep-run", request.folder, index, "--threads", std::to_string(request.threads)};
}

EngineEnd runLocal(const EngineRequest& request) {
  const int32_t cores = std::max(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  const size_t jobs = static_cast<size_t>(request.jobs ? *request.jobs : std::max(1, cores / request.threads));
  say(plural(request.runs.size(), "run") + " to do here, " + std::to_string(jobs) + " at a time with " +
      plural(static_cast<size_t>(request.threads), "thread") + " each");
  EngineEnd end;
  end.runsEnded = true;
  std::map<pid_t, int32_t> running;
  size_t next = 0;
  bool forwarded = false;
  for (;;) {
    const bool stopping = stopRequest().load();
    while (!stopping && running.size() < jobs && next < request.runs.size()) {
      std::string why;
      // The runs take the stop signals into their own handlers, so a stop
      // that comes as one starts is not lost.
      const pid_t pid = startProgram(runCommand(request, std::to_string(request.runs[next].index)), true, why);
      if (pid < 0) {
        say(why + "; no more runs are started");
        end.status = kExitFailed;
        next = request.runs.size();
        break;
      }
      running[pid] = request.runs[next++].index;
    }
    if (running.empty()) break;
    int status = 0;
    const pid_t done = waitpid(-1, &status, WNOHANG);
    if (done > 0) {
      running.erase(done);
      continue;
    }
    // A Ctrl-C on a terminal reaches the runs too; a signal sent to the sweep
    // alone is handed on.
    if (stopping && !forwarded) {
      for (const auto& [pid, index] : running) kill(pid, stopSignal());
      forwarded = true;
    }
    pause(kTick);
  }
  if (stopRequest().load()) end.status = exitStatusForSignal(stopSignal());
  return end;
}

EngineEnd runParallel(const EngineRequest& request) {
  // GNU parallel keeps its own files in PARALLEL_HOME, by default in the
  // home folder; the sweep's folder keeps them with the rest.
  const std::string logs = request.folder + "/logs";
  setenv("PARALLEL_HOME", (logs + "/parallel-home").c_str(), 1);
  std::vector<std::string> argv = {"parallel", "--will-cite", "--quote", "--joblog", "+" + logs + "/parallel.joblog",
                                   // A stopped run needs time to write what it has.
                                   "--termseq", "TERM,60000,KILL,25"};
  // Without --jobs each host runs as many runs as it has cores to give their
  // threads.
  if (request.jobs)
    argv.insert(argv.end(), {"--jobs", std::to_string(*request.jobs)});
  else if (request.threads > 1)
    argv.insert(argv.end(), {"--jobs", std::to_string(std::max(1, 100 / request.threads)) + "%"});
  if (!request.sshLoginFile.empty()) argv.insert(argv.end(), {"--sshloginfile", request.sshLoginFile});
  for (const std::string& word : runCommand(request, "{}")) argv.push_back(word);
  argv.push_back(":::");
  for (const PlannedRun& run : request.runs) argv.push_back(std::to_string(run.index));

  say(plural(request.runs.size(), "run") + " handed to GNU parallel" +
      (request.sshLoginFile.empty() ? std::string() : " on the hosts of " + printablePath(request.sshLoginFile)));
  std::string why;
  const pid_t pid = startProgram(argv, false, why);
  if (pid < 0) {
    say(why);
    return {false, kExitFailed};
  }
  const int status = awaitChild(pid);
  EngineEnd end;
  end.runsEnded = true;
  if (stopRequest().load()) {
    // parallel hands the stop to its runs and leaves without waiting for them.
    awaitStoppedRuns(request);
    end.status = exitStatusForSignal(stopSignal());
  } else if (status > 101) {
    // 1 to 100 are failed runs (101: more), which their records tell about.
    say("GNU parallel ended with status " + std::to_string(status));
    end.status = kExitFailed;
  }
  return end;
}

EngineEnd runSlurm(const EngineRequest& request) {
  const std::string logs = request.folder + "/logs";
  std::string array = arrayList(request.runs);
  if (request.arrayLimit) array += "%" + std::to_string(*request.arrayLimit);
  std::string wrapped = "exec";
  for (const std::string& word : runCommand(request, "$SLURM_ARRAY_TASK_ID"))
    wrapped += " " + (word == "$SLURM_ARRAY_TASK_ID" ? "\"" + word + "\"" : shellWord(word));
  std::string name = request.folder.substr(request.folder.rfind('/') + 1);
  std::vector<std::string> argv = {"sbatch",
                                   "--parsable",
                                   "--array=" + array,
                                   "--cpus-per-task=" + std::to_string(request.threads),
                                   "--job-name=sweep-" + name,
                                   "--chdir=" + request.folder,
                                   "--output=" + logs + "/slurm-%A_%a.out"};
  if (!request.partition.empty()) argv.push_back("--partition=" + request.partition);
  if (!request.timeLimit.empty()) argv.push_back("--time=" + request.timeLimit);
  argv.push_back("--wrap=" + wrapped);

  const ProgramRun submitted = runProgram(argv);
  if (submitted.status != 0) {
    std::string message = trimmed(submitted.err);
    for (size_t at = message.find('\n'); at != std::string::npos; at = message.find('\n', at + 1))
      message.insert(at + 1, "  ");
    say("Slurm refused the job array (sbatch status " + std::to_string(submitted.status) + "):\n  " + message);
    return {false, kExitFailed};
  }
  // --parsable prints the id, and ";cluster" on a federation.
  const std::string job = submitted.out.substr(0, submitted.out.find_first_not_of("0123456789"));
  if (job.empty()) {
    say("sbatch printed no job id: " + trimmed(submitted.out + submitted.err));
    return {false, kExitFailed};
  }
  say("Slurm job " + job + ": " + plural(request.runs.size(), "run") + " (array " + array + "), " +
      plural(static_cast<size_t>(request.threads), "CPU") + " each; logs in " + printablePath(logs));

  if (!request.wait) {
    // A job that will never start is told of now rather than found pending
    // days later.
    for (const Clock::time_point until = Clock::now() + kSubmitWatch; Clock::now() < until;) {
      const JobView view = viewJob(job);
      if (cancelNeverStarting(job, view)) return {false, kExitFailed};
      const bool judged = view.gone || std::any_of(view.tasks.begin(), view.tasks.end(), [](const auto& task) {
                            return task.first != "PENDING" || task.second != "None";
                          });
      if (judged) break;
      pause(std::chrono::milliseconds(500));
    }
    std::printf("%s\n", job.c_str());
    say("not waiting for job " + job + " (squeue --jobs=" + job + " shows it); once it has ended: sensorlay-lab " +
        "summarize " + printablePath(request.folder));
    return {false, kExitOk};
  }

  std::chrono::milliseconds interval = kFirstPoll;
  Clock::time_point lastReached = Clock::now();
  int32_t toldEnded = -1;
  for (;;) {
    for (const Clock::time_point next = Clock::now() + interval; Clock::now() < next && !stopRequest().load();)
      pause(kTick);
    if (stopRequest().load()) {
      say("stopped waiting; Slurm job " + job + " goes on (scancel " + job +
          " stops it); once it has ended: " + "sensorlay-lab summarize " + printablePath(request.folder));
      return {false, exitStatusForSignal(stopSignal())};
    }
    interval = std::min<std::chrono::milliseconds>(interval * 2, kLongestPoll);
    const JobView view = viewJob(job);
    if (!view.reached) {
      if (Clock::now() - lastReached > kOutOfTouch) {
        say("no answer from Slurm for " + std::to_string(kOutOfTouch.count()) + " s (" + view.error + "); job " + job +
            " may go on: sensorlay-lab summarize " + printablePath(request.folder) + " once it has ended");
        return {false, kExitFailed};
      }
      continue;
    }
    lastReached = Clock::now();
    if (cancelNeverStarting(job, view)) return {false, kExitFailed};
    const int32_t ended = endedRuns(request);
    if (ended != toldEnded && !view.gone) {
      say("Slurm job " + job + ": " + plural(static_cast<size_t>(ended), "run") + " ended, " +
          std::to_string(request.runs.size() - static_cast<size_t>(ended)) + " to go");
      toldEnded = ended;
    }
    if (view.gone) return {true, kExitOk};
  }
}

}  // namespace sensorlay::lab
