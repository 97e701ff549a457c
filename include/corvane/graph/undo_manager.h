// corvane::UndoManager — records how to undo changes, in groups, and undoes and redoes them.
//
// Whoever changes something registers the action that puts it back (registerUndo). Actions
// are collected in groups; undo() runs the actions of the newest group in reverse order, and
// whatever those actions register while undoing becomes the redo group. A new registration
// that is not part of an undo or redo clears the redo stack.
//
// Groups open with beginUndoGrouping() and close with endUndoGrouping(); groups nest, and the
// nested ones become part of the enclosing top-level group. With groupsByEvent (the default)
// a registration outside any group opens a group by itself; on the main thread that group is
// closed at the end of the current pass of the main run loop, and undo() closes it too, as
// does an explicit beginUndoGrouping() (so an explicit group is always its own undo step,
// whether or not a run loop runs).
//
// Notifications (NotificationCenter::defaultCenter(), object = the manager):
// kUndoManagerCheckpointNotification on every open and close of a group and before undo and
// redo (contexts process their pending changes then), kUndoManagerWillUndoChangeNotification
// / DidUndo / WillRedo / DidRedo around undo and redo.
//
// Threads: one thread at a time, normally the main thread.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace corvane {

inline constexpr const char* kUndoManagerCheckpointNotification = "NSUndoManagerCheckpointNotification";
inline constexpr const char* kUndoManagerWillUndoChangeNotification = "NSUndoManagerWillUndoChangeNotification";
inline constexpr const char* kUndoManagerDidUndoChangeNotification = "NSUndoManagerDidUndoChangeNotification";
inline constexpr const char* kUndoManagerWillRedoChangeNotification = "NSUndoManagerWillRedoChangeNotification";
inline constexpr const char* kUndoManagerDidRedoChangeNotification = "NSUndoManagerDidRedoChangeNotification";

class UndoManager {
 public:
  using Action = std::function<void()>;

  UndoManager();
  virtual ~UndoManager();
  UndoManager(const UndoManager&) = delete;
  UndoManager& operator=(const UndoManager&) = delete;

  // Registers `action` to undo a change made to `target` (an address used only to find the
  // target's actions again, see removeAllActionsWithTarget). Ignored while registration is
  // disabled.
  virtual void registerUndo(const void* target, Action action);

  virtual void beginUndoGrouping();
  // Closes the innermost open group. Throws Exception("NSInternalInconsistencyException")
  // when no group is open.
  virtual void endUndoGrouping();
  int groupingLevel() const;
  bool groupsByEvent() const { return groupsByEvent_; }
  void setGroupsByEvent(bool groups) { groupsByEvent_ = groups; }
  // How many top-level groups are kept (0: no limit); the oldest go first.
  size_t levelsOfUndo() const { return levelsOfUndo_; }
  void setLevelsOfUndo(size_t levels);

  // Disabling nests: each disable needs its enable.
  virtual void disableUndoRegistration();
  virtual void enableUndoRegistration();
  bool isUndoRegistrationEnabled() const { return disabled_ == 0; }

  // Registration disabled for the life of the scope, on a manager that may be null.
  class [[nodiscard]] DisabledRegistration {
   public:
    explicit DisabledRegistration(UndoManager* manager) : manager_(manager) {
      if (manager_ != nullptr) manager_->disableUndoRegistration();
    }
    // The enable balances the constructor's disable, so the manager's check that registration
    // was disabled cannot throw here.
    ~DisabledRegistration() {  // NOLINT(bugprone-exception-escape)
      if (manager_ != nullptr) manager_->enableUndoRegistration();
    }
    DisabledRegistration(const DisabledRegistration&) = delete;
    DisabledRegistration& operator=(const DisabledRegistration&) = delete;

   private:
    UndoManager* manager_;
  };

  bool canUndo() const;
  bool canRedo() const;
  // Undoes the newest top-level group (closing an open by-event group first). Throws
  // Exception("NSInternalInconsistencyException") when a group opened with
  // beginUndoGrouping() is still open. Exceptions thrown by actions pass on, after the
  // manager's state has been restored.
  virtual void undo();
  virtual void redo();
  // Undoes the newest closed group without closing an open event group first. Nested groups
  // are merged into their top-level group when they close, so this throws
  // Exception("NSInternalInconsistencyException") while any group is open.
  void undoNestedGroup();
  bool isUndoing() const { return undoing_; }
  bool isRedoing() const { return redoing_; }

  virtual void removeAllActions();
  void removeAllActionsWithTarget(const void* target);

  // The name of the newest group, for menus ("Undo Typing").
  void setActionName(std::string name);
  std::string undoActionName() const;
  std::string redoActionName() const;
  size_t undoCount() const { return undoStack_.size(); }
  size_t redoCount() const { return redoStack_.size(); }

 protected:
  struct Entry {
    const void* target = nullptr;
    Action action;
  };
  struct Group {
    std::vector<Entry> entries;  // actions and nested groups flattened, in registration order
    std::string actionName;
  };

 private:
  void checkpoint();
  void post(const char* name);
  void runGroup(Group group, bool undoing);
  void undoNewestGroup();
  std::vector<Group>& targetStack();
  void trimUndoStack();

  std::vector<Group> undoStack_, redoStack_;
  std::vector<Group> open_;  // open groups, innermost last
  bool groupsByEvent_ = true;
  bool autoGroupOpen_ = false;
  uint64_t eventGeneration_ = 0;
  size_t levelsOfUndo_ = 0;
  int disabled_ = 0;
  bool undoing_ = false;
  bool redoing_ = false;
  std::shared_ptr<UndoManager*> self_;  // lets the end-of-event closer notice a destroyed manager
};

}  // namespace corvane
