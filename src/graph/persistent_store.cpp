#include "corvane/graph/persistent_store.h"

#include "corvane/graph/object_model.h"

namespace corvane {

PersistentStore::PersistentStore(PersistentStoreCoordinator* coordinator, std::string configurationName,
                                 std::string url, Value options)
    : coordinator_(coordinator),
      configurationName_(std::move(configurationName)),
      url_(std::move(url)),
      options_(std::move(options)) {}

PersistentStore::~PersistentStore() = default;

std::string PersistentStore::identifier() const {
  Value m = metadata();
  return m[kStoreUUIDKey].isString() ? m[kStoreUUIDKey].str() : std::string();
}

Value PersistentStore::metadata() const {
  std::lock_guard<std::mutex> lock(metadataMutex_);
  return metadata_;
}

void PersistentStore::setMetadata(const Value& metadata) {
  std::lock_guard<std::mutex> lock(metadataMutex_);
  metadata_ = metadata.isMutable() ? metadata.copy() : metadata;
}

ObjectID IncrementalStore::newObjectIDForEntity(const EntityDescription* entity, const Value& referenceObject) {
  if (entity == nullptr || referenceObject.isNil()) return ObjectID();
  return ObjectID::makePermanent(entity, referenceObject, this);
}

Value IncrementalStore::referenceObjectForObjectID(const ObjectID& objectID) const {
  if (objectID.isTemporaryID() || objectID.persistentStore() != this) return Value();
  return objectID.referenceObject();
}

}  // namespace corvane
