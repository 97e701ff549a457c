// Equality, hashing and ordering of values.
//
// Numbers of every kind and decimals meet on one numeric line: a whole value within the 64-bit
// integer ranges is an exact integer, anything else a double. Equality compares those exactly
// (no lossy casts), and the hash of an integer-valued number is the hash of that integer, so
// that 1, 1.0, true and the decimal 1 are one dictionary key.
#include <cmath>
#include <cstring>
#include <functional>
#include <string_view>

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

namespace {

__extension__ using Int128 = __int128;

struct Numeric {
  bool integral;  // true: exact integer in i; false: the double d
  Int128 i;
  double d;
};

bool isUnsignedKind(NumberKind k) {
  return k == NumberKind::UnsignedChar || k == NumberKind::UnsignedShort || k == NumberKind::UnsignedInt ||
         k == NumberKind::UnsignedLong || k == NumberKind::UnsignedLongLong || k == NumberKind::Index;
}

Numeric numericOf(const Value& v) {
  if (v.kind() == ValueKind::Decimal) {
    const Decimal& d = ValueAccess::as<DecimalNode>(v)->value;
    int64_t i = 0;
    if (d.toInt64(&i)) return {true, i, 0};
    uint64_t u = 0;
    if (d.toUInt64(&u)) return {true, u, 0};
    return {false, 0, d.toDouble()};
  }
  const NumberKind k = v.numberKind();
  if (k == NumberKind::Float || k == NumberKind::Double) return {false, 0, ValueAccess::d(v)};
  if (isUnsignedKind(k)) return {true, ValueAccess::u(v), 0};
  return {true, ValueAccess::i(v), 0};
}

// Orders an integer (within [-2^63, 2^64)) against a double exactly. NaN sorts first.
int compareIntDouble(Int128 i, double d) {
  if (std::isnan(d)) return 1;
  if (d >= 0x1p64) return -1;
  if (d < -0x1p63) return 1;
  const double whole = std::trunc(d);
  const auto t = static_cast<Int128>(whole);
  if (i != t) return i < t ? -1 : 1;
  const double fraction = d - whole;
  return fraction > 0 ? -1 : (fraction < 0 ? 1 : 0);
}

int compareDoubles(double a, double b) {
  const bool nanA = std::isnan(a);
  const bool nanB = std::isnan(b);
  if (nanA || nanB) return nanA == nanB ? 0 : (nanA ? -1 : 1);
  return a < b ? -1 : (a > b ? 1 : 0);
}

int compareNumeric(const Numeric& a, const Numeric& b) {
  if (a.integral && b.integral) return a.i < b.i ? -1 : (a.i > b.i ? 1 : 0);
  if (a.integral) return compareIntDouble(a.i, b.d);
  if (b.integral) return -compareIntDouble(b.i, a.d);
  return compareDoubles(a.d, b.d);
}

int compareNumbers(const Value& a, const Value& b) {
  if (a.isDecimal() && b.isDecimal()) {
    return ValueAccess::as<DecimalNode>(a)->value.compare(ValueAccess::as<DecimalNode>(b)->value);
  }
  return compareNumeric(numericOf(a), numericOf(b));
}

size_t mix(uint64_t x) {
  // The splitmix64 finaliser: cheap, and spreads consecutive integers over the whole range.
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 31;
  return static_cast<size_t>(x);
}

size_t combine(size_t seed, size_t h) { return mix(seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2))); }

size_t hashInteger(Int128 i) { return mix(static_cast<uint64_t>(i)); }

size_t hashDouble(double d) {
  if (std::isnan(d)) return mix(0x7ff8000000000000ULL);
  if (d >= -0x1p63 && d < 0x1p64 && std::trunc(d) == d) return hashInteger(static_cast<Int128>(d));
  uint64_t bits = 0;
  std::memcpy(&bits, &d, sizeof bits);
  return mix(bits);
}

size_t hashNumeric(const Numeric& n) { return n.integral ? hashInteger(n.i) : hashDouble(n.d); }

size_t hashBytes(std::string_view s) { return detail::hashStringBytes(s); }

// Kinds that are ordered among themselves by value; numbers and decimals share one rank.
int rank(ValueKind k) { return k == ValueKind::Decimal ? static_cast<int>(ValueKind::Number) : static_cast<int>(k); }

// Pairs of container nodes being compared further up the stack. Meeting a pair again means a
// cycle; assuming it equal lets two structurally identical cyclic graphs compare equal and
// makes the comparison terminate. Real data is rarely deep, so the first levels are not
// tracked at all: a cycle then unrolls a few times before it is caught.
constexpr int kUntrackedDepth = 16;
thread_local int tlDepth = 0;
thread_local std::vector<std::pair<const void*, const void*>> tlActivePairs;

class PairGuard {
 public:
  PairGuard(const void* a, const void* b) {
    if (++tlDepth <= kUntrackedDepth) return;
    for (const auto& p : tlActivePairs) {
      if (p.first == a && p.second == b) {
        seen_ = true;
        return;
      }
    }
    tlActivePairs.emplace_back(a, b);
    pushed_ = true;
  }
  ~PairGuard() {
    --tlDepth;
    if (pushed_) tlActivePairs.pop_back();
  }
  PairGuard(const PairGuard&) = delete;
  PairGuard& operator=(const PairGuard&) = delete;
  bool seen() const noexcept { return seen_; }

 private:
  bool seen_ = false;
  bool pushed_ = false;
};

bool structuresEqual(const StructureNode* a, const StructureNode* b) {
  if (a->kind != b->kind) return false;
  if (a->kind == StructureKind::Range) return a->range == b->range;
  if (a->count != b->count) return false;
  for (int i = 0; i < a->count; ++i) {
    if (a->doubles[i] != b->doubles[i]) return false;
  }
  return true;
}

bool containersEqual(const Value& a, const Value& b) {
  PairGuard guard(a.identity(), b.identity());
  if (guard.seen()) return true;
  switch (a.kind()) {
    case ValueKind::Array:
    case ValueKind::OrderedSet: {
      const auto& x = a.elements();
      const auto& y = b.elements();
      if (x.size() != y.size()) return false;
      for (size_t i = 0; i < x.size(); ++i) {
        if (!(x[i] == y[i])) return false;
      }
      return true;
    }
    case ValueKind::Set: {
      if (a.count() != b.count()) return false;
      const ElementsNode* other = ValueAccess::as<ElementsNode>(b);
      for (const Value& member : a.elements()) {
        if (other->find(member) < 0) return false;
      }
      return true;
    }
    case ValueKind::Dictionary: {
      if (a.count() != b.count()) return false;
      const DictionaryNode* other = ValueAccess::as<DictionaryNode>(b);
      for (const auto& [key, value] : a.entries()) {
        const ptrdiff_t at = other->find(key);
        if (at < 0 || !(other->entries[static_cast<size_t>(at)].second == value)) return false;
      }
      return true;
    }
    default:
      return false;
  }
}

// Containers hash only a bounded part of their content, so that hashing terminates on cycles
// and stays cheap on large graphs; equal containers still hash equal.
constexpr int kHashDepth = 3;
constexpr size_t kHashedMembers = 32;

size_t hashValue(const Value& v, int depth) {
  switch (v.kind()) {
    case ValueKind::Nil:
      return 0;
    case ValueKind::Null:
      return mix(0x6e756c6cULL);
    case ValueKind::Number:
    case ValueKind::Decimal:
      return hashNumeric(numericOf(v));
    case ValueKind::String:
      return hashBytes(v.str());
    case ValueKind::Data:
      return hashBytes(asStringView(v.bytes()));
    case ValueKind::Date:
      return combine(7, hashDouble(v.dateValue()));
    case ValueKind::Array:
    case ValueKind::OrderedSet: {
      const auto& items = v.elements();
      size_t h = mix(items.size());
      if (depth < kHashDepth) {
        const size_t n = std::min<size_t>(items.size(), 4);
        for (size_t i = 0; i < n; ++i) h = combine(h, hashValue(items[i], depth + 1));
      }
      return h;
    }
    case ValueKind::Set: {
      const auto& items = v.elements();
      size_t h = mix(items.size() + 0x5e7);
      if (depth < kHashDepth && items.size() <= kHashedMembers) {
        size_t sum = 0;  // order-independent
        for (const Value& item : items) sum += hashValue(item, depth + 1);
        h = combine(h, sum);
      }
      return h;
    }
    case ValueKind::Dictionary: {
      const auto& entries = v.entries();
      size_t h = mix(entries.size() + 0xd1c7);
      if (depth < kHashDepth && entries.size() <= kHashedMembers) {
        size_t sum = 0;
        for (const auto& entry : entries) sum += hashValue(entry.first, depth + 1);
        h = combine(h, sum);
      }
      return h;
    }
    case ValueKind::URL:
      return combine(11, hashBytes(v.urlAbsoluteString()));
    case ValueKind::Structure: {
      const StructureNode* node = ValueAccess::as<StructureNode>(v);
      size_t h = mix(static_cast<uint64_t>(node->kind) + 13);
      if (node->kind == StructureKind::Range) {
        return combine(combine(h, mix(node->range.location)), mix(node->range.length));
      }
      for (int i = 0; i < node->count; ++i) h = combine(h, hashDouble(node->doubles[i]));
      return h;
    }
    case ValueKind::IndexSet: {
      const auto& ranges = v.indexRanges();
      size_t h = mix(ranges.size() + 17);
      if (!ranges.empty()) h = combine(combine(h, mix(ranges[0].location)), mix(ranges[0].length));
      return h;
    }
    case ValueKind::Object:
      return v.objectPointer()->hashValue();
  }
  return 0;
}

int compareBytes(std::string_view a, std::string_view b) {
  const int c = a.compare(b);  // char_traits<char>::compare works on unsigned bytes
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

int compareValues(const Value& a, const Value& b);

int compareSequences(const std::vector<Value>& x, const std::vector<Value>& y) {
  const size_t n = std::min(x.size(), y.size());
  for (size_t i = 0; i < n; ++i) {
    const int c = compareValues(x[i], y[i]);
    if (c != 0) return c;
  }
  return x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
}

int compareValues(const Value& a, const Value& b) {
  const int rankA = rank(a.kind());
  const int rankB = rank(b.kind());
  if (rankA != rankB) return rankA < rankB ? -1 : 1;
  if (a.isSameNode(b)) return 0;
  switch (a.kind()) {
    case ValueKind::Nil:
    case ValueKind::Null:
      return 0;
    case ValueKind::Number:
    case ValueKind::Decimal:
      return compareNumbers(a, b);
    case ValueKind::String:
      return compareBytes(a.str(), b.str());
    case ValueKind::Data:
      return compareBytes(asStringView(a.bytes()), asStringView(b.bytes()));
    case ValueKind::Date:
      return compareDoubles(a.dateValue(), b.dateValue());
    case ValueKind::URL:
      return compareBytes(a.urlAbsoluteString(), b.urlAbsoluteString());
    case ValueKind::Array:
    case ValueKind::OrderedSet: {
      PairGuard guard(a.identity(), b.identity());
      if (guard.seen()) return 0;
      return compareSequences(a.elements(), b.elements());
    }
    case ValueKind::Set: {
      if (a == b) return 0;  // equal sets in another order must still compare equal
      PairGuard guard(a.identity(), b.identity());
      if (guard.seen()) return 0;
      return compareSequences(a.elements(), b.elements());
    }
    case ValueKind::Dictionary: {
      if (a == b) return 0;
      PairGuard guard(a.identity(), b.identity());
      if (guard.seen()) return 0;
      const auto& x = a.entries();
      const auto& y = b.entries();
      const size_t n = std::min(x.size(), y.size());
      for (size_t i = 0; i < n; ++i) {
        int c = compareValues(x[i].first, y[i].first);
        if (c == 0) c = compareValues(x[i].second, y[i].second);
        if (c != 0) return c;
      }
      return x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
    }
    case ValueKind::Structure: {
      const StructureNode* x = ValueAccess::as<StructureNode>(a);
      const StructureNode* y = ValueAccess::as<StructureNode>(b);
      if (x->kind != y->kind) return x->kind < y->kind ? -1 : 1;
      if (x->kind == StructureKind::Range) {
        if (x->range.location != y->range.location) return x->range.location < y->range.location ? -1 : 1;
        return x->range.length < y->range.length ? -1 : (x->range.length > y->range.length ? 1 : 0);
      }
      for (int i = 0; i < x->count && i < y->count; ++i) {
        const int c = compareDoubles(x->doubles[i], y->doubles[i]);
        if (c != 0) return c;
      }
      return 0;
    }
    case ValueKind::IndexSet: {
      const auto& x = a.indexRanges();
      const auto& y = b.indexRanges();
      for (size_t i = 0; i < x.size() && i < y.size(); ++i) {
        if (x[i].location != y[i].location) return x[i].location < y[i].location ? -1 : 1;
        if (x[i].length != y[i].length) return x[i].length < y[i].length ? -1 : 1;
      }
      return x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
    }
    case ValueKind::Object:
      return compareBytes(a.objectPointer()->className(), b.objectPointer()->className());
  }
  return 0;
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
  const ValueKind ka = a.kind();
  const ValueKind kb = b.kind();
  if (ka != kb) {
    const bool numericA = ka == ValueKind::Number || ka == ValueKind::Decimal;
    const bool numericB = kb == ValueKind::Number || kb == ValueKind::Decimal;
    return numericA && numericB && compareNumbers(a, b) == 0;
  }
  if (a.isSameNode(b)) return true;
  switch (ka) {
    case ValueKind::Nil:
    case ValueKind::Null:
      return true;
    case ValueKind::Number: {
      // Fast path: both integers of the same signedness, the common case.
      const bool unsignedA = isUnsignedKind(a.numberKind());
      const bool floatA = a.numberKind() == NumberKind::Float || a.numberKind() == NumberKind::Double;
      const bool unsignedB = isUnsignedKind(b.numberKind());
      const bool floatB = b.numberKind() == NumberKind::Float || b.numberKind() == NumberKind::Double;
      if (!floatA && !floatB && unsignedA == unsignedB) return ValueAccess::i(a) == ValueAccess::i(b);
      if (floatA && floatB) return compareDoubles(ValueAccess::d(a), ValueAccess::d(b)) == 0;
      return compareNumbers(a, b) == 0;
    }
    case ValueKind::Decimal:
      return compareNumbers(a, b) == 0;
    case ValueKind::String:
      return a.str() == b.str();
    case ValueKind::Data: {
      const ByteView x = a.bytes();
      const ByteView y = b.bytes();
      return x.size() == y.size() && (x.empty() || std::memcmp(x.data(), y.data(), x.size()) == 0);
    }
    case ValueKind::Date:
      return a.dateValue() == b.dateValue();
    case ValueKind::Array:
    case ValueKind::Dictionary:
    case ValueKind::Set:
    case ValueKind::OrderedSet:
      return containersEqual(a, b);
    case ValueKind::URL:
      return a.urlAbsoluteString() == b.urlAbsoluteString();
    case ValueKind::Structure:
      return structuresEqual(ValueAccess::as<StructureNode>(a), ValueAccess::as<StructureNode>(b));
    case ValueKind::IndexSet:
      return a.indexRanges() == b.indexRanges();
    case ValueKind::Object:
      return a.objectPointer()->isEqualTo(*b.objectPointer());
  }
  return false;
}

size_t Value::hash() const noexcept { return hashValue(*this, 0); }

int Value::compare(const Value& a, const Value& b) { return compareValues(a, b); }

}  // namespace corvane
