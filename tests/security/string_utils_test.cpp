#include "corvane/security/string_utils.h"

#include <gtest/gtest.h>

#include <vector>

#include "corvane/foundation/env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

TEST(StoreUIDTest, TakesLastComponentWithoutMarker) {
  EXPECT_EQ(storeUID("Book/p42"), "42");
  EXPECT_EQ(storeUID("Book/tABC"), "ABC");
  EXPECT_EQ(storeUID("x-coredata://ABCD/Book/p7"), "7");
  EXPECT_EQ(storeUID("Book/0A1B2C3D-0000-4000-8000-000000000000"), "0A1B2C3D-0000-4000-8000-000000000000");
  EXPECT_EQ(storeUID("ABC"), "ABC");
  EXPECT_EQ(storeUID("p"), "");
  EXPECT_EQ(storeUID("pp"), "p");  // only one marker is dropped
  EXPECT_EQ(storeUID("Book/"), "");
  EXPECT_EQ(storeUID(""), "");
}

TEST(StoreEntityNameTest, FirstNonEmptyComponent) {
  EXPECT_EQ(storeEntityName("Book/ABC"), "Book");
  EXPECT_EQ(storeEntityName("//Book//ABC"), "Book");
  EXPECT_EQ(storeEntityName("Book"), "Book");
  EXPECT_EQ(storeEntityName(""), std::nullopt);
  EXPECT_EQ(storeEntityName("///"), std::nullopt);
  EXPECT_EQ(storeEntityName("\xFF/ABC"), std::nullopt);  // no UTF-8 form
  EXPECT_EQ(storeEntityName("B\xC3\xBC"
                            "cher/ABC"),
            "B\xC3\xBC"
            "cher");
}

TEST(AnonymizeTest, KeepsFirstAndLastCharacter) {
  EXPECT_EQ(anonymize("abc"),
            "a\xE2\x80\xA6"
            "c");
  EXPECT_EQ(anonymize("Annabel"),
            "A\xE2\x80\xA6"
            "l");
  EXPECT_EQ(anonymize("ab"), "\xE2\x80\xA6");
  EXPECT_EQ(anonymize(""), "\xE2\x80\xA6");
  // Characters, not bytes: "é" + "a" is two characters in three bytes.
  EXPECT_EQ(anonymize("\xC3\xA9"
                      "a"),
            "\xE2\x80\xA6");
  EXPECT_EQ(anonymize("\xC3\xA9"
                      "tude\xC3\xA9"),
            "\xC3\xA9\xE2\x80\xA6\xC3\xA9");
  // Four-byte characters at both ends stay whole.
  EXPECT_EQ(anonymize("\xF0\x9F\x98\x80x\xF0\x9F\x98\x81"), "\xF0\x9F\x98\x80\xE2\x80\xA6\xF0\x9F\x98\x81");
}

// Fakes the computer name and the mount table; files are real, in a temporary folder.
class FakeVolumesEnv : public EnvWrapper {
 public:
  FakeVolumesEnv() : EnvWrapper(Env::defaultEnv()) {}
  std::string machineName() override { return "Test Mac"; }
  std::optional<VolumeInfo> volumeForPath(const std::string&) override { return volume("/data", volumeName); }
  std::vector<VolumeInfo> mountedVolumes() override { return volumes; }

  static VolumeInfo volume(const std::string& mountPoint, const std::string& name) {
    VolumeInfo v;
    v.mountPoint = mountPoint;
    v.name = name;
    return v;
  }

  std::string volumeName = "Data";  // of the volume holding every path asked about
  std::vector<VolumeInfo> volumes;
};

TEST(TimeMachineBackupPathTest, NoBackupDiskGivesNothing) {
  testing::TempDir dir;
  FakeVolumesEnv env;
  env.volumes = {FakeVolumesEnv::volume("/", "/"), FakeVolumesEnv::volume(dir.path(), "Stick")};
  testing::writeTextFile(dir / "home/u/doc.txt", "x");
  EXPECT_EQ(timeMachineBackupPath(&env, "/home/u/doc.txt"), std::nullopt);
}

TEST(TimeMachineBackupPathTest, FindsNewestSnapshotHoldingTheFile) {
  testing::TempDir disk;
  FakeVolumesEnv env;
  env.volumes = {FakeVolumesEnv::volume("/", "/"), FakeVolumesEnv::volume(disk.path(), "Backup")};
  const std::string machine = disk / "Backups.backupdb/Test Mac";
  testing::writeTextFile(machine + "/2024-01-10-101010/Data/home/u/doc.txt", "old");
  testing::writeTextFile(machine + "/2024-02-10-101010/Data/home/u/doc.txt", "newer");
  // The newest snapshot does not have the file any more; it is passed over.
  testing::writeTextFile(machine + "/2024-03-10-101010/Data/home/u/other.txt", "x");
  // Another computer's backups never count.
  testing::writeTextFile(disk / "Backups.backupdb/Other Mac/2025-01-01-000000/Data/home/u/doc.txt", "x");

  EXPECT_EQ(timeMachineBackupPath(&env, "/home/u/doc.txt"), machine + "/2024-02-10-101010/Data/home/u/doc.txt");
  EXPECT_EQ(timeMachineBackupPath(&env, "/home/u/missing.txt"), std::nullopt);
}

TEST(TimeMachineBackupPathTest, FallsBackToMountedSnapshotVolume) {
  testing::TempDir root;
  FakeVolumesEnv env;
  const std::string snapshot = root / "Volumes/Backups.backupdb/Test Mac/2024-05-01-000000/Data";
  testing::writeTextFile(snapshot + "/home/u/doc.txt", "x");
  env.volumes = {FakeVolumesEnv::volume("/", "/"), FakeVolumesEnv::volume(snapshot, "Data")};
  EXPECT_EQ(timeMachineBackupPath(&env, "/home/u/doc.txt"), snapshot + "/home/u/doc.txt");
  EXPECT_EQ(timeMachineBackupPath(&env, "/home/u/gone.txt"), std::nullopt);
}

TEST(TimeMachineBackupPathTest, RootVolumeFilesLieDirectlyInTheSnapshot) {
  testing::TempDir disk;
  FakeVolumesEnv env;
  env.volumeName = "/";
  env.volumes = {FakeVolumesEnv::volume("/", "/"), FakeVolumesEnv::volume(disk.path(), "Backup")};
  const std::string snapshot = disk / "Backups.backupdb/Test Mac/2024-01-10-101010";
  testing::writeTextFile(snapshot + "/etc/hosts", "x");
  EXPECT_EQ(timeMachineBackupPath(&env, "/etc/hosts"), snapshot + "/etc/hosts");
}

}  // namespace
}  // namespace corvane
