#include "corvane/graph/fetch_request.h"

#include "corvane/graph/object_model.h"

namespace corvane {

std::vector<const EntityDescription*> FetchRequest::searchedEntities() const {
  if (entity_ == nullptr) return {};
  if (!includesSubentities_) return {entity_};
  return entity_->selfAndAllSubentities();
}

}  // namespace corvane
