// The FastCoding reader: one parser shared by objectWithData and propertyListWithData, which
// differ only in the constructor table. Each constructor reads one value's payload and
// registers the result at the same point where the writer registered it.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "coding/fast_internal.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/log.h"

namespace corvane {
namespace detail {

[[noreturn]] void throwEOF(size_t offset) {
  throw Exception(kFastCodingException,
                  "Unexpected EOF when parsing object starting at " + std::to_string(static_cast<long long>(offset)));
}

[[noreturn]] void throwUnknownType(unsigned type) {
  throw Exception(kFastCodingException, "FastCoding cannot decode object of type: " + std::to_string(type));
}

[[noreturn]] void throwBadIndex(uint64_t index, uint64_t count) {
  throw Exception(kFastCodingException, "Attempted to read cache object at index " + std::to_string(index) +
                                            ", but cache object count is " + std::to_string(count));
}

[[noreturn]] void throwCycle(uint64_t index) {
  throw Exception(kFastCodingException,
                  "Object at index " + std::to_string(index) + " is referenced from inside itself");
}

[[noreturn]] void throwTooDeep() {
  throw Exception(kFastCodingException,
                  "FastCoding cannot decode objects nested deeper than " + std::to_string(kFastMaxDepth) + " levels");
}

bool isValidUTF8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    // Plain ASCII runs eight bytes at a time.
    while (end - p >= 8) {
      uint64_t w;
      std::memcpy(&w, p, 8);
      if ((w & 0x8080808080808080ULL) != 0) break;
      p += 8;
    }
    if (p >= end) break;
    unsigned c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t n;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      n = 1;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 2;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= n) return false;
    for (size_t i = 1; i <= n; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if ((n == 2 && cp < 0x800) || (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    p += n + 1;
  }
  return true;
}

const ClassInfo* findCodedClass(const Value& className) {
  const std::string& name = className.str();
  return name.empty() ? nullptr : ClassRegistry::shared().find(name);
}

Value constructCodedObject(const ClassInfo* info, const Value& className, FCNSDecoder& decoder,
                           const FCNSDecoder::Pairs& pairs) {
  if (info != nullptr && info->createWithCoder) return info->createWithCoder(decoder);
  return Value::object(new UnknownCodedObject(className.str(), pairs));
}

Value constructPropertyObject(const ClassInfo* info, const std::string& name) {
  if (info != nullptr && info->create) {
    Value v = info->create();
    if (v.isObject()) return v;
  }
  return Value::mutableDictionary({{Value("$class"), Value(name)}});
}

void setPropertyValue(const Value& target, const Value& key, const Value& value) {
  if (Object* obj = target.objectPointer()) {
    obj->setValueForKey(key.str(), value);
  } else if (target.isDictionary()) {
    Value dict = target;   // shares the node
    dict.set(key, value);  // a nil value leaves the key out, as key-value setting does
  }
}

Value awakeObject(const Value& object) {
  auto* coding = dynamic_cast<FastCodingObject*>(object.objectPointer());
  if (coding == nullptr) return object;
  Value replacement = coding->awakeAfterFastCoding();
  if (replacement.isNil() || replacement.objectPointer() == coding) return object;
  return replacement;
}

// ---- The parser -------------------------------------------------------------------------

FastReader::FastReader(ByteView data, ReadRules rules)
    : in_{data.data(), data.size(), 0}, constructors_(table(rules.propertyListOnly)), open_(rules.refuseCycles) {}

uint32_t FastReader::capacityFor(uint64_t count, size_t bytesPerItem) const {
  // A count is only a hint: never reserve more items than the rest of the input could hold.
  uint64_t most = in_.remaining() / bytesPerItem;
  return static_cast<uint32_t>(std::min<uint64_t>({count, most, UINT32_MAX}));
}

Value FastReader::parse() {
  // Reading the counts is outside the guard of the caller: a cut header raises.
  in_.pos = 8;
  auto objectCount = in_.take<uint32_t>();
  auto classCount = in_.take<uint32_t>();
  auto stringCount = in_.take<uint32_t>();
  objects_.reserve(capacityFor(objectCount, 1));
  classes_.reserve(capacityFor(classCount, 2));
  strings_.reserve(capacityFor(stringCount, 1));
  return readObject();
}

std::vector<Value> FastReader::nodes() const {
  std::vector<Value> all(objects_);
  all.insert(all.end(), strings_.begin(), strings_.end());
  return all;
}

void breakCycles(const std::vector<Value>& nodes) {
  for (Value v : nodes)
    if (v.isMutable() && (v.isCollection() || v.isDictionary())) v.removeAllObjects();
}

Value FastReader::readObject() {
  unsigned type = in_.takeByte();
  Constructor c = type < kFastTypeCount ? constructors_[type] : nullptr;
  if (c == nullptr) throwUnknownType(type);
  if (++depth_ > kFastMaxDepth) throwTooDeep();
  Value v = c(*this);
  --depth_;
  return v;
}

std::string_view FastReader::takeCString() {
  std::string_view s = in_.peekCString();
  in_.pos += s.size() + 1;
  return s;
}

Value FastReader::aliasFrom(const std::vector<Value>& table, uint64_t index) const {
  if (index >= table.size()) throwBadIndex(index, table.size());
  if (&table == &objects_) open_.checkAlias(index);
  return table[index];
}

Value FastReader::readStringValue(bool mutableNode) {
  std::string_view s = takeCString();
  if (!isValidUTF8(s)) return Value();  // bytes that are not text read as nil, as on the platform
  return Value::string(s, mutableNode);
}

Value FastReader::readDictionary(bool mutableNode) {
  auto count = in_.takeAligned<uint32_t>();
  if (mutableNode) {
    Value dict = Value::mutableDictionary();
    objects_.push_back(dict);
    auto scope = open_.open(objects_.size() - 1);
    for (uint32_t i = 0; i < count; ++i) {
      Value value = readObject();
      Value key = readObject();
      if (!value.isNil() && !key.isNil()) dict.set(key, value);
    }
    return dict;
  }
  if (count == 0) {
    static const Value empty = Value::dictionary();
    objects_.push_back(empty);
    return empty;
  }
  std::vector<std::pair<Value, Value>>& entries = scratchEntries_.acquire();
  entries.reserve(capacityFor(count, 2));
  for (uint32_t i = 0; i < count; ++i) {
    Value value = readObject();
    Value key = readObject();
    if (!value.isNil() && !key.isNil()) entries.emplace_back(std::move(key), std::move(value));
  }
  Value dict = Value::dictionaryMovingFrom(entries);
  entries.clear();
  scratchEntries_.release();
  objects_.push_back(dict);
  return dict;
}

Value FastReader::readCollection(ValueKind kind, bool mutableNode) {
  auto count = in_.takeAligned<uint32_t>();
  if (mutableNode) {
    std::vector<Value> items;
    items.reserve(capacityFor(count, 1));
    Value c = kind == ValueKind::Set          ? Value::set(std::move(items), true)
              : kind == ValueKind::OrderedSet ? Value::orderedSet(std::move(items), true)
                                              : Value::array(std::move(items), true);
    objects_.push_back(c);
    auto scope = open_.open(objects_.size() - 1);
    for (uint32_t i = 0; i < count; ++i) c.append(readObject());
    return c;
  }
  if (count == 0) {
    static const Value emptyArray = Value::array();
    static const Value emptySet = Value::set();
    static const Value emptyOrderedSet = Value::orderedSet();
    const Value& e = kind == ValueKind::Set ? emptySet : kind == ValueKind::OrderedSet ? emptyOrderedSet : emptyArray;
    objects_.push_back(e);
    return e;
  }
  std::vector<Value>& items = scratchItems_.acquire();
  items.reserve(capacityFor(count, 1));
  for (uint32_t i = 0; i < count; ++i) items.push_back(readObject());
  Value c;
  if (kind == ValueKind::Array) {
    c = Value::arrayMovingFrom(items);
  } else {
    std::vector<Value> members(std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
    c = kind == ValueKind::Set ? Value::set(std::move(members)) : Value::orderedSet(std::move(members));
  }
  items.clear();
  scratchItems_.release();
  objects_.push_back(c);
  return c;
}

Value FastReader::readDataPayload(bool mutableNode) {
  auto length = in_.takeAligned<uint32_t>();
  size_t padded = (static_cast<size_t>(length) + 3) & ~size_t{3};
  Value d = Value::data(ByteView(in_.takeBytes(padded), length), mutableNode);
  objects_.push_back(d);
  return d;
}

Value FastReader::readClassDefinition() {
  classes_.emplace_back();
  size_t index = classes_.size() - 1;
  std::string name(takeCString());
  auto count = in_.takeAligned<uint32_t>();
  std::vector<Value> keys;
  keys.reserve(capacityFor(count, 1));
  for (uint32_t i = 0; i < count; ++i) keys.emplace_back(takeCString());
  classes_[index].name = std::move(name);
  classes_[index].keys = std::move(keys);
  return readObject();
}

Value FastReader::readCustomObject(uint32_t classIndex) {
  if (classIndex >= classes_.size()) throwBadIndex(classIndex, classes_.size());
  ClassDef& def = classes_[classIndex];
  if (!def.resolved) {
    def.info = ClassRegistry::shared().find(def.name);
    def.resolved = true;
  }
  Value object = constructPropertyObject(def.info, def.name);
  size_t slot = objects_.size();
  objects_.push_back(object);
  auto scope = open_.open(slot);
  // The definition may not be touched across reads: a nested definition can grow classes_.
  size_t keyCount = def.keys.size();
  for (size_t i = 0; i < keyCount; ++i) {
    Value value = readObject();
    setPropertyValue(object, classes_[classIndex].keys[i], value);
  }
  Value awake = awakeObject(object);
  if (!awake.isSameNode(object)) objects_[slot] = awake;
  return awake;
}

Value FastReader::readURL() {
  Value relative = readObject();
  Value base = readObject();
  Value url = Value::url(relative.str(), base.isURL() ? base : Value());
  strings_.push_back(url);
  return url;
}

Value FastReader::readIndexSet(bool mutableNode) {
  auto count = in_.takeAligned<uint32_t>();
  if (mutableNode) {
    Value set = Value::indexSet({}, true);
    objects_.push_back(set);
    for (uint32_t i = 0; i < count; ++i) {
      auto location = in_.take<uint32_t>();
      auto length = in_.take<uint32_t>();
      set.addIndexes(IndexRange{location, length});
    }
    return set;
  }
  std::vector<IndexRange> ranges;
  ranges.reserve(capacityFor(count, 8));
  for (uint32_t i = 0; i < count; ++i) {
    auto location = in_.take<uint32_t>();
    auto length = in_.take<uint32_t>();
    ranges.push_back(IndexRange{location, length});
  }
  Value set = Value::indexSet(std::move(ranges));
  objects_.push_back(set);
  return set;
}

Value FastReader::readCodedObject() {
  Value className = readObject();
  std::unique_ptr<FCNSDecoder::Pairs> pairs;
  if (pool_.empty()) {
    pairs = std::make_unique<FCNSDecoder::Pairs>();
  } else {
    pairs = std::move(pool_.back());
    pool_.pop_back();
    pairs->clear();
  }
  while (true) {
    Value value = readObject();
    if (value.isNil()) break;
    Value key = readObject();
    pairs->emplace_back(std::move(key), std::move(value));
  }
  const void* nameNode = className.identity();
  if (nameNode == nullptr || nameNode != lastCodedName_) {
    lastCodedClass_ = findCodedClass(className);
    lastCodedName_ = nameNode;
  }
  const FCNSDecoder::Pairs* saved = decoder_.properties_;
  decoder_.properties_ = pairs.get();
  Value object = constructCodedObject(lastCodedClass_, className, decoder_, *pairs);
  decoder_.properties_ = saved;
  pairs->clear();
  pool_.push_back(std::move(pairs));
  objects_.push_back(object);
  return object;
}

Value FastReader::readKeyedArchive() {
  // The archive's data payload follows without its own type byte.
  Value data = readDataPayload(false);
  Value object = Value::object(new KeyedArchiveObject(data));
  objects_.push_back(object);
  return object;
}

Value FastReader::readDecimal() {
  in_.alignTo(20);
  std::span<const uint8_t, 20> record(in_.takeBytes(20), 20);
  return Value::decimal(Decimal::fromRecord(record));
}

// ---- Constructors -----------------------------------------------------------------------

Value FastReader::c_nil(FastReader&) { return Value(); }
Value FastReader::c_null(FastReader&) { return Value::null(); }
Value FastReader::c_alias8(FastReader& r) { return r.aliasFrom(r.objects_, r.in_.take<uint8_t>()); }
Value FastReader::c_alias16(FastReader& r) { return r.aliasFrom(r.objects_, r.in_.takeAligned<uint16_t>()); }
Value FastReader::c_alias32(FastReader& r) { return r.aliasFrom(r.objects_, r.in_.takeAligned<uint32_t>()); }
Value FastReader::c_stringAlias8(FastReader& r) { return r.aliasFrom(r.strings_, r.in_.take<uint8_t>()); }
Value FastReader::c_stringAlias16(FastReader& r) { return r.aliasFrom(r.strings_, r.in_.takeAligned<uint16_t>()); }
Value FastReader::c_stringAlias32(FastReader& r) { return r.aliasFrom(r.strings_, r.in_.takeAligned<uint32_t>()); }
Value FastReader::c_string(FastReader& r) {
  std::string_view s = r.takeCString();
  Value v;
  if (s.empty()) {
    static const Value empty("");
    v = empty;
  } else if (isValidUTF8(s)) {
    v = Value::string(s);
  }
  r.strings_.push_back(v);
  return v;
}
Value FastReader::c_dictionary(FastReader& r) { return r.readDictionary(false); }
Value FastReader::c_array(FastReader& r) { return r.readCollection(ValueKind::Array, false); }
Value FastReader::c_set(FastReader& r) { return r.readCollection(ValueKind::Set, false); }
Value FastReader::c_orderedSet(FastReader& r) { return r.readCollection(ValueKind::OrderedSet, false); }
Value FastReader::c_true(FastReader&) { return Value::boolean(true); }
Value FastReader::c_false(FastReader&) { return Value::boolean(false); }
Value FastReader::c_int8(FastReader& r) { return Value::number(NumberKind::Char, r.in_.take<int8_t>()); }
Value FastReader::c_int16(FastReader& r) { return Value::number(NumberKind::Short, r.in_.takeAligned<int16_t>()); }
Value FastReader::c_int32(FastReader& r) { return Value::number(NumberKind::Int, r.in_.takeAligned<int32_t>()); }
Value FastReader::c_int64(FastReader& r) { return Value::number(NumberKind::LongLong, r.in_.takeAligned<int64_t>()); }
Value FastReader::c_float32(FastReader& r) { return Value::floatNumber(r.in_.takeAligned<float>()); }
Value FastReader::c_float64(FastReader& r) { return Value::doubleNumber(r.in_.takeAligned<double>()); }
Value FastReader::c_data(FastReader& r) { return r.readDataPayload(false); }
Value FastReader::c_legacyDate(FastReader& r) {
  Value d = Value::date(r.in_.takeAligned<double>() - kSecondsFrom1970To2001);
  r.objects_.push_back(d);
  return d;
}
Value FastReader::c_mutableString(FastReader& r) {
  Value v = r.readStringValue(true);
  r.objects_.push_back(v);
  return v;
}
Value FastReader::c_mutableDictionary(FastReader& r) { return r.readDictionary(true); }
Value FastReader::c_mutableArray(FastReader& r) { return r.readCollection(ValueKind::Array, true); }
Value FastReader::c_mutableSet(FastReader& r) { return r.readCollection(ValueKind::Set, true); }
Value FastReader::c_mutableOrderedSet(FastReader& r) { return r.readCollection(ValueKind::OrderedSet, true); }
Value FastReader::c_mutableData(FastReader& r) { return r.readDataPayload(true); }
Value FastReader::c_classDefinition(FastReader& r) { return r.readClassDefinition(); }
Value FastReader::c_object8(FastReader& r) { return r.readCustomObject(r.in_.take<uint8_t>()); }
Value FastReader::c_object16(FastReader& r) { return r.readCustomObject(r.in_.takeAligned<uint16_t>()); }
Value FastReader::c_object32(FastReader& r) { return r.readCustomObject(r.in_.takeAligned<uint32_t>()); }
Value FastReader::c_url(FastReader& r) { return r.readURL(); }
// Structure payloads are read as one block, as the platform reads the whole structure.
Value FastReader::c_point(FastReader& r) {
  r.in_.alignTo(8);
  r.in_.need(16);
  double x = r.in_.take<double>(), y = r.in_.take<double>();
  return Value::point(x, y);
}
Value FastReader::c_size(FastReader& r) {
  r.in_.alignTo(8);
  r.in_.need(16);
  double w = r.in_.take<double>(), h = r.in_.take<double>();
  return Value::size(w, h);
}
Value FastReader::c_rect(FastReader& r) {
  r.in_.alignTo(8);
  r.in_.need(32);
  double x = r.in_.take<double>(), y = r.in_.take<double>(), w = r.in_.take<double>(), h = r.in_.take<double>();
  return Value::rect(x, y, w, h);
}
Value FastReader::c_range(FastReader& r) {
  r.in_.alignTo(4);
  r.in_.need(8);
  uint32_t location = r.in_.take<uint32_t>(), length = r.in_.take<uint32_t>();
  return Value::range(location, length);
}
Value FastReader::c_vector(FastReader& r) {
  r.in_.alignTo(8);
  r.in_.need(16);
  double dx = r.in_.take<double>(), dy = r.in_.take<double>();
  return Value::vector(dx, dy);
}
Value FastReader::c_affineTransform(FastReader& r) {
  // Aligned although the writer does not pad: both sides keep the platform's behaviour.
  r.in_.alignTo(8);
  r.in_.need(48);
  double m[6];
  for (double& d : m) d = r.in_.take<double>();
  return Value::affineTransform(m[0], m[1], m[2], m[3], m[4], m[5]);
}
Value FastReader::c_transform3D(FastReader& r) {
  r.in_.alignTo(8);
  r.in_.need(128);
  std::array<double, 16> m;
  for (double& d : m) d = r.in_.take<double>();
  return Value::transform3D(m);
}
Value FastReader::c_mutableIndexSet(FastReader& r) { return r.readIndexSet(true); }
Value FastReader::c_indexSet(FastReader& r) { return r.readIndexSet(false); }
Value FastReader::c_codedObject(FastReader& r) { return r.readCodedObject(); }
Value FastReader::c_decimal(FastReader& r) { return r.readDecimal(); }
Value FastReader::c_one(FastReader&) { return Value::number(NumberKind::Int, 1); }
Value FastReader::c_zero(FastReader&) { return Value::number(NumberKind::Int, 0); }
Value FastReader::c_keyedArchive(FastReader& r) { return r.readKeyedArchive(); }
Value FastReader::c_date(FastReader& r) {
  Value d = Value::date(r.in_.takeAligned<double>());
  r.objects_.push_back(d);
  return d;
}

const FastReader::Constructor* FastReader::table(bool propertyListOnly) {
  static const std::array<Constructor, kFastTypeCount> all = {c_nil,
                                                              c_null,
                                                              c_alias8,
                                                              c_alias16,
                                                              c_alias32,
                                                              c_stringAlias8,
                                                              c_stringAlias16,
                                                              c_stringAlias32,
                                                              c_string,
                                                              c_dictionary,
                                                              c_array,
                                                              c_set,
                                                              c_orderedSet,
                                                              c_true,
                                                              c_false,
                                                              c_int8,
                                                              c_int16,
                                                              c_int32,
                                                              c_int64,
                                                              c_float32,
                                                              c_float64,
                                                              c_data,
                                                              c_legacyDate,
                                                              c_mutableString,
                                                              c_mutableDictionary,
                                                              c_mutableArray,
                                                              c_mutableSet,
                                                              c_mutableOrderedSet,
                                                              c_mutableData,
                                                              c_classDefinition,
                                                              c_object8,
                                                              c_object16,
                                                              c_object32,
                                                              c_url,
                                                              c_point,
                                                              c_size,
                                                              c_rect,
                                                              c_range,
                                                              c_vector,
                                                              c_affineTransform,
                                                              c_transform3D,
                                                              c_mutableIndexSet,
                                                              c_indexSet,
                                                              c_codedObject,
                                                              c_decimal,
                                                              c_one,
                                                              c_zero,
                                                              c_keyedArchive,
                                                              c_date};
  static const std::array<Constructor, kFastTypeCount> propertyList = [] {
    auto t = all;
    for (int code : {kNil, kClassDefinition, kObject8, kObject16, kObject32, kCodedObject, kKeyedArchive})
      t[code] = nullptr;
    return t;
  }();
  return propertyListOnly ? propertyList.data() : all.data();
}

Value parseFastCoding(ByteView data, ReadRules rules, Error* error, std::vector<Value>* nodes) {
  auto fail = [error](const std::string& reason) {
    if (error != nullptr) *error = Error(kCorvaneErrorDomain, -1, reason);
    return Value();
  };
  uint32_t identifier = 0;
  if (data.size() < 8) return fail("Not FastCoding data");
  std::memcpy(&identifier, data.data(), 4);
  if (identifier != kFastIdentifier) return fail("Not FastCoding data");
  uint16_t major, minor;
  std::memcpy(&major, data.data() + 4, 2);
  std::memcpy(&minor, data.data() + 6, 2);
  if (major != 2 && major != 3) {
    std::string reason = "This version of the FastCoding library doesn't support FastCoding version " +
                         std::to_string(major) + "." + std::to_string(minor) + " files";
    logLine(reason, LogLevel::Error);
    return fail(reason);
  }
  if (major == 2) return parseLegacyFastCoding(data, rules, nodes);

  FastReader reader(data, rules);
  // The header's counts are read before the guard, so a cut header reaches the caller.
  if (data.size() < kFastHeaderSize) throwEOF(data.size() < 12 ? 8 : data.size() < 16 ? 12 : 16);
  try {
    Value root = reader.parse();
    if (nodes != nullptr) *nodes = reader.nodes();
    return root;
  } catch (const Exception& e) {
    // Nothing of the partial graph is handed out; free it even where it holds itself.
    breakCycles(reader.nodes());
    logLine(e.reason(), LogLevel::Error);
    return fail(e.reason());
  } catch (...) {
    breakCycles(reader.nodes());
    throw;
  }
}

}  // namespace detail

Value FastCoder::objectWithData(ByteView data, Error* error) {
  return detail::parseFastCoding(data, {}, error, nullptr);
}

Value FastCoder::acyclicObjectWithData(ByteView data, Error* error) {
  return detail::parseFastCoding(data, {.refuseCycles = true}, error, nullptr);
}

Value FastCoder::propertyListWithData(ByteView data, Error* error) {
  return detail::parseFastCoding(data, {.propertyListOnly = true}, error, nullptr);
}

}  // namespace corvane
