// The "Encryption" entry of a package's information dictionary ("Info.plist"):
//
//   "Salt"    data    64 random bytes made when the password was set
//   "Rounds"  number  the PBKDF2 iteration count (100000 when written)
//   "Info"    data    the password verifier: the password's UTF-8 bytes as an encrypted block
//                     under the document's own keys
//
// A package without the entry is not encrypted. These helpers are shared by the store and the
// command-line tool; they work on an already-read information dictionary and touch no file.
//
// Threads: every function may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/value.h"
#include "corvane/security/sea_crypto.h"

namespace corvane {

inline constexpr const char* kEncryptionKey = "Encryption";
inline constexpr const char* kEncryptionSaltKey = "Salt";
inline constexpr const char* kEncryptionRoundsKey = "Rounds";
inline constexpr const char* kEncryptionVerifierKey = "Info";

// The parameters read from an "Encryption" entry. A value of the wrong kind reads as missing.
struct EncryptionParameters {
  std::optional<Bytes> salt;      // "Salt", when it is data
  int64_t rounds = 0;             // "Rounds" as an integer (0 when missing)
  std::optional<Bytes> verifier;  // "Info", when it is data
};

// True when the information dictionary has an "Encryption" entry.
bool isEncryptedPackageInfo(const Value& info);

// The parameters of the information dictionary's "Encryption" entry; nullopt without one.
std::optional<EncryptionParameters> encryptionParameters(const Value& info);

// The store's cipher set-up: a SeaCrypto with the entry's salt and rounds and the password
// set. Without an "Encryption" entry, or with a salt that cannot give keys, the result has no
// keys and every encryption and decryption through it fails.
SeaCrypto seaCryptoForPackageInfo(const Value& info, std::optional<std::string_view> password,
                                  Env* env = Env::defaultEnv());

// May `password` open the package with this information dictionary? No password and no
// "Encryption" entry: yes. Otherwise the entry's "Salt" and "Info" must both be data, and
// "Info" must decrypt under the password to exactly the password's text. This derives the
// keys, so it takes as long as opening the document does; pass `cipher` to keep the keys
// (on success of an encrypted package it receives the ready SeaCrypto) and spare a second
// derivation.
bool canOpenWithPassword(const Value& info, std::optional<std::string_view> password, Env* env = Env::defaultEnv(),
                         SeaCrypto* cipher = nullptr);

// A new "Encryption" entry (a mutable dictionary) for `password`: a fresh salt, `rounds`
// (the default for real documents; tests pass a small count) and the verifier. nullopt when
// the random source fails.
std::optional<Value> makeEncryptionEntry(std::string_view password, Env* env = Env::defaultEnv(),
                                         int64_t rounds = SeaCrypto::kDefaultRounds);

}  // namespace corvane
