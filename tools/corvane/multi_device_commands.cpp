// The commands for documents edited on several devices: watching a document as other devices'
// changes arrive, checking every file of its history, its log and error records, the history of
// one object, the checksums that two devices compare, the devices that wrote to it, and the
// repairs of a damaged history.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "corvane/cache/cache.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/store_diagnostics.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void onSignal(int) { interrupted = 1; }

std::string levelOf(const std::string& type) {
  if (type == kCorvaneLogTypeError) return "error";
  if (type == kCorvaneLogTypeWarning) return "warning";
  return "info";
}

std::string compactJSON(const Value& value) {
  auto text = valueToJson(value);
  return text ? *text : value.description();
}

void printEntry(const StoreLogEntry& entry) {
  std::printf("%-7s %s\n", levelOf(entry.type).c_str(), entry.message.c_str());
  std::fflush(stdout);
}

std::unique_ptr<StoreSession> openSession(const StoreOptions& options, std::string* error) {
  return StoreSession::open(options, error);
}

// ---- watch --------------------------------------------------------------------------------

struct WatchOptions {
  StoreOptions store;
  double seconds = 0;  // 0: until interrupted
  double poll = 0;     // 0: rely on the store's folder watch
};

// One line per object: what happened, the object, and (unless it is gone) its values now.
void describeObjects(const char* what, const std::vector<Retained<ManagedObject>>& objects, StoreSession& session,
                     bool withValues) {
  for (const Retained<ManagedObject>& object : objects) {
    std::string values;
    if (withValues) {
      Value dumped = dumpObject(*object);
      dumped.remove(Value("entity"));
      dumped.remove(Value("uid"));
      values = " " + valueToJson(dumped, JsonStyle::Compact).value_or("{}");
    }
    std::printf("changed %s %s %s%s\n", what, object->entity().name().c_str(),
                session.store().uidForObjectID(object->objectID(), &session.context()).c_str(), values.c_str());
  }
}

// A one-shot command names the changes still waiting for their files, once, on standard error.
void reportWaiting(const StoreSession& session) {
  for (const std::string& notice : session.waitingNotices()) std::fprintf(stderr, "corvane: %s\n", notice.c_str());
}

int runWatch(const WatchOptions& options) {
  std::string error;
  auto session = openSession(options.store, &error);
  if (!session) return fail(error);
  CorvaneStore& store = session->store();
  for (const std::string& problem : session->problems()) std::printf("opened  %s\n", problem.c_str());
  for (const std::string& notice : session->waitingNotices()) std::printf("opened  %s\n", notice.c_str());
  // The store refreshes (and reports changes to) the contexts that have asked it for objects.
  size_t objects = 0;
  for (const EntityDescription* entity : store.entities()) {
    if (entity->isAbstract()) continue;
    FetchRequest request(entity->name());
    if (auto found = session->context().fetch(request)) objects += found->size();
  }
  std::printf("watching %s (%s), %zu objects\n", options.store.package.c_str(), store.documentIdentifier().c_str(),
              objects);
  std::fflush(stdout);

  Subscription changed = session->document().onExternalChanges([&](const ExternalChanges& changes) {
    describeObjects("insert", changes.inserted, *session, true);
    describeObjects("update", changes.updated, *session, true);
    describeObjects("delete", changes.deleted, *session, false);
    std::fflush(stdout);
  });

  // Log entries are printed oldest first, each once; the passes that find nothing stay quiet.
  std::optional<StoreLogEntry> lastPrinted;
  std::string lastChecksum;
  {
    const std::vector<StoreLogEntry> entries = store.logEntries();
    if (!entries.empty()) lastPrinted = entries.front();
  }
  auto printNewEntries = [&] {
    const std::vector<StoreLogEntry> entries = store.logEntries();
    size_t end = entries.size();
    if (lastPrinted) {
      for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].date == lastPrinted->date && entries[i].message == lastPrinted->message) {
          end = i;
          break;
        }
      }
    }
    for (size_t i = end; i-- > 0;) {
      const std::string& message = entries[i].message;
      if (message == "No new changes to apply" || message.starts_with("File: ")) continue;
      if (message.starts_with("Checksum: ")) {
        if (message == lastChecksum) continue;
        lastChecksum = message;
      }
      printEntry(entries[i]);
    }
    if (!entries.empty()) lastPrinted = entries.front();
  };

  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  store.observeDirectory();
  Env* env = Env::defaultEnv();
  const double start = env->monotonicNow();
  double nextPoll = start;
  // The store's folder watch starts passes when files arrive; polling as well catches files that
  // a watch cannot see (network folders) and works where no watch runs.
  while (interrupted == 0 && (options.seconds <= 0 || env->monotonicNow() - start < options.seconds)) {
    if (options.poll > 0 && env->monotonicNow() >= nextPoll && !store.isUpdating()) {
      store.updateChanges();
      nextPoll = env->monotonicNow() + options.poll;
    }
    RunLoop::main().runFor(0.1);
    // Another device optimized the document: the document has closed (its store with it) and
    // said so through the terminal; there is nothing more to watch.
    if (session->document().isClosed()) {
      std::signal(SIGINT, SIG_DFL);
      std::signal(SIGTERM, SIG_DFL);
      std::printf("stopped: the document was optimized on another device\n");
      return kExitSuccess;
    }
    printNewEntries();
  }
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  RunLoop::main().runUntil([&] { return !store.isUpdating(); }, 30);
  printNewEntries();
  std::printf("stopped\n");
  session->close();
  return kExitSuccess;
}

// ---- verify -------------------------------------------------------------------------------

int runVerify(StoreOptions options) {
  // A cache of its own, empty: the opening pass then checks every change file, its object files
  // and their data with the full checks, and (in recovery mode) goes on past each problem.
  const std::string scratch = Env::defaultEnv()->temporaryDirectory() + "/corvane-verify-" + std::to_string(::getpid());
  options.cacheRoot = scratch;
  options.recover = true;
  std::string error;
  auto session = openSession(options, &error);
  if (!session) {
    std::filesystem::remove_all(scratch);
    return fail(error);
  }
  int problems = 0;
  const std::vector<StoreLogEntry> entries = session->store().logEntries();
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->type == kCorvaneLogTypeSuccess || it->message == "Reset Log" || it->message == "No changes found") continue;
    printEntry(*it);
    ++problems;
  }
  const Value issues = session->store().loadingIssues();
  for (const Value& issue : issues.elements()) {
    std::printf("warning %s: %s\n", issue["type"].str().c_str(), issue["url"].str().c_str());
    ++problems;
  }
  const size_t files = session->store().changesFileCount();
  session->close();
  std::filesystem::remove_all(scratch);
  if (problems > 0) {
    std::printf("%d problem%s in %zu change files\n", problems, problems == 1 ? "" : "s", files);
    return kExitFailure;
  }
  std::printf("%zu change files verified, no problem\n", files);
  return kExitSuccess;
}

// ---- log ----------------------------------------------------------------------------------

int runLog(const StoreOptions& options) {
  std::string error;
  auto session = openSession(options, &error);
  if (!session) return fail(error);
  reportWaiting(*session);
  // The records every device left in <pkg>/Errors (newest first), then this session's own.
  Value records = StoreDiagnostics(session->store()).errorsArray();
  if (records.empty()) records = session->store().errorRecords();
  std::printf("Error records: %zu\n", records.count());
  for (const Value& record : records.elements()) std::printf("  %s\n", compactJSON(record).c_str());
  std::printf("Log (oldest first):\n");
  const std::vector<StoreLogEntry> entries = session->store().logEntries();
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) printEntry(*it);
  session->close();
  return kExitSuccess;
}

// ---- history ------------------------------------------------------------------------------

struct HistoryOptions {
  StoreOptions store;
  std::string entity;
  std::string uid;
};

int runHistory(const HistoryOptions& options) {
  std::string error;
  auto session = openSession(options.store, &error);
  if (!session) return fail(error);
  reportWaiting(*session);
  CorvaneStore& store = session->store();
  const EntityDescription* entity = store.entityForName(options.entity);
  if (entity == nullptr) {
    session->close();
    return fail(options.entity + ": no such entity in the model");
  }
  const std::vector<std::string> files = store.changesFilesFor(*entity, options.uid);
  if (files.empty()) {
    session->close();
    return fail(options.entity + " " + options.uid + ": no applied change touches this object");
  }
  Env* env = Env::defaultEnv();
  for (const std::string& file : files) {
    Bytes bytes;
    if (!env->readFile(file, &bytes, nullptr)) {
      std::printf("%s: unreadable\n", store.shortURL(file).c_str());
      continue;
    }
    if (store.isEncrypted()) {
      auto clear = store.decrypt(bytes);
      if (!clear) {
        std::printf("%s: cannot be decrypted\n", store.shortURL(file).c_str());
        continue;
      }
      bytes = std::move(*clear);
    }
    auto parsed = jsonToValue(asStringView(bytes));
    if (!parsed) {
      std::printf("%s: not JSON\n", store.shortURL(file).c_str());
      continue;
    }
    std::printf("%s %s\n", (*parsed)["type"].str().c_str(), store.shortURL(file).c_str());
    const Value payload = (*parsed)["payload"];
    for (const auto& [key, value] : payload.entries()) {
      std::printf("  %s = %s\n", key.str().c_str(), compactJSON(value).c_str());
    }
  }
  session->close();
  return kExitSuccess;
}

// ---- devices ------------------------------------------------------------------------------

int runDevices(const StoreOptions& options) {
  std::string error;
  auto session = openSession(options, &error);
  if (!session) return fail(error);
  reportWaiting(*session);
  CorvaneStore& store = session->store();
  std::printf("This device: %s (%s)\n", store.machineName().c_str(), store.fullUserName().c_str());
  std::printf("Devices that wrote in the last 14 days:\n");
  const Value devices = StoreDiagnostics(store).recentDeviceActivity();
  for (const Value& device : devices.elements()) {
    std::printf("  %s\n", compactJSON(device).c_str());
  }
  std::printf("Sessions of the newest changes:\n");
  const Value sessions = StoreDiagnostics(store).sessionInfo();
  for (const Value& info : sessions.elements()) std::printf("  %s\n", compactJSON(info).c_str());
  session->close();
  return kExitSuccess;
}

// ---- checksum and fix-conflicts ----------------------------------------------------------

int runChecksum(const StoreOptions& options) {
  std::string error;
  auto session = openSession(options, &error);
  if (!session) return fail(error);
  reportWaiting(*session);
  CorvaneStore& store = session->store();
  std::printf("history %s\n", store.checkSum().c_str());
  const Value checksums = store.contentChecksum();
  for (const auto& [entity, checksum] : checksums.entries()) {
    std::printf("%s %s\n", entity.str().c_str(), checksum.str().c_str());
  }
  session->close();
  return kExitSuccess;
}

int runFixConflicts(const StoreOptions& options) {
  std::string error;
  auto session = openSession(options, &error);
  if (!session) return fail(error);
  CorvaneStore& store = session->store();
  store.fixSyncConflicts();
  store.updateChanges();
  RunLoop::main().runUntil([&] { return !store.isUpdating(); }, 600);
  for (int i = 0; i < 5; ++i) RunLoop::main().runOnce();
  int problems = 0;
  const std::vector<StoreLogEntry> entries = store.logEntries();
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->type == kCorvaneLogTypeSuccess) continue;
    printEntry(*it);
    ++problems;
  }
  std::printf("duplicated folders merged%s\n", problems > 0 ? "; problems remain (see above)" : "");
  session->close();
  return problems > 0 ? kExitFailure : kExitSuccess;
}

// ---- repair -------------------------------------------------------------------------------

struct RepairOptions {
  StoreOptions store;
  std::string action;
  std::string change;
};

int runRepair(const RepairOptions& options) {
  std::string error;
  auto session = openSession(options.store, &error);
  if (!session) return fail(error);
  CorvaneStore& store = session->store();
  std::string name = std::filesystem::path(options.change).filename().string();
  if (!name.ends_with(".json")) name += ".json";
  const std::string path = store.changesURL() + "/" + name;
  const bool exists = Env::defaultEnv()->fileExists(path);
  Error repairError;
  if (options.action == "discard") {
    if (!exists) {
      session->close();
      return fail("Changes/" + name + ": no such change file");
    }
    if (!store.discardChange(path, &repairError)) {
      session->close();
      return fail("Changes/" + name + ": " + repairError.localizedDescription);
    }
  } else {
    if (exists) {
      session->close();
      return fail("Changes/" + name + " exists: a recovery change only takes the place of a missing one");
    }
    if (!store.insertChange(path, &repairError)) {
      session->close();
      return fail("Changes/" + name + ": " + repairError.localizedDescription);
    }
  }
  RunLoop::main().runUntil([&] { return !store.isUpdating(); }, 60);
  for (int i = 0; i < 5; ++i) RunLoop::main().runOnce();
  std::printf("%s Changes/%s\n", options.action == "discard" ? "discarded" : "inserted a recovery change at",
              name.c_str());
  session->close();
  return kExitSuccess;
}

// ---- Registration -------------------------------------------------------------------------

void addPackage(CLI::App* command, StoreOptions* options) {
  command->add_option("package", options->package, "The document's package folder")->required()->type_name("PKG");
}

void setupWatch(CLI::App& app, int* status) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command = app.add_subcommand(
      "watch", "Open a document and print each change from other devices and each log entry as it happens");
  addPackage(command, &options->store);
  addStoreOptions(command, &options->store, true);
  command->add_option("--for", options->seconds, "Stop after SECONDS (default: until interrupted)")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
  command
      ->add_option("--poll", options->poll,
                   "Also look for new change files every SECONDS, for folders a watch cannot see (default: off)")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
  command->footer("Ends cleanly on Ctrl-C (SIGINT) or SIGTERM.");
  command->callback([options, status] { *status = runWatch(*options); });
}

void setupVerify(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command = app.add_subcommand(
      "verify", "Check every change file with its object and data files; exit 1 when a problem is found");
  addPackage(command, options.get());
  addStoreOptions(command, options.get(), true);
  command->callback([options, status] { *status = runVerify(*options); });
}

void setupLog(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command = app.add_subcommand("log", "Print the document's error records and this device's log");
  addPackage(command, options.get());
  addStoreOptions(command, options.get(), true);
  command->callback([options, status] { *status = runLog(*options); });
}

void setupHistory(CLI::App& app, int* status) {
  auto options = std::make_shared<HistoryOptions>();
  CLI::App* command = app.add_subcommand("history", "Print every change of one object, oldest first");
  addPackage(command, &options->store);
  command->add_option("entity", options->entity, "The object's entity")->required()->type_name("ENTITY");
  command->add_option("uid", options->uid, "The object's UID")->required()->type_name("UID");
  addStoreOptions(command, &options->store, true);
  command->callback([options, status] { *status = runHistory(*options); });
}

void setupDevices(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command = app.add_subcommand("devices", "Print the devices and sessions that wrote the newest changes");
  addPackage(command, options.get());
  addStoreOptions(command, options.get(), true);
  command->callback([options, status] { *status = runDevices(*options); });
}

void setupRepair(CLI::App& app, int* status) {
  auto options = std::make_shared<RepairOptions>();
  CLI::App* command = app.add_subcommand(
      "repair",
      "Repair the history: discard a damaged change file, or put a recovery change in place of a missing one");
  addPackage(command, &options->store);
  command->add_option("action", options->action, "discard or insert-recovery")
      ->required()
      ->check(CLI::IsMember({"discard", "insert-recovery"}))
      ->type_name("ACTION");
  command->add_option("change", options->change, "The change's name (with or without .json)")
      ->required()
      ->type_name("CHANGE");
  addStoreOptions(command, &options->store, true);
  command->callback([options, status] { *status = runRepair(*options); });
}

void setupChecksum(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command = app.add_subcommand(
      "checksum", "Print the history checksum and each entity's content checksum, to compare two devices");
  addPackage(command, options.get());
  addStoreOptions(command, options.get(), true);
  command->callback([options, status] { *status = runChecksum(*options); });
}

void setupFixConflicts(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command =
      app.add_subcommand("fix-conflicts", "Merge entity folders a sync service duplicated (\"Person 2\") and catch up");
  addPackage(command, options.get());
  addStoreOptions(command, options.get(), true);
  command->callback([options, status] { *status = runFixConflicts(*options); });
}

const CommandRegistration kWatch(80, setupWatch);
const CommandRegistration kChecksum(84, setupChecksum);
const CommandRegistration kFixConflicts(87, setupFixConflicts);
const CommandRegistration kVerify(81, setupVerify);
const CommandRegistration kLog(82, setupLog);
const CommandRegistration kHistory(83, setupHistory);
const CommandRegistration kDevices(85, setupDevices);
const CommandRegistration kRepair(86, setupRepair);

}  // namespace
}  // namespace corvane::cli
