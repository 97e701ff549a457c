// corvane::FileKeychain — the keychain of last resort, in a folder of the user's own.
//
// Used where no Secret Service answers on the session bus (a headless machine, a minimal
// desktop). The folder, by default $XDG_DATA_HOME/corvane/keychain, holds:
//
//   keychain.json  the items: their attributes in clear text (service, account, label, ...)
//                  and each password encrypted with AES-256-GCM under the key below, with the
//                  item's attributes as associated data (a password cannot be moved to
//                  another item unnoticed)
//   keychain.key   the 32-byte key, made from the secure random source on first use
//   keychain.lock  taken (flock) around every operation, so that two processes never lose
//                  each other's changes
//
// The folder is made readable by the user alone (0700) and both files 0600.
//
// What this protects against: someone who gets hold of keychain.json alone (a backup of the
// data folder without the key, a glance at the file, a search tool's index) sees which
// documents have remembered passwords but not the passwords; other users of the machine cannot
// read the folder at all because of its permissions.
// What it does NOT protect against: anyone or anything that can read the user's files — a
// program the user runs, root, a full backup of the home folder, a stolen unencrypted disk —
// can read the key beside the store and decrypt every password. It is obfuscation at rest, not
// a vault; a Secret Service, whose collection is encrypted under the user's login password, is
// preferred whenever one is running.
//
// Lock and unlock are the process's own: lock() makes this object refuse every operation
// (kKeychainErrorInteractionNotAllowed) until unlock(), which needs nothing further.
//
// Every write goes through Env::writeFileAtomically and every result is checked; a key that
// is missing while items exist is an error, never a reason to make a new key.
//
// Threads: any thread; operations are serialised by a mutex and, across processes, the lock
// file.
#pragma once

#include <memory>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/security/keychain.h"

namespace corvane {

// "<dataHome>/corvane/keychain" of `env`.
std::string defaultFileKeychainFolder(Env* env);

// A file keychain in `folder` (made on first write when missing). `env` must outlive it.
std::unique_ptr<KeychainBackend> newFileKeychain(Env* env, const std::string& folder);

}  // namespace corvane
