// `corvane copy`: a copy of a document in a new package, as it stands now or as it stood right
// after one change of its history (the document's Save As). The original is never touched.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "command.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "package_password.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

struct CopyOptions {
  StoreOptions store;
  std::string destination;
  std::string upTo;
  std::string copyPasswordFile;  // --password-file: the copy's password
  bool noPassword = false;
};

// The source's password, when it is encrypted: --source-password-file, else $CORVANE_PASSWORD,
// else the copy's password file when that password opens it too (one file for both is the
// common case), else the keychain or the terminal, as every command asks.
std::string sourcePasswordFile(const CopyOptions& options) {
  Env* env = Env::defaultEnv();
  if (!options.store.password.passwordFile.empty() || env->environmentVariable(kPasswordEnvironmentVariable)) {
    return options.store.password.passwordFile;
  }
  if (options.copyPasswordFile.empty()) return {};
  std::string ignored;
  std::optional<std::string> password = passwordFromFile(options.copyPasswordFile, &ignored);
  if (password && isEncryptedPackageInfo(CorvanePackage::infoDictionaryForURL(options.store.package, env)) &&
      CorvanePackage::canOpenURL(options.store.package, password, env)) {
    return options.copyPasswordFile;
  }
  return {};
}

int runCopy(CopyOptions options) {
  Env* env = Env::defaultEnv();
  if (env->fileExists(options.destination)) return fail(options.destination + " already exists");
  CopyRequest request;
  request.path = absolutePath(options.destination);
  if (!options.upTo.empty()) {
    request.upToChange = options.upTo.ends_with(".json") ? options.upTo : options.upTo + ".json";
  }
  if (!options.copyPasswordFile.empty()) {
    std::string error;
    request.password = passwordFromFile(options.copyPasswordFile, &error);
    if (!request.password) return fail(error);
    if (request.password->empty()) return fail(options.copyPasswordFile + " holds an empty password");
  }
  options.store.password.passwordFile = sourcePasswordFile(options);

  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return fail(error);
  session->reportProblems();
  CorvaneDocument& document = session->document();
  // Neither given: the copy is encrypted as the original is, with its password.
  if (options.copyPasswordFile.empty() && !options.noPassword) request.password = document.password();

  std::optional<CopyResult> result;
  document.writeCopy(request, [&result](const CopyResult& done) { result = done; });
  RunLoop::main().runUntil([&result] { return result.has_value(); }, 24 * 3600);
  session->close();
  if (!result || !result->written) {
    std::string reason = result ? result->error.localizedDescription : "the copy did not finish";
    if (result && !result->error.recoverySuggestion.empty()) reason += " " + result->error.recoverySuggestion;
    return fail(reason);
  }
  std::cout << "copied " << options.store.package
            << (request.upToChange.empty() ? " as it stands now" : " as it stood after " + request.upToChange) << " to "
            << options.destination << (request.password ? " (encrypted)" : " (not encrypted)") << "\n";
  return kExitSuccess;
}

void setupCopy(CLI::App& app, int* status) {
  auto options = std::make_shared<CopyOptions>();
  CLI::App* command =
      app.add_subcommand("copy", "Copy a document into a new package, as it stands now or as it stood after a change");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_option("destination", options->destination, "The new package; it must not exist")
      ->required()
      ->type_name("DEST");
  command->add_option("--up-to", options->upTo, "The change to stop at, by its name as `corvane changes` prints it")
      ->type_name("CHANGE");
  CLI::Option* password = command
                              ->add_option("--password-file", options->copyPasswordFile,
                                           "Encrypt the copy with the password on the first line of FILE")
                              ->type_name("FILE");
  command->add_flag("--no-password", options->noPassword, "Do not encrypt the copy, even if the original is")
      ->excludes(password);
  command
      ->add_option("--source-password-file", options->store.password.passwordFile,
                   "The original's password, when it differs from the copy's (else $CORVANE_PASSWORD, the "
                   "keychain or a prompt)")
      ->type_name("FILE");
  addStoreOptions(command, &options->store, true, false);
  command->footer(
      "Without --password-file or --no-password the copy is encrypted as the original is, with the same password. "
      "The copy is a document of its own, with a new identifier, and carries its cache. The original, its package "
      "and this device's cache of it are never changed.");
  command->callback([options, status] { *status = runCopy(*options); });
}

const CommandRegistration kCopy(89, setupCopy);

}  // namespace
}  // namespace corvane::cli
