#include "corvane/document/object_healing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "corvane/foundation/log.h"
#include "corvane/graph/in_memory_store.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"

namespace corvane {
namespace {

// Books on shelves with "no action" delete rules, so that a delete leaves the other side
// pointing at the deleted object, as a delete merged in from another device can; people with
// a badge (one-to-one).
const char* kModelJSON = R"({"entities": [
  {"name": "Shelf", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [
    {"name": "books", "destination": "Book", "inverse": "shelf", "toMany": true, "deleteRule": "noAction"},
    {"name": "queue", "destination": "Book", "inverse": "queuedOn", "toMany": true, "ordered": true,
     "deleteRule": "noAction"}]},
  {"name": "Book", "attributes": [{"name": "title", "type": "string", "optional": false, "default": "Untitled"}],
   "relationships": [
    {"name": "shelf", "destination": "Shelf", "inverse": "books", "deleteRule": "noAction"},
    {"name": "queuedOn", "destination": "Shelf", "inverse": "queue", "deleteRule": "noAction"}]},
  {"name": "Person", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "badge", "destination": "Badge", "inverse": "holder"}]},
  {"name": "Badge", "attributes": [{"name": "code", "type": "string"}],
   "relationships": [{"name": "holder", "destination": "Person", "inverse": "badge"}]}
]})";

// Counts the change announcements a shelf receives, so that a rewrite nobody needed shows.
class Shelf : public ManagedObject {
 public:
  using ManagedObject::ManagedObject;
  void willChangeValueForKey(std::string_view key) override {
    changes.emplace_back(key);
    ManagedObject::willChangeValueForKey(key);
  }
  std::vector<std::string> changes;
};

struct Library {
  std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(kModelJSON);
  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  std::shared_ptr<ManagedObjectContext> context;

  Library() {
    ManagedObject::registerClass("Shelf",
                                 [](const EntityDescription* e, ManagedObjectContext* c) { return new Shelf(e, c); });
    coordinator = std::make_shared<PersistentStoreCoordinator>(model);
    Error error;
    EXPECT_NE(coordinator->addPersistentStore(kInMemoryStoreType, "", "", Value(), &error), nullptr)
        << error.localizedDescription;
    context = ManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
  }
  ~Library() { ManagedObject::registerClass("Shelf", nullptr); }

  Retained<Shelf> shelf() { return Retained<Shelf>(static_cast<Shelf*>(context->insertNewObject("Shelf").get())); }
  Retained<ManagedObject> book(const std::string& title, ManagedObject* shelf = nullptr) {
    auto b = context->insertNewObject("Book");
    b->setValue("title", title);
    if (shelf != nullptr) b->setToOne("shelf", shelf);
    return b;
  }
  void save() {
    Error error;
    ASSERT_TRUE(context->save(&error)) << error.localizedDescription;
  }
};

std::vector<std::string> titles(const std::vector<Retained<ManagedObject>>& books, bool sorted = true) {
  std::vector<std::string> out;
  for (const auto& b : books) out.push_back(b->stringValue("title"));
  if (sorted) std::sort(out.begin(), out.end());
  return out;
}

Value setOf(std::initializer_list<ManagedObject*> objects) {
  std::vector<Value> members;
  for (auto* o : objects) members.push_back(Value::object(o));
  return Value::set(std::move(members));
}

Error validationError(int64_t code, ManagedObject* object, const char* key, const char* domain = kCocoaErrorDomain) {
  Value info = Value::mutableDictionary();
  if (object != nullptr) info.set(Value(kValidationObjectErrorKey), Value::object(object));
  if (key != nullptr) info.set(Value(kValidationKeyErrorKey), Value(key));
  return Error(domain, code, "invalid", {}, info.copy());
}

size_t count(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

TEST(ObjectHealing, RecoveryHandlesOnlyValidationErrorsNamingARelationship) {
  Library lib;
  auto shelf = lib.shelf();
  auto book = lib.book("a", shelf.get());
  lib.save();

  ManagedObject* b = book.get();
  for (const Error& e : {validationError(kManagedObjectValidationError, b, "shelf", kPOSIXErrorDomain),
                         validationError(kValidationMissingMandatoryPropertyError, b, "shelf"),
                         validationError(kValidationMultipleErrorsError, b, "shelf"),
                         validationError(kManagedObjectValidationError, b, nullptr),
                         validationError(kManagedObjectValidationError, b, "title"),
                         validationError(kManagedObjectValidationError, b, "nope"),
                         validationError(kManagedObjectValidationError, nullptr, "shelf")}) {
    EXPECT_FALSE(cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(*b, e)) << e.code << " " << e.domain;
  }
  EXPECT_EQ(book->toOne("shelf"), shelf.get());
  EXPECT_FALSE(book->hasChanges());

  // The object repaired is the error's, and a to-one is cleared with its inverse in step.
  auto other = lib.book("other");
  EXPECT_TRUE(cvAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(
      *other, validationError(kManagedObjectValidationError, b, "shelf")));
  EXPECT_FALSE(book->toOne("shelf"));
  EXPECT_TRUE(shelf->toMany("books").empty());

  // Two failures come as "Multiple validation errors", which is left to the caller.
  auto gone = lib.shelf();
  book->setToOne("shelf", gone.get());
  lib.save();
  lib.context->deleteObject(gone.get());
  lib.context->processPendingChanges();  // noAction: the book keeps pointing at the shelf
  book->setValue("title", Value());
  LogCapture log;
  EXPECT_FALSE(cvValidateForUpdateAndFix(*book));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Trying to heal updated Object"});
  EXPECT_EQ(book->toOne("shelf"), gone.get());
}

TEST(ObjectHealing, ValidateAndFixDropsDeletedObjects) {
  Library lib;
  auto shelf = lib.shelf();
  auto a = lib.book("a", shelf.get()), b = lib.book("b", shelf.get()), c = lib.book("c", shelf.get());
  auto queued = lib.shelf();
  auto d = lib.book("d");
  for (auto* o : {d.get(), b.get(), a.get(), c.get()}) queued->addToMany("queue", o);
  lib.save();

  // c's deletion is saved (c leaves its context), b's is pending; both stay on the shelves.
  lib.context->deleteObject(c.get());
  lib.save();
  ASSERT_EQ(c->managedObjectContext(), nullptr);
  lib.context->deleteObject(b.get());
  lib.context->processPendingChanges();
  ASSERT_EQ(shelf->toMany("books").size(), 3u);

  LogCapture log;
  EXPECT_TRUE(cvValidateForUpdateAndFix(*shelf));
  EXPECT_EQ(titles(shelf->toMany("books")), std::vector<std::string>{"a"});
  EXPECT_TRUE(cvValidateForUpdateAndFix(*queued));
  EXPECT_EQ(titles(queued->toMany("queue"), false), (std::vector<std::string>{"d", "a"}));  // order kept
  EXPECT_EQ(count(log.lines(), "Trying to heal updated Object"), 2u);

  // An inserted book still pointing at a shelf deleted meanwhile.
  auto doomed = lib.shelf();
  auto fresh = lib.book("fresh", doomed.get());
  lib.context->deleteObject(doomed.get());
  lib.context->processPendingChanges();
  EXPECT_TRUE(cvValidateForInsertAndFix(*fresh));
  EXPECT_FALSE(fresh->toOne("shelf"));
  EXPECT_EQ(count(log.lines(), "Trying to heal inserted Object"), 1u);

  // Healed objects validate and save; valid ones pass without a word.
  log.clear();
  EXPECT_TRUE(cvValidateForInsertAndFix(*lib.book("fine", shelf.get())));
  EXPECT_TRUE(cvValidateForUpdateAndFix(*a));
  EXPECT_TRUE(log.lines().empty());
  lib.save();
}

TEST(ObjectHealing, FixRelationsDropsToManyMembersThatDoNotPointBack) {
  Library lib;
  auto mine = lib.shelf(), theirs = lib.shelf();
  auto a = lib.book("a", mine.get()), b = lib.book("b", theirs.get());
  lib.save();
  mine->setPrimitiveValue("books", setOf({a.get(), b.get()}));  // b still says it is on theirs
  mine->changes.clear();

  LogCapture log;
  cvFixRelations(*mine);
  EXPECT_EQ(titles(mine->toMany("books")), std::vector<std::string>{"a"});
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Dead Relation in Shelf->books"});
  EXPECT_EQ(mine->changes, std::vector<std::string>{"books"});
  EXPECT_EQ(b->toOne("shelf"), theirs.get());
  EXPECT_EQ(titles(theirs->toMany("books")), std::vector<std::string>{"b"});

  // An intact relationship is not rewritten: no change announced, nothing to save.
  lib.save();
  log.clear();
  theirs->changes.clear();
  cvFixRelations(*theirs);
  EXPECT_TRUE(theirs->changes.empty());
  EXPECT_FALSE(theirs->hasChanges());
  EXPECT_TRUE(log.lines().empty());

  // Ordered relationships are not checked: a member whose inverse is empty stays.
  mine->setPrimitiveValue("queue", Value::orderedSet({Value::object(a.get())}));
  ASSERT_FALSE(a->toOne("queuedOn"));
  cvFixRelations(*mine);
  EXPECT_EQ(mine->toMany("queue").size(), 1u);
  EXPECT_TRUE(cvCheckRelation(*mine, *mine->entity().relationship("queue"), *b));
  EXPECT_TRUE(log.lines().empty());
}

TEST(ObjectHealing, FixRelationsMendsToOneBySideOfThePair) {
  Library lib;
  // Many-to-one: the collection wins, so a book its shelf does not list loses the shelf.
  auto shelf = lib.shelf();
  auto book = lib.book("a");
  lib.save();
  book->setPrimitiveValue("shelf", Value::object(shelf.get()));
  LogCapture log;
  cvFixRelations(*book);
  EXPECT_FALSE(book->toOne("shelf"));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Dead Relation in Book->shelf"});

  // One-to-one: the receiver wins, so the badge is pointed back at ann, not ann's badge cleared.
  auto ann = lib.context->insertNewObject("Person"), bob = lib.context->insertNewObject("Person");
  auto badge = lib.context->insertNewObject("Badge");
  ann->setToOne("badge", badge.get());
  lib.save();
  badge->setPrimitiveValue("holder", Value::object(bob.get()));
  log.clear();
  cvFixRelations(*ann);
  EXPECT_EQ(ann->toOne("badge"), badge.get());
  EXPECT_EQ(badge->toOne("holder"), ann.get());
  EXPECT_TRUE(log.lines().empty());
  lib.save();

  // A pair in step is left alone.
  cvFixRelations(*ann);
  cvFixRelations(*badge);
  EXPECT_FALSE(ann->hasChanges());
  EXPECT_FALSE(badge->hasChanges());
}

}  // namespace
}  // namespace corvane
