// Pure text and name rules used by PosixEnv, kept apart so that they can be tested without
// touching the real mount table, trash or system files.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/env.h"

namespace corvane::posix {

// The volumes listed by /proc/self/mountinfo text, in file order. Malformed lines are skipped.
std::vector<VolumeInfo> parseMountInfo(std::string_view text);

// True for file-system types whose data lives on another computer.
bool isNetworkFileSystemType(std::string_view type);

// The volume whose mount point is the longest prefix of `path` (a whole-component prefix);
// among equal mount points the last one listed wins, as a later mount hides an earlier one.
std::optional<VolumeInfo> volumeForPathIn(const std::vector<VolumeInfo>& volumes, const std::string& path);

// The value of `key` in a shell-style KEY=value file (/etc/os-release, /etc/machine-info),
// with quotes and backslash escapes removed; nullopt when the key is absent.
std::optional<std::string> shellStyleValue(std::string_view text, std::string_view key);

// /etc/machine-id content (32 hexadecimal digits and a newline) as an upper-case UUID string.
std::optional<std::string> uuidFromMachineId(std::string_view text);

// The real name in a password-database comment field: the text up to the first comma.
std::string fullNameFromGecos(std::string_view gecos);

// An absolute path escaped for a .trashinfo file: every byte but unreserved URL characters
// and "/" becomes %XX.
std::string percentEncodePath(std::string_view path);

// The content of a .trashinfo file; `deletionDate` is local time "YYYY-MM-DDThh:mm:ss".
std::string trashInfoText(std::string_view absolutePath, std::string_view deletionDate);

// The n-th candidate for a unique name beside `name`: n = 1 gives the name itself, n >= 2
// "Doc.2.ext" for "Doc.ext" and "Doc.2" for "Doc".
std::string numberedName(const std::string& name, int n);

}  // namespace corvane::posix
