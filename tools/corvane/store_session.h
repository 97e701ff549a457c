// Opening a document from the command line the way an application does: a model, a
// CorvaneStore with the package's password and this tool's cache, a main-queue context, and the
// first update pass run to its end on the main run loop. Shared by the commands that read and
// write objects (insert, update, delete, dump) and by create.
//
// Threads: main thread only.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>

#include "corvane/foundation/date_format.h"
#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "package_password.h"

namespace corvane::cli {

struct StoreOptions {
  std::string package;
  std::string model;
  std::string cacheRoot;  // empty: the tool's own cache location
  bool recover = false;
  PasswordOptions password;
};

// Adds --model (when `withModel`), --cache-root, --recover and the password options.
void addStoreOptions(CLI::App* command, StoreOptions* options, bool withModel);

// Describes the tool to the library (cache and settings locations, the "version" of sessions)
// and hands the store the document layer's volume queries. Call once before opening.
void prepareStoreEnvironment();

// The tool's text form of dates ("2024-05-17T09:41:07.250+0000"), read and written.
const DateFormatter& timestampFormatter();
// "Entity/UID" of an object.
std::string referenceOf(const ManagedObject& object);
// An object's values as JSON-friendly values: "entity", "uid", each attribute that has a value
// (dates and decimals as text, binary data as its length and SHA-256) and each relationship as
// references.
Value dumpObject(const ManagedObject& object);

// Reads a JSON model file; nullptr and a one-line message naming the file otherwise.
std::shared_ptr<ObjectModel> loadModel(const std::string& path, std::string* error);

class StoreSession {
 public:
  ~StoreSession();
  StoreSession(const StoreSession&) = delete;
  StoreSession& operator=(const StoreSession&) = delete;

  // Opens an existing package (create false) or makes a new one (create true; `identifier` and
  // `password` are then used as given). nullptr and a one-line message when the folder is not a
  // package, the password is wrong, the model is bad, and the like; nothing is written then.
  static std::unique_ptr<StoreSession> open(const StoreOptions& options, std::string* error);
  static std::unique_ptr<StoreSession> create(const StoreOptions& options, const std::string& identifier,
                                              const std::optional<std::string>& password, std::string* error);

  CorvaneStore& store() { return *store_; }
  ManagedObjectContext& context() { return *context_; }
  const ObjectModel& model() const { return *model_; }
  // The warnings and errors the opening update pass logged, oldest first.
  std::vector<std::string> problems() const;
  // Saves the context and waits until every file is written; false and a message on failure.
  bool save(std::string* error);
  // Waits for the writes, saves the cache and closes the store.
  void close();

 private:
  StoreSession() = default;
  static std::unique_ptr<StoreSession> openStore(const StoreOptions& options, const Value& extra, std::string* error);

  std::shared_ptr<ObjectModel> model_;
  std::shared_ptr<CorvanePersistentStoreCoordinator> coordinator_;
  CorvaneStore* store_ = nullptr;
  std::shared_ptr<CorvaneManagedObjectContext> context_;
  bool closed_ = false;
};

}  // namespace corvane::cli
