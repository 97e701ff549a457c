// `corvane rebuild-cache`: refill this device's cache of a document from its package, the way an
// application's "Rebuild Cache" does, with the progress drawn on the terminal.
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"
#include "corvane/foundation/run_loop.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

// Every object of every entity is read again; a large document on a slow disk takes a while.
constexpr double kRebuildTimeoutSeconds = 3600;

int runRebuildCache(const StoreOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options, &error);
  if (!session) return fail(error);
  session->reportProblems();
  bool done = false;
  session->document().rebuildCache([&done] { done = true; });
  if (!RunLoop::main().runUntil([&done] { return done; }, kRebuildTimeoutSeconds)) {
    session->close();
    return fail("rebuilding the cache of " + options.package + " did not end within an hour");
  }
  session->close();
  std::printf("rebuilt the cache of %s\n", options.package.c_str());
  return kExitSuccess;
}

void setupRebuildCache(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  CLI::App* command =
      app.add_subcommand("rebuild-cache", "Refill this device's cache of a document from its package files");
  command->add_option("package", options->package, "The document package")->required()->type_name("PKG");
  addStoreOptions(command, options.get(), true);
  command->footer(
      "Reads every object of every entity from the package again and saves it into the cache, entity by entity, "
      "with a progress bar on a terminal. The package itself is not changed.");
  command->callback([options, status] { *status = runRebuildCache(*options); });
}

const CommandRegistration kRebuildCache(17, [](CLI::App& app, int* status) { setupRebuildCache(app, status); });

}  // namespace
}  // namespace corvane::cli
