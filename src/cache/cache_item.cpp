#include "corvane/cache/cache_item.h"

#include <unordered_set>
#include <vector>

#include "corvane/cache/cache_collection.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/cache/value_transformers.h"
#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/string_utils.h"

namespace corvane {

// ---- References ------------------------------------------------------------------------------

CorvaneCacheItemPtr CorvaneCacheItemPtr::fromValue(const Value& value) {
  CorvaneCacheItemPtr ptr;
  if (auto* item = dynamic_cast<CorvaneCacheItem*>(value.objectPointer())) {
    ptr.value_ = value;
    ptr.item_ = item;
  }
  return ptr;
}

std::string storeUID(const ObjectID& objectID) {
  const Value& reference = objectID.referenceObject();
  if (reference.isNil()) return {};
  return storeUID(reference.isString() ? reference.str() : reference.description());
}

// ---- Lock ------------------------------------------------------------------------------------

CorvaneCacheItem::Lock::Lock(const CorvaneCacheItem& item) : own_(&item.mutex_) {
  {
    MutexLock guard(&item.collectionMutex_);
    collection_ = item.collection_.lock();
  }
  if (collection_) collection_->mutex().lock();
  own_->lock();
}

CorvaneCacheItem::Lock::Lock(Lock&& other) noexcept
    : collection_(std::move(other.collection_)), own_(std::exchange(other.own_, nullptr)) {}

CorvaneCacheItem::Lock::~Lock() {
  if (own_ == nullptr) return;
  own_->unlock();
  if (collection_) collection_->mutex().unlock();
}

// ---- Making and coding -----------------------------------------------------------------------

CorvaneCacheItem::CorvaneCacheItem() = default;

CorvaneCacheItem::CorvaneCacheItem(FCNSDecoder& decoder)
    : attributes_(decoder.decodeObjectForKey("attributes")),
      relations_(decoder.decodeObjectForKey("relations")),
      data_(decoder.decodeObjectForKey("data")),
      extraData_(decoder.decodeObjectForKey("extraData")),
      state_(decoder.decodeObjectForKey("state")) {}

CorvaneCacheItemPtr CorvaneCacheItem::create() {
  return CorvaneCacheItemPtr::fromValue(Value::object(new CorvaneCacheItem()));
}

void CorvaneCacheItem::registerClass() {
  static std::once_flag once;
  std::call_once(once, [] { registerKeyedClass<CorvaneCacheItem>(kCorvaneCacheItemClassName); });
}

void CorvaneCacheItem::encodeWithCoder(FCNSCoder& coder) const {
  Guard lock(*this);
  coder.encodeObject(attributes_, "attributes");
  coder.encodeObject(relations_, "relations");
  coder.encodeObject(extraData_, "extraData");
  coder.encodeObject(data_, "data");
  coder.encodeObject(state_, "state");
}

Value CorvaneCacheItem::valueForKey(std::string_view key) const {
  Guard lock(*this);
  if (key == "attributes") return attributes_;
  if (key == "relations") return relations_;
  if (key == "extraData") return extraData_;
  if (key == "data") return data_;
  if (key == "state") return state_;
  return Value();
}

// ---- Folding a change ------------------------------------------------------------------------

namespace {

Value mutableDictionaryOf(const Value& v) { return v.isDictionary() ? v.mutableCopy() : Value::mutableDictionary(); }

using ValueSet = std::unordered_set<Value, ValueHash>;

}  // namespace

void CorvaneCacheItem::updateValues(const Value& values, const EntityDescription& entity, const std::string& /*url*/,
                                    const Value& version) {
  Guard lock(*this);
  extraData_ = Value::mutableDictionary();
  // Work on copies, so that an exception half way (an attribute without a transformer) leaves
  // the item as it was.
  Value attributes = mutableDictionaryOf(attributes_);
  Value relations = mutableDictionaryOf(relations_);
  Value data = mutableDictionaryOf(data_);
  bool relationsChanged = false;
  for (const auto& [key, entry] : values.entries()) {
    if (!entry.isDictionary()) continue;
    const std::string& name = key.str();
    if (const AttributeDescription* attribute = entity.attribute(name)) {
      foldAttribute(entry, *attribute, version, attributes, data);
      continue;
    }
    // Anything that is not an attribute is taken as a relationship; a name the entity does not
    // know is kept like a to-one relationship (and never resolved).
    const RelationshipDescription* relationship = entity.relationship(name);
    if (relationship != nullptr && relationship->isToMany()) {
      foldToMany(entry, name, relations);
    } else {
      foldToOne(entry, name, relations);
    }
    relationsChanged = true;
  }
  attributes_ = std::move(attributes);
  data_ = std::move(data);
  relations_ = std::move(relations);
  dropDerived(relationsChanged);
}

void CorvaneCacheItem::foldAttribute(const Value& entry, const AttributeDescription& attribute, const Value& version,
                                     Value& attributes, Value& data) {
  const Value key(attribute.name());
  Value result = CorvaneValueTransformerForAttribute(attribute, version)->transformedValue(entry["value"]);
  // A default fills only an empty slot: a nil sent for an attribute that has a value clears it.
  if (result.isNil() && !attribute.defaultValue().isNil() && attributes.get(key).isNil()) {
    result = attribute.defaultValue();
  }
  if (attribute.attributeType() == AttributeType::BinaryData) {
    data.set(key, result);  // the name of the data file; nil removes it
  } else {
    attributes.set(key, result);
  }
}

void CorvaneCacheItem::foldToMany(const Value& entry, const std::string& key, Value& relations) {
  const Value& stored = relations[key];
  std::vector<Value> members = stored.isArray() ? stored.elements() : std::vector<Value>();
  if (const Value& added = entry["addedValues"]; added.isArray()) {
    members.insert(members.end(), added.elements().begin(), added.elements().end());
  }
  if (const Value& removed = entry["removedValues"]; removed.isArray()) {
    // Every occurrence of every listed reference goes.
    ValueSet gone(removed.elements().begin(), removed.elements().end());
    std::erase_if(members, [&gone](const Value& v) { return gone.contains(v); });
  }
  if (const Value& ordered = entry["orderedValues"]; ordered.isArray()) {
    // The listed references that the relationship holds come first, once each, in the listed
    // order; the others follow in their previous order. (The same result as moving each listed
    // element to the front, last to first, in linear time.)
    ValueSet present(members.begin(), members.end());
    ValueSet listed(ordered.elements().begin(), ordered.elements().end());
    ValueSet placed;
    std::vector<Value> result;
    result.reserve(members.size());
    for (const Value& v : ordered.elements()) {
      if (present.contains(v) && placed.insert(v).second) result.push_back(v);
    }
    for (const Value& v : members) {
      if (!listed.contains(v)) result.push_back(v);
    }
    members = std::move(result);
  }
  relations.set(Value(key), Value::mutableArray(std::move(members)));
}

void CorvaneCacheItem::foldToOne(const Value& entry, const std::string& key, Value& relations) {
  const Value& target = entry["value"];
  const bool keep = target.isArray() && !target.empty() && target.at(0).isString();
  relations.set(Value(key), keep ? target.copy() : Value());
}

void CorvaneCacheItem::dropDerived(bool relationsChanged) {
  if (relationsChanged) {
    parsedToOneRelations_ = Value();
    parsedToManyRelations_ = Value();
  }
  parsedData_ = Value();
  dictionary_ = Value();
}

// ---- Reading ---------------------------------------------------------------------------------

void CorvaneCacheItem::parseMissing(const ObjectID& objectID, CorvaneCacheStoreServices* store, bool toOne, bool toMany,
                                    bool data) {
  if (toOne && parsedToOneRelations_.isNil()) parsedToOneRelations_ = parseRelationsForObjectID(objectID, store, false);
  if (toMany && parsedToManyRelations_.isNil()) {
    parsedToManyRelations_ = parseRelationsForObjectID(objectID, store, true);
  }
  if (data && parsedData_.isNil()) parsedData_ = parseDataForObjectID(objectID, store);
}

Value CorvaneCacheItem::valueForKey(std::string_view key, const ObjectID& objectID, CorvaneCacheStoreServices* store,
                                    ManagedObjectContext* /*context*/) {
  Guard lock(*this);
  if (attributes_.isDictionary()) {
    const Value& value = attributes_.lookup(key);
    if (!value.isNil()) return value;
  }
  const EntityDescription* entity = objectID.entity();
  if (entity == nullptr || entity->relationship(key) == nullptr) return Value();
  parseMissing(objectID, store, true, false, false);
  if (const Value& target = parsedToOneRelations_.lookup(key); !target.isNil()) return target;
  parseMissing(objectID, store, false, true, false);
  return parsedToManyRelations_.lookup(key);
}

Value CorvaneCacheItem::attributesForObjectID(const ObjectID& /*objectID*/, CorvaneCacheStoreServices* /*store*/,
                                              ManagedObjectContext* /*context*/) {
  Guard lock(*this);
  return attributes_.copy();
}

Value CorvaneCacheItem::valuesForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store,
                                          ManagedObjectContext* /*context*/) {
  Guard lock(*this);
  parseMissing(objectID, store, true, false, true);
  Value values = Value::mutableDictionary();
  for (const Value* part : {&attributes_, &parsedToOneRelations_, &parsedData_}) {
    for (const auto& [key, value] : part->entries()) values.set(key, value);
  }
  return values;
}

Value CorvaneCacheItem::allValuesForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store,
                                             ManagedObjectContext* /*context*/) {
  Guard lock(*this);
  if (!dictionary_.isNil()) return dictionary_;
  parseMissing(objectID, store, true, true, true);
  Value values = Value::mutableDictionary();
  for (const Value* part : {&attributes_, &parsedToOneRelations_, &parsedToManyRelations_, &parsedData_}) {
    for (const auto& [key, value] : part->entries()) values.set(key, value);
  }
  dictionary_ = values.copy();
  return dictionary_;
}

Value CorvaneCacheItem::parseRelationsForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store,
                                                  bool toMany) {
  Guard lock(*this);
  Value result = Value::mutableDictionary();
  const EntityDescription* entity = objectID.entity();
  if (relations_.empty() || entity == nullptr || store == nullptr) return result;
  for (const auto& [name, stored] : relations_.entries()) {
    const RelationshipDescription* relationship = entity->relationship(name.str());
    if (relationship == nullptr || relationship->isToMany() != toMany || !stored.isArray()) continue;
    std::vector<Value> targets;
    for (const Value& element : stored.elements()) {
      if (!element.isString()) continue;
      const std::string& reference = element.str();
      ObjectID target = store->objectIDForReferenceString(reference);
      if (!target) {
        std::optional<std::string> entityName = storeEntityName(reference);
        const EntityDescription* targetEntity = entityName ? store->entityForName(*entityName) : nullptr;
        if (targetEntity == nullptr) {
          // Saving now could write the relationship without this target: refuse saves instead.
          store->preventFromSaving();
          continue;
        }
        target = store->newObjectIDForEntity(targetEntity, Value(storeUID(reference)));
        if (!target) continue;
        store->setObjectIDForReferenceString(reference, target);
      }
      targets.push_back(target.asValue());
      if (!toMany) break;  // a to-one relationship takes the first target that resolves
    }
    if (toMany) {
      result.set(name,
                 relationship->isOrdered() ? Value::orderedSet(std::move(targets)) : Value::set(std::move(targets)));
    } else if (!targets.empty()) {
      result.set(name, targets.front());
    }
  }
  return result;
}

Value CorvaneCacheItem::parseDataForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store) {
  Guard lock(*this);
  Value result = Value::mutableDictionary();
  const EntityDescription* entity = objectID.entity();
  if (data_.empty() || entity == nullptr || store == nullptr) return result;
  const std::optional<std::string> objectFolder =
      pathJoinFileName(pathJoin(store->entitiesURL(), store->fileNameForEntity(*entity)), storeUID(objectID));
  if (!objectFolder) return result;
  const std::string folder = pathJoin(*objectFolder, "Data");
  for (const auto& [key, fileName] : data_.entries()) {
    // The name comes from another device's object file: one that would lead out of the Data
    // folder is not read.
    const std::optional<std::string> dataPath =
        fileName.isString() ? pathJoinFileName(folder, fileName.str()) : std::nullopt;
    if (!dataPath) continue;
    const std::string path = store->correctedDataURL(*dataPath);
    Bytes bytes;
    Error error;
    if (!store->env()->readFile(path, &bytes, &error)) {
      store->logError(error, "CorvaneReadOperation");
      continue;
    }
    if (std::optional<Bytes> plain = store->decrypt(bytes)) result.set(key, Value::data(std::move(*plain)));
  }
  return result;
}

// ---- Extra data, compaction, fields --------------------------------------------------------

void CorvaneCacheItem::setExtraData(const Value& data, const Value& key) {
  Guard lock(*this);
  if (!extraData_.isDictionary() || !extraData_.isMutable()) extraData_ = mutableDictionaryOf(extraData_);
  extraData_.set(key, data);
}

Value CorvaneCacheItem::extraDataForKey(const Value& key) {
  if (!key.isString()) return Value();
  Guard lock(*this);
  return extraData_.get(key);
}

void CorvaneCacheItem::resetExtraData() {
  Guard lock(*this);
  extraData_ = Value::mutableDictionary();
}

void CorvaneCacheItem::compact() {
  Guard lock(*this);
  // The memo of all values holds the binary values too; it goes with them, or compacting
  // would free nothing.
  if (!parsedData_.isNil()) {
    parsedData_ = Value();
    dictionary_ = Value();
  }
}

Value CorvaneCacheItem::attributes() const {
  Guard lock(*this);
  return attributes_;
}
Value CorvaneCacheItem::relations() const {
  Guard lock(*this);
  return relations_;
}
Value CorvaneCacheItem::data() const {
  Guard lock(*this);
  return data_;
}
Value CorvaneCacheItem::extraData() const {
  Guard lock(*this);
  return extraData_;
}
Value CorvaneCacheItem::state() const {
  Guard lock(*this);
  return state_;
}
void CorvaneCacheItem::setState(const Value& state) {
  Guard lock(*this);
  state_ = state;
}
bool CorvaneCacheItem::hasParsedData() const {
  Guard lock(*this);
  return !parsedData_.isNil();
}
bool CorvaneCacheItem::hasParsedRelations() const {
  Guard lock(*this);
  return !parsedToOneRelations_.isNil() || !parsedToManyRelations_.isNil();
}
bool CorvaneCacheItem::hasValueMemo() const {
  Guard lock(*this);
  return !dictionary_.isNil();
}

// ---- Collection ------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheDictionary> CorvaneCacheItem::collection() const {
  MutexLock guard(&collectionMutex_);
  return std::static_pointer_cast<CorvaneCacheDictionary>(collection_.lock());
}

void CorvaneCacheItem::setCollection(const std::shared_ptr<CorvaneCacheDictionary>& collection) {
  MutexLock guard(&collectionMutex_);
  collection_ = collection;
}

}  // namespace corvane
