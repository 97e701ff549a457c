// Pieces shared by the graph layer's sources and not part of its interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "corvane/graph/managed_object.h"

namespace corvane {

class EntityDescription;
class ManagedObjectContext;

// Makes an object of the entity's registered class (or a plain ManagedObject).
ManagedObject* makeManagedObject(const EntityDescription* entity, ManagedObjectContext* context);

namespace graph_internal {

// An insertion-ordered set of a context's objects that keeps them alive. Membership is a bit
// in the object itself (each of a context's sets has its own bit), so insert, erase and
// lookup cost no hashing. An object erased and inserted again keeps its first position.
class ObjectSet {
 public:
  explicit ObjectSet(uint8_t bit) : bit_(bit) {}
  ObjectSet(const ObjectSet&) = delete;
  ObjectSet& operator=(const ObjectSet&) = delete;

  bool insert(ManagedObject* o) {
    if ((o->memberships_ & bit_) != 0) return false;
    o->memberships_ |= bit_;
    order_.emplace_back(o);
    ++count_;
    return true;
  }
  bool erase(ManagedObject* o) {
    if ((o->memberships_ & bit_) == 0) return false;
    o->memberships_ &= static_cast<uint8_t>(~bit_);
    --count_;
    if (order_.size() > 32 && order_.size() > 2 * count_) order_ = items();
    return true;
  }
  bool contains(const ManagedObject* o) const { return (o->memberships_ & bit_) != 0; }
  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  void clear() {
    for (const auto& o : order_) o->memberships_ &= static_cast<uint8_t>(~bit_);
    order_.clear();
    count_ = 0;
  }
  std::vector<Retained<ManagedObject>> items() const {
    std::vector<Retained<ManagedObject>> out;
    out.reserve(count_);
    for (const auto& o : order_) {
      if ((o->memberships_ & bit_) != 0 && (o->listed_ & bit_) == 0) {
        o->listed_ |= bit_;
        out.push_back(o);
      }
    }
    for (const auto& o : out) o->listed_ &= static_cast<uint8_t>(~bit_);
    return out;
  }

 private:
  uint8_t bit_;
  std::vector<Retained<ManagedObject>> order_;  // may hold erased objects and repeats
  size_t count_ = 0;
};

// The context's table of registered objects by ID: open addressing with linear probing, the
// hash kept beside each object so that a probe rarely touches an ID's node, and the key read
// from the object itself (so an object must be erased before its ID changes).
class ObjectRegistry {
 public:
  ObjectRegistry() = default;
  ObjectRegistry(const ObjectRegistry&) = delete;
  ObjectRegistry& operator=(const ObjectRegistry&) = delete;
  ObjectRegistry(ObjectRegistry&& other) noexcept
      : slots_(std::move(other.slots_)), count_(std::exchange(other.count_, 0)) {}

  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }

  ManagedObject* find(const ObjectID& id) const {
    if (count_ == 0) return nullptr;
    const size_t h = mix(id.hash());
    for (size_t i = h & mask();; i = (i + 1) & mask()) {
      const Slot& s = slots_[i];
      if (!s.object) return nullptr;
      if (s.hash == h && s.object->objectID() == id) return s.object.get();
    }
  }

  // Registers `o` under its current ID, replacing any object registered there.
  void insert(ManagedObject* o) {
    if ((count_ + 1) * 4 > slots_.size() * 3) grow();
    const size_t h = mix(o->objectID().hash());
    for (size_t i = h & mask();; i = (i + 1) & mask()) {
      Slot& s = slots_[i];
      if (!s.object) {
        s.hash = h;
        s.object = o;
        ++count_;
        return;
      }
      if (s.hash == h && s.object->objectID() == o->objectID()) {
        s.object = o;
        return;
      }
    }
  }

  // Removes the object registered under `id`; answers it (kept alive for the caller).
  Retained<ManagedObject> erase(const ObjectID& id) {
    if (count_ == 0) return nullptr;
    const size_t h = mix(id.hash());
    size_t i = h & mask();
    for (;; i = (i + 1) & mask()) {
      const Slot& s = slots_[i];
      if (!s.object) return nullptr;
      if (s.hash == h && s.object->objectID() == id) break;
    }
    Retained<ManagedObject> removed = std::move(slots_[i].object);
    slots_[i].object = nullptr;
    --count_;
    // Shift later members of the probe run back so that lookups never stop early.
    for (size_t j = (i + 1) & mask(); slots_[j].object; j = (j + 1) & mask()) {
      size_t home = slots_[j].hash & mask();
      bool movable = (j > i) ? (home <= i || home > j) : (home <= i && home > j);
      if (movable) {
        slots_[i] = std::move(slots_[j]);
        slots_[j].object = nullptr;
        i = j;
      }
    }
    return removed;
  }

  // Calls f(object) for every registered object; f may not change the registry.
  template <class F>
  void forEach(F&& f) const {
    for (const Slot& s : slots_) {
      if (s.object) f(s.object.get());
    }
  }

  // Removes every object for which remove(object) is true; answers the removed ones.
  template <class Remove>
  std::vector<Retained<ManagedObject>> removeIf(Remove&& remove) {
    std::vector<Retained<ManagedObject>> removed;
    std::vector<Retained<ManagedObject>> kept;
    for (Slot& s : slots_) {
      if (!s.object) continue;
      (remove(s.object.get()) ? removed : kept).push_back(std::move(s.object));
      s.object = nullptr;
    }
    count_ = 0;
    for (auto& o : kept) insert(o.get());
    return removed;
  }

  std::vector<Retained<ManagedObject>> takeAll() {
    std::vector<Retained<ManagedObject>> out;
    out.reserve(count_);
    for (Slot& s : slots_) {
      if (s.object) out.push_back(std::move(s.object));
    }
    slots_.clear();
    count_ = 0;
    return out;
  }

 private:
  struct Slot {
    size_t hash = 0;
    Retained<ManagedObject> object;
  };

  static size_t mix(size_t h) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return h;
  }
  size_t mask() const { return slots_.size() - 1; }
  void grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_ = std::vector<Slot>(old.empty() ? 64 : old.size() * 2);
    count_ = 0;
    for (Slot& s : old) {
      if (!s.object) continue;
      for (size_t i = s.hash & mask();; i = (i + 1) & mask()) {
        if (!slots_[i].object) {
          slots_[i] = std::move(s);
          ++count_;
          break;
        }
      }
    }
  }

  std::vector<Slot> slots_;
  size_t count_ = 0;
};

}  // namespace graph_internal
}  // namespace corvane
