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
#include "foundation/observer_list.h"

namespace corvane {

// The counters of the background filling. Shared with the work posted to the main run loop,
// which may run after the cache has gone.
struct CorvaneCache::Progress {
  std::atomic<int64_t> done{0};
  std::atomic<int64_t> total{0};
};

// The observers of "changes". Shared with the announcements posted to the main run loop.
// Told at each stage of the cache's change log (observeChanges()).
struct CorvaneCache::ChangesObservers : ObserverList<CacheChangeStage> {};

}  // namespace corvane
