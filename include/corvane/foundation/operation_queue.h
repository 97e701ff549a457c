// corvane::Operation and corvane::OperationQueue — units of work with dependencies, run on
// the shared thread pool at most maxConcurrentOperationCount at a time.
//
// The store's save queue runs object-file writes side by side and makes each change-file
// write depend on every write queued before it; the cache's index queue runs at very low
// priority. An operation starts when it is ready (every dependency finished, or it was
// cancelled); among ready operations of a queue the higher queuePriority starts first, equal
// ones in the order they were added. Dependencies may cross queues.
//
// A cancelled operation that has not started finishes without running main(). An operation
// finishes in this order: main() returns, the completion block runs (on the same worker
// thread), then isFinished() becomes true, dependants may start and waiters wake up; so after
// waitUntilAllOperationsAreFinished() every completion block has run.
//
// Destroying a queue waits for its operations, as a queue that vanished under queued file
// writes would lose them.
//
// Threads: every method may be called from any thread. Waiting from a queue's own operation
// for that queue deadlocks, as on the platform.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace corvane {

enum class QueuePriority : int { VeryLow = -8, Low = -4, Normal = 0, High = 4, VeryHigh = 8 };

class OperationQueue;

class Operation : public std::enable_shared_from_this<Operation> {
 public:
  explicit Operation(std::function<void()> block = {});
  virtual ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // The work; the default runs the block given to the constructor. Long work may poll
  // isCancelled() and return early.
  virtual void main();

  // Dependencies are normally added before the operation is added to a queue. The operation
  // keeps its dependencies alive. Both must already be owned by shared pointers.
  void addDependency(const std::shared_ptr<Operation>& operation);
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  void cancel();
  bool isCancelled() const;
  bool isExecuting() const;
  bool isFinished() const;
  bool isReady() const;

  void setCompletionBlock(std::function<void()> block);
  void setQueuePriority(QueuePriority priority);
  QueuePriority queuePriority() const;
  void setName(std::string name);
  std::string name() const;

  // Blocks until the operation has finished.
  void waitUntilFinished();

 private:
  friend class OperationQueue;
  friend struct OperationGraph;
  enum class State { Pending, Executing, Finished };

  std::function<void()> block_;
  std::atomic<bool> cancelled_{false};
  // The rest is guarded by the graph lock shared by all queues (OperationGraph).
  State state_ = State::Pending;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  // For a long list of dependencies (a change file waits for thousands of object files), the
  // same ones as a set, so that adding one stays cheap.
  std::unique_ptr<std::unordered_set<const Operation*>> dependencySet_;
  size_t unfinishedDependencies_ = 0;
  std::vector<std::weak_ptr<Operation>> dependants_;
  std::shared_ptr<void> queue_;                               // the queue it was added to, while unfinished
  std::list<std::shared_ptr<Operation>>::iterator position_;  // its place in that queue
  std::function<void()> completion_;
  QueuePriority priority_ = QueuePriority::Normal;
  std::string name_;
};

class OperationQueue {
 public:
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;  // as wide as the pool

  explicit OperationQueue(std::string name = {});
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  std::string name() const;
  void setMaxConcurrentOperationCount(int count);
  int maxConcurrentOperationCount() const;
  // The priority of this queue's work in the shared pool relative to other queues.
  void setPriority(QueuePriority priority);
  QueuePriority priority() const;

  // An operation can be added to one queue, once; adding it again throws
  // Exception("NSInvalidArgumentException").
  void addOperation(const std::shared_ptr<Operation>& operation);
  std::shared_ptr<Operation> addOperationWithBlock(std::function<void()> block);

  void cancelAllOperations();
  void waitUntilAllOperationsAreFinished();
  // Operations added and not yet finished.
  size_t operationCount() const;
  std::vector<std::shared_ptr<Operation>> operations() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace corvane
