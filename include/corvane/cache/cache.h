// CorvaneCache — this device's local cache of one open store.
//
// The cache keeps, outside the document package, the current values of every object of the
// store (one CorvaneCacheItem each), the UIDs of the live objects of each entity, and the log of
// the change records folded in so far, so that opening a document means loading the cache and
// applying only the change files that arrived since. Its folder is
//   $XDG_DATA_HOME/<host bundle identifier>/LocalDatabaseCache/<MD5 of the package URL>
// (or <"CorvaneCacheRootURL">/<MD5 of the package URL>), holding
//   <Entity>_<0-F>.fast   the items of an entity whose UID starts with that character
//   <Entity>_uids.fast    the UIDs of the entity's live objects
//   Changes.fast          the change records, oldest first
// each a FastCoding graph, enciphered whole when the document has a password. Files are read
// on first use and written by save() (only the changed ones) and saveInBundle() (all of them,
// into the package's "Cache" folder).
//
// The store owns the cache and talks to it through the methods below; the cache talks back
// only through CorvaneCacheStoreServices. Make caches with cacheForStore() (they are shared
// so that delayed work can tell whether its cache still exists).
//
// Threads and locks: any method may be called from any thread unless it says otherwise. The
// cache has one recursive lock (taken for its tables, the generation counter, reset and the
// snapshots of save); each table and the change log have their own, and the lock order is cache,
// then change log or table, then item. Loading an object through the store runs outside every
// lock; the generation counter keeps a load that raced an invalidation out of the tables.
// Announcements of "changes" and the progress counters of the background filling are
// delivered on the main run loop (RunLoop::main() unless another is given).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "corvane/cache/cache_collection.h"
#include "corvane/cache/cache_item.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/observable.h"
#include "corvane/foundation/operation_queue.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class CorvaneCacheStoreServices;
class EntityDescription;
class Env;
class ManagedObjectContext;

// Posted by the host when the application is about to quit; every cache then writes what is
// pending and runs its snapshot command.
inline constexpr const char* kApplicationWillTerminateNotification = "NSApplicationWillTerminateNotification";

// When an announcement of "changes" is made: before or after the change log changed.
enum class CacheChangeStage { WillChange, DidChange };

class CorvaneCache : public std::enable_shared_from_this<CorvaneCache> {
 public:
  // A program run, without waiting for it, when the application terminates (for example a
  // file-system snapshot tool and its arguments). None by default.
  struct SnapshotCommand {
    std::string executable;
    std::vector<std::string> arguments;
  };

  // ---- Making and locating ----------------------------------------------------------------
  // A new cache for `store` (not owned; it must outlive the cache), delivering main-thread work
  // on `mainLoop` (nullptr: RunLoop::main()). The store calls it once, from its initialiser.
  static std::shared_ptr<CorvaneCache> cacheForStore(CorvaneCacheStoreServices* store, RunLoop* mainLoop = nullptr);
  CorvaneCache(CorvaneCacheStoreServices* store, RunLoop* mainLoop);
  virtual ~CorvaneCache();
  CorvaneCache(const CorvaneCache&) = delete;
  CorvaneCache& operator=(const CorvaneCache&) = delete;

  // The name of a package's cache folder: its URL (a path is taken as the file URL of that
  // path) with leading and trailing "/" trimmed, as MD5 in 32 upper-case hexadecimal digits.
  static std::string cacheFolderName(const std::string& storeURL);
  // The default cache folder of a package, created if missing (and moved over from the old
  // caches location if it is still there); nullopt without an application-support folder.
  static std::optional<std::string> cacheURLForStoreURL(const std::string& storeURL, Env* env);
  // Whether the default cache folder can be written and read back.
  static bool checkWritePermissionsForStoreURL(const std::string& storeURL, Env* env);
  // Deletes the default cache folder of one package / every cache folder of the application,
  // in both locations. Errors are ignored.
  static void resetCacheForURL(const std::string& storeURL, Env* env);
  static void resetAllCaches(Env* env);

  // Binds the cache to a package: chooses the folder (checking that it can be written, with
  // escalating resets and finally an alert) and loads the change log unless the store is
  // opened up to a change. Called by the store each time it computes its package URLs; the
  // store then decides when to bring the cache up to date.
  void setStoreURL(const std::string& storeURL);
  std::string storeURL() const;
  // The cache folder ("" before binding, or when there is no application-support folder: the
  // cache then works in memory only).
  std::string URL() const;
  // The folder joined with a key ("" for an empty key or no folder).
  std::string URLForKey(const std::string& key) const;
  // "<entity name>_<first character of the UID>": the object table of an object.
  static std::string storeKey(const std::string& entityName, const std::string& uid);

  // ---- Items ------------------------------------------------------------------------------
  // The object table of an ID, made and registered on first use (not loaded here); nullptr
  // when the ID has no UID.
  std::shared_ptr<CorvaneCacheDictionary> cacheForObjectID(const ObjectID& objectID);
  // The cached item, without asking the store; null when there is none.
  CorvaneCacheItemPtr cacheItemForObjectID(const ObjectID& objectID);
  // The cached item, loaded through the store when missing. An item loaded while the cache
  // was reset or an object removed is returned but not kept. `context` may be null.
  CorvaneCacheItemPtr cacheItemForObjectID(const ObjectID& objectID, ManagedObjectContext* context);
  // The item's answers (see cache_item.h); nil when the object cannot be found or loaded.
  // For valuesForObjectID an item without attributes counts as missing.
  Value attributesForObjectID(const ObjectID& objectID, ManagedObjectContext* context);
  Value valuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context);
  Value allValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context);
  // The table's item if it has one, else the store's loading of the object; either way with
  // its collection set to the table. Not stored in the table here.
  CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context,
                                            const std::shared_ptr<CorvaneCacheDictionary>& table);
  // Folds one object's entry of a change ({"payload": ..., "version": ...}) into its item,
  // making the item if needed, and marks its table dirty. Propagates Exception("No
  // Transformer") from the fold.
  void updateCacheForObjectID(const ObjectID& objectID, const Value& values, const std::string& url);
  // Drops the object's item (and counts an invalidation); false when the ID has no UID.
  bool removeObjectID(const ObjectID& objectID);
  void compactObjectID(const ObjectID& objectID);
  void compactObjectIDs(const std::vector<ObjectID>& objectIDs);
  void needsRefresh(const ObjectID& objectID);
  std::vector<ObjectID> objectIDsToRefresh() const;
  void setExtraData(const Value& data, const Value& key, const ObjectID& objectID);
  Value extraDataForKey(const Value& key, const ObjectID& objectID);
  void resetExtraDataForObjectID(const ObjectID& objectID);
  // Counts resets and removals; see cacheItemForObjectID.
  uint64_t generation() const { return generation_.load(); }

  // ---- UID tables and change log -----------------------------------------------------------
  // Records one change record, local (isExternal false) or from another device: appends it to
  // the change log and, if it has "changes", adds its inserts to the UID tables, removes its
  // deletes and, for an external change, drops the cached items it touches.
  void addChange(const Value& change, bool isExternal);
  // Removes a record from the log and the UIDs listed under its top-level "inserts" from the
  // UID tables (not those of "changes"; records of this format have no "inserts").
  void removeChange(const Value& change, bool isExternal);
  // UID lists: entity name -> dictionary keyed by UID.
  void addObjectUIDs(const Value& lists, bool isExternal);
  void updateObjectUIDs(const Value& lists, bool isExternal);
  void removeObjectUIDs(const Value& lists, bool isExternal);
  void invalidateObjectUIDs(const Value& lists);
  // An immutable copy of an entity's UIDs (a set of strings).
  Value objectUIDsForEntity(const EntityDescription& entity);
  Value objectUIDsForEntityName(const std::string& entityName);
  std::shared_ptr<CorvaneCacheSet> cacheForEntityUIDs(const std::string& entityName);
  // The change log collection (nullptr before it is loaded or made) and its records.
  std::shared_ptr<CorvaneCacheArray> changeLog() const;
  Value changes() const;
  // The newest (at most 50) records, newest first, as {"name", "previousName", "machineName",
  // "fullUserName", "osVersion", "version"} (missing values left out).
  Value changesChain() const;
  // The names of the records in the log, recovery records left out (a set of strings).
  void updateChangeNames();
  Value changeNames() const;
  // Makes and loads the change log once.
  void loadChangeLogIfNeeded();
  // Observes "changes": called on the main run loop before and after every record added or
  // removed. Subscribe on the main thread.
  [[nodiscard]] Subscription observeChanges(std::function<void(CacheChangeStage)> callback);

  // ---- Persistence ------------------------------------------------------------------------
  // Writes every changed file of the cache folder, after the package writes queued by
  // saveInBundle() have finished; then marks the cache terminated.
  void save();
  // Writes every file into the package's "Cache" folder: the tables on the save queue, the
  // change log on the calling thread. Does not wait for the queued writes.
  void saveInBundle();
  // Loads all 16 object tables of an entity at once.
  void loadCachesForEntity(const EntityDescription& entity);
  // Starts, once per cache, the background filling: every UID of every concrete entity gets
  // its item, loaded through the store, at the lowest priority.
  void cacheMissingItems();
  // Validates every cached change record, in the background on the cache's queue, and logs
  // the outcome.
  void checkAllFiles();
  // Empties the cache: deletes its folder, drops the tables and empties the change log.
  void reset();
  // Runs the snapshot command, if one is set, without waiting for it.
  void terminate();
  void setSnapshotCommand(std::optional<SnapshotCommand> command);

  // ---- State ------------------------------------------------------------------------------
  // Progress of the background filling (changed on the main run loop): items done and total.
  int64_t itemsToIndex() const;
  int64_t maxItemsToIndex() const;
  int64_t itemsToLoad() const { return itemsToLoad_.load(); }
  bool cachedMissingItems() const;
  bool terminated() const { return terminated_.load(); }
  CorvaneCacheStoreServices* store() const { return store_; }
  RunLoop& mainLoop() const { return *mainLoop_; }
  // The cache's serial queue ("<framework identifier>.CacheQueue"), on which the store also
  // runs whole-graph copies.
  SerialQueue& queue() { return queue_; }
  OperationQueue& saveQueue() { return saveQueue_; }
  // The queue of the background filling, or nullptr before it started.
  OperationQueue* indexQueue() const;
  // Whether the cache is shutting down (index operations then stop at once).
  bool isStopping() const { return stopping_.load(); }

 protected:
  // The collection of the change log; a subclass may supply another (tests do).
  virtual std::shared_ptr<CorvaneCacheArray> newChangeLogCollection();

 private:
  // The tables and the change log as they stand, taken under the cache's lock; each file is
  // then written under its own lock, so objects of other tables can be read and changed.
  std::vector<std::shared_ptr<CorvaneCacheCollection>> collectionsToSave(std::shared_ptr<CorvaneCacheArray>* log);
  struct Progress;
  struct ChangesObservers;
  friend class CorvaneIndexOperation;
  friend class CorvaneIndexLoadOperation;

  CorvaneCacheItemPtr findItem(const ObjectID& objectID, ManagedObjectContext* context, bool needsAttributes);
  void installChangeLog(const std::shared_ptr<CorvaneCacheArray>& log);
  void announceChanges(CacheChangeStage stage);
  void addToIndexProgress(int64_t done, int64_t total);
  void checkAllFilesNow();
  std::string defaultCacheFolderParent() const;

  CorvaneCacheStoreServices* store_;
  RunLoop* mainLoop_;
  // The cache's own lock. Recursive because folding a change record holds it across the UID
  // updates, the invalidation of items, the start of the background filling and the rebuild of
  // the change names, which each take it again (and so do the table lookups they make).
  mutable RecursiveMutex mutex_;
  std::string storeURL_ CORVANE_GUARDED_BY(mutex_);
  std::string url_ CORVANE_GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::shared_ptr<CorvaneCacheDictionary>> entities_ CORVANE_GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::shared_ptr<CorvaneCacheSet>> uids_ CORVANE_GUARDED_BY(mutex_);
  std::shared_ptr<CorvaneCacheArray> changeLog_ CORVANE_GUARDED_BY(mutex_);
  Value changeNames_ CORVANE_GUARDED_BY(mutex_);
  // Records were added since changeNames_ was built.
  bool changeNamesStale_ CORVANE_GUARDED_BY(mutex_) = false;
  std::unordered_set<ObjectID, ObjectIDHash> objectIDsToRefresh_ CORVANE_GUARDED_BY(mutex_);
  bool cachedMissingItems_ CORVANE_GUARDED_BY(mutex_) = false;
  std::optional<SnapshotCommand> snapshot_ CORVANE_GUARDED_BY(mutex_);
  RunLoop::Token retryToken_ CORVANE_GUARDED_BY(mutex_);

  std::atomic<uint64_t> generation_{0};
  std::atomic<int64_t> itemsToLoad_{0};
  std::atomic<bool> terminated_{false};
  std::atomic<bool> stopping_{false};
  std::shared_ptr<Progress> progress_;
  std::shared_ptr<ChangesObservers> changesObservers_;

  SerialQueue queue_;
  OperationQueue saveQueue_;
  std::unique_ptr<OperationQueue> indexQueue_ CORVANE_GUARDED_BY(mutex_);
  NotificationCenter::Observer saveObserver_;
  NotificationCenter::Observer terminateObserver_;
};

}  // namespace corvane
