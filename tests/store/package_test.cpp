// The package: Info.plist, recognition, passwords, entity folder names, the class operations.
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/plist.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class PackageTest : public StoreTest {
 protected:
  Value info() {
    Value v;
    EXPECT_TRUE(readPropertyListFile(&env, package + "/Info.plist", &v));
    return v;
  }
};

bool isUpperUUID(const std::string& s) {
  if (s.size() != 36) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (s[i] == '-')) return false;
    if (!dash && !std::isdigit(static_cast<unsigned char>(s[i])) && !(s[i] >= 'A' && s[i] <= 'F')) return false;
  }
  return true;
}

TEST_F(PackageTest, NewPackageHasEveryInfoKeyAndItsFolders) {
  ApplicationInfo host;
  host.identifier = "com.example.Ledger";
  host.version = "77";
  host.shortVersion = "7.7";
  ApplicationInfo::setCurrent(host);
  OpenStore s = open(dict({{"DocumentInfo", dict({{"Title", "Books"}})}, {"DocumentOptions", dict({{"A", 1}})}}));
  ASSERT_TRUE(s);
  const Value i = info();
  EXPECT_TRUE(isUpperUUID(i["DocumentIdentifier"].str())) << i["DocumentIdentifier"].str();
  EXPECT_EQ(i["DocumentInfo"], dict({{"Title", "Books"}}));
  EXPECT_EQ(i["DocumentOptions"], dict({{"A", 1}}));
  EXPECT_EQ(i["Application"], dict({{"CFBundleIdentifier", "com.example.Ledger"},
                                    {"CFBundleVersion", "77"},
                                    {"CFBundleShortVersionString", "7.7"}}));
  EXPECT_EQ(i["Corvane"], dict({{"CFBundleIdentifier", kFrameworkBundleIdentifier},
                                {"CFBundleVersion", kFrameworkVersion},
                                {"CFBundleShortVersionString", kFrameworkShortVersion}}));
  EXPECT_TRUE(i["DateCreation"].isDate());
  EXPECT_NEAR(i["DateCreation"].dateValue(), env.now(), 1.0);
  EXPECT_TRUE(i["Encryption"].isNil());
  for (const char* folder : {"Changes", "Entities", "Errors"})
    EXPECT_TRUE(pathExists(package + "/" + folder)) << folder;
  EXPECT_TRUE(CorvanePackage::isCorrectFormat(package, &env));
  EXPECT_EQ(CorvanePackage::documentIdentifierForURL(package, &env), i["DocumentIdentifier"].str());
  EXPECT_TRUE(CorvanePackage::documentExistsAtURL(package, i["DocumentIdentifier"].str(), &env));
  EXPECT_FALSE(CorvanePackage::documentExistsAtURL(package, "other", &env));
  // The store's identity in object-ID URIs is the document's.
  EXPECT_EQ(s.store->identifier(), i["DocumentIdentifier"].str());
  const Value metadata = s.store->metadata();
  EXPECT_EQ(metadata[kStoreTypeKey], Value(kCorvaneStoreType));
  EXPECT_EQ(metadata["Corvane"], i["Corvane"]);
  close(s);
  ApplicationInfo::setCurrent(ApplicationInfo());
}

TEST_F(PackageTest, OpeningAnExistingPackageWritesNothingIntoIt) {
  OpenStore s = open(dict({{"DocumentIdentifier", "FIRST"}}));
  close(s);
  const std::string before = readTextFile(package + "/Info.plist");
  OpenStore again = open(dict({{"DocumentIdentifier", "SECOND"}, {"DocumentInfo", dict({{"x", 1}})}}));
  ASSERT_TRUE(again);
  EXPECT_EQ(readTextFile(package + "/Info.plist"), before);
  EXPECT_EQ(again.store->documentIdentifier(), "FIRST");
  close(again);
}

// A package appears whole or not at all: one without Info.plist could never be opened again.
TEST_F(PackageTest, ACreationThatFailsLeavesNoHalfMadePackage) {
  env.unwritableNames.insert("Info.plist");
  Error error;
  EXPECT_FALSE(open(Value(), &error));
  EXPECT_FALSE(pathExists(package));
  std::vector<std::string> beside;
  env.listDirectory(dir.path(), false, &beside, nullptr);
  for (const std::string& name : beside) EXPECT_FALSE(name.starts_with(".Doc.corvane")) << name;
  env.unwritableNames.clear();
  OpenStore s = open(dict({{"password", "secret"}}), &error);
  ASSERT_TRUE(s) << error.localizedDescription;
  EXPECT_TRUE(CorvanePackage::isCorrectFormat(package, &env));
  EXPECT_TRUE(CorvanePackage::canOpenURL(package, "secret", &env));
  close(s);
}

TEST_F(PackageTest, EncryptedPackageEntryPasswordsAndHashedFolderNames) {
  OpenStore s = open(dict({{"password", "secret"}}));
  ASSERT_TRUE(s);
  const Value encryption = info()["Encryption"];
  EXPECT_EQ(encryption["Salt"].bytes().size(), 64u);
  EXPECT_EQ(encryption["Rounds"], Value(1000));
  EXPECT_TRUE(encryption["Info"].isData());
  EXPECT_TRUE(CorvanePackage::canOpenURL(package, std::string("secret"), &env));
  EXPECT_FALSE(CorvanePackage::canOpenURL(package, std::string("Secret"), &env));
  EXPECT_FALSE(CorvanePackage::canOpenURL(package, std::nullopt, &env));
  // SHA-256 of "(null).Person.org.corvane.Corvane": the salt slot never held the salt.
  EXPECT_EQ(s.store->fileNameForEntityName("Person"),
            "8D76580C0EFC1B41F39C3DE2227191D2F901C22B18FADBC9EA825184DA5071AD");
  EXPECT_EQ(s.store->fileNameForEntityName("Company"),
            "8E482B3807E2F11348A8FD714E867C5FA8E304CDB22AC8E9614F6F9DB5A8EF54");
  EXPECT_EQ(s.store->entityNameForFileName("8D76580C0EFC1B41F39C3DE2227191D2F901C22B18FADBC9EA825184DA5071AD"),
            "Person");
  close(s);

  Error error;
  EXPECT_FALSE(open(dict({{"password", "wrong"}}), &error));
  EXPECT_NE(error.localizedDescription.find("password does not open"), std::string::npos);
  EXPECT_FALSE(open(Value(), &error));
  EXPECT_NE(error.localizedDescription.find("password is needed"), std::string::npos);
  OpenStore right = open(dict({{"password", "secret"}}));
  EXPECT_TRUE(right);
  close(right);
}

TEST_F(PackageTest, PlainPackagesKeepEntityNamesAndRefuseAPassword) {
  OpenStore s = open();
  EXPECT_EQ(s.store->fileNameForEntityName("Person"), "Person");
  EXPECT_EQ(s.store->fileNameForEntityName("Nobody"), "");
  close(s);
  Error error;
  EXPECT_FALSE(open(dict({{"password", "secret"}}), &error));
  EXPECT_NE(error.localizedDescription.find("not encrypted"), std::string::npos);
  EXPECT_TRUE(CorvanePackage::canOpenURL(package, std::nullopt, &env));
  EXPECT_FALSE(CorvanePackage::canOpenURL(package, std::string("secret"), &env));
}

TEST_F(PackageTest, RecognitionNeedsAllThreeEntriesAndTheFrameworkKey) {
  OpenStore s = open();
  close(s);
  EXPECT_TRUE(CorvanePackage::isCorrectFormat(package, &env));
  env.removeItem(package + "/Entities", nullptr);
  EXPECT_FALSE(CorvanePackage::isCorrectFormat(package, &env));
  env.createDirectory(package + "/Entities", false, nullptr);
  Value i = info().mutableCopy();
  i.remove(Value("Corvane"));
  ASSERT_TRUE(writePropertyListFile(&env, package + "/Info.plist", i));
  EXPECT_FALSE(CorvanePackage::isCorrectFormat(package, &env));
  Error error;
  EXPECT_FALSE(open(Value(), &error));
  EXPECT_NE(error.localizedDescription.find("is not a Corvane document"), std::string::npos);

  // An Info.plist that is an online-only placeholder: the user is told.
  writeTextFile(package + "/Info.plist", "");
  volumes->remote.insert(package + "/Info.plist");
  EXPECT_FALSE(CorvanePackage::isCorrectFormat(package, &env, environment_));
  EXPECT_EQ(interaction->alerts, std::vector<std::string>{"The files of this document are not on this computer"});
}

TEST_F(PackageTest, FileExtensionComesFromTheDocumentTypes) {
  ApplicationInfo host;
  ApplicationInfo::setCurrent(host);
  EXPECT_EQ(CorvanePackage::fileExtension(), std::nullopt);
  host.documentTypes =
      arr({dict({{"NSPersistentStoreTypeKey", "SQLite"}, {"CFBundleTypeExtensions", arr({"sql"})}}),
           dict({{"NSPersistentStoreTypeKey", "CorvaneStore"}, {"CFBundleTypeExtensions", arr({"ledger", "ldg"})}})});
  ApplicationInfo::setCurrent(host);
  EXPECT_EQ(CorvanePackage::fileExtension(), std::optional<std::string>("ledger"));
  ApplicationInfo::setCurrent(ApplicationInfo());
}

TEST_F(PackageTest, PrepareNewStoreTrashesTheOldPackageAndResetsItsCache) {
  OpenStore s = open();
  close(s);
  CorvanePackage::prepareNewStoreAtURL(package, &env, environment_->defaults);
  EXPECT_FALSE(pathExists(package));
  const Value records = environment_->defaults->arrayForKey(kCorvaneOverwrittenFilesKey);
  ASSERT_EQ(records.count(), 1u);
  EXPECT_EQ(records.at(0)["originalPath"], Value(package));
  EXPECT_TRUE(pathExists(records.at(0)["trashPath"].str()));
  EXPECT_TRUE(records.at(0)["date"].isDate());
}

TEST_F(PackageTest, RecentFilesKeepOneRecordPerPackage) {
  OpenStore s = open();
  close(s);
  OpenStore again = open();
  close(again);
  CorvanePackage::waitForRecentFilesRegistration();
  const Value records = environment_->defaults->arrayForKey(kCorvaneRecentFilesKey);
  ASSERT_EQ(records.count(), 1u);
  EXPECT_EQ(records.at(0)["Path"], Value(package));
  EXPECT_EQ(records.at(0)["BackupPath"], Value("No Time Machine Backup found"));
  EXPECT_TRUE(records.at(0)["DocumentInfo"]["DocumentIdentifier"].isString());
}

}  // namespace
}  // namespace corvane::testing
