// Private parts of CorvaneStore shared by its source files.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "corvane/store/corvane_store.h"
#include "foundation/observer_list.h"

namespace corvane {

// Told when the store's log changes (observeLog()).
struct CorvaneStore::LogObservers : ObserverList<> {};

}  // namespace corvane
