// corvane::FileEventStream — file-level change events of one folder, in batches.
//
// It watches one folder (not its sub-folders) with inotify for files created, written, moved
// in or out and removed, and hands the changed paths to a callback on a RunLoop, at most one
// batch per latency: the first event of a quiet period starts the latency timer (on the
// loop's Env clock, so a ManualClockEnv drives it in tests) and everything that arrives until
// it fires goes into the same batch. When the folder itself is removed or replaced, the
// stream re-arms on the new folder as soon as one appears and reports the folder's path.
//
// Changes this process makes itself are announced with ignoreOwnChange(), and events on that
// path are then not reported for a while; inotify cannot tell who changed a file.
//
// Threads: construct, start, stop and destroy on the loop's thread; ignoreOwnChange() from any
// thread. The callback runs on the loop's thread; after stop() returns it is not called again.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {

class FileEventStream {
 public:
  using Callback = std::function<void(const std::vector<std::string>& paths)>;

  FileEventStream(std::string folder, double latencySeconds, Callback callback, RunLoop& loop = RunLoop::main());
  ~FileEventStream();
  FileEventStream(const FileEventStream&) = delete;
  FileEventStream& operator=(const FileEventStream&) = delete;

  // Starts watching from now on. False (and an error) when the folder cannot be watched.
  bool start(Error* error = nullptr);
  void stop();
  bool isRunning() const;
  const std::string& folder() const;

  // Events on `path` during the next `seconds` (on the loop's clock) are not reported.
  void ignoreOwnChange(const std::string& path, double seconds = 30);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace corvane
