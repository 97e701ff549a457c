// A host's first program against the installed library, written as the README tells a host to:
// opens (creates) a document in the folder given as argument, inserts a note, saves and
// closes; then opens it again as another device with an empty cache, so that the note is read
// back from the package's files. Exits 0 only if it is there.
#include <cstdio>
#include <string>

#include "corvane/document/corvane_document.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"

int main(int argc, char** argv) {
  const std::string folder = argc == 2 ? argv[1] : ".", title = "Hello from the installed library";
  corvane::DocumentOptions options;
  options.model = corvane::ObjectModel::fromJSON(R"({"entities": [{"name": "Note",
      "attributes": [{"name": "title", "type": "string"}]}]})");
  if (!options.model) return 1;
  options.application = corvane::ApplicationInfo{"com.example.Consumer", "Consumer", "1", "1.0", {}};
  for (int round = 0; round < 2; ++round) {  // each round another device with its own new cache
    options.cacheRoot = folder + "/cache" + std::to_string(round);
    options.machineName = "Device " + std::to_string(round);
    corvane::Error error;
    auto doc = corvane::CorvaneDocument::open(folder + "/Doc.corvane", options, &error);
    if (!doc) return std::fprintf(stderr, "open failed: %s\n", error.localizedDescription.c_str()), 1;
    if (round == 0) {
      doc->context().insertNewObject("Note")->setValue("title", title);
      if (!doc->save(&error)) return std::fprintf(stderr, "save failed: %s\n", error.localizedDescription.c_str()), 1;
    } else if (auto notes = doc->context().fetch(corvane::FetchRequest("Note"));
               !notes || notes->size() != 1 || (*notes)[0]->stringValue("title") != title) {
      return std::fprintf(stderr, "the saved note did not come back\n"), 1;
    }
    doc->close();
  }
  return std::printf("consumer: saved a note and read it back\n"), 0;
}
