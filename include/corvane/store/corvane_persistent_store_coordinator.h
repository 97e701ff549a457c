// CorvanePersistentStoreCoordinator — a coordinator that resolves object-ID URIs to the objects
// of its first store by entity name and UID, so that URIs a host kept (in preferences, on a
// pasteboard) still find their objects after the document was opened again, whatever store
// identity or "p"/"t" prefix the URI carries.
//
// Threads: as PersistentStoreCoordinator.
#pragma once

#include <memory>
#include <string>

#include "corvane/graph/persistent_store_coordinator.h"

namespace corvane {

class CorvanePersistentStoreCoordinator : public PersistentStoreCoordinator {
 public:
  using PersistentStoreCoordinator::PersistentStoreCoordinator;

  // The entity is the URI path's second-to-last component, the reference its last one less a
  // leading "p" and then a leading "t" (either case). Falls back to the base resolution.
  ObjectID managedObjectIDForURIRepresentation(const std::string& uri) const override;
};

}  // namespace corvane
