#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "cache/cache_test_support.h"
#include "corvane/cache/cache.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/coding/fast_json.h"
#include "corvane/foundation/log.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::changeRecord;
using testing::kUID0;
using testing::kUID1;
using testing::objectEntry;

using testing::entry;

// A UID whose first character is `c`.
std::string uidStartingWith(char c) { return std::string(1, c) + "A1B2C3D-0000-4000-8000-00000000000" + c; }

class CachePersistenceTest : public testing::BoundCacheTest {
 protected:
  void put(const std::string& uid, const std::string& name) {
    cache->updateCacheForObjectID(h.store.idFor("Person", uid), objectEntry(dict({{"name", entry(Value(name))}})), "");
  }
  std::string dump(const std::string& file) {
    Bytes bytes;
    EXPECT_TRUE(h.env.readFile(cache->URL() + "/" + file, &bytes, nullptr)) << file;
    Value root = FastCoder::objectWithData(*h.store.decrypt(bytes));
    return fastGraphToJson(root, false).value_or("unprintable");
  }
  void settle() {
    if (OperationQueue* index = cache->indexQueue()) index->waitUntilAllOperationsAreFinished();
  }
};

TEST_F(CachePersistenceTest, FilesHoldTheDocumentedGraphs) {
  put(kUID0, "Ann");
  cache->updateCacheForObjectID(
      h.store.idFor("Person", kUID0),
      objectEntry(dict({{"employer", entry(arr({"Company/C1"}))}, {"photo", entry("p.jpg")}})), "");
  cache->cacheItemForObjectID(h.store.idFor("Person", kUID0))->setState(Value("s"));
  Value change = changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}});
  cache->addChange(change, false);
  settle();
  cache->save();
  EXPECT_EQ(dump("Person_0.fast"),
            std::string(R"({")") + kUID0 +
                R"(":{"$class":"CorvaneCacheItem","attributes":{"name":"Ann"},)"
                R"("relations":{"employer":["Company/C1"]},"extraData":{},"data":{"photo":"p.jpg"},"state":"s"}})");
  EXPECT_EQ(dump("Person_uids.fast"), std::string(R"([")") + kUID0 + R"("])");
  EXPECT_EQ(dump("Changes.fast"), "[" + *fastGraphToJson(change, false) + "]");
  // Nothing else is in the folder.
  std::vector<std::string> names;
  ASSERT_TRUE(h.env.listDirectory(cache->URL(), false, &names, nullptr));
  EXPECT_EQ(names, (std::vector<std::string>{"Changes.fast", "Person_0.fast", "Person_uids.fast"}));
}

TEST_F(CachePersistenceTest, SavingAfterOneChangeRewritesOneTable) {
  for (char c : std::string("0123456789ABCDEF")) put(uidStartingWith(c), std::string("p") + c);
  h.env.clear();
  cache->save();
  EXPECT_EQ(h.env.written().size(), 16u);  // the change log and the UID tables are clean
  h.env.clear();
  put(uidStartingWith('7'), "changed");
  cache->save();
  EXPECT_EQ(h.env.written().size(), 1u);
  ASSERT_FALSE(h.env.written().empty());
  EXPECT_EQ(pathLastComponent(h.env.written()[0]), "Person_7.fast");
  h.env.clear();
  cache->save();
  EXPECT_TRUE(h.env.written().empty());
}

TEST_F(CachePersistenceTest, EncipheredFilesNeedTheSamePassword) {
  h.store.setPassword("right");
  put(kUID0, "Ann");
  cache->save();
  Bytes bytes;
  ASSERT_TRUE(h.env.readFile(cache->URL() + "/Person_0.fast", &bytes, nullptr));
  EXPECT_NE(asStringView(bytes).substr(0, 4), "TSAF");
  cache.reset();

  auto reopened = h.boundCache();
  EXPECT_EQ(reopened->cacheItemForObjectID(h.store.idFor("Person", kUID0))->attributes()["name"], Value("Ann"));
  reopened.reset();

  LogCapture console;
  h.store.setPassword("wrong");
  auto wrong = h.boundCache();
  wrong->loadCachesForEntity(*h.store.entityForName("Person"));
  EXPECT_FALSE(wrong->cacheItemForObjectID(h.store.idFor("Person", kUID0)));
  auto logs = h.store.logMessages();
  EXPECT_EQ(std::count(logs.begin(), logs.end(), "Cache corruption detected in Person_0: FastCoder returned nil"), 1);
  EXPECT_EQ(logs.back(), "Cache corruption detected during entity loading - recommend cache rebuild");
}

TEST_F(CachePersistenceTest, LoadingAnEntityRegistersAllSixteenTables) {
  const EntityDescription& company = *h.store.entityForName("Company");
  cache->loadCachesForEntity(company);
  for (char c : std::string("0123456789ABCDEF")) {
    auto table = cache->cacheForObjectID(h.store.idFor("Company", uidStartingWith(c)));
    EXPECT_TRUE(table->isLoaded());
    EXPECT_EQ(table->count(), 0u);
  }
  // A lower-case UID makes a table of its own, which its own lookups still find.
  const std::string lower = "abcdef00-0000-4000-8000-000000000000";
  put(lower, "low");
  cache->save();
  cache.reset();
  auto again = h.boundCache();
  again->loadCachesForEntity(*h.store.entityForName("Person"));
  EXPECT_EQ(again->cacheItemForObjectID(h.store.idFor("Person", lower))->attributes()["name"], Value("low"));
}

TEST_F(CachePersistenceTest, BackgroundFillingLoadsEachMissingObjectOnce) {
  std::mutex mutex;
  std::multiset<std::string> loaded;
  h.store.loader = [&](const ObjectID& id) {
    std::lock_guard<std::mutex> lock(mutex);
    loaded.insert(id.entity()->name() + "/" + storeUID(id));
    return CorvaneCacheItem::create();
  };
  put(kUID0, "cached already");
  cache->addChange(
      changeRecord("c1", {{"insert", {{"Person", {kUID0, kUID1, "2X"}}, {"Thing", {"T"}}, {"Gadget", {"G"}}}}}), false);
  ASSERT_NE(cache->indexQueue(), nullptr);
  OperationQueue* queue = cache->indexQueue();
  EXPECT_EQ(queue->maxConcurrentOperationCount(),
            std::max(static_cast<int>(std::thread::hardware_concurrency()) / 2, 2));
  settle();
  // Thing is abstract: it gets no operation of its own.
  EXPECT_EQ(loaded, (std::multiset<std::string>{std::string("Person/") + kUID1, "Person/2X", "Gadget/G"}));
  EXPECT_TRUE(cache->cacheItemForObjectID(h.store.idFor("Person", "2X")));
  // Progress is counted on the main loop.
  EXPECT_EQ(cache->maxItemsToIndex(), 0);
  h.loop.runOnce();
  EXPECT_EQ(cache->maxItemsToIndex(), 4);  // Person 3, Gadget 1, Company none
  EXPECT_EQ(cache->itemsToIndex(), 4);

  // Once per cache, even after everything has finished.
  cache->cacheMissingItems();
  cache->addChange(changeRecord("c2", {{"insert", {{"Person", {"3Y"}}}}}), false);
  settle();
  EXPECT_EQ(cache->indexQueue(), queue);
  EXPECT_EQ(loaded.count("Person/3Y"), 0u);
}

TEST_F(CachePersistenceTest, APackageCopyHoldsEveryFileAndSaveWaitsForIt) {
  put(kUID0, "Ann");
  cache->addChange(changeRecord("c1", {{"insert", {{"Person", {kUID0}}}}}), false);
  settle();
  cache->save();
  h.env.clear();
  cache->saveInBundle();
  cache->save();  // waits for the queued copies; nothing is dirty
  // Every registered table goes, clean or not: the background filling registered the (empty)
  // UID tables of the other concrete entities too.
  std::set<std::string> written;
  for (const auto& path : h.env.written()) written.insert(path);
  EXPECT_EQ(written, (std::set<std::string>{h.package + "/Cache/Person_0.fast", h.package + "/Cache/Person_uids.fast",
                                            h.package + "/Cache/Changes.fast", h.package + "/Cache/Company_uids.fast",
                                            h.package + "/Cache/Gadget_uids.fast"}));
}

TEST_F(CachePersistenceTest, CheckingTheFilesValidatesEveryRecordInRecoverMode) {
  cache->checkAllFiles();
  cache->queue().sync([] {});
  EXPECT_EQ(h.store.logMessages(),
            (std::vector<std::string>{"No changes found", "Start checking Files", "No change files found",
                                      "Finished checking Files: Found errors"}));
  EXPECT_EQ(h.store.recoverHistory, (std::vector<bool>{true, false}));

  h.store.validator = [](const Value& change, bool lightWeight) {
    EXPECT_FALSE(lightWeight);
    return change["name"] == Value("bad") ? Value() : Value::dictionary();
  };
  cache->addChange(dict({{"name", "good"}}), false);
  cache->save();
  cache->checkAllFiles();
  cache->queue().sync([] {});
  EXPECT_EQ(h.store.logMessages().back(), "Finished checking Files: All fine");
  cache->addChange(dict({{"name", "bad"}}), false);
  cache->checkAllFiles();  // reads the file, which does not have "bad" yet
  cache->queue().sync([] {});
  EXPECT_EQ(h.store.logMessages().back(), "Finished checking Files: All fine");
  cache->save();
  cache->checkAllFiles();
  cache->queue().sync([] {});
  EXPECT_EQ(h.store.logMessages().back(), "Finished checking Files: Found errors");
}

}  // namespace
}  // namespace corvane
