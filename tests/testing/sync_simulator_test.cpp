#include "corvane/testing/sync_simulator.h"

#include <gtest/gtest.h>

#include "corvane/foundation/manual_clock_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

class SyncSimulatorTest : public ::testing::Test {
 protected:
  SyncSimulatorTest() {
    EXPECT_TRUE(env.target()->createDirectory(dir / "A", true, nullptr));
    EXPECT_TRUE(env.target()->createDirectory(dir / "B", true, nullptr));
  }
  SyncSimulator make(SyncKnobs knobs, uint64_t seed = 1) {
    SyncSimulator sim(&env, seed, knobs);
    sim.addFolder(dir / "A");
    sim.addFolder(dir / "B");
    return sim;
  }
  TempDir dir;
  ManualClockEnv env;
};

TEST_F(SyncSimulatorTest, FilesArriveAfterTheDelayAndHiddenFilesNever) {
  SyncKnobs knobs;
  knobs.delay = 2;
  SyncSimulator sim = make(knobs);
  writeTextFile(dir / "A/Changes/1.json", "one");
  writeTextFile(dir / "A/Changes/.x.tmp", "temp");
  sim.scan();
  env.advance(1.9);
  EXPECT_EQ(sim.deliverDue(), 0u);
  EXPECT_FALSE(pathExists(dir / "B/Changes/1.json"));
  env.advance(0.2);
  EXPECT_EQ(sim.deliverDue(), 1u);
  EXPECT_EQ(readTextFile(dir / "B/Changes/1.json"), "one");
  EXPECT_FALSE(pathExists(dir / "B/Changes/.x.tmp"));
  // Going back the other way, and a delivered file is not sent back.
  writeTextFile(dir / "B/Changes/2.json", "two");
  sim.settle();
  EXPECT_EQ(readTextFile(dir / "A/Changes/2.json"), "two");
  EXPECT_EQ(sim.pendingCount(), 0u);
}

TEST_F(SyncSimulatorTest, ObjectFilesCanTrailTheirChangeFile) {
  SyncKnobs knobs;
  knobs.objectFileLag = 5;
  SyncSimulator sim = make(knobs);
  writeTextFile(dir / "A/Entities/P/U1/1.json", "object");
  writeTextFile(dir / "A/Changes/1.json", "change");
  sim.scan();
  sim.deliverDue();
  EXPECT_TRUE(pathExists(dir / "B/Changes/1.json"));
  EXPECT_FALSE(pathExists(dir / "B/Entities/P/U1/1.json"));
  env.advance(5);
  sim.deliverDue();
  EXPECT_EQ(readTextFile(dir / "B/Entities/P/U1/1.json"), "object");
}

TEST_F(SyncSimulatorTest, PartialFilesGrowAndPlaceholdersHaveNoBlocks) {
  SyncKnobs knobs;
  knobs.partialFileProbability = 1;
  knobs.partialSteps = 4;
  knobs.placeholderProbability = 1;
  knobs.stepInterval = 1;
  SyncSimulator sim = make(knobs);
  std::string content(8192, 'x');
  writeTextFile(dir / "A/Changes/1.json", content);
  sim.scan();
  sim.deliverDue();
  auto attrs = env.attributes(dir / "B/Changes/1.json");
  ASSERT_TRUE(attrs);
  EXPECT_EQ(attrs->size, 8192u);
  EXPECT_EQ(attrs->allocatedSize, 0u) << "a placeholder occupies no blocks";
  std::vector<uint64_t> sizes;
  for (int i = 0; i < 4; ++i) {
    env.advance(1);
    sim.deliverDue();
    sizes.push_back(env.attributes(dir / "B/Changes/1.json")->size);
  }
  EXPECT_EQ(sizes, (std::vector<uint64_t>{2048, 4096, 6144, 8192}));
  EXPECT_EQ(readTextFile(dir / "B/Changes/1.json"), content);
  // Nothing the simulator wrote while growing was mistaken for a new file.
  sim.settle();
  EXPECT_EQ(readTextFile(dir / "A/Changes/1.json"), content);
}

// Entity folders only, also in a package inside the synchronised folder: Changes/ and the
// package's own folders made on both sides are merged, as every sync client does.
TEST_F(SyncSimulatorTest, EntityFoldersMadeOnBothSidesCanArriveAsDuplicates) {
  SyncKnobs knobs;
  knobs.duplicateFolderProbability = 1;
  SyncSimulator sim = make(knobs);
  writeTextFile(dir / "B/Entities/Person/U2/2.json", "b");
  writeTextFile(dir / "A/Entities/Person/U1/1.json", "a");
  writeTextFile(dir / "A/Entities/Person/U1/Data/blob", "data");
  writeTextFile(dir / "B/Doc.corvane/Changes/2.json", "b");
  writeTextFile(dir / "B/Doc.corvane/Entities/Person/U2/2.json", "b");
  writeTextFile(dir / "A/Doc.corvane/Changes/1.json", "a");
  writeTextFile(dir / "A/Doc.corvane/Entities/Person/U1/1.json", "a");
  sim.settle();
  EXPECT_EQ(readTextFile(dir / "B/Entities/Person 2/U1/1.json"), "a");
  EXPECT_EQ(readTextFile(dir / "B/Entities/Person 2/U1/Data/blob"), "data");
  EXPECT_FALSE(pathExists(dir / "B/Entities/Person/U1"));
  EXPECT_EQ(readTextFile(dir / "B/Doc.corvane/Changes/1.json"), "a");
  EXPECT_EQ(readTextFile(dir / "B/Doc.corvane/Entities/Person 2/U1/1.json"), "a");
  EXPECT_FALSE(pathExists(dir / "B/Doc.corvane/Entities 2"));
}

TEST_F(SyncSimulatorTest, DataFilesCanArriveUnderALongerName) {
  SyncKnobs knobs;
  knobs.dataFileRenameProbability = 1;
  SyncSimulator sim = make(knobs);
  writeTextFile(dir / "A/Entities/P/U1/Data/ABC", "bytes");
  writeTextFile(dir / "A/Entities/P/U1/1.json", "object");
  sim.settle();
  EXPECT_EQ(readTextFile(dir / "B/Entities/P/U1/Data/ABC (conflicted copy)"), "bytes");
  EXPECT_TRUE(pathExists(dir / "B/Entities/P/U1/1.json"));
  EXPECT_FALSE(pathExists(dir / "A/Entities/P/U1/Data/ABC (conflicted copy)")) << "not sent back";
}

TEST_F(SyncSimulatorTest, DroppedFilesNeverArrive) {
  SyncKnobs knobs;
  knobs.dropProbability = 1;
  SyncSimulator sim = make(knobs);
  writeTextFile(dir / "A/Changes/1.json", "lost");
  sim.settle();
  EXPECT_FALSE(pathExists(dir / "B/Changes/1.json"));
  EXPECT_EQ(sim.pendingCount(), 0u);
}

TEST_F(SyncSimulatorTest, RemovalsAreMirroredOnceArrived) {
  SyncSimulator sim = make(SyncKnobs());
  writeTextFile(dir / "A/Changes/1.json", "x");
  sim.settle();
  ASSERT_TRUE(pathExists(dir / "B/Changes/1.json"));
  // The device moves it away, as discarding a change does.
  ASSERT_TRUE(env.moveItem(dir / "B/Changes/1.json", dir / "B/InvalidChanges-1.json", nullptr));
  sim.settle();
  EXPECT_FALSE(pathExists(dir / "A/Changes/1.json"));
  EXPECT_TRUE(pathExists(dir / "A/InvalidChanges-1.json"));
}

TEST_F(SyncSimulatorTest, SameSeedSameRun) {
  SyncKnobs knobs;
  knobs.jitter = 3;
  knobs.changeFileShuffle = 10;
  knobs.partialFileProbability = 0.5;
  knobs.dropProbability = 0.2;
  for (int i = 0; i < 12; ++i) writeTextFile(dir / ("A/Changes/" + std::to_string(10 + i) + ".json"), "abcdef");
  std::vector<std::string> runs[2];
  for (auto& run : runs) {
    TempDir other;
    EXPECT_TRUE(env.target()->createDirectory(other / "B", true, nullptr));
    SyncSimulator sim(&env, 42, knobs);
    sim.addFolder(dir / "A");
    sim.addFolder(other / "B");
    sim.scan();
    for (int t = 0; t < 30; ++t) {
      env.advance(1);
      sim.deliverDue();
    }
    run = sim.history();
  }
  EXPECT_EQ(runs[0], runs[1]);
  EXPECT_FALSE(runs[0].empty());
}

}  // namespace
}  // namespace corvane
