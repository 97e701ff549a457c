// CorvaneCache: the UID tables and the cached change log.
#include <algorithm>

#include "cache/cache_internal.h"
#include "corvane/cache/cache.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/foundation/log.h"
#include "corvane/graph/object_model.h"

namespace corvane {

namespace {

constexpr const char* kChangesKey = "Changes";
constexpr size_t kChangesChainLength = 50;
constexpr double kChangeLogRetrySeconds = 10.0;

// The UIDs of one entity's entry of a UID list (a dictionary keyed by UID), as an array.
Value uidsOf(const Value& byUID) { return byUID.isDictionary() ? Value::array(byUID.keys()) : Value(); }

}  // namespace

std::shared_ptr<CorvaneCacheArray> CorvaneCache::newChangeLogCollection() {
  return CorvaneCacheArray::arrayWithStore(store_, URLForKey(kChangesKey));
}

// ---- Change records ------------------------------------------------------------------------

void CorvaneCache::addChange(const Value& change, bool isExternal) {
  // The cache's lock is held throughout, so that the lock order (cache, then log, then tables)
  // holds although the UID updates take the cache's lock again.
  RecursiveMutexLock lock(&mutex_);
  if (!changeLog_) {
    changeLog_ = newChangeLogCollection();
    updateChangeNames();
  }
  std::shared_ptr<CorvaneCacheArray> log = changeLog_;
  RecursiveMutexLock logLock(&log->mutex());
  const Value& changes = change["changes"];
  log->addObject(change);
  if (!changes.empty()) {
    // The set of names is rebuilt when next asked for: rebuilding it for every record would
    // make replaying a long history quadratic.
    changeNamesStale_ = true;
    addObjectUIDs(changes["insert"], isExternal);
    updateObjectUIDs(changes["update"], isExternal);
    removeObjectUIDs(changes["delete"], isExternal);
  }
  announceChanges(CacheChangeStage::WillChange);
  announceChanges(CacheChangeStage::DidChange);
}

void CorvaneCache::removeChange(const Value& change, bool isExternal) {
  RecursiveMutexLock lock(&mutex_);
  announceChanges(CacheChangeStage::WillChange);
  // The top-level "inserts" of the older record shape, not "changes"/"insert": records of the
  // current shape therefore leave the UID tables alone. Kept as the other devices expect.
  removeObjectUIDs(change["inserts"], isExternal);
  if (changeLog_) changeLog_->removeObject(change);
  announceChanges(CacheChangeStage::DidChange);
  updateChangeNames();
}

// ---- UID lists -----------------------------------------------------------------------------

void CorvaneCache::addObjectUIDs(const Value& lists, bool isExternal) {
  if (isExternal) invalidateObjectUIDs(lists);
  for (const auto& [entityName, byUID] : lists.entries()) {
    if (Value uids = uidsOf(byUID); !uids.isNil()) cacheForEntityUIDs(entityName.str())->addObjects(uids);
  }
  cacheMissingItems();
}

void CorvaneCache::updateObjectUIDs(const Value& lists, bool isExternal) {
  if (isExternal) invalidateObjectUIDs(lists);
  // A recovering store learns of objects from updates as well.
  if (!store_->recover()) return;
  for (const auto& [entityName, byUID] : lists.entries()) {
    if (Value uids = uidsOf(byUID); !uids.isNil()) cacheForEntityUIDs(entityName.str())->addObjects(uids);
  }
}

void CorvaneCache::removeObjectUIDs(const Value& lists, bool isExternal) {
  if (isExternal) invalidateObjectUIDs(lists);
  for (const auto& [entityName, byUID] : lists.entries()) {
    if (Value uids = uidsOf(byUID); !uids.isNil()) cacheForEntityUIDs(entityName.str())->removeObjects(uids);
  }
}

void CorvaneCache::invalidateObjectUIDs(const Value& lists) {
  // Changes from elsewhere never patch a cached item: it is dropped and read again on next use.
  for (const auto& [entityName, byUID] : lists.entries()) {
    const EntityDescription* entity = store_->entityForName(entityName.str());
    if (entity == nullptr || !byUID.isDictionary()) continue;
    for (const auto& entry : byUID.entries()) {
      ObjectID objectID = store_->newObjectIDForEntity(entity, entry.first);
      if (objectID) removeObjectID(objectID);
    }
  }
}

Value CorvaneCache::objectUIDsForEntity(const EntityDescription& entity) {
  return objectUIDsForEntityName(entity.name());
}

Value CorvaneCache::objectUIDsForEntityName(const std::string& entityName) {
  return cacheForEntityUIDs(entityName)->content();
}

std::shared_ptr<CorvaneCacheSet> CorvaneCache::cacheForEntityUIDs(const std::string& entityName) {
  const std::string key = entityName + "_uids";
  RecursiveMutexLock lock(&mutex_);
  auto& table = uids_[key];
  if (!table) table = CorvaneCacheSet::setWithStore(store_, URLForKey(key));
  return table;
}

// ---- The log -------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheArray> CorvaneCache::changeLog() const {
  RecursiveMutexLock lock(&mutex_);
  return changeLog_;
}

Value CorvaneCache::changes() const {
  std::shared_ptr<CorvaneCacheArray> log = changeLog();
  return log ? log->content() : Value::array();
}

Value CorvaneCache::changesChain() const {
  const Value all = changes();
  const std::vector<Value>& records = all.elements();
  std::vector<Value> chain;
  for (auto it = records.rbegin(); it != records.rend() && chain.size() < kChangesChainLength; ++it) {
    const Value& record = *it;
    const Value& session = record["session"];
    Value link = Value::mutableDictionary();
    link.set("name", record["name"]);
    link.set("previousName", record["previousName"]);
    link.set("machineName", session["machineName"]);
    link.set("fullUserName", session["fullUserName"]);
    link.set("osVersion", session["osVersion"]);
    link.set("version", session["version"]);
    chain.push_back(link.copy());
  }
  return Value::array(std::move(chain));
}

void CorvaneCache::updateChangeNames() {
  RecursiveMutexLock lock(&mutex_);
  std::vector<Value> names;
  if (changeLog_) {
    const Value all = changeLog_->content();
    for (const Value& record : all.elements()) {
      const Value& name = record["name"];
      if (record["type"] != Value("recovery") && !name.isNil()) names.push_back(name);
    }
  }
  changeNames_ = Value::set(std::move(names));
  changeNamesStale_ = false;
}

Value CorvaneCache::changeNames() const {
  RecursiveMutexLock lock(&mutex_);
  if (changeNamesStale_) const_cast<CorvaneCache*>(this)->updateChangeNames();
  return changeNames_.isNil() ? Value::set() : changeNames_;
}

void CorvaneCache::installChangeLog(const std::shared_ptr<CorvaneCacheArray>& log) {
  RecursiveMutexLock lock(&mutex_);
  announceChanges(CacheChangeStage::WillChange);
  changeLog_ = log;
  announceChanges(CacheChangeStage::DidChange);
  updateChangeNames();
}

void CorvaneCache::loadChangeLogIfNeeded() {
  if (changeLog()) return;
  // Reading (and, for a package copy, validating) happens outside the cache's lock.
  std::shared_ptr<CorvaneCacheArray> log = newChangeLogCollection();
  log->loadIfNeeded();
  const Value records = log->content();
  const Value& first = records.at(0);
  if (!log->fromBundle() || records.empty()) {
    {
      RecursiveMutexLock lock(&mutex_);
      if (changeLog_) return;  // another thread was first
      installChangeLog(log);
    }
    if (records.empty()) {
      store_->log("No changes found", kCorvaneLogTypeWarning);
    } else {
      store_->log("Loaded changes", kCorvaneLogTypeSuccess);
    }
    return;
  }
  logLine("Start Check");
  const bool valid = !store_->validatedChanges(first, true).isNil();
  logLine("End Check");
  if (!valid) {
    store_->log("Aborting for now. Trying later", kCorvaneLogTypeWarning);
    std::weak_ptr<CorvaneCache> weak = weak_from_this();
    RecursiveMutexLock lock(&mutex_);
    retryToken_ = mainLoop_->postAfter(kChangeLogRetrySeconds, [weak] {
      if (auto self = weak.lock()) self->loadChangeLogIfNeeded();
    });
    return;
  }
  {
    RecursiveMutexLock lock(&mutex_);
    if (changeLog_) return;
    installChangeLog(log);
  }
  const Value& changes = first["changes"];
  store_->refreshInsertedObjects(changes["insert"], changes["update"], changes["delete"]);
  store_->log("Loaded Cache", kCorvaneLogTypeSuccess);
}

// ---- Announcements -------------------------------------------------------------------------

Subscription CorvaneCache::observeChanges(std::function<void(CacheChangeStage)> callback) {
  CORVANE_DCHECK(mainLoop_->isMainThread());
  return ChangesObservers::subscribe(changesObservers_, std::move(callback));
}

void CorvaneCache::announceChanges(CacheChangeStage stage) {
  // Observers (history views) run on the main thread, never under the cache's locks.
  mainLoop_->post([observers = changesObservers_, stage] { observers->deliver(stage); });
}

}  // namespace corvane
