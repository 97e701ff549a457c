// The file-backed collections of the local cache: each holds one container and is backed by
// exactly one FastCoding file, "<url>.fast".
//
//   CorvaneCacheDictionary  one object table: UID -> CorvaneCacheItem (file: a dictionary)
//   CorvaneCacheSet         one UID table (file: an array of the members)
//   CorvaneCacheArray       the cached change log (file: an array)
//
// A collection reads its file on first use (through the store's decrypt and the FastCoding
// reader), keeps the content in memory, notes every change in a dirty flag and writes the whole
// file again when asked. A file that cannot be decoded is logged once in the store's log and the
// collection goes on empty and dirty, with corruptionDetected set; the bad file itself stays on
// disk until the next save overwrites it. A failed save deletes the file, so that a stale file is
// never read back, and leaves the collection dirty for the next attempt.
//
// Threads: any thread. Every operation runs under the collection's recursive lock, which the
// items of a dictionary share (see cache_item.h). It is recursive because writing the file
// encodes the items under it, and each item takes its collection's lock again; and because the
// public operations call each other (content() loads, loading may handle a corruption, which
// installs empty content), each taking the lock. Collections are made with the factories below
// and shared through std::shared_ptr, so that items can refer to theirs without owning it.
#pragma once

#include <memory>
#include <string>

#include "corvane/cache/cache_item.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/value.h"

namespace corvane {

class CorvaneCacheStoreServices;

class CorvaneCacheCollection : public std::enable_shared_from_this<CorvaneCacheCollection> {
 public:
  virtual ~CorvaneCacheCollection();
  CorvaneCacheCollection(const CorvaneCacheCollection&) = delete;
  CorvaneCacheCollection& operator=(const CorvaneCacheCollection&) = delete;

  // The file's path without the extension; the file is url() + ".fast".
  const std::string& url() const { return url_; }
  std::string filePath() const { return url_ + ".fast"; }
  CorvaneCacheStoreServices* store() const { return store_; }

  // Loads the file if nothing is loaded yet; an unreadable or missing file gives empty content.
  void loadIfNeeded();
  // Writes the file if the content changed since the last load or save. When the write fails
  // the old file is removed, so that no later run reads it as current, and the content stays
  // dirty. False only when that removal failed too: the file on disk is then stale.
  [[nodiscard]] bool saveIfNeeded();
  // Removes the collection's file and leaves the content dirty; false when the file stays.
  [[nodiscard]] bool removeSavedFile();
  // Writes the content (loading it first) into the package's "Cache" folder under the same
  // name, whether or not it changed; a failed write is ignored.
  void saveInBundle();
  // Marks the content as changed.
  void invalidate();
  // Deletes the item at url() itself, without the extension (nothing there is no error; a
  // failure to delete is, like every leftover there, harmless: nothing reads that path).
  void removeFile();
  // Installs the empty content of the collection's kind.
  void initContent();
  // Logs the corruption, empties the collection and marks it dirty and corrupt.
  void handleCorruption(const std::string& message);

  bool isLoaded() const;
  bool invalid() const;
  bool fromBundle() const;
  void setFromBundle(bool fromBundle);
  bool corruptionDetected() const;
  // The number of entries or members (loads first).
  size_t count();

  // The collection's lock; items of a dictionary share it.
  RecursiveMutex& mutex() const CORVANE_RETURN_CAPABILITY(mutex_) { return mutex_; }

 protected:
  CorvaneCacheCollection(CorvaneCacheStoreServices* store, std::string url);
  // The conversions between the content in memory and the root object of the file.
  virtual Value loadTransformer(const Value& root) const;
  virtual Value saveTransformer(const Value& content) const;
  virtual Value emptyContent() const = 0;
  // The encoded (and enciphered) bytes of the content, or nullopt.
  std::optional<Bytes> encodedContent() CORVANE_REQUIRES(mutex_);

  mutable RecursiveMutex mutex_;
  CorvaneCacheStoreServices* const store_;
  const std::string url_;
  Value content_ CORVANE_GUARDED_BY(mutex_);  // nil until loaded
  bool invalid_ CORVANE_GUARDED_BY(mutex_) = false;
  bool fromBundle_ CORVANE_GUARDED_BY(mutex_) = false;
  bool corruptionDetected_ CORVANE_GUARDED_BY(mutex_) = false;
};

class CorvaneCacheDictionary final : public CorvaneCacheCollection {
 public:
  static std::shared_ptr<CorvaneCacheDictionary> dictionaryWithStore(CorvaneCacheStoreServices* store, std::string url);

  // The live dictionary (loads first). setValue() and removeObjectForKey() change it in place
  // only while no reader holds it; otherwise they install a changed copy, so a reader may go on
  // enumerating what it got without the collection's lock.
  Value content();
  Value valueForKey(const Value& key);
  CorvaneCacheItemPtr itemForKey(std::string_view uid);
  // A nil value removes the key. Marks the collection dirty.
  void setValue(const Value& value, const Value& key);
  void removeObjectForKey(const Value& key);

 protected:
  Value loadTransformer(const Value& root) const override;
  Value emptyContent() const override;

 private:
  using CorvaneCacheCollection::CorvaneCacheCollection;
  // The content, copied first when a reader holds it, so that it can be changed.
  Value& writableContent() CORVANE_REQUIRES(mutex_);
};

class CorvaneCacheArray final : public CorvaneCacheCollection {
 public:
  static std::shared_ptr<CorvaneCacheArray> arrayWithStore(CorvaneCacheStoreServices* store, std::string url);

  Value content();  // an immutable copy (loads first)
  void setContent(const Value& array);
  void addObject(const Value& object);
  void addObjects(const Value& array);
  void removeObject(const Value& object);  // every occurrence
  void removeObjects(const Value& collection);

 protected:
  Value loadTransformer(const Value& root) const override;
  Value emptyContent() const override;

 private:
  using CorvaneCacheCollection::CorvaneCacheCollection;
};

class CorvaneCacheSet final : public CorvaneCacheCollection {
 public:
  static std::shared_ptr<CorvaneCacheSet> setWithStore(CorvaneCacheStoreServices* store, std::string url);

  Value content();  // an immutable copy (loads first)
  void setContent(const Value& collection);
  void addObject(const Value& object);
  void addObjects(const Value& collection);
  void removeObject(const Value& object);
  void removeObjects(const Value& collection);
  bool containsObject(const Value& object);

 protected:
  Value loadTransformer(const Value& root) const override;
  Value saveTransformer(const Value& content) const override;
  Value emptyContent() const override;

 private:
  using CorvaneCacheCollection::CorvaneCacheCollection;
};

}  // namespace corvane
