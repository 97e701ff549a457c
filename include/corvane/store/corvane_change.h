// CorvaneChange — the record of one save, and the writing of the package's files.
//
// A save produces one object file per inserted, updated or deleted object and, after all of
// them, one change file: <pkg>/Changes/<change name>.json, where the change name is the save's
// time in GMT and a UUID ("2024-05-17-09-41-07.250.5C1E0E9A-...-0D8F6A3C2B11"), so that file
// names sort in time order. The change file is compact JSON, encrypted whole with a password:
//
//   {"name": "<change name>.json", "date": "2024-05-17T09:41:07.250+0000",
//    "changes": {"insert"|"update"|"delete": {entity: {UID: object record}}},
//    "session": {...}, "previousName": "<name of the change this device had seen last>"}
//
// An object record is {} or {"data": [{"length", "hash", "name"}...]} for the binary values the
// save wrote. The object file <pkg>/Entities/<entity folder>/<UID>/<change name>.json is
// {"version": StorageVersion, "type": "insert"|"update"|"delete", "payload": {property: record}}.
//
// A save is all or nothing. Data files are written at once, object files side by side on the
// store's save queue; only when every one of them is durable is the change file written, and
// only when it is durable too does the cache hear of the save (its items, then its change log).
// A save that fails anywhere writes no change file, tells the cache nothing and returns the
// error, so the context keeps its changes for a retry. The files of a failed save that did
// reach the disk stay where they are: no change file names them, so no device reads them, and
// a retry writes its files under a new change name.
//
// Threads: a change is filled by one thread at a time (the saving context's, or the cache's
// queue for a whole-graph copy); its accessors lock, so they may be read from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/operation_queue.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class AttributeDescription;
class CorvaneSaveOperation;
class CorvaneStore;
class ManagedObject;
class ManagedObjectContext;

inline constexpr const char* kChangeTypeInsert = "insert";
inline constexpr const char* kChangeTypeUpdate = "update";
inline constexpr const char* kChangeTypeDelete = "delete";
inline constexpr const char* kChangeTypeRecovery = "recovery";

class CorvaneChange {
 public:
  // A change dated `date` (seconds since 2001) whose session and name come from `store`.
  CorvaneChange(CorvaneStore* store, double date);

  double date() const;
  void setDate(double date);
  CorvaneStore* store() const { return store_; }
  // The change name, made on first use and then fixed.
  std::string name();
  // The change file's name: the change name and ".json".
  std::string fileName();
  // Sets changes[type][entityName][uid] = record.
  void addChange(const Value& record, const std::string& entityName, const std::string& uid, const std::string& type);
  Value changes() const;
  // The change file's content, built on first use from the name, date, changes and session, and
  // then kept.
  Value dictionary();
  // The older record shape's "inserts", "updates", "deletes" (nil for records of this format).
  Value insertedUIDs();
  Value updatedUIDs();
  Value deletedUIDs();

  // Writes of the save's object files (queued on the save queue by saveFromStore()), and the
  // first failure of anything written for the save outside the queue (a data file, a folder,
  // a value that could not be encrypted). A change with a failure writes no change file.
  void addObjectWrite(std::shared_ptr<CorvaneSaveOperation> write);
  void fail(Error error);

  // Finishes the save on `target`: waits for the object files, then writes the change file
  // (queued behind everything on the save queue, after correcting the date for a clock behind
  // the last cached change and chaining "previousName") and waits for it; only then tells the
  // cache about every file. False with the first failure in `error` when any file is not on
  // disk: then no change file is written and the cache is untouched. A change without records
  // writes nothing and succeeds. Blocks the calling thread, which must not be one of the save
  // queue's operations.
  [[nodiscard]] bool saveToStore(CorvaneStore& target, Error* error);

 private:
  CorvaneStore* store_;
  mutable std::mutex mutex_;
  double date_;
  std::string name_;
  Value changes_;     // mutable: type -> entity -> uid -> record
  Value dictionary_;  // nil until built
  std::vector<std::shared_ptr<CorvaneSaveOperation>> objectWrites_;
  std::optional<Error> failure_;
};

// A save queue operation: serialises `dictionary` (compact JSON, or pretty for recovery
// changes), encrypts it with the store's cipher and writes it atomically to `path`. A failure
// is shown to the user and logged under the operation's domain. The cache is told nothing until
// the whole save is on disk: CorvaneChange::saveToStore() then calls didWrite(), which puts a
// change file into the cache's change log and an object file (objectID set) into its item.
class CorvaneSaveOperation : public Operation {
 public:
  CorvaneSaveOperation(CorvaneStore* store, Value dictionary, std::string path);
  void main() override;
  const Value& dictionary() const { return dictionary_; }
  const std::string& path() const { return path_; }
  // Once finished: whether the file is on disk, and why not.
  bool succeeded() const { return succeeded_.load(); }
  Error error() const;
  virtual void didWrite();

 protected:
  virtual const char* domain() const { return "CorvaneSaveOperation"; }
  CorvaneStore* store_;
  Value dictionary_;
  std::string path_;

 private:
  std::atomic<bool> succeeded_{false};
  mutable std::mutex errorMutex_;
  Error error_;
};

class CorvaneManagedObjectSaveOperation final : public CorvaneSaveOperation {
 public:
  CorvaneManagedObjectSaveOperation(CorvaneStore* store, Value dictionary, std::string path, ObjectID objectID);
  const ObjectID& objectID() const { return objectID_; }

 private:
  const char* domain() const override { return "CorvaneManagedObjectSaveOperation"; }
  // An update or insert becomes the object's cached item; a delete removes the item.
  void didWrite() override;
  ObjectID objectID_;
};

// ---- Writing objects (what the system adds to managed objects) --------------------------------

// Writes one object of a save into `toStore` under `change`: its data files at once, its object
// file through the save queue, its record into the change. `fromStore` is the store the object
// comes from (the same store for an ordinary save). Throws Exception("No Transformer") for an
// attribute whose value class has no transformer.
void saveFromStore(ManagedObject& object, CorvaneStore* fromStore, CorvaneStore& toStore, CorvaneChange& change,
                   const Value& options, const std::string& type);
inline void saveToStore(ManagedObject& object, CorvaneStore& store, CorvaneChange& change, const std::string& type) {
  saveFromStore(object, &store, store, change, Value(), type);
}
// The value as the copy options ("CorvaneAnonymizeOptions") say to write it.
Value applyOptions(const Value& options, const Value& value, const std::string& entityName, const std::string& key,
                   CorvaneStore* store);
// <toStore Entities>/<entity folder>/<UID>, with the UID the source store gives the object (a new
// UUID when it has none).
std::string URLForStore(ManagedObject& object, CorvaneStore& toStore, CorvaneStore* fromStore);
// "Entity/UID" of an object ID.
std::string storeSavePath(const ObjectID& objectID);

}  // namespace corvane
