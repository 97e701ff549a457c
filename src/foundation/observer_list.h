// Callbacks that subscriptions add and remove, and that deliver() calls, for the announcements
// a store or a cache makes on its main run loop. A callback that an earlier one of the same
// delivery unsubscribed is not called; a callback may unsubscribe itself or others.
//
// Threads: subscribe, unsubscribe and deliver from any thread; callbacks run on the delivering
// one, outside the list's lock.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "corvane/foundation/mutex.h"
#include "corvane/foundation/observable.h"

namespace corvane {

template <class... Args>
class ObserverList {
 public:
  using Callback = std::function<void(Args...)>;

  // Adds `callback` to `list` until the returned subscription ends (or the list goes).
  static Subscription subscribe(const std::shared_ptr<ObserverList>& list, Callback callback) {
    uint64_t id;
    {
      MutexLock lock(&list->mutex_);
      id = list->nextId_++;
      list->entries_.emplace_back(id, std::make_shared<Callback>(std::move(callback)));
    }
    return Subscription([weak = std::weak_ptr<ObserverList>(list), id] {
      if (auto observers = weak.lock()) observers->remove(id);
    });
  }

  void deliver(Args... args) {
    std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> targets;
    {
      MutexLock lock(&mutex_);
      targets = entries_;
    }
    for (const auto& [id, callback] : targets) {
      if (isSubscribed(id)) (*callback)(args...);
    }
  }

 private:
  void remove(uint64_t id) {
    std::shared_ptr<Callback> removed;  // released after the lock
    MutexLock lock(&mutex_);
    auto it = std::find_if(entries_.begin(), entries_.end(), [id](const auto& entry) { return entry.first == id; });
    if (it != entries_.end()) {
      removed = std::move(it->second);
      entries_.erase(it);
    }
  }
  bool isSubscribed(uint64_t id) {
    MutexLock lock(&mutex_);
    return std::any_of(entries_.begin(), entries_.end(), [id](const auto& entry) { return entry.first == id; });
  }

  Mutex mutex_;
  uint64_t nextId_ CORVANE_GUARDED_BY(mutex_) = 1;
  std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> entries_ CORVANE_GUARDED_BY(mutex_);
};

}  // namespace corvane
