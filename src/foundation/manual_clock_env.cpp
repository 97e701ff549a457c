#include "corvane/foundation/manual_clock_env.h"

#include "foundation/posix_env_helpers.h"

namespace corvane {

ManualClockEnv::ManualClockEnv(Env* target, double now) : EnvWrapper(target), now_(now) {}

void ManualClockEnv::advance(double seconds) {
  MutexLock lock(&mutex_);
  now_ += seconds;
  if (seconds > 0) monotonic_ += seconds;
}

void ManualClockEnv::setNow(double secondsSince2001) {
  MutexLock lock(&mutex_);
  now_ = secondsSince2001;
}

void ManualClockEnv::setTimeZoneOffset(int secondsEastOfGMT) {
  MutexLock lock(&mutex_);
  offset_ = secondsEastOfGMT;
}

void ManualClockEnv::setMachineName(std::string name) {
  MutexLock lock(&mutex_);
  machineName_ = std::move(name);
}

void ManualClockEnv::setUserName(std::string name) {
  MutexLock lock(&mutex_);
  userName_ = std::move(name);
}

void ManualClockEnv::setFullUserName(std::string name) {
  MutexLock lock(&mutex_);
  fullUserName_ = std::move(name);
}

void ManualClockEnv::setOsVersion(std::string version) {
  MutexLock lock(&mutex_);
  osVersion_ = std::move(version);
}

void ManualClockEnv::setVolumes(std::vector<VolumeInfo> volumes) {
  MutexLock lock(&mutex_);
  volumes_ = std::move(volumes);
}

double ManualClockEnv::now() {
  MutexLock lock(&mutex_);
  return now_;
}

double ManualClockEnv::monotonicNow() {
  MutexLock lock(&mutex_);
  return monotonic_;
}

int ManualClockEnv::timeZoneOffset(double) {
  MutexLock lock(&mutex_);
  return offset_;
}

namespace {
// Reads an override under the lock, or returns nullopt so that the caller forwards without it.
template <typename T>
std::optional<T> snapshot(Mutex* mutex, const std::optional<T>* value) CORVANE_EXCLUDES(mutex) {
  MutexLock lock(mutex);
  return *value;
}
}  // namespace

std::string ManualClockEnv::machineName() {
  auto v = snapshot(&mutex_, &machineName_);
  return v ? *v : EnvWrapper::machineName();
}

std::string ManualClockEnv::userName() {
  auto v = snapshot(&mutex_, &userName_);
  return v ? *v : EnvWrapper::userName();
}

std::string ManualClockEnv::fullUserName() {
  auto v = snapshot(&mutex_, &fullUserName_);
  return v ? *v : EnvWrapper::fullUserName();
}

std::string ManualClockEnv::osVersion() {
  auto v = snapshot(&mutex_, &osVersion_);
  return v ? *v : EnvWrapper::osVersion();
}

std::vector<VolumeInfo> ManualClockEnv::mountedVolumes() {
  auto v = snapshot(&mutex_, &volumes_);
  return v ? *v : EnvWrapper::mountedVolumes();
}

std::optional<VolumeInfo> ManualClockEnv::volumeForPath(const std::string& path) {
  auto v = snapshot(&mutex_, &volumes_);
  return v ? posix::volumeForPathIn(*v, path) : EnvWrapper::volumeForPath(path);
}

}  // namespace corvane
