// What a CorvaneStore needs from its surroundings besides its option values: the Env that
// reaches the operating system, the run loop it treats as the main thread, the volume
// queries, the user defaults, the Interaction that shows alerts and reveals files, and the
// host's hooks for error records and document notification.
//
// A host passes one StoreEnvironment under the store option kCorvaneStoreEnvironmentOption
// (an object value); a store opened without one uses the process defaults. Tests use it to put
// a store on a ManualClockEnv and a private run loop.
//
// StoreVolumeQueries is the seam to the volume and cloud-service detection of the document
// layer, which sits above the store: the document layer (or the command-line tool) installs
// its implementation with setDefaultStoreVolumeQueries(); until then the store uses the plain
// answers of the base class.
//
// Threads: set everything up before the store opens; afterwards the store reads it from any
// thread. The volume queries must be callable from any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/bytes.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/value.h"
#include "corvane/security/sea_crypto.h"

namespace corvane {

class ManagedObjectContext;
class RunLoop;
class UserDefaults;

class StoreVolumeQueries {
 public:
  virtual ~StoreVolumeQueries();
  // Whether the file or folder is wholly on the local disk rather than an online-only
  // placeholder. The base answers whether the path exists.
  virtual bool isOnDisk(Env* env, const std::string& path);
  // The sync service that owns the path ("Dropbox", "Nextcloud", ...), or nullopt. The base
  // knows none.
  virtual std::optional<std::string> serviceType(Env* env, const std::string& path);
  // Whether the path lies on a local volume. The base asks the Env's mount table.
  virtual bool isLocalURL(Env* env, const std::string& path);
  // The volume information record of the path ("URL", "Name", "Local", ...), or nil.
  virtual Value volumeInformation(Env* env, const std::string& path);
};

// The queries used by stores whose environment names none. Any thread.
void setDefaultStoreVolumeQueries(std::shared_ptr<StoreVolumeQueries> queries);
std::shared_ptr<StoreVolumeQueries> defaultStoreVolumeQueries();

class StoreEnvironment final : public Object {
 public:
  StoreEnvironment() = default;

  Env* env = Env::defaultEnv();
  RunLoop* mainLoop = nullptr;                  // nullptr: RunLoop::main()
  std::shared_ptr<StoreVolumeQueries> volumes;  // nullptr: defaultStoreVolumeQueries()
  std::shared_ptr<UserDefaults> defaults;       // nullptr: UserDefaults::standard()
  // The key-derivation rounds written into new encrypted packages (tests use a small count).
  int64_t encryptionRounds = SeaCrypto::kDefaultRounds;

  // Alerts (message and informative text, untranslated) and "Show in Finder". nullptr:
  // defaultInteraction().
  std::shared_ptr<Interaction> interaction;
  std::shared_ptr<Interaction> interactionOrDefault() const;
  // Who the host application is (written into new packages and every change's session).
  // nullopt: ApplicationInfo::current().
  std::optional<ApplicationInfo> application;
  ApplicationInfo applicationOrCurrent() const;
  // Receives every error record's text ("<store URL> <description>") and domain, on the thread
  // that logged it.
  std::function<void(const std::string& text, const std::string& domain)> errorDelegate;
  // Told on the main thread after a context was refreshed with changes from other devices.
  std::function<void(ManagedObjectContext* context, const Value& changes)> documentNotifier;
  // The bytes of a resource of the host application, for the "replace" anonymising option.
  std::function<std::optional<Bytes>(const std::string& name)> resource;

  std::string className() const override { return "CorvaneStoreEnvironment"; }
  // The environment of a store's options, or nullptr when they carry none.
  static StoreEnvironment* fromOptions(const Value& options);
};

}  // namespace corvane
