// StoreDiagnostics — what a document's info window and a support person ask about an open
// store: the error records, the loading issues, who wrote lately, how far this device has
// caught up, and the history of one object.
//
//   StoreDiagnostics diagnostics(*store);
//   if (diagnostics.hasRecentChangesFromOtherDevices()) ...
//
// It reads through the store's public interface and holds nothing of its own, so make one
// where it is needed. Threads: like the store, any thread; each answer reads files or the
// cache afresh, so keep them off the main thread where they may be slow.
#pragma once

#include <string>

#include "corvane/foundation/value.h"

namespace corvane {

class CorvaneStore;
class ManagedObjectContext;
class ObjectID;

class StoreDiagnostics {
 public:
  explicit StoreDiagnostics(CorvaneStore& store) : store_(store) {}

  // Up to 20 error records of <pkg>/Errors, newest first. Records are property-list files
  // named "<yyyy-MM-dd-HH-mm-ss.SSS GMT>.<UUID>.plist", so that names sorted descending are
  // newest first.
  Value errorsArray() const;
  // Those of errorsArray() from the last 10 days.
  Value recentErrorsArray() const;
  // The loading issues as an array of dictionaries (the name keeps its historical spelling).
  Value peformanceArray() const;
  // {"machineName", "fullUserName", "date"} of each machine that wrote an applied change in
  // the last 14 days, newest first.
  Value recentDeviceActivity() const;
  bool hasRecentChangesFromOtherDevices() const;
  // "<applied changes> in Cache / <change files> on Disk".
  std::string changesInfo() const;
  // The cache holds at least as many applied changes as the last pass counted change files.
  bool loadedAllChanges() const;
  // Distinct session summaries of the newest 100 applied changes, newest first.
  Value sessionInfo() const;

  // Rows for an outline: {"name": "Object", "value": URI path, "paths": [object files]}, then
  // one row per change of the object, newest first: {"name": medium date and time, "value":
  // "<full name> (<machine>, <version>)", "version"?, "date", "URL", "children": [{"name":
  // property, "value": payload entry}]}. Reads and decrypts the files; for on-demand display.
  Value changesHistoryForObjectID(const ObjectID& objectID, ManagedObjectContext* context = nullptr) const;

 private:
  CorvaneStore& store_;
};

}  // namespace corvane
