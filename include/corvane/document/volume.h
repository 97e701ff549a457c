// Where a package lives: whether its volume is local, whether its files are really on disk or
// only placeholders of a sync client, which sync service owns its folder, how large it is, how
// much space is left, and the marker that asks a sync client to keep it downloaded. These are
// stateless queries of the file system through an Env (plus one extended-attribute write), and
// they answer a neutral value (false, 0, nullopt, "(null)") instead of failing.
//
// How the questions map onto Linux:
// - A volume is the mount from /proc/self/mountinfo whose mount point is the longest prefix of
//   the path. It is local unless its file system is a network one (NFS, CIFS/SMB, 9p, AFS,
//   Ceph, sshfs and the other FUSE network clients: VolumeInfo::isLocal) or its mount source
//   names another computer ("host:/export", "//server/share", "user@host:", "sshfs#host:"),
//   which catches FUSE network mounts listed under the generic type "fuse".
// - Allocated size is st_blocks * 512. A file that occupies no blocks is not on disk: this is
//   how sparse placeholders of online-only files look, and an empty file looks the same.
// - Available capacity is statvfs's f_bavail * f_frsize, first for the volume's mount point,
//   then for the path itself.
// - The keep-downloaded marker is the extended attribute "user.com.apple.fileprovider.pinned#PX"
//   (the marker's name in the "user." namespace, where unprivileged processes may write) with
//   the one-byte value "1". Sync clients that honour pinning look for it.
// - Device characteristics come from sysfs (/sys/class/block/<device>/..., then the same file
//   of the parent disk for a partition).
// - Sync services are recognised by folder names in the path (~/Dropbox, ~/Nextcloud,
//   ~/ownCloud, ~/OneDrive, ~/pCloudDrive, ~/SynologyDrive, ~/Seafile, ~/kDrive, ~/MEGA or
//   ~/MEGAsync, ~/Tresors, a GNOME "google-drive:" mount, ...) and by the marker that a client
//   keeps at the root of each synced folder (".dropbox.cache" of Dropbox, ".stfolder" of
//   Syncthing, ".SynologyWorkingDirectory" of Synology Drive), looked for in the package's
//   folder and its ancestors.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/foundation/value.h"
#include "corvane/store/store_environment.h"

namespace corvane {

class UserDefaults;

// The user's explicit opt-out of the network-volume refusal.
inline constexpr const char* kCorvaneIgnoreNetworkVolumesKey = "CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk";
// The extended attribute that pins a folder for sync clients.
inline constexpr const char* kCorvaneKeepDownloadedAttribute = "user.com.apple.fileprovider.pinned#PX";
// How many entries of a folder the placeholder test looks at, so that it stays cheap on
// packages holding thousands of change files.
inline constexpr size_t kCorvaneOnDiskEntryLimit = 100;

// Whether a mounted volume keeps its data on this computer (see above).
bool isLocalVolume(const VolumeInfo& volume);

// True when the user default kCorvaneIgnoreNetworkVolumesKey is set (nullptr: the standard
// defaults); otherwise whether the volume of `path` is local. True as well when no volume can
// be found: only a volume known to be remote refuses.
bool CorvaneIsLocalURL(Env* env, const std::string& path, const UserDefaults* defaults = nullptr);

// The mount point of the volume holding the nearest existing ancestor of `path` (the path
// itself when it exists); nullopt when there is none.
std::optional<std::string> CorvaneVolumeURL(Env* env, const std::string& path);

// Whether the item at `path` is really on disk. A file is when it occupies blocks. A folder is
// unless, among the first kCorvaneOnDiskEntryLimit entries of a depth-first walk (hidden items
// skipped, names in byte order, symbolic links neither followed nor judged), an entry has
// vanished or is a regular file occupying no blocks. A missing path is not on disk; neither
// is a folder that cannot be listed. A link at `path` itself stands for its target.
bool CorvaneIsOnDisk(Env* env, const std::string& path);

// The name of the sync service owning the folder of `path` ("Dropbox", "Google Drive",
// "OneDrive", "iCloud", "Box", "pCloud", "Synology Drive", "Nextcloud", "ownCloud", "Seafile",
// "MEGA", "HiDrive", "kDrive", "Tresorit", "Syncthing"), or nullopt. First from the folder
// names in the lower-cased path; then, for paths of 4 characters or more, from a client's
// marker in the path or one of its ancestors deeper than 3 characters.
std::optional<std::string> CorvaneServiceType(Env* env, const std::string& path);

// Bytes allocated on disk: for a folder, the sum over every regular file below it (hidden
// ones included, links below it not followed); for anything else, its own allocation; 0 when
// missing. A link at `path` to a folder is measured as that folder.
uint64_t CorvaneTotalSize(Env* env, const std::string& path);

// Bytes available to the user on the volume of `path`; 0 when unknown. (The missing "l" is
// part of the name callers know.)
uint64_t CorvaneTotaFreeDiskSpace(Env* env, const std::string& path);

// Sets (keep = true) or removes the keep-downloaded marker of `path`. A failure is logged as
// "Corvane: Failed to pin <name> (errno <n>)" or "Corvane: Failed to unpin <name> (errno <n>)"
// and answers false; removing a marker that is not there succeeds silently.
bool CorvaneSetKeepDownloaded(Env* env, const std::string& path, bool keep);
// Whether the marker can be read from `path`, whatever its value.
bool CorvaneIsKeepDownloaded(Env* env, const std::string& path);

// A dictionary of strings about the volume of `path`: "URL" (the file URL of `path`),
// "MountURL" (how to remount a network volume: "smb://...", "nfs://...", "sftp://..."),
// "Name", "Ejectable", "Local", "Internal" ("1" or "0"), "Format" (the file-system type) and
// "Properties" (the description of CorvaneVolumeProperties). Values that cannot be known read
// "(null)"; with no volume at all every value but "URL" does.
Value CorvaneVolumeInformation(Env* env, const std::string& path);
// The volume information of every mounted volume that can hold files (kernel pseudo file
// systems such as proc, sysfs, cgroup and devpts left out), each asked about its mount point.
Value CorvaneAllVolumeInformation(Env* env);
// The characteristics of the disk under the volume of `path`: a dictionary with "Medium Type"
// ("Solid State" or "Rotational"), "Vendor Name", "Product Name" and "Product Revision Level"
// as far as they are known; nil when the volume is not on a block device or nothing is known.
Value CorvaneVolumeProperties(Env* env, const std::string& path);

// The answers above, for a store's checks of packages that are only placeholders or on other
// volumes (a store sits below this layer and asks through StoreVolumeQueries). Any thread.
class DocumentVolumeQueries final : public StoreVolumeQueries {
 public:
  bool isOnDisk(Env* env, const std::string& path) override;
  std::optional<std::string> serviceType(Env* env, const std::string& path) override;
  bool isLocalURL(Env* env, const std::string& path) override;
  Value volumeInformation(Env* env, const std::string& path) override;
};

}  // namespace corvane
