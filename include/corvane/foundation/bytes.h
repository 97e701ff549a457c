// Byte buffers: Bytes owns, ByteView borrows. Shared by every layer that reads or writes files.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline ByteView asBytes(std::string_view s) noexcept {
  return ByteView(reinterpret_cast<const uint8_t*>(s.data()), s.size());
}
inline std::string_view asStringView(ByteView b) noexcept {
  return std::string_view(reinterpret_cast<const char*>(b.data()), b.size());
}
inline Bytes toBytes(std::string_view s) { return Bytes(s.begin(), s.end()); }
inline std::string toString(ByteView b) { return std::string(asStringView(b)); }

}  // namespace corvane
