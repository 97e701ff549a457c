// A host's first program against the installed library: creates a document in the folder given
// as argument, inserts a note, saves and closes; then opens the document again with an empty
// cache, so that the note is read back from the package's files. Exits 0 only if it is there.
#include <cstdio>
#include <string>

#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"

using namespace corvane;

int main(int argc, char** argv) {
  const std::string folder = argc == 2 ? argv[1] : ".", title = "Hello from the installed library";
  auto model = ObjectModel::fromJSON(R"({"entities": [{"name": "Note",
      "attributes": [{"name": "title", "type": "string"}]}]})");
  if (!model) return 1;
  CorvaneStore::registerStoreType();
  int passes = 0;  // the store reports the end of each update pass on the main run loop
  auto ready = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                               [&](const Notification&) { ++passes; });
  for (int round = 0; round < 2; ++round) {  // each round with its own, at first empty, cache
    Value options = Value::mutableDictionary();
    options.set(Value(kCorvaneCacheRootURLOption), Value(folder + "/cache" + std::to_string(round)));
    auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model);
    Error error;
    const int before = passes;
    auto* store = static_cast<CorvaneStore*>(
        coordinator->addPersistentStore(kCorvaneStoreType, "", folder + "/Doc.corvane", options.copy(), &error));
    if (!store || !RunLoop::main().runUntil([&] { return passes > before; }, 30)) {
      return std::fprintf(stderr, "open failed: %s\n", error.localizedDescription.c_str()), 1;
    }
    auto context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    if (round == 0) {
      context->insertNewObject("Note")->setValue("title", title);
      if (!context->save(&error)) return std::fprintf(stderr, "save failed: %s\n", error.localizedDescription.c_str()), 1;
    } else if (auto notes = context->fetch(FetchRequest("Note"));
               !notes || notes->size() != 1 || (*notes)[0]->stringValue("title") != title) {
      return std::fprintf(stderr, "the saved note did not come back\n"), 1;
    }
    context.reset();
    store->close();
  }
  CorvaneStore::waitForRecentFilesRegistration();
  return std::printf("consumer: saved a note and read it back\n"), 0;
}
