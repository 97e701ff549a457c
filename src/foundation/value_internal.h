// The node types behind corvane::Value. Private to the foundation layer (and to code in this
// repository that needs raw access for speed, through ValueAccess).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "corvane/foundation/value.h"

namespace corvane {
namespace detail {

// Every node except Object knows whether it was created mutable; that never changes.
class ValueNode : public Node {
 public:
  explicit ValueNode(bool isMutable) : mutable_(isMutable) {}
  bool isMutable() const noexcept { return mutable_; }

 private:
  const bool mutable_;
};

class StringNode final : public ValueNode {
 public:
  StringNode(std::string_view s, bool isMutable) : ValueNode(isMutable), text(s) {}
  std::string text;
};

class DataNode final : public ValueNode {
 public:
  DataNode(Bytes b, bool isMutable) : ValueNode(isMutable), bytes(std::move(b)) {}
  Bytes bytes;
};

class DateNode final : public ValueNode {
 public:
  explicit DateNode(double s) : ValueNode(false), seconds(s) {}
  const double seconds;
};

class DecimalNode final : public ValueNode {
 public:
  explicit DecimalNode(const Decimal& d) : ValueNode(false), value(d) {}
  const Decimal value;
};

// The hash of a string value, usable without making one (lookups by string_view).
inline size_t hashStringBytes(std::string_view s) noexcept { return std::hash<std::string_view>()(s); }

// Open-addressing index from hash to position in an insertion-ordered vector. Only built once
// a container grows past kThreshold members; below that a linear scan is faster. A container
// without an index pays one null pointer for it.
class HashIndex {
 public:
  static constexpr size_t kThreshold = 8;

  HashIndex() = default;
  HashIndex(const HashIndex& other) : table_(other.table_ ? std::make_unique<Table>(*other.table_) : nullptr) {}
  HashIndex& operator=(const HashIndex& other) {
    table_ = other.table_ ? std::make_unique<Table>(*other.table_) : nullptr;
    return *this;
  }

  bool active() const noexcept { return table_ != nullptr; }
  void clear() noexcept { table_.reset(); }

  // Position of the member with this hash for which matches(position) holds, or -1.
  template <class Matches>
  ptrdiff_t find(size_t hash, Matches&& matches) const {
    const std::vector<uint32_t>& slots = table_->slots;
    const size_t mask = slots.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const uint32_t slot = slots[i];
      if (slot == 0) return -1;
      if (table_->hashes[slot - 1] == hash && matches(slot - 1)) return static_cast<ptrdiff_t>(slot - 1);
    }
  }

  // Starts an empty index sized for `expected` members, for containers built in one go.
  void start(size_t expected) {
    table_ = std::make_unique<Table>();
    table_->hashes.reserve(expected);
    resize(tableSizeFor(expected));
  }

  // Records the member just appended at the next position.
  void append(size_t hash) {
    table_->hashes.push_back(hash);
    if (table_->hashes.size() * 2 > table_->slots.size()) {
      resize(table_->slots.size() * 2);
    } else {
      place(table_->hashes.size() - 1);
    }
  }

  // Indexes positions 0 ... n-1 from scratch; hashOf(i) gives the hash of member i.
  template <class HashOf>
  void rebuild(size_t n, HashOf&& hashOf) {
    table_ = std::make_unique<Table>();
    table_->hashes.reserve(n);
    for (size_t i = 0; i < n; ++i) table_->hashes.push_back(hashOf(i));
    resize(tableSizeFor(n));
  }

 private:
  struct Table {
    std::vector<uint32_t> slots;  // 0 = empty, else position + 1
    std::vector<size_t> hashes;   // hash of the member at each position
  };

  static size_t tableSizeFor(size_t n) {
    size_t size = 16;
    while (size < n * 2) size *= 2;
    return size;
  }
  void resize(size_t size) {
    table_->slots.assign(size, 0);
    for (size_t i = 0; i < table_->hashes.size(); ++i) place(i);
  }
  void place(size_t position) {
    std::vector<uint32_t>& slots = table_->slots;
    const size_t mask = slots.size() - 1;
    size_t i = table_->hashes[position] & mask;
    while (slots[i] != 0) i = (i + 1) & mask;
    slots[i] = static_cast<uint32_t>(position + 1);
  }

  std::unique_ptr<Table> table_;
};

// Arrays, sets and ordered sets. Sets and ordered sets keep their members distinct.
class ElementsNode final : public ValueNode {
 public:
  ElementsNode(bool isMutable, bool distinctMembers) : ValueNode(isMutable), distinct(distinctMembers) {}

  ptrdiff_t find(const Value& v) const;
  // Appends v unless a set already holds it; returns whether it was added.
  bool add(Value v);
  void reindex();

  std::vector<Value> items;
  HashIndex index;
  const bool distinct;
};

class DictionaryNode final : public ValueNode {
 public:
  explicit DictionaryNode(bool isMutable) : ValueNode(isMutable) {}

  ptrdiff_t find(const Value& key) const;
  ptrdiff_t findString(std::string_view key) const;
  // Replaces the value of an existing key in place, or appends the entry.
  void put(Value key, Value value);
  bool erase(const Value& key);
  void reindex();

  std::vector<std::pair<Value, Value>> entries;
  HashIndex index;
};

class URLNode final : public ValueNode {
 public:
  URLNode(Value relativeString, Value baseURL, std::string absoluteString)
      : ValueNode(false),
        relative(std::move(relativeString)),
        base(std::move(baseURL)),
        absolute(std::move(absoluteString)) {}
  const Value relative;  // a string
  const Value base;      // nil or a URL
  const std::string absolute;
};

class StructureNode final : public ValueNode {
 public:
  StructureNode(StructureKind k, std::span<const double> values) : ValueNode(false), kind(k) {
    count = static_cast<uint8_t>(values.size());
    for (size_t i = 0; i < values.size(); ++i) doubles[i] = values[i];
  }
  StructureKind kind;
  uint8_t count = 0;
  double doubles[16] = {};
  IndexRange range;  // for Range structures, the exact 64-bit fields
};

class IndexSetNode final : public ValueNode {
 public:
  IndexSetNode(std::vector<IndexRange> r, bool isMutable) : ValueNode(isMutable), ranges(std::move(r)) {}
  void add(IndexRange r);
  void remove(IndexRange r);
  std::vector<IndexRange> ranges;  // sorted, coalesced, none empty
};

}  // namespace detail

// Raw access to a Value's node for code that builds or reads millions of values.
struct ValueAccess {
  static detail::Node* node(const Value& v) noexcept { return v.holdsNode() ? v.node_ : nullptr; }
  template <class T>
  static T* as(const Value& v) noexcept {
    return static_cast<T*>(v.node_);
  }
  // Wraps a freshly made node (reference count 0) in a Value of the given kind.
  static Value adopt(ValueKind kind, detail::Node* n) noexcept {
    Value v;
    v.kind_ = kind;
    v.node_ = n;
    n->retain();
    return v;
  }
  // Plain numbers, stored as the signed, unsigned or floating-point member.
  static Value scalar(NumberKind kind, int64_t i) noexcept { return number(kind, Value::Scalar{.i = i}); }
  static Value scalarUnsigned(NumberKind kind, uint64_t u) noexcept { return number(kind, Value::Scalar{.u = u}); }
  static Value scalarDouble(NumberKind kind, double d) noexcept { return number(kind, Value::Scalar{.d = d}); }
  static int64_t i(const Value& v) noexcept { return v.scalar_.i; }
  static uint64_t u(const Value& v) noexcept { return v.scalar_.u; }
  static double d(const Value& v) noexcept { return v.scalar_.d; }

 private:
  static Value number(NumberKind kind, Value::Scalar payload) noexcept {
    Value v;
    v.kind_ = ValueKind::Number;
    v.numberKind_ = kind;
    v.scalar_ = payload;
    return v;
  }
};

// Helpers shared by the value sources.
namespace value_detail {
[[noreturn]] void throwImmutable(const char* operation);
[[noreturn]] void throwWrongKind(const char* operation, ValueKind kind);
[[noreturn]] void throwRange(const char* operation, size_t index, size_t count);
const char* kindName(ValueKind kind);
std::string resolveURL(const std::string& relative, const Value& base);
std::string shortestNumberText(double v, bool singlePrecision);
std::string dateText(double secondsSince2001);
}  // namespace value_detail

}  // namespace corvane
