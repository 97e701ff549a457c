// CorvaneCache: location, binding, item lookup, reset, termination and teardown.
#include "corvane/cache/cache.h"

#include <cctype>
#include <string_view>

#include "cache/cache_internal.h"
#include "cache/index_operations.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"

namespace corvane {

CorvaneCacheStoreServices::~CorvaneCacheStoreServices() = default;

namespace {

constexpr const char* kLocalDatabaseCache = "LocalDatabaseCache";

// The host's identifier names the folder of its caches; a host that has not described itself
// still gets a folder of its own rather than the bare data folder.
std::string hostBundleIdentifier() {
  std::string identifier = ApplicationInfo::current().identifier;
  return identifier.empty() ? std::string(kFrameworkBundleIdentifier) : identifier;
}

// The absolute string of the file URL of a path, escaped as URL paths are.
std::string fileURLString(std::string_view path) {
  static constexpr std::string_view kKept = "-._~!$&'()*+,;=:@/";
  static const char kHex[] = "0123456789ABCDEF";
  std::string out = "file://";
  for (char ch : path) {
    auto c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || kKept.find(ch) != std::string_view::npos) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string cachesRoot(const std::string& base) {
  return pathJoin(pathJoin(base, hostBundleIdentifier()), kLocalDatabaseCache);
}

}  // namespace

// ---- Making --------------------------------------------------------------------------------

std::shared_ptr<CorvaneCache> CorvaneCache::cacheForStore(CorvaneCacheStoreServices* store, RunLoop* mainLoop) {
  return std::make_shared<CorvaneCache>(store, mainLoop);
}

CorvaneCache::CorvaneCache(CorvaneCacheStoreServices* store, RunLoop* mainLoop)
    : store_(store),
      mainLoop_(mainLoop != nullptr ? mainLoop : &RunLoop::main()),
      progress_(std::make_shared<Progress>()),
      changesObservers_(std::make_shared<ChangesObservers>()),
      queue_(std::string(kFrameworkBundleIdentifier) + ".CacheQueue", mainLoop_),
      saveQueue_(std::string(kFrameworkBundleIdentifier) + ".CacheSaveQueue") {
  CorvaneCacheItem::registerClass();
  auto& center = NotificationCenter::defaultCenter();
  saveObserver_ =
      center.addObserver(kApplicationWillTerminateNotification, nullptr, [this](const Notification&) { save(); });
  terminateObserver_ =
      center.addObserver(kApplicationWillTerminateNotification, nullptr, [this](const Notification&) { terminate(); });
}

CorvaneCache::~CorvaneCache() {
  saveObserver_.remove();
  terminateObserver_.remove();
  retryToken_.cancel();
  stopping_ = true;
  std::unique_ptr<OperationQueue> index;
  {
    RecursiveMutexLock lock(&mutex_);
    index = std::move(indexQueue_);
  }
  if (index) {
    index->cancelAllOperations();
    index->waitUntilAllOperationsAreFinished();
  }
  saveQueue_.waitUntilAllOperationsAreFinished();
}

// ---- Location ------------------------------------------------------------------------------

std::string CorvaneCache::cacheFolderName(const std::string& storeURL) {
  std::string text = storeURL.starts_with('/') ? fileURLString(storeURL) : storeURL;
  std::string_view trimmed = text;
  while (trimmed.starts_with('/')) trimmed.remove_prefix(1);
  while (trimmed.ends_with('/')) trimmed.remove_suffix(1);
  return storeMD5String(trimmed);
}

std::optional<std::string> CorvaneCache::cacheURLForStoreURL(const std::string& storeURL, Env* env) {
  const std::string support = env->dataHome();
  if (support.empty()) return std::nullopt;
  const std::string root = cachesRoot(support);
  if (!env->createDirectory(root, true, nullptr)) return std::nullopt;
  const std::string name = cacheFolderName(storeURL);
  const std::string folder = pathJoin(root, name);
  // Caches used to live in the caches folder, which the system may empty; move them over.
  const std::string cacheHome = env->cacheHome();
  bool isDirectory = false;
  if (!cacheHome.empty() && env->fileExists(cacheHome, &isDirectory) && isDirectory) {
    const std::string old = pathJoin(cachesRoot(cacheHome), name);
    // A cache that cannot be moved is left behind: a new one is filled from the package.
    if (env->fileExists(old) && !env->fileExists(folder)) (void)env->moveItem(old, folder, nullptr);
  }
  if (!env->fileExists(folder) && !env->createDirectory(folder, true, nullptr)) return std::nullopt;
  return folder;
}

bool CorvaneCache::checkWritePermissionsForStoreURL(const std::string& storeURL, Env* env) {
  std::optional<std::string> folder = cacheURLForStoreURL(storeURL, env);
  if (!folder) return false;
  const std::string text = env->newUUIDString();
  const std::string probe = pathJoin(*folder, text);
  const bool written = env->writeFileAtomically(probe, asBytes(text), nullptr);
  Bytes back;
  const bool read = written && env->readFile(probe, &back, nullptr);
  const bool removed = written && env->removeItem(probe, nullptr);
  return written && read && removed && asStringView(back) == text;
}

void CorvaneCache::resetCacheForURL(const std::string& storeURL, Env* env) {
  const std::string name = cacheFolderName(storeURL);
  // A reset that cannot remove a cache leaves it to the write probe, which fails again and
  // goes on to resetAllCaches(); nothing of a document lives only in its cache.
  if (std::string support = env->dataHome(); !support.empty()) {
    (void)env->removeItem(pathJoin(cachesRoot(support), name), nullptr);
  }
  // The old location too, or the next lookup would move the stale copy back in.
  if (std::string caches = env->cacheHome(); !caches.empty()) {
    (void)env->removeItem(pathJoin(cachesRoot(caches), name), nullptr);
  }
}

void CorvaneCache::resetAllCaches(Env* env) {
  if (std::string support = env->dataHome(); !support.empty()) (void)env->removeItem(cachesRoot(support), nullptr);
  if (std::string caches = env->cacheHome(); !caches.empty()) (void)env->removeItem(cachesRoot(caches), nullptr);
}

std::string CorvaneCache::defaultCacheFolderParent() const { return cachesRoot(store_->env()->dataHome()); }

// ---- Binding -------------------------------------------------------------------------------

void CorvaneCache::setStoreURL(const std::string& storeURL) {
  Env* env = store_->env();
  {
    RecursiveMutexLock lock(&mutex_);
    storeURL_ = storeURL;
  }
  std::string folder;
  if (std::optional<std::string> root = store_->cacheRootURL()) {
    // A host that chose the place is trusted with it: no probe, no migration.
    folder = pathJoin(*root, cacheFolderName(storeURL));
    Error error;
    if (!env->fileExists(folder) && !env->createDirectory(folder, true, &error)) {
      store_->logError(error, "CorvaneCache");  // the cache then lives in memory only
    }
  } else {
    if (!checkWritePermissionsForStoreURL(storeURL, env)) {
      resetCacheForURL(storeURL, env);
      if (!checkWritePermissionsForStoreURL(storeURL, env)) {
        resetAllCaches(env);
        if (!checkWritePermissionsForStoreURL(storeURL, env)) {
          store_->showAlert("The cache folder is write protected",
                            "Please delete the contents of the Folder that is beeing opened after closing this window");
          store_->revealInFileViewer(defaultCacheFolderParent());
        }
      }
    }
    folder = cacheURLForStoreURL(storeURL, env).value_or(std::string());
  }
  {
    RecursiveMutexLock lock(&mutex_);
    url_ = folder;
  }
  if (store_->upToChange().empty()) loadChangeLogIfNeeded();
}

std::string CorvaneCache::storeURL() const {
  RecursiveMutexLock lock(&mutex_);
  return storeURL_;
}

std::string CorvaneCache::URL() const {
  RecursiveMutexLock lock(&mutex_);
  return url_;
}

std::string CorvaneCache::URLForKey(const std::string& key) const {
  RecursiveMutexLock lock(&mutex_);
  if (key.empty() || url_.empty()) return {};
  return pathJoin(url_, key);
}

std::string CorvaneCache::storeKey(const std::string& entityName, const std::string& uid) {
  // UIDs are ASCII; for anything else take the whole first UTF-8 character.
  size_t length = uid.empty() ? 0 : 1;
  while (length < uid.size() && (static_cast<unsigned char>(uid[length]) & 0xC0) == 0x80) ++length;
  return entityName + "_" + uid.substr(0, length);
}

// ---- Items ---------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheDictionary> CorvaneCache::cacheForObjectID(const ObjectID& objectID) {
  const std::string uid = storeUID(objectID);
  const EntityDescription* entity = objectID.entity();
  if (uid.empty() || entity == nullptr) return nullptr;
  const std::string key = storeKey(entity->name(), uid);
  RecursiveMutexLock lock(&mutex_);
  auto& table = entities_[key];
  if (!table) table = CorvaneCacheDictionary::dictionaryWithStore(store_, URLForKey(key));
  return table;
}

CorvaneCacheItemPtr CorvaneCache::cacheItemForObjectID(const ObjectID& objectID) {
  auto table = cacheForObjectID(objectID);
  if (!table) return {};
  CorvaneCacheItemPtr item = table->itemForKey(storeUID(objectID));
  if (item) item->setCollection(table);
  return item;
}

CorvaneCacheItemPtr CorvaneCache::cacheItemForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  return findItem(objectID, context, false);
}

CorvaneCacheItemPtr CorvaneCache::findItem(const ObjectID& objectID, ManagedObjectContext* context,
                                           bool needsAttributes) {
  auto table = cacheForObjectID(objectID);
  if (!table) return {};
  const std::string uid = storeUID(objectID);
  CorvaneCacheItemPtr existing = table->itemForKey(uid);
  if (existing && (!needsAttributes || !existing->attributes().isNil())) {
    existing->setCollection(table);
    return existing;
  }
  const uint64_t noted = generation_.load();
  // Loading reads the package and may take long: no cache lock is held meanwhile.
  CorvaneCacheItemPtr loaded =
      existing ? store_->loadValuesForObjectID(objectID, context) : loadValuesForObjectID(objectID, context, table);
  if (!loaded) return {};
  loaded->setCollection(table);
  // Removals increment the generation and drop items under the cache's lock, so comparing and
  // storing under it cannot slip between the two.
  RecursiveMutexLock lock(&mutex_);
  if (CorvaneCacheItemPtr faster = table->itemForKey(uid); faster && !(faster == existing)) {
    faster->setCollection(table);
    return faster;
  }
  if (generation_.load() == noted) table->setValue(loaded.value(), Value(uid));
  return loaded;
}

CorvaneCacheItemPtr CorvaneCache::loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context,
                                                        const std::shared_ptr<CorvaneCacheDictionary>& table) {
  CorvaneCacheItemPtr item = table ? table->itemForKey(storeUID(objectID)) : CorvaneCacheItemPtr();
  if (!item) item = store_->loadValuesForObjectID(objectID, context);
  if (item && table) item->setCollection(table);
  return item;
}

Value CorvaneCache::attributesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  CorvaneCacheItemPtr item = findItem(objectID, context, false);
  return item ? item->attributesForObjectID(objectID, store_, context) : Value();
}

Value CorvaneCache::valuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  CorvaneCacheItemPtr item = findItem(objectID, context, true);
  return item ? item->valuesForObjectID(objectID, store_, context) : Value();
}

Value CorvaneCache::allValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) {
  CorvaneCacheItemPtr item = findItem(objectID, context, false);
  return item ? item->allValuesForObjectID(objectID, store_, context) : Value();
}

void CorvaneCache::updateCacheForObjectID(const ObjectID& objectID, const Value& values, const std::string& url) {
  auto table = cacheForObjectID(objectID);
  const EntityDescription* entity = objectID.entity();
  if (!table || entity == nullptr) return;
  const std::string uid = storeUID(objectID);
  // Finding or making the item and storing it is one step, so that two writes of the same new
  // object cannot each make their own item.
  RecursiveMutexLock tableLock(&table->mutex());
  CorvaneCacheItemPtr item = table->itemForKey(uid);
  if (!item) item = CorvaneCacheItem::create();
  item->setCollection(table);
  item->updateValues(values["payload"], *entity, url, values["version"]);
  table->setValue(item.value(), Value(uid));
}

bool CorvaneCache::removeObjectID(const ObjectID& objectID) {
  RecursiveMutexLock lock(&mutex_);
  ++generation_;
  auto table = cacheForObjectID(objectID);
  if (!table) return false;
  const Value uid(storeUID(objectID));
  if (!table->valueForKey(uid).isNil()) table->removeObjectForKey(uid);
  return true;
}

void CorvaneCache::compactObjectID(const ObjectID& objectID) {
  // A table that was never read holds no item to compact; do not read it for that.
  auto table = cacheForObjectID(objectID);
  if (!table || !table->isLoaded()) return;
  if (CorvaneCacheItemPtr item = table->itemForKey(storeUID(objectID))) item->compact();
}

void CorvaneCache::compactObjectIDs(const std::vector<ObjectID>& objectIDs) {
  for (const ObjectID& objectID : objectIDs) compactObjectID(objectID);
}

void CorvaneCache::needsRefresh(const ObjectID& objectID) {
  RecursiveMutexLock lock(&mutex_);
  objectIDsToRefresh_.insert(objectID);
}

std::vector<ObjectID> CorvaneCache::objectIDsToRefresh() const {
  RecursiveMutexLock lock(&mutex_);
  return std::vector<ObjectID>(objectIDsToRefresh_.begin(), objectIDsToRefresh_.end());
}

void CorvaneCache::setExtraData(const Value& data, const Value& key, const ObjectID& objectID) {
  if (CorvaneCacheItemPtr item = cacheItemForObjectID(objectID)) item->setExtraData(data, key);
}

Value CorvaneCache::extraDataForKey(const Value& key, const ObjectID& objectID) {
  CorvaneCacheItemPtr item = cacheItemForObjectID(objectID);
  return item ? item->extraDataForKey(key) : Value();
}

void CorvaneCache::resetExtraDataForObjectID(const ObjectID& objectID) {
  if (CorvaneCacheItemPtr item = cacheItemForObjectID(objectID)) item->resetExtraData();
}

// ---- Reset and termination -----------------------------------------------------------------

void CorvaneCache::reset() {
  const std::string folder = URL();
  Error error;
  if (!folder.empty() && store_->env()->fileExists(folder) && !store_->env()->removeItem(folder, &error)) {
    store_->logError(error, "CorvaneCache");
  }
  {
    RecursiveMutexLock lock(&mutex_);
    ++generation_;
    // The tables are made again on demand, empty, since their files are gone.
    entities_.clear();
    uids_.clear();
    if (changeLog_) {
      changeLog_->setContent(Value::array());
      updateChangeNames();
    } else {
      changeLog_ = newChangeLogCollection();
    }
  }
  store_->log("Reset Log", kCorvaneLogTypeWarning);
}

void CorvaneCache::setSnapshotCommand(std::optional<SnapshotCommand> command) {
  RecursiveMutexLock lock(&mutex_);
  snapshot_ = std::move(command);
}

void CorvaneCache::terminate() {
  std::optional<SnapshotCommand> command;
  {
    RecursiveMutexLock lock(&mutex_);
    command = snapshot_;
  }
  if (!command) return;
  try {
    store_->env()->launchDetached(command->executable, command->arguments, nullptr);
  } catch (...) {
    // Quitting goes on whatever the snapshot tool does.
  }
}

}  // namespace corvane
