#include "store/store_internal.h"

#include <cctype>

#include "corvane/foundation/date_format.h"
#include "corvane/foundation/env.h"
#include "corvane/graph/object_model.h"
#include "store/store_state.h"

namespace corvane::store_internal {

Error storeError(const std::string& description) { return Error(kCorvaneErrorDomain, -1, description); }

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int high = hexDigit(text[i + 1]);
      int low = hexDigit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

}  // namespace

std::optional<std::string> pathFromLocation(const Value& location) {
  std::string text;
  if (location.isString()) {
    text = location.str();
  } else if (location.isURL()) {
    text = location.urlAbsoluteString();
  } else {
    return std::nullopt;
  }
  constexpr std::string_view kScheme = "file://";
  if (std::string_view(text).starts_with(kScheme)) {
    std::string path = percentDecoded(std::string_view(text).substr(kScheme.size()));
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }
  if (text.empty()) return std::nullopt;
  return text;
}

std::string timestampString(double secondsSince2001) {
  static const DateFormatter formatter(kTimestampDatePattern, DateTimeZone::gmt());
  return formatter.format(secondsSince2001);
}

std::optional<double> dateFromChangeValue(const Value& value) {
  if (value.isDate()) return value.dateValue();
  if (!value.isString()) return std::nullopt;
  static const DateFormatter formatter(kTimestampDatePattern, DateTimeZone::gmt());
  return formatter.parse(value.str());
}

Value modelValueForAttribute(const AttributeDescription& attribute, const Value& value) {
  if (value.isNil() || value.isNull()) return value;
  const bool numeric = value.isDecimal() || value.isNumber();
  // Other devices may send a value of another kind; the object shows it in its attribute's
  // type when it has a reading there, and as nothing otherwise (the cache keeps what was sent),
  // so that one odd file can neither crash the host nor fail its next save.
  Value shown = value;
  switch (attribute.attributeType()) {
    case AttributeType::Integer16:
      if (numeric || value.isString()) shown = Value::number(NumberKind::Short, value.longLongValue());
      break;
    case AttributeType::Integer32:
      if (numeric || value.isString()) shown = Value::number(NumberKind::Int, value.longLongValue());
      break;
    case AttributeType::Integer64:
      if (numeric || value.isString()) shown = Value::number(NumberKind::LongLong, value.longLongValue());
      break;
    case AttributeType::Double:
      if (numeric || value.isString()) shown = Value::doubleNumber(value.doubleValue());
      break;
    case AttributeType::Float:
      if (numeric || value.isString()) shown = Value::floatNumber(value.floatValue());
      break;
    case AttributeType::Boolean:
      if (numeric || value.isString()) shown = Value::boolean(value.boolValue());
      break;
    case AttributeType::String:
    case AttributeType::UUID:
      if (numeric) shown = Value(value.description());
      break;
    case AttributeType::Date:
      if (numeric) shown = Value::date(value.doubleValue());
      break;
    default:
      break;
  }
  return valueFitsAttributeType(shown, attribute.attributeType()) ? shown : Value();
}

std::optional<Bytes> readBytes(Env* env, const std::string& path) {
  Bytes bytes;
  if (!env->readFile(path, &bytes, nullptr)) return std::nullopt;
  return bytes;
}

Value mutableDictionaryCopy(const Value& value) {
  return value.isDictionary() ? value.mutableCopy() : Value::mutableDictionary();
}

bool hasJSONExtension(std::string_view name) {
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  std::string_view extension = name.substr(dot + 1);
  if (extension.size() != 4) return false;
  static constexpr std::string_view kJSON = "json";
  for (size_t i = 0; i < 4; ++i) {
    if (std::tolower(static_cast<unsigned char>(extension[i])) != kJSON[i]) return false;
  }
  return true;
}

std::optional<std::string> nonPlainNameInChange(const Value& change) {
  auto plain = [](const Value& name) { return name.isString() && isPlainFileName(name.str()); };
  if (const Value& name = change["name"]; !name.isNil() && !plain(name)) return name.description();
  if (const Value& previous = change["previousName"]; previous.isString() && !plain(previous)) return previous.str();
  for (const char* key : {"changes", "refreshes"}) {
    for (const auto& byType : change[key].entries()) {
      for (const auto& [entityName, byUID] : byType.second.entries()) {
        if (!plain(entityName)) return entityName.description();
        for (const auto& [uid, record] : byUID.entries()) {
          if (!plain(uid)) return uid.description();
          for (const Value& data : record["data"].elements()) {
            if (data["length"].longLongValue() != 0 && !plain(data["name"])) return data["name"].description();
          }
        }
      }
    }
  }
  return std::nullopt;
}

}  // namespace corvane::store_internal
