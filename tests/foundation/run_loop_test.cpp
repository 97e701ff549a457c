#include "corvane/foundation/run_loop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/foundation/manual_clock_env.h"

namespace corvane {
namespace {

bool readable(int fd) {
  struct pollfd p = {fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}

TEST(RunLoop, RunOncePassesRunPostedWorkInOrderAndDeferNewWork) {
  ManualClockEnv env;
  RunLoop loop(&env);
  std::vector<std::string> log;
  loop.post([&] {
    log.push_back("a");
    loop.post([&] { log.push_back("posted by a"); });
  });
  loop.post([&] { log.push_back("b"); });
  EXPECT_EQ(loop.runOnce(), 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(loop.runOnce(), 1u);
  EXPECT_EQ(log.back(), "posted by a");
  EXPECT_EQ(loop.runOnce(), 0u);
}

TEST(RunLoop, TimersFireWhenTheFakeClockReachesThem) {
  ManualClockEnv env;
  RunLoop loop(&env);
  std::vector<std::string> log;
  loop.postAfter(5, [&] { log.push_back("5 s"); });
  loop.postAfter(2, [&] { log.push_back("2 s"); });
  loop.postAfter(2, [&] { log.push_back("2 s, later"); });
  loop.postAfter(-1, [&] { log.push_back("negative delay"); });

  EXPECT_EQ(loop.runOnce(), 1u);
  EXPECT_EQ(log, std::vector<std::string>{"negative delay"});
  env.advance(1.999);
  EXPECT_EQ(loop.runOnce(), 0u);
  ASSERT_TRUE(loop.secondsUntilNextTimer());
  EXPECT_NEAR(*loop.secondsUntilNextTimer(), 0.001, 1e-9);
  env.advance(10);
  EXPECT_EQ(loop.runOnce(), 3u);
  EXPECT_EQ(log, (std::vector<std::string>{"negative delay", "2 s", "2 s, later", "5 s"}));
  EXPECT_FALSE(loop.secondsUntilNextTimer());
}

TEST(RunLoop, ATimerScheduledByATimerWaitsForTheNextPass) {
  ManualClockEnv env;
  RunLoop loop(&env);
  int fired = 0;
  std::function<void()> again = [&] {
    ++fired;
    loop.postAfter(0, again);
  };
  loop.postAfter(0, again);
  EXPECT_EQ(loop.runOnce(), 1u);  // and does not spin forever
  EXPECT_EQ(loop.runOnce(), 1u);
  EXPECT_EQ(fired, 2);
}

TEST(RunLoop, CancelledTimersNeverRun) {
  ManualClockEnv env;
  RunLoop::Token orphan;
  bool ran = false;
  {
    RunLoop loop(&env);
    RunLoop::Token token = loop.postAfter(1, [&] { ran = true; });
    EXPECT_TRUE(token.isPending());
    EXPECT_TRUE(token.cancel());
    EXPECT_FALSE(token.cancel());
    EXPECT_FALSE(token.isPending());

    // A timer may cancel another that is due in the same pass.
    RunLoop::Token second;
    loop.postAfter(1, [&] { second.cancel(); });
    second = loop.postAfter(1, [&] { ran = true; });
    env.advance(1);
    EXPECT_EQ(loop.runOnce(), 1u);
    EXPECT_FALSE(ran);
    orphan = loop.postAfter(100, [&] { ran = true; });
  }
  EXPECT_FALSE(orphan.cancel());  // the loop is gone: nothing to cancel, nothing crashes
  EXPECT_FALSE(RunLoop::Token().cancel());
}

TEST(RunLoop, FileDescriptorSignalsPendingWorkForAHostLoop) {
  ManualClockEnv env;
  RunLoop loop(&env);
  ASSERT_GE(loop.fileDescriptor(), 0);
  EXPECT_FALSE(readable(loop.fileDescriptor()));
  loop.post([] {});
  EXPECT_TRUE(readable(loop.fileDescriptor()));
  EXPECT_TRUE(loop.hasPendingWork());
  loop.runOnce();
  EXPECT_FALSE(readable(loop.fileDescriptor()));
  EXPECT_FALSE(loop.hasPendingWork());

  loop.postAfter(3, [] {});  // a new timer changes the host's poll timeout
  EXPECT_TRUE(readable(loop.fileDescriptor()));
  loop.runOnce();
  EXPECT_FALSE(loop.hasPendingWork());
  env.advance(3);
  EXPECT_TRUE(loop.hasPendingWork());
  EXPECT_EQ(*loop.secondsUntilNextTimer(), 0);
}

TEST(RunLoop, RunStopsOnStopEvenWhenStopCameFirst) {
  ManualClockEnv env;
  RunLoop loop(&env);
  loop.stop();
  loop.run();  // returns at once

  int ran = 0;
  loop.post([&] { ++ran; });
  loop.post([&] { loop.stop(); });
  loop.post([&] { ++ran; });
  loop.run();
  EXPECT_EQ(ran, 2);  // the pass that saw stop() completes
}

TEST(RunLoop, RunUntilAndRunForFollowTheFakeClock) {
  ManualClockEnv env;
  RunLoop loop(&env);
  bool fired = false;
  loop.postAfter(30, [&] { fired = true; });
  loop.post([&] { env.advance(30); });
  EXPECT_TRUE(loop.runUntil([&] { return fired; }));

  std::vector<double> seen;
  loop.postAfter(3, [&] { seen.push_back(env.monotonicNow()); });
  loop.postAfter(20, [&] { seen.push_back(-1); });
  const double start = env.monotonicNow();
  loop.post([&] { env.advance(10); });
  loop.runFor(10);
  EXPECT_EQ(seen, std::vector<double>{start + 10});

  EXPECT_FALSE(loop.runUntil([] { return false; }, 0.02));  // the real-time safety net
}

TEST(RunLoop, ExceptionsLeaveTheRestQueued) {
  ManualClockEnv env;
  RunLoop loop(&env);
  bool second = false;
  loop.post([] { throw std::runtime_error("boom"); });
  loop.post([&] { second = true; });
  EXPECT_THROW(loop.runOnce(), std::runtime_error);
  EXPECT_FALSE(second);
  loop.runOnce();
  EXPECT_TRUE(second);
}

TEST(RunLoop, MainThreadIsTheThreadThatDrivesTheLoop) {
  ManualClockEnv env;
  RunLoop loop(&env);
  EXPECT_TRUE(loop.isMainThread());  // the creating thread, until another drives it
  bool onOther = true;
  std::thread([&] { onOther = loop.isMainThread(); }).join();
  EXPECT_FALSE(onOther);
  std::thread([&] { loop.runOnce(); }).join();
  EXPECT_FALSE(loop.isMainThread());
  loop.runOnce();
  EXPECT_TRUE(loop.isMainThread());

  EXPECT_TRUE(RunLoop::main().isMainThread());  // the test runs on the initial thread
  EXPECT_EQ(&RunLoop::main(), &RunLoop::main());
}

TEST(RunLoop, ScopedEnvSwapsTheClockAndDiscardsLeftovers) {
  RunLoop loop;
  Env* real = loop.env();
  bool ran = false;
  {
    ManualClockEnv env;
    ScopedRunLoopEnv clock(loop, &env);
    EXPECT_EQ(loop.env(), &env);
    loop.postAfter(60, [&] { ran = true; });
    loop.post([&] { ran = true; });
  }
  EXPECT_EQ(loop.env(), real);
  EXPECT_EQ(loop.runOnce(), 0u);
  EXPECT_FALSE(ran);
  EXPECT_FALSE(loop.secondsUntilNextTimer());
}

}  // namespace
}  // namespace corvane
