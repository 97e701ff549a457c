#include "corvane/foundation/log.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>

#include <fmt/format.h>

namespace corvane {
namespace {

// One line on standard error with a local time stamp, like the platform's console log.
void writeToStandardError(LogLevel /*level*/, std::string_view message) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  const std::string line = fmt::format("{}.{:03} corvane[{}] {}\n", stamp, millis, getpid(), message);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

// Loggers hold the lock shared while the sink runs, so that replacing the sink (exclusive)
// waits until no thread is still inside the old one: a LogCapture can then die safely.
// A sink must therefore not log itself.
SharedMutex& sinkMutex() {
  static SharedMutex m;
  return m;
}

LogSink& currentSink() CORVANE_REQUIRES_SHARED(sinkMutex()) {
  static LogSink sink;
  return sink;
}

}  // namespace

void logLine(std::string_view message, LogLevel level) {
  ReaderMutexLock lock(&sinkMutex());
  const LogSink& sink = currentSink();
  if (sink) {
    sink(level, message);
  } else {
    writeToStandardError(level, message);
  }
}

LogSink setLogSink(LogSink sink) {
  WriterMutexLock lock(&sinkMutex());
  LogSink previous = std::move(currentSink());
  currentSink() = std::move(sink);
  return previous;
}

LogSink standardErrorLogSink() { return writeToStandardError; }

LogCapture::LogCapture() {
  previous_ = setLogSink([this](LogLevel, std::string_view message) {
    MutexLock lock(&mutex_);
    lines_.emplace_back(message);
  });
}

LogCapture::~LogCapture() { setLogSink(std::move(previous_)); }

std::vector<std::string> LogCapture::lines() const {
  MutexLock lock(&mutex_);
  return lines_;
}

bool LogCapture::contains(std::string_view fragment) const {
  MutexLock lock(&mutex_);
  for (const std::string& line : lines_) {
    if (line.find(fragment) != std::string::npos) return true;
  }
  return false;
}

void LogCapture::clear() {
  MutexLock lock(&mutex_);
  lines_.clear();
}

}  // namespace corvane
