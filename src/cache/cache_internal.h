// Shared state of CorvaneCache that its implementation files need and its header hides.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "corvane/cache/cache.h"

namespace corvane {

// The counters of the background filling. Shared with the work posted to the main run loop,
// which may run after the cache has gone.
struct CorvaneCache::Progress {
  std::atomic<int64_t> done{0};
  std::atomic<int64_t> total{0};
};

// The observers of "changes". Shared with the announcements posted to the main run loop.
struct CorvaneCache::ChangesObservers {
  using Callback = std::function<void(CacheChangeStage)>;
  std::mutex mutex;
  uint64_t nextId = 1;
  std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> list;

  void deliver(CacheChangeStage stage) {
    std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> targets;
    {
      std::lock_guard<std::mutex> lock(mutex);
      targets = list;
    }
    for (const auto& target : targets) {
      if (isSubscribed(target.first)) (*target.second)(stage);  // an earlier callback may have unsubscribed it
    }
  }

  bool isSubscribed(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(list.begin(), list.end(), [id](const auto& entry) { return entry.first == id; });
  }
};

}  // namespace corvane
