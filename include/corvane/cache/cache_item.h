// CorvaneCacheItem — this device's current state of one object of a store.
//
// An item holds the object's plain attribute values (already converted to model values by the
// attribute transformers), its relationships as arrays of object reference strings
// ("Entity/UID"), and, for binary attributes, only the names of the files in the package that
// hold the bytes. Every change record, local or from another device, is folded into the items
// of the objects it touches; every read of values goes through an item. Relationships are
// resolved to object IDs and binary values read from the package lazily, on first read, and
// remembered until the next change.
//
// Items live in a CorvaneCacheDictionary keyed by UID and are written with it: the cache files
// hold each item as a keyed-coded object (FastCoding type 43) of class "CorvaneCacheItem" with
// the keys "attributes", "relations", "extraData", "data" and "state", in that order.
//
// Locking: every operation runs under corvaneLock(): the owning collection's lock when the
// item has a collection (so an item never changes while its file is encoded), and the item's
// own lock in every case (so an item that gains a collection while another thread works on it
// under its own lock stays consistent). Lock order: collection, then item. The item's lock is
// recursive because the readers resolve what is missing through the public parse methods,
// which take it again, and call the store meanwhile.
//
// Threads: any thread; operations are serialised by the lock above.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "corvane/coding/coding.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class CorvaneCacheCollection;
class CorvaneCacheDictionary;
class CorvaneCacheItem;
class CorvaneCacheStoreServices;
class EntityDescription;
class ManagedObjectContext;

inline constexpr const char* kCorvaneCacheItemClassName = "CorvaneCacheItem";

// A counted reference to an item. Items are objects held by Values (that is how a cache
// dictionary holds them), so a reference is a Value known to hold an item.
class CorvaneCacheItemPtr {
 public:
  CorvaneCacheItemPtr() = default;
  // The item held by `value`, or a null reference when it holds none.
  static CorvaneCacheItemPtr fromValue(const Value& value);

  CorvaneCacheItem* get() const noexcept { return item_; }
  CorvaneCacheItem* operator->() const noexcept { return item_; }
  CorvaneCacheItem& operator*() const noexcept { return *item_; }
  explicit operator bool() const noexcept { return item_ != nullptr; }
  // The Value holding the item (nil for a null reference).
  const Value& value() const noexcept { return value_; }
  friend bool operator==(const CorvaneCacheItemPtr& a, const CorvaneCacheItemPtr& b) { return a.item_ == b.item_; }

 private:
  Value value_;
  CorvaneCacheItem* item_ = nullptr;
};

// The UID of an object ID: its reference's last path component, less a leading "p" or "t";
// "" for an ID without one.
std::string storeUID(const ObjectID& objectID);

class CorvaneCacheItem final : public FastCodingObject {
 public:
  // A new empty item.
  static CorvaneCacheItemPtr create();
  // Registers the class for keyed decoding; cheap after the first call. The cache calls it
  // before it reads a file; a tool that reads cache files may call it too.
  static void registerClass();

  CorvaneCacheItem();
  // The keyed initialiser: takes the five keys as they come (a missing key gives nil).
  explicit CorvaneCacheItem(FCNSDecoder& decoder);

  // ---- Coding -------------------------------------------------------------------------
  std::string className() const override { return kCorvaneCacheItemClassName; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override;
  // The stored fields by their coding keys; nil for any other key.
  using FastCodingObject::valueForKey;
  Value valueForKey(std::string_view key) const override;

  // ---- Folding a change -----------------------------------------------------------------
  // Folds one object's entry of a change into the item. `values` maps property names to
  // entries: {"value": ...} for attributes and to-one relationships, and "addedValues",
  // "removedValues", "orderedValues" for to-many ones. `url` is not consulted. `version`
  // selects the attribute transformers. Entries of the wrong kind are skipped; an attribute
  // without a transformer throws Exception("No Transformer") and leaves the item unchanged.
  void updateValues(const Value& values, const EntityDescription& entity, const std::string& url, const Value& version);

  // ---- Reading --------------------------------------------------------------------------
  // One value: the attribute of that name, else the resolved to-one target (an object-ID
  // value), else the resolved to-many collection (a set, or an ordered set for an ordered
  // relationship); nil otherwise. Binary attributes are deliberately not answered here.
  Value valueForKey(std::string_view key, const ObjectID& objectID, CorvaneCacheStoreServices* store,
                    ManagedObjectContext* context);
  // A copy of the attributes.
  Value attributesForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store,
                              ManagedObjectContext* context);
  // Attributes, resolved to-one relationships and binary values (to-many relationships are
  // fetched separately).
  Value valuesForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store, ManagedObjectContext* context);
  // Everything: attributes, both kinds of resolved relationships and binary values; later
  // entries win on a shared key. Remembered until the next change.
  Value allValuesForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store, ManagedObjectContext* context);
  // A new dictionary of relationship name to resolved target(s), for the to-one (toMany false)
  // or to-many relationships of the object's entity. A reference to an entity that the model
  // lacks makes the store refuse later saves and is skipped.
  Value parseRelationsForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store, bool toMany);
  // A new dictionary of binary attribute name to the decrypted bytes of its data file; a file
  // that cannot be read is logged under "CorvaneReadOperation" and left out.
  Value parseDataForObjectID(const ObjectID& objectID, CorvaneCacheStoreServices* store);

  // ---- Extra data -----------------------------------------------------------------------
  // Side values that other parts attach to the object; emptied by every update.
  void setExtraData(const Value& data, const Value& key);
  Value extraDataForKey(const Value& key);  // nil unless the key is a string
  void resetExtraData();

  // Drops the binary values read from the package (the one large derived field).
  void compact();

  // ---- Stored fields (copies taken under the lock) ------------------------------------
  Value attributes() const;
  Value relations() const;
  Value data() const;
  Value extraData() const;
  Value state() const;
  void setState(const Value& state);
  // True when binary values or the memo of all values are held (for tests and diagnostics).
  bool hasParsedData() const;
  bool hasParsedRelations() const;
  bool hasValueMemo() const;

  // ---- Collection and lock ---------------------------------------------------------------
  // The dictionary that holds the item (not owned), or nullptr.
  std::shared_ptr<CorvaneCacheDictionary> collection() const;
  void setCollection(const std::shared_ptr<CorvaneCacheDictionary>& collection);

  // Holds the item's lock (see the top of this file) while it lives. Move-only.
  class Lock {
   public:
    Lock(Lock&& other) noexcept;
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    Lock& operator=(Lock&&) = delete;

   private:
    friend class CorvaneCacheItem;
    explicit Lock(const CorvaneCacheItem& item);
    std::shared_ptr<CorvaneCacheCollection> collection_;
    RecursiveMutex* own_;
  };
  [[nodiscard]] Lock corvaneLock() const { return Lock(*this); }

 private:
  // corvaneLock() for the item's own methods, in the form the lock analysis follows: it holds
  // mutex_ for its scope (and the collection's lock, which the analysis cannot name here).
  class CORVANE_SCOPED_CAPABILITY Guard {
   public:
    explicit Guard(const CorvaneCacheItem& item) CORVANE_ACQUIRE(item.mutex_) : lock_(item) {}
    ~Guard() CORVANE_RELEASE() = default;
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    Lock lock_;
  };

  void dropDerived(bool relationsChanged) CORVANE_REQUIRES(mutex_);
  void foldAttribute(const Value& entry, const class AttributeDescription& attribute, const Value& version,
                     Value& attributes, Value& data) CORVANE_REQUIRES(mutex_);
  static void foldToMany(const Value& entry, const std::string& key, Value& relations);
  static void foldToOne(const Value& entry, const std::string& key, Value& relations);
  void parseMissing(const ObjectID& objectID, CorvaneCacheStoreServices* store, bool toOne, bool toMany, bool data)
      CORVANE_REQUIRES(mutex_);

  mutable RecursiveMutex mutex_;
  // Guards collection_ alone: held only to read or set it, with no other lock taken under it.
  mutable Mutex collectionMutex_;
  std::weak_ptr<CorvaneCacheCollection> collection_ CORVANE_GUARDED_BY(collectionMutex_);

  Value attributes_ CORVANE_GUARDED_BY(mutex_);
  Value relations_ CORVANE_GUARDED_BY(mutex_);
  Value data_ CORVANE_GUARDED_BY(mutex_);
  Value extraData_ CORVANE_GUARDED_BY(mutex_);
  Value state_ CORVANE_GUARDED_BY(mutex_);
  // Derived, never coded.
  Value parsedToOneRelations_ CORVANE_GUARDED_BY(mutex_);
  Value parsedToManyRelations_ CORVANE_GUARDED_BY(mutex_);
  Value parsedData_ CORVANE_GUARDED_BY(mutex_);
  Value dictionary_ CORVANE_GUARDED_BY(mutex_);
};

}  // namespace corvane
