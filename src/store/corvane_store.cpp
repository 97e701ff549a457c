// CorvaneStore: opening, identity, entity folder names, the cipher, metadata, the cache
// services and closing.
#include "corvane/store/corvane_store.h"

#include <fmt/format.h>

#include "corvane/cache/cache.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"
#include "store/store_internal.h"
#include "store/store_private.h"

namespace corvane {

using store_internal::storeError;

// Lets work queued for the main run loop find out whether its store still exists. The lock is
// held while such work runs, so the destructor waits for a running piece instead of pulling
// the store from under it.
struct CorvaneStore::Liveness {
  std::recursive_mutex mutex;
  bool alive = true;
};

namespace {

Value environmentFor(const Value& options) {
  if (StoreEnvironment* given = StoreEnvironment::fromOptions(options)) return Value::object(given);
  return Value::object(new StoreEnvironment());
}

double delayOption(const Value& options, const char* key, double fallback) {
  const Value& v = options[key];
  return (v.isNumber() || v.isDecimal()) && v.doubleValue() >= 0 ? v.doubleValue() : fallback;
}

Value bundleDictionary(const std::string& identifier, const std::string& version, const std::string& shortVersion) {
  return dict({{"CFBundleIdentifier", Value(identifier)},
               {"CFBundleVersion", Value(version)},
               {"CFBundleShortVersionString", Value(shortVersion)}});
}

}  // namespace

void CorvaneStore::registerStoreType() {
  PersistentStoreCoordinator::registerStoreType(
      kCorvaneStoreType, [](PersistentStoreCoordinator* coordinator, const std::string& configurationName,
                            const std::string& url, const Value& options) {
        return std::unique_ptr<IncrementalStore>(new CorvaneStore(coordinator, configurationName, url, options));
      });
}

// ---- Opening -------------------------------------------------------------------------------

CorvaneStore::CorvaneStore(PersistentStoreCoordinator* coordinator, std::string configurationName, std::string url,
                           Value options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url), options),
      environmentValue_(environmentFor(options)),
      environment_(static_cast<StoreEnvironment*>(environmentValue_.objectPointer())),
      env_(environment_->env != nullptr ? environment_->env : Env::defaultEnv()),
      mainLoop_(environment_->mainLoop != nullptr ? environment_->mainLoop : &RunLoop::main()),
      volumes_(environment_->volumes ? environment_->volumes : defaultStoreVolumeQueries()),
      liveness_(std::make_shared<Liveness>()),
      dateFormatter_(kChangeNameDatePattern, DateTimeZone::gmt()),
      errorLevel_(std::string(kCorvaneLogTypeSuccess), mainLoop_),
      readQueue_(std::string(kFrameworkBundleIdentifier) + ".ReadQueue", mainLoop_),
      saveQueue_(std::make_unique<OperationQueue>(std::string(kFrameworkBundleIdentifier) + ".SaveQueue")) {
  session_ = env_->newUUIDString();
  if (options["password"].isString()) password_ = options["password"].str();
  cacheRootURL_ = store_internal::pathFromLocation(options[kCorvaneCacheRootURLOption]);
  fullUserName_ = env_->fullUserName();
  userName_ = env_->userName();
  osVersion_ = env_->osVersion();
  recover_ = options[kCorvaneRecoverOption].boolValue();
  machineName_ = env_->machineName();
  retryDelay_ = delayOption(options, kCorvaneUpdateRetryDelayOption, 10.0);
  debounceDelay_ = delayOption(options, kCorvaneChangeDebounceDelayOption, 5.0);
  upToChange_ = options[kCorvaneUpToChangeOption];
  storeOptions_ = store_internal::mutableDictionaryCopy(options);
  storeOptions_.remove(Value(kCorvaneUpToChangeOption));
  loadingIssues_ = Value::mutableArray();
  errorRecords_ = Value::mutableArray();
  logObservers_ = std::make_shared<LogObservers>();
  cache_ = CorvaneCache::cacheForStore(this, mainLoop_);
  setupEntityKeys();
}

CorvaneStore::~CorvaneStore() {
  {
    std::lock_guard<std::recursive_mutex> lock(liveness_->mutex);
    liveness_->alive = false;
  }
  {
    std::lock_guard<std::mutex> lock(tokensMutex_);
    updateToken_.cancel();
    processToken_.cancel();
    refreshLogToken_.cancel();
  }
  saveQueue_->waitUntilAllOperationsAreFinished();
  readQueue_.sync([] {});  // a running pass finishes; what it posts to the main loop is dropped
  // The cache's background work calls back into the store: it stops with the cache.
  cache_.reset();
}

bool CorvaneStore::loadMetadata(Error* error) {
  const std::string& path = url();
  bool isDirectory = false;
  if (env_->fileExists(path, &isDirectory) && (!isDirectory || !isCorrectFormat(path, env_, environment_))) {
    return setError(error, storeError(path + " is not a Corvane document"));
  }
  const bool existed = env_->fileExists(path);
  if (!writeInfo(storeOptions_, error)) return false;
  // A package made here is a new document: what a cache holds for this path belongs to one that
  // was here before, and its log would make this one's first change follow a change it lacks.
  if (!existed) {
    if (std::optional<std::string> root = cacheRootURL()) {
      const std::string stale = pathJoin(*root, CorvaneCache::cacheFolderName(path));
      Error failure;
      if (env_->fileExists(stale) && !env_->removeItem(stale, &failure)) {
        return setError(error, storeError("The cache of an earlier document at " + path + " cannot be removed: " +
                                          failure.localizedDescription));
      }
    } else {
      CorvaneCache::resetCacheForURL(path, env_);
    }
  }
  const Value info = infoDictionaryForURL(path, env_);
  if (!info.isDictionary()) return setError(error, storeError(infoURL() + " could not be read"));
  if (isEncryptedPackageInfo(info)) {
    if (!password_) return setError(error, storeError(path + " is encrypted: a password is needed to open it"));
    SeaCrypto cipher(env_);
    if (!canOpenWithPassword(info, *password_, env_, &cipher)) {
      return setError(error, storeError("The password does not open " + path));
    }
    std::lock_guard<std::mutex> lock(cryptoMutex_);
    if (!crypto_) crypto_ = std::make_shared<const SeaCrypto>(std::move(cipher));
  } else if (password_) {
    return setError(error, storeError(path + " is not encrypted: open it without a password"));
  }
  std::string identifier = info["DocumentIdentifier"].str();
  if (identifier.empty()) identifier = env_->newUUIDString();
  PersistentStore::setMetadata(dict({{kStoreTypeKey, Value(kCorvaneStoreType)}, {kStoreUUIDKey, Value(identifier)}}));
  refreshURLs();
  observeDirectory();
  return true;
}

bool CorvaneStore::writeInfo(const Value& options, Error* error) {
  const std::string& path = url();
  if (env_->fileExists(path)) return true;
  // The package appears whole or not at all: it is made in a hidden folder beside its place and
  // moved there in one rename. A process killed half way through would otherwise leave a folder
  // without Info.plist, or an encrypted one without its password's verifier, that no store can
  // ever open again.
  const std::string parent = pathDeletingLastComponent(path);
  const std::string building =
      pathJoin(parent, fmt::format(".{}.{}.tmp", pathLastComponent(path), env_->newUUIDString()));
  Value info = Value::mutableDictionary();
  const Value& identifier = options[kCorvaneDocumentIdentifierOption];
  info.set(Value("DocumentIdentifier"), identifier.isString() ? identifier : Value(env_->newUUIDString()));
  if (const Value& v = options[kCorvaneDocumentInfoOption]; v.isDictionary()) info.set(Value("DocumentInfo"), v);
  if (const Value& v = options[kCorvaneDocumentOptionsOption]; v.isDictionary()) {
    info.set(Value("DocumentOptions"), v);
  }
  const ApplicationInfo host = environment_->applicationOrCurrent();
  info.set(Value("Application"), bundleDictionary(host.identifier, host.version, host.shortVersion));
  info.set(Value("Corvane"), bundleDictionary(kFrameworkBundleIdentifier, kFrameworkVersion, kFrameworkShortVersion));
  info.set(Value("DateCreation"), Value::date(env_->now()));
  Error failure;
  if (password_) {
    // Salt, rounds and the password's verifier, made with the cipher they describe.
    std::optional<Value> encryption = makeEncryptionEntry(*password_, env_, environment_->encryptionRounds);
    if (!encryption) return setError(error, storeError("Could not set up the encryption of " + path));
    info.set(Value(kEncryptionKey), *encryption);
  }
  // A package is recognised by its folders as well, so a new one has them from the start.
  const bool made = env_->createDirectory(parent, true, &failure) &&
                    env_->createDirectory(pathJoin(building, "Changes"), true, &failure) &&
                    env_->createDirectory(pathJoin(building, "Entities"), true, &failure) &&
                    writePropertyListFile(env_, pathJoin(building, "Info.plist"), info, &failure);
  // Moving fails when another store made the package meanwhile: that one is kept.
  if (!made || !env_->moveItem(building, path, &failure)) {
    (void)env_->removeItem(building, nullptr);  // hidden, and never read: harmless if it stays
    if (!env_->fileExists(path)) return setError(error, std::move(failure));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  info_ = Value();
  return true;
}

// ---- Identity and URLs ---------------------------------------------------------------------

std::string CorvaneStore::infoURL() const { return pathJoin(url(), "Info.plist"); }

Value CorvaneStore::infoDictionary() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (info_.isNil()) {
    Value read = infoDictionaryForURL(url(), env_);
    info_ = read.isDictionary() ? read.mutableCopy() : Value::mutableDictionary();
  }
  return info_;
}

std::string CorvaneStore::documentIdentifier() const { return infoDictionary()["DocumentIdentifier"].str(); }

bool CorvaneStore::setDocumentIdentifier(const std::string& identifier, Error* error) {
  Value info = store_internal::mutableDictionaryCopy(infoDictionaryForURL(url(), env_));
  info.set(Value("DocumentIdentifier"), Value(identifier));
  if (!writePropertyListFile(env_, infoURL(), info, error)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  info_ = info;
  return true;
}

std::optional<std::string> CorvaneStore::password() const { return password_; }

void CorvaneStore::refreshURLs() {
  const std::string& path = url();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    entitiesURL_ = pathJoin(path, "Entities");
    changesURL_ = pathJoin(path, "Changes");
    cacheURL_ = pathJoin(path, "Cache");
    errorsURL_ = pathJoin(path, "Errors");
  }
  // Error records are written into it later; without it they are only logged. A view up to a
  // change writes nothing into the package.
  if (upToChange().empty()) (void)env_->createDirectory(errorsURL(), true, nullptr);
  cache_->setStoreURL(path);
  // The package the cache is bound to may hold changes it lacks.
  updateChanges();
  registerURL(path, infoDictionary().copy(), Value(), env_, environment_->defaults, volumes_);
}

void CorvaneStore::setPackageURL(const std::string& newURL) {
  if (newURL == url()) {
    setURL(newURL);
    return;
  }
  unobserveDirectory();
  setURL(newURL);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    info_ = Value();
  }
  refreshURLs();
  observeDirectory();
}

std::string CorvaneStore::entitiesURL() {
  std::lock_guard<std::mutex> lock(mutex_);
  return entitiesURL_;
}

std::string CorvaneStore::changesURL() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return changesURL_;
}

std::string CorvaneStore::cacheURL() {
  std::lock_guard<std::mutex> lock(mutex_);
  return cacheURL_;
}

std::string CorvaneStore::errorsURL() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return errorsURL_;
}

Value CorvaneStore::userInfo() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return userInfo_;
}

void CorvaneStore::setUserInfo(const Value& userInfo) {
  std::lock_guard<std::mutex> lock(mutex_);
  userInfo_ = userInfo.isDictionary() ? userInfo.copy() : Value();
}

Value CorvaneStore::sessionDictionary() const {
  Value session = dict({{"userName", Value(userName_)},
                        {"fullUserName", Value(fullUserName_)},
                        {"machineName", Value(machineName_)},
                        {"id", Value(session_)},
                        {"version", Value(environment_->applicationOrCurrent().version)},
                        {"osVersion", Value(osVersion_)}},
                       true);
  if (Value info = userInfo(); info.isDictionary()) session.set(Value("userInfo"), info);
  return session.copy();
}

std::string CorvaneStore::upToChange() { return upToChange_["name"].str(); }

// ---- Entity folder names -------------------------------------------------------------------

std::string CorvaneStore::entityFolderName(const std::string& entityName, bool encrypted) {
  if (!encrypted) return entityName;
  // The salt slot says "(null)": when these names were first made the cipher did not exist yet,
  // and every encrypted package in existence depends on that.
  return storeSHA256String(fmt::format("(null).{}.{}", entityName, kFrameworkBundleIdentifier));
}

void CorvaneStore::setupEntityKeys() {
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (coordinator == nullptr || !coordinator->managedObjectModel()) return;
  entityList_ = coordinator->managedObjectModel()->entities();
  for (const EntityDescription* entity : entityList_) {
    std::string folder = entityFolderName(entity->name(), password_.has_value());
    entityKeys_[entity->name()] = folder;
    reverseEntityKeys_[folder] = entity->name();
  }
}

std::string CorvaneStore::fileNameForEntity(const EntityDescription& entity) {
  return fileNameForEntityName(entity.name());
}

std::string CorvaneStore::fileNameForEntityName(const std::string& entityName) const {
  auto it = entityKeys_.find(entityName);
  return it == entityKeys_.end() ? std::string() : it->second;
}

std::string CorvaneStore::entityNameForFileName(const std::string& fileName) const {
  auto it = reverseEntityKeys_.find(fileName);
  return it == reverseEntityKeys_.end() ? std::string() : it->second;
}

std::vector<const EntityDescription*> CorvaneStore::entities() { return entityList_; }

const EntityDescription* CorvaneStore::entityForName(std::string_view name) {
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (coordinator == nullptr || !coordinator->managedObjectModel()) return nullptr;
  return coordinator->managedObjectModel()->entity(name);
}

// ---- Cipher --------------------------------------------------------------------------------

std::shared_ptr<const SeaCrypto> CorvaneStore::cipher() {
  std::lock_guard<std::mutex> lock(cryptoMutex_);
  if (!crypto_ && password_) {
    const Value info = infoDictionaryForURL(url(), env_);
    crypto_ = std::make_shared<const SeaCrypto>(seaCryptoForPackageInfo(info, *password_, env_));
  }
  return crypto_;
}

void CorvaneStore::reloadPackageInfo() {
  {
    std::lock_guard<std::mutex> lock(cryptoMutex_);
    crypto_.reset();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  info_ = Value();
}

std::optional<Bytes> CorvaneStore::encrypt(ByteView bytes) {
  if (!password_) return Bytes(bytes.begin(), bytes.end());
  std::shared_ptr<const SeaCrypto> crypto = cipher();
  if (!crypto) return std::nullopt;
  return crypto->encryptData(bytes);
}

std::optional<Bytes> CorvaneStore::decrypt(ByteView bytes) {
  if (!password_) return Bytes(bytes.begin(), bytes.end());
  std::shared_ptr<const SeaCrypto> crypto = cipher();
  if (!crypto) return std::nullopt;
  return crypto->decryptData(bytes);
}

bool CorvaneStore::resetCache(Error* error) {
  return !env_->fileExists(cacheURL()) || env_->removeItem(cacheURL(), error);
}

// ---- Metadata ------------------------------------------------------------------------------

Value CorvaneStore::metadata() const {
  uint64_t generation = 0;
  {
    std::unique_lock<std::mutex> lock(metadataMutex_);
    for (;;) {
      if (cachedMetadata_.isDictionary() && !cachedMetadata_["Corvane"].isNil()) return cachedMetadata_;
      if (!fetchingMetadata_) break;
      // The fetching thread asking again (through the base store) cannot wait for itself.
      if (metadataFetcher_ == std::this_thread::get_id()) {
        return cachedMetadata_.isDictionary() ? cachedMetadata_ : Value::dictionary();
      }
      // Anyone else waits for the one fetch rather than taking an empty answer; the lock is not
      // held while the base store and Info.plist are read.
      metadataFetched_.wait(lock);
      if (!fetchingMetadata_ && cachedMetadata_.isDictionary()) return cachedMetadata_;
    }
    fetchingMetadata_ = true;
    metadataFetcher_ = std::this_thread::get_id();
    generation = metadataGeneration_;
  }
  Value merged = store_internal::mutableDictionaryCopy(PersistentStore::metadata());
  const Value info = infoDictionary();
  for (const auto& [key, value] : info.entries()) merged.set(key, value);
  const Value result = merged.copy();
  {
    std::lock_guard<std::mutex> lock(metadataMutex_);
    fetchingMetadata_ = false;
    metadataFetcher_ = std::thread::id();
    // A setMetadata() meanwhile made this result stale: the next caller fetches again.
    if (generation == metadataGeneration_) cachedMetadata_ = result;
  }
  metadataFetched_.notify_all();
  return result;
}

void CorvaneStore::setMetadata(const Value& metadata) {
  Value info;
  {
    std::lock_guard<std::mutex> lock(metadataMutex_);
    Value read;
    Error error;
    if (!readPropertyListFile(env_, infoURL(), &read, &error) && env_->fileExists(infoURL())) {
      log(fmt::format("Error reading dictionary from URL: {}", infoURL()), kCorvaneLogTypeWarning);
    }
    info = store_internal::mutableDictionaryCopy(read);
    for (const auto& [key, value] : metadata.entries()) info.set(key, value);
    cachedMetadata_ = Value();
    ++metadataGeneration_;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    info_ = info;
  }
  PersistentStore::setMetadata(info.copy());
}

// ---- Main-thread work ----------------------------------------------------------------------

std::function<void()> CorvaneStore::guarded(std::function<void()> work) const {
  return [weak = std::weak_ptr<Liveness>(liveness_), work = std::move(work)] {
    auto liveness = weak.lock();
    if (!liveness) return;
    std::lock_guard<std::recursive_mutex> lock(liveness->mutex);
    if (liveness->alive) work();
  };
}

void CorvaneStore::onMain(std::function<void()> work) const { mainLoop_->post(guarded(std::move(work))); }

// ---- Closing -------------------------------------------------------------------------------

void CorvaneStore::setClosed(bool closed) {
  closed_ = closed;
  if (closed) unobserveDirectory();
}

void CorvaneStore::close() {
  setClosed(true);
  {
    std::lock_guard<std::mutex> lock(objectIDsMutex_);
    chosenUIDs_.clear();  // for objects never saved
  }
  waitForSaves();
  cache_->saveQueue().waitUntilAllOperationsAreFinished();
  cache_->save();
}

void CorvaneStore::waitForSaves() { saveQueue_->waitUntilAllOperationsAreFinished(); }

// ---- Cache services ------------------------------------------------------------------------

ObjectID CorvaneStore::objectIDForReferenceString(std::string_view reference) {
  std::lock_guard<std::mutex> lock(objectIDsMutex_);
  auto it = objectIDs_.find(std::string(reference));
  return it == objectIDs_.end() ? ObjectID() : it->second;
}

void CorvaneStore::setObjectIDForReferenceString(std::string_view reference, const ObjectID& objectID) {
  std::lock_guard<std::mutex> lock(objectIDsMutex_);
  objectIDs_[std::string(reference)] = objectID;
}

void CorvaneStore::preventFromSaving() { blockSaves_ = true; }

// The user is reached from the main run loop only, as Interaction promises its implementers.
void CorvaneStore::showAlert(const std::string& message, const std::string& informativeText) {
  mainLoop_->perform([interaction = environment_->interactionOrDefault(), alert = Alert{message, informativeText, {}}] {
    interaction->runAlert(alert);
  });
}

void CorvaneStore::revealInFileViewer(const std::string& path) {
  mainLoop_->perform(
      [interaction = environment_->interactionOrDefault(), path] { interaction->revealInFileViewer(path); });
}

void CorvaneStore::presentError(const Error& error) {
  Error copy = error;
  onMain([this, copy] { showAlert(copy.localizedDescription, copy.recoverySuggestion); });
}

std::vector<std::shared_ptr<ManagedObjectContext>> CorvaneStore::contexts() const {
  std::lock_guard<std::mutex> lock(contextsMutex_);
  std::vector<std::shared_ptr<ManagedObjectContext>> out;
  for (const auto& weak : contexts_) {
    if (auto context = weak.lock()) out.push_back(std::move(context));
  }
  return out;
}

void CorvaneStore::registerContext(ManagedObjectContext* context) {
  if (context == nullptr) return;
  std::weak_ptr<ManagedObjectContext> weak = context->weak_from_this();
  if (weak.expired()) return;  // not owned by a shared_ptr: nobody could refresh it safely
  std::lock_guard<std::mutex> lock(contextsMutex_);
  std::erase_if(contexts_, [](const std::weak_ptr<ManagedObjectContext>& w) { return w.expired(); });
  for (const auto& known : contexts_) {
    if (!known.owner_before(weak) && !weak.owner_before(known)) return;
  }
  contexts_.push_back(std::move(weak));
}

}  // namespace corvane
