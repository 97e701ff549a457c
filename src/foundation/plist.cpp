#include "corvane/foundation/plist.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "corvane/foundation/env.h"

namespace corvane {
namespace {

struct PlistDeleter {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

Error plistError(std::string text) {
  return Error(kCocoaErrorDomain, 3840, std::move(text));
}

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
    case ValueKind::Date:
      return true;
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

plist_t toNode(const Value& v) {
  switch (v.kind()) {
    case ValueKind::String:
      return plist_new_string(v.str().c_str());
    case ValueKind::Data: {
      ByteView b = v.bytes();
      return plist_new_data(reinterpret_cast<const char*>(b.data()), b.size());
    }
    case ValueKind::Date: {
      double seconds = v.dateValue();
      double whole = std::floor(seconds);
      auto usec = static_cast<int32_t>(std::llround((seconds - whole) * 1e6));
      auto sec = static_cast<int32_t>(whole);
      if (usec >= 1000000) {
        ++sec;
        usec -= 1000000;
      }
      return plist_new_date(sec, usec);
    }
    case ValueKind::Number:
      if (v.isBoolean()) return plist_new_bool(v.boolValue() ? 1 : 0);
      if (v.isFloatingPoint()) return plist_new_real(v.doubleValue());
      if (v.isUnsigned()) return plist_new_uint(v.unsignedLongLongValue());
      return plist_new_uint(static_cast<uint64_t>(v.longLongValue()));
    case ValueKind::Decimal: {
      int64_t i = 0;
      if (v.decimalValue().toInt64(&i)) return plist_new_uint(static_cast<uint64_t>(i));
      return plist_new_real(v.decimalValue().toDouble());
    }
    case ValueKind::Array: {
      plist_t node = plist_new_array();
      for (const Value& item : v.elements()) plist_array_append_item(node, toNode(item));
      return node;
    }
    case ValueKind::Dictionary: {
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : v.entries()) plist_dict_set_item(node, key.str().c_str(), toNode(item));
      return node;
    }
    default:
      return nullptr;
  }
}

}  // namespace

std::optional<Value> propertyListFromBytes(ByteView bytes, Error* error, bool mutableContainers) {
  if (bytes.empty() || bytes.size() > UINT32_MAX) {
    setError(error, plistError("The data couldn't be read because it isn't in the correct format."));
    return std::nullopt;
  }
  plist_t raw = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &raw);
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
  PlistPtr root(toNode(value));
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(static_cast<plist_t>(root.get()), &xml, &length);
  if (xml == nullptr) {
    setError(error, plistError("Property list could not be serialised."));
    return std::nullopt;
  }
  Bytes out(xml, xml + length);
  plist_to_xml_free(xml);
  return out;
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
