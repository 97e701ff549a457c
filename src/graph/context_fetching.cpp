#include "graph/context_fetching.h"

#include <unordered_set>

#include "corvane/graph/persistent_store_coordinator.h"
#include "graph/context_impl.h"

namespace corvane {

using graph_internal::contextError;
using graph_internal::idOf;
using graph_internal::objectOf;
using graph_internal::ObjectSet;

std::optional<Value> ManagedObjectContext::Fetching::executeAtSource(const FetchRequest& request, Error* error) {
  if (c_.parent) {
    FetchRequest forParent = request;
    if (forParent.resultType() == FetchResultType::ManagedObject)
      forParent.setResultType(FetchResultType::ManagedObjectID);
    std::optional<Value> out;
    auto parent = c_.parent;
    parent->performAndWait([&] { out = parent->execute(forParent, error); });
    return out;
  }
  if (!c_.coordinator) {
    setError(error, contextError("The context has neither a coordinator nor a parent"));
    return std::nullopt;
  }
  return c_.coordinator->executeRequest(request, &c_.self, error);
}

Retained<ManagedObject> ManagedObjectContext::Fetching::objectForResult(const Value& element) {
  ManagedObject* o = objectOf(element);
  if (o != nullptr && o->context_ == &c_.self) return Retained(o);
  return c_.self.objectWithID(idOf(element));
}

bool ManagedObjectContext::Fetching::touchesPendingChanges(const EntityDescription* entity,
                                                           const FetchRequest& request) const {
  auto relevant = [&](const ObjectSet& set) {
    for (const auto& o : set.items()) {
      if (request.includesSubentities() ? o->entity_->isKindOfEntity(entity) : o->entity_ == entity) return true;
    }
    return false;
  };
  return relevant(c_.inserted) || relevant(c_.updated) || relevant(c_.deleted);
}

std::vector<Retained<ManagedObject>> ManagedObjectContext::Fetching::mergePendingObjects(
    std::vector<Retained<ManagedObject>> fromStore, const FetchRequest& request, const EntityDescription* entity) {
  auto ofEntity = [&](const ManagedObject* o) {
    return request.includesSubentities() ? o->entity_->isKindOfEntity(entity) : o->entity_ == entity;
  };
  auto matches = [&](const ManagedObject* o) { return !request.predicate() || request.predicate()->evaluate(*o); };
  std::vector<Retained<ManagedObject>> out;
  std::unordered_set<ManagedObject*> seen;
  for (auto& o : fromStore) {
    if (o->deleted_ || (o->updated_ && !matches(o.get())) || !seen.insert(o.get()).second) continue;
    out.push_back(std::move(o));
  }
  for (const auto& o : c_.updated.items()) {
    if (ofEntity(o.get()) && !o->deleted_ && seen.count(o.get()) == 0 && matches(o.get())) out.push_back(o);
  }
  for (const auto& o : c_.inserted.items()) {
    if (ofEntity(o.get()) && matches(o.get())) out.push_back(o);
  }
  if (!request.sortDescriptors().empty()) {
    std::vector<const Object*> objects;
    objects.reserve(out.size());
    for (const auto& o : out) objects.push_back(o.get());
    std::vector<size_t> order = sortOrder(objects, request.sortDescriptors());
    std::vector<Retained<ManagedObject>> sorted;
    sorted.reserve(out.size());
    for (size_t i : order) sorted.push_back(out[i]);
    out.swap(sorted);
  }
  if (request.fetchLimit() != 0 && out.size() > request.fetchLimit()) out.resize(request.fetchLimit());
  return out;
}

std::optional<Value> ManagedObjectContext::Fetching::execute(const FetchRequest& request, Error* error) {
  try {
    c_.self.processPendingChanges();
    const EntityDescription* e = c_.self.entity(request.entityName());
    if (e == nullptr) {
      setError(error, contextError("No entity named \"" + request.entityName() + "\" in the model"));
      return std::nullopt;
    }
    FetchRequest r = request;
    r.setEntity(e);
    if (r.resultType() == FetchResultType::Dictionary || !r.propertiesToGroupBy().empty()) {
      return executeAtSource(r, error);
    }
    if (!r.includesPendingChanges() || !touchesPendingChanges(e, r)) {
      auto raw = executeAtSource(r, error);
      if (!raw || r.resultType() != FetchResultType::ManagedObject) return raw;
      std::vector<Value> objects;
      objects.reserve(raw->count());
      for (const Value& element : raw->elements()) objects.push_back(Value::object(objectForResult(element).get()));
      return Value::array(std::move(objects));
    }
    FetchRequest idsRequest = r;
    idsRequest.setResultType(FetchResultType::ManagedObjectID);
    idsRequest.setFetchLimit(0);
    auto raw = executeAtSource(idsRequest, error);
    if (!raw) return std::nullopt;
    std::vector<Retained<ManagedObject>> fromStore;
    fromStore.reserve(raw->count());
    for (const Value& element : raw->elements()) fromStore.push_back(objectForResult(element));
    std::vector<Retained<ManagedObject>> merged = mergePendingObjects(std::move(fromStore), r, e);
    if (r.resultType() == FetchResultType::Count) {
      return Value::array({Value(static_cast<long long>(merged.size()))});
    }
    std::vector<Value> out;
    out.reserve(merged.size());
    for (const auto& o : merged) {
      out.push_back(r.resultType() == FetchResultType::ManagedObjectID ? o->objectID().asValue()
                                                                       : Value::object(o.get()));
    }
    return Value::array(std::move(out));
  } catch (const Exception& ex) {
    setError(error, contextError(ex.name() + ": " + ex.reason()));
    return std::nullopt;
  }
}

// ---- The typed forms -------------------------------------------------------------------------

std::optional<Value> ManagedObjectContext::execute(const FetchRequest& request, Error* error) {
  return impl_->fetching.execute(request, error);
}

std::optional<std::vector<Retained<ManagedObject>>> ManagedObjectContext::fetch(const FetchRequest& request,
                                                                                Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::ManagedObject);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  std::vector<Retained<ManagedObject>> out;
  out.reserve(raw->count());
  for (const Value& v : raw->elements()) out.emplace_back(objectOf(v));
  return out;
}

std::optional<std::vector<ObjectID>> ManagedObjectContext::fetchObjectIDs(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::ManagedObjectID);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  std::vector<ObjectID> out;
  out.reserve(raw->count());
  for (const Value& v : raw->elements()) out.push_back(idOf(v));
  return out;
}

std::optional<std::vector<Value>> ManagedObjectContext::fetchDictionaries(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::Dictionary);
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  return raw->elements();
}

std::optional<size_t> ManagedObjectContext::count(const FetchRequest& request, Error* error) {
  FetchRequest r = request;
  r.setResultType(FetchResultType::Count);
  r.setPropertiesToGroupBy({});
  auto raw = execute(r, error);
  if (!raw) return std::nullopt;
  return static_cast<size_t>(raw->at(0).longLongValue());
}

}  // namespace corvane
