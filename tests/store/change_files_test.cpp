// The files a save writes, checked field by field against their formats.
#include <filesystem>

#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/plist.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

// 2024-05-17T09:41:07.250 GMT in seconds since 2001.
constexpr double kBorn = 737631667.25;

class ChangeFilesTest : public StoreTest {
 protected:
  std::vector<std::string> changeFiles() { return list(package + "/Changes"); }
  std::string uid(const Retained<ManagedObject>& object) { return storeUID(object->objectID()); }
  Value objectFile(const std::string& entity, const std::string& objectUID, const std::string& change) {
    return readJSON(package + "/Entities/" + entity + "/" + objectUID + "/" + change);
  }
};

TEST_F(ChangeFilesTest, AnInsertWritesTheChangeFileObjectFilesAndDataFiles) {
  OpenStore s = open();
  auto acme = s.context->insertNewObject("Company");
  acme->setValue("name", "Acme");
  auto bob = s.context->insertNewObject("Person");
  bob->setValue("name", "Bob");
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("age", 42);
  ann->setValue("balance", Value(*Decimal::fromString("12.50")));
  ann->setValue("height", 1.75);
  ann->setValue("active", true);
  ann->setDate("born", kBorn);
  ann->setValue("photo", Value::data(asBytes("PHOTO")));
  ann->setToOne("employer", acme.get());
  ann->addToMany("friends", bob.get());
  ASSERT_TRUE(save(s));

  const std::vector<std::string> files = changeFiles();
  ASSERT_EQ(files.size(), 1u);
  const std::string& name = files[0];
  // Fake clock: 2023-03-08 20:26:40 GMT; then a UUID.
  ASSERT_EQ(name.size(), 23u + 1 + 36 + 5);
  EXPECT_EQ(name.substr(0, 24), "2023-03-08-20-26-40.000.");
  EXPECT_EQ(name.substr(60), ".json");

  const std::string text = readTextFile(package + "/Changes/" + name);
  EXPECT_EQ(text.substr(0, 9), "{\"name\":\"") << "compact JSON, \"name\" first";
  const Value change = readJSON(package + "/Changes/" + name);
  std::vector<std::string> keys;
  for (const Value& key : change.keys()) keys.push_back(key.str());
  EXPECT_EQ(keys, (std::vector<std::string>{"name", "date", "changes", "session"}));  // no previousName: first change
  EXPECT_EQ(change["name"], Value(name));
  EXPECT_EQ(change["date"], Value("2023-03-08T20:26:40.000+0000"));
  EXPECT_EQ(change["session"], s.store->sessionDictionary());

  const Value annFile = objectFile("Person", uid(ann), name);
  const std::string dataName = annFile["payload"]["photo"]["value"].str();
  ASSERT_EQ(dataName.size(), 36u);
  const Value photoRecord = dict({{"length", 5},
                                  {"hash", "183514034b5bc90a17c2cff528642dcc290f1aef3bf0b5c5bdd6c12b1d3fe296"},
                                  {"name", Value(dataName)}});
  EXPECT_EQ(change["changes"],
            dict({{"insert", dict({{"Company", dict({{Value(uid(acme)), dict({})}})},
                                   {"Person", dict({{Value(uid(bob)), dict({})},
                                                    {Value(uid(ann)), dict({{"data", arr({photoRecord})}})}})}})}}));

  EXPECT_EQ(annFile["version"], Value("1"));
  EXPECT_EQ(annFile["type"], Value("insert"));
  EXPECT_EQ(annFile["payload"],
            dict({{"name", dict({{"value", "Ann"}})},
                  {"age", dict({{"value", "42"}})},
                  {"balance", dict({{"value", "12.5"}})},
                  {"height", dict({{"value", "1.75"}})},
                  {"active", dict({{"value", true}})},
                  {"born", dict({{"value", "2024-05-17T09:41:07.250+0000"}})},
                  {"photo", dict({{"value", Value(dataName)},
                                  {"length", 5},
                                  {"hash", "183514034b5bc90a17c2cff528642dcc290f1aef3bf0b5c5bdd6c12b1d3fe296"}})},
                  // Relationships are always recorded; empty ones as empty objects.
                  {"friends", dict({{"addedValues", arr({Value("Person/" + uid(bob))})}})},
                  {"friendOf", dict({})},
                  {"children", dict({})},
                  {"parent", dict({})},
                  {"employer", dict({{"value", arr({Value("Company/" + uid(acme))})}})}}));
  EXPECT_EQ(readTextFile(package + "/Entities/Person/" + uid(ann) + "/Data/" + dataName), "PHOTO");
  EXPECT_EQ(objectFile("Company", uid(acme), name),
            dict({{"version", "1"},
                  {"type", "insert"},
                  {"payload", dict({{"name", dict({{"value", "Acme"}})},
                                    {"staff", dict({{"addedValues", arr({Value("Person/" + uid(ann))})}})}})}}));
  close(s);
}

TEST_F(ChangeFilesTest, UpdatesRecordChangedValuesOnlyAndChainToThePreviousChange) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("height", 1.75);
  auto bob = s.context->insertNewObject("Person");
  auto cid = s.context->insertNewObject("Person");
  ann->addToMany("friends", bob.get());
  ann->addToMany("friends", cid.get());
  ASSERT_TRUE(save(s));
  const std::string first = changeFiles().at(0);

  env.advance(2);
  ann->setValue("name", "Ann B");
  ann->setValue("height", Value());
  ann->removeFromMany("friends", bob.get());
  ann->insertIntoOrdered("children", cid.get(), 0);
  ann->insertIntoOrdered("children", bob.get(), 0);
  ASSERT_TRUE(save(s));
  std::vector<std::string> files = changeFiles();
  ASSERT_EQ(files.size(), 2u);
  const std::string second = files[1];
  const Value change = readJSON(package + "/Changes/" + second);
  EXPECT_EQ(change["previousName"], Value(first));
  EXPECT_EQ(change["date"], Value("2023-03-08T20:26:42.000+0000"));
  EXPECT_EQ(change["changes"].keys(), std::vector<Value>{Value("update")});
  EXPECT_EQ(change["changes"]["update"]["Person"].count(), 3u);  // Ann and, through the inverses, Bob and Cid
  EXPECT_EQ(
      objectFile("Person", uid(ann), second),
      dict({{"version", "1"},
            {"type", "update"},
            {"payload",
             dict({{"name", dict({{"value", "Ann B"}})},
                   {"height", dict({})},  // set to nothing
                   {"friends", dict({{"removedValues", arr({Value("Person/" + uid(bob))})}})},
                   {"children",
                    dict({{"orderedValues", arr({Value("Person/" + uid(bob)), Value("Person/" + uid(cid))})},
                          {"addedValues", arr({Value("Person/" + uid(bob)), Value("Person/" + uid(cid))})}})}})}}));
  EXPECT_EQ(objectFile("Person", uid(bob), second)["payload"],
            dict({{"friendOf", dict({{"removedValues", arr({Value("Person/" + uid(ann))})}})},
                  {"parent", dict({{"value", arr({Value("Person/" + uid(ann))})}})}}));

  // Emptying a to-many relationship lists every former member as removed.
  env.advance(2);
  ann->setToMany("friends", {});
  ASSERT_TRUE(save(s));
  files = changeFiles();
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(objectFile("Person", uid(ann), files[2])["payload"]["friends"],
            dict({{"removedValues", arr({Value("Person/" + uid(cid))})}}));
  close(s);
}

// Folders with one pinned note, a note pinned in at most one folder.
class OneToOneTest : public ChangeFilesTest {
 protected:
  OneToOneTest() {
    Error error;
    openModel = ObjectModel::fromJSON(R"({"entities": [
      {"name": "Folder", "attributes": [{"name": "name", "type": "string"}],
       "relationships": [{"name": "pinnedNote", "destination": "Note", "inverse": "pinnedIn"}]},
      {"name": "Note", "attributes": [{"name": "title", "type": "string"}],
       "relationships": [{"name": "pinnedIn", "destination": "Folder", "inverse": "pinnedNote"}]}]})",
                                      &error);
    EXPECT_TRUE(openModel) << error.localizedDescription;
  }
  Retained<ManagedObject> named(OpenStore& s, const std::string& entity, const std::string& key,
                                const std::string& name) {
    FetchRequest request(entity);
    request.setPredicate(*Predicate::parse(key + " == '" + name + "'"));
    auto found = s.context->fetch(request);
    return found && found->size() == 1 ? found->front() : nullptr;
  }
};

// Pinning a note in another folder unpins it from the first one, and that update is written
// like any other, so that every store reading the package sees one folder holding the note.
TEST_F(OneToOneTest, TheOldPartnerOfAOneToOneIsWrittenCleared) {
  OpenStore s = open();
  auto f1 = s.context->insertNewObject("Folder");
  f1->setValue("name", "F1");
  auto n1 = s.context->insertNewObject("Note");
  n1->setValue("title", "N1");
  f1->setToOne("pinnedNote", n1.get());
  ASSERT_TRUE(save(s));

  env.advance(2);
  auto f2 = s.context->insertNewObject("Folder");
  f2->setValue("name", "F2");
  f2->setToOne("pinnedNote", n1.get());
  ASSERT_TRUE(save(s));
  const std::vector<std::string> files = changeFiles();
  ASSERT_EQ(files.size(), 2u);
  const Value change = readJSON(package + "/Changes/" + files[1]);
  EXPECT_EQ(change["changes"]["insert"]["Folder"].keys(), std::vector<Value>{Value(uid(f2))});
  EXPECT_TRUE(change["changes"]["update"]["Folder"].contains(Value(uid(f1))));
  EXPECT_EQ(objectFile("Folder", uid(f1), files[1]),
            dict({{"version", "1"}, {"type", "update"}, {"payload", dict({{"pinnedNote", dict({})}})}}));
  EXPECT_EQ(objectFile("Note", uid(n1), files[1])["payload"],
            dict({{"pinnedIn", dict({{"value", arr({Value("Folder/" + uid(f2))})}})}}));
  close(s);

  // From the cache this device keeps, and from the package alone.
  for (const char* cache : {"", "fresh"}) {
    SCOPED_TRACE(cache);
    if (*cache != 0) cacheRoot = dir / cache;
    OpenStore r = open();
    auto folder1 = named(r, "Folder", "name", "F1");
    auto note1 = named(r, "Note", "title", "N1");
    ASSERT_TRUE(folder1 && note1);
    EXPECT_FALSE(folder1->toOne("pinnedNote"));
    ASSERT_TRUE(note1->toOne("pinnedIn"));
    EXPECT_EQ(note1->toOne("pinnedIn")->stringValue("name"), "F2");
    close(r);
  }

  // Set from the note's side, with the folder that loses it never read: F2 is written cleared.
  env.advance(2);
  OpenStore r = open();
  auto note1 = named(r, "Note", "title", "N1");
  ASSERT_TRUE(note1);
  note1->setToOne("pinnedIn", named(r, "Folder", "name", "F1").get());
  ASSERT_TRUE(save(r));
  const std::string third = changeFiles().at(2);
  EXPECT_EQ(objectFile("Folder", uid(f2), third)["payload"], dict({{"pinnedNote", dict({})}}));
  close(r);
  r = open();
  EXPECT_FALSE(named(r, "Folder", "name", "F2")->toOne("pinnedNote"));
  EXPECT_EQ(named(r, "Folder", "name", "F1")->toOne("pinnedNote"), named(r, "Note", "title", "N1"));
  close(r);
}

TEST_F(ChangeFilesTest, DeletesWriteATypeOnlyObjectFile) {
  OpenStore s = open();
  auto bob = s.context->insertNewObject("Gadget");
  bob->setValue("label", "Old");
  ASSERT_TRUE(save(s));
  const std::string bobUID = uid(bob);
  env.advance(1);
  s.context->deleteObject(bob.get());
  ASSERT_TRUE(save(s));
  const std::string second = changeFiles().at(1);
  EXPECT_EQ(objectFile("Gadget", bobUID, second), dict({{"version", "1"}, {"type", "delete"}}));
  EXPECT_EQ(readJSON(package + "/Changes/" + second)["changes"],
            dict({{"delete", dict({{"Gadget", dict({{Value(bobUID), dict({})}})}})}}));
  FetchRequest request("Thing");
  EXPECT_EQ(s.context->count(request), std::optional<size_t>(0));
  // The deleted object's values leave the cache's table on disk too, not only its UID list.
  const std::string table = s.store->cache()->URL() + "/Gadget_" + bobUID.substr(0, 1) + ".fast";
  close(s);
  Bytes bytes;
  ASSERT_TRUE(env.readFile(table, &bytes, nullptr));
  const Value items = FastCoder::objectWithData(bytes);
  ASSERT_TRUE(items.isDictionary());
  EXPECT_FALSE(items.contains(Value(bobUID)));
}

TEST_F(ChangeFilesTest, ASaveWithoutChangedValuesWritesNothing) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ASSERT_TRUE(save(s));
  int begins = 0;
  Value counted;
  auto observer = NotificationCenter::defaultCenter().addObserver(kCorvaneBeginSaveNotification, s.store,
                                                                  [&](const Notification& n) {
                                                                    ++begins;
                                                                    counted = n.userInfo["count"];
                                                                  });
  ann->setValue("name", "Ann");  // the same value
  ASSERT_TRUE(save(s));
  EXPECT_EQ(changeFiles().size(), 1u);
  ann->setValue("name", "Anna");
  ASSERT_TRUE(save(s));
  EXPECT_EQ(changeFiles().size(), 2u);
  EXPECT_EQ(begins, 1);
  EXPECT_EQ(counted, Value(1));
  EXPECT_EQ(s.store->saveOperationsCount(), 1);
  EXPECT_EQ(s.store->saveOperationsValue(), 1);
  close(s);
}

TEST_F(ChangeFilesTest, AClockBehindTheLastChangeIsCorrectedInTheDateOnly) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ASSERT_TRUE(save(s));
  env.setNow(ManualClockEnv::kDefaultNow - 60);
  ann->setValue("name", "Late");
  ASSERT_TRUE(save(s));
  const std::vector<std::string> files = changeFiles();
  ASSERT_EQ(files.size(), 2u);
  // Sorted by name, the late change comes first; its date is one second after the other's.
  EXPECT_EQ(files[0].substr(0, 23), "2023-03-08-20-25-40.000");
  const Value late = readJSON(package + "/Changes/" + files[0]);
  EXPECT_EQ(late["date"], Value("2023-03-08T20:26:41.000+0000"));
  EXPECT_EQ(late["previousName"], Value(files[1]));
  auto warning = entryContaining(s.store, "At least one Mac has (or had) set a wrong date.");
  ASSERT_TRUE(warning);
  EXPECT_EQ(warning->type, kCorvaneLogTypeWarning);
  close(s);
}

TEST_F(ChangeFilesTest, SavesWithinOneMillisecondAreNamedInTheirOrder) {
  OpenStore s = open();
  for (int i = 0; i < 5; ++i) {
    s.context->insertNewObject("Gadget")->setValue("label", std::to_string(i));
    ASSERT_TRUE(save(s));  // the fake clock stands still
  }
  const std::vector<std::string> names = changeFiles();
  ASSERT_EQ(names.size(), 5u);
  // Sorted by name, each follows the one it was saved after.
  for (size_t i = 1; i < names.size(); ++i) {
    EXPECT_EQ(readJSON(package + "/Changes/" + names[i])["previousName"], Value(names[i - 1]));
  }
  EXPECT_FALSE(entryContaining(s.store, "Date inconsistency"));
  close(s);
}

TEST_F(ChangeFilesTest, WithAPasswordNoFileButInfoPlistShowsAValueOrAnEntityName) {
  OpenStore s = open(dict({{"password", "secret"}}));
  auto acme = s.context->insertNewObject("Company");
  acme->setValue("name", "Zebulon Works");
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Annabelle");
  ann->setValue("age", 4242);
  ann->setValue("photo", Value::data(asBytes("SECRETPHOTO")));
  ann->setToOne("employer", acme.get());
  ASSERT_TRUE(save(s));
  close(s);

  Value info;
  ASSERT_TRUE(readPropertyListFile(&env, package + "/Info.plist", &info));
  SeaCrypto cipher = seaCryptoForPackageInfo(info, std::string_view("secret"), &env);
  size_t checked = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(package)) {
    const std::string path = entry.path().string();
    for (const char* word : {"Company", "Person", "Zebulon", "Annabelle", "4242", "SECRETPHOTO", "employer"}) {
      EXPECT_EQ(path.find(word), std::string::npos) << path;
    }
    if (!entry.is_regular_file() || entry.path().filename() == "Info.plist") continue;
    const std::string bytes = readTextFile(path);
    for (const char* word : {"Company", "Person", "Zebulon", "Annabelle", "4242", "SECRETPHOTO", "employer"}) {
      EXPECT_EQ(bytes.find(word), std::string::npos) << word << " in " << path;
    }
    // Every file is one encrypted block that the password opens.
    EXPECT_TRUE(cipher.decryptData(asBytes(bytes))) << path;
    ++checked;
  }
  EXPECT_EQ(checked, 4u);  // the change file, two object files, one data file

  const std::string name = list(package + "/Changes").at(0);
  auto plain = cipher.decryptData(asBytes(readTextFile(package + "/Changes/" + name)));
  ASSERT_TRUE(plain);
  const Value change = *jsonToValue(asStringView(*plain));
  const std::string personFolder = CorvanePackage::entityFolderName("Person", true);
  const Value& records = change["changes"]["insert"]["Person"];
  ASSERT_EQ(records.count(), 1u);
  const std::string annUID = records.keys()[0].str();
  const Value data = records[annUID]["data"].at(0);
  const std::string dataPath = package + "/Entities/" + personFolder + "/" + annUID + "/Data/" + data["name"].str();
  const std::string stored = readTextFile(dataPath);
  // Length and hash describe the stored ciphertext.
  EXPECT_EQ(data["length"], Value(static_cast<long long>(stored.size())));
  EXPECT_EQ(data["hash"], Value(corvaneSHA256HexDigest(asBytes(stored))));
  EXPECT_EQ(toString(*cipher.decryptData(asBytes(stored))), "SECRETPHOTO");

  OpenStore again = open(dict({{"password", "secret"}}));
  FetchRequest request("Person");
  auto people = again.context->fetch(request);
  ASSERT_TRUE(people && people->size() == 1);
  EXPECT_EQ((*people)[0]->value("photo"), Value::data(asBytes("SECRETPHOTO")));
  EXPECT_EQ((*people)[0]->toOne("employer")->stringValue("name"), "Zebulon Works");
  close(again);
}

}  // namespace
}  // namespace corvane::testing
