// `corvane sync-check`: the device sync check from the command line. This device posts its view
// of the document to a sync server and compares it with what the other devices posted.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "command.h"
#include "corvane/document/device_sync_check.h"
#include "corvane/foundation/run_loop.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

constexpr int kExitTimedOut = 3;

struct SyncCheckOptions {
  StoreOptions store;
  std::string server;
  int polls = 60;
  double interval = 5;
  std::string cacert;
};

int runSyncCheck(const SyncCheckOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return fail(error);
  session->reportProblems();
  DeviceSyncCheckOptions checkOptions;
  checkOptions.host = options.server;
  checkOptions.transport = httpSyncTransport({20, options.cacert});
  checkOptions.pollInterval = options.interval;
  DeviceSyncCheck check(session->document(), checkOptions);
  std::optional<int> outcome;
  Subscription updates = check.onUpdate([&] {
    std::cout << check.devicesStatusText().value_or("") << "\n";
    for (const Value& device : check.devices()) {
      std::cout << "  " << device["deviceIdentifier"].str() << "  " << device["changesInfo"].str() << "  "
                << device["checkSum"].str() << "\n";
    }
    std::cout.flush();
    if (check.status() == DeviceSyncCheck::kInSync) {
      outcome = kExitSuccess;
    } else if (check.pollCount() >= options.polls) {
      outcome = check.status() == DeviceSyncCheck::kMismatch ? kExitFailure : kExitTimedOut;
    }
  });
  check.setPanelOpen(true);
  check.pollDeviceInfo();
  RunLoop::main().runUntil([&outcome] { return outcome.has_value(); }, (options.polls + 1) * (options.interval + 25.0));
  check.resetDeviceInfo();
  session->close();
  return outcome.value_or(kExitTimedOut);
}

void setupSyncCheck(CLI::App& app, int* status) {
  auto options = std::make_shared<SyncCheckOptions>();
  CLI::App* command =
      app.add_subcommand("sync-check", "Check whether every device that works on a document sees the same content");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_option("--server", options->server, "The sync server (https://host:port)")->required()->type_name("URL");
  command->add_option("--polls", options->polls, "Give up after this many polls")->capture_default_str();
  command->add_option("--interval", options->interval, "Seconds between polls")->capture_default_str();
  command->add_option("--cacert", options->cacert, "Trust the certificates in FILE (a server's own authority)")
      ->type_name("FILE");
  addStoreOptions(command, &options->store, true);
  command->footer(
      "Prints the status after each poll and every device's identifier (this one marked), changes info and "
      "checksum. Exits 0 once all devices are in sync, 1 when they still do not match after the last poll (the parts "
      "that differ are printed), 3 when no other device answered. CORVANE_DEVICE_IDENTIFIER sets this device's "
      "identifier, so that one computer can play several devices.");
  command->callback([options, status] { *status = runSyncCheck(*options); });
}

const CommandRegistration kSyncCheck(92, setupSyncCheck);

}  // namespace
}  // namespace corvane::cli
