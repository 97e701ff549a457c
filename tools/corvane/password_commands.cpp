// `corvane password save|forget|status PKG`: keep an encrypted document's password in the
// keychain so that the tool's commands open it without asking, as an application does after its
// password prompt's "keep it in the keychain". The item is the one the document reads: service =
// the tool's identifier, account = the package's "DocumentIdentifier", labelled with the
// package's file name; the tool's "do not ask again" setting for the document says whether it
// is used.
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"
#include "corvane/document/corvane_document.h"
#include "corvane/foundation/env.h"
#include "corvane/security/document_password.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "package_password.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

struct PasswordCommandOptions {
  std::string package;
  PasswordOptions password;
};

// What the commands know about a package before they touch the keychain.
struct PackageIdentity {
  std::string fileName;  // the last component of its absolute path, the item's label
  bool encrypted = false;
  DocumentPasswordItem item;
};

std::optional<PackageIdentity> identify(Env* env, const std::string& package, std::string* error) {
  bool isDirectory = false;
  if (!env->fileExists(package, &isDirectory) || !isDirectory) {
    *error = package + " is not a folder: a Corvane document is a package folder";
    return std::nullopt;
  }
  const Value info = CorvanePackage::infoDictionaryForURL(package, env);
  if (!info.isDictionary()) {
    *error = package + " is not a Corvane package (its Info.plist is missing or unreadable)";
    return std::nullopt;
  }
  PackageIdentity identity;
  identity.encrypted = isEncryptedPackageInfo(info);
  identity.item = {toolApplication().identifier, CorvanePackage::documentIdentifierForURL(package, env)};
  if (identity.item.documentIdentifier.empty()) {
    *error = package + "/Info.plist has no \"DocumentIdentifier\" to keep a password under";
    return std::nullopt;
  }
  // "Notes.corvane/" and "./Notes.corvane" name the same document as the application shows it.
  identity.fileName = pathLastComponent(absolutePath(package));
  return identity;
}

// "the keychain (file)": where the item went, since the two backends behave differently.
std::string keychainName(KeychainBackend* keychain) { return "the keychain (" + keychain->name() + ")"; }

// The keychain's own words for a failure: the underlying error a save carries, else the error.
std::string keychainMessage(const Error& error) {
  const Value underlying = error.userInfo.isDictionary() ? error.userInfo.get(Value("NSUnderlyingError")) : Value();
  if (underlying.isString()) return error.localizedDescription + " " + underlying.str();
  return error.localizedDescription.empty() ? error.description() : error.localizedDescription;
}

int runSave(const PasswordCommandOptions& options) {
  Env* env = Env::defaultEnv();
  std::string error;
  std::optional<PackageIdentity> identity = identify(env, options.package, &error);
  if (!identity) return fail(error);
  if (!identity->encrypted) return fail(options.package + " is not encrypted: it has no password to keep");
  std::optional<std::string> password =
      obtainPassword(env, options.password, "Password for " + options.package + ": ", &error);
  if (!password) return fail(error);
  if (!CorvanePackage::canOpenURL(options.package, *password, env))
    return fail("wrong password for " + options.package);

  KeychainBackend* keychain = defaultKeychain();
  Error saveError;
  if (!saveDocumentPassword(identity->item, identity->fileName, *password, &saveError, keychain)) {
    return fail(keychainMessage(saveError));
  }
  // Without the setting the document never looks in the keychain: the item alone is not enough.
  std::shared_ptr<UserDefaults> defaults = toolDefaults();
  if (!defaults->setObject(Value(true), dontShowPasswordPromptAgainKey(identity->item.documentIdentifier))) {
    return fail("the password is in " + keychainName(keychain) + ", but the tool's settings file " + defaults->path() +
                " could not be written, so the tool will still ask for it");
  }
  std::printf("the password of %s is kept in %s; commands open it without asking\n", options.package.c_str(),
              keychainName(keychain).c_str());
  return kExitSuccess;
}

int runForget(const PasswordCommandOptions& options) {
  Env* env = Env::defaultEnv();
  std::string error;
  std::optional<PackageIdentity> identity = identify(env, options.package, &error);
  if (!identity) return fail(error);
  KeychainBackend* keychain = defaultKeychain();
  Error keychainError;
  const bool wasKept = findDocumentPassword(identity->item, &keychainError, keychain).has_value();
  if (!wasKept && keychainError.code != kKeychainErrorItemNotFound) return fail(keychainMessage(keychainError));
  if (!removeDocumentPassword(identity->item, &keychainError, keychain)) return fail(keychainMessage(keychainError));
  // The setting goes too: with it on and no item the document would look in vain on every open.
  std::shared_ptr<UserDefaults> defaults = toolDefaults();
  if (!defaults->removeObjectForKey(dontShowPasswordPromptAgainKey(identity->item.documentIdentifier))) {
    return fail("the tool's settings file " + defaults->path() + " could not be written");
  }
  std::printf(wasKept ? "the password of %s is no longer kept in %s; commands ask for it again\n"
                      : "no password of %s was kept in %s; commands ask for it\n",
              options.package.c_str(), keychainName(keychain).c_str());
  return kExitSuccess;
}

int runStatus(const PasswordCommandOptions& options) {
  Env* env = Env::defaultEnv();
  std::string error;
  std::optional<PackageIdentity> identity = identify(env, options.package, &error);
  if (!identity) return fail(error);
  const char* package = options.package.c_str();
  if (!identity->encrypted) {
    std::printf("%s is not encrypted: it needs no password\n", package);
    return kExitSuccess;
  }
  KeychainBackend* keychain = defaultKeychain();
  const std::string where = keychainName(keychain);
  Error keychainError;
  std::optional<std::string> kept = findDocumentPassword(identity->item, &keychainError, keychain);
  if (!kept && keychainError.code != kKeychainErrorItemNotFound) return fail(keychainMessage(keychainError));
  const bool used = toolDefaults()->boolForKey(dontShowPasswordPromptAgainKey(identity->item.documentIdentifier));
  if (!kept) {
    std::printf("no password of %s is kept in %s; commands ask for it\n", package, where.c_str());
  } else if (!CorvanePackage::canOpenURL(options.package, *kept, env)) {
    std::printf(
        "the password of %s kept in %s no longer opens it; commands ask for it "
        "(`corvane password save` replaces it)\n",
        package, where.c_str());
  } else if (!used) {
    std::printf(
        "the password of %s is kept in %s, but commands do not use it and ask "
        "(`corvane password save` turns that on)\n",
        package, where.c_str());
  } else {
    std::printf("the password of %s is kept in %s; commands open it without asking\n", package, where.c_str());
  }
  return kExitSuccess;
}

void setupPasswordCommand(CLI::App& app, int* status) {
  CLI::App* password = app.add_subcommand("password", "Keep an encrypted document's password in the keychain");
  password->require_subcommand(1);
  password->footer(
      "A kept password is what commands use when neither --password-file nor $CORVANE_PASSWORD gives one, before "
      "they ask on the terminal. It lives in the Secret Service when the session bus offers one, else in the "
      "keychain file under the data folder.");
  struct Entry {
    const char* name;
    const char* description;
    int (*run)(const PasswordCommandOptions&);
  };
  for (const Entry& entry : {
           Entry{"save", "Check the document's password and keep it in the keychain, so commands do not ask", runSave},
           Entry{"forget", "Remove the document's password from the keychain; commands ask again", runForget},
           Entry{"status", "Say whether a password is kept for the document and whether commands use it", runStatus},
       }) {
    auto options = std::make_shared<PasswordCommandOptions>();
    CLI::App* command = password->add_subcommand(entry.name, entry.description);
    command->add_option("package", options->package, "The document package")->required()->type_name("PKG");
    if (entry.run == runSave) {
      addPasswordOptions(command, &options->password);
      command->footer(
          "The password is read from --password-file, else from $CORVANE_PASSWORD, else asked for on the terminal, "
          "and checked against the package before it is kept.");
    }
    command->callback([options, status, run = entry.run] { *status = run(*options); });
  }
}

const CommandRegistration kPassword(62, setupPasswordCommand);

}  // namespace
}  // namespace corvane::cli
