// The parts of Env that are the same for every environment: UUIDs, the standard folders,
// forwarding, and the pure path helpers.
#include "corvane/foundation/env.h"

#include <cstdio>
#include <filesystem>
#include <random>

namespace corvane {

Env::~Env() = default;

std::string Env::newUUIDString() {
  uint8_t b[16];
  if (!randomBytes(b, sizeof b)) {
    // The secure source failing is rare enough that an unpredictable but non-secure fall-back
    // is better than handing out a fixed identifier.
    std::random_device rd;
    for (auto& x : b) x = static_cast<uint8_t>(rd());
  }
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  char text[37];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return std::string(text, 36);
}

namespace {

std::string trimTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// An XDG base directory: the variable when it holds an absolute path (the XDG rules say
// relative values are to be ignored), else the fall-back under the home folder.
std::string xdgFolder(Env* env, const char* variable, const char* fallback) {
  if (auto value = env->environmentVariable(variable); value && !value->empty() && (*value)[0] == '/') {
    return trimTrailingSlashes(*value);
  }
  return pathJoin(env->homeDirectory(), fallback);
}

}  // namespace

std::string Env::temporaryDirectory() {
  if (auto value = environmentVariable("TMPDIR"); value && !value->empty() && (*value)[0] == '/') {
    return trimTrailingSlashes(*value);
  }
  return "/tmp";
}

std::string Env::dataHome() { return xdgFolder(this, "XDG_DATA_HOME", ".local/share"); }
std::string Env::cacheHome() { return xdgFolder(this, "XDG_CACHE_HOME", ".cache"); }
std::string Env::configHome() { return xdgFolder(this, "XDG_CONFIG_HOME", ".config"); }

std::string Env::desktopDirectory() {
  const std::string home = homeDirectory();
  Bytes file;
  if (readFile(pathJoin(configHome(), "user-dirs.dirs"), &file, nullptr)) {
    // Lines look like XDG_DESKTOP_DIR="$HOME/Desktop"; only "$HOME/..." and absolute paths
    // are allowed there.
    const std::string text = toString(file);
    size_t pos = 0;
    while (pos < text.size()) {
      size_t end = text.find('\n', pos);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(pos, end - pos);
      pos = end + 1;
      static const std::string kKey = "XDG_DESKTOP_DIR=";
      if (line.compare(0, kKey.size(), kKey) != 0) continue;
      std::string value = line.substr(kKey.size());
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
      if (value.compare(0, 5, "$HOME") == 0) value = home + value.substr(5);
      if (!value.empty() && value[0] == '/') return trimTrailingSlashes(value);
    }
  }
  return pathJoin(home, "Desktop");
}

// ---- EnvWrapper ------------------------------------------------------------------------------

bool EnvWrapper::readFile(const std::string& path, Bytes* out, Error* error) {
  return target_->readFile(path, out, error);
}
bool EnvWrapper::writeFileAtomically(const std::string& path, ByteView data, Error* error) {
  return target_->writeFileAtomically(path, data, error);
}
bool EnvWrapper::fileExists(const std::string& path, bool* isDirectory) {
  return target_->fileExists(path, isDirectory);
}
std::optional<FileAttributes> EnvWrapper::attributes(const std::string& path) { return target_->attributes(path); }
bool EnvWrapper::listDirectory(const std::string& path, bool skipHidden, std::vector<std::string>* names,
                               Error* error) {
  return target_->listDirectory(path, skipHidden, names, error);
}
bool EnvWrapper::createDirectory(const std::string& path, bool intermediates, Error* error) {
  return target_->createDirectory(path, intermediates, error);
}
bool EnvWrapper::removeItem(const std::string& path, Error* error) { return target_->removeItem(path, error); }
bool EnvWrapper::moveItem(const std::string& from, const std::string& to, Error* error) {
  return target_->moveItem(from, to, error);
}
bool EnvWrapper::copyItem(const std::string& from, const std::string& to, Error* error) {
  return target_->copyItem(from, to, error);
}
std::optional<std::string> EnvWrapper::trashItem(const std::string& path, Error* error) {
  return target_->trashItem(path, error);
}
std::optional<Bytes> EnvWrapper::extendedAttribute(const std::string& path, const std::string& name) {
  return target_->extendedAttribute(path, name);
}
bool EnvWrapper::setExtendedAttribute(const std::string& path, const std::string& name, ByteView value, Error* error) {
  return target_->setExtendedAttribute(path, name, value, error);
}
bool EnvWrapper::removeExtendedAttribute(const std::string& path, const std::string& name) {
  return target_->removeExtendedAttribute(path, name);
}
std::vector<VolumeInfo> EnvWrapper::mountedVolumes() { return target_->mountedVolumes(); }
std::optional<VolumeInfo> EnvWrapper::volumeForPath(const std::string& path) { return target_->volumeForPath(path); }
std::optional<uint64_t> EnvWrapper::freeSpace(const std::string& path) { return target_->freeSpace(path); }
double EnvWrapper::now() { return target_->now(); }
double EnvWrapper::monotonicNow() { return target_->monotonicNow(); }
int EnvWrapper::timeZoneOffset(double secondsSince2001) { return target_->timeZoneOffset(secondsSince2001); }
std::string EnvWrapper::machineName() { return target_->machineName(); }
std::string EnvWrapper::userName() { return target_->userName(); }
std::string EnvWrapper::fullUserName() { return target_->fullUserName(); }
std::string EnvWrapper::osVersion() { return target_->osVersion(); }
std::string EnvWrapper::platformUUID() { return target_->platformUUID(); }
std::string EnvWrapper::homeDirectory() { return target_->homeDirectory(); }
std::optional<std::string> EnvWrapper::environmentVariable(const std::string& name) {
  return target_->environmentVariable(name);
}
bool EnvWrapper::randomBytes(uint8_t* out, size_t n) { return target_->randomBytes(out, n); }
std::vector<RunningApplication> EnvWrapper::runningApplications() { return target_->runningApplications(); }
bool EnvWrapper::launchDetached(const std::string& executable, const std::vector<std::string>& arguments,
                                Error* error) {
  return target_->launchDetached(executable, arguments, error);
}

// ---- Path helpers -----------------------------------------------------------------------------
// They follow the platform's path-string operations: trailing slashes are ignored, the root
// stays "/", and a name that starts with a dot (".bashrc") has no extension.

std::string absolutePath(const std::string& path) {
  std::error_code ignored;
  std::string absolute = std::filesystem::absolute(path, ignored).lexically_normal().string();
  while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  return absolute.empty() ? path : absolute;
}

std::string pathJoin(const std::string& a, const std::string& b) {
  if (a.empty()) return b;
  std::string head = trimTrailingSlashes(a);
  size_t start = 0;
  while (start < b.size() && b[start] == '/') ++start;
  std::string tail = trimTrailingSlashes(b.substr(start));
  if (tail.empty() || tail == "/") return head;
  if (head == "/") return "/" + tail;
  return head + "/" + tail;
}

std::string pathLastComponent(const std::string& path) {
  std::string p = trimTrailingSlashes(path);
  if (p == "/") return p;
  size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string pathDeletingLastComponent(const std::string& path) {
  std::string p = trimTrailingSlashes(path);
  if (p == "/") return p;
  size_t slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return trimTrailingSlashes(p.substr(0, slash));
}

namespace {
// Position of the extension's dot in the last component of an already trimmed path, or npos.
size_t extensionDot(const std::string& trimmed) {
  size_t slash = trimmed.rfind('/');
  size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  size_t dot = trimmed.rfind('.');
  if (dot == std::string::npos || dot <= nameStart || dot + 1 == trimmed.size()) return std::string::npos;
  return dot;
}
}  // namespace

std::string pathExtension(const std::string& path) {
  std::string p = trimTrailingSlashes(path);
  size_t dot = extensionDot(p);
  return dot == std::string::npos ? "" : p.substr(dot + 1);
}

std::string pathDeletingExtension(const std::string& path) {
  std::string p = trimTrailingSlashes(path);
  size_t dot = extensionDot(p);
  return dot == std::string::npos ? p : p.substr(0, dot);
}

bool isPlainFileName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::optional<std::string> pathJoinFileName(const std::string& folder, std::string_view name) {
  if (!isPlainFileName(name)) return std::nullopt;
  return pathJoin(folder, std::string(name));
}

}  // namespace corvane
