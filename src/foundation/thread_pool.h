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
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

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
  void workerLoop();
  void startThreadLocked();
  void wakeOrStartLocked();

  const size_t width_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::map<std::pair<int, uint64_t>, std::function<void()>> jobs_;  // (-priority, sequence)
  uint64_t sequence_ = 0;
  std::vector<std::thread> threads_;
  size_t running_ = 0;  // jobs running and not blocked
  size_t idle_ = 0;     // threads waiting for a job
  bool shutdown_ = false;
};

}  // namespace corvane
