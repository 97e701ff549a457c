#include "corvane/foundation/user_defaults.h"

#include <cstdlib>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"

namespace corvane {

namespace {

// A copy that shares no mutable node with the caller's value.
Value deepImmutableCopy(const Value& v) {
  if (v.isArray()) {
    std::vector<Value> items;
    items.reserve(v.count());
    for (const Value& item : v.elements()) items.push_back(deepImmutableCopy(item));
    return Value::array(std::move(items));
  }
  if (v.isDictionary()) {
    std::vector<std::pair<Value, Value>> entries;
    entries.reserve(v.count());
    for (const auto& [key, value] : v.entries()) entries.emplace_back(deepImmutableCopy(key), deepImmutableCopy(value));
    return Value::dictionary(std::move(entries));
  }
  if (v.isString() || v.isData()) return v.copy();
  return v;
}

Mutex& standardMutex() {
  static auto* m = new Mutex;
  return *m;
}

std::shared_ptr<UserDefaults>& standardDefaults() CORVANE_REQUIRES(standardMutex()) {
  static auto* d = new std::shared_ptr<UserDefaults>;
  return *d;
}

}  // namespace

UserDefaults::UserDefaults(Env* env, std::string path)
    : env_(env), path_(std::move(path)), values_(Value::mutableDictionary()), registered_(Value::mutableDictionary()) {
  MutexLock lock(&mutex_);
  Error error;
  if (!loadLocked(&error))
    logLine("Cannot read user defaults " + path_ + ": " + error.description(), LogLevel::Warning);
}

std::shared_ptr<UserDefaults> UserDefaults::forApplication(const std::string& identifier, Env* env) {
  return std::make_shared<UserDefaults>(env, pathJoin(env->configHome(), identifier + ".plist"));
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
  MutexLock lock(&standardMutex());
  auto& d = standardDefaults();
  if (!d) {
    std::string identifier = ApplicationInfo::current().identifier;
    d = forApplication(identifier.empty() ? kFrameworkBundleIdentifier : identifier);
  }
  return d;
}

void UserDefaults::setStandard(std::shared_ptr<UserDefaults> defaults) {
  MutexLock lock(&standardMutex());
  standardDefaults() = std::move(defaults);
}

Value UserDefaults::objectForKey(const std::string& key) const {
  MutexLock lock(&mutex_);
  const Value& stored = values_[key];
  return stored.isNil() ? registered_[key] : stored;
}

bool UserDefaults::setObject(const Value& value, const std::string& key) {
  if (value.isNil()) return removeObjectForKey(key);
  if (!isValidPropertyList(value)) return false;
  Value copy = deepImmutableCopy(value);
  MutexLock lock(&mutex_);
  values_.set(Value(key), copy);
  return writeLocked(nullptr);
}

bool UserDefaults::removeObjectForKey(const std::string& key) {
  MutexLock lock(&mutex_);
  if (values_[key].isNil()) return true;
  values_.remove(Value(key));
  return writeLocked(nullptr);
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
  Value v = objectForKey(key);
  if (v.isString()) return v.str();
  if (v.isNumber() || v.isDecimal()) return v.description();
  return std::nullopt;
}

bool UserDefaults::boolForKey(const std::string& key) const {
  Value v = objectForKey(key);
  return (v.isNumber() || v.isString()) && v.boolValue();
}

int64_t UserDefaults::integerForKey(const std::string& key) const {
  Value v = objectForKey(key);
  if (v.isNumber()) return v.longLongValue();
  if (v.isString()) return std::strtoll(v.str().c_str(), nullptr, 10);
  return 0;
}

double UserDefaults::doubleForKey(const std::string& key) const {
  Value v = objectForKey(key);
  if (v.isNumber()) return v.doubleValue();
  if (v.isString()) return std::strtod(v.str().c_str(), nullptr);
  return 0;
}

Value UserDefaults::arrayForKey(const std::string& key) const {
  Value v = objectForKey(key);
  return v.isArray() ? v : Value();
}

Value UserDefaults::dictionaryForKey(const std::string& key) const {
  Value v = objectForKey(key);
  return v.isDictionary() ? v : Value();
}

void UserDefaults::registerDefaults(const Value& dictionary) {
  if (!dictionary.isDictionary()) return;
  MutexLock lock(&mutex_);
  for (const auto& [key, value] : dictionary.entries()) registered_.set(key, deepImmutableCopy(value));
}

Value UserDefaults::dictionaryRepresentation() const {
  MutexLock lock(&mutex_);
  Value all = registered_.mutableCopy();
  for (const auto& [key, value] : values_.entries()) all.set(key, value);
  return all.copy();
}

bool UserDefaults::synchronize(Error* error) {
  MutexLock lock(&mutex_);
  return dirty_ ? writeLocked(error) : loadLocked(error);
}

bool UserDefaults::writeLocked(Error* error) {
  dirty_ = true;
  if (!env_->createDirectory(pathDeletingLastComponent(path_), true, error)) return false;
  if (!writePropertyListFile(env_, path_, values_, error)) return false;
  dirty_ = false;
  return true;
}

bool UserDefaults::loadLocked(Error* error) {
  if (!env_->fileExists(path_)) {
    values_ = Value::mutableDictionary();
    return true;
  }
  Value loaded;
  if (!readPropertyListFile(env_, path_, &loaded, error)) return false;
  if (!loaded.isDictionary()) {
    return setError(error, Error(kCorvaneErrorDomain, -1, "The user defaults file does not hold a dictionary."));
  }
  values_ = loaded.mutableCopy();
  return true;
}

}  // namespace corvane
