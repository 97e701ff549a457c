// ManagedObjectContext::Faults — reading an object's values from where the context gets
// them (its parent context or its coordinator's stores): firing faults, loading to-many
// relationships on first use, answering a child context's reads, and turning objects back
// into faults. Runs on the context's queue.
#pragma once

#include <cstdint>
#include <optional>

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class ManagedObjectContext::Faults {
 public:
  explicit Faults(Impl& context) : c_(context) {}
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  // Reads the values of a fault; an object that can't be read gets no values (logged).
  void fulfill(ManagedObject* object);
  // Sets the object's values to the node's (name → value, relationships as IDs or objects),
  // as committed values of that version.
  void fill(ManagedObject* object, const Value& values, uint64_t version);
  // The members of a to-many relationship as the parent or the stores have them now.
  Value loadToMany(ManagedObject* object, int index);
  // On the parent's queue: the values a child sees for the object.
  std::optional<Value> valuesForChild(const ObjectID& id, uint64_t* version, Error* error);
  // Forgets the object's values (unless inserted or deleted); it reads them again when used.
  void turnIntoFault(ManagedObject* object);

 private:
  Impl& c_;
};

}  // namespace corvane
