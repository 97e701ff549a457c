#include "corvane/foundation/env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>
#include <regex>

#include "corvane/foundation/manual_clock_env.h"
#include "corvane/testing/fault_injection_env.h"
#include "foundation/posix_env_helpers.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

// Sets an environment variable for the length of a test.
class ScopedEnvVar {
 public:
  ScopedEnvVar(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvVar() {
    if (old_) {
      ::setenv(name_, old_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

std::vector<std::string> list(const std::string& dir, bool skipHidden = false) {
  std::vector<std::string> names;
  EXPECT_TRUE(Env::defaultEnv()->listDirectory(dir, skipHidden, &names, nullptr)) << dir;
  return names;
}

TEST(PathHelpers, FollowThePlatformPathRules) {
  EXPECT_EQ(pathJoin("/a", "b"), "/a/b");
  EXPECT_EQ(pathJoin("/a/", "/b/"), "/a/b");
  EXPECT_EQ(pathJoin("/", "b"), "/b");
  EXPECT_EQ(pathJoin("", "b"), "b");
  EXPECT_EQ(pathJoin("/a", ""), "/a");

  EXPECT_EQ(pathLastComponent("/a/b.txt"), "b.txt");
  EXPECT_EQ(pathLastComponent("/a/b/"), "b");
  EXPECT_EQ(pathLastComponent("/"), "/");
  EXPECT_EQ(pathLastComponent("name"), "name");

  EXPECT_EQ(pathDeletingLastComponent("/a/b"), "/a");
  EXPECT_EQ(pathDeletingLastComponent("/a/b/"), "/a");
  EXPECT_EQ(pathDeletingLastComponent("/a"), "/");
  EXPECT_EQ(pathDeletingLastComponent("/"), "/");
  EXPECT_EQ(pathDeletingLastComponent("a"), "");

  EXPECT_EQ(pathExtension("/a/Doc.corvane"), "corvane");
  EXPECT_EQ(pathExtension("/a/archive.tar.gz"), "gz");
  EXPECT_EQ(pathExtension("/a.b/c"), "");
  EXPECT_EQ(pathExtension("/a/.bashrc"), "");
  EXPECT_EQ(pathDeletingExtension("/a/Doc.corvane/"), "/a/Doc");
  EXPECT_EQ(pathDeletingExtension("/a.b/c"), "/a.b/c");
  EXPECT_EQ(pathDeletingExtension(".bashrc"), ".bashrc");
}

TEST(Env, NewUUIDStringIsVersion4UpperCaseFromRandomBytes) {
  FaultInjectionEnv env;
  uint8_t fill = 0x00;
  env.setRandomSource([&fill](uint8_t* out, size_t n) {
    std::fill(out, out + n, fill);
    return true;
  });
  EXPECT_EQ(env.newUUIDString(), "00000000-0000-4000-8000-000000000000");
  fill = 0xFF;
  EXPECT_EQ(env.newUUIDString(), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");

  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::string a = Env::defaultEnv()->newUUIDString();
  std::string b = Env::defaultEnv()->newUUIDString();
  EXPECT_TRUE(std::regex_match(a, form)) << a;
  EXPECT_NE(a, b);
}

TEST(Env, StandardFoldersUseXdgVariablesWithFallbacks) {
  FaultInjectionEnv env;
  env.setHomeDirectory("/home/ann");
  for (const char* name : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "TMPDIR"}) {
    env.setEnvironmentVariable(name, std::nullopt);
  }
  EXPECT_EQ(env.dataHome(), "/home/ann/.local/share");
  EXPECT_EQ(env.cacheHome(), "/home/ann/.cache");
  EXPECT_EQ(env.configHome(), "/home/ann/.config");
  EXPECT_EQ(env.temporaryDirectory(), "/tmp");
  EXPECT_EQ(env.desktopDirectory(), "/home/ann/Desktop");

  env.setEnvironmentVariable("XDG_DATA_HOME", "/data/");
  env.setEnvironmentVariable("XDG_CACHE_HOME", "relative/ignored");
  env.setEnvironmentVariable("TMPDIR", "/var/tmp/");
  EXPECT_EQ(env.dataHome(), "/data");
  EXPECT_EQ(env.cacheHome(), "/home/ann/.cache");
  EXPECT_EQ(env.temporaryDirectory(), "/var/tmp");

  TempDir dir;
  writeTextFile(dir / "user-dirs.dirs",
                "# written by xdg-user-dirs-update\nXDG_DOCUMENTS_DIR=\"$HOME/Docs\"\n"
                "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n");
  env.setEnvironmentVariable("XDG_CONFIG_HOME", dir.path());
  EXPECT_EQ(env.desktopDirectory(), "/home/ann/Schreibtisch");
}

TEST(PosixEnv, AtomicWriteReplacesTheFileAndKeepsItsPermissions) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  const std::string path = dir / "Info.plist";
  Error error;
  ASSERT_TRUE(env->writeFileAtomically(path, asBytes("first"), &error)) << error.description();
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_TRUE(env->writeFileAtomically(path, asBytes("second"), &error));
  EXPECT_EQ(readTextFile(path), "second");
  EXPECT_EQ(env->attributes(path)->permissions, 0600u);
  EXPECT_EQ(list(dir.path()), std::vector<std::string>{"Info.plist"});  // no temporary file left
}

TEST(PosixEnv, FailedAtomicWriteLeavesTargetAndNoTemporaryFile) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  // A folder cannot be replaced by a file: the rename fails after the data was written.
  writeTextFile(dir / "target/inside", "keep");
  Error error;
  EXPECT_FALSE(env->writeFileAtomically(dir / "target", asBytes("data"), &error));
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(readTextFile(dir / "target/inside"), "keep");
  EXPECT_EQ(list(dir.path()), std::vector<std::string>{"target"});

  EXPECT_FALSE(env->writeFileAtomically(dir / "missing/file", asBytes("data"), &error));
  EXPECT_EQ(error.code, ENOENT);
}

TEST(PosixEnv, ListDirectorySortsByBytesAndSkipsHiddenNames) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  for (const char* name : {"b", "a", "B", ".hidden", "a2"}) writeTextFile(dir / name, "");
  std::vector<std::string> names;
  ASSERT_TRUE(env->listDirectory(dir.path(), true, &names, nullptr));
  EXPECT_EQ(names, (std::vector<std::string>{"B", "a", "a2", "b"}));
  ASSERT_TRUE(env->listDirectory(dir.path(), false, &names, nullptr));
  EXPECT_EQ(names.front(), ".hidden");

  Error error;
  EXPECT_FALSE(env->listDirectory(dir / "missing", true, &names, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_FALSE(env->listDirectory(dir / "a", true, &names, &error));
  EXPECT_EQ(error.code, ENOTDIR);
}

TEST(PosixEnv, AttributesDescribeThePathItself) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "file", std::string(10000, 'x'));
  ASSERT_EQ(::symlink((dir / "file").c_str(), (dir / "link").c_str()), 0);

  auto file = env->attributes(dir / "file");
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->isRegularFile);
  EXPECT_FALSE(file->isSymbolicLink);
  EXPECT_EQ(file->size, 10000u);
  EXPECT_GE(file->allocatedSize, 10000u);
  EXPECT_EQ(file->allocatedSize % 512, 0u);
  EXPECT_NEAR(file->modificationDate, env->now(), 60);

  auto link = env->attributes(dir / "link");
  ASSERT_TRUE(link);
  EXPECT_TRUE(link->isSymbolicLink);
  EXPECT_FALSE(link->isRegularFile);

  EXPECT_TRUE(env->attributes(dir.path())->isDirectory);
  EXPECT_FALSE(env->attributes(dir / "missing"));
  bool isDirectory = true;
  EXPECT_TRUE(env->fileExists(dir / "link", &isDirectory));
  EXPECT_FALSE(isDirectory);
}

TEST(PosixEnv, CreateDirectoryWithAndWithoutIntermediates) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  Error error;
  EXPECT_FALSE(env->createDirectory(dir / "a/b", false, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(env->createDirectory(dir / "a/b/c", true, &error));
  EXPECT_TRUE(env->createDirectory(dir / "a/b/c", true, &error));  // existing folder: fine
  EXPECT_FALSE(env->createDirectory(dir / "a/b/c", false, &error));
  EXPECT_EQ(error.code, EEXIST);
  writeTextFile(dir / "file", "x");
  EXPECT_FALSE(env->createDirectory(dir / "file/sub", true, &error));
  EXPECT_FALSE(env->createDirectory(dir / "file", true, &error));
}

TEST(PosixEnv, RemoveItemRemovesWholeTreesButNotLinkTargets) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "tree/a/.hidden", "x");
  writeTextFile(dir / "tree/b", "x");
  writeTextFile(dir / "outside/kept", "x");
  ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "tree/link").c_str()), 0);
  EXPECT_TRUE(env->removeItem(dir / "tree", nullptr));
  EXPECT_FALSE(pathExists(dir / "tree"));
  EXPECT_TRUE(pathExists(dir / "outside/kept"));
  Error error;
  EXPECT_FALSE(env->removeItem(dir / "tree", &error));
  EXPECT_EQ(error.code, ENOENT);
}

TEST(PosixEnv, MoveItemRefusesToReplace) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "from", "new");
  writeTextFile(dir / "to", "old");
  Error error;
  EXPECT_FALSE(env->moveItem(dir / "from", dir / "to", &error));
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_EQ(readTextFile(dir / "to"), "old");
  EXPECT_EQ(readTextFile(dir / "from"), "new");
  EXPECT_TRUE(env->moveItem(dir / "from", dir / "moved", &error));
  EXPECT_EQ(readTextFile(dir / "moved"), "new");
  EXPECT_FALSE(pathExists(dir / "from"));
}

TEST(PosixEnv, MoveItemAcrossFileSystemsCopiesAndRemoves) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  struct stat a, b;
  if (::stat("/dev/shm", &b) != 0 || ::stat(dir.path().c_str(), &a) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "needs /dev/shm on another file system than the temporary folder";
  }
  writeTextFile(dir / "pkg/Changes/one.json", "{}");
  const std::string target = "/dev/shm/corvane-move-test-" + std::to_string(::getpid());
  Error error;
  ASSERT_TRUE(env->moveItem(dir / "pkg", target, &error)) << error.description();
  EXPECT_EQ(readTextFile(target + "/Changes/one.json"), "{}");
  EXPECT_FALSE(pathExists(dir / "pkg"));
  EXPECT_TRUE(env->removeItem(target, nullptr));
}

TEST(PosixEnv, CopyItemCopiesTreesWithLinksModesTimesAndAttributes) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "src/sub/file", "content");
  ASSERT_EQ(::chmod((dir / "src/sub/file").c_str(), 0640), 0);
  ASSERT_EQ(::symlink("sub/file", (dir / "src/link").c_str()), 0);
  struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "src/sub/file").c_str(), times, 0), 0);
  bool xattrs = ::setxattr((dir / "src/sub/file").c_str(), "user.test", "1", 1, 0) == 0;

  Error error;
  ASSERT_TRUE(env->copyItem(dir / "src", dir / "dst", &error)) << error.description();
  EXPECT_EQ(readTextFile(dir / "dst/sub/file"), "content");
  auto copied = env->attributes(dir / "dst/sub/file");
  EXPECT_EQ(copied->permissions, 0640u);
  EXPECT_EQ(copied->modificationDate, 1000000000 - kSecondsFrom1970To2001);
  EXPECT_TRUE(env->attributes(dir / "dst/link")->isSymbolicLink);
  EXPECT_EQ(readTextFile(dir / "dst/link"), "content");  // relative link still resolves
  if (xattrs) {
    EXPECT_EQ(env->extendedAttribute(dir / "dst/sub/file", "user.test"), toBytes("1"));
  }

  EXPECT_FALSE(env->copyItem(dir / "src", dir / "dst", &error));
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_FALSE(env->copyItem(dir / "missing", dir / "other", &error));
  EXPECT_FALSE(pathExists(dir / "other"));
}

TEST(PosixEnv, TrashItemFollowsTheFreedesktopTrash) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  ScopedEnvVar dataHome("XDG_DATA_HOME", dir / "data");
  writeTextFile(dir / "docs/My Doc%.ext/Info.plist", "1");

  Error error;
  auto trashed = env->trashItem(dir / "docs/My Doc%.ext", &error);
  ASSERT_TRUE(trashed) << error.description();
  EXPECT_EQ(*trashed, dir / "data/Trash/files/My Doc%.ext");
  EXPECT_EQ(readTextFile(*trashed + "/Info.plist"), "1");
  EXPECT_FALSE(pathExists(dir / "docs/My Doc%.ext"));
  const std::string info = readTextFile(dir / "data/Trash/info/My Doc%.ext.trashinfo");
  const std::regex form("\\[Trash Info\\]\nPath=" + posix::percentEncodePath(dir.path()) +
                        "/docs/My%20Doc%25.ext\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n");
  EXPECT_TRUE(std::regex_match(info, form)) << info;

  // A second item of the same name gets a numbered one.
  writeTextFile(dir / "docs/My Doc%.ext", "2");
  trashed = env->trashItem(dir / "docs/My Doc%.ext", &error);
  ASSERT_TRUE(trashed);
  EXPECT_EQ(*trashed, dir / "data/Trash/files/My Doc%.2.ext");
  EXPECT_TRUE(pathExists(dir / "data/Trash/info/My Doc%.2.ext.trashinfo"));

  EXPECT_FALSE(env->trashItem(dir / "docs/missing", &error));
  EXPECT_EQ(error.code, ENOENT);
}

TEST(PosixEnv, TrashItemMovesAsideWhenNoTrashIsUsable) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "blocker", "a file where the data folder should be");
  ScopedEnvVar dataHome("XDG_DATA_HOME", dir / "blocker");
  writeTextFile(dir / "Doc.ext", "doc");
  writeTextFile(dir / "Doc.2.ext", "someone else's");
  auto moved = env->trashItem(dir / "Doc.ext", nullptr);
  ASSERT_TRUE(moved);
  EXPECT_EQ(*moved, dir / "Doc.3.ext");
  EXPECT_EQ(readTextFile(*moved), "doc");
  EXPECT_EQ(readTextFile(dir / "Doc.2.ext"), "someone else's");
}

TEST(PosixEnv, ExtendedAttributesUseTheNameAsGiven) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  writeTextFile(dir / "pkg/x", "");
  const std::string name = "user.com.apple.fileprovider.pinned#PX";
  Error error;
  if (!env->setExtendedAttribute(dir / "pkg", name, asBytes("1"), &error)) {
    GTEST_SKIP() << "no user extended attributes here: " << error.description();
  }
  EXPECT_EQ(env->extendedAttribute(dir / "pkg", name), toBytes("1"));
  char raw[8];
  EXPECT_EQ(::getxattr((dir / "pkg").c_str(), name.c_str(), raw, sizeof raw), 1);
  EXPECT_TRUE(env->removeExtendedAttribute(dir / "pkg", name));
  EXPECT_FALSE(env->extendedAttribute(dir / "pkg", name));
  EXPECT_FALSE(env->removeExtendedAttribute(dir / "pkg", name));  // nothing left to remove
}

TEST(MountInfo, ParsesMountPointsTypesAndFlags) {
  const char* text =
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "40 22 0:35 / /media/ann/My\\040Backup ro,nosuid master:7 - vfat /dev/sdb1 ro,uid=1000\n"
      "41 22 0:36 / /mnt/share rw,relatime - nfs4 server:/export rw,vers=4.2\n"
      "42 22 0:37 / /home/ann/remote rw,nosuid,nodev - fuse.sshfs ann@host:/ rw\n"
      "43 22 0:38 / /mnt/smb rw - cifs //nas/docs rw\n"
      "garbage line\n"
      "44 22 0:39 / /mnt/fuse rw - fuse.encfs encfs rw\n";
  auto volumes = posix::parseMountInfo(text);
  ASSERT_EQ(volumes.size(), 6u);
  EXPECT_EQ(volumes[0].mountPoint, "/");
  EXPECT_EQ(volumes[0].name, "/");
  EXPECT_EQ(volumes[0].fileSystemType, "ext4");
  EXPECT_EQ(volumes[0].device, "/dev/sda1");
  EXPECT_TRUE(volumes[0].isLocal);
  EXPECT_FALSE(volumes[0].isReadOnly);
  EXPECT_EQ(volumes[1].mountPoint, "/media/ann/My Backup");
  EXPECT_EQ(volumes[1].name, "My Backup");
  EXPECT_TRUE(volumes[1].isReadOnly);
  EXPECT_FALSE(volumes[2].isLocal);
  EXPECT_EQ(volumes[2].device, "server:/export");
  EXPECT_FALSE(volumes[3].isLocal);
  EXPECT_FALSE(volumes[4].isLocal);
  EXPECT_TRUE(volumes[5].isLocal);

  for (const char* type : {"nfs", "smb3", "smbfs", "9p", "afs", "ceph", "glusterfs", "fuse.rclone", "davfs"}) {
    EXPECT_TRUE(posix::isNetworkFileSystemType(type)) << type;
  }
  for (const char* type : {"ext4", "btrfs", "xfs", "tmpfs", "overlay", "vfat", "fuse.encfs"}) {
    EXPECT_FALSE(posix::isNetworkFileSystemType(type)) << type;
  }
}

TEST(MountInfo, VolumeForPathTakesTheLongestWholeComponentPrefix) {
  std::vector<VolumeInfo> volumes(4);
  volumes[0].mountPoint = "/";
  volumes[1].mountPoint = "/mnt/a";
  volumes[1].device = "first";
  volumes[2].mountPoint = "/mnt/a";
  volumes[2].device = "mounted over";
  volumes[3].mountPoint = "/mnt/abc";
  EXPECT_EQ(posix::volumeForPathIn(volumes, "/mnt/a/doc")->device, "mounted over");
  EXPECT_EQ(posix::volumeForPathIn(volumes, "/mnt/a")->device, "mounted over");
  EXPECT_EQ(posix::volumeForPathIn(volumes, "/mnt/ab/doc")->mountPoint, "/");
  EXPECT_EQ(posix::volumeForPathIn(volumes, "/mnt/abc/doc")->mountPoint, "/mnt/abc");
  EXPECT_FALSE(posix::volumeForPathIn({}, "/x"));

  auto real = Env::defaultEnv()->volumeForPath("/tmp/surely/not/there");
  ASSERT_TRUE(real);
  EXPECT_EQ(real->mountPoint.front(), '/');
}

TEST(SystemFiles, ParseIdentityFiles) {
  const char* osRelease =
      "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n# comment\nID=debian\n";
  EXPECT_EQ(posix::shellStyleValue(osRelease, "PRETTY_NAME"), "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(posix::shellStyleValue(osRelease, "ID"), "debian");
  EXPECT_EQ(posix::shellStyleValue(osRelease, "NAME"), "Debian GNU/Linux");
  EXPECT_FALSE(posix::shellStyleValue(osRelease, "VERSION"));
  EXPECT_EQ(posix::shellStyleValue("PRETTY_HOSTNAME='Ann Laptop'\n", "PRETTY_HOSTNAME"), "Ann Laptop");
  EXPECT_EQ(posix::shellStyleValue("PRETTY_HOSTNAME=\"Ann \\\"K\\\" Laptop\"\n", "PRETTY_HOSTNAME"),
            "Ann \"K\" Laptop");

  EXPECT_EQ(posix::uuidFromMachineId("3d1219c7c4c5404aaa1f6d2a48adfda4\n"), "3D1219C7-C4C5-404A-AA1F-6D2A48ADFDA4");
  EXPECT_FALSE(posix::uuidFromMachineId("3d1219c7c4c5404aaa1f6d2a48adfda"));
  EXPECT_FALSE(posix::uuidFromMachineId("3d1219c7c4c5404aaa1f6d2a48adfdaz"));

  EXPECT_EQ(posix::fullNameFromGecos("Ann Smith,Room 4,555-1234,"), "Ann Smith");
  EXPECT_EQ(posix::fullNameFromGecos(""), "");

  EXPECT_EQ(posix::numberedName("Doc.ext", 1), "Doc.ext");
  EXPECT_EQ(posix::numberedName("Doc.ext", 2), "Doc.2.ext");
  EXPECT_EQ(posix::numberedName("Doc", 3), "Doc.3");
  EXPECT_EQ(posix::percentEncodePath("/a b/ü~%"), "/a%20b/%C3%BC~%25");
}

TEST(PosixEnv, IdentityHonoursTheDeviceOverrides) {
  Env* env = Env::defaultEnv();
  EXPECT_FALSE(env->userName().empty());
  EXPECT_FALSE(env->machineName().empty());
  EXPECT_FALSE(env->osVersion().empty());
  const std::string uuid = env->platformUUID();
  EXPECT_TRUE(uuid.empty() || std::regex_match(uuid, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"))) << uuid;
  {
    ScopedEnvVar machine("CORVANE_MACHINE_NAME", "Second Laptop");
    ScopedEnvVar user("CORVANE_FULL_USER_NAME", "Bea Bauer");
    EXPECT_EQ(env->machineName(), "Second Laptop");
    EXPECT_EQ(env->fullUserName(), "Bea Bauer");
  }
  EXPECT_NE(env->machineName(), "Second Laptop");
}

TEST(PosixEnv, ClocksAndTimeZone) {
  Env* env = Env::defaultEnv();
  EXPECT_NEAR(env->now(), static_cast<double>(std::time(nullptr)) - kSecondsFrom1970To2001, 5);
  double a = env->monotonicNow();
  EXPECT_LE(a, env->monotonicNow());
  {
    ScopedEnvVar tz("TZ", "XYZ-3");  // POSIX form: three hours east of GMT, all year
    EXPECT_EQ(env->timeZoneOffset(700000000), 3 * 3600);
  }
  {
    ScopedEnvVar tz("TZ", "UTC0");
    EXPECT_EQ(env->timeZoneOffset(700000000), 0);
  }
}

TEST(PosixEnv, FreeSpaceAndRunningApplications) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  EXPECT_TRUE(env->freeSpace(dir.path()));
  EXPECT_TRUE(env->freeSpace(dir / "not/yet/created"));  // the nearest existing folder answers

  auto apps = env->runningApplications();
  auto self = std::find_if(apps.begin(), apps.end(), [](const auto& app) { return app.pid == ::getpid(); });
  ASSERT_NE(self, apps.end());
  char exe[4096];
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe);
  ASSERT_GT(n, 0);
  EXPECT_EQ(self->executablePath, std::string(exe, static_cast<size_t>(n)));
  EXPECT_FALSE(self->name.empty());
}

TEST(PosixEnv, LaunchDetachedStartsAProgramAndReportsExecFailures) {
  Env* env = Env::defaultEnv();
  TempDir dir;
  const std::string marker = dir / "started";
  Error error;
  ASSERT_TRUE(env->launchDetached("/bin/sh", {"-c", "echo $PPID > '" + marker + "'"}, &error)) << error.description();
  // The program runs on its own; wait (bounded) for its trace.
  for (int i = 0; i < 500 && readTextFile(marker).empty(); ++i) ::usleep(10000);
  const std::string parent = readTextFile(marker);
  ASSERT_FALSE(parent.empty());
  EXPECT_NE(std::atoi(parent.c_str()), ::getpid());  // adopted, not our child

  EXPECT_FALSE(env->launchDetached(dir / "no-such-program", {}, &error));
  EXPECT_EQ(error.code, ENOENT);
}

}  // namespace
}  // namespace corvane
