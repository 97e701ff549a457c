// Byte-building helpers for the FastCoding tests: expected streams are written out by hand.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/bytes.h"

namespace corvane::testing_fast {

// The 20-byte header of a version 3.3 stream with the given table counts.
inline Bytes header(uint32_t objects, uint32_t classes, uint32_t strings) {
  Bytes b = {0x54, 0x53, 0x41, 0x46, 0x03, 0x00, 0x03, 0x00};
  for (uint32_t v : {objects, classes, strings})
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  return b;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline Bytes u32(uint32_t v) {
  return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
          static_cast<uint8_t>(v >> 24)};
}

inline Bytes f64(double d) {
  Bytes b(8);
  std::memcpy(b.data(), &d, 8);
  return b;
}

// UTF-8 bytes and the terminating NUL.
inline Bytes cstr(std::string_view s) {
  Bytes b(s.begin(), s.end());
  b.push_back(0);
  return b;
}

inline Bytes zeros(size_t n) { return Bytes(n, 0); }

// Hex text of bytes, with the offset of every 16th byte, for readable test failures.
inline std::string hex(const Bytes& b) {
  static const char* digits = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i % 16 == 0) out += "\n" + std::to_string(i) + ":";
    out += ' ';
    out += digits[b[i] >> 4];
    out += digits[b[i] & 15];
  }
  return out;
}

inline Bytes encode(const Value& v) {
  auto data = FastCoder::dataWithRootObject(v);
  return data ? *data : Bytes();
}

}  // namespace corvane::testing_fast
