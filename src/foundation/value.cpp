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

__extension__ using Int128 = __int128;
__extension__ using UInt128 = unsigned __int128;

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

// C-style conversions are undefined (floating point) or wrap (integers) outside the target
// range. Every conversion here saturates instead: a value too large for the target becomes the
// target's extreme of the same sign, so that it never turns into a small or negated number.
int64_t saturatingInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (d < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

uint64_t saturatingUInt64(double d) {
  if (std::isnan(d) || d <= 0) return 0;
  if (d >= 0x1p64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(d);
}

int64_t clampInt64(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo : v > hi ? hi : v; }

int64_t int64FromUnsigned(uint64_t u) {
  return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? std::numeric_limits<int64_t>::max()
                                                                        : static_cast<int64_t>(u);
}

// A double narrowed to float: beyond float's largest finite value it is the infinity of its
// sign, what IEEE rounding gives, but spelled out because the C++ conversion is undefined there.
float saturatingFloat(double d) {
  if (d > std::numeric_limits<float>::max()) return std::numeric_limits<float>::infinity();
  if (d < -std::numeric_limits<float>::max()) return -std::numeric_limits<float>::infinity();
  return static_cast<float>(d);  // NaN stays NaN; in range it rounds to nearest
}

// The whole part of a decimal (truncated toward zero), exactly, saturating at 2^64 and beyond:
// a double would lose digits of a 17-digit integer part.
struct WholePart {
  bool negative = false;
  UInt128 magnitude = 0;  // at most 2^64 once saturated
};

WholePart wholePartOf(const Decimal& d) {
  WholePart out;
  if (d.isNaN() || d.isZero()) return out;
  constexpr UInt128 kLimit = static_cast<UInt128>(1) << 64;
  UInt128 m = d.mantissa();
  if (d.exponent() >= 0) {
    for (int i = 0; i < d.exponent() && m < kLimit; ++i) m *= 10;
  } else {
    for (int i = 0; i < -d.exponent() && m != 0; ++i) m /= 10;
  }
  out.negative = d.isNegative();
  out.magnitude = m < kLimit ? m : kLimit;
  return out;
}

int64_t decimalInt64(const Decimal& d) {
  const WholePart w = wholePartOf(d);
  constexpr auto kMax = static_cast<UInt128>(std::numeric_limits<int64_t>::max());
  if (w.negative) {
    if (w.magnitude > kMax + 1) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(-static_cast<Int128>(w.magnitude));
  }
  return w.magnitude > kMax ? std::numeric_limits<int64_t>::max() : static_cast<int64_t>(w.magnitude);
}

uint64_t decimalUInt64(const Decimal& d) {
  const WholePart w = wholePartOf(d);
  if (w.negative) return 0;
  constexpr auto kMax = static_cast<UInt128>(std::numeric_limits<uint64_t>::max());
  return w.magnitude > kMax ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(w.magnitude);
}

std::string_view skipSpace(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  return s.substr(i);
}

// The platform reads the leading number of a string and ignores the rest. Too many digits
// saturate: the magnitude is kept in 128 bits and stops growing past 2^64.
struct LeadingInteger {
  bool negative = false;
  Int128 magnitude = 0;
};

LeadingInteger leadingInteger(std::string_view s) {
  LeadingInteger out;
  s = skipSpace(s);
  if (!s.empty() && (s[0] == '+' || s[0] == '-')) {
    out.negative = s[0] == '-';
    s.remove_prefix(1);
  }
  constexpr Int128 kLimit = static_cast<Int128>(1) << 64;
  for (char c : s) {
    if (c < '0' || c > '9') break;
    out.magnitude = out.magnitude * 10 + (c - '0');
    if (out.magnitude > kLimit) {
      out.magnitude = kLimit;
      break;
    }
  }
  return out;
}

int64_t stringLongLong(std::string_view s) {
  const LeadingInteger n = leadingInteger(s);
  const Int128 v = n.negative ? -n.magnitude : n.magnitude;
  if (v > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
  if (v < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

uint64_t stringUnsignedLongLong(std::string_view s) {
  const LeadingInteger n = leadingInteger(s);
  if (n.negative) return 0;
  if (n.magnitude > static_cast<Int128>(std::numeric_limits<uint64_t>::max()))
    return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(n.magnitude);
}

// The leading number of a string. A number beyond a double's range reads as the infinity of
// its sign, one too small for it as zero (from_chars reports both without a value).
double stringDouble(std::string_view s) {
  s = skipSpace(s);
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  double v = 0;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  if (r.ec != std::errc::result_out_of_range) return v;
  // Decide between overflow and underflow from the decimal exponent of the leading digit.
  const bool negative = !s.empty() && s[0] == '-';
  size_t i = negative ? 1 : 0;
  long magnitude = -1;  // position of the first nonzero digit, 0 for the units
  long intDigits = 0;
  bool seenNonzero = false;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    if (s[i] != '0') seenNonzero = true;
    if (seenNonzero) ++intDigits;
  }
  if (seenNonzero) {
    magnitude = intDigits - 1;
  } else if (i < s.size() && s[i] == '.') {
    for (++i; i < s.size() && s[i] == '0'; ++i) --magnitude;
  }
  while (i < s.size() && s[i] != 'e' && s[i] != 'E') ++i;
  if (i < s.size()) {
    ++i;
    bool expNegative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) expNegative = s[i++] == '-';
    long e = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i)
      if (e < 100000) e = e * 10 + (s[i] - '0');
    magnitude += expNegative ? -e : e;
  }
  const double result = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  return negative ? -result : result;
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
    case NumberKind::Bool:
      return ValueAccess::scalar(kind, v != 0 ? 1 : 0);
    case NumberKind::Char:
      return ValueAccess::scalar(kind, clampInt64(v, INT8_MIN, INT8_MAX));
    case NumberKind::Short:
      return ValueAccess::scalar(kind, clampInt64(v, INT16_MIN, INT16_MAX));
    case NumberKind::Int:
      return ValueAccess::scalar(kind, clampInt64(v, INT32_MIN, INT32_MAX));
    case NumberKind::Float:
      return floatNumber(static_cast<float>(v));
    case NumberKind::Double:
      return ValueAccess::scalarDouble(kind, static_cast<double>(v));
    default:
      if (isUnsignedKind(kind)) return unsignedNumber(kind, v < 0 ? 0 : static_cast<uint64_t>(v));
      return ValueAccess::scalar(kind, v);
  }
}

Value Value::unsignedNumber(NumberKind kind, uint64_t v) {
  switch (kind) {
    case NumberKind::UnsignedChar:
      return ValueAccess::scalarUnsigned(kind, std::min<uint64_t>(v, UINT8_MAX));
    case NumberKind::UnsignedShort:
      return ValueAccess::scalarUnsigned(kind, std::min<uint64_t>(v, UINT16_MAX));
    case NumberKind::UnsignedInt:
      return ValueAccess::scalarUnsigned(kind, std::min<uint64_t>(v, UINT32_MAX));
    case NumberKind::UnsignedLong:
    case NumberKind::UnsignedLongLong:
    case NumberKind::Index:
      return ValueAccess::scalarUnsigned(kind, v);
    case NumberKind::Float:
      return floatNumber(static_cast<float>(v));
    case NumberKind::Double:
      return ValueAccess::scalarDouble(kind, static_cast<double>(v));
    default:
      return number(kind, int64FromUnsigned(v));
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

Value Value::set(std::vector<Value> items, bool mutableNode) {
  return distinctElements(ValueKind::Set, items, mutableNode);
}

Value Value::orderedSet(std::vector<Value> items, bool mutableNode) {
  return distinctElements(ValueKind::OrderedSet, items, mutableNode);
}

Value Value::url(std::string_view relativeString, const Value& base) {
  Value baseURL = base.isURL() ? base : Value();
  std::string absolute = value_detail::resolveURL(std::string(relativeString), baseURL);
  return ValueAccess::adopt(ValueKind::URL,
                            new URLNode(Value::string(relativeString), std::move(baseURL), std::move(absolute)));
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
      if (isFloatKind(numberKind_)) return scalar_.d != 0 && !std::isnan(scalar_.d);
      return scalar_.i != 0;
    case ValueKind::Decimal: {
      const Decimal& d = nodeOf<DecimalNode>(*this)->value;
      return !d.isZero() && !d.isNaN();
    }
    case ValueKind::String:
      return stringBool(str());
    default:
      return false;
  }
}

int32_t Value::intValue() const noexcept {
  return static_cast<int32_t>(clampInt64(longLongValue(), INT32_MIN, INT32_MAX));
}

int64_t Value::longLongValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return saturatingInt64(scalar_.d);
      if (isUnsignedKind(numberKind_)) return int64FromUnsigned(scalar_.u);
      return scalar_.i;
    case ValueKind::Decimal:
      return decimalInt64(nodeOf<DecimalNode>(*this)->value);
    case ValueKind::String:
      return stringLongLong(str());
    default:
      return 0;
  }
}

uint64_t Value::unsignedLongLongValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return saturatingUInt64(scalar_.d);
      if (isUnsignedKind(numberKind_)) return scalar_.u;
      return scalar_.i < 0 ? 0 : static_cast<uint64_t>(scalar_.i);
    case ValueKind::Decimal:
      return decimalUInt64(nodeOf<DecimalNode>(*this)->value);
    case ValueKind::String:
      return stringUnsignedLongLong(str());
    default:
      return 0;
  }
}

float Value::floatValue() const noexcept { return saturatingFloat(doubleValue()); }

double Value::doubleValue() const noexcept {
  switch (kind_) {
    case ValueKind::Number:
      if (isFloatKind(numberKind_)) return scalar_.d;
      if (isUnsignedKind(numberKind_)) return static_cast<double>(scalar_.u);
      return static_cast<double>(scalar_.i);
    case ValueKind::Decimal:
      return nodeOf<DecimalNode>(*this)->value.toDouble();
    case ValueKind::String:
      return stringDouble(str());
    default:
      return 0;
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
    case ValueKind::Decimal:
      return nodeOf<DecimalNode>(*this)->value;
    case ValueKind::String: {
      auto parsed = Decimal::fromString(str());
      return parsed ? *parsed : Decimal::notANumber();
    }
    default:
      return Decimal();
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
    case ValueKind::String:
      return nodeOf<StringNode>(*this)->text.size();
    case ValueKind::Data:
      return nodeOf<DataNode>(*this)->bytes.size();
    case ValueKind::Array:
    case ValueKind::Set:
    case ValueKind::OrderedSet:
      return nodeOf<ElementsNode>(*this)->items.size();
    case ValueKind::Dictionary:
      return nodeOf<DictionaryNode>(*this)->entries.size();
    case ValueKind::IndexSet: {
      uint64_t total = 0;
      for (const IndexRange& r : nodeOf<IndexSetNode>(*this)->ranges) {
        total = r.length > std::numeric_limits<uint64_t>::max() - total ? std::numeric_limits<uint64_t>::max()
                                                                        : total + r.length;
      }
      return static_cast<size_t>(total);
    }
    default:
      return 0;
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
    case ValueKind::Dictionary:
      return nodeOf<DictionaryNode>(*this)->find(v) >= 0;
    case ValueKind::IndexSet: {
      if (!v.isNumber() && !v.isDecimal()) return false;
      const uint64_t i = v.unsignedLongLongValue();
      for (const IndexRange& r : nodeOf<IndexSetNode>(*this)->ranges) {
        if (i >= r.location && i - r.location < r.length) return true;
      }
      return false;
    }
    default:
      return false;
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
  auto* node =
      mutableNode<ElementsNode>(*this, "removeObject:", {ValueKind::Array, ValueKind::Set, ValueKind::OrderedSet});
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
  auto* node =
      mutableNode<ElementsNode>(*this, "replaceObjectAtIndex:withObject:", {ValueKind::Array, ValueKind::OrderedSet});
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
    case ValueKind::String:
      mutableNode<StringNode>(*this, kOperation, {kind_})->text.clear();
      return;
    case ValueKind::Data:
      mutableNode<DataNode>(*this, kOperation, {kind_})->bytes.clear();
      return;
    case ValueKind::IndexSet:
      mutableNode<IndexSetNode>(*this, kOperation, {kind_})->ranges.clear();
      return;
    default:
      throwWrongKind(kOperation, kind_);
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
    case ValueKind::Data:
      return ValueAccess::adopt(v.kind(), new DataNode(nodeOf<DataNode>(v)->bytes, makeMutable));
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
    default:
      throwWrongKind("mutableCopy", v.kind());
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
