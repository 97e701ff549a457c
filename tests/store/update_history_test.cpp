// How an update pass lines the Changes folder up with the history the cache has applied: a
// change that sorts before applied ones (a device whose clock was behind) makes the pass
// truncate and re-apply, a folder that lacks the newest applied changes leaves the history
// alone, and an object inserted and deleted within one pass is reported only as deleted.
#include <algorithm>

#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class UpdateHistoryTest : public StoreTest {
 protected:
  static std::vector<std::string> appliedNames(CorvaneStore* store) {
    std::vector<std::string> names;
    const Value changes = store->cache()->changes();
    for (const Value& change : changes.elements()) names.push_back(change["name"].str());
    return names;
  }
  // Saves the companies One and then, a minute later, Two; answers the applied change names.
  std::vector<std::string> saveOneAndTwo(OpenStore& s) {
    s.context->insertNewObject("Company")->setValue("name", "One");
    EXPECT_TRUE(save(s));
    env.advance(60);
    s.context->insertNewObject("Company")->setValue("name", "Two");
    EXPECT_TRUE(save(s));
    return appliedNames(s.store);
  }
  static std::vector<std::string> companyNames(OpenStore& s) {
    FetchRequest request("Company");
    std::vector<std::string> out;
    if (auto all = s.context->fetch(request)) {
      for (const auto& c : *all) out.push_back(c->stringValue("name"));
    }
    std::sort(out.begin(), out.end());
    return out;
  }
};

TEST_F(UpdateHistoryTest, AChangeSortingBeforeAppliedOnesTruncatesTheHistoryAndReappliesFromThere) {
  OpenStore a = open();
  const std::vector<std::string> before = saveOneAndTwo(a);
  ASSERT_EQ(before.size(), 2u);

  // A late device's change is dated between the two.
  const std::string late = before[0].substr(0, 23) + ".FFFFFFFF-FFFF-4FFF-8FFF-FFFFFFFFFFFF.json";
  ASSERT_LT(late, before[1]);
  ASSERT_GT(late, before[0]);
  ASSERT_TRUE(a.store->writeFakeChangeToURL(package + "/Changes/" + late, Value()));
  update(a.store);

  EXPECT_EQ(appliedNames(a.store), (std::vector<std::string>{before[0], late, before[1]}));
  EXPECT_EQ(companyNames(a), (std::vector<std::string>{"One", "Two"}));
  EXPECT_TRUE(entryContaining(a.store, "Completed validation Changes/" + before[1]));
  close(a);
}

// The history is only cut where a late change fits once that change can be applied: until its
// object file is there, the device keeps what it holds instead of showing objects whose files no
// longer count.
TEST_F(UpdateHistoryTest, ALateChangeStillInTransitLeavesTheHistoryAsItIsUntilItArrives) {
  OpenStore a = open();
  const std::vector<std::string> before = saveOneAndTwo(a);
  ASSERT_EQ(before.size(), 2u);

  const std::string late = before[0].substr(0, 23) + ".FFFFFFFF-FFFF-4FFF-8FFF-FFFFFFFFFFFF.json";
  const std::string uid = "0A0A0A0A-0000-4000-8000-000000000001";
  writeTextFile(package + "/Changes/" + late,
                R"({"name":")" + late + R"(","date":"2023-03-08T20:26:40.000+0000","changes":{"insert":{"Company":{")" +
                    uid + R"(":{}}}},"previousName":")" + before[0] + R"("})");
  const std::string objectFile =
      package + "/Entities/" + a.store->fileNameForEntityName("Company") + "/" + uid + "/" + late;
  update(a.store);
  EXPECT_EQ(appliedNames(a.store), before);
  EXPECT_EQ(companyNames(a), (std::vector<std::string>{"One", "Two"}));
  EXPECT_TRUE(entryContaining(a.store, "Missing file: "));
  EXPECT_TRUE(entryContaining(a.store, "Missing files: Abort and trying again in some seconds"));

  writeTextFile(objectFile, R"({"version":"1","type":"insert","payload":{"name":{"value":"Late"}}})");
  update(a.store);
  EXPECT_EQ(appliedNames(a.store), (std::vector<std::string>{before[0], late, before[1]}));
  EXPECT_EQ(companyNames(a), (std::vector<std::string>{"Late", "One", "Two"}));
  close(a);
}

TEST_F(UpdateHistoryTest, AFolderLackingTheNewestAppliedChangesKeepsTheLongerHistory) {
  OpenStore a = open();
  const std::vector<std::string> before = saveOneAndTwo(a);
  ASSERT_EQ(before.size(), 2u);
  // The sync service has not brought the newest change file back yet.
  ASSERT_TRUE(env.moveItem(package + "/Changes/" + before[1], dir / "away.json", nullptr));
  update(a.store);
  EXPECT_TRUE(entryContaining(a.store, "No new changes to apply"));
  EXPECT_EQ(appliedNames(a.store), before);
  EXPECT_EQ(companyNames(a), (std::vector<std::string>{"One", "Two"}));
  close(a);
}

TEST_F(UpdateHistoryTest, AnObjectInsertedAndDeletedInOnePassIsOnlyDeleted) {
  OpenStore a = open();
  // Passes start only from update() below: close() of the other device drops the main loop's
  // pending work, which would leave a pass that file events started without its end.
  a.store->unobserveDirectory();
  a.context->insertNewObject("Company")->setValue("name", "Stays");
  ASSERT_TRUE(save(a));

  const std::string rootA = cacheRoot;
  cacheRoot = dir / "cachesB";
  OpenStore b = open();
  auto brief = b.context->insertNewObject("Company");
  brief->setValue("name", "Brief");
  env.advance(5);
  ASSERT_TRUE(save(b));
  b.context->deleteObject(brief.get());
  env.advance(5);
  ASSERT_TRUE(save(b));
  close(b);
  cacheRoot = rootA;

  Value received;
  auto did =
      NotificationCenter::defaultCenter().addObserver(kCorvaneObjectsDidChangeExternallyNotification, a.context.get(),
                                                      [&](const Notification& n) { received = n.userInfo; });
  update(a.store);
  EXPECT_EQ(received[kInsertedObjectsKey].count(), 0u) << received.description();
  EXPECT_EQ(received[kDeletedObjectsKey].count(), 1u) << received.description();
  EXPECT_EQ(companyNames(a), std::vector<std::string>{"Stays"});
  close(a);
}

}  // namespace
}  // namespace corvane::testing
