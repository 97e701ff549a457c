// `corvane password save / forget / status`, run as the real binary: a kept password opens an
// encrypted document in later commands without any prompt, in the keychain file and in a real
// Secret Service.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/test_models.h"
#include "tools/tool_runner.h"

#if CORVANE_TEST_SECRET_SERVICE
#include "security/secret_service_daemon.h"
#endif

namespace corvane {
namespace {

using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

using RunResult = testing::ToolRun;

constexpr const char* kNoTerminalError = "no password: give --password-file FILE or set CORVANE_PASSWORD";

class PasswordCommandsTest : public ::testing::Test {
 protected:
  PasswordCommandsTest() {
    writeTextFile(model, testing::kPeopleModelJSON);
    writeTextFile(passwordFile, "s3cret\n");
  }

  // Runs the tool in the test's private home, with no terminal and `keychainEnvironment` (which
  // names the keychain the child may reach) added to `environment`.
  RunResult run(const std::vector<std::string>& arguments, std::vector<std::string> environment = {}) {
    environment.insert(environment.end(), keychainEnvironment.begin(), keychainEnvironment.end());
    return testing::runTool(arguments, environment, "/dev/null", dir / "home");
  }

  // An encrypted document with one person in it.
  void createEncryptedDocument() {
    ASSERT_EQ(run({"create", package, "--model", model, "--password-file", passwordFile}).status, 0);
    RunResult ann = run({"insert", package, "--model", model, "Person", "name=Annabelle"}, {"CORVANE_PASSWORD=s3cret"});
    ASSERT_EQ(ann.status, 0) << ann.err;
  }

  // save → a command with no password opens the document (through the document and through
  // the package reader) → status says so → forget → the command has to ask again.
  void checkSaveStatusForget(const std::string& keychainName) {
    createEncryptedDocument();
    RunResult before = run({"password", "status", package});
    EXPECT_EQ(before.status, 0) << before.err;
    EXPECT_NE(before.out.find("no password of " + package + " is kept in the keychain (" + keychainName + ")"),
              std::string::npos)
        << before.out;

    RunResult saved = run({"password", "save", package, "--password-file", passwordFile});
    ASSERT_EQ(saved.status, 0) << saved.err;
    EXPECT_NE(saved.out.find("kept in the keychain (" + keychainName + ")"), std::string::npos) << saved.out;

    RunResult dump = run({"dump", package, "--model", model});
    EXPECT_EQ(dump.status, 0) << dump.err;
    EXPECT_NE(dump.out.find("Annabelle"), std::string::npos) << dump.out;
    RunResult changes = run({"changes", package});
    EXPECT_EQ(changes.status, 0) << changes.err;
    EXPECT_NE(changes.out.find("inserted 1"), std::string::npos) << changes.out;
    // A password given on the command line wins, and a wrong one is not quietly replaced.
    RunResult wrong = run({"dump", package, "--model", model}, {"CORVANE_PASSWORD=nope"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.err.find("wrong password"), std::string::npos) << wrong.err;

    RunResult status = run({"password", "status", package});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_NE(status.out.find("is kept in the keychain (" + keychainName + "); commands open it without asking"),
              std::string::npos)
        << status.out;

    RunResult forgotten = run({"password", "forget", package});
    ASSERT_EQ(forgotten.status, 0) << forgotten.err;
    EXPECT_NE(forgotten.out.find("no longer kept"), std::string::npos) << forgotten.out;
    RunResult asks = run({"dump", package, "--model", model});
    EXPECT_EQ(asks.status, 1);
    EXPECT_NE(asks.err.find(kNoTerminalError), std::string::npos) << asks.err;
    RunResult asksToo = run({"changes", package});
    EXPECT_EQ(asksToo.status, 1);
    EXPECT_NE(asksToo.err.find(kNoTerminalError), std::string::npos) << asksToo.err;
    EXPECT_NE(run({"password", "status", package}).out.find("no password of"), std::string::npos);
    RunResult again = run({"password", "forget", package});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("no password of " + package + " was kept"), std::string::npos) << again.out;
  }

  TempDir dir;
  const std::string package = dir / "Notes.corvane";
  const std::string model = dir / "model.json";
  const std::string passwordFile = dir / "pw";
  // No session bus: the tool uses the keychain file under its data folder.
  std::vector<std::string> keychainEnvironment = {"DBUS_SESSION_BUS_ADDRESS="};
};

TEST_F(PasswordCommandsTest, KeptInTheKeychainFileOpensWithoutAPrompt) {
  checkSaveStatusForget("file");
  EXPECT_TRUE(pathExists(dir / "home/data/corvane/keychain"));
}

TEST_F(PasswordCommandsTest, TheSettingAloneDecidesWhetherTheKeptPasswordIsUsed) {
  createEncryptedDocument();
  ASSERT_EQ(run({"password", "save", package}, {"CORVANE_PASSWORD=s3cret"}).status, 0);
  // The setting lives in the tool's defaults file, where the document reads it.
  const std::string defaultsFile = dir / "home/config/org.corvane.Corvane.cli.plist";
  std::string defaults = readTextFile(defaultsFile);
  ASSERT_NE(defaults.find("Corvane.DontShowPasswordPromptAgain."), std::string::npos) << defaults;
  writeTextFile(defaultsFile,
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict/>\n</plist>\n");
  EXPECT_NE(run({"password", "status", package}).out.find("but commands do not use it"), std::string::npos);
  RunResult asks = run({"dump", package, "--model", model});
  EXPECT_EQ(asks.status, 1);
  EXPECT_NE(asks.err.find(kNoTerminalError), std::string::npos) << asks.err;
}

TEST_F(PasswordCommandsTest, MistakesAreOneLineAndKeepNothing) {
  auto expectFailure = [&](const std::vector<std::string>& args, const std::vector<std::string>& environment,
                           const std::string& fragment, int status = 1) {
    RunResult r = run(args, environment);
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
    if (status == 1) {
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
  };
  expectFailure({"password", "save", package}, {}, "is not a folder");
  ASSERT_EQ(run({"create", dir / "Plain.corvane", "--model", model}).status, 0);
  expectFailure({"password", "save", dir / "Plain.corvane"}, {"CORVANE_PASSWORD=s3cret"}, "is not encrypted");
  EXPECT_NE(run({"password", "status", dir / "Plain.corvane"}).out.find("is not encrypted"), std::string::npos);
  createEncryptedDocument();
  expectFailure({"password", "save", package}, {"CORVANE_PASSWORD=nope"}, "wrong password for " + package);
  expectFailure({"password", "save", package}, {}, kNoTerminalError);
  EXPECT_NE(run({"password", "status", package}).out.find("no password of"), std::string::npos);
  EXPECT_FALSE(pathExists(dir / "home/data/corvane/keychain"));
  expectFailure({"password", package}, {}, "", 2);
  expectFailure({"password", "status"}, {}, "package is required", 2);
  RunResult help = run({"password", "save", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--password-file"), std::string::npos) << help.out;
}

#if CORVANE_TEST_SECRET_SERVICE
TEST_F(PasswordCommandsTest, KeptInTheSecretServiceOpensWithoutAPrompt) {
  testing::SecretServiceDaemon service;
  ASSERT_EQ(service.failure(), "") << "no private Secret Service to test against";
  keychainEnvironment = {"DBUS_SESSION_BUS_ADDRESS=" + service.busAddress()};
  checkSaveStatusForget("Secret Service");
  // Nothing went to the file.
  EXPECT_FALSE(pathExists(dir / "home/data/corvane/keychain"));
}
#endif

}  // namespace
}  // namespace corvane
