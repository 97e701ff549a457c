// CorvaneManagedObjectContext — the contexts that a CorvaneStore keeps up to date with the
// changes of other devices.
//
// After an update pass the store refreshes the objects that other devices changed in every
// context of this class that has talked to it, and posts "CorvaneObjectsWillChangeExternally",
// the graph's private change notification and "CorvaneObjectsDidChangeExternally" for it.
// Contexts of the plain class are left alone. isMergingExternally() is true while such a refresh
// runs, so that observers can tell a merge from the user's own edits.
//
// Threads: as ManagedObjectContext.
#pragma once

#include <memory>

#include "corvane/graph/managed_object_context.h"

namespace corvane {

class CorvaneStore;

class CorvaneManagedObjectContext : public ManagedObjectContext {
 public:
  static std::shared_ptr<CorvaneManagedObjectContext> create(ConcurrencyType type);
  explicit CorvaneManagedObjectContext(ConcurrencyType type) : ManagedObjectContext(type) {}

  bool isMergingExternally() const { return mergingExternally_; }

  // isMergingExternally() for the life of the scope, on a context that may be null.
  class [[nodiscard]] ExternalMerge {
   public:
    explicit ExternalMerge(CorvaneManagedObjectContext* context) : context_(context) {
      if (context_ != nullptr) context_->mergingExternally_ = true;
    }
    ~ExternalMerge() {
      if (context_ != nullptr) context_->mergingExternally_ = false;
    }
    ExternalMerge(const ExternalMerge&) = delete;
    ExternalMerge& operator=(const ExternalMerge&) = delete;

   private:
    CorvaneManagedObjectContext* context_;
  };

 private:
  bool mergingExternally_ = false;
};

// Drops the object's cached values from the store's cache and refreshes it in `context`,
// merging the context's own changes, with isMergingExternally() set meanwhile (for contexts of
// the class above). On the context's queue.
void corvaneRefreshObject(ManagedObjectContext& context, ManagedObject* object, CorvaneStore& store);

}  // namespace corvane
