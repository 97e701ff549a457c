// `corvane decrypt` and `corvane encrypt`: turn the files of an encrypted document into plain
// text and back, for the people who support its users. The keys come from the package's
// "Encryption" entry and its password, which is checked before anything is read or written.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "corvane/foundation/env.h"
#include "corvane/security/sea_crypto.h"
#include "package_password.h"

namespace corvane::cli {
namespace {

struct CryptOptions {
  bool encrypt = false;
  std::string package;
  std::vector<std::string> files;
  std::string output;  // empty: standard output
  PasswordOptions password;
};

bool writeStandardOutput(const std::vector<Bytes>& results) {
  for (const Bytes& result : results) {
    if (!result.empty() && std::fwrite(result.data(), 1, result.size(), stdout) != result.size()) return false;
  }
  return std::fflush(stdout) == 0;
}

int runCrypt(const CryptOptions& options) {
  if (!options.output.empty() && options.files.size() > 1) {
    std::fprintf(stderr,
                 "corvane: -o takes one FILE; without -o the results of several files go to standard "
                 "output one after the other\n");
    return kExitUsage;
  }
  Env* env = Env::defaultEnv();

  // Inputs are read before the password is asked for, so that a mistyped file name does not
  // cost a password prompt.
  std::vector<Bytes> inputs;
  for (const std::string& file : options.files) {
    bool isDirectory = false;
    if (!env->fileExists(file, &isDirectory)) return fail(file + ": no such file");
    if (isDirectory) return fail(file + " is a folder, not a file");
    Bytes bytes;
    Error error;
    if (!env->readFile(file, &bytes, &error)) return fail(file + " could not be read: " + error.localizedDescription);
    inputs.push_back(std::move(bytes));
  }

  std::string error;
  std::optional<OpenedPackage> package =
      openPackage(env, options.package, EncryptionNeed::Required, options.password, &error);
  if (!package) return fail(error);

  // Every file is processed before anything is written: a failure writes nothing at all.
  std::vector<Bytes> results;
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::optional<Bytes> result =
        options.encrypt ? package->cipher->encryptData(inputs[i]) : package->cipher->decryptData(inputs[i]);
    if (!result) {
      return fail(options.encrypt ? options.files[i] + " could not be encrypted"
                                  : options.files[i] + " could not be decrypted: wrong password or damaged file");
    }
    results.push_back(std::move(*result));
  }

  if (options.output.empty()) {
    if (!writeStandardOutput(results)) return fail("could not write to standard output");
    return kExitSuccess;
  }
  Error writeError;
  if (!env->writeFileAtomically(options.output, results.front(), &writeError)) {
    return fail(options.output + " could not be written: " + writeError.localizedDescription);
  }
  return kExitSuccess;
}

void setupCryptCommand(CLI::App& app, int* status, bool encrypt) {
  auto options = std::make_shared<CryptOptions>();
  options->encrypt = encrypt;
  CLI::App* command =
      encrypt ? app.add_subcommand("encrypt",
                                   "Encrypt files with the keys of an encrypted document (a fresh random IV each)")
              : app.add_subcommand("decrypt", "Decrypt files (change files, object files) of an encrypted document");
  command->add_option("--package", options->package, "The document package whose password and salt to use")
      ->required()
      ->type_name("PKG");
  command->add_option("files", options->files, encrypt ? "Plain files to encrypt" : "Encrypted files to decrypt")
      ->required()
      ->type_name("FILE");
  command
      ->add_option("-o,--output", options->output,
                   "Write the result to FILE atomically (one input only) instead of standard output")
      ->type_name("FILE");
  addPasswordOptions(command, &options->password);
  command->footer(
      "The password is read from --password-file, else from $CORVANE_PASSWORD, else the keychain (corvane password "
      "save), else asked for on the terminal. "
      "It is checked against the package before any file is processed. Several inputs without -o are written "
      "to standard output one after the other.");
  command->callback([options, status] { *status = runCrypt(*options); });
}

const CommandRegistration kDecrypt(60, [](CLI::App& app, int* status) { setupCryptCommand(app, status, false); });
const CommandRegistration kEncrypt(61, [](CLI::App& app, int* status) { setupCryptCommand(app, status, true); });

}  // namespace
}  // namespace corvane::cli
