#include "graph/context_saving.h"

#include "corvane/foundation/notification_center.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "graph/context_impl.h"

namespace corvane {

using graph_internal::contextError;
using graph_internal::emptyMembers;
using graph_internal::idOf;
using graph_internal::objectSetValue;
using graph_internal::toManyRelationship;

namespace {
struct Flag {
  bool& flag;
  explicit Flag(bool& f) : flag(f) { flag = true; }
  ~Flag() { flag = false; }
};
}  // namespace

bool ManagedObjectContext::save(Error* error) { return impl_->saving.save(error); }

ManagedObjectContext::Saving::Lists ManagedObjectContext::Saving::saveLists() const {
  Lists lists;
  lists.inserted = c_.inserted.items();
  for (auto& o : c_.updated.items()) {
    if (o->hasPersistentChangedValues()) lists.updated.push_back(o);
  }
  for (auto& o : c_.deleted.items()) {
    if (!o->inserted_) lists.deleted.push_back(o);
  }
  return lists;
}

bool ManagedObjectContext::Saving::save(Error* error) {
  if (c_.saveInProgress) return setError(error, contextError("A context can't save while it is saving", 132001));
  Flag saving(c_.saveInProgress);
  ManagedObjectContext& context = c_.self;
  try {
    context.processPendingChanges();
    if (!context.hasChanges()) {
      commitSavedChanges(Lists{});
      return true;
    }
    NotificationCenter::defaultCenter().post(kWillSaveNotification, &context);
    Lists lists = saveLists();
    for (auto* group : {&lists.inserted, &lists.updated, &lists.deleted}) {
      for (auto& o : *group) o->willSave();
    }
    context.processPendingChanges();  // willSave may have changed more
    lists = saveLists();
    if (!validateChanges(lists, error)) return false;
    bool written = c_.parent ? pushToParent(lists, error) : pushToStores(lists, error);
    if (!written) return false;
    commitSavedChanges(lists);
    // Objects nobody holds any more are let go at the end of the event (or perform block),
    // as an autorelease pool would, not while save() keeps the caller waiting.
    c_.sweepDue = !c_.retainsRegisteredObjects;
    c_.scheduleEndOfEvent();
    return true;
  } catch (const Exception& e) {
    return setError(error, contextError(e.name() + ": " + e.reason()));
  }
}

bool ManagedObjectContext::Saving::validateChanges(const Lists& lists, Error* error) {
  std::vector<Error> errors;
  for (const auto& o : lists.inserted) {
    Error e;
    if (!o->validateForInsert(&e)) errors.push_back(std::move(e));
  }
  for (const auto& o : lists.updated) {
    Error e;
    if (!o->validateForUpdate(&e)) errors.push_back(std::move(e));
  }
  for (const auto& o : lists.deleted) {
    Error e;
    if (!o->validateForDelete(&e)) errors.push_back(std::move(e));
  }
  if (errors.empty()) return true;
  if (errors.size() == 1) return setError(error, std::move(errors.front()));
  std::vector<Value> details;
  details.reserve(errors.size());
  for (const auto& e : errors) {
    details.push_back(dict({{"domain", Value(e.domain)},
                            {"code", Value(static_cast<long long>(e.code))},
                            {"localizedDescription", Value(e.localizedDescription)},
                            {"userInfo", e.userInfo}}));
  }
  return setError(error,
                  Error(kCocoaErrorDomain, kValidationMultipleErrorsError, "Multiple validation errors occurred.", {},
                        dict({{kDetailedErrorsKey, Value::array(std::move(details))}})));
}

bool ManagedObjectContext::Saving::pushToStores(const Lists& lists, Error* error) {
  if (!c_.coordinator) return setError(error, contextError("The context has no coordinator"));
  std::vector<ManagedObject*> fresh;
  for (const auto& o : lists.inserted) fresh.push_back(o.get());
  if (!c_.self.obtainPermanentIDsForObjects(fresh, error)) return false;
  SaveChangesRequest request(lists.inserted, lists.updated, lists.deleted);
  return c_.coordinator->executeRequest(request, &c_.self, error).has_value();
}

bool ManagedObjectContext::Saving::pushToParent(const Lists& lists, Error* error) {
  std::vector<ManagedObject*> fresh;
  for (const auto& o : lists.inserted) fresh.push_back(o.get());
  // Permanent IDs now, so that the child's objects and the parent's stay one object each
  // when the parent saves later.
  if (!c_.self.obtainPermanentIDsForObjects(fresh, error)) return false;
  std::vector<Transfer> transfers;
  for (auto* group : {&lists.inserted, &lists.updated}) {
    for (const auto& o : *group) {
      Transfer t{o->objectID(), o->entity_, o->inserted_, {}};
      const auto& properties = o->entity_->properties();
      for (size_t i = 0; i < properties.size(); ++i) {
        const Value& v = o->slots_[i];
        bool changed = o->inserted_ ? !v.isNil() : !(v == o->committedAt(i));
        if (!changed) continue;
        Value carried = v;
        if (toManyRelationship(properties[i]) != nullptr) {
          std::vector<Value> ids;
          for (const Value& m : v.elements()) ids.push_back(idOf(m).asValue());
          carried = Value::array(std::move(ids));
        } else if (properties[i]->isRelationship()) {
          carried = idOf(v).asValue();
        }
        t.values.emplace_back(static_cast<int>(i), carried);
      }
      transfers.push_back(std::move(t));
    }
  }
  std::vector<ObjectID> deleted;
  for (const auto& o : lists.deleted) deleted.push_back(o->objectID());
  auto parent = c_.parent;
  parent->performAndWait([&] { Impl::of(*parent).saving.applyChildChanges(transfers, deleted); });
  return true;
}

void ManagedObjectContext::Saving::applyChildChanges(const std::vector<Transfer>& transfers,
                                                     const std::vector<ObjectID>& deleted) {
  ManagedObjectContext& context = c_.self;
  for (const auto& t : transfers) {
    if (!t.inserted || c_.registered.find(t.id) != nullptr) continue;
    Retained<ManagedObject> o(c_.registry.makeObject(t.entity, t.id));
    const auto& properties = t.entity->properties();
    o->slots_.resize(properties.size());
    for (size_t i = 0; i < properties.size(); ++i) {
      if (const auto* r = toManyRelationship(properties[i])) o->slots_[i] = emptyMembers(*r);
    }
    o->inserted_ = true;
    c_.registry.registerObject(o.get());
    c_.inserted.insert(o.get());
    c_.pendingInserted.insert(o.get());
    Impl* c = &c_;
    c_.registerUndo(o.get(), c_.guarded([c, o] { c->changes.undoInsertion(o); }));
  }
  for (const auto& t : transfers) {
    Retained<ManagedObject> o = context.objectWithID(t.id);
    const auto& properties = o->entity_->properties();
    for (const auto& [i, v] : t.values) {
      const PropertyDescription* p = properties[static_cast<size_t>(i)];
      if (!p->isRelationship()) {
        o->changeSlot(i, v);
      } else if (toManyRelationship(p) == nullptr) {
        ObjectID target = ObjectID::fromValue(v);
        o->changeSlot(i, target ? Value::object(context.objectWithID(target).get()) : Value());
      } else {
        std::vector<Value> wanted;
        for (const Value& e : v.elements()) {
          wanted.push_back(Value::object(context.objectWithID(ObjectID::fromValue(e)).get()));
        }
        Value current = o->slot(i);
        for (const Value& m : current.elements()) {
          bool keep = false;
          for (const Value& w : wanted) keep = keep || w == m;
          if (!keep) o->removeMember(i, m);
        }
        bool ordered = static_cast<const RelationshipDescription*>(p)->isOrdered();
        for (size_t k = 0; k < wanted.size(); ++k) o->addMember(i, wanted[k], ordered ? k : SIZE_MAX);
      }
    }
  }
  for (const auto& id : deleted) context.deleteObject(context.objectWithID(id).get());
}

void ManagedObjectContext::Saving::commitSavedChanges(const Lists& lists) {
  for (const auto& o : lists.inserted) {
    o->inserted_ = false;
    o->markClean();
    o->version_ = 1;
  }
  for (const auto& o : c_.updated.items()) {
    o->updated_ = false;
    o->markClean();
  }
  for (const auto& o : lists.updated) ++o->version_;
  for (const auto& o : c_.deleted.items()) c_.registry.unregister(o.get());
  c_.inserted.clear();
  c_.updated.clear();
  c_.deleted.clear();
  for (auto* group : {&lists.inserted, &lists.updated, &lists.deleted}) {
    for (auto& o : *group) o->didSave();
  }
  if ((!lists.inserted.empty() || !lists.updated.empty() || !lists.deleted.empty()) &&
      NotificationCenter::defaultCenter().hasObservers(kDidSaveNotification, &c_.self)) {
    Value info = Value::mutableDictionary();
    info.set(Value(kInsertedObjectsKey), objectSetValue(lists.inserted));
    info.set(Value(kUpdatedObjectsKey), objectSetValue(lists.updated));
    info.set(Value(kDeletedObjectsKey), objectSetValue(lists.deleted));
    NotificationCenter::defaultCenter().post(kDidSaveNotification, &c_.self, info.copy());
  }
}

}  // namespace corvane
