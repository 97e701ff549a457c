// corvane::RunLoop — the main thread's queue of work and timers.
//
// The thread that drives a loop (run(), runUntil(), runFor() or runOnce()) is its main
// thread. Other threads hand it work with post(); postAfter() schedules work for later and
// returns a token that cancels it. Timers read the loop's Env clock (monotonicNow()), so with
// a ManualClockEnv a test writes `env.advance(5); loop.runOnce();` and nothing sleeps.
//
// RunLoop::main() is the process-wide loop on which the library delivers callbacks "on the
// main run loop". A host either calls run() on its main thread, or drives the loop from its
// own event loop: watch fileDescriptor() for readability, use secondsUntilNextTimer() as the
// poll timeout, and call runOnce() when either fires.
//
// Order: posted work runs in posting order; due timers run in the order of their due times
// (ties in scheduling order), after the work that was posted before the pass began.
//
// Threads: post(), postAfter(), Token::cancel(), stop(), wakeUp() and fileDescriptor() may be
// called from any thread; the run methods from one thread at a time (they may nest: work run
// by the loop may itself call runUntil(), as a modal panel would).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "corvane/foundation/check.h"
#include "corvane/foundation/env.h"

namespace corvane {

class RunLoop {
 public:
  using Task = std::function<void()>;

  // A handle on a scheduled timer. Copies refer to the same timer. Destroying a token does
  // not cancel the timer.
  class Token {
   public:
    Token() = default;
    // Cancels the timer if it has not fired yet; returns whether it was still pending. Once
    // cancel() returns, the timer's work will not start (it may be running right now on the
    // loop's thread if it had already started).
    bool cancel();
    bool isPending() const;

   private:
    friend class RunLoop;
    Token(std::weak_ptr<void> loop, uint64_t id) : loop_(std::move(loop)), id_(id) {}
    std::weak_ptr<void> loop_;
    uint64_t id_ = 0;
  };

  explicit RunLoop(Env* env = Env::defaultEnv());
  ~RunLoop();  // discards work that has not run
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // The process-wide main loop. Its main thread is the process's initial thread until some
  // thread drives it. Never destroyed.
  static RunLoop& main();

  // The clock the timers follow. Set it before scheduling timers (a test does so in its
  // set-up); deadlines already scheduled are kept as numbers on the new clock.
  void setEnv(Env* env);
  Env* env() const;

  void post(Task task);
  Token postAfter(double delaySeconds, Task task);
  // Runs the task at once when called on the loop's thread, else posts it.
  void perform(Task task);

  // Runs the posted work and the timers that are due, then returns the number of tasks run.
  // Work posted while the pass runs waits for the next pass.
  size_t runOnce();
  // Runs until stop() is called. A stop() that comes before run() makes it return at once.
  void run();
  void stop();
  // Runs until `done()` answers true (checked after each pass) or `timeoutSeconds` of real
  // time have passed; returns done(). The timeout is a safety net measured on the real clock,
  // so that a test waiting for other threads cannot hang on a stopped fake clock.
  bool runUntil(const std::function<bool()>& done, double timeoutSeconds = 60);
  // Runs until the loop's clock reaches monotonicNow() + seconds.
  void runFor(double seconds);
  // Wakes a waiting run() so that it looks at the clock again (after a fake clock moved).
  void wakeUp();
  // Drops every posted task and timer without running them; returns how many. Tests call it
  // on RunLoop::main() so that work left by one test never runs in the next.
  size_t discardPendingWork();

  bool isMainThread() const;
  bool hasPendingWork() const;  // posted work waiting, or a timer that is due
  // Seconds until the next timer is due on the loop's clock (0 when one is due, or work is
  // posted); nullopt when nothing is scheduled.
  std::optional<double> secondsUntilNextTimer() const;
  // An eventfd that becomes readable when work is posted or the timers change (so that a
  // host recomputes its poll timeout). runOnce() drains it.
  int fileDescriptor() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

// Points a loop at another clock for a scope, then back: a test that drives the library's
// timers on RunLoop::main() with a ManualClockEnv writes
//   ManualClockEnv env;  ScopedRunLoopEnv clock(RunLoop::main(), &env);
// On leaving the scope the loop's pending work is discarded (it may refer to the test's
// objects) and the previous clock is restored.
class ScopedRunLoopEnv {
 public:
  ScopedRunLoopEnv(RunLoop& loop, Env* env) : loop_(loop), previous_(loop.env()) {
    loop_.discardPendingWork();
    loop_.setEnv(env);
  }
  ~ScopedRunLoopEnv() {
    loop_.discardPendingWork();
    loop_.setEnv(previous_);
  }
  ScopedRunLoopEnv(const ScopedRunLoopEnv&) = delete;
  ScopedRunLoopEnv& operator=(const ScopedRunLoopEnv&) = delete;

 private:
  RunLoop& loop_;
  Env* previous_;
};

}  // namespace corvane

// Stops a debug build when called off the main run loop's thread (see check.h). For methods
// whose header says "main thread" or "on the main run loop"; a class that is given its own
// loop checks CORVANE_DCHECK(loop.isMainThread()) instead.
#define CORVANE_ASSERT_MAIN_THREAD() CORVANE_DCHECK(::corvane::RunLoop::main().isMainThread())
