// Notes: the first program a host application writes with Corvane's object graph.
//
// It loads a model file, opens a document, creates folders, notes and tags and relates them,
// saves, fetches with a text predicate and a sort order, watches changes, undoes an edit and
// a deletion, and lets a background context add a note.
//
//   build/debug/bin/example_notes [examples/notes_model.json [folder]]
#include <cstdio>
#include <filesystem>
#include <string>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/graph/graph.h"

using namespace corvane;

namespace {

void printNotes(const char* heading, const std::vector<Retained<ManagedObject>>& notes) {
  std::printf("%s\n", heading);
  for (const auto& note : notes) {
    std::string tags;
    for (const auto& tag : note->toMany("tags")) tags += (tags.empty() ? "" : ", ") + tag->stringValue("name");
    Retained<ManagedObject> folder = note->toOne("folder");
    std::printf("  [%lld] %-22s folder: %-8s tags: %s\n", static_cast<long long>(note->int64Value("priority")),
                note->stringValue("title").c_str(), folder ? folder->stringValue("name").c_str() : "-", tags.c_str());
  }
}

int fail(const char* what, const Error& error) {
  std::fprintf(stderr, "%s: %s\n", what, error.localizedDescription.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // 1. The model: entities, attributes and relationships from a JSON model file.
  Error error;
  auto model = ObjectModel::fromFile(argc > 1 ? argv[1] : "examples/notes_model.json", &error);
  if (!model) return fail("Could not load the model", error);

  // 2. A document: a package folder (made on first open) and this device's cache of it. The
  //    document hands out its main-thread context; everything else has a default.
  Env* env = Env::defaultEnv();
  const std::string folder = argc > 2 ? argv[2] : env->temporaryDirectory() + "/corvane-notes-" + env->newUUIDString();
  DocumentOptions options;
  options.model = model;
  options.application = ApplicationInfo{"org.corvane.examples.Notes", "Notes", "1", "1.0", Value()};
  options.cacheRoot = folder + "/cache";
  auto document = CorvaneDocument::open(folder + "/Notes.corvane", options, &error);
  if (!document) return fail("Could not open the document", error);
  std::printf("Opened %s/Notes.corvane\n", folder.c_str());
  ManagedObjectContext& context = document->context();

  // Anything can watch what changes in the context.
  auto observer = NotificationCenter::defaultCenter().addObserver(
      kObjectsDidChangeNotification, &context, [](const Notification& n) {
        std::printf("(changed: %zu inserted, %zu updated, %zu deleted)\n", n.userInfo[kInsertedObjectsKey].count(),
                    n.userInfo[kUpdatedObjectsKey].count(), n.userInfo[kDeletedObjectsKey].count());
      });

  // 3. Insert objects and relate them. Setting one side of a relationship sets the other.
  auto inbox = context.insertNewObject("Folder");
  inbox->setValue("name", "Inbox");
  auto work = context.insertNewObject("Folder");
  work->setValue("name", "Work");
  auto urgent = context.insertNewObject("Tag");
  urgent->setValue("name", "urgent");
  auto home = context.insertNewObject("Tag");
  home->setValue("name", "home");

  struct Seed {
    const char* title;
    int priority;
    ManagedObject* folder;
  };
  for (const Seed& seed : {Seed{"Buy milk", 1, inbox.get()}, Seed{"Call the plumber", 3, inbox.get()},
                           Seed{"Quarterly report", 2, work.get()}, Seed{"Book flights", 2, inbox.get()},
                           Seed{"Review pull request", 3, work.get()}}) {
    auto note = context.insertNewObject("Note");
    note->setValue("title", seed.title);
    note->setValue("priority", seed.priority);
    note->setToOne("folder", seed.folder);
    if (seed.priority == 3) note->addToMany("tags", urgent.get());
  }
  std::printf("Inbox holds %zu notes before saving\n", inbox->toMany("notes").size());

  // 4. Save: validation runs, objects get permanent IDs, and the document returns once every
  //    file of the save is on disk (or with the reason it is not).
  if (!document->save(&error)) return fail("Could not save", error);

  // 5. Fetch with a text predicate and a sort order.
  auto predicate = Predicate::parse("folder.name == %@ AND priority >= 2", {Value("Inbox")}, &error);
  if (!predicate) return fail("Bad predicate", error);
  FetchRequest request("Note");
  request.setPredicate(predicate);
  request.setSortDescriptors({SortDescriptor("priority", false), SortDescriptor("title")});
  auto important = context.fetch(request, &error);
  if (!important) return fail("Could not fetch", error);
  printNotes("Important notes in the Inbox:", *important);

  // 6. Edit, then undo. One undo group holds everything done between begin and end.
  UndoManager* undo = context.undoManager();
  auto plumber = (*important)[0];
  undo->beginUndoGrouping();
  plumber->setValue("title", "Call the plumber AGAIN");
  plumber->addToMany("tags", home.get());
  context.deleteObject((*important)[1].get());  // "Book flights"
  undo->endUndoGrouping();
  printNotes("After editing:", *context.fetch(request));
  context.undo();
  printNotes("After undo:", *context.fetch(request));

  // 7. Work in the background: a private-queue context saves on its own queue; the main
  //    context sees the new note in its next fetch.
  auto background = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  background->setPersistentStoreCoordinator(document->coordinator());
  background->performAndWait([&] {
    auto note = background->insertNewObject("Note");
    note->setValue("title", "Water the plants");
    note->setValue("priority", 2);
    FetchRequest inboxRequest("Folder");
    inboxRequest.setPredicate(Predicate::parse("name == 'Inbox'"));
    note->setToOne("folder", (*background->fetch(inboxRequest))[0].get());
    if (!background->save(&error))
      std::fprintf(stderr, "Background save failed: %s\n", error.localizedDescription.c_str());
  });
  printNotes("After the background save:", *context.fetch(request));

  // 8. Validation: a tag needs a name, so this save is refused with the platform's code.
  context.insertNewObject("Tag");
  if (!document->save(&error)) {
    std::printf("Save refused: code %lld, key \"%s\"\n", static_cast<long long>(error.code),
                error.userInfo[kValidationKeyErrorKey].str().c_str());
    context.rollback();
  }
  document->close();
  if (argc <= 2) std::filesystem::remove_all(folder);  // a folder of its own making
  return 0;
}
