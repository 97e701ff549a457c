// A small model and an in-memory stack shared by the graph tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "corvane/graph/in_memory_store.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"

namespace corvane::testing {

// Notes in folders with tags and attachments; people with a badge (one-to-one) and pets (at
// least two when any).
inline const char* kTestModelJSON = R"({"entities": [
  {"name": "Item", "abstract": true, "attributes": [
    {"name": "title", "type": "string", "optional": false, "default": "Untitled"},
    {"name": "created", "type": "date"}]},
  {"name": "Note", "parent": "Item", "attributes": [
    {"name": "body", "type": "string"},
    {"name": "priority", "type": "integer16", "default": 0},
    {"name": "done", "type": "boolean", "default": false}],
   "relationships": [
    {"name": "folder", "destination": "Folder", "inverse": "notes", "deleteRule": "nullify"},
    {"name": "tags", "destination": "Tag", "inverse": "notes", "toMany": true},
    {"name": "attachments", "destination": "Attachment", "inverse": "note", "toMany": true, "ordered": true,
     "deleteRule": "cascade"}]},
  {"name": "Checklist", "parent": "Note", "attributes": [{"name": "items", "type": "integer32"}]},
  {"name": "Folder", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "notes", "destination": "Note", "inverse": "folder", "toMany": true, "deleteRule": "deny"}]},
  {"name": "Tag", "attributes": [{"name": "name", "type": "string", "optional": false}],
   "relationships": [{"name": "notes", "destination": "Note", "inverse": "tags", "toMany": true, "maxCount": 3}]},
  {"name": "Attachment", "attributes": [{"name": "name", "type": "string"}, {"name": "size", "type": "integer64"}],
   "relationships": [{"name": "note", "destination": "Note", "inverse": "attachments", "optional": false}]},
  {"name": "Person", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [
    {"name": "badge", "destination": "Badge", "inverse": "holder", "deleteRule": "cascade"},
    {"name": "pets", "destination": "Pet", "inverse": "owner", "toMany": true, "minCount": 2}]},
  {"name": "Badge", "attributes": [{"name": "code", "type": "string"}],
   "relationships": [{"name": "holder", "destination": "Person", "inverse": "badge"}]},
  {"name": "Pet", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "owner", "destination": "Person", "inverse": "pets"}]}
]})";

inline std::shared_ptr<ObjectModel> testModel() {
  static std::shared_ptr<ObjectModel> model = [] {
    Error error;
    auto m = ObjectModel::fromJSON(kTestModelJSON, &error);
    if (!m) ADD_FAILURE() << error.localizedDescription;
    return m;
  }();
  return model;
}

struct Stack {
  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  IncrementalStore* store = nullptr;
  std::shared_ptr<ManagedObjectContext> context;

  explicit Stack(ConcurrencyType type = ConcurrencyType::MainQueue) {
    coordinator = std::make_shared<PersistentStoreCoordinator>(testModel());
    Error error;
    store = coordinator->addPersistentStore(kInMemoryStoreType, "", "", Value(), &error);
    EXPECT_NE(store, nullptr) << error.localizedDescription;
    context = newContext(type);
  }

  std::shared_ptr<ManagedObjectContext> newContext(ConcurrencyType type = ConcurrencyType::MainQueue) const {
    auto c = ManagedObjectContext::create(type);
    c->setPersistentStoreCoordinator(coordinator);
    return c;
  }
};

inline std::string titles(const std::vector<Retained<ManagedObject>>& objects) {
  std::string out;
  for (const auto& o : objects) {
    if (!out.empty()) out += ",";
    out += o->stringValue("title");
  }
  return out;
}

}  // namespace corvane::testing
