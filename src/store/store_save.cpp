// CorvaneStore: turning a context's save, or a whole object graph, into files.
#include <fmt/format.h>

#include <cmath>
#include <unordered_set>

#include "corvane/cache/cache.h"
#include "corvane/cache/value_transformers.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"
#include "corvane/security/string_utils.h"
#include "corvane/store/corvane_change.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

namespace {

// The saving context, carried in the user info of "CorvaneBeginSave".
class ContextReference final : public Object {
 public:
  explicit ContextReference(ManagedObjectContext* context) : context_(context) {}
  std::string className() const override { return "NSManagedObjectContext"; }
  ManagedObjectContext* context() const { return context_; }

 private:
  ManagedObjectContext* context_;
};

using ValueSet = std::unordered_set<Value, ValueHash>;

const ManagedObject* managedObjectOf(const Value& value) {
  return value.isObject() ? dynamic_cast<const ManagedObject*>(value.objectPointer()) : nullptr;
}

// "Entity/UID" of a related object, as the source store names it.
Value referenceOf(const ManagedObject& target, CorvaneStore* fromStore) {
  std::string uid = fromStore != nullptr ? fromStore->uidForObjectID(target.objectID(), target.managedObjectContext())
                                         : storeUID(target.objectID());
  return Value(fmt::format("{}/{}", target.entity().name(), uid));
}

std::vector<Value> referencesOf(const Value& members, CorvaneStore* fromStore) {
  std::vector<Value> references;
  for (const Value& member : members.elements()) {
    if (const ManagedObject* target = managedObjectOf(member)) references.push_back(referenceOf(*target, fromStore));
  }
  return references;
}

}  // namespace

// ---- One object -------------------------------------------------------------------------------

Value applyOptions(const Value& options, const Value& value, const std::string& entityName, const std::string& key,
                   CorvaneStore* store) {
  const Value& rule = options[kCorvaneAnonymizeOptions]["entities"][entityName][key];
  if (!rule.isDictionary() || value.isNil()) return value;
  const std::string& type = rule["type"].str();
  if (type == "truncate") return Value(anonymize(value.isString() ? value.str() : value.description()));
  if (type == "nullify") return Value(Decimal());
  if (type == "replace" && store != nullptr && store->environment().resource) {
    if (std::optional<Bytes> bytes = store->environment().resource(rule["replacement"].str())) {
      return Value::data(std::move(*bytes));
    }
  }
  return value;
}

std::string URLForStore(ManagedObject& object, CorvaneStore& toStore, CorvaneStore* fromStore) {
  std::string uid = fromStore != nullptr ? fromStore->uidForObjectID(object.objectID(), object.managedObjectContext())
                                         : std::string();
  if (uid.empty()) uid = toStore.env()->newUUIDString();
  return pathJoin(pathJoin(toStore.entitiesURL(), toStore.fileNameForEntity(object.entity())), uid);
}

void saveFromStore(ManagedObject& object, CorvaneStore* fromStore, CorvaneStore& toStore, CorvaneChange& change,
                   const Value& options, const std::string& type) {
  const EntityDescription& entity = object.entity();
  // An object that leaves its store, or goes into a store that forgets its origin, and every
  // new object, are written whole; otherwise only what changed.
  const bool allValues = fromStore != &toStore || toStore.options()[kRemoveUbiquitousMetadataOption].boolValue() ||
                         type == kChangeTypeInsert;
  Env* env = toStore.env();
  const std::string folder = URLForStore(object, toStore, fromStore);
  Error error;
  if (!env->createDirectory(folder, true, &error)) return change.fail(std::move(error));
  const std::string uid = pathLastComponent(folder);

  Value file = Value::mutableDictionary();
  file.set(Value("version"), Value(kStorageVersion));
  file.set(Value("type"), Value(type));
  Value record = Value::mutableDictionary();

  // A deleted object's item leaves the cache once the save is on disk (the object write's
  // didWrite()); a delete writes no payload.
  if (type != kChangeTypeDelete && !object.isDeleted()) {
    std::vector<const PropertyDescription*> properties;
    if (allValues) {
      properties = entity.properties();
    } else {
      // Values set to nothing are among the changed values too (as null).
      for (const Value& key : object.changedValues().keys()) {
        if (const PropertyDescription* p = entity.property(key.str())) properties.push_back(p);
      }
    }
    Value payload = Value::mutableDictionary();
    Value dataEntries = Value::mutableArray();
    for (const PropertyDescription* property : properties) {
      const std::string& key = property->name();
      if (property->isAttribute()) {
        const auto& attribute = static_cast<const AttributeDescription&>(*property);
        Value value = applyOptions(options, object.primitiveValue(key), entity.name(), key, &toStore);
        if (value.isNil() && allValues) continue;
        Value entry = Value::mutableDictionary();
        if (!value.isNil()) {
          entry.set(
              Value("value"),
              CorvaneValueTransformerForAttribute(attribute, Value(kStorageVersion))->reverseTransformedValue(value));
        }
        if (attribute.attributeType() == AttributeType::BinaryData && value.isData() && entry["value"].isString()) {
          std::optional<Bytes> stored = toStore.encrypt(value.bytes());
          if (!stored) {
            return change.fail(Error(kCorvaneErrorDomain, -1,
                                     fmt::format("Could not encrypt the value of {}.{}", entity.name(), key)));
          }
          const std::string name = entry["value"].str();
          const Value hash(corvaneSHA256HexDigest(*stored));
          const Value length(static_cast<long long>(stored->size()));
          dataEntries.append(dict({{"length", length}, {"hash", hash}, {"name", Value(name)}}));
          entry.set(Value("length"), length);
          entry.set(Value("hash"), hash);
          // Written at once, not through the queue; the change file waits for it all the same.
          const std::string dataFolder = pathJoin(folder, "Data");
          if (!env->createDirectory(dataFolder, true, &error) ||
              !env->writeFileAtomically(pathJoin(dataFolder, name), *stored, &error)) {
            return change.fail(std::move(error));
          }
        }
        payload.set(Value(key), entry);
      } else if (property->isRelationship()) {
        const auto& relationship = static_cast<const RelationshipDescription&>(*property);
        object.willAccessValueForKey(key);
        const Value current = object.primitiveValue(key);
        object.didAccessValueForKey(key);
        Value entry = Value::mutableDictionary();
        if (!relationship.isToMany()) {
          if (const ManagedObject* target = managedObjectOf(current)) {
            entry.set(Value("value"), Value::array({referenceOf(*target, fromStore)}));
          }
        } else if (allValues) {
          std::vector<Value> all = referencesOf(current, fromStore);
          if (!all.empty()) entry.set(Value("addedValues"), Value::array(std::move(all)));
        } else {
          const std::vector<Value> now = referencesOf(current, fromStore);
          const std::vector<Value> before = referencesOf(object.committedValues({key})[key], fromStore);
          const ValueSet nowSet(now.begin(), now.end());
          const ValueSet beforeSet(before.begin(), before.end());
          std::vector<Value> added, removed;
          for (const Value& r : now) {
            if (!beforeSet.contains(r)) added.push_back(r);
          }
          for (const Value& r : before) {
            if (!nowSet.contains(r)) removed.push_back(r);
          }
          if (relationship.isOrdered() && !now.empty()) entry.set(Value("orderedValues"), Value::array(now));
          if (!added.empty()) entry.set(Value("addedValues"), Value::array(std::move(added)));
          if (!removed.empty()) entry.set(Value("removedValues"), Value::array(std::move(removed)));
        }
        payload.set(Value(key), entry);
      }
    }
    if (!payload.empty()) file.set(Value("payload"), payload);
    if (!dataEntries.empty()) record.set(Value("data"), dataEntries);
  }
  change.addChange(record, entity.name(), uid, type);
  auto write = std::make_shared<CorvaneManagedObjectSaveOperation>(&toStore, file, pathJoin(folder, change.fileName()),
                                                                   object.objectID());
  change.addObjectWrite(write);
  toStore.saveOperationQueue().addOperation(std::move(write));
}

// ---- A save request ---------------------------------------------------------------------------

std::optional<Value> CorvaneStore::executeSaveRequest(const SaveChangesRequest& request, ManagedObjectContext* context,
                                                      Error* error) {
  if (!upToChange().empty()) {
    setError(error, Error(kCorvaneErrorDomain, -1, "A document shown as it stood after a change cannot be saved"));
    return std::nullopt;
  }
  Error folderError;
  if (!state_->env->createDirectory(url(), true, &folderError)) {
    setError(error, std::move(folderError));
    return std::nullopt;
  }
  std::vector<Retained<ManagedObject>> updated;
  for (const auto& object : request.updatedObjects()) {
    if (!object->changedValues().empty()) updated.push_back(object);
  }
  const auto& inserted = request.insertedObjects();
  const auto& deleted = request.deletedObjects();
  const auto count = static_cast<long long>(updated.size()) + static_cast<long long>(inserted.size()) +
                     static_cast<long long>(deleted.size());
  NotificationCenter::defaultCenter().post(
      kCorvaneBeginSaveNotification, this,
      dict({{"count", Value(count)}, {"context", Value::object(new ContextReference(context))}}));
  state_->writer.operationsCount = count;
  state_->writer.operationsValue = 0;

  CorvaneChange change(this, state_->env->now());
  for (const auto& object : updated) {
    saveToStore(*object, *this, change, kChangeTypeUpdate);
    incrementProgress();
  }
  for (const auto& object : inserted) {
    saveToStore(*object, *this, change, kChangeTypeInsert);
    incrementProgress();
  }
  for (const auto& object : deleted) {
    saveToStore(*object, *this, change, kChangeTypeDelete);
    incrementProgress();
  }
  // Returns once every file of the save is durable, or with the reason one is not; the
  // context then keeps its changes.
  if (!change.saveToStore(*this, error)) return std::nullopt;
  return Value::array();
}

double CorvaneStore::claimChangeNameDate(double date) {
  // Names carry whole milliseconds: compare and step in them. A stepped time is the middle of
  // its millisecond, so that formatting it cannot fall into the one before.
  const auto millisecond = static_cast<int64_t>(std::floor(date * 1000.0));
  MutexLock lock(&state_->writer.nameDateMutex);
  const bool clockWentBack = millisecond < state_->writer.lastClockMillisecond;
  state_->writer.lastClockMillisecond = millisecond;
  // A clock set back is the device's own time, as every device reads it: names keep it.
  if (clockWentBack || millisecond > state_->writer.lastNameMillisecond) {
    state_->writer.lastNameMillisecond = millisecond;
    return date;
  }
  ++state_->writer.lastNameMillisecond;
  return (static_cast<double>(state_->writer.lastNameMillisecond) + 0.5) / 1000.0;
}

void CorvaneStore::incrementProgress() {
  const int64_t value = ++state_->writer.operationsValue;
  Value info;
  {
    MutexLock lock(&state_->writer.progressMutex);
    info = state_->writer.progressInfo;
  }
  if (info.isNil()) return;
  const int64_t max = state_->writer.operationsCount.load();
  onMain([info, max, value] {
    Value target = info;
    target.set(Value("progressMax"), Value(static_cast<long long>(max)));
    target.set(Value("progressValue"), Value(static_cast<long long>(value)));
  });
}

void CorvaneStore::setProgressInfo(const Value& mutableDictionary) {
  MutexLock lock(&state_->writer.progressMutex);
  state_->writer.progressInfo =
      mutableDictionary.isDictionary() && mutableDictionary.isMutable() ? mutableDictionary : Value();
}

// ---- A whole graph ------------------------------------------------------------------------------

void CorvaneStore::writeAllObjectsInContext(const std::shared_ptr<ManagedObjectContext>& context,
                                            CorvaneStore* fromStore, const Value& options,
                                            std::function<void(double)> progress,
                                            std::function<void(bool written)> completion) {
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(context);
  state_->cache->queue().async(
      [this, child, fromStore, options, progress = std::move(progress), completion = std::move(completion)] {
        CorvaneChange change(fromStore != nullptr ? fromStore : this, state_->env->now());
        Error error;
        if (!state_->env->createDirectory(url(), true, &error)) change.fail(error);
        child->performAndWait([&] {
          const std::vector<const EntityDescription*> all = child->model()->entities();
          const auto entities = static_cast<double>(all.size());
          // Each entity is an equal share of the bar; within one, every object moves it on, though
          // no more often than once a percent.
          double reported = 0;
          auto report = [&](double fraction, bool always) {
            if (!progress || (!always && fraction - reported < 0.01)) return;
            reported = fraction;
            onMain([progress, fraction] { progress(fraction); });
          };
          for (size_t index = 0; index < all.size(); ++index) {
            FetchRequest request(all[index]->name());
            request.setIncludesSubentities(false);
            if (auto objects = child->fetch(request)) {
              const auto count = static_cast<double>(objects->size());
              for (size_t i = 0; i < objects->size(); ++i) {
                try {
                  saveFromStore(*(*objects)[i], fromStore, *this, change, options, kChangeTypeInsert);
                } catch (const Exception& e) {
                  log(e.name() + ": " + e.reason(), kCorvaneLogTypeError);
                }
                report((static_cast<double>(index) + static_cast<double>(i + 1) / count) / entities, false);
              }
            }
            report(static_cast<double>(index + 1) / entities, true);
          }
        });
        // A copy that could not write every file announces none of them; the log says why.
        const bool written = change.saveToStore(*this, &error);
        if (!written) logError(error, "CorvaneSaveOperation");
        waitForSaves();
        if (completion) onMain([completion, written] { completion(written); });
      });
}

}  // namespace corvane
