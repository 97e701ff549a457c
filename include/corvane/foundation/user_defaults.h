// corvane::UserDefaults — an application's small persistent settings, as a property list.
//
// The defaults of an application live in $XDG_CONFIG_HOME/<application identifier>.plist
// (an XML property list). The library keeps its recent and overwritten files and a few
// switches there ("CorvaneRecentFiles", "CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk", ...).
//
// Values are property-list values (strings, numbers, booleans, dates, data, arrays and
// dictionaries with string keys). A lookup answers the stored value, else the registered
// default, else nil. Every change is written to the file at once, atomically through the
// Env, so another process (the command-line tool) sees it; synchronize() rereads the file
// (or retries a write that failed). Stored values are deep immutable copies: changing a
// mutable container after setObject() does not change the defaults.
//
// Threads: every method may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/value.h"

namespace corvane {

class UserDefaults {
 public:
  // Defaults kept in the property-list file at `path`, read now if it exists.
  UserDefaults(Env* env, std::string path);
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  // The defaults of an application: <env->configHome()>/<identifier>.plist.
  static std::shared_ptr<UserDefaults> forApplication(const std::string& identifier, Env* env = Env::defaultEnv());
  // The defaults of the current application (ApplicationInfo::current(), or the framework's
  // identifier when the host set none), made on first use; or what setStandard() installed.
  static std::shared_ptr<UserDefaults> standard();
  // Replaces the standard defaults (tests, hosts with their own location); nullptr makes the
  // next standard() build them afresh.
  static void setStandard(std::shared_ptr<UserDefaults> defaults);

  const std::string& path() const { return path_; }

  Value objectForKey(const std::string& key) const;
  // Stores a property-list value (nil removes the key). False when the value has no
  // property-list form (nothing is changed) or when the file cannot be written (the value
  // is kept in memory and written by the next change or synchronize()).
  bool setObject(const Value& value, const std::string& key);
  bool removeObjectForKey(const std::string& key);

  // A string, or a number's text; nullopt otherwise.
  std::optional<std::string> stringForKey(const std::string& key) const;
  // Numbers and strings such as "YES", "true" and "1" are true; anything else false.
  bool boolForKey(const std::string& key) const;
  int64_t integerForKey(const std::string& key) const;
  double doubleForKey(const std::string& key) const;
  // The value when it is an array (dictionary); nil otherwise.
  Value arrayForKey(const std::string& key) const;
  Value dictionaryForKey(const std::string& key) const;

  // Fallback values for keys that have no stored value; never written to the file.
  void registerDefaults(const Value& dictionary);
  // Stored values and registered defaults together (stored ones win).
  Value dictionaryRepresentation() const;

  // Writes pending changes if an earlier write failed, else rereads the file.
  bool synchronize(Error* error = nullptr);

 private:
  bool writeLocked(Error* error) CORVANE_REQUIRES(mutex_);
  bool loadLocked(Error* error) CORVANE_REQUIRES(mutex_);

  Env* const env_;
  const std::string path_;
  mutable Mutex mutex_;
  Value values_ CORVANE_GUARDED_BY(mutex_);      // mutable dictionary of stored values
  Value registered_ CORVANE_GUARDED_BY(mutex_);  // mutable dictionary of registered defaults
  bool dirty_ CORVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace corvane
