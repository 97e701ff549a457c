// CorvaneStore: error records in <pkg>/Errors and the questions a support person asks about a
// document: which errors were recorded, who wrote lately, how far this device has caught up.
#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

#include "corvane/cache/cache.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/store/corvane_store.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

namespace {
constexpr size_t kMaxErrorRecords = 20;
constexpr double kRecentErrorsSeconds = 864000;      // 10 days
constexpr double kRecentActivitySeconds = 1209600;   // 14 days
}  // namespace

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

Value CorvaneStore::errorsArray() const {
  const std::string folder = errorsURL();
  std::vector<std::string> names;
  if (folder.empty() || !state_->env->listDirectory(folder, true, &names, nullptr)) return Value::array();
  std::sort(names.begin(), names.end(), std::greater<>());
  std::vector<Value> records;
  for (const std::string& name : names) {
    if (records.size() >= kMaxErrorRecords) break;
    Value record;
    if (!readPropertyListFile(state_->env, pathJoin(folder, name), &record, nullptr) || !record.isDictionary()) continue;
    records.push_back(record);
  }
  return Value::array(std::move(records));
}

Value CorvaneStore::recentErrorsArray() const {
  const double cutOff = state_->env->now() - kRecentErrorsSeconds;
  std::vector<Value> recent;
  const Value records = errorsArray();
  for (const Value& record : records.elements()) {
    if (record["date"].isDate() && record["date"].dateValue() > cutOff) recent.push_back(record);
  }
  return Value::array(std::move(recent));
}

Value CorvaneStore::peformanceArray() const {
  const Value issues = loadingIssues();
  std::vector<Value> dictionaries;
  for (const Value& issue : issues.elements())
    if (issue.isDictionary()) dictionaries.push_back(issue);
  return Value::array(std::move(dictionaries));
}

Value CorvaneStore::recentDeviceActivity() const {
  const double cutOff = state_->env->now() - kRecentActivitySeconds;
  const Value changes = state_->cache->changes();
  const std::vector<Value>& records = changes.elements();
  std::unordered_set<std::string> seen;
  std::vector<std::pair<double, Value>> activity;
  for (auto it = records.rbegin(); it != records.rend(); ++it) {
    std::optional<double> date = store_internal::dateFromChangeValue((*it)["date"]);
    if (date && *date < cutOff) break;
    const Value& session = (*it)["session"];
    const Value& machine = session["machineName"];
    if (!machine.isString() || machine.str().empty() || !seen.insert(machine.str()).second) continue;
    Value entry = Value::mutableDictionary();
    entry.set(Value("machineName"), machine);
    if (!session["fullUserName"].isNil()) entry.set(Value("fullUserName"), session["fullUserName"]);
    if (date) entry.set(Value("date"), Value::date(*date));
    activity.emplace_back(date.value_or(0), entry.copy());
  }
  std::stable_sort(activity.begin(), activity.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  std::vector<Value> sorted;
  for (auto& [date, entry] : activity) sorted.push_back(std::move(entry));
  return Value::array(std::move(sorted));
}

bool CorvaneStore::hasRecentChangesFromOtherDevices() const {
  const Value activity = recentDeviceActivity();
  for (const Value& entry : activity.elements()) {
    if (entry["machineName"].str() != state_->machineName) return true;
  }
  return false;
}

std::string CorvaneStore::changesInfo() const {
  const size_t cached = state_->cache->changes().count();
  size_t onDisk = 0;
  std::vector<std::string> names;
  if (state_->env->listDirectory(changesURL(), false, &names, nullptr)) {
    for (const std::string& name : names) {
      // ENDSWITH[cd] 'json': any case.
      if (name.size() < 4) continue;
      std::string tail = name.substr(name.size() - 4);
      std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
      if (tail == "json") ++onDisk;
    }
  }
  return fmt::format("{} in Cache / {} on Disk", cached, onDisk);
}

bool CorvaneStore::loadedAllChanges() const { return state_->cache->changes().count() >= state_->updates.changesFileCount.load(); }

}  // namespace corvane
