// CorvaneStore: opening, identity, entity folder names, the cipher, metadata, the cache
// services and closing.
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_package.h"

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
#include "corvane/store/corvane_store_options.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

using store_internal::storeError;

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
                           const Value& options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url), options) {
  Value environmentValue = environmentFor(options);
  auto* environment = static_cast<StoreEnvironment*>(environmentValue.objectPointer());
  RunLoop* mainLoop = environment->mainLoop != nullptr ? environment->mainLoop : &RunLoop::main();
  state_ = std::make_unique<State>(mainLoop);
  state_->environmentValue = std::move(environmentValue);
  state_->environment = environment;
  state_->env = environment->env != nullptr ? environment->env : Env::defaultEnv();
  state_->mainLoop = mainLoop;
  state_->volumes = environment->volumes ? environment->volumes : defaultStoreVolumeQueries();
  state_->writer.queue = std::make_unique<OperationQueue>(std::string(kFrameworkBundleIdentifier) + ".SaveQueue");
  state_->session = state_->env->newUUIDString();
  if (options["password"].isString()) state_->password = options["password"].str();
  state_->cacheRootURL = store_internal::pathFromLocation(options[kCorvaneCacheRootURLOption]);
  state_->fullUserName = state_->env->fullUserName();
  state_->userName = state_->env->userName();
  state_->osVersion = state_->env->osVersion();
  state_->updates.recover = options[kCorvaneRecoverOption].boolValue();
  state_->machineName = state_->env->machineName();
  state_->updates.retryDelay = delayOption(options, kCorvaneUpdateRetryDelayOption, 10.0);
  state_->updates.debounceDelay = delayOption(options, kCorvaneChangeDebounceDelayOption, 5.0);
  state_->upToChange = options[kCorvaneUpToChangeOption];
  state_->storeOptions = store_internal::mutableDictionaryCopy(options);
  state_->storeOptions.remove(Value(kCorvaneUpToChangeOption));
  state_->cache = CorvaneCache::cacheForStore(this, state_->mainLoop);
  setupEntityKeys();
}

CorvaneStore::~CorvaneStore() {
  {
    RecursiveMutexLock lock(&state_->liveness->mutex);
    state_->liveness->alive = false;
  }
  {
    MutexLock lock(&state_->updates.tokensMutex);
    state_->updates.updateToken.cancel();
    state_->updates.processToken.cancel();
  }
  {
    MutexLock lock(&state_->log.mutex);
    state_->log.refreshToken.cancel();
  }
  state_->writer.queue->waitUntilAllOperationsAreFinished();
  state_->updates.readQueue.sync([] {});  // a running pass finishes; what it posts to the main loop is dropped
  // The cache's background work calls back into the store: it stops with the cache.
  state_->cache.reset();
}

bool CorvaneStore::loadMetadata(Error* error) {
  const std::string& path = url();
  bool isDirectory = false;
  if (state_->env->fileExists(path, &isDirectory) &&
      (!isDirectory || !CorvanePackage::isCorrectFormat(path, state_->env, state_->environment))) {
    return setError(error, storeError(path + " is not a Corvane document"));
  }
  const bool existed = state_->env->fileExists(path);
  if (!writeInfo(state_->storeOptions, error)) return false;
  // A package made here is a new document: what a cache holds for this path belongs to one that
  // was here before, and its log would make this one's first change follow a change it lacks.
  if (!existed) {
    if (std::optional<std::string> root = cacheRootURL()) {
      const std::string stale = pathJoin(*root, CorvaneCache::cacheFolderName(path));
      Error failure;
      if (state_->env->fileExists(stale) && !state_->env->removeItem(stale, &failure)) {
        return setError(error, storeError("The cache of an earlier document at " + path +
                                          " cannot be removed: " + failure.localizedDescription));
      }
    } else {
      CorvaneCache::resetCacheForURL(path, state_->env);
    }
  }
  const Value info = CorvanePackage::infoDictionaryForURL(path, state_->env);
  if (!info.isDictionary()) return setError(error, storeError(infoURL() + " could not be read"));
  if (isEncryptedPackageInfo(info)) {
    if (!state_->password) return setError(error, storeError(path + " is encrypted: a password is needed to open it"));
    SeaCrypto cipher(state_->env);
    if (!canOpenWithPassword(info, *state_->password, state_->env, &cipher)) {
      return setError(error, storeError("The password does not open " + path));
    }
    MutexLock lock(&state_->package.cryptoMutex);
    if (!state_->package.crypto) state_->package.crypto = std::make_shared<const SeaCrypto>(std::move(cipher));
  } else if (state_->password) {
    return setError(error, storeError(path + " is not encrypted: open it without a password"));
  }
  std::string identifier = info["DocumentIdentifier"].str();
  if (identifier.empty()) identifier = state_->env->newUUIDString();
  PersistentStore::setMetadata(dict({{kStoreTypeKey, Value(kCorvaneStoreType)}, {kStoreUUIDKey, Value(identifier)}}));
  refreshURLs();
  observeDirectory();
  return true;
}

bool CorvaneStore::writeInfo(const Value& options, Error* error) {
  const std::string& path = url();
  if (state_->env->fileExists(path)) return true;
  // The package appears whole or not at all: it is made in a hidden folder beside its place and
  // moved there in one rename. A process killed half way through would otherwise leave a folder
  // without Info.plist, or an encrypted one without its password's verifier, that no store can
  // ever open again.
  const std::string parent = pathDeletingLastComponent(path);
  const std::string building =
      pathJoin(parent, fmt::format(".{}.{}.tmp", pathLastComponent(path), state_->env->newUUIDString()));
  Value info = Value::mutableDictionary();
  const Value& identifier = options[kCorvaneDocumentIdentifierOption];
  info.set(Value("DocumentIdentifier"), identifier.isString() ? identifier : Value(state_->env->newUUIDString()));
  if (const Value& v = options[kCorvaneDocumentInfoOption]; v.isDictionary()) info.set(Value("DocumentInfo"), v);
  if (const Value& v = options[kCorvaneDocumentOptionsOption]; v.isDictionary()) {
    info.set(Value("DocumentOptions"), v);
  }
  const ApplicationInfo host = state_->environment->applicationOrCurrent();
  info.set(Value("Application"), bundleDictionary(host.identifier, host.version, host.shortVersion));
  info.set(Value("Corvane"), bundleDictionary(kFrameworkBundleIdentifier, kFrameworkVersion, kFrameworkShortVersion));
  info.set(Value("DateCreation"), Value::date(state_->env->now()));
  Error failure;
  if (state_->password) {
    // Salt, rounds and the password's verifier, made with the cipher they describe.
    std::optional<Value> encryption =
        makeEncryptionEntry(*state_->password, state_->env, state_->environment->encryptionRounds);
    if (!encryption) return setError(error, storeError("Could not set up the encryption of " + path));
    info.set(Value(kEncryptionKey), *encryption);
  }
  // A package is recognised by its folders as well, so a new one has them from the start.
  const bool made = state_->env->createDirectory(parent, true, &failure) &&
                    state_->env->createDirectory(pathJoin(building, "Changes"), true, &failure) &&
                    state_->env->createDirectory(pathJoin(building, "Entities"), true, &failure) &&
                    writePropertyListFile(state_->env, pathJoin(building, "Info.plist"), info, &failure);
  // Moving fails when another store made the package meanwhile: that one is kept.
  if (!made || !state_->env->moveItem(building, path, &failure)) {
    (void)state_->env->removeItem(building, nullptr);  // hidden, and never read: harmless if it stays
    if (!state_->env->fileExists(path)) return setError(error, std::move(failure));
  }
  MutexLock lock(&state_->package.mutex);
  state_->package.info = Value();
  return true;
}

// ---- Accessors -----------------------------------------------------------------------------

bool CorvaneStore::isEncrypted() const { return state_->password.has_value(); }
const std::string& CorvaneStore::session() const { return state_->session; }
const std::string& CorvaneStore::userName() const { return state_->userName; }
const std::string& CorvaneStore::fullUserName() const { return state_->fullUserName; }
const std::string& CorvaneStore::machineName() const { return state_->machineName; }
const std::string& CorvaneStore::osVersion() const { return state_->osVersion; }
const DateFormatter& CorvaneStore::dateFormatter() const { return state_->dateFormatter; }
CorvaneCache* CorvaneStore::cache() const { return state_->cache.get(); }
std::shared_ptr<CorvaneCache> CorvaneStore::sharedCache() const { return state_->cache; }
Env* CorvaneStore::env() { return state_->env; }
RunLoop& CorvaneStore::mainLoop() const { return *state_->mainLoop; }
SerialQueue& CorvaneStore::readQueue() { return state_->updates.readQueue; }
OperationQueue& CorvaneStore::saveOperationQueue() { return *state_->writer.queue; }
StoreVolumeQueries& CorvaneStore::volumes() const { return *state_->volumes; }
bool CorvaneStore::isClosed() const { return state_->updates.closed.load(); }
bool CorvaneStore::blockSaves() const { return state_->writer.blockSaves.load(); }
int64_t CorvaneStore::saveOperationsCount() const { return state_->writer.operationsCount.load(); }
int64_t CorvaneStore::saveOperationsValue() const { return state_->writer.operationsValue.load(); }
std::string CorvaneStore::errorLevel() const { return state_->log.errorLevel.get(); }
Observable<std::string>& CorvaneStore::errorLevelObservable() { return state_->log.errorLevel; }
bool CorvaneStore::isUpdating() const { return state_->updates.updating.load(); }
size_t CorvaneStore::finishedPasses() const { return state_->updates.finishedPasses.load(); }
size_t CorvaneStore::changesFileCount() const { return state_->updates.changesFileCount.load(); }
bool CorvaneStore::hasRemoteFiles() const { return state_->updates.hasRemoteFiles.load(); }
bool CorvaneStore::recover() { return state_->updates.recover.load(); }
void CorvaneStore::setRecover(bool recover) { state_->updates.recover = recover; }
std::optional<std::string> CorvaneStore::cacheRootURL() { return state_->cacheRootURL; }
const StoreEnvironment& CorvaneStore::environment() const { return *state_->environment; }

// ---- Identity and URLs ---------------------------------------------------------------------

std::string CorvaneStore::infoURL() const { return pathJoin(url(), "Info.plist"); }

Value CorvaneStore::infoDictionary() const {
  MutexLock lock(&state_->package.mutex);
  if (state_->package.info.isNil()) {
    Value read = CorvanePackage::infoDictionaryForURL(url(), state_->env);
    state_->package.info = read.isDictionary() ? read.mutableCopy() : Value::mutableDictionary();
  }
  return state_->package.info;
}

std::string CorvaneStore::documentIdentifier() const { return infoDictionary()["DocumentIdentifier"].str(); }

bool CorvaneStore::setDocumentIdentifier(const std::string& identifier, Error* error) {
  Value info = store_internal::mutableDictionaryCopy(CorvanePackage::infoDictionaryForURL(url(), state_->env));
  info.set(Value("DocumentIdentifier"), Value(identifier));
  if (!writePropertyListFile(state_->env, infoURL(), info, error)) return false;
  MutexLock lock(&state_->package.mutex);
  state_->package.info = info;
  return true;
}

std::optional<std::string> CorvaneStore::password() const { return state_->password; }

void CorvaneStore::refreshURLs() {
  const std::string& path = url();
  {
    MutexLock lock(&state_->package.mutex);
    state_->package.entitiesURL = pathJoin(path, "Entities");
    state_->package.changesURL = pathJoin(path, "Changes");
    state_->package.cacheURL = pathJoin(path, "Cache");
    state_->package.errorsURL = pathJoin(path, "Errors");
  }
  // Error records are written into it later; without it they are only logged. A view up to a
  // change writes nothing into the package.
  if (upToChange().empty()) (void)state_->env->createDirectory(errorsURL(), true, nullptr);
  state_->cache->setStoreURL(path);
  // The package the cache is bound to may hold changes it lacks.
  updateChanges();
  CorvanePackage::registerURL(path, infoDictionary().copy(), Value(), state_->env, state_->environment->defaults,
                              state_->volumes);
}

void CorvaneStore::setPackageURL(const std::string& newURL) {
  if (newURL == url()) {
    setURL(newURL);
    return;
  }
  unobserveDirectory();
  setURL(newURL);
  {
    MutexLock lock(&state_->package.mutex);
    state_->package.info = Value();
  }
  refreshURLs();
  observeDirectory();
}

std::string CorvaneStore::entitiesURL() {
  MutexLock lock(&state_->package.mutex);
  return state_->package.entitiesURL;
}

std::string CorvaneStore::changesURL() const {
  MutexLock lock(&state_->package.mutex);
  return state_->package.changesURL;
}

std::string CorvaneStore::cacheURL() {
  MutexLock lock(&state_->package.mutex);
  return state_->package.cacheURL;
}

std::string CorvaneStore::errorsURL() const {
  MutexLock lock(&state_->package.mutex);
  return state_->package.errorsURL;
}

Value CorvaneStore::userInfo() const {
  MutexLock lock(&state_->package.mutex);
  return state_->package.userInfo;
}

void CorvaneStore::setUserInfo(const Value& userInfo) {
  MutexLock lock(&state_->package.mutex);
  state_->package.userInfo = userInfo.isDictionary() ? userInfo.copy() : Value();
}

Value CorvaneStore::sessionDictionary() const {
  Value session = dict({{"userName", Value(state_->userName)},
                        {"fullUserName", Value(state_->fullUserName)},
                        {"machineName", Value(state_->machineName)},
                        {"id", Value(state_->session)},
                        {"version", Value(state_->environment->applicationOrCurrent().version)},
                        {"osVersion", Value(state_->osVersion)}},
                       true);
  if (Value info = userInfo(); info.isDictionary()) session.set(Value("userInfo"), info);
  return session.copy();
}

std::string CorvaneStore::upToChange() { return state_->upToChange["name"].str(); }

// ---- Entity folder names -------------------------------------------------------------------

void CorvaneStore::setupEntityKeys() {
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (coordinator == nullptr || !coordinator->managedObjectModel()) return;
  state_->package.entityList = coordinator->managedObjectModel()->entities();
  for (const EntityDescription* entity : state_->package.entityList) {
    std::string folder = CorvanePackage::entityFolderName(entity->name(), state_->password.has_value());
    state_->package.entityKeys[entity->name()] = folder;
    state_->package.reverseEntityKeys[folder] = entity->name();
  }
}

std::string CorvaneStore::fileNameForEntity(const EntityDescription& entity) {
  return fileNameForEntityName(entity.name());
}

std::string CorvaneStore::fileNameForEntityName(const std::string& entityName) const {
  auto it = state_->package.entityKeys.find(entityName);
  return it == state_->package.entityKeys.end() ? std::string() : it->second;
}

std::string CorvaneStore::entityNameForFileName(const std::string& fileName) const {
  auto it = state_->package.reverseEntityKeys.find(fileName);
  return it == state_->package.reverseEntityKeys.end() ? std::string() : it->second;
}

std::vector<const EntityDescription*> CorvaneStore::entities() { return state_->package.entityList; }

const EntityDescription* CorvaneStore::entityForName(std::string_view name) {
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (coordinator == nullptr || !coordinator->managedObjectModel()) return nullptr;
  return coordinator->managedObjectModel()->entity(name);
}

// ---- Cipher --------------------------------------------------------------------------------

std::shared_ptr<const SeaCrypto> CorvaneStore::cipher() {
  MutexLock lock(&state_->package.cryptoMutex);
  if (!state_->package.crypto && state_->password) {
    const Value info = CorvanePackage::infoDictionaryForURL(url(), state_->env);
    state_->package.crypto =
        std::make_shared<const SeaCrypto>(seaCryptoForPackageInfo(info, *state_->password, state_->env));
  }
  return state_->package.crypto;
}

void CorvaneStore::reloadPackageInfo() {
  {
    MutexLock lock(&state_->package.cryptoMutex);
    state_->package.crypto.reset();
  }
  MutexLock lock(&state_->package.mutex);
  state_->package.info = Value();
}

std::optional<Bytes> CorvaneStore::encrypt(ByteView bytes) {
  if (!state_->password) return Bytes(bytes.begin(), bytes.end());
  std::shared_ptr<const SeaCrypto> crypto = cipher();
  if (!crypto) return std::nullopt;
  return crypto->encryptData(bytes);
}

std::optional<Bytes> CorvaneStore::decrypt(ByteView bytes) {
  if (!state_->password) return Bytes(bytes.begin(), bytes.end());
  std::shared_ptr<const SeaCrypto> crypto = cipher();
  if (!crypto) return std::nullopt;
  return crypto->decryptData(bytes);
}

bool CorvaneStore::resetCache(Error* error) {
  return !state_->env->fileExists(cacheURL()) || state_->env->removeItem(cacheURL(), error);
}

// ---- Metadata ------------------------------------------------------------------------------

Value CorvaneStore::metadata() const {
  uint64_t generation = 0;
  {
    MutexLock lock(&state_->metadata.mutex);
    for (;;) {
      if (state_->metadata.cached.isDictionary() && !state_->metadata.cached["Corvane"].isNil())
        return state_->metadata.cached;
      if (!state_->metadata.fetching) break;
      // The fetching thread asking again (through the base store) cannot wait for itself.
      if (state_->metadata.fetcher == std::this_thread::get_id()) {
        return state_->metadata.cached.isDictionary() ? state_->metadata.cached : Value::dictionary();
      }
      // Anyone else waits for the one fetch rather than taking an empty answer; the lock is not
      // held while the base store and Info.plist are read.
      state_->metadata.mutex.wait(state_->metadata.fetched);
      if (!state_->metadata.fetching && state_->metadata.cached.isDictionary()) return state_->metadata.cached;
    }
    state_->metadata.fetching = true;
    state_->metadata.fetcher = std::this_thread::get_id();
    generation = state_->metadata.generation;
  }
  Value merged = store_internal::mutableDictionaryCopy(PersistentStore::metadata());
  const Value info = infoDictionary();
  for (const auto& [key, value] : info.entries()) merged.set(key, value);
  Value result = merged.copy();
  {
    MutexLock lock(&state_->metadata.mutex);
    state_->metadata.fetching = false;
    state_->metadata.fetcher = std::thread::id();
    // A setMetadata() meanwhile made this result stale: the next caller fetches again.
    if (generation == state_->metadata.generation) state_->metadata.cached = result;
  }
  state_->metadata.fetched.notify_all();
  return result;
}

void CorvaneStore::setMetadata(const Value& metadata) {
  Value info;
  {
    MutexLock lock(&state_->metadata.mutex);
    Value read;
    Error error;
    if (!readPropertyListFile(state_->env, infoURL(), &read, &error) && state_->env->fileExists(infoURL())) {
      log(fmt::format("Error reading dictionary from URL: {}", infoURL()), kCorvaneLogTypeWarning);
    }
    info = store_internal::mutableDictionaryCopy(read);
    for (const auto& [key, value] : metadata.entries()) info.set(key, value);
    state_->metadata.cached = Value();
    ++state_->metadata.generation;
  }
  {
    MutexLock lock(&state_->package.mutex);
    state_->package.info = info;
  }
  PersistentStore::setMetadata(info.copy());
}

// ---- Main-thread work ----------------------------------------------------------------------

std::function<void()> CorvaneStore::guarded(std::function<void()> work) const {
  return [weak = std::weak_ptr<Liveness>(state_->liveness), work = std::move(work)] {
    auto liveness = weak.lock();
    if (!liveness) return;
    RecursiveMutexLock lock(&liveness->mutex);
    if (liveness->alive) work();
  };
}

void CorvaneStore::onMain(std::function<void()> work) const { state_->mainLoop->post(guarded(std::move(work))); }

// ---- Closing -------------------------------------------------------------------------------

void CorvaneStore::setClosed(bool closed) {
  state_->updates.closed = closed;
  if (closed) unobserveDirectory();
}

void CorvaneStore::close() {
  setClosed(true);
  {
    MutexLock lock(&state_->objectIDs.mutex);
    state_->objectIDs.chosenUIDs.clear();  // for objects never saved
  }
  waitForSaves();
  state_->cache->saveQueue().waitUntilAllOperationsAreFinished();
  state_->cache->save();
}

void CorvaneStore::waitForSaves() { state_->writer.queue->waitUntilAllOperationsAreFinished(); }

// ---- Cache services ------------------------------------------------------------------------

ObjectID CorvaneStore::objectIDForReferenceString(std::string_view reference) {
  MutexLock lock(&state_->objectIDs.mutex);
  auto it = state_->objectIDs.byReference.find(std::string(reference));
  return it == state_->objectIDs.byReference.end() ? ObjectID() : it->second;
}

void CorvaneStore::setObjectIDForReferenceString(std::string_view reference, const ObjectID& objectID) {
  MutexLock lock(&state_->objectIDs.mutex);
  state_->objectIDs.byReference[std::string(reference)] = objectID;
}

void CorvaneStore::preventFromSaving() { state_->writer.blockSaves = true; }

// The user is reached from the main run loop only, as Interaction promises its implementers.
void CorvaneStore::showAlert(const std::string& message, const std::string& informativeText) {
  state_->mainLoop->perform([interaction = state_->environment->interactionOrDefault(),
                             alert = Alert{message, informativeText, {}}] { interaction->runAlert(alert); });
}

void CorvaneStore::revealInFileViewer(const std::string& path) {
  state_->mainLoop->perform(
      [interaction = state_->environment->interactionOrDefault(), path] { interaction->revealInFileViewer(path); });
}

void CorvaneStore::presentError(const Error& error) {
  Error copy = error;
  onMain([this, copy] { showAlert(copy.localizedDescription, copy.recoverySuggestion); });
}

std::vector<std::shared_ptr<ManagedObjectContext>> CorvaneStore::contexts() const {
  MutexLock lock(&state_->contexts.mutex);
  std::vector<std::shared_ptr<ManagedObjectContext>> out;
  for (const auto& weak : state_->contexts.list) {
    if (auto context = weak.lock()) out.push_back(std::move(context));
  }
  return out;
}

void CorvaneStore::registerContext(ManagedObjectContext* context) {
  if (context == nullptr) return;
  std::weak_ptr<ManagedObjectContext> weak = context->weak_from_this();
  if (weak.expired()) return;  // not owned by a shared_ptr: nobody could refresh it safely
  MutexLock lock(&state_->contexts.mutex);
  std::erase_if(state_->contexts.list, [](const std::weak_ptr<ManagedObjectContext>& w) { return w.expired(); });
  for (const auto& known : state_->contexts.list) {
    if (!known.owner_before(weak) && !weak.owner_before(known)) return;
  }
  state_->contexts.list.push_back(std::move(weak));
}

}  // namespace corvane
