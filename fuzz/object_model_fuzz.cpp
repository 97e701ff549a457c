// The model-file loader on arbitrary bytes: a finalized model or an error, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "corvane/graph/object_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  corvane::Error error;
  auto model = corvane::ObjectModel::fromJSON(std::string_view(reinterpret_cast<const char*>(data), size), &error);
  if (model) {
    for (const auto* entity : model->entities()) {
      for (const auto* p : entity->properties()) (void)entity->propertyIndex(p->name());
      (void)entity->selfAndAllSubentities();
    }
  }
  return 0;
}
