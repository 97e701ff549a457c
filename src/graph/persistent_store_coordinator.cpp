#include "corvane/graph/persistent_store_coordinator.h"

#include <map>

#include "corvane/foundation/env.h"
#include "corvane/graph/in_memory_store.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/object_model.h"

namespace corvane {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, PersistentStoreCoordinator::StoreFactory> factories;
};

Registry& registry() {
  static Registry* r = [] {
    auto* made = new Registry;
    made->factories[kInMemoryStoreType] = [](PersistentStoreCoordinator* c, const std::string& configuration,
                                             const std::string& url, const Value& options) {
      return std::unique_ptr<IncrementalStore>(new InMemoryStore(c, configuration, url, options));
    };
    return made;
  }();
  return *r;
}

Error coordinatorError(const std::string& text) { return Error(kCocoaErrorDomain, 134000, text); }

}  // namespace

void PersistentStoreCoordinator::registerStoreType(const std::string& type, StoreFactory factory) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.factories[type] = std::move(factory);
}

bool PersistentStoreCoordinator::isStoreTypeRegistered(const std::string& type) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.factories.count(type) != 0;
}

PersistentStoreCoordinator::PersistentStoreCoordinator(std::shared_ptr<const ObjectModel> model)
    : model_(std::move(model)) {
  if (!model_ || !model_->isFinalized()) {
    throw Exception("NSInvalidArgumentException", "A coordinator needs a finalized object model");
  }
}

PersistentStoreCoordinator::~PersistentStoreCoordinator() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto& store : stores_) store->willRemoveFromPersistentStoreCoordinator(this);
}

IncrementalStore* PersistentStoreCoordinator::addPersistentStore(const std::string& type,
                                                                 const std::string& configurationName,
                                                                 const std::string& url, const Value& options,
                                                                 Error* error) {
  StoreFactory factory;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(type);
    if (it != r.factories.end()) factory = it->second;
  }
  if (!factory) {
    setError(error, coordinatorError("Unknown store type \"" + type + "\""));
    return nullptr;
  }
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::unique_ptr<IncrementalStore> store = factory(this, configurationName, url, options);
  if (!store) {
    setError(error, coordinatorError("The store of type \"" + type + "\" could not be made"));
    return nullptr;
  }
  if (!store->loadMetadata(error)) return nullptr;
  // A store that forgot its identity still gets one, so that its object IDs have URIs.
  Value metadata = store->metadata();
  if (!metadata[kStoreUUIDKey].isString() || !metadata[kStoreTypeKey].isString()) {
    Value filled = metadata.isDictionary() ? metadata.mutableCopy() : Value::mutableDictionary();
    if (!filled[kStoreUUIDKey].isString()) filled.set(Value(kStoreUUIDKey), Value(Env::defaultEnv()->newUUIDString()));
    if (!filled[kStoreTypeKey].isString()) filled.set(Value(kStoreTypeKey), Value(type));
    store->setMetadata(filled.copy());
  }
  IncrementalStore* added = store.get();
  stores_.push_back(std::move(store));
  added->didAddToPersistentStoreCoordinator(this);
  return added;
}

bool PersistentStoreCoordinator::removePersistentStore(IncrementalStore* store, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto it = stores_.begin(); it != stores_.end(); ++it) {
    if (it->get() == store) {
      store->willRemoveFromPersistentStoreCoordinator(this);
      stores_.erase(it);
      return true;
    }
  }
  return setError(error, coordinatorError("The store is not one of this coordinator's stores"));
}

std::vector<IncrementalStore*> PersistentStoreCoordinator::persistentStores() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::vector<IncrementalStore*> out;
  for (const auto& s : stores_) out.push_back(s.get());
  return out;
}

IncrementalStore* PersistentStoreCoordinator::persistentStoreForURL(const std::string& url) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (const auto& s : stores_) {
    if (s->url() == url) return s.get();
  }
  return nullptr;
}

ObjectID PersistentStoreCoordinator::managedObjectIDForURIRepresentation(const std::string& uri) const {
  const std::string prefix = std::string(kObjectIDURIScheme) + "://";
  if (uri.compare(0, prefix.size(), prefix) != 0) return ObjectID();
  std::string rest = uri.substr(prefix.size());
  size_t slash = rest.find('/');
  if (slash == std::string::npos) return ObjectID();
  std::string storeID = rest.substr(0, slash);
  std::string path = rest.substr(slash + 1);
  size_t last = path.rfind('/');
  if (last == std::string::npos || last == 0) return ObjectID();
  size_t before = path.rfind('/', last - 1);
  std::string entityName =
      path.substr(before == std::string::npos ? 0 : before + 1, last - (before == std::string::npos ? 0 : before + 1));
  std::string reference = path.substr(last + 1);
  // Temporary IDs live only in the context that made them.
  if (reference.size() < 2 || reference[0] != 'p') return ObjectID();
  const EntityDescription* entity = model_->entity(entityName);
  if (entity == nullptr) return ObjectID();
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (const auto& s : stores_) {
    if (s->identifier() == storeID) {
      return s->newObjectIDForEntity(entity, s->referenceObjectForURIComponent(reference.substr(1)));
    }
  }
  return ObjectID();
}

std::optional<Value> PersistentStoreCoordinator::executeRequest(const PersistentStoreRequest& request,
                                                                ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (stores_.empty()) {
    setError(error, coordinatorError("The coordinator has no persistent stores"));
    return std::nullopt;
  }
  if (request.requestType() == RequestType::Fetch) {
    if (stores_.size() == 1) return stores_[0]->executeRequest(request, context, error);
    const auto& fetch = static_cast<const FetchRequest&>(request);
    std::vector<Value> joined;
    long long total = 0;
    for (auto& store : stores_) {
      auto part = store->executeRequest(request, context, error);
      if (!part) return std::nullopt;
      if (fetch.resultType() == FetchResultType::Count) {
        total += part->at(0).longLongValue();
      } else {
        joined.insert(joined.end(), part->elements().begin(), part->elements().end());
      }
    }
    if (fetch.resultType() == FetchResultType::Count) return Value::array({Value(total)});
    if (!fetch.sortDescriptors().empty() && fetch.resultType() != FetchResultType::ManagedObjectID) {
      std::vector<std::unique_ptr<DictionaryObject>> holders;
      std::vector<const Object*> objects;
      for (const Value& v : joined) {
        if (v.isObject()) {
          objects.push_back(v.objectPointer());
        } else {
          holders.push_back(std::make_unique<DictionaryObject>(v));
          objects.push_back(holders.back().get());
        }
      }
      std::vector<size_t> order = sortOrder(objects, fetch.sortDescriptors());
      std::vector<Value> sorted;
      sorted.reserve(order.size());
      for (size_t i : order) sorted.push_back(joined[i]);
      joined.swap(sorted);
    }
    if (fetch.fetchLimit() != 0 && joined.size() > fetch.fetchLimit()) joined.resize(fetch.fetchLimit());
    return Value::array(std::move(joined));
  }
  if (request.requestType() == RequestType::Save) {
    if (stores_.size() == 1) return stores_[0]->executeRequest(request, context, error);
    const auto& save = static_cast<const SaveChangesRequest&>(request);
    for (auto& store : stores_) {
      auto mine = [&](const std::vector<Retained<ManagedObject>>& objects) {
        std::vector<Retained<ManagedObject>> out;
        for (const auto& o : objects) {
          PersistentStore* s = o->objectID().persistentStore();
          if (s == store.get() || (s == nullptr && store == stores_.front())) out.push_back(o);
        }
        return out;
      };
      SaveChangesRequest part(mine(save.insertedObjects()), mine(save.updatedObjects()), mine(save.deletedObjects()));
      if (part.insertedObjects().empty() && part.updatedObjects().empty() && part.deletedObjects().empty()) continue;
      if (!store->executeRequest(part, context, error)) return std::nullopt;
    }
    return Value::array();
  }
  setError(error, coordinatorError("Unsupported request type"));
  return std::nullopt;
}

std::unique_ptr<IncrementalStoreNode> PersistentStoreCoordinator::newValuesForObjectWithID(
    const ObjectID& id, ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto& store : stores_) {
    if (store.get() == id.persistentStore()) return store->newValuesForObjectWithID(id, context, error);
  }
  setError(error, coordinatorError("The object's store is not one of this coordinator's stores"));
  return nullptr;
}

std::optional<Value> PersistentStoreCoordinator::newValueForRelationship(const RelationshipDescription& relationship,
                                                                         const ObjectID& id,
                                                                         ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto& store : stores_) {
    if (store.get() == id.persistentStore()) return store->newValueForRelationship(relationship, id, context, error);
  }
  setError(error, coordinatorError("The object's store is not one of this coordinator's stores"));
  return std::nullopt;
}

std::optional<std::vector<ObjectID>> PersistentStoreCoordinator::obtainPermanentIDsForObjects(
    const std::vector<ManagedObject*>& objects, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (stores_.empty()) {
    setError(error, coordinatorError("The coordinator has no persistent stores"));
    return std::nullopt;
  }
  auto ids = stores_.front()->obtainPermanentIDsForObjects(objects, error);
  if (ids && ids->size() != objects.size()) {
    setError(error, coordinatorError("The store answered the wrong number of permanent IDs"));
    return std::nullopt;
  }
  return ids;
}

void PersistentStoreCoordinator::didUnregisterObjectIDs(const std::vector<ObjectID>& ids) {
  if (ids.empty()) return;
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto& store : stores_) {
    std::vector<ObjectID> mine;
    for (const auto& id : ids) {
      if (id.persistentStore() == store.get()) mine.push_back(id);
    }
    if (!mine.empty()) store->managedObjectContextDidUnregisterObjectsWithIDs(mine);
  }
}

}  // namespace corvane
