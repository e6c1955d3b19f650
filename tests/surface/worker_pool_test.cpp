#include "surface/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace sensorlay {
namespace {

// Counts the calls of each index and checks the worker numbers: in range, and
// never two overlapping calls with the same one.
struct CallLog {
  explicit CallLog(int tasks, int workers) : calls(static_cast<size_t>(tasks)), inUse(static_cast<size_t>(workers)) {}
  void enter(int index, int worker) {
    calls[static_cast<size_t>(index)].fetch_add(1);
    if (worker < 0 || worker >= static_cast<int>(inUse.size())) {
      badWorker = true;
      return;
    }
    if (inUse[static_cast<size_t>(worker)].exchange(true)) sharedWorker = true;
    std::this_thread::yield();
    inUse[static_cast<size_t>(worker)] = false;
  }
  bool eachOnce() const {
    for (const auto& c : calls)
      if (c.load() != 1) return false;
    return true;
  }
  std::vector<std::atomic<int>> calls;
  std::vector<std::atomic<bool>> inUse;
  std::atomic<bool> badWorker{false}, sharedWorker{false};
};

TEST(WorkerPool, EveryTaskRunsOnceOverManyRuns) {
  for (int threads : {1, 2, 3, 5}) {
    WorkerPool pool(threads);
    ASSERT_EQ(pool.size(), threads);
    // Many short runs back to back catch a worker that misses or repeats a
    // run; the counts cover empty, single and uneven splits.
    for (int round = 0; round < 300; ++round)
      for (int tasks : {0, 1, 2, 7, 64}) {
        CallLog log(tasks, threads);
        pool.run(tasks, [&](int i, int worker) { log.enter(i, worker); });
        ASSERT_TRUE(log.eachOnce()) << threads << " threads, " << tasks << " tasks";
        ASSERT_FALSE(log.badWorker);
        ASSERT_FALSE(log.sharedWorker);
      }
    // The one-argument form, and results visible to the caller at return.
    std::vector<int> squares(1000, -1);
    pool.run(1000, [&](int i) { squares[static_cast<size_t>(i)] = i * i; });
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(squares[static_cast<size_t>(i)], i * i);
  }
}

TEST(WorkerPool, OneThreadRunsInlineInOrder) {
  WorkerPool pool(1);
  std::vector<int> order;
  const std::thread::id caller = std::this_thread::get_id();
  bool elsewhere = false;
  pool.run(5, [&](int i, int worker) {
    order.push_back(i + 10 * worker);
    elsewhere = elsewhere || std::this_thread::get_id() != caller;
  });
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_FALSE(elsewhere);
}

TEST(WorkerPool, TasksOverlapInTime) {
  // Two tasks that each wait for the other to start can only both finish when
  // two threads run them at once. The wait is bounded so that a broken pool
  // fails instead of hanging.
  WorkerPool pool(2);
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> started{0};
    std::atomic<int> met{0};
    pool.run(2, [&](int) {
      started.fetch_add(1);
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (started.load() < 2 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
      if (started.load() == 2) met.fetch_add(1);
    });
    ASSERT_EQ(met.load(), 2) << "round " << round;
  }
}

TEST(WorkerPool, NestedAndConcurrentRunsComplete) {
  WorkerPool pool(3);
  // A run from inside a task goes inline on that task's thread.
  CallLog inner(8 * 6, 1);
  std::atomic<bool> movedThread{false};
  pool.run(8, [&](int outer) {
    const std::thread::id self = std::this_thread::get_id();
    pool.run(6, [&](int i, int worker) {
      inner.enter(outer * 6 + i, worker);
      if (std::this_thread::get_id() != self) movedThread = true;
    });
  });
  EXPECT_TRUE(inner.eachOnce());
  EXPECT_FALSE(inner.badWorker);
  EXPECT_FALSE(movedThread);

  // Two outside threads sharing the pool: one has it, the other runs inline.
  std::atomic<bool> miscounted{false};
  std::vector<std::thread> callers;
  for (int t = 0; t < 2; ++t)
    callers.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        std::vector<std::atomic<int>> hits(500);
        pool.run(500, [&](int i) { hits[static_cast<size_t>(i)].fetch_add(1); });
        for (const auto& h : hits)
          if (h.load() != 1) miscounted = true;
      }
    });
  for (std::thread& c : callers) c.join();
  EXPECT_FALSE(miscounted);
}

TEST(WorkerPool, AForkedChildRunsInlineAndEndsCleanly) {
  // The child has the pool but not its threads: a run that waited for them,
  // or an end that joined them, would hang. The alarm turns a hang into a
  // signal that the parent sees.
  WorkerPool pool(3);
  pool.run(10, [](int) {});
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);
    int sum = 0;
    pool.run(100, [&](int i, int worker) { sum += worker == 0 ? i : 100000; });
    pool.~WorkerPool();
    _exit(sum == 4950 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // The parent's pool is untouched.
  std::atomic<int> count{0};
  pool.run(100, [&](int) { ++count; });
  EXPECT_EQ(count.load(), 100);
}

TEST(WorkerPool, DefaultPoolFollowsTheSetting) {
  setDefaultThreadCount(3);
  EXPECT_EQ(defaultWorkerPool().size(), 3);
  std::atomic<int> sum{0};
  defaultWorkerPool().run(100, [&](int i) { sum += i; });
  EXPECT_EQ(sum.load(), 4950);
  setDefaultThreadCount(1);
  EXPECT_EQ(defaultWorkerPool().size(), 1);
  setDefaultThreadCount(0);
  const int hardware = static_cast<int>(std::thread::hardware_concurrency());
  EXPECT_EQ(defaultWorkerPool().size(), hardware > 0 ? hardware : 1);
}

}  // namespace
}  // namespace sensorlay
