// corvane::SortDescriptor — one key of a sort order for fetch results.
//
// Values compare by kind: nil (and null) sorts before everything, then numbers by value
// (booleans are numbers), decimals with numbers, strings by code point (or case-insensitively
// with caseInsensitive), dates by time, data by bytes; values of different kinds sort by kind.
// A custom comparator replaces this comparison.
//
// Threads: immutable after construction; usable on any thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "corvane/foundation/value.h"

namespace corvane {

class SortDescriptor {
 public:
  using Comparator = std::function<int(const Value& a, const Value& b)>;

  explicit SortDescriptor(std::string keyPath, bool ascending = true, bool caseInsensitive = false);
  // Orders by `comparator` (ascending: as it answers) instead of by kind.
  static SortDescriptor withComparator(std::string keyPath, Comparator comparator, bool ascending = true);

  const std::string& keyPath() const { return keyPath_; }
  bool ascending() const { return ascending_; }
  bool caseInsensitive() const { return caseInsensitive_; }

  // <0, 0 or >0 for two values of the key path, honouring the direction.
  int compareValues(const Value& a, const Value& b) const;
  // Compares two objects by this descriptor's key path.
  int compare(const Object& a, const Object& b) const;

  // The comparison by kind described above, ascending.
  static int compareByKind(const Value& a, const Value& b, bool caseInsensitive = false);

 private:
  std::string keyPath_;
  bool ascending_;
  bool caseInsensitive_;
  Comparator comparator_;
};

// The order in which to take `objects` so that they are sorted stably by the descriptors (the
// first decides, later ones break ties): result[i] is the index of the i-th object. Each
// object's key values are read once.
std::vector<size_t> sortOrder(const std::vector<const Object*>& objects,
                              const std::vector<SortDescriptor>& descriptors);

}  // namespace corvane
