#include <gtest/gtest.h>

#include "cache/cache_test_support.h"
#include "corvane/cache/cache.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::changeRecord;
using testing::kUID0;
using testing::kUID1;
using testing::objectEntry;

using testing::entry;

using ChangeLogTest = testing::BoundCacheTest;

TEST_F(ChangeLogTest, LocalChangesMaintainTheUIDTablesAndNames) {
  cache->addChange(changeRecord("c1", {{"insert", {{"Person", {kUID0, kUID1}}, {"Company", {"C"}}}}}), false);
  cache->addChange(changeRecord("c2", {{"update", {{"Person", {kUID0}}}}, {"delete", {{"Person", {kUID1}}}}}), false);
  EXPECT_EQ(cache->objectUIDsForEntityName("Person"), Value::set({kUID0}));
  EXPECT_EQ(cache->objectUIDsForEntity(*h.store.entityForName("Company")), Value::set({"C"}));
  EXPECT_EQ(cache->changeNames(), Value::set({"c1", "c2"}));
  EXPECT_EQ(cache->changes().count(), 2u);
  EXPECT_TRUE(cache->cachedMissingItems());  // inserts start the background filling

  // Updates add UIDs only while the store recovers.
  cache->addChange(changeRecord("c3", {{"update", {{"Person", {"77"}}}}}), false);
  EXPECT_FALSE(cache->objectUIDsForEntityName("Person").contains("77"));
  h.store.setRecover(true);
  cache->addChange(changeRecord("c4", {{"update", {{"Person", {"77"}}}}}), false);
  EXPECT_TRUE(cache->objectUIDsForEntityName("Person").contains("77"));
}

TEST_F(ChangeLogTest, ARecordWithoutChangesOnlyJoinsTheLog) {
  cache->addChange(dict({{"name", "empty"}}), false);
  cache->addChange(dict({{"name", "r1"}, {"type", "recovery"}}), false);
  EXPECT_EQ(cache->changes().count(), 2u);
  EXPECT_FALSE(cache->cachedMissingItems());
  EXPECT_EQ(cache->indexQueue(), nullptr);
  // Such records do not even recompute the names; the next recomputation leaves the recovery
  // record out.
  EXPECT_EQ(cache->changeNames(), Value::set());
  cache->updateChangeNames();
  EXPECT_EQ(cache->changeNames(), Value::set({"empty"}));
}

TEST_F(ChangeLogTest, ExternalChangesDropTheItemsTheyTouch) {
  const ObjectID id = h.store.idFor("Person", kUID0);
  cache->updateCacheForObjectID(id, objectEntry(dict({{"name", entry("Ann")}})), "");
  cache->addChange(changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}}), false);
  cache->indexQueue()->waitUntilAllOperationsAreFinished();  // the background filling finds it cached
  ASSERT_TRUE(cache->cacheItemForObjectID(id));
  EXPECT_EQ(h.store.loads.load(), 0);

  cache->addChange(changeRecord("c2", {{"update", {{"Person", {kUID0}}, {"Alien", {"X"}}}}}), true);
  EXPECT_FALSE(cache->cacheItemForObjectID(id));
  // The next read goes to the store.
  h.store.loader = [](const ObjectID&) { return CorvaneCacheItem::create(); };
  EXPECT_TRUE(cache->cacheItemForObjectID(id, nullptr));
  EXPECT_EQ(h.store.loads.load(), 1);
  // Unknown entity names are skipped, and their UIDs are still listed.
  EXPECT_EQ(cache->objectUIDsForEntityName("Person"), Value::set({kUID0}));
}

TEST_F(ChangeLogTest, RemovingAChangeReadsOnlyTheTopLevelInserts) {
  Value c1 = changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}});
  cache->addChange(c1, false);
  cache->removeChange(c1, false);
  EXPECT_EQ(cache->changes(), Value::array());
  EXPECT_EQ(cache->changeNames(), Value::set());
  EXPECT_EQ(cache->objectUIDsForEntityName("Person"), Value::set({kUID0}));  // "changes" is not read

  Value old = dict({{"name", "c0"}, {"inserts", dict({{"Person", dict({{kUID0, Value::dictionary()}})}})}});
  cache->addChange(old, false);
  cache->removeChange(old, false);
  EXPECT_EQ(cache->objectUIDsForEntityName("Person"), Value::set());
}

TEST_F(ChangeLogTest, TheChainListsTheFiftyNewestNewestFirst) {
  for (int i = 0; i < 51; ++i) cache->addChange(dict({{"name", Value("c" + std::to_string(i))}}), false);
  cache->addChange(changeRecord("last", {}), false);
  Value chain = cache->changesChain();
  ASSERT_EQ(chain.count(), 50u);
  EXPECT_EQ(
      chain.at(0),
      dict({{"name", "last"}, {"machineName", "box"}, {"fullUserName", "Ann"}, {"osVersion", "12"}, {"version", "7"}}));
  EXPECT_EQ(chain.at(1), dict({{"name", "c50"}}));  // missing values are left out
  EXPECT_EQ(chain.at(49)["name"], Value("c2"));
}

TEST_F(ChangeLogTest, AnnouncementsArriveLaterOnTheMainLoop) {
  std::vector<CacheChangeStage> seen;
  Subscription subscription = cache->observeChanges([&](CacheChangeStage stage) { seen.push_back(stage); });
  h.loop.runOnce();
  seen.clear();
  cache->addChange(dict({{"name", "c1"}}), false);
  EXPECT_TRUE(seen.empty());
  h.loop.runOnce();
  EXPECT_EQ(seen, (std::vector<CacheChangeStage>{CacheChangeStage::WillChange, CacheChangeStage::DidChange}));
  subscription.unsubscribe();
  cache->removeChange(dict({{"name", "c1"}}), false);
  h.loop.runOnce();
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(ChangeLogTest, TheLogIsReadBackOnTheNextOpening) {
  cache->addChange(changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}}), false);
  cache->save();
  cache.reset();
  auto again = h.boundCache();
  EXPECT_EQ(again->changeNames(), Value::set({"c1"}));
  EXPECT_EQ(h.store.logs().back().first, "Loaded changes");
  EXPECT_EQ(again->objectUIDsForEntityName("Person"), Value::set({kUID0}));
}

// A change log taken from a package copy is validated before use, and retried until it passes.
class PackageCopyCache : public CorvaneCache {
 public:
  using CorvaneCache::CorvaneCache;

 protected:
  std::shared_ptr<CorvaneCacheArray> newChangeLogCollection() override {
    auto log = CorvaneCache::newChangeLogCollection();
    log->setFromBundle(true);
    return log;
  }
};

TEST_F(ChangeLogTest, AChangeLogFromAPackageCopyIsRetriedUntilItValidates) {
  cache->addChange(changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}}), false);
  cache->save();
  cache.reset();
  bool accept = false;
  h.store.validator = [&](const Value&, bool lightWeight) {
    EXPECT_TRUE(lightWeight);
    return accept ? Value::dictionary() : Value();
  };
  auto copy = std::make_shared<PackageCopyCache>(&h.store, &h.loop);
  copy->setStoreURL(h.package);
  EXPECT_EQ(copy->changeLog(), nullptr);
  EXPECT_EQ(h.store.logs().back().first, "Aborting for now. Trying later");

  accept = true;
  h.clock.advance(9.9);
  h.loop.runOnce();
  EXPECT_EQ(copy->changeLog(), nullptr);
  h.clock.advance(0.2);
  h.loop.runOnce();
  ASSERT_NE(copy->changeLog(), nullptr);
  EXPECT_EQ(h.store.logs().back().first, "Loaded Cache");
  ASSERT_EQ(h.store.refreshes.size(), 1u);
  EXPECT_EQ(h.store.refreshes[0].at(0), dict({{"Person", dict({{kUID0, Value::dictionary()}})}}));

  // A pending retry dies with its cache.
  accept = false;
  auto doomed = std::make_shared<PackageCopyCache>(&h.store, &h.loop);
  doomed->setStoreURL(h.package);
  const int validations = h.store.validations.load();
  doomed.reset();
  h.clock.advance(11);
  h.loop.runOnce();
  EXPECT_EQ(h.store.validations.load(), validations);
}

}  // namespace
}  // namespace corvane
