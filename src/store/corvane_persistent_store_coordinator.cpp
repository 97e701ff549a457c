#include "corvane/store/corvane_persistent_store_coordinator.h"

#include <cctype>
#include <vector>

#include "corvane/graph/object_model.h"
#include "store/store_state.h"

namespace corvane {

namespace {

bool startsWithIgnoringCase(const std::string& text, char c) {
  return !text.empty() && std::tolower(static_cast<unsigned char>(text[0])) == c;
}

}  // namespace

ObjectID CorvanePersistentStoreCoordinator::managedObjectIDForURIRepresentation(const std::string& uri) const {
  // The path of "scheme://host/a/b/Entity/ref": skip the scheme and the authority.
  std::string path = uri;
  if (size_t scheme = path.find("://"); scheme != std::string::npos) {
    size_t slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? std::string() : path.substr(slash);
  }
  std::vector<std::string> components;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    if (end > begin) components.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  if (components.size() >= 2) {
    const std::string& entityName = components[components.size() - 2];
    std::string reference = components.back();
    if (startsWithIgnoringCase(reference, 'p')) reference.erase(0, 1);
    if (startsWithIgnoringCase(reference, 't')) reference.erase(0, 1);
    const EntityDescription* entity = managedObjectModel()->entity(entityName);
    std::vector<IncrementalStore*> stores = persistentStores();
    if (entity != nullptr && !stores.empty() && !reference.empty()) {
      if (ObjectID id = stores.front()->newObjectIDForEntity(entity, Value(reference))) return id;
    }
  }
  return PersistentStoreCoordinator::managedObjectIDForURIRepresentation(uri);
}

}  // namespace corvane
