// Private parts of CorvaneStore shared by its source files.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "corvane/store/corvane_store.h"

namespace corvane {

struct CorvaneStore::LogObservers {
  using Callback = std::function<void()>;
  std::mutex mutex;
  uint64_t nextId = 1;
  std::vector<std::pair<uint64_t, std::shared_ptr<Callback>>> list;

  void deliver() {
    std::vector<std::shared_ptr<Callback>> targets;
    {
      std::lock_guard<std::mutex> lock(mutex);
      for (const auto& entry : list) targets.push_back(entry.second);
    }
    for (const auto& callback : targets) (*callback)();
  }
};

}  // namespace corvane
