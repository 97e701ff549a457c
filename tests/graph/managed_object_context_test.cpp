#include "corvane/graph/managed_object_context.h"

#include <gtest/gtest.h>

#include <functional>

#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/graph/undo_manager.h"
#include "graph_fixture.h"

namespace corvane {
namespace {

using testing::Stack;
using testing::titles;

Retained<ManagedObject> note(ManagedObjectContext& c, const std::string& title, int priority = 0) {
  auto n = c.insertNewObject("Note");
  n->setValue("title", title);
  n->setValue("priority", priority);
  return n;
}

std::vector<std::string> names(const std::vector<Retained<ManagedObject>>& objects, const char* key = "name") {
  std::vector<std::string> out;
  for (const auto& o : objects) out.push_back(o->stringValue(key));
  std::sort(out.begin(), out.end());
  return out;
}

TEST(ManagedObjectContext, InsertedObjectsHaveDefaultsAndTypedValues) {
  Stack s;
  auto n = s.context->insertNewObject("Note");
  EXPECT_TRUE(n->isInserted());
  EXPECT_TRUE(n->objectID().isTemporaryID());
  EXPECT_EQ(n->stringValue("title"), "Untitled");
  EXPECT_EQ(n->int64Value("priority"), 0);
  EXPECT_FALSE(n->boolValue("done"));
  EXPECT_TRUE(n->isNil("body"));
  EXPECT_TRUE(n->toMany("tags").empty());
  EXPECT_FALSE(n->toOne("folder"));

  n->setValue("title", "Groceries");
  n->setValue("priority", 2);
  n->setValue("done", true);
  n->setDate("created", 86400);
  EXPECT_EQ(n->stringValue("title"), "Groceries");
  EXPECT_EQ(n->int64Value("priority"), 2);
  EXPECT_EQ(n->doubleValue("priority"), 2.0);
  EXPECT_TRUE(n->boolValue("done"));
  EXPECT_EQ(n->dateValue("created"), 86400);
  EXPECT_EQ(n->value("title"), Value("Groceries"));
  n->setValue("body", Value::null());  // null clears like nil
  EXPECT_TRUE(n->value("body").isNil());

  // A mutable value passed in is copied: editing it later changes nothing.
  Value text = Value::mutableString("draft");
  n->setValue("body", text);
  text.appendString(" 2");
  EXPECT_EQ(n->stringValue("body"), "draft");

  EXPECT_THROW(n->value("nope"), Exception);
  EXPECT_THROW(n->setValue("nope", 1), Exception);
  EXPECT_THROW(s.context->insertNewObject("Item"), Exception);  // abstract
  EXPECT_THROW(s.context->insertNewObject("Nope"), Exception);
  EXPECT_EQ(&s.context->insertNewObject("Checklist")->entity(), testing::testModel()->entity("Checklist"));
}

TEST(ManagedObjectContext, InverseRelationshipsStayInStep) {
  Stack s;
  auto& c = *s.context;
  auto inbox = c.insertNewObject("Folder");
  auto archive = c.insertNewObject("Folder");
  auto a = note(c, "a"), b = note(c, "b");

  // To-one side sets the to-many side, and moving takes the object out of its old folder.
  a->setToOne("folder", inbox.get());
  EXPECT_EQ(inbox->toMany("notes").size(), 1u);
  inbox->addToMany("notes", b.get());
  EXPECT_EQ(b->toOne("folder"), inbox);
  a->setToOne("folder", archive.get());
  EXPECT_EQ(titles(inbox->toMany("notes")), "b");
  EXPECT_EQ(titles(archive->toMany("notes")), "a");
  archive->removeFromMany("notes", a.get());
  EXPECT_FALSE(a->toOne("folder"));
  inbox->setToMany("notes", {a});
  EXPECT_EQ(titles(inbox->toMany("notes")), "a");
  EXPECT_FALSE(b->toOne("folder"));
  EXPECT_EQ(a->toOne("folder"), inbox);

  // Many-to-many.
  auto home = c.insertNewObject("Tag"), work = c.insertNewObject("Tag");
  home->setValue("name", "home");
  work->setValue("name", "work");
  a->addToMany("tags", home.get());
  a->addToMany("tags", work.get());
  b->setValue("tags", Value::set({Value::object(home.get())}));
  EXPECT_EQ(names(home->toMany("notes"), "title"), (std::vector<std::string>{"a", "b"}));
  a->removeFromMany("tags", home.get());
  EXPECT_EQ(titles(home->toMany("notes")), "b");
  EXPECT_EQ(names(a->toMany("tags")), (std::vector<std::string>{"work"}));

  // One-to-one: taking a badge from its holder leaves the former holder without one.
  auto ann = c.insertNewObject("Person"), bob = c.insertNewObject("Person");
  auto badge = c.insertNewObject("Badge");
  ann->setToOne("badge", badge.get());
  bob->setToOne("badge", badge.get());
  EXPECT_FALSE(ann->toOne("badge"));
  EXPECT_EQ(badge->toOne("holder"), bob);
  badge->setToOne("holder", ann.get());
  EXPECT_FALSE(bob->toOne("badge"));
  EXPECT_EQ(ann->toOne("badge"), badge);

  // Ordered to-many keeps order; inserting an existing member moves it.
  auto x = c.insertNewObject("Attachment"), y = c.insertNewObject("Attachment"), z = c.insertNewObject("Attachment");
  x->setValue("name", "x");
  y->setValue("name", "y");
  z->setValue("name", "z");
  a->addToMany("attachments", x.get());
  a->addToMany("attachments", y.get());
  a->insertIntoOrdered("attachments", z.get(), 0);
  auto order = [&] {
    std::string out;
    for (const auto& m : a->toMany("attachments")) out += m->stringValue("name");
    return out;
  };
  EXPECT_EQ(order(), "zxy");
  a->insertIntoOrdered("attachments", z.get(), 2);
  EXPECT_EQ(order(), "xyz");
  EXPECT_TRUE(a->value("attachments").isOrderedSet());
  y->setToOne("note", b.get());
  EXPECT_EQ(order(), "xz");

  // Wrong destination, foreign context and wrong kinds are refused.
  EXPECT_THROW(a->setToOne("folder", home.get()), Exception);
  Stack other;
  auto stranger = other.context->insertNewObject("Folder");
  EXPECT_THROW(a->setToOne("folder", stranger.get()), Exception);
  EXPECT_THROW(a->setValue("folder", "Inbox"), Exception);
  EXPECT_THROW(a->setValue("tags", Value::array({Value(1)})), Exception);
  EXPECT_THROW(a->toMany("folder"), Exception);
}

// Ann and Bob with a badge each, and note "a" in the inbox, saved: partners to re-point.
struct Partners {
  Retained<ManagedObject> ann, bob, badge, spare, inbox, archive, a;
};
Partners savedPartners(ManagedObjectContext& c) {
  Partners p{c.insertNewObject("Person"),
             c.insertNewObject("Person"),
             c.insertNewObject("Badge"),
             c.insertNewObject("Badge"),
             c.insertNewObject("Folder"),
             c.insertNewObject("Folder"),
             note(c, "a")};
  p.ann->setToOne("badge", p.badge.get());
  p.bob->setToOne("badge", p.spare.get());
  p.a->setToOne("folder", p.inbox.get());
  Error error;
  EXPECT_TRUE(c.save(&error)) << error.localizedDescription;
  return p;
}

// The old partner of a re-pointed relationship is changed too, and that change reaches the
// store like any other, even when the old partner was only a fault: otherwise another context
// reads both partners claiming the same object.
TEST(ManagedObjectContext, ReplacedPartnersAreClearedThroughTheStore) {
  Stack s;
  auto& c = *s.context;
  Error error;
  auto [ann, bob, badge, spare, inbox, archive, a] = savedPartners(c);
  std::vector<std::shared_ptr<ManagedObjectContext>> readers;  // an object answers nil once its context is gone
  auto reread = [&](const Retained<ManagedObject>& o) {
    readers.push_back(s.newContext());
    return readers.back()->objectWithID(o->objectID());
  };
  auto idOf = [](const Retained<ManagedObject>& o) { return o ? o->objectID() : ObjectID(); };

  // One-to-one, from the holder's side: Ann loses the badge and records that as a change.
  bob->setToOne("badge", badge.get());
  EXPECT_FALSE(ann->toOne("badge"));
  EXPECT_FALSE(spare->toOne("holder"));
  EXPECT_TRUE(ann->isUpdated());
  EXPECT_TRUE(ann->changedValues().contains(Value("badge")));
  EXPECT_TRUE(ann->changedValues()["badge"].isNull());
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  EXPECT_FALSE(reread(ann)->toOne("badge"));
  EXPECT_FALSE(reread(spare)->toOne("holder"));
  EXPECT_EQ(idOf(reread(badge)->toOne("holder")), bob->objectID());

  // One-to-one from the badge's side, in a context where every partner is still a fault.
  auto other = s.newContext();
  auto spare2 = other->objectWithID(spare->objectID());
  spare2->setToOne("holder", other->objectWithID(bob->objectID()).get());
  EXPECT_EQ(other->updatedObjects().size(), 3u);  // the spare badge, Bob and his former badge
  ASSERT_TRUE(other->save(&error)) << error.localizedDescription;
  EXPECT_FALSE(reread(badge)->toOne("holder"));
  EXPECT_EQ(idOf(reread(bob)->toOne("badge")), spare->objectID());

  // One-to-many from the to-one side and from the to-many side, old owners being faults.
  other = s.newContext();
  other->objectWithID(a->objectID())->setToOne("folder", other->objectWithID(archive->objectID()).get());
  ASSERT_TRUE(other->save(&error)) << error.localizedDescription;
  EXPECT_TRUE(reread(inbox)->toMany("notes").empty());
  EXPECT_EQ(titles(reread(archive)->toMany("notes")), "a");
  other = s.newContext();
  other->objectWithID(inbox->objectID())->addToMany("notes", other->objectWithID(a->objectID()).get());
  ASSERT_TRUE(other->save(&error)) << error.localizedDescription;
  EXPECT_TRUE(reread(archive)->toMany("notes").empty());
  EXPECT_EQ(idOf(reread(a)->toOne("folder")), inbox->objectID());
  // Taking an attribute's value away is a change that is saved too.
  other = s.newContext();
  other->objectWithID(inbox->objectID())->setValue("name", "Inbox");
  ASSERT_TRUE(other->save(&error)) << error.localizedDescription;
  other->objectWithID(inbox->objectID())->setValue("name", Value());
  ASSERT_TRUE(other->save(&error)) << error.localizedDescription;
  EXPECT_TRUE(reread(inbox)->isNil("name"));
}

// Undoing a re-pointing gives every partner its old value back, and the undone state saves.
TEST(ManagedObjectContext, UndoRestoresReplacedPartners) {
  Stack s;
  auto& c = *s.context;
  Error error;
  auto [ann, bob, badge, spare, inbox, archive, a] = savedPartners(c);
  c.undoManager()->removeAllActions();
  // Named copies: clang 14 cannot capture structured bindings in a lambda.
  auto bobRef = bob, badgeRef = badge, archiveRef = archive, aRef = a;

  auto undoable = [&](const std::function<void()>& change) {
    c.undoManager()->beginUndoGrouping();
    change();
    c.undoManager()->endUndoGrouping();
  };
  undoable([&] { bobRef->setToOne("badge", badgeRef.get()); });
  undoable([&] { archiveRef->addToMany("notes", aRef.get()); });
  EXPECT_FALSE(ann->toOne("badge"));
  EXPECT_FALSE(spare->toOne("holder"));
  EXPECT_TRUE(inbox->toMany("notes").empty());
  c.undo();
  c.undo();
  EXPECT_EQ(ann->toOne("badge"), badge);
  EXPECT_EQ(badge->toOne("holder"), ann);
  EXPECT_EQ(bob->toOne("badge"), spare);
  EXPECT_EQ(spare->toOne("holder"), bob);
  EXPECT_EQ(a->toOne("folder"), inbox);
  EXPECT_EQ(titles(inbox->toMany("notes")), "a");
  EXPECT_TRUE(archive->toMany("notes").empty());
  EXPECT_FALSE(c.hasChanges());

  c.redo();
  EXPECT_FALSE(ann->toOne("badge"));
  EXPECT_EQ(badge->toOne("holder"), bob);
  EXPECT_FALSE(spare->toOne("holder"));
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  auto other = s.newContext();
  EXPECT_FALSE(other->objectWithID(ann->objectID())->toOne("badge"));
  EXPECT_FALSE(other->objectWithID(spare->objectID())->toOne("holder"));
}

TEST(ManagedObjectContext, SavedObjectsComeBackAsFaultsInAnotherContext) {
  Stack s;
  auto& c = *s.context;
  Error error;
  auto inbox = c.insertNewObject("Folder");
  inbox->setValue("name", "Inbox");
  auto a = note(c, "a", 1);
  a->setToOne("folder", inbox.get());
  auto tag = c.insertNewObject("Tag");
  tag->setValue("name", "t");
  a->addToMany("tags", tag.get());
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  EXPECT_FALSE(a->objectID().isTemporaryID());
  EXPECT_FALSE(a->isInserted());
  EXPECT_FALSE(c.hasChanges());

  auto other = s.newContext();
  auto same = other->objectWithID(a->objectID());
  EXPECT_TRUE(same->isFault());
  EXPECT_EQ(same->stringValue("title"), "a");  // fills the fault
  EXPECT_FALSE(same->isFault());
  EXPECT_EQ(same->toOne("folder")->stringValue("name"), "Inbox");
  EXPECT_EQ(same->toOne("folder")->objectID(), inbox->objectID());
  EXPECT_EQ(titles(same->toOne("folder")->toMany("notes")), "a");
  EXPECT_EQ(names(same->toMany("tags")), (std::vector<std::string>{"t"}));
  EXPECT_EQ(same->version(), 1u);

  // Ordered relationships keep their order through the store.
  std::vector<Retained<ManagedObject>> files;
  for (const char* name : {"c", "a", "b"}) {
    files.push_back(c.insertNewObject("Attachment"));
    files.back()->setValue("name", name);
  }
  a->setToMany("attachments", files);
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  auto third = s.newContext();
  std::string order;
  for (const auto& f : third->objectWithID(a->objectID())->toMany("attachments")) order += f->stringValue("name");
  EXPECT_EQ(order, "cab");

  auto gone = other->existingObjectWithID(
      ObjectID::makePermanent(testing::testModel()->entity("Note"), Value(999), s.store), &error);
  EXPECT_FALSE(gone);
  EXPECT_EQ(error.code, 133000);
  EXPECT_EQ(other->existingObjectWithID(a->objectID())->stringValue("title"), "a");
}

TEST(ManagedObjectContext, FetchesFilterSortLimitAndAnswerEachResultType) {
  Stack s;
  auto& c = *s.context;
  auto inbox = c.insertNewObject("Folder");
  inbox->setValue("name", "Inbox");
  for (int i = 0; i < 10; ++i) {
    auto n = note(c, "n" + std::to_string(i), i % 4);
    if (i % 2 == 0) n->setToOne("folder", inbox.get());
  }
  auto check = c.insertNewObject("Checklist");
  check->setValue("title", "check");
  check->setValue("priority", 9);
  ASSERT_TRUE(c.save());

  auto fresh = s.newContext();
  FetchRequest request("Note");
  request.setPredicate(Predicate::parse("priority >= 2 AND title BEGINSWITH 'n'"));
  request.setSortDescriptors({SortDescriptor("priority", false), SortDescriptor("title")});
  auto found = fresh->fetch(request);
  ASSERT_TRUE(found);
  EXPECT_EQ(titles(*found), "n3,n7,n2,n6");
  request.setFetchLimit(3);
  EXPECT_EQ(titles(*fresh->fetch(request)), "n3,n7,n2");  // first three after sorting
  EXPECT_EQ(*fresh->count(request), 3u);
  request.setFetchLimit(0);

  auto ids = fresh->fetchObjectIDs(request);
  ASSERT_EQ(ids->size(), 4u);
  EXPECT_EQ(fresh->objectWithID((*ids)[0])->stringValue("title"), "n3");

  // Through relationships, sub-entities, everything.
  FetchRequest inFolder("Note");
  inFolder.setPredicate(Predicate::parse("folder.name == %@", {Value("Inbox")}));
  EXPECT_EQ(*fresh->count(inFolder), 5u);
  FetchRequest all("Item");
  EXPECT_EQ(*fresh->count(all), 11u);
  all.setIncludesSubentities(false);
  EXPECT_EQ(*fresh->count(all), 0u);
  FetchRequest notesOnly("Note");
  notesOnly.setIncludesSubentities(false);
  EXPECT_EQ(*fresh->count(notesOnly), 10u);

  // Dictionaries, all properties or chosen ones, and grouped.
  FetchRequest rows("Note");
  rows.setPredicate(Predicate::parse("title == 'n0'"));
  auto dicts = fresh->fetchDictionaries(rows);
  ASSERT_EQ(dicts->size(), 1u);
  EXPECT_EQ((*dicts)[0]["title"], Value("n0"));
  EXPECT_EQ(ObjectID::fromValue((*dicts)[0]["folder"]), inbox->objectID());
  EXPECT_TRUE((*dicts)[0]["tags"].isNil());
  rows.setPropertiesToFetch({"priority"});
  EXPECT_EQ((*fresh->fetchDictionaries(rows))[0], dict({{"priority", 0}}));
  FetchRequest groups("Note");
  groups.setIncludesSubentities(false);
  groups.setPropertiesToGroupBy({"priority"});
  groups.setSortDescriptors({SortDescriptor("priority")});
  auto grouped = fresh->execute(groups);
  ASSERT_TRUE(grouped);
  EXPECT_EQ(*grouped,
            arr({dict({{"priority", 0}}), dict({{"priority", 1}}), dict({{"priority", 2}}), dict({{"priority", 3}})}));

  Error error;
  FetchRequest unknown("Nope");
  EXPECT_FALSE(fresh->fetch(unknown, &error));
  FetchRequest badKey("Note");
  badKey.setPredicate(Predicate::parse("colour == 'red'"));
  EXPECT_FALSE(fresh->fetch(badKey, &error));
  EXPECT_NE(error.localizedDescription.find("NSUnknownKeyException"), std::string::npos);
}

TEST(ManagedObjectContext, FetchesSeeUnsavedChanges) {
  Stack s;
  auto& c = *s.context;
  for (int i = 0; i < 5; ++i) note(c, "saved" + std::to_string(i), i);
  ASSERT_TRUE(c.save());

  FetchRequest request("Note");
  request.setPredicate(Predicate::parse("priority >= 2"));
  request.setSortDescriptors({SortDescriptor("priority")});
  auto found = *c.fetch(request);
  EXPECT_EQ(titles(found), "saved2,saved3,saved4");

  note(c, "new", 3);
  found[0]->setValue("priority", 0);  // saved2 no longer matches
  c.deleteObject(found[2].get());     // saved4 goes
  auto zero = *c.fetch(FetchRequest("Note"));
  for (const auto& o : zero) {
    if (o->stringValue("title") == "saved0") o->setValue("priority", 5);  // saved0 now matches
  }
  EXPECT_EQ(titles(*c.fetch(request)), "saved3,new,saved0");
  EXPECT_EQ(*c.count(request), 3u);
  request.setFetchLimit(2);
  EXPECT_EQ(titles(*c.fetch(request)), "saved3,new");
  request.setFetchLimit(0);
  request.setIncludesPendingChanges(false);
  EXPECT_EQ(titles(*c.fetch(request)), "saved2,saved3,saved4");
}

TEST(ManagedObjectContext, DeleteRulesNullifyCascadeAndDeny) {
  Stack s;
  auto& c = *s.context;
  auto inbox = c.insertNewObject("Folder");
  auto a = note(c, "a"), b = note(c, "b");
  a->setToOne("folder", inbox.get());
  b->setToOne("folder", inbox.get());
  auto tag = c.insertNewObject("Tag");
  tag->setValue("name", "t");
  a->addToMany("tags", tag.get());
  auto file = c.insertNewObject("Attachment");
  file->setToOne("note", a.get());
  ASSERT_TRUE(c.save());

  // Nullify: the note leaves its folder and its tags; cascade: its attachment goes too.
  c.deleteObject(a.get());
  EXPECT_TRUE(a->isDeleted());
  c.processPendingChanges();
  EXPECT_EQ(titles(inbox->toMany("notes")), "b");
  EXPECT_TRUE(tag->toMany("notes").empty());
  EXPECT_TRUE(file->isDeleted());
  Error error;
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  EXPECT_EQ(a->managedObjectContext(), nullptr);
  EXPECT_EQ(static_cast<InMemoryStore*>(s.store)->objectCount(), 3u);  // folder, b, tag

  // Deny: a folder that still holds notes cannot be deleted.
  c.deleteObject(inbox.get());
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.domain, kCocoaErrorDomain);
  EXPECT_EQ(error.code, kValidationRelationshipDeniedDeleteError);
  EXPECT_EQ(error.userInfo[kValidationKeyErrorKey], Value("notes"));
  EXPECT_EQ(error.userInfo[kValidationObjectErrorKey].objectPointer(), inbox.get());
  EXPECT_TRUE(c.hasChanges());  // a failed save keeps the changes
  c.deleteObject(b.get());
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  EXPECT_EQ(static_cast<InMemoryStore*>(s.store)->objectCount(), 1u);  // the tag

  // Deleting an object that was never saved just drops it.
  auto temp = note(c, "temp");
  c.deleteObject(temp.get());
  EXPECT_FALSE(temp->isInserted());
  EXPECT_TRUE(c.insertedObjects().empty());
  EXPECT_FALSE(c.hasChanges());
  ASSERT_TRUE(c.save());
  EXPECT_EQ(static_cast<InMemoryStore*>(s.store)->objectCount(), 1u);
}

TEST(ManagedObjectContext, ValidationReportsThePlatformCodes) {
  Stack s;
  auto& c = *s.context;
  Error error;

  auto tag = c.insertNewObject("Tag");  // name is mandatory
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kValidationMissingMandatoryPropertyError);
  EXPECT_EQ(error.code, 1570);
  EXPECT_EQ(error.userInfo[kValidationKeyErrorKey], Value("name"));
  EXPECT_EQ(error.userInfo[kValidationObjectErrorKey].objectPointer(), tag.get());
  tag->setValue("name", "t");

  for (int i = 0; i < 4; ++i) tag->addToMany("notes", note(c, "n" + std::to_string(i)).get());
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kValidationRelationshipExceedsMaximumCountError);
  EXPECT_EQ(error.code, 1590);
  EXPECT_EQ(error.userInfo[kValidationKeyErrorKey], Value("notes"));
  tag->removeFromMany("notes", tag->toMany("notes")[0].get());

  auto ann = c.insertNewObject("Person");
  auto rex = c.insertNewObject("Pet");
  rex->setToOne("owner", ann.get());  // one pet of at least two
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kValidationRelationshipLacksMinimumCountError);
  EXPECT_EQ(error.code, 1580);
  c.insertNewObject("Pet")->setToOne("owner", ann.get());

  auto n = note(c, "typed");
  n->setValue("priority", "high");
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kManagedObjectValidationError);
  EXPECT_EQ(error.code, 1550);
  EXPECT_EQ(error.userInfo[kValidationKeyErrorKey], Value("priority"));
  EXPECT_EQ(error.userInfo[kValidationValueErrorKey], Value("high"));
  n->setValue("priority", 1);

  // Several failures at once: 1560 with the details.
  n->setValue("title", Value());
  auto orphan = c.insertNewObject("Attachment");  // needs a note
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kValidationMultipleErrorsError);
  const Value& details = error.userInfo[kDetailedErrorsKey];
  ASSERT_EQ(details.count(), 2u);
  EXPECT_EQ(details.at(0)["code"], Value(1570));
  EXPECT_EQ(details.at(0)["userInfo"][kValidationKeyErrorKey], Value("title"));
  EXPECT_EQ(details.at(1)["userInfo"][kValidationKeyErrorKey], Value("note"));
  n->setValue("title", "fixed");
  c.deleteObject(orphan.get());
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;

  // A relationship left pointing at a deleted object is a 1550 naming the relationship.
  auto gone = c.insertNewObject("Folder");
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  c.deleteObject(gone.get());
  c.processPendingChanges();
  n->setPrimitiveValue("folder", Value::object(gone.get()));  // no inverse bookkeeping
  EXPECT_FALSE(c.save(&error));
  EXPECT_EQ(error.code, kManagedObjectValidationError);
  EXPECT_EQ(error.userInfo[kValidationKeyErrorKey], Value("folder"));
  EXPECT_EQ(error.userInfo[kValidationObjectErrorKey].objectPointer(), n.get());
}

TEST(ManagedObjectContext, ChangedAndCommittedValues) {
  Stack s;
  auto& c = *s.context;
  auto a = note(c, "a", 1);
  auto tag = c.insertNewObject("Tag");
  tag->setValue("name", "t");
  EXPECT_EQ(a->changedValues()["title"], Value("a"));
  EXPECT_TRUE(a->committedValues().empty());
  ASSERT_TRUE(c.save());
  EXPECT_TRUE(a->changedValues().empty());
  EXPECT_FALSE(a->hasChanges());

  a->setValue("title", "b");
  a->addToMany("tags", tag.get());
  EXPECT_TRUE(a->isUpdated());
  EXPECT_TRUE(a->hasChanges());
  Value changed = a->changedValues();
  EXPECT_EQ(changed.count(), 2u);
  EXPECT_EQ(changed["title"], Value("b"));
  EXPECT_EQ(changed["tags"].count(), 1u);
  EXPECT_EQ(a->committedValues({"title"}), dict({{"title", "a"}}));
  EXPECT_EQ(a->committedValues({"tags"})["tags"].count(), 0u);
  EXPECT_EQ(c.updatedObjects().size(), 2u);  // the tag changed too (inverse)

  a->setValue("title", "a");  // back to the committed value
  a->removeFromMany("tags", tag.get());
  EXPECT_TRUE(a->changedValues().empty());
  EXPECT_FALSE(c.hasChanges());
}

TEST(ManagedObjectContext, RefreshMergesTheStoresValuesWithOwnChanges) {
  Stack s;
  auto& c = *s.context;
  auto a = note(c, "a");
  auto t1 = c.insertNewObject("Tag"), t2 = c.insertNewObject("Tag"), t3 = c.insertNewObject("Tag");
  t1->setValue("name", "t1");
  t2->setValue("name", "t2");
  t3->setValue("name", "t3");
  a->addToMany("tags", t1.get());
  ASSERT_TRUE(c.save());

  // Someone else changes the body and adds t2, while we change the title and add t3.
  auto other = s.newContext();
  auto theirs = other->objectWithID(a->objectID());
  theirs->setValue("body", "their body");
  theirs->addToMany("tags", other->objectWithID(t2->objectID()).get());
  ASSERT_TRUE(other->save());

  a->setValue("title", "mine");
  a->addToMany("tags", t3.get());
  c.refreshObject(a.get(), true);
  EXPECT_EQ(a->stringValue("title"), "mine");
  EXPECT_EQ(a->stringValue("body"), "their body");
  EXPECT_EQ(names(a->toMany("tags")), (std::vector<std::string>{"t1", "t2", "t3"}));
  EXPECT_TRUE(a->hasChanges());
  ASSERT_TRUE(c.save());
  auto third = s.newContext();
  EXPECT_EQ(names(third->objectWithID(a->objectID())->toMany("tags")), (std::vector<std::string>{"t1", "t2", "t3"}));

  // Without merge the object's own changes are forgotten.
  a->setValue("title", "scratch");
  c.refreshObject(a.get(), false);
  EXPECT_TRUE(a->isFault());
  EXPECT_EQ(a->stringValue("title"), "mine");
  EXPECT_FALSE(c.hasChanges());
}

TEST(ManagedObjectContext, PostsObjectsDidChangeAndDidSave) {
  Stack s;
  auto& c = *s.context;
  std::vector<Notification> seen;
  auto observer = NotificationCenter::defaultCenter().addObserver("", s.context.get(),
                                                                  [&](const Notification& n) { seen.push_back(n); });
  auto a = note(c, "a");
  auto b = note(c, "b");
  c.processPendingChanges();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].name, kObjectsDidChangeNotification);
  EXPECT_EQ(seen[0].userInfo[kInsertedObjectsKey].count(), 2u);
  EXPECT_TRUE(seen[0].userInfo[kInsertedObjectsKey].contains(Value::object(a.get())));
  EXPECT_TRUE(seen[0].userInfo[kUpdatedObjectsKey].isNil());
  c.processPendingChanges();
  EXPECT_EQ(seen.size(), 1u);  // nothing new

  ASSERT_TRUE(c.save());
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[1].name, kWillSaveNotification);
  EXPECT_EQ(seen[2].name, kDidSaveNotification);
  EXPECT_EQ(seen[2].userInfo[kInsertedObjectsKey].count(), 2u);

  seen.clear();
  a->setValue("title", "a2");
  c.deleteObject(b.get());
  c.processPendingChanges();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].userInfo[kUpdatedObjectsKey], Value::set({Value::object(a.get())}));
  EXPECT_EQ(seen[0].userInfo[kDeletedObjectsKey], Value::set({Value::object(b.get())}));
}

class ResolvingCoordinator : public PersistentStoreCoordinator {
 public:
  using PersistentStoreCoordinator::PersistentStoreCoordinator;
  ObjectID managedObjectIDForURIRepresentation(const std::string& uri) const override {
    ++calls;
    return PersistentStoreCoordinator::managedObjectIDForURIRepresentation(uri);
  }
  mutable int calls = 0;
};

TEST(ManagedObjectContext, ObjectIDsArePermanentAfterSaveAndResolveFromURIs) {
  Stack s;
  auto& c = *s.context;
  auto a = note(c, "a");
  std::string temporary = a->objectID().uriRepresentation();
  EXPECT_EQ(temporary.rfind("x-corvane:///Note/t", 0), 0u) << temporary;
  EXPECT_FALSE(s.coordinator->managedObjectIDForURIRepresentation(temporary));
  ASSERT_TRUE(c.obtainPermanentIDsForObjects({a.get()}));
  ObjectID id = a->objectID();
  EXPECT_FALSE(id.isTemporaryID());
  EXPECT_EQ(c.objectRegisteredForID(id), a);
  ASSERT_TRUE(c.save());
  EXPECT_EQ(a->objectID(), id);

  std::string uri = id.uriRepresentation();
  EXPECT_EQ(uri, "x-corvane://" + s.store->identifier() + "/Note/p" + id.referenceObject().description());
  EXPECT_EQ(s.coordinator->managedObjectIDForURIRepresentation(uri), id);
  EXPECT_EQ(s.store->referenceObjectForObjectID(id), id.referenceObject());
  EXPECT_FALSE(s.coordinator->managedObjectIDForURIRepresentation("x-corvane://other/Note/p1"));
  EXPECT_FALSE(s.coordinator->managedObjectIDForURIRepresentation("http://x/Note/p1"));
  EXPECT_FALSE(s.coordinator->managedObjectIDForURIRepresentation("x-corvane://" + s.store->identifier() + "/Nope/p1"));

  // IDs wrap into values and compare by content.
  ObjectID again = ObjectID::fromValue(id.asValue());
  EXPECT_EQ(again, id);
  EXPECT_EQ(ObjectID::makePermanent(id.entity(), id.referenceObject(), s.store), id);
  EXPECT_EQ(ObjectID::makePermanent(id.entity(), id.referenceObject(), s.store).hash(), id.hash());
  EXPECT_NE(ObjectID::makeTemporary(id.entity()), ObjectID::makeTemporary(id.entity()));
  EXPECT_FALSE(ObjectID::fromValue(Value("x")));

  auto custom = std::make_shared<ResolvingCoordinator>(testing::testModel());
  ASSERT_TRUE(custom->addPersistentStore(kInMemoryStoreType, "", "mem:1", Value()));
  PersistentStoreCoordinator& base = *custom;
  base.managedObjectIDForURIRepresentation(uri);
  EXPECT_EQ(custom->calls, 1);
  EXPECT_EQ(custom->persistentStoreForURL("mem:1"), custom->persistentStores()[0]);
  Error error;
  EXPECT_FALSE(custom->addPersistentStore("NoSuchType", "", "", Value(), &error));
  EXPECT_NE(error.localizedDescription.find("NoSuchType"), std::string::npos);
}

TEST(ManagedObjectContext, LetsGoOfUnreferencedObjectsUnlessAskedToRetain) {
  Stack s;
  auto& c = *s.context;
  c.setUndoManager(nullptr);  // undo actions hold on to the objects they undo
  ObjectID dropped;
  {
    auto a = note(c, "a");
    ASSERT_TRUE(c.save());
    dropped = a->objectID();
  }
  auto kept = note(c, "kept");
  ASSERT_TRUE(c.save());
  c.processPendingChanges();
  EXPECT_FALSE(c.objectRegisteredForID(dropped));  // nobody held it
  EXPECT_EQ(c.objectRegisteredForID(kept->objectID()), kept);
  EXPECT_EQ(c.objectWithID(dropped)->stringValue("title"), "a");  // comes back as a fault

  // Objects that only hold each other (inverse relationships) go too; what a held object
  // reaches stays.
  ObjectID folderID, tagID;
  Retained<ManagedObject> holder;
  {
    auto folder = c.insertNewObject("Folder");
    auto inFolder = note(c, "in folder");
    inFolder->setToOne("folder", folder.get());
    auto tag = c.insertNewObject("Tag");
    tag->setValue("name", "t");
    holder = note(c, "holder");
    holder->addToMany("tags", tag.get());
    ASSERT_TRUE(c.save());
    folderID = folder->objectID();
    tagID = tag->objectID();
  }
  c.processPendingChanges();  // the end of the event, where objects are let go
  EXPECT_FALSE(c.objectRegisteredForID(folderID));
  EXPECT_TRUE(c.objectRegisteredForID(tagID));
  EXPECT_EQ(c.objectWithID(folderID)->toMany("notes").size(), 1u);
  holder = nullptr;

  c.setRetainsRegisteredObjects(true);
  ObjectID retained;
  {
    auto b = note(c, "b");
    ASSERT_TRUE(c.save());
    retained = b->objectID();
  }
  c.processPendingChanges();
  EXPECT_TRUE(c.objectRegisteredForID(retained));
}

TEST(ManagedObjectContext, RollbackAndResetForgetChanges) {
  Stack s;
  auto& c = *s.context;
  auto a = note(c, "a");
  ASSERT_TRUE(c.save());
  a->setValue("title", "changed");
  auto b = note(c, "b");
  c.rollback();
  EXPECT_EQ(a->stringValue("title"), "a");
  EXPECT_EQ(b->managedObjectContext(), nullptr);
  EXPECT_FALSE(c.hasChanges());

  c.reset();
  EXPECT_EQ(a->managedObjectContext(), nullptr);
  EXPECT_TRUE(a->value("title").isNil());
  EXPECT_TRUE(c.registeredObjects().empty());
  EXPECT_EQ(*c.count(FetchRequest("Note")), 1u);
}

class Task : public ManagedObject {
 public:
  using ManagedObject::ManagedObject;
  void awakeFromInsert() override { setPrimitiveValue("body", "fresh"); }
  bool validateForInsert(Error* error) const override {
    if (!ManagedObject::validateForInsert(error)) return false;
    if (primitiveValue("title") == Value("forbidden")) {
      return setError(error, Error(kCocoaErrorDomain, kManagedObjectValidationError, "No."));
    }
    return true;
  }
  void willSave() override { ++saves; }
  int saves = 0;
};

TEST(ManagedObjectContext, RegisteredClassesMakeObjectsWithTheirOwnRules) {
  ManagedObject::registerClass("Checklist",
                               [](const EntityDescription* e, ManagedObjectContext* c) { return new Task(e, c); });
  Stack s;
  auto list = s.context->insertNewObject("Checklist");
  auto* task = dynamic_cast<Task*>(list.get());
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(list->stringValue("body"), "fresh");
  list->setValue("title", "forbidden");
  Error error;
  EXPECT_FALSE(s.context->save(&error));
  EXPECT_EQ(error.localizedDescription, "No.");
  list->setValue("title", "fine");
  EXPECT_TRUE(s.context->save(&error));
  EXPECT_EQ(task->saves, 2);
  auto other = s.newContext();
  EXPECT_NE(dynamic_cast<Task*>(other->objectWithID(list->objectID()).get()), nullptr);
  ManagedObject::registerClass("Checklist", nullptr);
}

TEST(ManagedObjectContext, FaultsForVanishedObjectsAnswerNil) {
  Stack s;
  auto a = note(*s.context, "a");
  ASSERT_TRUE(s.context->save());
  auto other = s.newContext();
  auto stale = other->objectWithID(a->objectID());
  s.context->deleteObject(a.get());
  ASSERT_TRUE(s.context->save());
  LogCapture log;
  EXPECT_TRUE(stale->value("title").isNil());
  EXPECT_TRUE(log.contains("Could not fulfill a fault"));
}

}  // namespace
}  // namespace corvane
