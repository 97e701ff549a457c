// corvane::CorvaneRecovery — turns a device's local cache of a document back into a package.
//
// Every device keeps the current values of every object of every document it opened in a cache
// outside the package. When the package is lost (a sync service deleted it, a disk failed), the
// cache still holds the document as it last stood on this device. A recovery object reads one
// cache folder without a store: which entities it holds (by file name), their UIDs and items;
// rebuildPackageToURL() inserts every cached object with its attribute values into a new
// package, joins the relationships and saves.
//
//   CorvaneRecovery recovery(cacheFolder, model);
//   corvane::Error error;
//   if (!recovery.rebuildPackageToURL("/home/me/Notes.corvane", Value(), &error)) { ... }
//
//   // or every orphaned cache of the host into "Recovered" on the desktop:
//   auto folder = CorvaneRecovery::recoverAllCachesToDesktop(model, setup, {}, nullptr, &error);
//
// Binary data is never restored (its files lie in the lost package, not in the cache), and an
// encrypted document's cache cannot be read ("Encrypted caches are not yet supported").
//
// Threads: a rebuild runs on the calling thread and blocks it until the package is on disk; the
// progress block is called there. Without a progress block, recoverAllCachesToDesktop() reports
// through the setup's Interaction, which must then be called on its main run loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class Interaction;
class ManagedObjectContext;
class ObjectModel;
class UserDefaults;

// Whose caches, where they are, and what the machine knows about the documents.
struct RecoverySetup {
  Env* env = nullptr;  // default: Env::defaultEnv()
  // The host whose caches are looked for (its identifier names their folders) and whose first
  // document type gives the extension of rebuilt packages. Default: ApplicationInfo::current().
  std::optional<ApplicationInfo> application;
  // The folders that hold one cache folder per document. Default: "LocalDatabaseCache" under
  // the application's folder in the user's data folder, then in the user's cache folder.
  std::vector<std::string> cacheRoots;
  // Where the host notes the documents it opened ("CorvaneRecentFiles"): the original paths of
  // caches are looked up there. Default: the application's user defaults.
  std::shared_ptr<UserDefaults> defaults;
  // The cache root of the stores that write rebuilt packages. Default: the usual place.
  std::optional<std::string> storeCacheRoot;
  // Progress panel and the closing alert when no progress block is given. Default:
  // defaultInteraction().
  std::shared_ptr<Interaction> interaction;
};

class CorvaneRecovery {
 public:
  // (current, total, message); total below 1 means "unknown".
  using ProgressBlock = std::function<void(int64_t current, int64_t total, const std::string& message)>;

  // A recovery of one cache folder. `model` may be null for reading only.
  explicit CorvaneRecovery(std::string cacheURL, std::shared_ptr<ObjectModel> model = nullptr,
                           RecoverySetup setup = {});

  // ---- Finding caches -----------------------------------------------------------------------
  static std::unique_ptr<CorvaneRecovery> recoveryWithCacheURL(const std::string& cacheURL,
                                                               std::shared_ptr<ObjectModel> model = nullptr,
                                                               const RecoverySetup& setup = {});
  // The recovery of the cache of the package at `storeURL`, or nullptr when it has none.
  static std::unique_ptr<CorvaneRecovery> recoveryWithStoreURL(const std::string& storeURL,
                                                               std::shared_ptr<ObjectModel> model = nullptr,
                                                               const RecoverySetup& setup = {});
  // The first existing cache folder of the package at `storeURL`, in the order of the roots.
  static std::optional<std::string> cacheURLForStoreURL(const std::string& storeURL, const RecoverySetup& setup = {});
  // Every cache folder under the roots (the first root's first; a name already found is not
  // listed again).
  static std::vector<std::string> findAllCacheDirectories(const RecoverySetup& setup = {});
  static std::vector<std::unique_ptr<CorvaneRecovery>> findAllCaches(
      const std::shared_ptr<ObjectModel>& model = nullptr, const RecoverySetup& setup = {});
  // The first extension of the application's first document type; "fast" when it has none.
  static std::string documentFileExtension(const ApplicationInfo& application);
  // "Recovered_<document name>_<first 8 characters of the folder name>" from the cache's change
  // log, or "Recovered_Cache_<folder name>".
  static std::string suggestedNameForCacheURL(const std::string& cacheURL, Env* env = nullptr);
  // `/ : * ? " < > | \` become "_", surrounding white space goes, and 51 characters or more
  // are cut to 50.
  static std::string filesystemSafeString(std::string_view text);
  // The first of `knownOriginalURLs`, then of the recent documents, whose cache folder is this
  // one; nullopt when none is.
  static std::optional<std::string> originalFileURLForCacheURL(const std::string& cacheURL,
                                                               const std::vector<std::string>& knownOriginalURLs,
                                                               const RecoverySetup& setup = {});
  // Rebuilds every cache whose document is gone into "Recovered" (or "Recovered 1", ...) on the
  // desktop; the folder's path, or nullopt with the reason in `error`. Caches of documents
  // that still exist and encrypted caches are skipped.
  static std::optional<std::string> recoverAllCachesToDesktop(const std::shared_ptr<ObjectModel>& model,
                                                              const RecoverySetup& setup,
                                                              const std::vector<std::string>& knownOriginalURLs,
                                                              ProgressBlock progress, Error* error);

  // ---- Reading one cache --------------------------------------------------------------------
  const std::string& cacheURL() const { return cacheURL_; }
  // When set, every read is refused: caches of encrypted documents cannot be read yet.
  const std::optional<std::string>& password() const { return password_; }
  void setPassword(std::optional<std::string> password) { password_ = std::move(password); }
  void setProgressBlock(ProgressBlock block) { progress_ = std::move(block); }

  // The entities whose files the cache folder holds (unordered), or nullopt with an error.
  std::optional<std::vector<std::string>> availableEntitiesWithError(Error* error) const;
  static bool isHexCharacter(char16_t c);
  std::optional<std::vector<std::string>> UIDsForEntity(const std::string& entity, Error* error) const;
  // {"attributes", "relations", "dictionary"} of one cached object (each only when present).
  std::optional<Value> cacheItemForEntity(const std::string& entity, const std::string& uid, Error* error) const;
  // Inserts the cached objects of `entity` (all of them when `uids` is empty) into `context`
  // with their attribute values (no relationships); how many, or -1 with an error.
  int64_t recoverObjectsForEntity(const std::string& entity, const std::vector<std::string>& uids,
                                  ManagedObjectContext& context, Error* error);
  // Writes a new package at `url` holding every cached object, its attribute values and its
  // relationships; true once it is on disk. `options` is unused (nil).
  bool rebuildPackageToURL(const std::string& url, const Value& options, Error* error);
  // Writes an "Info.plist" into the folder `url` ("DocumentIdentifier", "DocumentInfo" from
  // `options` when given).
  bool createInfoPlistAtURL(const std::string& url, const Value& options, Error* error) const;
  // Whether the cache cannot be read in the clear (its tables are encrypted).
  bool isEncrypted() const;

 private:
  Env* env() const;
  std::optional<Value> decodeFile(const std::string& name, int decodeFailureCode, Error* error) const;
  void report(int64_t current, int64_t total, const std::string& message) const;

  std::string cacheURL_;
  std::optional<std::string> password_;
  std::shared_ptr<ObjectModel> model_;
  RecoverySetup setup_;
  ProgressBlock progress_;
};

}  // namespace corvane
