// CorvanePackage: what the document layer asks of a package before a store exists.
#include <fmt/format.h>

#include "corvane/cache/cache.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/plist.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/predicate.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"
#include "corvane/security/string_utils.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_state.h"

namespace corvane {

namespace {

std::shared_ptr<UserDefaults> defaultsOr(std::shared_ptr<UserDefaults> defaults) {
  return defaults ? std::move(defaults) : UserDefaults::standard();
}

// Registrations run one after another on their own queue, off the caller's thread.
SerialQueue& recentQueue() {
  static auto* queue = new SerialQueue("RECENT");  // never destroyed: used until exit
  return *queue;
}

}  // namespace

std::optional<std::string> CorvanePackage::fileExtension() {
  const Value types = ApplicationInfo::current().documentTypes;
  for (const Value& type : types.elements()) {
    if (type["NSPersistentStoreTypeKey"] != Value(kCorvaneStoreType)) continue;
    const Value& first = type["CFBundleTypeExtensions"].at(0);
    return first.isString() ? std::optional<std::string>(first.str()) : std::nullopt;
  }
  return std::nullopt;
}

Value CorvanePackage::infoDictionaryForURL(const std::string& url, Env* env) {
  Value info;
  if (!readPropertyListFile(env, pathJoin(url, "Info.plist"), &info) || !info.isDictionary()) return Value();
  return info;
}

std::string CorvanePackage::documentIdentifierForURL(const std::string& url, Env* env) {
  return infoDictionaryForURL(url, env)["DocumentIdentifier"].str();
}

bool CorvanePackage::documentExistsAtURL(const std::string& url, const std::string& identifier, Env* env) {
  const Value info = infoDictionaryForURL(url, env);
  const Value& found = info["DocumentIdentifier"];
  return found.isString() && found.str() == identifier;
}

bool CorvanePackage::isCorrectFormat(const std::string& path, Env* env, const StoreEnvironment* environment) {
  for (const char* name : {"Info.plist", "Changes", "Entities"}) {
    if (!env->fileExists(pathJoin(path, name))) return false;
  }
  const Value info = infoDictionaryForURL(path, env);
  if (!info.isDictionary()) {
    std::shared_ptr<StoreVolumeQueries> volumes =
        environment != nullptr && environment->volumes ? environment->volumes : defaultStoreVolumeQueries();
    if (!volumes->isOnDisk(env, pathJoin(path, "Info.plist"))) {
      const std::string message = "The files of this document are not on this computer";
      const std::string informative = path + " is stored online only. Download it first and try again.";
      std::shared_ptr<Interaction> interaction =
          environment != nullptr ? environment->interactionOrDefault() : defaultInteraction();
      RunLoop& main =
          environment != nullptr && environment->mainLoop != nullptr ? *environment->mainLoop : RunLoop::main();
      main.perform([interaction, alert = Alert{message, informative, {}}] { interaction->runAlert(alert); });
    }
    return false;
  }
  return !info["Corvane"]["CFBundleIdentifier"].isNil();
}

bool CorvanePackage::canOpenURL(const std::string& url, const std::optional<std::string>& password, Env* env) {
  const Value info = infoDictionaryForURL(url, env);
  if (password) return canOpenWithPassword(info, std::string_view(*password), env);
  return canOpenWithPassword(info, std::nullopt, env);
}

void CorvanePackage::prepareNewStoreAtURL(const std::string& url, Env* env, std::shared_ptr<UserDefaults> defaults) {
  if (env->fileExists(url)) {
    if (std::optional<std::string> trashed = env->trashItem(url, nullptr)) {
      std::shared_ptr<UserDefaults> settings = defaultsOr(std::move(defaults));
      const Value old = settings->arrayForKey(kCorvaneOverwrittenFilesKey);
      Value records = old.isArray() ? old.mutableCopy() : Value::mutableArray();
      records.append(
          dict({{"date", Value::date(env->now())}, {"originalPath", Value(url)}, {"trashPath", Value(*trashed)}}));
      settings->setObject(records, kCorvaneOverwrittenFilesKey);
    }
  }
  CorvaneCache::resetCacheForURL(url, env);
}

void CorvanePackage::registerURL(const std::string& url, const Value& info, const Value& volume, Env* env,
                                 std::shared_ptr<UserDefaults> defaults, std::shared_ptr<StoreVolumeQueries> volumes) {
  recentQueue().async([url, info, volume, env, defaults = std::move(defaults), volumes = std::move(volumes)] {
    if (!env->fileExists(url)) return;
    std::shared_ptr<UserDefaults> settings = defaultsOr(defaults);
    const Value old = settings->arrayForKey(kCorvaneRecentFilesKey);
    Value documentInfo = info.isNil() ? infoDictionaryForURL(url, env) : info;
    Value volumeInfo = volume;
    if (volumeInfo.isNil()) volumeInfo = (volumes ? volumes : defaultStoreVolumeQueries())->volumeInformation(env, url);
    const Value& identifier = documentInfo["DocumentIdentifier"];
    std::optional<Predicate> same = Predicate::parse("Path LIKE %@ AND DocumentInfo.DocumentIdentifier LIKE %@",
                                                     {Value(url), identifier.isString() ? identifier : Value("")});
    Value records = Value::mutableArray();
    for (const Value& record : old.elements()) {
      if (!same || !same->evaluate(record)) records.append(record);
    }
    Value entry = Value::mutableDictionary();
    if (documentInfo.isDictionary()) entry.set(Value("DocumentInfo"), documentInfo);
    if (volumeInfo.isDictionary()) entry.set(Value("VolumeInfo"), volumeInfo);
    entry.set(Value("Path"), Value(url));
    std::optional<std::string> backup = timeMachineBackupPath(env, url);
    entry.set(Value("BackupPath"), Value(backup ? *backup : std::string("No Time Machine Backup found")));
    entry.set(Value("LastOpened"), Value::date(env->now()));
    records.append(entry);
    settings->setObject(records, kCorvaneRecentFilesKey);
  });
}

void CorvanePackage::waitForRecentFilesRegistration() {
  recentQueue().sync([] {});
}

std::string CorvanePackage::entityFolderName(const std::string& entityName, bool encrypted) {
  if (!encrypted) return entityName;
  // The salt slot says "(null)": when these names were first made the cipher did not exist yet,
  // and every encrypted package in existence depends on that.
  return storeSHA256String(fmt::format("(null).{}.{}", entityName, kFrameworkBundleIdentifier));
}

}  // namespace corvane
