// corvane::Observable<T> — a value whose changes are reported to subscribers on the main
// run loop, the way user-interface bindings observe a property.
//
// set() may be called from any thread; every set() (whether or not the value differs, as
// with the platform's key-value observing) posts one delivery to the run loop (RunLoop::main()
// unless another is given), which calls each subscriber that existed at the time of the set()
// with the old and the new value. Deliveries keep the order of the set() calls.
//
// subscribe() returns a Subscription; it ends when the subscription is destroyed or
// unsubscribe() is called. Subscribe and unsubscribe on the run loop's thread: a delivery
// then never reaches a subscriber that has gone. An Observable destroyed before its pending
// deliveries drops them.
//
// Threads: get() and set() from any thread; subscriptions on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "corvane/foundation/mutex.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {

// Ends an observation when destroyed or when unsubscribe() is called. Move-only.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::function<void()> end) : end_(std::move(end)) {}
  Subscription(Subscription&& other) noexcept : end_(std::exchange(other.end_, nullptr)) {}
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) {
      unsubscribe();
      end_ = std::exchange(other.end_, nullptr);
    }
    return *this;
  }
  ~Subscription() { unsubscribe(); }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  void unsubscribe() {
    if (auto end = std::exchange(end_, nullptr)) end();
  }
  bool isActive() const { return static_cast<bool>(end_); }

 private:
  std::function<void()> end_;
};

template <typename T>
class Observable {
 public:
  using Callback = std::function<void(const T& oldValue, const T& newValue)>;

  explicit Observable(T initial = T(), RunLoop* loop = nullptr)
      : state_(std::make_shared<State>(std::move(initial), loop)) {}
  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;

  T get() const {
    MutexLock lock(&state_->mutex);
    return state_->value;
  }

  void set(T value) {
    T old;
    uint64_t subscribersUpTo;
    {
      MutexLock lock(&state_->mutex);
      old = std::exchange(state_->value, value);
      subscribersUpTo = state_->nextId;
    }
    RunLoop& loop = state_->loop != nullptr ? *state_->loop : RunLoop::main();
    loop.post([weak = std::weak_ptr<State>(state_), old = std::move(old), value = std::move(value), subscribersUpTo] {
      if (auto state = weak.lock()) state->deliver(old, value, subscribersUpTo);
    });
  }

  [[nodiscard]] Subscription subscribe(Callback callback) {
    uint64_t id;
    {
      MutexLock lock(&state_->mutex);
      id = state_->nextId++;
      state_->subscribers.emplace_back(id, std::make_shared<Callback>(std::move(callback)));
    }
    return Subscription([weak = std::weak_ptr<State>(state_), id] {
      if (auto state = weak.lock()) state->remove(id);
    });
  }

 private:
  struct State {
    State(T v, RunLoop* l) : value(std::move(v)), loop(l) {}

    void deliver(const T& oldValue, const T& newValue, uint64_t upTo) {
      std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> targets;
      {
        MutexLock lock(&mutex);
        for (const auto& s : subscribers) {
          if (s.first < upTo) targets.push_back(s);
        }
      }
      for (const auto& [id, callback] : targets) {
        if (isSubscribed(id)) (*callback)(oldValue, newValue);  // an earlier callback may have unsubscribed it
      }
    }

    bool isSubscribed(uint64_t id) {
      MutexLock lock(&mutex);
      for (const auto& s : subscribers) {
        if (s.first == id) return true;
      }
      return false;
    }

    void remove(uint64_t id) {
      std::shared_ptr<Callback> removed;  // released outside the lock
      MutexLock lock(&mutex);
      for (auto it = subscribers.begin(); it != subscribers.end(); ++it) {
        if (it->first == id) {
          removed = std::move(it->second);
          subscribers.erase(it);
          break;
        }
      }
    }

    Mutex mutex;
    T value CORVANE_GUARDED_BY(mutex);
    RunLoop* const loop;
    uint64_t nextId CORVANE_GUARDED_BY(mutex) = 1;
    std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> subscribers CORVANE_GUARDED_BY(mutex);
  };

  std::shared_ptr<State> state_;
};

}  // namespace corvane
