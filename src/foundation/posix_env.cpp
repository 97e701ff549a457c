// PosixEnv: the real environment on Linux.
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "corvane/foundation/env.h"
#include "foundation/posix_env_helpers.h"

namespace corvane {

namespace {

Error errnoError(int err, const std::string& path) { return Error::fromErrno(err, path); }

double secondsSince2001(const struct timespec& ts) {
  return static_cast<double>(ts.tv_sec) - kSecondsFrom1970To2001 + static_cast<double>(ts.tv_nsec) / 1e9;
}

// open()/read()/write() retried on EINTR.
int openRetrying(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do fd = ::open(path, flags, mode);
  while (fd < 0 && errno == EINTR);
  return fd;
}

bool writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool readAll(int fd, Bytes* out) {
  out->clear();
  uint8_t buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out->insert(out->end(), buffer, buffer + n);
  }
}

// A small file read whole, for /proc and /etc; nullopt when it cannot be read.
std::optional<std::string> readSmallFile(const std::string& path) {
  int fd = openRetrying(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  Bytes data;
  bool ok = readAll(fd, &data);
  ::close(fd);
  if (!ok) return std::nullopt;
  return toString(data);
}

bool existsNoFollow(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// rename() that refuses to replace an existing target. Returns 0 or an errno value.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  int err = errno;
  if (err != EINVAL && err != ENOSYS) return err;
  // The file system cannot rename atomically without replacing; check first instead.
  if (existsNoFollow(to)) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// Makes the folder's entries (a file renamed or a folder made in it) durable. Returns 0 or the
// errno of a real failure: some file systems cannot flush a folder at all (EINVAL, ENOTSUP),
// and an entry there is as durable as they allow, which is not a failure of ours.
int fsyncDirectory(const std::string& dir) {
  int fd = openRetrying(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno == EACCES ? 0 : errno;
  int err = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return err == EINVAL || err == ENOTSUP || err == EROFS ? 0 : err;
}

bool listAll(const std::string& path, std::vector<std::string>* names, int* err) {
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) {
    *err = errno;
    return false;
  }
  names->clear();
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      *err = errno;
      break;
    }
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names->emplace_back(entry->d_name);
  }
  ::closedir(dir);
  return *err == 0;
}

// Copies the extended attributes that can be read and written; others are skipped, as
// a copy must not fail because the target file system knows fewer namespaces.
void copyExtendedAttributes(int from, int to) {
  ssize_t size = ::flistxattr(from, nullptr, 0);
  if (size <= 0) return;
  std::string names(static_cast<size_t>(size), '\0');
  size = ::flistxattr(from, names.data(), names.size());
  if (size <= 0) return;
  names.resize(static_cast<size_t>(size));
  for (size_t pos = 0; pos < names.size();) {
    std::string name(names.c_str() + pos);
    pos += name.size() + 1;
    ssize_t valueSize = ::fgetxattr(from, name.c_str(), nullptr, 0);
    if (valueSize < 0) continue;
    std::string value(static_cast<size_t>(valueSize), '\0');
    valueSize = ::fgetxattr(from, name.c_str(), value.data(), value.size());
    if (valueSize < 0) continue;
    (void)::fsetxattr(to, name.c_str(), value.data(), static_cast<size_t>(valueSize), 0);
  }
}

bool copyFileContents(int from, int to) {
  // copy_file_range lets the file system share blocks; plain reads and writes where it cannot.
  for (;;) {
    ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
    if (n == 0) return true;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP || errno == EBADF) break;
    return false;
  }
  uint8_t buffer[65536];
  for (;;) {
    ssize_t n = ::read(from, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    if (!writeAll(to, buffer, static_cast<size_t>(n))) return false;
  }
}

int copyRecursively(const std::string& from, const std::string& to) {
  struct stat st;
  if (::lstat(from.c_str(), &st) != 0) return errno;
  if (S_ISLNK(st.st_mode)) {
    std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : PATH_MAX), '\0');
    ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
    if (n < 0) return errno;
    target.resize(static_cast<size_t>(n));
    return ::symlink(target.c_str(), to.c_str()) == 0 ? 0 : errno;
  }
  if (S_ISDIR(st.st_mode)) {
    if (::mkdir(to.c_str(), 0700) != 0) return errno;
    std::vector<std::string> names;
    int err = 0;
    if (!listAll(from, &names, &err)) return err;
    for (const std::string& name : names) {
      if (int e = copyRecursively(pathJoin(from, name), pathJoin(to, name)); e != 0) return e;
    }
    int in = openRetrying(from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int out = openRetrying(to.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (in >= 0 && out >= 0) copyExtendedAttributes(in, out);
    if (in >= 0) ::close(in);
    if (out >= 0) ::close(out);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    (void)::utimensat(AT_FDCWD, to.c_str(), times, 0);
    return ::chmod(to.c_str(), st.st_mode & 07777) == 0 ? 0 : errno;
  }
  if (!S_ISREG(st.st_mode)) return ENOTSUP;  // devices, sockets and pipes are not documents
  int in = openRetrying(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return errno;
  int out = openRetrying(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (out < 0) {
    int err = errno;
    ::close(in);
    return err;
  }
  int err = 0;
  if (!copyFileContents(in, out)) err = errno;
  if (err == 0) {
    copyExtendedAttributes(in, out);
    if (::fchmod(out, st.st_mode & 07777) != 0) err = errno;
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    (void)::futimens(out, times);
  }
  ::close(in);
  if (::close(out) != 0 && err == 0) err = errno;
  return err;
}

int removeRecursively(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return errno;
  if (!S_ISDIR(st.st_mode)) return ::unlink(path.c_str()) == 0 ? 0 : errno;
  std::vector<std::string> names;
  int err = 0;
  if (!listAll(path, &names, &err)) return err;
  for (const std::string& name : names) {
    if (int e = removeRecursively(pathJoin(path, name)); e != 0) return e;
  }
  return ::rmdir(path.c_str()) == 0 ? 0 : errno;
}

bool makeDirectories(const std::string& path, mode_t mode, int* err) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    *err = ENOTDIR;
    return false;
  }
  std::string parent = pathDeletingLastComponent(path);
  if (!parent.empty() && parent != path && !makeDirectories(parent, 0777, err)) return false;
  if (::mkdir(path.c_str(), mode) == 0) {
    // A file written into the new folder is only durable once the folder's own entry is.
    *err = fsyncDirectory(parent);
    return *err == 0;
  }
  if (errno == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  *err = errno;
  return false;
}

bool sameDevice(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return ::lstat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev;
}

std::string localDeletionDate() {
  time_t t = ::time(nullptr);
  struct tm tm;
  ::tzset();
  ::localtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  return text;
}

// Moves `path` into a freedesktop.org trash folder (which must have files/ and info/).
// Returns the new path, or nullopt with *err set.
std::optional<std::string> moveIntoTrash(const std::string& trash, const std::string& path, int* err) {
  const std::string name = pathLastComponent(path);
  const std::string info = localDeletionDate();
  for (int n = 1; n < 100000; ++n) {
    const std::string candidate = posix::numberedName(name, n);
    const std::string infoPath = pathJoin(pathJoin(trash, "info"), candidate + ".trashinfo");
    const std::string filesPath = pathJoin(pathJoin(trash, "files"), candidate);
    // Creating the info file exclusively is what reserves the name between processes.
    int fd = openRetrying(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      *err = errno;
      return std::nullopt;
    }
    if (existsNoFollow(filesPath)) {
      ::close(fd);
      ::unlink(infoPath.c_str());
      continue;
    }
    const std::string text = posix::trashInfoText(path, info);
    bool written = writeAll(fd, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    if (::close(fd) != 0) written = false;
    int e = written ? renameNoReplace(path, filesPath) : errno;
    if (e == 0) return filesPath;
    ::unlink(infoPath.c_str());
    if (e == EEXIST) continue;
    *err = e;
    return std::nullopt;
  }
  *err = EEXIST;
  return std::nullopt;
}

bool prepareTrash(const std::string& trash) {
  int err = 0;
  return makeDirectories(pathJoin(trash, "files"), 0700, &err) && makeDirectories(pathJoin(trash, "info"), 0700, &err);
}

struct PasswordEntry {
  std::string login;
  std::string gecos;
  std::string home;
};

std::optional<PasswordEntry> currentPasswordEntry() {
  struct passwd pw;
  struct passwd* result = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(::getuid(), &pw, buffer.data(), buffer.size(), &result) != 0 || result == nullptr) {
    return std::nullopt;
  }
  return PasswordEntry{pw.pw_name ? pw.pw_name : "", pw.pw_gecos ? pw.pw_gecos : "", pw.pw_dir ? pw.pw_dir : ""};
}

// ---- PosixEnv --------------------------------------------------------------------------------

class PosixEnv final : public Env {
 public:
  bool readFile(const std::string& path, Bytes* out, Error* error) override {
    int fd = openRetrying(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return setError(error, errnoError(errno, path));
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(fd);
      return setError(error, errnoError(EISDIR, path));
    }
    bool ok = readAll(fd, out);
    int err = errno;
    ::close(fd);
    return ok || setError(error, errnoError(err, path));
  }

  bool writeFileAtomically(const std::string& path, ByteView data, Error* error) override {
    const std::string dir = pathDeletingLastComponent(path);
    const std::string name = pathLastComponent(path);
    std::string temp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
      uint8_t r[6];
      if (!randomBytes(r, sizeof r)) return setError(error, errnoError(EIO, path));
      char suffix[16];
      std::snprintf(suffix, sizeof suffix, "%02x%02x%02x%02x%02x%02x", r[0], r[1], r[2], r[3], r[4], r[5]);
      // Hidden and ending in ".tmp", so that nothing listing the folder takes it for a real file.
      temp = pathJoin(dir, "." + name + "." + suffix + ".tmp");
      fd = openRetrying(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd < 0 && errno != EEXIST) return setError(error, errnoError(errno, path));
    }
    if (fd < 0) return setError(error, errnoError(EEXIST, path));
    int err = 0;
    struct stat existing;
    if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
      // Replacing a file keeps its permissions (a file readable by its owner alone stays so).
      if (::fchmod(fd, existing.st_mode & 07777) != 0) err = errno;
    }
    if (err == 0 && !writeAll(fd, data.data(), data.size())) err = errno;
    if (err == 0 && ::fsync(fd) != 0) err = errno;
    if (::close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) err = errno;
    if (err != 0) {
      ::unlink(temp.c_str());
      return setError(error, errnoError(err, path));
    }
    // Without this the rename itself may be lost in a crash, and with it the file.
    err = fsyncDirectory(dir);
    return err == 0 || setError(error, errnoError(err, path));
  }

  bool fileExists(const std::string& path, bool* isDirectory) override {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return false;
    if (isDirectory != nullptr) *isDirectory = S_ISDIR(st.st_mode);
    return true;
  }

  std::optional<FileAttributes> attributes(const std::string& path) override {
    struct statx sx;
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
      return std::nullopt;
    }
    FileAttributes a;
    a.isDirectory = S_ISDIR(sx.stx_mode);
    a.isRegularFile = S_ISREG(sx.stx_mode);
    a.isSymbolicLink = S_ISLNK(sx.stx_mode);
    a.size = sx.stx_size;
    a.allocatedSize = sx.stx_blocks * 512;
    a.modificationDate = secondsSince2001({sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec});
    const auto& birth = (sx.stx_mask & STATX_BTIME) != 0 ? sx.stx_btime : sx.stx_ctime;
    a.creationDate = secondsSince2001({birth.tv_sec, birth.tv_nsec});
    a.permissions = sx.stx_mode & 07777;
    return a;
  }

  bool listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names, Error* error) override {
    int err = 0;
    std::vector<std::string> all;
    if (!listAll(path, &all, &err)) return setError(error, errnoError(err, path));
    names->clear();
    for (std::string& name : all) {
      if (skipHidden && name[0] == '.') continue;
      names->push_back(std::move(name));
    }
    std::sort(names->begin(), names->end());
    return true;
  }

  bool createDirectory(const std::string& path, bool intermediates, Error* error) override {
    if (!intermediates) {
      if (::mkdir(path.c_str(), 0777) != 0) return setError(error, errnoError(errno, path));
      const int err = fsyncDirectory(pathDeletingLastComponent(path));
      return err == 0 || setError(error, errnoError(err, path));
    }
    int err = 0;
    return makeDirectories(path, 0777, &err) || setError(error, errnoError(err, path));
  }

  bool removeItem(const std::string& path, Error* error) override {
    int err = removeRecursively(path);
    return err == 0 || setError(error, errnoError(err, path));
  }

  bool moveItem(const std::string& from, const std::string& to, Error* error) override {
    int err = renameNoReplace(from, to);
    if (err == EXDEV) {
      if (!copyItem(from, to, error)) return false;
      err = removeRecursively(from);
      if (err != 0) {
        // Leave one whole item rather than two: undo the copy.
        removeRecursively(to);
        return setError(error, errnoError(err, from));
      }
      return true;
    }
    if (err != 0) return setError(error, errnoError(err, err == EEXIST ? to : from));
    // Both folders' entries, so that a crash leaves the item at one place or the other.
    err = fsyncDirectory(pathDeletingLastComponent(to));
    if (err == 0 && pathDeletingLastComponent(from) != pathDeletingLastComponent(to)) {
      err = fsyncDirectory(pathDeletingLastComponent(from));
    }
    return err == 0 || setError(error, errnoError(err, to));
  }

  bool copyItem(const std::string& from, const std::string& to, Error* error) override {
    if (existsNoFollow(to)) return setError(error, errnoError(EEXIST, to));
    int err = copyRecursively(from, to);
    if (err != 0) {
      removeRecursively(to);
      return setError(error, errnoError(err, from));
    }
    return true;
  }

  std::optional<std::string> trashItem(const std::string& path, Error* error) override {
    if (!existsNoFollow(path)) {
      setError(error, errnoError(ENOENT, path));
      return std::nullopt;
    }
    int err = 0;
    const std::string homeTrash = pathJoin(dataHome(), "Trash");
    if (prepareTrash(homeTrash)) {
      if (sameDevice(path, homeTrash)) {
        if (auto moved = moveIntoTrash(homeTrash, path, &err)) return moved;
      } else if (auto volume = volumeForPath(path)) {
        // Items on other volumes go to that volume's own trash, so that nothing is copied.
        for (const std::string& trash : topDirectoryTrashes(volume->mountPoint)) {
          if (prepareTrash(trash) && sameDevice(path, trash)) {
            if (auto moved = moveIntoTrash(trash, path, &err)) return moved;
          }
        }
      }
    }
    // No usable trash: move the item aside, beside itself, under a name nobody uses.
    const std::string parent = pathDeletingLastComponent(path);
    const std::string name = pathLastComponent(path);
    for (int n = 2; n < 100000; ++n) {
      const std::string candidate = pathJoin(parent, posix::numberedName(name, n));
      err = renameNoReplace(path, candidate);
      if (err == 0) return candidate;
      if (err != EEXIST) break;
    }
    setError(error, errnoError(err, path));
    return std::nullopt;
  }

  std::optional<Bytes> extendedAttribute(const std::string& path, const std::string& name) override {
    // The value may change between asking for its size and reading it; try a few times.
    for (int attempt = 0; attempt < 4; ++attempt) {
      ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
      if (size < 0) return std::nullopt;
      Bytes value(static_cast<size_t>(size));
      ssize_t n = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
      if (n >= 0) {
        value.resize(static_cast<size_t>(n));
        return value;
      }
      if (errno != ERANGE) return std::nullopt;
    }
    return std::nullopt;
  }

  bool setExtendedAttribute(const std::string& path, const std::string& name, ByteView value, Error* error) override {
    return ::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0 ||
           setError(error, errnoError(errno, path));
  }

  bool removeExtendedAttribute(const std::string& path, const std::string& name) override {
    return ::removexattr(path.c_str(), name.c_str()) == 0;
  }

  std::vector<VolumeInfo> mountedVolumes() override {
    auto text = readSmallFile("/proc/self/mountinfo");
    return text ? posix::parseMountInfo(*text) : std::vector<VolumeInfo>{};
  }

  std::optional<VolumeInfo> volumeForPath(const std::string& path) override {
    return posix::volumeForPathIn(mountedVolumes(), resolvedPath(path));
  }

  std::optional<uint64_t> freeSpace(const std::string& path) override {
    struct statvfs sv;
    if (::statvfs(nearestExistingAncestor(path).c_str(), &sv) != 0) return std::nullopt;
    return static_cast<uint64_t>(sv.f_bavail) * static_cast<uint64_t>(sv.f_frsize);
  }

  double now() override {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return secondsSince2001(ts);
  }

  double monotonicNow() override {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  }

  int timeZoneOffset(double date) override {
    double unix = std::floor(date + kSecondsFrom1970To2001);
    if (!(unix > -1e15 && unix < 1e15)) return 0;
    time_t t = static_cast<time_t>(unix);
    struct tm tm;
    ::tzset();
    if (::localtime_r(&t, &tm) == nullptr) return 0;
    return static_cast<int>(tm.tm_gmtoff);
  }

  std::string machineName() override {
    if (auto name = environmentVariable("CORVANE_MACHINE_NAME"); name && !name->empty()) return *name;
    if (auto info = readSmallFile("/etc/machine-info")) {
      if (auto pretty = posix::shellStyleValue(*info, "PRETTY_HOSTNAME"); pretty && !pretty->empty()) return *pretty;
    }
    char host[HOST_NAME_MAX + 1] = {};
    if (::gethostname(host, sizeof host - 1) == 0) return host;
    return "localhost";
  }

  std::string userName() override {
    if (auto entry = currentPasswordEntry(); entry && !entry->login.empty()) return entry->login;
    if (auto user = environmentVariable("USER"); user && !user->empty()) return *user;
    return std::to_string(::getuid());
  }

  std::string fullUserName() override {
    if (auto name = environmentVariable("CORVANE_FULL_USER_NAME"); name && !name->empty()) return *name;
    if (auto entry = currentPasswordEntry()) {
      std::string full = posix::fullNameFromGecos(entry->gecos);
      if (!full.empty()) return full;
    }
    return userName();
  }

  std::string osVersion() override {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
      if (auto text = readSmallFile(path)) {
        if (auto pretty = posix::shellStyleValue(*text, "PRETTY_NAME"); pretty && !pretty->empty()) return *pretty;
      }
    }
    struct utsname u;
    if (::uname(&u) == 0) return std::string(u.sysname) + " " + u.release;
    return "Linux";
  }

  std::string platformUUID() override {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
      if (auto text = readSmallFile(path)) {
        if (auto uuid = posix::uuidFromMachineId(*text)) return *uuid;
      }
    }
    return "";
  }

  std::string homeDirectory() override {
    if (auto home = environmentVariable("HOME"); home && !home->empty()) return *home;
    if (auto entry = currentPasswordEntry(); entry && !entry->home.empty()) return entry->home;
    return "/";
  }

  std::optional<std::string> environmentVariable(const std::string& name) override {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  }

  bool randomBytes(uint8_t* out, size_t n) override {
    while (n > 0) {
      ssize_t got = ::getrandom(out, n, 0);
      if (got < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      out += got;
      n -= static_cast<size_t>(got);
    }
    return true;
  }

  std::vector<RunningApplication> runningApplications() override {
    std::vector<RunningApplication> apps;
    std::vector<std::string> names;
    int err = 0;
    listAll("/proc", &names, &err);
    for (const std::string& entry : names) {
      if (entry.empty() || !std::all_of(entry.begin(), entry.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        continue;
      }
      auto comm = readSmallFile("/proc/" + entry + "/comm");
      if (!comm) continue;  // the process ended meanwhile
      RunningApplication app;
      app.pid = std::atoi(entry.c_str());
      app.name = *comm;
      while (!app.name.empty() && app.name.back() == '\n') app.name.pop_back();
      char exe[PATH_MAX];
      ssize_t n = ::readlink(("/proc/" + entry + "/exe").c_str(), exe, sizeof exe);
      if (n > 0) app.executablePath.assign(exe, static_cast<size_t>(n));
      apps.push_back(std::move(app));
    }
    std::sort(apps.begin(), apps.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
    return apps;
  }

  bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments, Error* error) override {
    // Everything the children need is prepared before fork(): after it, in a process with
    // threads, only async-signal-safe calls are allowed.
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(executable.c_str()));
    for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const bool searchPath = executable.find('/') == std::string::npos;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return setError(error, errnoError(errno, executable));
    pid_t child = ::fork();
    if (child < 0) {
      int err = errno;
      ::close(pipeFds[0]);
      ::close(pipeFds[1]);
      return setError(error, errnoError(err, executable));
    }
    if (child == 0) {
      // The intermediate child starts a new session and leaves at once, so that the program
      // is adopted by init and is neither our child nor tied to our terminal.
      ::close(pipeFds[0]);
      ::setsid();
      pid_t grandchild = ::fork();
      if (grandchild != 0) ::_exit(grandchild < 0 ? 1 : 0);
      // The program must not inherit the host's open files (documents, sockets, locks).
      (void)::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
      int devNull = ::open("/dev/null", O_RDWR);
      if (devNull >= 0) {
        ::dup2(devNull, 0);
        ::dup2(devNull, 1);
        ::dup2(devNull, 2);
        if (devNull > 2) ::close(devNull);
      }
      if (searchPath) {
        ::execvp(argv[0], argv.data());
      } else {
        ::execv(argv[0], argv.data());
      }
      int err = errno;
      (void)!::write(pipeFds[1], &err, sizeof err);
      ::_exit(127);
    }
    ::close(pipeFds[1]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    // The pipe closes on a successful exec; an exec failure sends its errno first.
    int execErr = 0;
    ssize_t n;
    do n = ::read(pipeFds[0], &execErr, sizeof execErr);
    while (n < 0 && errno == EINTR);
    ::close(pipeFds[0]);
    if (n == static_cast<ssize_t>(sizeof execErr)) return setError(error, errnoError(execErr, executable));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return setError(error, errnoError(ECHILD, executable));
    return true;
  }

 private:
  // The path with links resolved as far as it exists, for matching against mount points.
  static std::string resolvedPath(const std::string& path) {
    std::string existing = nearestExistingAncestor(path);
    char resolved[PATH_MAX];
    if (::realpath(existing.c_str(), resolved) == nullptr) return path;
    std::string rest = path.size() > existing.size() ? path.substr(existing.size()) : "";
    return pathJoin(resolved, rest);
  }

  static std::string nearestExistingAncestor(const std::string& path) {
    std::string p = path;
    while (!p.empty() && p != "/" && !existsNoFollow(p)) p = pathDeletingLastComponent(p);
    return p.empty() ? "/" : p;
  }

  // The freedesktop.org trash folders of a volume: $topdir/.Trash/$uid when an administrator
  // prepared $topdir/.Trash (a real folder with the sticky bit), then $topdir/.Trash-$uid.
  static std::vector<std::string> topDirectoryTrashes(const std::string& topdir) {
    std::vector<std::string> trashes;
    const std::string uid = std::to_string(::getuid());
    struct stat st;
    const std::string shared = pathJoin(topdir, ".Trash");
    if (::lstat(shared.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0) {
      trashes.push_back(pathJoin(shared, uid));
    }
    trashes.push_back(pathJoin(topdir, ".Trash-" + uid));
    return trashes;
  }
};

}  // namespace

Env* Env::defaultEnv() {
  static Env* env = new PosixEnv();
  return env;
}

}  // namespace corvane
