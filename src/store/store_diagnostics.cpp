// StoreDiagnostics: the questions a support person asks about a document: which errors were
// recorded, who wrote lately, how far this device has caught up.
#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

#include "corvane/cache/cache.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_diagnostics.h"
#include "store/store_internal.h"

namespace corvane {

namespace {
constexpr size_t kMaxErrorRecords = 20;
constexpr double kRecentErrorsSeconds = 864000;     // 10 days
constexpr double kRecentActivitySeconds = 1209600;  // 14 days
}  // namespace

Value StoreDiagnostics::errorsArray() const {
  const std::string folder = store_.errorsURL();
  std::vector<std::string> names;
  if (folder.empty() || !store_.env()->listDirectory(folder, true, &names, nullptr)) return Value::array();
  std::sort(names.begin(), names.end(), std::greater<>());
  std::vector<Value> records;
  for (const std::string& name : names) {
    if (records.size() >= kMaxErrorRecords) break;
    Value record;
    if (!readPropertyListFile(store_.env(), pathJoin(folder, name), &record, nullptr) || !record.isDictionary())
      continue;
    records.push_back(record);
  }
  return Value::array(std::move(records));
}

Value StoreDiagnostics::recentErrorsArray() const {
  const double cutOff = store_.env()->now() - kRecentErrorsSeconds;
  std::vector<Value> recent;
  const Value records = errorsArray();
  for (const Value& record : records.elements()) {
    if (record["date"].isDate() && record["date"].dateValue() > cutOff) recent.push_back(record);
  }
  return Value::array(std::move(recent));
}

Value StoreDiagnostics::peformanceArray() const {
  const Value issues = store_.loadingIssues();
  std::vector<Value> dictionaries;
  for (const Value& issue : issues.elements())
    if (issue.isDictionary()) dictionaries.push_back(issue);
  return Value::array(std::move(dictionaries));
}

Value StoreDiagnostics::recentDeviceActivity() const {
  const double cutOff = store_.env()->now() - kRecentActivitySeconds;
  const Value changes = store_.cache()->changes();
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
  sorted.reserve(activity.size());
  for (auto& [date, entry] : activity) sorted.push_back(std::move(entry));
  return Value::array(std::move(sorted));
}

bool StoreDiagnostics::hasRecentChangesFromOtherDevices() const {
  const Value activity = recentDeviceActivity();
  for (const Value& entry : activity.elements()) {
    if (entry["machineName"].str() != store_.machineName()) return true;
  }
  return false;
}

std::string StoreDiagnostics::changesInfo() const {
  const size_t cached = store_.cache()->changes().count();
  size_t onDisk = 0;
  std::vector<std::string> names;
  if (store_.env()->listDirectory(store_.changesURL(), false, &names, nullptr)) {
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

bool StoreDiagnostics::loadedAllChanges() const {
  return store_.cache()->changes().count() >= store_.changesFileCount();
}

Value StoreDiagnostics::sessionInfo() const {
  const Value changes = store_.cache()->changes();
  const std::vector<Value>& records = changes.elements();
  std::vector<Value> sessions;
  size_t seen = 0;
  for (auto it = records.rbegin(); it != records.rend() && seen < 100; ++it, ++seen) {
    const Value& session = (*it)["session"];
    if (!session.isDictionary()) continue;
    Value summary = dict({{"machineName", session["machineName"]},
                          {"fullUserName", session["fullUserName"]},
                          {"userName", session["userName"]},
                          {"version", session["version"]},
                          {"osVersion", session["osVersion"]}});
    if (std::find(sessions.begin(), sessions.end(), summary) == sessions.end()) sessions.push_back(summary);
  }
  return Value::array(std::move(sessions));
}

}  // namespace corvane
