#include "corvane/graph/in_memory_store.h"

#include <charconv>
#include <deque>

#include "corvane/foundation/env.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"

namespace corvane {

// One stored object: a value per property of its entity. Relationships hold object-ID
// values: to-one the target's ID (or nil), to-many an array of IDs in order.
struct InMemoryStore::Record {
  ObjectID id;
  const EntityDescription* entity = nullptr;  // id.entity(), kept at hand for fetches
  std::vector<Value> values;
  uint64_t version = 0;
};

// Records in one vector (fetches scan them). Deleting moves the last record into the hole.
struct InMemoryStore::EntityTable {
  std::vector<Record> records;
};

// A fetch candidate: answers keys from the stored values, turning IDs into the requesting
// context's objects so that key paths through relationships work.
class InMemoryStore::Candidate final : public Object {
 public:
  Candidate(const Record* record, ManagedObjectContext* context) : record_(record), context_(context) {}
  std::string className() const override { return "InMemoryStoreCandidate"; }

  Value valueForKey(std::string_view key) const override {
    const EntityDescription* entity = record_->entity;
    int i = entity->propertyIndex(key);
    if (i < 0) {
      throw Exception("NSUnknownKeyException", "the entity " + entity->name() +
                                                   " is not key value coding-compliant for the key \"" +
                                                   std::string(key) + "\"");
    }
    const Value& v = record_->values[static_cast<size_t>(i)];
    const PropertyDescription* p = entity->properties()[static_cast<size_t>(i)];
    if (!p->isRelationship() || context_ == nullptr) return v;
    if (!static_cast<const RelationshipDescription*>(p)->isToMany()) {
      ObjectID id = ObjectID::fromValue(v);
      return id ? Value::object(context_->objectWithID(id).get()) : Value();
    }
    std::vector<Value> members;
    for (const Value& e : v.elements())
      members.push_back(Value::object(context_->objectWithID(ObjectID::fromValue(e)).get()));
    return Value::set(std::move(members));
  }

 private:
  const Record* record_;
  ManagedObjectContext* context_;
};

namespace {

Error storeError(const std::string& text, int64_t code = 134030) { return Error(kCocoaErrorDomain, code, text); }

// The stored form of an object's value: IDs instead of objects.
Value storedForm(const Value& v, const PropertyDescription* p) {
  if (v.isNull()) return Value();  // how changed values show a value taken away
  if (!p->isRelationship()) return v;
  auto idValue = [](const Value& o) {
    const auto* mo = o.isObject() ? dynamic_cast<const ManagedObject*>(o.objectPointer()) : nullptr;
    return mo != nullptr ? mo->objectID().asValue() : Value();
  };
  if (!static_cast<const RelationshipDescription*>(p)->isToMany()) return idValue(v);
  std::vector<Value> ids;
  ids.reserve(v.count());
  for (const Value& m : v.elements()) ids.push_back(idValue(m));
  return Value::array(std::move(ids));
}

}  // namespace

InMemoryStore::InMemoryStore(PersistentStoreCoordinator* coordinator, std::string configurationName, std::string url,
                             Value options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url), std::move(options)) {}

InMemoryStore::~InMemoryStore() = default;

bool InMemoryStore::loadMetadata(Error*) {
  setMetadata(
      dict({{kStoreTypeKey, Value(kInMemoryStoreType)}, {kStoreUUIDKey, Value(Env::defaultEnv()->newUUIDString())}}));
  return true;
}

size_t InMemoryStore::objectCount() const {
  size_t n = 0;
  for (const auto& [entity, table] : tables_) n += table->records.size();
  return n;
}

InMemoryStore::EntityTable& InMemoryStore::tableFor(const EntityDescription* entity) {
  auto& slot = tables_[entity];
  if (!slot) slot = std::make_unique<EntityTable>();
  return *slot;
}

InMemoryStore::Record* InMemoryStore::find(const ObjectID& id) {
  if (id.persistentStore() != this || !id.referenceObject().isNumber()) return nullptr;
  int64_t reference = id.referenceObject().longLongValue();
  if (reference <= 0 || static_cast<size_t>(reference) >= locations_.size()) return nullptr;
  const Location& at = locations_[static_cast<size_t>(reference)];
  if (at.table == nullptr) return nullptr;
  Record& record = at.table->records[at.position];
  return record.entity == id.entity() ? &record : nullptr;
}

void InMemoryStore::put(int64_t reference, Record record) {
  if (static_cast<size_t>(reference) >= locations_.size()) locations_.resize(static_cast<size_t>(reference) + 1);
  Location& at = locations_[static_cast<size_t>(reference)];
  if (at.table != nullptr) {
    at.table->records[at.position] = std::move(record);
    return;
  }
  EntityTable& table = tableFor(record.entity);
  at = Location{&table, table.records.size()};
  table.records.push_back(std::move(record));
}

void InMemoryStore::erase(int64_t reference) {
  Location& at = locations_[static_cast<size_t>(reference)];
  std::vector<Record>& records = at.table->records;
  if (at.position + 1 != records.size()) {
    records[at.position] = std::move(records.back());
    locations_[static_cast<size_t>(records[at.position].id.referenceObject().longLongValue())].position = at.position;
  }
  records.pop_back();
  at = Location{};
}

Value InMemoryStore::referenceObjectForURIComponent(const std::string& component) const {
  long long n = 0;
  auto [end, ec] = std::from_chars(component.data(), component.data() + component.size(), n);
  if (ec == std::errc() && end == component.data() + component.size()) return Value(n);
  return Value(component);
}

std::optional<std::vector<ObjectID>> InMemoryStore::obtainPermanentIDsForObjects(
    const std::vector<ManagedObject*>& objects, Error*) {
  std::vector<ObjectID> ids;
  ids.reserve(objects.size());
  for (const auto* o : objects)
    ids.push_back(newObjectIDForEntity(&o->entity(), Value(static_cast<long long>(nextReference_++))));
  return ids;
}

std::optional<Value> InMemoryStore::executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                                   Error* error) {
  try {
    if (request.requestType() == RequestType::Fetch) {
      return executeFetch(static_cast<const FetchRequest&>(request), context, error);
    }
    if (request.requestType() == RequestType::Save)
      return executeSave(static_cast<const SaveChangesRequest&>(request), error);
  } catch (const Exception& e) {
    setError(error, storeError(e.name() + ": " + e.reason()));
    return std::nullopt;
  }
  setError(error, storeError("Unsupported request type"));
  return std::nullopt;
}

std::optional<Value> InMemoryStore::executeFetch(const FetchRequest& request, ManagedObjectContext* context, Error*) {
  const bool counting = request.resultType() == FetchResultType::Count;
  const bool dictionaries =
      request.resultType() == FetchResultType::Dictionary || !request.propertiesToGroupBy().empty();
  const EntityDescription* entity = request.entity();
  if (entity == nullptr) entity = persistentStoreCoordinator()->managedObjectModel()->entity(request.entityName());
  if (entity == nullptr) return counting ? Value::array({Value(0)}) : Value::array();

  std::vector<const Record*> found;
  size_t total = 0;
  for (const EntityDescription* e : request.includesSubentities() ? entity->selfAndAllSubentities()
                                                                  : std::vector<const EntityDescription*>{entity}) {
    auto it = tables_.find(e);
    if (it == tables_.end()) continue;
    if (counting && !request.predicate()) {
      total += it->second->records.size();
      continue;
    }
    for (const Record& record : it->second->records) {
      if (request.predicate()) {
        Candidate candidate(&record, context);
        if (!request.predicate()->evaluate(candidate)) continue;
      }
      found.push_back(&record);
    }
  }
  if (counting) {
    if (request.predicate()) total = found.size();
    if (request.fetchLimit() != 0 && total > request.fetchLimit()) total = request.fetchLimit();
    return Value::array({Value(static_cast<long long>(total))});
  }
  if (!request.sortDescriptors().empty() && found.size() > 1) {
    std::deque<Candidate> candidates;  // candidates cannot move
    for (const Record* r : found) candidates.emplace_back(r, context);
    std::vector<const Object*> objects;
    objects.reserve(candidates.size());
    for (const auto& c : candidates) objects.push_back(&c);
    std::vector<size_t> order = sortOrder(objects, request.sortDescriptors());
    std::vector<const Record*> sorted;
    sorted.reserve(found.size());
    for (size_t i : order) sorted.push_back(found[i]);
    found.swap(sorted);
  }
  if (request.fetchLimit() != 0 && found.size() > request.fetchLimit()) found.resize(request.fetchLimit());

  std::vector<Value> out;
  out.reserve(found.size());
  if (!dictionaries) {
    for (const Record* r : found) {
      if (request.resultType() == FetchResultType::ManagedObjectID || context == nullptr) {
        out.push_back(r->id.asValue());
      } else {
        out.push_back(Value::object(context->objectWithID(r->id).get()));
      }
    }
    return Value::array(std::move(out));
  }
  // Dictionaries: the chosen properties (all but to-many relationships when none are chosen),
  // and with grouping one dictionary per distinct combination of the grouping properties.
  auto dictionaryOf = [&](const Record* r, const std::vector<std::string>& names) {
    const EntityDescription* e = r->entity;
    Value d = Value::mutableDictionary();
    auto add = [&](size_t i) {
      const PropertyDescription* p = e->properties()[i];
      if (p->isRelationship() && static_cast<const RelationshipDescription*>(p)->isToMany()) return;
      if (!r->values[i].isNil()) d.set(Value(p->name()), r->values[i]);
    };
    if (names.empty()) {
      for (size_t i = 0; i < r->values.size(); ++i) add(i);
    } else {
      for (const auto& name : names) {
        int i = e->propertyIndex(name);
        if (i >= 0) add(static_cast<size_t>(i));
      }
    }
    return d.copy();
  };
  if (request.propertiesToGroupBy().empty()) {
    for (const Record* r : found) out.push_back(dictionaryOf(r, request.propertiesToFetch()));
    return Value::array(std::move(out));
  }
  std::vector<std::string> names = request.propertiesToGroupBy();
  for (const auto& extra : request.propertiesToFetch()) {
    bool known = false;
    for (const auto& n : names) known = known || n == extra;
    if (!known) names.push_back(extra);
  }
  Value seen = Value::mutableSet();
  for (const Record* r : found) {
    Value key = dictionaryOf(r, request.propertiesToGroupBy());
    if (seen.contains(key)) continue;
    seen.append(key);
    out.push_back(dictionaryOf(r, names));
  }
  return Value::array(std::move(out));
}

std::optional<Value> InMemoryStore::executeSave(const SaveChangesRequest& request, Error* error) {
  for (const auto& o : request.insertedObjects()) {
    const ObjectID& id = o->objectID();
    if (id.persistentStore() != this || !id.referenceObject().isNumber()) {
      setError(error, storeError("An inserted object has no permanent ID of this store"));
      return std::nullopt;
    }
    const auto& properties = o->entity().properties();
    Record record;
    record.id = id;
    record.entity = id.entity();
    record.version = 1;
    record.values.reserve(properties.size());
    for (size_t i = 0; i < properties.size(); ++i)
      record.values.push_back(storedForm(o->primitiveValueAt(i), properties[i]));
    put(id.referenceObject().longLongValue(), std::move(record));
  }
  for (const auto& o : request.updatedObjects()) {
    Record* record = find(o->objectID());
    if (record == nullptr) {
      setError(error, storeError("An updated object is not in the store", 133020));
      return std::nullopt;
    }
    const EntityDescription& entity = o->entity();
    Value changed = o->changedValues();
    for (const auto& [key, value] : changed.entries()) {
      int i = entity.propertyIndex(key.str());
      if (i >= 0)
        record->values[static_cast<size_t>(i)] = storedForm(value, entity.properties()[static_cast<size_t>(i)]);
    }
    ++record->version;
  }
  for (const auto& o : request.deletedObjects()) {
    const ObjectID& id = o->objectID();
    if (find(id) != nullptr) erase(id.referenceObject().longLongValue());
  }
  return Value::array();
}

std::unique_ptr<IncrementalStoreNode> InMemoryStore::newValuesForObjectWithID(const ObjectID& objectID,
                                                                              ManagedObjectContext*, Error* error) {
  const Record* record = find(objectID);
  if (record == nullptr) {
    setError(error, storeError("No object for " + objectID.uriRepresentation(), 133000));
    return nullptr;
  }
  const auto& properties = objectID.entity()->properties();
  std::vector<std::pair<Value, Value>> entries;
  entries.reserve(properties.size());
  for (size_t i = 0; i < properties.size(); ++i) {
    const PropertyDescription* p = properties[i];
    if (record->values[i].isNil()) continue;
    if (p->isRelationship() && static_cast<const RelationshipDescription*>(p)->isToMany()) continue;
    entries.emplace_back(Value(p->name()), record->values[i]);
  }
  return std::make_unique<IncrementalStoreNode>(objectID, Value::dictionary(std::move(entries)), record->version);
}

std::optional<Value> InMemoryStore::newValueForRelationship(const RelationshipDescription& relationship,
                                                            const ObjectID& objectID, ManagedObjectContext*,
                                                            Error* error) {
  const Record* record = find(objectID);
  if (record == nullptr) {
    setError(error, storeError("No object for " + objectID.uriRepresentation(), 133000));
    return std::nullopt;
  }
  int i = objectID.entity()->propertyIndex(relationship.name());
  if (i < 0) return Value();
  const Value& v = record->values[static_cast<size_t>(i)];
  if (!relationship.isToMany()) return v;
  return relationship.isOrdered() ? Value::orderedSet(v.elements()) : Value::set(v.elements());
}

}  // namespace corvane
