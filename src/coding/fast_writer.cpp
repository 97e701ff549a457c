// The FastCoding writer. One depth-first walk of the graph appends each value's type byte and
// payload; the three alias tables are filled at the same points where the reader fills its
// own, which is what keeps indices in step.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "coding/fast_internal.h"
#include "corvane/foundation/error.h"

namespace corvane {
namespace detail {
namespace {

const Value& classKey() {
  static const Value k("$class");
  return k;
}
const Value& aliasKey() {
  static const Value k("$alias");
  return k;
}

// The platform's integer reading of a key-path component: optional blanks and sign, then
// digits up to the first non-digit; 0 when there are none.
int64_t componentIndex(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
  int64_t v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    v = v * 10 + (s[i] - '0');
    if (v > INT32_MAX) break;
  }
  return negative ? -v : v;
}

std::string keyText(const Value& key) { return key.isString() ? key.str() : key.description(); }

}  // namespace

FastWriter::FastWriter(const Value& root) : root_(root) {
  buf_.resize(4096);
  raw<uint32_t>(kFastIdentifier);
  raw<uint16_t>(kFastMajor);
  raw<uint16_t>(kFastMinor);
  raw<uint32_t>(0);
  raw<uint32_t>(0);
  raw<uint32_t>(0);
}

Bytes FastWriter::finish() {
  std::memcpy(buf_.data() + 8, &objectCount_, 4);
  std::memcpy(buf_.data() + 12, &classCount_, 4);
  std::memcpy(buf_.data() + 16, &stringCount_, 4);
  buf_.resize(len_);
  return std::move(buf_);
}

void FastWriter::writeIndexedAlias(uint8_t code8, uint32_t index) {
  if (index <= 0xFF) {
    byte(code8);
    byte(static_cast<uint8_t>(index));
  } else if (index <= 0xFFFF) {
    byte(code8 + 1);
    align(2);
    raw<uint16_t>(static_cast<uint16_t>(index));
  } else {
    byte(code8 + 2);
    align(4);
    raw<uint32_t>(index);
  }
}

void FastWriter::writeObjectAlias(const Value& v) { objectAlias(v); }

void FastWriter::write(const Value& v) {
  switch (v.kind()) {
    case ValueKind::Nil:
      byte(kNil);
      return;
    case ValueKind::Null:
      byte(kNull);
      return;
    case ValueKind::Number:
      writeNumber(v);
      return;
    case ValueKind::Decimal: {
      byte(kDecimalNumber);
      size_t r = len_ % 20;
      if (r != 0) std::memset(grow(20 - r), 0, 20 - r);
      auto record = v.decimalValue().toRecord();
      std::memcpy(grow(20), record.data(), 20);
      return;
    }
    case ValueKind::String:
      writeString(v);
      return;
    case ValueKind::Data:
      writeData(v);
      return;
    case ValueKind::Date:
      if (objectAlias(v)) return;
      registerObject(v);
      byte(kDate);
      align(8);
      raw<double>(v.dateValue());
      return;
    case ValueKind::URL:
      writeURL(v);
      return;
    case ValueKind::Structure:
      writeStructure(v);
      return;
    case ValueKind::IndexSet:
      writeIndexSet(v);
      return;
    default:
      break;
  }
  // Containers and objects recurse; bound the depth so that a runaway graph fails cleanly.
  if (++depth_ > kFastMaxDepth) throwTooDeep();
  switch (v.kind()) {
    case ValueKind::Array:
      writeCollection(v, kArray, kMutableArray);
      break;
    case ValueKind::Set:
      writeCollection(v, kSet, kMutableSet);
      break;
    case ValueKind::OrderedSet:
      writeCollection(v, kOrderedSet, kMutableOrderedSet);
      break;
    case ValueKind::Dictionary:
      writeDictionary(v);
      break;
    case ValueKind::Object:
      writeObject(v);
      break;
    default:
      break;
  }
  --depth_;
}

// ---- Numbers ----------------------------------------------------------------------------

// The 8-bit end of the chain: 0 and 1 cost one byte, and booleans keep their own codes.
void FastWriter::writeInteger32(int32_t v, bool boolean) {
  if (v != static_cast<int16_t>(v)) {
    byte(kInt32);
    align(4);
    raw<int32_t>(v);
    return;
  }
  auto v16 = static_cast<int16_t>(v);
  if (v16 != static_cast<int8_t>(v16)) {
    byte(kInt16);
    align(2);
    raw<int16_t>(v16);
    return;
  }
  auto v8 = static_cast<int8_t>(v16);
  if (v8 == 0) {
    byte(boolean ? kFalse : kZero);
  } else if (v8 == 1) {
    byte(boolean ? kTrue : kOne);
  } else {
    byte(kInt8);
    byte(static_cast<uint8_t>(v8));
  }
}

void FastWriter::writeInteger64(int64_t v) {
  if (v != static_cast<int32_t>(v)) {
    byte(kInt64);
    align(8);
    raw<int64_t>(v);
    return;
  }
  writeInteger32(static_cast<int32_t>(v), false);
}

void FastWriter::writeNumberOfKind(NumberKind kind, int64_t i, double d) {
  switch (kind) {
    case NumberKind::Float:
      byte(kFloat32);
      align(4);
      raw<float>(static_cast<float>(d));
      return;
    case NumberKind::Double:
      byte(kFloat64);
      align(8);
      raw<double>(d);
      return;
    case NumberKind::LongLong:
    case NumberKind::UnsignedLongLong:
    case NumberKind::UnsignedInt:
    case NumberKind::UnsignedShort:
    case NumberKind::UnsignedChar:
      // Unsigned kinds narrower than 64 bits hold values that fit the 64-bit chain exactly;
      // unsigned 64-bit values keep their bit pattern.
      writeInteger64(i);
      return;
    case NumberKind::Int:
    case NumberKind::Long:
    case NumberKind::Index:
    case NumberKind::UnsignedLong:
      // Long and index kinds go through 32 bits, as files from the platform have them.
      writeInteger32(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(i))), false);
      return;
    case NumberKind::Short:
      writeInteger32(static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint64_t>(i))), false);
      return;
    case NumberKind::Char:
      writeInteger32(static_cast<int8_t>(static_cast<uint8_t>(static_cast<uint64_t>(i))), false);
      return;
    case NumberKind::Bool:
      writeInteger32(static_cast<int8_t>(static_cast<uint8_t>(static_cast<uint64_t>(i))), true);
      return;
    case NumberKind::Unknown:
      // A kind no encoder knows writes nothing, leaving the stream one value short.
      return;
  }
}

void FastWriter::writeNumber(const Value& v) {
  NumberKind k = v.numberKind();
  if (k == NumberKind::Float || k == NumberKind::Double) {
    writeNumberOfKind(k, 0, v.doubleValue());
  } else if (v.isUnsigned()) {
    // The bits as they are: longLongValue() saturates values of 2^63 and more.
    writeNumberOfKind(k, static_cast<int64_t>(v.unsignedLongLongValue()), 0);
  } else {
    writeNumberOfKind(k, v.longLongValue(), 0);
  }
}

// ---- Strings, data ----------------------------------------------------------------------

void FastWriter::writeImmutableString(std::string_view s) {
  uint64_t h = hashBytes(s);
  int64_t i = strings_.find(s, h);
  if (i >= 0) {
    writeIndexedAlias(kStringAlias8, static_cast<uint32_t>(i));
    return;
  }
  strings_.insert(s, h, stringCount_++);
  byte(kString);
  cstring(s);
}

void FastWriter::writeString(const Value& v) {
  if (!v.isMutable()) {
    const void* node = v.identity();
    if (static_cast<const detail::Node*>(node)->refCount() < 2) {
      writeImmutableString(v.str());
      return;
    }
    StringNodeSlot& slot = stringNodes_[mixHash(reinterpret_cast<uintptr_t>(node)) & (stringNodes_.size() - 1)];
    if (slot.node == node) {
      writeIndexedAlias(kStringAlias8, slot.index);
      return;
    }
    writeImmutableString(v.str());
    // Remember the node with the index its text has now. The node lives as long as the walk:
    // it is held by the graph or was retained when user code handed it over.
    const std::string& text = v.str();
    int64_t index = strings_.find(text, hashBytes(text));
    if (index >= 0) {
      slot.node = node;
      slot.index = static_cast<uint32_t>(index);
    }
    return;
  }
  if (objectAlias(v)) return;
  registerObject(v);
  byte(kMutableString);
  cstring(v.str());
}

void FastWriter::writeFreshData(ByteView bytes) {
  registerSlot();
  byte(kData);
  align(4);
  raw<uint32_t>(static_cast<uint32_t>(bytes.size()));
  size_t padded = (bytes.size() + 3) & ~size_t{3};
  uint8_t* p = grow(padded);
  if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
  std::memset(p + bytes.size(), 0, padded - bytes.size());
}

void FastWriter::writeData(const Value& v) {
  if (objectAlias(v)) return;
  registerObject(v);
  ByteView bytes = v.bytes();
  byte(v.isMutable() ? kMutableData : kData);
  align(4);
  raw<uint32_t>(static_cast<uint32_t>(bytes.size()));
  size_t padded = (bytes.size() + 3) & ~size_t{3};
  uint8_t* p = grow(padded);
  if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
  std::memset(p + bytes.size(), 0, padded - bytes.size());
}

// ---- Containers -------------------------------------------------------------------------

void FastWriter::writeCollection(const Value& v, uint8_t immutableCode, uint8_t mutableCode) {
  if (objectAlias(v)) return;
  bool isMutable = v.isMutable();
  // A mutable container takes its index before its children so that it can contain itself;
  // an immutable one cannot, and takes it after them, where the reader builds it.
  if (isMutable) registerObject(v);
  const auto& items = v.elements();
  byte(isMutable ? mutableCode : immutableCode);
  align(4);
  raw<uint32_t>(static_cast<uint32_t>(items.size()));
  for (const Value& item : items) write(item);
  if (!isMutable) registerObject(v);
}

void FastWriter::writeDictionary(const Value& v) {
  if (objectAlias(v)) return;
  const auto& entries = v.entries();
  if (entries.size() == 1 && entries[0].first == aliasKey()) {
    writeAliasDictionary(entries[0].second);
    return;
  }
  if (v.contains(classKey())) {
    writeClassDictionary(v);
    return;
  }
  bool isMutable = v.isMutable();
  if (isMutable) registerObject(v);
  byte(isMutable ? kMutableDictionary : kDictionary);
  align(4);
  raw<uint32_t>(static_cast<uint32_t>(entries.size()));
  for (const auto& [key, value] : entries) {
    if (key.isNil() || value.isNil()) continue;  // the count stays as it was
    write(value);
    write(key);
  }
  if (!isMutable) registerObject(v);
}

// {"$alias": "a.2.b"} stands for the value found from the root along the key path.
void FastWriter::writeAliasDictionary(const Value& path) {
  Value current = root_;
  std::string_view rest = path.str();
  while (true) {
    size_t dot = rest.find('.');
    std::string_view component = rest.substr(0, dot);
    if (current.isArray()) {
      int64_t index = componentIndex(component);
      current = index < 0 ? Value() : current.at(static_cast<size_t>(index));
    } else if (current.isDictionary()) {
      current = current.get(Value(component));
    } else if (Object* obj = current.objectPointer()) {
      current = obj->valueForKey(component);
    } else {
      current = Value();
    }
    if (dot == std::string_view::npos) break;
    rest.remove_prefix(dot + 1);
  }
  writeHandedOver(current);
}

// A dictionary with "$class" is an object whose class was unknown when it was read. Every
// such dictionary of one class name shares a definition, widened when a later one has more
// keys.
void FastWriter::writeClassDictionary(const Value& v) {
  const auto& entries = v.entries();
  std::string name = keyText(v.get(classKey()));
  std::vector<std::string> keys;
  keys.reserve(entries.size());
  for (const auto& entry : entries)
    if (!(entry.first == classKey())) keys.push_back(keyText(entry.first));

  DictClass* def = nullptr;
  auto found = dictClassesByName_.find(name);
  if (found != dictClassesByName_.end()) {
    def = found->second;
    std::vector<std::string> missing;
    for (const auto& k : keys)
      if (std::find(def->keys.begin(), def->keys.end(), k) == def->keys.end()) missing.push_back(k);
    if (!missing.empty()) {
      auto wider = std::make_unique<DictClass>(*def);
      wider->keys.insert(wider->keys.end(), missing.begin(), missing.end());
      def = wider.get();
      dictClasses_.push_back(std::move(wider));
      found->second = def;
    }
  } else {
    auto fresh = std::make_unique<DictClass>(DictClass{name, std::move(keys)});
    def = fresh.get();
    dictClasses_.push_back(std::move(fresh));
    dictClassesByName_.emplace(name, def);
  }

  uint32_t classIndex;
  auto known = dictClassIndex_.find(def);
  if (known != dictClassIndex_.end()) {
    classIndex = known->second;
  } else {
    classIndex = classCount_++;
    dictClassIndex_.emplace(def, classIndex);
    byte(kClassDefinition);
    cstring(def->name);
    align(4);
    raw<uint32_t>(static_cast<uint32_t>(def->keys.size()));
    for (const auto& k : def->keys) cstring(k);
  }
  registerObject(v);
  writeClassIndex(classIndex);
  for (const auto& k : def->keys) {
    const Value* value = nullptr;
    for (const auto& entry : entries) {
      if (entry.first.isString() ? entry.first.str() == k : keyText(entry.first) == k) {
        value = &entry.second;
        break;
      }
    }
    if (value != nullptr) {
      write(*value);
    } else {
      byte(kNil);
    }
  }
}

void FastWriter::writeClassIndex(uint32_t index) {
  if (index < 256) {
    byte(kObject8);
    byte(static_cast<uint8_t>(index));
  } else if (index >= 65536) {
    byte(kObject32);
    align(4);
    raw<uint32_t>(index);
  } else {
    byte(kObject16);
    align(2);
    raw<uint16_t>(static_cast<uint16_t>(index));
  }
}

// ---- Objects ----------------------------------------------------------------------------

void FastWriter::writeObject(const Value& v) {
  Object* obj = v.objectPointer();
  if (objectAlias(v)) return;
  auto* coding = dynamic_cast<FastCodingObject*>(obj);
  if (coding != nullptr && !coding->preferFastCoding() && coding->supportsKeyedCoding()) {
    if (coding->preferKeyedArchiver()) {
      byte(kKeyedArchive);
      std::optional<Bytes> archive = coding->keyedArchive();
      if (archive) {
        writeFreshData(*archive);
      } else {
        byte(kNil);
      }
      registerObject(v);
      return;
    }
    byte(kCodedObject);
    std::string name = coding->classForCoding();
    if (name.empty()) {
      byte(kNil);
    } else {
      writeImmutableString(name);
    }
    FCNSCoder coder(this);
    coding->encodeWithCoder(coder);
    byte(kNil);
    registerObject(v);
    return;
  }

  std::string name = coding != nullptr ? coding->classForFastCoding() : obj->className();
  auto it = classes_.find(name);
  if (it == classes_.end()) {
    ClassEntry entry{classCount_++, ClassRegistry::shared().aggregatePropertyKeys(name)};
    byte(kClassDefinition);
    cstring(name);
    align(4);
    raw<uint32_t>(static_cast<uint32_t>(entry.keys.size()));
    for (const auto& k : entry.keys) cstring(k);
    it = classes_.emplace(std::move(name), std::move(entry)).first;
  }
  registerObject(v);
  writeClassIndex(it->second.index);
  for (const auto& k : it->second.keys) writeHandedOver(obj->valueForKey(k));
}

// ---- Index sets, URLs, structures -------------------------------------------------------

void FastWriter::writeIndexSet(const Value& v) {
  if (objectAlias(v)) return;
  bool isMutable = v.isMutable();
  if (isMutable) registerObject(v);
  const auto& ranges = v.indexRanges();
  byte(isMutable ? kMutableIndexSet : kIndexSet);
  align(4);
  raw<uint32_t>(static_cast<uint32_t>(ranges.size()));
  for (const IndexRange& r : ranges) {
    raw<uint32_t>(static_cast<uint32_t>(r.location));
    raw<uint32_t>(static_cast<uint32_t>(r.length));
  }
  if (!isMutable) registerObject(v);
}

void FastWriter::writeURL(const Value& v) {
  auto found = urls_.find(v);
  if (found != urls_.end()) {
    writeIndexedAlias(kStringAlias8, found->second);
    return;
  }
  byte(kURL);
  write(v.urlRelativeString());
  write(v.urlBase());
  urls_.emplace(v, stringCount_++);
}

void FastWriter::writeStructure(const Value& v) {
  // Structure values take an object index although nothing ever refers to them, and the
  // reader does not count them: files from the platform carry the same offset.
  registerSlot();
  auto doubles = v.structureDoubles();
  auto putDoubles = [&](size_t n) {
    for (size_t i = 0; i < n; ++i) raw<double>(i < doubles.size() ? doubles[i] : 0.0);
  };
  switch (v.structureKind()) {
    case StructureKind::Point:
      byte(kPoint);
      align(8);
      putDoubles(2);
      break;
    case StructureKind::Size:
      byte(kSize);
      align(8);
      putDoubles(2);
      break;
    case StructureKind::Rect:
      byte(kRect);
      align(8);
      putDoubles(4);
      break;
    case StructureKind::Range: {
      IndexRange r = v.rangeValue();
      byte(kRange);
      align(4);
      raw<uint32_t>(static_cast<uint32_t>(r.location));
      raw<uint32_t>(static_cast<uint32_t>(r.length));
      break;
    }
    case StructureKind::Vector:
      byte(kVector);
      align(8);
      putDoubles(2);
      break;
    case StructureKind::AffineTransform:
      // Written without alignment; the reader aligns, and the two disagree at odd offsets.
      byte(kAffineTransform);
      putDoubles(6);
      break;
    case StructureKind::Transform3D:
      byte(kTransform3D);
      align(8);
      putDoubles(16);
      break;
  }
}

}  // namespace detail

std::optional<Bytes> FastCoder::dataWithRootObject(const Value& root) {
  if (root.isNil()) return std::nullopt;
  detail::FastWriter writer(root);
  writer.write(root);
  return writer.finish();
}

}  // namespace corvane
