#include "foundation/posix_env_helpers.h"

#include <array>
#include <cctype>

namespace corvane::posix {

namespace {

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t pos = 0;
  while (pos < line.size()) {
    while (pos < line.size() && line[pos] == ' ') ++pos;
    size_t end = line.find(' ', pos);
    if (end == std::string_view::npos) end = line.size();
    if (end > pos) fields.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return fields;
}

// The kernel writes space, tab, newline and backslash in mount paths as \ooo octal escapes.
std::string unescapeOctal(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      bool octal = true;
      int v = 0;
      for (size_t k = 1; k <= 3; ++k) {
        if (s[i + k] < '0' || s[i + k] > '7') {
          octal = false;
          break;
        }
        v = v * 8 + (s[i + k] - '0');
      }
      if (octal && v < 256) {
        out.push_back(static_cast<char>(v));
        i += 3;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

bool hasOption(std::string_view options, std::string_view option) {
  size_t pos = 0;
  while (pos <= options.size()) {
    size_t end = options.find(',', pos);
    if (end == std::string_view::npos) end = options.size();
    if (options.substr(pos, end - pos) == option) return true;
    pos = end + 1;
  }
  return false;
}

}  // namespace

std::vector<VolumeInfo> parseMountInfo(std::string_view text) {
  std::vector<VolumeInfo> volumes;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::vector<std::string_view> f = splitFields(text.substr(pos, end - pos));
    pos = end + 1;
    // id parent major:minor root mount-point options [optional fields...] - type source super-options
    size_t separator = 6;
    while (separator < f.size() && f[separator] != "-") ++separator;
    if (f.size() < 6 || separator + 2 >= f.size()) continue;
    VolumeInfo v;
    v.mountPoint = unescapeOctal(f[4]);
    if (v.mountPoint.empty() || v.mountPoint[0] != '/') continue;
    v.name = pathLastComponent(v.mountPoint);
    v.fileSystemType = unescapeOctal(f[separator + 1]);
    v.device = unescapeOctal(f[separator + 2]);
    v.isReadOnly = hasOption(f[5], "ro");
    v.isLocal = !isNetworkFileSystemType(v.fileSystemType);
    volumes.push_back(std::move(v));
  }
  return volumes;
}

bool isNetworkFileSystemType(std::string_view type) {
  static constexpr std::array<std::string_view, 40> kNetworkTypes = {
      "nfs",          "nfs4",         "cifs",          "smb3",           "smbfs",          "smb",
      "9p",           "afs",          "ceph",          "glusterfs",      "lustre",         "ncpfs",
      "ncp",          "coda",         "davfs",         "webdav",         "afpfs",          "ftpfs",
      "sshfs",        "beegfs",       "gpfs",          "orangefs",       "pvfs2",          "ocfs2",
      "gfs2",         "fuse.sshfs",   "fuse.rclone",   "fuse.davfs2",    "fuse.glusterfs", "fuse.ceph-fuse",
      "fuse.s3fs",    "fuse.gcsfuse", "fuse.smbnetfs", "fuse.curlftpfs", "fuse.afpfs",     "fuse.gvfsd-fuse",
      "fuse.juicefs", "fuse.goofys",  "fuse.blobfuse", "fuse.onedriver"};
  for (std::string_view t : kNetworkTypes) {
    if (type == t) return true;
  }
  // Versions and variants of the common ones ("nfs3", "smb2", "fuse.rclone-xyz") too.
  return type.starts_with("nfs") || type.starts_with("smb") || type.starts_with("fuse.rclone") ||
         type.starts_with("fuse.sshfs");
}

std::optional<VolumeInfo> volumeForPathIn(const std::vector<VolumeInfo>& volumes, const std::string& path) {
  const VolumeInfo* best = nullptr;
  for (const VolumeInfo& v : volumes) {
    const std::string& m = v.mountPoint;
    bool matches = m == "/" ? !path.empty() && path[0] == '/'
                            : path.compare(0, m.size(), m) == 0 && (path.size() == m.size() || path[m.size()] == '/');
    if (matches && (best == nullptr || m.size() >= best->mountPoint.size())) best = &v;
  }
  if (best == nullptr) return std::nullopt;
  return *best;
}

std::optional<std::string> shellStyleValue(std::string_view text, std::string_view key) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    if (line.size() <= key.size() || line.substr(0, key.size()) != key || line[key.size()] != '=') continue;
    std::string_view raw = line.substr(key.size() + 1);
    while (!raw.empty() && (raw.back() == '\r' || raw.back() == ' ' || raw.back() == '\t')) raw.remove_suffix(1);
    std::string value;
    char quote = 0;
    for (size_t i = 0; i < raw.size(); ++i) {
      char c = raw[i];
      if (quote == 0 && (c == '"' || c == '\'')) {
        quote = c;
      } else if (c == quote) {
        quote = 0;
      } else if (c == '\\' && quote != '\'' && i + 1 < raw.size()) {
        value.push_back(raw[++i]);
      } else {
        value.push_back(c);
      }
    }
    return value;
  }
  return std::nullopt;
}

std::optional<std::string> uuidFromMachineId(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  if (text.size() != 32) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < 32; ++i) {
    if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return std::nullopt;
    if (i == 8 || i == 12 || i == 16 || i == 20) out.push_back('-');
    out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(text[i]))));
  }
  return out;
}

std::string fullNameFromGecos(std::string_view gecos) {
  size_t comma = gecos.find(',');
  return std::string(comma == std::string_view::npos ? gecos : gecos.substr(0, comma));
}

std::string percentEncodePath(std::string_view path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char ch : path) {
    auto c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string trashInfoText(std::string_view absolutePath, std::string_view deletionDate) {
  std::string text = "[Trash Info]\nPath=";
  text += percentEncodePath(absolutePath);
  text += "\nDeletionDate=";
  text += deletionDate;
  text += "\n";
  return text;
}

std::string numberedName(const std::string& name, int n) {
  if (n <= 1) return name;
  std::string ext = pathExtension(name);
  std::string base = pathDeletingExtension(name);
  std::string numbered = base + "." + std::to_string(n);
  return ext.empty() ? numbered : numbered + "." + ext;
}

}  // namespace corvane::posix
