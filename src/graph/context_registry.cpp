#include "graph/context_registry.h"

#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/undo_manager.h"
#include "graph/context_impl.h"

namespace corvane {

using graph_internal::contextError;
using graph_internal::emptyMembers;
using graph_internal::objectOf;
using graph_internal::toManyRelationship;

// ---- Objects by ID ---------------------------------------------------------------------------

ManagedObject* ManagedObjectContext::Registry::makeObject(const EntityDescription* entity, const ObjectID& id) {
  ManagedObject* o = makeManagedObject(entity, &c_.self);
  o->id_ = id;
  o->context_ = &c_.self;
  return o;
}

void ManagedObjectContext::Registry::registerObject(ManagedObject* object) { c_.registered.insert(object); }

Retained<ManagedObject> ManagedObjectContext::objectRegisteredForID(const ObjectID& id) const {
  return Retained<ManagedObject>(impl_->registered.find(id));
}

Retained<ManagedObject> ManagedObjectContext::objectWithID(const ObjectID& id) {
  if (id.isNull()) return nullptr;
  if (ManagedObject* known = impl_->registered.find(id)) return Retained<ManagedObject>(known);
  ManagedObject* o = impl_->registry.makeObject(id.entity(), id);
  o->fault_ = true;
  impl_->registry.registerObject(o);
  return Retained(o);
}

Retained<ManagedObject> ManagedObjectContext::existingObjectWithID(const ObjectID& id, Error* error) {
  if (id.isNull()) {
    setError(error, contextError("No object ID", 133000));
    return nullptr;
  }
  Retained<ManagedObject> known = objectRegisteredForID(id);
  if (known && !known->fault_) return known;
  uint64_t version = 0;
  auto values = readNodeValues(id, &version, error);
  if (!values) {
    if (error != nullptr && error->empty()) *error = contextError("No object for " + id.uriRepresentation(), 133000);
    return nullptr;
  }
  Retained<ManagedObject> o = objectWithID(id);
  if (o->fault_) {
    impl_->faults.fill(o.get(), *values, version);
    o->awakeFromFetch();
  }
  return o;
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::registeredObjects() const {
  std::vector<Retained<ManagedObject>> out;
  out.reserve(impl_->registered.size());
  impl_->registered.forEach([&](ManagedObject* o) { out.emplace_back(o); });
  for (auto& o : impl_->inserted.items()) {
    if (o->id_.isNull()) out.push_back(o);
  }
  return out;
}

// ---- Letting go ------------------------------------------------------------------------------

void ManagedObjectContext::Registry::unregister(ManagedObject* object) {
  Retained<ManagedObject> keep(object);
  c_.registered.erase(object->id_);
  object->context_ = nullptr;
  object->committed_.clear();
  object->clean_ = false;
  if (!object->slots_.empty()) {
    const auto& properties = object->entity_->properties();
    for (size_t i = 0; i < properties.size(); ++i) {
      if (!properties[i]->isRelationship()) continue;
      const auto* r = toManyRelationship(properties[i]);
      object->slots_[i] = r != nullptr ? emptyMembers(*r) : Value();
    }
  }
  for (auto* set : c_.allSets()) set->erase(object);
  if (!object->id_.isNull() && !object->id_.isTemporaryID()) {
    if (auto coordinator = c_.self.persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs({object->id_});
  }
}

void ManagedObjectContext::Registry::forgetObjects() {
  std::vector<Retained<ManagedObject>> registered = c_.registered.takeAll();
  for (auto& o : c_.inserted.items()) {
    if (o->id_.isNull()) registered.push_back(o);  // new objects whose ID nobody asked for
  }
  for (auto& o : c_.deleted.items()) {
    if (o->id_.isNull()) registered.push_back(o);
  }
  std::vector<ObjectID> ids;
  for (auto& o : registered) {
    o->context_ = nullptr;
    if (!o->id_.isNull() && !o->id_.isTemporaryID()) ids.push_back(o->id_);
  }
  // Dropping the values breaks the cycles that inverse relationships form.
  for (auto& o : registered) {
    o->slots_.clear();
    o->committed_.clear();
    o->clean_ = false;
  }
  for (auto* set : c_.allSets()) set->clear();
  if (!ids.empty()) {
    if (auto coordinator = c_.self.persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs(ids);
  }
}

void ManagedObjectContext::reset() {
  if (impl_->undoManager) impl_->undoManager->removeAllActions();
  impl_->registry.forgetObjects();
}

namespace {
// Calls f(target) for every object of the context that the stored values refer to.
template <class F>
void forEachReference(const ManagedObjectContext* context, const std::vector<Value>& values, F&& f) {
  auto visit = [&](const Value& v) {
    ManagedObject* target = objectOf(v);
    if (target != nullptr && target->managedObjectContext() == context) f(target);
  };
  for (const Value& v : values) {
    if (v.isObject()) {
      visit(v);
    } else if (v.isCollection()) {
      for (const Value& e : v.elements()) visit(e);
    }
  }
}
}  // namespace

void ManagedObjectContext::Registry::sweepUnreferenced() {
  // An object may go when nothing outside the context's own graph holds it, directly or
  // through objects it is related to: count the references the registered objects make to
  // each other, take as roots the objects with changes or with more references than the
  // registry's and those, keep what the roots reach and let the rest go (as faults they
  // come back when asked for). Related objects hold each other, so counting alone would
  // never free them.
  auto& registered = c_.registered;
  registered.forEach([](ManagedObject* o) {
    o->incoming_ = 0;
    o->marked_ = false;
  });
  const ManagedObjectContext* context = &c_.self;
  auto edges = [&](ManagedObject* o, auto&& f) {
    forEachReference(context, o->slots_, f);
    if (!o->clean_) forEachReference(context, o->committed_, f);
  };
  registered.forEach([&](ManagedObject* o) { edges(o, [](ManagedObject* t) { ++t->incoming_; }); });
  std::vector<ManagedObject*> stack;
  registered.forEach([&](ManagedObject* o) {
    bool held = o->refCount() > 1 + o->incoming_ || o->inserted_ || o->updated_ || o->deleted_;
    if (held && !o->marked_) {
      o->marked_ = true;
      stack.push_back(o);
    }
  });
  while (!stack.empty()) {
    ManagedObject* o = stack.back();
    stack.pop_back();
    edges(o, [&](ManagedObject* t) {
      if (!t->marked_) {
        t->marked_ = true;
        stack.push_back(t);
      }
    });
  }
  auto removed = registered.removeIf([](const ManagedObject* o) { return !o->marked_; });
  if (removed.empty()) return;
  std::vector<ObjectID> gone;
  gone.reserve(removed.size());
  for (const auto& o : removed) {
    o->context_ = nullptr;
    if (!o->id_.isTemporaryID()) gone.push_back(o->id_);
  }
  // Dropping the values breaks the cycles among the objects let go.
  for (const auto& o : removed) {
    o->slots_.clear();
    o->committed_.clear();
    o->clean_ = false;
  }
  if (auto coordinator = c_.self.persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs(gone);
}

// ---- Permanent IDs ---------------------------------------------------------------------------

void ManagedObjectContext::Registry::assignPermanentID(ManagedObject* object, const ObjectID& newID) {
  Retained<ManagedObject> keep(object);
  if (!object->id_.isNull()) c_.registered.erase(object->id_);
  object->id_ = newID;
  c_.registered.insert(object);
}

void ManagedObjectContext::Registry::rekey(const std::vector<std::pair<ObjectID, ObjectID>>& changes) {
  for (const auto& [oldID, newID] : changes) {
    if (ManagedObject* o = c_.registered.find(oldID)) assignPermanentID(o, newID);
  }
  if (c_.parent) {
    auto parent = c_.parent;
    parent->performAndWait([&] { Impl::of(*parent).registry.rekey(changes); });
  }
}

bool ManagedObjectContext::obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects, Error* error) {
  std::vector<ManagedObject*> temporary;
  for (auto* o : objects) {
    if (o != nullptr && o->context_ == this && (o->id_.isNull() || o->id_.isTemporaryID())) temporary.push_back(o);
  }
  if (temporary.empty()) return true;
  auto coordinator = persistentStoreCoordinator();
  if (!coordinator) return setError(error, contextError("The context has no coordinator"));
  auto ids = coordinator->obtainPermanentIDsForObjects(temporary, error);
  if (!ids) return false;
  // Objects whose temporary ID nobody saw just get the new one; the others are registered
  // anew here and in the parents that know them by the temporary ID.
  std::vector<std::pair<ObjectID, ObjectID>> changes;
  for (size_t i = 0; i < temporary.size(); ++i) {
    if (!temporary[i]->id_.isNull()) changes.emplace_back(temporary[i]->id_, (*ids)[i]);
    impl_->registry.assignPermanentID(temporary[i], (*ids)[i]);
  }
  if (impl_->parent && !changes.empty()) {
    auto parent = impl_->parent;
    parent->performAndWait([&] { Impl::of(*parent).registry.rekey(changes); });
  }
  return true;
}

}  // namespace corvane
