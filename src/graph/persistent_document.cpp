#include "corvane/graph/persistent_document.h"

#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/undo_manager.h"

namespace corvane {

PersistentDocument::PersistentDocument(std::shared_ptr<ObjectModel> model) : model_(std::move(model)) {}

PersistentDocument::~PersistentDocument() = default;

void PersistentDocument::setManagedObjectContext(std::shared_ptr<ManagedObjectContext> context,
                                                 std::shared_ptr<PersistentStoreCoordinator> coordinator) {
  context_ = std::move(context);
  coordinator_ = std::move(coordinator);
  if (context_) {
    context_->setPersistentStoreCoordinator(coordinator_);
    if (undo_) context_->setUndoManager(undo_);
  }
}

void PersistentDocument::setUndoManager(std::shared_ptr<UndoManager> undoManager) {
  undo_ = std::move(undoManager);
  if (context_) context_->setUndoManager(undo_);
}

void PersistentDocument::updateChangeCount(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::Done:
    case ChangeKind::Redone:
      ++changeCount_;
      break;
    case ChangeKind::Undone:
      --changeCount_;
      break;
    case ChangeKind::Cleared:
      changeCount_ = 0;
      break;
  }
}

bool PersistentDocument::configurePersistentStoreCoordinator(const std::string& url, const std::string& storeType,
                                                             const Value& storeOptions, Error* error) {
  if (!coordinator_) return setError(error, Error(kCocoaErrorDomain, 134000, "The document has no coordinator"));
  return coordinator_->addPersistentStore(storeType, "", url, storeOptions, error) != nullptr;
}

bool PersistentDocument::save(Error* error) {
  if (!context_) return setError(error, Error(kCocoaErrorDomain, 134000, "The document has no context"));
  if (!context_->save(error)) return false;
  updateChangeCount(ChangeKind::Cleared);
  return true;
}

void PersistentDocument::close() { closed_ = true; }

}  // namespace corvane
