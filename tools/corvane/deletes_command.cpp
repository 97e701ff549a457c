// `corvane deletes`: who deleted the last objects of an entity, when and on which device, from
// the log of changes this device's cache has applied (the document's recent-deletes report).
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "corvane/document/recent_deletes.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

struct DeletesOptions {
  StoreOptions store;
  std::string entity;
  bool save = false;
};

int runDeletes(const DeletesOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return fail(error);
  session->reportProblems();
  if (session->model().entity(options.entity) == nullptr) {
    return fail("unknown entity '" + options.entity + "' in " + options.store.model);
  }
  const std::string report = session->document().recentDeletesReportForEntityName(options.entity);
  std::cout << report;
  if (!report.ends_with('\n')) std::cout << "\n";
  if (options.save) {
    Error saveError;
    std::optional<std::string> path =
        saveRecentDeletesReport(report, options.entity, session->document().env(), &saveError);
    if (!path) return fail("cannot save the report: " + saveError.localizedDescription);
    std::cout << *path << "\n";
  }
  session->close();
  return kExitSuccess;
}

void setupDeletes(CLI::App& app, int* status) {
  auto options = std::make_shared<DeletesOptions>();
  CLI::App* command =
      app.add_subcommand("deletes", "Report who deleted the last objects of an entity, when and on which device");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_option("entity", options->entity, "The entity (its sub-entities are included)")
      ->required()
      ->type_name("ENTITY");
  command->add_flag("--save", options->save,
                    "Also write the report into the desktop folder as Deleted_<ENTITY>_Objects_<date>.txt and print "
                    "its path");
  addStoreOptions(command, &options->store, true);
  command->footer(
      "The report lists, per entity, the first 50 deletions met in the log of changes this device has applied, "
      "each with its date, the deleting user and device and, when the object's change files are still there, who "
      "created it and when.");
  command->callback([options, status] { *status = runDeletes(*options); });
}

const CommandRegistration kDeletes(18, setupDeletes);

}  // namespace
}  // namespace corvane::cli
