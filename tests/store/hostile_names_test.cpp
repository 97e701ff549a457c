// Change and object files written by hand as a hostile or broken device could write them: names
// that would lead out of their folder ("..", "/", NUL, empty) are refused as damage, and nothing
// outside the package and the cache folder is read or written because of them.
#include <mutex>

#include "corvane/security/digest.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

constexpr const char* kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>DocumentIdentifier</key>
	<string>11111111-2222-4333-8444-555555555555</string>
	<key>Corvane</key>
	<dict>
		<key>CFBundleIdentifier</key>
		<string>org.corvane.Corvane</string>
	</dict>
</dict>
</plist>
)";

constexpr const char* kC1 = "2024-05-17-09-41-07.250.AAAAAAAA-0000-4000-8000-000000000001.json";
constexpr const char* kC2 = "2024-05-17-09-42-00.000.BBBBBBBB-0000-4000-8000-000000000002.json";
constexpr const char* kAnn = "A0000000-0000-4000-8000-000000000001";
constexpr const char* kAcme = "C0000000-0000-4000-8000-000000000003";
constexpr const char* kPhoto = "E0000000-0000-4000-8000-000000000005";
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
    write("Changes/" + std::string(kC1),
          std::string(R"({"name":")") + kC1 + R"(","changes":{"insert":{"Person":{")" + kAnn +
              R"(":{"data":[{"length":5,"hash":")" + photoHash + R"(","name":")" + kPhoto + R"("}]}},)" +
              R"("Company":{")" + kAcme + R"(":{}}}}})");
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
  const std::string escapingData = R"({"data":[{"length":6,"hash":")" + secretHash +
                                   R"(","name":"../../../../../secret"}]})";
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
      {"name leading out", R"({"name":"../../secret","changes":{"update":{"Person":{")" + std::string(kAnn) + R"(":{}}}}})"},
      {"name that is no text", R"({"name":5})"},
      {"entity name leading out", R"({"name":")" + std::string(kC2) + R"(","changes":{"insert":{"../Person":{"X":{}}}}})"},
      {"recovery refreshing ..", R"({"name":")" + std::string(kC2) +
                                     R"(","type":"recovery","refreshes":{"update":{"Person":{"..":{}}}}})"},
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
