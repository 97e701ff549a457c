// `corvane optimize`: consolidates a document into a new package holding every object once, and
// keeps the old package beside it as a dated backup (the document's "Optimize File").
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/store/corvane_store.h"
#include "store_session.h"
#include "terminal_interaction.h"

namespace corvane::cli {
namespace {

struct OptimizeOptions {
  StoreOptions store;
  bool yes = false;
};

int runOptimize(const OptimizeOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return fail(error);
  session->reportProblems();
  CorvaneDocument& document = session->document();
  std::cout << document.store()->changesFileCount() << " change files in " << options.store.package << "\n";
  std::cout << document.optimizeFileConfirmationText() << "\n";
  if (!options.yes) {
    std::optional<std::string> answer = askOnTerminal("Optimize File? [y/N]: ");
    if (!answer) return fail("nothing optimized: confirm on a terminal, or give --yes");
    if (answer->empty() || (answer->front() != 'y' && answer->front() != 'Y')) {
      std::cout << "nothing optimized\n";
      return kExitSuccess;
    }
  }
  std::optional<bool> swapped;
  document.consolidate([&swapped](bool done) { swapped = done; });
  RunLoop::main().runUntil([&swapped] { return swapped.has_value(); }, 24 * 3600);
  if (!swapped.value_or(false)) {
    session->close();
    return fail("the document was not optimized (see the messages above)");
  }
  const std::string backup = document.lastConsolidationBackup();  // named when the swap happened
  session->close();
  std::cout << "optimized; the previous package is kept as " << backup << "\n";
  return kExitSuccess;
}

void setupOptimize(CLI::App& app, int* status) {
  auto options = std::make_shared<OptimizeOptions>();
  CLI::App* command =
      app.add_subcommand("optimize", "Consolidate every change into one, keeping the old package as a dated backup");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_flag("--yes", options->yes, "Do not ask for confirmation");
  addStoreOptions(command, &options->store, true);
  command->footer(
      "The new package keeps the document's identifier, options and password; the old one stays beside it as "
      "<package>.<yyyy-MM-dd_HH-mm-ss>.backup. Other devices that have the document open close it and ask to "
      "reopen it once the sync client has carried the new package. Only optimize while no one else works on it.");
  command->callback([options, status] { *status = runOptimize(*options); });
}

const CommandRegistration kOptimize(88, setupOptimize);

}  // namespace
}  // namespace corvane::cli
