#include "corvane/testing/sync_simulator.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace corvane {
namespace {

bool isHidden(const std::string& name) { return !name.empty() && name[0] == '.'; }

bool inChangesFolder(const std::string& path) { return path.rfind("Changes/", 0) == 0; }

bool inDataFolder(const std::string& path) {
  std::string parent = pathDeletingLastComponent(path);
  return pathLastComponent(parent) == "Data";
}

// Writes `bytes` in place, not atomically, the way a sync client fills a file it downloads.
bool writeInPlace(const std::string& path, ByteView bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  return done == bytes.size();
}

// A file of the final size with no blocks on disk: what an online-only placeholder looks like.
bool writePlaceholder(const std::string& path, uint64_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

SyncSimulator::SyncSimulator(Env* env, uint64_t seed, SyncKnobs knobs) : env_(env), knobs_(knobs), random_(seed) {}

double SyncSimulator::chance() { return std::uniform_real_distribution<double>(0.0, 1.0)(random_); }

void SyncSimulator::addFolder(const std::string& path) {
  folders_.push_back(path);
  seen_.emplace_back();
  inFlight_.emplace_back();
  delivered_.emplace_back();
  redirects_.emplace_back();
}

void SyncSimulator::listFiles(size_t folder, const std::string& relative, std::set<std::string>* out) {
  std::string dir = relative.empty() ? folders_[folder] : pathJoin(folders_[folder], relative);
  std::vector<std::string> names;
  if (!env_->listDirectory(dir, true, &names, nullptr)) return;
  for (const std::string& name : names) {
    if (isHidden(name)) continue;
    std::string sub = relative.empty() ? name : pathJoin(relative, name);
    std::optional<FileAttributes> attrs = env_->attributes(pathJoin(folders_[folder], sub));
    if (!attrs) continue;
    if (attrs->isDirectory) {
      listFiles(folder, sub, out);
    } else {
      out->insert(sub);
    }
  }
}

void SyncSimulator::scan() {
  double now = env_->monotonicNow();
  for (size_t f = 0; f < folders_.size(); ++f) {
    std::set<std::string> present;
    listFiles(f, "", &present);
    for (const std::string& path : present) {
      if (!seen_[f].insert(path).second) continue;
      // A path that appeared before anywhere (delivered here, or mirrored from here) is not new.
      if (!known_.insert(path).second) continue;
      scheduleArrival(f, path, now);
    }
    for (auto it = seen_[f].begin(); it != seen_[f].end();) {
      if (present.count(*it) != 0) {
        ++it;
        continue;
      }
      // A file the simulator is still bringing is not a removal by the device.
      if (knobs_.mirrorRemovals && inFlight_[f].count(*it) == 0) scheduleRemoval(f, *it, now);
      it = seen_[f].erase(it);
    }
  }
}

std::string SyncSimulator::destinationPath(size_t target, const std::string& path) {
  // A folder that the target created itself, under the same name, may become "<name> 2".
  std::string prefix;
  std::string rest = path;
  size_t slash;
  while ((slash = rest.find('/')) != std::string::npos) {
    std::string component = rest.substr(0, slash);
    rest = rest.substr(slash + 1);
    std::string dir = prefix.empty() ? component : pathJoin(prefix, component);
    auto found = redirects_[target].find(dir);
    if (found == redirects_[target].end()) {
      // Only an entity folder ("Entities/<name>", at any depth, so that a synchronised folder
      // may hold the package) that the target made on its own, holding nothing brought by the
      // simulator, can turn into a duplicate.
      std::string redirect;
      const bool entityLevel = !prefix.empty() && pathLastComponent(prefix) == "Entities";
      if (entityLevel && env_->fileExists(pathJoin(folders_[target], dir)) && !holdsDelivered(target, dir) &&
          chance() < knobs_.duplicateFolderProbability) {
        redirect = dir + " 2";
      }
      found = redirects_[target].emplace(dir, redirect).first;
    }
    prefix = found->second.empty() ? dir : found->second;
  }
  std::string destination = prefix.empty() ? rest : pathJoin(prefix, rest);
  if (inDataFolder(path) && chance() < knobs_.dataFileRenameProbability) destination += " (conflicted copy)";
  return destination;
}

void SyncSimulator::scheduleArrival(size_t origin, const std::string& path, double now) {
  std::optional<FileAttributes> attrs = env_->attributes(pathJoin(folders_[origin], path));
  uint64_t size = attrs ? attrs->size : 0;
  for (size_t target = 0; target < folders_.size(); ++target) {
    if (target == origin) continue;
    if (chance() < knobs_.dropProbability) {
      history_.push_back("never " + std::to_string(target) + " " + path);
      continue;
    }
    double due = now + knobs_.delay + (knobs_.jitter > 0 ? chance() * knobs_.jitter : 0);
    if (inChangesFolder(path)) {
      if (knobs_.changeFileShuffle > 0) due += chance() * knobs_.changeFileShuffle;
    } else {
      due += knobs_.objectFileLag;
    }
    Step step;
    step.origin = origin;
    step.target = target;
    step.source = path;
    step.destination = destinationPath(target, path);
    known_.insert(step.destination);
    inFlight_[target].insert(step.destination);
    delivered_[target].insert(step.destination);
    if (size > 0 && chance() < knobs_.placeholderProbability) {
      step.kind = StepKind::Placeholder;
      step.due = due;
      step.bytes = size;
      push(step);
      due += knobs_.stepInterval;
    }
    if (size > 1 && knobs_.partialSteps > 1 && chance() < knobs_.partialFileProbability) {
      for (int i = 1; i < knobs_.partialSteps; ++i) {
        step.kind = StepKind::Partial;
        step.due = due;
        step.bytes = size * static_cast<uint64_t>(i) / static_cast<uint64_t>(knobs_.partialSteps);
        push(step);
        due += knobs_.stepInterval;
      }
    }
    step.kind = StepKind::Arrive;
    step.due = due;
    step.bytes = size;
    push(step);
  }
}

void SyncSimulator::scheduleRemoval(size_t origin, const std::string& path, double now) {
  for (size_t target = 0; target < folders_.size(); ++target) {
    if (target == origin) continue;
    Step step;
    step.kind = StepKind::Remove;
    step.origin = origin;
    step.target = target;
    step.source = path;
    step.destination = path;
    step.due = now + knobs_.delay;
    push(step);
  }
}

bool SyncSimulator::holdsDelivered(size_t target, const std::string& dir) const {
  auto it = delivered_[target].lower_bound(dir + "/");
  return it != delivered_[target].end() && it->rfind(dir + "/", 0) == 0;
}

void SyncSimulator::push(Step step) {
  step.sequence = sequence_++;
  pending_.push_back(std::move(step));
  std::push_heap(pending_.begin(), pending_.end(), Later());
}

bool SyncSimulator::apply(const Step& step) {
  std::string to = pathJoin(folders_[step.target], step.destination);
  std::string from = pathJoin(folders_[step.origin], step.source);
  const char* what = "arrive";
  bool ok = false;
  if (step.kind == StepKind::Remove) {
    what = "remove";
    ok = env_->fileExists(to) && env_->removeItem(to, nullptr);
    seen_[step.target].erase(step.destination);
  } else {
    // A folder that cannot be made lets the write below fail, which the step reports.
    (void)env_->createDirectory(pathDeletingLastComponent(to), true, nullptr);
    if (step.kind == StepKind::Placeholder) {
      what = "placeholder";
      ok = writePlaceholder(to, step.bytes);
    } else {
      Bytes bytes;
      // The origin may have lost the file meanwhile (moved away, consolidated): then nothing
      // more can arrive, as with a real client.
      if (env_->readFile(from, &bytes, nullptr)) {
        if (step.kind == StepKind::Partial) {
          what = "partial";
          bytes.resize(std::min<uint64_t>(bytes.size(), step.bytes));
        }
        ok = writeInPlace(to, bytes);
      }
      if (step.kind == StepKind::Arrive) inFlight_[step.target].erase(step.destination);
    }
  }
  history_.push_back(std::string(what) + " " + std::to_string(step.target) + " " + step.destination +
                     (ok ? "" : " (failed)"));
  return ok;
}

size_t SyncSimulator::deliverDue() {
  double now = env_->monotonicNow();
  size_t applied = 0;
  while (!pending_.empty() && pending_.front().due <= now) {
    std::pop_heap(pending_.begin(), pending_.end(), Later());
    Step step = std::move(pending_.back());
    pending_.pop_back();
    apply(step);
    ++applied;
  }
  return applied;
}

void SyncSimulator::settle(int maxRounds) {
  for (int round = 0; round < maxRounds; ++round) {
    scan();
    if (pending_.empty()) return;
    while (!pending_.empty()) {
      std::pop_heap(pending_.begin(), pending_.end(), Later());
      Step step = std::move(pending_.back());
      pending_.pop_back();
      apply(step);
    }
  }
}

}  // namespace corvane
