#include "corvane/foundation/plist.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "corvane/foundation/env.h"
#include "foundation/binary_plist.h"

namespace corvane {
namespace {

struct PlistDeleter {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

Error plistError(std::string text) { return Error(kCocoaErrorDomain, 3840, std::move(text)); }

// Converts a parsed node. Returns false when the tree holds something we cannot represent
// or nests too deeply.
bool fromNode(plist_t node, bool mutableContainers, int depth, Value* out) {
  if (depth > kMaxPropertyListDepth) return false;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      *out = Value::boolean(b != 0);
      return true;
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      // The library keeps integers as 64 bits; values written as negative come back in
      // two's complement, which is exactly the signed reading.
      *out = Value::number(NumberKind::LongLong, static_cast<int64_t>(u));
      return true;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      *out = Value::doubleNumber(d);
      return true;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      *out = Value::string(std::string_view(s ? s : "", s ? length : 0));
      return true;
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      *out = Value::data(ByteView(reinterpret_cast<const uint8_t*>(p), p ? length : 0));
      return true;
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      *out = Value::date(static_cast<double>(sec) + static_cast<double>(usec) / 1e6);
      return true;
    }
    case PLIST_ARRAY: {
      uint32_t n = plist_array_get_size(node);
      std::vector<Value> items;
      items.reserve(n);
      for (uint32_t i = 0; i < n; ++i) {
        Value item;
        if (!fromNode(plist_array_get_item(node, i), mutableContainers, depth + 1, &item)) return false;
        items.push_back(std::move(item));
      }
      *out = Value::array(std::move(items), mutableContainers);
      return true;
    }
    case PLIST_DICT: {
      std::vector<std::pair<Value, Value>> entries;
      entries.reserve(plist_dict_get_size(node));
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      bool ok = true;
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (item == nullptr) {
          std::free(key);
          break;
        }
        Value v;
        ok = fromNode(item, mutableContainers, depth + 1, &v);
        if (ok) entries.emplace_back(Value::string(key ? key : ""), std::move(v));
        std::free(key);
        if (!ok) break;
      }
      std::free(it);
      if (!ok) return false;
      *out = Value::dictionary(std::move(entries), mutableContainers);
      return true;
    }
    default:  // UIDs belong to keyed archives, which are not property lists of ours
      return false;
  }
}

bool plistValue(const Value& v, int depth) {
  if (depth > kMaxPropertyListDepth) return false;
  switch (v.kind()) {
    case ValueKind::String:
    case ValueKind::Data:
      return true;
    case ValueKind::Date:
      return std::isfinite(v.dateValue()) && std::fabs(v.dateValue()) < 1e15;
    case ValueKind::Number:
      return !v.isFloatingPoint() || std::isfinite(v.doubleValue());
    case ValueKind::Decimal:
      return !v.decimalValue().isNaN();
    case ValueKind::Array:
      for (const Value& item : v.elements())
        if (!plistValue(item, depth + 1)) return false;
      return true;
    case ValueKind::Dictionary:
      for (const auto& [key, item] : v.entries())
        if (!key.isString() || !plistValue(item, depth + 1)) return false;
      return true;
    default:
      return false;
  }
}

// The XML form is written here rather than by libplist, whose date API holds only 32-bit
// seconds (dates before 1933 or after 2069 would wrap) and which writes integers as unsigned.
void appendEscaped(std::string* out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '&':
        *out += "&amp;";
        break;
      case '<':
        *out += "&lt;";
        break;
      case '>':
        *out += "&gt;";
        break;
      default:
        out->push_back(c);
    }
  }
}

void appendBase64(std::string* out, ByteView bytes) {
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t n = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int shift : {18, 12, 6, 0}) out->push_back(kAlphabet[(n >> shift) & 63]);
  }
  if (i + 1 == bytes.size()) {
    uint32_t n = uint32_t{bytes[i]} << 16;
    *out += {kAlphabet[(n >> 18) & 63], kAlphabet[(n >> 12) & 63], '=', '='};
  } else if (i + 2 == bytes.size()) {
    uint32_t n = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8);
    *out += {kAlphabet[(n >> 18) & 63], kAlphabet[(n >> 12) & 63], kAlphabet[(n >> 6) & 63], '='};
  }
}

// Whole seconds in GMT, as the XML form keeps them: "2024-05-17T09:41:07Z".
void appendDate(std::string* out, double secondsSince2001) {
  auto unix = static_cast<int64_t>(std::floor(secondsSince2001)) + static_cast<int64_t>(kSecondsFrom1970To2001);
  int64_t days = unix >= 0 ? unix / 86400 : -((-unix + 86399) / 86400);
  int64_t rest = unix - days * 86400;
  // Civil date from days since 1970-01-01 (Howard Hinnant's algorithm).
  int64_t z = days + 719468;
  int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t day = doy - (153 * mp + 2) / 5 + 1;
  int64_t month = mp < 10 ? mp + 3 : mp - 9;
  int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  char buffer[160];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02lld-%02lldT%02lld:%02lld:%02lldZ", static_cast<long long>(year),
                static_cast<long long>(month), static_cast<long long>(day), static_cast<long long>(rest / 3600),
                static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60));
  *out += buffer;
}

void appendIndent(std::string* out, int depth) { out->append(static_cast<size_t>(depth), '\t'); }

void appendXml(std::string* out, const Value& v, int depth) {
  appendIndent(out, depth);
  switch (v.kind()) {
    case ValueKind::String:
      *out += "<string>";
      appendEscaped(out, v.str());
      *out += "</string>\n";
      return;
    case ValueKind::Data:
      *out += "<data>";
      appendBase64(out, v.bytes());
      *out += "</data>\n";
      return;
    case ValueKind::Date:
      *out += "<date>";
      appendDate(out, v.dateValue());
      *out += "</date>\n";
      return;
    case ValueKind::Number:
      if (v.isBoolean()) {
        *out += v.boolValue() ? "<true/>\n" : "<false/>\n";
      } else if (v.isFloatingPoint()) {
        *out += "<real>" + Value::doubleNumber(v.doubleValue()).description() + "</real>\n";
      } else if (v.isUnsigned()) {
        *out += "<integer>" + std::to_string(v.unsignedLongLongValue()) + "</integer>\n";
      } else {
        *out += "<integer>" + std::to_string(v.longLongValue()) + "</integer>\n";
      }
      return;
    case ValueKind::Decimal: {
      int64_t i = 0;
      if (v.decimalValue().toInt64(&i)) {
        *out += "<integer>" + std::to_string(i) + "</integer>\n";
      } else {
        *out += "<real>" + v.decimalValue().toString() + "</real>\n";
      }
      return;
    }
    case ValueKind::Array:
      if (v.empty()) {
        *out += "<array/>\n";
        return;
      }
      *out += "<array>\n";
      for (const Value& item : v.elements()) appendXml(out, item, depth + 1);
      appendIndent(out, depth);
      *out += "</array>\n";
      return;
    case ValueKind::Dictionary:
      if (v.empty()) {
        *out += "<dict/>\n";
        return;
      }
      *out += "<dict>\n";
      for (const auto& [key, item] : v.entries()) {
        appendIndent(out, depth + 1);
        *out += "<key>";
        appendEscaped(out, key.str());
        *out += "</key>\n";
        appendXml(out, item, depth + 1);
      }
      appendIndent(out, depth);
      *out += "</dict>\n";
      return;
    default:
      return;  // excluded by the validity check
  }
}

}  // namespace

std::optional<Value> propertyListFromBytes(ByteView bytes, Error* error, bool mutableContainers) {
  if (bytes.empty() || bytes.size() > UINT32_MAX) {
    setError(error, plistError("The data couldn't be read because it isn't in the correct format."));
    return std::nullopt;
  }
  if (detail::isBinaryPropertyList(bytes)) {
    std::string reason;
    std::optional<Value> v = detail::readBinaryPropertyList(bytes, mutableContainers, &reason);
    if (!v) {
      setError(error, plistError("The data couldn't be read because it isn't in the correct format (" + reason + ")."));
    }
    return v;
  }
  plist_t raw = nullptr;
  plist_from_xml(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &raw);
  PlistPtr root(raw);
  Value out;
  if (!raw || !fromNode(raw, mutableContainers, 0, &out)) {
    setError(error, plistError("The data couldn't be read because it isn't in the correct format."));
    return std::nullopt;
  }
  return out;
}

bool isValidPropertyList(const Value& value) { return plistValue(value, 0); }

std::optional<Bytes> xmlPropertyListBytes(const Value& value, Error* error) {
  if (!plistValue(value, 0)) {
    setError(error, plistError("Property list invalid for format: " + value.description()));
    return std::nullopt;
  }
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  appendXml(&xml, value, 0);
  xml += "</plist>\n";
  return Bytes(xml.begin(), xml.end());
}

bool readPropertyListFile(Env* env, const std::string& path, Value* out, Error* error, bool mutableContainers) {
  Bytes bytes;
  if (!env->readFile(path, &bytes, error)) return false;
  std::optional<Value> v = propertyListFromBytes(bytes, error, mutableContainers);
  if (!v) return false;
  *out = std::move(*v);
  return true;
}

bool writePropertyListFile(Env* env, const std::string& path, const Value& value, Error* error) {
  std::optional<Bytes> bytes = xmlPropertyListBytes(value, error);
  return bytes && env->writeFileAtomically(path, *bytes, error);
}

}  // namespace corvane
