#include "foundation/thread_pool.h"

#include <algorithm>
#include <exception>
#include <string>

#include "corvane/foundation/log.h"

namespace corvane {

namespace {
thread_local ThreadPool* tlsPool = nullptr;
thread_local int tlsBlockingDepth = 0;  // only the outermost BlockingScope counts
}  // namespace

ThreadPool& ThreadPool::shared() {
  static ThreadPool* pool = new ThreadPool(std::max<size_t>(2, std::thread::hardware_concurrency()));
  return *pool;
}

ThreadPool::ThreadPool(size_t width) : width_(std::max<size_t>(1, width)) {}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shutdown_ = true;
    cv_.notify_all();
  }
  for (std::thread& t : threads_) t.join();
}

void ThreadPool::submit(int priority, std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex_);
  jobs_.emplace(std::make_pair(-priority, sequence_++), std::move(job));
  wakeOrStartLocked();
}

size_t ThreadPool::threadCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return threads_.size();
}

bool ThreadPool::onPoolThread() { return tlsPool != nullptr; }

void ThreadPool::wakeOrStartLocked() {
  if (jobs_.empty() || running_ >= width_) return;
  if (idle_ > 0) {
    cv_.notify_one();
  } else if (threads_.size() < kMaxThreads) {
    startThreadLocked();
  }
}

void ThreadPool::startThreadLocked() {
  threads_.emplace_back([this] { workerLoop(); });
}

void ThreadPool::workerLoop() {
  tlsPool = this;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    cv_.wait(lock, [this] { return (shutdown_ && jobs_.empty()) || (!jobs_.empty() && running_ < width_); });
    --idle_;
    if (jobs_.empty()) return;  // shut down
    auto first = jobs_.begin();
    std::function<void()> job = std::move(first->second);
    jobs_.erase(first);
    ++running_;
    lock.unlock();
    try {
      job();
    } catch (const std::exception& e) {
      logLine(std::string("Uncaught exception in queued work: ") + e.what(), LogLevel::Error);
    } catch (...) {
      logLine("Uncaught exception in queued work", LogLevel::Error);
    }
    job = nullptr;  // captures are released before the next job starts
    lock.lock();
    --running_;
    wakeOrStartLocked();
  }
}

ThreadPool::BlockingScope::BlockingScope() : pool_(tlsBlockingDepth++ == 0 ? tlsPool : nullptr) {
  if (pool_ == nullptr) return;
  std::lock_guard<std::mutex> lock(pool_->mutex_);
  --pool_->running_;
  pool_->wakeOrStartLocked();
}

ThreadPool::BlockingScope::~BlockingScope() {
  --tlsBlockingDepth;
  if (pool_ == nullptr) return;
  std::lock_guard<std::mutex> lock(pool_->mutex_);
  ++pool_->running_;
}

}  // namespace corvane
