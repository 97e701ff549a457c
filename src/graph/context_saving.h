// ManagedObjectContext::Saving — what save() does: validating the changes, writing them to
// the stores (or handing them to the parent context, which applies them on its queue) and
// making them the committed state. Runs on the context's queue.
#pragma once

#include <utility>
#include <vector>

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class ManagedObjectContext::Saving {
 public:
  // A child's change to one object, in a form the parent can apply on its own queue: IDs
  // instead of the child's objects.
  struct Transfer {
    ObjectID id;
    const EntityDescription* entity = nullptr;
    bool inserted = false;
    std::vector<std::pair<int, Value>> values;  // relationships as ID values / arrays of ID values
  };

  explicit Saving(Impl& context) : c_(context) {}
  Saving(const Saving&) = delete;
  Saving& operator=(const Saving&) = delete;

  bool save(Error* error);
  // On the parent's queue: applies a child's saved changes as changes of the parent's own.
  void applyChildChanges(const std::vector<Transfer>& transfers, const std::vector<ObjectID>& deleted);

 private:
  struct Lists {
    std::vector<Retained<ManagedObject>> inserted, updated, deleted;
  };

  Lists saveLists() const;
  bool validateChanges(const Lists& lists, Error* error);
  bool pushToStores(const Lists& lists, Error* error);
  bool pushToParent(const Lists& lists, Error* error);
  void commitSavedChanges(const Lists& lists);

  Impl& c_;
};

}  // namespace corvane
