// `corvane fast dump` and `corvane fast encode`, run as the real binary.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "security/test_vectors.h"
#include "support/temp_dir.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

using FastRun = testing::ToolRun;

// Runs the tool in a new session with standard input from `input` (or /dev/null).
FastRun runFast(const std::vector<std::string>& arguments, const std::string& input = "/dev/null",
                const std::vector<std::string>& environment = {}) {
  return testing::runTool(arguments, environment, input);
}

std::string bytes(std::initializer_list<int> list) {
  std::string s;
  for (int b : list) s.push_back(static_cast<char>(b));
  return s;
}

std::string header(int objects, int classes, int strings) {
  return bytes({'T', 'S', 'A', 'F', 3, 0, 3, 0, objects, 0, 0, 0, classes, 0, 0, 0, strings, 0, 0, 0});
}

class FastCommandsTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(FastCommandsTest, EncodeWritesTheBytesAndDumpPrintsThemBack) {
  writeTextFile(dir / "in.json", R"({"n": 300, "d": {"$date": 2}})");
  FastRun r = runFast({"fast", "encode", dir / "in.json", "-o", dir / "out.fast"});
  ASSERT_EQ(r.status, 0) << r.err;
  // Dictionary at 20 (count at 24); 300 at 28 with its u16 at 30; "n" at 32; the date at 35
  // with its double at 40; "d" at 48.
  std::string expected = header(2, 0, 2) + bytes({9, 0, 0, 0, 2, 0, 0, 0, 16, 0, 0x2C, 1,    8, 'n', 0, 0x30,
                                                  0, 0, 0, 0, 0, 0, 0, 0, 0,  0, 0,    0x40, 8, 'd', 0});
  EXPECT_EQ(readTextFile(dir / "out.fast"), expected);

  r = runFast({"fast", "dump", "--compact", dir / "out.fast"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\"n\":300,\"d\":{\"$date\":2.0}}\n");
  EXPECT_EQ(r.err, "");

  r = runFast({"fast", "dump", "-"}, dir / "out.fast");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\n  \"n\": 300,\n  \"d\": {\n    \"$date\": 2.0\n  }\n}\n");

  // Standard input to standard output, with mutable containers.
  writeTextFile(dir / "list.json", "[1]");
  r = runFast({"fast", "encode", "--mutable", "-o", "-"}, dir / "list.json");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, header(1, 0, 0) + bytes({25, 0, 0, 0, 1, 0, 0, 0, 45}));
}

TEST_F(FastCommandsTest, FailuresPrintTheReasonAndExitWithOne) {
  writeTextFile(dir / "bad.fast", header(0, 0, 0) + bytes({49}));
  FastRun r = runFast({"fast", "dump", dir / "bad.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "corvane: FastCoding cannot decode object of type: 49\n");

  // A version 2 stream fails through an exception; the reason is the same kind of line.
  writeTextFile(dir / "old.fast", bytes({'T', 'S', 'A', 'F', 2, 0, 3, 0, 0, 0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0}));
  r = runFast({"fast", "dump", dir / "old.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "corvane: Attempted to read cache object at index 5, but cache object count is 0\n");

  writeTextFile(dir / "text.fast", "not a FastCoding file");
  r = runFast({"fast", "dump", dir / "text.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "corvane: Not FastCoding data\n");

  r = runFast({"fast", "dump", dir / "missing.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no such file"), std::string::npos);

  writeTextFile(dir / "bad.json", R"({"$point": [1]})");
  r = runFast({"fast", "encode", dir / "bad.json", "-o", dir / "x.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "corvane: $point takes 2 numbers\n");
  EXPECT_FALSE(testing::pathExists(dir / "x.fast"));

  r = runFast({"fast", "encode", dir / "bad.json"});
  EXPECT_EQ(r.status, 2);  // -o is required
}

TEST_F(FastCommandsTest, DumpDecryptsWithThePackagePassword) {
  using namespace testvectors;
  const std::string package = dir / "Doc.corvane";
  writeTextFile(package + "/Info.plist",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" +
                    packageEncryptionPlistEntry() + "</dict>\n</plist>\n");
  writeTextFile(dir / "plain.fast", header(0, 0, 1) + bytes({8, 'h', 'i', 0}));
  const std::vector<std::string> password = {"CORVANE_PASSWORD=correct horse"};
  FastRun r =
      runFast({"encrypt", "--package", package, dir / "plain.fast", "-o", dir / "cache.fast"}, "/dev/null", password);
  ASSERT_EQ(r.status, 0) << r.err;

  r = runFast({"fast", "dump", "--package", package, dir / "cache.fast"}, "/dev/null", password);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "\"hi\"\n");

  r = runFast({"fast", "dump", dir / "cache.fast"});
  EXPECT_EQ(r.status, 1);  // still encrypted: not FastCoding data

  writeTextFile(dir / "wrong.txt", "wrong\n");
  r = runFast({"fast", "dump", "--package", package, "--password-file", dir / "wrong.txt", dir / "cache.fast"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
}

TEST_F(FastCommandsTest, HelpDescribesBothCommandsAndTheNotation) {
  FastRun r = runFast({"fast", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("dump"), std::string::npos);
  EXPECT_NE(r.out.find("encode"), std::string::npos);
  EXPECT_NE(r.out.find("{\"$cycle\": true}"), std::string::npos);
  EXPECT_NE(r.out.find("{\"$alias\": \"key.path\"}"), std::string::npos);
}

}  // namespace
}  // namespace corvane
