#include "corvane/graph/sort_descriptor.h"

#include <algorithm>
#include <cstring>

#include "corvane/graph/predicate.h"
#include "graph/text_fold.h"

namespace corvane {

SortDescriptor::SortDescriptor(std::string keyPath, bool ascending, bool caseInsensitive)
    : keyPath_(std::move(keyPath)), ascending_(ascending), caseInsensitive_(caseInsensitive) {}

SortDescriptor SortDescriptor::withComparator(std::string keyPath, Comparator comparator, bool ascending) {
  SortDescriptor d(std::move(keyPath), ascending);
  d.comparator_ = std::move(comparator);
  return d;
}

int SortDescriptor::compareByKind(const Value& a, const Value& b, bool caseInsensitive) {
  bool aNothing = a.isNil() || a.isNull(), bNothing = b.isNil() || b.isNull();
  if (aNothing || bNothing) return aNothing == bNothing ? 0 : (aNothing ? -1 : 1);
  if (a.isString() && b.isString()) return graph_internal::compareFolded(a.str(), b.str(), caseInsensitive, false);
  if (a.isData() && b.isData()) {
    auto x = a.bytes(), y = b.bytes();
    size_t n = std::min(x.size(), y.size());
    int c = n == 0 ? 0 : std::memcmp(x.data(), y.data(), n);
    if (c != 0) return c < 0 ? -1 : 1;
    return x.size() < y.size() ? -1 : x.size() > y.size() ? 1 : 0;
  }
  int c = Value::compare(a, b);
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

int SortDescriptor::compareValues(const Value& a, const Value& b) const {
  int c = comparator_ ? comparator_(a, b) : compareByKind(a, b, caseInsensitive_);
  return ascending_ ? c : -c;
}

int SortDescriptor::compare(const Object& a, const Object& b) const {
  return compareValues(valueForKeyPath(a, keyPath_), valueForKeyPath(b, keyPath_));
}

std::vector<size_t> sortOrder(const std::vector<const Object*>& objects,
                              const std::vector<SortDescriptor>& descriptors) {
  std::vector<size_t> order(objects.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  if (descriptors.empty() || objects.size() < 2) return order;
  const size_t width = descriptors.size();
  std::vector<Value> keys(objects.size() * width);
  for (size_t i = 0; i < objects.size(); ++i) {
    for (size_t d = 0; d < width; ++d) keys[i * width + d] = valueForKeyPath(*objects[i], descriptors[d].keyPath());
  }
  std::stable_sort(order.begin(), order.end(), [&](size_t x, size_t y) {
    for (size_t d = 0; d < width; ++d) {
      int c = descriptors[d].compareValues(keys[x * width + d], keys[y * width + d]);
      if (c != 0) return c < 0;
    }
    return false;
  });
  return order;
}

}  // namespace corvane
