// corvane::recentDeletesReport — who deleted which objects of an entity, when and on which
// device, read from the cache's log of applied changes without opening any change file.
//
// CorvaneDocument offers these as recentDeletesReportForEntityName() and
// logRecentDeletesForEntityName(); a host's subclass labels the objects through its
// formatDeletedObjectInfo() hook and may use fieldValueInChangeEvents() to build the label.
//
// Threads: the main run loop of the document whose store is passed (the object histories are
// read through the store).
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class CorvaneStore;
class Env;
class ObjectModel;

// At most this many deletions are reported per entity, the first met in the log.
inline constexpr int64_t kRecentDeletesPerEntity = 50;

// A readable label for one deleted object, or nullopt to show its UID. `info` is
// {"entityName", "date", "user"} of the deletion, `changeEvents` the object's history as
// CorvaneStore::changesHistoryForObjectID() gives it.
using DeletedObjectLabel = std::function<std::optional<std::string>(const Value& info, const std::string& objectUID,
                                                                    const Value& changeEvents)>;

// The plain-text report of the deletions of `entityName` and its sub-entities, or one of the
// messages "No change log available", "Change log content is empty", "Entity <E> not found",
// "No deleted <E> objects found in recent changes". `store` may be nullptr. Dates of creation
// are shown in the local zone of `env`.
std::string recentDeletesReport(CorvaneStore* store, const ObjectModel& model, const std::string& entityName, Env* env,
                                const DeletedObjectLabel& label = {});

// Writes `report` atomically, in UTF-8, into the desktop folder as
// "Deleted_<entity>_Objects_<yyyy-MM-dd_HH-mm-ss, local time>.txt", making the folder when it is
// missing. Returns the file's path, or nullopt with the reason in `error`.
std::optional<std::string> saveRecentDeletesReport(const std::string& report, const std::string& entityName, Env* env,
                                                   Error* error);

// Which value of a property a history gives: the one its oldest change carried, or its newest.
enum class FieldOccurrence { First, Last };

// The value that the changes in `changeEvents` (rows of changesHistoryForObjectID(), newest
// first) carried for the property `field`: the earliest or the latest one. An entry of the form
// {"value": v} gives v, any other entry is given as it is stored. Nil when no change carried it.
Value fieldValueInChangeEvents(const std::string& field, const Value& changeEvents, FieldOccurrence occurrence);

}  // namespace corvane
