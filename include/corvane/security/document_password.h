// A document's password in the user's keychain.
//
// The item is a generic password with service = the host application's bundle identifier and
// account = the document's identifier (the "DocumentIdentifier" of the package's information
// file). Saving adds exactly two attributes: the label ("labl"), the document's file name, so
// that a keyring manager shows which document it opens, and the synchronizable attribute
// ("sync") set to the bundle identifier string. The platform defines that attribute as a
// boolean; the text is deliberate and kept so that items read the same everywhere.
//
// `keychain` nullptr means defaultKeychain().
//
// Threads: any thread (the keychain blocks while it talks to the Secret Service, so a host's
// main thread may prefer to call these from a queue).
#pragma once

#include <optional>
#include <string>

#include "corvane/foundation/error.h"
#include "corvane/security/keychain.h"

namespace corvane {

// What the user is told when saving fails.
inline constexpr const char* kKeychainPasswordNotSavedMessage = "The password could not be saved to the keychain.";

struct DocumentPasswordItem {
  std::string bundleIdentifier;    // the host application's "CFBundleIdentifier"
  std::string documentIdentifier;  // the package's "DocumentIdentifier"
};

// The remembered password, or nullopt: kKeychainErrorItemNotFound when none is remembered, any
// other code when the keychain failed (the error's user info carries the query).
std::optional<std::string> findDocumentPassword(const DocumentPasswordItem& item, Error* error = nullptr,
                                                KeychainBackend* keychain = nullptr);

// Remembers `password` (replacing a previous one), labelled with `fileName` (the package's
// last path component). On failure the error's description is kKeychainPasswordNotSavedMessage;
// domain and code are the keychain's, and the user info carries the query under
// "MCSMKeychainItemQueryKey" and the keychain's own text under "NSUnderlyingError".
bool saveDocumentPassword(const DocumentPasswordItem& item, const std::string& fileName, const std::string& password,
                          Error* error = nullptr, KeychainBackend* keychain = nullptr);

// Forgets the password. Nothing remembered is not a failure.
bool removeDocumentPassword(const DocumentPasswordItem& item, Error* error = nullptr,
                            KeychainBackend* keychain = nullptr);

}  // namespace corvane
