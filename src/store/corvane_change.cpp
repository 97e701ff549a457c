// CorvaneChange and the save operations that write change files and object files.
#include "corvane/store/corvane_change.h"

#include <fmt/format.h>

#include "corvane/cache/cache.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/string_utils.h"
#include "corvane/store/corvane_store.h"
#include "store/store_internal.h"

namespace corvane {

// ---- The record ------------------------------------------------------------------------------

CorvaneChange::CorvaneChange(CorvaneStore* store, double date)
    : store_(store), date_(date), changes_(Value::mutableDictionary()) {}

double CorvaneChange::date() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return date_;
}

void CorvaneChange::setDate(double date) {
  std::lock_guard<std::mutex> lock(mutex_);
  date_ = date;
}

std::string CorvaneChange::name() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (name_.empty()) {
    name_ = fmt::format("{}.{}", store_->dateFormatter().format(date_), store_->env()->newUUIDString());
  }
  return name_;
}

std::string CorvaneChange::fileName() { return name() + ".json"; }

void CorvaneChange::addChange(const Value& record, const std::string& entityName, const std::string& uid,
                              const std::string& type) {
  std::lock_guard<std::mutex> lock(mutex_);
  Value byType = changes_[type];
  if (byType.isNil()) {
    byType = Value::mutableDictionary();
    changes_.set(Value(type), byType);
  }
  Value byEntity = byType[entityName];
  if (byEntity.isNil()) {
    byEntity = Value::mutableDictionary();
    byType.set(Value(entityName), byEntity);
  }
  byEntity.set(Value(uid), record);
}

Value CorvaneChange::changes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return changes_;
}

Value CorvaneChange::dictionary() {
  const std::string file = fileName();
  std::lock_guard<std::mutex> lock(mutex_);
  if (dictionary_.isNil()) {
    Value d = Value::mutableDictionary();
    d.set(Value("name"), Value(file));
    d.set(Value("date"), Value(store_internal::timestampString(date_)));
    if (!changes_.empty()) d.set(Value("changes"), changes_);
    d.set(Value("session"), store_->sessionDictionary());
    dictionary_ = d;
  }
  return dictionary_;
}

Value CorvaneChange::insertedUIDs() { return dictionary()["inserts"]; }
Value CorvaneChange::updatedUIDs() { return dictionary()["updates"]; }
Value CorvaneChange::deletedUIDs() { return dictionary()["deletes"]; }

void CorvaneChange::saveToStore(CorvaneStore& target) {
  if (changes().empty()) return;
  const Value last = target.lastCachedChange();
  if (std::optional<double> lastDate = store_internal::dateFromChangeValue(last["date"])) {
    if (date() < *lastDate) {
      target.log("At least one Mac has (or had) set a wrong date.", kCorvaneLogTypeWarning);
      // The name keeps the device's own time: the object files already carry it.
      setDate(*lastDate + 1.0);
    }
  }
  Value content = dictionary();
  if (const Value& previous = last["name"]; previous.isString()) content.set(Value("previousName"), previous);
  const std::string folder = target.changesURL();
  target.env()->createDirectory(folder, true, nullptr);
  auto operation = std::make_shared<CorvaneSaveOperation>(&target, content.copy(), pathJoin(folder, fileName()));
  OperationQueue& queue = target.saveOperationQueue();
  for (const auto& queued : queue.operations()) operation->addDependency(queued);
  queue.addOperation(operation);
}

// ---- Save operations ------------------------------------------------------------------------

CorvaneSaveOperation::CorvaneSaveOperation(CorvaneStore* store, Value dictionary, std::string path)
    : store_(store), dictionary_(std::move(dictionary)), path_(std::move(path)) {}

void CorvaneSaveOperation::main() {
  Error error;
  std::optional<Bytes> bytes;
  if (isValidJSONObject(dictionary_)) {
    // Recovery changes are meant to be read by people too.
    const JsonStyle style = dictionary_["type"] == Value(kChangeTypeRecovery) ? JsonStyle::Pretty : JsonStyle::Compact;
    if (std::optional<std::string> text = valueToJson(dictionary_, style, &error)) bytes = store_->encrypt(asBytes(*text));
  }
  if (!bytes && error.empty()) {
    error = Error(kCorvaneErrorDomain, -1, fmt::format("Could not serialize change {}", pathLastComponent(path_)));
  }
  store_->ignoreOwnChange(path_);  // this device's own save starts no update pass
  if (bytes && store_->env()->writeFileAtomically(path_, *bytes, &error)) {
    didWrite();
    return;
  }
  store_->presentError(error);
  store_->logError(error, domain());
}

void CorvaneSaveOperation::didWrite() { store_->cache()->addChange(dictionary_, false); }

CorvaneManagedObjectSaveOperation::CorvaneManagedObjectSaveOperation(CorvaneStore* store, Value dictionary,
                                                                     std::string path, ObjectID objectID)
    : CorvaneSaveOperation(store, std::move(dictionary), std::move(path)), objectID_(std::move(objectID)) {}

void CorvaneManagedObjectSaveOperation::didWrite() {
  try {
    store_->cache()->updateCacheForObjectID(objectID_, dictionary_.copy(), path_);
  } catch (const Exception& e) {
    // The file is written; the item is rebuilt from the files when it is next needed.
    store_->cache()->removeObjectID(objectID_);
    store_->log(e.name() + ": " + e.reason(), kCorvaneLogTypeError);
  }
}

// ---- Repairs of the history -------------------------------------------------------------------

Value CorvaneStore::lastCachedChange() const {
  const Value changes = cache_->changes();
  return changes.empty() ? Value() : changes.at(changes.count() - 1);
}

bool CorvaneStore::writeRecoveryChange(const std::string& path, const Value& refreshes) {
  Value change = Value::mutableDictionary();
  change.set(Value("name"), Value(pathLastComponent(path)));
  change.set(Value("type"), Value(kChangeTypeRecovery));
  if (refreshes.isDictionary()) change.set(Value("refreshes"), refreshes);
  std::optional<std::string> text = valueToJson(change, JsonStyle::Pretty);
  if (!text) return false;
  std::optional<Bytes> bytes = encrypt(asBytes(*text));
  if (!bytes) return false;
  env_->createDirectory(pathDeletingLastComponent(path), true, nullptr);
  Error error;
  ignoreOwnChange(path);
  if (!env_->writeFileAtomically(path, *bytes, &error)) {
    logError(error, "CorvaneSaveOperation");
    return false;
  }
  return true;
}

bool CorvaneStore::writeFakeChangeToURL(const std::string& path, const Value& refreshes) {
  return writeRecoveryChange(path, refreshes);
}

void CorvaneStore::insertChange(const std::string& path) {
  writeRecoveryChange(path, Value());
  updateChanges();
}

void CorvaneStore::discardChange(const std::string& path) {
  const std::string fileName = pathLastComponent(path);
  const std::string invalid = pathJoin(url(), "InvalidChanges");
  env_->createDirectory(invalid, true, nullptr);
  const std::string moved = pathJoin(invalid, fileName);
  env_->removeItem(moved, nullptr);  // an earlier discard of the same name
  ignoreOwnChange(path);
  env_->moveItem(path, moved, nullptr);

  Value discarded;
  if (std::optional<Bytes> bytes = store_internal::readBytes(env_, moved)) {
    if (std::optional<Bytes> plain = decrypt(*bytes)) {
      if (std::optional<Value> parsed = jsonToValue(asStringView(*plain)); parsed && parsed->isDictionary()) {
        discarded = *parsed;
      }
    }
  }
  // Every device re-reads the objects the discarded change touched...
  writeRecoveryChange(path, discarded["changes"].isDictionary() ? discarded["changes"] : Value());
  // ...and finds its applied history different from the folder just before that change, so
  // that it applies everything from there again.
  std::optional<double> date = store_internal::dateFromChangeValue(discarded["date"]);
  if (!date && fileName.size() >= 23) date = dateFormatter_.parse(std::string_view(fileName).substr(0, 23));
  if (date) {
    const std::string earlier = fmt::format("{}.{}.json", dateFormatter_.format(*date - 1.0), env_->newUUIDString());
    writeRecoveryChange(pathJoin(changesURL(), earlier), Value());
  }
  updateChanges();
}

void CorvaneStore::removeChange(const Value& change, const Value& objects, bool wasInsert) {
  const std::string& name = change["name"].str();
  for (const auto& [entityName, uids] : objects.entries()) {
    const std::string folder = fileNameForEntityName(entityName.str());
    if (folder.empty()) continue;
    for (const Value& uid : uids.elements()) {
      const std::string objectFolder = pathJoin(pathJoin(entitiesURL(), folder), uid.str());
      env_->removeItem(wasInsert ? objectFolder : pathJoin(objectFolder, name), nullptr);
    }
  }
}

void CorvaneStore::performMenuItem(const StoreMenuItem& item) {
  if (item.action == kStoreMenuActionDiscardChange) {
    discardChange(item.path);
  } else if (item.action == kStoreMenuActionInsertChange) {
    insertChange(item.path);
  } else if (item.action == kStoreMenuActionShowInFinder) {
    revealInFileViewer(item.path);
  }
}

// ---- Helpers for objects ----------------------------------------------------------------------

std::string storeSavePath(const ObjectID& objectID) {
  const EntityDescription* entity = objectID.entity();
  return fmt::format("{}/{}", entity != nullptr ? entity->name() : std::string("(null)"), storeUID(objectID));
}

}  // namespace corvane
