#include "corvane/security/package_encryption.h"

#include "security/utf8.h"

namespace corvane {
namespace {

std::optional<Bytes> dataOf(const Value& v) {
  if (!v.isData()) return std::nullopt;
  ByteView b = v.bytes();
  return Bytes(b.begin(), b.end());
}

SeaCrypto makeCrypto(const EncryptionParameters& parameters, std::optional<std::string_view> password, Env* env) {
  SeaCrypto crypto(env);
  crypto.setSalt(parameters.salt);
  crypto.setRounds(parameters.rounds);
  if (password) {
    crypto.setPassword(*password);
  } else {
    crypto.setPassword(std::nullopt);
  }
  return crypto;
}

}  // namespace

bool isEncryptedPackageInfo(const Value& info) { return !info[kEncryptionKey].isNil(); }

std::optional<EncryptionParameters> encryptionParameters(const Value& info) {
  const Value& entry = info[kEncryptionKey];
  if (entry.isNil()) return std::nullopt;
  EncryptionParameters parameters;
  parameters.salt = dataOf(entry[kEncryptionSaltKey]);
  parameters.rounds = entry[kEncryptionRoundsKey].longLongValue();
  parameters.verifier = dataOf(entry[kEncryptionVerifierKey]);
  return parameters;
}

SeaCrypto seaCryptoForPackageInfo(const Value& info, std::optional<std::string_view> password, Env* env) {
  std::optional<EncryptionParameters> parameters = encryptionParameters(info);
  if (!parameters) return SeaCrypto(env);
  return makeCrypto(*parameters, password, env);
}

bool canOpenWithPassword(const Value& info, std::optional<std::string_view> password, Env* env, SeaCrypto* cipher) {
  std::optional<EncryptionParameters> parameters = encryptionParameters(info);
  if (!password && !parameters) return true;
  if (!parameters || !parameters->salt || !parameters->verifier) return false;
  // Without a password nothing can equal the verifier's text; skip the slow derivation.
  if (!password) return false;
  SeaCrypto crypto = makeCrypto(*parameters, password, env);
  std::optional<Bytes> plain = crypto.decryptData(*parameters->verifier);
  if (!plain) return false;
  std::string_view text = asStringView(*plain);
  if (!security_detail::isValidUTF8(text) || text != *password) return false;
  if (cipher != nullptr) *cipher = std::move(crypto);
  return true;
}

std::optional<Value> makeEncryptionEntry(std::string_view password, Env* env, int64_t rounds) {
  std::optional<Bytes> salt = SeaCrypto::generateSalt(env);
  if (!salt) return std::nullopt;
  SeaCrypto crypto(env);
  crypto.setSalt(salt);
  crypto.setRounds(rounds);
  crypto.setPassword(password);
  std::optional<Bytes> verifier = crypto.encryptData(asBytes(password));
  if (!verifier) return std::nullopt;
  return Value::mutableDictionary({
      {Value(kEncryptionSaltKey), Value::data(std::move(*salt))},
      {Value(kEncryptionRoundsKey), Value(static_cast<long long>(rounds))},
      {Value(kEncryptionVerifierKey), Value::data(std::move(*verifier))},
  });
}

}  // namespace corvane
