// The cache under several threads at once; run under the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "cache/cache_test_support.h"
#include "corvane/cache/cache.h"
#include "corvane/coding/fast_coder.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::changeRecord;
using testing::FakeStore;
using testing::kUID0;
using testing::kUID1;
using testing::objectEntry;

using testing::entry;

CorvaneCacheItemPtr itemNamed(FakeStore& store, const std::string& name) {
  auto item = CorvaneCacheItem::create();
  item->updateValues(dict({{"name", entry(Value(name))}}), *store.entityForName("Person"), "", Value("1"));
  return item;
}

TEST(CacheConcurrency, ALoadRacingARemovalIsReturnedButNotCached) {
  CacheHarness h;
  auto cache = h.boundCache();
  const ObjectID id = h.store.idFor("Person", kUID0);
  std::latch loading(1);
  std::latch removed(1);
  h.store.loader = [&](const ObjectID&) {
    loading.count_down();
    removed.wait();  // the removal happens while this object is being read
    return itemNamed(h.store, "read before the removal");
  };
  CorvaneCacheItemPtr result;
  std::thread reader([&] { result = cache->cacheItemForObjectID(id, nullptr); });
  loading.wait();
  EXPECT_TRUE(cache->removeObjectID(h.store.idFor("Company", kUID1)));
  removed.count_down();
  reader.join();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->attributes()["name"], Value("read before the removal"));
  EXPECT_FALSE(cache->cacheItemForObjectID(id));

  // Without a removal the same load is kept.
  h.store.loader = [&](const ObjectID&) { return itemNamed(h.store, "kept"); };
  std::thread again([&] { result = cache->cacheItemForObjectID(id, nullptr); });
  again.join();
  EXPECT_EQ(cache->cacheItemForObjectID(id), result);
}

TEST(CacheConcurrency, ReadersWritersInvalidationsAndSavesInterleave) {
  CacheHarness h;
  auto cache = h.boundCache();
  h.store.loader = [&](const ObjectID& id) { return itemNamed(h.store, "loaded " + storeUID(id)); };
  std::vector<ObjectID> ids;
  for (int i = 0; i < 32; ++i)
    ids.push_back(h.store.idFor("Person", std::string(1, "0123456789ABCDEF"[i % 16]) + std::to_string(i)));

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round) {
        const ObjectID& id = ids[(round * 7 + t) % ids.size()];
        if (auto item = cache->cacheItemForObjectID(id, nullptr)) {
          EXPECT_FALSE(item->attributes()["name"].isNil());
          item->allValuesForObjectID(id, &h.store, nullptr);
        }
      }
    });
  }
  threads.emplace_back([&] {
    for (int round = 0; round < 200; ++round) {
      const ObjectID& id = ids[(round * 5) % ids.size()];
      cache->updateCacheForObjectID(id, objectEntry(dict({{"name", entry(Value("saved " + std::to_string(round)))}})),
                                    "");
      if (round % 3 == 0) cache->removeObjectID(ids[(round * 11) % ids.size()]);
    }
  });
  threads.emplace_back([&] {
    while (!stop.load()) cache->save();
  });
  for (size_t i = 0; i + 1 < threads.size(); ++i) threads[i].join();
  stop = true;
  threads.back().join();

  // What is saved reads back whole.
  cache->save();
  cache.reset();
  auto again = h.boundCache();
  for (const ObjectID& id : ids) {
    auto item = again->cacheItemForObjectID(id);
    if (item) {
      EXPECT_FALSE(item->attributes()["name"].isNil());
    }
  }
  for (const auto& log : h.store.logMessages()) EXPECT_EQ(log.find("corruption"), std::string::npos) << log;
}

TEST(CacheConcurrency, ChangesArriveWhileTheBackgroundFillingRuns) {
  CacheHarness h;
  auto cache = h.boundCache();
  h.store.loader = [&](const ObjectID& id) { return itemNamed(h.store, storeUID(id)); };
  std::vector<std::string> uids;
  for (int i = 0; i < 200; ++i) uids.push_back(std::string(1, "0123456789ABCDEF"[i % 16]) + "-" + std::to_string(i));
  Value inserts = Value::mutableDictionary();
  for (const auto& uid : uids) inserts.set(Value(uid), Value::dictionary());
  cache->addChange(dict({{"name", "c1"}, {"changes", dict({{"insert", dict({{"Person", inserts}})}})}}), false);

  std::thread external([&] {
    for (int i = 0; i < 50; ++i) {
      cache->addChange(changeRecord("e" + std::to_string(i), {{"update", {{"Person", {uids[i]}}}}}), true);
    }
  });
  std::thread reader([&] {
    for (int i = 0; i < 100; ++i)
      cache->valuesForObjectID(h.store.idFor("Person", uids[(i * 3) % uids.size()]), nullptr);
  });
  external.join();
  reader.join();
  cache->indexQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(cache->objectUIDsForEntityName("Person").count(), uids.size());
  EXPECT_EQ(cache->changes().count(), 51u);

  // A cache that goes away while its filling runs stops it and waits for it.
  CacheHarness other;
  auto doomed = other.boundCache();
  other.store.loader = [&](const ObjectID& id) { return itemNamed(other.store, storeUID(id)); };
  doomed->addChange(dict({{"name", "c1"}, {"changes", dict({{"insert", dict({{"Person", inserts}})}})}}), false);
  doomed.reset();
  EXPECT_LE(other.store.loads.load(), 200);
}

}  // namespace
}  // namespace corvane
