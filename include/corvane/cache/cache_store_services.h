// CorvaneCacheStoreServices — what the local cache needs from the store that owns it.
//
// The store owns its cache, and the cache asks the store to decrypt and encrypt its files, to
// log, to describe the model, to make object IDs, to load one object from the package, to
// and validate change records. This interface is the whole of that
// traffic, so the cache depends on no store code: CorvaneStore implements it, and tests drive
// the cache with a small fake.
//
// Threads: the cache calls most methods from whatever thread is using it at the time (a
// context's queue, the store's save operations, the cache's index queue, the main thread), so
// an implementation must accept calls from any thread unless a method says otherwise. The
// cache never calls a method while holding a lock that the method could need: only the
// object-ID table methods are called with an item's lock held, and they must take only the
// table's own lock.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/cache/cache_item.h"
#include "corvane/foundation/bytes.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class EntityDescription;
class Env;
class ManagedObjectContext;

// The levels of the store's log entries (and of its observable error level).
inline constexpr const char* kCorvaneLogTypeSuccess = "CorvaneLogTypeSuccess";
inline constexpr const char* kCorvaneLogTypeWarning = "CorvaneLogTypeWarning";
inline constexpr const char* kCorvaneLogTypeError = "CorvaneLogTypeError";

class CorvaneCacheStoreServices {
 public:
  virtual ~CorvaneCacheStoreServices();

  // ---- Environment ----------------------------------------------------------------------
  // The Env through which every file of the cache is read and written. Must outlive the cache.
  virtual Env* env() = 0;

  // ---- Cipher ---------------------------------------------------------------------------
  // The plain bytes of a block read from a cache or package file: the bytes unchanged when the
  // document has no password, nullopt when they cannot be deciphered (wrong password, damage).
  virtual std::optional<Bytes> decrypt(ByteView bytes) = 0;
  // The bytes to write: unchanged without a password, else enciphered; nullopt on failure.
  virtual std::optional<Bytes> encrypt(ByteView bytes) = 0;

  // ---- Log ------------------------------------------------------------------------------
  // One entry of the store's log; `type` is one of the kCorvaneLogType constants. May be
  // called from any thread; the store hands the entry to the main thread itself.
  virtual void log(std::string_view message, std::string_view type) = 0;
  // Records a failed file operation under `domain` (for example "CorvaneReadOperation").
  virtual void logError(const Error& error, std::string_view domain) = 0;

  // ---- Model ----------------------------------------------------------------------------
  // Every entity of the store's model, in model order.
  virtual std::vector<const EntityDescription*> entities() = 0;
  // The entity of that name, or nullptr when the model has none.
  virtual const EntityDescription* entityForName(std::string_view name) = 0;

  // ---- Object IDs -----------------------------------------------------------------------
  // The store's ID for an object of `entity` whose reference (UID) is `reference`; the null ID
  // when the entity is null or the store is closed.
  virtual ObjectID newObjectIDForEntity(const EntityDescription* entity, const Value& reference) = 0;
  // The store's table of object IDs by reference string ("Entity/UID"), which the cache items
  // fill while they resolve relationships. Each call takes the table's own lock, alone.
  virtual ObjectID objectIDForReferenceString(std::string_view reference) = 0;  // null when absent
  virtual void setObjectIDForReferenceString(std::string_view reference, const ObjectID& objectID) = 0;
  // Makes the store refuse every later save (a relationship names an entity the model lacks,
  // so saving could lose data).
  virtual void preventFromSaving() = 0;

  // ---- Loading --------------------------------------------------------------------------
  // Rebuilds one object's item from its object files in the package; nullptr when it cannot
  // (the store records why). Slow; called without any cache lock held, possibly from several
  // threads at once. `context` may be null.
  virtual CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID& objectID, ManagedObjectContext* context) = 0;

  // ---- Binary attribute files -----------------------------------------------------------
  // The package's "Entities" folder.
  virtual std::string entitiesURL() = 0;
  // The name of the entity's folder inside "Entities".
  virtual std::string fileNameForEntity(const EntityDescription& entity) = 0;
  // The path of a data file, corrected for copies that a sync service kept under a longer name.
  virtual std::string correctedDataURL(const std::string& path) = 0;

  // ---- Change records -------------------------------------------------------------------
  // The change's combined inserted-and-updated UID lists, or nil when the change must not be
  // applied. `lightWeight` skips the checks of the object and data files.
  virtual Value validatedChanges(const Value& change, bool lightWeight) = 0;
  // Tells the open contexts about objects changed behind their back (arguments are UID lists,
  // entity name to dictionary keyed by UID). Called on the thread that loads the change log: the
  // binding thread, or the main run loop when a refused package copy is tried again.
  virtual void refreshInsertedObjects(const Value& inserted, const Value& updated, const Value& deleted) = 0;
  // Recover mode: stops become warnings, and updates add UIDs like inserts.
  virtual bool recover() = 0;
  virtual void setRecover(bool recover) = 0;

  // ---- Locations ------------------------------------------------------------------------
  // The folder given by the store option "CorvaneCacheRootURL", if any.
  virtual std::optional<std::string> cacheRootURL() = 0;
  // The package's own "Cache" folder, where saveInBundle() puts a copy of the cache.
  virtual std::string cacheURL() = 0;
  // The change name the store was opened up to, or "" for an ordinary opening.
  virtual std::string upToChange() = 0;

  // ---- User interface -------------------------------------------------------------------
  // A modal alert with a message and an informative text (both untranslated keys that the
  // store passes through its localisation). Called on the thread that binds the cache.
  virtual void showAlert(const std::string& message, const std::string& informativeText) = 0;
  // Shows a folder in the desktop's file viewer.
  virtual void revealInFileViewer(const std::string& path) = 0;
};

}  // namespace corvane
