// corvane::Mutex, corvane::MutexLock, corvane::SharedMutex and corvane::RecursiveMutex —
// std::mutex, std::shared_mutex and std::recursive_mutex with the lock annotations of thread_annotations.h, so that
// clang checks at compile time that guarded state is touched only under its lock (the thread-safety preset).
//
//   mutable Mutex mutex_;
//   std::vector<Task> queue_ CORVANE_GUARDED_BY(mutex_);
//   ...
//   MutexLock lock(&mutex_);
//   queue_.push_back(task);
//
// Waiting: Mutex::wait() and waitUntil() wait on a std::condition_variable with the mutex held,
// as std::condition_variable::wait does with a std::unique_lock; write the condition as a loop
// in the caller (`while (queue_.empty()) mutex_.wait(cv_);`), where the analysis can see it.
//
// assertHeld() stops a debug build when the calling thread does not hold the lock; in release
// builds it only tells the analysis that the lock is held. Every build records the holding
// thread (one relaxed store per lock and unlock), so that the layout and the inline functions
// are the same whether or not a host defines NDEBUG.
//
// Threads: any thread; a lock is released by the thread that acquired it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "corvane/foundation/check.h"
#include "corvane/foundation/thread_annotations.h"

namespace corvane {

class CORVANE_CAPABILITY("mutex") Mutex {
 public:
  using Clock = std::chrono::steady_clock;

  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // lock(), unlock() and try_lock() make a Mutex a standard Lockable (std::scoped_lock,
  // std::condition_variable_any), should the analysis be switched off somewhere.
  void lock() CORVANE_ACQUIRE() {
    mutex_.lock();
    holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  void unlock() CORVANE_RELEASE() {
    CORVANE_DCHECK(heldByCurrentThread());
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }
  bool try_lock() CORVANE_TRY_ACQUIRE(true) {
    if (!mutex_.try_lock()) return false;
    holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }

  void assertHeld() const CORVANE_ASSERT_CAPABILITY(this) { CORVANE_DCHECK(heldByCurrentThread()); }

  // Releases the lock, waits for `cv` to be notified (or a spurious wake-up) and takes the lock
  // again before returning.
  void wait(std::condition_variable& cv) CORVANE_REQUIRES(this) {
    std::unique_lock<std::mutex> lock = release();
    cv.wait(lock);
    reacquired(lock);
  }
  // Like wait(), returning at the latest at `deadline`; false when the deadline passed.
  bool waitUntil(std::condition_variable& cv, Clock::time_point deadline) CORVANE_REQUIRES(this) {
    std::unique_lock<std::mutex> lock = release();
    const bool notified = cv.wait_until(lock, deadline) == std::cv_status::no_timeout;
    reacquired(lock);
    return notified;
  }

 private:
  bool heldByCurrentThread() const { return holder_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }
  // Hands the held std::mutex to a unique_lock for a condition variable's wait.
  std::unique_lock<std::mutex> release() {
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    return std::unique_lock<std::mutex>(mutex_, std::adopt_lock);
  }
  void reacquired(std::unique_lock<std::mutex>& lock) {
    lock.release();  // the caller holds it again, as before the wait
    holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }

  std::mutex mutex_;
  std::atomic<std::thread::id> holder_;
};

// Holds a Mutex for its scope.
class CORVANE_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mutex) CORVANE_ACQUIRE(mutex) : mutex_(mutex) { mutex_->lock(); }
  ~MutexLock() CORVANE_RELEASE() { mutex_->unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* const mutex_;
};

// A lock held either by one writer or by any number of readers (std::shared_mutex). It does
// not record its holders: assertHeld() only informs the analysis.
class CORVANE_CAPABILITY("shared mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() CORVANE_ACQUIRE() { mutex_.lock(); }
  void unlock() CORVANE_RELEASE() { mutex_.unlock(); }
  void lock_shared() CORVANE_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() CORVANE_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Holds a SharedMutex for writing for its scope.
class CORVANE_SCOPED_CAPABILITY WriterMutexLock {
 public:
  explicit WriterMutexLock(SharedMutex* mutex) CORVANE_ACQUIRE(mutex) : mutex_(mutex) { mutex_->lock(); }
  ~WriterMutexLock() CORVANE_RELEASE() { mutex_->unlock(); }
  WriterMutexLock(const WriterMutexLock&) = delete;
  WriterMutexLock& operator=(const WriterMutexLock&) = delete;

 private:
  SharedMutex* const mutex_;
};

// Holds a SharedMutex for reading for its scope.
class CORVANE_SCOPED_CAPABILITY ReaderMutexLock {
 public:
  explicit ReaderMutexLock(SharedMutex* mutex) CORVANE_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_->lock_shared(); }
  ~ReaderMutexLock() CORVANE_RELEASE() { mutex_->unlock_shared(); }
  ReaderMutexLock(const ReaderMutexLock&) = delete;
  ReaderMutexLock& operator=(const ReaderMutexLock&) = delete;

 private:
  SharedMutex* const mutex_;
};

// A lock that the holding thread may take again; it is released when every lock() has had its
// unlock(). Use it only where code that runs under the lock calls back into code that takes it
// (say at the member why); everything else uses Mutex. The analysis does not model
// re-entry: it checks the guarded state, but functions that take the lock carry no EXCLUDES.
class CORVANE_CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() CORVANE_ACQUIRE() {
    mutex_.lock();
    if (depth_++ == 0) holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  void unlock() CORVANE_RELEASE() {
    CORVANE_DCHECK(heldByCurrentThread());
    if (--depth_ == 0) holder_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }
  bool try_lock() CORVANE_TRY_ACQUIRE(true) {
    if (!mutex_.try_lock()) return false;
    if (depth_++ == 0) holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }

  void assertHeld() const CORVANE_ASSERT_CAPABILITY(this) { CORVANE_DCHECK(heldByCurrentThread()); }

 private:
  bool heldByCurrentThread() const { return holder_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  std::recursive_mutex mutex_;
  std::atomic<std::thread::id> holder_;
  int depth_ = 0;  // changed only by the holder
};

// Holds a RecursiveMutex for its scope.
class CORVANE_SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex* mutex) CORVANE_ACQUIRE(mutex) : mutex_(mutex) { mutex_->lock(); }
  ~RecursiveMutexLock() CORVANE_RELEASE() { mutex_->unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex* const mutex_;
};

}  // namespace corvane
