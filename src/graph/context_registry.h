// ManagedObjectContext::Registry — the objects a context has handed out, by ID: making and
// registering them, giving them permanent IDs, and letting them go (one, the unreferenced
// ones, or all). Runs on the context's queue.
#pragma once

#include <utility>
#include <vector>

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class ManagedObjectContext::Registry {
 public:
  explicit Registry(Impl& context) : c_(context) {}
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  // A new object of the entity with the ID (null for an inserted one), owned by the context
  // but not registered.
  ManagedObject* makeObject(const EntityDescription* entity, const ObjectID& id);
  void registerObject(ManagedObject* object);
  // Lets go of one object: it keeps its attribute values but no relationships (so that no
  // reference cycle outlives the context) and answers no context any more.
  void unregister(ManagedObject* object);
  // Lets go of every object, registered or not.
  void forgetObjects();
  // Lets go of the objects without changes that nothing outside the context holds.
  void sweepUnreferenced();
  void assignPermanentID(ManagedObject* object, const ObjectID& newID);
  // Registers again, here and in the parents, the objects known by the old IDs.
  void rekey(const std::vector<std::pair<ObjectID, ObjectID>>& changes);

 private:
  Impl& c_;
};

}  // namespace corvane
