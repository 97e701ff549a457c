// corvane::SyncSimulator — a cloud-sync client in a box, for tests.
//
// It mirrors the files of two or more folders (the same package as seen by several devices)
// the way a sync client does, with the misbehaviour real clients show: files arrive late and
// out of order, grow in steps, show up first as placeholders without content, land in
// duplicated folders or under a longer name, or never arrive at all. Every decision comes
// from a seeded generator, so a run is reproducible from its seed.
//
// It is driven by hand: scan() notices files that appeared (or disappeared) in any folder and
// schedules their arrival in the others; deliverDue() carries out what is due on the Env's
// monotonic clock, so a test advances a ManualClockEnv instead of sleeping; settle() runs
// everything that is pending regardless of the clock.
//
// Hidden files (names starting with ".") are not mirrored: atomic writes use hidden
// temporary files, and the final file shows up under its real name when renamed. Files are
// taken as immutable once they have appeared, as every file of a package is.
//
// Threads: one thread drives a simulator; the folders may be written by others meanwhile.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"

namespace corvane {

struct SyncKnobs {
  double delay = 0;   // seconds from a file's appearance in one folder to its arrival elsewhere
  double jitter = 0;  // plus a random extra delay in [0, jitter)

  // Files outside Changes/ (object and data files) arrive this much later than change files,
  // so a change file is seen before the object files it lists.
  double objectFileLag = 0;
  // Change files get a random extra delay in [0, changeFileShuffle), so that they arrive
  // out of name order.
  double changeFileShuffle = 0;

  // Probability that a file arrives in steps: first truncated, growing at each step.
  double partialFileProbability = 0;
  int partialSteps = 3;
  double stepInterval = 1.0;  // seconds between the steps of a partial file or a placeholder

  // Probability that a file first arrives as a placeholder: a sparse file of the final size
  // with no blocks on disk, whose content comes one step later.
  double placeholderProbability = 0;

  // Probability that a folder created on both sides independently (for example the same
  // entity's folder in Entities/) arrives as a duplicate "<name> 2" instead of being merged.
  double duplicateFolderProbability = 0;

  // Probability that a file in a "Data" folder arrives as "<name> (conflicted copy)".
  double dataFileRenameProbability = 0;

  // Probability that a file never arrives in a given folder.
  double dropProbability = 0;

  // Whether removals are mirrored too.
  bool mirrorRemovals = true;
};

class SyncSimulator {
 public:
  SyncSimulator(Env* env, uint64_t seed, SyncKnobs knobs = {});

  // Adds a folder to mirror. Files already in it count as having appeared now.
  void addFolder(const std::string& path);

  // Notices new and removed files in every folder and schedules their arrival elsewhere.
  void scan();
  // Applies every scheduled step that is due on the Env's monotonic clock; returns how many.
  size_t deliverDue();
  // Scans and delivers, ignoring delays, until nothing is pending. Files that were chosen
  // never to arrive stay away.
  void settle(int maxRounds = 1000);

  // Scheduled steps not yet applied.
  size_t pendingCount() const { return pending_.size(); }
  // One line per applied step ("arrive B Changes/x.json", "placeholder ...", ...).
  const std::vector<std::string>& history() const { return history_; }

 private:
  enum class StepKind { Arrive, Partial, Placeholder, Remove };
  struct Step {
    double due = 0;
    uint64_t sequence = 0;
    StepKind kind = StepKind::Arrive;
    size_t origin = 0;        // folder the file came from
    size_t target = 0;        // folder it goes to
    std::string source;       // relative path in the origin
    std::string destination;  // relative path in the target
    uint64_t bytes = 0;       // for a partial step: how many bytes to write
  };
  struct Later {
    bool operator()(const Step& a, const Step& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };

  void listFiles(size_t folder, const std::string& relative, std::set<std::string>* out);
  void scheduleArrival(size_t origin, const std::string& path, double now);
  void scheduleRemoval(size_t origin, const std::string& path, double now);
  bool holdsDelivered(size_t target, const std::string& dir) const;
  std::string destinationPath(size_t target, const std::string& path);
  bool apply(const Step& step);
  void push(Step step);
  double chance();

  Env* env_;
  SyncKnobs knobs_;
  std::mt19937_64 random_;
  std::vector<std::string> folders_;
  // Relative paths present in each folder at the last scan (real and delivered ones).
  std::vector<std::set<std::string>> seen_;
  // Every relative path that has ever appeared in any folder or been scheduled to arrive.
  std::set<std::string> known_;
  // Per folder: paths the simulator is still bringing, and every path it ever brought.
  std::vector<std::set<std::string>> inFlight_;
  std::vector<std::set<std::string>> delivered_;
  // Per target folder: directory prefix -> the duplicate it was redirected to ("" = none).
  std::vector<std::map<std::string, std::string>> redirects_;
  std::vector<Step> pending_;  // a heap ordered by Later
  uint64_t sequence_ = 0;
  std::vector<std::string> history_;
};

}  // namespace corvane
