// corvane::NotificationCenter — broadcasts named notifications to whoever observes them.
//
// The store announces "CorvaneBeginSave", "CorvaneObjectsDidChangeExternally" and the like
// through the default center. An observer names the notification it wants (or none, for all)
// and the object it wants it from (or nullptr, for any); objects are compared by address and
// never dereferenced. post() calls the matching observers synchronously on the posting thread,
// in the order they were added; postOnMainRunLoop() does the same later on the main run loop.
//
// addObserver() returns an Observer token; the observation ends when the token is destroyed or
// remove() is called. Once remove() returns, the callback is not running on any other thread
// and will not be called again, so an object may remove its observer in its destructor; a
// callback may remove its own or other observers while it runs. (Do not remove an observer
// while holding a lock that its callback takes: remove() waits for a running callback.)
//
// Threads: every method may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "corvane/foundation/value.h"

namespace corvane {

struct Notification {
  std::string name;
  const void* object = nullptr;
  Value userInfo;  // nil or a dictionary
};

class NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;
  struct Impl;
  struct Entry;

  class Observer {
   public:
    Observer() = default;
    Observer(Observer&& other) noexcept = default;
    Observer& operator=(Observer&& other) noexcept;
    ~Observer();
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    void remove();
    bool isActive() const { return entry_ != nullptr; }

   private:
    friend class NotificationCenter;
    Observer(std::weak_ptr<Impl> center, std::shared_ptr<Entry> entry)
        : center_(std::move(center)), entry_(std::move(entry)) {}
    std::weak_ptr<Impl> center_;
    std::shared_ptr<Entry> entry_;
  };

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process-wide center. Never destroyed.
  static NotificationCenter& defaultCenter();

  // `name` empty: every notification; `object` nullptr: from any object.
  [[nodiscard]] Observer addObserver(std::string name, const void* object, Callback callback);

  // Whether an observer would receive a notification of that name from that object now (so
  // that a poster can skip building an expensive user info nobody reads).
  bool hasObservers(const std::string& name, const void* object) const;

  void post(const Notification& notification);
  void post(std::string name, const void* object = nullptr, Value userInfo = Value());
  // Posts on RunLoop::main() (the object address must still mean something then).
  void postOnMainRunLoop(std::string name, const void* object = nullptr, Value userInfo = Value());

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace corvane
