// Fuzzes decryption of encrypted blocks: arbitrary blocks (the tag check refuses them), and
// arbitrary IV-plus-ciphertext under a valid tag, which reaches the cipher's padding check.
// Whatever is encrypted must decrypt to itself.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstddef>
#include <cstdint>

#include "corvane/security/sea_crypto.h"

using namespace corvane;

namespace {

SeaCrypto& crypto() {
  static SeaCrypto* c = [] {
    auto* s = new SeaCrypto();
    s->setKey(Bytes(32, 0x11));
    s->setKeyHMAC(Bytes(32, 0x22));
    return s;
  }();
  return *c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SeaCrypto& c = crypto();
  c.decryptData(ByteView(data, size));

  Bytes signedBlock(data, data + size);
  unsigned int tagLength = 0;
  uint8_t tag[64];
  const Bytes& macKey = *c.keyHMAC();
  HMAC(EVP_sha512(), macKey.data(), static_cast<int>(macKey.size()), data, size, tag, &tagLength);
  signedBlock.insert(signedBlock.end(), tag, tag + tagLength);
  c.decryptData(signedBlock);

  std::optional<Bytes> sealed = c.encryptData(ByteView(data, size));
  if (!sealed) __builtin_trap();
  std::optional<Bytes> opened = c.decryptData(*sealed);
  if (!opened || *opened != Bytes(data, data + size)) __builtin_trap();
  return 0;
}
