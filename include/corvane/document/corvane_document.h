// corvane::CorvaneDocument — a host application's one entry point to a Corvane document.
//
//   corvane::DocumentOptions options;
//   options.model = model;                                   // the only field a host must set
//   options.application = {"com.example.Notes", "Notes", "12", "1.2"};
//   corvane::Error error;
//   auto doc = corvane::CorvaneDocument::open("/path/Notes.corvane", options, &error);
//   if (!doc) { ... error.localizedDescription ... }          // ready when it returns
//   auto note = doc->context().insertNewObject("Note");
//   if (!doc->save(&error)) { ... }                           // durable, or the reason it is not
//   auto watch = doc->onExternalChanges([](const corvane::ExternalChanges& c) { ... });
//   doc->close();                                             // also done by the destructor
//
// Opening runs the checks of a document in their order (a backup copy is refused, the package
// is pinned on disk, network volumes are refused, iCloud Drive is warned about, online-only
// packages are refused, the password comes from the options, the keychain or the person),
// adds a CorvaneStore with the document's options and waits for its first update pass. A
// package that does not exist yet is created. Everything a document needs from its
// surroundings comes from its DocumentOptions: two documents with different cache roots,
// machine names or interactions can be open in one process, and nothing process-wide has to be
// set up first.
//
// A host that wants more subclasses CorvaneDocument, overrides the hooks (virtual methods
// below) and opens with CorvaneDocument::open<MyDocument>(...).
//
// Threads: a document belongs to the thread that drives its main run loop (DocumentOptions::
// mainLoop, RunLoop::main() by default): open, call every method and destroy it there. Its
// callbacks (hooks, subscriptions) run there too. Long waits (open, save, close) drive that run
// loop while they wait.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/observable.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/persistent_document.h"

namespace corvane {

class CorvaneStore;
class KeychainBackend;
class ManagedObjectContext;
class ObjectModel;
class PersistentStoreCoordinator;
class RunLoop;
class StoreEnvironment;
class UserDefaults;

// The user-defaults key that, when true, makes a document take its password from the keychain
// instead of asking: "Corvane.DontShowPasswordPromptAgain.<document identifier>".
std::string dontShowPasswordPromptAgainKey(const std::string& documentIdentifier);

// Everything a host sets, with its default.
struct DocumentOptions {
  // The entities of the document. Required.
  std::shared_ptr<ObjectModel> model;
  // Who the host is (identifier, name, versions, document types): written into new packages and
  // every change. Default: ApplicationInfo::current(), which is empty until set.
  std::optional<ApplicationInfo> application;
  // Where this device keeps its cache of the document. Default: the user's data folder.
  std::optional<std::string> cacheRoot;
  // The password of an encrypted package, tried before the keychain and the prompt.
  std::optional<std::string> password;
  // The keychain that keeps documents' passwords (asked only for a document whose "do not ask
  // again" setting is on, and offered in the password prompt). Default: defaultKeychain(), the
  // Secret Service or the user's keychain file.
  std::shared_ptr<KeychainBackend> keychain;
  // Leave the keychain out altogether (a tool run in scripts, tests).
  bool useKeychain = true;
  // Alerts, password prompts, progress. Default: defaultInteraction() (headless: logs, answers
  // with the default button, cancels password prompts).
  std::shared_ptr<Interaction> interaction;
  // The machine name written into this device's changes. Default: the Env's.
  std::optional<std::string> machineName;
  // The user defaults (recent files, warnings shown, "do not ask again"). Default: the
  // application's own file under the configuration folder.
  std::shared_ptr<UserDefaults> defaults;
  // The operating-system seam. Default: Env::defaultEnv(). Not owned; must outlive the document.
  Env* env = nullptr;
  // The run loop that is this document's main thread. Default: RunLoop::main(). Not owned.
  RunLoop* mainLoop = nullptr;
  // Recovery mode: the update passes go on past damaged or missing change files.
  bool recover = false;
  // Passed through into a new package's Info.plist ("DocumentOptions", "DocumentInfo").
  Value documentOptions;
  Value documentInfo;
  // The identifier of a package this open creates. Default: a new UUID. An existing package
  // keeps its own.
  std::optional<std::string> documentIdentifier;
  // Longest wait for the first update pass when opening, in seconds (it goes on afterwards).
  double openTimeout = 600;
  // Key-derivation rounds of a new encrypted package (tests use small numbers). 0: the default.
  int64_t encryptionRounds = 0;
};

// A copy of a document in a new package (Save As).
struct CopyRequest {
  // The new package; it must not exist yet.
  std::string path;
  // The copy's password. nullopt makes an unencrypted copy, whatever the document is.
  std::optional<std::string> password;
  // Keep that password in the keychain, and take it from there when the copy is opened.
  bool savePasswordInKeychain = false;
  // A change of the document's history, by its file name ("<date>_<session>.json" as the change
  // log and `corvane changes` show it): the copy holds the objects as they stood right after it.
  // Empty: as they stand now.
  std::string upToChange;
};

struct CopyResult {
  bool written = false;  // every file of the copy is on disk
  std::string path;      // the new package ("" when the person cancelled the panel)
  Error error;           // why not, when not written
};

// What another device changed, as the document's context now shows it.
struct ExternalChanges {
  std::vector<Retained<ManagedObject>> inserted, updated, deleted;
};

class CorvaneDocument : public PersistentDocument {
 public:
  // Opens (or creates) the package at `path` as a `Document` (CorvaneDocument or a subclass
  // constructible from the options), ready when it returns: the first update pass is over.
  // nullptr with the reason in `error`; a cancelled password prompt gives nullptr and an empty
  // error.
  template <class Document = CorvaneDocument>
  static std::unique_ptr<Document> open(const std::string& path, const DocumentOptions& options, Error* error) {
    auto document = std::make_unique<Document>(options);
    if (!document->openAt(path, error)) return nullptr;
    return document;
  }

  explicit CorvaneDocument(DocumentOptions options);
  ~CorvaneDocument() override;

  // ---- The usual path ------------------------------------------------------------------------
  ManagedObjectContext& context() const { return managedObjectContext(); }
  // Saves the context; returns once every file of the save is on disk, or false with the reason
  // (the context then keeps its changes). Only while ready.
  bool save(Error* error) override;
  // Called on the main run loop with what each update pass brought from other devices, until
  // the returned subscription goes away.
  [[nodiscard]] Subscription onExternalChanges(std::function<void(const ExternalChanges&)> callback);
  // Saves everything, marks the document and its store closed and stops watching the package.
  // The context stays usable for reading what it holds; store() answers nullptr from then on.
  void close() override;

  // ---- Properties ----------------------------------------------------------------------------
  const std::optional<std::string>& password() const { return password_; }
  const std::string& documentIdentifier() const { return documentIdentifier_; }
  const std::string& deviceIdentifier() const { return deviceIdentifier_; }
  int64_t itemsToLoad() const { return itemsToLoad_; }
  int64_t maxItemsToLoad() const { return maxItemsToLoad_; }
  bool isBusy() const { return busy_; }
  bool isReady() const { return ready_; }
  bool isMerging() const { return merging_; }
  bool isConsolidating() const { return consolidating_; }
  bool isShowingDiskSpaceWarning() const { return showingDiskSpaceWarning_; }
  const std::string& errorLevel() const { return errorLevel_; }
  bool hasError() const;
  // The document's store, or nullptr before opening.
  CorvaneStore* store() const { return store_; }
  const DocumentOptions& options() const { return options_; }
  Env* env() const { return env_.get(); }

  // Fixed answers: the package never enters a platform's autosave, versions or conflict panels.
  static constexpr bool autosavesInPlace() { return false; }
  static constexpr bool preservesVersions() { return false; }

  // ---- What the document does ---------------------------------------------------------------
  void setItemsToLoad(int64_t count);
  void setErrorLevel(const std::string& level);
  void setReady(bool ready);
  // Saves the cache, then the context; only while ready.
  bool saveDocument(Error* error);
  // A saved document never shows as edited; an untitled one counts its changes.
  void updateChangeCount(ChangeKind kind) override;
  // When ready and the context has changes: saves it, then waits for the store's and the cache's
  // writes.
  void saveAll();
  // Saves all when the document has a file; answers whether it may close.
  bool canClose();
  // The host calls this when the application is about to quit.
  void applicationWillTerminate();
  // Warns when the package's volume has less than 100,000,000 bytes free; "Quit" asks the host
  // (through the Interaction) to terminate.
  void checkDiskSpace();
  // Whether a default network route exists.
  bool isInternetAvailable() const;
  // nullopt, "kCorvaneServiceNoInternet" or "kCorvaneServiceNotRunning" (Dropbox's client).
  std::optional<std::string> checkServiceIsRunning() const;
  std::optional<std::string> checkServiceDropboxIsRunning() const;
  std::optional<std::string> serviceType() const;
  // Refills the cache of every concrete entity from the store behind a progress sheet, on the
  // serial queue "REBUILDCACHE"; `done` runs on the main run loop at the end.
  void rebuildCache(std::function<void()> done = {});
  // Asks the store to reset its cache; a second later closes the document and removes the
  // cache, so that opening the package again rebuilds it.
  void resetCache();
  void checkAllFiles();

  // Consolidation ("Optimize File"): rewrites the document as a new package holding every object
  // once, in one change, with the same identifier, "DocumentOptions" and password, and swaps it
  // in, keeping the old package beside it as "<file>.<yyyy-MM-dd_HH-mm-ss>.backup" (local time).
  // Returns at once; the copy runs on the store's queue with progress through the Interaction,
  // and `done` is called on the main run loop with whether the swap happened. When the package
  // is larger than the free space nothing is touched, an alert says so, and `consolidating`
  // stays set (the next consolidation sets it again).
  void consolidate(std::function<void(bool swapped)> done = {});
  // Whether another device consolidated this document: a "<file>.<date>.backup" beside the
  // package with the document's identifier, that was not there when the document opened (a
  // sync client carries a consolidation as a renamed folder, or as vanished files and a new
  // folder; either way the backup appears). Then the document closes and says so. Checked
  // while the document is open; a host may call it too. Main run loop.
  bool checkConsolidatedElsewhere();
  // The backup name of the package at `path` made at `secondsSince2001` (local time).
  std::string backupPathForConsolidation(double secondsSince2001) const;
  // Where the last consolidation of this document put the old package ("" before one).
  const std::string& lastConsolidationBackup() const { return lastConsolidationBackup_; }

  // What an information window offers before consolidating: "Optimize File" only while the cache
  // holds more than 5000 changes and the error level is not an error.
  bool shouldOfferOptimizeFile() const;
  // The confirmation's text: the plain sentence, or, when the package is on a sync service and
  // other devices changed it lately, that sentence and the warning to optimize only while no
  // one else works on it.
  std::string optimizeFileConfirmationText() const;

  // ---- Copies ------------------------------------------------------------------------------------
  // Writes every object into a new package, as the document stands now or as it stood after
  // request.upToChange (replayed from the package's own history, without touching the document,
  // its package or its cache). The copy is a document of its own: a new identifier, this one's
  // "DocumentOptions", the password of the request. Returns at once; progress goes through the
  // Interaction and `done` is called on the main run loop. A copy that fails leaves nothing.
  void writeCopy(const CopyRequest& request, std::function<void(const CopyResult&)> done);
  // "Save As…": asks for the place and the password through the Interaction's save panel
  // (proposing proposedSaveAsName() in the document's folder), then writeCopy(). The document
  // stays open on its own package and the copy is not opened. Cancelling does nothing.
  void saveDocumentAs(std::function<void(const CopyResult&)> done = {});
  // The same up to a change of the history; the copy is then opened (openSavedCopy()), so that
  // the person sees the restored state at once.
  void saveDocumentUpToChange(const std::string& changeName, std::function<void(const CopyResult&)> done = {});
  // "<name without extension> <yyyy-MM-dd>" (today, local time), or "Untitled" without a file.
  std::string proposedSaveAsName() const;

  // ---- Recent deletes (recent_deletes.h) -----------------------------------------------------
  // Who deleted the last objects of `entityName` and its sub-entities, when and on which device,
  // labelled by formatDeletedObjectInfo(); or the message saying why there is no report.
  std::string recentDeletesReportForEntityName(const std::string& entityName);
  // Writes that report into the desktop folder (saveRecentDeletesReport()); its path, or nullopt
  // with the reason in `error`.
  std::optional<std::string> saveRecentDeletesReportForEntityName(const std::string& entityName, Error* error);
  // Logs the report, saves it, logs where (or why not) and opens the file through the
  // Interaction. The file's path, or nullopt when it could not be written.
  std::optional<std::string> logRecentDeletesForEntityName(const std::string& entityName);

  // The package moved (renamed, or moved by the host): the store follows it.
  void setFileURL(const std::string& url) override;
  // The first extension the host's document types declare for `className` (their
  // "NSDocumentClass"), or nullopt.
  static std::optional<std::string> fileType(const ApplicationInfo& application, const std::string& className);
  static bool isCorrectFormat(const std::string& path, Env* env = Env::defaultEnv());

  // The machine's stable identifier as an upper-case UUID (from /etc/machine-id, else the DMI
  // product UUID), or "" when none can be read.
  static std::string getSystemUUID(Env* env);
  // The rule of packages synchronised by iCloud Drive (the user's Library "Mobile Documents",
  // and Desktop and Documents when the Finder's settings put them there).
  static bool URLisOnICloudDrive(const std::string& path, Env* env, const UserDefaults* finderDefaults = nullptr);

 protected:
  // ---- Hooks for a host's subclass (main run loop) -------------------------------------------
  virtual void didMergeExternalChanges(const ExternalChanges& changes);
  virtual void documentDidBecomeReady();
  virtual void documentDidResignReady();
  // Called after the store is added; false fails the open.
  virtual bool preflightData(ManagedObjectContext& context);
  virtual void didSaveStore(CorvaneStore* oldStore, CorvaneStore* newStore);
  virtual void didSaveDocument();
  // Lets the subclass adjust the password prompt before it is shown.
  virtual void preparePasswordPrompt(PasswordPrompt& prompt);
  virtual std::optional<std::string> proposedFileName();
  // The label of one deleted object in the recent-deletes report, instead of its UID; nullopt
  // shows the UID. `info` is the deletion's {"entityName", "date", "user"}, `changeEvents` the
  // object's history (see fieldValueInChangeEvents() in recent_deletes.h to read values from it).
  virtual std::optional<std::string> formatDeletedObjectInfo(const Value& info, const std::string& objectUID,
                                                             const Value& changeEvents);
  // The document's context; a subclass may return a context of its own class (main queue).
  virtual std::shared_ptr<ManagedObjectContext> makeContext();
  // The context whose objects Save As and consolidation copy. Default: the document's.
  virtual std::shared_ptr<ManagedObjectContext> managedObjectContextForSaveDocumentAs();
  // Opens a copy saved up to a change. Default: the Interaction's openFile(path).
  virtual void openSavedCopy(const std::string& path);
  // Notes a document opened (the desktop's recent documents). Default: nothing.
  virtual void noteRecentDocument(const std::string& path);

  // Opening: the checks and adding the store, in their order. False ends the open.
  bool configurePersistentStoreCoordinator(const std::string& url, const std::string& storeType,
                                           const Value& storeOptions, Error* error) override;

 private:
  class DocumentEnv;
  bool openAt(const std::string& path, Error* error);
  bool obtainPassword(const std::string& path, bool* cancelled);
  void showICloudWarningIfNeeded(const std::string& path);
  void bindToStore();
  void deliverExternalChanges(const Value& userInfo);
  std::vector<std::string> backupsBeside() const;
  void keepPasswordInKeychain(const std::string& identifier, const std::string& path, const std::string& password);
  // A store on a coordinator of its own, for a package other than the document's own or a view
  // of it; the document's context never sees it.
  struct SideStore {
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    CorvaneStore* store = nullptr;
  };
  Value sideStoreOptions() const;
  SideStore addSideStore(const std::string& path, const Value& options, Error* error) const;
  struct CopyJob;
  void saveDocumentAsUpToChange(const std::string& changeName, std::function<void(const CopyResult&)> done);
  void writeCopyObjects(const std::shared_ptr<CopyJob>& job, const std::shared_ptr<ManagedObjectContext>& context,
                        CorvaneStore* from);
  void finishCopy(const std::shared_ptr<CopyJob>& job, bool written, Error error);
  RunLoop& mainLoop() const;
  std::shared_ptr<Interaction> interaction() const;
  KeychainBackend* keychain() const;

  DocumentOptions options_;
  std::unique_ptr<Env> env_;  // options' Env with the document's machine name
  std::shared_ptr<UserDefaults> defaults_;
  Value environmentValue_;
  StoreEnvironment* environment_ = nullptr;
  CorvaneStore* store_ = nullptr;
  std::optional<std::string> password_;
  std::string documentIdentifier_;
  std::string deviceIdentifier_;
  int64_t itemsToLoad_ = 0;
  int64_t maxItemsToLoad_ = 0;
  bool busy_ = false, ready_ = false, merging_ = false, consolidating_ = false;
  bool showingDiskSpaceWarning_ = false;
  std::string errorLevel_;
  struct Subscribers;
  std::shared_ptr<Subscribers> subscribers_;
  Subscription errorLevelSubscription_;
  RunLoop::Token itemsTimer_;
  std::shared_ptr<std::function<void()>> itemsPoll_;
  std::vector<std::string> knownBackups_;  // backups beside the package not from elsewhere
  std::string lastConsolidationBackup_;
  std::vector<std::shared_ptr<CopyJob>> copies_;  // copies on their way
  std::shared_ptr<bool> alive_;
};

}  // namespace corvane
