// Digests and hexadecimal forms of bytes and strings.
//
// Two hexadecimal spellings live side by side in the package's files and are NOT
// interchangeable: corvaneHexadecimalString / storeSHA256String / storeMD5String write UPPER
// case, corvaneSHA256HexDigest writes lower case. Each caller uses the one its file format fixes.
//
// Threads: every function is pure and may be called from any thread.
#pragma once

#include <string>
#include <string_view>

#include "corvane/foundation/bytes.h"

namespace corvane {

// The 32-byte SHA-256 digest of the bytes.
Bytes sha256(ByteView bytes);
// The 16-byte MD5 digest of the bytes (a content fingerprint, not a security measure).
Bytes md5(ByteView bytes);

// Each byte as two UPPER-case hexadecimal digits, no separators; "" for no bytes.
std::string corvaneHexadecimalString(ByteView bytes);
// SHA-256 of the bytes as 64 lower-case hexadecimal digits.
std::string corvaneSHA256HexDigest(ByteView bytes);
// SHA-256 of the string's UTF-8 bytes as 64 UPPER-case hexadecimal digits.
std::string storeSHA256String(std::string_view utf8);
// MD5 of the string's UTF-8 bytes up to the first NUL, as 32 UPPER-case hexadecimal digits.
std::string storeMD5String(std::string_view utf8);

}  // namespace corvane
