// ManagedObjectContext::Fetching — running fetch requests at the context's source (the
// parent context or the coordinator) and merging in the context's unsaved inserts, updates
// and deletes, so that a fetch answers what the context sees. Runs on the context's queue.
#pragma once

#include <optional>
#include <vector>

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class ManagedObjectContext::Fetching {
 public:
  explicit Fetching(Impl& context) : c_(context) {}
  Fetching(const Fetching&) = delete;
  Fetching& operator=(const Fetching&) = delete;

  std::optional<Value> execute(const FetchRequest& request, Error* error);

 private:
  std::optional<Value> executeAtSource(const FetchRequest& request, Error* error);
  Retained<ManagedObject> objectForResult(const Value& element);
  bool touchesPendingChanges(const EntityDescription* entity, const FetchRequest& request) const;
  std::vector<Retained<ManagedObject>> mergePendingObjects(std::vector<Retained<ManagedObject>> fromStore,
                                                           const FetchRequest& request,
                                                           const EntityDescription* entity);

  Impl& c_;
};

}  // namespace corvane
