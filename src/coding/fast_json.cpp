// The JSON notation of FastCoding graphs (see fast_json.h). Printing walks the graph with a
// RapidJSON writer; reading parses iteratively into a DOM and converts it with a depth bound.
#include "corvane/coding/fast_json.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <cstring>
#include <unordered_set>

#include "corvane/coding/coding.h"
#include "corvane/foundation/json.h"

namespace corvane {
namespace {

constexpr const char* kBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// A graph that shares sub-graphs can print as a tree far larger than itself; stop there.
constexpr uint64_t kMaxPrintedValues = 20'000'000;

std::string base64Encode(ByteView bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t n = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int s = 18; s >= 0; s -= 6) out += kBase64Alphabet[(n >> s) & 63];
  }
  if (i < bytes.size()) {
    uint32_t n = uint32_t{bytes[i]} << 16;
    if (i + 1 < bytes.size()) n |= uint32_t{bytes[i + 1]} << 8;
    out += kBase64Alphabet[(n >> 18) & 63];
    out += kBase64Alphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kBase64Alphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    uint32_t n = 0;
    int padding = 0;
    for (size_t j = 0; j < 4; ++j) {
      char c = text[i + j];
      int v;
      if (c == '=' && i + 4 == text.size() && j >= 2) {
        ++padding;
        v = 0;
      } else {
        if (padding > 0) return std::nullopt;
        const char* p = c != 0 ? std::strchr(kBase64Alphabet, c) : nullptr;
        if (p == nullptr) return std::nullopt;
        v = static_cast<int>(p - kBase64Alphabet);
      }
      n = (n << 6) | static_cast<uint32_t>(v);
    }
    out.push_back(static_cast<uint8_t>(n >> 16));
    if (padding < 2) out.push_back(static_cast<uint8_t>(n >> 8));
    if (padding < 1) out.push_back(static_cast<uint8_t>(n));
  }
  return out;
}

// ---- Printing ---------------------------------------------------------------------------

template <class Writer>
class Printer {
 public:
  explicit Printer(Writer& w) : w_(w) {}
  bool print(const Value& v) {
    if (++printed_ > kMaxPrintedValues) return false;
    switch (v.kind()) {
      case ValueKind::Nil:
        return oneKey("$nil", [&] { w_.Bool(true); });
      case ValueKind::Null:
        w_.Null();
        return true;
      case ValueKind::Number:
        number(v);
        return true;
      case ValueKind::Decimal:
        return oneKey("$decimal", [&] { string(v.decimalValue().toString()); });
      case ValueKind::String:
        string(v.str());
        return true;
      case ValueKind::Data:
        return oneKey("$data", [&] { string(base64Encode(v.bytes())); });
      case ValueKind::Date:
        return oneKey("$date", [&] { real(v.dateValue()); });
      case ValueKind::URL:
        w_.StartObject();
        key("$url");
        string(v.urlRelativeString().str());
        key("$base");
        if (v.urlBase().isURL()) {
          if (!print(v.urlBase())) return false;
        } else {
          w_.Null();
        }
        w_.EndObject();
        return true;
      case ValueKind::Structure:
        structure(v);
        return true;
      case ValueKind::IndexSet:
        w_.StartObject();
        key("$indexSet");
        w_.StartArray();
        for (const IndexRange& r : v.indexRanges()) {
          w_.StartArray();
          w_.Uint64(r.location);
          w_.Uint64(r.length);
          w_.EndArray();
        }
        w_.EndArray();
        w_.EndObject();
        return true;
      default:
        break;
    }
    // Containers and objects: a node met again inside itself is a cycle.
    const void* id = v.identity();
    if (!open_.insert(id).second) return oneKey("$cycle", [&] { w_.Bool(true); });
    bool ok = container(v);
    open_.erase(id);
    return ok;
  }

 private:
  template <class F>
  bool oneKey(const char* name, F body) {
    w_.StartObject();
    key(name);
    body();
    w_.EndObject();
    return true;
  }
  void key(std::string_view k) { w_.Key(k.data(), static_cast<rapidjson::SizeType>(k.size())); }
  void string(std::string_view s) { w_.String(s.data(), static_cast<rapidjson::SizeType>(s.size())); }

  // JSON has no NaN or infinities; they are written the way JavaScript spells them.
  void real(double d) {
    if (std::isnan(d)) {
      w_.RawValue("NaN", 3, rapidjson::kNumberType);
    } else if (std::isinf(d)) {
      if (d > 0) {
        w_.RawValue("Infinity", 8, rapidjson::kNumberType);
      } else {
        w_.RawValue("-Infinity", 9, rapidjson::kNumberType);
      }
    } else {
      w_.Double(d);
    }
  }

  void number(const Value& v) {
    switch (v.numberKind()) {
      case NumberKind::Bool:
        w_.Bool(v.boolValue());
        break;
      case NumberKind::Float:
      case NumberKind::Double:
        real(v.doubleValue());
        break;
      case NumberKind::UnsignedChar:
      case NumberKind::UnsignedShort:
      case NumberKind::UnsignedInt:
      case NumberKind::UnsignedLong:
      case NumberKind::UnsignedLongLong:
      case NumberKind::Index:
        w_.Uint64(v.unsignedLongLongValue());
        break;
      default:
        w_.Int64(v.longLongValue());
        break;
    }
  }

  void structure(const Value& v) {
    static const char* names[] = {"$point", "$size", "$rect", "$range", "$vector", "$affineTransform", "$transform3D"};
    w_.StartObject();
    key(names[static_cast<int>(v.structureKind())]);
    w_.StartArray();
    if (v.structureKind() == StructureKind::Range) {
      w_.Uint64(v.rangeValue().location);
      w_.Uint64(v.rangeValue().length);
    } else {
      for (double d : v.structureDoubles()) real(d);
    }
    w_.EndArray();
    w_.EndObject();
  }

  bool elements(const std::vector<Value>& items) {
    w_.StartArray();
    for (const Value& item : items)
      if (!print(item)) return false;
    w_.EndArray();
    return true;
  }

  // A one-entry dictionary {"$alias": key path} is the writer's instruction to write the
  // value found along the path from the root; it prints as itself.
  static bool isAliasDictionary(const Value& dict) {
    const auto& entries = dict.entries();
    return entries.size() == 1 && entries[0].first.isString() && entries[0].first.str() == "$alias" &&
           entries[0].second.isString();
  }

  static bool needsPairForm(const Value& dict) {
    for (const auto& entry : dict.entries()) {
      if (!entry.first.isString()) return true;
      const std::string& k = entry.first.str();
      if (!k.empty() && k[0] == '$' && k != "$class") return true;
    }
    return false;
  }

  bool container(const Value& v) {
    switch (v.kind()) {
      case ValueKind::Array:
        return elements(v.elements());
      case ValueKind::Set:
        w_.StartObject();
        key("$set");
        if (!elements(v.elements())) return false;
        w_.EndObject();
        return true;
      case ValueKind::OrderedSet:
        w_.StartObject();
        key("$orderedSet");
        if (!elements(v.elements())) return false;
        w_.EndObject();
        return true;
      case ValueKind::Dictionary:
        if (isAliasDictionary(v)) {
          return oneKey("$alias", [&] { string(v.entries()[0].second.str()); });
        }
        if (needsPairForm(v)) {
          w_.StartObject();
          key("$dictionary");
          w_.StartArray();
          for (const auto& [k, value] : v.entries()) {
            w_.StartArray();
            if (!print(k) || !print(value)) return false;
            w_.EndArray();
          }
          w_.EndArray();
          w_.EndObject();
          return true;
        }
        w_.StartObject();
        for (const auto& [k, value] : v.entries()) {
          key(k.str());
          if (!print(value)) return false;
        }
        w_.EndObject();
        return true;
      case ValueKind::Object:
        return object(*v.objectPointer());
      default:
        w_.Null();
        return true;
    }
  }

  bool object(const Object& obj) {
    std::vector<std::pair<std::string, Value>> properties;
    const auto* coding = dynamic_cast<const FastCodingObject*>(&obj);
    std::string name;
    if (coding != nullptr && !coding->preferFastCoding() && coding->supportsKeyedCoding()) {
      name = coding->classForCoding();
      for (auto& [value, k] : FCNSCoder::recordPairs(*coding))
        properties.emplace_back(k.isString() ? k.str() : k.description(), value);
    } else {
      name = coding != nullptr ? coding->classForFastCoding() : obj.className();
      for (const std::string& k : ClassRegistry::shared().aggregatePropertyKeys(name))
        properties.emplace_back(k, obj.valueForKey(k));
    }
    w_.StartObject();
    key("$class");
    string(name);
    for (const auto& [k, value] : properties) {
      key(k);
      if (!print(value)) return false;
    }
    w_.EndObject();
    return true;
  }

  Writer& w_;
  std::unordered_set<const void*> open_;
  uint64_t printed_ = 0;
};

// ---- Reading ----------------------------------------------------------------------------

using JsonValue = rapidjson::Value;

class Builder {
 public:
  explicit Builder(bool mutableContainers) : mutable_(mutableContainers) {}

  std::optional<Value> build(const JsonValue& j, int depth = 0) {
    if (depth > kMaxJsonDepth) return fail("nesting deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    switch (j.GetType()) {
      case rapidjson::kNullType:
        return Value::null();
      case rapidjson::kFalseType:
        return Value::boolean(false);
      case rapidjson::kTrueType:
        return Value::boolean(true);
      case rapidjson::kNumberType:
        if (j.IsInt64()) return Value::number(NumberKind::LongLong, j.GetInt64());
        if (j.IsUint64()) return Value::unsignedNumber(NumberKind::UnsignedLongLong, j.GetUint64());
        return Value::doubleNumber(j.GetDouble());
      case rapidjson::kStringType:
        return Value::string(std::string_view(j.GetString(), j.GetStringLength()));
      case rapidjson::kArrayType: {
        auto items = list(j, depth);
        if (!items) return std::nullopt;
        return Value::array(std::move(*items), mutable_);
      }
      case rapidjson::kObjectType:
        return object(j, depth);
    }
    return fail("unknown JSON value");
  }

  std::string error;

 private:
  std::nullopt_t fail(std::string message) {
    if (error.empty()) error = std::move(message);
    return std::nullopt;
  }

  std::optional<std::vector<Value>> list(const JsonValue& j, int depth) {
    std::vector<Value> items;
    items.reserve(j.Size());
    for (const auto& item : j.GetArray()) {
      auto v = build(item, depth + 1);
      if (!v) return std::nullopt;
      items.push_back(std::move(*v));
    }
    return items;
  }

  std::optional<std::vector<double>> numbers(const JsonValue& j, size_t count, const char* what) {
    if (!j.IsArray() || j.Size() != count)
      return fail(std::string(what) + " takes " + std::to_string(count) + " numbers");
    std::vector<double> out;
    for (const auto& n : j.GetArray()) {
      if (!n.IsNumber()) return fail(std::string(what) + " takes " + std::to_string(count) + " numbers");
      out.push_back(n.GetDouble());
    }
    return out;
  }

  std::optional<IndexRange> range(const JsonValue& j, const char* what) {
    if (!j.IsArray() || j.Size() != 2 || !j[0].IsUint64() || !j[1].IsUint64())
      return fail(std::string(what) + " takes [location, length] as unsigned integers");
    return IndexRange{j[0].GetUint64(), j[1].GetUint64()};
  }

  std::optional<Value> notation(std::string_view name, const JsonValue& body, int depth) {
    if (name == "$nil") return Value();
    if (name == "$alias") {
      if (!body.IsString()) return fail("$alias takes a key path string");
      return Value::dictionary(
          {{Value("$alias"), Value::string(std::string_view(body.GetString(), body.GetStringLength()))}}, mutable_);
    }
    if (name == "$cycle") return fail("a cycle cannot be built from JSON");
    if (name == "$data") {
      if (!body.IsString()) return fail("$data takes a base64 string");
      auto bytes = base64Decode(std::string_view(body.GetString(), body.GetStringLength()));
      if (!bytes) return fail("$data is not valid base64");
      return Value::data(std::move(*bytes));
    }
    if (name == "$date") {
      if (!body.IsNumber()) return fail("$date takes a number of seconds since 2001-01-01");
      return Value::date(body.GetDouble());
    }
    if (name == "$decimal") {
      auto d = body.IsString() ? Decimal::fromString(std::string_view(body.GetString(), body.GetStringLength()))
                               : std::nullopt;
      if (!d && body.IsString() && std::string_view(body.GetString()) == "NaN") d = Decimal::notANumber();
      if (!d) return fail("$decimal takes the exact text of a decimal number");
      return Value::decimal(*d);
    }
    if (name == "$set" || name == "$orderedSet") {
      if (!body.IsArray()) return fail(std::string(name) + " takes an array");
      auto items = list(body, depth);
      if (!items) return std::nullopt;
      return name == "$set" ? Value::set(std::move(*items), mutable_) : Value::orderedSet(std::move(*items), mutable_);
    }
    if (name == "$point" || name == "$size" || name == "$vector") {
      auto n = numbers(body, 2, name.data());
      if (!n) return std::nullopt;
      if (name == "$point") return Value::point((*n)[0], (*n)[1]);
      if (name == "$size") return Value::size((*n)[0], (*n)[1]);
      return Value::vector((*n)[0], (*n)[1]);
    }
    if (name == "$rect") {
      auto n = numbers(body, 4, "$rect");
      if (!n) return std::nullopt;
      return Value::rect((*n)[0], (*n)[1], (*n)[2], (*n)[3]);
    }
    if (name == "$affineTransform") {
      auto n = numbers(body, 6, "$affineTransform");
      if (!n) return std::nullopt;
      return Value::affineTransform((*n)[0], (*n)[1], (*n)[2], (*n)[3], (*n)[4], (*n)[5]);
    }
    if (name == "$transform3D") {
      auto n = numbers(body, 16, "$transform3D");
      if (!n) return std::nullopt;
      return Value::transform3D(std::span<const double, 16>(n->data(), 16));
    }
    if (name == "$range") {
      auto r = range(body, "$range");
      if (!r) return std::nullopt;
      return Value::range(r->location, r->length);
    }
    if (name == "$indexSet") {
      if (!body.IsArray()) return fail("$indexSet takes an array of [location, length]");
      std::vector<IndexRange> ranges;
      for (const auto& item : body.GetArray()) {
        auto r = range(item, "$indexSet");
        if (!r) return std::nullopt;
        ranges.push_back(*r);
      }
      return Value::indexSet(std::move(ranges), mutable_);
    }
    if (name == "$dictionary") {
      if (!body.IsArray()) return fail("$dictionary takes an array of [key, value]");
      std::vector<std::pair<Value, Value>> entries;
      for (const auto& item : body.GetArray()) {
        if (!item.IsArray() || item.Size() != 2) return fail("$dictionary takes an array of [key, value]");
        auto k = build(item[0], depth + 1);
        if (!k) return std::nullopt;
        auto v = build(item[1], depth + 1);
        if (!v) return std::nullopt;
        entries.emplace_back(std::move(*k), std::move(*v));
      }
      return Value::dictionary(std::move(entries), mutable_);
    }
    return fail("unknown notation " + std::string(name));
  }

  std::optional<Value> object(const JsonValue& j, int depth) {
    auto members = j.GetObject();
    if (j.HasMember("$url")) {
      const JsonValue& relative = j["$url"];
      if (!relative.IsString()) return fail("$url takes a string");
      // The base: null, a URL's text, or a nested {"$url": ...} (which may have a base itself).
      Value base;
      if (j.HasMember("$base") && j["$base"].IsString()) {
        base = Value::url(std::string_view(j["$base"].GetString(), j["$base"].GetStringLength()));
      } else if (j.HasMember("$base") && !j["$base"].IsNull()) {
        auto b = build(j["$base"], depth + 1);
        if (!b) return std::nullopt;
        if (!b->isURL()) return fail("$base takes a URL, a URL string or null");
        base = *b;
      }
      return Value::url(std::string_view(relative.GetString(), relative.GetStringLength()), base);
    }
    if (j.MemberCount() == 1) {
      std::string_view name(members.begin()->name.GetString(), members.begin()->name.GetStringLength());
      if (!name.empty() && name[0] == '$' && name != "$class") return notation(name, members.begin()->value, depth);
    }
    std::vector<std::pair<Value, Value>> entries;
    entries.reserve(j.MemberCount());
    for (const auto& m : members) {
      auto v = build(m.value, depth + 1);
      if (!v) return std::nullopt;
      entries.emplace_back(Value::string(std::string_view(m.name.GetString(), m.name.GetStringLength())),
                           std::move(*v));
    }
    if (j.HasMember("$class") && j["$class"].IsString()) return instance(j["$class"].GetString(), std::move(entries));
    return Value::dictionary(std::move(entries), mutable_);
  }

  // A registered class is built as the reader would build it; an unknown one stays the
  // dictionary the reader makes for unknown classes.
  std::optional<Value> instance(const std::string& name, std::vector<std::pair<Value, Value>> entries) {
    const ClassInfo* info = ClassRegistry::shared().find(name);
    FCNSDecoder::Pairs pairs;
    for (auto& [k, v] : entries)
      if (k.str() != "$class") pairs.emplace_back(k, v);
    if (info != nullptr && info->createWithCoder) {
      FCNSDecoder decoder(&pairs);
      return info->createWithCoder(decoder);
    }
    if (info != nullptr && info->create) {
      Value object = info->create();
      if (Object* obj = object.objectPointer()) {
        for (const auto& [k, v] : pairs) obj->setValueForKey(k.str(), v);
        return object;
      }
    }
    return Value::dictionary(std::move(entries), true);
  }

  bool mutable_;
};

}  // namespace

std::optional<std::string> fastGraphToJson(const Value& root, bool pretty, Error* error) {
  rapidjson::StringBuffer buffer;
  bool ok;
  if (pretty) {
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    ok = Printer(writer).print(root);
  } else {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    ok = Printer(writer).print(root);
  }
  if (!ok) {
    setError(error, Error(kCorvaneErrorDomain, -1, "The graph is too large to print as JSON"));
    return std::nullopt;
  }
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::optional<Value> fastGraphFromJson(std::string_view text, bool mutableContainers, Error* error) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNanAndInfFlag | rapidjson::kParseFullPrecisionFlag>(
      text.data(), text.size());
  if (doc.HasParseError()) {
    setError(error, Error(kCorvaneErrorDomain, -1,
                          std::string("Invalid JSON at offset ") + std::to_string(doc.GetErrorOffset()) + ": " +
                              rapidjson::GetParseError_En(doc.GetParseError())));
    return std::nullopt;
  }
  Builder builder(mutableContainers);
  auto v = builder.build(doc);
  if (!v) setError(error, Error(kCorvaneErrorDomain, -1, builder.error));
  return v;
}

}  // namespace corvane
