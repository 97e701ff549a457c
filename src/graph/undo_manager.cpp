#include "corvane/graph/undo_manager.h"

#include <algorithm>

#include "corvane/foundation/error.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {

namespace {
[[noreturn]] void inconsistency(const std::string& reason) {
  throw Exception("NSInternalInconsistencyException", reason);
}
}  // namespace

UndoManager::UndoManager() : self_(std::make_shared<UndoManager*>(this)) {}

UndoManager::~UndoManager() = default;

int UndoManager::groupingLevel() const { return static_cast<int>(open_.size()); }

void UndoManager::post(const char* name) { NotificationCenter::defaultCenter().post(name, this); }

void UndoManager::checkpoint() { post(kUndoManagerCheckpointNotification); }

void UndoManager::registerUndo(const void* target, Action action) {
  if (disabled_ > 0 || !action) return;
  if (open_.empty()) {
    if (!groupsByEvent_) inconsistency("registerUndo: must begin a group before registering undo");
    // A group opened by a registration closes at the end of the main run loop's pass.
    open_.emplace_back();
    autoGroupOpen_ = true;
    uint64_t generation = ++eventGeneration_;
    RunLoop& loop = RunLoop::main();
    if (loop.isMainThread()) {
      std::weak_ptr<UndoManager*> weak = self_;
      loop.post([weak, generation] {
        auto self = weak.lock();
        if (!self) return;
        UndoManager* manager = *self;
        if (manager->autoGroupOpen_ && manager->eventGeneration_ == generation && manager->open_.size() == 1) {
          manager->endUndoGrouping();
        }
      });
    }
  }
  open_.back().entries.push_back(Entry{target, std::move(action)});
  if (!undoing_ && !redoing_) redoStack_.clear();
}

void UndoManager::beginUndoGrouping() {
  // An explicit group is its own undo step even when no run loop closed the event's group.
  if (autoGroupOpen_ && open_.size() == 1 && !undoing_ && !redoing_) endUndoGrouping();
  checkpoint();
  open_.emplace_back();
}

void UndoManager::endUndoGrouping() {
  if (open_.empty()) inconsistency("endUndoGrouping: no undo group is open");
  checkpoint();
  Group group = std::move(open_.back());
  open_.pop_back();
  if (!open_.empty()) {
    Group& parent = open_.back();
    for (auto& e : group.entries) parent.entries.push_back(std::move(e));
    if (parent.actionName.empty()) parent.actionName = std::move(group.actionName);
    return;
  }
  autoGroupOpen_ = false;
  if (group.entries.empty()) return;
  undoStack_.push_back(std::move(group));
  trimUndoStack();
}

void UndoManager::setLevelsOfUndo(size_t levels) {
  levelsOfUndo_ = levels;
  trimUndoStack();
}

void UndoManager::trimUndoStack() {
  if (levelsOfUndo_ == 0) return;
  if (undoStack_.size() > levelsOfUndo_) {
    undoStack_.erase(undoStack_.begin(), undoStack_.begin() + static_cast<long>(undoStack_.size() - levelsOfUndo_));
  }
  if (redoStack_.size() > levelsOfUndo_) {
    redoStack_.erase(redoStack_.begin(), redoStack_.begin() + static_cast<long>(redoStack_.size() - levelsOfUndo_));
  }
}

void UndoManager::disableUndoRegistration() { ++disabled_; }

void UndoManager::enableUndoRegistration() {
  if (disabled_ == 0) inconsistency("enableUndoRegistration: registration is not disabled");
  --disabled_;
}

bool UndoManager::canUndo() const {
  if (!undoStack_.empty()) return true;
  return autoGroupOpen_ && open_.size() == 1 && !open_.back().entries.empty();
}

bool UndoManager::canRedo() const { return !redoStack_.empty(); }

// Runs a group's actions newest first, collecting what they register into the opposite
// stack. The manager's flags are restored even when an action throws.
void UndoManager::runGroup(Group group, bool undoing) {
  struct Restore {
    UndoManager* m;
    size_t depth;
    bool undoing;
    std::string name;
    ~Restore() {
      m->undoing_ = false;
      m->redoing_ = false;
      while (m->open_.size() > depth + 1) m->open_.pop_back();
      if (m->open_.size() == depth + 1) {
        Group collected = std::move(m->open_.back());
        m->open_.pop_back();
        if (collected.actionName.empty()) collected.actionName = name;
        if (!collected.entries.empty()) {
          (undoing ? m->redoStack_ : m->undoStack_).push_back(std::move(collected));
          m->trimUndoStack();
        }
      }
    }
  };
  Restore restore{this, open_.size(), undoing, group.actionName};
  open_.emplace_back();
  (undoing ? undoing_ : redoing_) = true;
  for (auto it = group.entries.rbegin(); it != group.entries.rend(); ++it) it->action();
}

void UndoManager::undo() {
  checkpoint();
  if (groupsByEvent_ && autoGroupOpen_ && open_.size() == 1) endUndoGrouping();
  if (!open_.empty()) inconsistency("undo: undo was called with too many nested undo groups");
  undoNewestGroup();
}

void UndoManager::undoNewestGroup() {
  if (undoStack_.empty()) return;
  post(kUndoManagerWillUndoChangeNotification);
  Group group = std::move(undoStack_.back());
  undoStack_.pop_back();
  runGroup(std::move(group), true);
  post(kUndoManagerDidUndoChangeNotification);
}

void UndoManager::redo() {
  checkpoint();
  if (!open_.empty()) inconsistency("redo: redo was called with an open undo group");
  if (redoStack_.empty()) return;
  post(kUndoManagerWillRedoChangeNotification);
  Group group = std::move(redoStack_.back());
  redoStack_.pop_back();
  runGroup(std::move(group), false);
  post(kUndoManagerDidRedoChangeNotification);
}

void UndoManager::undoNestedGroup() {
  if (!open_.empty()) {
    // Undo inside an open group: nothing nested remains once a group is closed into its
    // parent, so there is nothing separate to undo.
    inconsistency("undoNestedGroup: an undo group is open");
  }
  undoNewestGroup();
}

void UndoManager::removeAllActions() {
  undoStack_.clear();
  redoStack_.clear();
  open_.clear();
  autoGroupOpen_ = false;
  disabled_ = 0;
}

void UndoManager::removeAllActionsWithTarget(const void* target) {
  auto strip = [target](std::vector<Group>& groups, bool dropEmpty) {
    for (auto& g : groups) {
      g.entries.erase(
          std::remove_if(g.entries.begin(), g.entries.end(), [target](const Entry& e) { return e.target == target; }),
          g.entries.end());
    }
    if (dropEmpty) {
      groups.erase(std::remove_if(groups.begin(), groups.end(), [](const Group& g) { return g.entries.empty(); }),
                   groups.end());
    }
  };
  strip(undoStack_, true);
  strip(redoStack_, true);
  strip(open_, false);
}

void UndoManager::setActionName(std::string name) {
  if (!open_.empty()) {
    open_.back().actionName = std::move(name);
  } else if (!undoStack_.empty()) {
    undoStack_.back().actionName = std::move(name);
  }
}

std::string UndoManager::undoActionName() const {
  if (autoGroupOpen_ && open_.size() == 1) return open_.back().actionName;
  return undoStack_.empty() ? std::string() : undoStack_.back().actionName;
}

std::string UndoManager::redoActionName() const {
  return redoStack_.empty() ? std::string() : redoStack_.back().actionName;
}

}  // namespace corvane
