// CorvanePackage — what can be asked of a document package on disk without opening a store:
// its info dictionary and identity, whether it is a package at all and whether a password
// opens it, making room for a new one, and the list of recent packages.
//
//   if (CorvanePackage::isCorrectFormat(path) && CorvanePackage::canOpenURL(path, password)) ...
//
// Threads: any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/foundation/value.h"

namespace corvane {

class StoreEnvironment;
class StoreVolumeQueries;
class UserDefaults;

class CorvanePackage {
 public:
  CorvanePackage() = delete;

  // The first extension declared for "CorvaneStore" documents by the host application
  // (ApplicationInfo's "CFBundleDocumentTypes"), or nullopt.
  static std::optional<std::string> fileExtension();
  // <url>/Info.plist as a dictionary, or nil.
  static Value infoDictionaryForURL(const std::string& url, Env* env = Env::defaultEnv());
  static std::string documentIdentifierForURL(const std::string& url, Env* env = Env::defaultEnv());
  static bool documentExistsAtURL(const std::string& url, const std::string& identifier, Env* env = Env::defaultEnv());
  // Info.plist, Changes and Entities exist and the info names the framework. A package whose
  // Info.plist is an online-only placeholder shows the offline alert (through `environment`).
  static bool isCorrectFormat(const std::string& path, Env* env = Env::defaultEnv(),
                              const StoreEnvironment* environment = nullptr);
  // Whether the password opens the package (no password for an unencrypted one).
  static bool canOpenURL(const std::string& url, const std::optional<std::string>& password,
                         Env* env = Env::defaultEnv());
  // Moves whatever is at `url` to the trash (recorded under "CorvaneOverwrittenFiles") and
  // resets the local cache for that URL.
  static void prepareNewStoreAtURL(const std::string& url, Env* env = Env::defaultEnv(),
                                   std::shared_ptr<UserDefaults> defaults = nullptr);
  // Records the package under "CorvaneRecentFiles" (one record per path and document), on the
  // serial queue "RECENT". `info` and `volume` nil: read from the package.
  static void registerURL(const std::string& url, const Value& info = Value(), const Value& volume = Value(),
                          Env* env = Env::defaultEnv(), std::shared_ptr<UserDefaults> defaults = nullptr,
                          std::shared_ptr<StoreVolumeQueries> volumes = nullptr);
  // Returns once every registration queued so far is done.
  static void waitForRecentFilesRegistration();
  // The folder name of an entity in a package with or without a password.
  static std::string entityFolderName(const std::string& entityName, bool encrypted);
};

}  // namespace corvane
