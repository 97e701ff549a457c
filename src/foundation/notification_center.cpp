#include "corvane/foundation/notification_center.h"

#include <algorithm>
#include <condition_variable>
#include <vector>

#include "corvane/foundation/mutex.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {

namespace {
// Observers whose callbacks the current thread is running (a callback may post again).
thread_local std::vector<const NotificationCenter::Entry*> tlsDelivering;
}  // namespace

struct NotificationCenter::Entry {
  Entry(std::string n, const void* o, Callback c) : name(std::move(n)), object(o), callback(std::move(c)) {}

  bool matches(const Notification& note) const {
    return (name.empty() || name == note.name) && (object == nullptr || object == note.object);
  }

  // Ends the observation; waits for callbacks running on other threads.
  void deactivate() CORVANE_EXCLUDES(mutex) {
    const auto onThisThread = static_cast<int>(std::count(tlsDelivering.begin(), tlsDelivering.end(), this));
    MutexLock lock(&mutex);
    active = false;
    while (running > onThisThread) mutex.wait(idle);
  }

  const std::string name;
  const void* const object;
  const Callback callback;
  Mutex mutex;
  std::condition_variable idle;
  bool active CORVANE_GUARDED_BY(mutex) = true;
  int running CORVANE_GUARDED_BY(mutex) = 0;
};

struct NotificationCenter::Impl {
  void post(const Notification& note) {
    std::vector<std::shared_ptr<Entry>> matching;
    {
      MutexLock lock(&mutex);
      for (const auto& e : entries) {
        if (e->matches(note)) matching.push_back(e);
      }
    }
    for (const auto& e : matching) deliver(*e, note);
  }

  static void deliver(Entry& e, const Notification& note) {
    {
      MutexLock lock(&e.mutex);
      if (!e.active) return;  // removed by an earlier observer of this notification
      ++e.running;
    }
    struct Done {
      Entry& e;
      ~Done() {
        tlsDelivering.pop_back();
        MutexLock lock(&e.mutex);
        --e.running;
        e.idle.notify_all();
      }
    };
    tlsDelivering.push_back(&e);
    Done done{e};
    e.callback(note);
  }

  void remove(const std::shared_ptr<Entry>& entry) {
    {
      MutexLock lock(&mutex);
      entries.erase(std::remove(entries.begin(), entries.end(), entry), entries.end());
    }
  }

  // Never held while an entry's lock is taken or a callback runs.
  Mutex mutex;
  std::vector<std::shared_ptr<Entry>> entries CORVANE_GUARDED_BY(mutex);
};

NotificationCenter::Observer& NotificationCenter::Observer::operator=(Observer&& other) noexcept {
  if (this != &other) {
    remove();
    center_ = std::move(other.center_);
    entry_ = std::move(other.entry_);
  }
  return *this;
}

NotificationCenter::Observer::~Observer() { remove(); }

void NotificationCenter::Observer::remove() {
  if (!entry_) return;
  if (auto center = center_.lock()) center->remove(entry_);
  entry_->deactivate();
  entry_.reset();
  center_.reset();
}

NotificationCenter::NotificationCenter() : impl_(std::make_shared<Impl>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter();
  return *center;
}

NotificationCenter::Observer NotificationCenter::addObserver(std::string name, const void* object, Callback callback) {
  auto entry = std::make_shared<Entry>(std::move(name), object, std::move(callback));
  {
    MutexLock lock(&impl_->mutex);
    impl_->entries.push_back(entry);
  }
  return Observer(impl_, entry);
}

bool NotificationCenter::hasObservers(const std::string& name, const void* object) const {
  Notification probe{name, object, Value()};
  MutexLock lock(&impl_->mutex);
  for (const auto& e : impl_->entries) {
    if (e->matches(probe)) return true;
  }
  return false;
}

void NotificationCenter::post(const Notification& notification) { impl_->post(notification); }

void NotificationCenter::post(std::string name, const void* object, Value userInfo) {
  impl_->post(Notification{std::move(name), object, std::move(userInfo)});
}

void NotificationCenter::postOnMainRunLoop(std::string name, const void* object, Value userInfo) {
  RunLoop::main().post(
      [center = std::weak_ptr<Impl>(impl_), note = Notification{std::move(name), object, std::move(userInfo)}] {
        if (auto c = center.lock()) c->post(note);
      });
}

}  // namespace corvane
