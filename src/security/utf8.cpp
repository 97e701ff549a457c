#include "security/utf8.h"

#include <cstdint>

namespace corvane::security_detail {

bool isValidUTF8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t length;
    uint32_t cp;
    uint32_t minimum;
    if ((c & 0xE0) == 0xC0) {
      length = 2, cp = c & 0x1F, minimum = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, cp = c & 0x0F, minimum = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4, cp = c & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) < length) return false;
    for (size_t i = 1; i < length; ++i) {
      if (!isContinuationByte(p[i])) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += length;
  }
  return true;
}

}  // namespace corvane::security_detail
