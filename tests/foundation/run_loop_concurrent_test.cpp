#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {
namespace {

TEST(RunLoopConcurrent, RunServesPostsFromOtherThreadsUntilStopped) {
  RunLoop loop;                           // the real clock: run() really sleeps between posts
  std::vector<std::vector<int>> seen(3);  // only the loop's thread touches it
  std::atomic<bool> timerFired{false};
  loop.postAfter(0.01, [&] { timerFired = true; });
  std::vector<std::thread> producers;
  std::latch finished(3);
  for (int t = 0; t < 3; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        loop.post([&, t, i] {
          EXPECT_TRUE(loop.isMainThread());
          seen[static_cast<size_t>(t)].push_back(i);
        });
      }
      finished.count_down();
    });
  }
  std::thread stopper([&] {
    finished.wait();
    // Stop once the timer and everything posted before this has run.
    loop.post([&] {
      if (timerFired) {
        loop.stop();
      } else {
        loop.postAfter(0.01, [&] { loop.stop(); });
      }
    });
  });
  loop.run();
  for (auto& p : producers) p.join();
  stopper.join();
  EXPECT_TRUE(timerFired.load());
  for (const auto& s : seen) {
    ASSERT_EQ(s.size(), 300u);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(s[static_cast<size_t>(i)], i);
  }
}

TEST(RunLoopConcurrent, RunUntilSeesWorkFinishedElsewhere) {
  RunLoop loop;
  std::atomic<bool> flag{false};
  std::atomic<bool> delivered{false};
  std::thread worker([&] {
    flag = true;  // no post: runUntil must notice by itself
    loop.post([&] { delivered = true; });
  });
  EXPECT_TRUE(loop.runUntil([&] { return delivered.load(); }, 20));
  EXPECT_TRUE(flag.load());
  worker.join();
}

TEST(NotificationCenterConcurrent, RegistrationAndPostingFromManyThreads) {
  NotificationCenter center;
  std::atomic<int> calls{0};
  std::atomic<bool> stop{false};
  auto steady = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  std::thread churn([&] {
    while (!stop) {
      auto token = center.addObserver("N", nullptr, [&](const Notification&) {});
      auto other = center.addObserver("", &calls, [&](const Notification&) {});
    }
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 2; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) center.post("N", &calls);
    });
  }
  for (auto& p : posters) p.join();
  stop = true;
  churn.join();
  EXPECT_EQ(calls.load(), 4000);
}

TEST(NotificationCenterConcurrent, RemoveWaitsForACallbackRunningElsewhere) {
  NotificationCenter center;
  std::latch entered(1);
  std::atomic<bool> release{false};
  std::atomic<bool> callbackDone{false};
  auto token = center.addObserver("N", nullptr, [&](const Notification&) {
    entered.count_down();
    while (!release) std::this_thread::yield();
    callbackDone = true;
  });
  std::thread poster([&] { center.post("N"); });
  entered.wait();
  bool doneWhenRemoved = false;
  std::thread remover([&] {
    token.remove();
    doneWhenRemoved = callbackDone.load();
  });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  release = true;
  remover.join();
  poster.join();
  EXPECT_TRUE(doneWhenRemoved);
  center.post("N");  // removed: not called again (the latch would underflow)
}

}  // namespace
}  // namespace corvane
