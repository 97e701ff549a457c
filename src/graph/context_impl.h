// The state behind a ManagedObjectContext, shared by the classes that do its jobs (one
// private header each): registering objects (context_registry.h), reading their values
// (context_faults.h), recording changes (context_changes.h), saving (context_saving.h) and
// fetching (context_fetching.h). Everything here runs on the context's queue.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "corvane/foundation/error.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "graph/context_changes.h"
#include "graph/context_faults.h"
#include "graph/context_fetching.h"
#include "graph/context_registry.h"
#include "graph/context_saving.h"
#include "graph/graph_internal.h"

namespace corvane {

class SerialQueue;
class UndoManager;

struct ManagedObjectContext::Impl {
  Impl(ManagedObjectContext& context, ConcurrencyType concurrencyType);
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // The state of another context (a parent or a child), for work done on its queue.
  static Impl& of(ManagedObjectContext& context) { return *context.impl_; }

  // On the main queue, processes pending changes once the current pass of the run loop ends
  // (one undo step, one notification per event).
  void scheduleEndOfEvent();
  void registerUndo(const void* target, std::function<void()> action);
  // Wraps an action on this context so that it does nothing once the context is gone.
  std::function<void()> guarded(std::function<void()> action);
  // Every set of changed objects, for forgetting an object or all of them.
  std::array<graph_internal::ObjectSet*, 7> allSets() {
    return {&inserted, &updated, &deleted, &pendingInserted, &pendingUpdated, &pendingDeleted, &pendingRefreshed};
  }

  ManagedObjectContext& self;
  ConcurrencyType type;
  std::string name;
  std::unique_ptr<SerialQueue> queue;
  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  std::shared_ptr<ManagedObjectContext> parent;
  // Changes since the last save, and since the last objects-did-change notification.
  graph_internal::ObjectSet inserted{1}, updated{2}, deleted{4};
  graph_internal::ObjectSet pendingInserted{8}, pendingUpdated{16}, pendingDeleted{32}, pendingRefreshed{64};
  std::shared_ptr<UndoManager> undoManager;
  NotificationCenter::Observer undoObserver;
  bool retainsRegisteredObjects = false;
  bool endOfEventScheduled = false;
  bool processingChanges = false;
  bool saveInProgress = false;
  bool suppressUndo = false;
  bool sweepDue = false;
  graph_internal::ObjectRegistry registered;
  std::shared_ptr<bool> alive;  // lets queued work and undo actions notice a destroyed context

  // The jobs; each works on the state above.
  Registry registry{*this};
  Faults faults{*this};
  Changes changes{*this};
  Saving saving{*this};
  Fetching fetching{*this};
};

namespace graph_internal {

inline ManagedObject* objectOf(const Value& v) {
  return v.isObject() ? dynamic_cast<ManagedObject*>(v.objectPointer()) : nullptr;
}

inline ObjectID idOf(const Value& v) {
  if (ManagedObject* o = objectOf(v)) return o->objectID();
  return ObjectID::fromValue(v);
}

inline Value objectSetValue(const std::vector<Retained<ManagedObject>>& objects) {
  std::vector<Value> items;
  items.reserve(objects.size());
  for (const auto& o : objects) items.push_back(Value::object(o.get()));
  return Value::set(std::move(items));
}

inline Value emptyMembers(const RelationshipDescription& r) {
  return r.isOrdered() ? Value::orderedSet() : Value::set();
}

inline const RelationshipDescription* toManyRelationship(const PropertyDescription* p) {
  if (!p->isRelationship()) return nullptr;
  const auto* r = static_cast<const RelationshipDescription*>(p);
  return r->isToMany() ? r : nullptr;
}

inline Error contextError(const std::string& text, int64_t code = 134060) {
  return Error(kCocoaErrorDomain, code, text);
}

}  // namespace graph_internal
}  // namespace corvane
