#pragma once
// A small pool of persistent worker threads for loops whose iterations are
// independent: the analysis tables and the placement score split their rows
// or samples over it. There is no process-wide pool: a program makes the pool
// it runs on and hands it to the code that runs on it, and a pool of one
// thread runs everything inline, the reference that tests compare against. Idle workers sleep on a condition variable;
// the machine is often shared, and threads that spin for work starve the ones that have it.

#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace sensorlay {

class WorkerPool {
 public:
  // `threads` counts the calling thread too, so 1 makes no thread and runs
  // everything inline. 0 or less means one per hardware thread. When the
  // system refuses a thread (a process limit), the pool lets the ones it
  // started go and runs everything inline; startProblem says why.
  explicit WorkerPool(int threads);
  // Wakes and joins the workers. No run may be in progress.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // The number of threads that take part in a run, the caller included.
  int size() const { return static_cast<int>(workers_.size()) + 1; }

  // Why the pool runs on the calling thread alone though more threads were
  // asked for; empty when every thread started.
  const std::string& startProblem() const { return startProblem_; }

  // While one lives, idle workers wait for the next run by spinning rather
  // than sleeping, and so does the caller for the workers' end of a run: for
  // a caller that hands out many short runs with short serial gaps between
  // them, such as a search's trials, where a sleep and a wake-up per run cost
  // more than the run. The workers go back to sleep when the last one ends.
  class KeepAwake {
   public:
    explicit KeepAwake(WorkerPool& pool);
    ~KeepAwake();
    KeepAwake(const KeepAwake&) = delete;
    KeepAwake& operator=(const KeepAwake&) = delete;

   private:
    WorkerPool& pool_;
  };

  // Calls task(i) for every i in [0, taskCount) exactly once, spread over the
  // workers and the calling thread, and returns when all calls have returned.
  // Indices are handed out in ascending order, one at a time, as threads come
  // free. A task that takes (int index, int worker) also learns which
  // participant runs it: 0 to size() - 1, the caller being 0, and no two calls
  // that overlap in time get the same number; per-worker scratch can be
  // indexed by it. Tasks must not throw.
  //
  // A run made from inside a task, while another thread has this pool busy,
  // or in a child process forked after the pool was made, runs all its tasks
  // inline on the calling thread as worker 0.
  // Nothing is allocated per run.
  template <class F>
  void run(int taskCount, F&& task) {
    using Task = std::remove_reference_t<F>;
    runErased(taskCount, &invoke<Task>, const_cast<void*>(static_cast<const void*>(&task)));
  }

 private:
  using Call = void (*)(void* context, int index, int worker);

  template <class Task>
  static void invoke(void* context, int index, int worker) {
    Task& task = *static_cast<Task*>(context);
    if constexpr (std::is_invocable_v<Task&, int, int>)
      task(index, worker);
    else
      task(index);
  }

  void runErased(int taskCount, Call call, void* context);
  // Wakes the workers for the end and joins them.
  void stopWorkers();
  void workerLoop(int worker);
  // Takes indices of the current run until none is left.
  void drain(int worker);

  // The locks, wake-ups and the run in progress. Held apart so that a forked
  // child, where the workers that wait on them do not exist, can leave them
  // be: destroying a condition variable waits for its waiters.
  struct Shared;
  std::unique_ptr<Shared> shared_;
  std::vector<std::thread> workers_;
  std::string startProblem_;
};

}  // namespace sensorlay
