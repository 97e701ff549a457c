// The insides of the container nodes (lookup, insertion, hash index upkeep, index-set
// ranges), the deferred freeing of nodes, and the exceptions that mutation raises.
#include <algorithm>
#include <cstring>
#include <limits>

#include "corvane/foundation/error.h"
#include "foundation/value_internal.h"

namespace corvane {

namespace detail {

namespace {
// Trivially destructible on purpose: values in static storage die after the thread's
// thread-local objects, and may still free nodes then.
constexpr size_t kPendingCapacity = 1024;
thread_local const Node* tlPending[kPendingCapacity];
thread_local size_t tlPendingCount = 0;
thread_local bool tlDraining = false;
}  // namespace

void Node::destroy(const Node* node) noexcept {
  if (tlDraining && tlPendingCount < kPendingCapacity) {
    tlPending[tlPendingCount++] = node;
    return;
  }
  if (tlDraining) {  // queue full: fall back to plain recursion for this one
    delete node;
    return;
  }
  tlDraining = true;
  delete node;
  while (tlPendingCount > 0) delete tlPending[--tlPendingCount];
  tlDraining = false;
}

namespace {
// Most keys and members are strings: compare those without the general equality's dispatch.
inline bool sameMember(const Value& stored, const Value& probe) {
  if (stored.isString() && probe.isString()) {
    if (stored.isSameNode(probe)) return true;
    const std::string& a = static_cast<const StringNode*>(ValueAccess::node(stored))->text;
    const std::string& b = static_cast<const StringNode*>(ValueAccess::node(probe))->text;
    return a.size() == b.size() && a.compare(b) == 0;
  }
  return stored == probe;
}
}  // namespace

ptrdiff_t ElementsNode::find(const Value& v) const {
  if (index.active()) return index.find(v.hash(), [&](size_t i) { return sameMember(items[i], v); });
  for (size_t i = 0; i < items.size(); ++i) {
    if (sameMember(items[i], v)) return static_cast<ptrdiff_t>(i);
  }
  return -1;
}

bool ElementsNode::add(Value v) {
  if (distinct) {
    if (index.active()) {
      const size_t h = v.hash();
      if (index.find(h, [&](size_t i) { return sameMember(items[i], v); }) >= 0) return false;
      items.push_back(std::move(v));
      index.append(h);
      return true;
    }
    if (find(v) >= 0) return false;
  }
  items.push_back(std::move(v));
  if (distinct && items.size() > HashIndex::kThreshold) reindex();
  return true;
}

void ElementsNode::reindex() {
  if (!distinct || items.size() <= HashIndex::kThreshold) {
    index.clear();
    return;
  }
  index.rebuild(items.size(), [this](size_t i) { return items[i].hash(); });
}

ptrdiff_t DictionaryNode::find(const Value& key) const {
  if (index.active()) return index.find(key.hash(), [&](size_t i) { return sameMember(entries[i].first, key); });
  for (size_t i = 0; i < entries.size(); ++i) {
    if (sameMember(entries[i].first, key)) return static_cast<ptrdiff_t>(i);
  }
  return -1;
}

ptrdiff_t DictionaryNode::findString(std::string_view key) const {
  auto matches = [&](size_t i) {
    const Value& k = entries[i].first;
    if (!k.isString()) return false;
    const std::string& text = static_cast<const StringNode*>(ValueAccess::node(k))->text;
    return text.size() == key.size() && std::memcmp(text.data(), key.data(), key.size()) == 0;
  };
  if (index.active()) return index.find(hashStringBytes(key), matches);
  for (size_t i = 0; i < entries.size(); ++i) {
    if (matches(i)) return static_cast<ptrdiff_t>(i);
  }
  return -1;
}

void DictionaryNode::put(Value key, Value value) {
  size_t h = 0;
  ptrdiff_t at;
  if (index.active()) {
    h = key.hash();
    at = index.find(h, [&](size_t i) { return sameMember(entries[i].first, key); });
  } else {
    at = find(key);
  }
  if (at >= 0) {
    entries[static_cast<size_t>(at)].second = std::move(value);
    return;
  }
  // A dictionary copies its keys, so that mutating the caller's key cannot break the index.
  if (key.isMutable()) key = key.copy();
  entries.emplace_back(std::move(key), std::move(value));
  if (index.active()) {
    index.append(h);
  } else if (entries.size() > HashIndex::kThreshold) {
    reindex();
  }
}

bool DictionaryNode::erase(const Value& key) {
  const ptrdiff_t at = find(key);
  if (at < 0) return false;
  entries.erase(entries.begin() + at);
  reindex();
  return true;
}

void DictionaryNode::reindex() {
  if (entries.size() <= HashIndex::kThreshold) {
    index.clear();
    return;
  }
  index.rebuild(entries.size(), [this](size_t i) { return entries[i].first.hash(); });
}

void IndexSetNode::add(IndexRange r) {
  if (r.length == 0) return;
  if (r.length > std::numeric_limits<uint64_t>::max() - r.location) {
    r.length = std::numeric_limits<uint64_t>::max() - r.location;
    if (r.length == 0) return;
  }
  uint64_t start = r.location;
  uint64_t end = r.location + r.length;  // exclusive
  // First range that ends at or after start (touching ranges merge).
  auto first = std::lower_bound(ranges.begin(), ranges.end(), start,
                                [](const IndexRange& x, uint64_t s) { return x.location + x.length < s; });
  auto last = first;
  while (last != ranges.end() && last->location <= end) {
    start = std::min(start, last->location);
    end = std::max(end, last->location + last->length);
    ++last;
  }
  first = ranges.erase(first, last);
  ranges.insert(first, IndexRange{start, end - start});
}

void IndexSetNode::remove(IndexRange r) {
  if (r.length == 0) return;
  const uint64_t start = r.location;
  const uint64_t end =
      r.length > std::numeric_limits<uint64_t>::max() - start ? std::numeric_limits<uint64_t>::max() : start + r.length;
  std::vector<IndexRange> out;
  out.reserve(ranges.size() + 1);
  for (const IndexRange& x : ranges) {
    const uint64_t xEnd = x.location + x.length;
    if (xEnd <= start || x.location >= end) {
      out.push_back(x);
      continue;
    }
    if (x.location < start) out.push_back({x.location, start - x.location});
    if (xEnd > end) out.push_back({end, xEnd - end});
  }
  ranges = std::move(out);
}

}  // namespace detail

namespace value_detail {

const char* kindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::Nil:
      return "nil";
    case ValueKind::Null:
      return "null";
    case ValueKind::Number:
      return "number";
    case ValueKind::Decimal:
      return "decimal number";
    case ValueKind::String:
      return "string";
    case ValueKind::Data:
      return "data";
    case ValueKind::Date:
      return "date";
    case ValueKind::Array:
      return "array";
    case ValueKind::Dictionary:
      return "dictionary";
    case ValueKind::Set:
      return "set";
    case ValueKind::OrderedSet:
      return "ordered set";
    case ValueKind::URL:
      return "URL";
    case ValueKind::Structure:
      return "structure";
    case ValueKind::IndexSet:
      return "index set";
    case ValueKind::Object:
      return "object";
  }
  return "value";
}

void throwImmutable(const char* operation) {
  throw Exception("NSInternalInconsistencyException",
                  std::string(operation) + ": mutating method sent to immutable object");
}

void throwWrongKind(const char* operation, ValueKind kind) {
  throw Exception("NSInvalidArgumentException",
                  std::string(operation) + ": not supported by a " + kindName(kind) + " value");
}

void throwRange(const char* operation, size_t index, size_t count) {
  throw Exception("NSRangeException", std::string(operation) + ": index " + std::to_string(index) +
                                          " beyond bounds [0 .. " + std::to_string(count) + "]");
}

}  // namespace value_detail

}  // namespace corvane
