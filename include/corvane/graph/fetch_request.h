// Requests that a context sends to its persistent stores: FetchRequest and SaveChangesRequest.
//
//   FetchRequest request("Note");
//   request.setPredicate(*Predicate::parse("title BEGINSWITH[c] %@", {Value("gro")}));
//   request.setSortDescriptors({SortDescriptor("created", false)});
//   request.setFetchLimit(20);
//   auto notes = context->fetch(request, &error);
//
// A store answers a fetch with an array: of managed objects (result type ManagedObject), of
// object IDs as values (ManagedObjectID), of dictionaries (Dictionary: property name → value,
// to-one relationships as object IDs; only propertiesToFetch when given; with
// propertiesToGroupBy one dictionary per distinct combination of those properties), or
// holding one number (Count). A save request lists the objects to write; the store answers
// with an empty array.
//
// Threads: requests are plain values; build them anywhere, use them on the context's queue.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "corvane/graph/managed_object.h"
#include "corvane/graph/predicate.h"
#include "corvane/graph/sort_descriptor.h"

namespace corvane {

class EntityDescription;

// The platform's numbers.
enum class RequestType : int { Fetch = 1, Save = 2 };
enum class FetchResultType : int { ManagedObject = 0, ManagedObjectID = 1, Dictionary = 2, Count = 4 };

class PersistentStoreRequest {
 public:
  virtual ~PersistentStoreRequest() = default;
  virtual RequestType requestType() const = 0;
};

class FetchRequest final : public PersistentStoreRequest {
 public:
  explicit FetchRequest(std::string entityName = {}) : entityName_(std::move(entityName)) {}
  RequestType requestType() const override { return RequestType::Fetch; }

  const std::string& entityName() const { return entityName_; }
  void setEntityName(std::string name) { entityName_ = std::move(name); }
  // Nullopt: every object of the entity.
  const std::optional<Predicate>& predicate() const { return predicate_; }
  void setPredicate(std::optional<Predicate> predicate) { predicate_ = std::move(predicate); }
  const std::vector<SortDescriptor>& sortDescriptors() const { return sortDescriptors_; }
  void setSortDescriptors(std::vector<SortDescriptor> descriptors) { sortDescriptors_ = std::move(descriptors); }
  // 0: no limit. The first objects after sorting are kept.
  size_t fetchLimit() const { return fetchLimit_; }
  void setFetchLimit(size_t limit) { fetchLimit_ = limit; }
  FetchResultType resultType() const { return resultType_; }
  void setResultType(FetchResultType type) { resultType_ = type; }
  // Whether objects of sub-entities are found too (default true).
  bool includesSubentities() const { return includesSubentities_; }
  void setIncludesSubentities(bool include) { includesSubentities_ = include; }
  // Whether unsaved changes of the context count (default true; ignored for dictionaries).
  bool includesPendingChanges() const { return includesPendingChanges_; }
  void setIncludesPendingChanges(bool include) { includesPendingChanges_ = include; }
  // Dictionary results: the properties to put in each dictionary (all when empty).
  const std::vector<std::string>& propertiesToFetch() const { return propertiesToFetch_; }
  void setPropertiesToFetch(std::vector<std::string> names) { propertiesToFetch_ = std::move(names); }
  // A request with properties to group by answers dictionaries, one per group.
  const std::vector<std::string>& propertiesToGroupBy() const { return propertiesToGroupBy_; }
  void setPropertiesToGroupBy(std::vector<std::string> names) { propertiesToGroupBy_ = std::move(names); }

  // The entity, set by the context before the request reaches a store (nullptr before).
  const EntityDescription* entity() const { return entity_; }
  void setEntity(const EntityDescription* entity) { entity_ = entity; }
  // The entity and, when includesSubentities, all of its sub-entities.
  std::vector<const EntityDescription*> searchedEntities() const;

 private:
  std::string entityName_;
  std::optional<Predicate> predicate_;
  std::vector<SortDescriptor> sortDescriptors_;
  size_t fetchLimit_ = 0;
  FetchResultType resultType_ = FetchResultType::ManagedObject;
  bool includesSubentities_ = true;
  bool includesPendingChanges_ = true;
  std::vector<std::string> propertiesToFetch_;
  std::vector<std::string> propertiesToGroupBy_;
  const EntityDescription* entity_ = nullptr;
};

class SaveChangesRequest final : public PersistentStoreRequest {
 public:
  SaveChangesRequest(std::vector<Retained<ManagedObject>> inserted, std::vector<Retained<ManagedObject>> updated,
                     std::vector<Retained<ManagedObject>> deleted)
      : inserted_(std::move(inserted)), updated_(std::move(updated)), deleted_(std::move(deleted)) {}
  RequestType requestType() const override { return RequestType::Save; }

  const std::vector<Retained<ManagedObject>>& insertedObjects() const { return inserted_; }
  const std::vector<Retained<ManagedObject>>& updatedObjects() const { return updated_; }
  const std::vector<Retained<ManagedObject>>& deletedObjects() const { return deleted_; }

 private:
  std::vector<Retained<ManagedObject>> inserted_, updated_, deleted_;
};

}  // namespace corvane
