// `corvane recover`: packages rebuilt from the caches this machine keeps of the documents it
// opened, for when a package was lost (a sync service deleted it, a disk failed).
//
//   corvane recover list [--json]                 every cache and what it holds
//   corvane recover CACHE DEST --model M          one cache (a cache folder, or a document path)
//   corvane recover all --model M                 every orphaned cache into Desktop/Recovered
//
// The caches looked at are the tool's own, or those of the application named by --application
// (a person supporting a user of that application), or those under --cache-root.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/recovery/corvane_recovery.h"
#include "store_session.h"
#include "terminal_interaction.h"

namespace corvane::cli {
namespace {

struct RecoverOptions {
  std::string application;              // whose caches ("" the tool's)
  std::vector<std::string> cacheRoots;  // instead of the application's
  std::string model;
  std::string extension = "corvane";
  // recover CACHE DEST
  std::string cache;
  std::string destination;
  bool json = false;
};

RecoverySetup setupFor(const RecoverOptions& options) {
  RecoverySetup setup;
  ApplicationInfo application = toolApplication();
  if (!options.application.empty()) {
    application = ApplicationInfo{};
    application.identifier = options.application;
  }
  application.documentTypes =
      Value::array({Value::dictionary({{Value("CFBundleTypeExtensions"), Value::array({Value(options.extension)})}})});
  setup.defaults = options.application.empty() ? toolDefaults() : UserDefaults::forApplication(options.application);
  setup.application = std::move(application);
  for (const std::string& root : options.cacheRoots) setup.cacheRoots.push_back(absolutePath(root));
  return setup;
}

int runList(const RecoverOptions& options) {
  const RecoverySetup setup = setupFor(options);
  Env* env = Env::defaultEnv();
  Value all = Value::mutableArray();
  for (const std::unique_ptr<CorvaneRecovery>& recovery : CorvaneRecovery::findAllCaches(nullptr, setup)) {
    Value entry = Value::mutableDictionary();
    entry.set(Value("cache"), Value(recovery->cacheURL()));
    entry.set(Value("suggestedName"), Value(CorvaneRecovery::suggestedNameForCacheURL(recovery->cacheURL(), env)));
    std::optional<std::string> original = CorvaneRecovery::originalFileURLForCacheURL(recovery->cacheURL(), {}, setup);
    entry.set(Value("original"), original ? Value(*original) : Value::null());
    entry.set(Value("originalExists"), Value(original && env->fileExists(*original)));
    const bool encrypted = recovery->isEncrypted();
    entry.set(Value("encrypted"), Value(encrypted));
    Value entities = Value::mutableDictionary();
    if (!encrypted) {
      for (const std::string& entity :
           recovery->availableEntitiesWithError(nullptr).value_or(std::vector<std::string>{})) {
        const auto uids = recovery->UIDsForEntity(entity, nullptr);
        entities.set(Value(entity), Value(static_cast<long long>(uids ? uids->size() : 0)));
      }
    }
    entry.set(Value("entities"), entities);
    all.append(entry);
  }
  if (options.json) {
    std::cout << valueToJson(all, JsonStyle::Pretty).value_or("[]") << "\n";
    return kExitSuccess;
  }
  if (all.count() == 0) std::cout << "no caches found\n";
  for (const Value& entry : all.elements()) {
    std::cout << entry["cache"].str() << "\n  name: " << entry["suggestedName"].str() << "\n  document: ";
    if (entry["original"].isString()) {
      std::cout << entry["original"].str() << (entry["originalExists"].boolValue() ? " (exists)" : " (gone)");
    } else {
      std::cout << "unknown";
    }
    std::cout << "\n";
    if (entry["encrypted"].boolValue()) {
      std::cout << "  encrypted: Encrypted caches are not yet supported\n";
      continue;
    }
    for (const Value& entity : entry["entities"].keys()) {
      std::cout << "  " << entity.str() << ": " << entry["entities"][entity.str()].longLongValue() << " objects\n";
    }
  }
  return kExitSuccess;
}

int runOne(const RecoverOptions& options) {
  std::string error;
  std::shared_ptr<ObjectModel> model = loadModel(options.model, &error);
  if (!model) return fail(error);
  Env* env = Env::defaultEnv();
  const std::string destination = absolutePath(options.destination);
  if (env->fileExists(destination)) return fail(options.destination + " already exists");
  const RecoverySetup setup = setupFor(options);
  const std::string given = absolutePath(options.cache);
  bool isFolder = false;
  std::unique_ptr<CorvaneRecovery> recovery;
  // A cache folder holds ".fast" tables; anything else names a document whose cache is wanted.
  if (env->fileExists(given, &isFolder) && isFolder && !env->fileExists(pathJoin(given, "Info.plist"))) {
    recovery = CorvaneRecovery::recoveryWithCacheURL(given, model, setup);
  } else {
    recovery = CorvaneRecovery::recoveryWithStoreURL(given, model, setup);
    if (!recovery) return fail("no cache of " + options.cache + " on this machine (see `corvane recover list`)");
  }
  if (recovery->isEncrypted()) return fail(recovery->cacheURL() + ": Encrypted caches are not yet supported");
  TerminalInteraction terminal;
  terminal.beginProgress("Recovering");
  recovery->setProgressBlock([&terminal](int64_t current, int64_t total, const std::string& message) {
    terminal.updateProgress(total < 1 ? -1 : static_cast<double>(current) / static_cast<double>(total), message);
  });
  Error failure;
  const bool rebuilt = recovery->rebuildPackageToURL(destination, Value(), &failure);
  terminal.endProgress();
  if (!rebuilt) return fail("could not rebuild " + options.destination + ": " + failure.localizedDescription);
  std::cout << "rebuilt " << destination << " from " << recovery->cacheURL()
            << " (binary values are not kept in a cache)\n";
  return kExitSuccess;
}

int runAll(const RecoverOptions& options) {
  std::string error;
  std::shared_ptr<ObjectModel> model = loadModel(options.model, &error);
  if (!model) return fail(error);
  const RecoverySetup setup = setupFor(options);
  // A bar on a terminal; the recovery's own lines otherwise.
  TerminalInteraction terminal;
  const bool drawing = ::isatty(STDERR_FILENO) == 1;
  if (drawing) terminal.beginProgress("Recovering");
  Error failure;
  std::optional<std::string> folder = CorvaneRecovery::recoverAllCachesToDesktop(
      model, setup, {},
      [&](int64_t current, int64_t total, const std::string& message) {
        if (drawing) {
          terminal.updateProgress(total < 1 ? -1 : static_cast<double>(current) / static_cast<double>(total), message);
        } else {
          std::cout << message << "\n";
        }
      },
      &failure);
  if (drawing) terminal.endProgress();
  if (!folder) return fail(failure.localizedDescription);
  std::cout << *folder << "\n";
  return kExitSuccess;
}

void setupRecover(CLI::App& app, int* status) {
  auto options = std::make_shared<RecoverOptions>();
  CLI::App* command =
      app.add_subcommand("recover", "Rebuild lost documents from the caches this machine keeps of them");
  auto common = [options](CLI::App* c) {
    c->add_option("--application", options->application,
                  "Look at the caches of the application with this identifier (default: this tool's)")
        ->type_name("ID");
    c->add_option("--cache-root", options->cacheRoots, "Look for caches in DIR instead (repeatable)")->type_name("DIR");
  };
  common(command);
  command->add_option("cache", options->cache, "A cache folder, or the path of the lost document")->type_name("CACHE");
  command->add_option("destination", options->destination, "The package to write; it must not exist")
      ->type_name("DEST");
  command->add_option("--model", options->model, "The JSON model file of the document's entities")
      ->type_name("MODEL.json");
  command->footer(
      "A cache holds every object of a document as this device last saw it; binary values are not in it and are "
      "not restored. Caches of encrypted documents cannot be read yet.");

  CLI::App* list = command->add_subcommand("list", "List every cache on this machine and what it holds");
  common(list);
  list->add_flag("--json", options->json, "Print the list as JSON");
  list->callback([options, status] { *status = runList(*options); });

  CLI::App* all = command->add_subcommand(
      "all", "Rebuild every cache whose document is gone into Recovered (or Recovered 1, ...) on the desktop");
  common(all);
  all->add_option("--model", options->model, "The JSON model file of the documents' entities")
      ->required()
      ->type_name("MODEL.json");
  all->add_option("--extension", options->extension, "The extension of rebuilt packages")->capture_default_str();
  all->callback([options, status] { *status = runAll(*options); });

  command->callback([options, status, command] {
    if (!command->got_subcommand("list") && !command->got_subcommand("all")) {
      if (options->cache.empty() || options->destination.empty() || options->model.empty()) {
        std::cerr << "corvane: recover needs CACHE DEST --model M, or list, or all (see corvane recover --help)\n";
        *status = kExitUsage;
        return;
      }
      *status = runOne(*options);
    }
  });
}

const CommandRegistration kRecover(90, setupRecover);

}  // namespace
}  // namespace corvane::cli
