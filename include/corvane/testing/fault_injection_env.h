// corvane::FaultInjectionEnv — an Env whose file operations fail or stop on command, for tests
// of what a full disk, a failing disk or a crash does to a document.
//
// Every operation that changes the file system (writeFileAtomically, createDirectory,
// removeItem, moveItem, copyItem, trashItem, setExtendedAttribute) gets a number as it starts:
// 1, 2, 3, ... (operationCount() tells how many have started). A test runs the work once to count
// its operations, then again for every N with the Nth operation failing or crashing:
//
//   FaultInjectionEnv faults(&env);
//   faults.failOperation(faults.operationCount() + n, ENOSPC);   // the nth one from now
//   ... save ...                                                 // must fail cleanly
//   faults.crashAt(faults.operationCount() + n, CrashLanding::TemporaryFile);
//   ... save ...; drop the store without closing it; faults.reset(); reopen
//
// A failing operation changes nothing (a failing atomic write may leave its hidden temporary
// file, as a real one stopped half way can) and returns an Error in the POSIX domain with the
// errno given. A crash models a process killed during operation N: every operation that
// returned before it is durable (the real Env flushes before it returns); operation N itself
// lands as the test chooses, and nothing after it reaches the disk, as if the process were gone:
// every later change fails with EIO and changes nothing. reset() is the restart.
//
// Operations can be limited to paths under one folder (the package, say), so that the cache's
// writes neither count nor fail.
//
// It also stands in for the surroundings a test must not take from the machine: environment
// variables, the home folder and the source of random bytes (which can fail, too).
//
// Threads: every method may be called from any thread; operations from several threads are
// numbered in the order they start.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"

namespace corvane {

// How far the operation a crash interrupts gets.
enum class CrashLanding {
  Nothing,        // nothing of it is on disk
  TemporaryFile,  // an atomic write leaves its hidden temporary file, the target untouched
  Whole,          // it is on disk whole (the rename reached the disk before the folder's flush)
};

class FaultInjectionEnv : public EnvWrapper {
 public:
  explicit FaultInjectionEnv(Env* target = Env::defaultEnv());

  // Operations counted so far.
  uint64_t operationCount() const;
  // Only operations on paths under `folder` (the folder itself included) count, fail and crash;
  // empty (the default) means all.
  void limitToFolder(std::string folder);
  // Operation number `n` fails with `errnoCode` (ENOSPC, EIO, ...). Several may be set.
  void failOperation(uint64_t n, int errnoCode);
  // Every operation from number `n` on fails with `errnoCode`, until reset(): a full disk.
  void failFrom(uint64_t n, int errnoCode);
  // The process "dies" during operation number `n`.
  void crashAt(uint64_t n, CrashLanding landing);
  bool crashed() const;
  // Clears the faults and the crash (numbering goes on).
  void reset();
  // The operations that were made to fail or were cut off, for messages: "write /p/x (ENOSPC)".
  std::vector<std::string> injected() const;

  // The variable reads as `value`; std::nullopt makes it read as unset. Others are the process's.
  void setEnvironmentVariable(const std::string& name, std::optional<std::string> value);
  void setHomeDirectory(std::string home);
  // randomBytes() asks `source`, which returns false as a broken source of randomness does.
  void setRandomSource(std::function<bool(uint8_t* out, size_t n)> source);

  bool writeFileAtomically(const std::string& path, ByteView data, Error* error) override;
  bool createDirectory(const std::string& path, bool intermediates, Error* error) override;
  bool removeItem(const std::string& path, Error* error) override;
  bool moveItem(const std::string& from, const std::string& to, Error* error) override;
  bool copyItem(const std::string& from, const std::string& to, Error* error) override;
  std::optional<std::string> trashItem(const std::string& path, Error* error) override;
  bool setExtendedAttribute(const std::string& path, const std::string& name, ByteView value, Error* error) override;
  std::optional<std::string> environmentVariable(const std::string& name) override;
  std::string homeDirectory() override;
  bool randomBytes(uint8_t* out, size_t n) override;

 private:
  enum class Verdict { Run, Fail, CrashDuring, Dead };
  struct Decision {
    Verdict verdict = Verdict::Run;
    int errnoCode = 0;
    CrashLanding landing = CrashLanding::Nothing;
  };
  // Numbers the operation and says what happens to it.
  Decision decide(const char* what, const std::string& path);
  bool counts(const std::string& path) const;  // caller holds mutex_

  mutable std::mutex mutex_;
  uint64_t count_ = 0;
  std::string folder_;
  std::vector<std::pair<uint64_t, int>> failures_;
  std::optional<std::pair<uint64_t, int>> failFrom_;
  std::optional<std::pair<uint64_t, CrashLanding>> crashAt_;
  bool crashed_ = false;
  std::vector<std::string> injected_;
  std::map<std::string, std::optional<std::string>> variables_;
  std::optional<std::string> home_;
  std::function<bool(uint8_t*, size_t)> randomSource_;
};

}  // namespace corvane
