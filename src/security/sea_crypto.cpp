#include "corvane/security/sea_crypto.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <climits>
#include <memory>

namespace corvane {
namespace {

constexpr size_t kKeyLength = 32;
constexpr size_t kCipherBlock = 16;
// EVP takes int lengths; larger blocks go through the cipher in slices of this size.
constexpr size_t kSlice = size_t{1} << 30;

// Algorithms are fetched once: an implicit fetch on every call costs as much as encrypting a
// few kilobytes. They are never freed, like the other process-wide singletons.
const EVP_CIPHER* aes256cbc() {
  static EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  return cipher;
}
EVP_MAC* hmacAlgorithm() {
  static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  return mac;
}

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct MacCtxFree {
  void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};

// HMAC-SHA-512 of `data` under `key` into out[0..63]; false when OpenSSL fails.
bool hmacSHA512(ByteView key, ByteView data, uint8_t* out) {
  if (hmacAlgorithm() == nullptr) return false;
  std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx(EVP_MAC_CTX_new(hmacAlgorithm()));
  if (!ctx) return false;
  char digestName[] = "SHA512";
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
                         OSSL_PARAM_construct_end()};
  // An empty key is legal for HMAC, but OpenSSL wants a non-null pointer for it.
  static const uint8_t kNoKey = 0;
  const uint8_t* keyBytes = key.empty() ? &kNoKey : key.data();
  if (EVP_MAC_init(ctx.get(), keyBytes, key.size(), params) != 1) return false;
  if (EVP_MAC_update(ctx.get(), data.data(), data.size()) != 1) return false;
  size_t length = 0;
  if (EVP_MAC_final(ctx.get(), out, &length, SeaCrypto::kTagLength) != 1) return false;
  return length == SeaCrypto::kTagLength;
}

// Runs AES-256-CBC with PKCS#7 padding over `in` into `out`, which has room for
// in.size() + 16 bytes. Returns the number of bytes produced, or nullopt when the cipher
// refuses (for decryption: a ciphertext that is empty, not whole blocks, or badly padded).
std::optional<size_t> aesCBC(bool encrypt, ByteView key, const uint8_t* iv, ByteView in, uint8_t* out) {
  if (aes256cbc() == nullptr) return std::nullopt;
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return std::nullopt;
  if (EVP_CipherInit_ex2(ctx.get(), aes256cbc(), key.data(), iv, encrypt ? 1 : 0, nullptr) != 1) {
    return std::nullopt;
  }
  size_t produced = 0;
  for (size_t offset = 0; offset < in.size(); offset += kSlice) {
    int sliceLength = static_cast<int>(std::min(kSlice, in.size() - offset));
    int written = 0;
    if (EVP_CipherUpdate(ctx.get(), out + produced, &written, in.data() + offset, sliceLength) != 1) {
      return std::nullopt;
    }
    produced += static_cast<size_t>(written);
  }
  int written = 0;
  if (EVP_CipherFinal_ex(ctx.get(), out + produced, &written) != 1) return std::nullopt;
  return produced + static_cast<size_t>(written);
}

void wipe(std::optional<Bytes>& secret) {
  if (secret && !secret->empty()) OPENSSL_cleanse(secret->data(), secret->size());
}

bool hasUsableKeys(const std::optional<Bytes>& key, const std::optional<Bytes>& keyHMAC) {
  return key && key->size() == kKeyLength && keyHMAC;
}

}  // namespace

SeaCrypto::SeaCrypto(Env* env) : env_(env) {}

SeaCrypto::~SeaCrypto() {
  wipe(key_);
  wipe(keyHMAC_);
}

std::optional<Bytes> SeaCrypto::dataWithRandomBytesOfSize(size_t size, Env* env) {
  Bytes bytes(size);
  if (size > 0 && !env->randomBytes(bytes.data(), size)) return std::nullopt;
  return bytes;
}

std::optional<Bytes> SeaCrypto::generateSalt(Env* env) { return dataWithRandomBytesOfSize(kSaltLength, env); }

void SeaCrypto::setPassword(std::string_view utf8) { setPassword(asBytes(utf8)); }

void SeaCrypto::setPassword(std::nullopt_t) { setPassword(ByteView()); }

void SeaCrypto::setPassword(ByteView password) {
  wipe(key_);
  wipe(keyHMAC_);
  key_.reset();
  keyHMAC_.reset();
  if (!salt_ || salt_->size() < kSaltLength) return;
  if (rounds_ < 1 || rounds_ > kMaximumRounds) return;

  uint8_t derived[2 * kKeyLength];
  static const char kNoPassword = 0;
  const char* passwordBytes = password.empty() ? &kNoPassword : reinterpret_cast<const char*>(password.data());
  if (password.size() > static_cast<size_t>(INT_MAX)) return;
  int ok =
      PKCS5_PBKDF2_HMAC(passwordBytes, static_cast<int>(password.size()), salt_->data(), static_cast<int>(kSaltLength),
                        static_cast<int>(rounds_), EVP_sha512(), static_cast<int>(sizeof derived), derived);
  if (ok == 1) {
    key_ = Bytes(derived, derived + kKeyLength);
    keyHMAC_ = Bytes(derived + kKeyLength, derived + 2 * kKeyLength);
  }
  OPENSSL_cleanse(derived, sizeof derived);
}

std::optional<Bytes> SeaCrypto::encryptData(ByteView plain) const {
  if (!hasUsableKeys(key_, keyHMAC_)) return std::nullopt;
  if (iv_ && iv_->size() < kIVLength) return std::nullopt;

  // One buffer for the whole block: IV, room for the ciphertext (input plus at most one
  // padding block), tag. It is cut to what the cipher produced before the tag goes on.
  Bytes block(kIVLength + plain.size() + kCipherBlock + kTagLength);
  if (iv_) {
    std::copy_n(iv_->begin(), kIVLength, block.begin());
  } else if (!env_->randomBytes(block.data(), kIVLength)) {
    return std::nullopt;
  }
  std::optional<size_t> produced = aesCBC(true, *key_, block.data(), plain, block.data() + kIVLength);
  if (!produced) return std::nullopt;
  size_t authenticated = kIVLength + *produced;
  if (!hmacSHA512(*keyHMAC_, ByteView(block.data(), authenticated), block.data() + authenticated)) {
    return std::nullopt;
  }
  block.resize(authenticated + kTagLength);
  return block;
}

std::optional<Bytes> SeaCrypto::decryptData(ByteView block) const {
  if (block.size() < kMinimumBlockLength || !hasUsableKeys(key_, keyHMAC_)) return std::nullopt;
  const size_t authenticated = block.size() - kTagLength;
  uint8_t tag[kTagLength];
  if (!hmacSHA512(*keyHMAC_, block.first(authenticated), tag)) return std::nullopt;
  // Constant time, so that the comparison does not tell a forger how many tag bytes are right.
  if (CRYPTO_memcmp(tag, block.data() + authenticated, kTagLength) != 0) return std::nullopt;

  ByteView ciphertext = block.subspan(kIVLength, authenticated - kIVLength);
  Bytes plain(ciphertext.size() + kCipherBlock);
  std::optional<size_t> produced = aesCBC(false, *key_, block.data(), ciphertext, plain.data());
  if (!produced) {
    OPENSSL_cleanse(plain.data(), plain.size());
    return std::nullopt;
  }
  plain.resize(*produced);
  return plain;
}

}  // namespace corvane
