// CorvaneChange and the save operations that write change files and object files.
#include "corvane/store/corvane_change.h"

#include <fmt/format.h>

#include "corvane/cache/cache.h"
#include "corvane/foundation/date_format.h"
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
    name_ = fmt::format("{}.{}", store_->dateFormatter().format(store_->claimChangeNameDate(date_)),
                        store_->env()->newUUIDString());
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

void CorvaneChange::addObjectWrite(std::shared_ptr<CorvaneSaveOperation> write) {
  std::lock_guard<std::mutex> lock(mutex_);
  objectWrites_.push_back(std::move(write));
}

void CorvaneChange::fail(Error error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!failure_) failure_ = std::move(error);
}

bool CorvaneChange::saveToStore(CorvaneStore& target, Error* error) {
  std::vector<std::shared_ptr<CorvaneSaveOperation>> writes;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    writes = objectWrites_;
  }
  // Every object file is durable before the change file that announces it is written: a
  // device that reads the change file must find every file it names.
  for (const auto& write : writes) write->waitUntilFinished();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failure_) return setError(error, *failure_);
  }
  for (const auto& write : writes) {
    if (!write->succeeded()) return setError(error, write->error());
  }
  if (changes().empty()) return true;

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
  Error folderError;
  if (!target.env()->createDirectory(folder, true, &folderError)) return setError(error, folderError);
  auto operation = std::make_shared<CorvaneSaveOperation>(&target, content.copy(), pathJoin(folder, fileName()));
  OperationQueue& queue = target.saveOperationQueue();
  for (const auto& queued : queue.operations()) operation->addDependency(queued);
  queue.addOperation(operation);
  operation->waitUntilFinished();
  if (!operation->succeeded()) return setError(error, operation->error());

  // The whole save is on disk: now the cache may record it, items first, then the log.
  for (const auto& write : writes) write->didWrite();
  operation->didWrite();
  return true;
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
    if (std::optional<std::string> text = valueToJson(dictionary_, style, &error)) {
      bytes = store_->encrypt(asBytes(*text));
      if (!bytes) error = Error(kCorvaneErrorDomain, -1, fmt::format("Could not encrypt {}", pathLastComponent(path_)));
    }
  }
  if (!bytes && error.empty()) {
    error = Error(kCorvaneErrorDomain, -1, fmt::format("Could not serialize change {}", pathLastComponent(path_)));
  }
  store_->ignoreOwnChange(path_);  // this device's own save starts no update pass
  if (bytes && store_->env()->writeFileAtomically(path_, *bytes, &error)) {
    succeeded_ = true;
    return;
  }
  {
    std::lock_guard<std::mutex> lock(errorMutex_);
    error_ = error;
  }
  store_->presentError(error);
  store_->logError(error, domain());
}

Error CorvaneSaveOperation::error() const {
  std::lock_guard<std::mutex> lock(errorMutex_);
  return error_;
}

void CorvaneSaveOperation::didWrite() { store_->cache()->addChange(dictionary_, false); }

CorvaneManagedObjectSaveOperation::CorvaneManagedObjectSaveOperation(CorvaneStore* store, Value dictionary,
                                                                     std::string path, ObjectID objectID)
    : CorvaneSaveOperation(store, std::move(dictionary), std::move(path)), objectID_(std::move(objectID)) {}

void CorvaneManagedObjectSaveOperation::didWrite() {
  if (dictionary_["type"] == Value(kChangeTypeDelete)) {
    store_->cache()->removeObjectID(objectID_);
    return;
  }
  try {
    store_->cache()->updateCacheForObjectID(objectID_, dictionary_.copy(), path_);
  } catch (const Exception& e) {
    // The file is written; the item is rebuilt from the files when it is next needed.
    store_->cache()->removeObjectID(objectID_);
    store_->log(e.name() + ": " + e.reason(), kCorvaneLogTypeError);
  }
}

}  // namespace corvane
