// corvane::Env — everything that touches the operating system.
//
// The library never calls the file system, the clock, the host's identity, the random source,
// the mount table or the process table directly: it asks an Env. PosixEnv (Env::defaultEnv())
// is the real one; tests derive from EnvWrapper to replace the clock, the volumes, the machine
// name or to inject failures, while still using real temporary folders.
//
// Paths are absolute POSIX paths in UTF-8. Dates are seconds since 2001-01-01 00:00:00 UTC,
// the reference date of every date in the system's files.
//
// Threads: every method may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/error.h"

namespace corvane {

// Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
inline constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct FileAttributes {
  bool isDirectory = false;
  bool isRegularFile = false;
  bool isSymbolicLink = false;  // the path itself is a link (attributes are the link's own)
  uint64_t size = 0;            // logical size in bytes
  uint64_t allocatedSize = 0;   // bytes the file occupies on disk (st_blocks * 512)
  double modificationDate = 0;  // seconds since 2001
  double creationDate = 0;      // birth time where known, else the status-change time
  uint32_t permissions = 0;     // st_mode & 07777
};

struct VolumeInfo {
  std::string mountPoint;      // "/", "/media/user/Backup"
  std::string name;            // the last component of the mount point, or "/" for the root
  std::string fileSystemType;  // "ext4", "nfs4", "cifs", "fuse.sshfs", ...
  std::string device;          // the mount source ("/dev/sda1", "server:/export")
  bool isLocal = true;         // false for network file systems
  bool isReadOnly = false;
};

struct RunningApplication {
  int pid = 0;
  std::string name;            // the command name
  std::string executablePath;  // empty when it cannot be read
};

class Env {
 public:
  Env() = default;
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;
  virtual ~Env();

  // The process-wide real environment (a PosixEnv). Never destroyed.
  static Env* defaultEnv();

  // ---- Files ------------------------------------------------------------------------------
  // What each write promises when it returns true: the change is durable, so that a crash or
  // a power cut right after it keeps it (the data and the folder entries are flushed). A write
  // that returns false may have left a hidden temporary file behind (see below) but never a
  // partial file under the name asked for. Callers must check every result: a save reported
  // as done has to be on disk.
  [[nodiscard]] virtual bool readFile(const std::string& path, Bytes* out, Error* error) = 0;
  // Writes a temporary file ".<name>.<12 hex digits>.tmp" in the same folder, flushes it to
  // disk, renames it over `path` and flushes the folder. A failure leaves any previous file at
  // `path` untouched; a crash in between may leave the hidden temporary file, which readers
  // skip as they skip every hidden name.
  [[nodiscard]] virtual bool writeFileAtomically(const std::string& path, ByteView data, Error* error) = 0;
  virtual bool fileExists(const std::string& path, bool* isDirectory = nullptr) = 0;
  // Attributes of the path itself (a symbolic link is not followed); nullopt when missing.
  virtual std::optional<FileAttributes> attributes(const std::string& path) = 0;
  // Names of the entries of a folder (not paths), sorted by byte order. Names starting with
  // "." are skipped when skipHidden is true. Fails for a missing folder or a plain file.
  [[nodiscard]] virtual bool listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names,
                                           Error* error) = 0;
  // Creates a folder; with intermediates, its missing parents too, and an existing folder is
  // then not an error. Each folder made is durable in its parent.
  [[nodiscard]] virtual bool createDirectory(const std::string& path, bool intermediates, Error* error) = 0;
  // Removes a file, a link or a whole folder tree. Not flushed: a removal lost in a crash
  // leaves a file that was meant to go, never loses one that was meant to stay.
  [[nodiscard]] virtual bool removeItem(const std::string& path, Error* error) = 0;
  // Moves (renames) an item. Fails when something exists at `to`. Crosses file systems by
  // copying and removing. Both folders are flushed, so a crash leaves the item at one place.
  [[nodiscard]] virtual bool moveItem(const std::string& from, const std::string& to, Error* error) = 0;
  [[nodiscard]] virtual bool copyItem(const std::string& from, const std::string& to, Error* error) = 0;
  // Moves an item to the user's freedesktop.org trash and returns where it went; where no
  // trash is usable, moves it aside in its own folder under a unique name.
  [[nodiscard]] virtual std::optional<std::string> trashItem(const std::string& path, Error* error) = 0;

  // ---- Extended attributes (names in the "user." namespace) ------------------------------
  virtual std::optional<Bytes> extendedAttribute(const std::string& path, const std::string& name) = 0;
  [[nodiscard]] virtual bool setExtendedAttribute(const std::string& path, const std::string& name, ByteView value,
                                                  Error* error) = 0;
  virtual bool removeExtendedAttribute(const std::string& path, const std::string& name) = 0;

  // ---- Volumes ------------------------------------------------------------------------------
  virtual std::vector<VolumeInfo> mountedVolumes() = 0;
  // The volume whose mount point is the longest prefix of the path.
  virtual std::optional<VolumeInfo> volumeForPath(const std::string& path) = 0;
  // Bytes available to the user on the path's volume.
  virtual std::optional<uint64_t> freeSpace(const std::string& path) = 0;

  // ---- Clock ------------------------------------------------------------------------------
  // Wall-clock time, seconds since 2001-01-01 00:00:00 UTC.
  virtual double now() = 0;
  // A monotonic clock in seconds, for timers and delays. Tests advance it by hand.
  virtual double monotonicNow() = 0;
  // The local time zone's offset from GMT at the given date, in seconds (east positive).
  virtual int timeZoneOffset(double secondsSince2001) = 0;

  // ---- Host and user ------------------------------------------------------------------------
  virtual std::string machineName() = 0;   // the computer's pretty name, else the host name
  virtual std::string userName() = 0;      // the login name
  virtual std::string fullUserName() = 0;  // the password database's real name, else the login
  virtual std::string osVersion() = 0;     // "Debian GNU/Linux 12 (bookworm)"
  virtual std::string platformUUID() = 0;  // machine-id as an upper-case 8-4-4-4-12 UUID
  virtual std::string homeDirectory() = 0;
  virtual std::optional<std::string> environmentVariable(const std::string& name) = 0;

  // ---- Randomness ---------------------------------------------------------------------------
  // Fills `out` from the system's secure random source; false when it fails.
  virtual bool randomBytes(uint8_t* out, size_t n) = 0;
  // A new random (version 4) UUID, upper case, "8-4-4-4-12". Built on randomBytes.
  std::string newUUIDString();

  // ---- Processes ----------------------------------------------------------------------------
  virtual std::vector<RunningApplication> runningApplications() = 0;
  // Starts a program that outlives this process (it is not waited for).
  virtual bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments,
                              Error* error) = 0;

  // ---- Standard folders (from the environment variables above, with the XDG fall-backs) ----
  std::string temporaryDirectory();  // $TMPDIR or /tmp
  std::string dataHome();            // $XDG_DATA_HOME or ~/.local/share
  std::string cacheHome();           // $XDG_CACHE_HOME or ~/.cache
  std::string configHome();          // $XDG_CONFIG_HOME or ~/.config
  std::string desktopDirectory();    // XDG_DESKTOP_DIR from user-dirs.dirs, else ~/Desktop
};

// Forwards every call to another Env. Tests derive from it and override what they fake.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : target_(target) {}
  Env* target() const { return target_; }

  bool readFile(const std::string& path, Bytes* out, Error* error) override;
  bool writeFileAtomically(const std::string& path, ByteView data, Error* error) override;
  bool fileExists(const std::string& path, bool* isDirectory = nullptr) override;
  std::optional<FileAttributes> attributes(const std::string& path) override;
  bool listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names, Error* error) override;
  bool createDirectory(const std::string& path, bool intermediates, Error* error) override;
  bool removeItem(const std::string& path, Error* error) override;
  bool moveItem(const std::string& from, const std::string& to, Error* error) override;
  bool copyItem(const std::string& from, const std::string& to, Error* error) override;
  std::optional<std::string> trashItem(const std::string& path, Error* error) override;
  std::optional<Bytes> extendedAttribute(const std::string& path, const std::string& name) override;
  bool setExtendedAttribute(const std::string& path, const std::string& name, ByteView value, Error* error) override;
  bool removeExtendedAttribute(const std::string& path, const std::string& name) override;
  std::vector<VolumeInfo> mountedVolumes() override;
  std::optional<VolumeInfo> volumeForPath(const std::string& path) override;
  std::optional<uint64_t> freeSpace(const std::string& path) override;
  double now() override;
  double monotonicNow() override;
  int timeZoneOffset(double secondsSince2001) override;
  std::string machineName() override;
  std::string userName() override;
  std::string fullUserName() override;
  std::string osVersion() override;
  std::string platformUUID() override;
  std::string homeDirectory() override;
  std::optional<std::string> environmentVariable(const std::string& name) override;
  bool randomBytes(uint8_t* out, size_t n) override;
  std::vector<RunningApplication> runningApplications() override;
  bool launchDetached(const std::string& executable, const std::vector<std::string>& arguments, Error* error) override;

 private:
  Env* target_;
};

// Path helpers shared by every layer (pure string operations, no file-system access).
std::string pathJoin(const std::string& a, const std::string& b);
std::string pathLastComponent(const std::string& path);
std::string pathDeletingLastComponent(const std::string& path);
std::string pathExtension(const std::string& path);
std::string pathDeletingExtension(const std::string& path);
// `path` made absolute against the current folder and normalised ("a/./b/" -> "<cwd>/a/b"): what
// a path typed by a person becomes before the library sees it.
std::string absolutePath(const std::string& path);

// Names read from files that other devices write (UIDs, change and data-file names) become one
// component of a path. Only a plain name stays in its folder: an empty name, ".", "..", a name
// holding "/" or NUL would reach another folder or a truncated name, and is refused.
bool isPlainFileName(std::string_view name);
// `folder`/`name`, or nullopt when `name` is not a plain file name.
std::optional<std::string> pathJoinFileName(const std::string& folder, std::string_view name);

}  // namespace corvane
