#include "graph/context_changes.h"

#include "corvane/foundation/notification_center.h"
#include "corvane/graph/undo_manager.h"
#include "graph/context_impl.h"

namespace corvane {

using graph_internal::emptyMembers;
using graph_internal::objectOf;
using graph_internal::objectSetValue;
using graph_internal::toManyRelationship;

// ---- Inserting and deleting ------------------------------------------------------------------

Retained<ManagedObject> ManagedObjectContext::insertNewObject(std::string_view entityName) {
  const EntityDescription* e = entity(entityName);
  if (e == nullptr) {
    throw Exception("NSInvalidArgumentException", "No entity named \"" + std::string(entityName) + "\" in the model");
  }
  return insertNewObject(e);
}

Retained<ManagedObject> ManagedObjectContext::insertNewObject(const EntityDescription* entity) {
  if (entity == nullptr) throw Exception("NSInvalidArgumentException", "insertNewObject needs an entity");
  if (entity->isAbstract()) {
    throw Exception("NSInvalidArgumentException", "Cannot create an object of the abstract entity " + entity->name());
  }
  Impl& c = *impl_;
  Retained<ManagedObject> o(c.registry.makeObject(entity, ObjectID()));
  const auto& properties = entity->properties();
  o->slots_.resize(properties.size());
  for (size_t i = 0; i < properties.size(); ++i) {
    if (properties[i]->isAttribute()) {
      o->slots_[i] = static_cast<const AttributeDescription*>(properties[i])->defaultValue();
    } else if (const auto* r = toManyRelationship(properties[i])) {
      o->slots_[i] = emptyMembers(*r);
    }
  }
  o->inserted_ = true;  // registered under its temporary ID once it has one
  c.inserted.insert(o.get());
  c.pendingInserted.insert(o.get());
  c.registerUndo(o.get(), c.guarded([this, o] { impl_->changes.undoInsertion(o); }));
  o->awakeFromInsert();
  c.scheduleEndOfEvent();
  return o;
}

void ManagedObjectContext::Changes::undoInsertion(const Retained<ManagedObject>& o) {
  if (o->context_ != &c_.self || o->deleted_) return;
  if (!o->inserted_) {
    // Saved since it was inserted: undoing the insert deletes it.
    c_.self.deleteObject(o.get());
    propagateDeletes();
    return;
  }
  // Its relationships were put back by the actions undone before this one.
  o->deleted_ = true;
  o->propagated_ = true;
  c_.inserted.erase(o.get());
  c_.deleted.insert(o.get());
  c_.pendingInserted.erase(o.get());
  c_.pendingUpdated.erase(o.get());
  c_.pendingDeleted.insert(o.get());
  c_.registerUndo(o.get(), c_.guarded([this, o] { revive(o); }));
  c_.scheduleEndOfEvent();
}

void ManagedObjectContext::deleteObject(ManagedObject* object) {
  if (object == nullptr || object->context_ != this || object->deleted_) return;
  Impl& c = *impl_;
  object->fireFault();  // a deleted object keeps its values, for undo
  object->deleted_ = true;
  object->propagated_ = false;
  c.inserted.erase(object);
  if (object->updated_) {
    object->updated_ = false;
    c.updated.erase(object);
  }
  c.deleted.insert(object);
  c.pendingInserted.erase(object);
  c.pendingUpdated.erase(object);
  c.pendingDeleted.insert(object);
  c.scheduleEndOfEvent();
}

void ManagedObjectContext::Changes::revive(const Retained<ManagedObject>& o) {
  if (!o->deleted_) return;
  if (o->context_ == nullptr) {
    o->context_ = &c_.self;
    o->inserted_ = true;
    o->committed_.clear();
    o->clean_ = false;
    c_.registry.registerObject(o.get());
  } else if (o->context_ != &c_.self) {
    return;
  }
  o->deleted_ = false;
  o->propagated_ = false;
  c_.deleted.erase(o.get());
  if (o->inserted_) {
    c_.inserted.insert(o.get());
  } else if (o->hasPersistentChangedValues()) {
    o->updated_ = true;
    c_.updated.insert(o.get());
  }
  c_.pendingDeleted.erase(o.get());
  c_.pendingInserted.insert(o.get());
  c_.registerUndo(o.get(), c_.guarded([this, o] {
    c_.self.deleteObject(o.get());
    propagateDeletes();
  }));
  c_.scheduleEndOfEvent();
}

void ManagedObjectContext::Changes::propagateDeletes() {
  bool again = true;
  while (again) {
    again = false;
    for (const auto& o : c_.pendingDeleted.items()) {
      if (!o->deleted_ || o->propagated_ || o->context_ != &c_.self) continue;
      again = true;
      o->propagated_ = true;
      o->prepareForDeletion();
      for (const RelationshipDescription* r : o->entity_->relationships()) {
        if (r->deleteRule() == DeleteRule::Deny || r->deleteRule() == DeleteRule::NoAction) continue;
        int index = o->entity_->propertyIndex(r->name());
        std::vector<Retained<ManagedObject>> members;
        const Value& v = o->slot(index);
        if (r->isToMany()) {
          for (const Value& m : v.elements()) members.emplace_back(objectOf(m));
        } else if (ManagedObject* target = objectOf(v)) {
          members.emplace_back(target);
        }
        for (const auto& m : members) {
          if (r->deleteRule() == DeleteRule::Cascade) c_.self.deleteObject(m.get());
          o->willChangeValueForKey(r->name());
          if (r->isToMany()) {
            o->removeWithInverse(index, m.get());
          } else {
            o->setToOneWithInverse(index, nullptr);
          }
          o->didChangeValueForKey(r->name());
        }
      }
      // Registered after the nullifications, so that undo brings the object back first
      // and then its relationships.
      c_.registerUndo(o.get(), c_.guarded([this, o] { revive(o); }));
    }
  }
}

// ---- Changed values --------------------------------------------------------------------------

void ManagedObjectContext::Changes::objectDidChange(ManagedObject* object) {
  if (object->deleted_) return;
  if (object->inserted_) {
    if (!c_.pendingInserted.contains(object)) c_.pendingUpdated.insert(object);
  } else {
    if (!object->updated_) {
      object->updated_ = true;
      c_.updated.insert(object);
    }
    c_.pendingUpdated.insert(object);
  }
  c_.scheduleEndOfEvent();
}

void ManagedObjectContext::processPendingChanges() {
  Impl& c = *impl_;
  if (c.processingChanges) return;
  c.processingChanges = true;
  try {
    if (c.sweepDue) {
      c.sweepDue = false;
      c.registry.sweepUnreferenced();
    }
    c.changes.propagateDeletes();
    c.changes.postObjectsDidChange();
  } catch (...) {
    c.processingChanges = false;
    throw;
  }
  c.processingChanges = false;
}

void ManagedObjectContext::Changes::postObjectsDidChange() {
  if (c_.pendingInserted.empty() && c_.pendingUpdated.empty() && c_.pendingDeleted.empty() &&
      c_.pendingRefreshed.empty()) {
    return;
  }
  auto clearPending = [&] {
    for (auto* set : {&c_.pendingInserted, &c_.pendingUpdated, &c_.pendingDeleted, &c_.pendingRefreshed}) {
      set->clear();
    }
  };
  if (!NotificationCenter::defaultCenter().hasObservers(kObjectsDidChangeNotification, &c_.self)) {
    clearPending();
    return;
  }
  std::vector<Retained<ManagedObject>> inserted, updated, deleted, refreshed;
  for (auto& o : c_.pendingInserted.items()) {
    if (!o->deleted_) inserted.push_back(o);
  }
  for (auto& o : c_.pendingUpdated.items()) {
    if (!o->deleted_ && !c_.pendingInserted.contains(o.get())) updated.push_back(o);
  }
  deleted = c_.pendingDeleted.items();
  refreshed = c_.pendingRefreshed.items();
  clearPending();
  Value info = Value::mutableDictionary();
  if (!inserted.empty()) info.set(Value(kInsertedObjectsKey), objectSetValue(inserted));
  if (!updated.empty()) info.set(Value(kUpdatedObjectsKey), objectSetValue(updated));
  if (!deleted.empty()) info.set(Value(kDeletedObjectsKey), objectSetValue(deleted));
  if (!refreshed.empty()) info.set(Value(kRefreshedObjectsKey), objectSetValue(refreshed));
  if (info.empty()) return;
  NotificationCenter::defaultCenter().post(kObjectsDidChangeNotification, &c_.self, info.copy());
}

// ---- Changes since the last save -------------------------------------------------------------

bool ManagedObjectContext::hasChanges() const {
  if (!impl_->inserted.empty()) return true;
  for (const auto& o : impl_->deleted.items()) {
    if (!o->inserted_) return true;
  }
  for (const auto& o : impl_->updated.items()) {
    if (o->hasPersistentChangedValues()) return true;
  }
  return false;
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::insertedObjects() const { return impl_->inserted.items(); }

std::vector<Retained<ManagedObject>> ManagedObjectContext::updatedObjects() const { return impl_->updated.items(); }

std::vector<Retained<ManagedObject>> ManagedObjectContext::deletedObjects() const {
  std::vector<Retained<ManagedObject>> out;
  for (auto& o : impl_->deleted.items()) {
    if (!o->inserted_) out.push_back(o);
  }
  return out;
}

void ManagedObjectContext::rollback() {
  Impl& c = *impl_;
  if (c.undoManager) c.undoManager->removeAllActions();
  for (const auto& o : c.inserted.items()) c.registry.unregister(o.get());
  for (const auto& o : c.deleted.items()) {
    if (o->inserted_) c.registry.unregister(o.get());
  }
  std::vector<Retained<ManagedObject>> touched = c.updated.items();
  for (const auto& o : c.deleted.items()) touched.push_back(o);
  for (const auto& o : touched) {
    if (o->context_ != this) continue;
    o->deleted_ = false;
    o->updated_ = false;
    o->propagated_ = false;
    if (o->clean_) continue;
    if (o->committed_.empty()) {
      o->slots_.clear();
      o->fault_ = true;
    } else {
      o->slots_ = std::move(o->committed_);
      o->markClean();
    }
  }
  for (auto* set : c.allSets()) set->clear();
}

}  // namespace corvane
