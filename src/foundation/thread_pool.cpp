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
    MutexLock lock(&mutex_);
    shutdown_ = true;
    cv_.notify_all();
  }
  // Joined outside the lock, which the workers need to finish. A worker may still start a
  // stand-in for jobs queued before the shutdown, so the list is taken again until it stays empty.
  for (;;) {
    std::vector<std::thread> threads;
    {
      MutexLock lock(&mutex_);
      threads.swap(threads_);
    }
    if (threads.empty()) break;
    for (std::thread& t : threads) t.join();
  }
}

void ThreadPool::submit(int priority, std::function<void()> job) {
  MutexLock lock(&mutex_);
  jobs_.emplace(std::make_pair(-priority, sequence_++), std::move(job));
  wakeOrStartLocked();
}

size_t ThreadPool::threadCount() const {
  MutexLock lock(&mutex_);
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
  mutex_.lock();
  for (;;) {
    ++idle_;
    while (!(shutdown_ && jobs_.empty()) && !(!jobs_.empty() && running_ < width_)) mutex_.wait(cv_);
    --idle_;
    if (jobs_.empty()) break;  // shut down
    auto first = jobs_.begin();
    std::function<void()> job = std::move(first->second);
    jobs_.erase(first);
    ++running_;
    mutex_.unlock();
    try {
      job();
    } catch (const std::exception& e) {
      logLine(std::string("Uncaught exception in queued work: ") + e.what(), LogLevel::Error);
    } catch (...) {
      logLine("Uncaught exception in queued work", LogLevel::Error);
    }
    job = nullptr;  // captures are released before the next job starts
    mutex_.lock();
    --running_;
    wakeOrStartLocked();
  }
  mutex_.unlock();
}

ThreadPool::BlockingScope::BlockingScope() : pool_(tlsBlockingDepth++ == 0 ? tlsPool : nullptr) {
  if (pool_ == nullptr) return;
  MutexLock lock(&pool_->mutex_);
  --pool_->running_;
  pool_->wakeOrStartLocked();
}

ThreadPool::BlockingScope::~BlockingScope() {
  --tlsBlockingDepth;
  if (pool_ == nullptr) return;
  MutexLock lock(&pool_->mutex_);
  ++pool_->running_;
}

}  // namespace corvane
