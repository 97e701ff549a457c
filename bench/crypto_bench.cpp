// SeaCrypto against OpenSSL doing the same raw work: AES-256-CBC with PKCS#7 padding plus
// HMAC-SHA-512 over IV and ciphertext, with a fresh random IV for each encryption. The
// reference reuses its cipher context and output buffer, so it is the floor of what the
// construction costs; the ratio (SeaCrypto's throughput / the reference's) says how close we
// come. Run with --benchmark_counters_tabular=true; the ratios are printed at the end.
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/security/sea_crypto.h"

namespace {

using corvane::Bytes;
using corvane::SeaCrypto;

constexpr int64_t kSizes[] = {4 << 10, 64 << 10, 1 << 20};

Bytes payload(size_t size) {
  Bytes data(size);
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(i * 131 + 17);
  return data;
}

// Both sides use the same keys; 1000 rounds keep the set-up short (it is not measured).
const SeaCrypto& sharedCrypto() {
  static const SeaCrypto crypto = [] {
    SeaCrypto c;
    c.setSalt(Bytes(64, 0x5a));
    c.setRounds(1000);
    c.setPassword("benchmark password");
    return c;
  }();
  return crypto;
}

// The reference: OpenSSL's EVP interface with everything reusable set up once.
class RawOpenSSL {
 public:
  RawOpenSSL() : cipher_(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)), ctx_(EVP_CIPHER_CTX_new()) {
    mac_ = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    macCtx_ = EVP_MAC_CTX_new(mac_);
  }
  ~RawOpenSSL() {
    EVP_MAC_CTX_free(macCtx_);
    EVP_MAC_free(mac_);
    EVP_CIPHER_CTX_free(ctx_);
    EVP_CIPHER_free(cipher_);
  }

  // Encrypts `in` into `out` (room for 16 + in + 16 + 64); returns the block length.
  size_t encrypt(const Bytes& key, const Bytes& keyHMAC, const Bytes& in, uint8_t* out) {
    RAND_bytes(out, 16);
    int n1 = 0, n2 = 0;
    EVP_EncryptInit_ex2(ctx_, cipher_, key.data(), out, nullptr);
    EVP_EncryptUpdate(ctx_, out + 16, &n1, in.data(), static_cast<int>(in.size()));
    EVP_EncryptFinal_ex(ctx_, out + 16 + n1, &n2);
    size_t authenticated = 16 + static_cast<size_t>(n1 + n2);
    mac(keyHMAC, out, authenticated, out + authenticated);
    return authenticated + 64;
  }

  // Checks the tag, then decrypts into `out`; returns the plain length or -1.
  long decrypt(const Bytes& key, const Bytes& keyHMAC, const uint8_t* block, size_t length, uint8_t* out) {
    size_t authenticated = length - 64;
    uint8_t tag[64];
    mac(keyHMAC, block, authenticated, tag);
    if (CRYPTO_memcmp(tag, block + authenticated, 64) != 0) return -1;
    int n1 = 0, n2 = 0;
    EVP_DecryptInit_ex2(ctx_, cipher_, key.data(), block, nullptr);
    EVP_DecryptUpdate(ctx_, out, &n1, block + 16, static_cast<int>(authenticated - 16));
    if (EVP_DecryptFinal_ex(ctx_, out + n1, &n2) != 1) return -1;
    return n1 + n2;
  }

 private:
  void mac(const Bytes& key, const uint8_t* data, size_t length, uint8_t* out) {
    char digest[] = "SHA512";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    size_t written = 0;
    EVP_MAC_init(macCtx_, key.data(), key.size(), params);
    EVP_MAC_update(macCtx_, data, length);
    EVP_MAC_final(macCtx_, out, &written, 64);
  }

  EVP_CIPHER* cipher_;
  EVP_CIPHER_CTX* ctx_;
  EVP_MAC* mac_;
  EVP_MAC_CTX* macCtx_;
};

void BM_SeaCryptoEncrypt(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  Bytes plain = payload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::optional<Bytes> block = crypto.encryptData(plain);
    benchmark::DoNotOptimize(block);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_OpenSSLEncrypt(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  RawOpenSSL raw;
  Bytes plain = payload(static_cast<size_t>(state.range(0)));
  Bytes out(16 + plain.size() + 16 + 64);
  for (auto _ : state) {
    size_t n = raw.encrypt(*crypto.key(), *crypto.keyHMAC(), plain, out.data());
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_SeaCryptoDecrypt(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  Bytes block = *crypto.encryptData(payload(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    std::optional<Bytes> plain = crypto.decryptData(block);
    if (!plain) state.SkipWithError("decryption failed");
    benchmark::DoNotOptimize(plain);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_OpenSSLDecrypt(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  RawOpenSSL raw;
  Bytes block = *crypto.encryptData(payload(static_cast<size_t>(state.range(0))));
  Bytes out(block.size());
  for (auto _ : state) {
    long n = raw.decrypt(*crypto.key(), *crypto.keyHMAC(), block.data(), block.size(), out.data());
    if (n < 0) state.SkipWithError("decryption failed");
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t size : kSizes) b->Arg(size);
}

BENCHMARK(BM_SeaCryptoEncrypt)->Apply(sizes);
BENCHMARK(BM_OpenSSLEncrypt)->Apply(sizes);
BENCHMARK(BM_SeaCryptoDecrypt)->Apply(sizes);
BENCHMARK(BM_OpenSSLDecrypt)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
  std::vector<corvane::bench::Comparison> comparisons;
  for (const char* op : {"Encrypt", "Decrypt"}) {
    for (int64_t size : kSizes) {
      std::string suffix = std::string(op) + "/" + std::to_string(size);
      comparisons.push_back({suffix, "BM_SeaCrypto" + suffix, "BM_OpenSSL" + suffix});
    }
  }
  return corvane::bench::runWithRatios(argc, argv,
                                       "SeaCrypto throughput / OpenSSL reference (goal: 0.90 or better from 64 KiB up)",
                                       "bytes_per_second", comparisons);
}
