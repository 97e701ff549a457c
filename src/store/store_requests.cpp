// CorvaneStore: answering the object graph's requests from the local cache.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <unordered_map>

#include "corvane/cache/cache.h"
#include "corvane/cache/cache_collection.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_diagnostics.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

using store_internal::modelValueForAttribute;
using store_internal::storeError;

namespace {

// One candidate of a fetch. Predicates and sort descriptors ask it for values by key; it answers
// from the object's cache item, as the objects' own types, with related objects as the
// requesting context's objects. Its object ID is made only when something needs it: most
// candidates of a selective fetch are looked at once and dropped.
class CorvaneRequestItem final : public Object {
 public:
  CorvaneRequestItem(const EntityDescription* entity, Value uid, CorvaneCacheItemPtr cacheItem,
                     ManagedObjectContext* context, CorvaneStore* store)
      : entity_(entity), uid_(std::move(uid)), cacheItem_(std::move(cacheItem)), context_(context), store_(store) {}

  std::string className() const override { return "CorvaneRequestItem"; }
  // Points the candidate at another object (a fetch tries every object with one candidate and
  // keeps copies of those that match only).
  void reset(Value uid, CorvaneCacheItemPtr cacheItem) {
    uid_ = std::move(uid);
    cacheItem_ = std::move(cacheItem);
    objectID_ = ObjectID();
    attributes_ = Value();
    attributesRead_ = false;
  }
  CorvaneRequestItem(const CorvaneRequestItem& other)
      : Object(),
        entity_(other.entity_),
        uid_(other.uid_),
        cacheItem_(other.cacheItem_),
        context_(other.context_),
        store_(other.store_),
        objectID_(other.objectID_),
        attributes_(other.attributes_),
        attributesRead_(other.attributesRead_) {}
  const ObjectID& objectID() const {
    if (!objectID_) objectID_ = store_->newObjectIDForEntity(entity_, uid_);
    return objectID_;
  }

  bool isEqualTo(const Object& other) const override {
    if (const auto* item = dynamic_cast<const CorvaneRequestItem*>(&other)) return item->objectID() == objectID();
    if (const auto* object = dynamic_cast<const ManagedObject*>(&other)) return object->objectID() == objectID();
    return this == &other;
  }

  Value valueForKey(std::string_view key) const override {
    if (!cacheItem_) return Value();
    if (const AttributeDescription* attribute = entity_->attribute(key)) {
      // One read of the item's attributes serves every key a predicate asks for.
      if (!attributesRead_) {
        attributes_ = cacheItem_->attributes();
        attributesRead_ = true;
      }
      const Value& value = attributes_.lookup(key);
      if (!value.isNil() || attribute->attributeType() != AttributeType::BinaryData) {
        return modelValueForAttribute(*attribute, value);
      }
      return Value();
    }
    return objectsFor(cacheItem_->valueForKey(key, objectID(), store_, context_));
  }

  // All values of the object, as a fetch of dictionaries answers them.
  Value dictionary(const std::vector<std::string>& keys) const {
    if (!cacheItem_) return Value::dictionary();
    const Value all = cacheItem_->allValuesForObjectID(objectID(), store_, context_);
    Value out = Value::mutableDictionary();
    for (const auto& [key, value] : all.entries()) {
      if (!keys.empty() && std::find(keys.begin(), keys.end(), key.str()) == keys.end()) continue;
      const AttributeDescription* attribute = entity_->attribute(key.str());
      out.set(key, attribute != nullptr ? modelValueForAttribute(*attribute, value) : value);
    }
    return out.copy();
  }

 private:
  Value objectFor(const Value& value) const {
    ObjectID id = ObjectID::fromValue(value);
    if (!id || context_ == nullptr) return value;
    return Value::object(context_->objectWithID(id).get());
  }

  Value objectsFor(const Value& value) const {
    if (!value.isCollection()) return objectFor(value);
    std::vector<Value> members;
    members.reserve(value.count());
    for (const Value& member : value.elements()) members.push_back(objectFor(member));
    return value.isOrderedSet() ? Value::orderedSet(std::move(members)) : Value::set(std::move(members));
  }

  const EntityDescription* entity_;
  Value uid_;
  CorvaneCacheItemPtr cacheItem_;
  ManagedObjectContext* context_;
  CorvaneStore* store_;
  mutable ObjectID objectID_;
  mutable Value attributes_;
  mutable bool attributesRead_ = false;
};

// The refusal of a save while saves are blocked: the document was written by a newer version.
Error blockedSaveError(const Value& sessions, const std::string& applicationName) {
  std::string highest;
  double highestNumber = -1;
  for (const Value& session : sessions.elements()) {
    const Value& version = session["version"];
    if (version.isNil()) continue;
    const std::string text = version.isString() ? version.str() : version.description();
    const double number = std::strtod(text.c_str(), nullptr);
    if (highest.empty() || number > highestNumber) {
      highest = text;
      highestNumber = number;
    }
  }
  const std::string reason = fmt::format("Because it was created with a newer version of {}.", applicationName);
  Error error(kFrameworkBundleIdentifier, -1, reason, fmt::format("Please update to version {}.", highest));
  error.userInfo = dict({{"NSLocalizedFailureReason", Value(reason)}});
  return error;
}

}  // namespace

// ---- Dispatch -----------------------------------------------------------------------------------

std::optional<Value> CorvaneStore::executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                                  Error* error) {
  registerContext(context);
  try {
    if (request.requestType() == RequestType::Fetch) {
      return executeFetchRequest(static_cast<const FetchRequest&>(request), context);
    }
    if (request.requestType() == RequestType::Save) {
      if (state_->writer.blockSaves) {
        setError(error, blockedSaveError(StoreDiagnostics(*this).sessionInfo(),
                                         state_->environment->applicationOrCurrent().name));
        return std::nullopt;
      }
      return executeSaveRequest(static_cast<const SaveChangesRequest&>(request), context, error);
    }
  } catch (const Exception& e) {
    setError(error, storeError(e.name() + ": " + e.reason()));
    return std::nullopt;
  }
  setError(error, storeError("Unsupported request type"));
  return std::nullopt;
}

// ---- Fetches ------------------------------------------------------------------------------------

std::optional<Value> CorvaneStore::executeFetchRequest(const FetchRequest& request, ManagedObjectContext* context) {
  const bool counting = request.resultType() == FetchResultType::Count;
  if (!state_->cache->changeLog()) return counting ? Value::array({Value(0)}) : Value::array();
  const bool dictionaries =
      request.resultType() == FetchResultType::Dictionary || !request.propertiesToGroupBy().empty();
  const EntityDescription* entity = request.entity();
  if (entity == nullptr && context != nullptr) entity = context->entity(request.entityName());
  if (entity == nullptr) entity = entityForName(request.entityName());
  if (entity == nullptr) return counting ? Value::array({Value(0)}) : Value::array();

  const bool objects = request.resultType() == FetchResultType::ManagedObject && !dictionaries && !counting;
  const bool hasPredicate = request.predicate().has_value();
  const std::vector<const EntityDescription*> searched =
      request.includesSubentities() ? entity->selfAndAllSubentities() : std::vector<const EntityDescription*>{entity};
  if (objects && hasPredicate) {
    for (const EntityDescription* e : searched) state_->cache->loadCachesForEntity(*e);
  }
  const bool needsItems = hasPredicate || !request.sortDescriptors().empty() || dictionaries;

  std::deque<CorvaneRequestItem> found;  // candidates cannot move: sorting holds references
  size_t total = 0;
  for (const EntityDescription* e : searched) {
    const Value uids = state_->cache->objectUIDsForEntity(*e);
    if (counting && !hasPredicate) {
      total += uids.count();
      continue;
    }
    // The entity's object tables, read once for all candidates (a table hands out a snapshot
    // that later changes do not touch); an object missing from them is loaded on its own.
    std::unordered_map<std::string, Value> tables;
    CorvaneRequestItem candidate(e, Value(), CorvaneCacheItemPtr(), context, this);
    for (const Value& uid : uids.elements()) {
      CorvaneCacheItemPtr item;
      if (needsItems) {
        const std::string key = CorvaneCache::storeKey(e->name(), uid.str());
        auto table = tables.find(key);
        if (table == tables.end()) {
          auto collection = state_->cache->cacheForObjectID(newObjectIDForEntity(e, uid));
          table = tables.emplace(key, collection ? collection->content() : Value()).first;
        }
        item = CorvaneCacheItemPtr::fromValue(table->second.get(uid));
        if (!item) item = state_->cache->cacheItemForObjectID(newObjectIDForEntity(e, uid), context);
      }
      candidate.reset(uid, std::move(item));
      if (!hasPredicate || request.predicate()->evaluate(candidate)) found.push_back(candidate);
    }
  }
  if (counting && !hasPredicate) {
    if (request.fetchLimit() != 0) total = std::min(total, request.fetchLimit());
    return Value::array({Value(static_cast<long long>(total))});
  }

  std::vector<CorvaneRequestItem*> matches;
  matches.reserve(found.size());
  for (CorvaneRequestItem& item : found) matches.push_back(&item);
  if (!request.sortDescriptors().empty() && matches.size() > 1) {
    std::vector<const Object*> candidates(matches.begin(), matches.end());
    std::vector<size_t> order = sortOrder(candidates, request.sortDescriptors());
    std::vector<CorvaneRequestItem*> sorted;
    sorted.reserve(matches.size());
    for (size_t i : order) sorted.push_back(matches[i]);
    matches.swap(sorted);
  }
  if (request.fetchLimit() != 0 && matches.size() > request.fetchLimit()) matches.resize(request.fetchLimit());

  if (counting) return Value::array({Value(static_cast<long long>(matches.size()))});
  std::vector<Value> out;
  out.reserve(matches.size());
  for (CorvaneRequestItem* item : matches) {
    if (dictionaries) {
      out.push_back(item->dictionary(request.propertiesToFetch()));
    } else if (objects && context != nullptr) {
      out.push_back(Value::object(context->objectWithID(item->objectID()).get()));
    } else {
      out.push_back(item->objectID().asValue());
    }
  }
  return Value::array(std::move(out));
}

// ---- Values of one object -------------------------------------------------------------------------

std::unique_ptr<IncrementalStoreNode> CorvaneStore::newValuesForObjectWithID(const ObjectID& objectID,
                                                                             ManagedObjectContext* context,
                                                                             Error* error) {
  registerContext(context);
  const Value values = state_->cache->valuesForObjectID(objectID, context);
  if (values.isNil()) {
    setError(error, Error(kCocoaErrorDomain, 133000, "No object for " + objectID.uriRepresentation()));
    return nullptr;
  }
  const EntityDescription* entity = objectID.entity();
  Value converted = Value::mutableDictionary();
  for (const auto& [key, value] : values.entries()) {
    const AttributeDescription* attribute = entity != nullptr ? entity->attribute(key.str()) : nullptr;
    converted.set(key, attribute != nullptr ? modelValueForAttribute(*attribute, value) : value);
  }
  return std::make_unique<IncrementalStoreNode>(objectID, converted.copy(), 1);
}

std::optional<Value> CorvaneStore::newValueForRelationship(const RelationshipDescription& relationship,
                                                           const ObjectID& objectID, ManagedObjectContext* context,
                                                           Error* /*error*/) {
  if (storeUID(objectID).empty()) return Value();
  const Value all = state_->cache->allValuesForObjectID(objectID, context);
  const Value& value = all[relationship.name()];
  if (relationship.isToMany()) return value;
  auto idOrNil = [](const Value& v) { return ObjectID::fromValue(v) ? v : Value(); };
  if (ObjectID::fromValue(value)) return value;
  if (value.isArray() || value.isOrderedSet() || value.isSet()) return idOrNil(value.at(0));
  return Value();
}

ObjectID CorvaneStore::newObjectIDForEntity(const EntityDescription* entity, const Value& referenceObject) {
  if (entity == nullptr || state_->updates.closed || persistentStoreCoordinator() == nullptr) return ObjectID();
  // A UID names its object's folder: one read from another device's file that is no plain file
  // name (a reference "Person/../../x") gets no object, so it never reaches a path.
  if (referenceObject.isString() && !isPlainFileName(referenceObject.str())) return ObjectID();
  return IncrementalStore::newObjectIDForEntity(entity, referenceObject);
}

std::optional<std::vector<ObjectID>> CorvaneStore::obtainPermanentIDsForObjects(
    const std::vector<ManagedObject*>& objects, Error* /*error*/) {
  std::vector<ObjectID> ids;
  ids.reserve(objects.size());
  for (const ManagedObject* object : objects) {
    // UIDs are born here, unless one was chosen for the object.
    std::string uid;
    {
      MutexLock lock(&state_->objectIDs.mutex);
      if (auto chosen = state_->objectIDs.chosenUIDs.find(object); chosen != state_->objectIDs.chosenUIDs.end()) {
        uid = std::move(chosen->second);
        state_->objectIDs.chosenUIDs.erase(chosen);
      }
    }
    if (uid.empty()) uid = state_->env->newUUIDString();
    ids.push_back(IncrementalStore::newObjectIDForEntity(&object->entity(), Value(uid)));
  }
  return ids;
}

void CorvaneStore::setUIDForInsertedObject(const ManagedObject* object, std::string uid) {
  if (object == nullptr || !isPlainFileName(uid)) return;
  MutexLock lock(&state_->objectIDs.mutex);
  state_->objectIDs.chosenUIDs[object] = std::move(uid);
}

std::string CorvaneStore::uidForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  if (!objectID.isTemporaryID() || context == nullptr) return storeUID(objectID);
  Retained<ManagedObject> object = context->objectRegisteredForID(objectID);
  if (!object) return storeUID(objectID);
  context->obtainPermanentIDsForObjects({object.get()});
  return storeUID(object->objectID());
}

void CorvaneStore::managedObjectContextDidUnregisterObjectsWithIDs(const std::vector<ObjectID>& objectIDs) {
  // Contexts let these go: the large binary values they read can go too.
  state_->cache->compactObjectIDs(objectIDs);
}

// ---- Rebuilding one object from its files -------------------------------------------------------

CorvaneCacheItemPtr CorvaneStore::loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  return loadValuesForObjectID(objectID, context, std::string());
}

CorvaneCacheItemPtr CorvaneStore::loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context,
                                                        const std::string& upToChange) {
  const EntityDescription* entity = objectID.entity();
  const std::string uid = storeUID(objectID);
  if (entity == nullptr || uid.empty()) return {};
  return loadValuesForEntity(*entity, uid, context, upToChange);
}

std::vector<std::string> CorvaneStore::changesFilesFor(const EntityDescription& entity, const std::string& uid) {
  const std::optional<std::string> folder = pathJoinFileName(pathJoin(entitiesURL(), fileNameForEntity(entity)), uid);
  std::vector<std::string> names;
  if (!folder || !state_->env->listDirectory(*folder, true, &names, nullptr)) return {};
  const Value applied = state_->cache->changeNames();
  std::vector<std::string> files;
  for (const std::string& name : names) {
    if (applied.contains(Value(name))) files.push_back(pathJoin(*folder, name));
  }
  std::sort(files.begin(), files.end());
  return files;
}

CorvaneCacheItemPtr CorvaneStore::loadValuesForEntity(const EntityDescription& entity, const std::string& uid,
                                                      ManagedObjectContext* /*context*/,
                                                      const std::string& upToChange) {
  const auto start = std::chrono::steady_clock::now();
  const std::vector<std::string> files = changesFilesFor(entity, uid);
  if (files.empty()) return {};  // no applied change wrote this object: there is none
  CorvaneCacheItemPtr item = CorvaneCacheItem::create();
  for (const std::string& file : files) {
    if (!state_->volumes->isOnDisk(state_->env, file)) {
      addLoadingIssue(loadingIssueWithType(kLoadingIssueRemoteFile, file));
      return {};
    }
    std::optional<Bytes> bytes = store_internal::readBytes(state_->env, file);
    if (!bytes) {
      addLoadingIssue(loadingIssueWithType(kLoadingIssueMissingFile, file));
      return {};
    }
    std::optional<Bytes> plain = decrypt(*bytes);
    if (!plain) {
      addLoadingIssue(loadingIssueWithType(kLoadingIssueUndecryptableFile, file));
      return {};
    }
    std::optional<Value> parsed = jsonToValue(asStringView(*plain));
    if (!parsed || !parsed->isDictionary()) {
      addLoadingIssue(loadingIssueWithType(kLoadingIssueEmptyFile, file));
      return {};
    }
    try {
      item->updateValues((*parsed)["payload"], entity, file, (*parsed)["version"]);
    } catch (const Exception& e) {
      log(e.name() + ": " + e.reason(), kCorvaneLogTypeError);
      return {};
    }
    if (!upToChange.empty() && file.find(upToChange) != std::string::npos) break;
  }
  const double milliseconds =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (milliseconds > 5.0) {
    addLoadingIssue(loadingIssueWithType(kLoadingIssueLoadingPerformance, files.front(), Value(milliseconds)));
  }
  return item;
}

Value CorvaneStore::loadingIssueWithType(const std::string& type, const std::string& url, const Value& value) {
  Value issue = Value::mutableDictionary();
  issue.set(Value("type"), Value(type));
  issue.set(Value("url"), Value("file://" + url));
  if (!value.isNil()) issue.set(Value("value"), value);
  issue.set(Value("date"), Value::date(state_->env->now()));
  return issue.copy();
}

void CorvaneStore::addLoadingIssue(const Value& issue) {
  MutexLock lock(&state_->log.mutex);
  state_->log.loadingIssues.append(issue);
}

Value CorvaneStore::loadingIssues() const {
  MutexLock lock(&state_->log.mutex);
  return state_->log.loadingIssues.copy();
}

}  // namespace corvane
