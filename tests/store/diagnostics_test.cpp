// What a support person asks about a document: the error records (on disk, newest first, at
// most 20), who wrote lately, how far this device has caught up, and one object's history.
#include <algorithm>

#include "corvane/foundation/date_format.h"
#include "corvane/foundation/plist.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_diagnostics.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class DiagnosticsTest : public StoreTest {};

TEST_F(DiagnosticsTest, ErrorRecordsAreFilesNamedSoThatDescendingOrderIsNewestFirst) {
  std::vector<std::string> delivered;
  environment_->errorDelegate = [&](const std::string& text, const std::string&) { delivered.push_back(text); };
  OpenStore s = open();
  EXPECT_EQ(StoreDiagnostics(*s.store).errorsArray().count(), 0u);
  // One record eleven days old, then 24 a minute apart.
  s.store->logErrorString("old", "Tests");
  env.advance(11 * 86400);
  for (int i = 0; i < 24; ++i) {
    s.store->logErrorString("error " + std::to_string(i), "Tests");
    env.advance(60);
  }
  EXPECT_EQ(delivered.size(), 25u);
  EXPECT_EQ(delivered.back(), package + " error 23");

  std::vector<std::string> names = list(package + "/Errors");
  ASSERT_EQ(names.size(), 25u);
  std::sort(names.begin(), names.end());
  // "<yyyy-MM-dd-HH-mm-ss.SSS GMT>.<UUID>.plist"; the oldest record is dated 2023-03-07 20:26:40.
  EXPECT_EQ(names.front().size(), std::string("2023-03-08-20-26-40.000.").size() + 36 + 6) << names.front();
  EXPECT_TRUE(names.front().starts_with("2023-03-08-20-26-40.000.")) << names.front();
  EXPECT_TRUE(names.front().ends_with(".plist"));
  Value oldest;
  ASSERT_TRUE(readPropertyListFile(&env, package + "/Errors/" + names.front(), &oldest));
  EXPECT_EQ(oldest["description"], Value("old"));
  EXPECT_EQ(oldest["domain"], Value("Tests"));
  EXPECT_EQ(oldest["session"]["machineName"], Value(s.store->machineName()));

  const Value records = StoreDiagnostics(*s.store).errorsArray();
  ASSERT_EQ(records.count(), 20u);
  EXPECT_EQ(records.at(0)["description"], Value("error 23"));
  EXPECT_EQ(records.at(19)["description"], Value("error 4"));

  // An unreadable record is skipped.
  writeTextFile(package + "/Errors/9999-garbage.plist", "not a property list");
  EXPECT_EQ(StoreDiagnostics(*s.store).errorsArray().at(0)["description"], Value("error 23"));

  const Value recent = StoreDiagnostics(*s.store).recentErrorsArray();
  EXPECT_EQ(recent.count(), 20u);
  env.advance(10 * 86400 - 18.5 * 60);  // errors 4 and 5, of the twenty newest, are now older than ten days
  EXPECT_EQ(StoreDiagnostics(*s.store).recentErrorsArray().count(), 18u);
  close(s);
}

TEST_F(DiagnosticsTest, RecentActivityCountsOtherMachinesOfTheLastFourteenDays) {
  env.setMachineName("Alpha");
  env.setFullUserName("Ann");
  OpenStore a = open();
  a.context->insertNewObject("Company")->setValue("name", "One");
  ASSERT_TRUE(save(a));
  EXPECT_FALSE(StoreDiagnostics(*a.store).hasRecentChangesFromOtherDevices());
  close(a);

  // Beta wrote 15 days ago, from the point of view of a store opened now.
  env.setMachineName("Beta");
  env.setFullUserName("Bea");
  cacheRoot = dir / "cachesB";
  OpenStore b = open();
  b.context->insertNewObject("Company")->setValue("name", "Two");
  ASSERT_TRUE(save(b));
  close(b);
  env.advance(15 * 86400);

  env.setMachineName("Alpha");
  env.setFullUserName("Ann");
  a = open();
  a.context->insertNewObject("Company")->setValue("name", "Three");
  ASSERT_TRUE(save(a));
  Value activity = StoreDiagnostics(*a.store).recentDeviceActivity();
  ASSERT_EQ(activity.count(), 1u) << activity.description();
  EXPECT_EQ(activity.at(0)["machineName"], Value("Alpha"));
  EXPECT_EQ(activity.at(0)["fullUserName"], Value("Ann"));
  EXPECT_FALSE(StoreDiagnostics(*a.store).hasRecentChangesFromOtherDevices()) << "Beta's change is 15 days old";
  close(a);

  env.advance(3600);
  env.setMachineName("Beta");
  env.setFullUserName("Bea");
  b = open();
  b.context->insertNewObject("Company")->setValue("name", "Four");
  ASSERT_TRUE(save(b));
  activity = StoreDiagnostics(*b.store).recentDeviceActivity();
  ASSERT_EQ(activity.count(), 2u) << activity.description();
  EXPECT_EQ(activity.at(0)["machineName"], Value("Beta"));  // newest first
  EXPECT_EQ(activity.at(1)["machineName"], Value("Alpha"));
  EXPECT_TRUE(StoreDiagnostics(*b.store).hasRecentChangesFromOtherDevices());
  EXPECT_EQ(StoreDiagnostics(*b.store).changesInfo(), "4 in Cache / 4 on Disk");
  EXPECT_TRUE(StoreDiagnostics(*b.store).loadedAllChanges());
  const Value sessions = StoreDiagnostics(*b.store).sessionInfo();
  ASSERT_EQ(sessions.count(), 2u);
  EXPECT_EQ(sessions.at(0)["machineName"], Value("Beta"));
  close(b);
}

TEST_F(DiagnosticsTest, LoadingIssuesAreThePerformanceArray) {
  OpenStore s = open();
  EXPECT_EQ(StoreDiagnostics(*s.store).peformanceArray().count(), 0u);
  s.store->addLoadingIssue(s.store->loadingIssueWithType(kLoadingIssueMissingFile, package + "/x"));
  const Value issues = StoreDiagnostics(*s.store).peformanceArray();
  ASSERT_EQ(issues.count(), 1u);
  EXPECT_EQ(issues.at(0)["type"], Value(kLoadingIssueMissingFile));
  close(s);
}

TEST_F(DiagnosticsTest, HistoryOfAnObjectListsItsChangesNewestFirstWithTheirValues) {
  env.setFullUserName("Ann");
  env.setMachineName("Alpha");
  OpenStore s = open();
  auto acme = s.context->insertNewObject("Company");
  acme->setValue("name", "Acme");
  ASSERT_TRUE(save(s));
  const ObjectID id = acme->objectID();
  env.advance(90);
  acme->setValue("name", "Acme Inc");
  ASSERT_TRUE(save(s));
  s.context->insertNewObject("Company")->setValue("name", "Other");  // not Acme's history
  env.advance(90);
  ASSERT_TRUE(save(s));

  const Value history = StoreDiagnostics(*s.store).changesHistoryForObjectID(id);
  ASSERT_EQ(history.count(), 3u) << history.description();
  const Value& head = history.at(0);
  EXPECT_EQ(head["name"], Value("Object"));
  EXPECT_EQ(head["value"], Value("/Company/p" + storeUID(id)));
  EXPECT_EQ(head["paths"].count(), 2u);

  const Value& newest = history.at(1);
  const Value& oldest = history.at(2);
  EXPECT_GT(newest["date"].dateValue(), oldest["date"].dateValue());
  EXPECT_EQ(newest["name"],
            Value(displayDateString(newest["date"].dateValue(), DateStyle::Medium, DateStyle::Medium, &env)));
  EXPECT_TRUE(newest["value"].str().starts_with("Ann (Alpha")) << newest["value"].description();
  EXPECT_TRUE(newest["URL"].str().starts_with(package + "/Changes/"));
  ASSERT_EQ(newest["children"].count(), 1u) << newest["children"].description();
  EXPECT_EQ(newest["children"].at(0)["name"], Value("name"));
  EXPECT_EQ(oldest["children"].at(0)["name"], Value("name"));
  EXPECT_NE(newest["children"].at(0)["value"], oldest["children"].at(0)["value"]);

  // A change file that vanished leaves its row out; an unknown object has only the first row.
  ASSERT_TRUE(env.removeItem(oldest["URL"].str(), nullptr));
  EXPECT_EQ(StoreDiagnostics(*s.store).changesHistoryForObjectID(id).count(), 2u);
  auto ghost = s.store->newObjectIDForEntity(s.store->entityForName("Company"), Value("NOPE"));
  const Value lonely = StoreDiagnostics(*s.store).changesHistoryForObjectID(ghost);
  ASSERT_EQ(lonely.count(), 1u);
  EXPECT_EQ(lonely.at(0)["paths"].count(), 0u);
  close(s);
}

}  // namespace
}  // namespace corvane::testing
