// Deep merge of nested dictionaries, arrays and sets.
//
// An update pass gathers the records of many change files into nested dictionaries
// (entity name -> UID -> record) and combines them with these operations. Mutable
// dictionaries merge key by key, mutable sets and arrays take the other collection's members,
// and Merge::mergeObj decides which of two values is merged into which. When two values cannot
// be merged (two strings, a dictionary and a number, ...) the value already present wins:
// that is what lets the first change of a pass that mentions an object keep its record.
//
// Threads: no shared state; the values passed in must not be mutated by another thread.
#pragma once

#include "corvane/foundation/value.h"

namespace corvane {

class Merge {
 public:
  // Merges `a` and `b`. The target is, in this order: `a` if it is mutable and accepts `b`;
  // `b` if it is mutable and accepts `a`; a mutable copy of `a` that accepts `b`; a mutable
  // copy of `b` that accepts `a`. The other value is merged into the target, which is stored
  // in *result (a mutable target taken as it is is changed in place). Answers false, leaving
  // *result alone, when no target exists; exceptions raised on the way count as a refusal.
  static bool mergeObj(const Value& a, const Value& b, Value* result);
};

// Whether `receiver`, as a mergeable kind, accepts `other`: a dictionary accepts dictionaries,
// a set or an array accepts sets and arrays. Other kinds accept nothing.
bool canMergeWithObj(const Value& receiver, const Value& other);

// Whether the instance really accepts changes (a mutable dictionary, array or set).
bool isMutableObj(const Value& receiver);

// Merges `other` into the mutable `receiver` according to their kinds. A set or array (or
// dictionary) given a value of a kind it does not accept throws Exception("MergeException").
void mergeWithObj(const Value& receiver, const Value& other);

// For each key of `other`: take its value when `receiver` has none, otherwise merge the two
// values (receiver's first) and store the result; when they cannot merge, keep the receiver's.
void mergeWithDictionary(const Value& receiver, const Value& other);

// Appends each member of `other` in its order, skipping members already contained unless
// duplicates are allowed. On a set, duplicates are never added.
void mergeWithArray(const Value& receiver, const Value& other, bool allowDuplicateEntries = false);
void mergeWithSet(const Value& receiver, const Value& other, bool allowDuplicateEntries = false);

}  // namespace corvane
