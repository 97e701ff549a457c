// CorvaneStore — the persistent store of one Corvane document, registered as "CorvaneStore".
//
// A document is a package folder that a cloud-sync client mirrors between computers:
//
//   <pkg>/Info.plist    the info dictionary (identity, creating application, "Encryption")
//   <pkg>/Entities/     <entity folder>/<UID>/<change name>.json object files, Data/ beside them
//   <pkg>/Changes/      one change file per save, <change name>.json
//   <pkg>/Cache/        a package-side copy of a cache
//   <pkg>/Errors/       error records
//
// Every save adds files and changes none. The store answers fetches from this device's local
// cache (CorvaneCache), turns each save into object files and one change file (CorvaneChange),
// and brings the cache up to date with the change files of other devices by an update pass that
// validates each of them first. With a "password" option every file the store writes is
// encrypted and entity folder names are hashed.
//
//   CorvaneStore::registerStoreType();
//   auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model);
//   auto* store = coordinator->addPersistentStore(kCorvaneStoreType, "", "/path/Doc.corvane", options, &error);
//
// Opening runs the first update pass: the files the cache's change log lacks are applied on the
// store's read queue and recorded on the main run loop, which the host must therefore drive
// (kCorvaneReadyNotification tells when a pass is over). close() is what a document does before
// it lets the store go: wait for the writes and save the cache.
//
// A context's save returns once every file of the save is durable, or fails with the reason
// (a full disk, say): then nothing of it is announced to other devices, the cache is untouched
// and the context keeps its changes, so the user can save again.
//
// Threads. Requests arrive through the coordinator (under its lock) on the contexts' queues.
// The update pass reads on the read queue ("<framework id>.ReadQueue"); the change log of the
// cache, the store's log, the error level, context refreshes and notifications are changed and
// posted on the main run loop. Object files are written in parallel on the save queue, each
// change file after everything queued before it. Methods without a note may be called from any
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/cache/cache_store_services.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/observable.h"
#include "corvane/graph/persistent_store.h"
#include "corvane/store/store_log.h"

namespace corvane {

class CorvaneCache;
class CorvaneChange;
class DateFormatter;
class ManagedObject;
class OperationQueue;
class RunLoop;
class SaveChangesRequest;
class SeaCrypto;
class SerialQueue;
class StoreEnvironment;
class StoreVolumeQueries;
class UserDefaults;

inline constexpr const char* kCorvaneStoreType = "CorvaneStore";
// The store type identifier the store answers (its `identifier`).
inline constexpr const char* kCorvaneStoreIdentifier = "Corvane";

// A change file the update passes cannot apply yet because object or data files it names are
// missing: a sync client often delivers a change file seconds before the files it names.
struct ChangeWaitingForFiles {
  std::string name;                       // the change file's name
  std::string machineName;                // the device that wrote it ("" when the change does not say)
  std::string fullUserName;               // who wrote it ("" when the change does not say)
  std::vector<std::string> missingFiles;  // relative to the package, oldest object first
  std::vector<std::string> objects;       // "Entity/UID" of every object it inserts or updates
};

class CorvaneStore final : public IncrementalStore, public CorvaneCacheStoreServices {
 public:
  // The rest of opening (creating the package, checking the password, binding the cache, the
  // first update pass) happens in loadMetadata(), which the coordinator calls next.
  CorvaneStore(PersistentStoreCoordinator* coordinator, std::string configurationName, std::string url,
               const Value& options);
  ~CorvaneStore() override;

  // Registers the type with PersistentStoreCoordinator. Idempotent; any thread.
  static void registerStoreType();

  // ---- IncrementalStore ----------------------------------------------------------------------
  std::string type() const override { return kCorvaneStoreType; }
  bool loadMetadata(Error* error) override;
  std::optional<Value> executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                                      Error* error) override;
  std::unique_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ObjectID& objectID,
                                                                 ManagedObjectContext* context, Error* error) override;
  std::optional<Value> newValueForRelationship(const RelationshipDescription& relationship, const ObjectID& objectID,
                                               ManagedObjectContext* context, Error* error) override;
  std::optional<std::vector<ObjectID>> obtainPermanentIDsForObjects(const std::vector<ManagedObject*>& objects,
                                                                    Error* error) override;
  // The UID `object` (inserted, not saved yet) gets when it becomes permanent, instead of a new
  // one: a package rebuilt from a cache keeps the UIDs the cache knew. A UID that is not a plain
  // file name is ignored. Any thread, before the save.
  void setUIDForInsertedObject(const ManagedObject* object, std::string uid);
  // Null when the entity is null, or the store is closed or has no coordinator.
  ObjectID newObjectIDForEntity(const EntityDescription* entity, const Value& referenceObject) override;
  void managedObjectContextDidUnregisterObjectsWithIDs(const std::vector<ObjectID>& objectIDs) override;
  // The base store's metadata with the info dictionary's entries (which win); computed by one
  // caller at a time and kept.
  Value metadata() const override;
  // Re-reads Info.plist, adds the entries and hands the result to the base store; does not
  // write Info.plist.
  void setMetadata(const Value& metadata) override;

  // ---- Package and identity ------------------------------------------------------------------
  std::string infoURL() const;
  // The info dictionary, read once from Info.plist (an empty dictionary when unreadable).
  Value infoDictionary() const;
  std::string documentIdentifier() const;
  // Writes the identifier into Info.plist (read afresh) atomically.
  [[nodiscard]] bool setDocumentIdentifier(const std::string& identifier, Error* error = nullptr);
  std::optional<std::string> password() const;
  bool isEncrypted() const;
  // Recomputes the package's folder URLs, creates "Errors", rebinds the cache (which runs an
  // update pass) and registers the package among the recent files.
  void refreshURLs();
  // Moves the store to another package URL (the document was moved); does nothing but store it
  // when the URL is the same.
  void setPackageURL(const std::string& url);
  std::string entitiesURL() override;
  std::string changesURL() const;
  std::string cacheURL() override;
  std::string errorsURL() const;

  const std::string& session() const;
  const std::string& userName() const;
  const std::string& fullUserName() const;
  const std::string& machineName() const;
  const std::string& osVersion() const;
  Value userInfo() const;
  void setUserInfo(const Value& userInfo);
  // {"userName", "fullUserName", "machineName", "id", "version", "osVersion", "userInfo"?}.
  Value sessionDictionary() const;
  // "yyyy-MM-dd-HH-mm-ss.SSS" in GMT: the date part of change names.
  const DateFormatter& dateFormatter() const;
  // The time to name a change made at `date` after: `date`, or a millisecond after the last
  // name when the clock has not moved past it. Two saves within one millisecond would
  // otherwise sort by their random UUIDs, the later one first half of the time. A clock set
  // back keeps its own time (the date in the file is corrected instead).
  double claimChangeNameDate(double date);

  std::string fileNameForEntity(const EntityDescription& entity) override;
  // The folder name of an entity ("" for one the model lacks), and back.
  std::string fileNameForEntityName(const std::string& entityName) const;
  std::string entityNameForFileName(const std::string& fileName) const;

  // Forgets the info dictionary and the cipher, so that the next use reads the package's
  // Info.plist again: the package was replaced by another with its own salt (consolidation).
  void reloadPackageInfo();
  std::optional<Bytes> encrypt(ByteView bytes) override;
  std::optional<Bytes> decrypt(ByteView bytes) override;
  // Deletes <pkg>/Cache.
  [[nodiscard]] bool resetCache(Error* error = nullptr);

  std::vector<const EntityDescription*> entities() override;
  const EntityDescription* entityForName(std::string_view name) override;
  CorvaneCache* cache() const;
  std::shared_ptr<CorvaneCache> sharedCache() const;
  Env* env() override;
  RunLoop& mainLoop() const;
  SerialQueue& readQueue();
  OperationQueue& saveOperationQueue();
  StoreVolumeQueries& volumes() const;

  bool isClosed() const;
  // A closed store hands out no object IDs and ignores changes from other devices.
  void setClosed(bool closed);
  // What a document does before closing: marks the store closed, waits for the store's and the
  // cache's writes and saves the cache.
  void close();

  // ---- Requests ------------------------------------------------------------------------------
  std::optional<Value> executeFetchRequest(const FetchRequest& request, ManagedObjectContext* context);
  // The UID of an object of this store; a temporary ID first gets its permanent one.
  std::string uidForObjectID(const ObjectID& objectID, ManagedObjectContext* context);
  CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) override;
  CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context,
                                            const std::string& upToChange);
  // Rebuilds one object from its object files, stopping after the file whose path contains
  // `upToChange` when it is given; nullptr (and a loading issue) when a file cannot be used.
  CorvaneCacheItemPtr loadValuesForEntity(const EntityDescription& entity, const std::string& uid,
                                          ManagedObjectContext* context, const std::string& upToChange = {});
  // The object's files whose change the cache has applied, sorted by path.
  std::vector<std::string> changesFilesFor(const EntityDescription& entity, const std::string& uid);
  // {"type", "url", "value"?, "date"}.
  Value loadingIssueWithType(const std::string& type, const std::string& url, const Value& value = Value());
  void addLoadingIssue(const Value& issue);
  Value loadingIssues() const;

  // ---- Saving --------------------------------------------------------------------------------
  // Writes the save's files and returns once all are durable (an empty array), or nullopt with
  // the first failure in `error`: then no change file announces the save, the cache is
  // untouched and the context keeps its changes. Called on the saving context's queue.
  std::optional<Value> executeSaveRequest(const SaveChangesRequest& request, ManagedObjectContext* context,
                                          Error* error);
  void preventFromSaving() override;
  bool blockSaves() const;
  // Counts one more object handed to the save queue and, when a progress dictionary is set,
  // updates its "progressMax" and "progressValue" on the main run loop.
  void incrementProgress();
  void setProgressInfo(const Value& mutableDictionary);
  int64_t saveOperationsCount() const;
  int64_t saveOperationsValue() const;
  // Copies every object of `context` into this store as one change, on the cache's queue;
  // `progress` (0 to 1: each entity an equal share, moved on by its objects) and `completion`
  // (whether every file of the change is durable; the log says why not) are called on the main
  // run loop.
  void writeAllObjectsInContext(const std::shared_ptr<ManagedObjectContext>& context, CorvaneStore* fromStore,
                                const Value& options, std::function<void(double)> progress,
                                std::function<void(bool written)> completion);
  // Blocks until every queued object and change file is written.
  void waitForSaves();
  // The last record of the cache's change log (nil when empty).
  Value lastCachedChange() const;

  // ---- Repairs of the history ----------------------------------------------------------------
  // Repairs return once their files are durable, or false with the reason (also logged).
  // Writes a recovery change {"name", "type": "recovery"} at `path` and starts an update.
  [[nodiscard]] bool insertChange(const std::string& path, Error* error = nullptr);
  // Moves the change file to <pkg>/InvalidChanges, writes a recovery change refreshing its
  // objects in its place and another one just before it, and starts an update.
  [[nodiscard]] bool discardChange(const std::string& path, Error* error = nullptr);
  // Writes a recovery change with the given "refreshes" (left out when nil) at `path`.
  [[nodiscard]] bool writeFakeChangeToURL(const std::string& path, const Value& refreshes, Error* error = nullptr);
  // Deletes the object files of `change` for the listed objects (entity name -> array of
  // UIDs), or their whole folders when the change inserted them.
  void removeChange(const Value& change, const Value& objects, bool wasInsert);
  // Runs a repair chosen from a log entry's menu.
  void performMenuItem(const StoreMenuItem& item);
  // The menu's actions by name: write a recovery change in place of the missing change file,
  // move the change file aside, reveal the file (through the environment's Interaction).
  void insertChangeFromMenu(const StoreMenuItem& item) { (void)insertChange(item.path); }
  void discardChangeFromMenu(const StoreMenuItem& item) { (void)discardChange(item.path); }
  void showInFinder(const StoreMenuItem& item) { revealInFileViewer(item.path); }

  // ---- Comparing devices and repairing sync conflicts ---------------------------------------
  // The first 6 upper-case hexadecimal digits of the MD5 of the applied change names joined
  // by ",": equal on two devices that have applied the same history.
  std::string checkSum() const;
  // Entity name -> 6 upper-case hexadecimal digits over the cached values of its objects, or
  // "incomplete" while an item is missing from the cache; entities without objects are left
  // out. Kept until the history changes. Reads the cache without locking: call it off the
  // main thread (or accept the cost); a result computed while the history changed is dropped.
  Value contentChecksum();
  // Merges entity folders that a sync service duplicated under a longer name ("Person 2")
  // into the known folder whose name they begin with, longest known name first.
  void fixSyncConflicts();

  // ---- Watching <pkg>/Changes ---------------------------------------------------------------
  // Whether a folder watch is running (observeDirectory() succeeded and nothing stopped it).
  bool isObservingDirectory() const;
  // Tells the watch that the store itself wrote the file, so that its event starts no pass.
  void ignoreOwnChange(const std::string& path);

  // ---- Update pass ---------------------------------------------------------------------------
  // The change files the cache has not applied whose object or data files are missing, empty or
  // only online, oldest first; changes that are missing, unreadable or damaged themselves are
  // not listed (the log reports those). It reads the files itself, so it says what is missing
  // now rather than what the last pass saw. Main thread.
  std::vector<ChangeWaitingForFiles> changesWaitingForFiles();
  // One guarded pass; a pass while one runs is deferred by the retry delay. Main thread.
  void updateChanges();
  // The pass itself: lists and matches on the calling thread, reads on the read queue, and
  // calls `completion` on the main run loop (at once when there is nothing to do).
  void updateChangesWithCompletion(std::function<void(bool success)> completion);
  void processChanges() { updateChanges(); }
  // File events: schedules one pass after the debounce delay, cancelling a pending one.
  void invalidatePaths(const std::vector<std::string>& paths);
  // Starts (again) or stops watching <pkg>/Changes: batches of file events, gathered over the
  // latency (option kCorvaneEventLatencyOption, default 2 s), go to invalidatePaths(); files
  // the store writes itself are announced with ignoreOwnChange() and start no pass. Main thread.
  void observeDirectory();
  void unobserveDirectory();
  Value validatedChanges(const Value& change, bool lightWeight) override;
  Value validatedChanges(const Value& change) { return validatedChanges(change, false); }
  // A copy of `updates` with the entities of `inserts` that it lacks.
  static Value combineChangeDictionary(const Value& updates, const Value& inserts);
  std::string correctedDataURL(const std::string& path) override;
  // Refreshes the open contexts and posts the three notifications; main thread.
  void refreshInsertedObjects(const Value& inserted, const Value& updated, const Value& deleted) override;
  void setErrorLevel(const std::string& type);
  std::string errorLevel() const;
  Observable<std::string>& errorLevelObservable();
  // The path relative to the package ("Changes/x.json"); other paths unchanged.
  std::string shortURL(const std::string& path) const;
  bool isUpdating() const;
  // Update passes of this store that have ended (counted on the main run loop, just before
  // kCorvaneReadyNotification), so that a document can wait for its own first one.
  size_t finishedPasses() const;
  size_t changesFileCount() const;
  bool hasRemoteFiles() const;
  bool recover() override;
  void setRecover(bool recover) override;
  std::string upToChange() override;

  // ---- Log -----------------------------------------------------------------------------------
  // Adds an entry on the main run loop; observers of the log hear of a burst once, a second
  // after its last entry. With a change dictionary, its date and author are put after the
  // message's first ":".
  void log(std::string_view message, std::string_view type) override;
  void log(std::string_view message, std::string_view type, const Value& change, std::vector<StoreMenuItem> menu = {});
  void logError(const Error& error, std::string_view domain) override;
  void logErrorString(const std::string& text, const std::string& domain);
  std::vector<StoreLogEntry> logEntries() const;
  // Called on the main run loop once per burst of log entries. Subscribe on the main thread.
  [[nodiscard]] Subscription observeLog(std::function<void()> callback);
  // The error records made so far ({"domain", "description", "session", "date"}).
  Value errorRecords() const;

  // ---- Cache services ------------------------------------------------------------------------
  ObjectID objectIDForReferenceString(std::string_view reference) override;
  void setObjectIDForReferenceString(std::string_view reference, const ObjectID& objectID) override;
  std::optional<std::string> cacheRootURL() override;
  void showAlert(const std::string& message, const std::string& informativeText) override;
  void revealInFileViewer(const std::string& path) override;

  // The model's entity of that name among this store's (nullptr otherwise).
  const StoreEnvironment& environment() const;
  // The contexts that have sent requests to the store and still exist.
  std::vector<std::shared_ptr<ManagedObjectContext>> contexts() const;

 private:
  struct Liveness;
  struct LogObservers;
  struct Pass;
  struct State;
  friend class CorvaneChange;
  friend class CorvaneSaveOperation;

  // Opening.
  void setupEntityKeys();
  // Makes the package of a new document (folders and Info.plist); nothing when it exists.
  bool writeInfo(const Value& options, Error* error);
  // The package's cipher (nullptr when it cannot be made); any thread.
  std::shared_ptr<const SeaCrypto> cipher();
  // Work for the main run loop that is dropped once the store is gone.
  std::function<void()> guarded(std::function<void()> work) const;
  void onMain(std::function<void()> work) const;
  void scheduleUpdate(double delay);
  // Requests.
  void registerContext(ManagedObjectContext* context);
  // The update pass on the read queue.
  enum class ChangeReading { Apply, Stop, Invalid };
  struct ChangeRead;
  ChangeRead readChange(Pass& pass, const std::string& fileName, bool report);
  void checkBeforeForgetting(const std::shared_ptr<Pass>& pass, const std::vector<std::string>& forgotten);
  void beginPass(const std::shared_ptr<Pass>& pass);
  void runPass(const std::shared_ptr<Pass>& pass);
  // Whether the change may be applied, its updates and inserts combined (as validatedChanges()
  // answers them) and the object files it read, parsed, by "Entity/UID".
  struct ValidatedChange {
    bool valid;
    Value combined;
    Value parsedObjects;
  };
  ValidatedChange validateChange(const Value& change, bool lightWeight, bool report);
  // Reports a change holding `name`, which may not become part of a path, as validation reports
  // a damaged change (with the repair menu when the change file's path is known).
  void reportNonPlainName(const std::string& changePath, const std::string& name, const Value& change);
  void foldReplayedChange(Pass& pass, const Value& change, const Value& content, const Value& parsedObjects);
  // The log on the main run loop.
  void addLogEntry(StoreLogEntry entry, const Value& change);
  bool writeRecoveryChange(const std::string& path, const Value& refreshes, Error* error);
  // One error record as a property list in <pkg>/Errors (see StoreDiagnostics::errorsArray()).
  void writeErrorRecord(const Value& record);
  void presentError(const Error& error);

  std::unique_ptr<State> state_;
};

}  // namespace corvane
