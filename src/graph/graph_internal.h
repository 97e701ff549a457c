// Pieces shared by the graph layer's sources and not part of its interface.
#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "corvane/graph/managed_object.h"

namespace corvane {

class EntityDescription;
class ManagedObjectContext;

// Makes an object of the entity's registered class (or a plain ManagedObject).
ManagedObject* makeManagedObject(const EntityDescription* entity, ManagedObjectContext* context);

namespace graph_internal {

// An insertion-ordered set of objects that keeps them alive, with constant-time insert,
// erase and lookup. Erased slots are compacted away once they outnumber the members.
class ObjectSet {
 public:
  bool insert(ManagedObject* o) {
    if (index_.count(o) != 0) return false;
    index_.emplace(o, order_.size());
    order_.emplace_back(o);
    return true;
  }
  bool erase(ManagedObject* o) {
    auto it = index_.find(o);
    if (it == index_.end()) return false;
    order_[it->second] = nullptr;
    index_.erase(it);
    if (++erased_ > 32 && erased_ > index_.size()) compact();
    return true;
  }
  bool contains(ManagedObject* o) const { return index_.count(o) != 0; }
  size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }
  void clear() {
    index_.clear();
    order_.clear();
    erased_ = 0;
  }
  std::vector<Retained<ManagedObject>> items() const {
    std::vector<Retained<ManagedObject>> out;
    out.reserve(index_.size());
    for (const auto& o : order_) {
      if (o) out.push_back(o);
    }
    return out;
  }

 private:
  void compact() {
    std::vector<Retained<ManagedObject>> kept;
    kept.reserve(index_.size());
    for (auto& o : order_) {
      if (o) {
        index_[o.get()] = kept.size();
        kept.push_back(std::move(o));
      }
    }
    order_.swap(kept);
    erased_ = 0;
  }

  std::vector<Retained<ManagedObject>> order_;
  std::unordered_map<ManagedObject*, size_t> index_;
  size_t erased_ = 0;
};

}  // namespace graph_internal
}  // namespace corvane
