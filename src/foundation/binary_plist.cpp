// Reader of binary property lists ("bplist00"). Our own rather than libplist's, because a
// hostile file (a dictionary key that is not a string, say) makes libplist abort the process.
//
// Layout: the 8-byte magic, the objects, an offset table, and a 32-byte trailer holding the
// offset-table entry size, the object-reference size, the object count, the top object and the
// offset table's position, all big-endian. Every object starts with a marker byte whose high
// nibble is the kind and whose low nibble a small count (0xF: the count follows as an integer
// object).
#include "foundation/binary_plist.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "corvane/foundation/plist.h"

namespace corvane::detail {
namespace {

class BinaryPlistReader {
 public:
  explicit BinaryPlistReader(ByteView bytes) : bytes_(bytes) {}

  std::optional<Value> read(bool mutableContainers, std::string* reason) {
    mutable_ = mutableContainers;
    if (bytes_.size() < 8 + 32) return fail(reason, "file too short");
    const uint8_t* trailer = bytes_.data() + bytes_.size() - 32;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    uint64_t count = be(trailer + 8, 8);
    uint64_t top = be(trailer + 16, 8);
    uint64_t tableOffset = be(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return fail(reason, "bad trailer");
    uint64_t tableEnd = bytes_.size() - 32;
    if (tableOffset < 8 || tableOffset > tableEnd || count == 0 || count > (tableEnd - tableOffset) / offsetSize_) {
      return fail(reason, "bad offset table");
    }
    offsets_.reserve(count);
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t offset = be(bytes_.data() + tableOffset + i * offsetSize_, offsetSize_);
      if (offset < 8 || offset >= tableOffset) return fail(reason, "object offset out of range");
      offsets_.push_back(offset);
    }
    onPath_.assign(count, false);
    Value root;
    if (!object(top, 0, &root)) return fail(reason, error_.empty() ? "malformed object" : error_);
    return root;
  }

 private:
  static std::optional<Value> fail(std::string* reason, std::string text) {
    if (reason) *reason = std::move(text);
    return std::nullopt;
  }

  static uint64_t be(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
  }

  bool bad(const char* why) {
    error_ = why;
    return false;
  }

  // The end of the object area: objects never reach into the offset table.
  uint64_t limit() const { return bytes_.size() - 32; }

  bool has(uint64_t at, uint64_t n) const { return at <= limit() && n <= limit() - at; }

  // The count of a marker: its low nibble, or the integer object that follows for 0xF.
  bool count(uint8_t marker, uint64_t* at, uint64_t* out) {
    uint64_t n = marker & 0x0F;
    if (n != 0x0F) {
      *out = n;
      return true;
    }
    if (!has(*at, 1)) return bad("truncated count");
    uint8_t intMarker = bytes_[*at];
    if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3) return bad("bad count");
    size_t width = size_t{1} << (intMarker & 0x0F);
    if (!has(*at + 1, width)) return bad("truncated count");
    *out = be(bytes_.data() + *at + 1, width);
    *at += 1 + width;
    return true;
  }

  bool ref(uint64_t at, uint64_t* out) {
    if (!has(at, refSize_)) return bad("truncated reference");
    *out = be(bytes_.data() + at, refSize_);
    if (*out >= offsets_.size()) return bad("reference out of range");
    return true;
  }

  bool object(uint64_t index, int depth, Value* out) {
    if (depth > kMaxPropertyListDepth) return bad("nesting too deep");
    if (index >= offsets_.size()) return bad("reference out of range");
    // A container that refers back to one it sits in has no property-list form.
    if (onPath_[index]) return bad("object refers to itself");
    uint64_t at = offsets_[index];
    uint8_t marker = bytes_[at++];
    switch (marker >> 4) {
      case 0x0:
        if (marker == 0x08 || marker == 0x09) {
          *out = Value::boolean(marker == 0x09);
          return true;
        }
        return bad("unsupported marker");
      case 0x1: {
        unsigned exponent = marker & 0x0F;
        if (exponent > 4) return bad("bad integer");
        size_t width = size_t{1} << exponent;
        if (!has(at, width)) return bad("truncated integer");
        // 16-byte integers keep their low 64 bits, which is how they are written for values
        // that need the unsigned range.
        const uint8_t* p = bytes_.data() + at + (width == 16 ? 8 : 0);
        uint64_t v = be(p, width == 16 ? 8 : width);
        if (width == 16) {
          *out = Value::unsignedNumber(NumberKind::UnsignedLongLong, v);
        } else {
          // 8-byte integers are signed; the narrower ones unsigned.
          *out = Value::number(NumberKind::LongLong, static_cast<int64_t>(v));
        }
        return true;
      }
      case 0x2: {
        unsigned exponent = marker & 0x0F;
        if (exponent != 2 && exponent != 3) return bad("bad real");
        size_t width = size_t{1} << exponent;
        if (!has(at, width)) return bad("truncated real");
        uint64_t raw = be(bytes_.data() + at, width);
        if (width == 4) {
          auto bits = static_cast<uint32_t>(raw);
          float f;
          std::memcpy(&f, &bits, 4);
          *out = Value::doubleNumber(f);
        } else {
          double d;
          std::memcpy(&d, &raw, 8);
          *out = Value::doubleNumber(d);
        }
        return true;
      }
      case 0x3: {
        if (marker != 0x33 || !has(at, 8)) return bad("bad date");
        uint64_t raw = be(bytes_.data() + at, 8);
        double d;
        std::memcpy(&d, &raw, 8);
        if (!std::isfinite(d)) return bad("bad date");
        *out = Value::date(d);
        return true;
      }
      case 0x4: {
        uint64_t n = 0;
        if (!count(marker, &at, &n)) return false;
        if (!has(at, n)) return bad("truncated data");
        *out = Value::data(ByteView(bytes_.data() + at, n));
        return true;
      }
      case 0x5: {
        uint64_t n = 0;
        if (!count(marker, &at, &n)) return false;
        if (!has(at, n)) return bad("truncated string");
        *out = Value::string(std::string_view(reinterpret_cast<const char*>(bytes_.data() + at), n));
        return true;
      }
      case 0x6: {
        uint64_t n = 0;
        if (!count(marker, &at, &n)) return false;
        if (n > limit() / 2 || !has(at, n * 2)) return bad("truncated string");
        std::string utf8;
        if (!utf16ToUtf8(bytes_.data() + at, n, &utf8)) return bad("bad UTF-16 string");
        *out = Value::string(utf8);
        return true;
      }
      case 0xA:
      case 0xC: {
        uint64_t n = 0;
        if (!count(marker, &at, &n)) return false;
        if (n > limit() / refSize_ || !has(at, n * refSize_)) return bad("truncated array");
        onPath_[index] = true;
        std::vector<Value> items;
        items.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
          uint64_t r = 0;
          Value item;
          if (!ref(at + i * refSize_, &r) || !object(r, depth + 1, &item)) return false;
          items.push_back(std::move(item));
        }
        onPath_[index] = false;
        *out = (marker >> 4) == 0xA ? Value::array(std::move(items), mutable_) : Value::set(std::move(items), mutable_);
        return true;
      }
      case 0xD: {
        uint64_t n = 0;
        if (!count(marker, &at, &n)) return false;
        if (n > limit() / (2 * uint64_t{refSize_}) || !has(at, 2 * n * refSize_)) return bad("truncated dictionary");
        onPath_[index] = true;
        std::vector<std::pair<Value, Value>> entries;
        entries.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
          uint64_t keyRef = 0, valueRef = 0;
          Value key, value;
          if (!ref(at + i * refSize_, &keyRef) || !ref(at + (n + i) * refSize_, &valueRef)) return false;
          if (!object(keyRef, depth + 1, &key) || !object(valueRef, depth + 1, &value)) return false;
          if (!key.isString()) return bad("dictionary key is not a string");
          entries.emplace_back(std::move(key), std::move(value));
        }
        onPath_[index] = false;
        *out = Value::dictionary(std::move(entries), mutable_);
        return true;
      }
      default:
        return bad("unsupported marker");
    }
  }

  static bool utf16ToUtf8(const uint8_t* p, uint64_t units, std::string* out) {
    out->reserve(units);
    for (uint64_t i = 0; i < units; ++i) {
      uint32_t c = (uint32_t{p[2 * i]} << 8) | p[2 * i + 1];
      if (c >= 0xD800 && c <= 0xDBFF) {
        if (i + 1 >= units) return false;
        uint32_t low = (uint32_t{p[2 * i + 2]} << 8) | p[2 * i + 3];
        if (low < 0xDC00 || low > 0xDFFF) return false;
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      } else if (c >= 0xDC00 && c <= 0xDFFF) {
        return false;
      }
      if (c < 0x80) {
        out->push_back(static_cast<char>(c));
      } else if (c < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (c >> 6)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else if (c < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (c >> 12)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else {
        out->push_back(static_cast<char>(0xF0 | (c >> 18)));
        out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
      }
    }
    return true;
  }

  ByteView bytes_;
  bool mutable_ = false;
  size_t offsetSize_ = 0;
  size_t refSize_ = 0;
  std::vector<uint64_t> offsets_;
  std::vector<bool> onPath_;
  std::string error_;
};

}  // namespace

bool isBinaryPropertyList(ByteView bytes) { return bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist00", 8) == 0; }

std::optional<Value> readBinaryPropertyList(ByteView bytes, bool mutableContainers, std::string* reason) {
  return BinaryPlistReader(bytes).read(mutableContainers, reason);
}

}  // namespace corvane::detail
