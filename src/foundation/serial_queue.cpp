#include "corvane/foundation/serial_queue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <string>
#include <vector>

#include "corvane/foundation/log.h"
#include "corvane/foundation/mutex.h"
#include "foundation/thread_pool.h"

namespace corvane {

namespace {

// After this many items a drain gives its pool thread back, so that one busy queue cannot
// keep other queues waiting.
constexpr int kItemsPerDrain = 32;

// The queues whose work the current thread is running, innermost last.
thread_local std::vector<const SerialQueue::Impl*> tlsRunning;

struct RunningMark {
  explicit RunningMark(const SerialQueue::Impl* q) { tlsRunning.push_back(q); }
  ~RunningMark() { tlsRunning.pop_back(); }
};

// A sync() caller waiting for its turn.
struct SyncTurn {
  bool granted = false;
};

}  // namespace

struct SerialQueue::Impl : std::enable_shared_from_this<SerialQueue::Impl> {
  explicit Impl(std::string l) : label(std::move(l)) {}

  struct Item {
    Task task;
    SyncTurn* turn = nullptr;  // set for a sync() caller's place in line
  };

  bool isCurrent() const { return std::find(tlsRunning.begin(), tlsRunning.end(), this) != tlsRunning.end(); }

  // Called with the lock held when the queue has items and nobody is draining it.
  void scheduleLocked() CORVANE_REQUIRES(mutex) {
    active = true;
    ThreadPool::shared().submit(0, [self = shared_from_this()] { self->drain(); });
  }

  void enqueue(Task task) CORVANE_EXCLUDES(mutex) {
    MutexLock lock(&mutex);
    items.push_back(Item{std::move(task), nullptr});
    if (!active) scheduleLocked();
  }

  void drain() CORVANE_EXCLUDES(mutex) {
    RunningMark mark(this);
    for (int n = 0; n < kItemsPerDrain; ++n) {
      Item item;
      {
        MutexLock lock(&mutex);
        if (items.empty()) {
          active = false;
          cv.notify_all();
          return;
        }
        item = std::move(items.front());
        items.pop_front();
        if (item.turn != nullptr) {
          // The sync() caller runs its work on its own thread and reschedules the queue.
          item.turn->granted = true;
          cv.notify_all();
          return;
        }
      }
      runItem(item.task);
    }
    MutexLock lock(&mutex);
    scheduleLocked();
  }

  void runItem(Task& task) {
    try {
      if (task) task();
    } catch (const std::exception& e) {
      logLine("Uncaught exception on queue " + label + ": " + e.what(), LogLevel::Error);
    } catch (...) {
      logLine("Uncaught exception on queue " + label, LogLevel::Error);
    }
    task = nullptr;
  }

  // Ends a sync() turn: the queue goes on with what was queued meanwhile.
  void finishTurn() CORVANE_EXCLUDES(mutex) {
    MutexLock lock(&mutex);
    active = false;
    if (!items.empty()) scheduleLocked();
    cv.notify_all();
  }

  void waitUntilIdle() CORVANE_EXCLUDES(mutex) {
    ThreadPool::BlockingScope blocking;
    MutexLock lock(&mutex);
    while (active || !items.empty()) mutex.wait(cv);
  }

  const std::string label;
  Mutex mutex;
  std::condition_variable cv;
  std::deque<Item> items CORVANE_GUARDED_BY(mutex);
  // A drain is scheduled or running, or a sync() caller has its turn.
  bool active CORVANE_GUARDED_BY(mutex) = false;
  bool closed CORVANE_GUARDED_BY(mutex) = false;  // the SerialQueue object is gone: drop delayed work
};

SerialQueue::SerialQueue(std::string label, RunLoop* timerLoop)
    : impl_(std::make_shared<Impl>(std::move(label))), timerLoop_(timerLoop) {}

SerialQueue::~SerialQueue() {
  {
    MutexLock lock(&impl_->mutex);
    impl_->closed = true;
  }
  if (!impl_->isCurrent()) impl_->waitUntilIdle();
}

const std::string& SerialQueue::label() const { return impl_->label; }

void SerialQueue::async(Task task) { impl_->enqueue(std::move(task)); }

void SerialQueue::sync(const Task& task) {
  Impl& q = *impl_;
  if (q.isCurrent()) {
    // Waiting for our own queue would never end.
    task();
    return;
  }
  SyncTurn turn;
  {
    MutexLock lock(&q.mutex);
    if (!q.active) {
      q.active = true;
      turn.granted = true;
    } else {
      q.items.push_back(Impl::Item{nullptr, &turn});
      ThreadPool::BlockingScope blocking;
      while (!turn.granted) q.mutex.wait(q.cv);
    }
  }
  struct EndTurn {
    Impl& q;
    ~EndTurn() { q.finishTurn(); }
  } endTurn{q};
  RunningMark mark(&q);
  task();
}

RunLoop::Token SerialQueue::asyncAfter(double delaySeconds, Task task) {
  RunLoop& loop = timerLoop_ != nullptr ? *timerLoop_ : RunLoop::main();
  return loop.postAfter(delaySeconds, [impl = impl_, task = std::move(task)]() mutable {
    {
      MutexLock lock(&impl->mutex);
      if (impl->closed) return;
    }
    impl->enqueue(std::move(task));
  });
}

bool SerialQueue::isCurrent() const { return impl_->isCurrent(); }

}  // namespace corvane
