// corvane::ObjectID — the identity of one managed object.
//
// An ID names an entity and a reference object. A temporary ID is given to an object when it
// is inserted and is unique in the process; a permanent ID is made by a persistent store and
// carries the store's reference (for the file-backed store, the object's UID string). The URI
// form is "x-corvane://<store identifier>/<Entity>/p<reference>" for permanent IDs and
// "x-corvane:///<Entity>/t<reference>" for temporary ones, so the last two path components
// are always the entity name and the (prefixed) reference.
//
// IDs are small immutable handles: cheap to copy, comparable, hashable, usable as keys, and
// wrapped in a corvane::Value (asValue / fromValue) where a dynamic value is needed (a store's
// relationship values, notification user info). Two IDs are equal when entity, store,
// temporary flag and reference are equal.
//
// A permanent ID points at the store that made it: ask for its URI (which reads the store's
// identity) only while that store is still added to its coordinator; to keep an object's
// identity beyond that, keep the URI.
//
// Threads: IDs may be copied, compared and read on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "corvane/foundation/value.h"

namespace corvane {

class EntityDescription;
class PersistentStore;

class ObjectID {
 public:
  ObjectID() = default;  // the null ID

  // A new temporary ID of the entity, unique in this process.
  static ObjectID makeTemporary(const EntityDescription* entity);
  // A permanent ID made by `store` for `reference`. Stores call this from
  // newObjectIDForEntity(); applications ask the coordinator or a store instead.
  static ObjectID makePermanent(const EntityDescription* entity, const Value& reference, PersistentStore* store);
  // The ID wrapped in `value`, or the null ID when the value does not hold one.
  static ObjectID fromValue(const Value& value);

  bool isNull() const { return value_.isNil(); }
  explicit operator bool() const { return !isNull(); }
  const EntityDescription* entity() const;
  const Value& referenceObject() const;
  bool isTemporaryID() const;
  PersistentStore* persistentStore() const;  // nullptr for temporary IDs
  std::string uriRepresentation() const;
  std::string description() const { return uriRepresentation(); }
  // An object value holding this ID; equal IDs give equal values.
  const Value& asValue() const { return value_; }

  size_t hash() const;
  friend bool operator==(const ObjectID& a, const ObjectID& b);
  friend bool operator!=(const ObjectID& a, const ObjectID& b) { return !(a == b); }

 private:
  explicit ObjectID(Value v) : value_(std::move(v)) {}
  Value value_;
};

struct ObjectIDHash {
  size_t operator()(const ObjectID& id) const noexcept { return id.hash(); }
};

// The URI scheme of object-ID URIs.
inline constexpr const char* kObjectIDURIScheme = "x-corvane";

}  // namespace corvane
