#include "corvane/testing/fault_injection_env.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace corvane {

namespace {

Error injectedError(int errnoCode, const std::string& path) {
  return Error(kPOSIXErrorDomain, errnoCode, fmt::format("{}: {}", path, std::strerror(errnoCode)));
}

bool isUnder(const std::string& path, const std::string& folder) {
  return path == folder || (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

}  // namespace

FaultInjectionEnv::FaultInjectionEnv(Env* target) : EnvWrapper(target) {}

uint64_t FaultInjectionEnv::operationCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

void FaultInjectionEnv::limitToFolder(std::string folder) {
  std::lock_guard<std::mutex> lock(mutex_);
  folder_ = std::move(folder);
}

void FaultInjectionEnv::failOperation(uint64_t n, int errnoCode) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_.emplace_back(n, errnoCode);
}

void FaultInjectionEnv::failFrom(uint64_t n, int errnoCode) {
  std::lock_guard<std::mutex> lock(mutex_);
  failFrom_ = {n, errnoCode};
}

void FaultInjectionEnv::crashAt(uint64_t n, CrashLanding landing) {
  std::lock_guard<std::mutex> lock(mutex_);
  crashAt_ = {n, landing};
}

bool FaultInjectionEnv::crashed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return crashed_;
}

void FaultInjectionEnv::reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_.clear();
  failFrom_.reset();
  crashAt_.reset();
  crashed_ = false;
}

std::vector<std::string> FaultInjectionEnv::injected() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return injected_;
}

void FaultInjectionEnv::setEnvironmentVariable(const std::string& name, std::optional<std::string> value) {
  std::lock_guard<std::mutex> lock(mutex_);
  variables_[name] = std::move(value);
}

void FaultInjectionEnv::setHomeDirectory(std::string home) {
  std::lock_guard<std::mutex> lock(mutex_);
  home_ = std::move(home);
}

void FaultInjectionEnv::setRandomSource(std::function<bool(uint8_t* out, size_t n)> source) {
  std::lock_guard<std::mutex> lock(mutex_);
  randomSource_ = std::move(source);
}

std::optional<std::string> FaultInjectionEnv::environmentVariable(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = variables_.find(name);
    if (it != variables_.end()) return it->second;
  }
  return EnvWrapper::environmentVariable(name);
}

std::string FaultInjectionEnv::homeDirectory() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (home_) return *home_;
  }
  return EnvWrapper::homeDirectory();
}

bool FaultInjectionEnv::randomBytes(uint8_t* out, size_t n) {
  std::function<bool(uint8_t*, size_t)> source;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    source = randomSource_;
  }
  // Called outside the lock: a source may count its calls or ask this Env again.
  return source ? source(out, n) : EnvWrapper::randomBytes(out, n);
}

bool FaultInjectionEnv::counts(const std::string& path) const { return folder_.empty() || isUnder(path, folder_); }

FaultInjectionEnv::Decision FaultInjectionEnv::decide(const char* what, const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A dead process changes nothing anywhere, inside the folder or not.
  if (crashed_) return {Verdict::Dead, EIO};
  if (!counts(path)) return {};
  const uint64_t n = ++count_;
  if (crashAt_ && crashAt_->first == n) {
    crashed_ = true;
    injected_.push_back(fmt::format("{} {} (crash)", what, path));
    return {Verdict::CrashDuring, EIO, crashAt_->second};
  }
  for (const auto& [number, code] : failures_) {
    if (number == n) {
      injected_.push_back(fmt::format("{} {} ({})", what, path, code == ENOSPC ? "ENOSPC" : std::strerror(code)));
      return {Verdict::Fail, code};
    }
  }
  if (failFrom_ && n >= failFrom_->first) {
    injected_.push_back(fmt::format("{} {} (from {})", what, path, failFrom_->first));
    return {Verdict::Fail, failFrom_->second};
  }
  return {};
}

bool FaultInjectionEnv::writeFileAtomically(const std::string& path, ByteView data, Error* error) {
  const Decision d = decide("write", path);
  if (d.verdict == Verdict::Run) return EnvWrapper::writeFileAtomically(path, data, error);
  const bool leaveTemporary = (d.verdict == Verdict::Fail && d.errnoCode == EIO) ||
                              (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::TemporaryFile);
  if (leaveTemporary) {
    // What a write stopped after its temporary file reached the disk leaves behind.
    const std::string temporary =
        pathJoin(pathDeletingLastComponent(path), "." + pathLastComponent(path) + ".0123456789ab.tmp");
    (void)EnvWrapper::writeFileAtomically(temporary, data, nullptr);
  }
  if (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::Whole) {
    (void)EnvWrapper::writeFileAtomically(path, data, nullptr);
  }
  return setError(error, injectedError(d.errnoCode, path));
}

bool FaultInjectionEnv::createDirectory(const std::string& path, bool intermediates, Error* error) {
  // An existing folder is no operation at all: nothing to fail.
  bool isDirectory = false;
  if (intermediates && EnvWrapper::fileExists(path, &isDirectory) && isDirectory) return true;
  const Decision d = decide("mkdir", path);
  if (d.verdict == Verdict::Run) return EnvWrapper::createDirectory(path, intermediates, error);
  if (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::Whole) {
    (void)EnvWrapper::createDirectory(path, intermediates, nullptr);
  }
  return setError(error, injectedError(d.errnoCode, path));
}

bool FaultInjectionEnv::removeItem(const std::string& path, Error* error) {
  const Decision d = decide("remove", path);
  if (d.verdict == Verdict::Run) return EnvWrapper::removeItem(path, error);
  if (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::Whole)
    (void)EnvWrapper::removeItem(path, nullptr);
  return setError(error, injectedError(d.errnoCode, path));
}

bool FaultInjectionEnv::moveItem(const std::string& from, const std::string& to, Error* error) {
  const Decision d = decide("move", to);
  if (d.verdict == Verdict::Run) return EnvWrapper::moveItem(from, to, error);
  if (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::Whole) {
    (void)EnvWrapper::moveItem(from, to, nullptr);
  }
  return setError(error, injectedError(d.errnoCode, to));
}

bool FaultInjectionEnv::copyItem(const std::string& from, const std::string& to, Error* error) {
  const Decision d = decide("copy", to);
  if (d.verdict == Verdict::Run) return EnvWrapper::copyItem(from, to, error);
  if (d.verdict == Verdict::CrashDuring && d.landing == CrashLanding::Whole) {
    (void)EnvWrapper::copyItem(from, to, nullptr);
  }
  return setError(error, injectedError(d.errnoCode, to));
}

std::optional<std::string> FaultInjectionEnv::trashItem(const std::string& path, Error* error) {
  const Decision d = decide("trash", path);
  if (d.verdict == Verdict::Run) return EnvWrapper::trashItem(path, error);
  setError(error, injectedError(d.errnoCode, path));
  return std::nullopt;
}

bool FaultInjectionEnv::setExtendedAttribute(const std::string& path, const std::string& name, ByteView value,
                                             Error* error) {
  const Decision d = decide("setxattr", path);
  if (d.verdict == Verdict::Run) return EnvWrapper::setExtendedAttribute(path, name, value, error);
  return setError(error, injectedError(d.errnoCode, path));
}

}  // namespace corvane
