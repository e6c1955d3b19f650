#include "surface/worker_pool.h"

#include <memory>

namespace sensorlay {

namespace {

// Spins before a thread blocks: a few microseconds, enough to catch a run
// that follows straight on, too little to take a shared core from anyone.
constexpr int kSpins = 256;

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

int resolveThreadCount(int threads) {
  if (threads > 0) return threads;
  const unsigned hardware = std::thread::hardware_concurrency();
  return hardware == 0 ? 1 : static_cast<int>(hardware);
}

}  // namespace

WorkerPool::WorkerPool(int threads) {
  const int count = resolveThreadCount(threads);
  workers_.reserve(static_cast<size_t>(count - 1));
  for (int w = 1; w < count; ++w) workers_.emplace_back([this, w] { workerLoop(w); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard<std::mutex> lock(wakeMutex_);
    stopping_.store(true, std::memory_order_relaxed);
    generation_.fetch_add(1, std::memory_order_release);
  }
  wake_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void WorkerPool::runErased(int taskCount, Call call, void* context) {
  if (taskCount <= 0) return;
  const bool serial = workers_.empty() || taskCount == 1 || insideTask;
  if (serial || !runMutex_.try_lock()) {
    for (int i = 0; i < taskCount; ++i) call(context, i, 0);
    return;
  }

  call_ = call;
  context_ = context;
  taskCount_ = taskCount;
  next_.store(0, std::memory_order_relaxed);
  busy_.store(static_cast<int>(workers_.size()), std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(wakeMutex_);
    generation_.fetch_add(1, std::memory_order_release);
  }
  wake_.notify_all();

  drain(0);

  bool finished = false;
  for (int s = 0; s < kSpins && !finished; ++s) {
    finished = busy_.load(std::memory_order_acquire) == 0;
    if (!finished) cpuRelax();
  }
  if (!finished) {
    std::unique_lock<std::mutex> lock(doneMutex_);
    done_.wait(lock, [this] { return busy_.load(std::memory_order_acquire) == 0; });
  }
  runMutex_.unlock();
}

void WorkerPool::drain(int worker) {
  insideTask = true;
  for (;;) {
    const int i = next_.fetch_add(1, std::memory_order_relaxed);
    if (i >= taskCount_) break;
    call_(context_, i, worker);
  }
  insideTask = false;
}

void WorkerPool::workerLoop(int worker) {
  uint64_t seen = 0;
  for (;;) {
    uint64_t g = generation_.load(std::memory_order_acquire);
    for (int s = 0; s < kSpins && g == seen; ++s) {
      cpuRelax();
      g = generation_.load(std::memory_order_acquire);
    }
    if (g == seen) {
      std::unique_lock<std::mutex> lock(wakeMutex_);
      wake_.wait(lock, [&] { return generation_.load(std::memory_order_acquire) != seen; });
      g = generation_.load(std::memory_order_acquire);
    }
    if (stopping_.load(std::memory_order_relaxed)) return;
    seen = g;
    drain(worker);
    if (busy_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      // Taking the lock orders this wake-up after the caller's last look at
      // busy_, so that it cannot be lost.
      std::lock_guard<std::mutex> lock(doneMutex_);
      done_.notify_one();
    }
  }
}

namespace {

struct DefaultPool {
  std::mutex mutex;
  int threads = 0;
  std::unique_ptr<WorkerPool> pool;
};

// Destroyed at exit, which joins the workers.
DefaultPool& defaultPool() {
  static DefaultPool instance;
  return instance;
}

}  // namespace

WorkerPool& defaultWorkerPool() {
  DefaultPool& d = defaultPool();
  std::lock_guard<std::mutex> lock(d.mutex);
  if (!d.pool) d.pool = std::make_unique<WorkerPool>(d.threads);
  return *d.pool;
}

void setDefaultThreadCount(int threads) {
  DefaultPool& d = defaultPool();
  std::lock_guard<std::mutex> lock(d.mutex);
  d.threads = threads;
  d.pool.reset();
}

}  // namespace sensorlay
