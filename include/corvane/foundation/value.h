// corvane::Value — the one dynamic value type of the library.
//
// Change records, sessions, cache files and property lists are graphs of dynamic values. A
// Value is a small handle (16 bytes) that is cheap to copy. Scalars (nil, null, booleans and
// plain numbers) live inside the handle; everything else lives in a reference-counted node
// that copies of the handle share. Node identity matters: the binary object-graph format
// writes a node met twice only once, so `identity()` is part of the contract.
//
// Mutability follows the platform the format comes from: a node is created mutable or
// immutable and never changes that. Mutating a mutable node is visible through every handle
// that shares it (reference semantics, which is what lets a mutable array contain itself).
// Mutating an immutable node throws Exception("NSInternalInconsistencyException"). A mutable
// copy is always explicit: mutableCopy() makes a new, shallow, mutable node.
//
// Reference cycles (a mutable container holding itself) are not collected; break them with
// removeAllObjects() when they are no longer needed.
//
// Equality and hashing follow value semantics: numbers compare by value across kinds (the
// integer 1, the double 1.0 and the boolean true are equal), strings by their UTF-8 bytes,
// containers deeply, sets and dictionaries regardless of order. Dictionaries, sets and
// ordered sets keep insertion order so that output is deterministic.
//
// Threads: a Value may be copied and read from any thread; a mutable node must not be mutated
// while another thread reads or mutates it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/decimal.h"

namespace corvane {

class Value;
class Object;

enum class ValueKind : uint8_t {
  Nil,      // no value at all (an empty slot, a missing key)
  Null,     // the null singleton, a value that says "nothing" inside a container
  Number,   // a plain number, booleans included (see NumberKind)
  Decimal,  // an exact decimal number
  String,   // UTF-8 text
  Data,     // bytes
  Date,     // seconds since 2001-01-01 00:00:00 UTC
  Array,
  Dictionary,  // insertion-ordered map from Value to Value
  Set,         // insertion-ordered set of distinct values
  OrderedSet,  // ordered set of distinct values
  URL,         // relative string plus optional base URL
  Structure,   // point, size, rect, range, vector, affine or 3-D transform
  IndexSet,    // sorted ranges of unsigned integers
  Object,      // an instance of a registered class (see Object below)
};

// The stored kind of a plain number. It decides how the number is encoded in binary formats
// and how its text form looks; comparisons ignore it.
enum class NumberKind : uint8_t {
  Bool,
  Char,      // signed 8-bit
  Short,     // signed 16-bit
  Int,       // signed 32-bit
  Long,      // signed 64-bit on this platform, but encoded as 32-bit by FastCoding
  LongLong,  // signed 64-bit
  Index,     // the platform's unsigned index type: 64-bit, encoded as 32-bit by FastCoding
  UnsignedChar,
  UnsignedShort,
  UnsignedInt,
  UnsignedLong,
  UnsignedLongLong,
  Float,    // IEEE single
  Double,   // IEEE double
  Unknown,  // a kind no encoder knows (kept so that readers of foreign data can say so)
};

// The shape of a structure value.
enum class StructureKind : uint8_t { Point, Size, Rect, Range, Vector, AffineTransform, Transform3D };

// One range of an index set, or the payload of a Range structure.
struct IndexRange {
  uint64_t location = 0;
  uint64_t length = 0;
  friend bool operator==(const IndexRange&, const IndexRange&) = default;
};

namespace detail {
// Intrusively reference-counted base of every node. Not for direct use.
class Node {
 public:
  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node() = default;
  void retain() const noexcept;
  void release() const noexcept;
  uint32_t refCount() const noexcept;

 private:
  // Deletes a node whose last reference went away. Nodes freed while another is being
  // deleted wait in a per-thread queue, so that freeing a long chain of nested values does
  // not recurse once per level.
  static void destroy(const Node* node) noexcept;

  mutable std::atomic_uint32_t refs_{0};
};
}  // namespace detail

// Base class of the objects a Value can hold: instances of classes that the host or a codec
// registers by name. The coding layer adds its protocols (keyed coding, coding by properties)
// as further interfaces that an Object subclass implements. Objects compare by identity unless
// a subclass says otherwise.
class Object : public detail::Node {
 public:
  // The class name used in files and logs, for example "CorvaneCacheItem".
  virtual std::string className() const = 0;
  virtual bool isEqualTo(const Object& other) const { return this == &other; }
  virtual size_t hashValue() const { return std::hash<const void*>()(this); }
  virtual std::string description() const;
  // Key-value access; the defaults answer nil and ignore the value.
  virtual Value valueForKey(std::string_view key) const;
  virtual void setValueForKey(std::string_view key, const Value& value);
};

class Value {
 public:
  // ---- Construction ------------------------------------------------------------------------
  Value() noexcept : node_(nullptr) {}  // nil
  Value(const Value& other) noexcept;
  Value(Value&& other) noexcept;
  Value& operator=(const Value& other) noexcept;
  Value& operator=(Value&& other) noexcept;
  ~Value();

  // Convenience constructors. Integers pick the matching NumberKind; `long` and `unsigned long`
  // are 64-bit here and pick LongLong / UnsignedLongLong (what the platform's numbers report for
  // them), so that an int64_t never lands in the Long kind that binary coding narrows to 32 bits.
  // A C string or string_view makes an immutable string (a null C string makes nil).
  // number() and unsignedNumber() clamp a value that the kind cannot hold to the kind's range
  // (number(Short, 99999) holds 32767, number(UnsignedInt, -5) holds 0) instead of wrapping it:
  // a value that reaches a narrower kind keeps its sign and stays as close as it can.
  Value(bool b) noexcept;  // NOLINT(google-explicit-constructor)
  Value(int v) noexcept;
  Value(long v) noexcept;
  Value(long long v) noexcept;
  Value(unsigned v) noexcept;
  Value(unsigned long v) noexcept;
  Value(unsigned long long v) noexcept;
  Value(double v) noexcept;
  Value(const char* utf8);
  Value(std::string_view utf8);
  Value(const std::string& utf8);
  Value(const Decimal& d);

  static Value nil() { return Value(); }
  static Value null();
  static Value boolean(bool b);
  static Value number(NumberKind kind, int64_t v);  // for signed and Bool kinds
  static Value unsignedNumber(NumberKind kind, uint64_t v);
  static Value floatNumber(float v);
  static Value doubleNumber(double v);
  static Value decimal(const Decimal& d);
  static Value string(std::string_view utf8, bool mutableNode = false);
  static Value mutableString(std::string_view utf8 = {}) { return string(utf8, true); }
  static Value data(ByteView bytes, bool mutableNode = false);
  static Value data(Bytes&& bytes, bool mutableNode = false);
  static Value mutableData(ByteView bytes = {}) { return data(bytes, true); }
  static Value date(double secondsSince2001);
  static Value array(std::vector<Value> items = {}, bool mutableNode = false);
  static Value mutableArray(std::vector<Value> items = {}) { return array(std::move(items), true); }
  // Dictionary from (key, value) pairs; a later duplicate key replaces the earlier value.
  static Value dictionary(std::vector<std::pair<Value, Value>> entries = {}, bool mutableNode = false);
  static Value mutableDictionary(std::vector<std::pair<Value, Value>> entries = {}) {
    return dictionary(std::move(entries), true);
  }
  // The same, moving the members out of a buffer that the caller keeps (and reuses), as a
  // parser does for each container it closes.
  static Value arrayMovingFrom(std::span<Value> items, bool mutableNode = false);
  static Value dictionaryMovingFrom(std::span<std::pair<Value, Value>> entries, bool mutableNode = false);
  static Value set(std::vector<Value> items = {}, bool mutableNode = false);
  static Value mutableSet(std::vector<Value> items = {}) { return set(std::move(items), true); }
  static Value orderedSet(std::vector<Value> items = {}, bool mutableNode = false);
  static Value mutableOrderedSet(std::vector<Value> items = {}) { return orderedSet(std::move(items), true); }
  // A URL made of a relative string and an optional base URL (nil or a URL value).
  static Value url(std::string_view relativeString, const Value& base = Value());
  static Value point(double x, double y);
  static Value size(double width, double height);
  static Value rect(double x, double y, double width, double height);
  static Value range(uint64_t location, uint64_t length);
  static Value vector(double dx, double dy);
  static Value affineTransform(double a, double b, double c, double d, double tx, double ty);
  static Value transform3D(std::span<const double, 16> m);  // m11 ... m44, row by row
  // An index set from ranges; they are sorted and coalesced.
  static Value indexSet(std::vector<IndexRange> ranges = {}, bool mutableNode = false);
  static Value object(Object* obj);  // shares ownership of obj (may be freshly new'ed)

  // ---- Kind ---------------------------------------------------------------------------------
  ValueKind kind() const noexcept { return kind_; }
  bool isNil() const noexcept { return kind_ == ValueKind::Nil; }
  bool isNull() const noexcept { return kind_ == ValueKind::Null; }
  bool isNumber() const noexcept { return kind_ == ValueKind::Number; }
  bool isBoolean() const noexcept { return kind_ == ValueKind::Number && numberKind_ == NumberKind::Bool; }
  bool isDecimal() const noexcept { return kind_ == ValueKind::Decimal; }
  bool isString() const noexcept { return kind_ == ValueKind::String; }
  bool isData() const noexcept { return kind_ == ValueKind::Data; }
  bool isDate() const noexcept { return kind_ == ValueKind::Date; }
  bool isArray() const noexcept { return kind_ == ValueKind::Array; }
  bool isDictionary() const noexcept { return kind_ == ValueKind::Dictionary; }
  bool isSet() const noexcept { return kind_ == ValueKind::Set; }
  bool isOrderedSet() const noexcept { return kind_ == ValueKind::OrderedSet; }
  bool isURL() const noexcept { return kind_ == ValueKind::URL; }
  bool isStructure() const noexcept { return kind_ == ValueKind::Structure; }
  bool isIndexSet() const noexcept { return kind_ == ValueKind::IndexSet; }
  bool isObject() const noexcept { return kind_ == ValueKind::Object; }
  // Arrays, sets and ordered sets (the kinds with elements()).
  bool isCollection() const noexcept;
  // True for nodes created mutable; false for scalars and immutable nodes.
  bool isMutable() const noexcept;

  // ---- Numbers ------------------------------------------------------------------------------
  // The typed reads answer for every kind of value, never throw and never wrap:
  //  - A number of a wider or other kind converts; integer results are truncated toward zero
  //    and saturate at the target's range (a double 1e300, a decimal 1e30 or an unsigned 2^64-1
  //    gives INT64_MAX for longLongValue, INT32_MAX for intValue; a negative value gives 0 for
  //    unsignedLongLongValue). Floating-point NaN gives 0 and false; floatValue of a double
  //    beyond float's range is the infinity of its sign.
  //  - A decimal converts exactly (its whole part, not a rounded double); not-a-number gives
  //    0, NaN for doubleValue, and false.
  //  - A string gives its leading number, as the platform reads one: "  42abc" is 42, "1e5" is
  //    1 for the integer reads and 100000 for doubleValue, "99999999999999999999999" saturates,
  //    a text beyond a double's range reads as an infinity; boolValue looks at the first
  //    character (see below). Text without a leading number gives 0.
  //  - Every other kind (nil, null, data, dates, containers, ...) gives 0 / 0.0 / false; use
  //    dateValue() for a date.
  NumberKind numberKind() const noexcept { return numberKind_; }
  bool isFloatingPoint() const noexcept;  // Float or Double kind
  bool isUnsigned() const noexcept;       // an unsigned integer kind
  bool boolValue() const noexcept;        // nonzero number, or a string starting like "YES"/"true"/a digit 1-9
  int32_t intValue() const noexcept;      // truncating, saturating at the int32 range
  int64_t longLongValue() const noexcept;
  uint64_t unsignedLongLongValue() const noexcept;
  float floatValue() const noexcept;
  double doubleValue() const noexcept;
  // The number as a Decimal (exact for integers; shortest round-trip text for floating point;
  // not-a-number for a floating-point NaN or infinity). A string gives the decimal of its whole
  // text (not-a-number when that is no number); other kinds give zero.
  Decimal decimalValue() const;

  // ---- Strings, data, dates, URLs, structures, index sets, objects -------------------------
  // The UTF-8 text of a string; the empty string for any other kind, numbers included (a
  // number's text is description(), which is what ManagedObject::stringValue shows for a
  // non-string value).
  const std::string& str() const noexcept;
  // The bytes of a data value; empty for any other kind.
  ByteView bytes() const noexcept;
  // Seconds since 2001-01-01 00:00:00 UTC of a date; 0 for any other kind.
  double dateValue() const noexcept;
  // A URL's parts: its relative string (a string Value) and its base (nil or a URL Value).
  Value urlRelativeString() const;
  Value urlBase() const;
  // The absolute text of a URL: the relative string resolved against the base.
  std::string urlAbsoluteString() const;
  StructureKind structureKind() const noexcept;
  // The doubles of a structure value (2 for point/size/vector, 4 rect, 6 affine, 16 3-D);
  // for a range, {location, length} converted to double. Empty for other kinds.
  std::span<const double> structureDoubles() const noexcept;
  IndexRange rangeValue() const noexcept;  // a Range structure's location and length
  // The ranges of an index set, sorted and coalesced.
  const std::vector<IndexRange>& indexRanges() const noexcept;
  Object* objectPointer() const noexcept;  // the Object of an object value, else nullptr

  // ---- Containers (arrays, sets, ordered sets, dictionaries) -------------------------------
  size_t count() const noexcept;  // elements, entries, index-set members or string bytes
  bool empty() const noexcept { return count() == 0; }
  // Elements of an array, set or ordered set in order; empty for other kinds. Not on a
  // temporary: `for (x : f().elements())` would walk a vector that died with the temporary.
  const std::vector<Value>& elements() const& noexcept;
  const std::vector<Value>& elements() const&& = delete;
  const Value& at(size_t i) const;      // element i, nil when out of range
  bool contains(const Value& v) const;  // member of an array/set/ordered set, key of a dictionary

  // Dictionary entries in insertion order (not on a temporary, as elements()).
  const std::vector<std::pair<Value, Value>>& entries() const& noexcept;
  const std::vector<std::pair<Value, Value>>& entries() const&& = delete;
  std::vector<Value> keys() const;
  // The value for a key, nil when absent or when this is not a dictionary.
  const Value& get(const Value& key) const;
  // The value for a string key, without making a string value for the lookup.
  const Value& lookup(std::string_view key) const noexcept;
  const Value& operator[](std::string_view key) const noexcept { return lookup(key); }
  const Value& operator[](const char* key) const noexcept { return lookup(key); }

  // Mutation of mutable nodes. Each throws Exception("NSInternalInconsistencyException") when
  // the node is immutable and Exception("NSInvalidArgumentException") when it is not a kind
  // that supports the operation.
  void set(const Value& key, const Value& value);  // dictionary; a nil value removes the key
  void remove(const Value& key);                   // dictionary key, or array/set member
  void append(const Value& v);                     // array: always; set/ordered set: when absent
  void insert(size_t index, const Value& v);       // array or ordered set
  void replaceAt(size_t index, const Value& v);    // array or ordered set
  void removeAt(size_t index);                     // array or ordered set
  void removeAllObjects();                         // any mutable container, string or data
  void appendString(std::string_view utf8);        // mutable string
  void setString(std::string_view utf8);           // mutable string
  void appendBytes(ByteView bytes);                // mutable data
  void addIndexes(IndexRange range);               // mutable index set
  void removeIndexes(IndexRange range);            // mutable index set

  // ---- Copies and identity -------------------------------------------------------------
  // A new mutable node holding the same (shared) children; for string, data, containers
  // and index sets. Other kinds throw Exception("NSInvalidArgumentException").
  Value mutableCopy() const;
  // An immutable value with the same content: the value itself when already immutable,
  // otherwise a new immutable node holding the same children.
  Value copy() const;
  // True when the kind supports mutableCopy().
  bool canMutableCopy() const noexcept;
  // The node shared by copies of this handle; nullptr for scalars. Two handles with the
  // same identity are the same object.
  const void* identity() const noexcept;
  bool isSameNode(const Value& other) const noexcept {
    return holdsNode() && other.holdsNode() && node_ == other.node_;
  }

  // ---- Equality, hashing, ordering, text -------------------------------------------------
  friend bool operator==(const Value& a, const Value& b);
  friend bool operator!=(const Value& a, const Value& b) { return !(a == b); }
  size_t hash() const noexcept;
  // Orders numbers by value, strings by code point, dates by time; values of different kinds
  // by kind. Returns <0, 0 or >0.
  static int compare(const Value& a, const Value& b);
  // The platform-style description: numbers as decimal integers or the shortest round-trip
  // text of a floating-point value, strings as themselves, containers in the old-style
  // property-list form. Cycles print as "(cycle)".
  std::string description() const;

 private:
  union Scalar {
    int64_t i;
    uint64_t u;
    double d;
  };
  // Nil, null and plain numbers live in scalar_; every later kind owns a reference in node_.
  bool holdsNode() const noexcept { return kind_ > ValueKind::Number; }

  ValueKind kind_ = ValueKind::Nil;
  NumberKind numberKind_ = NumberKind::Unknown;
  union {
    Scalar scalar_;
    detail::Node* node_;
  };
  friend struct ValueAccess;
};

// The handle operations run millions of times when a file is read; keep them inline.
inline void detail::Node::retain() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }

inline void detail::Node::release() const noexcept {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(this);
}

inline uint32_t detail::Node::refCount() const noexcept { return refs_.load(std::memory_order_relaxed); }

inline Value::Value(const Value& other) noexcept : kind_(other.kind_), numberKind_(other.numberKind_) {
  if (other.holdsNode()) {
    node_ = other.node_;
    node_->retain();
  } else {
    scalar_ = other.scalar_;
  }
}

inline Value::Value(Value&& other) noexcept : kind_(other.kind_), numberKind_(other.numberKind_) {
  if (other.holdsNode()) {
    node_ = other.node_;
  } else {
    scalar_ = other.scalar_;
  }
  other.kind_ = ValueKind::Nil;
  other.numberKind_ = NumberKind::Unknown;
  other.node_ = nullptr;
}

inline Value& Value::operator=(const Value& other) noexcept {
  Value copy(other);
  *this = std::move(copy);
  return *this;
}

inline Value& Value::operator=(Value&& other) noexcept {
  if (this == &other) return *this;
  // Take other's content before releasing our node: other may live inside that node.
  const ValueKind kind = other.kind_;
  const NumberKind numberKind = other.numberKind_;
  Scalar scalar{};
  detail::Node* node = nullptr;
  if (other.holdsNode()) {
    node = other.node_;
  } else {
    scalar = other.scalar_;
  }
  other.kind_ = ValueKind::Nil;
  other.numberKind_ = NumberKind::Unknown;
  other.node_ = nullptr;
  detail::Node* old = holdsNode() ? node_ : nullptr;
  kind_ = kind;
  numberKind_ = numberKind;
  if (node != nullptr) {
    node_ = node;
  } else {
    scalar_ = scalar;
  }
  if (old != nullptr) old->release();
  return *this;
}

inline Value::~Value() {
  if (holdsNode()) node_->release();
}

struct ValueHash {
  size_t operator()(const Value& v) const noexcept { return v.hash(); }
};

// Literal helpers for tests and examples:
//   Value d = dict({{"name", "Ann"}, {"age", 42}});
inline Value dict(std::initializer_list<std::pair<Value, Value>> entries, bool mutableNode = false) {
  return Value::dictionary(std::vector<std::pair<Value, Value>>(entries), mutableNode);
}
inline Value arr(std::initializer_list<Value> items, bool mutableNode = false) {
  return Value::array(std::vector<Value>(items), mutableNode);
}

}  // namespace corvane
