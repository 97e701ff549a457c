// The update pass at opening: which change files it applies, every check of a change file and of
// the object and data files it lists, what stops the pass, and what recovery mode does.
#include <algorithm>
#include <functional>

#include "corvane/foundation/plist.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

// Device A wrote c1 (Ann, with a photo); device B, a minute later, c2 (Ann renamed, Bob
// inserted with a photo). Device A's cache holds c1 only, so opening on A applies c2.
struct History {
  std::string c1, c2;
  std::string ann, bob;
  std::string bobFile;   // Bob's object file of c2
  std::string bobData;   // Bob's data file
  std::string bobShort;  // Bob's object file relative to the package
  std::string bobDataShort;
};

class ValidationTest : public StoreTest {
 protected:
  History twoDevices(const Value& extra = Value()) {
    History h;
    OpenStore a = open(extra);
    auto ann = a.context->insertNewObject("Person");
    ann->setValue("name", "Ann");
    ann->setValue("photo", Value::data(asBytes("ANNPHOTO")));
    a.context->insertNewObject("Company")->setValue("name", "Acme");
    EXPECT_TRUE(save(a));
    h.ann = storeUID(ann->objectID());
    close(a);

    // B's change inserts people and updates companies. (An entity that a change both inserts
    // and updates has only its updated objects checked.)
    env.advance(60);
    const std::string rootA = cacheRoot;
    cacheRoot = dir / "cachesB";
    OpenStore b = open(extra);
    FetchRequest request("Company");
    auto companies = b.context->fetch(request);
    EXPECT_TRUE(companies && companies->size() == 1);
    (*companies)[0]->setValue("name", "Acme B");
    auto bob = b.context->insertNewObject("Person");
    bob->setValue("name", "Bob");
    bob->setValue("photo", Value::data(asBytes("BOBPHOTO")));
    EXPECT_TRUE(save(b));
    h.bob = storeUID(bob->objectID());
    close(b);
    cacheRoot = rootA;

    const std::vector<std::string> names = list(package + "/Changes");
    EXPECT_EQ(names.size(), 2u);
    h.c1 = names.at(0);
    h.c2 = names.at(1);
    const std::string folder = CorvanePackage::entityFolderName("Person", extra["password"].isString());
    h.bobShort = "Entities/" + folder + "/" + h.bob + "/" + h.c2;
    h.bobFile = package + "/" + h.bobShort;
    const std::vector<std::string> data = list(package + "/Entities/" + folder + "/" + h.bob + "/Data");
    EXPECT_EQ(data.size(), 1u);
    h.bobDataShort = "Entities/" + folder + "/" + h.bob + "/Data/" + data.at(0);
    h.bobData = package + "/" + h.bobDataShort;
    return h;
  }

  std::string companyName(OpenStore& s) {
    FetchRequest request("Company");
    auto companies = s.context->fetch(request);
    return companies && companies->size() == 1 ? (*companies)[0]->stringValue("name") : std::string("?");
  }

  std::vector<std::string> names(OpenStore& s) {
    FetchRequest request("Person");
    std::vector<std::string> out;
    auto people = s.context->fetch(request);
    if (!people) return out;
    for (const auto& p : *people) out.push_back(p->stringValue("name"));
    std::sort(out.begin(), out.end());
    return out;
  }

  // The failure is reported once with its level and the repair menu, validation fails, and the
  // change stays unapplied; in recovery mode it is applied.
  void expectStops(const History& h, const std::string& prefix, const std::string& path, const std::string& type,
                   bool withMenu = true, const Value& extra = Value()) {
    const std::string message = prefix + path;
    OpenStore s = open(extra);
    auto entry = entryWith(s.store, prefix, path);
    if (!entry) {
      for (const std::string& m : messages(s.store)) ADD_FAILURE() << m;
    }
    ASSERT_TRUE(entry) << message;
    EXPECT_EQ(entry->type, type) << message;
    if (withMenu) {
      const std::string c2 = package + "/Changes/" + h.c2;
      EXPECT_EQ(entry->menu, (std::vector<StoreMenuItem>{{"Ignore", kStoreMenuActionDiscardChange, c2},
                                                         {"Show in Finder", kStoreMenuActionShowInFinder, c2}}));
    } else {
      EXPECT_TRUE(entry->menu.empty());
    }
    EXPECT_NE(entry->message.find("(8 Mar 2023, 20:27 "), std::string::npos) << entry->message;
    auto failed = entryContaining(s.store, "Failed validation Changes/" + h.c2);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->type, kCorvaneLogTypeError);
    EXPECT_EQ(s.store->errorLevel(), kCorvaneLogTypeError);
    EXPECT_TRUE(entryContaining(s.store, "Missing files: Abort and trying again in some seconds"));
    // What was applied before stays; the damaged change does not arrive.
    EXPECT_EQ(names(s), std::vector<std::string>{"Ann"});
    EXPECT_EQ(companyName(s), "Acme");
    EXPECT_EQ(s.store->cache()->changes().count(), 1u);
    close(s);

    Value recovering = store_internal_merge(extra, dict({{kCorvaneRecoverOption, true}}));
    OpenStore r = open(recovering);
    EXPECT_EQ(r.store->cache()->changes().count(), 2u) << message;
    FetchRequest request("Person");
    EXPECT_EQ(r.context->count(request), std::optional<size_t>(2)) << message;
    EXPECT_EQ(companyName(r), "Acme B");
    EXPECT_FALSE(entryContaining(r.store, "Missing files: Abort"));
    close(r);
  }

  static Value store_internal_merge(const Value& a, const Value& b) {
    Value out = a.isDictionary() ? a.mutableCopy() : Value::mutableDictionary();
    for (const auto& [k, v] : b.entries()) out.set(k, v);
    return out.copy();
  }
};

TEST_F(ValidationTest, ChangesFromAnotherDeviceAreAppliedAtOpening) {
  History h = twoDevices();
  OpenStore s = open();
  EXPECT_EQ(names(s), (std::vector<std::string>{"Ann", "Bob"}));
  EXPECT_EQ(companyName(s), "Acme B");
  auto done = entryContaining(s.store, "Completed validation Changes/" + h.c2);
  ASSERT_TRUE(done);
  EXPECT_EQ(done->type, kCorvaneLogTypeSuccess);
  EXPECT_TRUE(entryContaining(s.store, "Begin validation of Company"));
  EXPECT_TRUE(entryContaining(s.store, "up to date after"));
  EXPECT_EQ(s.store->errorLevel(), kCorvaneLogTypeSuccess);
  EXPECT_EQ(s.store->changesFileCount(), 2u);
  close(s);
  // Opening again finds nothing new.
  OpenStore again = open();
  EXPECT_TRUE(entryContaining(again.store, "No new changes to apply"));
  close(again);
}

// One damaged object or data file of the other device's change, what it does to that file, and
// the message naming it.
struct Damage {
  const char* name;
  std::function<void(FakeVolumes&, const History&)> harm;
  const char* prefix;
  bool dataFile;
  const char* type;
};

class DamagedFileTest : public ValidationTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(DamagedFileTest, StopsThePassUnlessRecovering) {
  History h = twoDevices();
  GetParam().harm(*volumes, h);
  expectStops(h, GetParam().prefix, GetParam().dataFile ? h.bobDataShort : h.bobShort, GetParam().type);
}

INSTANTIATE_TEST_SUITE_P(
    ValidationTest, DamagedFileTest,
    ::testing::Values(
        Damage{"MissingObjectFile",
               [](FakeVolumes&, const History& h) { EXPECT_TRUE(Env::defaultEnv()->removeItem(h.bobFile, nullptr)); },
               "Missing file: ", false, kCorvaneLogTypeWarning},
        Damage{"EmptyObjectFile", [](FakeVolumes&, const History& h) { writeTextFile(h.bobFile, ""); },
               "Empty file: ", false, kCorvaneLogTypeWarning},
        Damage{"IncompleteObjectFile",
               [](FakeVolumes&, const History& h) { writeTextFile(h.bobFile, "{\"version\":\"1\",\"type\":\"ins"); },
               "Incomplete file: ", false, kCorvaneLogTypeWarning},
        Damage{"ObjectFileNotOnDisk", [](FakeVolumes& volumes, const History& h) { volumes.remote.insert(h.bobFile); },
               "File not on disk: ", false, kCorvaneLogTypeError},
        Damage{"MissingDataFile",
               [](FakeVolumes&, const History& h) { EXPECT_TRUE(Env::defaultEnv()->removeItem(h.bobData, nullptr)); },
               "Data file is not on disk: ", true, kCorvaneLogTypeError},
        Damage{"DataFileOfTheWrongLength",
               [](FakeVolumes&, const History& h) { writeTextFile(h.bobData, "BOBPHOTO and more"); },
               "Missing or incomplete data file: ", true, kCorvaneLogTypeWarning},
        Damage{"DataFileWithTheWrongHash", [](FakeVolumes&, const History& h) { writeTextFile(h.bobData, "BOBPHOTX"); },
               "Hash mismatch for data file: ", true, kCorvaneLogTypeWarning}),
    [](const ::testing::TestParamInfo<Damage>& row) { return std::string(row.param.name); });

TEST_F(ValidationTest, ADataFileKeptUnderALongerNameIsFound) {
  History h = twoDevices();
  env.moveItem(h.bobData, h.bobData + " (conflicted copy)", nullptr);
  OpenStore s = open();
  EXPECT_EQ(names(s), (std::vector<std::string>{"Ann", "Bob"}));
  close(s);
}

TEST_F(ValidationTest, UndecryptableObjectFileIsReportedWithoutStoppingTheChecks) {
  const Value password = dict({{"password", "secret"}});
  History h = twoDevices(password);
  // Companies (updated) are checked before people (inserted).
  const std::string companies = "Entities/" + CorvanePackage::entityFolderName("Company", true);
  const std::string acmeShort = companies + "/" + list(package + "/" + companies).at(0) + "/" + h.c2;
  writeTextFile(package + "/" + acmeShort, std::string(100, 'x'));
  env.removeItem(h.bobFile, nullptr);
  OpenStore s = open(password);
  auto undecryptable = entryWith(s.store, "Decryption error on file: ", "Company " + acmeShort);
  ASSERT_TRUE(undecryptable);
  EXPECT_EQ(undecryptable->type, kCorvaneLogTypeWarning);
  EXPECT_TRUE(undecryptable->menu.empty());
  EXPECT_TRUE(entryWith(s.store, "Missing file: ", h.bobShort));
  EXPECT_TRUE(entryContaining(s.store, "Failed validation Changes/" + h.c2));
  EXPECT_EQ(names(s), std::vector<std::string>{"Ann"});
  close(s);
}

TEST_F(ValidationTest, UndecryptableObjectFileAloneFailsTheChange) {
  const Value password = dict({{"password", "secret"}});
  History h = twoDevices(password);
  writeTextFile(h.bobFile, std::string(100, 'x'));
  expectStops(h, "Decryption error on file: ", "Person " + h.bobShort, kCorvaneLogTypeWarning, false, password);
}

TEST_F(ValidationTest, ChangeFileNotOnDiskIsAppliedButThePassFails) {
  History h = twoDevices();
  const std::string c2 = package + "/Changes/" + h.c2;
  volumes->remote.insert(c2);
  OpenStore s = open();
  auto entry = entryContaining(s.store, "Change file is not on disk: Changes/" + h.c2);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeError);
  EXPECT_TRUE(s.store->hasRemoteFiles());
  EXPECT_TRUE(entryContaining(s.store, "Missing files: Abort and trying again in some seconds"));
  EXPECT_EQ(names(s), (std::vector<std::string>{"Ann", "Bob"}));
  close(s);
  OpenStore r = open(dict({{kCorvaneRecoverOption, true}}));
  EXPECT_FALSE(entryContaining(r.store, "Missing files: Abort"));
  close(r);
}

TEST_F(ValidationTest, UnreadableChangeFileStopsThePass) {
  History h = twoDevices();
  const std::string c2 = package + "/Changes/" + h.c2;
  env.unreadable.insert(c2);
  OpenStore s = open();
  auto entry = entryContaining(s.store, "Missing change file: Changes/" + h.c2);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeWarning);
  EXPECT_EQ(entry->menu, (std::vector<StoreMenuItem>{{"Ignore", kStoreMenuActionDiscardChange, c2}}));
  EXPECT_EQ(names(s), std::vector<std::string>{"Ann"});
  close(s);
}

TEST_F(ValidationTest, IncompleteChangeFileStopsThePassUnlessRecovering) {
  History h = twoDevices();
  const std::string c2 = package + "/Changes/" + h.c2;
  writeTextFile(c2, "{\"name\":");
  OpenStore s = open();
  auto entry = entryContaining(s.store, "Incomplete change file: Changes/" + h.c2);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeWarning);
  EXPECT_EQ(entry->menu, (std::vector<StoreMenuItem>{{"Ignore", kStoreMenuActionDiscardChange, c2},
                                                     {"Show in Finder", kStoreMenuActionShowInFinder, c2}}));
  EXPECT_EQ(s.store->cache()->changes().count(), 1u);
  s.store->performMenuItem(entry->menu[1]);
  EXPECT_EQ(interaction->reveals, std::vector<std::string>{c2});
  close(s);
  // Recovering goes past it: it counts as applied, with nothing in it.
  OpenStore r = open(dict({{kCorvaneRecoverOption, true}}));
  EXPECT_EQ(r.store->cache()->changes().count(), 2u);
  EXPECT_EQ(names(r), std::vector<std::string>{"Ann"});
  close(r);
}

TEST_F(ValidationTest, UndecryptableChangeFile) {
  const Value password = dict({{"password", "secret"}});
  History h = twoDevices(password);
  writeTextFile(package + "/Changes/" + h.c2, std::string(200, 'z'));
  OpenStore s = open(password);
  auto entry = entryContaining(s.store, "Could not decrypt change file: Changes/" + h.c2);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeWarning);
  EXPECT_FALSE(entryContaining(s.store, "Incomplete change file"));
  close(s);
  OpenStore r = open(store_internal_merge(password, dict({{kCorvaneRecoverOption, true}})));
  EXPECT_TRUE(entryContaining(r.store, "Could not decrypt change file: Changes/" + h.c2));
  EXPECT_TRUE(entryContaining(r.store, "Incomplete change file: Changes/" + h.c2));
  EXPECT_EQ(r.store->cache()->changes().count(), 2u);
  close(r);
}

TEST_F(ValidationTest, MissingPreviousChangeStopsUntilARecoveryChangeTakesItsPlace) {
  History h = twoDevices();
  env.removeItem(package + "/Changes/" + h.c1, nullptr);
  env.removeItem(cacheRoot, nullptr);
  OpenStore s = open();
  auto entry = entryWith(s.store, "Missing change file: ", h.c1);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeWarning);
  ASSERT_EQ(entry->menu.size(), 2u);
  EXPECT_EQ(entry->menu[0], (StoreMenuItem{"Ignore", kStoreMenuActionInsertChange, package + "/Changes/" + h.c1}));
  EXPECT_TRUE(names(s).empty());

  // "Ignore" writes a recovery change where the missing one was; the history then applies.
  const int before = readyCount_;
  s.store->performMenuItem(entry->menu[0]);
  waitUntil([&] { return readyCount_ > before; });
  drain();
  const Value recovery = readJSON(package + "/Changes/" + h.c1);
  EXPECT_EQ(recovery, dict({{"name", Value(h.c1)}, {"type", "recovery"}}));
  EXPECT_NE(readTextFile(package + "/Changes/" + h.c1).find("\n"), std::string::npos);  // pretty-printed
  EXPECT_EQ(s.store->cache()->changes().count(), 2u);
  FetchRequest request("Person");
  EXPECT_EQ(s.context->count(request), std::optional<size_t>(1));  // Bob; Ann's insert was lost with c1
  close(s);
}

TEST_F(ValidationTest, ADateInconsistencyIsReportedAndThePassGoesOn) {
  // Device B's clock is two minutes behind A's.
  OpenStore a = open();
  a.context->insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(save(a));
  close(a);
  env.setNow(ManualClockEnv::kDefaultNow - 120);
  const std::string rootA = cacheRoot;
  cacheRoot = dir / "cachesB";
  OpenStore b = open();
  b.context->insertNewObject("Person")->setValue("name", "Bob");
  ASSERT_TRUE(save(b));
  close(b);
  cacheRoot = rootA;
  const std::vector<std::string> files = list(package + "/Changes");
  ASSERT_EQ(files.size(), 2u);
  const std::string late = files[0];  // sorts first, but names the other as its previous change

  OpenStore s = open();
  auto entry = entryContaining(s.store, "Date inconsistency in change file: ");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeError);
  EXPECT_NE(entry->message.find(late + ". Use the menu File/Save as and create a new file."), std::string::npos);
  // The log was truncated where the folder differs and everything applied again.
  EXPECT_TRUE(entryContaining(s.store, "Reset Log"));
  EXPECT_EQ(names(s), (std::vector<std::string>{"Ann", "Bob"}));
  close(s);
}

TEST_F(ValidationTest, DiscardingAChangeMovesItAsideAndRecordsRecoveryChanges) {
  History h = twoDevices();
  const std::string c2 = package + "/Changes/" + h.c2;
  const std::string original = readTextFile(c2);
  OpenStore s = open();
  EXPECT_EQ(names(s), (std::vector<std::string>{"Ann", "Bob"}));
  const int before = readyCount_;
  ASSERT_TRUE(s.store->discardChange(c2));
  waitUntil([&] { return readyCount_ > before; });
  drain();
  EXPECT_EQ(readTextFile(package + "/InvalidChanges/" + h.c2), original);
  const Value refresh = readJSON(c2);
  EXPECT_EQ(refresh["type"], Value("recovery"));
  EXPECT_EQ(refresh["name"], Value(h.c2));
  EXPECT_EQ(refresh["refreshes"], readJSON(package + "/InvalidChanges/" + h.c2)["changes"]);
  // One more recovery change, a second before the discarded one.
  const std::vector<std::string> files = list(package + "/Changes");
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[1].substr(0, 23), "2023-03-08-20-27-39.000");
  EXPECT_EQ(readJSON(package + "/Changes/" + files[1]), dict({{"name", Value(files[1])}, {"type", "recovery"}}));
  // The discarded change's objects are read again without it: Acme has its old name.
  EXPECT_EQ(companyName(s), "Acme");
  close(s);
  // A device that opens the package for the first time never sees the discarded change.
  cacheRoot = dir / "cachesC";
  OpenStore c = open();
  EXPECT_EQ(names(c), std::vector<std::string>{"Ann"});
  EXPECT_EQ(companyName(c), "Acme");
  close(c);
}

TEST_F(ValidationTest, AChangeWithoutNameIsIncomplete) {
  OpenStore s = open();
  EXPECT_TRUE(s.store->validatedChanges(dict({{"changes", dict({})}})).isNil());
  auto entry = entryContaining(s.store, "Change incomplete");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->type, kCorvaneLogTypeError);
  close(s);
}

// An entity that a change both inserts and updates has only its updated objects checked.
TEST_F(ValidationTest, CombiningKeepsOnlyTheUpdatesOfAnEntityThatHasBoth) {
  const Value updates = dict({{"Person", dict({{"U1", dict({})}})}});
  const Value inserts = dict({{"Person", dict({{"I1", dict({})}})}, {"Company", dict({{"I2", dict({})}})}});
  EXPECT_EQ(CorvaneStore::combineChangeDictionary(updates, inserts),
            dict({{"Person", dict({{"U1", dict({})}})}, {"Company", dict({{"I2", dict({})}})}}));
  EXPECT_EQ(CorvaneStore::combineChangeDictionary(Value(), inserts), inserts);
}

TEST_F(ValidationTest, LogEntriesCarryTheChangesDateAndAuthorAndAnnounceOncePerBurst) {
  env.setFullUserName("Ann Example");
  OpenStore s = open();
  int announcements = 0;
  Subscription subscription = s.store->observeLog([&] { ++announcements; });
  drain();
  env.advance(2);
  RunLoop::main().runOnce();
  announcements = 0;
  const Value change = dict({{"date", "2024-05-17T09:41:07.250+0000"}, {"session", dict({{"fullUserName", "Ann"}})}});
  s.store->log("Missing change file: X", kCorvaneLogTypeWarning, change);
  for (int i = 0; i < 50; ++i) s.store->log("burst", kCorvaneLogTypeSuccess);
  drain();
  EXPECT_EQ(announcements, 0);
  env.advance(1.0);
  RunLoop::main().runOnce();
  EXPECT_EQ(announcements, 1);
  const std::vector<StoreLogEntry> entries = s.store->logEntries();
  auto it = std::find_if(entries.begin(), entries.end(),
                         [](const StoreLogEntry& e) { return e.message.starts_with("Missing change file"); });
  ASSERT_NE(it, entries.end());
  EXPECT_EQ(it->message, "Missing change file: (17 May 2024, 09:41 Ann) X");
  EXPECT_EQ(entries.front().message, "burst");  // newest first
  close(s);
}

TEST_F(ValidationTest, ErrorRecordsReachTheDelegate) {
  std::vector<std::pair<std::string, std::string>> delivered;
  environment_->errorDelegate = [&](const std::string& text, const std::string& domain) {
    delivered.emplace_back(text, domain);
  };
  OpenStore s = open();
  s.store->logError(Error("NSCocoaErrorDomain", 4, "gone"), "CorvaneSaveOperation");
  s.store->logError(Error(), "CorvaneSaveOperation");
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].first, package + " Error Domain=NSCocoaErrorDomain Code=4 \"gone\"");
  EXPECT_EQ(delivered[0].second, "CorvaneSaveOperation");
  const Value records = s.store->errorRecords();
  ASSERT_EQ(records.count(), 1u);
  EXPECT_EQ(records.at(0)["domain"], Value("CorvaneSaveOperation"));
  EXPECT_EQ(records.at(0)["session"]["id"], Value(s.store->session()));
  close(s);
}

}  // namespace
}  // namespace corvane::testing
