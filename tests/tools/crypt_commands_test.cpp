// `corvane decrypt` and `corvane encrypt`, run as the real binary.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "security/test_vectors.h"
#include "support/temp_dir.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using namespace testvectors;
using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

using RunResult = testing::ToolRun;
using testing::runTool;

// Runs the tool on a pseudo-terminal and answers its first prompt with `typed`.
RunResult runToolOnTerminal(const std::vector<std::string>& arguments, const std::string& typed,
                            std::string* terminalText) {
  TempDir home;
  return testing::runToolOnTerminal(arguments, {}, home.path(), typed, ": ", terminalText);
}

std::string infoPlist(const std::string& encryption) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n<dict>\n"
         "\t<key>DocumentIdentifier</key>\n\t<string>6F1C2D3E-0000-4000-8000-00000000ABCD</string>\n" +
         encryption + "</dict>\n</plist>\n";
}

// A package encrypted with the password "correct horse" at 1000 rounds, and one change file.
class CryptCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeTextFile(package + "/Info.plist", infoPlist(packageEncryptionPlistEntry()));
    writeTextFile(change, toString(fromHex(kPackageChangeBlock)));
    writeTextFile(rightPassword, "correct horse\n");
    writeTextFile(wrongPassword, "correct horse!\n");
  }

  TempDir dir;
  const std::string package = dir / "Doc.corvane";
  const std::string change = package + "/Changes/2026-01-01-00-00-00.000.ABC.json";
  const std::string rightPassword = dir / "right.txt";
  const std::string wrongPassword = dir / "wrong.txt";
  const std::string plainChange{kPackageChangePlain};
};

TEST_F(CryptCommandsTest, DecryptsWithPasswordFromFileOrEnvironment) {
  RunResult r = runTool({"decrypt", "--package", package, "--password-file", rightPassword, change});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, plainChange);
  EXPECT_EQ(r.err, "");

  const std::string output = dir / "plain.json";
  r = runTool({"decrypt", "--package", package, change, "-o", output}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readTextFile(output), plainChange);

  // The password file wins over the environment; a CRLF line ending is not part of it.
  writeTextFile(rightPassword, "correct horse\r\nsecond line\n");
  r = runTool({"decrypt", "--package", package, "--password-file", rightPassword, change}, {"CORVANE_PASSWORD=wrong"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, plainChange);

  // Several inputs without -o go to standard output one after the other.
  r = runTool({"decrypt", "--package", package, change, change}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, plainChange + plainChange);
}

TEST_F(CryptCommandsTest, PromptsOnTheTerminalWithoutEcho) {
  std::string terminal;
  RunResult r = runToolOnTerminal({"decrypt", "--package", package, change}, "correct horse\n", &terminal);
  EXPECT_EQ(r.status, 0) << terminal;
  EXPECT_EQ(r.out, plainChange);
  EXPECT_NE(terminal.find("Password for " + package + ": "), std::string::npos) << terminal;
  EXPECT_EQ(terminal.find("correct horse"), std::string::npos) << "the password was echoed: " << terminal;

  terminal.clear();
  r = runToolOnTerminal({"decrypt", "--package", package, change}, "guess\n", &terminal);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(terminal.find("wrong password"), std::string::npos) << terminal;
}

TEST_F(CryptCommandsTest, WrongPasswordWritesNothing) {
  const std::string output = dir / "plain.json";
  RunResult r = runTool({"decrypt", "--package", package, "--password-file", wrongPassword, change, "-o", output});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("wrong password"), std::string::npos) << r.err;
  EXPECT_FALSE(pathExists(output));
  r = runTool({"encrypt", "--package", package, change}, {"CORVANE_PASSWORD=nope"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("wrong password"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST_F(CryptCommandsTest, DamagedFileIsReportedAndNothingIsWritten) {
  std::string damaged = toString(fromHex(kPackageChangeBlock));
  damaged[40] ^= 0x01;
  writeTextFile(dir / "damaged.json", damaged);
  RunResult r =
      runTool({"decrypt", "--package", package, change, dir / "damaged.json"}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("damaged.json could not be decrypted: wrong password or damaged file"), std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");  // not even the good first file

  writeTextFile(dir / "short.json", "{}");
  r = runTool({"decrypt", "--package", package, dir / "short.json"}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("could not be decrypted"), std::string::npos) << r.err;
}

TEST_F(CryptCommandsTest, EncryptedOutputDecryptsBack) {
  writeTextFile(dir / "plain.txt", "hello, support\n");
  const std::string sealed = dir / "sealed.bin";
  RunResult r =
      runTool({"encrypt", "--package", package, dir / "plain.txt", "-o", sealed}, {"CORVANE_PASSWORD=correct horse"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string block = readTextFile(sealed);
  EXPECT_EQ(block.size(), 16u + 16u + 64u);
  EXPECT_EQ(block.find("hello"), std::string::npos);

  r = runTool({"decrypt", "--package", package, sealed}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "hello, support\n");
}

TEST_F(CryptCommandsTest, ClearMessagesForPackageAndFileProblems) {
  RunResult r = runTool({"decrypt", "--package", package, dir / "nothing.json"}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("nothing.json: no such file"), std::string::npos) << r.err;

  const std::string plainPackage = dir / "Plain.corvane";
  writeTextFile(plainPackage + "/Info.plist", infoPlist(""));
  r = runTool({"decrypt", "--package", plainPackage, change}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Plain.corvane is not encrypted"), std::string::npos) << r.err;

  const std::string noInfo = dir / "NoInfo.corvane";
  writeTextFile(noInfo + "/Changes/x.json", "x");
  r = runTool({"encrypt", "--package", noInfo, change}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("NoInfo.corvane/Info.plist is missing"), std::string::npos) << r.err;

  writeTextFile(dir / "Broken.corvane/Info.plist", "<plist><dict><key>");
  r = runTool({"decrypt", "--package", dir / "Broken.corvane", change}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Info.plist could not be read"), std::string::npos) << r.err;
}

TEST_F(CryptCommandsTest, PasswordNeverFromTheCommandLine) {
  // No file, no environment variable, no terminal: a clear refusal, not a hang.
  RunResult r = runTool({"decrypt", "--package", package, change});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("--password-file"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("CORVANE_PASSWORD"), std::string::npos) << r.err;

  r = runTool({"decrypt", "--package", package, "--password", "correct horse", change});
  EXPECT_EQ(r.status, 2);
  r = runTool({"decrypt", "--package", package, "--password-file", dir / "absent.txt", change});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("absent.txt"), std::string::npos) << r.err;
}

TEST_F(CryptCommandsTest, UsageAndHelp) {
  RunResult r =
      runTool({"decrypt", "--package", package, change, change, "-o", dir / "out"}, {"CORVANE_PASSWORD=correct horse"});
  EXPECT_EQ(r.status, 2);
  EXPECT_FALSE(pathExists(dir / "out"));
  r = runTool({"decrypt", change});  // --package is required
  EXPECT_EQ(r.status, 2);
  r = runTool({"decrypt", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("CORVANE_PASSWORD"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace corvane
