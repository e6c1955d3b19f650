#include "common/worker_pool.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>

namespace sensorlay {

namespace {

// Spins before a thread blocks: a few microseconds, enough to catch a run
// that follows straight on, too little to take a shared core from anyone.
constexpr int kSpins = 256;
// A thread kept awake spins for at most this long without work, and yields
// its core every few spins: on a machine shared with other work the thread
// it waits for may need that very core, and a spinner that holds it makes
// the wait longer, not shorter.
constexpr int kAwakeSpinsPerYield = 64;
constexpr std::chrono::microseconds kAwakeSpinLimit{50};

// Whether a thread kept awake that has spun `spin` times may go on
// spinning; yields the core now and then. `start` is when it first asked,
// or zero before.
bool spinAwake(int spin, std::chrono::steady_clock::time_point& start) {
  if (spin % kAwakeSpinsPerYield != kAwakeSpinsPerYield - 1) return true;
  std::this_thread::yield();
  const auto now = std::chrono::steady_clock::now();
  if (start == std::chrono::steady_clock::time_point()) start = now;
  return now - start < kAwakeSpinLimit;
}

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Set while a thread runs a task of some pool; a run made from there goes
// inline rather than waiting on workers that may be the ones waiting for it.
thread_local bool insideTask = false;

// A forked child (a death test, say) has the pool's memory but none of its
// threads: there every run goes inline, and the pool lets its threads and
// their locks go without waiting for them.
std::atomic<bool> forkedChild{false};

void noteForkedChild() { forkedChild.store(true, std::memory_order_relaxed); }

void watchForks() {
  static const bool registered = pthread_atfork(nullptr, nullptr, noteForkedChild) == 0;
  (void)registered;
}

int resolveThreadCount(int threads) {
  if (threads > 0) return threads;
  const unsigned hardware = std::thread::hardware_concurrency();
  return hardware == 0 ? 1 : static_cast<int>(hardware);
}

}  // namespace

struct WorkerPool::Shared {
  // Held for the whole of a run, so that a second caller can tell the pool is
  // busy and run inline instead of waiting.
  std::mutex runMutex;

  // Wakes the workers for a run, or for the end.
  std::mutex wakeMutex;
  std::condition_variable wake;
  std::atomic<uint64_t> generation{0};
  std::atomic<bool> stopping{false};

  // The run in progress; written before generation moves on.
  Call call = nullptr;
  void* context = nullptr;
  int taskCount = 0;
  std::atomic<int> next{0};

  // Live KeepAwake guards.
  std::atomic<int> awake{0};

  // Workers still busy with the current run; the last one wakes the caller.
  std::atomic<int> busy{0};
  std::mutex doneMutex;
  std::condition_variable done;
};

WorkerPool::WorkerPool(int threads) : shared_(std::make_unique<Shared>()) {
  watchForks();
  const int count = resolveThreadCount(threads);
  workers_.reserve(static_cast<size_t>(count - 1));
  try {
    for (int w = 1; w < count; ++w) workers_.emplace_back([this, w] { workerLoop(w); });
  } catch (const std::system_error& e) {
    // The results do not depend on the number of threads; the run goes on
    // with one rather than with whatever share of the threads the limit left.
    startProblem_ = e.what();
    stopWorkers();
    workers_.clear();
  }
}

WorkerPool::~WorkerPool() {
  if (forkedChild.load(std::memory_order_relaxed)) {
    for (std::thread& t : workers_) t.detach();
    (void)shared_.release();
    return;
  }
  stopWorkers();
}

void WorkerPool::stopWorkers() {
  Shared& s = *shared_;
  {
    std::lock_guard<std::mutex> lock(s.wakeMutex);
    s.stopping.store(true, std::memory_order_relaxed);
    s.generation.fetch_add(1, std::memory_order_release);
  }
  s.wake.notify_all();
  for (std::thread& t : workers_) t.join();
}

void WorkerPool::runErased(int taskCount, Call call, void* context) {
  if (taskCount <= 0) return;
  Shared& s = *shared_;
  const bool serial = workers_.empty() || taskCount == 1 || insideTask || forkedChild.load(std::memory_order_relaxed);
  if (serial || !s.runMutex.try_lock()) {
    for (int i = 0; i < taskCount; ++i) call(context, i, 0);
    return;
  }

  s.call = call;
  s.context = context;
  s.taskCount = taskCount;
  s.next.store(0, std::memory_order_relaxed);
  s.busy.store(static_cast<int>(workers_.size()), std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(s.wakeMutex);
    s.generation.fetch_add(1, std::memory_order_release);
  }
  s.wake.notify_all();

  drain(0);

  bool finished = false;
  std::chrono::steady_clock::time_point since;
  for (int spin = 0; !finished; ++spin) {
    finished = s.busy.load(std::memory_order_acquire) == 0;
    if (finished) break;
    if (spin >= kSpins && (s.awake.load(std::memory_order_relaxed) == 0 || !spinAwake(spin, since))) break;
    cpuRelax();
  }
  if (!finished) {
    std::unique_lock<std::mutex> lock(s.doneMutex);
    s.done.wait(lock, [&s] { return s.busy.load(std::memory_order_acquire) == 0; });
  }
  s.runMutex.unlock();
}

WorkerPool::KeepAwake::KeepAwake(WorkerPool& pool) : pool_(pool) {
  pool_.shared_->awake.fetch_add(1, std::memory_order_relaxed);
}

WorkerPool::KeepAwake::~KeepAwake() { pool_.shared_->awake.fetch_sub(1, std::memory_order_relaxed); }

void WorkerPool::drain(int worker) {
  Shared& s = *shared_;
  insideTask = true;
  for (;;) {
    const int i = s.next.fetch_add(1, std::memory_order_relaxed);
    if (i >= s.taskCount) break;
    s.call(s.context, i, worker);
  }
  insideTask = false;
}

void WorkerPool::workerLoop(int worker) {
  Shared& s = *shared_;
  uint64_t seen = 0;
  for (;;) {
    uint64_t g = s.generation.load(std::memory_order_acquire);
    std::chrono::steady_clock::time_point since;
    for (int spin = 0; g == seen; ++spin) {
      if (spin >= kSpins && (s.awake.load(std::memory_order_relaxed) == 0 || !spinAwake(spin, since))) break;
      cpuRelax();
      g = s.generation.load(std::memory_order_acquire);
    }
    if (g == seen) {
      std::unique_lock<std::mutex> lock(s.wakeMutex);
      s.wake.wait(lock, [&] { return s.generation.load(std::memory_order_acquire) != seen; });
      g = s.generation.load(std::memory_order_acquire);
    }
    if (s.stopping.load(std::memory_order_relaxed)) return;
    seen = g;
    drain(worker);
    if (s.busy.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      // Taking the lock orders this wake-up after the caller's last look at
      // busy, so that it cannot be lost.
      std::lock_guard<std::mutex> lock(s.doneMutex);
      s.done.notify_one();
    }
  }
}

}  // namespace sensorlay
