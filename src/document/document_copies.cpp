// CorvaneDocument: new packages made from the document. Consolidation rewrites it in place as
// one change; Save As writes a copy as it stands now or as it stood after a chosen change. Both
// write every object into a brand-new package through a store of a coordinator of their own, so
// that the document's context never sees two stores.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "corvane/cache/cache.h"
#include "corvane/document/corvane_document.h"
#include "corvane/document/volume.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/security/document_password.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_diagnostics.h"
#include "corvane/store/store_environment.h"
#include "document/document_internal.h"

namespace corvane {

using document_internal::byteCountText;
using document_internal::documentError;

// ---- A store of its own ---------------------------------------------------------------------------

Value CorvaneDocument::sideStoreOptions() const {
  Value options = Value::mutableDictionary();
  options.set(Value(kCorvaneStoreEnvironmentOption), environmentValue_);
  if (options_.cacheRoot) options.set(Value(kCorvaneCacheRootURLOption), Value(*options_.cacheRoot));
  if (const Value& documentOptions = store_->metadata()["DocumentOptions"]; documentOptions.isDictionary()) {
    options.set(Value(kCorvaneDocumentOptionsOption), documentOptions);
  }
  return options;
}

CorvaneDocument::SideStore CorvaneDocument::addSideStore(const std::string& path, const Value& options,
                                                         Error* error) const {
  SideStore side;
  side.coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(options_.model);
  side.store = dynamic_cast<CorvaneStore*>(
      side.coordinator->addPersistentStore(kCorvaneStoreType, "", path, options.copy(), error));
  if (side.store == nullptr) side.coordinator.reset();
  return side;
}

// ---- Consolidation ---------------------------------------------------------------------------------

std::string CorvaneDocument::backupPathForConsolidation(double secondsSince2001) const {
  const DateFormatter local("yyyy-MM-dd_HH-mm-ss", DateTimeZone::local(env_.get()));
  return fileURL() + "." + local.format(secondsSince2001) + ".backup";
}

void CorvaneDocument::consolidate(std::function<void(bool)> done) {
  CORVANE_DCHECK(mainLoop().isMainThread());
  auto finish = [done = std::move(done)](bool swapped) {
    if (done) done(swapped);
  };
  if (store_ == nullptr) return finish(false);
  Env* env = env_.get();
  std::shared_ptr<Interaction> ui = interaction();
  consolidating_ = true;
  ui->beginProgress("Optimizing File");
  ui->updateProgress(0, "Optimizing File");
  const std::string url = fileURL();
  const uint64_t total = CorvaneTotalSize(env, url);
  const uint64_t free = CorvaneTotaFreeDiskSpace(env, url);
  if (total > free) {
    ui->endProgress();
    ui->runAlert(Alert{"Not enough storage space", fmt::format("{} of free space required", byteCountText(total)), {}});
    return finish(false);  // `consolidating` stays set, as a later consolidation sets it again
  }
  managedObjectContext().processPendingChanges();
  const std::string temporary = url + ".temporary";
  CorvanePackage::prepareNewStoreAtURL(temporary, env, defaults_);

  // The new package gets the document's identity, options and password.
  Value options = sideStoreOptions();
  if (password_) options.set(Value(kCorvanePasswordOption), Value(*password_));
  options.set(Value(kCorvaneDocumentIdentifierOption), Value(store_->documentIdentifier()));
  Error error;
  SideStore side = addSideStore(temporary, options, &error);
  if (side.store == nullptr) {
    logLine("Failed to create " + temporary + ": " + error.localizedDescription, LogLevel::Error);
    ui->endProgress();
    consolidating_ = false;
    return finish(false);
  }
  std::weak_ptr<bool> alive = alive_;
  CorvaneStore* target = side.store;
  target->writeAllObjectsInContext(
      managedObjectContextForSaveDocumentAs(), store_, Value(),
      [ui](double fraction) { ui->updateProgress(fraction, "Optimizing File"); },
      [this, alive, ui, side, target, temporary, url, finish](bool written) {
        if (alive.expired()) return;
        if (written) didSaveStore(store_, target);
        Env* files = env_.get();
        // The writing store's cache was for the temporary package only.
        const std::string targetCache = target->cache()->URL();
        target->close();
        if (!targetCache.empty() && files->fileExists(targetCache)) (void)files->removeItem(targetCache, nullptr);
        if (!written) {
          // The store logged why; the document stays as it was, and the incomplete package goes.
          (void)files->removeItem(temporary, nullptr);
          ui->endProgress();
          consolidating_ = false;
          return finish(false);
        }
        const std::string backup = backupPathForConsolidation(files->now());
        // The old package keeps its place until the new one is complete; then the two swap
        // names, the old one becoming the backup.
        Error failure;
        bool swapped = files->moveItem(url, backup, &failure);
        if (swapped && !files->moveItem(temporary, url, &failure)) {
          Error undo;
          if (!files->moveItem(backup, url, &undo)) logLine("Failed to restore " + url + ": " + undo.description());
          swapped = false;
        }
        if (!swapped) {
          logLine("Failed to replace content: " + failure.description(), LogLevel::Error);
        } else {
          knownBackups_.push_back(pathLastComponent(backup));  // this device's own
          lastConsolidationBackup_ = backup;
          Error removal;
          if (files->fileExists(temporary) && !files->removeItem(temporary, &removal)) {
            logLine("Failed to delete aURL: " + removal.description(), LogLevel::Warning);
          }
          // The store now finds one change in its folder instead of its history: it starts its
          // cache afresh and applies it. Objects keep their UIDs, so the context's objects stay.
          store_->unobserveDirectory();
          store_->reloadPackageInfo();
          store_->cache()->reset();
          store_->observeDirectory();
          const size_t before = store_->finishedPasses();
          store_->updateChanges();
          mainLoop().runUntil([this, before] { return store_->finishedPasses() > before; }, options_.openTimeout);
        }
        ui->endProgress();
        consolidating_ = false;
        finish(swapped);
      });
}

std::vector<std::string> CorvaneDocument::backupsBeside() const {
  std::vector<std::string> names, backups;
  if (fileURL().empty() || !env_->listDirectory(pathDeletingLastComponent(fileURL()), true, &names, nullptr)) {
    return backups;
  }
  const std::string prefix = pathLastComponent(fileURL()) + ".";
  for (const std::string& name : names) {
    if (name.starts_with(prefix) && pathExtension(name) == "backup") backups.push_back(name);
  }
  return backups;
}

bool CorvaneDocument::checkConsolidatedElsewhere() {
  CORVANE_DCHECK(mainLoop().isMainThread());
  if (consolidating_ || closed_ || store_ == nullptr) return false;
  const std::string folder = pathDeletingLastComponent(fileURL());
  for (const std::string& name : backupsBeside()) {
    if (std::find(knownBackups_.begin(), knownBackups_.end(), name) != knownBackups_.end()) continue;
    if (CorvanePackage::documentIdentifierForURL(pathJoin(folder, name), env_.get()) != documentIdentifier_) continue;
    close();
    Alert alert{"Optimize File",
                "This file was optimized on another device and has been closed. Reopen it once syncing has finished.",
                {}};
    alert.style = AlertStyle::Critical;
    interaction()->runAlert(alert);
    return true;
  }
  return false;
}

// ---- Consolidation offer ---------------------------------------------------------------------------

bool CorvaneDocument::shouldOfferOptimizeFile() const {
  if (store_ == nullptr || store_->errorLevel() == "CorvaneLogTypeError") return false;
  return store_->cache()->changes().count() > 5000;
}

std::string CorvaneDocument::optimizeFileConfirmationText() const {
  std::string text = "Optimizing consolidates all changes in this file.";
  if (store_ == nullptr || !serviceType() || !StoreDiagnostics(*store_).hasRecentChangesFromOtherDevices()) return text;
  return fmt::format("{}\n\n{}", text,
                     "This file is also used on other devices. Only optimize while no one else is working on it. "
                     "Syncing the optimized file to all devices will take a while.");
}

// ---- Save As ---------------------------------------------------------------------------------------

std::string CorvaneDocument::proposedSaveAsName() const {
  if (fileURL().empty()) return "Untitled";
  const DateFormatter day("yyyy-MM-dd", DateTimeZone::local(env_.get()));
  return fmt::format("{} {}", pathDeletingExtension(pathLastComponent(fileURL())), day.format(env_->now()));
}

void CorvaneDocument::saveDocumentAs(std::function<void(const CopyResult&)> done) {
  saveDocumentAsUpToChange({}, std::move(done));
}

void CorvaneDocument::saveDocumentUpToChange(const std::string& changeName,
                                             std::function<void(const CopyResult&)> done) {
  saveDocumentAsUpToChange(changeName, std::move(done));
}

void CorvaneDocument::saveDocumentAsUpToChange(const std::string& changeName,
                                               std::function<void(const CopyResult&)> done) {
  managedObjectContext().processPendingChanges();
  SavePanel panel;
  panel.title = changeName.empty() ? "Save As" : "Save a Copy up to the Change";
  panel.directory = fileURL().empty() ? env_->homeDirectory() : pathDeletingLastComponent(fileURL());
  panel.proposedName = proposedSaveAsName();
  panel.fileExtension = fileURL().empty() ? std::string() : pathExtension(fileURL());
  std::optional<SavePanelAnswer> answer = interaction()->runSavePanel(panel);
  if (!answer) {
    if (done) done(CopyResult{false, {}, {}});
    return;  // cancelled: nothing happens
  }
  updateChangeCount(ChangeKind::Undone);
  CopyRequest request;
  request.path = answer->path;
  request.password = answer->password;
  request.savePasswordInKeychain = answer->saveInKeychain;
  request.upToChange = changeName;
  std::weak_ptr<bool> alive = alive_;
  writeCopy(request, [this, alive, open = !changeName.empty(), done = std::move(done)](const CopyResult& result) {
    // A copy up to a change is opened, so that the person sees the restored state at once; a
    // copy as the document stands now is not.
    if (!alive.expired() && result.written && open) openSavedCopy(result.path);
    if (done) done(result);
  });
}

void CorvaneDocument::openSavedCopy(const std::string& path) { interaction()->openFile(path); }

std::shared_ptr<ManagedObjectContext> CorvaneDocument::managedObjectContextForSaveDocumentAs() {
  return sharedContext();
}

// One copy on its way: the new package's store and, for a copy up to a change, the view of the
// document that stops at that change (its own coordinator, context and a scratch cache, so that
// it never touches the document's cache).
struct CorvaneDocument::CopyJob {
  CopyRequest request;
  std::function<void(const CopyResult&)> done;
  std::shared_ptr<Interaction> ui;
  SideStore target;
  SideStore source;
  std::shared_ptr<ManagedObjectContext> sourceContext;
  std::string scratchCache;
  NotificationCenter::Observer ready;
};

void CorvaneDocument::writeCopy(const CopyRequest& given, std::function<void(const CopyResult&)> done) {
  CopyRequest request = given;
  if (!request.path.empty()) request.path = absolutePath(request.path);
  auto refuse = [&](Error error) {
    if (done) done(CopyResult{false, request.path, std::move(error)});
  };
  if (store_ == nullptr || closed_) return refuse(documentError("The document is not open"));
  Env* env = env_.get();
  if (request.path.empty() || env->fileExists(request.path)) {
    return refuse(documentError(request.path + " already exists", "Choose a name that is not taken."));
  }
  if (!request.upToChange.empty() &&
      (!isPlainFileName(request.upToChange) || !env->fileExists(pathJoin(store_->changesURL(), request.upToChange)))) {
    return refuse(documentError(fmt::format("There is no change “{}” in {}", request.upToChange, fileURL())));
  }
  managedObjectContext().processPendingChanges();
  auto job = std::make_shared<CopyJob>();
  copies_.push_back(job);  // until finishCopy()
  job->request = request;
  job->done = std::move(done);
  job->ui = interaction();
  job->ui->beginProgress("Saving a Copy");
  job->ui->updateProgress(0, "Saving a Copy");

  CorvanePackage::prepareNewStoreAtURL(request.path, env, defaults_);
  // A copy is a document of its own: a new identifier, this one's options, and a password only
  // when one is asked for, whatever this document has.
  Value options = sideStoreOptions();
  if (request.password) options.set(Value(kCorvanePasswordOption), Value(*request.password));
  Error error;
  job->target = addSideStore(request.path, options, &error);
  if (job->target.store == nullptr) return finishCopy(job, false, std::move(error));
  if (request.password && request.savePasswordInKeychain) {
    keepPasswordInKeychain(job->target.store->documentIdentifier(), request.path, *request.password);
  }
  if (request.upToChange.empty()) {
    return writeCopyObjects(job, managedObjectContextForSaveDocumentAs(), store_);
  }

  // The view up to the change replays the package's history as far as that change.
  Value view = sideStoreOptions();
  if (password_) view.set(Value(kCorvanePasswordOption), Value(*password_));
  job->scratchCache = pathJoin(env->temporaryDirectory(), "corvane-copy-" + env->newUUIDString());
  view.set(Value(kCorvaneCacheRootURLOption), Value(job->scratchCache));
  Value upTo = Value::mutableDictionary();
  upTo.set(Value("name"), Value(request.upToChange));
  view.set(Value(kCorvaneUpToChangeOption), upTo);
  job->source = addSideStore(fileURL(), view, &error);
  if (job->source.store == nullptr) return finishCopy(job, false, std::move(error));
  job->sourceContext = CorvaneManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  job->sourceContext->setPersistentStoreCoordinator(job->source.coordinator);
  std::weak_ptr<bool> alive = alive_;
  // Its first update pass ends on the main run loop with "CorvaneReady".
  auto replayed = [this, alive, weak = std::weak_ptr<CopyJob>(job)] {
    std::shared_ptr<CopyJob> copy = weak.lock();
    if (alive.expired() || !copy || !copy->ready.isActive() || copy->source.store->finishedPasses() == 0) return;
    copy->ready.remove();
    if (copy->source.store->lastCachedChange()["name"].str() != copy->request.upToChange) {
      return finishCopy(copy, false,
                        documentError(fmt::format("The changes up to “{}” have not all arrived on this device yet",
                                                  copy->request.upToChange),
                                      "Try again once syncing has finished."));
    }
    writeCopyObjects(copy, copy->sourceContext, copy->source.store);
  };
  job->ready = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                               [replayed](const Notification&) { replayed(); });
  replayed();
}

void CorvaneDocument::writeCopyObjects(const std::shared_ptr<CopyJob>& job,
                                       const std::shared_ptr<ManagedObjectContext>& context, CorvaneStore* from) {
  std::weak_ptr<bool> alive = alive_;
  job->target.store->writeAllObjectsInContext(
      context, from, Value(), [ui = job->ui](double fraction) { ui->updateProgress(fraction, "Saving a Copy"); },
      [this, alive, job](bool written) {
        if (alive.expired()) return;
        if (!written) {
          return finishCopy(job, false, documentError("The copy could not be written (see the document's log)"));
        }
        // The copy carries its cache, so that opening it anywhere starts from there.
        job->target.store->cache()->saveInBundle();
        finishCopy(job, true, {});
      });
}

void CorvaneDocument::finishCopy(const std::shared_ptr<CopyJob>& job, bool written, Error error) {
  Env* env = env_.get();
  job->ready.remove();
  if (job->target.store != nullptr) {
    if (written) didSaveStore(store_, job->target.store);
    const std::string targetCache = job->target.store->cache()->URL();
    job->target.store->close();
    job->target = {};
    if (!written) {
      // Nothing of a copy that failed is worth keeping, not even its cache.
      if (!targetCache.empty()) (void)env->removeItem(targetCache, nullptr);
      (void)env->removeItem(job->request.path, nullptr);
    }
  }
  if (job->source.store != nullptr) job->source.store->close();
  job->sourceContext.reset();
  job->source = {};
  if (!job->scratchCache.empty()) (void)env->removeItem(job->scratchCache, nullptr);
  job->ui->endProgress();
  if (!written) logLine("Saving a copy failed: " + error.description(), LogLevel::Error);
  std::erase(copies_, job);
  if (job->done) job->done(CopyResult{written, job->request.path, std::move(error)});
}

}  // namespace corvane
