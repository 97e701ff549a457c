#include "corvane/document/corvane_document.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "corvane/cache/cache.h"
#include "corvane/document/volume.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/corvane_undo_manager.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/document_password.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"
#include "document/document_internal.h"

namespace corvane {

using document_internal::byteCountText;
using document_internal::documentError;

namespace {

constexpr int64_t kBusyItemsThreshold = 200;
constexpr uint64_t kLowDiskSpaceBytes = 100'000'000;
constexpr const char* kICloudWarningKey = "kCorvaneICloudWarningHasBeenShown";
constexpr const char* kSuccess = "CorvaneLogTypeSuccess";
// The store's cache count of objects still to load is read this often while a document is open.
constexpr double kItemsPollSeconds = 0.5;

// "Notes.corvane.2024-01-01_10-00-00.backup" -> "Notes": the backup's own extension, then the
// date and the document's extension.
std::string originalNameOfBackup(const std::string& path) {
  return pathDeletingExtension(pathDeletingExtension(pathDeletingExtension(pathLastComponent(path))));
}

bool startsWithPath(const std::string& path, const std::string& prefix) {
  return !prefix.empty() && path.find(prefix) == 0;
}

}  // namespace

// The options' Env, answering the document's own machine name.
class CorvaneDocument::DocumentEnv final : public EnvWrapper {
 public:
  DocumentEnv(Env* target, std::optional<std::string> machineName)
      : EnvWrapper(target), machineName_(std::move(machineName)) {}
  std::string machineName() override { return machineName_ ? *machineName_ : EnvWrapper::machineName(); }

 private:
  std::optional<std::string> machineName_;
};

struct CorvaneDocument::Subscribers {
  uint64_t next = 0;
  std::vector<std::pair<uint64_t, std::function<void(const ExternalChanges&)>>> callbacks;
};

std::string dontShowPasswordPromptAgainKey(const std::string& documentIdentifier) {
  return "Corvane.DontShowPasswordPromptAgain." + documentIdentifier;
}

// ---- Creation ----------------------------------------------------------------------------------

CorvaneDocument::CorvaneDocument(DocumentOptions options)
    : PersistentDocument(options.model),
      options_(std::move(options)),
      subscribers_(std::make_shared<Subscribers>()),
      alive_(std::make_shared<bool>(true)) {
  env_ =
      std::make_unique<DocumentEnv>(options_.env != nullptr ? options_.env : Env::defaultEnv(), options_.machineName);
  defaults_ = options_.defaults;
  if (!defaults_) {
    const std::string identifier = options_.application ? options_.application->identifier : "";
    defaults_ = identifier.empty() ? UserDefaults::standard() : UserDefaults::forApplication(identifier, env_.get());
  }
  documentIdentifier_ = options_.documentIdentifier ? *options_.documentIdentifier : env_->newUUIDString();
  deviceIdentifier_ = getSystemUUID(env_.get());
  setUndoManager(std::make_shared<CorvaneUndoManager>());
  ready_ = true;

  environmentValue_ = Value::object(new StoreEnvironment());
  environment_ = static_cast<StoreEnvironment*>(environmentValue_.objectPointer());
  environment_->env = env_.get();
  environment_->mainLoop = options_.mainLoop;
  environment_->volumes = std::make_shared<DocumentVolumeQueries>();
  environment_->defaults = defaults_;
  environment_->interaction = options_.interaction;
  environment_->application = options_.application;
  if (options_.encryptionRounds > 0) environment_->encryptionRounds = options_.encryptionRounds;
  std::weak_ptr<bool> alive = alive_;
  environment_->documentNotifier = [this, alive](ManagedObjectContext* context, const Value& userInfo) {
    if (alive.expired() || context != sharedContext().get()) return;
    deliverExternalChanges(userInfo);
  };
}

CorvaneDocument::~CorvaneDocument() {
  close();
  copies_.clear();  // their stores use this document's Env
  // The store and its context go before this document's Env and environment do (the base
  // class's members would otherwise outlive them); the store notes the package among the
  // recent files on a queue of its own, with this Env, which must be done first too.
  setManagedObjectContext(nullptr, nullptr);
  CorvanePackage::waitForRecentFilesRegistration();
  alive_.reset();
}

RunLoop& CorvaneDocument::mainLoop() const {
  return options_.mainLoop != nullptr ? *options_.mainLoop : RunLoop::main();
}

std::shared_ptr<Interaction> CorvaneDocument::interaction() const { return environment_->interactionOrDefault(); }

std::shared_ptr<ManagedObjectContext> CorvaneDocument::makeContext() {
  return CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
}

// ---- Opening -----------------------------------------------------------------------------------

bool CorvaneDocument::openAt(const std::string& given, Error* error) {
  const std::string path = absolutePath(given);  // the document keeps it for its whole life
  if (!options_.model) return setError(error, documentError("DocumentOptions::model is required to open " + path));
  CorvaneStore::registerStoreType();
  std::shared_ptr<ManagedObjectContext> context = makeContext();
  context->setRetainsRegisteredObjects(true);
  setManagedObjectContext(std::move(context), std::make_shared<CorvanePersistentStoreCoordinator>(options_.model));

  Value storeOptions = Value::mutableDictionary();
  storeOptions.set(Value(kCorvaneStoreEnvironmentOption), environmentValue_);
  if (options_.cacheRoot) storeOptions.set(Value(kCorvaneCacheRootURLOption), Value(*options_.cacheRoot));
  if (options_.recover) storeOptions.set(Value(kCorvaneRecoverOption), Value(true));
  if (options_.documentOptions.isDictionary()) {
    storeOptions.set(Value(kCorvaneDocumentOptionsOption), options_.documentOptions);
  }
  if (options_.documentInfo.isDictionary()) storeOptions.set(Value(kCorvaneDocumentInfoOption), options_.documentInfo);
  password_ = options_.password;
  if (!configurePersistentStoreCoordinator(path, kCorvaneStoreType, storeOptions.copy(), error)) return false;
  setFileURL(path);
  knownBackups_ = backupsBeside();
  // Ready once the first update pass is over; a pass that takes longer goes on in the
  // background and the document shows what it has applied so far.
  mainLoop().runUntil([this] { return store_->finishedPasses() > 0; }, options_.openTimeout);
  mainLoop().runOnce();
  return true;
}

bool CorvaneDocument::configurePersistentStoreCoordinator(const std::string& url, const std::string& storeType,
                                                          const Value& storeOptions, Error* error) {
  Env* env = env_.get();
  // 1. A copy consolidation left behind is not the document.
  if (pathExtension(url) == "backup") {
    if (error == nullptr) return false;
    return setError(error, documentError("This is a backup created while optimizing the file. Open the original "
                                         "file instead.",
                                         fmt::format("The original file is named “{}” and is located in the same "
                                                     "folder.",
                                                     originalNameOfBackup(url))));
  }
  // 2. The sync client is asked to keep the package on disk; a client that cannot is no reason
  // not to open, and a package still to be made has nothing to keep.
  if (env->fileExists(url)) (void)CorvaneSetKeepDownloaded(env, url, true);
  // 3. Network volumes cannot hold a package safely.
  if (!CorvaneIsLocalURL(env, url, defaults_.get())) {
    interaction()->runAlert(
        Alert{"This volume is not supported", "Network mounted volumes are not supported for this file type.", {}});
    return false;
  }
  // 4. and 5. iCloud Drive.
  showICloudWarningIfNeeded(url);
  bool isDirectory = false;
  const bool exists = env->fileExists(url, &isDirectory);
  const std::string info = pathJoin(url, "Info.plist");
  // 6. An online-only placeholder cannot be opened.
  if (exists && !CorvaneIsOnDisk(env, info)) {
    interaction()->runAlert(
        Alert{"Smart Sync", "This file is saved online only. Please change your Smart Sync settings to local.", {}});
    return false;
  }
  // 7. The password.
  if (exists && env->fileExists(info) && !CorvanePackage::canOpenURL(url, password_, env)) {
    bool cancelled = false;
    if (!obtainPassword(url, &cancelled)) {
      if (cancelled) return false;
      return setError(error, documentError("The password does not open " + url));
    }
  }
  // 8. The package's identity.
  if (std::string identifier = CorvanePackage::documentIdentifierForURL(url, env); !identifier.empty()) {
    documentIdentifier_ = identifier;
  }
  // 9. The store's options.
  Value options = storeOptions.isDictionary() ? storeOptions.mutableCopy() : Value::mutableDictionary();
  if (password_) options.set(Value(kCorvanePasswordOption), Value(*password_));
  if (!documentIdentifier_.empty()) {
    options.set(Value(kCorvaneDocumentIdentifierOption), Value(documentIdentifier_));
  }
  options.set(Value("NSMigratePersistentStoresAutomaticallyOption"), Value(true));
  // 10. The store.
  bool added = false;
  try {
    added = PersistentDocument::configurePersistentStoreCoordinator(url, storeType, options.copy(), error);
  } catch (const Exception& e) {
    logLine("Opening " + url + " failed: " + e.name() + ": " + e.reason(), LogLevel::Warning);
    added = false;
  }
  if (added) {
    const auto& stores = coordinator()->persistentStores();
    store_ = stores.empty() ? nullptr : dynamic_cast<CorvaneStore*>(stores.back());
    added = store_ != nullptr && preflightData(managedObjectContext());
  }
  // 11. Whatever the outcome.
  noteRecentDocument(url);
  if (store_ != nullptr) bindToStore();
  return added;
}

KeychainBackend* CorvaneDocument::keychain() const {
  if (!options_.useKeychain) return nullptr;
  return options_.keychain ? options_.keychain.get() : defaultKeychain();
}

bool CorvaneDocument::obtainPassword(const std::string& path, bool* cancelled) {
  Env* env = env_.get();
  const std::string identifier = CorvanePackage::documentIdentifierForURL(path, env);
  const DocumentPasswordItem item{environment_->applicationOrCurrent().identifier, identifier};
  KeychainBackend* keys = keychain();
  if (keys != nullptr && defaults_->boolForKey(dontShowPasswordPromptAgainKey(identifier))) {
    std::optional<std::string> kept = findDocumentPassword(item, nullptr, keys);
    if (kept && CorvanePackage::canOpenURL(path, *kept, env)) {
      password_ = std::move(kept);
      return true;
    }
  }
  PasswordPrompt prompt{"Password for " + pathLastComponent(path), path, identifier, keys != nullptr};
  preparePasswordPrompt(prompt);
  documentIdentifier_ = identifier;
  // Asked again until the password opens the package or the person cancels.
  for (;;) {
    std::optional<PasswordAnswer> answer = interaction()->promptPassword(prompt);
    if (!answer) {
      *cancelled = true;
      return false;
    }
    if (!CorvanePackage::canOpenURL(path, answer->password, env)) {
      prompt.message = "Wrong password for " + pathLastComponent(path) + ". Try again";
      continue;
    }
    password_ = answer->password;
    if (answer->saveInKeychain) keepPasswordInKeychain(identifier, path, answer->password);
    return true;
  }
}

void CorvaneDocument::keepPasswordInKeychain(const std::string& identifier, const std::string& path,
                                             const std::string& password) {
  KeychainBackend* keys = keychain();
  if (keys == nullptr) return;
  const DocumentPasswordItem item{environment_->applicationOrCurrent().identifier, identifier};
  Error error;
  if (saveDocumentPassword(item, pathLastComponent(path), password, &error, keys)) {
    (void)defaults_->setObject(Value(true), dontShowPasswordPromptAgainKey(identifier));
  } else {
    interaction()->runAlert(Alert{kKeychainPasswordNotSavedMessage, error.localizedDescription, {}});
  }
}

void CorvaneDocument::showICloudWarningIfNeeded(const std::string& path) {
  Env* env = env_.get();
  if (!URLisOnICloudDrive(pathJoin(path, "Changes"), env)) return;
  Value shown = defaults_->dictionaryForKey(kICloudWarningKey);
  if (!shown.isDictionary()) shown = Value::mutableDictionary();
  if (!shown.contains(Value(path))) {
    Alert alert{"This file is saved on iCloud Drive",
                "iCloud Drive is known to lose files or parts of them from time to time.\n Don't use it without a "
                "proper backup.",
                {"I have a Backup", "Show in Finder"}};
    alert.style = AlertStyle::Critical;
    alert.showsSuppressionButton = true;
    const AlertAnswer answer = interaction()->answerAlert(alert);
    if (answer.suppressed) {
      Value updated = shown.mutableCopy();
      updated.set(Value(path), Value::date(env->now()));
      (void)defaults_->setObject(updated.copy(), kICloudWarningKey);
    }
    if (answer.button == 1) interaction()->revealInFileViewer(path);
  }
  // The system must not evict the package's files to save space.
  (void)UserDefaults::forApplication("com.apple.bird", env)->setObject(Value(false), "optimize-storage");
}

bool CorvaneDocument::URLisOnICloudDrive(const std::string& path, Env* env, const UserDefaults* finderDefaults) {
  const std::string home = env->homeDirectory();
  if (startsWithPath(path, pathJoin(home, "Library") + "/Mobile Documents/com~apple~CloudDocs")) return true;
  std::shared_ptr<UserDefaults> finder;
  if (finderDefaults == nullptr) {
    finder = UserDefaults::forApplication("com.apple.finder", env);
    finderDefaults = finder.get();
  }
  if (finderDefaults->boolForKey("FXICloudDriveDesktop") && startsWithPath(path, env->desktopDirectory())) return true;
  return finderDefaults->boolForKey("FXICloudDriveDocuments") && startsWithPath(path, pathJoin(home, "Documents"));
}

std::string CorvaneDocument::getSystemUUID(Env* env) { return env->platformUUID(); }

void CorvaneDocument::setFileURL(const std::string& url) {
  if (!fileURL().empty() && url != fileURL() && store_ != nullptr) {
    store_->setPackageURL(url);
    store_->log("moved", kSuccess);
  }
  PersistentDocument::setFileURL(url);
}

std::optional<std::string> CorvaneDocument::fileType(const ApplicationInfo& application, const std::string& className) {
  for (const Value& type : application.documentTypes.elements()) {
    if (type["NSDocumentClass"] != Value(className)) continue;
    const Value& extensions = type["CFBundleTypeExtensions"];
    if (extensions.isArray() && extensions.count() > 0 && extensions.at(0).isString()) return extensions.at(0).str();
    return std::nullopt;
  }
  return std::nullopt;
}

bool CorvaneDocument::isCorrectFormat(const std::string& path, Env* env) {
  return CorvanePackage::isCorrectFormat(path, env);
}

// ---- Bindings to the store ---------------------------------------------------------------------

void CorvaneDocument::bindToStore() {
  CorvaneStore* store = store_;
  std::weak_ptr<bool> alive = alive_;
  errorLevelSubscription_ =
      store->errorLevelObservable().subscribe([this, alive](const std::string&, const std::string& level) {
        if (!alive.expired()) setErrorLevel(level);
      });
  // The cache's count of objects still to load changes on background queues: read it often.
  auto pollHolder = std::make_shared<std::function<void()>>();
  *pollHolder = [this, alive, weakHolder = std::weak_ptr<std::function<void()>>(pollHolder)] {
    if (alive.expired() || closed_ || store_ == nullptr) return;
    if (CorvaneCache* cache = store_->cache(); cache != nullptr && cache->itemsToLoad() != itemsToLoad_) {
      setItemsToLoad(cache->itemsToLoad());
    }
    setReady(store_->cache() != nullptr && store_->cache()->changeLog() != nullptr);
    if (checkConsolidatedElsewhere()) return;
    if (auto again = weakHolder.lock()) itemsTimer_ = mainLoop().postAfter(kItemsPollSeconds, *again);
  };
  itemsPoll_ = pollHolder;
  (*pollHolder)();
}

void CorvaneDocument::deliverExternalChanges(const Value& userInfo) {
  ExternalChanges changes;
  auto collect = [&userInfo](const char* key, std::vector<Retained<ManagedObject>>* into) {
    for (const Value& element : userInfo[key].elements()) {
      if (!element.isObject()) continue;
      if (auto* object = dynamic_cast<ManagedObject*>(element.objectPointer())) into->emplace_back(object);
    }
  };
  collect(kInsertedObjectsKey, &changes.inserted);
  collect(kUpdatedObjectsKey, &changes.updated);
  collect(kDeletedObjectsKey, &changes.deleted);
  merging_ = true;
  didMergeExternalChanges(changes);
  // Callbacks may end their own or others' subscriptions: go over a copy, and skip the ones
  // that ended meanwhile.
  const auto callbacks = subscribers_->callbacks;
  for (const auto& [id, callback] : callbacks) {
    const bool stillThere = std::any_of(subscribers_->callbacks.begin(), subscribers_->callbacks.end(),
                                        [id = id](const auto& entry) { return entry.first == id; });
    if (stillThere) callback(changes);
  }
  merging_ = false;
}

Subscription CorvaneDocument::onExternalChanges(std::function<void(const ExternalChanges&)> callback) {
  CORVANE_DCHECK(mainLoop().isMainThread());
  const uint64_t id = ++subscribers_->next;
  subscribers_->callbacks.emplace_back(id, std::move(callback));
  return Subscription([weak = std::weak_ptr<Subscribers>(subscribers_), id] {
    if (auto subscribers = weak.lock()) {
      std::erase_if(subscribers->callbacks, [id](const auto& entry) { return entry.first == id; });
    }
  });
}

// ---- State ---------------------------------------------------------------------------------------

void CorvaneDocument::setItemsToLoad(int64_t count) {
  itemsToLoad_ = count;
  if (count > kBusyItemsThreshold) {
    busy_ = true;
    maxItemsToLoad_ = std::max(maxItemsToLoad_, count);
  } else if (count == 0) {
    busy_ = false;
  }
}

void CorvaneDocument::setErrorLevel(const std::string& level) {
  errorLevel_ = level;
  if (level.empty() || level == kSuccess) return;
  logLine("Document " + pathLastComponent(fileURL()) + ": " + level, LogLevel::Warning);
  interaction()->endProgress();
}

bool CorvaneDocument::hasError() const { return !errorLevel_.empty() && errorLevel_ != kSuccess; }

void CorvaneDocument::setReady(bool ready) {
  if (ready == ready_) return;
  ready_ = ready;
  if (ready) {
    documentDidBecomeReady();
  } else {
    documentDidResignReady();
  }
}

void CorvaneDocument::updateChangeCount(ChangeKind kind) {
  // Every save goes to the package at once: a document with a file is never "edited".
  PersistentDocument::updateChangeCount(fileURL().empty() ? kind : ChangeKind::Cleared);
}

// ---- Saving and closing ------------------------------------------------------------------------

bool CorvaneDocument::save(Error* error) {
  CORVANE_DCHECK(mainLoop().isMainThread());
  if (!ready_) return setError(error, documentError("The document is not ready to save yet"));
  if (!PersistentDocument::save(error)) return false;
  didSaveDocument();
  return true;
}

bool CorvaneDocument::saveDocument(Error* error) {
  if (!ready_) return true;  // nothing happens until the document is ready
  if (store_ != nullptr) store_->cache()->save();
  return save(error);
}

void CorvaneDocument::saveAll() {
  if (store_ == nullptr || !ready_ || !managedObjectContext().hasChanges()) return;
  Error error;
  if (!managedObjectContext().save(&error)) {
    logLine("Saving " + fileURL() + " failed: " + error.localizedDescription, LogLevel::Error);
  }
  store_->waitForSaves();
  store_->cache()->save();
  store_->cache()->saveQueue().waitUntilAllOperationsAreFinished();
}

bool CorvaneDocument::canClose() {
  if (!fileURL().empty()) saveAll();
  return !fileURL().empty();
}

void CorvaneDocument::close() {
  CORVANE_DCHECK(mainLoop().isMainThread());
  if (closed_) return;
  // Copies on their way finish first: their stores read this document's package and Env.
  mainLoop().runUntil([this] { return copies_.empty(); }, options_.openTimeout);
  itemsTimer_.cancel();
  itemsPoll_.reset();
  errorLevelSubscription_.unsubscribe();
  saveAll();
  PersistentDocument::close();
  if (store_ != nullptr) store_->close();  // marks it closed, stops watching, saves the cache
  // The context and its (closed) store stay until the document goes, so that a host holding
  // them after closing reads what they last showed instead of freed memory.
  store_ = nullptr;
}

void CorvaneDocument::applicationWillTerminate() { saveAll(); }

// ---- Disk space and services ---------------------------------------------------------------------

void CorvaneDocument::checkDiskSpace() {
  if (fileURL().empty() || showingDiskSpaceWarning_) return;
  const uint64_t free = CorvaneTotaFreeDiskSpace(env_.get(), fileURL());
  if (free >= kLowDiskSpaceBytes) return;
  showingDiskSpaceWarning_ = true;
  Alert alert{"Low disk space warning",
              fmt::format("Only {} of free space remaining on the drive holding this file. Consider freeing up disk "
                          "space to avoid potential data loss.",
                          byteCountText(free)),
              {"OK", "Quit"}};
  alert.style = AlertStyle::Informational;
  const size_t button = interaction()->runAlert(alert);
  showingDiskSpaceWarning_ = false;
  if (button == 1) interaction()->requestTermination();
}

bool CorvaneDocument::isInternetAvailable() const {
  // A default route (destination 00000000) in the kernel's IPv4 table, or a default IPv6 route.
  Bytes table;
  if (env_->readFile("/proc/net/route", &table, nullptr)) {
    std::string text(asStringView(table));
    size_t line = text.find('\n');
    while (line != std::string::npos && line + 1 < text.size()) {
      const size_t end = text.find('\n', line + 1);
      const std::string row = text.substr(line + 1, end == std::string::npos ? std::string::npos : end - line - 1);
      char name[64] = {0};
      char destination[16] = {0};
      if (std::sscanf(row.c_str(), "%63s %15s", name, destination) == 2 && std::string(destination) == "00000000") {
        return true;
      }
      line = end;
    }
  }
  Bytes table6;
  if (env_->readFile("/proc/net/ipv6_route", &table6, nullptr)) {
    // A default route has destination ::/0 and is not the loopback's.
    for (size_t start = 0; start < table6.size();) {
      const std::string_view all = asStringView(table6);
      size_t end = all.find('\n', start);
      if (end == std::string_view::npos) end = all.size();
      const std::string_view row = all.substr(start, end - start);
      if (row.starts_with("00000000000000000000000000000000 00") && !row.ends_with(" lo")) return true;
      start = end + 1;
    }
  }
  return false;
}

std::optional<std::string> CorvaneDocument::serviceType() const {
  if (fileURL().empty()) return std::nullopt;
  return CorvaneServiceType(env_.get(), fileURL());
}

std::optional<std::string> CorvaneDocument::checkServiceIsRunning() const {
  const std::optional<std::string> service = serviceType();
  if (!service) return std::nullopt;
  if (!isInternetAvailable()) return std::string("kCorvaneServiceNoInternet");
  if (*service == "Dropbox") return checkServiceDropboxIsRunning();
  return std::nullopt;
}

std::optional<std::string> CorvaneDocument::checkServiceDropboxIsRunning() const {
  // The Linux clients of Dropbox: its own daemon, and Maestral.
  for (const RunningApplication& application : env_->runningApplications()) {
    const std::string name = application.name;
    if (name == "dropbox" || name.starts_with("maestral")) return std::nullopt;
  }
  return std::string("kCorvaneServiceNotRunning");
}

// ---- The cache -----------------------------------------------------------------------------------

void CorvaneDocument::rebuildCache(std::function<void()> done) {
  CORVANE_DCHECK(mainLoop().isMainThread());
  if (store_ == nullptr) return;
  setReady(false);
  std::shared_ptr<Interaction> ui = interaction();
  ui->beginProgress("");
  ui->updateProgress(0, "");
  auto queue = std::make_shared<SerialQueue>("REBUILDCACHE");
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(sharedContext());
  RunLoop* loop = &mainLoop();
  std::weak_ptr<bool> alive = alive_;
  CorvaneCache* cache = store_->cache();
  queue->async([this, queue, child, cache, ui, loop, alive, done = std::move(done)] {
    const std::vector<const EntityDescription*> entities = child->model()->entities();
    const double n = static_cast<double>(entities.size());
    double i = 0;
    for (const EntityDescription* entity : entities) {
      // Abstract entities are skipped without counting, so the bar never quite reaches the end.
      if (entity->isAbstract()) continue;
      loop->post([ui, text = fmt::format("Rebuilding cache for: {}", entity->name()), fraction = i / n] {
        ui->updateProgress(fraction, text);
      });
      child->performAndWait([&] {
        FetchRequest request(entity->name());
        request.setIncludesSubentities(false);
        if (auto objects = child->fetch(request)) {
          for (const auto& object : *objects) (void)cache->valuesForObjectID(object->objectID(), child.get());
        }
      });
      cache->save();
      i += 1;
    }
    loop->post([this, ui, alive, done] {
      ui->endProgress();
      if (alive.expired()) return;
      setReady(true);
      if (done) done();
    });
  });
}

void CorvaneDocument::resetCache() {
  CORVANE_DCHECK(mainLoop().isMainThread());
  if (store_ == nullptr) return;
  Error error;
  if (!store_->resetCache(&error))
    logLine("Resetting the cache failed: " + error.localizedDescription, LogLevel::Error);
  std::weak_ptr<bool> alive = alive_;
  const std::string url = fileURL();
  mainLoop().postAfter(1.0, [this, alive, url] {
    if (alive.expired()) return;
    close();
    CorvaneCache::resetCacheForURL(url, env_.get());
  });
}

void CorvaneDocument::checkAllFiles() {
  if (store_ != nullptr) store_->cache()->checkAllFiles();
}

// ---- Hooks -------------------------------------------------------------------------------------

void CorvaneDocument::didMergeExternalChanges(const ExternalChanges&) {}
void CorvaneDocument::documentDidBecomeReady() {}
void CorvaneDocument::documentDidResignReady() {}
bool CorvaneDocument::preflightData(ManagedObjectContext&) { return true; }
void CorvaneDocument::didSaveStore(CorvaneStore*, CorvaneStore*) {}
void CorvaneDocument::didSaveDocument() {}
void CorvaneDocument::preparePasswordPrompt(PasswordPrompt&) {}
std::optional<std::string> CorvaneDocument::proposedFileName() { return std::nullopt; }
std::optional<std::string> CorvaneDocument::formatDeletedObjectInfo(const Value&, const std::string&, const Value&) {
  return std::nullopt;
}
void CorvaneDocument::noteRecentDocument(const std::string&) {}

}  // namespace corvane
