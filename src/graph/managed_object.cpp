#include "corvane/graph/managed_object.h"

#include <atomic>
#include <map>
#include <mutex>

#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "graph/context_impl.h"
#include "graph/graph_internal.h"

namespace corvane {

namespace {

struct ClassRegistry {
  std::mutex mutex;
  std::map<std::string, ManagedObject::Factory> factories;
  std::atomic<bool> any{false};  // lets the common case (no classes) skip the lock
};

ClassRegistry& classRegistry() {
  static auto* registry = new ClassRegistry;
  return *registry;
}

const Value& nilValue() {
  static const Value nil;
  return nil;
}

ManagedObject* objectOf(const Value& v) {
  return v.isObject() ? dynamic_cast<ManagedObject*>(v.objectPointer()) : nullptr;
}

Value asValue(ManagedObject* o) { return o == nullptr ? Value() : Value::object(o); }

// Stored values are immutable, so that a caller's later edit of a mutable value it passed in
// cannot change the object behind the context's back.
Value frozen(const Value& v) {
  if (v.isNull()) return Value();
  return v.isMutable() ? v.copy() : v;
}

// Runs `change` bracketed by the object's change hooks.
template <class F>
void withChangeHooks(ManagedObject* o, std::string_view key, F&& change) {
  o->willChangeValueForKey(key);
  change();
  o->didChangeValueForKey(key);
}

}  // namespace

// Lets the context reach the object's internals without widening the public interface.
struct ObjectAccess {
  static ManagedObject* make(const EntityDescription* entity, ManagedObjectContext* context) {
    ManagedObject::Factory factory;
    if (classRegistry().any.load(std::memory_order_acquire)) {
      ClassRegistry& r = classRegistry();
      std::lock_guard<std::mutex> lock(r.mutex);
      for (const EntityDescription* e = entity; e != nullptr && !factory; e = e->superentity()) {
        auto it = r.factories.find(e->name());
        if (it != r.factories.end()) factory = it->second;
      }
    }
    return factory ? factory(entity, context) : new ManagedObject(entity, context);
  }
};

ManagedObject* makeManagedObject(const EntityDescription* entity, ManagedObjectContext* context) {
  return ObjectAccess::make(entity, context);
}

ManagedObject::ManagedObject(const EntityDescription* entity, ManagedObjectContext* context)
    : entity_(entity), context_(context) {}

ManagedObject::~ManagedObject() = default;

void ManagedObject::registerClass(const std::string& entityName, Factory factory) {
  ClassRegistry& r = classRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (!factory) {
    r.factories.erase(entityName);
    return;
  }
  r.factories[entityName] = std::move(factory);
  r.any.store(true, std::memory_order_release);
}

std::string ManagedObject::description() const {
  return "<" + entity_->name() + ": " + objectID().uriRepresentation() + (fault_ ? "; fault>" : ">");
}

void ManagedObject::assignTemporaryID() const {
  id_ = ObjectID::makeTemporary(entity_);
  // Registered from now on, so that objectWithID() finds it by this ID.
  if (context_ != nullptr) context_->impl_->registry.registerObject(const_cast<ManagedObject*>(this));
}

// ---- Slots -----------------------------------------------------------------------------------

int ManagedObject::indexForKey(std::string_view key) const {
  int i = entity_->propertyIndex(key);
  if (i < 0) {
    throw Exception("NSUnknownKeyException", "the entity " + entity_->name() +
                                                 " is not key value coding-compliant for the key \"" +
                                                 std::string(key) + "\"");
  }
  return i;
}

const PropertyDescription& ManagedObject::propertyAt(int index) const {
  return *entity_->properties()[static_cast<size_t>(index)];
}

void ManagedObject::fireFault() const {
  if (fault_ && context_ != nullptr) context_->impl_->faults.fulfill(const_cast<ManagedObject*>(this));
}

const Value& ManagedObject::slot(int index) const {
  fireFault();
  if (slots_.empty()) return nilValue();
  Value& v = slots_[static_cast<size_t>(index)];
  if (v.isNil() && context_ != nullptr) {
    const PropertyDescription& p = propertyAt(index);
    if (p.isRelationship() && static_cast<const RelationshipDescription&>(p).isToMany()) {
      v = context_->impl_->faults.loadToMany(const_cast<ManagedObject*>(this), index);
      auto* self = const_cast<ManagedObject*>(this);
      if (!self->clean_ && !self->committed_.empty()) self->committed_[static_cast<size_t>(index)] = v;
    }
  }
  return v;
}

void ManagedObject::changeSlot(int index, const Value& newValue) {
  if (context_ == nullptr) return;
  slot(index);
  Value& current = slots_[static_cast<size_t>(index)];
  if (current == newValue && current.kind() == newValue.kind()) return;
  if (!inserted_) detachSnapshot();
  Value old = current;
  current = newValue;
  context_->impl_->changes.objectDidChange(this);
  Retained<ManagedObject> self(this);
  context_->impl_->registerUndo(this, [self, index, old] {
    std::string_view key = self->propertyAt(index).name();
    withChangeHooks(self.get(), key, [&] { self->changeSlot(index, old); });
  });
}

// Adds (or, with a position, moves) one member of a to-many relationship, without touching
// the inverse side.
void ManagedObject::addMember(int index, const Value& member, size_t position) {
  if (context_ == nullptr) return;
  slot(index);
  Value& members = slots_[static_cast<size_t>(index)];
  const auto& r = static_cast<const RelationshipDescription&>(propertyAt(index));
  size_t oldPosition = SIZE_MAX;
  if (members.contains(member)) {
    if (!r.isOrdered() || position == SIZE_MAX) return;
    const auto& items = members.elements();
    for (size_t i = 0; i < items.size(); ++i) {
      if (items[i] == member) oldPosition = i;
    }
    if (std::min(position, items.size() - 1) == oldPosition) return;
  }
  // Copy on write: the committed snapshot may share the node.
  if (!inserted_) detachSnapshot();
  if (!members.isMutable() || (!committed_.empty() && members.isSameNode(committed_[static_cast<size_t>(index)]))) {
    members = members.mutableCopy();
  }
  if (oldPosition != SIZE_MAX) members.removeAt(oldPosition);
  if (r.isOrdered() && position < members.count()) {
    members.insert(position, member);
  } else {
    members.append(member);
  }
  context_->impl_->changes.objectDidChange(this);
  Retained<ManagedObject> self(this);
  if (oldPosition != SIZE_MAX) {
    context_->impl_->registerUndo(this, [self, index, member, oldPosition] {
      withChangeHooks(self.get(), self->propertyAt(index).name(), [&] { self->addMember(index, member, oldPosition); });
    });
  } else {
    context_->impl_->registerUndo(this, [self, index, member] {
      withChangeHooks(self.get(), self->propertyAt(index).name(), [&] { self->removeMember(index, member); });
    });
  }
}

void ManagedObject::removeMember(int index, const Value& member) {
  if (context_ == nullptr) return;
  slot(index);
  Value& members = slots_[static_cast<size_t>(index)];
  if (!members.contains(member)) return;
  if (!inserted_) detachSnapshot();
  if (!members.isMutable() || (!committed_.empty() && members.isSameNode(committed_[static_cast<size_t>(index)]))) {
    members = members.mutableCopy();
  }
  size_t oldPosition = SIZE_MAX;
  if (members.isOrderedSet()) {
    const auto& items = members.elements();
    for (size_t i = 0; i < items.size() && oldPosition == SIZE_MAX; ++i) {
      if (items[i] == member) oldPosition = i;
    }
    members.removeAt(oldPosition);
  } else {
    members.remove(member);
  }
  context_->impl_->changes.objectDidChange(this);
  Retained<ManagedObject> self(this);
  context_->impl_->registerUndo(this, [self, index, member, oldPosition] {
    withChangeHooks(self.get(), self->propertyAt(index).name(), [&] { self->addMember(index, member, oldPosition); });
  });
}

// ---- Values by key ---------------------------------------------------------------------------

Value ManagedObject::value(std::string_view key) const {
  int index = indexForKey(key);
  willAccessValueForKey(key);
  const Value& v = slot(index);
  Value out = v.isCollection() && v.isMutable() ? v.copy() : v;
  didAccessValueForKey(key);
  return out;
}

Value ManagedObject::primitiveValue(std::string_view key) const {
  const Value& v = slot(indexForKey(key));
  return v.isCollection() && v.isMutable() ? v.copy() : v;
}

void ManagedObject::setValue(std::string_view key, const Value& value) {
  int index = indexForKey(key);
  withChangeHooks(this, key, [&] {
    if (propertyAt(index).isRelationship()) {
      setRelationship(index, value);
    } else {
      changeSlot(index, frozen(value));
    }
  });
}

namespace {
std::vector<ManagedObject*> membersOf(const Value& v, const RelationshipDescription& r) {
  std::vector<ManagedObject*> out;
  if (v.isNil() || v.isNull()) return out;
  if (!v.isCollection()) {
    throw Exception("NSInvalidArgumentException",
                    "the value for the to-many relationship \"" + r.name() + "\" must be a collection of objects");
  }
  for (const Value& e : v.elements()) {
    ManagedObject* o = objectOf(e);
    if (o == nullptr) {
      throw Exception("NSInvalidArgumentException",
                      "the relationship \"" + r.name() + "\" can only hold managed objects");
    }
    out.push_back(o);
  }
  return out;
}
}  // namespace

void ManagedObject::setPrimitiveValue(std::string_view key, const Value& value) {
  int index = indexForKey(key);
  const PropertyDescription& p = propertyAt(index);
  if (!p.isRelationship()) return changeSlot(index, frozen(value));
  const auto& r = static_cast<const RelationshipDescription&>(p);
  if (!r.isToMany()) {
    if (!value.isNil() && !value.isNull() && objectOf(value) == nullptr) {
      throw Exception("NSInvalidArgumentException",
                      "the relationship \"" + r.name() + "\" can only hold managed objects");
    }
    return changeSlot(index, frozen(value));
  }
  std::vector<ManagedObject*> wanted = membersOf(value, r);
  Value current = slot(index);
  for (const Value& m : current.elements()) {
    bool keep = false;
    for (auto* w : wanted) keep = keep || w == objectOf(m);
    if (!keep) removeMember(index, m);
  }
  for (size_t i = 0; i < wanted.size(); ++i) addMember(index, asValue(wanted[i]), r.isOrdered() ? i : SIZE_MAX);
}

void ManagedObject::setRelationship(int index, const Value& newValue) {
  const auto& r = static_cast<const RelationshipDescription&>(propertyAt(index));
  if (!r.isToMany()) {
    ManagedObject* target = nullptr;
    if (!newValue.isNil() && !newValue.isNull()) {
      target = objectOf(newValue);
      if (target == nullptr) {
        throw Exception("NSInvalidArgumentException",
                        "the relationship \"" + r.name() + "\" can only hold managed objects");
      }
    }
    return setToOneWithInverse(index, target);
  }
  std::vector<ManagedObject*> wanted = membersOf(newValue, r);
  Value current = slot(index);
  for (const Value& m : current.elements()) {
    bool keep = false;
    for (auto* w : wanted) keep = keep || w == objectOf(m);
    if (!keep) removeWithInverse(index, objectOf(m));
  }
  for (size_t i = 0; i < wanted.size(); ++i) addWithInverse(index, wanted[i], r.isOrdered() ? i : SIZE_MAX);
}

// ---- Inverse maintenance ---------------------------------------------------------------------

namespace {
void checkTarget(const ManagedObject* self, const RelationshipDescription& r, const ManagedObject* other) {
  if (other->managedObjectContext() != self->managedObjectContext()) {
    throw Exception("NSInvalidArgumentException", "Illegal attempt to establish a relationship \"" + r.name() +
                                                      "\" between objects in different contexts");
  }
  if (!other->entity().isKindOfEntity(r.destinationEntity())) {
    throw Exception("NSInvalidArgumentException", "the relationship \"" + r.name() + "\" leads to " +
                                                      r.destinationEntity()->name() + ", not to " +
                                                      other->entity().name());
  }
}
}  // namespace

// Takes `other` off the inverse side of `r` (r is a relationship of this object).
void ManagedObject::detachInverse(const RelationshipDescription& r, ManagedObject* other) {
  const RelationshipDescription* inverse = r.inverseRelationship();
  if (inverse == nullptr || other == nullptr) return;
  int i = other->indexForKey(inverse->name());
  withChangeHooks(other, inverse->name(), [&] {
    if (inverse->isToMany()) {
      other->removeMember(i, asValue(this));
    } else if (objectOf(other->slot(i)) == this) {
      other->changeSlot(i, Value());
    }
  });
}

// Puts this object on the inverse side of `r` in `other`, taking it from its former owner
// when the inverse is to-one and that owner holds `other` through r.
void ManagedObject::attachInverse(const RelationshipDescription& r, ManagedObject* other) {
  const RelationshipDescription* inverse = r.inverseRelationship();
  if (inverse == nullptr || other == nullptr) return;
  int i = other->indexForKey(inverse->name());
  if (inverse->isToMany()) {
    withChangeHooks(other, inverse->name(), [&] { other->addMember(i, asValue(this)); });
    return;
  }
  ManagedObject* former = objectOf(other->slot(i));
  if (former == this) return;
  if (former != nullptr) {
    int j = former->indexForKey(r.name());
    withChangeHooks(former, r.name(), [&] {
      if (r.isToMany()) {
        former->removeMember(j, asValue(other));
      } else {
        former->changeSlot(j, Value());
      }
    });
  }
  withChangeHooks(other, inverse->name(), [&] { other->changeSlot(i, asValue(this)); });
}

void ManagedObject::setToOneWithInverse(int index, ManagedObject* target) {
  const auto& r = static_cast<const RelationshipDescription&>(propertyAt(index));
  if (target != nullptr) checkTarget(this, r, target);
  ManagedObject* current = objectOf(slot(index));
  if (current == target) return;
  Retained<ManagedObject> keepCurrent(current), keepTarget(target);
  if (current != nullptr) detachInverse(r, current);
  if (target != nullptr) attachInverse(r, target);
  changeSlot(index, asValue(target));
}

void ManagedObject::addWithInverse(int index, ManagedObject* member, size_t position) {
  const auto& r = static_cast<const RelationshipDescription&>(propertyAt(index));
  checkTarget(this, r, member);
  Value m = asValue(member);
  if (!slot(index).contains(m)) attachInverse(r, member);
  addMember(index, m, position);
}

void ManagedObject::removeWithInverse(int index, ManagedObject* member) {
  const auto& r = static_cast<const RelationshipDescription&>(propertyAt(index));
  Value m = asValue(member);
  if (member == nullptr || !slot(index).contains(m)) return;
  detachInverse(r, member);
  removeMember(index, m);
}

// ---- Typed helpers ---------------------------------------------------------------------------

std::string ManagedObject::stringValue(std::string_view key) const {
  Value v = value(key);
  return v.isString() ? v.str() : v.isNil() ? std::string() : v.description();
}
int64_t ManagedObject::int64Value(std::string_view key) const { return value(key).longLongValue(); }
double ManagedObject::doubleValue(std::string_view key) const { return value(key).doubleValue(); }
double ManagedObject::dateValue(std::string_view key) const { return value(key).dateValue(); }
bool ManagedObject::boolValue(std::string_view key) const { return value(key).boolValue(); }
bool ManagedObject::isNil(std::string_view key) const {
  Value v = value(key);
  return v.isNil() || v.isNull();
}

Retained<ManagedObject> ManagedObject::toOne(std::string_view key) const {
  int index = indexForKey(key);
  const PropertyDescription& p = propertyAt(index);
  if (!p.isRelationship() || static_cast<const RelationshipDescription&>(p).isToMany()) {
    throw Exception("NSInvalidArgumentException", "\"" + std::string(key) + "\" is not a to-one relationship");
  }
  willAccessValueForKey(key);
  Retained<ManagedObject> out(objectOf(slot(index)));
  didAccessValueForKey(key);
  return out;
}

void ManagedObject::setToOne(std::string_view key, ManagedObject* target) { setValue(key, asValue(target)); }

namespace {
const RelationshipDescription& toManyAt(const ManagedObject* o, std::string_view key, int index) {
  const PropertyDescription* p = o->entity().properties()[static_cast<size_t>(index)];
  if (!p->isRelationship() || !static_cast<const RelationshipDescription*>(p)->isToMany()) {
    throw Exception("NSInvalidArgumentException", "\"" + std::string(key) + "\" is not a to-many relationship");
  }
  return *static_cast<const RelationshipDescription*>(p);
}
}  // namespace

std::vector<Retained<ManagedObject>> ManagedObject::toMany(std::string_view key) const {
  int index = indexForKey(key);
  toManyAt(this, key, index);
  willAccessValueForKey(key);
  std::vector<Retained<ManagedObject>> out;
  for (const Value& m : slot(index).elements()) out.emplace_back(objectOf(m));
  didAccessValueForKey(key);
  return out;
}

void ManagedObject::setToMany(std::string_view key, const std::vector<Retained<ManagedObject>>& members) {
  std::vector<Value> values;
  values.reserve(members.size());
  for (const auto& m : members) values.push_back(asValue(m.get()));
  setValue(key, Value::array(std::move(values)));
}

void ManagedObject::addToMany(std::string_view key, ManagedObject* member) {
  int index = indexForKey(key);
  toManyAt(this, key, index);
  if (member == nullptr) throw Exception("NSInvalidArgumentException", "cannot add nil to a relationship");
  withChangeHooks(this, key, [&] { addWithInverse(index, member, SIZE_MAX); });
}

void ManagedObject::removeFromMany(std::string_view key, ManagedObject* member) {
  int index = indexForKey(key);
  toManyAt(this, key, index);
  withChangeHooks(this, key, [&] { removeWithInverse(index, member); });
}

void ManagedObject::insertIntoOrdered(std::string_view key, ManagedObject* member, size_t index) {
  int i = indexForKey(key);
  if (!toManyAt(this, key, i).isOrdered()) {
    throw Exception("NSInvalidArgumentException", "\"" + std::string(key) + "\" is not an ordered relationship");
  }
  if (member == nullptr) throw Exception("NSInvalidArgumentException", "cannot add nil to a relationship");
  withChangeHooks(this, key, [&] { addWithInverse(i, member, index); });
}

void ManagedObject::willAccessValueForKey(std::string_view) const {}
void ManagedObject::didAccessValueForKey(std::string_view) const {}
void ManagedObject::willChangeValueForKey(std::string_view) {}
void ManagedObject::didChangeValueForKey(std::string_view) {}

// ---- Changes ---------------------------------------------------------------------------------

bool ManagedObject::hasPersistentChangedValues() const {
  if (inserted_) return true;
  if (fault_ || slots_.empty() || clean_ || committed_.empty()) return false;
  for (size_t i = 0; i < slots_.size(); ++i) {
    if (!(slots_[i] == committed_[i])) return true;
  }
  return false;
}

bool ManagedObject::hasChanges() const { return inserted_ || deleted_ || hasPersistentChangedValues(); }

Value ManagedObject::changedValues() const {
  Value out = Value::mutableDictionary();
  if (fault_ || slots_.empty()) return out.copy();
  for (size_t i = 0; i < slots_.size(); ++i) {
    const Value& v = slots_[i];
    bool changed = inserted_ ? !(v.isNil() || (v.isCollection() && v.empty()))
                             : !clean_ && !committed_.empty() && !(v == committed_[i]);
    if (!changed) continue;
    // A value taken away is a change too (the old partner of a re-pointed to-one
    // relationship, an attribute cleared): a dictionary cannot hold nil, so it shows as null,
    // and a store that writes only the changed keys still writes this one.
    Value shown = v.isNil() ? Value::null() : v.isMutable() ? v.copy() : v;
    out.set(Value(entity_->properties()[i]->name()), shown);
  }
  return out.copy();
}

Value ManagedObject::committedValues(const std::vector<std::string>& keys) const {
  Value out = Value::mutableDictionary();
  if (inserted_) return out.copy();
  fireFault();
  if (!hasSnapshot()) return out.copy();
  auto add = [&](int i) {
    slot(i);  // loads a to-many relationship that was never read, which fills its snapshot
    const Value& v = committedAt(static_cast<size_t>(i));
    if (!v.isNil()) out.set(Value(entity_->properties()[static_cast<size_t>(i)]->name()), v.isMutable() ? v.copy() : v);
  };
  if (keys.empty()) {
    for (size_t i = 0; i < slots_.size(); ++i) add(static_cast<int>(i));
  } else {
    for (const auto& k : keys) add(indexForKey(k));
  }
  return out.copy();
}

// ---- Validation ------------------------------------------------------------------------------

Error ManagedObject::validationError(int64_t code, const std::string& key, const Value& value,
                                     const std::string& text) const {
  Value info = Value::mutableDictionary();
  info.set(Value(kValidationObjectErrorKey), Value::object(const_cast<ManagedObject*>(this)));
  if (!key.empty()) info.set(Value(kValidationKeyErrorKey), Value(key));
  if (!value.isNil()) info.set(Value(kValidationValueErrorKey), value);
  return Error(kCocoaErrorDomain, code, text, {}, info.copy());
}

bool ManagedObject::validateValue(std::string_view key, Value* value, Error* error) const {
  int index = indexForKey(key);
  const PropertyDescription& p = propertyAt(index);
  const std::string name(key);
  const Value& v = *value;
  if (p.isAttribute()) {
    const auto& a = static_cast<const AttributeDescription&>(p);
    if (v.isNil() || v.isNull()) {
      if (a.isOptional()) return true;
      return setError(error, validationError(kValidationMissingMandatoryPropertyError, name, Value(),
                                             name + " is a required value."));
    }
    if (!valueFitsAttributeType(v, a.attributeType())) {
      return setError(error, validationError(kManagedObjectValidationError, name, v,
                                             "The value of " + name + " is not of the attribute's type (" +
                                                 std::string(attributeTypeName(a.attributeType())) + ")."));
    }
    return true;
  }
  const auto& r = static_cast<const RelationshipDescription&>(p);
  if (!r.isToMany()) {
    ManagedObject* target = objectOf(v);
    if (target == nullptr) {
      if (r.isOptional()) return true;
      return setError(error, validationError(kValidationMissingMandatoryPropertyError, name, Value(),
                                             name + " is a required value."));
    }
    if (target->isDeleted() && !deleted_) {
      return setError(error, validationError(kManagedObjectValidationError, name, v,
                                             "Dangling reference to an invalid object in " + name + "."));
    }
    return true;
  }
  size_t count = v.isCollection() ? v.count() : 0;
  size_t minimum = std::max<size_t>(r.minCount(), r.isOptional() ? 0 : 1);
  if (count < minimum && (!r.isOptional() || count > 0)) {
    return setError(error, validationError(kValidationRelationshipLacksMinimumCountError, name, v,
                                           "Too few items in " + name + "."));
  }
  if (r.maxCount() != 0 && count > r.maxCount()) {
    return setError(error, validationError(kValidationRelationshipExceedsMaximumCountError, name, v,
                                           "Too many items in " + name + "."));
  }
  if (!deleted_ && v.isCollection()) {
    for (const Value& m : v.elements()) {
      ManagedObject* o = objectOf(m);
      if (o != nullptr && o->isDeleted()) {
        return setError(error, validationError(kManagedObjectValidationError, name, v,
                                               "Dangling reference to an invalid object in " + name + "."));
      }
    }
  }
  return true;
}

namespace {
Value errorAsValue(const Error& e) {
  return dict({{"domain", Value(e.domain)},
               {"code", Value(static_cast<long long>(e.code))},
               {"localizedDescription", Value(e.localizedDescription)},
               {"userInfo", e.userInfo}});
}
}  // namespace

bool ManagedObject::validateCommon(Error* error) const {
  std::vector<Error> errors;
  const auto& properties = entity_->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    Value v = slot(static_cast<int>(i));
    Error e;
    if (!validateValue(properties[i]->name(), &v, &e)) errors.push_back(std::move(e));
  }
  if (errors.empty()) return true;
  if (errors.size() == 1) return setError(error, std::move(errors.front()));
  std::vector<Value> details;
  details.reserve(errors.size());
  for (const auto& e : errors) details.push_back(errorAsValue(e));
  return setError(error,
                  Error(kCocoaErrorDomain, kValidationMultipleErrorsError, "Multiple validation errors occurred.", {},
                        dict({{kDetailedErrorsKey, Value::array(std::move(details))}})));
}

bool ManagedObject::validateForInsert(Error* error) const { return validateCommon(error); }

bool ManagedObject::validateForUpdate(Error* error) const { return validateCommon(error); }

bool ManagedObject::validateForDelete(Error* error) const {
  for (const auto* r : entity_->relationships()) {
    if (r->deleteRule() != DeleteRule::Deny) continue;
    const Value& v = slot(entity_->propertyIndex(r->name()));
    bool blocked = false;
    if (r->isToMany()) {
      for (const Value& m : v.elements()) blocked = blocked || !objectOf(m)->isDeleted();
    } else {
      ManagedObject* o = objectOf(v);
      blocked = o != nullptr && !o->isDeleted();
    }
    if (blocked) {
      return setError(error, validationError(kValidationRelationshipDeniedDeleteError, r->name(), v,
                                             "The object can't be deleted while " + r->name() + " is not empty."));
    }
  }
  return true;
}

}  // namespace corvane
