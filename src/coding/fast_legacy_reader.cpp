// The reader of major version 2 files. That format is 4-byte granular (u32 type codes,
// padded strings) and has one alias table, which holds numbers, strings, class definitions
// and structure values as well as containers. Errors are not caught here: they reach the
// caller of objectWithData, as they always have for these files.
#include <algorithm>
#include <array>
#include <string>

#include "coding/fast_internal.h"
#include "corvane/foundation/error.h"

namespace corvane::detail {
namespace {

enum LegacyType : uint32_t {
  lNull = 0,
  lAlias,
  lString,
  lDictionary,
  lArray,
  lSet,
  lOrderedSet,
  lTrue,
  lFalse,
  lInt32,
  lInt64,
  lFloat32,
  lFloat64,
  lData,
  lDate,
  lMutableString,
  lMutableDictionary,
  lMutableArray,
  lMutableSet,
  lMutableOrderedSet,
  lMutableData,
  lClassDefinition,
  lObjectInstance,
  lNil,
  lURL,
  lPoint,
  lSize,
  lRect,
  lRange,
  lAffineTransform,
  lTransform3D,
  lMutableIndexSet,
  lIndexSet,
  lCodedObject,
  lTypeCount
};

class LegacyReader {
 public:
  LegacyReader(ByteView data, ReadRules rules)
      : in_{data.data(), data.size(), 0}, propertyListOnly_(rules.propertyListOnly), open_(rules.refuseCycles) {}

  Value parse() {
    in_.pos = 8;
    auto count = in_.take<uint32_t>();
    objects_.reserve(std::min<uint64_t>(count, in_.remaining() / 4));
    return read();
  }

  std::vector<Value> nodes() const {
    std::vector<Value> all;
    all.reserve(objects_.size());
    for (const Entry& e : objects_) all.push_back(e.value);
    return all;
  }

 private:
  struct Entry {
    Value value;
    int32_t classDef = -1;  // index into classes_ when the slot holds a class definition
  };
  struct ClassDef {
    std::string name;
    std::vector<Value> keys;
    const ClassInfo* info = nullptr;
  };

  size_t capacity(uint64_t count, size_t bytesPerItem) const {
    return static_cast<size_t>(std::min<uint64_t>(count, in_.remaining() / bytesPerItem));
  }
  Value push(Value v) {
    objects_.push_back(Entry{v});
    return v;
  }

  // UTF-8, a NUL, then zero bytes up to a multiple of 4 of the string-plus-NUL length.
  std::string_view paddedString() {
    std::string_view s = in_.peekCString();
    in_.takeBytes((s.size() + 1 + 3) & ~size_t{3});
    return s;
  }

  Value read() {
    auto type = in_.take<uint32_t>();
    if (type >= lTypeCount) throwUnknownType(type);
    if (propertyListOnly_ &&
        (type == lClassDefinition || type == lObjectInstance || type == lNil || type == lCodedObject))
      throwUnknownType(type);
    if (++depth_ > kFastMaxDepth) throwTooDeep();
    Value v = construct(type);
    --depth_;
    return v;
  }

  Value readString(bool mutableNode) {
    std::string_view s = paddedString();
    return push(isValidUTF8(s) ? Value::string(s, mutableNode) : Value());
  }

  Value readDictionary(bool mutableNode) {
    auto count = in_.take<uint32_t>();
    if (mutableNode) {
      Value dict = push(Value::mutableDictionary());
      auto scope = open_.open(objects_.size() - 1);
      for (uint32_t i = 0; i < count; ++i) {
        Value value = read();
        Value key = read();
        if (!value.isNil() && !key.isNil()) dict.set(key, value);
      }
      return dict;
    }
    std::vector<std::pair<Value, Value>> entries;
    entries.reserve(capacity(count, 8));
    for (uint32_t i = 0; i < count; ++i) {
      Value value = read();
      Value key = read();
      if (!value.isNil() && !key.isNil()) entries.emplace_back(std::move(key), std::move(value));
    }
    return push(Value::dictionary(std::move(entries)));
  }

  Value readCollection(ValueKind kind, bool mutableNode) {
    auto count = in_.take<uint32_t>();
    auto make = [kind](std::vector<Value> v, bool m) {
      if (kind == ValueKind::Set) return Value::set(std::move(v), m);
      if (kind == ValueKind::OrderedSet) return Value::orderedSet(std::move(v), m);
      return Value::array(std::move(v), m);
    };
    if (mutableNode) {
      Value c = push(make({}, true));
      auto scope = open_.open(objects_.size() - 1);
      for (uint32_t i = 0; i < count; ++i) c.append(read());
      return c;
    }
    std::vector<Value> items;
    items.reserve(capacity(count, 4));
    for (uint32_t i = 0; i < count; ++i) items.push_back(read());
    return push(make(std::move(items), false));
  }

  Value readData(bool mutableNode) {
    auto length = in_.take<uint32_t>();
    size_t padded = (static_cast<size_t>(length) + 3) & ~size_t{3};
    Value d = Value::data(ByteView(in_.takeBytes(padded), length), mutableNode);
    return push(d);
  }

  Value readClassDefinition() {
    objects_.push_back(Entry{Value(), static_cast<int32_t>(classes_.size())});
    classes_.emplace_back();
    size_t index = classes_.size() - 1;
    std::string name(paddedString());
    auto count = in_.take<uint32_t>();
    std::vector<Value> keys;
    keys.reserve(capacity(count, 4));
    for (uint32_t i = 0; i < count; ++i) keys.emplace_back(paddedString());
    classes_[index].name = std::move(name);
    classes_[index].keys = std::move(keys);
    classes_[index].info = ClassRegistry::shared().find(classes_[index].name);
    return read();
  }

  Value readObjectInstance() {
    auto index = in_.take<uint32_t>();
    if (index >= objects_.size()) throwBadIndex(index, objects_.size());
    int32_t classIndex = objects_[index].classDef;
    if (classIndex < 0) throwUnknownType(lObjectInstance);  // the slot holds no class definition
    Value object = constructPropertyObject(classes_[classIndex].info, classes_[classIndex].name);
    size_t slot = objects_.size();
    push(object);
    auto scope = open_.open(slot);
    size_t keyCount = classes_[classIndex].keys.size();
    for (size_t i = 0; i < keyCount; ++i) {
      Value value = read();
      setPropertyValue(object, classes_[classIndex].keys[i], value);
    }
    Value awake = awakeObject(object);
    if (!awake.isSameNode(object)) objects_[slot].value = awake;
    return awake;
  }

  Value readIndexSet(bool mutableNode) {
    auto count = in_.take<uint32_t>();
    std::vector<IndexRange> ranges;
    ranges.reserve(capacity(count, 8));
    if (mutableNode) {
      Value set = push(Value::indexSet({}, true));
      for (uint32_t i = 0; i < count; ++i) {
        auto location = in_.take<uint32_t>();
        auto length = in_.take<uint32_t>();
        set.addIndexes(IndexRange{location, length});
      }
      return set;
    }
    for (uint32_t i = 0; i < count; ++i) {
      auto location = in_.take<uint32_t>();
      auto length = in_.take<uint32_t>();
      ranges.push_back(IndexRange{location, length});
    }
    return push(Value::indexSet(std::move(ranges)));
  }

  Value readCodedObject() {
    Value className = read();
    FCNSDecoder::Pairs pairs;
    while (true) {
      Value value = read();
      if (value.isNil()) break;
      Value key = read();
      pairs.emplace_back(std::move(key), std::move(value));
    }
    FCNSDecoder decoder(&pairs);
    return push(constructCodedObject(findCodedClass(className), className, decoder, pairs));
  }

  template <size_t N>
  std::array<double, N> doubles() {
    std::array<double, N> m;
    for (double& d : m) d = in_.take<double>();
    return m;
  }

  Value construct(uint32_t type) {
    switch (type) {
      case lNull:
        return Value::null();
      case lAlias: {
        auto index = in_.take<uint32_t>();
        if (index >= objects_.size()) throwBadIndex(index, objects_.size());
        open_.checkAlias(index);
        return objects_[index].value;
      }
      case lString:
        return readString(false);
      case lMutableString:
        return readString(true);
      case lDictionary:
        return readDictionary(false);
      case lMutableDictionary:
        return readDictionary(true);
      case lArray:
        return readCollection(ValueKind::Array, false);
      case lMutableArray:
        return readCollection(ValueKind::Array, true);
      case lSet:
        return readCollection(ValueKind::Set, false);
      case lMutableSet:
        return readCollection(ValueKind::Set, true);
      case lOrderedSet:
        return readCollection(ValueKind::OrderedSet, false);
      case lMutableOrderedSet:
        return readCollection(ValueKind::OrderedSet, true);
      case lTrue:
        return Value::boolean(true);
      case lFalse:
        return Value::boolean(false);
      case lInt32:
        return push(Value::number(NumberKind::Int, in_.take<int32_t>()));
      case lInt64:
        return push(Value::number(NumberKind::LongLong, in_.take<int64_t>()));
      case lFloat32:
        return push(Value::floatNumber(in_.take<float>()));
      case lFloat64:
        return push(Value::doubleNumber(in_.take<double>()));
      case lData:
        return readData(false);
      case lMutableData:
        return readData(true);
      case lDate:
        return push(Value::date(in_.take<double>()));
      case lClassDefinition:
        return readClassDefinition();
      case lObjectInstance:
        return readObjectInstance();
      case lNil:
        return Value();
      case lURL: {
        Value relative = read();
        Value base = read();
        return push(Value::url(relative.str(), base.isURL() ? base : Value()));
      }
      case lPoint: {
        auto m = doubles<2>();
        return push(Value::point(m[0], m[1]));
      }
      case lSize: {
        auto m = doubles<2>();
        return push(Value::size(m[0], m[1]));
      }
      case lRect: {
        auto m = doubles<4>();
        return push(Value::rect(m[0], m[1], m[2], m[3]));
      }
      case lRange: {
        uint32_t location = in_.take<uint32_t>(), length = in_.take<uint32_t>();
        return push(Value::range(location, length));
      }
      case lAffineTransform: {
        auto m = doubles<6>();
        return push(Value::affineTransform(m[0], m[1], m[2], m[3], m[4], m[5]));
      }
      case lTransform3D: {
        auto m = doubles<16>();
        return push(Value::transform3D(m));
      }
      case lMutableIndexSet:
        return readIndexSet(true);
      case lIndexSet:
        return readIndexSet(false);
      case lCodedObject:
        return readCodedObject();
      default:
        throwUnknownType(type);
    }
  }

  ByteCursor in_;
  bool propertyListOnly_;
  int depth_ = 0;
  OpenContainers open_;
  std::vector<Entry> objects_;
  std::vector<ClassDef> classes_;
};

}  // namespace

Value parseLegacyFastCoding(ByteView data, ReadRules rules, std::vector<Value>* nodes) {
  LegacyReader reader(data, rules);
  try {
    Value root = reader.parse();
    if (nodes != nullptr) *nodes = reader.nodes();
    return root;
  } catch (...) {
    // The error goes on to the caller, but the partial graph must not outlive it.
    breakCycles(reader.nodes());
    throw;
  }
}

}  // namespace corvane::detail
