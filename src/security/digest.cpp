#include "corvane/security/digest.h"

#include <openssl/evp.h>

#include <new>

namespace corvane {
namespace {

Bytes digest(const EVP_MD* md, ByteView bytes) {
  Bytes out(static_cast<size_t>(EVP_MD_get_size(md)));
  unsigned int length = 0;
  // A one-shot digest only fails when OpenSSL cannot allocate its context; there is no
  // sensible empty answer for a digest, so that is treated like any other allocation failure.
  if (EVP_Digest(bytes.data(), bytes.size(), out.data(), &length, md, nullptr) != 1) {
    throw std::bad_alloc();
  }
  out.resize(length);
  return out;
}

std::string hex(ByteView bytes, const char* digits) {
  std::string out;
  out.resize(bytes.size() * 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  return out;
}

constexpr const char* kUpperDigits = "0123456789ABCDEF";
constexpr const char* kLowerDigits = "0123456789abcdef";

}  // namespace

Bytes sha256(ByteView bytes) { return digest(EVP_sha256(), bytes); }

Bytes md5(ByteView bytes) { return digest(EVP_md5(), bytes); }

std::string corvaneHexadecimalString(ByteView bytes) { return hex(bytes, kUpperDigits); }

std::string corvaneSHA256HexDigest(ByteView bytes) { return hex(sha256(bytes), kLowerDigits); }

std::string storeSHA256String(std::string_view utf8) { return corvaneHexadecimalString(sha256(asBytes(utf8))); }

std::string storeMD5String(std::string_view utf8) {
  // The digest has always been taken of the C string, so an embedded NUL ends the input.
  std::string_view upToNul = utf8.substr(0, utf8.find('\0'));
  return corvaneHexadecimalString(md5(asBytes(upToNul)));
}

}  // namespace corvane
