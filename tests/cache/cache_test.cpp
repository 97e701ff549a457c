#include "corvane/cache/cache.h"

#include <gtest/gtest.h>

#include "cache/cache_test_support.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/notification_center.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::kUID0;
using testing::kUID1;
using testing::objectEntry;

using testing::entry;

// The host's identifier names the cache root; set one for the test and restore it after.
class HostIdentifier {
 public:
  explicit HostIdentifier(const std::string& identifier) : previous_(ApplicationInfo::current()) {
    ApplicationInfo info = previous_;
    info.identifier = identifier;
    ApplicationInfo::setCurrent(info);
  }
  ~HostIdentifier() { ApplicationInfo::setCurrent(previous_); }

 private:
  ApplicationInfo previous_;
};

class CacheTest : public ::testing::Test {
 protected:
  HostIdentifier host{"com.example.Ledger"};
  CacheHarness h;
  std::string root = h.dir / "data/com.example.Ledger/LocalDatabaseCache";

  CorvaneCacheItemPtr itemNamed(const std::string& name) {
    auto item = CorvaneCacheItem::create();
    item->updateValues(dict({{"name", entry(Value(name))}}), *h.store.entityForName("Person"), "", Value("1"));
    return item;
  }
};

TEST_F(CacheTest, FolderNamesHashThePackageURLWithoutOuterSlashes) {
  // MD5 of "file:///Users/ann/My%20Doc.pkg", computed apart.
  EXPECT_EQ(CorvaneCache::cacheFolderName("/Users/ann/My Doc.pkg"), "71EC375A7FB1EA3BCCA93D4404E2C252");
  EXPECT_EQ(CorvaneCache::cacheFolderName("/Users/ann/My Doc.pkg/"), "71EC375A7FB1EA3BCCA93D4404E2C252");
  EXPECT_EQ(CorvaneCache::cacheFolderName("http://example.com/a/"), "3E27A17E84F5F8486FBC14488E12E6FF");
  // The same package through another path (a link, another mount point) is another cache.
  EXPECT_NE(CorvaneCache::cacheFolderName("/Volumes/ann/My Doc.pkg"),
            CorvaneCache::cacheFolderName("/Users/ann/My Doc.pkg"));
  EXPECT_EQ(CorvaneCache::storeKey("Person", kUID1), "Person_1");
}

TEST_F(CacheTest, TheDefaultFolderMovesOverFromTheOldCachesLocation) {
  const std::string name = CorvaneCache::cacheFolderName(h.package);
  const std::string old = h.dir / ("caches/com.example.Ledger/LocalDatabaseCache/" + name);
  testing::writeTextFile(old + "/Changes.fast", "old");
  auto folder = CorvaneCache::cacheURLForStoreURL(h.package, &h.env);
  ASSERT_TRUE(folder.has_value());
  EXPECT_EQ(*folder, root + "/" + name);
  EXPECT_EQ(testing::readTextFile(*folder + "/Changes.fast"), "old");
  EXPECT_FALSE(testing::pathExists(old));
  // Once the new folder exists an old copy is left alone.
  testing::writeTextFile(old + "/Changes.fast", "older");
  EXPECT_EQ(testing::readTextFile(*CorvaneCache::cacheURLForStoreURL(h.package, &h.env) + "/Changes.fast"), "old");
  // Resetting one package's cache removes both copies, so the move cannot bring it back.
  CorvaneCache::resetCacheForURL(h.package, &h.env);
  EXPECT_FALSE(testing::pathExists(old));
  EXPECT_FALSE(testing::pathExists(root + "/" + name));
}

TEST_F(CacheTest, BindingLoadsTheChangeLog) {
  auto cache = h.boundCache();
  EXPECT_EQ(cache->URL(), root + "/" + CorvaneCache::cacheFolderName(h.package));
  EXPECT_NE(cache->changeLog(), nullptr);
  EXPECT_EQ(h.store.logs(),
            (std::vector<std::pair<std::string, std::string>>{{"No changes found", "CorvaneLogTypeWarning"}}));
  // The probe file is gone again.
  std::vector<std::string> names;
  ASSERT_TRUE(h.env.listDirectory(cache->URL(), false, &names, nullptr));
  EXPECT_TRUE(names.empty());

  // Opened up to a change: no change log.
  CacheHarness upTo;
  upTo.store.upTo = "2024-01-01-00-00-00.000.X";
  auto limited = upTo.boundCache();
  EXPECT_EQ(limited->changeLog(), nullptr);
}

TEST_F(CacheTest, AWriteProtectedFolderIsResetTwiceThenReported) {
  const std::string otherPackage = root + "/0123456789ABCDEF0123456789ABCDEF";
  testing::writeTextFile(otherPackage + "/Changes.fast", "x");
  h.env.failWrites = true;
  auto cache = h.boundCache();
  EXPECT_EQ(h.env.written().size(), 3u);            // three probes
  EXPECT_FALSE(testing::pathExists(otherPackage));  // the second attempt resets every cache
  EXPECT_EQ(h.store.alerts,
            std::vector<std::string>{"The cache folder is write protected / Please delete the contents of "
                                     "the Folder that is beeing opened after closing this window"});
  EXPECT_EQ(h.store.reveals, std::vector<std::string>{root});
  EXPECT_EQ(cache->URL(), root + "/" + CorvaneCache::cacheFolderName(h.package));  // carries on

  // A folder chosen by the host is trusted: no probe, so a write-protected root goes unnoticed.
  CacheHarness chosen;
  chosen.store.cacheRoot = chosen.dir / "roots";
  chosen.env.failWrites = true;
  auto rooted = chosen.boundCache();
  EXPECT_EQ(rooted->URL(), chosen.dir / ("roots/" + CorvaneCache::cacheFolderName(chosen.package)));
  EXPECT_TRUE(chosen.env.written().empty());
  EXPECT_TRUE(chosen.store.alerts.empty());
  EXPECT_TRUE(testing::pathExists(rooted->URL()));
}

TEST_F(CacheTest, LookupLoadsMissingItemsOnceAndKeepsThem) {
  auto cache = h.boundCache();
  h.store.loader = [&](const ObjectID&) { return itemNamed("Ann"); };
  const ObjectID id = h.store.idFor("Person", kUID0);
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  auto item = cache->cacheItemForObjectID(id, nullptr);
  ASSERT_TRUE(item);
  EXPECT_EQ(h.store.loads.load(), 1);
  EXPECT_EQ(item->collection(), cache->cacheForObjectID(id));
  EXPECT_TRUE(cache->cacheForObjectID(id)->invalid());
  EXPECT_EQ(cache->cacheItemForObjectID(id, nullptr), item);
  EXPECT_EQ(cache->cacheItemForObjectID(id), item);
  EXPECT_EQ(cache->attributesForObjectID(id, nullptr), dict({{"name", "Ann"}}));
  EXPECT_EQ(h.store.loads.load(), 1);

  // Without a UID there is no table; an object the store cannot load is nil.
  EXPECT_EQ(cache->cacheForObjectID(h.store.idFor("Person", "")), nullptr);
  h.store.loader = nullptr;
  EXPECT_FALSE(cache->cacheItemForObjectID(h.store.idFor("Person", kUID1), nullptr));
  EXPECT_TRUE(cache->valuesForObjectID(h.store.idFor("Person", kUID1), nullptr).isNil());

  // For the value set, an item without attributes counts as missing.
  const ObjectID bare = h.store.idFor("Person", "2B");
  cache->cacheForObjectID(bare)->setValue(Value::object(new CorvaneCacheItem()), Value("2B"));
  h.store.loader = [&](const ObjectID&) { return itemNamed("Bea"); };
  EXPECT_EQ(cache->valuesForObjectID(bare, nullptr)["name"], Value("Bea"));
  EXPECT_EQ(cache->cacheItemForObjectID(bare)->attributes()["name"], Value("Bea"));
}

TEST_F(CacheTest, AnItemLoadedDuringAnInvalidationIsReturnedButNotKept) {
  auto cache = h.boundCache();
  const ObjectID id = h.store.idFor("Person", kUID0);
  // While the store loads this object, another object is removed (a change from elsewhere).
  h.store.loader = [&](const ObjectID&) {
    cache->removeObjectID(h.store.idFor("Company", kUID1));
    return itemNamed("stale?");
  };
  const uint64_t before = cache->generation();
  auto item = cache->cacheItemForObjectID(id, nullptr);
  ASSERT_TRUE(item);
  EXPECT_EQ(cache->generation(), before + 1);
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  // A reset during the load has the same effect.
  h.store.loader = [&](const ObjectID&) {
    cache->reset();
    return itemNamed("stale?");
  };
  EXPECT_TRUE(cache->cacheItemForObjectID(id, nullptr));
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  // Another thread that stored the object meanwhile wins.
  h.store.loader = [&](const ObjectID& objectID) {
    cache->updateCacheForObjectID(objectID, objectEntry(dict({{"name", entry("saved")}})), "");
    return itemNamed("loaded");
  };
  EXPECT_EQ(cache->cacheItemForObjectID(id, nullptr)->attributes()["name"], Value("saved"));
}

TEST_F(CacheTest, UpdatesFoldIntoOneItemAndMarkItsTable) {
  auto cache = h.boundCache();
  const ObjectID id = h.store.idFor("Person", kUID0);
  cache->updateCacheForObjectID(id, objectEntry(dict({{"name", entry("Ann")}})), "Changes/1.json");
  auto item = cache->cacheItemForObjectID(id);
  ASSERT_TRUE(item);
  EXPECT_TRUE(cache->cacheForObjectID(id)->invalid());
  cache->updateCacheForObjectID(id, objectEntry(dict({{"age", entry("41")}})), "Changes/2.json");
  EXPECT_EQ(cache->cacheItemForObjectID(id), item);
  EXPECT_EQ(item->attributes()["name"], Value("Ann"));
  EXPECT_EQ(item->attributes()["age"].description(), "41");
  // A delete record has no payload: the item stays, emptied of nothing.
  cache->updateCacheForObjectID(id, dict({{"version", "1"}, {"type", "delete"}}), "Changes/3.json");
  EXPECT_EQ(item->attributes()["name"], Value("Ann"));

  cache->setExtraData(Value(7), Value("k"), id);
  EXPECT_EQ(cache->extraDataForKey(Value("k"), id), Value(7));
  cache->resetExtraDataForObjectID(id);
  EXPECT_TRUE(cache->extraDataForKey(Value("k"), id).isNil());
  EXPECT_TRUE(cache->removeObjectID(id));
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  EXPECT_FALSE(cache->removeObjectID(h.store.idFor("Person", "")));
}

TEST_F(CacheTest, ResetEmptiesEverythingUntilTheNextSave) {
  auto cache = h.boundCache();
  const ObjectID id = h.store.idFor("Person", kUID0);
  cache->updateCacheForObjectID(id, objectEntry(dict({{"name", entry("Ann")}})), "");
  cache->addChange(testing::changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}}), false);
  cache->save();
  ASSERT_TRUE(testing::pathExists(cache->URL() + "/Person_0.fast"));

  const uint64_t generation = cache->generation();
  cache->reset();
  cache->reset();
  EXPECT_GE(cache->generation(), generation + 2);
  EXPECT_FALSE(testing::pathExists(cache->URL()));
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  EXPECT_EQ(cache->changes(), Value::array());
  EXPECT_EQ(cache->changeNames(), Value::set());
  EXPECT_EQ(cache->objectUIDsForEntityName("Person"), Value::set());
  EXPECT_EQ(h.store.logs().back(), (std::pair<std::string, std::string>{"Reset Log", "CorvaneLogTypeWarning"}));
  cache->save();
  EXPECT_TRUE(testing::pathExists(cache->URL() + "/Changes.fast"));
}

TEST_F(CacheTest, TerminationSavesAndRunsTheSnapshotCommandIfOneIsSet) {
  auto cache = h.boundCache();
  cache->updateCacheForObjectID(h.store.idFor("Person", kUID0), objectEntry(dict({{"name", entry("Ann")}})), "");
  NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
  EXPECT_TRUE(cache->terminated());
  EXPECT_TRUE(testing::pathExists(cache->URL() + "/Person_0.fast"));
  EXPECT_TRUE(h.env.launched.empty());  // no snapshot tool by default

  cache->setSnapshotCommand(CorvaneCache::SnapshotCommand{"/usr/bin/snap", {"localsnapshot"}});
  NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
  EXPECT_EQ(h.env.launched, (std::vector<std::string>{"/usr/bin/snap", "localsnapshot"}));
}

}  // namespace
}  // namespace corvane
