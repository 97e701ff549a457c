// SeaCrypto — the cipher of a password-protected document.
//
// PBKDF2-HMAC-SHA-512 turns the password and the first 64 bytes of the salt into 64 bytes: an
// AES-256 key (bytes 0-31) and an HMAC-SHA-512 key (bytes 32-63). A block is encrypted with
// AES-256-CBC and PKCS#7 padding under a fresh random IV, then IV and ciphertext are
// authenticated (encrypt-then-MAC). The encrypted block has no header:
//
//   offset 0       16 bytes    IV
//   offset 16      n - 80      ciphertext (a multiple of 16, at least 16)
//   offset n - 64  64 bytes    HMAC-SHA-512 under keyHMAC of bytes 0 .. n-65
//
// Every failure is an empty result and nothing else: a wrong password and a damaged block look
// the same to the caller. The tag is checked in constant time before anything is decrypted.
//
// Threads: set the salt, rounds (and iv) and then the password on one thread; after that
// encryptData and decryptData are const and may run concurrently on any threads. Changing a
// property while another thread encrypts is not guarded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/env.h"

namespace corvane {

class SeaCrypto {
 public:
  // The iteration count given to new documents. (The class's `rounds` constant; it is spelled
  // defaultRounds() here because rounds() is the property of an instance.)
  static constexpr int64_t kDefaultRounds = 100000;
  static int64_t defaultRounds() { return kDefaultRounds; }
  // Salt length used by the key derivation (a longer salt is cut to it, a shorter one refused).
  static constexpr size_t kSaltLength = 64;
  static constexpr size_t kIVLength = 16;
  static constexpr size_t kTagLength = 64;
  // The shortest block that can be decrypted: IV, one cipher block, tag.
  static constexpr size_t kMinimumBlockLength = kIVLength + kTagLength;  // 80
  // Iteration counts above this are refused (no keys), so that a forged "Rounds" in a
  // package cannot make opening it hang. It is a hundred times the default.
  static constexpr int64_t kMaximumRounds = 100 * kDefaultRounds;

  // `env` supplies the random IVs; it must outlive the object.
  explicit SeaCrypto(Env* env = Env::defaultEnv());
  SeaCrypto(const SeaCrypto&) = default;
  SeaCrypto& operator=(const SeaCrypto&) = default;
  SeaCrypto(SeaCrypto&&) noexcept = default;
  SeaCrypto& operator=(SeaCrypto&&) noexcept = default;
  ~SeaCrypto();  // wipes the keys

  // `size` bytes from the secure random source of `env`; nullopt when it fails.
  static std::optional<Bytes> dataWithRandomBytesOfSize(size_t size, Env* env = Env::defaultEnv());
  // 64 fresh random bytes for a new document's salt; nullopt when the random source fails.
  static std::optional<Bytes> generateSalt(Env* env = Env::defaultEnv());

  // ---- Properties (set salt and rounds before the password) ------------------------------
  const std::optional<Bytes>& salt() const { return salt_; }
  void setSalt(std::optional<Bytes> salt) { salt_ = std::move(salt); }
  // A fixed IV (its first 16 bytes are used) instead of a random one; for tests and vectors.
  const std::optional<Bytes>& iv() const { return iv_; }
  void setIv(std::optional<Bytes> iv) { iv_ = std::move(iv); }
  const std::optional<Bytes>& key() const { return key_; }
  void setKey(std::optional<Bytes> key) { key_ = std::move(key); }
  const std::optional<Bytes>& keyHMAC() const { return keyHMAC_; }
  void setKeyHMAC(std::optional<Bytes> key) { keyHMAC_ = std::move(key); }
  // Kept for compatibility with the class's interface; encryption and decryption ignore it.
  const std::optional<Bytes>& hmac() const { return hmac_; }
  void setHmac(std::optional<Bytes> hmac) { hmac_ = std::move(hmac); }
  int64_t rounds() const { return rounds_; }
  void setRounds(int64_t rounds) { rounds_ = rounds; }

  // Derives key and keyHMAC from the password: a string by its UTF-8 bytes, bytes as they are,
  // std::nullopt as no bytes at all. Without a salt of at least 64 bytes, or when the
  // derivation fails (rounds < 1 or above kMaximumRounds), both keys are cleared instead.
  // Deliberately slow (rounds iterations of HMAC-SHA-512): derive once and keep the object.
  void setPassword(std::string_view utf8);
  void setPassword(ByteView bytes);
  void setPassword(std::nullopt_t);

  // An encrypted block of `plain`; nullopt without keys or when the random source fails.
  std::optional<Bytes> encryptData(ByteView plain) const;
  // The plain bytes of an encrypted block; nullopt when it is shorter than 80 bytes, when the
  // tag does not match (wrong password or damaged block), or when the cipher refuses it.
  std::optional<Bytes> decryptData(ByteView block) const;

 private:
  Env* env_;
  std::optional<Bytes> salt_;
  std::optional<Bytes> iv_;
  std::optional<Bytes> key_;
  std::optional<Bytes> keyHMAC_;
  std::optional<Bytes> hmac_;
  int64_t rounds_ = 0;
};

}  // namespace corvane
