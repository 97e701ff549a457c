// Backend selection and what every backend shares.
#include "corvane/security/keychain.h"

#include <span>
#include <utility>

#include <fmt/format.h>

#include "corvane/foundation/log.h"
#include "corvane/security/file_keychain.h"
#include "corvane/security/secret_service_keychain.h"

namespace corvane {

KeychainBackend::~KeychainBackend() = default;

KeychainAttributes keychainPrimaryKey(const KeychainAttributes& attributes) {
  auto valueOf = [&](const char* key) {
    auto it = attributes.find(key);
    return it == attributes.end() ? std::string() : it->second;
  };
  const std::string itemClass = valueOf(kKeychainClass);
  static constexpr const char* kGenericKeys[] = {kKeychainService, kKeychainAccount};
  static constexpr const char* kInternetKeys[] = {kKeychainServer, kKeychainSecurityDomain, kKeychainPath,
                                                  kKeychainPort,   kKeychainProtocol,       kKeychainAuthenticationType,
                                                  kKeychainAccount};
  const std::span<const char* const> keys = itemClass == kKeychainClassInternetPassword
                                                ? std::span<const char* const>(kInternetKeys)
                                                : std::span<const char* const>(kGenericKeys);
  KeychainAttributes key{{kKeychainClass, itemClass}};
  for (const char* k : keys) key[k] = valueOf(k);
  return key;
}

Error keychainError(int status, std::string description) {
  return Error(kKeychainErrorDomain, status, std::move(description));
}

std::unique_ptr<KeychainBackend> openKeychain(Env* env) {
  Error refusal;
  if (auto secretService = openSecretServiceKeychain(&refusal)) return secretService;
  logLine(fmt::format("Corvane: keychain: {}; using the file keychain", refusal.localizedDescription));
  return newFileKeychain(env, defaultFileKeychainFolder(env));
}

KeychainBackend* defaultKeychain() {
  // A default only: every operation also takes a backend, so no host has to rely on it.
  static KeychainBackend* const keychain = openKeychain(Env::defaultEnv()).release();
  return keychain;
}

}  // namespace corvane
