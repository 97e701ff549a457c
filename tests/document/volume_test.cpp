#include "corvane/document/volume.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <set>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "corvane/foundation/log.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/foundation/user_defaults.h"
#include "support/printers.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeTextFile;

// A real file system with a fake mount table, plus the faults and system files the queries
// must cope with.
class VolumeTestEnv : public ManualClockEnv {
 public:
  std::vector<std::string> probes;                 // every fileExists() asked
  std::set<std::string> vanished;                  // attributes() answers nullopt
  std::set<std::string> unlistable;                // listDirectory() fails
  std::map<std::string, std::string> systemFiles;  // served instead of anything under /sys
  std::map<std::string, uint64_t> free;            // freeSpace() when not empty
  int removeAttributeErrno = 0;                    // removeExtendedAttribute() fails with it

  bool fileExists(const std::string& path, bool* isDirectory = nullptr) override {
    probes.push_back(path);
    return ManualClockEnv::fileExists(path, isDirectory);
  }
  std::optional<FileAttributes> attributes(const std::string& path) override {
    if (vanished.contains(path)) return std::nullopt;
    return ManualClockEnv::attributes(path);
  }
  bool listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names, Error* error) override {
    if (unlistable.contains(path)) return setError(error, Error::fromErrno(EACCES, path));
    return ManualClockEnv::listDirectory(path, skipHidden, names, error);
  }
  bool readFile(const std::string& path, Bytes* out, Error* error) override {
    if (!path.starts_with("/sys/")) return ManualClockEnv::readFile(path, out, error);
    auto it = systemFiles.find(path);
    if (it == systemFiles.end()) return setError(error, Error::fromErrno(ENOENT, path));
    out->assign(it->second.begin(), it->second.end());
    return true;
  }
  std::optional<uint64_t> freeSpace(const std::string& path) override {
    if (free.empty()) return ManualClockEnv::freeSpace(path);
    auto it = free.find(path);
    return it == free.end() ? std::nullopt : std::optional<uint64_t>(it->second);
  }
  bool removeExtendedAttribute(const std::string& path, const std::string& name) override {
    if (removeAttributeErrno == 0) return ManualClockEnv::removeExtendedAttribute(path, name);
    errno = removeAttributeErrno;
    return false;
  }
};

VolumeInfo volume(std::string mountPoint, std::string type, std::string device, bool isLocal = true) {
  VolumeInfo v;
  v.name = pathLastComponent(mountPoint);
  v.mountPoint = std::move(mountPoint);
  v.fileSystemType = std::move(type);
  v.device = std::move(device);
  v.isLocal = isLocal;
  return v;
}

// A file of `size` bytes that occupies no blocks, as an online-only placeholder does.
void writePlaceholder(const std::string& path, uintmax_t size = 4096) {
  writeTextFile(path, "");
  std::filesystem::resize_file(path, size);
}

uint64_t allocatedBytes(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
}

#define SKIP_UNLESS_SPARSE(path) \
  if (allocatedBytes(path) != 0) GTEST_SKIP() << "this file system allocates blocks for sparse files"

// ---- Sync services -------------------------------------------------------------------------

TEST(ServiceType, FolderNamesInThePathNameTheService) {
  VolumeTestEnv env;
  EXPECT_EQ(CorvaneServiceType(&env, "/Users/a/Library/CloudStorage/Dropbox/Doc.ext"), "Dropbox");
  EXPECT_EQ(CorvaneServiceType(&env, "/Users/a/MEGAsync/Doc.ext"), "MEGA");
  EXPECT_EQ(CorvaneServiceType(&env, "/Volumes/Box/Doc.ext"), "Box");
  EXPECT_EQ(CorvaneServiceType(&env, "/home/ann/NextCloud/Doc.ext"), "Nextcloud");  // any case
  EXPECT_EQ(CorvaneServiceType(&env, "/home/ann/MEGA/Doc.ext"), "MEGA");
  EXPECT_EQ(CorvaneServiceType(&env, "/run/user/1000/gvfs/google-drive:host=x/Doc.ext"), "Google Drive");
  // "/box/" and "/mega/" are whole folder names; the package's own name counts as one.
  EXPECT_EQ(CorvaneServiceType(&env, "/Users/a/Boxes/Doc.ext"), std::nullopt);
  EXPECT_EQ(CorvaneServiceType(&env, "/home/ann/Megaphone/Doc.ext"), std::nullopt);
  EXPECT_EQ(CorvaneServiceType(&env, "/srv/box"), "Box");
}

TEST(ServiceType, ClientMarkersAboveThePackageNameTheService) {
  TempDir dir;
  VolumeTestEnv env;
  std::filesystem::create_directories(dir / "Shared/.dropbox.cache");
  std::filesystem::create_directories(dir / "Shared/Projects/Doc.ext");
  EXPECT_EQ(CorvaneServiceType(&env, dir / "Shared/Projects/Doc.ext"), "Dropbox");
  std::filesystem::create_directories(dir / "Sync/.stfolder");
  EXPECT_EQ(CorvaneServiceType(&env, dir / "Sync/New.ext"), "Syncthing");  // need not exist yet
  EXPECT_EQ(CorvaneServiceType(&env, dir / "Plain/Doc.ext"), std::nullopt);
}

TEST(ServiceType, MarkerSearchSkipsShortPathsAndStopsBelowTheTopFolders) {
  VolumeTestEnv env;
  for (const char* path : {"/", "/a", "/ab"}) {
    EXPECT_EQ(CorvaneServiceType(&env, path), std::nullopt) << path;
  }
  EXPECT_TRUE(env.probes.empty());

  auto probedFolders = [&env](const std::string& path) {
    env.probes.clear();
    EXPECT_EQ(CorvaneServiceType(&env, path), std::nullopt);
    std::map<std::string, int> folders;  // folder -> markers looked for in it
    for (const std::string& probe : env.probes) ++folders[pathDeletingLastComponent(probe)];
    return folders;
  };
  // A parent of 3 characters or fewer ends the search before it is looked into.
  EXPECT_EQ(probedFolders("/ab/cd/Doc.ext"), (std::map<std::string, int>{{"/ab/cd/Doc.ext", 3}, {"/ab/cd", 3}}));
  EXPECT_EQ(probedFolders("/srv/Doc.ext"), (std::map<std::string, int>{{"/srv/Doc.ext", 3}, {"/srv", 3}}));
  EXPECT_EQ(probedFolders("/abc"), (std::map<std::string, int>{{"/abc", 3}}));
}

// ---- Placeholders --------------------------------------------------------------------------

TEST(IsOnDisk, FilesAreOnDiskWhenTheyOccupyBlocks) {
  TempDir dir;
  VolumeTestEnv env;
  writeTextFile(dir / "Info.plist", "<plist/>");
  writePlaceholder(dir / "Online.json");
  SKIP_UNLESS_SPARSE(dir / "Online.json");
  writeTextFile(dir / "Empty", "");
  EXPECT_TRUE(CorvaneIsOnDisk(&env, dir / "Info.plist"));
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Online.json"));
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Empty"));
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Missing"));
}

TEST(IsOnDisk, AFolderIsOnDiskUnlessAVisibleFileIsAPlaceholderOrVanishes) {
  TempDir dir;
  VolumeTestEnv env;
  std::filesystem::create_directories(dir / "Empty.ext");
  EXPECT_TRUE(CorvaneIsOnDisk(&env, dir / "Empty.ext"));

  writeTextFile(dir / "Doc.ext/Info.plist", "x");
  writeTextFile(dir / "Doc.ext/Changes/a.json", "{}");
  writePlaceholder(dir / "Doc.ext/.hidden/online");  // hidden folders are not looked into
  writePlaceholder(dir / "Doc.ext/.online");
  writePlaceholder(dir / "Elsewhere/online");
  SKIP_UNLESS_SPARSE(dir / "Elsewhere/online");
  std::filesystem::create_symlink(dir / "Elsewhere", dir / "Doc.ext/Linked");  // not followed
  std::filesystem::create_symlink(dir / "Gone", dir / "Doc.ext/dangling");
  EXPECT_TRUE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));

  env.vanished.insert(dir / "Doc.ext/Changes/a.json");  // deleted between listing and reading
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));
  env.vanished.clear();
  env.unlistable.insert(dir / "Doc.ext");
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));
  env.unlistable.clear();

  writePlaceholder(dir / "Doc.ext/Changes/deep/b.json");
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));
  // A link to the package is judged by the package.
  std::filesystem::create_symlink(dir / "Doc.ext", dir / "Alias.ext");
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Alias.ext"));
}

TEST(IsOnDisk, OnlyTheFirstHundredEntriesAreExamined) {
  TempDir dir;
  VolumeTestEnv env;
  // Entry 1 is the folder "a", entries 2 to 100 its files; "b" comes 101st.
  for (int i = 0; i < 99; ++i) writeTextFile(dir / ("Doc.ext/a/" + std::to_string(1000 + i)), "x");
  writePlaceholder(dir / "Doc.ext/b");
  SKIP_UNLESS_SPARSE(dir / "Doc.ext/b");
  EXPECT_TRUE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));
  // With one file fewer in "a", "b" is the hundredth and is seen.
  std::filesystem::remove(dir / "Doc.ext/a/1000");
  EXPECT_FALSE(CorvaneIsOnDisk(&env, dir / "Doc.ext"));
}

// ---- Sizes and free space ------------------------------------------------------------------

TEST(TotalSize, SumsTheAllocationOfEveryRegularFileBelowAFolder) {
  TempDir dir;
  VolumeTestEnv env;
  const std::string big(20000, 'x');
  writeTextFile(dir / "Doc.ext/Info.plist", "small");
  writeTextFile(dir / "Doc.ext/Entities/Book/A", big);
  writeTextFile(dir / "Doc.ext/.hidden/B", big);  // hidden items count
  writePlaceholder(dir / "Doc.ext/online", 1 << 20);
  writeTextFile(dir / "Outside", big + big);
  std::filesystem::create_symlink(dir / "Outside", dir / "Doc.ext/link");  // not followed
  const uint64_t expected = allocatedBytes(dir / "Doc.ext/Info.plist") +
                            allocatedBytes(dir / "Doc.ext/Entities/Book/A") +
                            allocatedBytes(dir / "Doc.ext/.hidden/B") + allocatedBytes(dir / "Doc.ext/online");
  EXPECT_GE(expected, 40000u);
  EXPECT_EQ(CorvaneTotalSize(&env, dir / "Doc.ext"), expected);
  EXPECT_EQ(CorvaneTotalSize(&env, dir / "Outside"), allocatedBytes(dir / "Outside"));
  EXPECT_EQ(CorvaneTotalSize(&env, dir / "Missing"), 0u);
  // An unreadable subfolder counts as empty.
  env.unlistable.insert(dir / "Doc.ext/Entities");
  EXPECT_EQ(CorvaneTotalSize(&env, dir / "Doc.ext"), expected - allocatedBytes(dir / "Doc.ext/Entities/Book/A"));
}

TEST(FreeDiskSpace, AsksTheVolumeThenThePath) {
  TempDir dir;
  VolumeTestEnv env;
  writeTextFile(dir / "Doc.ext/Info.plist", "x");
  env.setVolumes({volume("/", "ext4", "/dev/sda1"), volume(dir.path(), "ext4", "/dev/sdb1")});
  env.free = {{dir.path(), 5000}, {dir / "Doc.ext", 7000}};
  EXPECT_EQ(CorvaneTotaFreeDiskSpace(&env, dir / "Doc.ext"), 5000u);
  EXPECT_EQ(CorvaneVolumeURL(&env, dir / "Doc.ext/New/Deeper"), dir.path());
  env.free[dir.path()] = 0;
  EXPECT_EQ(CorvaneTotaFreeDiskSpace(&env, dir / "Doc.ext"), 7000u);
  env.free = {{"/elsewhere", 1}};
  EXPECT_EQ(CorvaneTotaFreeDiskSpace(&env, dir / "Doc.ext"), 0u);
  EXPECT_GT(CorvaneTotaFreeDiskSpace(Env::defaultEnv(), dir / "Doc.ext"), 0u);
}

// ---- Local volumes -------------------------------------------------------------------------

TEST(LocalVolume, NetworkFileSystemsAndRemoteSourcesAreNotLocal) {
  EXPECT_TRUE(isLocalVolume(volume("/", "ext4", "/dev/sda1")));
  EXPECT_TRUE(isLocalVolume(volume("/srv/pool", "fuse.mergerfs", "/mnt/a:/mnt/b")));
  EXPECT_TRUE(isLocalVolume(volume("/mnt/c", "drvfs", "C:\\")));
  EXPECT_FALSE(isLocalVolume(volume("/mnt/share", "nfs4", "server:/export", false)));
  // A FUSE client mounted under the generic type shows itself through its source.
  EXPECT_FALSE(isLocalVolume(volume("/mnt/r", "fuse", "sshfs#ann@host:/home/ann")));
  EXPECT_FALSE(isLocalVolume(volume("/mnt/r", "fuse", "ann@host:")));
  EXPECT_FALSE(isLocalVolume(volume("/mnt/r", "fuse", "//nas/docs")));
}

TEST(LocalVolume, OnlyAVolumeKnownToBeRemoteRefusesUnlessTheUserOptedOut) {
  TempDir dir;
  VolumeTestEnv env;
  writeTextFile(dir / "local/Doc.ext/Info.plist", "x");
  writeTextFile(dir / "remote/Doc.ext/Info.plist", "x");
  env.setVolumes({volume("/", "ext4", "/dev/sda1"), volume(dir / "remote", "cifs", "//nas/docs", false)});
  UserDefaults defaults(&env, dir / "defaults.plist");
  EXPECT_TRUE(CorvaneIsLocalURL(&env, dir / "local/Doc.ext", &defaults));
  EXPECT_FALSE(CorvaneIsLocalURL(&env, dir / "remote/Doc.ext", &defaults));
  EXPECT_FALSE(CorvaneIsLocalURL(&env, dir / "remote/New.ext", &defaults));  // through its folder

  ASSERT_TRUE(defaults.setObject(Value::boolean(true), kCorvaneIgnoreNetworkVolumesKey));
  EXPECT_TRUE(CorvaneIsLocalURL(&env, dir / "remote/Doc.ext", &defaults));
  ASSERT_TRUE(defaults.setObject(Value::boolean(false), kCorvaneIgnoreNetworkVolumesKey));
  env.setVolumes({});
  EXPECT_TRUE(CorvaneIsLocalURL(&env, dir / "remote/Doc.ext", &defaults));
}

// ---- Keep downloaded -----------------------------------------------------------------------

TEST(KeepDownloaded, PinningWritesTheMarkerAndUnpinningAnUnpinnedFolderIsSilent) {
  TempDir dir;
  VolumeTestEnv env;
  std::filesystem::create_directories(dir / "Doc.ext");
  LogCapture log;
  if (!CorvaneSetKeepDownloaded(&env, dir / "Doc.ext", true)) {
    GTEST_SKIP() << "no user extended attributes here";
  }
  char raw[8];
  const std::string folder = dir / "Doc.ext";
  ASSERT_EQ(::getxattr(folder.c_str(), "user.com.apple.fileprovider.pinned#PX", raw, sizeof raw), 1);
  EXPECT_EQ(raw[0], '1');
  EXPECT_TRUE(CorvaneIsKeepDownloaded(&env, folder));
  EXPECT_TRUE(CorvaneSetKeepDownloaded(&env, folder, false));
  EXPECT_FALSE(CorvaneIsKeepDownloaded(&env, folder));
  EXPECT_TRUE(CorvaneSetKeepDownloaded(&env, folder, false));
  EXPECT_TRUE(log.lines().empty());
}

TEST(KeepDownloaded, FailuresAreLoggedWithTheNameAndErrorNumber) {
  TempDir dir;
  VolumeTestEnv env;
  LogCapture log;
  EXPECT_FALSE(CorvaneSetKeepDownloaded(&env, dir / "Missing.ext", true));
  EXPECT_FALSE(CorvaneSetKeepDownloaded(&env, dir / "Missing.ext", false));
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Corvane: Failed to pin Missing.ext (errno 2)",
                                                   "Corvane: Failed to unpin Missing.ext (errno 2)"}));

  std::filesystem::create_directories(dir / "Doc.ext");
  if (!CorvaneSetKeepDownloaded(&env, dir / "Doc.ext", true)) GTEST_SKIP() << "no user extended attributes here";
  log.clear();
  env.removeAttributeErrno = EACCES;
  EXPECT_FALSE(CorvaneSetKeepDownloaded(&env, dir / "Doc.ext", false));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Corvane: Failed to unpin Doc.ext (errno 13)"});
}

// ---- Volume information --------------------------------------------------------------------

TEST(VolumeInformation, DescribesVolumesAndTheirDisks) {
  TempDir dir;
  VolumeTestEnv env;
  std::filesystem::create_directories(dir / "My Docs/Doc.ext");
  env.setVolumes({volume("/", "ext4", "/dev/sda1"), volume("/proc", "proc", "proc"),
                  volume("/media/ann/USB", "vfat", "/dev/sdc1"), volume("/mnt/nfs", "nfs4", "server:/export", false),
                  volume("/mnt/smb", "cifs", "//nas/docs", false),
                  volume("/home/ann/remote", "fuse.sshfs", "ann@host:", false)});
  env.systemFiles = {{"/sys/class/block/sda1/../queue/rotational", "0\n"},
                     {"/sys/class/block/sda1/../device/model", "Samsung SSD 870 \n"}};
  const Value properties = CorvaneVolumeProperties(&env, dir / "My Docs/Doc.ext");
  EXPECT_EQ(properties, Value::dictionary({{Value::string("Medium Type"), Value::string("Solid State")},
                                           {Value::string("Product Name"), Value::string("Samsung SSD 870")}}));
  const Value info = CorvaneVolumeInformation(&env, dir / "My Docs/Doc.ext");
  EXPECT_EQ(info["URL"].str(), "file://" + dir.path() + "/My%20Docs/Doc.ext/");
  EXPECT_EQ(info["Format"].str(), "ext4");
  EXPECT_EQ(info["Properties"].str(), properties.description());

  // Every volume but the kernel's own, each described at its mount point.
  std::vector<std::string> rows;
  const Value all = CorvaneAllVolumeInformation(&env);
  for (const Value& v : all.elements()) {
    rows.push_back(fmt::format("{} {} {}{}{}", v["URL"].str(), v["MountURL"].str(), v["Local"].str(),
                               v["Ejectable"].str(), v["Internal"].str()));
  }
  EXPECT_EQ(rows, (std::vector<std::string>{"file:/// (null) 101", "file:///media/ann/USB (null) 110",
                                            "file:///mnt/nfs nfs://server/export 00(null)",
                                            "file:///mnt/smb smb://nas/docs 00(null)",
                                            "file:///home/ann/remote sftp://ann@host/ 00(null)"}));

  env.setVolumes({});
  const Value unknown = CorvaneVolumeInformation(&env, dir / "Missing.ext");
  EXPECT_EQ(unknown["URL"].str(), "file://" + dir.path() + "/Missing.ext");
  for (const char* key : {"MountURL", "Name", "Ejectable", "Local", "Internal", "Format", "Properties"}) {
    EXPECT_EQ(unknown[key].str(), "(null)") << key;
  }
  EXPECT_FALSE(CorvaneAllVolumeInformation(Env::defaultEnv()).empty());
}

}  // namespace
}  // namespace corvane
