#include "corvane/foundation/json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <vector>

namespace corvane {
namespace {

// Builds Values straight from the parser's events. Open containers live on an explicit
// stack of frames, so nesting costs heap, not call depth.
class ValueBuilder {
 public:
  explicit ValueBuilder(const JsonReadOptions& options) : options_(options) {}

  bool Null() { return add(Value::null()); }
  bool Bool(bool b) { return add(Value::boolean(b)); }
  // Numbers arrive as their text (RapidJSON's own conversion overflows on extreme exponents).
  bool Int(int) { return false; }
  bool Uint(unsigned) { return false; }
  bool Int64(int64_t) { return false; }
  bool Uint64(uint64_t) { return false; }
  bool Double(double) { return false; }
  bool RawNumber(const char* s, rapidjson::SizeType length, bool) {
    const char* end = s + length;
    bool integral = std::find_if(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end;
    if (integral) {
      int64_t i = 0;
      if (auto r = std::from_chars(s, end, i); r.ec == std::errc() && r.ptr == end) {
        return add(Value::number(NumberKind::LongLong, i));
      }
      uint64_t u = 0;
      if (auto r = std::from_chars(s, end, u); r.ec == std::errc() && r.ptr == end) {
        return add(Value::unsignedNumber(NumberKind::UnsignedLongLong, u));
      }
    }
    double d = 0;
    auto r = std::from_chars(s, end, d);
    if (r.ec == std::errc::result_out_of_range) {
      // Too small for a double is zero; too large has no double at all. JSON has no leading
      // zeros, so an integer part of "0" means a magnitude below one.
      const char* e = std::find_if(s, end, [](char c) { return c == 'e' || c == 'E'; });
      bool negativeExponent = e != end && e + 1 < end && e[1] == '-';
      const char* digits = (*s == '-') ? s + 1 : s;
      if (!negativeExponent && !(e == end && digits < end && *digits == '0')) {
        refusal_ = "Number too big to be stored in double.";
        return false;
      }
      d = (*s == '-') ? -0.0 : 0.0;
    } else if (r.ec != std::errc() || r.ptr != end) {
      refusal_ = "Invalid number.";
      return false;
    }
    return add(Value::doubleNumber(d));
  }
  bool String(const char* s, rapidjson::SizeType length, bool) {
    if (holdsSurrogate(s, length)) return false;
    return add(Value::string(std::string_view(s, length), options_.mutableLeaves));
  }
  bool Key(const char* s, rapidjson::SizeType length, bool) {
    if (holdsSurrogate(s, length)) return false;
    frames_[depth_ - 1].pendingKey = internedKey(std::string_view(s, length));
    return true;
  }
  bool StartObject() { return open(true); }
  bool EndObject(rapidjson::SizeType) {
    Frame& frame = frames_[--depth_];
    Value v = Value::dictionaryMovingFrom(frame.entries, options_.mutableContainers);
    frame.entries.clear();
    return add(std::move(v));
  }
  bool StartArray() { return open(false); }
  bool EndArray(rapidjson::SizeType) {
    Frame& frame = frames_[--depth_];
    Value v = Value::arrayMovingFrom(frame.items, options_.mutableContainers);
    frame.items.clear();
    return add(std::move(v));
  }

  // The input's bytes are checked as UTF-8, but a \u escape of a lone surrogate ("\udddd")
  // decodes to the bytes ED A0..BF xx, which are no UTF-8 at all; such text is refused.
  bool holdsSurrogate(const char* s, size_t length) {
    for (const char* p = s; (p = static_cast<const char*>(std::memchr(p, '\xED', length - (p - s)))) != nullptr; ++p) {
      if (p + 1 < s + length && (static_cast<unsigned char>(p[1]) & 0xE0) == 0xA0) {
        refusal_ = "Unpaired surrogate in a \\u escape.";
        return true;
      }
    }
    return false;
  }

  bool tooDeep() const { return tooDeep_; }
  const char* refusal() const { return refusal_; }
  Value result() { return std::move(root_); }

 private:
  struct Frame {
    bool isObject = false;
    Value pendingKey;
    std::vector<Value> items;
    std::vector<std::pair<Value, Value>> entries;
  };

  // Frames stay allocated when their container closes, so the next container at the same
  // depth reuses their buffers instead of growing new ones.
  bool open(bool isObject) {
    if (depth_ >= static_cast<size_t>(kMaxJsonDepth)) {
      tooDeep_ = true;
      return false;
    }
    if (depth_ == frames_.size()) frames_.emplace_back();
    frames_[depth_++].isObject = isObject;
    return true;
  }

  bool add(Value v) {
    if (depth_ == 0) {
      root_ = std::move(v);
    } else if (Frame& top = frames_[depth_ - 1]; top.isObject) {
      top.entries.emplace_back(std::move(top.pendingKey), std::move(v));
    } else {
      top.items.push_back(std::move(v));
    }
    return true;
  }

  // Keys repeat across the records of a file ("length", "hash", "name", ...). Immutable
  // strings can share one node, which saves an allocation per repetition.
  Value internedKey(std::string_view key) {
    if (key.size() > kMaxInternedKeyLength) return Value::string(key);
    auto it = keys_.find(key);
    if (it != keys_.end()) return it->second;
    Value v = Value::string(key);
    keys_.emplace(std::string_view(v.str()), v);
    return v;
  }

  static constexpr size_t kMaxInternedKeyLength = 24;  // UIDs and other unique keys are longer
  const JsonReadOptions& options_;
  std::unordered_map<std::string_view, Value> keys_;
  std::vector<Frame> frames_;
  size_t depth_ = 0;
  Value root_;
  bool tooDeep_ = false;
  const char* refusal_ = nullptr;
};

bool validNumber(const Value& v) {
  if (v.isDecimal()) return !v.decimalValue().isNaN();
  if (!v.isFloatingPoint()) return true;
  return std::isfinite(v.doubleValue());
}

bool isJsonValue(const Value& v, int depth) {
  if (depth > kMaxJsonDepth) return false;
  switch (v.kind()) {
    case ValueKind::Null:
    case ValueKind::String:
      return true;
    case ValueKind::Number:
    case ValueKind::Decimal:
      return validNumber(v);
    case ValueKind::Array:
      for (const Value& item : v.elements())
        if (!isJsonValue(item, depth + 1)) return false;
      return true;
    case ValueKind::Dictionary:
      for (const auto& [key, item] : v.entries())
        if (!key.isString() || !isJsonValue(item, depth + 1)) return false;
      return true;
    default:
      return false;
  }
}

template <typename Writer>
void writeValue(Writer& w, const Value& v) {
  switch (v.kind()) {
    case ValueKind::Null:
      w.Null();
      break;
    case ValueKind::String:
      w.String(v.str().data(), static_cast<rapidjson::SizeType>(v.str().size()));
      break;
    case ValueKind::Decimal: {
      std::string text = v.decimalValue().toString();
      w.RawValue(text.data(), text.size(), rapidjson::kNumberType);
      break;
    }
    case ValueKind::Number:
      if (v.isBoolean()) {
        w.Bool(v.boolValue());
      } else if (v.isFloatingPoint()) {
        double d = v.doubleValue();
        // Whole doubles print without a fraction, as the platform's serialiser does.
        if (d == std::trunc(d) && std::fabs(d) < 1e15) {
          w.Int64(static_cast<int64_t>(d));
        } else {
          w.Double(d);
        }
      } else if (v.isUnsigned()) {
        w.Uint64(v.unsignedLongLongValue());
      } else {
        w.Int64(v.longLongValue());
      }
      break;
    case ValueKind::Array:
      w.StartArray();
      for (const Value& item : v.elements()) writeValue(w, item);
      w.EndArray();
      break;
    case ValueKind::Dictionary:
      w.StartObject();
      for (const auto& [key, item] : v.entries()) {
        w.Key(key.str().data(), static_cast<rapidjson::SizeType>(key.str().size()));
        writeValue(w, item);
      }
      w.EndObject();
      break;
    default:
      break;  // excluded by the validity check
  }
}

}  // namespace

std::optional<Value> jsonToValue(std::string_view text, Error* error, const JsonReadOptions& options) {
  ValueBuilder builder(options);
  rapidjson::Reader reader;
  rapidjson::MemoryStream stream(text.data(), text.size());
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseStopWhenDoneFlag |
                              rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
  rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
  if (result.IsError()) {
    std::string reason = builder.tooDeep()   ? "Nesting too deep."
                         : builder.refusal() ? builder.refusal()
                                             : rapidjson::GetParseError_En(result.Code());
    setError(error, Error(kCocoaErrorDomain, 3840,
                          "JSON text is not valid at byte " + std::to_string(result.Offset()) + ": " + reason, {},
                          dict({{"offset", static_cast<long long>(result.Offset())}, {"reason", reason}})));
    return std::nullopt;
  }
  // kParseStopWhenDoneFlag stops after the value; only white space may follow it.
  for (size_t i = stream.Tell(); i < text.size(); ++i) {
    char c = text[i];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
      std::string reason = "The document root must not be followed by other values.";
      setError(error,
               Error(kCocoaErrorDomain, 3840, "JSON text is not valid at byte " + std::to_string(i) + ": " + reason, {},
                     dict({{"offset", static_cast<long long>(i)}, {"reason", reason}})));
      return std::nullopt;
    }
  }
  return builder.result();
}

bool isValidJSONObject(const Value& value) {
  return (value.isArray() || value.isDictionary()) && isJsonValue(value, 0);
}

std::optional<std::string> valueToJson(const Value& value, JsonStyle style, Error* error) {
  if (!isJsonValue(value, 0)) {
    setError(error, Error(kCocoaErrorDomain, 3851, "Invalid value for JSON: " + value.description()));
    return std::nullopt;
  }
  rapidjson::StringBuffer buffer;
  if (style == JsonStyle::Pretty) {
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    writeValue(writer, value);
  } else {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writeValue(writer, value);
  }
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace corvane
