#include "corvane/foundation/file_event_stream.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <thread>

#include "corvane/foundation/mutex.h"

namespace corvane {

namespace {
constexpr uint32_t kFolderEvents = IN_CREATE | IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE |
                                   IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kParentEvents = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
}  // namespace

// Shared by the stream, its reader thread and the work it posts, so that none of them outlives
// what it touches. Fields marked (loop) are used on the loop's thread only.
struct FileEventStream::State {
  std::string folder;
  std::string parent;
  std::string name;
  double latency = 0;
  Callback callback;
  RunLoop* loop = nullptr;

  Mutex mutex;
  // Set by start() and stop() while no reader thread runs.
  int inotifyFd = -1;
  int stopFd = -1;
  int folderWatch CORVANE_GUARDED_BY(mutex) = -1;
  int parentWatch CORVANE_GUARDED_BY(mutex) = -1;
  bool running CORVANE_GUARDED_BY(mutex) = false;
  std::map<std::string, double> ownChanges CORVANE_GUARDED_BY(mutex);  // path -> until (loop clock)
  std::thread reader;

  std::set<std::string> pending;  // (loop)
  // (loop) The batch timer. A token rather than a flag: if the loop drops the timer
  // (discardPendingWork), the next event must schedule a new one.
  RunLoop::Token flushTimer;

  bool armFolder() CORVANE_REQUIRES(mutex) {
    folderWatch = inotify_add_watch(inotifyFd, folder.c_str(), kFolderEvents);
    return folderWatch >= 0;
  }

  bool isOwn(const std::string& path) CORVANE_EXCLUDES(mutex) {
    MutexLock lock(&mutex);
    auto it = ownChanges.find(path);
    if (it == ownChanges.end()) return false;
    if (it->second < loop->env()->monotonicNow()) {
      ownChanges.erase(it);
      return false;
    }
    return true;
  }

  // (loop) Adds paths to the open batch and makes sure a flush is scheduled.
  static void deliver(const std::shared_ptr<State>& self, std::vector<std::string> paths) {
    {
      MutexLock lock(&self->mutex);
      if (!self->running) return;
    }
    for (std::string& p : paths)
      if (!self->isOwn(p)) self->pending.insert(std::move(p));
    if (self->pending.empty() || self->flushTimer.isPending()) return;
    std::weak_ptr<State> weak = self;
    self->flushTimer = self->loop->postAfter(self->latency, [weak] {
      if (auto s = weak.lock()) flush(s);
    });
  }

  static void flush(const std::shared_ptr<State>& self) {
    {
      MutexLock lock(&self->mutex);
      if (!self->running) return;
    }
    std::vector<std::string> batch(self->pending.begin(), self->pending.end());
    self->pending.clear();
    if (!batch.empty()) self->callback(batch);
  }

  // The reader thread: turns raw inotify records into path lists posted to the loop.
  static void read(const std::shared_ptr<State>& self) {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      pollfd fds[2] = {{self->inotifyFd, POLLIN, 0}, {self->stopFd, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[1].revents != 0) return;
      ssize_t n = ::read(self->inotifyFd, buffer, sizeof buffer);
      if (n <= 0) {
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return;
      }
      std::vector<std::string> paths;
      for (char* p = buffer; p < buffer + n;) {
        auto* event = reinterpret_cast<inotify_event*>(p);
        p += sizeof(inotify_event) + event->len;
        MutexLock lock(&self->mutex);
        if (event->wd == self->folderWatch) {
          if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
            // The folder went away; the parent's watch brings it back when it reappears. A
            // moved folder keeps its watch, so drop it: the folder at our path is what counts.
            if (event->mask & IN_MOVE_SELF) inotify_rm_watch(self->inotifyFd, self->folderWatch);
            if (event->mask & (IN_MOVE_SELF | IN_IGNORED)) self->folderWatch = -1;
            paths.push_back(self->folder);
          } else if (event->len > 0) {
            paths.push_back(self->folder + "/" + event->name);
          }
        } else if (event->wd == self->parentWatch && event->len > 0 && self->name == event->name) {
          if (self->folderWatch >= 0) inotify_rm_watch(self->inotifyFd, self->folderWatch);
          self->armFolder();
          paths.push_back(self->folder);
        }
      }
      if (paths.empty()) continue;
      std::weak_ptr<State> weak = self;
      self->loop->post([weak, paths = std::move(paths)]() mutable {
        if (auto s = weak.lock()) deliver(s, std::move(paths));
      });
    }
  }
};

FileEventStream::FileEventStream(std::string folder, double latencySeconds, Callback callback, RunLoop& loop)
    : state_(std::make_shared<State>()) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  state_->folder = folder;
  state_->parent = pathDeletingLastComponent(folder);
  state_->name = pathLastComponent(folder);
  state_->latency = latencySeconds;
  state_->callback = std::move(callback);
  state_->loop = &loop;
}

FileEventStream::~FileEventStream() { stop(); }

const std::string& FileEventStream::folder() const { return state_->folder; }

bool FileEventStream::isRunning() const {
  MutexLock lock(&state_->mutex);
  return state_->running;
}

bool FileEventStream::start(Error* error) {
  stop();
  State& s = *state_;
  MutexLock lock(&s.mutex);  // the reader thread started below waits for it
  s.inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  s.stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (s.inotifyFd < 0 || s.stopFd < 0 || !s.armFolder()) {
    int err = errno;
    if (s.inotifyFd >= 0) ::close(s.inotifyFd);
    if (s.stopFd >= 0) ::close(s.stopFd);
    s.inotifyFd = s.stopFd = -1;
    return setError(error, Error::fromErrno(err, s.folder));
  }
  s.parentWatch = inotify_add_watch(s.inotifyFd, s.parent.c_str(), kParentEvents);
  s.running = true;
  s.reader = std::thread(&State::read, state_);
  return true;
}

void FileEventStream::stop() {
  State& s = *state_;
  {
    MutexLock lock(&s.mutex);
    if (!s.running) return;
    s.running = false;
  }
  uint64_t one = 1;
  ssize_t ignored = ::write(s.stopFd, &one, sizeof one);
  (void)ignored;
  if (s.reader.joinable()) s.reader.join();
  ::close(s.inotifyFd);
  ::close(s.stopFd);
  s.inotifyFd = s.stopFd = -1;
  {
    MutexLock lock(&s.mutex);
    s.folderWatch = s.parentWatch = -1;
  }
  s.pending.clear();
}

void FileEventStream::ignoreOwnChange(const std::string& path, double seconds) {
  MutexLock lock(&state_->mutex);
  state_->ownChanges[path] = state_->loop->env()->monotonicNow() + seconds;
}

}  // namespace corvane
