#include "corvane/foundation/run_loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "corvane/foundation/mutex.h"

namespace corvane {

namespace {

// Captured while static objects are built, which happens on the process's initial thread.
const std::thread::id kInitialThread = std::this_thread::get_id();

// A waiting run() looks at the clock at least this often, so that a fake clock moved by
// another thread (without wakeUp()) is noticed, and a timer is never late by more.
constexpr double kMaxWaitSlice = 0.5;
// runUntil() re-checks its condition at least this often: the condition may become true on
// another thread without any work reaching the loop.
constexpr double kConditionPollInterval = 0.01;

using SteadyClock = std::chrono::steady_clock;

SteadyClock::time_point realTimeAfter(double seconds) {
  seconds = std::clamp(seconds, 0.0, 3600.0);
  return SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

struct RunLoop::Impl {
  explicit Impl(Env* e) : env(e), owner(std::this_thread::get_id()) {
    eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  }
  ~Impl() {
    if (eventFd >= 0) ::close(eventFd);
  }

  void signalFd() const {
    if (eventFd < 0) return;
    uint64_t one = 1;
    (void)!::write(eventFd, &one, sizeof one);
  }
  void drainFd() const {
    if (eventFd < 0) return;
    uint64_t value;
    (void)!::read(eventFd, &value, sizeof value);
  }

  // Blocks the loop's thread until work is posted, stop() or wakeUp() is called, a timer or
  // `clockDeadline` (on the loop's clock) is due, or `realDeadline` passes.
  void waitForWork(std::optional<double> clockDeadline, std::optional<SteadyClock::time_point> realDeadline)
      CORVANE_EXCLUDES(mutex) {
    MutexLock lock(&mutex);
    for (;;) {
      if (!posted.empty() || stopRequested || woken) {
        woken = false;
        return;
      }
      std::optional<double> next = clockDeadline;
      if (!timers.empty() && (!next || timers.begin()->first.first < *next)) next = timers.begin()->first.first;
      double wait = 3600;
      if (next) {
        double now = env->monotonicNow();
        if (*next <= now) return;
        wait = std::min(*next - now, kMaxWaitSlice);
      }
      auto until = realTimeAfter(wait);
      if (realDeadline && *realDeadline < until) until = *realDeadline;
      mutex.waitUntil(cv, until);
      if (realDeadline && SteadyClock::now() >= *realDeadline) return;
    }
  }

  using TimerKey = std::pair<double, uint64_t>;  // deadline, id (ids grow, so ties keep order)

  mutable Mutex mutex;
  std::condition_variable cv;
  Env* env CORVANE_GUARDED_BY(mutex);
  std::deque<Task> posted CORVANE_GUARDED_BY(mutex);
  std::map<TimerKey, Task> timers CORVANE_GUARDED_BY(mutex);
  std::unordered_map<uint64_t, double> deadlines CORVANE_GUARDED_BY(mutex);  // id -> deadline, for cancelling
  uint64_t nextId CORVANE_GUARDED_BY(mutex) = 1;
  bool stopRequested CORVANE_GUARDED_BY(mutex) = false;
  bool woken CORVANE_GUARDED_BY(mutex) = false;
  std::atomic<std::thread::id> owner;
  int eventFd = -1;
};

// ---- Token -----------------------------------------------------------------------------------

bool RunLoop::Token::cancel() {
  auto impl = std::static_pointer_cast<Impl>(loop_.lock());
  if (!impl) return false;
  Task discarded;  // destroyed after the lock is released: its captures may call back into the loop
  MutexLock lock(&impl->mutex);
  auto it = impl->deadlines.find(id_);
  if (it == impl->deadlines.end()) return false;
  auto timer = impl->timers.find({it->second, id_});
  discarded = std::move(timer->second);
  impl->timers.erase(timer);
  impl->deadlines.erase(it);
  return true;
}

bool RunLoop::Token::isPending() const {
  auto impl = std::static_pointer_cast<Impl>(loop_.lock());
  if (!impl) return false;
  MutexLock lock(&impl->mutex);
  return impl->deadlines.count(id_) != 0;
}

// ---- RunLoop ---------------------------------------------------------------------------------

RunLoop::RunLoop(Env* env) : impl_(std::make_shared<Impl>(env)) {}

RunLoop::~RunLoop() { discardPendingWork(); }

RunLoop& RunLoop::main() {
  static RunLoop* loop = [] {
    auto* l = new RunLoop(Env::defaultEnv());
    if (kInitialThread != std::thread::id()) l->impl_->owner = kInitialThread;
    return l;
  }();
  return *loop;
}

void RunLoop::setEnv(Env* env) {
  MutexLock lock(&impl_->mutex);
  impl_->env = env;
  impl_->woken = true;
  impl_->cv.notify_all();
}

Env* RunLoop::env() const {
  MutexLock lock(&impl_->mutex);
  return impl_->env;
}

void RunLoop::post(Task task) {
  {
    MutexLock lock(&impl_->mutex);
    impl_->posted.push_back(std::move(task));
    impl_->cv.notify_all();
  }
  impl_->signalFd();
}

RunLoop::Token RunLoop::postAfter(double delaySeconds, Task task) {
  uint64_t id;
  {
    MutexLock lock(&impl_->mutex);
    // A NaN or negative delay means "as soon as possible", as on the platform.
    double delay = delaySeconds > 0 ? delaySeconds : 0;
    double deadline = impl_->env->monotonicNow() + delay;
    id = impl_->nextId++;
    impl_->timers.emplace(Impl::TimerKey{deadline, id}, std::move(task));
    impl_->deadlines.emplace(id, deadline);
    impl_->cv.notify_all();
  }
  impl_->signalFd();
  return Token(std::weak_ptr<void>(impl_), id);
}

size_t RunLoop::runOnce() {
  Impl& s = *impl_;
  s.owner = std::this_thread::get_id();
  s.drainFd();
  size_t ran = 0;

  size_t postedCount;
  {
    MutexLock lock(&s.mutex);
    postedCount = s.posted.size();
  }
  // One task at a time, so that a task that throws leaves the rest queued.
  for (size_t i = 0; i < postedCount; ++i) {
    Task task;
    {
      MutexLock lock(&s.mutex);
      if (s.posted.empty()) break;
      task = std::move(s.posted.front());
      s.posted.pop_front();
    }
    if (task) task();
    ++ran;
  }

  double now;
  uint64_t firstNewId;
  {
    MutexLock lock(&s.mutex);
    now = s.env->monotonicNow();
    firstNewId = s.nextId;  // timers scheduled by this pass wait for the next one
  }
  for (;;) {
    Task task;
    {
      MutexLock lock(&s.mutex);
      auto it = s.timers.begin();
      while (it != s.timers.end() && it->first.first <= now && it->first.second >= firstNewId) ++it;
      if (it == s.timers.end() || it->first.first > now) break;
      task = std::move(it->second);
      s.deadlines.erase(it->first.second);
      s.timers.erase(it);
    }
    if (task) task();
    ++ran;
  }

  bool morePosted;
  {
    MutexLock lock(&s.mutex);
    morePosted = !s.posted.empty();
  }
  if (morePosted) s.signalFd();
  return ran;
}

void RunLoop::run() {
  impl_->owner = std::this_thread::get_id();
  for (;;) {
    {
      MutexLock lock(&impl_->mutex);
      if (impl_->stopRequested) {
        impl_->stopRequested = false;
        return;
      }
    }
    runOnce();
    impl_->waitForWork(std::nullopt, std::nullopt);
  }
}

void RunLoop::stop() {
  {
    MutexLock lock(&impl_->mutex);
    impl_->stopRequested = true;
    impl_->cv.notify_all();
  }
  impl_->signalFd();
}

bool RunLoop::runUntil(const std::function<bool()>& done, double timeoutSeconds) {
  const auto realDeadline = realTimeAfter(timeoutSeconds);
  for (;;) {
    runOnce();
    if (done()) return true;
    if (SteadyClock::now() >= realDeadline) return false;
    impl_->waitForWork(std::nullopt, std::min(realDeadline, realTimeAfter(kConditionPollInterval)));
  }
}

void RunLoop::runFor(double seconds) {
  const double deadline = env()->monotonicNow() + (seconds > 0 ? seconds : 0);
  for (;;) {
    runOnce();
    if (env()->monotonicNow() >= deadline) return;
    impl_->waitForWork(deadline, std::nullopt);
  }
}

void RunLoop::wakeUp() {
  {
    MutexLock lock(&impl_->mutex);
    impl_->woken = true;
    impl_->cv.notify_all();
  }
  impl_->signalFd();
}

size_t RunLoop::discardPendingWork() {
  std::deque<Task> posted;
  std::map<Impl::TimerKey, Task> timers;
  {
    MutexLock lock(&impl_->mutex);
    posted.swap(impl_->posted);
    timers.swap(impl_->timers);
    impl_->deadlines.clear();
  }
  impl_->drainFd();
  return posted.size() + timers.size();  // destroyed here, outside the lock
}

void RunLoop::perform(Task task) {
  if (isMainThread()) {
    task();
  } else {
    post(std::move(task));
  }
}

bool RunLoop::isMainThread() const { return impl_->owner.load() == std::this_thread::get_id(); }

bool RunLoop::hasPendingWork() const {
  auto delay = secondsUntilNextTimer();
  return delay && *delay <= 0;
}

std::optional<double> RunLoop::secondsUntilNextTimer() const {
  MutexLock lock(&impl_->mutex);
  if (!impl_->posted.empty()) return 0.0;
  if (impl_->timers.empty()) return std::nullopt;
  double delay = impl_->timers.begin()->first.first - impl_->env->monotonicNow();
  return delay > 0 ? delay : 0.0;
}

int RunLoop::fileDescriptor() const { return impl_->eventFd; }

}  // namespace corvane
