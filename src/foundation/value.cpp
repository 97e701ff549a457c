// Construction, accessors, mutation and copies of corvane::Value. Node internals live in
// value_nodes.cpp, equality, hashing and ordering in value_compare.cpp, text forms in
// value_description.cpp.
#include "corvane/foundation/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "foundation/value_internal.h"

namespace corvane {

using detail::DataNode;
using detail::DateNode;
using detail::DecimalNode;
using detail::DictionaryNode;
using detail::ElementsNode;
using detail::IndexSetNode;
using detail::StringNode;
using detail::StructureNode;
using detail::URLNode;
using detail::ValueNode;

using value_detail::throwImmutable;
using value_detail::throwRange;
using value_detail::throwWrongKind;

namespace {

__extension__ typedef __int128 Int128;

const std::string kEmptyString;
const std::vector<Value> kNoElements;
const std::vector<std::pair<Value, Value>> kNoEntries;
const std::vector<IndexRange> kNoRanges;
const Value kNil;

bool isUnsignedKind(NumberKind k) {
  switch (k) {
    case NumberKind::UnsignedChar:
    case NumberKind::UnsignedShort:
    case NumberKind::UnsignedInt:
    case NumberKind::UnsignedLong:
    case NumberKind::UnsignedLongLong:
    case NumberKind::Index:
      return true;
    default:
      return false;
  }
}

bool isFloatKind(NumberKind k) { return k == NumberKind::Float || k == NumberKind::Double; }

// C-style conversions are undefined outside the target range; the platform saturates.
int64_t saturatingInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (d < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

uint64_t saturatingUInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d < 0) return static_cast<uint64_t>(saturatingInt64(d));
  if (d >= 0x1p64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(d);
}

std::string_view skipSpace(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  return s.substr(i);
}

// The platform reads the leading number of a string and ignores the rest.
int64_t stringLongLong(std::string_view s) {
  s = skipSpace(s);
  bool negative = false;
  if (!s.empty() && (s[0] == '+' || s[0] == '-')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  Int128 v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') break;
    v = v * 10 + (c - '0');
    if (v > static_cast<Int128>(std::numeric_limits<int64_t>::max()) + 1) break;
  }
  if (negative) v = -v;
  if (v > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
  if (v < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

double stringDouble(std::string_view s) {
  s = skipSpace(s);
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  double v = 0;
  std::from_chars(s.data(), s.data() + s.size(), v);
  return v;
}

bool stringBool(std::string_view s) {
  s = skipSpace(s);
  if (!s.empty() && (s[0] == '+' || s[0] == '-')) s.remove_prefix(1);
  while (!s.empty() && s[0] == '0') s.remove_prefix(1);
  if (s.empty()) return false;
  const char c = s[0];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

template <class N>
N* nodeOf(const Value& v) {
  return ValueAccess::as<N>(v);
}

}  // namespace

// ---- Construction ---------------------------------------------------------------------------

Value::Value(bool b) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::Bool) { scalar_.i = b ? 1 : 0; }
Value::Value(int v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::Int) { scalar_.i = v; }
Value::Value(long v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::LongLong) { scalar_.i = v; }
Value::Value(long long v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::LongLong) { scalar_.i = v; }
Value::Value(unsigned v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::UnsignedInt) { scalar_.u = v; }
Value::Value(unsigned long v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::UnsignedLongLong) {
  scalar_.u = v;
}
Value::Value(unsigned long long v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::UnsignedLongLong) {
  scalar_.u = v;
}
Value::Value(double v) noexcept : kind_(ValueKind::Number), numberKind_(NumberKind::Double) { scalar_.d = v; }

Value::Value(const char* utf8) {
  if (utf8 != nullptr) *this = string(utf8);
}
Value::Value(std::string_view utf8) : Value(string(utf8)) {}
Value::Value(const std::string& utf8) : Value(string(utf8)) {}
Value::Value(const Decimal& d) : Value(decimal(d)) {}

Value Value::null() {
  Value v;
  v.kind_ = ValueKind::Null;
  return v;
}

Value Value::boolean(bool b) { return Value(b); }

Value Value::number(NumberKind kind, int64_t v) {
  switch (kind) {
    case NumberKind::Bool: return ValueAccess::scalar(kind, v != 0 ? 1 : 0);
    case NumberKind::Char: return ValueAccess::scalar(kind, static_cast<int8_t>(v));
    case NumberKind::Short: return ValueAccess::scalar(kind, static_cast<int16_t>(v));
    case NumberKind::Int: return ValueAccess::scalar(kind, static_cast<int32_t>(v));
    case NumberKind::Float: return floatNumber(static_cast<float>(v));
    case NumberKind::Double: return ValueAccess::scalarDouble(kind, static_cast<double>(v));
    default:
      if (isUnsignedKind(kind)) return unsignedNumber(kind, static_cast<uint64_t>(v));
      return ValueAccess::scalar(kind, v);
  }
}

Value Value::unsignedNumber(NumberKind kind, uint64_t v) {
  switch (kind) {
    case NumberKind::UnsignedChar: return ValueAccess::scalarUnsigned(kind, static_cast<uint8_t>(v));
    case NumberKind::UnsignedShort: return ValueAccess::scalarUnsigned(kind, static_cast<uint16_t>(v));
    case NumberKind::UnsignedInt: return ValueAccess::scalarUnsigned(kind, static_cast<uint32_t>(v));
    case NumberKind::UnsignedLong:
    case NumberKind::UnsignedLongLong:
    case NumberKind::Index:
      return ValueAccess::scalarUnsigned(kind, v);
    case NumberKind::Float: return floatNumber(static_cast<float>(v));
    case NumberKind::Double: return ValueAccess::scalarDouble(kind, static_cast<double>(v));
    default: return number(kind, static_cast<int64_t>(v));
  }
}

Value Value::floatNumber(float v) { return ValueAccess::scalarDouble(NumberKind::Float, static_cast<double>(v)); }
Value Value::doubleNumber(double v) { return ValueAccess::scalarDouble(NumberKind::Double, v); }

Value Value::decimal(const Decimal& d) { return ValueAccess::adopt(ValueKind::Decimal, new DecimalNode(d)); }

Value Value::string(std::string_view utf8, bool mutableNode) {
  return ValueAccess::adopt(ValueKind::String, new StringNode(utf8, mutableNode));
}

Value Value::data(ByteView bytes, bool mutableNode) {
  return ValueAccess::adopt(ValueKind::Data, new DataNode(Bytes(bytes.begin(), bytes.end()), mutableNode));
}

Value Value::data(Bytes&& bytes, bool mutableNode) {
  return ValueAccess::adopt(ValueKind::Data, new DataNode(std::move(bytes), mutableNode));
}

Value Value::date(double secondsSince2001) {
  return ValueAccess::adopt(ValueKind::Date, new DateNode(secondsSince2001));
}

Value Value::array(std::vector<Value> items, bool mutableNode) {
  auto* node = new ElementsNode(mutableNode, false);
  node->items = std::move(items);
  return ValueAccess::adopt(ValueKind::Array, node);
}

Value Value::arrayMovingFrom(std::span<Value> items, bool mutableNode) {
  auto* node = new ElementsNode(mutableNode, false);
  node->items.assign(std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
  return ValueAccess::adopt(ValueKind::Array, node);
}

Value Value::dictionary(std::vector<std::pair<Value, Value>> entries, bool mutableNode) {
  return dictionaryMovingFrom(entries, mutableNode);
}

Value Value::dictionaryMovingFrom(std::span<std::pair<Value, Value>> entries, bool mutableNode) {
  auto* node = new DictionaryNode(mutableNode);
  Value result = ValueAccess::adopt(ValueKind::Dictionary, node);
  node->entries.reserve(entries.size());
  if (entries.size() > detail::HashIndex::kThreshold) node->index.start(entries.size());
  for (auto& [key, value] : entries) {
    if (key.isNil() || value.isNil()) continue;
    node->put(std::move(key), std::move(value));
  }
  return result;
}

namespace {
Value distinctElements(ValueKind kind, std::vector<Value>& items, bool mutableNode) {
  auto* node = new ElementsNode(mutableNode, true);
  Value result = ValueAccess::adopt(kind, node);
  node->items.reserve(items.size());
  if (items.size() > detail::HashIndex::kThreshold) node->index.start(items.size());
  for (auto& item : items) {
    if (!item.isNil()) node->add(std::move(item));
  }
  return result;
}
}  // namespace

Value Value::set(std::vector<Value> items, bool mutableNode) { return distinctElements(ValueKind::Set, items, mutableNode); }

Value Value::orderedSet(std::vector<Value> items, bool mutableNode) {
  return distinctElements(ValueKind::OrderedSet, items, mutableNode);
}

Value Value::url(std::string_view relativeString, const Value& base) {
  Value baseURL = base.isURL() ? base : Value();
  std::string absolute = value_detail::resolveURL(std::string(relativeString), baseURL);
  return ValueAccess::adopt(ValueKind::URL, new URLNode(Value::string(relativeString), std::move(baseURL), std::move(absolute)));
}

namespace {
Value structure(StructureKind kind, std::initializer_list<double> values) {
  return ValueAccess::adopt(ValueKind::Structure,
                            new StructureNode(kind, std::span<const double>(values.begin(), values.size())));
}
}  // namespace

Value Value::point(double x, double y) { return structure(StructureKind::Point, {x, y}); }
Value Value::size(double width, double height) { return structure(StructureKind::Size, {width, height}); }
Value Value::rect(double x, double y, double width, double height) {
  return structure(StructureKind::Rect, {x, y, width, height});
}
Value Value::range(uint64_t location, uint64_t length) {
  auto* node = new StructureNode(StructureKind::Range, std::span<const double>());
  node->count = 2;
  node->doubles[0] = static_cast<double>(location);
  node->doubles[1] = static_cast<double>(length);
  node->range = IndexRange{location, length};
  return ValueAccess::adopt(ValueKind::Structure, node);
}
Value Value::vector(double dx, double dy) { return structure(StructureKind::Vector, {dx, dy}); }
Value Value::affineTransform(double a, double b, double c, double d, double tx, double ty) {
  return structure(StructureKind::AffineTransform, {a, b, c, d, tx, ty});
}
Value Value::transform3D(std::span<const double, 16> m) {
  return ValueAccess::adopt(ValueKind::Structure, new StructureNode(StructureKind::Transform3D, m));
}

Value Value::indexSet(std::vector<IndexRange> ranges, bool mutableNode) {
  auto* node = new IndexSetNode({}, mutableNode);
  Value result = ValueAccess::adopt(ValueKind::IndexSet, node);
  std::sort(ranges.begin(), ranges.end(),
            [](const IndexRange& a, const IndexRange& b) { return a.location < b.location; });
  for (const IndexRange& r : ranges) node->add(r);  // sorted input: each add appends or merges at the end
  return result;
}

Value Value::object(Object* obj) {
  if (obj == nullptr) return Value();
  return ValueAccess::adopt(ValueKind::Object, obj);
}

// ---- Kind -----------------------------------------------------------------------------------

bool Value::isCollection() const noexcept {
  return kind_ == ValueKind::Array || kind_ == ValueKind::Set || kind_ == ValueKind::OrderedSet;
}

bool Value::isMutable() const noexcept {
  if (!holdsNode() || kind_ == ValueKind::Object) return false;
  return static_cast<const ValueNode*>(node_)->isMutable();
}

// ---- Numbers --------------------------------------------------------------------------------

bool Value::isFloatingPoint() const noexcept { return kind_ == ValueKind::Number && isFloatKind(numberKind_); }

bool Value::isUnsigned() const noexcept { return kind_ == ValueKind::Number && isUnsignedKind(numberKind_); }

bool Value::boolValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return scalar_.d != 0;
      return scalar_.i != 0;
    case ValueKind::Decimal: {
      const Decimal& d = nodeOf<DecimalNode>(*this)->value;
      return !d.isZero() && !d.isNaN();
    }
    case ValueKind::String: return stringBool(str());
    default: return false;
  }
}

int32_t Value::intValue() const noexcept { return static_cast<int32_t>(longLongValue()); }

int64_t Value::longLongValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return saturatingInt64(scalar_.d);
      return scalar_.i;  // unsigned values wrap, as a C conversion does
    case ValueKind::Decimal: {
      const Decimal& d = nodeOf<DecimalNode>(*this)->value;
      int64_t v = 0;
      if (d.toInt64(&v)) return v;
      return saturatingInt64(d.toDouble());
    }
    case ValueKind::String: return stringLongLong(str());
    default: return 0;
  }
}

uint64_t Value::unsignedLongLongValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return saturatingUInt64(scalar_.d);
      return scalar_.u;
    case ValueKind::Decimal: {
      const Decimal& d = nodeOf<DecimalNode>(*this)->value;
      uint64_t v = 0;
      if (d.toUInt64(&v)) return v;
      return saturatingUInt64(d.toDouble());
    }
    case ValueKind::String: return static_cast<uint64_t>(stringLongLong(str()));
    default: return 0;
  }
}

float Value::floatValue() const noexcept { return static_cast<float>(doubleValue()); }

double Value::doubleValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return scalar_.d;
      if (isUnsignedKind(numberKind_)) return static_cast<double>(scalar_.u);
      return static_cast<double>(scalar_.i);
    case ValueKind::Decimal: return nodeOf<DecimalNode>(*this)->value.toDouble();
    case ValueKind::String: return stringDouble(str());
    default: return 0;
  }
}

Decimal Value::decimalValue() const {
  switch (kind_) {
    case ValueKind::Number:
      if (numberKind_ == NumberKind::Float) {
        char buf[32];
        const auto r = std::to_chars(buf, buf + sizeof buf, static_cast<float>(scalar_.d));
        auto parsed = Decimal::fromString(std::string_view(buf, static_cast<size_t>(r.ptr - buf)));
        return parsed ? *parsed : Decimal::notANumber();
      }
      if (numberKind_ == NumberKind::Double) return Decimal::fromDouble(scalar_.d);
      if (isUnsignedKind(numberKind_)) return Decimal::fromUInt64(scalar_.u);
      return Decimal::fromInt64(scalar_.i);
    case ValueKind::Decimal: return nodeOf<DecimalNode>(*this)->value;
    case ValueKind::String: {
      auto parsed = Decimal::fromString(str());
      return parsed ? *parsed : Decimal::notANumber();
    }
    default: return Decimal();
  }
}

// ---- Strings, data, dates, URLs, structures, index sets, objects ---------------------------

const std::string& Value::str() const noexcept {
  return kind_ == ValueKind::String ? nodeOf<StringNode>(*this)->text : kEmptyString;
}

ByteView Value::bytes() const noexcept {
  if (kind_ != ValueKind::Data) return {};
  return ByteView(nodeOf<DataNode>(*this)->bytes);
}

double Value::dateValue() const noexcept { return kind_ == ValueKind::Date ? nodeOf<DateNode>(*this)->seconds : 0; }

Value Value::urlRelativeString() const { return kind_ == ValueKind::URL ? nodeOf<URLNode>(*this)->relative : Value(); }

Value Value::urlBase() const { return kind_ == ValueKind::URL ? nodeOf<URLNode>(*this)->base : Value(); }

std::string Value::urlAbsoluteString() const {
  return kind_ == ValueKind::URL ? nodeOf<URLNode>(*this)->absolute : std::string();
}

StructureKind Value::structureKind() const noexcept {
  return kind_ == ValueKind::Structure ? nodeOf<StructureNode>(*this)->kind : StructureKind::Point;
}

std::span<const double> Value::structureDoubles() const noexcept {
  if (kind_ != ValueKind::Structure) return {};
  const StructureNode* node = nodeOf<StructureNode>(*this);
  return std::span<const double>(node->doubles, node->count);
}

IndexRange Value::rangeValue() const noexcept {
  if (kind_ != ValueKind::Structure) return {};
  return nodeOf<StructureNode>(*this)->range;
}

const std::vector<IndexRange>& Value::indexRanges() const noexcept {
  return kind_ == ValueKind::IndexSet ? nodeOf<IndexSetNode>(*this)->ranges : kNoRanges;
}

Object* Value::objectPointer() const noexcept {
  return kind_ == ValueKind::Object ? static_cast<Object*>(node_) : nullptr;
}

// ---- Containers -----------------------------------------------------------------------------

size_t Value::count() const noexcept {
  switch (kind_) {
    case ValueKind::String: return nodeOf<StringNode>(*this)->text.size();
    case ValueKind::Data: return nodeOf<DataNode>(*this)->bytes.size();
    case ValueKind::Array:
    case ValueKind::Set:
    case ValueKind::OrderedSet:
      return nodeOf<ElementsNode>(*this)->items.size();
    case ValueKind::Dictionary: return nodeOf<DictionaryNode>(*this)->entries.size();
    case ValueKind::IndexSet: {
      uint64_t total = 0;
      for (const IndexRange& r : nodeOf<IndexSetNode>(*this)->ranges) {
        total = r.length > std::numeric_limits<uint64_t>::max() - total ? std::numeric_limits<uint64_t>::max()
                                                                        : total + r.length;
      }
      return static_cast<size_t>(total);
    }
    default: return 0;
  }
}

const std::vector<Value>& Value::elements() const& noexcept {
  return isCollection() ? nodeOf<ElementsNode>(*this)->items : kNoElements;
}

const Value& Value::at(size_t i) const {
  const std::vector<Value>& items = elements();
  return i < items.size() ? items[i] : kNil;
}

bool Value::contains(const Value& v) const {
  switch (kind_) {
    case ValueKind::Array:
    case ValueKind::Set:
    case ValueKind::OrderedSet:
      return nodeOf<ElementsNode>(*this)->find(v) >= 0;
    case ValueKind::Dictionary: return nodeOf<DictionaryNode>(*this)->find(v) >= 0;
    case ValueKind::IndexSet: {
      if (!v.isNumber() && !v.isDecimal()) return false;
      const uint64_t i = v.unsignedLongLongValue();
      for (const IndexRange& r : nodeOf<IndexSetNode>(*this)->ranges) {
        if (i >= r.location && i - r.location < r.length) return true;
      }
      return false;
    }
    default: return false;
  }
}

const std::vector<std::pair<Value, Value>>& Value::entries() const& noexcept {
  return kind_ == ValueKind::Dictionary ? nodeOf<DictionaryNode>(*this)->entries : kNoEntries;
}

std::vector<Value> Value::keys() const {
  std::vector<Value> out;
  const auto& all = entries();
  out.reserve(all.size());
  for (const auto& entry : all) out.push_back(entry.first);
  return out;
}

const Value& Value::lookup(std::string_view key) const noexcept {
  if (kind_ != ValueKind::Dictionary) return kNil;
  const DictionaryNode* node = nodeOf<DictionaryNode>(*this);
  const ptrdiff_t at = node->findString(key);
  return at >= 0 ? node->entries[static_cast<size_t>(at)].second : kNil;
}

const Value& Value::get(const Value& key) const {
  if (kind_ != ValueKind::Dictionary) return kNil;
  const DictionaryNode* node = nodeOf<DictionaryNode>(*this);
  const ptrdiff_t at = node->find(key);
  return at >= 0 ? node->entries[static_cast<size_t>(at)].second : kNil;
}

// ---- Mutation -------------------------------------------------------------------------------

namespace {

// The node of a mutable value of one of the given kinds, or the matching exception.
template <class N>
N* mutableNode(const Value& v, const char* operation, std::initializer_list<ValueKind> kinds) {
  if (std::find(kinds.begin(), kinds.end(), v.kind()) == kinds.end()) throwWrongKind(operation, v.kind());
  if (!v.isMutable()) throwImmutable(operation);
  return ValueAccess::as<N>(v);
}

}  // namespace

void Value::set(const Value& key, const Value& value) {
  auto* node = mutableNode<DictionaryNode>(*this, "setObject:forKey:", {ValueKind::Dictionary});
  if (key.isNil()) throwWrongKind("setObject:forKey: with a nil key", kind_);
  if (value.isNil()) {
    node->erase(key);
  } else {
    node->put(key, value);
  }
}

void Value::remove(const Value& key) {
  if (kind_ == ValueKind::Dictionary) {
    mutableNode<DictionaryNode>(*this, "removeObjectForKey:", {ValueKind::Dictionary})->erase(key);
    return;
  }
  auto* node = mutableNode<ElementsNode>(*this, "removeObject:",
                                         {ValueKind::Array, ValueKind::Set, ValueKind::OrderedSet});
  if (node->distinct) {
    const ptrdiff_t at = node->find(key);
    if (at < 0) return;
    node->items.erase(node->items.begin() + at);
    node->reindex();
  } else {
    // An array drops every element equal to the argument.
    std::erase_if(node->items, [&key](const Value& item) { return item == key; });
  }
}

void Value::append(const Value& v) {
  auto* node =
      mutableNode<ElementsNode>(*this, "addObject:", {ValueKind::Array, ValueKind::Set, ValueKind::OrderedSet});
  if (node->distinct && v.isNil()) throwWrongKind("addObject: with nil", kind_);
  node->add(v);
}

void Value::insert(size_t index, const Value& v) {
  auto* node = mutableNode<ElementsNode>(*this, "insertObject:atIndex:", {ValueKind::Array, ValueKind::OrderedSet});
  if (index > node->items.size()) throwRange("insertObject:atIndex:", index, node->items.size());
  if (node->distinct) {
    if (v.isNil()) throwWrongKind("insertObject:atIndex: with nil", kind_);
    if (node->find(v) >= 0) return;
  }
  node->items.insert(node->items.begin() + static_cast<ptrdiff_t>(index), v);
  node->reindex();
}

void Value::replaceAt(size_t index, const Value& v) {
  auto* node = mutableNode<ElementsNode>(*this, "replaceObjectAtIndex:withObject:",
                                         {ValueKind::Array, ValueKind::OrderedSet});
  if (index >= node->items.size()) throwRange("replaceObjectAtIndex:withObject:", index, node->items.size());
  if (node->distinct) {
    if (v.isNil()) throwWrongKind("replaceObjectAtIndex:withObject: with nil", kind_);
    const ptrdiff_t at = node->find(v);
    if (at >= 0) return;  // already a member (here or elsewhere): members stay distinct
    node->items[index] = v;
    node->reindex();
  } else {
    node->items[index] = v;
  }
}

void Value::removeAt(size_t index) {
  auto* node = mutableNode<ElementsNode>(*this, "removeObjectAtIndex:", {ValueKind::Array, ValueKind::OrderedSet});
  if (index >= node->items.size()) throwRange("removeObjectAtIndex:", index, node->items.size());
  node->items.erase(node->items.begin() + static_cast<ptrdiff_t>(index));
  node->reindex();
}

void Value::removeAllObjects() {
  static constexpr const char* kOperation = "removeAllObjects";
  switch (kind_) {
    case ValueKind::Array:
    case ValueKind::Set:
    case ValueKind::OrderedSet: {
      auto* node = mutableNode<ElementsNode>(*this, kOperation, {kind_});
      // Move the members out first: releasing them may release this very node (a cycle).
      std::vector<Value> old = std::move(node->items);
      node->items.clear();
      node->index.clear();
      return;
    }
    case ValueKind::Dictionary: {
      auto* node = mutableNode<DictionaryNode>(*this, kOperation, {kind_});
      std::vector<std::pair<Value, Value>> old = std::move(node->entries);
      node->entries.clear();
      node->index.clear();
      return;
    }
    case ValueKind::String: mutableNode<StringNode>(*this, kOperation, {kind_})->text.clear(); return;
    case ValueKind::Data: mutableNode<DataNode>(*this, kOperation, {kind_})->bytes.clear(); return;
    case ValueKind::IndexSet: mutableNode<IndexSetNode>(*this, kOperation, {kind_})->ranges.clear(); return;
    default: throwWrongKind(kOperation, kind_);
  }
}

void Value::appendString(std::string_view utf8) {
  mutableNode<StringNode>(*this, "appendString:", {ValueKind::String})->text.append(utf8);
}

void Value::setString(std::string_view utf8) {
  mutableNode<StringNode>(*this, "setString:", {ValueKind::String})->text.assign(utf8);
}

void Value::appendBytes(ByteView bytes) {
  Bytes& target = mutableNode<DataNode>(*this, "appendData:", {ValueKind::Data})->bytes;
  target.insert(target.end(), bytes.begin(), bytes.end());
}

void Value::addIndexes(IndexRange range) {
  mutableNode<IndexSetNode>(*this, "addIndexesInRange:", {ValueKind::IndexSet})->add(range);
}

void Value::removeIndexes(IndexRange range) {
  mutableNode<IndexSetNode>(*this, "removeIndexesInRange:", {ValueKind::IndexSet})->remove(range);
}

// ---- Copies and identity --------------------------------------------------------------------

namespace {

Value copyNode(const Value& v, bool makeMutable) {
  switch (v.kind()) {
    case ValueKind::String:
      return ValueAccess::adopt(v.kind(), new StringNode(nodeOf<StringNode>(v)->text, makeMutable));
    case ValueKind::Data: return ValueAccess::adopt(v.kind(), new DataNode(nodeOf<DataNode>(v)->bytes, makeMutable));
    case ValueKind::Array:
    case ValueKind::Set:
    case ValueKind::OrderedSet: {
      const ElementsNode* from = nodeOf<ElementsNode>(v);
      auto* node = new ElementsNode(makeMutable, from->distinct);
      node->items = from->items;
      node->index = from->index;
      return ValueAccess::adopt(v.kind(), node);
    }
    case ValueKind::Dictionary: {
      const DictionaryNode* from = nodeOf<DictionaryNode>(v);
      auto* node = new DictionaryNode(makeMutable);
      node->entries = from->entries;
      node->index = from->index;
      return ValueAccess::adopt(v.kind(), node);
    }
    case ValueKind::IndexSet:
      return ValueAccess::adopt(v.kind(), new IndexSetNode(nodeOf<IndexSetNode>(v)->ranges, makeMutable));
    default: throwWrongKind("mutableCopy", v.kind());
  }
}

}  // namespace

bool Value::canMutableCopy() const noexcept {
  switch (kind_) {
    case ValueKind::String:
    case ValueKind::Data:
    case ValueKind::Array:
    case ValueKind::Dictionary:
    case ValueKind::Set:
    case ValueKind::OrderedSet:
    case ValueKind::IndexSet:
      return true;
    default:
      return false;
  }
}

Value Value::mutableCopy() const { return copyNode(*this, true); }

Value Value::copy() const {
  if (!isMutable()) return *this;
  return copyNode(*this, false);
}

const void* Value::identity() const noexcept { return holdsNode() ? node_ : nullptr; }

// ---- Object defaults ------------------------------------------------------------------------

Value Object::valueForKey(std::string_view /*key*/) const { return Value(); }

void Object::setValueForKey(std::string_view /*key*/, const Value& /*value*/) {}

}  // namespace corvane
