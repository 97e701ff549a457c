// Everything an application needs to program against the object graph:
//
//   ObjectModel                 which entities exist (object_model.h), built in code or loaded
//                               from a JSON model file
//   PersistentStoreCoordinator  joins a model to its stores (persistent_store_coordinator.h)
//   ManagedObjectContext        where objects are inserted, fetched, changed, deleted, saved
//                               and undone (managed_object_context.h)
//   ManagedObject, ObjectID     one object and its identity (managed_object.h, object_id.h)
//   FetchRequest, Predicate,    what to fetch and in which order (fetch_request.h,
//   SortDescriptor              predicate.h, sort_descriptor.h)
//   UndoManager                 undo and redo (undo_manager.h)
//
// Stores implement IncrementalStore (persistent_store.h); InMemoryStore (in_memory_store.h)
// is the one that keeps everything in memory. examples/notes.cpp shows them working together.
#pragma once

#include "corvane/graph/corvane_undo_manager.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/in_memory_store.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_id.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/predicate.h"
#include "corvane/graph/sort_descriptor.h"
#include "corvane/graph/undo_manager.h"
