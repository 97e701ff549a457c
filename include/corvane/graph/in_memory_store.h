// corvane::InMemoryStore — a persistent store that keeps objects in memory, registered as
// kInMemoryStoreType. It makes the object graph testable on its own and is the reference
// behaviour for other stores: what it answers for a request is what a store should answer.
//
// References are integers (1, 2, ...), so object-ID URIs look like
// "x-corvane://<store UUID>/Note/p42". Nothing survives the store.
//
// Threads: called by the coordinator under its lock.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "corvane/graph/persistent_store.h"

namespace corvane {

inline constexpr const char* kInMemoryStoreType = "InMemory";

class InMemoryStore final : public IncrementalStore {
 public:
  InMemoryStore(PersistentStoreCoordinator* coordinator, std::string configurationName, std::string url, Value options);
  ~InMemoryStore() override;

  std::string type() const override { return kInMemoryStoreType; }
  bool loadMetadata(Error* error) override;
  std::optional<Value> executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                      Error* error) override;
  std::unique_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ObjectID& objectID,
                                                                 ManagedObjectContext* context, Error* error) override;
  std::optional<Value> newValueForRelationship(const RelationshipDescription& relationship, const ObjectID& objectID,
                                               ManagedObjectContext* context, Error* error) override;
  std::optional<std::vector<ObjectID>> obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects,
                                                                    Error* error) override;
  Value referenceObjectForURIComponent(const std::string& component) const override;

  // Number of objects held (all entities).
  size_t objectCount() const;

 private:
  struct Record;
  class Candidate;
  struct EntityTable;

  std::optional<Value> executeFetch(const FetchRequest& request, ManagedObjectContext* context, Error* error);
  std::optional<Value> executeSave(const SaveChangesRequest& request, Error* error);
  // Where the record of a reference lives; references index locations_ directly.
  struct Location {
    EntityTable* table = nullptr;
    size_t position = 0;
  };

  EntityTable& tableFor(const EntityDescription* entity);
  Record* find(const ObjectID& id);
  void put(int64_t reference, Record record);
  void erase(int64_t reference);

  std::unordered_map<const EntityDescription*, std::unique_ptr<EntityTable>> tables_;
  std::vector<Location> locations_;
  int64_t nextReference_ = 1;
};

}  // namespace corvane
