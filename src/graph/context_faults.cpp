#include "graph/context_faults.h"

#include "corvane/foundation/log.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "graph/context_impl.h"

namespace corvane {

using graph_internal::contextError;
using graph_internal::emptyMembers;
using graph_internal::idOf;
using graph_internal::toManyRelationship;

// ---- Reading values --------------------------------------------------------------------------

std::optional<Value> ManagedObjectContext::readNodeValues(const ObjectID& id, uint64_t* version, Error* error) {
  if (impl_->parent) {
    std::optional<Value> out;
    auto parent = impl_->parent;
    parent->performAndWait([&] { out = Impl::of(*parent).faults.valuesForChild(id, version, error); });
    return out;
  }
  if (!impl_->coordinator) {
    setError(error, contextError("The context has neither a coordinator nor a parent"));
    return std::nullopt;
  }
  auto node = impl_->coordinator->newValuesForObjectWithID(id, this, error);
  if (!node) return std::nullopt;
  *version = node->version();
  return node->values();
}

std::optional<Value> ManagedObjectContext::Faults::valuesForChild(const ObjectID& id, uint64_t* version, Error* error) {
  Retained<ManagedObject> o = c_.self.objectWithID(id);
  o->fireFault();
  if (o->deleted_) {
    setError(error, contextError("The object was deleted in the parent context", 133000));
    return std::nullopt;
  }
  Value values = Value::mutableDictionary();
  const auto& properties = o->entity_->properties();
  for (size_t i = 0; i < properties.size() && i < o->slots_.size(); ++i) {
    if (toManyRelationship(properties[i]) != nullptr) continue;
    const Value& v = o->slots_[i];
    if (v.isNil()) continue;
    values.set(Value(properties[i]->name()), properties[i]->isRelationship() ? idOf(v).asValue() : v);
  }
  *version = o->version_;
  return values.copy();
}

void ManagedObjectContext::Faults::fulfill(ManagedObject* object) {
  Retained<ManagedObject> keep(object);
  uint64_t version = 0;
  Error error;
  auto values = c_.self.readNodeValues(object->id_, &version, &error);
  if (!values) {
    logLine("Could not fulfill a fault for " + object->id_.uriRepresentation() + ": " + error.localizedDescription,
            LogLevel::Warning);
    values = Value::dictionary();
  }
  if (!object->fault_) return;  // filled while the store answered
  fill(object, *values, version);
  object->awakeFromFetch();
}

void ManagedObjectContext::Faults::fill(ManagedObject* object, const Value& values, uint64_t version) {
  ManagedObjectContext& context = c_.self;
  const auto& properties = object->entity_->properties();
  std::vector<Value> slots(properties.size());
  for (size_t i = 0; i < properties.size(); ++i) {
    const PropertyDescription* p = properties[i];
    const Value& v = values[p->name()];
    if (v.isNil() || v.isNull()) continue;
    if (!p->isRelationship()) {
      slots[i] = v;
    } else if (const auto* r = toManyRelationship(p)) {
      if (!v.isCollection()) continue;
      std::vector<Value> members;
      for (const Value& e : v.elements()) {
        if (ObjectID id = idOf(e)) members.push_back(Value::object(context.objectWithID(id).get()));
      }
      slots[i] = r->isOrdered() ? Value::orderedSet(std::move(members)) : Value::set(std::move(members));
    } else if (ObjectID id = idOf(v.isCollection() ? v.at(0) : v)) {
      slots[i] = Value::object(context.objectWithID(id).get());
    }
  }
  object->slots_ = std::move(slots);
  object->markClean();
  object->fault_ = false;
  object->version_ = version;
}

Value ManagedObjectContext::Faults::loadToMany(ManagedObject* object, int index) {
  const auto& r =
      *static_cast<const RelationshipDescription*>(object->entity_->properties()[static_cast<size_t>(index)]);
  if (object->inserted_) return emptyMembers(r);
  std::vector<ObjectID> ids;
  if (c_.parent) {
    auto parent = c_.parent;
    ObjectID id = object->id_;
    parent->performAndWait([&] {
      Retained<ManagedObject> p = parent->objectWithID(id);
      for (const Value& m : p->slot(index).elements()) ids.push_back(idOf(m));
    });
  } else if (c_.coordinator) {
    Error error;
    auto v = c_.coordinator->newValueForRelationship(r, object->id_, &c_.self, &error);
    if (!v) {
      logLine("Could not read the relationship " + r.name() + " of " + object->id_.uriRepresentation() + ": " +
                  error.localizedDescription,
              LogLevel::Warning);
    } else if (v->isCollection()) {
      for (const Value& e : v->elements()) ids.push_back(idOf(e));
    } else if (ObjectID single = idOf(*v)) {
      ids.push_back(single);
    }
  }
  std::vector<Value> members;
  members.reserve(ids.size());
  for (const auto& id : ids) {
    if (id) members.push_back(Value::object(c_.self.objectWithID(id).get()));
  }
  return r.isOrdered() ? Value::orderedSet(std::move(members)) : Value::set(std::move(members));
}

// ---- Refreshing ------------------------------------------------------------------------------

void ManagedObjectContext::Faults::turnIntoFault(ManagedObject* object) {
  if (object->inserted_ || object->deleted_ || object->fault_) return;
  object->willTurnIntoFault();
  object->slots_.clear();
  object->committed_.clear();
  object->clean_ = false;
  object->fault_ = true;
  if (object->updated_) {
    object->updated_ = false;
    c_.updated.erase(object);
  }
  c_.pendingUpdated.erase(object);
  c_.pendingRefreshed.insert(object);
  object->didTurnIntoFault();
}

void ManagedObjectContext::refreshObject(ManagedObject* object, bool mergeChanges) {
  if (object == nullptr || object->context_ != this || object->inserted_ || object->deleted_) return;
  Retained<ManagedObject> keep(object);
  if (!mergeChanges || !object->hasPersistentChangedValues()) {
    impl_->faults.turnIntoFault(object);
    return;
  }
  // Remember the object's own edits: values of attributes and to-one relationships, and the
  // members added to and removed from to-many relationships.
  const auto& properties = object->entity_->properties();
  std::vector<std::pair<size_t, Value>> edits;
  std::vector<std::pair<size_t, std::vector<Value>>> added, removed;
  for (size_t i = 0; i < properties.size(); ++i) {
    const Value& now = object->slots_[i];
    const Value& before = object->committedAt(i);
    if (now == before) continue;
    if (toManyRelationship(properties[i]) == nullptr) {
      edits.emplace_back(i, now);
      continue;
    }
    std::vector<Value> plus, minus;
    for (const Value& m : now.elements()) {
      if (!before.contains(m)) plus.push_back(m);
    }
    for (const Value& m : before.elements()) {
      if (!now.contains(m)) minus.push_back(m);
    }
    added.emplace_back(i, std::move(plus));
    removed.emplace_back(i, std::move(minus));
  }
  uint64_t version = 0;
  Error error;
  auto values = readNodeValues(object->id_, &version, &error);
  if (!values) {
    logLine("Could not refresh " + object->id_.uriRepresentation() + ": " + error.localizedDescription,
            LogLevel::Warning);
    return;
  }
  impl_->faults.fill(object, *values, version);
  object->detachSnapshot();  // the store's values become the committed ones
  impl_->suppressUndo = true;
  for (auto& [i, v] : edits) object->slots_[i] = v;
  for (auto& [i, members] : added) {
    for (const Value& m : members) object->addMember(static_cast<int>(i), m);
  }
  for (auto& [i, members] : removed) {
    for (const Value& m : members) object->removeMember(static_cast<int>(i), m);
  }
  impl_->suppressUndo = false;
  if (!object->hasPersistentChangedValues() && object->updated_) {
    object->updated_ = false;
    impl_->updated.erase(object);
  }
  impl_->pendingRefreshed.insert(object);
  impl_->scheduleEndOfEvent();
}

void ManagedObjectContext::refreshAllObjects() {
  for (const auto& o : registeredObjects()) refreshObject(o.get(), true);
  if (!impl_->retainsRegisteredObjects) impl_->registry.sweepUnreferenced();
}

}  // namespace corvane
