// CorvaneStore: the store's log, error records and session summaries.
#include <fmt/format.h>

#include <algorithm>

#include "corvane/cache/cache.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/store/corvane_store.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

namespace {
// Observers hear of a burst of entries once, this long after its last entry.
constexpr double kRefreshLogDelay = 1.0;
}  // namespace

Value StoreLogEntry::dictionary() const {
  Value entry = Value::mutableDictionary();
  entry.set(Value("date"), Value::date(date));
  entry.set(Value("message"), Value(message));
  if (!menu.empty()) {
    std::vector<Value> items;
    for (const StoreMenuItem& item : menu) {
      items.push_back(dict({{"title", Value(item.title)}, {"action", Value(item.action)}, {"path", Value(item.path)}}));
    }
    entry.set(Value("menu"), Value::array(std::move(items)));
  }
  entry.set(Value("CorvaneLogType"), Value(type));
  return entry.copy();
}

void CorvaneStore::log(std::string_view message, std::string_view type) { log(message, type, Value(), {}); }

void CorvaneStore::log(std::string_view message, std::string_view type, const Value& change,
                       std::vector<StoreMenuItem> menu) {
  StoreLogEntry entry;
  entry.message = std::string(message);
  entry.type = std::string(type);
  entry.menu = std::move(menu);
  // The store may be gone by the time the main loop runs; the entry then dies with it.
  onMain([this, entry = std::move(entry), change]() mutable { addLogEntry(std::move(entry), change); });
}

void CorvaneStore::addLogEntry(StoreLogEntry entry, const Value& change) {
  entry.date = state_->env->now();
  if (change.isDictionary()) {
    // "Missing change file: X" from Ann becomes "Missing change file: (<date> Ann) X".
    const size_t colon = entry.message.find(':');
    if (colon != std::string::npos) {
      std::optional<double> date = store_internal::dateFromChangeValue(change["date"]);
      const std::string when =
          date ? displayDateString(*date, DateStyle::Medium, DateStyle::Short, state_->env) : "(null)";
      const Value& author = change["session"]["fullUserName"];
      const std::string who = author.isString() ? author.str() : "(null)";
      entry.message.replace(colon, 1, fmt::format(": ({} {})", when, who));
    }
  }
  MutexLock lock(&state_->log.mutex);
  state_->log.entries.push_front(std::move(entry));
  state_->log.refreshToken.cancel();
  state_->log.refreshToken = state_->mainLoop->postAfter(
      kRefreshLogDelay, guarded([observers = state_->log.observers] { observers->deliver(); }));
}

std::vector<StoreLogEntry> CorvaneStore::logEntries() const {
  MutexLock lock(&state_->log.mutex);
  return std::vector<StoreLogEntry>(state_->log.entries.begin(), state_->log.entries.end());
}

Subscription CorvaneStore::observeLog(std::function<void()> callback) {
  return LogObservers::subscribe(state_->log.observers, std::move(callback));
}

void CorvaneStore::logError(const Error& error, std::string_view domain) {
  if (error.empty() || domain.empty()) return;
  logErrorString(error.description(), std::string(domain));
}

void CorvaneStore::logErrorString(const std::string& text, const std::string& domain) {
  Value record = dict({{"domain", Value(domain)},
                       {"description", Value(text)},
                       {"session", sessionDictionary()},
                       {"date", Value::date(state_->env->now())}});
  {
    MutexLock lock(&state_->log.mutex);
    state_->log.errorRecords.append(record);
  }
  writeErrorRecord(record);
  if (state_->environment->errorDelegate) state_->environment->errorDelegate(fmt::format("{} {}", url(), text), domain);
}

Value CorvaneStore::errorRecords() const {
  MutexLock lock(&state_->log.mutex);
  return state_->log.errorRecords.copy();
}

void CorvaneStore::writeErrorRecord(const Value& record) {
  const std::string folder = errorsURL();
  if (folder.empty() || !upToChange().empty()) return;  // a view up to a change only logs
  // The GMT date first, so that names sorted descending are newest first on every device; the
  // UUID keeps records of the same millisecond (or of two devices) apart.
  const std::string name = fmt::format("{}.{}.plist", state_->dateFormatter.format(record["date"].dateValue()),
                                       state_->env->newUUIDString());
  Value stored = record;
  if (!isValidPropertyList(stored)) {
    // Host-supplied user info in the session may hold values a property list cannot.
    stored = store_internal::mutableDictionaryCopy(record);
    Value session = store_internal::mutableDictionaryCopy(record["session"]);
    session.remove(Value("userInfo"));
    stored.set(Value("session"), session);
    if (!isValidPropertyList(stored)) return;
  }
  // A record that cannot be written is still in the log and in errorRecords(); the console
  // hears of the failure, as a record of it could not be written either.
  Error error;
  if (!state_->env->createDirectory(folder, true, &error) ||
      !writePropertyListFile(state_->env, pathJoin(folder, name), stored, &error)) {
    logLine("Could not write an error record: " + error.description(), LogLevel::Warning);
  }
}

void CorvaneStore::setErrorLevel(const std::string& type) {
  onMain([this, type] { state_->log.errorLevel.set(type); });
}

std::string CorvaneStore::shortURL(const std::string& path) const {
  const std::string& base = url();
  if (path.size() > base.size() && path.compare(0, base.size(), base) == 0 && path[base.size()] == '/') {
    return path.substr(base.size() + 1);
  }
  return path;
}

}  // namespace corvane
