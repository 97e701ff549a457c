// `corvane deletes`, run as the real binary: the report of objects deleted by earlier runs, the
// file --save leaves in the desktop folder, and the usage and failure statuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "support/temp_dir.h"
#include "support/test_models.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using testing::readTextFile;
using testing::TempDir;
using testing::ToolRun;
using testing::writeTextFile;

class DeletesCommandTest : public ::testing::Test {
 protected:
  DeletesCommandTest() { writeTextFile(model, testing::kPeopleModelJSON); }
  ToolRun run(const std::vector<std::string>& arguments) {
    ToolRun result;
    result.status = testing::waitForExit(testing::startTool(arguments, {}, home, dir / "out", dir / "err"));
    result.out = readTextFile(dir / "out");
    result.err = readTextFile(dir / "err");
    return result;
  }
  std::string firstLine(const ToolRun& r) { return r.out.substr(0, r.out.find('\n')); }

  TempDir dir;
  std::string home = dir / "home";
  std::string package = dir / "Doc.corvane";
  std::string model = dir / "model.json";
};

TEST_F(DeletesCommandTest, ReportsDeletionsAndSavesTheReportOnTheDesktop) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  const std::string ann = firstLine(run({"insert", package, "--model", model, "Person", "name=Ann"}));
  ASSERT_EQ(ann.size(), 36u);
  ToolRun none = run({"deletes", package, "Person", "--model", model});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(none.out, "No deleted Person objects found in recent changes\n");

  ASSERT_EQ(run({"delete", package, "--model", model, "Person", ann}).status, 0);
  ToolRun report = run({"deletes", package, "Person", "--model", model, "--save"});
  ASSERT_EQ(report.status, 0) << report.err;
  EXPECT_EQ(report.out.rfind("=== Deleted Person Objects ===\n\n\n--- Person (1 objects) ---\n", 0), 0u) << report.out;
  EXPECT_NE(report.out.find(" Person " + ann + " was deleted by "), std::string::npos);
  EXPECT_NE(report.out.find("   ↳ Created on "), std::string::npos);
  const std::string trailer = "\nTotal: 1 deleted Person objects (last 50 per entity type)\n";
  const size_t end = report.out.find(trailer);
  ASSERT_NE(end, std::string::npos);
  const std::string path = report.out.substr(end + trailer.size());
  ASSERT_TRUE(path.starts_with(home + "/Desktop/Deleted_Person_Objects_")) << path;
  ASSERT_TRUE(path.ends_with(".txt\n"));
  EXPECT_EQ(readTextFile(path.substr(0, path.size() - 1)), report.out.substr(0, end + trailer.size()));

  EXPECT_EQ(run({"deletes", package, "Nobody", "--model", model}).status, 1);
  EXPECT_EQ(run({"deletes", package, "--model", model}).status, 2);
  ToolRun help = run({"deletes", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--save"), std::string::npos);
}

}  // namespace
}  // namespace corvane
