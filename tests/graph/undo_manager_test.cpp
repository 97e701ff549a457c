#include "corvane/graph/undo_manager.h"

#include <gtest/gtest.h>

#include <thread>

#include "corvane/foundation/log.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/graph/corvane_undo_manager.h"
#include "graph_fixture.h"

namespace corvane {
namespace {

// A value whose every change registers its own undo, the way a model object would.
struct Counter {
  UndoManager& undo;
  int value = 0;
  void set(int v) {
    int old = value;
    value = v;
    undo.registerUndo(this, [this, old] { set(old); });
  }
};

TEST(UndoManager, UndoesAndRedoesWholeGroupsNewestFirst) {
  UndoManager undo;
  undo.setGroupsByEvent(false);
  Counter c{undo};
  undo.beginUndoGrouping();
  c.set(1);
  c.set(2);
  undo.beginUndoGrouping();  // nested groups belong to the enclosing one
  c.set(3);
  undo.endUndoGrouping();
  undo.setActionName("Typing");
  undo.endUndoGrouping();
  undo.beginUndoGrouping();
  c.set(4);
  undo.endUndoGrouping();
  EXPECT_EQ(undo.undoCount(), 2u);

  undo.undo();
  EXPECT_EQ(c.value, 3);
  EXPECT_EQ(undo.undoActionName(), "Typing");
  undo.undo();
  EXPECT_EQ(c.value, 0);
  EXPECT_FALSE(undo.canUndo());
  EXPECT_EQ(undo.redoActionName(), "Typing");
  undo.redo();
  EXPECT_EQ(c.value, 3);
  undo.redo();
  EXPECT_EQ(c.value, 4);
  EXPECT_FALSE(undo.canRedo());
  undo.undo();
  EXPECT_EQ(c.value, 3);

  // A fresh change drops what could have been redone.
  undo.beginUndoGrouping();
  c.set(7);
  undo.endUndoGrouping();
  EXPECT_FALSE(undo.canRedo());

  EXPECT_THROW(undo.endUndoGrouping(), Exception);
  EXPECT_THROW(c.set(8), Exception);  // no group open and not grouping by event
  undo.beginUndoGrouping();
  EXPECT_THROW(undo.undo(), Exception);
}

TEST(UndoManager, LevelsDisablingTargetsAndEventGroups) {
  UndoManager undo;
  Counter c{undo}, d{undo};
  undo.setLevelsOfUndo(2);
  undo.setGroupsByEvent(false);
  for (int i = 1; i <= 3; ++i) {
    undo.beginUndoGrouping();
    c.set(i);
    undo.endUndoGrouping();
  }
  EXPECT_EQ(undo.undoCount(), 2u);

  undo.disableUndoRegistration();
  undo.disableUndoRegistration();
  undo.beginUndoGrouping();
  c.set(10);
  undo.endUndoGrouping();
  undo.enableUndoRegistration();
  EXPECT_FALSE(undo.isUndoRegistrationEnabled());  // disabling nests
  undo.enableUndoRegistration();
  EXPECT_TRUE(undo.isUndoRegistrationEnabled());
  EXPECT_EQ(undo.undoCount(), 2u);
  EXPECT_THROW(undo.enableUndoRegistration(), Exception);

  undo.beginUndoGrouping();
  d.set(5);
  undo.endUndoGrouping();
  EXPECT_EQ(undo.undoCount(), 2u);  // the oldest group went
  undo.removeAllActionsWithTarget(&d);
  EXPECT_EQ(undo.undoCount(), 1u);  // d's group is now empty and gone
  undo.undo();
  EXPECT_EQ(c.value, 2);

  // By event: a registration opens a group that the end of the run loop's pass closes.
  UndoManager byEvent;
  Counter e{byEvent};
  e.set(1);
  e.set(2);
  EXPECT_EQ(byEvent.groupingLevel(), 1);
  EXPECT_TRUE(byEvent.canUndo());
  RunLoop::main().runOnce();
  EXPECT_EQ(byEvent.groupingLevel(), 0);
  e.set(3);
  byEvent.undo();  // closes the open event group first
  EXPECT_EQ(e.value, 2);
  byEvent.undo();
  EXPECT_EQ(e.value, 0);
  byEvent.removeAllActions();
  EXPECT_FALSE(byEvent.canRedo());
}

TEST(UndoManager, FailingActionsLeaveTheManagerUsable) {
  UndoManager undo;
  undo.setGroupsByEvent(false);
  undo.beginUndoGrouping();
  undo.registerUndo(nullptr, [] { throw Exception("NSInternalInconsistencyException", "broken"); });
  undo.endUndoGrouping();
  EXPECT_THROW(undo.undo(), Exception);
  EXPECT_FALSE(undo.isUndoing());
  EXPECT_EQ(undo.groupingLevel(), 0);

  CorvaneUndoManager document;
  document.setGroupsByEvent(false);
  document.beginUndoGrouping();
  document.registerUndo(nullptr, [] { throw Exception("NSInternalInconsistencyException", "broken"); });
  document.endUndoGrouping();
  EXPECT_NO_THROW(document.undo());
  document.beginUndoGrouping();
  document.registerUndo(nullptr, [] { throw std::runtime_error("not ours"); });
  document.endUndoGrouping();
  EXPECT_THROW(document.undo(), std::runtime_error);  // other exceptions pass on
}

TEST(CorvaneUndoManager, FollowsTheDocumentsRules) {
  CorvaneUndoManager undo;
  EXPECT_EQ(undo.levelsOfUndo(), 1000u);
  undo.setGroupsByEvent(false);

  // Enable and disable do not nest.
  undo.disableUndoRegistration();
  undo.disableUndoRegistration();
  undo.enableUndoRegistration();
  EXPECT_TRUE(undo.isUndoRegistrationEnabled());
  EXPECT_NO_THROW(undo.enableUndoRegistration());

  // Registrations from other threads are dropped.
  undo.beginUndoGrouping();
  std::thread([&] { undo.registerUndo(&undo, [] {}); }).join();
  undo.endUndoGrouping();
  EXPECT_FALSE(undo.canUndo());
  EXPECT_TRUE(undo.targets().empty());

  // The 201st registration pushes the oldest target out.
  std::vector<int> targets(201);
  undo.beginUndoGrouping();
  for (auto& t : targets) undo.registerUndo(&t, [] {});
  undo.endUndoGrouping();
  ASSERT_EQ(undo.targets().size(), 200u);
  EXPECT_EQ(undo.targets().front(), &targets[200]);
  EXPECT_EQ(undo.targets().back(), &targets[1]);

  // Redo from inside an undo is ignored.
  int redone = 0;
  undo.removeAllActions();
  undo.beginUndoGrouping();
  undo.registerUndo(nullptr, [&] {
    undo.registerUndo(nullptr, [&] { ++redone; });
    undo.redo();
  });
  undo.endUndoGrouping();
  undo.undo();
  EXPECT_EQ(redone, 0);
  EXPECT_TRUE(undo.canRedo());
  undo.redo();
  EXPECT_EQ(redone, 1);
}

TEST(CorvaneUndoManager, DiagnosticRegistrationKeepsReadableRecords) {
  CorvaneUndoManager undo;
  undo.setGroupsByEvent(false);
  EXPECT_TRUE(undo.myUndoStack().isNil());
  LogCapture log;
  int target = 0;
  undo.beginUndoGrouping();
  undo.registerUndoWithTargetOff(&target, "Note", "setTitle:", "NSString", [&] {
    undo.registerUndoWithTargetOff(&target, "Note", "setTitle:", "NSString", [] {});
  });
  undo.endUndoGrouping();
  ASSERT_EQ(undo.myUndoStack().count(), 1u);
  const Value& record = undo.myUndoStack().at(0);
  EXPECT_EQ(record["class"], Value("Note"));
  EXPECT_EQ(record["selector"], Value("setTitle:"));
  EXPECT_EQ(record["object"], Value("NSString"));
  EXPECT_EQ(record["uid"].str().size(), 36u);
  EXPECT_EQ(record["target"].unsignedLongLongValue(), reinterpret_cast<uintptr_t>(&target));
  EXPECT_TRUE(log.contains("Undo stack:"));
  undo.undo();
  EXPECT_EQ(undo.myRedoStack().count(), 1u);  // registered while undoing
  EXPECT_TRUE(undo.canRedo());
  undo.disableUndoRegistration();
  undo.registerUndoWithTargetOff(&target, "Note", "x", "y", [] {});
  EXPECT_EQ(undo.myUndoStack().count(), 1u);
}

// ---- Undo of object-graph changes ------------------------------------------------------------

using testing::Stack;
using testing::titles;

TEST(ContextUndo, UndoesValuesInsertsDeletesAndRelationships) {
  Stack s;
  auto& c = *s.context;
  UndoManager& undo = *c.undoManager();
  undo.setGroupsByEvent(false);

  undo.beginUndoGrouping();
  auto inbox = c.insertNewObject("Folder");
  auto a = c.insertNewObject("Note");
  a->setValue("title", "a");
  a->setToOne("folder", inbox.get());
  undo.endUndoGrouping();
  ASSERT_TRUE(c.save());

  undo.beginUndoGrouping();
  a->setValue("title", "renamed");
  undo.endUndoGrouping();
  c.undo();
  EXPECT_EQ(a->stringValue("title"), "a");
  EXPECT_FALSE(c.hasChanges());
  c.redo();
  EXPECT_EQ(a->stringValue("title"), "renamed");
  c.undo();

  // Deleting nullifies the relationship; undo brings back object and relationship.
  undo.beginUndoGrouping();
  c.deleteObject(a.get());
  undo.endUndoGrouping();
  EXPECT_TRUE(inbox->toMany("notes").empty());
  c.undo();
  EXPECT_FALSE(a->isDeleted());
  EXPECT_EQ(a->toOne("folder"), inbox);
  EXPECT_EQ(titles(inbox->toMany("notes")), "a");
  EXPECT_FALSE(c.hasChanges());
  c.redo();
  EXPECT_TRUE(a->isDeleted());
  EXPECT_TRUE(inbox->toMany("notes").empty());
  c.undo();
  EXPECT_EQ(titles(inbox->toMany("notes")), "a");

  // A saved deletion comes back as a new insert under its old ID.
  ObjectID id = a->objectID();
  undo.beginUndoGrouping();
  c.deleteObject(a.get());
  undo.endUndoGrouping();
  ASSERT_TRUE(c.save());
  EXPECT_EQ(*c.count(FetchRequest("Note")), 0u);
  c.undo();
  EXPECT_EQ(a->managedObjectContext(), s.context.get());
  EXPECT_TRUE(a->isInserted());
  EXPECT_EQ(a->objectID(), id);
  EXPECT_EQ(a->toOne("folder"), inbox);
  Error error;
  ASSERT_TRUE(c.save(&error)) << error.localizedDescription;
  auto other = s.newContext();
  EXPECT_EQ(other->objectWithID(id)->toOne("folder")->objectID(), inbox->objectID());

  // A many-to-many change is undone on both sides.
  undo.beginUndoGrouping();
  auto tag = c.insertNewObject("Tag");
  tag->setValue("name", "t");
  undo.endUndoGrouping();
  ASSERT_TRUE(c.save());
  undo.beginUndoGrouping();
  a->addToMany("tags", tag.get());
  undo.endUndoGrouping();
  c.undo();
  EXPECT_TRUE(a->toMany("tags").empty());
  EXPECT_TRUE(tag->toMany("notes").empty());
  c.redo();
  EXPECT_EQ(tag->toMany("notes").size(), 1u);
  c.undo();

  // Undoing an insertion removes the object; redoing brings it back.
  undo.beginUndoGrouping();
  auto b = c.insertNewObject("Note");
  b->setToOne("folder", inbox.get());
  undo.endUndoGrouping();
  c.undo();
  EXPECT_TRUE(b->isDeleted());
  EXPECT_EQ(titles(inbox->toMany("notes")), "a");
  EXPECT_FALSE(c.hasChanges());
  c.redo();
  EXPECT_TRUE(b->isInserted());
  EXPECT_EQ(b->toOne("folder"), inbox);
  EXPECT_EQ(inbox->toMany("notes").size(), 2u);
}

TEST(ContextUndo, CascadedDeletesUndoTogether) {
  Stack s;
  auto& c = *s.context;
  auto a = c.insertNewObject("Note");
  auto file = c.insertNewObject("Attachment");
  file->setToOne("note", a.get());
  ASSERT_TRUE(c.save());
  c.undoManager()->removeAllActions();
  c.undoManager()->setGroupsByEvent(false);

  c.undoManager()->beginUndoGrouping();
  c.deleteObject(a.get());
  c.undoManager()->endUndoGrouping();
  EXPECT_TRUE(file->isDeleted());
  c.undo();
  EXPECT_FALSE(a->isDeleted());
  EXPECT_FALSE(file->isDeleted());
  EXPECT_EQ(file->toOne("note"), a);
  EXPECT_EQ(a->toMany("attachments").size(), 1u);
  EXPECT_FALSE(c.hasChanges());
}

TEST(ContextUndo, NoUndoManagerMeansNoRegistration) {
  Stack s;
  s.context->setUndoManager(nullptr);
  auto a = s.context->insertNewObject("Note");
  a->setValue("title", "x");
  EXPECT_NO_THROW(s.context->undo());
  EXPECT_EQ(a->stringValue("title"), "x");
  auto privateContext = s.newContext(ConcurrencyType::PrivateQueue);
  privateContext->performAndWait([&] { EXPECT_EQ(privateContext->undoManager(), nullptr); });
}

}  // namespace
}  // namespace corvane
