#include "common/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>
#include <vector>

namespace sensorlay {
namespace {

TEST(WorkerPool, EveryTaskRunsOnceOnAWorkerOfItsOwn) {
  for (int threads : {1, 2, 3}) {
    WorkerPool pool(threads);
    ASSERT_EQ(pool.size(), threads);
    // Many short runs back to back catch a worker that misses or repeats a
    // run; two overlapping calls must never share a worker number. Half of
    // them with the workers kept awake between runs.
    for (int round = 0; round < 200; ++round) {
      std::optional<WorkerPool::KeepAwake> awake;
      if (round % 2 == 1) awake.emplace(pool);
      for (int tasks : {0, 1, 7, 64}) {
        std::vector<std::atomic<int>> calls(static_cast<size_t>(tasks));
        std::vector<std::atomic<bool>> busy(static_cast<size_t>(threads));
        std::atomic<bool> clash{false};
        pool.run(tasks, [&](int i, int worker) {
          calls[static_cast<size_t>(i)]++;
          if (worker < 0 || worker >= threads || busy[static_cast<size_t>(worker)].exchange(true)) clash = true;
          if (worker >= 0 && worker < threads) busy[static_cast<size_t>(worker)] = false;
        });
        for (const auto& c : calls) ASSERT_EQ(c.load(), 1) << threads << " threads, " << tasks << " tasks";
        ASSERT_FALSE(clash);
      }
    }
  }
  // No count: one thread per hardware thread.
  const int hardware = static_cast<int>(std::thread::hardware_concurrency());
  EXPECT_EQ(WorkerPool(0).size(), hardware > 0 ? hardware : 1);

  // One thread: inline on the caller, in order.
  WorkerPool single(1);
  std::vector<int> order;
  const std::thread::id caller = std::this_thread::get_id();
  bool elsewhere = false;
  single.run(4, [&](int i) {
    order.push_back(i);
    elsewhere = elsewhere || std::this_thread::get_id() != caller;
  });
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_FALSE(elsewhere);
}

TEST(WorkerPool, ARunInsideATaskGoesInline) {
  WorkerPool pool(3);
  std::vector<std::atomic<int>> inner(48);
  std::atomic<bool> moved{false};
  pool.run(8, [&](int outer) {
    const std::thread::id self = std::this_thread::get_id();
    pool.run(6, [&](int i, int worker) {
      inner[static_cast<size_t>(outer * 6 + i)]++;
      if (worker != 0 || std::this_thread::get_id() != self) moved = true;
    });
  });
  for (const auto& c : inner) EXPECT_EQ(c.load(), 1);
  EXPECT_FALSE(moved);
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
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::atomic<int> count{0};
  pool.run(100, [&](int) { count++; });  // the parent's pool still works
  EXPECT_EQ(count.load(), 100);
}

}  // namespace
}  // namespace sensorlay
