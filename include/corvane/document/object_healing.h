// Healing of managed objects that the object model forbids.
//
// Objects assembled from the change files of several devices can reach states that no single
// device made: a to-one pointing at an object whose inverse no longer points back, a to-many
// still holding an object that another device deleted. Validation then fails the whole save.
// These functions repair such objects in place instead. The library never calls them itself;
// a host decides when (for instance on every inserted or updated object before a save):
//
//   for (auto& o : context->updatedObjects()) {
//     cvFixRelations(*o);
//     if (!cvValidateForUpdateAndFix(*o)) { ... still invalid ... }
//   }
//
// Repairs read and write stored values only (primitiveValue / setPrimitiveValue), bracketed by
// the object's access and change hooks, so that no custom setter runs and no inverse is
// touched behind the repair's back; the context still records each repair as a change (and an
// undo step). What is repaired is written to the console log (logLine).
//
// Threads: like every use of a managed object, only on the object's context's queue.
#pragma once

#include "corvane/foundation/error.h"
#include "corvane/graph/managed_object.h"

namespace corvane {

class RelationshipDescription;

// Runs the object's insert validation. When it fails, logs "Trying to heal inserted Object" and
// answers whether the failure could be repaired
// (cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError with the validation error).
// True when validation passed.
bool cvValidateForInsertAndFix(ManagedObject& object);

// The same with update validation; the log line is "Trying to heal updated Object".
bool cvValidateForUpdateAndFix(ManagedObject& object);

// Repairs the relationship that a validation error names, and answers true when it did. Only a
// kCocoaErrorDomain error with code kManagedObjectValidationError (1550) whose user info names
// a managed object (kValidationObjectErrorKey) and one of its relationships
// (kValidationKeyErrorKey) is handled; anything else, "Multiple validation errors" (1560)
// included, answers false. The repaired object is the error's, not `object`: a to-one is set to
// nil (keeping its inverse in step); a to-many keeps only the members that are not deleted and
// still belong to a context.
bool cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(ManagedObject& object, const Error& error);

// Repairs every unordered relationship of the object against its inverse. A to-many drops the
// members whose inverse does not point back (logging "Dead Relation in <entity>-><relationship>"
// for each) and is rewritten only when something was dropped. A to-one whose target does not
// point back is cleared (and logged) when the inverse is to-many; when the inverse is to-one, the
// target is pointed back at the object instead: the object's side wins for one-to-one pairs, the
// collection's side for many-to-one pairs. Ordered to-many relationships are left alone.
void cvFixRelations(ManagedObject& object);

// Whether `object`'s `relationship` (the inverse being checked) holds `target`: contains it for a
// to-many, equals it for a to-one. Ordered to-many relationships always answer true (they are
// not checked); a relationship that `object`'s entity does not have answers false.
bool cvCheckRelation(const ManagedObject& object, const RelationshipDescription& relationship,
                     const ManagedObject& target);

}  // namespace corvane
