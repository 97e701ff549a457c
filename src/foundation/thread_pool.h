// The small shared pool of worker threads under SerialQueue and OperationQueue.
//
// At most `width` jobs run at once. A pool thread that must wait for other queued work
// (SerialQueue::sync, waitUntilFinished, ...) declares it with a BlockingScope: it then no
// longer counts against the width, and the pool starts a stand-in thread if work is waiting,
// so that waiting on a queue from a queue cannot starve the pool. The number of threads stays
// bounded (kMaxThreads); threads, once started, live as long as the pool.
//
// Threads: every method may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/foundation/mutex.h"

namespace corvane {

class ThreadPool {
 public:
  static constexpr size_t kMaxThreads = 64;

  // The process-wide pool, as wide as the machine has processors (at least 2). Never destroyed.
  static ThreadPool& shared();

  explicit ThreadPool(size_t width);
  ~ThreadPool();  // runs the jobs still queued, then joins the threads
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Queues a job; among waiting jobs, higher priorities start first, equal ones in order.
  void submit(int priority, std::function<void()> job);

  size_t width() const { return width_; }
  size_t threadCount() const;

  // True on a thread of any ThreadPool.
  static bool onPoolThread();

  // Marks the current thread as waiting for other work while it lives (no effect off the pool).
  class BlockingScope {
   public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    ThreadPool* pool_;
  };

 private:
  void workerLoop() CORVANE_EXCLUDES(mutex_);
  void startThreadLocked() CORVANE_REQUIRES(mutex_);
  void wakeOrStartLocked() CORVANE_REQUIRES(mutex_);

  const size_t width_;
  mutable Mutex mutex_;
  std::condition_variable cv_;
  // (-priority, sequence) -> job
  std::map<std::pair<int, uint64_t>, std::function<void()>> jobs_ CORVANE_GUARDED_BY(mutex_);
  uint64_t sequence_ CORVANE_GUARDED_BY(mutex_) = 0;
  std::vector<std::thread> threads_ CORVANE_GUARDED_BY(mutex_);
  size_t running_ CORVANE_GUARDED_BY(mutex_) = 0;  // jobs running and not blocked
  size_t idle_ CORVANE_GUARDED_BY(mutex_) = 0;     // threads waiting for a job
  bool shutdown_ CORVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace corvane
