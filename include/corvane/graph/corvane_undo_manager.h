// corvane::CorvaneUndoManager — the undo manager a document installs.
//
// It differs from UndoManager in four ways: registrations made off the main thread are
// dropped silently (background work must never become undoable); disabling and enabling
// registration do not nest (one enable undoes any number of disables); a corvane::Exception
// thrown by an undo or redo action (or while closing a group) is swallowed, so a broken action
// never leaves the document unable to undo; and redo() is ignored while an undo or redo runs.
// It keeps up to 1000 levels of undo and remembers the 200 most recent undo targets.
//
// registerUndoWithTargetOff() is a diagnostic variant of registration that also keeps readable
// records of what was registered (myUndoStack / myRedoStack) and logs the undo stack.
//
// Threads: the main thread.
#pragma once

#include <deque>
#include <string>

#include "corvane/foundation/value.h"
#include "corvane/graph/undo_manager.h"

namespace corvane {

class CorvaneUndoManager : public UndoManager {
 public:
  static constexpr size_t kMaxTargets = 200;

  CorvaneUndoManager();

  void disableUndoRegistration() override;
  void enableUndoRegistration() override;
  void registerUndo(const void* target, Action action) override;
  void endUndoGrouping() override;
  void undo() override;
  void redo() override;
  void removeAllActions() override;

  // The most recent undo targets, newest first, at most kMaxTargets.
  const std::deque<const void*>& targets() const { return targets_; }
  bool ignoreRegistrations() const { return ignoreRegistrations_; }
  void setIgnoreRegistrations(bool ignore) { ignoreRegistrations_ = ignore; }

  // Registers like UndoManager::registerUndo and records {"target" (the target's address as
  // a number), "class", "selector", "object" (the argument's class name), "uid" (a new UUID)}
  // on myUndoStack (myRedoStack while undoing), then logs the undo stack.
  void registerUndoWithTargetOff(const void* target, const std::string& targetClassName,
                                 const std::string& selectorName, const std::string& objectClassName, Action action);
  // Arrays of the records; nil until the first diagnostic registration.
  const Value& myUndoStack() const { return myUndoStack_; }
  const Value& myRedoStack() const { return myRedoStack_; }

 private:
  std::deque<const void*> targets_;
  bool ignoreRegistrations_ = false;
  Value myUndoStack_, myRedoStack_;
};

}  // namespace corvane
