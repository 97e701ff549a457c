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
// Writes go through the store's save queue: object files side by side, each change file after
// every operation queued before it, so a change file is never on disk before the object files it
// lists. Each completed write tells the cache.
//
// Threads: a change is filled by one thread at a time (the saving context's, or the cache's
// queue for a whole-graph copy); its accessors lock, so they may be read from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "corvane/foundation/operation_queue.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class AttributeDescription;
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

  // Queues the change file on `target`'s save queue behind everything queued there, after
  // correcting the date for a clock behind the last cached change and chaining "previousName".
  // Does nothing for a change without records.
  void saveToStore(CorvaneStore& target);

 private:
  CorvaneStore* store_;
  mutable std::mutex mutex_;
  double date_;
  std::string name_;
  Value changes_;     // mutable: type -> entity -> uid -> record
  Value dictionary_;  // nil until built
};

// A save queue operation: serialises `dictionary` (compact JSON, or pretty for recovery
// changes), encrypts it with the store's cipher and writes it atomically to `path`. A change
// file then goes into the cache's change log; an object file (objectID set) into its item. A
// failure is shown to the user and logged under the operation's domain; the cache is not told.
class CorvaneSaveOperation : public Operation {
 public:
  CorvaneSaveOperation(CorvaneStore* store, Value dictionary, std::string path);
  void main() override;
  const Value& dictionary() const { return dictionary_; }
  const std::string& path() const { return path_; }

 protected:
  virtual const char* domain() const { return "CorvaneSaveOperation"; }
  virtual void didWrite();
  CorvaneStore* store_;
  Value dictionary_;
  std::string path_;
};

class CorvaneManagedObjectSaveOperation final : public CorvaneSaveOperation {
 public:
  CorvaneManagedObjectSaveOperation(CorvaneStore* store, Value dictionary, std::string path, ObjectID objectID);
  const ObjectID& objectID() const { return objectID_; }

 private:
  const char* domain() const override { return "CorvaneManagedObjectSaveOperation"; }
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
