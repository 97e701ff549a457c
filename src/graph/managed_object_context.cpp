#include "corvane/graph/managed_object_context.h"

#include <future>
#include <unordered_set>

#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/undo_manager.h"
#include "graph/graph_internal.h"

namespace corvane {

using graph_internal::ObjectSet;

namespace {

ManagedObject* objectOf(const Value& v) {
  return v.isObject() ? dynamic_cast<ManagedObject*>(v.objectPointer()) : nullptr;
}

ObjectID idOf(const Value& v) {
  if (ManagedObject* o = objectOf(v)) return o->objectID();
  return ObjectID::fromValue(v);
}

Value objectSetValue(const std::vector<Retained<ManagedObject>>& objects) {
  std::vector<Value> items;
  items.reserve(objects.size());
  for (const auto& o : objects) items.push_back(Value::object(o.get()));
  return Value::set(std::move(items));
}

Value emptyMembers(const RelationshipDescription& r) { return r.isOrdered() ? Value::orderedSet() : Value::set(); }

const RelationshipDescription* toManyRelationship(const PropertyDescription* p) {
  if (!p->isRelationship()) return nullptr;
  const auto* r = static_cast<const RelationshipDescription*>(p);
  return r->isToMany() ? r : nullptr;
}

Error contextError(const std::string& text, int64_t code = 134060) { return Error(kCocoaErrorDomain, code, text); }

}  // namespace

// ---- Life cycle ------------------------------------------------------------------------------

std::shared_ptr<ManagedObjectContext> ManagedObjectContext::create(ConcurrencyType type) {
  return std::make_shared<ManagedObjectContext>(type);
}

ManagedObjectContext::ManagedObjectContext(ConcurrencyType type)
    : type_(type),
      inserted_(std::make_unique<ObjectSet>(1)),
      updated_(std::make_unique<ObjectSet>(2)),
      deleted_(std::make_unique<ObjectSet>(4)),
      pendingInserted_(std::make_unique<ObjectSet>(8)),
      pendingUpdated_(std::make_unique<ObjectSet>(16)),
      pendingDeleted_(std::make_unique<ObjectSet>(32)),
      pendingRefreshed_(std::make_unique<ObjectSet>(64)),
      registered_(std::make_unique<graph_internal::ObjectRegistry>()),
      alive_(std::make_shared<bool>(true)) {
  if (type_ == ConcurrencyType::PrivateQueue) {
    queue_ = std::make_unique<SerialQueue>("corvane.ManagedObjectContext");
  } else {
    setUndoManager(std::make_shared<UndoManager>());
  }
}

ManagedObjectContext::~ManagedObjectContext() {
  *alive_ = false;
  undoObserver_.remove();
  if (undoManager_) undoManager_->removeAllActionsWithTarget(this);
  forgetObjects();
}

// ---- Queue -----------------------------------------------------------------------------------

bool ManagedObjectContext::isOnQueue() const {
  if (type_ == ConcurrencyType::MainQueue) return RunLoop::main().isMainThread();
  return queue_->isCurrent();
}

void ManagedObjectContext::runBlock(const std::function<void()>& block) {
  block();
  processPendingChanges();
}

void ManagedObjectContext::perform(std::function<void()> block) {
  auto self = shared_from_this();
  auto task = [self, block = std::move(block)] {
    // Nobody waits for this block, so an exception has nowhere to go but the log.
    try {
      self->runBlock(block);
    } catch (const std::exception& e) {
      logLine(std::string("Exception in a context's perform block: ") + e.what(), LogLevel::Error);
    }
  };
  if (type_ == ConcurrencyType::MainQueue) {
    RunLoop::main().post(std::move(task));
  } else {
    queue_->async(std::move(task));
  }
}

void ManagedObjectContext::performAndWait(const std::function<void()>& block) {
  if (isOnQueue()) {
    block();
    return;
  }
  if (type_ == ConcurrencyType::PrivateQueue) {
    queue_->sync([&] { runBlock(block); });
    return;
  }
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  RunLoop::main().post([&] {
    try {
      runBlock(block);
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

void ManagedObjectContext::scheduleEndOfEvent() {
  if (type_ != ConcurrencyType::MainQueue || endOfEventScheduled_) return;
  RunLoop& loop = RunLoop::main();
  if (!loop.isMainThread()) return;
  endOfEventScheduled_ = true;
  std::weak_ptr<bool> alive = alive_;
  loop.post([alive, this] {
    auto token = alive.lock();
    if (!token || !*token) return;
    endOfEventScheduled_ = false;
    processPendingChanges();
  });
}

// ---- Set-up ----------------------------------------------------------------------------------

void ManagedObjectContext::setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator) {
  if (coordinator && parent_) {
    throw Exception("NSInvalidArgumentException", "A context has either a coordinator or a parent context");
  }
  coordinator_ = std::move(coordinator);
}

std::shared_ptr<PersistentStoreCoordinator> ManagedObjectContext::persistentStoreCoordinator() const {
  if (coordinator_) return coordinator_;
  return parent_ ? parent_->persistentStoreCoordinator() : nullptr;
}

void ManagedObjectContext::setParentContext(std::shared_ptr<ManagedObjectContext> parent) {
  if (parent && coordinator_) {
    throw Exception("NSInvalidArgumentException", "A context has either a coordinator or a parent context");
  }
  for (auto* p = parent.get(); p != nullptr; p = p->parent_.get()) {
    if (p == this) throw Exception("NSInvalidArgumentException", "A context can't be its own ancestor");
  }
  parent_ = std::move(parent);
}

const ObjectModel* ManagedObjectContext::model() const {
  auto coordinator = persistentStoreCoordinator();
  return coordinator ? coordinator->managedObjectModel().get() : nullptr;
}

const EntityDescription* ManagedObjectContext::entity(std::string_view name) const {
  const ObjectModel* m = model();
  return m == nullptr ? nullptr : m->entity(name);
}

void ManagedObjectContext::setUndoManager(std::shared_ptr<UndoManager> undoManager) {
  undoObserver_.remove();
  undoManager_ = std::move(undoManager);
  if (undoManager_) {
    // Changes are turned into undo actions (delete rules above all) before a group closes.
    undoObserver_ = NotificationCenter::defaultCenter().addObserver(
        kUndoManagerCheckpointNotification, undoManager_.get(), [this](const Notification&) {
          if (isOnQueue()) processPendingChanges();
        });
  }
}

void ManagedObjectContext::registerUndo(const void* target, std::function<void()> action) {
  if (suppressUndo_ || !undoManager_) return;
  undoManager_->registerUndo(target, std::move(action));
}

// Wraps an action on this context so that it does nothing once the context is gone.
std::function<void()> ManagedObjectContext::guarded(std::function<void()> action) {
  std::weak_ptr<bool> alive = alive_;
  return [alive, action = std::move(action)] {
    auto token = alive.lock();
    if (token && *token) action();
  };
}

void ManagedObjectContext::undo() {
  processPendingChanges();
  if (undoManager_) undoManager_->undo();
  processPendingChanges();
}

void ManagedObjectContext::redo() {
  processPendingChanges();
  if (undoManager_) undoManager_->redo();
  processPendingChanges();
}

// ---- Registration ----------------------------------------------------------------------------

ManagedObject* ManagedObjectContext::makeObject(const EntityDescription* entity, const ObjectID& id) {
  ManagedObject* o = makeManagedObject(entity, this);
  o->id_ = id;
  o->context_ = this;
  return o;
}

void ManagedObjectContext::registerObject(ManagedObject* object) { registered_->insert(object); }

Retained<ManagedObject> ManagedObjectContext::objectRegisteredForID(const ObjectID& id) const {
  return Retained<ManagedObject>(registered_->find(id));
}

Retained<ManagedObject> ManagedObjectContext::objectWithID(const ObjectID& id) {
  if (id.isNull()) return nullptr;
  if (ManagedObject* known = registered_->find(id)) return Retained<ManagedObject>(known);
  ManagedObject* o = makeObject(id.entity(), id);
  o->fault_ = true;
  registerObject(o);
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
    fillFromNode(o.get(), *values, version);
    o->awakeFromFetch();
  }
  return o;
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::registeredObjects() const {
  std::vector<Retained<ManagedObject>> out;
  out.reserve(registered_->size());
  registered_->forEach([&](ManagedObject* o) { out.emplace_back(o); });
  for (auto& o : inserted_->items()) {
    if (o->id_.isNull()) out.push_back(o);
  }
  return out;
}

// Lets go of one object: it keeps its attribute values but no relationships (so that no
// reference cycle outlives the context) and answers no context any more.
void ManagedObjectContext::unregister(ManagedObject* object) {
  Retained<ManagedObject> keep(object);
  registered_->erase(object->id_);
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
  for (auto* set : {inserted_.get(), updated_.get(), deleted_.get(), pendingInserted_.get(), pendingUpdated_.get(),
                    pendingDeleted_.get(), pendingRefreshed_.get()}) {
    set->erase(object);
  }
  if (!object->id_.isNull() && !object->id_.isTemporaryID()) {
    if (auto coordinator = persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs({object->id_});
  }
}

void ManagedObjectContext::forgetObjects() {
  std::vector<Retained<ManagedObject>> registered = registered_->takeAll();
  for (auto& o : inserted_->items()) {
    if (o->id_.isNull()) registered.push_back(o);  // new objects whose ID nobody asked for
  }
  for (auto& o : deleted_->items()) {
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
  for (auto* set : {inserted_.get(), updated_.get(), deleted_.get(), pendingInserted_.get(), pendingUpdated_.get(),
                    pendingDeleted_.get(), pendingRefreshed_.get()}) {
    set->clear();
  }
  if (!ids.empty()) {
    if (auto coordinator = persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs(ids);
  }
}

namespace {
// Calls f(target) for every object of the context that `o`'s stored values refer to.
template <class F>
void forEachReference(const ManagedObject* o, const ManagedObjectContext* context, const std::vector<Value>& values,
                      F&& f) {
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
  (void)o;
}
}  // namespace

void ManagedObjectContext::sweepUnreferenced() {
  // An object may go when nothing outside the context's own graph holds it, directly or
  // through objects it is related to: count the references the registered objects make to
  // each other, take as roots the objects with changes or with more references than the
  // registry's and those, keep what the roots reach and let the rest go (as faults they
  // come back when asked for). Related objects hold each other, so counting alone would
  // never free them.
  registered_->forEach([](ManagedObject* o) {
    o->incoming_ = 0;
    o->marked_ = false;
  });
  auto edges = [&](ManagedObject* o, auto&& f) {
    forEachReference(o, this, o->slots_, f);
    if (!o->clean_) forEachReference(o, this, o->committed_, f);
  };
  registered_->forEach([&](ManagedObject* o) { edges(o, [](ManagedObject* t) { ++t->incoming_; }); });
  std::vector<ManagedObject*> stack;
  registered_->forEach([&](ManagedObject* o) {
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
  auto removed = registered_->removeIf([](const ManagedObject* o) { return !o->marked_; });
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
  if (auto coordinator = persistentStoreCoordinator()) coordinator->didUnregisterObjectIDs(gone);
}

// ---- Faults ----------------------------------------------------------------------------------

std::optional<Value> ManagedObjectContext::readNodeValues(const ObjectID& id, uint64_t* version, Error* error) {
  if (parent_) {
    std::optional<Value> out;
    auto parent = parent_;
    parent->performAndWait([&] { out = parent->nodeValuesForChild(id, version, error); });
    return out;
  }
  if (!coordinator_) {
    setError(error, contextError("The context has neither a coordinator nor a parent"));
    return std::nullopt;
  }
  auto node = coordinator_->newValuesForObjectWithID(id, this, error);
  if (!node) return std::nullopt;
  *version = node->version();
  return node->values();
}

// On the parent's queue: the values a child sees for the object.
std::optional<Value> ManagedObjectContext::nodeValuesForChild(const ObjectID& id, uint64_t* version, Error* error) {
  Retained<ManagedObject> o = objectWithID(id);
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

void ManagedObjectContext::fulfillFault(ManagedObject* object) {
  Retained<ManagedObject> keep(object);
  uint64_t version = 0;
  Error error;
  auto values = readNodeValues(object->id_, &version, &error);
  if (!values) {
    logLine("Could not fulfill a fault for " + object->id_.uriRepresentation() + ": " + error.localizedDescription,
            LogLevel::Warning);
    values = Value::dictionary();
  }
  if (!object->fault_) return;  // filled while the store answered
  fillFromNode(object, *values, version);
  object->awakeFromFetch();
}

void ManagedObjectContext::fillFromNode(ManagedObject* object, const Value& values, uint64_t version) {
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
        if (ObjectID id = idOf(e)) members.push_back(Value::object(objectWithID(id).get()));
      }
      slots[i] = r->isOrdered() ? Value::orderedSet(std::move(members)) : Value::set(std::move(members));
    } else if (ObjectID id = idOf(v.isCollection() ? v.at(0) : v)) {
      slots[i] = Value::object(objectWithID(id).get());
    }
  }
  object->slots_ = std::move(slots);
  object->markClean();
  object->fault_ = false;
  object->version_ = version;
}

Value ManagedObjectContext::loadToMany(ManagedObject* object, int index) {
  const auto& r = *static_cast<const RelationshipDescription*>(object->entity_->properties()[static_cast<size_t>(index)]);
  if (object->inserted_) return emptyMembers(r);
  std::vector<ObjectID> ids;
  if (parent_) {
    auto parent = parent_;
    ObjectID id = object->id_;
    parent->performAndWait([&] {
      Retained<ManagedObject> p = parent->objectWithID(id);
      for (const Value& m : p->slot(index).elements()) ids.push_back(idOf(m));
    });
  } else if (coordinator_) {
    Error error;
    auto v = coordinator_->newValueForRelationship(r, object->id_, this, &error);
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
    if (id) members.push_back(Value::object(objectWithID(id).get()));
  }
  return r.isOrdered() ? Value::orderedSet(std::move(members)) : Value::set(std::move(members));
}

// ---- Changes ---------------------------------------------------------------------------------

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
  Retained<ManagedObject> o(makeObject(entity, ObjectID()));
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
  inserted_->insert(o.get());
  pendingInserted_->insert(o.get());
  registerUndo(o.get(), guarded([this, o] { undoInsertion(o); }));
  o->awakeFromInsert();
  scheduleEndOfEvent();
  return o;
}

void ManagedObjectContext::undoInsertion(const Retained<ManagedObject>& o) {
  if (o->context_ != this || o->deleted_) return;
  if (!o->inserted_) {
    // Saved since it was inserted: undoing the insert deletes it.
    deleteObject(o.get());
    propagateDeletes();
    return;
  }
  // Its relationships were put back by the actions undone before this one.
  o->deleted_ = true;
  o->propagated_ = true;
  inserted_->erase(o.get());
  deleted_->insert(o.get());
  pendingInserted_->erase(o.get());
  pendingUpdated_->erase(o.get());
  pendingDeleted_->insert(o.get());
  registerUndo(o.get(), guarded([this, o] { revive(o); }));
  scheduleEndOfEvent();
}

void ManagedObjectContext::deleteObject(ManagedObject* object) {
  if (object == nullptr || object->context_ != this || object->deleted_) return;
  object->fireFault();  // a deleted object keeps its values, for undo
  object->deleted_ = true;
  object->propagated_ = false;
  inserted_->erase(object);
  if (object->updated_) {
    object->updated_ = false;
    updated_->erase(object);
  }
  deleted_->insert(object);
  pendingInserted_->erase(object);
  pendingUpdated_->erase(object);
  pendingDeleted_->insert(object);
  scheduleEndOfEvent();
}

// Undoes a deletion (or an undone insertion). An object whose deletion was saved comes back
// as a new insertion under its old ID.
void ManagedObjectContext::revive(const Retained<ManagedObject>& o) {
  if (!o->deleted_) return;
  if (o->context_ == nullptr) {
    o->context_ = this;
    o->inserted_ = true;
    o->committed_.clear();
    o->clean_ = false;
    registerObject(o.get());
  } else if (o->context_ != this) {
    return;
  }
  o->deleted_ = false;
  o->propagated_ = false;
  deleted_->erase(o.get());
  if (o->inserted_) {
    inserted_->insert(o.get());
  } else if (o->hasPersistentChangedValues()) {
    o->updated_ = true;
    updated_->insert(o.get());
  }
  pendingDeleted_->erase(o.get());
  pendingInserted_->insert(o.get());
  registerUndo(o.get(), guarded([this, o] {
    deleteObject(o.get());
    propagateDeletes();
  }));
  scheduleEndOfEvent();
}

void ManagedObjectContext::propagateDeletes() {
  bool again = true;
  while (again) {
    again = false;
    for (const auto& o : pendingDeleted_->items()) {
      if (!o->deleted_ || o->propagated_ || o->context_ != this) continue;
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
          if (r->deleteRule() == DeleteRule::Cascade) deleteObject(m.get());
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
      registerUndo(o.get(), guarded([this, o] { revive(o); }));
    }
  }
}

void ManagedObjectContext::objectDidChange(ManagedObject* object) {
  if (object->deleted_) return;
  if (object->inserted_) {
    if (!pendingInserted_->contains(object)) pendingUpdated_->insert(object);
  } else {
    if (!object->updated_) {
      object->updated_ = true;
      updated_->insert(object);
    }
    pendingUpdated_->insert(object);
  }
  scheduleEndOfEvent();
}

void ManagedObjectContext::processPendingChanges() {
  if (processing_) return;
  processing_ = true;
  try {
    if (sweepDue_) {
      sweepDue_ = false;
      sweepUnreferenced();
    }
    propagateDeletes();
    postObjectsDidChange();
  } catch (...) {
    processing_ = false;
    throw;
  }
  processing_ = false;
}

void ManagedObjectContext::postObjectsDidChange() {
  if (pendingInserted_->empty() && pendingUpdated_->empty() && pendingDeleted_->empty() && pendingRefreshed_->empty()) {
    return;
  }
  if (!NotificationCenter::defaultCenter().hasObservers(kObjectsDidChangeNotification, this)) {
    for (auto* set : {pendingInserted_.get(), pendingUpdated_.get(), pendingDeleted_.get(), pendingRefreshed_.get()}) {
      set->clear();
    }
    return;
  }
  std::vector<Retained<ManagedObject>> inserted, updated, deleted, refreshed;
  for (auto& o : pendingInserted_->items()) {
    if (!o->deleted_) inserted.push_back(o);
  }
  for (auto& o : pendingUpdated_->items()) {
    if (!o->deleted_ && !pendingInserted_->contains(o.get())) updated.push_back(o);
  }
  deleted = pendingDeleted_->items();
  refreshed = pendingRefreshed_->items();
  pendingInserted_->clear();
  pendingUpdated_->clear();
  pendingDeleted_->clear();
  pendingRefreshed_->clear();
  Value info = Value::mutableDictionary();
  if (!inserted.empty()) info.set(Value(kInsertedObjectsKey), objectSetValue(inserted));
  if (!updated.empty()) info.set(Value(kUpdatedObjectsKey), objectSetValue(updated));
  if (!deleted.empty()) info.set(Value(kDeletedObjectsKey), objectSetValue(deleted));
  if (!refreshed.empty()) info.set(Value(kRefreshedObjectsKey), objectSetValue(refreshed));
  if (info.empty()) return;
  NotificationCenter::defaultCenter().post(kObjectsDidChangeNotification, this, info.copy());
}

bool ManagedObjectContext::hasChanges() const {
  if (!inserted_->empty()) return true;
  for (const auto& o : deleted_->items()) {
    if (!o->inserted_) return true;
  }
  for (const auto& o : updated_->items()) {
    if (o->hasPersistentChangedValues()) return true;
  }
  return false;
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::insertedObjects() const { return inserted_->items(); }

std::vector<Retained<ManagedObject>> ManagedObjectContext::updatedObjects() const { return updated_->items(); }

std::vector<Retained<ManagedObject>> ManagedObjectContext::deletedObjects() const {
  std::vector<Retained<ManagedObject>> out;
  for (auto& o : deleted_->items()) {
    if (!o->inserted_) out.push_back(o);
  }
  return out;
}

// ---- Refresh, rollback, reset ----------------------------------------------------------------

void ManagedObjectContext::turnIntoFault(ManagedObject* object) {
  if (object->inserted_ || object->deleted_ || object->fault_) return;
  object->willTurnIntoFault();
  object->slots_.clear();
  object->committed_.clear();
  object->clean_ = false;
  object->fault_ = true;
  if (object->updated_) {
    object->updated_ = false;
    updated_->erase(object);
  }
  pendingUpdated_->erase(object);
  pendingRefreshed_->insert(object);
  object->didTurnIntoFault();
}

void ManagedObjectContext::refreshObject(ManagedObject* object, bool mergeChanges) {
  if (object == nullptr || object->context_ != this || object->inserted_ || object->deleted_) return;
  Retained<ManagedObject> keep(object);
  if (!mergeChanges || !object->hasPersistentChangedValues()) {
    turnIntoFault(object);
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
  fillFromNode(object, *values, version);
  object->detachSnapshot();  // the store's values become the committed ones
  suppressUndo_ = true;
  for (auto& [i, v] : edits) object->slots_[i] = v;
  for (auto& [i, members] : added) {
    for (const Value& m : members) object->addMember(static_cast<int>(i), m);
  }
  for (auto& [i, members] : removed) {
    for (const Value& m : members) object->removeMember(static_cast<int>(i), m);
  }
  suppressUndo_ = false;
  if (!object->hasPersistentChangedValues() && object->updated_) {
    object->updated_ = false;
    updated_->erase(object);
  }
  pendingRefreshed_->insert(object);
  scheduleEndOfEvent();
}

void ManagedObjectContext::refreshAllObjects() {
  for (const auto& o : registeredObjects()) refreshObject(o.get(), true);
  if (!retainsRegisteredObjects_) sweepUnreferenced();
}

void ManagedObjectContext::rollback() {
  if (undoManager_) undoManager_->removeAllActions();
  for (const auto& o : inserted_->items()) unregister(o.get());
  for (const auto& o : deleted_->items()) {
    if (o->inserted_) unregister(o.get());
  }
  std::vector<Retained<ManagedObject>> touched = updated_->items();
  for (const auto& o : deleted_->items()) touched.push_back(o);
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
  for (auto* set : {inserted_.get(), updated_.get(), deleted_.get(), pendingInserted_.get(), pendingUpdated_.get(),
                    pendingDeleted_.get(), pendingRefreshed_.get()}) {
    set->clear();
  }
}

void ManagedObjectContext::reset() {
  if (undoManager_) undoManager_->removeAllActions();
  forgetObjects();
}

// ---- Permanent IDs ---------------------------------------------------------------------------

void ManagedObjectContext::assignPermanentID(ManagedObject* object, const ObjectID& newID) {
  Retained<ManagedObject> keep(object);
  if (!object->id_.isNull()) registered_->erase(object->id_);
  object->id_ = newID;
  registered_->insert(object);
}

void ManagedObjectContext::rekey(const std::vector<std::pair<ObjectID, ObjectID>>& changes) {
  for (const auto& [oldID, newID] : changes) {
    if (ManagedObject* o = registered_->find(oldID)) assignPermanentID(o, newID);
  }
  if (parent_) {
    auto parent = parent_;
    parent->performAndWait([&] { parent->rekey(changes); });
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
    assignPermanentID(temporary[i], (*ids)[i]);
  }
  if (parent_ && !changes.empty()) {
    auto parent = parent_;
    parent->performAndWait([&] { parent->rekey(changes); });
  }
  return true;
}

// ---- Saving ----------------------------------------------------------------------------------

namespace {
struct Flag {
  bool& flag;
  explicit Flag(bool& f) : flag(f) { flag = true; }
  ~Flag() { flag = false; }
};
}  // namespace

ManagedObjectContext::SaveLists ManagedObjectContext::saveLists() const {
  SaveLists lists;
  lists.inserted = inserted_->items();
  for (auto& o : updated_->items()) {
    if (o->hasPersistentChangedValues()) lists.updated.push_back(o);
  }
  for (auto& o : deleted_->items()) {
    if (!o->inserted_) lists.deleted.push_back(o);
  }
  return lists;
}

bool ManagedObjectContext::save(Error* error) {
  if (saving_) return setError(error, contextError("A context can't save while it is saving", 132001));
  Flag saving(saving_);
  try {
    processPendingChanges();
    if (!hasChanges()) {
      commitSavedChanges(SaveLists{});
      return true;
    }
    NotificationCenter::defaultCenter().post(kWillSaveNotification, this);
    SaveLists lists = saveLists();
    for (auto* group : {&lists.inserted, &lists.updated, &lists.deleted}) {
      for (auto& o : *group) o->willSave();
    }
    processPendingChanges();  // willSave may have changed more
    lists = saveLists();
    if (!validateChanges(lists, error)) return false;
    bool written = parent_ ? pushToParent(lists, error) : pushToStores(lists, error);
    if (!written) return false;
    commitSavedChanges(lists);
    // Objects nobody holds any more are let go at the end of the event (or perform block),
    // as an autorelease pool would, not while save() keeps the caller waiting.
    sweepDue_ = !retainsRegisteredObjects_;
    scheduleEndOfEvent();
    return true;
  } catch (const Exception& e) {
    return setError(error, contextError(e.name() + ": " + e.reason()));
  }
}

bool ManagedObjectContext::validateChanges(const SaveLists& lists, Error* error) {
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
  for (const auto& e : errors) {
    details.push_back(dict({{"domain", Value(e.domain)},
                            {"code", Value(static_cast<long long>(e.code))},
                            {"localizedDescription", Value(e.localizedDescription)},
                            {"userInfo", e.userInfo}}));
  }
  return setError(error, Error(kCocoaErrorDomain, kValidationMultipleErrorsError, "Multiple validation errors occurred.",
                               {}, dict({{kDetailedErrorsKey, Value::array(std::move(details))}})));
}

bool ManagedObjectContext::pushToStores(const SaveLists& lists, Error* error) {
  if (!coordinator_) return setError(error, contextError("The context has no coordinator"));
  std::vector<ManagedObject*> fresh;
  for (const auto& o : lists.inserted) fresh.push_back(o.get());
  if (!obtainPermanentIDsForObjects(fresh, error)) return false;
  SaveChangesRequest request(lists.inserted, lists.updated, lists.deleted);
  return coordinator_->executeRequest(request, this, error).has_value();
}

// The child's changes, in a form the parent can apply on its own queue: IDs instead of the
// child's objects.
struct ManagedObjectContext::Transfer {
  ObjectID id;
  const EntityDescription* entity = nullptr;
  bool inserted = false;
  std::vector<std::pair<int, Value>> values;  // relationships as ID values / arrays of ID values
};

bool ManagedObjectContext::pushToParent(const SaveLists& lists, Error* error) {
  std::vector<ManagedObject*> fresh;
  for (const auto& o : lists.inserted) fresh.push_back(o.get());
  // Permanent IDs now, so that the child's objects and the parent's stay one object each
  // when the parent saves later.
  if (!obtainPermanentIDsForObjects(fresh, error)) return false;
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
  auto parent = parent_;
  parent->performAndWait([&] { parent->applyChildChanges(transfers, deleted); });
  return true;
}

void ManagedObjectContext::applyChildChanges(const std::vector<Transfer>& transfers, const std::vector<ObjectID>& deleted) {
  for (const auto& t : transfers) {
    if (!t.inserted || registered_->find(t.id) != nullptr) continue;
    Retained<ManagedObject> o(makeObject(t.entity, t.id));
    const auto& properties = t.entity->properties();
    o->slots_.resize(properties.size());
    for (size_t i = 0; i < properties.size(); ++i) {
      if (const auto* r = toManyRelationship(properties[i])) o->slots_[i] = emptyMembers(*r);
    }
    o->inserted_ = true;
    registerObject(o.get());
    inserted_->insert(o.get());
    pendingInserted_->insert(o.get());
    registerUndo(o.get(), guarded([this, o] { undoInsertion(o); }));
  }
  for (const auto& t : transfers) {
    Retained<ManagedObject> o = objectWithID(t.id);
    const auto& properties = o->entity_->properties();
    for (const auto& [i, v] : t.values) {
      const PropertyDescription* p = properties[static_cast<size_t>(i)];
      if (!p->isRelationship()) {
        o->changeSlot(i, v);
      } else if (toManyRelationship(p) == nullptr) {
        ObjectID target = ObjectID::fromValue(v);
        o->changeSlot(i, target ? Value::object(objectWithID(target).get()) : Value());
      } else {
        std::vector<Value> wanted;
        for (const Value& e : v.elements()) wanted.push_back(Value::object(objectWithID(ObjectID::fromValue(e)).get()));
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
  for (const auto& id : deleted) deleteObject(objectWithID(id).get());
}

void ManagedObjectContext::commitSavedChanges(const SaveLists& lists) {
  for (const auto& o : lists.inserted) {
    o->inserted_ = false;
    o->markClean();
    o->version_ = 1;
  }
  for (const auto& o : updated_->items()) {
    o->updated_ = false;
    o->markClean();
  }
  for (const auto& o : lists.updated) ++o->version_;
  for (const auto& o : deleted_->items()) unregister(o.get());
  inserted_->clear();
  updated_->clear();
  deleted_->clear();
  for (auto* group : {&lists.inserted, &lists.updated, &lists.deleted}) {
    for (auto& o : *group) o->didSave();
  }
  if ((!lists.inserted.empty() || !lists.updated.empty() || !lists.deleted.empty()) &&
      NotificationCenter::defaultCenter().hasObservers(kDidSaveNotification, this)) {
    Value info = Value::mutableDictionary();
    info.set(Value(kInsertedObjectsKey), objectSetValue(lists.inserted));
    info.set(Value(kUpdatedObjectsKey), objectSetValue(lists.updated));
    info.set(Value(kDeletedObjectsKey), objectSetValue(lists.deleted));
    NotificationCenter::defaultCenter().post(kDidSaveNotification, this, info.copy());
  }
}

// ---- Fetching --------------------------------------------------------------------------------

std::optional<Value> ManagedObjectContext::executeAtSource(const FetchRequest& request, Error* error) {
  if (parent_) {
    FetchRequest forParent = request;
    if (forParent.resultType() == FetchResultType::ManagedObject) forParent.setResultType(FetchResultType::ManagedObjectID);
    std::optional<Value> out;
    auto parent = parent_;
    parent->performAndWait([&] { out = parent->execute(forParent, error); });
    return out;
  }
  if (!coordinator_) {
    setError(error, contextError("The context has neither a coordinator nor a parent"));
    return std::nullopt;
  }
  return coordinator_->executeRequest(request, this, error);
}

Retained<ManagedObject> ManagedObjectContext::objectForResult(const Value& element) {
  ManagedObject* o = objectOf(element);
  if (o != nullptr && o->context_ == this) return Retained(o);
  return objectWithID(idOf(element));
}

bool ManagedObjectContext::touchesPendingChanges(const EntityDescription* entity, const FetchRequest& request) const {
  auto relevant = [&](const ObjectSet& set) {
    for (const auto& o : set.items()) {
      if (request.includesSubentities() ? o->entity_->isKindOfEntity(entity) : o->entity_ == entity) return true;
    }
    return false;
  };
  return relevant(*inserted_) || relevant(*updated_) || relevant(*deleted_);
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::mergePendingObjects(
    std::vector<Retained<ManagedObject>> fromStore, const FetchRequest& request, const EntityDescription* entity) {
  auto ofEntity = [&](const ManagedObject* o) {
    return request.includesSubentities() ? o->entity_->isKindOfEntity(entity) : o->entity_ == entity;
  };
  auto matches = [&](const ManagedObject* o) { return !request.predicate() || request.predicate()->evaluate(*o); };
  std::vector<Retained<ManagedObject>> out;
  std::unordered_set<ManagedObject*> seen;
  for (auto& o : fromStore) {
    if (o->deleted_ || (o->updated_ && !matches(o.get())) || !seen.insert(o.get()).second) continue;
    out.push_back(std::move(o));
  }
  for (const auto& o : updated_->items()) {
    if (ofEntity(o.get()) && !o->deleted_ && seen.count(o.get()) == 0 && matches(o.get())) out.push_back(o);
  }
  for (const auto& o : inserted_->items()) {
    if (ofEntity(o.get()) && matches(o.get())) out.push_back(o);
  }
  if (!request.sortDescriptors().empty()) {
    std::vector<const Object*> objects;
    for (const auto& o : out) objects.push_back(o.get());
    std::vector<size_t> order = sortOrder(objects, request.sortDescriptors());
    std::vector<Retained<ManagedObject>> sorted;
    sorted.reserve(out.size());
    for (size_t i : order) sorted.push_back(out[i]);
    out.swap(sorted);
  }
  if (request.fetchLimit() != 0 && out.size() > request.fetchLimit()) out.resize(request.fetchLimit());
  return out;
}

std::optional<Value> ManagedObjectContext::execute(const FetchRequest& request, Error* error) {
  try {
    processPendingChanges();
    const EntityDescription* e = entity(request.entityName());
    if (e == nullptr) {
      setError(error, contextError("No entity named \"" + request.entityName() + "\" in the model"));
      return std::nullopt;
    }
    FetchRequest r = request;
    r.setEntity(e);
    if (r.resultType() == FetchResultType::Dictionary || !r.propertiesToGroupBy().empty()) {
      return executeAtSource(r, error);
    }
    if (!r.includesPendingChanges() || !touchesPendingChanges(e, r)) {
      auto raw = executeAtSource(r, error);
      if (!raw || r.resultType() != FetchResultType::ManagedObject) return raw;
      std::vector<Value> objects;
      objects.reserve(raw->count());
      for (const Value& element : raw->elements()) objects.push_back(Value::object(objectForResult(element).get()));
      return Value::array(std::move(objects));
    }
    FetchRequest idsRequest = r;
    idsRequest.setResultType(FetchResultType::ManagedObjectID);
    idsRequest.setFetchLimit(0);
    auto raw = executeAtSource(idsRequest, error);
    if (!raw) return std::nullopt;
    std::vector<Retained<ManagedObject>> fromStore;
    fromStore.reserve(raw->count());
    for (const Value& element : raw->elements()) fromStore.push_back(objectForResult(element));
    std::vector<Retained<ManagedObject>> merged = mergePendingObjects(std::move(fromStore), r, e);
    if (r.resultType() == FetchResultType::Count) {
      return Value::array({Value(static_cast<long long>(merged.size()))});
    }
    std::vector<Value> out;
    out.reserve(merged.size());
    for (const auto& o : merged) {
      out.push_back(r.resultType() == FetchResultType::ManagedObjectID ? o->objectID().asValue()
                                                                        : Value::object(o.get()));
    }
    return Value::array(std::move(out));
  } catch (const Exception& ex) {
    setError(error, contextError(ex.name() + ": " + ex.reason()));
    return std::nullopt;
  }
}

std::optional<std::vector<Retained<ManagedObject>>> ManagedObjectContext::fetch(const FetchRequest& request,
                                                                                Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::ManagedObject);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  std::vector<Retained<ManagedObject>> out;
  out.reserve(raw->count());
  for (const Value& v : raw->elements()) out.emplace_back(objectOf(v));
  return out;
}

std::optional<std::vector<ObjectID>> ManagedObjectContext::fetchObjectIDs(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::ManagedObjectID);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  std::vector<ObjectID> out;
  out.reserve(raw->count());
  for (const Value& v : raw->elements()) out.push_back(idOf(v));
  return out;
}

std::optional<std::vector<Value>> ManagedObjectContext::fetchDictionaries(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::Dictionary);
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  return raw->elements();
}

std::optional<size_t> ManagedObjectContext::count(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::Count);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  return static_cast<size_t>(raw->at(0).longLongValue());
}

}  // namespace corvane
