// UTF-8 helpers private to the security layer.
#pragma once

#include <cstddef>
#include <string_view>

namespace corvane::security_detail {

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above
// U+10FFFF), the condition under which the platform could make a string of it.
bool isValidUTF8(std::string_view text);

// True for a byte that continues a multi-byte sequence (10xxxxxx).
inline bool isContinuationByte(unsigned char c) { return (c & 0xC0) == 0x80; }

}  // namespace corvane::security_detail
