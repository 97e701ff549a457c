// Contexts used from their own queues: private-queue contexts side by side on one coordinator,
// child contexts saving into parents on other queues, and a main-queue context fed from
// background threads. Run under the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "graph_fixture.h"

namespace corvane {
namespace {

using testing::Stack;

TEST(ContextConcurrency, PrivateContextsSaveSideBySide) {
  Stack s;
  constexpr int kContexts = 4, kNotes = 50;
  std::vector<std::shared_ptr<ManagedObjectContext>> contexts;
  for (int i = 0; i < kContexts; ++i) contexts.push_back(s.newContext(ConcurrencyType::PrivateQueue));
  std::atomic<int> saved{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kContexts; ++i) {
    threads.emplace_back([&, i] {
      auto& c = contexts[static_cast<size_t>(i)];
      c->performAndWait([&] {
        auto folder = c->insertNewObject("Folder");
        folder->setValue("name", "folder" + std::to_string(i));
        for (int n = 0; n < kNotes; ++n) {
          auto note = c->insertNewObject("Note");
          note->setValue("title", "n" + std::to_string(n));
          note->setToOne("folder", folder.get());
        }
        Error error;
        EXPECT_TRUE(c->isOnQueue());
        if (c->save(&error)) ++saved;
        // Read back what the others wrote meanwhile.
        FetchRequest request("Note");
        request.setPredicate(Predicate::parse("folder.name == %@", {Value("folder" + std::to_string(i))}));
        EXPECT_EQ(*c->count(request), static_cast<size_t>(kNotes));
      });
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(saved.load(), kContexts);
  auto reader = s.newContext(ConcurrencyType::PrivateQueue);
  reader->performAndWait(
      [&] { EXPECT_EQ(*reader->count(FetchRequest("Note")), static_cast<size_t>(kContexts * kNotes)); });
}

TEST(ContextConcurrency, PerformRunsBlocksInOrderOnTheContextsQueue) {
  Stack s;
  auto c = s.newContext(ConcurrencyType::PrivateQueue);
  std::vector<int> order;
  std::atomic<bool> offCaller{true};
  auto caller = std::this_thread::get_id();
  for (int i = 0; i < 20; ++i) {
    c->perform([&, i] {
      order.push_back(i);
      if (std::this_thread::get_id() == caller) offCaller = false;
    });
  }
  c->performAndWait([] {});
  std::vector<int> expected(20);
  for (int i = 0; i < 20; ++i) expected[static_cast<size_t>(i)] = i;
  EXPECT_EQ(order, expected);
  EXPECT_TRUE(offCaller.load());
  EXPECT_FALSE(c->isOnQueue());
  // Nested performAndWait on the same queue runs at once instead of deadlocking.
  bool nested = false;
  c->performAndWait([&] { c->performAndWait([&] { nested = true; }); });
  EXPECT_TRUE(nested);
}

TEST(ContextConcurrency, ChildSavesPushIntoTheParentOnItsOwnQueue) {
  Stack s;
  auto parent = s.newContext(ConcurrencyType::PrivateQueue);
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(parent);
  EXPECT_EQ(child->persistentStoreCoordinator(), s.coordinator);

  // The parent holds an unsaved folder; the child reads it through the parent.
  ObjectID folderID;
  parent->performAndWait([&] {
    auto folder = parent->insertNewObject("Folder");
    folder->setValue("name", "Inbox");
    ASSERT_TRUE(parent->obtainPermanentIDsForObjects({folder.get()}));
    folderID = folder->objectID();
  });
  ObjectID noteID;
  child->performAndWait([&] {
    auto folder = child->objectWithID(folderID);
    EXPECT_EQ(folder->stringValue("name"), "Inbox");
    auto note = child->insertNewObject("Note");
    note->setValue("title", "from child");
    note->setToOne("folder", folder.get());
    auto tag = child->insertNewObject("Tag");
    tag->setValue("name", "t");
    note->addToMany("tags", tag.get());
    Error error;
    ASSERT_TRUE(child->save(&error)) << error.localizedDescription;
    noteID = note->objectID();
    EXPECT_FALSE(noteID.isTemporaryID());
    EXPECT_FALSE(child->hasChanges());
  });

  // Nothing reached the store yet; the parent has the changes.
  auto outsider = s.newContext(ConcurrencyType::PrivateQueue);
  outsider->performAndWait([&] { EXPECT_EQ(*outsider->count(FetchRequest("Note")), 0u); });
  parent->performAndWait([&] {
    EXPECT_TRUE(parent->hasChanges());
    auto note = parent->objectWithID(noteID);
    EXPECT_TRUE(note->isInserted());
    EXPECT_EQ(note->stringValue("title"), "from child");
    EXPECT_EQ(note->toOne("folder")->objectID(), folderID);
    EXPECT_EQ(note->toOne("folder")->toMany("notes").size(), 1u);
    EXPECT_EQ(note->toMany("tags").size(), 1u);
    Error error;
    ASSERT_TRUE(parent->save(&error)) << error.localizedDescription;
  });
  outsider->performAndWait([&] {
    auto note = outsider->objectWithID(noteID);
    EXPECT_EQ(note->stringValue("title"), "from child");
    EXPECT_EQ(note->toOne("folder")->stringValue("name"), "Inbox");
    EXPECT_EQ(note->toMany("tags")[0]->stringValue("name"), "t");
  });

  // An update and a delete in the child travel the same way; a fetch in the child sees
  // the parent's unsaved changes and its own.
  child->performAndWait([&] {
    auto note = child->objectWithID(noteID);
    note->setValue("title", "edited");
    ASSERT_TRUE(child->save());
  });
  parent->performAndWait([&] { parent->insertNewObject("Note")->setValue("title", "parent only"); });
  child->performAndWait([&] {
    child->insertNewObject("Note")->setValue("title", "child only");
    FetchRequest request("Note");
    request.setSortDescriptors({SortDescriptor("title")});
    auto notes = child->fetch(request);
    ASSERT_TRUE(notes);
    EXPECT_EQ(testing::titles(*notes), "child only,edited,parent only");
    child->deleteObject(child->objectWithID(noteID).get());
    ASSERT_TRUE(child->save());
  });
  parent->performAndWait([&] {
    EXPECT_TRUE(parent->objectWithID(noteID)->isDeleted());
    ASSERT_TRUE(parent->save());
  });
  outsider->performAndWait([&] {
    FetchRequest request("Note");
    request.setSortDescriptors({SortDescriptor("title")});
    EXPECT_EQ(testing::titles(*outsider->fetch(request)), "child only,parent only");
  });
}

TEST(ContextConcurrency, MainQueueContextServesBackgroundThreadsThroughItsRunLoop) {
  Stack s;
  auto main = s.context;  // main-queue: this thread drives RunLoop::main()
  std::atomic<int> done{0};
  std::atomic<int> changeNotices{0};
  auto observer = NotificationCenter::defaultCenter().addObserver(kObjectsDidChangeNotification, main.get(),
                                                                  [&](const Notification&) {
                                                                    EXPECT_TRUE(main->isOnQueue());
                                                                    ++changeNotices;
                                                                  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      main->performAndWait([&] { main->insertNewObject("Note")->setValue("title", "t" + std::to_string(i)); });
      main->perform([&] { ++done; });
    });
  }
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return done.load() == 3; }, 30));
  for (auto& t : threads) t.join();
  EXPECT_EQ(main->insertedObjects().size(), 3u);
  EXPECT_GE(changeNotices.load(), 1);
  EXPECT_TRUE(main->save());

  // A private context saves; the main context's fetch sees the result.
  auto worker = s.newContext(ConcurrencyType::PrivateQueue);
  worker->perform([&] {
    worker->insertNewObject("Note")->setValue("title", "from worker");
    EXPECT_TRUE(worker->save());
    main->perform([&] { ++done; });
  });
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return done.load() == 4; }, 30));
  EXPECT_EQ(*main->count(FetchRequest("Note")), 4u);
}

TEST(ContextConcurrency, PrivateChildOfTheMainContextWorksInTheBackground) {
  Stack s;
  auto main = s.context;
  main->insertNewObject("Folder")->setValue("name", "Inbox");
  ASSERT_TRUE(main->save());
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(main);

  // The child's reads and its save go through the main context, on the main thread, which
  // keeps running its loop meanwhile.
  std::atomic<bool> finished{false};
  child->perform([&] {
    FetchRequest request("Folder");
    auto folders = child->fetch(request);
    EXPECT_TRUE(folders && folders->size() == 1);
    for (int i = 0; i < 20; ++i) {
      auto note = child->insertNewObject("Note");
      note->setValue("title", "bg" + std::to_string(i));
      note->setToOne("folder", (*folders)[0].get());
    }
    Error error;
    EXPECT_TRUE(child->save(&error)) << error.localizedDescription;
    finished = true;
  });
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return finished.load(); }, 30));
  FetchRequest request("Folder");
  auto inbox = (*main->fetch(request))[0];
  EXPECT_EQ(inbox->toMany("notes").size(), 20u);
  EXPECT_EQ(main->insertedObjects().size(), 20u);
  EXPECT_TRUE(main->save());
  EXPECT_EQ(*s.newContext()->count(FetchRequest("Note")), 20u);
}

}  // namespace
}  // namespace corvane
