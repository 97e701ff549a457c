// The recent-deletes report read from the cache's change log: its limits per entity, the texts
// it shows, a host's labels, and the file it leaves in the desktop folder.
#include <gtest/gtest.h>

#include <cstdlib>

#include "corvane/cache/cache.h"
#include "corvane/cache/cache_item.h"
#include "corvane/document/corvane_document.h"
#include "corvane/document/recent_deletes.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_diagnostics.h"
#include "support/temp_dir.h"
#include "support/test_models.h"

namespace corvane::testing {
namespace {

class HomeEnv : public ManualClockEnv {
 public:
  std::string home;
  std::string homeDirectory() override { return home; }
};

class OpenRecorder final : public Interaction {
 public:
  size_t runAlert(const Alert&) override { return 0; }
  void revealInFileViewer(const std::string&) override {}
  void openFile(const std::string& path) override { opened.push_back(path); }
  std::optional<std::string> askPassword(const std::string&) override { return std::nullopt; }
  std::vector<std::string> opened;
};

// Labels Thing objects by a made-up title, leaves the others to their UIDs.
class LabellingDocument : public CorvaneDocument {
 public:
  using CorvaneDocument::CorvaneDocument;

 protected:
  std::optional<std::string> formatDeletedObjectInfo(const Value& info, const std::string& objectUID,
                                                     const Value&) override {
    if (info["entityName"] != Value("Thing")) return std::nullopt;
    return "“Title " + objectUID.substr(0, 4) + "”";
  }
};

std::string uidNumber(const char* prefix, int i) {
  char text[64];
  std::snprintf(text, sizeof text, "%s-0000-0000-0000-%012d", prefix, i);
  return text;
}

// A change record as the cache logs it, deleting `count` objects of `entity` from `first` on.
Value deletions(std::vector<std::tuple<std::string, const char*, int, int>> lists, const Value& date,
                const Value& session) {
  std::vector<std::pair<Value, Value>> perEntity;
  for (const auto& [entity, prefix, first, count] : lists) {
    std::vector<std::pair<Value, Value>> uids;
    for (int i = first; i < first + count; ++i) uids.emplace_back(Value(uidNumber(prefix, i)), Value::dictionary());
    perEntity.emplace_back(Value(entity), Value::dictionary(std::move(uids)));
  }
  Value record = Value::mutableDictionary(
      {{Value("name"), Value("2024-05-17-09-41-07.250.X")},
       {Value("session"), session},
       {Value("changes"), Value::dictionary({{Value("delete"), Value::dictionary(perEntity)}})}});
  if (!date.isNil()) record.set(Value("date"), date);
  return record.copy();
}

const char* const kTotalOfThings =
    "\nTotal: 100 deleted Thing (including subentities) objects (last 50 per entity type)\n";

size_t occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

class RecentDeletesTest : public ::testing::Test {
 protected:
  RecentDeletesTest() {
    env.home = dir / "home";
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  }
  DocumentOptions options() {
    DocumentOptions o;
    o.model = model;
    o.application = ApplicationInfo{"com.example.Test", "Test", "7", "1.0", Value()};
    o.cacheRoot = dir / "cache";
    o.interaction = ui;
    o.env = &env;
    o.defaults = std::make_shared<UserDefaults>(&env, dir / "defaults.plist");
    o.useKeychain = false;
    return o;
  }
  // 70 Things and 3 Gadgets deleted by Ann on her laptop, then 60 Gadgets by Bob, undated.
  void logManyDeletions(CorvaneDocument& doc) {
    CorvaneCache* cache = doc.store()->cache();
    cache->addChange(
        deletions({{"Thing", "AAAAAAAA", 0, 70}, {"Gadget", "BBBBBBBB", 0, 3}}, Value("2024-05-17T09:41:07.250+0000"),
                  Value::dictionary({{Value("fullUserName"), Value("Ann")}, {Value("machineName"), Value("Laptop")}})),
        false);
    cache->addChange(
        deletions({{"Gadget", "CCCCCCCC", 0, 60}}, Value(),
                  Value::dictionary({{Value("fullUserName"), Value("Bob")}, {Value("machineName"), Value("Unknown")}})),
        false);
  }

  TempDir dir;
  HomeEnv env;
  ScopedRunLoopEnv clock_{RunLoop::main(), &env};
  std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(kPeopleModelJSON, nullptr);
  std::shared_ptr<OpenRecorder> ui = std::make_shared<OpenRecorder>();
  std::string package = dir / "Doc.corvane";
};

TEST_F(RecentDeletesTest, MessagesInsteadOfAReport) {
  EXPECT_EQ(CorvaneDocument(options()).recentDeletesReportForEntityName("Person"), "No change log available");
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc) << error.localizedDescription;
  ASSERT_TRUE(doc->store()->cache()->changes().empty());
  EXPECT_EQ(doc->recentDeletesReportForEntityName("Person"), "Change log content is empty");
  doc->context().insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
  EXPECT_EQ(doc->recentDeletesReportForEntityName("Nobody"), "Entity Nobody not found");
  EXPECT_EQ(doc->recentDeletesReportForEntityName("Person"), "No deleted Person objects found in recent changes");
  doc->close();
}

TEST_F(RecentDeletesTest, FiftyPerEntityFromTheStartOfTheLogSubEntitiesApart) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc) << error.localizedDescription;
  logManyDeletions(*doc);

  const std::string report = doc->recentDeletesReportForEntityName("Thing");
  EXPECT_EQ(report.rfind("=== Deleted Thing (including subentities) Objects ===\n\n\n--- Gadget (50 objects) ---\n", 0),
            0u)
      << report;
  EXPECT_NE(report.find("\n--- Thing (50 objects) ---\n"), std::string::npos);
  EXPECT_GT(report.find("--- Thing"), report.find("--- Gadget"));
  EXPECT_EQ(occurrences(report, " was deleted by "), 100u);
  EXPECT_NE(report.find("2024-05-17T09:41:07 Thing " + uidNumber("AAAAAAAA", 49) + " was deleted by Ann (Laptop)\n"),
            std::string::npos);
  EXPECT_EQ(report.find(uidNumber("AAAAAAAA", 50)), std::string::npos);
  // Gadget: the 3 of the first change, then the first 47 of the second.
  EXPECT_NE(report.find("2024-05-17T09:41:07 Gadget " + uidNumber("BBBBBBBB", 2) + " was deleted by Ann (Laptop)\n"),
            std::string::npos);
  EXPECT_NE(report.find("Unknown Gadget " + uidNumber("CCCCCCCC", 46) + " was deleted by Bob\n"), std::string::npos);
  EXPECT_EQ(report.find(uidNumber("CCCCCCCC", 47)), std::string::npos);
  EXPECT_TRUE(report.ends_with(kTotalOfThings));

  const std::string gadgets = doc->recentDeletesReportForEntityName("Gadget");
  EXPECT_EQ(gadgets.rfind("=== Deleted Gadget Objects ===\n\n\n--- Gadget (50 objects) ---\n", 0), 0u) << gadgets;
  EXPECT_TRUE(gadgets.ends_with("\nTotal: 50 deleted Gadget objects (last 50 per entity type)\n"));
  doc->close();
}

TEST_F(RecentDeletesTest, AHostsLabelReplacesTheUIDInLinesButNotInTheTotal) {
  Error error;
  auto doc = CorvaneDocument::open<LabellingDocument>(package, options(), &error);
  ASSERT_TRUE(doc) << error.localizedDescription;
  logManyDeletions(*doc);
  const std::string report = doc->recentDeletesReportForEntityName("Thing");
  EXPECT_NE(report.find("2024-05-17T09:41:07 Thing “Title AAAA” was deleted by Ann (Laptop)\n"), std::string::npos);
  EXPECT_EQ(report.find(uidNumber("AAAAAAAA", 0)), std::string::npos);
  EXPECT_NE(report.find("Unknown Gadget " + uidNumber("CCCCCCCC", 0)), std::string::npos);
  EXPECT_TRUE(report.ends_with(kTotalOfThings));
  doc->close();
}

TEST_F(RecentDeletesTest, ARealDeletionShowsWhoCreatedTheObjectAndTheReportIsSavedAndOpened) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc) << error.localizedDescription;
  auto ann = doc->context().insertNewObject("Person");
  ann->setValue("name", "Ann");
  ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
  const double createdAt = env.now();
  const std::string uid = storeUID(ann->objectID());
  const Value history = StoreDiagnostics(*doc->store()).changesHistoryForObjectID(ann->objectID());
  EXPECT_EQ(fieldValueInChangeEvents("name", history, FieldOccurrence::First), Value("Ann"));
  env.advance(60);
  ann->setValue("name", "Annie");
  ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
  const Value later = StoreDiagnostics(*doc->store()).changesHistoryForObjectID(ann->objectID());
  EXPECT_EQ(fieldValueInChangeEvents("name", later, FieldOccurrence::First), Value("Ann"));
  EXPECT_EQ(fieldValueInChangeEvents("name", later, FieldOccurrence::Last), Value("Annie"));
  EXPECT_TRUE(fieldValueInChangeEvents("age", later, FieldOccurrence::Last).isNil());
  env.advance(60);
  doc->context().deleteObject(ann.get());
  ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;

  const std::string report = doc->recentDeletesReportForEntityName("Person");
  EXPECT_NE(report.find(" Person " + uid + " was deleted by "), std::string::npos) << report;
  const std::string createdOn = DateFormatter(kSecondsDatePattern, DateTimeZone::gmt()).format(createdAt);
  EXPECT_NE(report.find("\n   ↳ Created on " + createdOn + " by "), std::string::npos) << report;

  std::optional<std::string> path = doc->logRecentDeletesForEntityName("Person");
  ASSERT_TRUE(path);
  EXPECT_EQ(*path, env.home + "/Desktop/Deleted_Person_Objects_" +
                       DateFormatter(kFileStampDatePattern, DateTimeZone::gmt()).format(env.now()) + ".txt");
  EXPECT_EQ(readTextFile(*path), report);
  EXPECT_EQ(ui->opened, std::vector<std::string>{*path});

  // A desktop that is not a folder: nothing written, nothing opened.
  env.home = dir / "elsewhere";
  writeTextFile(env.home + "/Desktop", "not a folder");
  EXPECT_FALSE(doc->logRecentDeletesForEntityName("Person"));
  EXPECT_EQ(ui->opened.size(), 1u);
  doc->close();
}

}  // namespace
}  // namespace corvane::testing
