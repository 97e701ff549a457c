// A model, a fake clock, private folders and helpers that open CorvaneStores for the store tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "corvane/cache/cache.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_change.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"
#include "support/printers.h"
#include "support/temp_dir.h"
#include "support/test_models.h"

namespace corvane::testing {

inline std::shared_ptr<ObjectModel> storeTestModel() {
  static std::shared_ptr<ObjectModel> model = [] {
    Error error;
    auto m = ObjectModel::fromJSON(kPeopleModelJSON, &error);
    if (!m) ADD_FAILURE() << error.localizedDescription;
    return m;
  }();
  return model;
}

// Answers "not on disk" for chosen paths, like online-only placeholders.
class FakeVolumes : public StoreVolumeQueries {
 public:
  std::set<std::string> remote;
  bool isOnDisk(Env* env, const std::string& path) override {
    return !remote.contains(path) && StoreVolumeQueries::isOnDisk(env, path);
  }
};

// The fake clock, with files that cannot be read (vanished between listing and reading), names
// that cannot be written (a full disk) wherever they are, and a hook that sees every path the
// code under test reads, lists, writes or removes.
class TestEnv : public ManualClockEnv {
 public:
  std::set<std::string> unreadable;
  std::set<std::string> unwritableNames;
  std::function<void(const std::string&)> touched;
  bool readFile(const std::string& path, Bytes* out, Error* error) override {
    touch(path);
    if (unreadable.contains(path)) return setError(error, Error(kPOSIXErrorDomain, 2, path + ": unreadable"));
    return ManualClockEnv::readFile(path, out, error);
  }
  bool writeFileAtomically(const std::string& path, ByteView data, Error* error) override {
    touch(path);
    if (unwritableNames.contains(pathLastComponent(path))) {
      return setError(error, Error(kPOSIXErrorDomain, 28, path + ": no space left"));
    }
    return ManualClockEnv::writeFileAtomically(path, data, error);
  }
  bool fileExists(const std::string& path, bool* isDirectory = nullptr) override {
    touch(path);
    return ManualClockEnv::fileExists(path, isDirectory);
  }
  std::optional<FileAttributes> attributes(const std::string& path) override {
    touch(path);
    return ManualClockEnv::attributes(path);
  }
  bool listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names, Error* error) override {
    touch(path);
    return ManualClockEnv::listDirectory(path, skipHidden, names, error);
  }
  bool createDirectory(const std::string& path, bool intermediates, Error* error) override {
    touch(path);
    return ManualClockEnv::createDirectory(path, intermediates, error);
  }
  bool removeItem(const std::string& path, Error* error) override {
    touch(path);
    return ManualClockEnv::removeItem(path, error);
  }
  bool moveItem(const std::string& from, const std::string& to, Error* error) override {
    touch(from);
    touch(to);
    return ManualClockEnv::moveItem(from, to, error);
  }

 private:
  void touch(const std::string& path) {
    if (touched) touched(path);
  }
};

// What the store showed the user.
class RecordingInteraction final : public Interaction {
 public:
  size_t runAlert(const Alert& alert) override {
    alerts.push_back(alert.message);
    return 0;
  }
  void revealInFileViewer(const std::string& path) override { reveals.push_back(path); }
  void openFile(const std::string& path) override { opened.push_back(path); }
  std::optional<std::string> askPassword(const std::string&) override { return std::nullopt; }
  std::vector<std::string> alerts, reveals, opened;
};

// An open store with its coordinator and a main-queue context.
struct OpenStore {
  std::shared_ptr<CorvanePersistentStoreCoordinator> coordinator;
  CorvaneStore* store = nullptr;
  std::shared_ptr<CorvaneManagedObjectContext> context;
  explicit operator bool() const { return store != nullptr; }
};

class StoreTest : public ::testing::Test {
 protected:
  StoreTest() {
    // Trash, caches and settings of the code under test stay inside the test's folder.
    for (const char* variable : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
      const char* old = std::getenv(variable);
      savedVariables_.emplace_back(variable, old != nullptr ? std::optional<std::string>(old) : std::nullopt);
      setenv(variable, (dir / (std::string("xdg-") + variable)).c_str(), 1);
    }
    CorvaneStore::registerStoreType();
    environment_->env = &env;
    environment_->defaults = std::make_shared<UserDefaults>(&env, dir / "defaults.plist");
    environment_->volumes = volumes;
    environment_->encryptionRounds = 1000;
    environment_->interaction = interaction;
    readyObserver_ = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                                     [this](const Notification&) { ++readyCount_; });
  }
  ~StoreTest() override {
    CorvanePackage::waitForRecentFilesRegistration();
    RunLoop::main().discardPendingWork();
    for (const auto& [variable, old] : savedVariables_) {
      if (old) {
        setenv(variable.c_str(), old->c_str(), 1);
      } else {
        unsetenv(variable.c_str());
      }
    }
  }

  Value options(const Value& extra = Value()) {
    Value o = Value::mutableDictionary();
    o.set(Value(kCorvaneCacheRootURLOption), Value(cacheRoot));
    o.set(Value(kCorvaneStoreEnvironmentOption), environmentValue_);
    for (const auto& [key, value] : extra.entries()) o.set(key, value);
    return o.copy();
  }

  // Opens the package and waits for the first update pass.
  OpenStore open(const Value& extra = Value(), Error* error = nullptr, const std::string& path = {}) {
    OpenStore opened;
    opened.coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(openModel);
    const int before = readyCount_;
    auto* added = opened.coordinator->addPersistentStore(kCorvaneStoreType, "", path.empty() ? package : path,
                                                         options(extra), error);
    if (added == nullptr) return opened;
    opened.store = static_cast<CorvaneStore*>(added);
    waitUntil([&] { return readyCount_ > before; });
    opened.context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    opened.context->setPersistentStoreCoordinator(opened.coordinator);
    return opened;
  }

  // Closes as a document does and lets the store go.
  void close(OpenStore& opened) {
    if (!opened) return;
    opened.context.reset();
    opened.store->close();
    opened.coordinator.reset();
    opened.store = nullptr;
    RunLoop::main().discardPendingWork();
  }

  void waitUntil(const std::function<bool()>& done) { ASSERT_TRUE(RunLoop::main().runUntil(done, 30)) << "timed out"; }
  // Runs what the store handed to the main loop (log entries, cache updates).
  void drain() {
    for (int i = 0; i < 5; ++i) RunLoop::main().runOnce();
  }
  // Runs an update pass and waits for its end.
  void update(CorvaneStore* store) {
    const int before = readyCount_;
    store->updateChanges();
    waitUntil([&] { return readyCount_ > before; });
    drain();
  }

  bool save(OpenStore& opened) {
    Error error;
    bool ok = opened.context->save(&error);
    EXPECT_TRUE(ok) << error.localizedDescription;
    opened.store->waitForSaves();
    drain();
    return ok;
  }

  std::vector<std::string> messages(CorvaneStore* store) {
    drain();
    std::vector<std::string> out;
    for (const StoreLogEntry& entry : store->logEntries()) out.push_back(entry.message);
    return out;
  }
  std::optional<StoreLogEntry> entryContaining(CorvaneStore* store, const std::string& fragment) {
    drain();
    for (const StoreLogEntry& entry : store->logEntries()) {
      if (entry.message.find(fragment) != std::string::npos) return entry;
    }
    return std::nullopt;
  }

  // An entry whose message starts and ends so: validation messages carry the change's date and
  // author after their first ":".
  std::optional<StoreLogEntry> entryWith(CorvaneStore* store, const std::string& prefix, const std::string& suffix) {
    drain();
    for (const StoreLogEntry& entry : store->logEntries()) {
      if (entry.message.starts_with(prefix) && entry.message.ends_with(suffix)) return entry;
    }
    return std::nullopt;
  }

  std::vector<std::string> list(const std::string& folder) {
    std::vector<std::string> names;
    env.listDirectory(folder, true, &names, nullptr);
    return names;
  }
  Value readJSON(const std::string& path) {
    auto parsed = jsonToValue(readTextFile(path));
    return parsed ? *parsed : Value();
  }

  TempDir dir;
  std::shared_ptr<ObjectModel> openModel = storeTestModel();  // what open() opens the package with
  std::vector<std::pair<std::string, std::optional<std::string>>> savedVariables_;
  TestEnv env;
  ScopedRunLoopEnv clock_{RunLoop::main(), &env};
  std::shared_ptr<FakeVolumes> volumes = std::make_shared<FakeVolumes>();
  std::shared_ptr<RecordingInteraction> interaction = std::make_shared<RecordingInteraction>();
  std::string package = dir / "Doc.corvane";
  std::string cacheRoot = dir / "caches";
  Value environmentValue_ = Value::object(new StoreEnvironment());
  StoreEnvironment* environment_ = static_cast<StoreEnvironment*>(environmentValue_.objectPointer());
  int readyCount_ = 0;
  NotificationCenter::Observer readyObserver_;
};

}  // namespace corvane::testing
