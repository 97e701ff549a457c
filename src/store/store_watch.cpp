// CorvaneStore: watching <pkg>/Changes for change files written by other devices.
#include <fmt/format.h>

#include "corvane/foundation/file_event_stream.h"
#include "corvane/foundation/log.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_state.h"

namespace corvane {

namespace {
// File events arriving within this many seconds of each other make one batch.
constexpr double kDefaultEventLatency = 2.0;
// How long an event on a file the store wrote itself is not reported.
constexpr double kOwnChangeWindow = 30.0;

double latencyOption(const Value& options) {
  const Value& value = options[kCorvaneEventLatencyOption];
  if (value.isNumber() && value.doubleValue() >= 0) return value.doubleValue();
  return kDefaultEventLatency;
}

// Atomic writes go through hidden temporary files beside the target; they are never change
// files, so only the final rename counts.
bool isHiddenName(const std::string& path) {
  const std::string name = pathLastComponent(path);
  return !name.empty() && name[0] == '.';
}
}  // namespace

void CorvaneStore::observeDirectory() {
  const std::string folder = changesURL();
  if (folder.empty()) return;
  unobserveDirectory();
  // Work for a store that is gone is dropped (guarded), and a closed store starts no pass from
  // an event.
  auto stream = std::make_unique<FileEventStream>(
      folder, latencyOption(state_->storeOptions),
      [this](const std::vector<std::string>& paths) {
        std::vector<std::string> changed;
        for (const std::string& path : paths)
          if (!isHiddenName(path)) changed.push_back(path);
        if (changed.empty()) return;
        guarded([this, changed] {
          if (!isClosed()) invalidatePaths(changed);
        })();
      },
      *state_->mainLoop);
  Error error;
  if (stream->start(&error)) {
    log(fmt::format("Added listener to: {}", folder), kCorvaneLogTypeSuccess);
    MutexLock lock(&state_->watch.mutex);
    state_->watch.eventStream = std::move(stream);
    state_->watch.observing = true;
  } else {
    log(fmt::format("Failed adding listener to: {}", folder), kCorvaneLogTypeError);
  }
}

void CorvaneStore::unobserveDirectory() {
  std::unique_ptr<FileEventStream> stream;
  {
    // ignoreOwnChange() may be called from the save queue meanwhile.
    MutexLock lock(&state_->watch.mutex);
    stream = std::move(state_->watch.eventStream);
    state_->watch.observing = false;
  }
  if (stream) {
    stream->stop();
    logLine(fmt::format("Stop observing {}", stream->folder()));
  }
}

bool CorvaneStore::isObservingDirectory() const {
  MutexLock lock(&state_->watch.mutex);
  return state_->watch.observing && state_->watch.eventStream && state_->watch.eventStream->isRunning();
}

void CorvaneStore::ignoreOwnChange(const std::string& path) {
  MutexLock lock(&state_->watch.mutex);
  if (state_->watch.eventStream) state_->watch.eventStream->ignoreOwnChange(path, kOwnChangeWindow);
}

}  // namespace corvane
