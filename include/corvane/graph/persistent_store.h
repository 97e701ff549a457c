// Persistent stores: where a coordinator keeps objects. A store type implements
// IncrementalStore and registers itself with PersistentStoreCoordinator::registerStoreType.
//
// The protocol, as a coordinator uses it:
//   1. The coordinator makes the store through the registered factory and calls
//      loadMetadata(); the store checks its location and sets its metadata, which must hold
//      "NSStoreType" (the type name) and "NSStoreUUID" (the store's identity, used in
//      object-ID URIs). A false answer refuses the store.
//   2. executeRequest() answers FetchRequests (see fetch_request.h for the forms of the
//      answer; object results are made with context->objectWithID(id)) and
//      SaveChangesRequests (write the inserted, updated and deleted objects; answer an empty
//      array). Read an object's values with primitiveValue(): to-one relationships are
//      managed objects (use their objectID()), to-many ones sets or ordered sets of them;
//      changedValues() and committedValues() tell what a save changes.
//   3. newValuesForObjectWithID() answers a node with the object's attribute values and
//      to-one relationships (as object-ID values, nil or absent when empty) and a version;
//      to-many relationships are read separately through newValueForRelationship(), which
//      answers a set (or, for ordered relationships, an array or ordered set) of object-ID
//      values, or for a to-one relationship an object-ID value or nil.
//   4. obtainPermanentIDsForObjects() gives newly inserted objects their permanent IDs (one
//      per object, in order) before a save reaches executeRequest().
//   5. newObjectIDForEntity(entity, reference) and referenceObjectForObjectID(id) convert
//      between the store's reference objects (for the file-backed store, UID strings) and IDs.
//
// Threads: the coordinator serialises every call into a store under its own lock, so a store
// is never entered by two threads at once through the coordinator; the calls arrive on the
// queues of the requesting contexts. A context passed in may be used during the call (it is
// on its own queue then).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class EntityDescription;
class ManagedObject;
class ManagedObjectContext;
class PersistentStoreCoordinator;
class RelationshipDescription;

inline constexpr const char* kStoreTypeKey = "NSStoreType";
inline constexpr const char* kStoreUUIDKey = "NSStoreUUID";

// The values of one object as a store knows them.
class IncrementalStoreNode {
 public:
  // `values`: a dictionary from property name to value (to-one relationships as object-ID
  // values; to-many relationships may be left out).
  IncrementalStoreNode(ObjectID objectID, Value values, uint64_t version)
      : objectID_(std::move(objectID)), values_(std::move(values)), version_(version) {}
  virtual ~IncrementalStoreNode() = default;

  const ObjectID& objectID() const { return objectID_; }
  const Value& values() const { return values_; }
  uint64_t version() const { return version_; }
  const Value& valueForPropertyName(std::string_view name) const { return values_[name]; }
  void updateWithValues(Value values, uint64_t version) {
    values_ = std::move(values);
    version_ = version;
  }

 private:
  ObjectID objectID_;
  Value values_;
  uint64_t version_;
};

class PersistentStore {
 public:
  PersistentStore(PersistentStoreCoordinator* coordinator, std::string configurationName, std::string url,
                  Value options);
  virtual ~PersistentStore();
  PersistentStore(const PersistentStore&) = delete;
  PersistentStore& operator=(const PersistentStore&) = delete;

  // The registered type name, "InMemory", "CorvaneStore", ...
  virtual std::string type() const = 0;
  PersistentStoreCoordinator* persistentStoreCoordinator() const { return coordinator_; }
  const std::string& configurationName() const { return configurationName_; }
  const std::string& url() const { return url_; }
  void setURL(std::string url) { url_ = std::move(url); }
  const Value& options() const { return options_; }
  // The metadata's "NSStoreUUID".
  std::string identifier() const;

  // The store's metadata dictionary. Any thread; the base keeps it under its own lock.
  virtual Value metadata() const;
  virtual void setMetadata(const Value& metadata);

  // Called after the coordinator added the store / before it removes it.
  virtual void didAddToPersistentStoreCoordinator(PersistentStoreCoordinator*) {}
  virtual void willRemoveFromPersistentStoreCoordinator(PersistentStoreCoordinator*) {}

 private:
  PersistentStoreCoordinator* coordinator_;
  std::string configurationName_;
  std::string url_;
  Value options_;
  mutable std::mutex metadataMutex_;
  Value metadata_;
};

class IncrementalStore : public PersistentStore {
 public:
  using PersistentStore::PersistentStore;

  virtual bool loadMetadata(Error* error) = 0;
  virtual std::optional<Value> executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                              Error* error) = 0;
  virtual std::unique_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ObjectID& objectID,
                                                                         ManagedObjectContext* context,
                                                                         Error* error) = 0;
  virtual std::optional<Value> newValueForRelationship(const RelationshipDescription& relationship,
                                                       const ObjectID& objectID, ManagedObjectContext* context,
                                                       Error* error) = 0;
  virtual std::optional<std::vector<ObjectID>> obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects,
                                                                            Error* error) = 0;

  // An ID of this store for the reference (null when the entity is null). Override to
  // refuse IDs, as a closed store does.
  virtual ObjectID newObjectIDForEntity(const EntityDescription* entity, const Value& referenceObject);
  // The reference of an ID this store made (nil for other IDs).
  Value referenceObjectForObjectID(const ObjectID& objectID) const;
  // The reference written in an object-ID URI (after the "p"), turned back into the store's
  // reference object. The base answers the text as a string.
  virtual Value referenceObjectForURIComponent(const std::string& component) const { return Value(component); }

  // Told (on the context's queue) when a context lets objects of this store go (after a
  // save, a reset, or when the context is destroyed), so that a store with a cache can
  // drop what no context needs any more.
  virtual void managedObjectContextDidUnregisterObjectsWithIDs(const std::vector<ObjectID>&) {}
};

}  // namespace corvane
