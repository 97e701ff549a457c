#include "corvane/security/string_utils.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "corvane/foundation/env.h"
#include "security/utf8.h"

namespace corvane {
namespace {

using security_detail::isContinuationByte;

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // U+2026
constexpr std::string_view kBackupFolderName = "Backups.backupdb";

bool hasPathComponent(std::string_view path, std::string_view component) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    size_t end = slash == std::string_view::npos ? path.size() : slash;
    if (path.substr(start, end - start) == component) return true;
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return false;
}

}  // namespace

std::string storeUID(std::string_view reference) {
  size_t slash = reference.rfind('/');
  std::string_view last = slash == std::string_view::npos ? reference : reference.substr(slash + 1);
  if (!last.empty() && (last.front() == 't' || last.front() == 'p')) last.remove_prefix(1);
  return std::string(last);
}

std::optional<std::string> storeEntityName(std::string_view reference) {
  if (!security_detail::isValidUTF8(reference)) return std::nullopt;
  size_t start = 0;
  while (start < reference.size()) {
    size_t slash = reference.find('/', start);
    size_t end = slash == std::string_view::npos ? reference.size() : slash;
    if (end > start) return std::string(reference.substr(start, end - start));
    start = end + 1;
  }
  return std::nullopt;
}

std::string anonymize(std::string_view name) {
  // Characters are counted by their lead bytes, so that a multi-byte character counts once.
  size_t characters = std::count_if(name.begin(), name.end(),
                                    [](char c) { return !isContinuationByte(static_cast<unsigned char>(c)); });
  if (characters < 3) return std::string(kEllipsis);
  size_t firstEnd = 1;
  while (firstEnd < name.size() && isContinuationByte(static_cast<unsigned char>(name[firstEnd]))) ++firstEnd;
  size_t lastStart = name.size() - 1;
  while (lastStart > 0 && isContinuationByte(static_cast<unsigned char>(name[lastStart]))) --lastStart;
  std::string out(name.substr(0, firstEnd));
  out += kEllipsis;
  out += name.substr(lastStart);
  return out;
}

std::optional<std::string> timeMachineBackupPath(Env* env, const std::string& path) {
  const std::string computer = env->machineName();
  std::string volumeName;
  if (auto volume = env->volumeForPath(path)) volumeName = volume->name;
  // The root volume has no name of its own here ("/"); its files lie directly in the snapshot.
  const std::string volumeComponent = (volumeName.empty() || volumeName == "/") ? "" : "/" + volumeName;

  std::vector<std::string> machineFolders;
  std::vector<std::string> snapshotVolumes;
  for (const VolumeInfo& volume : env->mountedVolumes()) {
    std::string backupFolder = pathJoin(volume.mountPoint, std::string(kBackupFolderName));
    if (env->fileExists(backupFolder)) {
      std::string machineFolder = pathJoin(backupFolder, computer);
      if (env->fileExists(machineFolder)) machineFolders.push_back(machineFolder);
    }
    if (hasPathComponent(volume.mountPoint, kBackupFolderName)) snapshotVolumes.push_back(volume.mountPoint);
  }

  for (const std::string& machineFolder : machineFolders) {
    std::vector<std::string> snapshots;
    if (!env->listDirectory(machineFolder, /*skipHidden=*/false, &snapshots, nullptr)) continue;
    std::sort(snapshots.begin(), snapshots.end(), std::greater<>());  // newest first
    for (const std::string& snapshot : snapshots) {
      std::string candidate = pathJoin(machineFolder, snapshot) + volumeComponent + path;
      if (env->fileExists(candidate)) return candidate;
    }
  }
  for (const std::string& volume : snapshotVolumes) {
    std::string candidate = volume + path;
    if (env->fileExists(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace corvane
