#include "corvane/document/volume.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "corvane/foundation/log.h"
#include "corvane/foundation/user_defaults.h"

namespace corvane {
namespace {

constexpr const char* kNullText = "(null)";

// ---- Walking folders -------------------------------------------------------------------------

enum class Walk { Continue, Stop };
using Visitor = std::function<Walk(const std::string& path, const std::optional<FileAttributes>& attributes)>;

// Visits every item below `root` depth first, each folder before its contents, names in byte
// order. Links are visited but never followed, so a link cycle cannot trap the walk; folders
// that cannot be listed are passed over. False when `root` itself cannot be listed.
bool walkFolder(Env* env, const std::string& root, bool skipHidden, const Visitor& visit) {
  struct Frame {
    std::string folder;
    std::vector<std::string> names;
    size_t next = 0;
  };
  std::vector<Frame> stack(1);
  stack[0].folder = root;
  if (!env->listDirectory(root, skipHidden, &stack[0].names, nullptr)) return false;
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.names.size()) {
      stack.pop_back();
      continue;
    }
    std::string path = pathJoin(top.folder, top.names[top.next++]);
    std::optional<FileAttributes> attributes = env->attributes(path);
    if (visit(path, attributes) == Walk::Stop) return true;
    if (attributes && attributes->isDirectory) {
      Frame child;
      child.folder = std::move(path);
      if (env->listDirectory(child.folder, skipHidden, &child.names, nullptr)) stack.push_back(std::move(child));
    }
  }
  return true;
}

// Whether `path` names a folder, following a link at `path` itself: the caller asked about
// that item, wherever it really lives.
bool isFolder(Env* env, const std::string& path, const FileAttributes& attributes) {
  if (!attributes.isSymbolicLink) return attributes.isDirectory;
  bool isDirectory = false;
  return env->fileExists(path, &isDirectory) && isDirectory;
}

// ---- Sync services ---------------------------------------------------------------------------

struct Service {
  const char* name;
  std::vector<std::string_view> fragments;  // a fragment starting with "." is also a marker
};

// The order only matters for a path naming two services, which has no right answer.
const std::vector<Service>& serviceTable() {
  static const std::vector<Service> table = {
      {"Dropbox", {"dropbox", ".dropbox.cache"}},
      {"Google Drive", {"google drive", "google"}},
      {"OneDrive", {"onedrive"}},
      {"iCloud", {"com~apple~clouddocs"}},
      {"Box", {"/box/"}},
      {"pCloud", {"pcloud"}},
      {"Synology Drive", {"synology", "cloudstation", ".SynologyWorkingDirectory"}},
      {"Nextcloud", {"nextcloud"}},
      {"ownCloud", {"owncloud"}},
      {"Seafile", {"seafile"}},
      {"MEGA", {"megasync", "/mega/"}},
      {"HiDrive", {"hidrive"}},
      {"kDrive", {"kdrive"}},
      {"Tresorit", {"tresorit", "/tresors/"}},
      {"Syncthing", {".stfolder"}},
  };
  return table;
}

std::string asciiLowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::optional<std::string> serviceFromPathText(const std::string& path) {
  const std::string lowered = asciiLowercase(path) + "/";
  for (const Service& service : serviceTable()) {
    for (std::string_view fragment : service.fragments) {
      if (lowered.find(asciiLowercase(fragment)) != std::string::npos) return service.name;
    }
  }
  return std::nullopt;
}

// Clients leave a marker at the root of each synced folder, which may lie above the package
// under any name. The walk stops above the top-level folders: a marker in "/" or "/ab" says
// nothing about one package.
std::optional<std::string> serviceFromMarkers(Env* env, const std::string& path) {
  if (path.size() < 4) return std::nullopt;
  std::string current = path;
  while (true) {
    for (const Service& service : serviceTable()) {
      for (std::string_view fragment : service.fragments) {
        if (fragment.starts_with(".") && env->fileExists(pathJoin(current, std::string(fragment)))) {
          return service.name;
        }
      }
    }
    std::string parent = pathDeletingLastComponent(current);
    if (parent.size() <= 3 || parent == current) return std::nullopt;
    current = std::move(parent);
  }
}

// ---- Volumes ---------------------------------------------------------------------------------

std::string nearestExistingAncestor(Env* env, const std::string& path) {
  std::string current = path;
  while (!current.empty() && !env->attributes(current)) {
    std::string parent = pathDeletingLastComponent(current);
    if (parent == current) return "";
    current = std::move(parent);
  }
  return current;
}

std::optional<VolumeInfo> volumeOf(Env* env, const std::string& path) {
  const std::string existing = nearestExistingAncestor(env, path);
  if (existing.empty()) return std::nullopt;
  return env->volumeForPath(existing);
}

// The host part of a mount source that names another computer: "server" in "server:/export",
// "ann@host:" and "sshfs#ann@host:/dir", "nas" in "//nas/docs"; empty for local sources such
// as "/dev/sda1", "tmpfs", "/mnt/a:/mnt/b" (a union of branches) or "C:\" (a drive letter).
std::string_view remoteHost(std::string_view source) {
  if (size_t hash = source.find('#'); hash != std::string_view::npos) source.remove_prefix(hash + 1);
  if (source.starts_with("//")) {
    std::string_view rest = source.substr(2);
    return rest.substr(0, rest.find('/'));
  }
  const size_t colon = source.find(':');
  if (colon == std::string_view::npos || colon < 2) return {};
  std::string_view host = source.substr(0, colon);
  if (host.find('/') != std::string_view::npos) return {};
  std::string_view rest = source.substr(colon + 1);
  const bool hasUser = host.find('@') != std::string_view::npos;
  if (rest.empty() ? !hasUser : rest[0] != '/') return {};
  if (hasUser) host.remove_prefix(host.find('@') + 1);
  return host;
}

// Kernel pseudo file systems and package images hold no user documents.
bool holdsUserFiles(const VolumeInfo& volume) {
  static constexpr std::array<std::string_view, 24> kPseudo = {
      "proc",    "sysfs",    "devtmpfs", "devpts",     "cgroup",   "cgroup2",  "securityfs", "debugfs",
      "tracefs", "bpf",      "mqueue",   "hugetlbfs",  "pstore",   "configfs", "fusectl",    "binfmt_misc",
      "autofs",  "efivarfs", "nsfs",     "rpc_pipefs", "squashfs", "ramfs",    "selinuxfs",  "fuse.portal"};
  for (std::string_view type : kPseudo) {
    if (volume.fileSystemType == type) return false;
  }
  const std::string& m = volume.mountPoint;
  return !(m == "/proc" || m.starts_with("/proc/") || m == "/sys" || m.starts_with("/sys/") || m == "/dev" ||
           m.starts_with("/dev/"));
}

// How a network volume would be mounted again, as a URL; nullopt for local volumes.
std::optional<std::string> remountURL(const VolumeInfo& volume) {
  if (isLocalVolume(volume)) return std::nullopt;
  std::string_view source = volume.device;
  if (size_t hash = source.find('#'); hash != std::string_view::npos) source.remove_prefix(hash + 1);
  if (source.starts_with("//")) return "smb:" + std::string(source);
  const size_t colon = source.find(':');
  if (remoteHost(source).empty() || colon == std::string_view::npos) return std::nullopt;
  const std::string& type = volume.fileSystemType;
  std::string scheme;
  if (type.starts_with("nfs")) {
    scheme = "nfs";
  } else if (type.find("sshfs") != std::string::npos || volume.device.starts_with("sshfs#")) {
    scheme = "sftp";
  } else {
    return std::nullopt;
  }
  std::string_view rest = source.substr(colon + 1);
  return fmt::format("{}://{}{}{}", scheme, source.substr(0, colon), rest.starts_with("/") ? "" : "/", rest);
}

// ---- Block devices ---------------------------------------------------------------------------

// A sysfs attribute of a block device, trimmed, or of its parent disk when the device is a
// partition; nullopt when neither can be read or it is empty.
std::optional<std::string> blockAttribute(Env* env, const std::string& device, const std::string& attribute) {
  const std::string base = "/sys/class/block/" + device;
  for (const std::string& candidate : {base + "/" + attribute, base + "/../" + attribute}) {
    Bytes bytes;
    if (!env->readFile(candidate, &bytes, nullptr)) continue;
    std::string text(bytes.begin(), bytes.end());
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    if (start < text.size()) return text.substr(start);
  }
  return std::nullopt;
}

// "sda1" for "/dev/sda1"; empty when the source is not a device node.
std::string blockDeviceName(const VolumeInfo& volume) {
  if (!volume.device.starts_with("/dev/")) return "";
  std::string name = pathLastComponent(volume.device);
  return name == "." || name == ".." ? "" : name;
}

Value volumeProperties(Env* env, const VolumeInfo& volume) {
  const std::string device = blockDeviceName(volume);
  if (device.empty()) return Value();
  std::vector<std::pair<Value, Value>> entries;
  if (auto rotational = blockAttribute(env, device, "queue/rotational")) {
    entries.emplace_back(Value::string("Medium Type"),
                         Value::string(*rotational == "0" ? "Solid State" : "Rotational"));
  }
  const std::pair<const char*, const char*> kDescriptive[] = {
      {"device/vendor", "Vendor Name"}, {"device/model", "Product Name"}, {"device/rev", "Product Revision Level"}};
  for (const auto& [attribute, key] : kDescriptive) {
    if (auto text = blockAttribute(env, device, attribute))
      entries.emplace_back(Value::string(key), Value::string(*text));
  }
  return entries.empty() ? Value() : Value::dictionary(std::move(entries));
}

bool isEjectable(Env* env, const VolumeInfo& volume) {
  const std::string& m = volume.mountPoint;
  if (m.starts_with("/media/") || m.starts_with("/run/media/")) return true;
  const std::string device = blockDeviceName(volume);
  return !device.empty() && blockAttribute(env, device, "removable") == "1";
}

// The absolute string of the file URL of a path, escaped as URL paths are; a folder's ends
// with "/".
std::string fileURLString(const std::string& path, bool isDirectory) {
  static constexpr std::string_view kUnescaped = "-._~!$&'()*+,;=:@/";
  std::string out = "file://";
  for (char ch : path) {
    auto c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || kUnescaped.find(ch) != std::string_view::npos) {
      out.push_back(ch);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  if (isDirectory && !out.ends_with("/")) out.push_back('/');
  return out;
}

const char* flagText(bool flag) { return flag ? "1" : "0"; }

Value volumeInformation(Env* env, const std::string& path, const std::optional<VolumeInfo>& volume) {
  bool isDirectory = false;
  const bool exists = env->fileExists(path, &isDirectory);
  std::vector<std::pair<Value, Value>> entries;
  auto add = [&entries](const char* key, std::string_view text) {
    entries.emplace_back(Value::string(key), Value::string(text));
  };
  add("URL", fileURLString(path, exists && isDirectory));
  if (!volume) {
    for (const char* key : {"MountURL", "Name", "Ejectable", "Local", "Internal", "Format", "Properties"}) {
      add(key, kNullText);
    }
    return Value::dictionary(std::move(entries));
  }
  const bool local = isLocalVolume(*volume);
  const bool ejectable = isEjectable(env, *volume);
  const Value properties = volumeProperties(env, *volume);
  add("MountURL", remountURL(*volume).value_or(kNullText));
  add("Name", volume->name);
  add("Ejectable", flagText(ejectable));
  add("Local", flagText(local));
  // Being internal is a property of a disk; a network volume has none.
  add("Internal", local ? flagText(!ejectable) : kNullText);
  add("Format", volume->fileSystemType.empty() ? kNullText : volume->fileSystemType);
  add("Properties", properties.isNil() ? std::string(kNullText) : properties.description());
  return Value::dictionary(std::move(entries));
}

}  // namespace

// ---- Public functions ------------------------------------------------------------------------

bool isLocalVolume(const VolumeInfo& volume) { return volume.isLocal && remoteHost(volume.device).empty(); }

bool CorvaneIsLocalURL(Env* env, const std::string& path, const UserDefaults* defaults) {
  std::shared_ptr<UserDefaults> standard;
  if (defaults == nullptr) {
    standard = UserDefaults::standard();
    defaults = standard.get();
  }
  if (defaults != nullptr && defaults->boolForKey(kCorvaneIgnoreNetworkVolumesKey)) return true;
  std::optional<VolumeInfo> volume = volumeOf(env, path);
  return !volume || isLocalVolume(*volume);
}

std::optional<std::string> CorvaneVolumeURL(Env* env, const std::string& path) {
  std::optional<VolumeInfo> volume = volumeOf(env, path);
  if (!volume) return std::nullopt;
  return volume->mountPoint;
}

bool CorvaneIsOnDisk(Env* env, const std::string& path) {
  std::optional<FileAttributes> attributes = env->attributes(path);
  if (!attributes) return false;
  if (!isFolder(env, path, *attributes)) {
    // A link to a file counts as on disk while its target exists.
    if (attributes->isSymbolicLink) return env->fileExists(path);
    return attributes->allocatedSize > 0;
  }
  bool onDisk = true;
  size_t examined = 0;
  const bool listed = walkFolder(env, path, true, [&](const std::string&, const std::optional<FileAttributes>& a) {
    if (!a || (a->isRegularFile && a->allocatedSize == 0)) {
      onDisk = false;
      return Walk::Stop;
    }
    return ++examined == kCorvaneOnDiskEntryLimit ? Walk::Stop : Walk::Continue;
  });
  return listed && onDisk;
}

std::optional<std::string> CorvaneServiceType(Env* env, const std::string& path) {
  if (auto service = serviceFromPathText(path)) return service;
  return serviceFromMarkers(env, path);
}

uint64_t CorvaneTotalSize(Env* env, const std::string& path) {
  std::optional<FileAttributes> attributes = env->attributes(path);
  if (!attributes) return 0;
  if (!isFolder(env, path, *attributes)) return attributes->allocatedSize;
  uint64_t total = 0;
  walkFolder(env, path, false, [&](const std::string&, const std::optional<FileAttributes>& a) {
    if (a && a->isRegularFile) total += a->allocatedSize;
    return Walk::Continue;
  });
  return total;
}

uint64_t CorvaneTotaFreeDiskSpace(Env* env, const std::string& path) {
  if (std::optional<std::string> mountPoint = CorvaneVolumeURL(env, path)) {
    if (uint64_t available = env->freeSpace(*mountPoint).value_or(0); available > 0) return available;
  }
  return env->freeSpace(path).value_or(0);
}

bool CorvaneSetKeepDownloaded(Env* env, const std::string& path, bool keep) {
  const std::string name = pathLastComponent(path);
  if (keep) {
    static constexpr uint8_t kPinned[] = {'1'};
    Error error;
    if (env->setExtendedAttribute(path, kCorvaneKeepDownloadedAttribute, ByteView(kPinned, 1), &error)) return true;
    logLine(fmt::format("Corvane: Failed to pin {} (errno {})", name, error.code), LogLevel::Error);
    return false;
  }
  // Only the absence of the marker makes a failed removal a success; a missing item is a
  // real failure.
  if (!env->attributes(path)) {
    logLine(fmt::format("Corvane: Failed to unpin {} (errno {})", name, ENOENT), LogLevel::Error);
    return false;
  }
  if (!env->extendedAttribute(path, kCorvaneKeepDownloadedAttribute)) return true;
  errno = 0;
  if (env->removeExtendedAttribute(path, kCorvaneKeepDownloadedAttribute)) return true;
  // The Env reports removals as a bare flag; the system's error number is still in errno.
  const int err = errno != 0 ? errno : EIO;
  logLine(fmt::format("Corvane: Failed to unpin {} (errno {})", name, err), LogLevel::Error);
  return false;
}

bool CorvaneIsKeepDownloaded(Env* env, const std::string& path) {
  return env->extendedAttribute(path, kCorvaneKeepDownloadedAttribute).has_value();
}

Value CorvaneVolumeInformation(Env* env, const std::string& path) {
  return volumeInformation(env, path, volumeOf(env, path));
}

Value CorvaneAllVolumeInformation(Env* env) {
  std::vector<Value> all;
  for (const VolumeInfo& volume : env->mountedVolumes()) {
    if (holdsUserFiles(volume)) all.push_back(volumeInformation(env, volume.mountPoint, volume));
  }
  return Value::array(std::move(all));
}

Value CorvaneVolumeProperties(Env* env, const std::string& path) {
  std::optional<VolumeInfo> volume = volumeOf(env, path);
  return volume ? volumeProperties(env, *volume) : Value();
}

bool DocumentVolumeQueries::isOnDisk(Env* env, const std::string& path) { return CorvaneIsOnDisk(env, path); }

std::optional<std::string> DocumentVolumeQueries::serviceType(Env* env, const std::string& path) {
  return CorvaneServiceType(env, path);
}

bool DocumentVolumeQueries::isLocalURL(Env* env, const std::string& path) { return CorvaneIsLocalURL(env, path); }

Value DocumentVolumeQueries::volumeInformation(Env* env, const std::string& path) {
  return CorvaneVolumeInformation(env, path);
}

}  // namespace corvane
