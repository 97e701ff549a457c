#include "corvane/foundation/operation_queue.h"

#include <array>
#include <condition_variable>
#include <exception>

#include "corvane/foundation/error.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/mutex.h"
#include "foundation/thread_pool.h"

namespace corvane {

// One lock for the states, dependencies and queues of every operation. Dependencies cross
// queues, and a single lock keeps "is it ready, start it" free of lock-order puzzles; the
// work itself runs outside it, and operations are coarse (a file write each), so the lock
// is held only briefly and rarely.
struct OperationGraph {
  static Mutex& mutex() {
    static auto* m = new Mutex;
    return *m;
  }
  // Signalled whenever an operation finishes.
  static std::condition_variable& finished() {
    static auto* cv = new std::condition_variable;
    return *cv;
  }

  static bool readyLocked(const Operation& op) CORVANE_REQUIRES(mutex()) {
    return op.cancelled_ || op.unfinishedDependencies_ == 0;
  }

  // Queue priorities as the index of their count (VeryLow ... VeryHigh).
  static size_t level(QueuePriority priority) {
    const int index = (static_cast<int>(priority) + 8) / 4;
    return static_cast<size_t>(index < 0 ? 0 : index > 4 ? 4 : index);
  }

  static void startReadyLocked(const std::shared_ptr<OperationQueue::Impl>& queue) CORVANE_REQUIRES(mutex());
  static void run(const std::shared_ptr<OperationQueue::Impl>& queue, const std::shared_ptr<Operation>& op)
      CORVANE_EXCLUDES(mutex());
};

struct OperationQueue::Impl : std::enable_shared_from_this<OperationQueue::Impl> {
  std::string name;
  int maxConcurrent CORVANE_GUARDED_BY(OperationGraph::mutex()) = kDefaultMaxConcurrentOperationCount;
  QueuePriority priority CORVANE_GUARDED_BY(OperationGraph::mutex()) = QueuePriority::Normal;
  // Unfinished, in the order added.
  std::list<std::shared_ptr<Operation>> operations CORVANE_GUARDED_BY(OperationGraph::mutex());
  // Not started, by priority level.
  std::array<size_t, 5> pendingAtLevel CORVANE_GUARDED_BY(OperationGraph::mutex()){};
  int executing CORVANE_GUARDED_BY(OperationGraph::mutex()) = 0;
};

// Starts ready operations while the queue has room. The first ready one of the highest level
// that has pending operations wins at once, so that a long queue of equal operations is not
// walked for every start.
void OperationGraph::startReadyLocked(const std::shared_ptr<OperationQueue::Impl>& queue) {
  const int limit = queue->maxConcurrent > 0 ? queue->maxConcurrent : static_cast<int>(ThreadPool::shared().width());
  while (queue->executing < limit) {
    size_t top = queue->pendingAtLevel.size();
    while (top > 0 && queue->pendingAtLevel[top - 1] == 0) --top;
    if (top == 0) return;
    std::shared_ptr<Operation> best;
    for (const auto& op : queue->operations) {
      if (op->state_ != Operation::State::Pending || !readyLocked(*op)) continue;
      if (!best || static_cast<int>(op->priority_) > static_cast<int>(best->priority_)) best = op;
      if (level(best->priority_) == top - 1) break;
    }
    if (!best) return;
    best->state_ = Operation::State::Executing;
    --queue->pendingAtLevel[level(best->priority_)];
    ++queue->executing;
    ThreadPool::shared().submit(static_cast<int>(queue->priority), [queue, best] { run(queue, best); });
  }
}

void OperationGraph::run(const std::shared_ptr<OperationQueue::Impl>& queue, const std::shared_ptr<Operation>& op) {
  if (!op->isCancelled()) {
    try {
      op->main();
    } catch (const std::exception& e) {
      logLine("Uncaught exception in operation of queue " + queue->name + ": " + e.what(), LogLevel::Error);
    } catch (...) {
      logLine("Uncaught exception in operation of queue " + queue->name, LogLevel::Error);
    }
  }
  std::function<void()> completion;
  {
    MutexLock lock(&mutex());
    completion = std::move(op->completion_);
    op->completion_ = nullptr;
  }
  if (completion) {
    try {
      completion();
    } catch (const std::exception& e) {
      logLine("Uncaught exception in completion block of queue " + queue->name + ": " + e.what(), LogLevel::Error);
    } catch (...) {
      logLine("Uncaught exception in completion block of queue " + queue->name, LogLevel::Error);
    }
    completion = nullptr;
  }

  std::vector<std::shared_ptr<OperationQueue::Impl>> affected;
  {
    MutexLock lock(&mutex());
    op->state_ = Operation::State::Finished;
    op->queue_.reset();
    queue->operations.erase(op->position_);
    --queue->executing;
    affected.push_back(queue);
    for (const auto& weak : op->dependants_) {
      if (auto dependant = weak.lock()) {
        --dependant->unfinishedDependencies_;
        if (dependant->queue_) affected.push_back(std::static_pointer_cast<OperationQueue::Impl>(dependant->queue_));
      }
    }
    op->dependants_.clear();
    for (const auto& q : affected) startReadyLocked(q);
    finished().notify_all();
  }
}

// ---- Operation -------------------------------------------------------------------------------

Operation::Operation(std::function<void()> block) : block_(std::move(block)) {}
Operation::~Operation() = default;

void Operation::main() {
  if (block_) block_();
}

void Operation::addDependency(const std::shared_ptr<Operation>& operation) {
  if (!operation || operation.get() == this) return;
  MutexLock lock(&OperationGraph::mutex());
  constexpr size_t kListed = 16;  // up to this many, a walk over the list finds a repeat
  if (!dependencySet_ && dependencies_.size() >= kListed) {
    dependencySet_ = std::make_unique<std::unordered_set<const Operation*>>();
    for (const auto& d : dependencies_) dependencySet_->insert(d.get());
  }
  if (dependencySet_) {
    if (!dependencySet_->insert(operation.get()).second) return;
  } else {
    for (const auto& d : dependencies_) {
      if (d == operation) return;
    }
  }
  dependencies_.push_back(operation);
  // An unfinished dependency tells this operation (and its queue) when it finishes.
  if (operation->state_ != State::Finished) {
    operation->dependants_.push_back(weak_from_this());
    ++unfinishedDependencies_;
  }
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  MutexLock lock(&OperationGraph::mutex());
  return dependencies_;
}

void Operation::cancel() {
  MutexLock lock(&OperationGraph::mutex());
  cancelled_ = true;
  // A cancelled operation is ready at once, so that the queue lets it go soon.
  if (queue_) OperationGraph::startReadyLocked(std::static_pointer_cast<OperationQueue::Impl>(queue_));
}

bool Operation::isCancelled() const { return cancelled_; }

bool Operation::isExecuting() const {
  MutexLock lock(&OperationGraph::mutex());
  return state_ == State::Executing;
}

bool Operation::isFinished() const {
  MutexLock lock(&OperationGraph::mutex());
  return state_ == State::Finished;
}

bool Operation::isReady() const {
  MutexLock lock(&OperationGraph::mutex());
  return OperationGraph::readyLocked(*this);
}

void Operation::setCompletionBlock(std::function<void()> block) {
  MutexLock lock(&OperationGraph::mutex());
  completion_ = std::move(block);
}

void Operation::setQueuePriority(QueuePriority priority) {
  MutexLock lock(&OperationGraph::mutex());
  if (queue_ && state_ == State::Pending) {
    auto& counts = std::static_pointer_cast<OperationQueue::Impl>(queue_)->pendingAtLevel;
    --counts[OperationGraph::level(priority_)];
    ++counts[OperationGraph::level(priority)];
  }
  priority_ = priority;
}

QueuePriority Operation::queuePriority() const {
  MutexLock lock(&OperationGraph::mutex());
  return priority_;
}

void Operation::setName(std::string name) {
  MutexLock lock(&OperationGraph::mutex());
  name_ = std::move(name);
}

std::string Operation::name() const {
  MutexLock lock(&OperationGraph::mutex());
  return name_;
}

void Operation::waitUntilFinished() {
  ThreadPool::BlockingScope blocking;
  MutexLock lock(&OperationGraph::mutex());
  while (state_ != State::Finished) OperationGraph::mutex().wait(OperationGraph::finished());
}

// ---- OperationQueue --------------------------------------------------------------------------

OperationQueue::OperationQueue(std::string name) : impl_(std::make_shared<Impl>()) { impl_->name = std::move(name); }

OperationQueue::~OperationQueue() { waitUntilAllOperationsAreFinished(); }

std::string OperationQueue::name() const { return impl_->name; }

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  MutexLock lock(&OperationGraph::mutex());
  impl_->maxConcurrent = count;
  OperationGraph::startReadyLocked(impl_);
}

int OperationQueue::maxConcurrentOperationCount() const {
  MutexLock lock(&OperationGraph::mutex());
  return impl_->maxConcurrent;
}

void OperationQueue::setPriority(QueuePriority priority) {
  MutexLock lock(&OperationGraph::mutex());
  impl_->priority = priority;
}

QueuePriority OperationQueue::priority() const {
  MutexLock lock(&OperationGraph::mutex());
  return impl_->priority;
}

void OperationQueue::addOperation(const std::shared_ptr<Operation>& operation) {
  if (!operation) return;
  MutexLock lock(&OperationGraph::mutex());
  if (operation->queue_ || operation->state_ != Operation::State::Pending) {
    throw Exception("NSInvalidArgumentException", "operation is already enqueued on a queue or finished");
  }
  operation->queue_ = impl_;
  operation->position_ = impl_->operations.insert(impl_->operations.end(), operation);
  ++impl_->pendingAtLevel[OperationGraph::level(operation->priority_)];
  OperationGraph::startReadyLocked(impl_);
}

std::shared_ptr<Operation> OperationQueue::addOperationWithBlock(std::function<void()> block) {
  auto op = std::make_shared<Operation>(std::move(block));
  addOperation(op);
  return op;
}

void OperationQueue::cancelAllOperations() {
  MutexLock lock(&OperationGraph::mutex());
  for (const auto& op : impl_->operations) op->cancelled_ = true;
  OperationGraph::startReadyLocked(impl_);
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  ThreadPool::BlockingScope blocking;
  MutexLock lock(&OperationGraph::mutex());
  while (!impl_->operations.empty()) OperationGraph::mutex().wait(OperationGraph::finished());
}

size_t OperationQueue::operationCount() const {
  MutexLock lock(&OperationGraph::mutex());
  return impl_->operations.size();
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
  MutexLock lock(&OperationGraph::mutex());
  return {impl_->operations.begin(), impl_->operations.end()};
}

}  // namespace corvane
