// corvane::SerialQueue — work items run one at a time, in order, off the calling thread.
//
// The store's read queue and the cache's queue are serial queues. Their work runs on the
// shared thread pool (a queue holds no thread of its own while idle).
//
// sync() runs its work on the calling thread once everything queued before it has run, as
// the platform does; called from work that is already running on the same queue (directly
// or through nested sync() calls), it runs the work at once instead of deadlocking.
//
// asyncAfter() schedules the hand-over to the queue as a timer of a RunLoop (RunLoop::main()
// unless one is given), so delays follow that loop's Env clock: under a ManualClockEnv a
// test advances the clock and runs the loop once, and the work is then queued. The delayed
// work is queued only while that loop runs.
//
// Destroying a queue waits for the work already queued (unless called from that work), and
// drops delayed work that comes due afterwards.
//
// Threads: every method may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "corvane/foundation/run_loop.h"

namespace corvane {

class SerialQueue {
 public:
  using Task = std::function<void()>;

  explicit SerialQueue(std::string label, RunLoop* timerLoop = nullptr);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;

  void async(Task task);
  // Returns once `task` has run, after everything queued before it. Exceptions that `task`
  // throws reach the caller.
  void sync(const Task& task);
  RunLoop::Token asyncAfter(double delaySeconds, Task task);

  // True while the calling thread runs work of this queue.
  bool isCurrent() const;

  struct Impl;  // shared with queued work, which keeps it alive

 private:
  std::shared_ptr<Impl> impl_;
  RunLoop* timerLoop_;
};

}  // namespace corvane
