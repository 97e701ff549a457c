// corvane::ManualClockEnv — an Env whose clocks move only when told to.
//
// Tests (and hosts that replay or simulate) wrap a real Env in it: files still go to real
// folders, but now(), monotonicNow() and the local time-zone offset are set by hand, and the
// computer's and user's names and the mounted volumes can be overridden, so that one computer
// can play several devices. Timers of a RunLoop built on it fire when the test calls advance()
// and then runs the loop once; nothing sleeps.
//
// Threads: every method may be called from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/mutex.h"

namespace corvane {

class ManualClockEnv : public EnvWrapper {
 public:
  // Starts at 2023-03-07 20:26:40 GMT (700000000 seconds since 2001), monotonic time 1000,
  // time-zone offset 0 (GMT).
  static constexpr double kDefaultNow = 700000000.0;
  static constexpr double kDefaultMonotonicNow = 1000.0;

  explicit ManualClockEnv(Env* target = Env::defaultEnv(), double now = kDefaultNow);

  // Moves both clocks forward (or, for a negative value, the wall clock back: the monotonic
  // clock never goes back).
  void advance(double seconds);
  void setNow(double secondsSince2001);  // the wall clock only
  void setTimeZoneOffset(int secondsEastOfGMT);

  // Overrides; an unset override forwards to the target Env.
  void setMachineName(std::string name);
  void setUserName(std::string name);
  void setFullUserName(std::string name);
  void setOsVersion(std::string version);
  // Replaces the mount table: mountedVolumes() returns these and volumeForPath() picks the
  // longest mount-point prefix among them (no link resolution).
  void setVolumes(std::vector<VolumeInfo> volumes);

  double now() override;
  double monotonicNow() override;
  int timeZoneOffset(double secondsSince2001) override;
  std::string machineName() override;
  std::string userName() override;
  std::string fullUserName() override;
  std::string osVersion() override;
  std::vector<VolumeInfo> mountedVolumes() override;
  std::optional<VolumeInfo> volumeForPath(const std::string& path) override;

 private:
  mutable Mutex mutex_;
  double now_ CORVANE_GUARDED_BY(mutex_);
  double monotonic_ CORVANE_GUARDED_BY(mutex_) = kDefaultMonotonicNow;
  int offset_ CORVANE_GUARDED_BY(mutex_) = 0;
  std::optional<std::string> machineName_ CORVANE_GUARDED_BY(mutex_);
  std::optional<std::string> userName_ CORVANE_GUARDED_BY(mutex_);
  std::optional<std::string> fullUserName_ CORVANE_GUARDED_BY(mutex_);
  std::optional<std::string> osVersion_ CORVANE_GUARDED_BY(mutex_);
  std::optional<std::vector<VolumeInfo>> volumes_ CORVANE_GUARDED_BY(mutex_);
};

}  // namespace corvane
