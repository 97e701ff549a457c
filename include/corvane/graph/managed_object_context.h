// corvane::ManagedObjectContext — a scratch pad of managed objects.
//
// A context hands out objects (insert, fetch, objectWithID), records every change made to them
// and writes the changes to its persistent stores, through a coordinator, when it saves. A
// child context (setParentContext) uses its parent instead of a coordinator: it reads through
// the parent and its save pushes the changes into the parent, which saves them later.
//
//   auto context = ManagedObjectContext::create(ConcurrencyType::MainQueue);
//   context->setPersistentStoreCoordinator(coordinator);
//   auto note = context->insertNewObject("Note");
//   note->setValue("title", "Hello");
//   Error error;
//   if (!context->save(&error)) { ... }
//
// Queues. A main-queue context belongs to the main run loop (RunLoop::main()): use it and its
// objects only on the main thread, or through perform() (whose blocks run when the host runs
// that loop). A private-queue context has its own
// serial queue: use it and its objects only inside perform() / performAndWait(). perform()
// queues the block and returns (an exception it throws is logged); performAndWait() runs it
// and returns when it is done, passing exceptions on (at once when called on the context's
// own queue). Pending changes are processed after every block.
//
// Notifications (NotificationCenter::defaultCenter(), posted on the context's queue, object =
// the context): kObjectsDidChangeNotification when pending changes are processed, with sets
// of managed objects under kInsertedObjectsKey, kUpdatedObjectsKey, kDeletedObjectsKey and
// kRefreshedObjectsKey (only the non-empty ones); kWillSaveNotification before and
// kDidSaveNotification after a successful save, the latter with the inserted, updated and
// deleted objects of the save.
//
// Undo. A main-queue context has an UndoManager by default, a private-queue context none.
// Every change is registered with it: the changes of one pass of the main run loop make one
// undo step, or wrap them in beginUndoGrouping() / endUndoGrouping() to choose the steps.
// setUndoManager(nullptr) turns registration off (faster for bulk work). undo() / redo()
// process pending changes first.
//
// Subclass a context to add behaviour; create subclasses with std::make_shared.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class EntityDescription;
class ObjectModel;
class PersistentStoreCoordinator;
class UndoManager;

// The platform's numbers.
enum class ConcurrencyType : int { PrivateQueue = 1, MainQueue = 2 };

inline constexpr const char* kObjectsDidChangeNotification = "NSManagedObjectContextObjectsDidChangeNotification";
inline constexpr const char* kWillSaveNotification = "NSManagedObjectContextWillSaveNotification";
inline constexpr const char* kDidSaveNotification = "NSManagedObjectContextDidSaveNotification";
inline constexpr const char* kInsertedObjectsKey = "inserted";
inline constexpr const char* kUpdatedObjectsKey = "updated";
inline constexpr const char* kDeletedObjectsKey = "deleted";
inline constexpr const char* kRefreshedObjectsKey = "refreshed";

class ManagedObjectContext : public std::enable_shared_from_this<ManagedObjectContext> {
 public:
  static std::shared_ptr<ManagedObjectContext> create(ConcurrencyType type);
  explicit ManagedObjectContext(ConcurrencyType type);
  virtual ~ManagedObjectContext();
  ManagedObjectContext(const ManagedObjectContext&) = delete;
  ManagedObjectContext& operator=(const ManagedObjectContext&) = delete;

  // ---- Queue (any thread) -------------------------------------------------------------------
  ConcurrencyType concurrencyType() const;
  void perform(std::function<void()> block);
  void performAndWait(const std::function<void()>& block);
  // True when the calling thread may use the context now.
  bool isOnQueue() const;

  // ---- Set-up (before use) ------------------------------------------------------------------
  void setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator);
  // The context's own coordinator, or its parent's.
  std::shared_ptr<PersistentStoreCoordinator> persistentStoreCoordinator() const;
  void setParentContext(std::shared_ptr<ManagedObjectContext> parent);
  const std::shared_ptr<ManagedObjectContext>& parentContext() const;
  const ObjectModel* model() const;
  const EntityDescription* entity(std::string_view name) const;
  const std::string& name() const;
  void setName(std::string name);

  // ---- Objects (context's queue) ------------------------------------------------------------
  // A new object of the entity, inserted, with the attributes' default values. Throws
  // Exception("NSInvalidArgumentException") for an unknown or abstract entity.
  Retained<ManagedObject> insertNewObject(std::string_view entityName);
  Retained<ManagedObject> insertNewObject(const EntityDescription* entity);
  // Marks the object deleted; delete rules apply when pending changes are processed. An
  // object inserted since the last save simply goes away on save.
  void deleteObject(ManagedObject* object);
  // The registered object for the ID, or a new fault for it (never null for a non-null ID).
  Retained<ManagedObject> objectWithID(const ObjectID& id);
  // The object for the ID with its values read, or nullptr and an error when the store has
  // no such object.
  Retained<ManagedObject> existingObjectWithID(const ObjectID& id, Error* error = nullptr);
  Retained<ManagedObject> objectRegisteredForID(const ObjectID& id) const;

  // ---- Fetching (context's queue) -----------------------------------------------------------
  // Objects, or nullopt and an error. Pending changes are included unless the request says no.
  std::optional<std::vector<Retained<ManagedObject>>> fetch(const FetchRequest& request, Error* error = nullptr);
  std::optional<std::vector<ObjectID>> fetchObjectIDs(const FetchRequest& request, Error* error = nullptr);
  // Dictionary results: one dictionary per object (or per group with propertiesToGroupBy).
  std::optional<std::vector<Value>> fetchDictionaries(const FetchRequest& request, Error* error = nullptr);
  std::optional<size_t> count(const FetchRequest& request, Error* error = nullptr);
  // The raw result for the request's result type: an array of object values, of ID values,
  // of dictionaries, or holding the count.
  std::optional<Value> execute(const FetchRequest& request, Error* error = nullptr);

  // ---- Saving and changes (context's queue) -------------------------------------------------
  // Processes pending changes, validates, and writes inserted, updated and deleted objects to
  // the stores (or into the parent context). Returns false with the validation or store
  // error and keeps the changes when anything fails. Saving without changes succeeds.
  bool save(Error* error = nullptr);
  bool hasChanges() const;
  std::vector<Retained<ManagedObject>> insertedObjects() const;
  std::vector<Retained<ManagedObject>> updatedObjects() const;
  std::vector<Retained<ManagedObject>> deletedObjects() const;
  std::vector<Retained<ManagedObject>> registeredObjects() const;
  // Applies delete rules and posts kObjectsDidChangeNotification for the changes made since
  // the last call.
  void processPendingChanges();
  // Without merge: forgets the object's changes and turns it into a fault. With merge: reads
  // the store's current values and applies the object's own changes on top of them (members
  // added to or removed from a to-many relationship are re-applied one by one).
  void refreshObject(ManagedObject* object, bool mergeChanges);
  void refreshAllObjects();
  // Forgets every change since the last save.
  void rollback();
  // Forgets every registered object; objects handed out before lose their context.
  void reset();
  // Gives the objects permanent IDs from their store now (normally done by save).
  bool obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects, Error* error = nullptr);

  bool retainsRegisteredObjects() const;
  // When false (the default), objects without changes that nobody else holds are let go
  // after a save, at the end of the event or perform block (or the next time pending changes
  // are processed); they come back as faults when asked for again.
  void setRetainsRegisteredObjects(bool retains);

  // ---- Undo (context's queue) ---------------------------------------------------------------
  UndoManager* undoManager() const;
  void setUndoManager(std::shared_ptr<UndoManager> undoManager);
  void undo();
  void redo();

 protected:
  // The values of the object's node as the parent context or the store sees them now:
  // property name → value, with to-one relationships as object IDs and to-many ones left out.
  virtual std::optional<Value> readNodeValues(const ObjectID& id, uint64_t* version, Error* error);

 private:
  friend class ManagedObject;
  // What a context knows lives behind impl_; each of its jobs is a class of its own. All are
  // private to the graph layer (src/graph/).
  struct Impl;     // context_impl.h: the state the jobs share
  class Registry;  // context_registry.h: registered objects and their IDs
  class Faults;    // context_faults.h: reading values into objects, refreshing them
  class Changes;   // context_changes.h: inserts, deletes and delete rules, change notifications
  class Saving;    // context_saving.h: validating and writing changes, a child's changes
  class Fetching;  // context_fetching.h: fetch requests with pending changes

  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane
