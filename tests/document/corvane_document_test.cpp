// The document as a host opens it: the checks before the store is added, the state it shows,
// durable saves and other devices' changes through a subscription.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "corvane/cache/cache.h"
#include "corvane/document/corvane_document.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/graph/corvane_undo_manager.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "support/temp_dir.h"
#include "support/test_models.h"

namespace corvane::testing {
namespace {

// A fake clock, a home folder inside the test's folder and a disk whose free space is set.
class DocumentTestEnv : public ManualClockEnv {
 public:
  std::string home;
  std::optional<uint64_t> free;
  std::string homeDirectory() override { return home; }
  std::optional<uint64_t> freeSpace(const std::string& path) override {
    return free ? free : ManualClockEnv::freeSpace(path);
  }
};

// Records what the document showed; answers with chosen buttons.
class ScriptedInteraction final : public Interaction {
 public:
  size_t runAlert(const Alert& alert) override { return answerAlert(alert).button; }
  AlertAnswer answerAlert(const Alert& alert) override {
    alerts.push_back(alert.message);
    return AlertAnswer{button, suppress};
  }
  void revealInFileViewer(const std::string& path) override { reveals.push_back(path); }
  void openFile(const std::string& path) override { opened.push_back(path); }
  std::optional<SavePanelAnswer> runSavePanel(const SavePanel& panel) override {
    panels.push_back(panel);
    return savePanelAnswer;
  }
  std::optional<std::string> askPassword(const std::string& message) override {
    prompts.push_back(message);
    return password;
  }
  void requestTermination() override { ++terminations; }
  size_t button = 0;
  bool suppress = false;
  std::optional<std::string> password;
  std::vector<std::string> alerts, reveals, prompts, opened;
  std::optional<SavePanelAnswer> savePanelAnswer;
  std::vector<SavePanel> panels;
  int terminations = 0;
};

class DocumentTest : public ::testing::Test {
 protected:
  DocumentTest() {
    env.home = dir / "home";
    // Settings of the code under test stay inside the test's folder.
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  }
  DocumentOptions options(const std::string& cache = "cacheA") {
    DocumentOptions o;
    o.model = model;
    o.application = ApplicationInfo{"com.example.Test", "Test", "7", "1.0", Value()};
    o.cacheRoot = dir / cache;
    o.interaction = ui;
    o.env = &env;
    o.defaults = defaults;
    o.encryptionRounds = 1000;
    return o;
  }

  TempDir dir;
  DocumentTestEnv env;
  ScopedRunLoopEnv clock_{RunLoop::main(), &env};
  std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(kPeopleModelJSON, nullptr);
  std::shared_ptr<ScriptedInteraction> ui = std::make_shared<ScriptedInteraction>();
  std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(&env, dir / "defaults.plist");
  std::string package = dir / "Doc.corvane";
};

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

TEST_F(DocumentTest, ProgressBusyStateAndTheEditedMark) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc);
  doc->setItemsToLoad(150);
  EXPECT_FALSE(doc->isBusy());
  doc->setItemsToLoad(201);
  EXPECT_TRUE(doc->isBusy());
  EXPECT_EQ(doc->maxItemsToLoad(), 201);
  doc->setItemsToLoad(150);
  EXPECT_TRUE(doc->isBusy());
  doc->setItemsToLoad(0);
  EXPECT_FALSE(doc->isBusy());
  // A saved package never shows as edited.
  doc->updateChangeCount(PersistentDocument::ChangeKind::Done);
  EXPECT_FALSE(doc->isDocumentEdited());
  EXPECT_NE(dynamic_cast<CorvaneUndoManager*>(doc->undoManager()), nullptr);
  // A short history is not worth optimizing; outside a sync service nobody else is warned of.
  EXPECT_FALSE(doc->shouldOfferOptimizeFile());
  EXPECT_EQ(doc->optimizeFileConfirmationText(), "Optimizing consolidates all changes in this file.");
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

TEST_F(DocumentTest, ConsolidationKeepsIdentityOptionsAndPasswordAndLeavesADatedBackup) {
  for (const bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted ? "encrypted" : "plain");
    package = dir / (encrypted ? "Secret.corvane" : "Doc.corvane");
    DocumentOptions o = options(encrypted ? "cacheE" : "cacheP");
    o.documentOptions = dict({{"flavour", "plain"}});
    if (encrypted) o.password = "secret";
    Error error;
    auto doc = CorvaneDocument::open(package, o, &error);
    ASSERT_TRUE(doc) << error.localizedDescription;
    for (const char* name : {"Ann", "Bob", "Cid"}) {
      env.advance(1);
      doc->context().insertNewObject("Person")->setValue("name", name);
      ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
    }
    const std::string identifier = doc->documentIdentifier();
    const std::string backup = doc->backupPathForConsolidation(env.now());
    std::optional<bool> swapped;
    doc->consolidate([&swapped](bool done) { swapped = done; });
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return swapped.has_value(); }, 30));
    ASSERT_TRUE(*swapped);
    EXPECT_FALSE(doc->isConsolidating());

    std::vector<std::string> changes;
    ASSERT_TRUE(env.listDirectory(package + "/Changes", true, &changes, nullptr));
    EXPECT_EQ(changes.size(), 1u);
    std::vector<std::string> old;
    ASSERT_TRUE(env.listDirectory(backup + "/Changes", true, &old, nullptr));
    EXPECT_EQ(old.size(), 3u);
    EXPECT_FALSE(env.fileExists(package + ".temporary"));
    EXPECT_EQ(CorvaneStore::documentIdentifierForURL(package, &env), identifier);
    EXPECT_EQ(CorvaneStore::infoDictionaryForURL(package, &env)["DocumentOptions"], o.documentOptions);
    EXPECT_EQ(CorvaneStore::canOpenURL(package, encrypted ? std::optional<std::string>("secret") : std::nullopt, &env),
              true);
    FetchRequest people("Person");
    EXPECT_EQ(doc->context().count(people), std::optional<size_t>(3));
    // The document goes on in its new package, and a new device finds everything there.
    doc->context().insertNewObject("Person")->setValue("name", "Dan");
    ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
    doc->close();
    auto other = CorvaneDocument::open(package, options(encrypted ? "otherE" : "otherP"), &error);
    if (encrypted) {
      EXPECT_FALSE(other);  // asks, and the scripted person cancels
      DocumentOptions withPassword = options("otherE");
      withPassword.password = "secret";
      other = CorvaneDocument::open(package, withPassword, &error);
    }
    ASSERT_TRUE(other) << error.localizedDescription;
    EXPECT_EQ(other->context().count(people), std::optional<size_t>(4));
    // The backup is refused, naming the original.
    EXPECT_FALSE(CorvaneDocument::open(backup, options("backup"), &error));
    EXPECT_EQ(error.recoverySuggestion,
              "The original file is named “" + pathDeletingExtension(pathLastComponent(package)) +
                  "” and is located in the same folder.");
  }
}

TEST_F(DocumentTest, ADeviceThatDidNotConsolidateClosesAndSaysSo) {
  Error error;
  auto laptop = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(laptop);
  laptop->context().insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(laptop->save(&error));
  auto desktop = CorvaneDocument::open(package, options("cacheB"), &error);
  ASSERT_TRUE(desktop);
  std::optional<bool> swapped;
  laptop->consolidate([&swapped](bool done) { swapped = done; });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return swapped.has_value(); }, 30));
  // The device that consolidated goes on; the other one closes at its next look and says why.
  env.advance(1);
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return desktop->isClosed(); }, 30));
  EXPECT_FALSE(laptop->isClosed());
  EXPECT_FALSE(laptop->checkConsolidatedElsewhere());
  EXPECT_EQ(ui->alerts, std::vector<std::string>{"Optimize File"});
}

TEST_F(DocumentTest, ConsolidationWithoutRoomTouchesNothing) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc);
  doc->context().insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(doc->save(&error));
  env.free = 1;
  std::optional<bool> swapped;
  doc->consolidate([&swapped](bool done) { swapped = done; });
  EXPECT_EQ(swapped, std::optional<bool>(false));
  EXPECT_EQ(ui->alerts, std::vector<std::string>{"Not enough storage space"});
  EXPECT_TRUE(doc->isConsolidating());  // stays set, as documented
  EXPECT_FALSE(env.fileExists(package + ".temporary"));
  std::vector<std::string> changes;
  ASSERT_TRUE(env.listDirectory(package + "/Changes", true, &changes, nullptr));
  EXPECT_EQ(changes.size(), 1u);
}

// What a document shows: every person's name, age, employer and friends, sorted.
std::vector<std::string> contents(ManagedObjectContext& context) {
  std::vector<std::string> out;
  FetchRequest people("Person");
  for (const auto& person : context.fetch(people).value_or(std::vector<Retained<ManagedObject>>{})) {
    std::string line = person->stringValue("name") + " " + person->value("age").description();
    if (Retained<ManagedObject> employer = person->toOne("employer")) line += " at " + employer->stringValue("name");
    std::vector<std::string> friends;
    for (const auto& other : person->toMany("friends")) friends.push_back(other->stringValue("name"));
    std::sort(friends.begin(), friends.end());
    for (const std::string& name : friends) line += " +" + name;
    out.push_back(line);
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(DocumentTest, ACopyUpToAChangeHoldsTheStateRightAfterItAndLeavesTheDocumentAlone) {
  for (const bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted ? "encrypted original" : "plain original");
    package = dir / (encrypted ? "Secret.corvane" : "Doc.corvane");
    DocumentOptions o = options(encrypted ? "cacheE" : "cacheP");
    o.documentOptions = dict({{"flavour", "plain"}});
    if (encrypted) o.password = "secret";
    Error error;
    auto doc = CorvaneDocument::open(package, o, &error);
    ASSERT_TRUE(doc) << error.localizedDescription;
    ManagedObjectContext& context = doc->context();
    // A history of inserts, updates, relationships and a delete; the state after each save is
    // what a copy up to that change must hold.
    std::vector<std::pair<std::string, std::vector<std::string>>> history;
    auto save = [&] {
      env.advance(1);
      ASSERT_TRUE(doc->save(&error)) << error.localizedDescription;
      history.emplace_back(doc->store()->lastCachedChange()["name"].str(), contents(context));
    };
    auto ann = context.insertNewObject("Person");
    ann->setValue("name", "Ann");
    save();
    auto bob = context.insertNewObject("Person");
    bob->setValue("name", "Bob");
    ann->setValue("age", Value(41));
    auto acme = context.insertNewObject("Company");
    acme->setValue("name", "Acme");
    save();
    bob->setToOne("employer", acme.get());
    bob->addToMany("friends", ann.get());
    save();
    context.deleteObject(ann.get());
    bob->setValue("name", "Robert");
    save();
    const std::vector<std::string> now = contents(context);
    std::vector<std::string> changes;
    ASSERT_TRUE(env.listDirectory(package + "/Changes", true, &changes, nullptr));
    std::vector<std::string> cache;
    ASSERT_TRUE(env.listDirectory(doc->store()->cache()->URL(), true, &cache, nullptr));

    for (size_t i = 0; i < history.size(); ++i) {
      SCOPED_TRACE(history[i].first);
      CopyRequest request;
      request.path = dir / fmt::format("Copy{}{}.corvane", encrypted, i);
      request.upToChange = history[i].first;
      if (i % 2 == 1) request.password = "copy";
      std::optional<CopyResult> result;
      doc->writeCopy(request, [&result](const CopyResult& r) { result = r; });
      ASSERT_TRUE(RunLoop::main().runUntil([&] { return result.has_value(); }, 30));
      ASSERT_TRUE(result->written) << result->error.description();
      EXPECT_EQ(CorvaneStore::canOpenURL(request.path, std::nullopt, &env), !request.password.has_value());
      const Value info = CorvaneStore::infoDictionaryForURL(request.path, &env);
      EXPECT_NE(info["DocumentIdentifier"].str(), doc->documentIdentifier());
      EXPECT_EQ(info["DocumentOptions"], o.documentOptions);
      DocumentOptions reading = options(fmt::format("copy{}{}", encrypted, i));
      reading.password = request.password;
      auto copy = CorvaneDocument::open(request.path, reading, &error);
      ASSERT_TRUE(copy) << error.localizedDescription;
      EXPECT_EQ(contents(copy->context()), history[i].second);
    }
    // The document, its package and its cache are as they were.
    EXPECT_EQ(contents(context), now);
    std::vector<std::string> after;
    ASSERT_TRUE(env.listDirectory(package + "/Changes", true, &after, nullptr));
    EXPECT_EQ(after, changes);
    ASSERT_TRUE(env.listDirectory(doc->store()->cache()->URL(), true, &after, nullptr));
    EXPECT_EQ(after, cache);

    // Bad requests are refused before anything is written.
    CopyRequest request;
    request.path = dir / fmt::format("Copy{}0.corvane", encrypted);  // made above
    std::optional<CopyResult> result;
    doc->writeCopy(request, [&result](const CopyResult& r) { result = r; });
    ASSERT_TRUE(result && !result->written);
    EXPECT_EQ(result->error.localizedDescription, request.path + " already exists");
    request.path = dir / fmt::format("Nowhere{}.corvane", encrypted);
    request.upToChange = "nothing.json";
    doc->writeCopy(request, [&result](const CopyResult& r) { result = r; });
    ASSERT_TRUE(result && !result->written);
    EXPECT_FALSE(env.fileExists(request.path));
  }
}

TEST_F(DocumentTest, SaveAsProposesADatedNameAndOpensOnlyACopyUpToAChange) {
  env.setTimeZoneOffset(0);
  env.setNow(731160000.0);  // 3 March 2024, noon
  Error error;
  DocumentOptions o = options();
  o.password = "secret";
  auto doc = CorvaneDocument::open(dir / "Accounts.corvane", o, &error);
  ASSERT_TRUE(doc) << error.localizedDescription;
  EXPECT_EQ(doc->proposedSaveAsName(), "Accounts 2024-03-03");
  doc->context().insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(doc->save(&error));
  const std::string first = doc->store()->lastCachedChange()["name"].str();

  // Cancelled: nothing happens.
  std::optional<CopyResult> result;
  doc->saveDocumentAs([&result](const CopyResult& r) { result = r; });
  ASSERT_TRUE(result && !result->written && result->path.empty());
  ASSERT_EQ(ui->panels.size(), 1u);
  EXPECT_EQ(ui->panels[0].directory, dir.path());
  EXPECT_EQ(ui->panels[0].proposedName, "Accounts 2024-03-03");

  // As it stands now: written without a password, even from an encrypted document, and not opened.
  ui->savePanelAnswer = SavePanelAnswer{dir / "Now.corvane", std::nullopt, false};
  result.reset();
  doc->saveDocumentAs([&result](const CopyResult& r) { result = r; });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return result.has_value(); }, 30));
  ASSERT_TRUE(result->written);
  EXPECT_TRUE(CorvaneStore::canOpenURL(dir / "Now.corvane", std::nullopt, &env));
  EXPECT_TRUE(env.fileExists(dir / "Now.corvane/Cache"));  // the copy carries its cache
  EXPECT_TRUE(ui->opened.empty());

  // Up to a change: opened.
  ui->savePanelAnswer = SavePanelAnswer{dir / "Then.corvane", std::string("other"), false};
  result.reset();
  doc->saveDocumentUpToChange(first, [&result](const CopyResult& r) { result = r; });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return result.has_value(); }, 30));
  ASSERT_TRUE(result->written);
  EXPECT_TRUE(CorvaneStore::canOpenURL(dir / "Then.corvane", std::string("other"), &env));
  EXPECT_EQ(ui->opened, std::vector<std::string>{dir / "Then.corvane"});

  doc->close();
  auto untitled = std::make_unique<CorvaneDocument>(options());
  EXPECT_EQ(untitled->proposedSaveAsName(), "Untitled");
}

}  // namespace
}  // namespace corvane::testing
