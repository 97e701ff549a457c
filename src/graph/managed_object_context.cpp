// A context's life cycle, queue, set-up and undo. Its other jobs have files of their own
// (context_registry, context_faults, context_changes, context_saving, context_fetching).
#include "corvane/graph/managed_object_context.h"

#include <future>

#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/undo_manager.h"
#include "graph/context_impl.h"

namespace corvane {

// ---- Life cycle ------------------------------------------------------------------------------

ManagedObjectContext::Impl::Impl(ManagedObjectContext& context, ConcurrencyType concurrencyType)
    : self(context), type(concurrencyType), alive(std::make_shared<bool>(true)) {}

std::shared_ptr<ManagedObjectContext> ManagedObjectContext::create(ConcurrencyType type) {
  return std::make_shared<ManagedObjectContext>(type);
}

ManagedObjectContext::ManagedObjectContext(ConcurrencyType type) : impl_(std::make_unique<Impl>(*this, type)) {
  if (type == ConcurrencyType::PrivateQueue) {
    impl_->queue = std::make_unique<SerialQueue>("corvane.ManagedObjectContext");
  } else {
    setUndoManager(std::make_shared<UndoManager>());
  }
}

ManagedObjectContext::~ManagedObjectContext() {
  *impl_->alive = false;
  impl_->undoObserver.remove();
  if (impl_->undoManager) impl_->undoManager->removeAllActionsWithTarget(this);
  impl_->registry.forgetObjects();
}

// ---- Queue -----------------------------------------------------------------------------------

ConcurrencyType ManagedObjectContext::concurrencyType() const { return impl_->type; }

bool ManagedObjectContext::isOnQueue() const {
  if (impl_->type == ConcurrencyType::MainQueue) return RunLoop::main().isMainThread();
  return impl_->queue->isCurrent();
}

namespace {
void runBlock(ManagedObjectContext& context, const std::function<void()>& block) {
  block();
  context.processPendingChanges();
}
}  // namespace

void ManagedObjectContext::perform(std::function<void()> block) {
  auto self = shared_from_this();
  auto task = [self, block = std::move(block)] {
    // Nobody waits for this block, so an exception has nowhere to go but the log.
    try {
      runBlock(*self, block);
    } catch (const std::exception& e) {
      logLine(std::string("Exception in a context's perform block: ") + e.what(), LogLevel::Error);
    }
  };
  if (impl_->type == ConcurrencyType::MainQueue) {
    RunLoop::main().post(std::move(task));
  } else {
    impl_->queue->async(std::move(task));
  }
}

void ManagedObjectContext::performAndWait(const std::function<void()>& block) {
  if (isOnQueue()) {
    block();
    return;
  }
  if (impl_->type == ConcurrencyType::PrivateQueue) {
    impl_->queue->sync([&] { runBlock(*this, block); });
    return;
  }
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  RunLoop::main().post([&] {
    try {
      runBlock(*this, block);
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

void ManagedObjectContext::Impl::scheduleEndOfEvent() {
  if (type != ConcurrencyType::MainQueue || endOfEventScheduled) return;
  RunLoop& loop = RunLoop::main();
  if (!loop.isMainThread()) return;
  endOfEventScheduled = true;
  std::weak_ptr<bool> token = alive;
  loop.post([token, this] {
    auto live = token.lock();
    if (!live || !*live) return;
    endOfEventScheduled = false;
    self.processPendingChanges();
  });
}

// ---- Set-up ----------------------------------------------------------------------------------

void ManagedObjectContext::setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator) {
  if (coordinator && impl_->parent) {
    throw Exception("NSInvalidArgumentException", "A context has either a coordinator or a parent context");
  }
  impl_->coordinator = std::move(coordinator);
}

std::shared_ptr<PersistentStoreCoordinator> ManagedObjectContext::persistentStoreCoordinator() const {
  if (impl_->coordinator) return impl_->coordinator;
  return impl_->parent ? impl_->parent->persistentStoreCoordinator() : nullptr;
}

void ManagedObjectContext::setParentContext(std::shared_ptr<ManagedObjectContext> parent) {
  if (parent && impl_->coordinator) {
    throw Exception("NSInvalidArgumentException", "A context has either a coordinator or a parent context");
  }
  for (auto* p = parent.get(); p != nullptr; p = p->impl_->parent.get()) {
    if (p == this) throw Exception("NSInvalidArgumentException", "A context can't be its own ancestor");
  }
  impl_->parent = std::move(parent);
}

const std::shared_ptr<ManagedObjectContext>& ManagedObjectContext::parentContext() const { return impl_->parent; }

const ObjectModel* ManagedObjectContext::model() const {
  auto coordinator = persistentStoreCoordinator();
  return coordinator ? coordinator->managedObjectModel().get() : nullptr;
}

const EntityDescription* ManagedObjectContext::entity(std::string_view name) const {
  const ObjectModel* m = model();
  return m == nullptr ? nullptr : m->entity(name);
}

const std::string& ManagedObjectContext::name() const { return impl_->name; }

void ManagedObjectContext::setName(std::string name) { impl_->name = std::move(name); }

bool ManagedObjectContext::retainsRegisteredObjects() const { return impl_->retainsRegisteredObjects; }

void ManagedObjectContext::setRetainsRegisteredObjects(bool retains) { impl_->retainsRegisteredObjects = retains; }

// ---- Undo ------------------------------------------------------------------------------------

UndoManager* ManagedObjectContext::undoManager() const { return impl_->undoManager.get(); }

void ManagedObjectContext::setUndoManager(std::shared_ptr<UndoManager> undoManager) {
  impl_->undoObserver.remove();
  impl_->undoManager = std::move(undoManager);
  if (impl_->undoManager) {
    // Changes are turned into undo actions (delete rules above all) before a group closes.
    impl_->undoObserver = NotificationCenter::defaultCenter().addObserver(
        kUndoManagerCheckpointNotification, impl_->undoManager.get(), [this](const Notification&) {
          if (isOnQueue()) processPendingChanges();
        });
  }
}

void ManagedObjectContext::Impl::registerUndo(const void* target, std::function<void()> action) {
  if (suppressUndo || !undoManager) return;
  undoManager->registerUndo(target, std::move(action));
}

std::function<void()> ManagedObjectContext::Impl::guarded(std::function<void()> action) {
  std::weak_ptr<bool> token = alive;
  return [token, action = std::move(action)] {
    auto live = token.lock();
    if (live && *live) action();
  };
}

void ManagedObjectContext::undo() {
  processPendingChanges();
  if (impl_->undoManager) impl_->undoManager->undo();
  processPendingChanges();
}

void ManagedObjectContext::redo() {
  processPendingChanges();
  if (impl_->undoManager) impl_->undoManager->redo();
  processPendingChanges();
}

}  // namespace corvane
