// corvane::ManagedObject — one object of the graph, owned by a ManagedObjectContext.
//
// An object has an entity, an ObjectID and a value for each property of the entity. Read and
// write values by key:
//
//   auto note = context->insertNewObject("Note");
//   note->setValue("title", "Groceries");
//   note->setToOne("folder", inbox.get());       // inbox->toMany("notes") now holds note
//   note->addToMany("tags", urgent.get());
//   std::string title = note->stringValue("title");
//
// Relationship values are managed objects: value("folder") is an object value (or nil),
// value("tags") a set (an ordered set for ordered relationships) of object values. Setting
// one side of a relationship keeps the inverse side in step. Every change is recorded by the
// context (inserted / updated / deleted state, changed and committed values, undo) and
// reaches the store when the context saves.
//
// An object fetched from a store starts as a fault: its values are read from the store the
// first time any of them is needed. Faults are invisible to the caller except for isFault().
//
// Unknown keys throw Exception("NSUnknownKeyException"); a value of the wrong kind for a
// relationship throws Exception("NSInvalidArgumentException"). Attribute values are checked
// when the context saves (validation errors, see below).
//
// Lifetime: hold objects through Retained<ManagedObject> (what the context hands out). The
// context keeps its registered objects alive while they have changes, or always when it
// retains registered objects; an object whose context was reset or destroyed, or whose
// deletion was saved, has no context any more and answers nil for every value.
//
// Subclasses (see ManagedObject::registerClass) override the validation and life-cycle hooks.
//
// Threads: an object may only be used on its context's queue (inside perform /
// performAndWait, or on the main thread for a main-queue context).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"
#include "corvane/graph/object_id.h"

namespace corvane {

class EntityDescription;
class PropertyDescription;
class RelationshipDescription;
class ManagedObjectContext;
namespace graph_internal {
class ObjectSet;
}

// An owning pointer to a reference-counted corvane::Object (managed objects above all).
template <class T>
class Retained {
 public:
  Retained() = default;
  Retained(std::nullptr_t) {}  // NOLINT(google-explicit-constructor)
  Retained(T* p) : p_(p) {     // NOLINT(google-explicit-constructor)
    if (p_ != nullptr) p_->retain();
  }
  Retained(const Retained& o) : Retained(o.p_) {}
  Retained(Retained&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Retained(const Retained<U>& o) : Retained(o.get()) {}  // NOLINT(google-explicit-constructor)
  Retained& operator=(Retained o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~Retained() {
    if (p_ != nullptr) p_->release();
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  friend bool operator==(const Retained& a, const Retained& b) { return a.p_ == b.p_; }
  friend bool operator==(const Retained& a, const T* b) { return a.p_ == b; }

 private:
  T* p_ = nullptr;
};

// Validation error codes (domain kCocoaErrorDomain). The user info holds
// "NSValidationErrorObject" (the object), "NSValidationErrorKey" (the property) and
// "NSValidationErrorValue" (the offending value) where they apply.
inline constexpr int64_t kManagedObjectValidationError = 1550;
inline constexpr int64_t kValidationMultipleErrorsError = 1560;  // "NSDetailedErrors": array of error dictionaries
inline constexpr int64_t kValidationMissingMandatoryPropertyError = 1570;
inline constexpr int64_t kValidationRelationshipLacksMinimumCountError = 1580;
inline constexpr int64_t kValidationRelationshipExceedsMaximumCountError = 1590;
inline constexpr int64_t kValidationRelationshipDeniedDeleteError = 1600;
inline constexpr const char* kValidationObjectErrorKey = "NSValidationErrorObject";
inline constexpr const char* kValidationKeyErrorKey = "NSValidationErrorKey";
inline constexpr const char* kValidationValueErrorKey = "NSValidationErrorValue";
inline constexpr const char* kDetailedErrorsKey = "NSDetailedErrors";

class ManagedObject : public Object {
 public:
  // Made by a context (insertNewObject, objectWithID, fetches); a factory registered with
  // registerClass calls this from its subclass constructor.
  ManagedObject(const EntityDescription* entity, ManagedObjectContext* context);
  ~ManagedObject() override;

  using Factory = std::function<ManagedObject*(const EntityDescription* entity, ManagedObjectContext* context)>;
  // Makes objects of `entityName` (and of its sub-entities without a class of their own)
  // with `factory`. Register before contexts make such objects; any thread.
  static void registerClass(const std::string& entityName, Factory factory);

  const EntityDescription& entity() const { return *entity_; }
  // A new object's temporary ID is made the first time it is asked for (on the object's
  // queue, like every other use of the object); saving gives it its permanent ID.
  const ObjectID& objectID() const {
    if (id_.isNull()) assignTemporaryID();
    return id_;
  }
  ManagedObjectContext* managedObjectContext() const { return context_; }

  bool isInserted() const { return inserted_ && !deleted_; }
  bool isUpdated() const { return updated_; }
  bool isDeleted() const { return deleted_; }
  bool isFault() const { return fault_; }
  // Inserted, deleted, or with property values that differ from the committed ones.
  bool hasChanges() const;
  bool hasPersistentChangedValues() const;

  // ---- Values by key ------------------------------------------------------------------------
  Value value(std::string_view key) const;
  void setValue(std::string_view key, const Value& value);
  Value valueForKey(std::string_view key) const override { return value(key); }
  void setValueForKey(std::string_view key, const Value& v) override { setValue(key, v); }

  // Typed reads; a nil value gives "", 0, 0.0, 0 (seconds since 2001) or false.
  std::string stringValue(std::string_view key) const;
  int64_t int64Value(std::string_view key) const;
  double doubleValue(std::string_view key) const;
  double dateValue(std::string_view key) const;
  bool boolValue(std::string_view key) const;
  bool isNil(std::string_view key) const;
  // A date given as seconds since 2001-01-01 00:00:00 UTC.
  void setDate(std::string_view key, double secondsSince2001) { setValue(key, Value::date(secondsSince2001)); }

  // ---- Relationships ------------------------------------------------------------------------
  Retained<ManagedObject> toOne(std::string_view key) const;
  void setToOne(std::string_view key, ManagedObject* target);
  // Members in order for an ordered relationship, in set order otherwise.
  std::vector<Retained<ManagedObject>> toMany(std::string_view key) const;
  void setToMany(std::string_view key, const std::vector<Retained<ManagedObject>>& members);
  void addToMany(std::string_view key, ManagedObject* member);
  void removeFromMany(std::string_view key, ManagedObject* member);
  // Ordered relationships: inserts (or moves) `member` to `index` (clamped to the count).
  void insertIntoOrdered(std::string_view key, ManagedObject* member, size_t index);

  // ---- Primitive access ----------------------------------------------------------------------
  // Reads and writes the stored value without the access/change hooks and without keeping
  // inverse relationships in step. Writes are still recorded (changed values, undo).
  Value primitiveValue(std::string_view key) const;
  void setPrimitiveValue(std::string_view key, const Value& value);
  // The stored value of the property at `index` in entity().properties(), for stores that
  // walk all properties: to-one relationships are object values, to-many ones the
  // relationship's own (possibly mutable) set. Read it at once; do not keep or change it.
  const Value& primitiveValueAt(size_t index) const { return slot(static_cast<int>(index)); }
  // Hooks around every access and change made through value()/setValue() and the helpers.
  // The base versions do nothing; the framework fires faults and records changes itself.
  virtual void willAccessValueForKey(std::string_view key) const;
  virtual void didAccessValueForKey(std::string_view key) const;
  virtual void willChangeValueForKey(std::string_view key);
  virtual void didChangeValueForKey(std::string_view key);

  // ---- Changes ------------------------------------------------------------------------------
  // Property name → current value, for the properties changed since the object was fetched or
  // last saved (for an inserted object, every property with a value). A value changed to nil
  // shows as Value::null().
  Value changedValues() const;
  // Property name → value as last fetched or saved, for `keys` (all properties when empty).
  // Empty for inserted objects.
  Value committedValues(const std::vector<std::string>& keys = {}) const;
  // The version of the store's node the committed values came from (0 when never read).
  uint64_t version() const { return version_; }

  // ---- Validation (called by save; override to add rules, call the base first) -------------
  virtual bool validateValue(std::string_view key, Value* value, Error* error) const;
  virtual bool validateForInsert(Error* error) const;
  virtual bool validateForUpdate(Error* error) const;
  virtual bool validateForDelete(Error* error) const;

  // ---- Life cycle hooks ---------------------------------------------------------------------
  virtual void awakeFromInsert() {}
  virtual void awakeFromFetch() {}
  virtual void willSave() {}
  virtual void didSave() {}
  virtual void prepareForDeletion() {}
  virtual void willTurnIntoFault() {}
  virtual void didTurnIntoFault() {}

  std::string className() const override { return "NSManagedObject"; }
  std::string description() const override;

 private:
  friend class ManagedObjectContext;
  friend class graph_internal::ObjectSet;
  friend struct ObjectAccess;

  void assignTemporaryID() const;
  int indexForKey(std::string_view key) const;  // throws for an unknown key
  const PropertyDescription& propertyAt(int index) const;
  void fireFault() const;
  const Value& slot(int index) const;  // fires faults, loads to-many relationships
  // The one place where a stored value changes: records the change with the context
  // (updated state, undo) and keeps the committed snapshot intact.
  void changeSlot(int index, const Value& newValue);
  void addMember(int index, const Value& member, size_t position = SIZE_MAX);
  void removeMember(int index, const Value& member);
  void setRelationship(int index, const Value& newValue);
  void setToOneWithInverse(int index, ManagedObject* target);
  void addWithInverse(int index, ManagedObject* member, size_t position);
  void removeWithInverse(int index, ManagedObject* member);
  void detachInverse(const RelationshipDescription& r, ManagedObject* other);
  void attachInverse(const RelationshipDescription& r, ManagedObject* other);
  bool validateCommon(Error* error) const;
  // The committed snapshot. "Clean" means it equals the current values, which is the usual
  // case after a read or a save and costs no copy; the first change takes the copy.
  bool hasSnapshot() const { return !inserted_ && (clean_ || !committed_.empty()); }
  const Value& committedAt(size_t i) const { return clean_ ? slots_[i] : committed_[i]; }
  void markClean() {
    committed_.clear();
    clean_ = true;
  }
  void detachSnapshot() {
    if (clean_) {
      committed_ = slots_;
      clean_ = false;
    }
  }
  Error validationError(int64_t code, const std::string& key, const Value& value, const std::string& text) const;

  const EntityDescription* entity_;
  ManagedObjectContext* context_;
  mutable ObjectID id_;               // null for a new object until someone asks for it
  mutable std::vector<Value> slots_;  // one per property; empty while a fault
  std::vector<Value> committed_;      // snapshot as last read or saved, unless clean_
  uint64_t version_ = 0;
  mutable bool clean_ = false;
  mutable bool fault_ = false;
  bool inserted_ = false;
  bool updated_ = false;
  bool deleted_ = false;
  bool propagated_ = false;  // delete rules applied for the current deletion
  uint32_t incoming_ = 0;    // scratch for letting go of unreferenced objects
  bool marked_ = false;
  uint8_t memberships_ = 0;     // the context's sets holding the object, one bit each
  mutable uint8_t listed_ = 0;  // scratch bits for listing a set without repeats
};

}  // namespace corvane
