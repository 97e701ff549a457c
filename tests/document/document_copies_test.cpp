// New packages made from a document: consolidation (and how other devices hear of it) and
// copies as the document stands now or as it stood after a change.
#include <fmt/format.h>

#include <algorithm>

#include "corvane/cache/cache.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "corvane/testing/sync_simulator.h"
#include "document/document_test_support.h"

namespace corvane::testing {
namespace {

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

TEST_F(DocumentTest, ConsolidationKeepsIdentityOptionsAndPasswordAndLeavesADatedBackup) {
  for (const bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted ? "encrypted" : "plain");
    DocumentOptions o;
    auto doc = openWithOptions(encrypted, &o);
    ASSERT_TRUE(doc);
    Error error;
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
    EXPECT_EQ(doc->lastConsolidationBackup(), backup);
    EXPECT_FALSE(doc->isConsolidating());

    std::vector<std::string> changes;
    ASSERT_TRUE(env.listDirectory(package + "/Changes", true, &changes, nullptr));
    EXPECT_EQ(changes.size(), 1u);
    std::vector<std::string> old;
    ASSERT_TRUE(env.listDirectory(backup + "/Changes", true, &old, nullptr));
    EXPECT_EQ(old.size(), 3u);
    EXPECT_FALSE(env.fileExists(package + ".temporary"));
    EXPECT_EQ(CorvanePackage::documentIdentifierForURL(package, &env), identifier);
    EXPECT_EQ(CorvanePackage::infoDictionaryForURL(package, &env)["DocumentOptions"], o.documentOptions);
    EXPECT_EQ(
        CorvanePackage::canOpenURL(package, encrypted ? std::optional<std::string>("secret") : std::nullopt, &env),
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
    EXPECT_EQ(error.recoverySuggestion, "The original file is named “" +
                                            pathDeletingExtension(pathLastComponent(package)) +
                                            "” and is located in the same folder.");
  }
}

// A sync client carries a consolidation either as the package folder renamed to the backup's
// name, or as the package's files removed and the backup's and new package's files created.
// Either way the other device closes the document and says why; once everything has arrived it
// opens the consolidated package with the same objects.
TEST_F(DocumentTest, AnotherDeviceHearsOfAConsolidationWhicheverWayTheClientCarriesIt) {
  for (const bool renamed : {false, true}) {
    SCOPED_TRACE(renamed ? "renamed folder" : "removed and created files");
    const std::string laptopFolder = dir / fmt::format("laptop-{}", renamed);
    const std::string desktopFolder = dir / fmt::format("desktop-{}", renamed);
    ASSERT_TRUE(env.createDirectory(laptopFolder, true, nullptr));
    ASSERT_TRUE(env.createDirectory(desktopFolder, true, nullptr));
    SyncSimulator sync(&env, 7);
    sync.addFolder(laptopFolder);
    sync.addFolder(desktopFolder);
    Error error;
    auto laptop = CorvaneDocument::open(laptopFolder + "/Doc.corvane", options(fmt::format("L{}", renamed)), &error);
    ASSERT_TRUE(laptop) << error.localizedDescription;
    for (const char* name : {"Ann", "Bob"}) {
      env.advance(1);
      laptop->context().insertNewObject("Person")->setValue("name", name);
      ASSERT_TRUE(laptop->save(&error));
    }
    sync.settle();
    DocumentOptions desktopOptions = options(fmt::format("D{}", renamed));
    desktopOptions.machineName = "Desktop";
    auto desktop = CorvaneDocument::open(desktopFolder + "/Doc.corvane", desktopOptions, &error);
    ASSERT_TRUE(desktop) << error.localizedDescription;
    FetchRequest people("Person");
    ASSERT_EQ(desktop->context().count(people), std::optional<size_t>(2));

    std::optional<bool> swapped;
    laptop->consolidate([&swapped](bool done) { swapped = done; });
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return swapped.has_value(); }, 30));
    ASSERT_TRUE(*swapped);
    if (renamed) {
      // The client moves the folder; the new package follows as a copy of the laptop's.
      std::vector<std::string> names;
      ASSERT_TRUE(env.listDirectory(laptopFolder, true, &names, nullptr));
      const auto backup =
          std::find_if(names.begin(), names.end(), [](const std::string& n) { return pathExtension(n) == "backup"; });
      ASSERT_NE(backup, names.end());
      ASSERT_TRUE(env.moveItem(desktopFolder + "/Doc.corvane", desktopFolder + "/" + *backup, nullptr));
      env.advance(1);
      ASSERT_TRUE(RunLoop::main().runUntil([&] { return desktop->isClosed(); }, 30));
      ASSERT_TRUE(env.copyItem(laptopFolder + "/Doc.corvane", desktopFolder + "/Doc.corvane", nullptr));
    } else {
      sync.settle();
      env.advance(1);
      ASSERT_TRUE(RunLoop::main().runUntil([&] { return desktop->isClosed(); }, 30));
    }
    EXPECT_FALSE(laptop->isClosed());
    EXPECT_EQ(ui->alerts, std::vector<std::string>{"Optimize File"});
    ui->alerts.clear();
    desktop.reset();
    auto reopened = CorvaneDocument::open(desktopFolder + "/Doc.corvane", desktopOptions, &error);
    ASSERT_TRUE(reopened) << error.localizedDescription;
    EXPECT_EQ(contents(reopened->context()), contents(laptop->context()));
    EXPECT_EQ(reopened->store()->changesFileCount(), 1u);
  }
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

TEST_F(DocumentTest, ACopyUpToAChangeHoldsTheStateRightAfterItAndLeavesTheDocumentAlone) {
  for (const bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted ? "encrypted original" : "plain original");
    DocumentOptions o;
    auto doc = openWithOptions(encrypted, &o);
    ASSERT_TRUE(doc);
    Error error;
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
      EXPECT_EQ(CorvanePackage::canOpenURL(request.path, std::nullopt, &env), !request.password.has_value());
      const Value info = CorvanePackage::infoDictionaryForURL(request.path, &env);
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
  EXPECT_TRUE(CorvanePackage::canOpenURL(dir / "Now.corvane", std::nullopt, &env));
  EXPECT_TRUE(env.fileExists(dir / "Now.corvane/Cache"));  // the copy carries its cache
  EXPECT_TRUE(ui->opened.empty());

  // Up to a change: opened.
  ui->savePanelAnswer = SavePanelAnswer{dir / "Then.corvane", std::string("other"), false};
  result.reset();
  doc->saveDocumentUpToChange(first, [&result](const CopyResult& r) { result = r; });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return result.has_value(); }, 30));
  ASSERT_TRUE(result->written);
  EXPECT_TRUE(CorvanePackage::canOpenURL(dir / "Then.corvane", std::string("other"), &env));
  EXPECT_EQ(ui->opened, std::vector<std::string>{dir / "Then.corvane"});

  doc->close();
  auto untitled = std::make_unique<CorvaneDocument>(options());
  EXPECT_EQ(untitled->proposedSaveAsName(), "Untitled");
}

}  // namespace
}  // namespace corvane::testing
