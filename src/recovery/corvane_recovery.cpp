#include "corvane/recovery/corvane_recovery.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <set>
#include <unordered_map>

#include "corvane/cache/cache.h"
#include "corvane/cache/cache_item.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/string_utils.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"
#include "store/store_internal.h"

namespace corvane {

namespace {

constexpr const char* kLocalDatabaseCache = "LocalDatabaseCache";

Error recoveryError(int code, std::string description) {
  return Error(kCorvaneRecoveryErrorDomain, code, std::move(description));
}

Env* envOf(const RecoverySetup& setup) { return setup.env != nullptr ? setup.env : Env::defaultEnv(); }

ApplicationInfo applicationOf(const RecoverySetup& setup) {
  return setup.application ? *setup.application : ApplicationInfo::current();
}

// Where the caches of the host are, as the cache's own location rules put them: its data
// folder first, the cache folder (where caches used to live) second.
std::vector<std::string> cacheRootsOf(const RecoverySetup& setup) {
  if (!setup.cacheRoots.empty()) return setup.cacheRoots;
  Env* env = envOf(setup);
  std::string identifier = applicationOf(setup).identifier;
  if (identifier.empty()) identifier = kFrameworkBundleIdentifier;
  std::vector<std::string> roots;
  for (const std::string& base : {env->dataHome(), env->cacheHome()}) {
    if (!base.empty()) roots.push_back(pathJoin(pathJoin(base, identifier), kLocalDatabaseCache));
  }
  return roots;
}

bool isDirectory(Env* env, const std::string& path) {
  bool directory = false;
  return env->fileExists(path, &directory) && directory;
}

// The documents the host opened lately, newest record first as the store keeps them.
std::vector<std::string> recentDocuments(const RecoverySetup& setup) {
  std::shared_ptr<UserDefaults> defaults =
      setup.defaults ? setup.defaults : UserDefaults::forApplication(applicationOf(setup).identifier);
  std::vector<std::string> paths;
  if (!defaults) return paths;
  const Value records = defaults->arrayForKey(kCorvaneRecentFilesKey);
  for (const Value& record : records.elements()) {
    if (record["Path"].isString()) paths.push_back(record["Path"].str());
  }
  return paths;
}

// "Recovered", else "Recovered 1", "Recovered 2", ...
std::string freeFolderName(Env* env, const std::string& parent, const std::string& name) {
  std::string candidate = pathJoin(parent, name);
  for (long i = 1; env->fileExists(candidate); ++i) candidate = pathJoin(parent, fmt::format("{} {}", name, i));
  return candidate;
}

// The parts of a cached item recovery uses: "attributes", "relations" and "dictionary", each
// only when the item has it.
Value recoveredItem(const Value& stored) {
  Value item = Value::mutableDictionary();
  auto keep = [&item](const char* key, const Value& value) {
    if (!value.isNil()) item.set(Value(key), value);
  };
  if (CorvaneCacheItemPtr cached = CorvaneCacheItemPtr::fromValue(stored)) {
    keep("attributes", cached->attributes());
    keep("relations", cached->relations());
  } else if (stored.isDictionary()) {  // an item written as a plain dictionary
    for (const char* key : {"attributes", "relations", "dictionary"}) keep(key, stored[key]);
  }
  return item.copy();
}

}  // namespace

CorvaneRecovery::CorvaneRecovery(std::string cacheURL, std::shared_ptr<ObjectModel> model, RecoverySetup setup)
    : cacheURL_(std::move(cacheURL)), model_(std::move(model)), setup_(std::move(setup)) {
  CorvaneCacheItem::registerClass();
}

Env* CorvaneRecovery::env() const { return envOf(setup_); }

void CorvaneRecovery::report(int64_t current, int64_t total, const std::string& message) const {
  if (progress_) progress_(current, total, message);
}

// ---- Finding caches --------------------------------------------------------------------------

std::unique_ptr<CorvaneRecovery> CorvaneRecovery::recoveryWithCacheURL(const std::string& cacheURL,
                                                                       std::shared_ptr<ObjectModel> model,
                                                                       const RecoverySetup& setup) {
  return std::make_unique<CorvaneRecovery>(cacheURL, std::move(model), setup);
}

std::unique_ptr<CorvaneRecovery> CorvaneRecovery::recoveryWithStoreURL(const std::string& storeURL,
                                                                       std::shared_ptr<ObjectModel> model,
                                                                       const RecoverySetup& setup) {
  std::optional<std::string> cache = cacheURLForStoreURL(storeURL, setup);
  if (!cache) return nullptr;
  return recoveryWithCacheURL(*cache, std::move(model), setup);
}

std::optional<std::string> CorvaneRecovery::cacheURLForStoreURL(const std::string& storeURL,
                                                                const RecoverySetup& setup) {
  const std::string name = CorvaneCache::cacheFolderName(storeURL);
  for (const std::string& root : cacheRootsOf(setup)) {
    const std::string folder = pathJoin(root, name);
    if (isDirectory(envOf(setup), folder)) return folder;
  }
  return std::nullopt;
}

std::vector<std::string> CorvaneRecovery::findAllCacheDirectories(const RecoverySetup& setup) {
  Env* env = envOf(setup);
  std::vector<std::string> folders;
  std::set<std::string> seen;
  for (const std::string& root : cacheRootsOf(setup)) {
    std::vector<std::string> names;
    if (!env->listDirectory(root, true, &names, nullptr)) continue;
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string folder = pathJoin(root, name);
      if (isDirectory(env, folder) && seen.insert(name).second) folders.push_back(folder);
    }
  }
  return folders;
}

std::vector<std::unique_ptr<CorvaneRecovery>> CorvaneRecovery::findAllCaches(const std::shared_ptr<ObjectModel>& model,
                                                                             const RecoverySetup& setup) {
  std::vector<std::unique_ptr<CorvaneRecovery>> all;
  for (const std::string& folder : findAllCacheDirectories(setup))
    all.push_back(recoveryWithCacheURL(folder, model, setup));
  return all;
}

std::string CorvaneRecovery::documentFileExtension(const ApplicationInfo& application) {
  const Value& types = application.documentTypes;
  if (types.isArray() && types.count() > 0) {
    const Value& extensions = types.at(0)["CFBundleTypeExtensions"];
    if (extensions.isArray() && extensions.count() > 0 && extensions.at(0).isString()) return extensions.at(0).str();
  }
  return "fast";
}

std::string CorvaneRecovery::filesystemSafeString(std::string_view text) {
  std::string safe;
  for (char c : text) safe.push_back(std::string_view("/:*?\"<>|\\").find(c) != std::string_view::npos ? '_' : c);
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
  while (!safe.empty() && blank(safe.back())) safe.pop_back();
  size_t start = 0;
  while (start < safe.size() && blank(safe[start])) ++start;
  safe.erase(0, start);
  // Characters, not bytes: a cut never splits one.
  size_t characters = 0;
  for (size_t i = 0; i < safe.size(); ++i) {
    if ((static_cast<unsigned char>(safe[i]) & 0xC0) == 0x80) continue;
    if (++characters == 51) {
      size_t end = 0;
      for (size_t kept = 0; end < safe.size(); ++end) {
        if ((static_cast<unsigned char>(safe[end]) & 0xC0) != 0x80 && kept++ == 50) break;
      }
      safe.resize(end);
      break;
    }
  }
  return safe;
}

std::string CorvaneRecovery::suggestedNameForCacheURL(const std::string& cacheURL, Env* env) {
  if (env == nullptr) env = Env::defaultEnv();
  const std::string folder = pathLastComponent(cacheURL);
  Bytes bytes;
  if (env->readFile(pathJoin(cacheURL, "Changes.fast"), &bytes, nullptr)) {
    try {
      const Value changes = FastCoder::acyclicObjectWithData(bytes);
      if (changes.isArray() && changes.count() > 0 && changes.at(0)["name"].isString() &&
          !changes.at(0)["name"].str().empty()) {
        const std::string name = filesystemSafeString(changes.at(0)["name"].str());
        if (!name.empty()) return fmt::format("Recovered_{}_{}", name, folder.substr(0, 8));
      }
    } catch (const Exception&) {
      // an unreadable log names nothing
    }
  }
  return "Recovered_Cache_" + folder;
}

std::optional<std::string> CorvaneRecovery::originalFileURLForCacheURL(
    const std::string& cacheURL, const std::vector<std::string>& knownOriginalURLs, const RecoverySetup& setup) {
  const std::string folder = pathLastComponent(cacheURL);
  for (const std::vector<std::string>& candidates : {knownOriginalURLs, recentDocuments(setup)}) {
    for (const std::string& url : candidates) {
      if (CorvaneCache::cacheFolderName(url) == folder) return url;
    }
  }
  return std::nullopt;
}

// ---- Reading one cache -----------------------------------------------------------------------

bool CorvaneRecovery::isHexCharacter(char16_t c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

std::optional<std::vector<std::string>> CorvaneRecovery::availableEntitiesWithError(Error* error) const {
  Env* files = env();
  if (!isDirectory(files, cacheURL_)) {
    setError(error, recoveryError(1001, "Cache directory does not exist"));
    return std::nullopt;
  }
  std::vector<std::string> names;
  if (!files->listDirectory(cacheURL_, true, &names, error)) return std::nullopt;
  std::set<std::string> entities;
  for (const std::string& file : names) {
    if (!file.ends_with(".fast")) continue;
    const std::string stem = file.substr(0, file.size() - 5);
    if (stem == "Changes") continue;
    const size_t underscore = stem.rfind('_');
    if (underscore == std::string::npos) continue;
    const std::string tag = stem.substr(underscore + 1);
    if (tag == "uids" || (tag.size() == 1 && isHexCharacter(static_cast<unsigned char>(tag[0])))) {
      entities.insert(stem.substr(0, underscore));
    }
  }
  return std::vector<std::string>(entities.begin(), entities.end());
}

std::optional<std::vector<std::string>> CorvaneRecovery::UIDsForEntity(const std::string& entity, Error* error) const {
  if (password_) {
    setError(error, recoveryError(1003, "Encrypted caches are not yet supported"));
    return std::nullopt;
  }
  Bytes bytes;
  if (!env()->readFile(pathJoin(cacheURL_, entity + "_uids.fast"), &bytes, nullptr)) {
    setError(error, recoveryError(1002, fmt::format("Could not read UIDs file for entity {}", entity)));
    return std::nullopt;
  }
  Value decoded;
  try {
    decoded = FastCoder::acyclicObjectWithData(bytes);
  } catch (const Exception& e) {
    setError(error, recoveryError(1005, fmt::format("Failed to decode UIDs file: {}", e.reason())));
    return std::nullopt;
  }
  if (!decoded.isSet() && !decoded.isArray()) {
    setError(error, recoveryError(1004, "UIDs file contains unexpected data type"));
    return std::nullopt;
  }
  std::vector<std::string> uids;
  for (const Value& uid : decoded.elements()) {
    if (uid.isString()) uids.push_back(uid.str());
  }
  return uids;
}

std::optional<Value> CorvaneRecovery::cacheItemForEntity(const std::string& entity, const std::string& uid,
                                                         Error* error) const {
  if (password_) {
    setError(error, recoveryError(1003, "Encrypted caches are not yet supported"));
    return std::nullopt;
  }
  if (uid.empty()) {
    setError(error, recoveryError(1006, "UID cannot be empty"));
    return std::nullopt;
  }
  const std::string file = fmt::format("{}_{}.fast", entity, uid.front());
  Bytes bytes;
  if (!isPlainFileName(file) || !env()->readFile(pathJoin(cacheURL_, file), &bytes, nullptr)) {
    setError(error, recoveryError(1007, fmt::format("Could not read cache file {}", file)));
    return std::nullopt;
  }
  Value table;
  try {
    table = FastCoder::acyclicObjectWithData(bytes);
  } catch (const Exception& e) {
    setError(error, recoveryError(1010, fmt::format("Failed to decode cache file: {}", e.reason())));
    return std::nullopt;
  }
  if (!table.isDictionary()) {
    setError(error, recoveryError(1008, "Cache file does not contain a dictionary"));
    return std::nullopt;
  }
  const Value& stored = table[uid];
  if (stored.isNil()) {
    setError(error, recoveryError(1009, fmt::format("UID {} not found in cache", uid)));
    return std::nullopt;
  }
  return recoveredItem(stored);
}

bool CorvaneRecovery::isEncrypted() const {
  std::optional<std::vector<std::string>> entities = availableEntitiesWithError(nullptr);
  if (!entities || entities->empty()) return false;
  Bytes bytes;
  if (!env()->readFile(pathJoin(cacheURL_, entities->front() + "_uids.fast"), &bytes, nullptr)) return false;
  try {
    return FastCoder::acyclicObjectWithData(bytes).isNil();
  } catch (const Exception&) {
    return true;
  }
}

// ---- Rebuilding --------------------------------------------------------------------------------

namespace {

// Sets the cached attribute values of `entity` on `object`, binary data left out (its files
// are not in the cache). A value the attribute refuses is skipped; `failed` hears of it.
void setAttributes(ManagedObject& object, const EntityDescription& entity, const Value& item,
                   const std::function<void(const std::string&, const std::string&)>& failed) {
  const Value& attributes = item["attributes"];
  if (!attributes.isDictionary()) return;
  for (const Value& key : attributes.keys()) {
    const AttributeDescription* attribute = entity.attribute(key.str());
    if (attribute == nullptr || attribute->attributeType() == AttributeType::BinaryData) continue;
    try {
      // The cache keeps numbers in their file form; the object wants its attribute's kind.
      object.setPrimitiveValue(key.str(), store_internal::modelValueForAttribute(*attribute, attributes[key.str()]));
    } catch (const Exception& e) {
      if (failed) failed(key.str(), e.reason());
    }
  }
}

}  // namespace

int64_t CorvaneRecovery::recoverObjectsForEntity(const std::string& entityName, const std::vector<std::string>& uids,
                                                 ManagedObjectContext& context, Error* error) {
  if (!model_) {
    setError(error, recoveryError(1012, "Managed object model is required for object recovery into context"));
    return -1;
  }
  const EntityDescription* entity = context.model() ? context.model()->entity(entityName) : nullptr;
  if (entity == nullptr) {
    setError(error, recoveryError(1011, fmt::format("Entity {} not found in model", entityName)));
    return -1;
  }
  std::vector<std::string> all = uids;
  if (all.empty()) {
    std::optional<std::vector<std::string>> found = UIDsForEntity(entityName, error);
    if (!found) return -1;
    all = std::move(*found);
  }
  const auto total = static_cast<int64_t>(all.size());
  int64_t recovered = 0;
  for (const std::string& uid : all) {
    report(recovered, total, fmt::format("Recovering {} {}/{}", entityName, recovered + 1, total));
    std::optional<Value> item = cacheItemForEntity(entityName, uid, nullptr);
    if (!item) continue;
    Retained<ManagedObject> object = context.insertNewObject(entityName);
    setAttributes(*object, *entity, *item, [&](const std::string& key, const std::string& reason) {
      logLine(fmt::format("Failed to set attribute {} on {}: {}", key, entityName, reason), LogLevel::Warning);
    });
    ++recovered;
  }
  report(recovered, total, fmt::format("Recovered {} objects", recovered));
  return recovered;
}

bool CorvaneRecovery::rebuildPackageToURL(const std::string& url, const Value& /*options*/, Error* error) {
  if (!model_) return setError(error, recoveryError(1013, "Managed object model is required to rebuild packages"));
  // A rebuild makes a new package; it never writes into one that is there.
  if (env()->fileExists(url)) return setError(error, recoveryError(-1, url + " already exists"));
  report(0, 0, "Setting up Core Data stack...");
  CorvaneStore::registerStoreType();
  auto environment = new StoreEnvironment();
  const Value environmentValue = Value::object(environment);
  environment->env = env();
  environment->application = applicationOf(setup_);
  environment->defaults = setup_.defaults;
  environment->interaction = setup_.interaction;
  Value storeOptions = Value::mutableDictionary();
  storeOptions.set(Value(kCorvaneStoreEnvironmentOption), environmentValue);
  storeOptions.set(Value("NSMigratePersistentStoresAutomaticallyOption"), Value(true));
  storeOptions.set(Value("NSInferMappingModelAutomaticallyOption"), Value(true));
  if (setup_.storeCacheRoot) storeOptions.set(Value(kCorvaneCacheRootURLOption), Value(*setup_.storeCacheRoot));
  auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model_);
  auto* store = dynamic_cast<CorvaneStore*>(
      coordinator->addPersistentStore(kCorvaneStoreType, "", absolutePath(url), storeOptions.copy(), error));
  if (store == nullptr) return false;
  // The package is new: the store's first pass finds no change files and is over already, so
  // nothing here waits on a run loop and a rebuild may run on any thread.
  auto context = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  context->setPersistentStoreCoordinator(coordinator);
  context->setUndoManager(nullptr);

  report(0, 0, "Loading entities from cache...");
  Error listing;
  std::vector<std::string> entities = availableEntitiesWithError(&listing).value_or(std::vector<std::string>{});
  logLine(fmt::format("[Recovery] Found entities: {}", fmt::join(entities, ", ")));
  if (entities.empty()) {
    logLine("[Recovery] ERROR: No entities found", LogLevel::Error);
    store->close();
    return setError(
        error, listing.empty() ? Error(kCorvaneRecoveryErrorDomain, -1, "No entities found in the cache") : listing);
  }
  std::unordered_map<std::string, std::vector<std::string>> uidsOf;
  int64_t total = 0;
  for (const std::string& entity : entities) {
    std::vector<std::string> uids = UIDsForEntity(entity, nullptr).value_or(std::vector<std::string>{});
    logLine(fmt::format("[Recovery] Entity {}: {} UIDs", entity, uids.size()));
    total += static_cast<int64_t>(uids.size());
    uidsOf[entity] = std::move(uids);
  }
  // Each table file is read and decoded once, not once for every item it holds; what cannot be
  // read is left out, as a single read would leave it.
  std::unordered_map<std::string, Value> items;  // "<entity>_<UID>"
  for (const std::string& entity : entities) {
    std::unordered_map<char, Value> tables;
    for (const std::string& uid : uidsOf[entity]) {
      if (uid.empty()) continue;
      auto [table, added] = tables.try_emplace(uid.front());
      if (added) {
        Bytes bytes;
        const std::string file = fmt::format("{}_{}.fast", entity, uid.front());
        if (isPlainFileName(file) && env()->readFile(pathJoin(cacheURL_, file), &bytes, nullptr)) {
          try {
            table->second = FastCoder::acyclicObjectWithData(bytes);
          } catch (const Exception&) {
            // a damaged table: its items stay out
          }
        }
      }
      if (!table->second.isDictionary()) continue;
      if (const Value& stored = table->second[uid]; !stored.isNil()) items[entity + "_" + uid] = recoveredItem(stored);
    }
  }
  auto itemOf = [&items](const std::string& entity, const std::string& uid) -> const Value* {
    auto it = items.find(entity + "_" + uid);
    return it != items.end() ? &it->second : nullptr;
  };
  logLine(fmt::format("[Recovery] Total objects to recover: {}", total));
  report(0, total, fmt::format("Found {} objects to recover", total));

  int64_t created = 0;
  bool saved = false;
  context->performAndWait([&] {
    // Pass 1: every object with its attribute values.
    std::unordered_map<std::string, Retained<ManagedObject>> objects;
    for (const std::string& entityName : entities) {
      const EntityDescription* entity = model_->entity(entityName);
      if (entity == nullptr) continue;
      for (const std::string& uid : uidsOf[entityName]) {
        const Value* item = itemOf(entityName, uid);
        if (item == nullptr) continue;
        Retained<ManagedObject> object = context->insertNewObject(entityName);
        // The objects keep their UIDs, so that what refers to them from outside still does.
        store->setUIDForInsertedObject(object.get(), uid);
        setAttributes(*object, *entity, *item, {});
        objects[entityName + "_" + uid] = object;
        if (++created % 10 == 0) report(created, total, fmt::format("Creating {}...", entityName));
      }
    }
    // Pass 2: relationships, each side from its own item. The graph keeps inverses in step,
    // so that the package never holds one side without the other.
    report(created, total, "Resolving relationships...");
    auto mapped = [&objects](const Value& reference) -> ManagedObject* {
      if (!reference.isString()) return nullptr;
      std::optional<std::string> entity = storeEntityName(reference.str());
      if (!entity) return nullptr;
      auto it = objects.find(*entity + "_" + storeUID(reference.str()));
      return it != objects.end() ? it->second.get() : nullptr;
    };
    for (const std::string& entityName : entities) {
      const EntityDescription* entity = model_->entity(entityName);
      if (entity == nullptr) continue;
      for (const std::string& uid : uidsOf[entityName]) {
        auto it = objects.find(entityName + "_" + uid);
        if (it == objects.end()) continue;
        const Value* item = itemOf(entityName, uid);
        if (item == nullptr || !(*item)["relations"].isDictionary()) continue;
        const Value& relations = (*item)["relations"];
        for (const Value& key : relations.keys()) {
          const RelationshipDescription* relationship = entity->relationship(key.str());
          const Value& targets = relations[key.str()];
          if (relationship == nullptr || !(targets.isArray() || targets.isSet() || targets.isOrderedSet())) continue;
          if (!relationship->isToMany()) {
            if (targets.count() > 0) {
              if (ManagedObject* target = mapped(targets.elements().front())) it->second->setToOne(key.str(), target);
            }
            continue;
          }
          std::vector<Retained<ManagedObject>> members;
          for (const Value& reference : targets.elements()) {
            if (ManagedObject* target = mapped(reference)) members.emplace_back(target);
          }
          it->second->setToMany(key.str(), members);
        }
      }
    }
    report(created, total, "Saving package...");
    logLine(fmt::format("[Recovery] Attempting to save {} objects...", created));
    Error saveError;
    saved = context->save(&saveError);
    if (saved) {
      logLine(fmt::format("[Recovery] Successfully saved {} objects", created));
      report(created, total, fmt::format("Saved {} objects", created));
    } else {
      logLine("[Recovery] ERROR saving: " + saveError.description(), LogLevel::Error);
      setError(error, saveError);
    }
  });
  store->waitForSaves();
  logLine(fmt::format("[Recovery] Rebuild complete. Success: {}", saved ? 1 : 0));
  store->close();
  return saved;
}

bool CorvaneRecovery::createInfoPlistAtURL(const std::string& url, const Value& options, Error* error) const {
  Env* files = env();
  const ApplicationInfo application = applicationOf(setup_);
  auto orDefault = [](const std::string& value, const char* fallback) {
    return Value(value.empty() ? std::string(fallback) : value);
  };
  Value info = Value::mutableDictionary();
  info.set(Value("DocumentIdentifier"),
           options["DocumentIdentifier"].isString() ? options["DocumentIdentifier"] : Value(files->newUUIDString()));
  if (!options["DocumentInfo"].isNil()) info.set(Value("DocumentInfo"), options["DocumentInfo"]);
  info.set(Value("Application"),
           Value::dictionary({{Value("CFBundleIdentifier"), orDefault(application.identifier, "com.unknown.app")},
                              {Value("CFBundleVersion"), orDefault(application.version, "1.0")},
                              {Value("CFBundleShortVersionString"), orDefault(application.shortVersion, "1.0")}}));
  info.set(Value("Corvane"), Value::dictionary({{Value("CFBundleIdentifier"), Value(kFrameworkBundleIdentifier)},
                                                {Value("CFBundleVersion"), Value(kFrameworkVersion)},
                                                {Value("CFBundleShortVersionString"), Value(kFrameworkShortVersion)}}));
  info.set(Value("DateCreation"), Value::date(files->now()));
  return files->createDirectory(url, true, error) &&
         writePropertyListFile(files, pathJoin(url, "Info.plist"), info.copy(), error);
}

// ---- Every cache at once -------------------------------------------------------------------------

std::optional<std::string> CorvaneRecovery::recoverAllCachesToDesktop(const std::shared_ptr<ObjectModel>& model,
                                                                      const RecoverySetup& setup,
                                                                      const std::vector<std::string>& knownOriginalURLs,
                                                                      ProgressBlock progress, Error* error) {
  Env* env = envOf(setup);
  // Without a block of its own the person sees a progress panel and a closing alert.
  std::shared_ptr<Interaction> panel;
  if (!progress) {
    panel = setup.interaction ? setup.interaction : defaultInteraction();
    panel->beginProgress("Corvane Recovery");
    panel->updateProgress(0, "Initializing...");
    progress = [panel](int64_t current, int64_t total, const std::string& message) {
      if (total < 1) {
        panel->updateProgress(-1, "Working...\n" + message);
      } else {
        panel->updateProgress(static_cast<double>(current) / static_cast<double>(total),
                              fmt::format("Processing {} of {}\n{}", current, total, message));
      }
    };
  }
  auto finishPanel = [&panel] {
    if (panel) panel->endProgress();
  };
  const std::string desktop = env->desktopDirectory();
  if (desktop.empty()) {
    finishPanel();
    setError(error, recoveryError(2001, "Could not locate Desktop directory"));
    return std::nullopt;
  }
  const std::string folder = freeFolderName(env, desktop, "Recovered");
  progress(0, 0, fmt::format("Starting recovery to: {}", folder));
  Error made;
  if (!env->createDirectory(folder, true, &made)) {
    progress(0, 0, fmt::format("Failed to create recovery folder: {}", made.description()));
    finishPanel();
    setError(error, made);
    return std::nullopt;
  }
  progress(0, 0, "Searching for caches...");
  const std::vector<std::string> caches = findAllCacheDirectories(setup);
  const auto n = static_cast<int64_t>(caches.size());
  if (caches.empty()) {
    progress(0, 0, "No caches found");
  } else {
    progress(0, n, fmt::format("Found {} cache(s) to recover", n));
  }
  const std::string extension = documentFileExtension(applicationOf(setup));
  for (int64_t i = 1; i <= n; ++i) {
    const std::string& cache = caches[static_cast<size_t>(i - 1)];
    const std::string suggested = suggestedNameForCacheURL(cache, env);
    logLine("[Recovery] ========================================");
    logLine(fmt::format("[Recovery] Processing cache {}/{}", i, n));
    logLine(fmt::format("[Recovery] Cache URL: {}", cache));
    logLine(fmt::format("[Recovery] Cache hash: {}", pathLastComponent(cache)));
    progress(i, n, fmt::format("Processing: {}", suggested));
    CorvaneRecovery recovery(cache, model, setup);
    recovery.setProgressBlock(progress);
    const std::optional<std::string> original = originalFileURLForCacheURL(cache, knownOriginalURLs, setup);
    logLine(fmt::format("[Recovery] Original file URL: {}", original ? *original : "(not found)"));
    if (original && env->fileExists(*original)) {
      logLine(fmt::format("[Recovery] SKIPPING - file still exists at: {}", *original));
      progress(i, n, fmt::format("⏭️  Skipping (file exists): {}", pathLastComponent(*original)));
      continue;
    }
    if (recovery.isEncrypted()) {
      logLine("[Recovery] SKIPPING - cache is encrypted");
      progress(i, n, fmt::format("⚠️  Skipping encrypted cache: {}", suggested));
      continue;
    }
    std::string name;
    if (original) {
      name = pathDeletingExtension(pathLastComponent(*original));
      logLine(fmt::format("[Recovery] Using original filename: {}", name));
    } else {
      name = suggested;
      logLine(fmt::format("[Recovery] Using generated cache name: {}", name));
    }
    std::string file = fmt::format("{}.{}", name, extension);
    logLine(fmt::format("[Recovery] Package filename: {}", file));
    logLine(fmt::format("[Recovery] Destination: {}", pathJoin(folder, file)));
    for (long k = 1; env->fileExists(pathJoin(folder, file)); ++k) file = fmt::format("{} {}.{}", name, k, extension);
    Error failure;
    if (recovery.rebuildPackageToURL(pathJoin(folder, file), Value(), &failure)) {
      progress(i, n, fmt::format("✅ Recovered: {}", file));
    } else {
      progress(i, n, fmt::format("❌ Failed to recover {}: {}", name, failure.description()));
    }
  }
  progress(n, n, fmt::format("✨ Recovery complete! {} cache(s) processed.", n));
  progress(n, n, fmt::format("📁 Files saved to: {}", folder));
  if (panel) {
    panel->endProgress();
    const size_t button = panel->runAlert(Alert{
        "Recovery Complete", fmt::format("{} cache(s) recovered to Desktop/Recovered", n), {"Show Folder", "OK"}});
    if (button == 0) panel->revealInFileViewer(folder);
  }
  return folder;
}

}  // namespace corvane
