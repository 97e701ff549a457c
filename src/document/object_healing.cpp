#include "corvane/document/object_healing.h"

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "corvane/foundation/log.h"
#include "corvane/graph/object_model.h"

namespace corvane {
namespace {

ManagedObject* managedObjectOf(const Value& v) {
  return v.isObject() ? dynamic_cast<ManagedObject*>(v.objectPointer()) : nullptr;
}

// The stored value of `key`, read the way the object's own accessors would announce it.
Value readPrimitive(const ManagedObject& object, const std::string& key) {
  object.willAccessValueForKey(key);
  Value v = object.primitiveValue(key);
  object.didAccessValueForKey(key);
  return v;
}

void writePrimitive(ManagedObject& object, const std::string& key, const Value& value) {
  object.willChangeValueForKey(key);
  object.setPrimitiveValue(key, value);
  object.didChangeValueForKey(key);
}

void logDeadRelation(const ManagedObject& object, const RelationshipDescription& relationship) {
  logLine(fmt::format("Dead Relation in {}->{}", object.entity().name(), relationship.name()));
}

// A member worth keeping after another device's delete: not deleted and still in a context
// (an object whose deletion was saved has none).
bool isLiveMember(const Value& member) {
  try {
    const ManagedObject* o = managedObjectOf(member);
    return o != nullptr && !o->isDeleted() && o->managedObjectContext() != nullptr;
  } catch (const Exception&) {
    // A member that cannot even be looked at is as good as gone; the repair goes on without it.
    return false;
  }
}

void fixToMany(ManagedObject& object, const RelationshipDescription& relationship,
               const RelationshipDescription& inverse) {
  Value members = readPrimitive(object, relationship.name());
  std::vector<Value> kept;
  for (const Value& m : members.elements()) {
    const ManagedObject* member = managedObjectOf(m);
    if (member != nullptr && cvCheckRelation(*member, inverse, object)) {
      kept.push_back(m);
    } else {
      logDeadRelation(object, relationship);
    }
  }
  // Rewriting an intact relationship would still announce a change to observers.
  if (kept.size() == members.count()) return;
  writePrimitive(object, relationship.name(), Value::set(std::move(kept)));
}

void fixToOne(ManagedObject& object, const RelationshipDescription& relationship,
              const RelationshipDescription& inverse) {
  Retained<ManagedObject> target(managedObjectOf(readPrimitive(object, relationship.name())));
  if (!target || cvCheckRelation(*target, inverse, object)) return;
  // A target of another entity has no inverse to point back with; only clearing mends that.
  if (!inverse.isToMany() && target->entity().relationship(inverse.name()) != nullptr) {
    writePrimitive(*target, inverse.name(), Value::object(&object));
    return;
  }
  writePrimitive(object, relationship.name(), Value());
  logDeadRelation(object, relationship);
}

}  // namespace

bool cvValidateForInsertAndFix(ManagedObject& object) {
  Error error;
  if (object.validateForInsert(&error)) return true;
  logLine("Trying to heal inserted Object");
  return cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(object, error);
}

bool cvValidateForUpdateAndFix(ManagedObject& object) {
  Error error;
  if (object.validateForUpdate(&error)) return true;
  logLine("Trying to heal updated Object");
  return cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(object, error);
}

bool cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(ManagedObject& /*object*/, const Error& error) {
  if (error.domain != kCocoaErrorDomain || error.code != kManagedObjectValidationError) return false;
  Retained<ManagedObject> failed(managedObjectOf(error.userInfo[kValidationObjectErrorKey]));
  const Value& key = error.userInfo[kValidationKeyErrorKey];
  if (!failed || !key.isString() || key.str().empty()) return false;
  const RelationshipDescription* relationship = failed->entity().relationship(key.str());
  if (relationship == nullptr) return false;

  if (!relationship->isToMany()) {
    // Through the public setter, so that the target's inverse lets go of the object too.
    failed->setValue(relationship->name(), Value());
    return true;
  }
  Value members = readPrimitive(*failed, relationship->name());
  std::vector<Value> live;
  for (const Value& m : members.elements()) {
    if (isLiveMember(m)) live.push_back(m);
  }
  writePrimitive(*failed, relationship->name(),
                 relationship->isOrdered() ? Value::orderedSet(std::move(live)) : Value::set(std::move(live)));
  return true;
}

void cvFixRelations(ManagedObject& object) {
  for (const RelationshipDescription* relationship : object.entity().relationships()) {
    const RelationshipDescription* inverse = relationship->inverseRelationship();
    // Without an inverse there is nothing to check against.
    if (inverse == nullptr || relationship->isOrdered()) continue;
    if (relationship->isToMany()) {
      fixToMany(object, *relationship, *inverse);
    } else {
      fixToOne(object, *relationship, *inverse);
    }
  }
}

bool cvCheckRelation(const ManagedObject& object, const RelationshipDescription& relationship,
                     const ManagedObject& target) {
  const RelationshipDescription* own = object.entity().relationship(relationship.name());
  if (own == nullptr) return false;
  if (own->isToMany() && own->isOrdered()) return true;
  Value v = readPrimitive(object, own->name());
  const Value expected = Value::object(const_cast<ManagedObject*>(&target));
  return own->isToMany() ? v.contains(expected) : managedObjectOf(v) == &target;
}

}  // namespace corvane
