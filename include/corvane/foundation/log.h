// The library's console log: one line per message, like the platform's NSLog. Messages whose
// exact text the system fixes (a reader's reason, a merge step) go through here unchanged, so
// tests can capture them with LogCapture.
//
// Threads: any thread may log; the sink is called on the logging thread, one line at a time.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/mutex.h"

namespace corvane {

enum class LogLevel { Debug, Info, Warning, Error };

// Writes one line. The default sink prints to standard error with a time stamp.
void logLine(std::string_view message, LogLevel level = LogLevel::Info);

using LogSink = std::function<void(LogLevel, std::string_view)>;
// Replaces the sink for the whole process; returns the previous one. An empty sink restores
// the default.
LogSink setLogSink(LogSink sink);

// The default sink: one time-stamped line on standard error. Filters wrap it.
LogSink standardErrorLogSink();

// Collects every line logged while it lives (and still forwards nothing to the console).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  bool contains(std::string_view fragment) const;
  void clear();

 private:
  mutable Mutex mutex_;
  std::vector<std::string> lines_ CORVANE_GUARDED_BY(mutex_);
  LogSink previous_;
};

}  // namespace corvane
