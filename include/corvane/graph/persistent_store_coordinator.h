// corvane::PersistentStoreCoordinator — joins a model to the persistent stores that hold its
// objects, and serialises the contexts' calls into those stores.
//
//   auto coordinator = std::make_shared<PersistentStoreCoordinator>(model);
//   Error error;
//   if (!coordinator->addPersistentStore(kInMemoryStoreType, "", "", Value(), &error)) { ... }
//
// Store types are registered by name (registerStoreType); the in-memory store is registered
// as kInMemoryStoreType from the start. Subclass the coordinator to change how object-ID URIs
// are resolved (managedObjectIDForURIRepresentation).
//
// Threads: every method may be called from any thread. Calls into stores are made under the
// coordinator's recursive lock, one at a time.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"
#include "corvane/graph/persistent_store.h"

namespace corvane {

class ObjectModel;

class PersistentStoreCoordinator {
 public:
  using StoreFactory = std::function<std::unique_ptr<IncrementalStore>(PersistentStoreCoordinator* coordinator,
                                                                       const std::string& configurationName,
                                                                       const std::string& url, const Value& options)>;

  explicit PersistentStoreCoordinator(std::shared_ptr<const ObjectModel> model);
  virtual ~PersistentStoreCoordinator();
  PersistentStoreCoordinator(const PersistentStoreCoordinator&) = delete;
  PersistentStoreCoordinator& operator=(const PersistentStoreCoordinator&) = delete;

  // The process-wide registry of store types. Registering a name again replaces its factory.
  static void registerStoreType(const std::string& type, StoreFactory factory);
  static bool isStoreTypeRegistered(const std::string& type);

  const std::shared_ptr<const ObjectModel>& managedObjectModel() const { return model_; }

  // Makes a store of the registered type, loads its metadata and adds it. Returns the store
  // (owned by the coordinator), or nullptr and an error for an unknown type or a store that
  // refuses to load.
  IncrementalStore* addPersistentStore(const std::string& type, const std::string& configurationName,
                                       const std::string& url, const Value& options, Error* error = nullptr);
  bool removePersistentStore(IncrementalStore* store, Error* error = nullptr);
  std::vector<IncrementalStore*> persistentStores() const;
  IncrementalStore* persistentStoreForURL(const std::string& url) const;

  // The object ID named by a URI from ObjectID::uriRepresentation(), or the null ID. The
  // entity is the second-to-last path component, the reference the last one without its "p".
  virtual ObjectID managedObjectIDForURIRepresentation(const std::string& uri) const;

  // Sends a request to the stores: a fetch to every store (results joined, and sorted and
  // cut again when several stores answer), a save to the stores of its objects.
  std::optional<Value> executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                      Error* error = nullptr);
  std::unique_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ObjectID& id, ManagedObjectContext* context,
                                                                 Error* error = nullptr);
  std::optional<Value> newValueForRelationship(const RelationshipDescription& relationship, const ObjectID& id,
                                               ManagedObjectContext* context, Error* error = nullptr);
  // Permanent IDs for inserted objects, from the first store.
  std::optional<std::vector<ObjectID>> obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects,
                                                                    Error* error = nullptr);
  void didUnregisterObjectIDs(const std::vector<ObjectID>& ids);

  // The lock under which stores are called; hold it to run several store calls as one.
  std::recursive_mutex& lock() const { return mutex_; }

 private:
  std::shared_ptr<const ObjectModel> model_;
  mutable std::recursive_mutex mutex_;
  std::vector<std::unique_ptr<IncrementalStore>> stores_;
};

}  // namespace corvane
