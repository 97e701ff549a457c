// corvane::PersistentDocument — one document file bound to an object graph: a file URL, a
// main-queue context over its own coordinator, the change count, saving and closing. What a
// document type adds (its store, its checks on opening) lives in subclasses; CorvaneDocument is
// the one the library ships.
//
// Threads: a document belongs to the thread that drives its main run loop (RunLoop::main()
// unless the subclass says otherwise); call every method there.
#pragma once

#include <memory>
#include <string>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class ManagedObjectContext;
class ObjectModel;
class PersistentStoreCoordinator;
class UndoManager;

class PersistentDocument {
 public:
  enum class ChangeKind { Done, Undone, Redone, Cleared };

  explicit PersistentDocument(std::shared_ptr<ObjectModel> model);
  virtual ~PersistentDocument();
  PersistentDocument(const PersistentDocument&) = delete;
  PersistentDocument& operator=(const PersistentDocument&) = delete;

  const std::shared_ptr<ObjectModel>& managedObjectModel() const { return model_; }
  // The file the document is bound to; empty for an untitled document.
  const std::string& fileURL() const { return fileURL_; }
  virtual void setFileURL(const std::string& url) { fileURL_ = url; }

  // The document's main-queue context and its coordinator (made by setManagedObjectContext()).
  ManagedObjectContext& managedObjectContext() const { return *context_; }
  const std::shared_ptr<ManagedObjectContext>& sharedContext() const { return context_; }
  const std::shared_ptr<PersistentStoreCoordinator>& coordinator() const { return coordinator_; }
  // Installs `context` as the document's context over `coordinator` (its undo manager becomes
  // the document's).
  virtual void setManagedObjectContext(std::shared_ptr<ManagedObjectContext> context,
                                       std::shared_ptr<PersistentStoreCoordinator> coordinator);
  UndoManager* undoManager() const { return undo_.get(); }
  void setUndoManager(std::shared_ptr<UndoManager> undoManager);

  // Edits since the last save: Done adds one, Undone takes one away, Redone adds one, Cleared
  // resets. A document is edited while the count is not zero.
  virtual void updateChangeCount(ChangeKind kind);
  bool isDocumentEdited() const { return changeCount_ != 0; }

  // Adds the store of the file to the coordinator: the step a subclass checks and prepares.
  virtual bool configurePersistentStoreCoordinator(const std::string& url, const std::string& storeType,
                                                   const Value& storeOptions, Error* error);
  // Saves the context into its store; the change count is cleared on success.
  virtual bool save(Error* error);
  virtual void close();
  bool isClosed() const { return closed_; }

 protected:
  bool closed_ = false;

 private:
  std::shared_ptr<ObjectModel> model_;
  std::string fileURL_;
  std::shared_ptr<ManagedObjectContext> context_;
  std::shared_ptr<PersistentStoreCoordinator> coordinator_;
  std::shared_ptr<UndoManager> undo_;
  int changeCount_ = 0;
};

}  // namespace corvane
