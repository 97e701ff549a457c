#include "corvane/store/collection_merge.h"

#include "corvane/foundation/error.h"
#include "store/store_state.h"

namespace corvane {
namespace {

bool isArrayOrSet(const Value& v) { return v.isArray() || v.isSet(); }

[[noreturn]] void throwTypeMismatch(const Value& receiver, const Value& other) {
  throw Exception("MergeException", "Attempted to merge objects of different types: " + receiver.description() +
                                        "\n,\n " + other.description());
}

// Mutations go through a handle copy: it shares the receiver's node, so the receiver itself
// changes, as a mutable container does for every holder.
void appendMembers(const Value& receiver, const Value& other, bool allowDuplicateEntries) {
  Value target = receiver;
  // Copy the member list first: `other` may be `receiver` itself.
  std::vector<Value> members = other.elements();
  for (const Value& member : members) {
    if (target.isSet() || allowDuplicateEntries || !target.contains(member)) {
      target.append(member);  // a set ignores a member it holds already
    }
  }
}

}  // namespace

bool canMergeWithObj(const Value& receiver, const Value& other) {
  if (receiver.isDictionary()) return other.isDictionary();
  if (receiver.isSet() || receiver.isArray()) return isArrayOrSet(other);
  return false;
}

bool isMutableObj(const Value& receiver) {
  return (receiver.isDictionary() || receiver.isArray() || receiver.isSet()) && receiver.isMutable();
}

void mergeWithDictionary(const Value& receiver, const Value& other) {
  Value target = receiver;
  std::vector<std::pair<Value, Value>> entries = other.entries();
  for (const auto& [key, theirs] : entries) {
    Value ours = target.get(key);
    if (ours.isNil()) {
      target.set(key, theirs);
      continue;
    }
    Value merged;
    if (Merge::mergeObj(ours, theirs, &merged)) target.set(key, merged);
  }
}

void mergeWithArray(const Value& receiver, const Value& other, bool allowDuplicateEntries) {
  appendMembers(receiver, other, allowDuplicateEntries);
}

void mergeWithSet(const Value& receiver, const Value& other, bool allowDuplicateEntries) {
  appendMembers(receiver, other, allowDuplicateEntries);
}

void mergeWithObj(const Value& receiver, const Value& other) {
  if (receiver.isDictionary()) {
    if (!other.isDictionary()) throwTypeMismatch(receiver, other);
    mergeWithDictionary(receiver, other);
  } else if (receiver.isSet() || receiver.isArray()) {
    if (!isArrayOrSet(other)) throwTypeMismatch(receiver, other);
    appendMembers(receiver, other, false);
  } else {
    throwTypeMismatch(receiver, other);
  }
}

bool Merge::mergeObj(const Value& a, const Value& b, Value* result) {
  try {
    Value target;
    Value source;
    if (canMergeWithObj(a, b) && isMutableObj(a)) {
      target = a;
      source = b;
    } else if (canMergeWithObj(b, a) && isMutableObj(b)) {
      target = b;
      source = a;
    } else {
      if (a.canMutableCopy()) {
        Value copyOfA = a.mutableCopy();
        if (canMergeWithObj(copyOfA, b)) {
          target = copyOfA;
          source = b;
        }
      }
      if (target.isNil() && b.canMutableCopy()) {
        Value copyOfB = b.mutableCopy();
        if (canMergeWithObj(copyOfB, a)) {
          target = copyOfB;
          source = a;
        }
      }
      if (target.isNil()) return false;
    }
    mergeWithObj(target, source);
    *result = target;
    return true;
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace corvane
