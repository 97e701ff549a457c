// Repairs of a package's history: recovery changes written in place of missing or damaged
// change files, a change file moved aside, the files of a change removed.
#include <fmt/format.h>

#include "corvane/cache/cache.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_change.h"
#include "corvane/store/corvane_store.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

// ---- Repairs of the history -------------------------------------------------------------------

Value CorvaneStore::lastCachedChange() const {
  const Value changes = state_->cache->changes();
  return changes.empty() ? Value() : changes.at(changes.count() - 1);
}

bool CorvaneStore::writeRecoveryChange(const std::string& path, const Value& refreshes, Error* error) {
  Value change = Value::mutableDictionary();
  change.set(Value("name"), Value(pathLastComponent(path)));
  change.set(Value("type"), Value(kChangeTypeRecovery));
  if (refreshes.isDictionary()) change.set(Value("refreshes"), refreshes);
  Error failure;
  std::optional<std::string> text = valueToJson(change, JsonStyle::Pretty, &failure);
  std::optional<Bytes> bytes = text ? encrypt(asBytes(*text)) : std::nullopt;
  if (text && !bytes) failure = Error(kCorvaneErrorDomain, -1, "Could not encrypt " + pathLastComponent(path));
  if (bytes && state_->env->createDirectory(pathDeletingLastComponent(path), true, &failure)) {
    ignoreOwnChange(path);
    if (state_->env->writeFileAtomically(path, *bytes, &failure)) return true;
  }
  logError(failure, "CorvaneSaveOperation");
  return setError(error, std::move(failure));
}

bool CorvaneStore::writeFakeChangeToURL(const std::string& path, const Value& refreshes, Error* error) {
  return writeRecoveryChange(path, refreshes, error);
}

bool CorvaneStore::insertChange(const std::string& path, Error* error) {
  if (!writeRecoveryChange(path, Value(), error)) return false;
  updateChanges();
  return true;
}

bool CorvaneStore::discardChange(const std::string& path, Error* error) {
  const std::string fileName = pathLastComponent(path);
  const std::string invalid = pathJoin(url(), "InvalidChanges");
  const std::string moved = pathJoin(invalid, fileName);
  if (!state_->env->createDirectory(invalid, true, error)) return false;
  // An earlier discard of the same name is replaced; when it cannot be, the move below says so.
  if (state_->env->fileExists(moved)) (void)state_->env->removeItem(moved, nullptr);
  ignoreOwnChange(path);
  if (!state_->env->moveItem(path, moved, error)) return false;

  Value discarded;
  if (std::optional<Bytes> bytes = store_internal::readBytes(state_->env, moved)) {
    if (std::optional<Bytes> plain = decrypt(*bytes)) {
      if (std::optional<Value> parsed = jsonToValue(asStringView(*plain)); parsed && parsed->isDictionary()) {
        discarded = *parsed;
      }
    }
  }
  // Every device re-reads the objects the discarded change touched...
  if (!writeRecoveryChange(path, discarded["changes"].isDictionary() ? discarded["changes"] : Value(), error)) {
    return false;
  }
  // ...and finds its applied history different from the folder just before that change, so
  // that it applies everything from there again.
  std::optional<double> date = store_internal::dateFromChangeValue(discarded["date"]);
  if (!date && fileName.size() >= 23) date = state_->dateFormatter.parse(std::string_view(fileName).substr(0, 23));
  if (date) {
    const std::string earlier =
        fmt::format("{}.{}.json", state_->dateFormatter.format(*date - 1.0), state_->env->newUUIDString());
    if (!writeRecoveryChange(pathJoin(changesURL(), earlier), Value(), error)) return false;
  }
  updateChanges();
  return true;
}

void CorvaneStore::removeChange(const Value& change, const Value& objects, bool wasInsert) {
  const std::string& name = change["name"].str();
  for (const auto& [entityName, uids] : objects.entries()) {
    const std::string folder = fileNameForEntityName(entityName.str());
    if (folder.empty()) continue;
    for (const Value& uid : uids.elements()) {
      const std::string objectFolder = pathJoin(pathJoin(entitiesURL(), folder), uid.str());
      // Offered to the host to take a change back by hand: what cannot be deleted stays,
      // unannounced once the change file is gone.
      (void)state_->env->removeItem(wasInsert ? objectFolder : pathJoin(objectFolder, name), nullptr);
    }
  }
}

void CorvaneStore::performMenuItem(const StoreMenuItem& item) {
  // A repair that fails has logged why (and the log shows the entry again at the next pass).
  if (item.action == kStoreMenuActionDiscardChange) {
    (void)discardChange(item.path);
  } else if (item.action == kStoreMenuActionInsertChange) {
    (void)insertChange(item.path);
  } else if (item.action == kStoreMenuActionShowInFinder) {
    revealInFileViewer(item.path);
  }
}

// ---- Helpers for objects ----------------------------------------------------------------------

std::string storeSavePath(const ObjectID& objectID) {
  const EntityDescription* entity = objectID.entity();
  return fmt::format("{}/{}", entity != nullptr ? entity->name() : std::string("(null)"), storeUID(objectID));
}

}  // namespace corvane
