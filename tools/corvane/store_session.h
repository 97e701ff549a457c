// Opening a document from the command line the way an application does: through a
// CorvaneDocument, which makes the document's checks (a backup copy is refused, network volumes,
// the password), adds the store with this tool's cache and identity and runs the first update
// pass to its end. Shared by the commands that read and write objects (insert, update, delete,
// dump, rebuild-cache, the multi-device commands) and by create. Nothing process-wide is set up:
// everything the document needs goes into its DocumentOptions.
//
// Threads: main thread only.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "package_password.h"
#include "terminal_interaction.h"

namespace corvane::cli {

struct StoreOptions {
  std::string package;
  std::string model;
  std::string cacheRoot;  // empty: the tool's own cache location
  bool recover = false;
  PasswordOptions password;
};

// Adds --model (when `withModel`), --cache-root, --recover and (when `withPassword`) the
// password options.
void addStoreOptions(CLI::App* command, StoreOptions* options, bool withModel, bool withPassword = true);

// The tool as the library sees it: written into new packages and every change's session, and
// naming its settings and cache folders.
const ApplicationInfo& toolApplication();

// The tool's text form of dates ("2024-05-17T09:41:07.250+0000"), read and written.
const DateFormatter& timestampFormatter();
// "Entity/UID" of an object.
std::string referenceOf(const ManagedObject& object);
// An object's values as JSON-friendly values: "entity", "uid", each attribute that has a value
// (dates and decimals as text, binary data as its length and SHA-256) and each relationship as
// references.
Value dumpObject(const ManagedObject& object);

// The tool's user defaults (<config>/<tool identifier>.plist), one object for the process: the
// documents the tool opens read their "do not ask again" settings from it, and the password
// commands write them there.
std::shared_ptr<UserDefaults> toolDefaults();

// Reads a JSON model file; nullptr and a one-line message naming the file otherwise.
std::shared_ptr<ObjectModel> loadModel(const std::string& path, std::string* error);

class StoreSession {
 public:
  ~StoreSession();
  StoreSession(const StoreSession&) = delete;
  StoreSession& operator=(const StoreSession&) = delete;

  // Opens an existing package (create false) or makes a new one (create true; `identifier` and
  // `password` are then used as given). nullptr and a one-line message when the folder is not a
  // package, the document refuses it, the password is wrong, the model is bad, and the like;
  // nothing is written then.
  static std::unique_ptr<StoreSession> open(const StoreOptions& options, std::string* error);
  static std::unique_ptr<StoreSession> create(const StoreOptions& options, const std::string& identifier,
                                              const std::optional<std::string>& password, std::string* error);

  CorvaneDocument& document() { return *document_; }
  CorvaneStore& store() { return *document_->store(); }
  ManagedObjectContext& context() { return document_->context(); }
  const ObjectModel& model() const { return *model_; }
  // The warnings and errors the opening update pass logged, oldest first, without the entries
  // about changes still waiting for their files (waitingNotices() says those in plain words).
  std::vector<std::string> problems() const;
  // Changes other devices wrote whose object or data files have not arrived yet, as found
  // after the opening pass.
  const std::vector<ChangeWaitingForFiles>& waitingChanges() const { return waiting_; }
  // One sentence per waiting change: which change, from which device, which files are missing,
  // and that a later run applies it.
  std::vector<std::string> waitingNotices() const;
  // Prints problems() as warnings, then the waiting notices, on standard error.
  void reportProblems() const;
  // For an object that is not in the document: why a later run may find it (a waiting change
  // that inserts or updates it, or any waiting change at all); "" when nothing is waiting.
  std::string waitingNoteFor(const std::string& entity, const std::string& uid) const;
  // Saves the context and waits until every file is written; false and a message on failure.
  bool save(std::string* error);
  // Throws away what was not saved, closes the document and its store.
  void close();

 private:
  StoreSession() = default;
  static std::unique_ptr<StoreSession> openDocument(const StoreOptions& options, DocumentOptions documentOptions,
                                                    std::string* error);

  std::shared_ptr<ObjectModel> model_;
  std::shared_ptr<TerminalInteraction> interaction_;
  std::unique_ptr<CorvaneDocument> document_;
  std::vector<ChangeWaitingForFiles> waiting_;
  bool closed_ = false;
};

}  // namespace corvane::cli
