#include "corvane/foundation/file_event_stream.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "corvane/foundation/manual_clock_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeTextFile;

// The stream's reader thread hands kernel events to the loop; these helpers wait (in real
// time, bounded) for that hand-over, while the batching itself runs on the fake clock.
class FileEventStreamTest : public ::testing::Test {
 protected:
  FileEventStreamTest() : loop(&env), folder(dir / "Changes") {
    EXPECT_TRUE(env.target()->createDirectory(folder, true, nullptr));
  }

  FileEventStream makeStream(double latency) {
    return FileEventStream(
        folder, latency, [this](const std::vector<std::string>& paths) { batches.push_back(paths); }, loop);
  }
  // Waits until a batch timer is scheduled, then lets straggling events reach the loop.
  bool waitForEvents() {
    bool armed = loop.runUntil([&] { return loop.secondsUntilNextTimer().has_value(); }, 10);
    loop.runUntil([] { return false; }, 0.3);
    return armed;
  }
  void advanceAndRun(double seconds) {
    env.advance(seconds);
    loop.runOnce();
  }
  static bool contains(const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
  }

  TempDir dir;
  ManualClockEnv env;
  RunLoop loop;
  std::string folder;
  std::vector<std::vector<std::string>> batches;
};

TEST_F(FileEventStreamTest, EventsOfOneLatencyWindowComeAsOneBatch) {
  FileEventStream stream = makeStream(2.0);
  ASSERT_TRUE(stream.start());
  writeTextFile(folder + "/a.json", "a");
  writeTextFile(folder + "/b.json", "b");
  writeTextFile(folder + "/c.json", "c");
  ASSERT_TRUE(waitForEvents());
  advanceAndRun(1.9);
  EXPECT_TRUE(batches.empty()) << "the latency has not passed yet";
  advanceAndRun(0.2);
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(batches[0], (std::vector<std::string>{folder + "/a.json", folder + "/b.json", folder + "/c.json"}));
}

TEST_F(FileEventStreamTest, OwnChangesAreNotReported) {
  FileEventStream stream = makeStream(0.5);
  ASSERT_TRUE(stream.start());
  stream.ignoreOwnChange(folder + "/mine.json");
  writeTextFile(folder + "/mine.json", "x");
  writeTextFile(folder + "/theirs.json", "y");
  ASSERT_TRUE(waitForEvents());
  advanceAndRun(1);
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(batches[0], (std::vector<std::string>{folder + "/theirs.json"}));
}

TEST_F(FileEventStreamTest, ReArmsWhenTheFolderIsReplaced) {
  FileEventStream stream = makeStream(0.5);
  ASSERT_TRUE(stream.start());
  ASSERT_TRUE(env.removeItem(folder, nullptr));
  ASSERT_TRUE(env.createDirectory(folder, false, nullptr));
  ASSERT_TRUE(waitForEvents());
  advanceAndRun(1);
  batches.clear();
  writeTextFile(folder + "/new.json", "n");
  ASSERT_TRUE(waitForEvents());
  advanceAndRun(1);
  ASSERT_FALSE(batches.empty());
  EXPECT_TRUE(contains(batches.back(), folder + "/new.json"));
}

TEST_F(FileEventStreamTest, ADroppedBatchTimerDoesNotSilenceTheStream) {
  FileEventStream stream = makeStream(0.5);
  ASSERT_TRUE(stream.start());
  writeTextFile(folder + "/a.json", "a");
  ASSERT_TRUE(waitForEvents());
  loop.discardPendingWork();  // as a test harness does between tests
  writeTextFile(folder + "/b.json", "b");
  ASSERT_TRUE(waitForEvents());
  advanceAndRun(1);
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_TRUE(contains(batches[0], folder + "/b.json"));
}

TEST_F(FileEventStreamTest, NothingAfterStopAndAMissingFolderCannotStart) {
  FileEventStream stream = makeStream(0.5);
  ASSERT_TRUE(stream.start());
  writeTextFile(folder + "/a.json", "a");
  ASSERT_TRUE(waitForEvents());
  stream.stop();
  advanceAndRun(1);
  EXPECT_TRUE(batches.empty());
  EXPECT_FALSE(stream.isRunning());

  FileEventStream missing(
      dir / "nowhere", 1, [](const std::vector<std::string>&) {}, loop);
  Error error;
  EXPECT_FALSE(missing.start(&error));
  EXPECT_FALSE(error.localizedDescription.empty());
}

}  // namespace
}  // namespace corvane
