// The recent-deletes report: built from the cache's change log alone, so that it answers even
// when change files are missing; only the creation line reads the deleted object's history.
#include "corvane/document/recent_deletes.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "corvane/cache/cache.h"
#include "corvane/document/corvane_document.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/log.h"
#include "corvane/graph/object_id.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_diagnostics.h"

namespace corvane {

namespace {

constexpr const char* kUnknown = "Unknown";

std::string text(const Value& value) {
  if (value.isString()) return value.str();
  return value.isNil() ? std::string("(null)") : value.description();
}

// Dates in change records carry milliseconds and a zone ("2024-05-17T09:41:07.250+0000"); the
// report shows them to the second.
std::string cutAtFirstDot(const std::string& date) {
  const size_t dot = date.find('.');
  return dot == std::string::npos ? date : date.substr(0, dot);
}

// Who made a change: the record's own "value" when it has one, else the session's full name,
// with the device when the session names one.
std::string userOfChange(const Value& change) {
  if (!change["value"].isNil()) return text(change["value"]);
  const Value& session = change["session"];
  std::string user = session["fullUserName"].isNil() ? kUnknown : text(session["fullUserName"]);
  Value device = session["deviceIdentifier"];
  if (device.isNil()) device = session["machineName"];
  if (!device.isNil() && text(device) != kUnknown) return fmt::format("{} ({})", user, text(device));
  return user;
}

// E followed by its sub-entities, breadth first.
std::vector<std::string> entityAndSubentityNames(const EntityDescription* entity) {
  std::vector<std::string> names;
  std::deque<const EntityDescription*> pending{entity};
  while (!pending.empty()) {
    const EntityDescription* next = pending.front();
    pending.pop_front();
    names.push_back(next->name());
    for (const EntityDescription* sub : next->subentities()) pending.push_back(sub);
  }
  return names;
}

struct Deletion {
  std::string uid;
  Value info;  // {"entityName", "date", "user"}
};

}  // namespace

std::string recentDeletesReport(CorvaneStore* store, const ObjectModel& model, const std::string& entityName, Env* env,
                                const DeletedObjectLabel& label) {
  CorvaneCache* cache = store != nullptr ? store->cache() : nullptr;
  if (cache == nullptr || !cache->changeLog()) return "No change log available";
  const Value log = cache->changes();
  if (!log.isArray() || log.empty()) return "Change log content is empty";
  const EntityDescription* entity = model.entity(entityName);
  if (entity == nullptr) return fmt::format("Entity {} not found", entityName);

  const std::vector<std::string> names = entityAndSubentityNames(entity);
  std::map<std::string, std::vector<Deletion>> deletions;  // sorted by entity name
  std::map<std::string, int64_t> counters;
  size_t total = 0;
  for (const Value& change : log.elements()) {
    const Value& deleted = change["changes"]["delete"];
    if (!deleted.isDictionary()) continue;
    for (const std::string& name : names) {
      int64_t& counter = counters[name];
      const Value& uids = deleted[name];
      if (counter >= kRecentDeletesPerEntity || !uids.isDictionary() || uids.empty()) continue;
      for (const auto& [uid, unused] : uids.entries()) {
        if (counter >= kRecentDeletesPerEntity) break;
        const Value& date = change["date"];
        Value info = Value::dictionary({{Value("entityName"), Value(name)},
                                        {Value("date"), date.isNil() ? Value(kUnknown) : date},
                                        {Value("user"), Value(userOfChange(change))}});
        deletions[name].push_back(Deletion{text(uid), std::move(info)});
        ++counter;
        ++total;
      }
    }
  }
  if (total == 0) return fmt::format("No deleted {} objects found in recent changes", entityName);

  const std::string entityText = names.size() >= 2 ? fmt::format("{} (including subentities)", entityName) : entityName;
  const DateFormatter creationFormatter(kSecondsDatePattern, DateTimeZone::local(env));
  std::string report = fmt::format("=== Deleted {} Objects ===\n\n", entityText);
  for (const auto& [name, list] : deletions) {
    report += fmt::format("\n--- {} ({} objects) ---\n", name, list.size());
    const EntityDescription* sectionEntity = model.entity(name);
    for (const Deletion& deletion : list) {
      Value history = Value::array();
      if (sectionEntity != nullptr) {
        if (ObjectID objectID = store->newObjectIDForEntity(sectionEntity, Value(deletion.uid))) {
          history = StoreDiagnostics(*store).changesHistoryForObjectID(objectID);
        }
      }
      // The history is newest first: its last event is the object's creation. The row that
      // names the object (it has no children) is not an event: an object whose change files are
      // gone has no creation line.
      std::optional<std::string> createdOn, createdBy;
      if (history.isArray() && !history.empty() && history.elements().back()["children"].isArray()) {
        const Value& first = history.elements().back();
        const Value& date = first["date"];
        if (date.isString()) {
          createdOn = cutAtFirstDot(date.str());
        } else if (date.isDate()) {
          createdOn = creationFormatter.format(date.dateValue());
        } else if (!date.isNil()) {
          createdOn = date.description();
        } else if (!first["name"].isNil()) {
          createdOn = text(first["name"]);
        }
        if (!first["value"].isNil()) createdBy = text(first["value"]);
      }

      const std::string date = text(deletion.info["date"]);
      std::optional<std::string> objectText;
      if (label) objectText = label(deletion.info, deletion.uid, history);
      report += fmt::format("{} {} {} was deleted by {}\n", date == kUnknown ? date : cutAtFirstDot(date), name,
                            objectText ? *objectText : deletion.uid, text(deletion.info["user"]));
      if (createdOn && createdBy) report += fmt::format("   ↳ Created on {} by {}\n", *createdOn, *createdBy);
    }
  }
  report += fmt::format("\nTotal: {} deleted {} objects (last {} per entity type)\n", total, entityText,
                        kRecentDeletesPerEntity);
  return report;
}

std::optional<std::string> saveRecentDeletesReport(const std::string& report, const std::string& entityName, Env* env,
                                                   Error* error) {
  const std::string folder = env->desktopDirectory();
  bool isDirectory = false;
  if (!env->fileExists(folder, &isDirectory) || !isDirectory) {
    if (!env->createDirectory(folder, true, error)) return std::nullopt;
  }
  const DateFormatter stamp(kFileStampDatePattern, DateTimeZone::local(env));
  const std::string path =
      pathJoin(folder, fmt::format("Deleted_{}_Objects_{}.txt", entityName, stamp.format(env->now())));
  if (!env->writeFileAtomically(path, asBytes(report), error)) return std::nullopt;
  return path;
}

Value fieldValueInChangeEvents(const std::string& field, const Value& changeEvents, FieldOccurrence occurrence) {
  if (!changeEvents.isArray()) return Value();
  const std::vector<Value>& rows = changeEvents.elements();
  auto valueIn = [&field](const Value& row) -> Value {
    const Value& children = row["children"];
    if (!children.isArray()) return Value();  // the row naming the object
    for (const Value& child : children.elements()) {
      if (!child["name"].isString() || child["name"].str() != field) continue;
      // Payload entries wrap an attribute's value as {"value": ...}; a host labels with the value.
      const Value& entry = child["value"];
      return entry.isDictionary() && !entry["value"].isNil() ? entry["value"] : entry;
    }
    return Value();
  };
  // Rows are newest first: the first value set is found walking from the end.
  if (occurrence == FieldOccurrence::First) {
    for (auto row = rows.rbegin(); row != rows.rend(); ++row) {
      if (Value value = valueIn(*row); !value.isNil()) return value;
    }
  } else {
    for (const Value& row : rows) {
      if (Value value = valueIn(row); !value.isNil()) return value;
    }
  }
  return Value();
}

// ---- The document's forwarders ---------------------------------------------------------------

std::string CorvaneDocument::recentDeletesReportForEntityName(const std::string& entityName) {
  return recentDeletesReport(store_, *managedObjectModel(), entityName, env_.get(),
                             [this](const Value& info, const std::string& uid, const Value& changeEvents) {
                               return formatDeletedObjectInfo(info, uid, changeEvents);
                             });
}

std::optional<std::string> CorvaneDocument::saveRecentDeletesReportForEntityName(const std::string& entityName,
                                                                                 Error* error) {
  return saveRecentDeletesReport(recentDeletesReportForEntityName(entityName), entityName, env_.get(), error);
}

std::optional<std::string> CorvaneDocument::logRecentDeletesForEntityName(const std::string& entityName) {
  const std::string report = recentDeletesReportForEntityName(entityName);
  logLine(report);
  Error error;
  std::optional<std::string> path = saveRecentDeletesReport(report, entityName, env_.get(), &error);
  if (!path) {
    logLine("Error saving report: " + error.localizedDescription, LogLevel::Error);
    return std::nullopt;
  }
  logLine("Report saved to: " + *path);
  interaction()->openFile(*path);
  return path;
}

}  // namespace corvane
