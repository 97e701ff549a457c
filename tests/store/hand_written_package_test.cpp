// A package whose files are written here by hand, following the formats byte for byte, as
// another device would write them: it opens and reads correctly, with and without a password.
#include <mutex>

#include "corvane/foundation/plist.h"
#include "corvane/security/digest.h"
#include "corvane/security/sea_crypto.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

constexpr const char* kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>DocumentIdentifier</key>
	<string>11111111-2222-4333-8444-555555555555</string>
	<key>Application</key>
	<dict>
		<key>CFBundleIdentifier</key>
		<string>com.example.Other</string>
		<key>CFBundleVersion</key>
		<string>3</string>
		<key>CFBundleShortVersionString</key>
		<string>3.0</string>
	</dict>
	<key>Corvane</key>
	<dict>
		<key>CFBundleIdentifier</key>
		<string>org.corvane.Corvane</string>
		<key>CFBundleVersion</key>
		<string>1</string>
		<key>CFBundleShortVersionString</key>
		<string>0.1.0</string>
	</dict>
	<key>DateCreation</key>
	<date>2024-05-17T09:41:07Z</date>
</dict>
</plist>
)";

constexpr const char* kC1 = "2024-05-17-09-41-07.250.AAAAAAAA-0000-4000-8000-000000000001.json";
constexpr const char* kC2 = "2024-05-17-09-42-00.000.BBBBBBBB-0000-4000-8000-000000000002.json";
constexpr const char* kAnn = "A0000000-0000-4000-8000-000000000001";
constexpr const char* kBob = "B0000000-0000-4000-8000-000000000002";
constexpr const char* kAcme = "C0000000-0000-4000-8000-000000000003";
constexpr const char* kGadget = "D0000000-0000-4000-8000-000000000004";
constexpr const char* kPhoto = "E0000000-0000-4000-8000-000000000005";
constexpr const char* kSession =
    R"("session":{"userName":"bob","fullUserName":"Bob Other","machineName":"Bob's PC",)"
    R"("id":"F0000000-0000-4000-8000-000000000006","version":"3","osVersion":"Debian 12"})";

class HandWrittenPackageTest : public StoreTest {
 protected:
  // Writes the package. `seal` turns plain file bytes into stored bytes (identity, or the
  // cipher); `folder` gives an entity's folder name.
  void writePackage(const std::function<std::string(const std::string&)>& seal,
                    const std::function<std::string(const std::string&)>& folder) {
    const std::string photo = seal("PHOTO");
    const std::string photoHash = corvaneSHA256HexDigest(asBytes(photo));
    const std::string photoLength = std::to_string(photo.size());
    const std::string dataRecord =
        R"({"length":)" + photoLength + R"(,"hash":")" + photoHash + R"(","name":")" + kPhoto + R"("})";
    // c1 inserts Ann (with a photo, an employer and a friend), Bob, Acme and a gadget.
    write("Changes/" + std::string(kC1),
          seal(std::string(R"({"name":")") + kC1 +
               R"(","date":"2024-05-17T09:41:07.250+0000","changes":{"insert":{)"
               R"("Person":{")" +
               kAnn + R"(":{"data":[)" + dataRecord + R"(]},")" + kBob + R"(":{}},"Company":{")" + kAcme +
               R"(":{}},"Gadget":{")" + kGadget + R"(":{}}}},)" + kSession + "}"));
    write("Entities/" + folder("Person") + "/" + kAnn + "/" + kC1,
          seal(std::string(R"({"version":"1","type":"insert","payload":{"name":{"value":"Ann"},)"
                           R"("age":{"value":"42"},"serial":{"value":"9007199254740993"},)"
                           R"("balance":{"value":"12.50"},"height":{"value":"1.75"},"active":{"value":true},)"
                           R"("born":{"value":"2024-05-17T09:41:07.250+0000"},"photo":{"value":")") +
               kPhoto + R"(","length":)" + photoLength + R"(,"hash":")" + photoHash +
               R"("},"employer":{"value":["Company/)" + kAcme + R"("]},"friends":{"addedValues":["Person/)" + kBob +
               R"("]},"children":{},"parent":{}}})"));
    write("Entities/" + folder("Person") + "/" + kAnn + "/Data/" + kPhoto, photo);
    write(
        "Entities/" + folder("Person") + "/" + kBob + "/" + kC1,
        seal(R"({"version":"1","type":"insert","payload":{"name":{"value":"Bob"},"friendOf":{"addedValues":["Person/)" +
             std::string(kAnn) + R"("]}}})"));
    write("Entities/" + folder("Company") + "/" + kAcme + "/" + kC1,
          seal(R"({"version":"1","type":"insert","payload":{"name":{"value":"Acme"},"staff":{"addedValues":["Person/)" +
               std::string(kAnn) + R"("]}}})"));
    write("Entities/" + folder("Gadget") + "/" + kGadget + "/" + kC1,
          seal(R"({"version":"1","type":"insert","payload":{"label":{"value":"Widget"}}})"));
    // c2 renames Ann, clears her age, sets her birth date with a "Z" zone, and deletes the gadget.
    write("Changes/" + std::string(kC2),
          seal(std::string(R"({"name":")") + kC2 +
               R"(","date":"2024-05-17T09:42:00.000+0000","changes":{"update":{"Person":{")" + kAnn +
               R"(":{}}},"delete":{"Gadget":{")" + kGadget + R"(":{}}}},)" + kSession + R"(,"previousName":")" + kC1 +
               R"("})"));
    write("Entities/" + folder("Person") + "/" + kAnn + "/" + kC2,
          seal(R"({"version":"1","type":"update","payload":{"name":{"value":"Ann B"},"age":{},)"
               R"("born":{"value":"2024-05-18T10:00:00.000Z"}}})"));
    write("Entities/" + folder("Gadget") + "/" + kGadget + "/" + kC2, seal(R"({"version":"1","type":"delete"})"));
  }

  void write(const std::string& relative, const std::string& bytes) { writeTextFile(package + "/" + relative, bytes); }

  void expectContent(OpenStore& s) {
    FetchRequest request("Person");
    request.setSortDescriptors({SortDescriptor("name")});
    auto people = s.context->fetch(request);
    ASSERT_TRUE(people);
    ASSERT_EQ(people->size(), 2u);
    const auto& ann = (*people)[0];
    EXPECT_EQ(storeUID(ann->objectID()), kAnn);
    EXPECT_EQ(ann->stringValue("name"), "Ann B");
    EXPECT_TRUE(ann->isNil("age"));
    EXPECT_EQ(ann->value("serial"), Value(9007199254740993LL));
    EXPECT_EQ(ann->value("balance"), Value(*Decimal::fromString("12.5")));
    EXPECT_DOUBLE_EQ(ann->doubleValue("height"), 1.75);
    EXPECT_TRUE(ann->boolValue("active"));
    EXPECT_DOUBLE_EQ(ann->dateValue("born"), 737719200.0);  // 2024-05-18T10:00:00Z
    EXPECT_EQ(ann->value("photo"), Value::data(asBytes("PHOTO")));
    EXPECT_EQ(ann->toOne("employer")->stringValue("name"), "Acme");
    auto friends = ann->toMany("friends");
    ASSERT_EQ(friends.size(), 1u);
    EXPECT_EQ(friends[0]->stringValue("name"), "Bob");
    EXPECT_EQ((*people)[1]->toMany("friendOf").size(), 1u);
    FetchRequest things("Thing");
    EXPECT_EQ(s.context->count(things), std::optional<size_t>(0));
    EXPECT_EQ(s.store->documentIdentifier(), "11111111-2222-4333-8444-555555555555");
    EXPECT_EQ(s.store->cache()->changes().count(), 2u);
  }
};

TEST_F(HandWrittenPackageTest, APlainPackageOpensAndReads) {
  write("Info.plist", kInfoPlist);
  writePackage([](const std::string& plain) { return plain; }, [](const std::string& entity) { return entity; });
  ASSERT_TRUE(CorvanePackage::isCorrectFormat(package, &env));
  OpenStore s = open();
  ASSERT_TRUE(s);
  expectContent(s);
  EXPECT_FALSE(entryContaining(s.store, "Failed validation"));
  close(s);
  // And again from the cache this device keeps.
  OpenStore again = open();
  expectContent(again);
  EXPECT_TRUE(entryContaining(again.store, "No new changes to apply"));
  close(again);
}

TEST_F(HandWrittenPackageTest, AnEncryptedPackageOpensAndReads) {
  SeaCrypto cipher(&env);
  cipher.setSalt(Bytes(64, 0x42));
  cipher.setRounds(1000);
  cipher.setPassword(std::string_view("pw"));
  Value info;
  ASSERT_TRUE(propertyListFromBytes(asBytes(kInfoPlist)).has_value());
  info = propertyListFromBytes(asBytes(kInfoPlist))->mutableCopy();
  info.set(Value("Encryption"), dict({{"Salt", Value::data(Bytes(64, 0x42))},
                                      {"Rounds", 1000},
                                      {"Info", Value::data(*cipher.encryptData(asBytes("pw")))}}));
  env.createDirectory(package, true, nullptr);
  ASSERT_TRUE(writePropertyListFile(&env, package + "/Info.plist", info));
  // Folder names: SHA-256 of "(null).<entity>.org.corvane.Corvane" in upper-case hex.
  const std::map<std::string, std::string> folders = {
      {"Person", "8D76580C0EFC1B41F39C3DE2227191D2F901C22B18FADBC9EA825184DA5071AD"},
      {"Company", "8E482B3807E2F11348A8FD714E867C5FA8E304CDB22AC8E9614F6F9DB5A8EF54"},
      {"Gadget", "8D33098BD86D5DCA30FBA12268027D8C66459A0A12A5F781F939D3FE942372F1"}};
  writePackage([&](const std::string& plain) { return toString(*cipher.encryptData(asBytes(plain))); },
               [&](const std::string& entity) { return folders.at(entity); });
  EXPECT_TRUE(CorvanePackage::canOpenURL(package, std::string("pw"), &env));
  OpenStore s = open(dict({{"password", "pw"}}));
  ASSERT_TRUE(s);
  expectContent(s);
  close(s);
}

// Another device sent values of the wrong kind or out of range: the objects show them as the
// attribute types promise, clamped rather than wrapped, and a string attribute keeps a number.
TEST_F(HandWrittenPackageTest, ForeignValuesShowClampedAndTyped) {
  write("Info.plist", kInfoPlist);
  write("Changes/" + std::string(kC1), std::string(R"({"name":")") + kC1 +
                                           R"(","date":"2024-05-17T09:41:07.250+0000","changes":{"insert":{)"
                                           R"("Person":{")" +
                                           kAnn + R"(":{},")" + kBob + R"(":{}}}},)" + kSession + "}");
  write("Entities/Person/" + std::string(kAnn) + "/" + kC1,
        R"({"version":"1","type":"insert","payload":{"name":{"value":123},)"
        R"("rank":{"value":"99999999999999999999999"},"age":{"value":"1e5"},)"
        R"("serial":{"value":"12abc"},"height":{"value":"1e300"},"active":{"value":"YES"}}})");
  write("Entities/Person/" + std::string(kBob) + "/" + kC1,
        R"({"version":"1","type":"insert","payload":{"name":{"value":"Bob"},)"
        R"("rank":{"value":-2.7},"age":{"value":true},"serial":{"value":-1e300}}})");
  OpenStore s = open();
  ASSERT_TRUE(s);
  for (int pass = 0; pass < 2; ++pass) {  // from the change files, then from this device's cache
    SCOPED_TRACE(pass);
    auto people = s.context->fetch(FetchRequest("Person"));
    ASSERT_TRUE(people);
    ASSERT_EQ(people->size(), 2u);
    const bool annFirst = storeUID((*people)[0]->objectID()) == kAnn;
    const auto& ann = (*people)[annFirst ? 0 : 1];
    const auto& bob = (*people)[annFirst ? 1 : 0];
    EXPECT_EQ(ann->value("name"), Value("123"));  // a string attribute shows text
    // Values of the attribute's type: the host can edit and save the object.
    ann->setValue("weight", 2.5);
    Error error;
    EXPECT_TRUE(s.context->save(&error)) << error.localizedDescription;
    EXPECT_EQ(ann->value("rank"), Value::number(NumberKind::Short, 32767));  // was -1, wrapped
    EXPECT_EQ(ann->int64Value("age"), 100000);
    EXPECT_EQ(ann->int64Value("serial"), 0);  // not a number
    EXPECT_EQ(ann->doubleValue("height"), 1e300);
    EXPECT_TRUE(ann->boolValue("active"));
    EXPECT_EQ(bob->int64Value("rank"), -2);
    EXPECT_EQ(bob->int64Value("age"), 1);
    EXPECT_EQ(bob->int64Value("serial"), std::numeric_limits<int64_t>::min());
    close(s);
    if (pass == 0) s = open();
  }
}

// Change and object files written by hand as a hostile or broken device could write them: names
// that would lead out of their folder ("..", "/", NUL, empty) are refused as damage, and nothing
// outside the package and the cache folder is read or written because of them.
constexpr const char* kSecret = "SECRET";

class HostileNamesTest : public StoreTest {
 protected:
  HostileNamesTest() {
    env.touched = [this](const std::string& path) {
      // No path that the store builds has a ".." or a NUL in it, nor reaches the sentinel.
      if (path.find("..") != std::string::npos || path.find('\0') != std::string::npos ||
          path.find("secret") != std::string::npos) {
        std::lock_guard<std::mutex> lock(mutex_);
        strays_.push_back(path);
      }
    };
  }

  // Info.plist and a first change (Ann with a photo, Acme) that every case shares; then c2.
  void writePackage(const std::string& c2, const std::string& annInC2 = std::string()) {
    env.removeItem(package, nullptr);
    env.removeItem(cacheRoot, nullptr);
    write("Info.plist", kInfoPlist);
    const std::string photoHash = corvaneSHA256HexDigest(asBytes("PHOTO"));
    write("Changes/" + std::string(kC1), std::string(R"({"name":")") + kC1 + R"(","changes":{"insert":{"Person":{")" +
                                             kAnn + R"(":{"data":[{"length":5,"hash":")" + photoHash + R"(","name":")" +
                                             kPhoto + R"("}]}},)" + R"("Company":{")" + kAcme + R"(":{}}}}})");
    write("Entities/Person/" + std::string(kAnn) + "/" + kC1,
          std::string(R"({"version":"1","type":"insert","payload":{"name":{"value":"Ann"},"photo":{"value":")") +
              kPhoto + R"(","length":5,"hash":")" + photoHash + R"("}}})");
    write("Entities/Person/" + std::string(kAnn) + "/Data/" + kPhoto, "PHOTO");
    write("Entities/Company/" + std::string(kAcme) + "/" + kC1,
          R"({"version":"1","type":"insert","payload":{"name":{"value":"Acme"}}})");
    write("Changes/" + std::string(kC2), c2);
    if (!annInC2.empty()) write("Entities/Person/" + std::string(kAnn) + "/" + kC2, annInC2);
  }

  void write(const std::string& relative, const std::string& bytes) { writeTextFile(package + "/" + relative, bytes); }

  Retained<ManagedObject> ann(OpenStore& s) {
    FetchRequest request("Person");
    auto people = s.context->fetch(request);
    if (!people || people->size() != 1) return {};
    return (*people)[0];
  }

  std::vector<std::string> strays() {
    std::lock_guard<std::mutex> lock(mutex_);
    return strays_;
  }

  std::string sentinel = dir / "secret";
  std::mutex mutex_;
  std::vector<std::string> strays_;
};

// A c2 that updates Ann, with `extra` spliced into its top level.
std::string annUpdate(const std::string& uid = kAnn, const std::string& record = "{}", const std::string& extra = "") {
  return std::string(R"({"name":")") + kC2 + R"(","previousName":")" + kC1 + R"(","changes":{"update":{"Person":{")" +
         uid + R"(":)" + record + "}}}" + extra + "}";
}

TEST_F(HostileNamesTest, ChangeFilesWithNamesThatLeaveTheirFolderAreRefusedAsDamaged) {
  writeTextFile(sentinel, kSecret);
  const std::string secretHash = corvaneSHA256HexDigest(asBytes(kSecret));
  const std::string annFile = R"({"version":"1","type":"update","payload":{"name":{"value":"Ann B"}}})";
  const std::string escapingData =
      R"({"data":[{"length":6,"hash":")" + secretHash + R"(","name":"../../../../../secret"}]})";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"UID with ..", annUpdate("../../../../secret")},
      {"empty UID", annUpdate("")},
      {"UID .", annUpdate(".")},
      {"UID with NUL", annUpdate(R"(A\u0000B)")},
      {"UID with /", annUpdate("A/B")},
      {"data name leading out", annUpdate(kAnn, escapingData)},
      {"empty data name", annUpdate(kAnn, R"({"data":[{"length":6,"name":""}]})")},
      {"data name that is no text", annUpdate(kAnn, R"({"data":[{"length":6,"name":7}]})")},
      {"previousName leading out", std::string(R"({"name":")") + kC2 + R"(","previousName":"../../secret"})"},
      {"name leading out",
       R"({"name":"../../secret","changes":{"update":{"Person":{")" + std::string(kAnn) + R"(":{}}}}})"},
      {"name that is no text", R"({"name":5})"},
      {"entity name leading out",
       R"({"name":")" + std::string(kC2) + R"(","changes":{"insert":{"../Person":{"X":{}}}}})"},
      {"recovery refreshing ..",
       R"({"name":")" + std::string(kC2) + R"(","type":"recovery","refreshes":{"update":{"Person":{"..":{}}}}})"},
  };
  const std::string c2 = package + "/Changes/" + kC2;
  for (const auto& [label, body] : cases) {
    SCOPED_TRACE(label);
    writePackage(body, annFile);
    OpenStore s = open();
    ASSERT_TRUE(s);
    // (Entries about a change carry its date and author after the first ":".)
    auto entry = entryContaining(s.store, "Invalid file name in change file: ");
    ASSERT_TRUE(entry) << ::testing::PrintToString(messages(s.store));
    EXPECT_NE(entry->message.find("Changes/" + std::string(kC2)), std::string::npos) << entry->message;
    EXPECT_EQ(entry->type, kCorvaneLogTypeWarning);
    EXPECT_EQ(entry->menu, (std::vector<StoreMenuItem>{{"Ignore", kStoreMenuActionDiscardChange, c2},
                                                       {"Show in Finder", kStoreMenuActionShowInFinder, c2}}));
    EXPECT_TRUE(entryWith(s.store, "Failed validation ", "Changes/" + std::string(kC2)));
    EXPECT_EQ(s.store->cache()->changes().count(), 1u);
    auto person = ann(s);
    ASSERT_TRUE(person);
    EXPECT_EQ(person->stringValue("name"), "Ann");
    EXPECT_EQ(person->value("photo"), Value::data(asBytes("PHOTO")));
    close(s);
  }
  // Recovering goes past such a change as past any damaged file: applied, with nothing in it.
  writePackage(annUpdate(kAnn, escapingData), annFile);
  OpenStore r = open(dict({{kCorvaneRecoverOption, true}}));
  EXPECT_EQ(r.store->cache()->changes().count(), 2u);
  EXPECT_EQ(ann(r)->stringValue("name"), "Ann");
  close(r);
  // The public check refuses it even in recovery mode.
  OpenStore v = open();
  v.store->setRecover(true);
  EXPECT_TRUE(v.store->validatedChanges(*jsonToValue(annUpdate(kAnn, escapingData))).isNil());
  EXPECT_TRUE(v.store->validatedChanges(*jsonToValue(annUpdate("../x"))).isNil());
  close(v);

  EXPECT_EQ(strays(), std::vector<std::string>{});
  EXPECT_EQ(readTextFile(sentinel), kSecret);
}

// Names inside object files: a data-file name that leads out of the Data folder is not read, and
// a relationship to an object whose UID leads out of its folder resolves to nothing.
TEST_F(HostileNamesTest, ObjectFilesCannotLeadReadsOutOfTheirFolders) {
  writeTextFile(sentinel, kSecret);
  const std::string annFile = R"({"version":"1","type":"update","payload":{"name":{"value":"Ann B"},)"
                              R"("photo":{"value":"../../../../../secret"},)"
                              R"("employer":{"value":["Company/.."]},"friends":{"addedValues":["Person/"]}}})";
  writePackage(annUpdate(), annFile);
  OpenStore s = open();
  auto person = ann(s);
  ASSERT_TRUE(person);
  EXPECT_EQ(person->stringValue("name"), "Ann B");
  EXPECT_NE(person->value("photo"), Value::data(asBytes(kSecret)));
  EXPECT_EQ(person->toOne("employer"), nullptr);
  EXPECT_TRUE(person->toMany("friends").empty());
  close(s);
  EXPECT_EQ(strays(), std::vector<std::string>{});
  EXPECT_EQ(readTextFile(sentinel), kSecret);
}

TEST(PlainFileName, RefusesEverythingThatLeavesItsFolder) {
  for (const char* name : {"", ".", "..", "a/b", "/", "../x", "x/.."}) EXPECT_FALSE(isPlainFileName(name)) << name;
  EXPECT_FALSE(isPlainFileName(std::string_view("a\0b", 3)));
  for (const char* name : {"a", "...", ".hidden", "2024-05-17-09-41-07.250.X.json", "name (1)"}) {
    EXPECT_TRUE(isPlainFileName(name)) << name;
  }
  EXPECT_EQ(pathJoinFileName("/p", "x"), std::optional<std::string>("/p/x"));
  EXPECT_EQ(pathJoinFileName("/p", ".."), std::nullopt);
}

}  // namespace
}  // namespace corvane::testing
