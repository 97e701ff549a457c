// corvane::KeychainBackend — where remembered passwords live.
//
// The keychain items (keychain_item.h) describe what to store; a backend stores it. An item is
// a set of text attributes plus one secret (the password). Attribute keys are the platform
// keychain's four-letter names, so that a query dictionary in an error reads the same on every
// system: "class" ("genp" for a generic password, "inet" for an internet password), "acct",
// "svce", "labl", "srvr", "sdmn", "path", "port", "ptcl", "atyp", "sync". Any other text key
// is stored and matched as it is.
//
// Two backends exist: the freedesktop Secret Service (secret_service_keychain.h), used where
// the session bus offers one, and an encrypted file under $XDG_DATA_HOME (file_keychain.h).
// defaultKeychain() picks one on first use; a host or a test can instead create one and pass
// it to every item operation, and nothing process-wide has to be set up.
//
// Failures carry an error in the domain "NSOSStatusErrorDomain" with the platform keychain's
// status codes below, so that "not found" and "duplicate" can be told apart from real faults.
//
// Threads: every method of every backend may be called from any thread; each backend
// serialises its own operations.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"

namespace corvane {

// Attribute keys.
inline constexpr const char* kKeychainClass = "class";
inline constexpr const char* kKeychainClassGenericPassword = "genp";
inline constexpr const char* kKeychainClassInternetPassword = "inet";
inline constexpr const char* kKeychainAccount = "acct";
inline constexpr const char* kKeychainService = "svce";
inline constexpr const char* kKeychainLabel = "labl";
inline constexpr const char* kKeychainServer = "srvr";
inline constexpr const char* kKeychainSecurityDomain = "sdmn";
inline constexpr const char* kKeychainPath = "path";
inline constexpr const char* kKeychainPort = "port";
inline constexpr const char* kKeychainProtocol = "ptcl";
inline constexpr const char* kKeychainAuthenticationType = "atyp";
inline constexpr const char* kKeychainSynchronizable = "sync";

// Error domain and status codes of keychain failures.
inline constexpr const char* kKeychainErrorDomain = "NSOSStatusErrorDomain";
inline constexpr int kKeychainErrorParam = -50;                     // a malformed request
inline constexpr int kKeychainErrorIO = -36;                        // the store could not be read or written
inline constexpr int kKeychainErrorNotAvailable = -25291;           // no keychain could be reached
inline constexpr int kKeychainErrorDuplicateItem = -25299;          // add: the item exists
inline constexpr int kKeychainErrorItemNotFound = -25300;           // nothing matched
inline constexpr int kKeychainErrorInteractionNotAllowed = -25308;  // locked
inline constexpr int kKeychainErrorDecode = -26275;                 // a stored secret does not decrypt

using KeychainAttributes = std::map<std::string, std::string>;

struct KeychainRecord {
  KeychainAttributes attributes;
  std::optional<std::string> password;  // present when the find asked for passwords
};

// The attributes that identify an item of the class given by attributes["class"]: an add that
// matches an existing item on all of them is a duplicate. Generic passwords: class, service,
// account; internet passwords: class, server, security domain, path, port, protocol,
// authentication type, account. Missing attributes count as empty.
KeychainAttributes keychainPrimaryKey(const KeychainAttributes& attributes);

// An error of kKeychainErrorDomain.
Error keychainError(int status, std::string description);

class KeychainBackend {
 public:
  KeychainBackend() = default;
  KeychainBackend(const KeychainBackend&) = delete;
  KeychainBackend& operator=(const KeychainBackend&) = delete;
  virtual ~KeychainBackend();

  // "Secret Service" or "file", for logs.
  virtual std::string name() const = 0;

  // Adds an item. `attributes` holds "class". Fails with kKeychainErrorDuplicateItem when an
  // item with the same primary key exists (nothing is changed then).
  [[nodiscard]] virtual bool add(const KeychainAttributes& attributes, const std::string& password, Error* error) = 0;
  // Sets `changes` on every item whose attributes include all of `match` and, when given, its
  // password. kKeychainErrorItemNotFound when nothing matched.
  [[nodiscard]] virtual bool update(const KeychainAttributes& match, const KeychainAttributes& changes,
                                    const std::optional<std::string>& password, Error* error) = 0;
  // The items whose attributes include all of `match`: every one, or the first only when `all`
  // is false; passwords included when asked. nullopt with kKeychainErrorItemNotFound when
  // nothing matched, so that a result is never empty.
  virtual std::optional<std::vector<KeychainRecord>> find(const KeychainAttributes& match, bool all, bool withPasswords,
                                                          Error* error) = 0;
  // Deletes every item whose attributes include all of `match`. kKeychainErrorItemNotFound
  // when nothing matched.
  [[nodiscard]] virtual bool remove(const KeychainAttributes& match, Error* error) = 0;

  // Locks the keychain: until unlock(), every operation fails with
  // kKeychainErrorInteractionNotAllowed. What unlocking needs depends on the backend.
  [[nodiscard]] virtual bool lock(Error* error) = 0;
  [[nodiscard]] virtual bool unlock(Error* error) = 0;
};

// The keychain item operations use when none is passed: on first use, the Secret Service when
// the session bus offers one with a default collection, otherwise the file keychain in
// Env::defaultEnv()'s data home. Never nullptr, never destroyed.
KeychainBackend* defaultKeychain();

// The same choice for a given environment, as a new object that the caller owns; `env` must
// outlive it. Never nullptr: the file keychain always opens (its folder is made on first write).
std::unique_ptr<KeychainBackend> openKeychain(Env* env);

}  // namespace corvane
