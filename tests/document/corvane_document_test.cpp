// The document as a host opens it: the checks before the store is added, the state it shows,
// durable saves and other devices' changes through a subscription.
#include "corvane/graph/corvane_undo_manager.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/store/corvane_store.h"
#include "document/document_test_support.h"

namespace corvane::testing {
namespace {

TEST_F(DocumentTest, OpensSavesDurablyAndHearsOtherDevicesThroughASubscription) {
  Error error;
  auto laptop = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(laptop) << error.localizedDescription;
  EXPECT_TRUE(laptop->isReady());
  EXPECT_FALSE(laptop->documentIdentifier().empty());
  auto ann = laptop->context().insertNewObject("Person");
  ann->setValue("name", "Ann");
  ASSERT_TRUE(laptop->save(&error)) << error.localizedDescription;
  EXPECT_EQ(pathLastComponent(package), "Doc.corvane");

  DocumentOptions other = options("cacheB");
  other.machineName = "Desktop";
  auto desktop = CorvaneDocument::open(package, other, &error);
  ASSERT_TRUE(desktop) << error.localizedDescription;
  EXPECT_EQ(desktop->documentIdentifier(), laptop->documentIdentifier());
  FetchRequest people("Person");
  ASSERT_EQ(desktop->context().count(people), std::optional<size_t>(1));

  std::vector<std::string> heard;
  Subscription watch = laptop->onExternalChanges([&heard](const ExternalChanges& changes) {
    for (const auto& object : changes.inserted) heard.push_back(object->stringValue("name"));
  });
  env.advance(1);
  desktop->context().insertNewObject("Person")->setValue("name", "Bob");
  ASSERT_TRUE(desktop->save(&error)) << error.localizedDescription;
  EXPECT_EQ(desktop->store()->lastCachedChange()["session"]["machineName"], Value("Desktop"));
  const size_t passes = laptop->store()->finishedPasses();
  laptop->store()->updateChanges();
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return laptop->store()->finishedPasses() > passes; }, 30));
  RunLoop::main().runOnce();
  EXPECT_EQ(heard, std::vector<std::string>{"Bob"});

  // Once the handle is gone, nothing more arrives.
  watch.unsubscribe();
  env.advance(1);
  desktop->context().insertNewObject("Person")->setValue("name", "Cid");
  ASSERT_TRUE(desktop->save(&error));
  laptop->store()->updateChanges();
  RunLoop::main().runUntil([&] { return laptop->store()->finishedPasses() > passes + 1; }, 30);
  EXPECT_EQ(heard.size(), 1u);
  desktop->close();
  laptop->close();
}

TEST_F(DocumentTest, ANewDocumentWhereALostOneWasStartsItsOwnHistory) {
  Error error;
  for (const char* name : {"Ann", "Bob"}) {
    auto doc = CorvaneDocument::open(package, options(), &error);
    ASSERT_TRUE(doc) << error.localizedDescription;
    doc->context().insertNewObject("Person")->setValue("name", name);
    ASSERT_TRUE(doc->save(&error));
    doc->close();
    doc.reset();
    if (std::string(name) == "Ann") {
      ASSERT_TRUE(env.removeItem(package, nullptr));  // lost; its cache stays
    }
  }
  auto fresh = CorvaneDocument::open(package, options("elsewhere"), &error);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->context().count(FetchRequest("Person")), std::optional<size_t>(1));
}

TEST_F(DocumentTest, ABackupIsRefusedNamingTheOriginal) {
  Error error;
  EXPECT_FALSE(CorvaneDocument::open(dir / "Doc.ext.2024-01-01_10-00-00.backup", options(), &error));
  EXPECT_EQ(error.domain, kFrameworkBundleIdentifier);
  EXPECT_EQ(error.code, -1);
  EXPECT_EQ(error.localizedDescription,
            "This is a backup created while optimizing the file. Open the original file instead.");
  EXPECT_EQ(error.recoverySuggestion, "The original file is named “Doc” and is located in the same folder.");
}

TEST_F(DocumentTest, TheICloudWarningIsKeptPerPackagePath) {
  const std::string onICloud = env.home + "/Library/Mobile Documents/com~apple~CloudDocs/Doc.corvane";
  ui->suppress = true;
  Error error;
  auto first = CorvaneDocument::open(onICloud, options(), &error);
  ASSERT_TRUE(first) << error.localizedDescription;
  first->close();
  ASSERT_EQ(ui->alerts, std::vector<std::string>{"This file is saved on iCloud Drive"});
  // Stored under the package's path, not under the Changes folder that was tested.
  const Value shown = defaults->dictionaryForKey("kCorvaneICloudWarningHasBeenShown");
  EXPECT_TRUE(shown[onICloud].isDate());
  EXPECT_EQ(shown.count(), 1u);
  auto again = CorvaneDocument::open(onICloud, options(), &error);
  ASSERT_TRUE(again);
  EXPECT_EQ(ui->alerts.size(), 1u);
  EXPECT_FALSE(CorvaneDocument::URLisOnICloudDrive(dir / "elsewhere/Doc.corvane", &env));
}

TEST_F(DocumentTest, PasswordsComeFromTheOptionsOrThePromptAndANewPackageAsksForNone) {
  Error error;
  DocumentOptions encrypted = options();
  encrypted.password = "secret";
  auto created = CorvaneDocument::open(package, encrypted, &error);  // a new package: no prompt
  ASSERT_TRUE(created) << error.localizedDescription;
  created->close();
  EXPECT_TRUE(ui->prompts.empty());

  // Without a password the person is asked; cancelling ends the open without an error.
  auto cancelled = CorvaneDocument::open(package, options("cacheB"), &error);
  EXPECT_FALSE(cancelled);
  EXPECT_TRUE(error.localizedDescription.empty());
  EXPECT_EQ(ui->prompts.size(), 1u);
  ui->password = "secret";
  auto opened = CorvaneDocument::open(package, options("cacheB"), &error);
  ASSERT_TRUE(opened) << error.localizedDescription;
  EXPECT_EQ(opened->password(), std::optional<std::string>("secret"));
}

TEST_F(DocumentTest, LowDiskSpaceWarnsBelowOneHundredMillionBytesAndQuitAsksToTerminate) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc);
  env.free = 100'000'000;
  doc->checkDiskSpace();
  EXPECT_TRUE(ui->alerts.empty());
  env.free = 99'999'999;
  ui->button = 1;  // "Quit"
  doc->checkDiskSpace();
  ASSERT_EQ(ui->alerts, std::vector<std::string>{"Low disk space warning"});
  EXPECT_EQ(ui->terminations, 1);
  EXPECT_FALSE(doc->isShowingDiskSpaceWarning());
}

}  // namespace
}  // namespace corvane::testing
