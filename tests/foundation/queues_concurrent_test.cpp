#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/foundation/log.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/foundation/operation_queue.h"
#include "corvane/foundation/serial_queue.h"

namespace corvane {
namespace {

// Waits for a future, failing the test instead of hanging when a deadlock is the bug.
template <typename T>
bool finishesInTime(std::future<T>& f) {
  return f.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

// Counts how many callers are inside at once.
struct ConcurrencyProbe {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  void enter() {
    int now = ++inside;
    int seen = most.load();
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::yield();
  }
  void leave() { --inside; }
};

TEST(SerialQueue, RunsWorkOneAtATimeInOrder) {
  SerialQueue queue("org.corvane.Corvane.CacheQueue");
  EXPECT_EQ(queue.label(), "org.corvane.Corvane.CacheQueue");
  ConcurrencyProbe probe;
  std::vector<std::pair<int, int>> seen;  // unguarded: the queue is the guard
  std::vector<std::thread> producers;
  for (int t = 0; t < 3; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        queue.async([&, t, i] {
          probe.enter();
          seen.emplace_back(t, i);
          probe.leave();
        });
      }
    });
  }
  for (auto& p : producers) p.join();
  queue.sync([] {});
  EXPECT_EQ(probe.most.load(), 1);
  ASSERT_EQ(seen.size(), 600u);
  std::vector<int> next(3, 0);
  for (auto [t, i] : seen) EXPECT_EQ(i, next[static_cast<size_t>(t)]++);
}

TEST(SerialQueue, SyncRunsOnTheCallerAfterEarlierWork) {
  SerialQueue queue("sync");
  int value = 0;
  queue.async([&] { value = 1; });
  std::thread::id ranOn;
  queue.sync([&] {
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(queue.isCurrent());
    ranOn = std::this_thread::get_id();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(queue.isCurrent());

  EXPECT_THROW(queue.sync([] { throw std::runtime_error("from sync"); }), std::runtime_error);
  LogCapture log;
  queue.async([] { throw std::runtime_error("from async"); });
  queue.sync([&] { value = 2; });  // the queue goes on after both
  EXPECT_EQ(value, 2);
  EXPECT_TRUE(log.contains("from async"));
}

TEST(SerialQueue, SyncBackIntoARunningQueueDoesNotDeadlock) {
  SerialQueue a("a"), b("b");
  std::promise<std::string> result;
  auto done = result.get_future();
  a.async([&] {
    b.sync([&] {
      a.sync([&] {  // a is waiting for b: runs at once
        a.sync([&] { result.set_value("nested"); });
      });
    });
  });
  ASSERT_TRUE(finishesInTime(done));
  EXPECT_EQ(done.get(), "nested");
}

TEST(SerialQueue, AWaitingPoolThreadIsStoodInFor) {
  // Both pool threads of a two-core machine get busy: one waits for a latch, the other for
  // the first queue. The work that opens the latch must still find a thread.
  SerialQueue blocked("blocked"), waiter("waiter"), opener("opener");
  std::latch gate(1);
  std::promise<void> finished;
  auto done = finished.get_future();
  blocked.async([&] { gate.wait(); });
  waiter.async([&] {
    blocked.sync([] {});
    finished.set_value();
  });
  opener.async([&] { gate.count_down(); });
  ASSERT_TRUE(finishesInTime(done));
}

TEST(SerialQueue, AsyncAfterFollowsTheRunLoopClock) {
  ManualClockEnv env;
  RunLoop loop(&env);
  std::atomic<int> ran{0};
  {
    SerialQueue queue("delayed", &loop);
    queue.asyncAfter(5, [&] { ran += 1; });
    RunLoop::Token cancelled = queue.asyncAfter(5, [&] { ran += 100; });
    cancelled.cancel();
    loop.runOnce();
    queue.sync([] {});
    EXPECT_EQ(ran.load(), 0);
    env.advance(5);
    loop.runOnce();
    queue.sync([] {});
    EXPECT_EQ(ran.load(), 1);
    queue.asyncAfter(1, [&] { ran += 1000; });
  }
  env.advance(1);
  loop.runOnce();  // the queue is gone: its delayed work is dropped
  EXPECT_EQ(ran.load(), 1);
}

TEST(SerialQueue, DestroyingAQueueWaitsForItsWork) {
  std::atomic<int> count{0};
  {
    SerialQueue queue("short-lived");
    for (int i = 0; i < 100; ++i) queue.async([&] { ++count; });
  }
  EXPECT_EQ(count.load(), 100);
}

TEST(OperationQueue, RespectsTheWidth) {
  for (int width : {1, 2}) {
    OperationQueue queue("width");
    queue.setMaxConcurrentOperationCount(width);
    ConcurrencyProbe probe;
    std::atomic<int> ran{0};
    for (int i = 0; i < 40; ++i) {
      queue.addOperationWithBlock([&] {
        probe.enter();
        for (int k = 0; k < 100; ++k) std::this_thread::yield();
        ++ran;
        probe.leave();
      });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 40);
    EXPECT_LE(probe.most.load(), width);
    EXPECT_EQ(queue.operationCount(), 0u);
  }
}

TEST(OperationQueue, AChangeWriteWaitsForEveryWriteQueuedBeforeIt) {
  OperationQueue queue("save");
  std::atomic<int> objectWrites{0};
  std::vector<std::shared_ptr<Operation>> writes;
  for (int i = 0; i < 10; ++i) writes.push_back(queue.addOperationWithBlock([&] { ++objectWrites; }));
  int seenByChange = -1;
  auto change = std::make_shared<Operation>([&] { seenByChange = objectWrites.load(); });
  for (const auto& w : writes) change->addDependency(w);
  queue.addOperation(change);
  change->waitUntilFinished();
  EXPECT_EQ(seenByChange, 10);
  EXPECT_TRUE(change->isFinished());
  EXPECT_EQ(change->dependencies().size(), 10u);
  EXPECT_THROW(queue.addOperation(change), Exception);
}

TEST(OperationQueue, DependenciesCrossQueues) {
  OperationQueue first("first"), second("second");
  std::latch gate(1);
  auto gated = std::make_shared<Operation>([&] { gate.wait(); });
  std::atomic<bool> dependantRan{false};
  auto dependant = std::make_shared<Operation>([&] { dependantRan = true; });
  dependant->addDependency(gated);
  second.addOperation(dependant);
  first.addOperation(gated);
  EXPECT_FALSE(dependant->isReady());
  EXPECT_FALSE(dependant->isExecuting());
  EXPECT_EQ(second.operationCount(), 1u);
  gate.count_down();
  second.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(dependantRan.load());
  EXPECT_TRUE(gated->isFinished());
}

TEST(OperationQueue, CancelledOperationsFinishWithoutRunning) {
  OperationQueue queue("cancel");
  queue.setMaxConcurrentOperationCount(1);
  std::latch started(1), gate(1);
  queue.addOperationWithBlock([&] {
    started.count_down();
    gate.wait();
  });
  started.wait();
  std::atomic<int> ran{0}, completions{0};
  std::vector<std::shared_ptr<Operation>> waiting;
  for (int i = 0; i < 5; ++i) {
    auto op = std::make_shared<Operation>([&] { ++ran; });
    op->setCompletionBlock([&] { ++completions; });
    queue.addOperation(op);
    waiting.push_back(op);
  }
  // An operation whose dependency never runs becomes ready when cancelled.
  auto never = std::make_shared<Operation>();
  auto orphan = std::make_shared<Operation>([&] { ++ran; });
  orphan->addDependency(never);
  queue.addOperation(orphan);

  queue.cancelAllOperations();
  gate.count_down();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(completions.load(), 5);
  for (const auto& op : waiting) {
    EXPECT_TRUE(op->isCancelled());
    EXPECT_TRUE(op->isFinished());
  }
  EXPECT_TRUE(orphan->isFinished());
}

TEST(OperationQueue, HigherQueuePriorityStartsFirst) {
  OperationQueue queue("priority");
  queue.setMaxConcurrentOperationCount(1);
  queue.setPriority(QueuePriority::VeryLow);
  EXPECT_EQ(queue.priority(), QueuePriority::VeryLow);
  std::latch started(1), gate(1);
  queue.addOperationWithBlock([&] {
    started.count_down();
    gate.wait();
  });
  started.wait();
  std::mutex mutex;
  std::vector<std::string> order;
  auto add = [&](const std::string& name, QueuePriority p) {
    auto op = std::make_shared<Operation>([&, name] {
      std::lock_guard<std::mutex> lock(mutex);
      order.push_back(name);
    });
    op->setQueuePriority(p);
    queue.addOperation(op);
  };
  add("low", QueuePriority::Low);
  add("normal 1", QueuePriority::Normal);
  add("very high", QueuePriority::VeryHigh);
  add("normal 2", QueuePriority::Normal);
  add("high", QueuePriority::High);
  gate.count_down();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(order, (std::vector<std::string>{"very high", "high", "normal 1", "normal 2", "low"}));
}

TEST(OperationQueue, CompletionsRunBeforeWaitingEnds) {
  OperationQueue queue("completion");
  std::atomic<int> completions{0};
  for (int i = 0; i < 20; ++i) {
    auto op = std::make_shared<Operation>([] {});
    op->setCompletionBlock([&] { ++completions; });
    queue.addOperation(op);
  }
  LogCapture log;
  queue.addOperationWithBlock([] { throw std::runtime_error("write failed"); });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(completions.load(), 20);
  EXPECT_TRUE(log.contains("write failed"));
}

TEST(OperationQueue, WaitingFromAnOperationDoesNotStarveThePool) {
  OperationQueue outer("outer"), inner("inner");
  std::latch gate(1);
  std::promise<void> finished;
  auto done = finished.get_future();
  outer.addOperationWithBlock([&] { gate.wait(); });
  outer.addOperationWithBlock([&] {
    inner.addOperationWithBlock([&] { gate.count_down(); });
    inner.waitUntilAllOperationsAreFinished();
    finished.set_value();
  });
  ASSERT_TRUE(finishesInTime(done));
}

}  // namespace
}  // namespace corvane
