// CorvaneCache: writing the cache files, loading an entity's tables, the background filling and
// the check of the cached change log.
#include <algorithm>
#include <thread>

#include "cache/cache_internal.h"
#include "cache/index_operations.h"
#include "corvane/cache/cache.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"

namespace corvane {

namespace {

constexpr const char* kTableCharacters = "0123456789ABCDEF";

}  // namespace

// ---- Saving --------------------------------------------------------------------------------

std::vector<std::shared_ptr<CorvaneCacheCollection>> CorvaneCache::collectionsToSave(
    std::shared_ptr<CorvaneCacheArray>* log) {
  RecursiveMutexLock lock(&mutex_);
  std::vector<std::shared_ptr<CorvaneCacheCollection>> tables;
  for (const auto& entry : entities_) tables.push_back(entry.second);
  for (const auto& entry : uids_) tables.push_back(entry.second);
  *log = changeLog_;
  return tables;
}

void CorvaneCache::save() {
  const std::string folder = URL();
  Error error;
  if (!folder.empty() && !store_->env()->createDirectory(folder, true, &error)) {
    store_->logError(error, "CorvaneCache");
  }
  std::shared_ptr<CorvaneCacheArray> log;
  const std::vector<std::shared_ptr<CorvaneCacheCollection>> tables = collectionsToSave(&log);
  // Package copies queued by saveInBundle() finish first, so both never write at once.
  saveQueue_.waitUntilAllOperationsAreFinished();
  // Tables before the log: a log older than its tables only makes the next opening apply some
  // changes again, which leaves the same values. A table older than the log would show old
  // values as current, so when one could be neither written nor removed the log goes instead,
  // and the next opening applies the whole history again.
  bool tablesCurrent = true;
  for (const auto& table : tables) tablesCurrent = table->saveIfNeeded() && tablesCurrent;
  if (log && (!tablesCurrent || !log->saveIfNeeded())) {
    if (!log->removeSavedFile()) {
      store_->log("The cache could not be saved; remove its folder before the document is opened again.",
                  kCorvaneLogTypeError);
    }
  }
  terminated_ = true;
}

void CorvaneCache::saveInBundle() {
  if (Error error; !store_->env()->createDirectory(store_->cacheURL(), true, &error)) {
    store_->logError(error, "CorvaneCache");
    return;
  }
  std::shared_ptr<CorvaneCacheArray> log;
  const std::vector<std::shared_ptr<CorvaneCacheCollection>> tables = collectionsToSave(&log);
  for (const auto& table : tables) {
    saveQueue_.addOperationWithBlock([table] { table->saveInBundle(); });
  }
  if (log) log->saveInBundle();
}

// ---- Loading -------------------------------------------------------------------------------

void CorvaneCache::loadCachesForEntity(const EntityDescription& entity) {
  bool corrupt = false;
  {
    RecursiveMutexLock lock(&mutex_);
    for (const char* c = kTableCharacters; *c != '\0'; ++c) {
      const std::string key = entity.name() + "_" + *c;
      if (entities_.contains(key)) continue;
      auto table = CorvaneCacheDictionary::dictionaryWithStore(store_, URLForKey(key));
      table->loadIfNeeded();
      corrupt = corrupt || table->corruptionDetected();
      entities_.emplace(key, std::move(table));
    }
  }
  if (corrupt) {
    store_->log("Cache corruption detected during entity loading - recommend cache rebuild", kCorvaneLogTypeWarning);
  }
}

// ---- Background filling ----------------------------------------------------------------------

void CorvaneCache::cacheMissingItems() {
  RecursiveMutexLock lock(&mutex_);
  if ((indexQueue_ && indexQueue_->operationCount() > 0) || cachedMissingItems_) return;
  progress_->done = 0;
  progress_->total = 0;
  indexQueue_ = std::make_unique<OperationQueue>(std::string(kFrameworkBundleIdentifier) + ".IndexQueue");
  const int processors = static_cast<int>(std::thread::hardware_concurrency());
  indexQueue_->setMaxConcurrentOperationCount(std::max(processors / 2, 2));
  indexQueue_->setPriority(QueuePriority::VeryLow);
  for (const EntityDescription* entity : store_->entities()) {
    if (entity == nullptr || entity->isAbstract()) continue;
    auto operation = std::make_shared<CorvaneIndexOperation>(entity, this, indexQueue_.get());
    operation->setQueuePriority(QueuePriority::VeryLow);
    indexQueue_->addOperation(std::move(operation));
  }
  cachedMissingItems_ = true;
}

bool CorvaneCache::cachedMissingItems() const {
  RecursiveMutexLock lock(&mutex_);
  return cachedMissingItems_;
}

OperationQueue* CorvaneCache::indexQueue() const {
  RecursiveMutexLock lock(&mutex_);
  return indexQueue_.get();
}

int64_t CorvaneCache::itemsToIndex() const { return progress_->done.load(); }
int64_t CorvaneCache::maxItemsToIndex() const { return progress_->total.load(); }

void CorvaneCache::addToIndexProgress(int64_t done, int64_t total) {
  mainLoop_->post([progress = progress_, done, total] {
    progress->done += done;
    progress->total += total;
  });
}

void CorvaneIndexOperation::main() {
  if (isCancelled() || cache_->isStopping()) return;
  const Value uids = cache_->objectUIDsForEntity(*entity_);
  int64_t cached = 0;
  for (const Value& uid : uids.elements()) {
    if (!uid.isString()) continue;
    // Items that are cached already need no operation: after a replay or with a warm cache that
    // is every one, and a queue of one operation per object is costly to schedule.
    ObjectID objectID = cache_->store()->newObjectIDForEntity(entity_, uid);
    if (objectID && cache_->cacheItemForObjectID(objectID)) {
      ++cached;
      continue;
    }
    auto load = std::make_shared<CorvaneIndexLoadOperation>(entity_, uid.str(), cache_);
    load->setQueuePriority(QueuePriority::VeryLow);
    queue_->addOperation(std::move(load));
  }
  cache_->addToIndexProgress(cached, static_cast<int64_t>(uids.count()));
}

void CorvaneIndexLoadOperation::main() {
  if (isCancelled() || cache_->isStopping()) return;
  ObjectID objectID = cache_->store()->newObjectIDForEntity(entity_, Value(uid_));
  if (objectID && !cache_->cacheItemForObjectID(objectID)) cache_->cacheItemForObjectID(objectID, nullptr);
  cache_->addToIndexProgress(1, 0);
}

// ---- Checking the change log ---------------------------------------------------------------

void CorvaneCache::checkAllFiles() {
  queue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->checkAllFilesNow();
  });
}

void CorvaneCache::checkAllFilesNow() {
  store_->log("Start checking Files", kCorvaneLogTypeSuccess);
  // A fresh read of the file, not the log in memory: the check is about what is on disk.
  const Value records = newChangeLogCollection()->content();
  store_->setRecover(true);
  int errors = 0;
  if (records.empty()) {
    store_->log("No change files found", kCorvaneLogTypeError);
    ++errors;
  }
  for (const Value& record : records.elements()) {
    if (store_->validatedChanges(record, false).isNil()) ++errors;
  }
  store_->setRecover(false);
  if (errors == 0) {
    store_->log("Finished checking Files: All fine", kCorvaneLogTypeSuccess);
  } else {
    store_->log("Finished checking Files: Found errors", kCorvaneLogTypeError);
  }
}

}  // namespace corvane
