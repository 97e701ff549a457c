#include "corvane/foundation/folder_merge.h"

#include <gtest/gtest.h>

#include "corvane/foundation/log.h"
#include "support/printers.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

TEST(CreateDirectoryIfNeeded, CreatesMissingFoldersAndLeavesFilesAlone) {
  TempDir dir;
  Env* env = Env::defaultEnv();
  EXPECT_TRUE(createDirectoryAtPathIfNeeded(env, dir / "a/b/c"));
  EXPECT_TRUE(pathExists(dir / "a/b/c"));
  EXPECT_TRUE(createDirectoryAtPathIfNeeded(env, dir / "a/b/c"));
  writeTextFile(dir / "file", "x");
  EXPECT_FALSE(createDirectoryAtPathIfNeeded(env, dir / "file"));
  EXPECT_EQ(readTextFile(dir / "file"), "x");
}

TEST(FolderMerge, SourceFilesReplaceDestinationFilesAndOthersSurvive) {
  TempDir dir;
  writeTextFile(dir / "src/both.txt", "new");
  writeTextFile(dir / "src/nested/deep/only-src.txt", "s");
  writeTextFile(dir / "src/.hidden", "h");
  writeTextFile(dir / "dst/both.txt", "old");
  writeTextFile(dir / "dst/only-dst.txt", "d");
  Error error;
  corvaneMergeContentsOfPath(Env::defaultEnv(), dir / "src", dir / "dst", &error);
  EXPECT_TRUE(error.empty()) << error.description();
  EXPECT_EQ(readTextFile(dir / "dst/both.txt"), "new");
  EXPECT_EQ(readTextFile(dir / "dst/only-dst.txt"), "d");
  EXPECT_EQ(readTextFile(dir / "dst/nested/deep/only-src.txt"), "s");
  EXPECT_EQ(readTextFile(dir / "dst/.hidden"), "h");
  EXPECT_FALSE(pathExists(dir / "src"));
}

TEST(FolderMerge, EmptySourceIsRemovedAndDestinationUnchanged) {
  TempDir dir;
  ASSERT_TRUE(createDirectoryAtPathIfNeeded(Env::defaultEnv(), dir / "src"));
  writeTextFile(dir / "dst/keep", "k");
  corvaneMergeContentsOfPath(Env::defaultEnv(), dir / "src", dir / "dst", nullptr);
  EXPECT_FALSE(pathExists(dir / "src"));
  EXPECT_EQ(readTextFile(dir / "dst/keep"), "k");
}

TEST(FolderMerge, LogsEachStepWithTheFixedTexts) {
  TempDir dir;
  writeTextFile(dir / "src/d/f", "1");
  writeTextFile(dir / "dst/d/f", "0");
  LogCapture log;
  corvaneMergeContentsOfPath(Env::defaultEnv(), dir / "src", dir / "dst", nullptr);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "- mergeContentsOfPath: " + (dir / "src") + "\n intoPath: " + (dir / "dst"), " subPath: d",
                             "   create directory", " subPath: d/f", "   removeItemAtPath", "   moveItemAtPath"}));
}

// Fails every move, as a full disk or a locked file would.
class FailingMoveEnv : public EnvWrapper {
 public:
  FailingMoveEnv() : EnvWrapper(Env::defaultEnv()) {}
  bool moveItem(const std::string&, const std::string& to, Error* error) override {
    ++moves;
    return setError(error, Error(kPOSIXErrorDomain, 28, "No space left on device: " + to));
  }
  int moves = 0;
};

TEST(FolderMerge, WithAnErrorPointerTheFirstErrorStopsAndKeepsTheSource) {
  TempDir dir;
  writeTextFile(dir / "src/a", "1");
  writeTextFile(dir / "src/b", "2");
  FailingMoveEnv env;
  Error error;
  LogCapture log;
  corvaneMergeContentsOfPath(&env, dir / "src", dir / "dst", &error);
  EXPECT_EQ(env.moves, 1);
  EXPECT_EQ(error.code, 28);
  EXPECT_TRUE(log.contains("ERROR: "));
  EXPECT_TRUE(pathExists(dir / "src/a"));
  EXPECT_TRUE(pathExists(dir / "src/b"));
}

TEST(FolderMerge, WithoutAnErrorPointerItRunsToTheEndAndRemovesTheSource) {
  TempDir dir;
  writeTextFile(dir / "src/a", "1");
  writeTextFile(dir / "src/b", "2");
  FailingMoveEnv env;
  corvaneMergeContentsOfPath(&env, dir / "src", dir / "dst", nullptr);
  EXPECT_EQ(env.moves, 2);
  EXPECT_FALSE(pathExists(dir / "src"));
}

}  // namespace
}  // namespace corvane
