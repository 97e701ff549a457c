// Opening a package from the command line: reading its "Info.plist", finding out whether it is
// encrypted, obtaining the password and checking it against the package's verifier before any
// file is touched. Shared by every command that takes --package.
//
// The password never comes from a plain command-line argument (other users can read those in
// the process table). In order: --password-file FILE (its first line), the environment
// variable CORVANE_PASSWORD, the keychain (when `corvane password save` kept it there, as the
// document does for the commands that open one), a prompt on the controlling terminal without
// echo.
//
// Threads: main thread only (the prompt owns the terminal).
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/foundation/value.h"
#include "corvane/security/sea_crypto.h"

namespace corvane::cli {

inline constexpr const char* kPasswordEnvironmentVariable = "CORVANE_PASSWORD";

struct PasswordOptions {
  std::string passwordFile;  // empty: not given
};

// The first line of a password file; nullopt and a message naming the file when it cannot be read.
std::optional<std::string> passwordFromFile(const std::string& path, std::string* error);

// Asks on the controlling terminal with echo off; nullopt when there is no terminal.
std::optional<std::string> passwordFromTerminal(const std::string& prompt);

// Adds --password-file to a subcommand.
void addPasswordOptions(CLI::App* command, PasswordOptions* options);

// The password from the first source that has one; nullopt and a message in *error when none
// does (or the password file cannot be read).
std::optional<std::string> obtainPassword(Env* env, const PasswordOptions& options, const std::string& prompt,
                                          std::string* error);

struct OpenedPackage {
  std::string path;
  Value info;                       // the information dictionary
  std::optional<SeaCrypto> cipher;  // set when the package is encrypted, password checked
};

enum class EncryptionNeed { Required, Optional };

// Reads <package>/Info.plist and, for an encrypted package, obtains and checks the password.
// nullopt and a one-line message in *error for: a missing or unreadable Info.plist, a package
// that is not encrypted when encryption is Required, no password, a wrong password.
std::optional<OpenedPackage> openPackage(Env* env, const std::string& package, EncryptionNeed need,
                                         const PasswordOptions& options, std::string* error);

}  // namespace corvane::cli
