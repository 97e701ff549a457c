// ManagedObjectContext::Changes — recording what changes in a context: objects changed,
// inserted and deleted (and those undone or redone), delete rules, and the
// objects-did-change notification that sums up the changes since the last one. Runs on the
// context's queue.
#pragma once

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class ManagedObjectContext::Changes {
 public:
  explicit Changes(Impl& context) : c_(context) {}
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;

  // Records a change to one of the object's values.
  void objectDidChange(ManagedObject* object);
  // Undoes an insertion: an object saved since then is deleted.
  void undoInsertion(const Retained<ManagedObject>& object);
  // Undoes a deletion (or an undone insertion). An object whose deletion was saved comes back
  // as a new insertion under its old ID.
  void revive(const Retained<ManagedObject>& object);
  // Applies the delete rules of the objects deleted since the last call.
  void propagateDeletes();
  void postObjectsDidChange();

 private:
  Impl& c_;
};

}  // namespace corvane
