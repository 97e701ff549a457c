#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

#include "corvane/foundation/mutex.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {
namespace {

struct Mailbox {
  Mutex mutex;
  std::condition_variable cv;
  int value CORVANE_GUARDED_BY(mutex) = 0;
};

// Takes the lock twice in one scope: re-entry is what the analysis does not model.
void lockTwice(RecursiveMutex& mutex, const std::function<void()>& whileHeld) CORVANE_NO_THREAD_SAFETY_ANALYSIS {
  RecursiveMutexLock outer(&mutex);
  {
    RecursiveMutexLock inner(&mutex);
    mutex.assertHeld();
  }
  mutex.assertHeld();  // still held by the outer lock
  whileHeld();
}

TEST(MutexConcurrent, WaitHandsStateOverAndWaitUntilTimesOut) {
  // Ping-pong: the sender makes the value odd, the receiver even, each waiting for the other.
  Mailbox box;
  std::thread sender([&] {
    for (int i = 1; i <= 100; ++i) {
      MutexLock lock(&box.mutex);
      while (box.value != 2 * i - 2) box.mutex.wait(box.cv);
      box.value = 2 * i - 1;
      box.cv.notify_all();
    }
  });
  for (int i = 1; i <= 100; ++i) {
    MutexLock lock(&box.mutex);
    while (box.value != 2 * i - 1) box.mutex.wait(box.cv);
    box.mutex.assertHeld();  // held again after every wait
    box.value = 2 * i;
    box.cv.notify_all();
  }
  sender.join();

  // Nobody notifies any more: the wait ends at the deadline, with the lock held again.
  MutexLock lock(&box.mutex);
  const auto deadline = Mutex::Clock::now() + std::chrono::milliseconds(20);
  while (box.mutex.waitUntil(box.cv, deadline)) {
  }  // a spurious wake-up waits again
  EXPECT_GE(Mutex::Clock::now(), deadline);
  EXPECT_EQ(box.value, 200);
  box.mutex.assertHeld();
}

TEST(MutexConcurrent, RecursiveMutexIsFreeOnlyAfterTheLastUnlock) {
  RecursiveMutex mutex;
  auto otherThreadGetsIt = [&] {
    bool got = false;
    std::thread([&] {
      if (mutex.try_lock()) {
        got = true;
        mutex.unlock();
      }
    }).join();
    return got;
  };
  lockTwice(mutex, [&] { EXPECT_FALSE(otherThreadGetsIt()); });
  EXPECT_TRUE(otherThreadGetsIt());
}

#ifndef NDEBUG
// Holds the lock and checks it from a thread that does not hold it; never returns (the check
// stops the program), so the lock is never released.
void assertHeldElsewhere(Mutex& mutex) CORVANE_NO_THREAD_SAFETY_ANALYSIS {
  mutex.lock();
  std::thread([&] { mutex.assertHeld(); }).join();
}

// The debug checks stop the program where a contract is broken, not somewhere later.
TEST(MutexConcurrentDeathTest, DebugChecksStopOnABrokenContract) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Mutex mutex;
  EXPECT_DEATH(mutex.assertHeld(), "check failed");
  RecursiveMutex recursive;
  EXPECT_DEATH(recursive.assertHeld(), "check failed");
  EXPECT_DEATH(assertHeldElsewhere(mutex), "check failed");
  // The main run loop belongs to the thread that drives it.
  EXPECT_DEATH(
      {
        RunLoop::main().runOnce();
        std::thread([] { CORVANE_ASSERT_MAIN_THREAD(); }).join();
      },
      "isMainThread");
}
#endif

}  // namespace
}  // namespace corvane
