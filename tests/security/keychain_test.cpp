#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include "corvane/security/document_password.h"
#include "corvane/security/file_keychain.h"
#include "corvane/security/keychain_item.h"
#include "corvane/testing/fault_injection_env.h"
#include "secret_service_daemon.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::TempDir;

constexpr const char* kApp = "com.example.Ledger";

// One private Secret Service for the whole program, started on first use.
testing::SecretServiceDaemon& secretService() {
  static auto* daemon = new testing::SecretServiceDaemon();
  return *daemon;
}

// Ends the daemons by pid when the tests are over.
class SecretServiceEnvironment : public ::testing::Environment {
 public:
  static bool started;
  void TearDown() override {
    if (started) delete &secretService();
  }
};
bool SecretServiceEnvironment::started = false;
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new SecretServiceEnvironment);

// The same behaviour is asked of both backends.
class KeychainBehaviour : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "file") {
      keychain_ = newFileKeychain(Env::defaultEnv(), dir_ / "keychain");
      return;
    }
    SecretServiceEnvironment::started = true;
    ASSERT_EQ(secretService().failure(), "") << "no private Secret Service to test against";
    Error error;
    keychain_ = secretService().open(&error);
    ASSERT_NE(keychain_, nullptr) << error.description();
    // The service lives across tests: start from an empty keychain.
    (void)keychain_->remove({}, nullptr);
  }

  KeychainBackend* keychain() { return keychain_.get(); }

  TempDir dir_;
  std::unique_ptr<KeychainBackend> keychain_;
};

TEST_P(KeychainBehaviour, GenericItemsAreAddedFoundAndUpdatedInPlace) {
  Error error;
  const Value label = Value::dictionary({{"labl", "First.ledger"}});
  ASSERT_TRUE(MCSMStoreGenericKeychainItem::genericKeychainItemWithService(kApp, "DOC-1", label, "secret 1", &error,
                                                                           keychain()))
      << error.description();
  ASSERT_TRUE(MCSMStoreGenericKeychainItem::genericKeychainItemWithService(kApp, "DOC-2", Value(), "other", &error,
                                                                           keychain()));
  // The same service and account again: the password and the label change, no second item.
  ASSERT_TRUE(MCSMStoreGenericKeychainItem::genericKeychainItemWithService(
      kApp, "DOC-1", Value::dictionary({{"labl", "Renamed.ledger"}}), "secret 2", &error, keychain()));

  auto item = MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "DOC-1", Value(), &error, keychain());
  ASSERT_TRUE(item) << error.description();
  EXPECT_EQ(item->password(), "secret 2");
  EXPECT_EQ(item->service(), kApp);
  EXPECT_EQ(item->account(), "DOC-1");
  EXPECT_EQ((*item)["labl"], Value("Renamed.ledger"));
  EXPECT_EQ((*item)["class"], Value("genp"));
  EXPECT_TRUE((*item)["missing"].isNil());

  auto all = MCSMStoreGenericKeychainItem::genericKeychainItemsForService(kApp, Value(), &error, keychain());
  ASSERT_TRUE(all);
  ASSERT_EQ(all->size(), 2u);
  for (const auto& each : *all) EXPECT_EQ(each.password(), "") << "a list carries attributes only";

  // Extra attributes narrow a look-up.
  EXPECT_TRUE(MCSMStoreGenericKeychainItem::genericKeychainItemForService(
      kApp, "DOC-1", Value::dictionary({{"labl", "Renamed.ledger"}}), nullptr, keychain()));
  EXPECT_FALSE(MCSMStoreGenericKeychainItem::genericKeychainItemForService(
      kApp, "DOC-1", Value::dictionary({{"labl", "First.ledger"}}), nullptr, keychain()));
}

TEST_P(KeychainBehaviour, MissingItemsFailWithTheQueryInTheError) {
  Error error;
  EXPECT_FALSE(
      MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "nobody", Value(), &error, keychain()));
  EXPECT_EQ(error.domain, "NSOSStatusErrorDomain");
  EXPECT_EQ(error.code, -25300);
  const Value expected = Value::dictionary({{"acct", "nobody"},
                                            {"class", "genp"},
                                            {"svce", kApp},
                                            {"m_Limit", "m_LimitOne"},
                                            {"r_Attributes", true},
                                            {"r_Data", true}});
  EXPECT_EQ(error.userInfo["MCSMKeychainItemQueryKey"], expected);

  EXPECT_FALSE(MCSMStoreGenericKeychainItem::genericKeychainItemsForService(kApp, Value(), &error, keychain()));
  EXPECT_EQ(error.userInfo["MCSMKeychainItemQueryKey"]["m_Limit"], Value("m_LimitAll"));
  EXPECT_TRUE(error.userInfo["MCSMKeychainItemQueryKey"]["r_Data"].isNil());
}

TEST_P(KeychainBehaviour, RemovingDeletesOnlyThatItem) {
  auto one = MCSMStoreGenericKeychainItem::genericKeychainItemWithService(kApp, "A", Value(), "a", nullptr, keychain());
  auto two = MCSMStoreGenericKeychainItem::genericKeychainItemWithService(kApp, "B", Value(), "b", nullptr, keychain());
  ASSERT_TRUE(one && two);
  Error error;
  ASSERT_TRUE(one->removeFromKeychainWithError(&error)) << error.description();
  EXPECT_FALSE(MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "A", Value(), nullptr, keychain()));
  EXPECT_TRUE(MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "B", Value(), nullptr, keychain()));

  EXPECT_FALSE(one->removeFromKeychainWithError(&error));
  EXPECT_EQ(error.code, -25300);
  EXPECT_EQ(error.userInfo["MCSMKeychainItemQueryKey"],
            Value::dictionary({{"acct", "A"}, {"class", "genp"}, {"svce", kApp}}));
}

TEST_P(KeychainBehaviour, InternetItemsAreKeyedByTheirLocation) {
  MCSMStoreInternetKeychainItem::Location dav{"cloud.example.com", "Files", "/dav", 443, "htps", "dflt"};
  MCSMStoreInternetKeychainItem::Location other = dav;
  other.port = 8443;
  Error error;
  ASSERT_TRUE(
      MCSMStoreInternetKeychainItem::internetKeychainItemWithLocation(dav, "bob", Value(), "p443", &error, keychain()))
      << error.description();
  ASSERT_TRUE(MCSMStoreInternetKeychainItem::internetKeychainItemWithLocation(other, "bob", Value(), "p8443", &error,
                                                                              keychain()));
  auto item = MCSMStoreInternetKeychainItem::internetKeychainItemForLocation(dav, "bob", Value(), &error, keychain());
  ASSERT_TRUE(item) << error.description();
  EXPECT_EQ(item->password(), "p443");
  EXPECT_EQ(item->port(), 443u);
  EXPECT_EQ((*item)["port"], Value(443));
  EXPECT_EQ(item->protocol(), "htps");
  EXPECT_EQ(
      item->description(),
      "MCSMStoreInternetKeychainItem server:cloud.example.com securityDomain:Files account:bob path:/dav port:443");

  MCSMStoreInternetKeychainItem::Location anyPort = dav;
  anyPort.port = 0;  // left out of the look-up
  auto both = MCSMStoreInternetKeychainItem::internetKeychainItemsForLocation(anyPort, Value(), &error, keychain());
  ASSERT_TRUE(both);
  EXPECT_EQ(both->size(), 2u);
  ASSERT_TRUE(item->removeFromKeychainWithError(&error));
  both = MCSMStoreInternetKeychainItem::internetKeychainItemsForLocation(anyPort, Value(), &error, keychain());
  ASSERT_TRUE(both);
  EXPECT_EQ(both->size(), 1u);
  EXPECT_EQ(both->front().port(), 8443u);
}

TEST_P(KeychainBehaviour, DocumentPasswordIsRememberedLabelledAndForgotten) {
  const DocumentPasswordItem doc{kApp, "6F9619FF-8B86-D011-B42D-00C04FC964FF"};
  Error error;
  EXPECT_FALSE(findDocumentPassword(doc, &error, keychain()));
  EXPECT_EQ(error.code, -25300);

  ASSERT_TRUE(saveDocumentPassword(doc, "Budget.ledger", "first", &error, keychain())) << error.description();
  ASSERT_TRUE(saveDocumentPassword(doc, "Budget 2.ledger", "second", &error, keychain())) << error.description();
  EXPECT_EQ(findDocumentPassword(doc, &error, keychain()), "second");

  // The item the document's prompt reads: service = bundle identifier, account = document
  // identifier, label = file name, synchronizable = the bundle identifier text.
  auto item = MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, doc.documentIdentifier, Value(), &error,
                                                                          keychain());
  ASSERT_TRUE(item);
  EXPECT_EQ((*item)["labl"], Value("Budget 2.ledger"));
  EXPECT_EQ((*item)["sync"], Value(kApp));

  ASSERT_TRUE(removeDocumentPassword(doc, &error, keychain())) << error.description();
  EXPECT_FALSE(findDocumentPassword(doc, &error, keychain()));
  EXPECT_TRUE(removeDocumentPassword(doc, &error, keychain())) << "nothing remembered is not a failure";
}

TEST_P(KeychainBehaviour, ApplicationUUIDIsMadeOnceAndKept) {
  auto first = MCSMStoreApplicationUUIDKeychainItem::applicationUUID(kApp, nullptr, keychain());
  ASSERT_TRUE(first);
  EXPECT_EQ(first->size(), 36u);
  EXPECT_EQ(MCSMStoreApplicationUUIDKeychainItem::applicationUUID(kApp, nullptr, keychain()), first);
  auto item = MCSMStoreApplicationUUIDKeychainItem::applicationUUIDKeychainItem(kApp, nullptr, keychain());
  ASSERT_TRUE(item);
  EXPECT_EQ(item->description(),
            "MCSMStoreApplicationUUIDKeychainItem service:org.corvane.keychain.ApplicationUUID "
            "account:com.example.Ledger uuid:" +
                *first);
}

TEST_P(KeychainBehaviour, LockedKeychainRefusesUntilUnlocked) {
  ASSERT_TRUE(
      MCSMStoreGenericKeychainItem::genericKeychainItemWithService(kApp, "L", Value(), "pw", nullptr, keychain()));
  Error error;
  ASSERT_TRUE(MCSMStoreKeychainItem::lockKeychain(keychain(), &error)) << error.description();
  EXPECT_FALSE(MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "L", Value(), &error, keychain()));
  EXPECT_EQ(error.code, -25308);
  EXPECT_FALSE(saveDocumentPassword({kApp, "L2"}, "x", "pw", &error, keychain()));
  EXPECT_EQ(error.localizedDescription, "The password could not be saved to the keychain.");

  if (GetParam() == "file") {
    ASSERT_TRUE(MCSMStoreKeychainItem::unlockKeychain(keychain(), &error)) << error.description();
  } else {
    // The Secret Service unlocks only through its prompt, and the library never prompts: the
    // refusal is reported, and the test then types the login password as the user would.
    EXPECT_FALSE(MCSMStoreKeychainItem::unlockKeychain(keychain(), &error));
    EXPECT_EQ(error.code, -25308);
    std::string why;
    ASSERT_TRUE(secretService().unlockWithLoginPassword(&why)) << why;
  }
  auto item = MCSMStoreGenericKeychainItem::genericKeychainItemForService(kApp, "L", Value(), &error, keychain());
  ASSERT_TRUE(item) << error.description();
  EXPECT_EQ(item->password(), "pw");
}

INSTANTIATE_TEST_SUITE_P(Backends, KeychainBehaviour, ::testing::Values("file", "secret_service"),
                         [](const auto& p) { return p.param; });

// ---- Independent of the backend ------------------------------------------------------------

// A keychain whose every operation fails, as a broken or refusing one would.
class FailingKeychain : public KeychainBackend {
 public:
  std::string name() const override { return "failing"; }
  bool add(const KeychainAttributes&, const std::string&, Error* e) override { return fail(e); }
  bool update(const KeychainAttributes&, const KeychainAttributes&, const std::optional<std::string>&,
              Error* e) override {
    return fail(e);
  }
  std::optional<std::vector<KeychainRecord>> find(const KeychainAttributes&, bool, bool, Error* e) override {
    return fail(e), std::nullopt;
  }
  bool remove(const KeychainAttributes&, Error* e) override { return fail(e); }
  bool lock(Error* e) override { return fail(e); }
  bool unlock(Error* e) override { return fail(e); }

 private:
  static bool fail(Error* e) { return setError(e, keychainError(kKeychainErrorIO, "disk on fire")); }
};

TEST(KeychainItemTest, SavingFailureIsReportedWithTheQueryButNotThePassword) {
  FailingKeychain keychain;
  Error error;
  EXPECT_FALSE(saveDocumentPassword({kApp, "DOC-9"}, "Budget.ledger", "hunter2", &error, &keychain));
  EXPECT_EQ(error.localizedDescription, "The password could not be saved to the keychain.");
  EXPECT_EQ(error.code, -36);
  EXPECT_EQ(error.userInfo["MCSMKeychainItemQueryKey"],
            Value::dictionary(
                {{"acct", "DOC-9"}, {"class", "genp"}, {"labl", "Budget.ledger"}, {"svce", kApp}, {"sync", kApp}}));
  EXPECT_EQ(error.userInfo.description().find("hunter2"), std::string::npos);
  EXPECT_FALSE(removeDocumentPassword({kApp, "DOC-9"}, &error, &keychain)) << "a real failure is not 'not found'";
}

// ---- The file keychain's own promises ------------------------------------------------------

class FileKeychainTest : public ::testing::Test {
 protected:
  std::string folder() { return dir_ / "data/corvane/keychain"; }
  TempDir dir_;
};

TEST_F(FileKeychainTest, PasswordsAreEncryptedAndTheFolderIsTheUsersAlone) {
  auto keychain = newFileKeychain(Env::defaultEnv(), folder());
  ASSERT_TRUE(saveDocumentPassword({kApp, "DOC-1"}, "Budget.ledger", "plain-text-password", nullptr, keychain.get()));
  const std::string store = testing::readTextFile(folder() + "/keychain.json");
  EXPECT_NE(store.find("Budget.ledger"), std::string::npos);
  EXPECT_EQ(store.find("plain-text-password"), std::string::npos);
  struct stat st {};
  ASSERT_EQ(::stat(folder().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  for (const char* name : {"/keychain.json", "/keychain.key"}) {
    ASSERT_EQ(::stat((folder() + name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
  }
  // Another keychain object (another process, in effect) reads the same items.
  auto again = newFileKeychain(Env::defaultEnv(), folder());
  EXPECT_EQ(findDocumentPassword({kApp, "DOC-1"}, nullptr, again.get()), "plain-text-password");
}

TEST_F(FileKeychainTest, AMissingKeyOrDamagedStoreFailsAndIsNeverReplaced) {
  auto keychain = newFileKeychain(Env::defaultEnv(), folder());
  ASSERT_TRUE(saveDocumentPassword({kApp, "DOC-1"}, "a", "pw", nullptr, keychain.get()));
  const std::string key = testing::readTextFile(folder() + "/keychain.key");
  ASSERT_EQ(std::remove((folder() + "/keychain.key").c_str()), 0);
  Error error;
  EXPECT_FALSE(findDocumentPassword({kApp, "DOC-1"}, &error, keychain.get()));
  EXPECT_EQ(error.code, -26275);
  // A new key now would orphan the stored password: adding refuses instead.
  EXPECT_FALSE(saveDocumentPassword({kApp, "DOC-2"}, "b", "pw", &error, keychain.get()));
  EXPECT_FALSE(testing::pathExists(folder() + "/keychain.key"));
  testing::writeTextFile(folder() + "/keychain.key", key);
  EXPECT_EQ(findDocumentPassword({kApp, "DOC-1"}, nullptr, keychain.get()), "pw");

  const std::string damaged = "{\"Items\": [";
  testing::writeTextFile(folder() + "/keychain.json", damaged);
  EXPECT_FALSE(saveDocumentPassword({kApp, "DOC-3"}, "c", "pw", &error, keychain.get()));
  EXPECT_EQ(testing::readTextFile(folder() + "/keychain.json"), damaged);
}

TEST_F(FileKeychainTest, AFailedWriteIsReportedAndKeepsWhatWasSaved) {
  auto keychain = newFileKeychain(Env::defaultEnv(), folder());
  ASSERT_TRUE(saveDocumentPassword({kApp, "DOC-1"}, "a", "kept", nullptr, keychain.get()));
  FaultInjectionEnv full;
  full.failFrom(1, ENOSPC);
  auto failing = newFileKeychain(&full, folder());
  Error error;
  EXPECT_FALSE(saveDocumentPassword({kApp, "DOC-1"}, "a", "lost", &error, failing.get()));
  EXPECT_EQ(error.localizedDescription, "The password could not be saved to the keychain.");
  EXPECT_FALSE(failing->remove({{"class", "genp"}}, &error));
  EXPECT_EQ(findDocumentPassword({kApp, "DOC-1"}, nullptr, keychain.get()), "kept");
}

}  // namespace
}  // namespace corvane
