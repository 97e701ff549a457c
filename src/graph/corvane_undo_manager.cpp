#include "corvane/graph/corvane_undo_manager.h"

#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/run_loop.h"

namespace corvane {

CorvaneUndoManager::CorvaneUndoManager() { setLevelsOfUndo(1000); }

void CorvaneUndoManager::disableUndoRegistration() {
  if (isUndoRegistrationEnabled()) UndoManager::disableUndoRegistration();
}

void CorvaneUndoManager::enableUndoRegistration() {
  if (!isUndoRegistrationEnabled()) UndoManager::enableUndoRegistration();
}

void CorvaneUndoManager::registerUndo(const void* target, Action action) {
  // Work done on background queues must never end up on the user's undo stack.
  if (!RunLoop::main().isMainThread()) return;
  UndoManager::registerUndo(target, std::move(action));
  targets_.push_front(target);
  if (targets_.size() > kMaxTargets) targets_.resize(kMaxTargets);
}

void CorvaneUndoManager::endUndoGrouping() {
  try {
    UndoManager::endUndoGrouping();
  } catch (const Exception&) {
    // A failing action must not take the document's undo down with it.
  }
}

void CorvaneUndoManager::undo() {
  try {
    UndoManager::undo();
  } catch (const Exception&) {
  }
}

void CorvaneUndoManager::redo() {
  if (isUndoing() || isRedoing()) return;
  try {
    UndoManager::redo();
  } catch (const Exception&) {
  }
}

void CorvaneUndoManager::removeAllActions() { UndoManager::removeAllActions(); }

void CorvaneUndoManager::registerUndoWithTargetOff(const void* target, const std::string& targetClassName,
                                                   const std::string& selectorName, const std::string& objectClassName,
                                                   Action action) {
  if (myUndoStack_.isNil()) myUndoStack_ = Value::mutableArray();
  if (myRedoStack_.isNil()) myRedoStack_ = Value::mutableArray();
  if (!isUndoRegistrationEnabled()) return;
  UndoManager::registerUndo(target, std::move(action));
  Value record = Value::mutableDictionary({
      {Value("target"), Value::unsignedNumber(NumberKind::UnsignedLongLong, reinterpret_cast<uintptr_t>(target))},
      {Value("class"), Value(targetClassName)},
      {Value("selector"), Value(selectorName)},
      {Value("object"), Value(objectClassName)},
      {Value("uid"), Value(Env::defaultEnv()->newUUIDString())},
  });
  // There is no text storage in this library, so no target is logged by itself.
  Value& to = isUndoing() ? myRedoStack_ : myUndoStack_;
  Value& other = isUndoing() ? myUndoStack_ : myRedoStack_;
  to.append(record);
  other.remove(record);
  logLine("Undo stack: " + myUndoStack_.description(), LogLevel::Debug);
}

}  // namespace corvane
