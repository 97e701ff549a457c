#include "corvane/graph/object_id.h"

#include <atomic>
#include <typeinfo>

#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store.h"

namespace corvane {

namespace {

class ObjectIDNode final : public Object {
 public:
  ObjectIDNode(const EntityDescription* e, Value ref, PersistentStore* s, bool temp)
      : entity(e), reference(std::move(ref)), store(s), temporary(temp) {
    hashCode = std::hash<const void*>()(e) ^ (reference.hash() * 31) ^ (temp ? 0x9e3779b9u : 0u);
  }

  std::string className() const override { return "NSManagedObjectID"; }
  bool isEqualTo(const Object& other) const override {
    return typeid(other) == typeid(ObjectIDNode) && equals(static_cast<const ObjectIDNode&>(other));
  }
  bool equals(const ObjectIDNode& o) const {
    return this == &o || (o.hashCode == hashCode && o.entity == entity && o.temporary == temporary &&
                          o.store == store && o.reference == reference);
  }
  size_t hashValue() const override { return hashCode; }
  std::string description() const override;

  const EntityDescription* entity;
  Value reference;
  PersistentStore* store;
  bool temporary;
  size_t hashCode;
};

const ObjectIDNode* nodeOf(const Value& v) { return static_cast<const ObjectIDNode*>(v.objectPointer()); }

// Temporary references are a per-process UUID and a counter: unique without a trip to the
// random source per object.
const std::string& processPrefix() {
  static const std::string prefix = Env::defaultEnv()->newUUIDString();
  return prefix;
}

std::string uriOf(const ObjectIDNode& node) {
  std::string uri = std::string(kObjectIDURIScheme) + "://";
  if (!node.temporary && node.store != nullptr) uri += node.store->identifier();
  uri += "/";
  uri += node.entity != nullptr ? node.entity->name() : std::string();
  uri += node.temporary ? "/t" + processPrefix() + "-" : "/p";
  uri += node.reference.isString() ? node.reference.str() : node.reference.description();
  return uri;
}

std::string ObjectIDNode::description() const { return uriOf(*this); }

}  // namespace

ObjectID ObjectID::makeTemporary(const EntityDescription* entity) {
  static std::atomic<int64_t> counter{0};
  Value ref = Value::number(NumberKind::LongLong, ++counter);
  return ObjectID(Value::object(new ObjectIDNode(entity, ref, nullptr, true)));
}

ObjectID ObjectID::makePermanent(const EntityDescription* entity, const Value& reference, PersistentStore* store) {
  return ObjectID(Value::object(new ObjectIDNode(entity, reference, store, false)));
}

ObjectID ObjectID::fromValue(const Value& value) {
  if (!value.isObject() || dynamic_cast<const ObjectIDNode*>(value.objectPointer()) == nullptr) return ObjectID();
  return ObjectID(value);
}

const EntityDescription* ObjectID::entity() const { return isNull() ? nullptr : nodeOf(value_)->entity; }

const Value& ObjectID::referenceObject() const {
  static const Value nil;
  return isNull() ? nil : nodeOf(value_)->reference;
}

bool ObjectID::isTemporaryID() const { return !isNull() && nodeOf(value_)->temporary; }

PersistentStore* ObjectID::persistentStore() const { return isNull() ? nullptr : nodeOf(value_)->store; }

std::string ObjectID::uriRepresentation() const { return isNull() ? std::string() : uriOf(*nodeOf(value_)); }

size_t ObjectID::hash() const { return isNull() ? 0 : nodeOf(value_)->hashCode; }

bool operator==(const ObjectID& a, const ObjectID& b) {
  if (a.value_.isSameNode(b.value_)) return true;
  if (a.isNull() || b.isNull()) return a.isNull() && b.isNull();
  return nodeOf(a.value_)->equals(*nodeOf(b.value_));
}

}  // namespace corvane
