// A small fake store for the cache tests, a model, and helpers to build change records.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "corvane/cache/cache.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/sea_crypto.h"
#include "support/printers.h"
#include "support/temp_dir.h"
#include "support/test_models.h"

namespace corvane::testing {

inline std::shared_ptr<ObjectModel> cacheTestModel() {
  static std::shared_ptr<ObjectModel> model = [] {
    Error error;
    auto m = ObjectModel::fromJSON(kCacheModelJSON, &error);
    if (!m) ADD_FAILURE() << error.localizedDescription;
    return m;
  }();
  return model;
}

// Two 36-character UIDs whose first characters pick different tables.
inline const char* kUID0 = "0A1B2C3D-0000-4000-8000-000000000000";
inline const char* kUID1 = "1A1B2C3D-0000-4000-8000-000000000001";
inline const char* kUIDF = "FA1B2C3D-0000-4000-8000-00000000000F";

// Everything the cache asks of a store, recorded; loading, validation and the cipher are
// configurable.
class FakeStore : public CorvaneCacheStoreServices {
 public:
  FakeStore(Env* env, std::string packagePath) : env_(env), package_(std::move(packagePath)) {}

  // ---- knobs -----------------------------------------------------------------------------
  // Gives the fake a password: every cache file is then enciphered.
  void setPassword(const std::string& password) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto crypto = std::make_unique<SeaCrypto>(env_);
    crypto->setSalt(Bytes(64, 0x5A));
    crypto->setRounds(1000);
    crypto->setPassword(std::string_view(password));
    crypto_ = std::move(crypto);
  }
  std::function<CorvaneCacheItemPtr(const ObjectID&)> loader;  // default: no item
  std::function<Value(const Value&, bool)> validator;          // default: accepts all
  std::optional<std::string> cacheRoot;
  std::string upTo;

  // ---- recordings --------------------------------------------------------------------------
  std::vector<std::pair<std::string, std::string>> logs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return logs_;
  }
  std::vector<std::string> logMessages() const {
    std::vector<std::string> out;
    for (const auto& entry : logs()) out.push_back(entry.first);
    return out;
  }
  std::vector<std::string> errorDomains() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errorDomains_;
  }
  std::atomic<int> loads{0};
  std::atomic<int> preventedSaves{0};
  std::atomic<int> validations{0};
  std::vector<std::string> alerts;
  std::vector<std::string> reveals;
  std::vector<Value> refreshes;
  std::vector<bool> recoverHistory;

  ObjectID idFor(const std::string& entity, const std::string& uid) {
    return newObjectIDForEntity(entityForName(entity), Value(uid));
  }

  // ---- CorvaneCacheStoreServices --------------------------------------------------------------
  Env* env() override { return env_; }
  std::optional<Bytes> decrypt(ByteView bytes) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!crypto_) return Bytes(bytes.begin(), bytes.end());
    return crypto_->decryptData(bytes);
  }
  std::optional<Bytes> encrypt(ByteView bytes) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!crypto_) return Bytes(bytes.begin(), bytes.end());
    return crypto_->encryptData(bytes);
  }
  void log(std::string_view message, std::string_view type) override {
    std::lock_guard<std::mutex> lock(mutex_);
    logs_.emplace_back(std::string(message), std::string(type));
  }
  void logError(const Error&, std::string_view domain) override {
    std::lock_guard<std::mutex> lock(mutex_);
    errorDomains_.emplace_back(domain);
  }
  std::vector<const EntityDescription*> entities() override { return cacheTestModel()->entities(); }
  const EntityDescription* entityForName(std::string_view name) override { return cacheTestModel()->entity(name); }
  ObjectID newObjectIDForEntity(const EntityDescription* entity, const Value& reference) override {
    if (entity == nullptr) return ObjectID();
    return ObjectID::makePermanent(entity, reference, nullptr);
  }
  ObjectID objectIDForReferenceString(std::string_view reference) override {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = ids_.find(std::string(reference));
    return it == ids_.end() ? ObjectID() : it->second;
  }
  void setObjectIDForReferenceString(std::string_view reference, const ObjectID& objectID) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ids_[std::string(reference)] = objectID;
  }
  void preventFromSaving() override { ++preventedSaves; }
  CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext*) override {
    ++loads;
    return loader ? loader(objectID) : CorvaneCacheItemPtr();
  }
  std::string entitiesURL() override { return package_ + "/Entities"; }
  std::string fileNameForEntity(const EntityDescription& entity) override { return entity.name(); }
  std::string correctedDataURL(const std::string& path) override { return path; }
  Value validatedChanges(const Value& change, bool lightWeight) override {
    ++validations;
    if (validator) return validator(change, lightWeight);
    return Value::dictionary();
  }
  void refreshInsertedObjects(const Value& inserted, const Value& updated, const Value& deleted) override {
    refreshes.push_back(arr({inserted, updated, deleted}));
  }
  bool recover() override { return recover_.load(); }
  void setRecover(bool recover) override {
    recover_ = recover;
    std::lock_guard<std::mutex> lock(mutex_);
    recoverHistory.push_back(recover);
  }
  std::optional<std::string> cacheRootURL() override { return cacheRoot; }
  std::string cacheURL() override { return package_ + "/Cache"; }
  std::string upToChange() override { return upTo; }
  void showAlert(const std::string& message, const std::string& informativeText) override {
    alerts.push_back(message + " / " + informativeText);
  }
  void revealInFileViewer(const std::string& path) override { reveals.push_back(path); }

 private:
  Env* env_;
  std::string package_;
  mutable std::mutex mutex_;
  std::unique_ptr<SeaCrypto> crypto_;
  std::vector<std::pair<std::string, std::string>> logs_;
  std::vector<std::string> errorDomains_;
  std::unordered_map<std::string, ObjectID> ids_;
  std::atomic<bool> recover_{false};
};

// An Env that counts whole-file writes, can refuse them, and has its own XDG folders.
class CountingEnv : public EnvWrapper {
 public:
  explicit CountingEnv(Env* target) : EnvWrapper(target) {}
  std::unordered_map<std::string, std::string> variables;  // set before use
  std::optional<std::string> environmentVariable(const std::string& name) override {
    auto it = variables.find(name);
    if (it != variables.end()) return it->second.empty() ? std::nullopt : std::optional<std::string>(it->second);
    return EnvWrapper::environmentVariable(name);
  }
  bool writeFileAtomically(const std::string& path, ByteView data, Error* error) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      written_.push_back(path);
    }
    if (failWrites) return setError(error, Error(kPOSIXErrorDomain, 13, "refused by the test"));
    return EnvWrapper::writeFileAtomically(path, data, error);
  }
  bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments, Error*) override {
    std::lock_guard<std::mutex> lock(mutex_);
    launched.push_back(executable);
    for (const auto& a : arguments) launched.push_back(a);
    return true;
  }
  std::vector<std::string> launched;
  std::vector<std::string> written() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return written_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    written_.clear();
  }
  std::atomic<bool> failWrites{false};

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> written_;
};

// One property's entry of an object file's payload: {"value": value}.
inline Value entry(const Value& value) { return dict({{"value", value}}); }

// An entry of an object file: {"payload": ..., "version": ...}.
inline Value objectEntry(const Value& payload, const Value& version = Value("1")) {
  return dict({{"payload", payload}, {"version", version}});
}

// A change record touching UIDs: kind -> entity -> [uids].
inline Value changeRecord(
    const std::string& name,
    std::initializer_list<std::pair<const char*, std::vector<std::pair<std::string, std::vector<std::string>>>>>
        parts) {
  Value changes = Value::mutableDictionary();
  for (const auto& [kind, entities] : parts) {
    Value byEntity = Value::mutableDictionary();
    for (const auto& [entity, uids] : entities) {
      Value byUID = Value::mutableDictionary();
      for (const auto& uid : uids) byUID.set(Value(uid), Value::dictionary());
      byEntity.set(Value(entity), byUID);
    }
    changes.set(Value(kind), byEntity);
  }
  return dict(
      {{"name", Value(name)},
       {"changes", changes},
       {"session", dict({{"machineName", "box"}, {"fullUserName", "Ann"}, {"osVersion", "12"}, {"version", "7"}})}});
}

// Per-test surroundings: a temporary data home and package, a fake clock, a run loop of its own
// and a fake store.
struct CacheHarness {
  TempDir dir;
  ManualClockEnv clock;
  CountingEnv env;
  RunLoop loop;
  FakeStore store;
  std::string package;

  CacheHarness()
      : clock(Env::defaultEnv()), env(&clock), loop(&clock), store(&env, dir / "Doc.pkg"), package(dir / "Doc.pkg") {
    env.variables["XDG_DATA_HOME"] = dir / "data";
    env.variables["XDG_CACHE_HOME"] = dir / "caches";
  }

  std::shared_ptr<CorvaneCache> boundCache() {
    auto cache = CorvaneCache::cacheForStore(&store, &loop);
    cache->setStoreURL(package);
    return cache;
  }
};

// A harness with its cache bound to the fake store.
class BoundCacheTest : public ::testing::Test {
 protected:
  CacheHarness h;
  std::shared_ptr<CorvaneCache> cache = h.boundCache();
};

}  // namespace corvane::testing
