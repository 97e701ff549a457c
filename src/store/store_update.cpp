// CorvaneStore: the update pass that applies change files the cache has not seen, their
// validation, and the refreshing of open contexts.
#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

#include "corvane/cache/cache.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"
#include "corvane/graph/undo_manager.h"
#include "corvane/security/digest.h"
#include "corvane/store/collection_merge.h"
#include "corvane/store/corvane_change.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_internal.h"
#include "store/store_state.h"

namespace corvane {

using store_internal::readBytes;

// The state of one update pass, shared between the read queue and the main run loop.
struct CorvaneStore::Pass {
  std::vector<std::string> names;  // the change files, sorted
  size_t start = 0;                // the first one the cache has not applied
  // The cache was emptied for this pass: nothing it holds came from anywhere else, so the pass
  // folds each change's object files into the items as it reads them instead of letting every
  // object be read again later.
  bool replay = false;
  std::function<void(bool)> completion;
  Value inserted = Value::mutableDictionary();
  Value updated = Value::mutableDictionary();
  Value deleted = Value::mutableDictionary();
  bool missing = false;
  bool notOnDisk = false;
  // Objects whose item cannot be built by folding any more (a file failed); read from files.
  std::unordered_set<std::string> unfoldable;
};

// ---- Scheduling ---------------------------------------------------------------------------------

void CorvaneStore::scheduleUpdate(double delay) {
  MutexLock lock(&state_->updates.tokensMutex);
  state_->updates.updateToken.cancel();
  state_->updates.updateToken = state_->mainLoop->postAfter(delay, guarded([this] { updateChanges(); }));
}

void CorvaneStore::invalidatePaths(const std::vector<std::string>& paths) {
  if (paths.empty() || isClosed()) return;  // a closed store ignores other devices
  MutexLock lock(&state_->updates.tokensMutex);
  state_->updates.processToken.cancel();
  state_->updates.processToken =
      state_->mainLoop->postAfter(state_->updates.debounceDelay, guarded([this] { processChanges(); }));
}

// observeDirectory() and unobserveDirectory() are in store_watch.cpp.

void CorvaneStore::updateChanges() {
  // One atomic step: the cache's binding calls this off the main thread, and a test followed by
  // a set would let two callers start a pass each.
  if (state_->updates.updating.exchange(true)) {
    log("Update in progress: Abort and trying again in some seconds", kCorvaneLogTypeWarning);
    scheduleUpdate(state_->updates.retryDelay);
    return;
  }
  const double start = state_->env->monotonicNow();
  updateChangesWithCompletion([this, start](bool success) {
    if (success) {
      if (state_->cache->changeLog()) {
        log(fmt::format("File: {} up to date after {:.2f} seconds", documentIdentifier(),
                        state_->env->monotonicNow() - start),
            kCorvaneLogTypeSuccess);
        log(fmt::format("Checksum: {}", checkSum()), kCorvaneLogTypeSuccess);
        NotificationCenter::defaultCenter().post(kCorvaneDidFinishLoadingNotification, this);
      } else {
        scheduleUpdate(state_->updates.retryDelay);
      }
      state_->cache->cacheMissingItems();
    } else {
      log("Missing files: Abort and trying again in some seconds", kCorvaneLogTypeWarning);
      scheduleUpdate(state_->updates.retryDelay);
    }
    state_->updates.updating = false;
    onMain([this] {
      ++state_->updates.finishedPasses;
      NotificationCenter::defaultCenter().post(kCorvaneReadyNotification);
    });
  });
}

void CorvaneStore::updateChangesWithCompletion(std::function<void(bool)> completion) {
  const std::string folder = changesURL();
  std::vector<std::string> listed;
  if (folder.empty() || !state_->env->listDirectory(folder, true, &listed, nullptr)) {
    log("No change files found", kCorvaneLogTypeSuccess);
    completion(true);
    return;
  }
  auto pass = std::make_shared<Pass>();
  for (std::string& name : listed) {
    if (store_internal::hasJSONExtension(name)) pass->names.push_back(std::move(name));
  }
  std::sort(pass->names.begin(), pass->names.end());
  state_->updates.changesFileCount = pass->names.size();
  if (const std::string upTo = upToChange(); !upTo.empty()) {
    auto last = std::find(pass->names.begin(), pass->names.end(), upTo);
    if (last != pass->names.end()) pass->names.erase(last + 1, pass->names.end());
  }

  // Files are recognised by name alone: the first one that the log lacks, or that differs from
  // the log at its place, starts the pass, and the log forgets everything from there.
  const Value applied = state_->cache->changes();
  const size_t count = pass->names.size();
  size_t start = count;
  for (size_t i = 0; i < count; ++i) {
    if (i >= applied.count() || applied.at(i)["name"].str() != pass->names[i]) {
      start = i;
      break;
    }
  }
  if (start == count) {
    log("No new changes to apply", kCorvaneLogTypeSuccess);
    completion(true);
    return;
  }
  pass->start = start;
  pass->completion = std::move(completion);
  if (start >= applied.count() || recover()) {
    beginPass(pass);
    return;
  }
  std::vector<std::string> forgotten;
  for (size_t i = start; i < applied.count(); ++i) forgotten.push_back(applied.at(i)["name"].str());
  state_->updates.readQueue.async(
      [this, pass, forgotten = std::move(forgotten)] { checkBeforeForgetting(pass, forgotten); });
}

// A change that arrived out of order makes the log forget the changes after its place and apply
// them again. Forgetting them is safe only if the pass can get past every new change that sorts
// before them: a pass that stopped on a change still in transit would leave the objects of the
// forgotten changes half there (known, but with none of their files counted as applied) until
// the file arrived. So the new changes are checked first, quietly; one that would stop the pass
// is reported as the pass would report it, and the cache stays as it is until the next try.
void CorvaneStore::checkBeforeForgetting(const std::shared_ptr<Pass>& pass, const std::vector<std::string>& forgotten) {
  const std::unordered_set<std::string> old(forgotten.begin(), forgotten.end());
  size_t last = pass->start;  // one past the last forgotten change that is still in the folder
  for (size_t i = pass->start; i < pass->names.size(); ++i) {
    if (old.contains(pass->names[i])) last = i + 1;
  }
  for (size_t i = pass->start; i < last && !state_->updates.closed; ++i) {
    if (old.contains(pass->names[i])) continue;
    Pass quiet;
    if (readChange(quiet, pass->names[i], false).outcome == ChangeReading::Apply && !quiet.missing) continue;
    (void)readChange(*pass, pass->names[i], true);
    onMain([this, pass] {
      state_->updates.hasRemoteFiles = pass->notOnDisk;
      pass->completion(false);
    });
    return;
  }
  onMain([this, pass] { beginPass(pass); });
}

// Forgets what the log holds from the pass's start on (everything, by emptying the cache, when
// that is the first change) and applies the files from there on the read queue.
void CorvaneStore::beginPass(const std::shared_ptr<Pass>& pass) {
  const Value applied = state_->cache->changes();
  if (pass->start < applied.count()) {
    std::vector<Value> kept(applied.elements().begin(), applied.elements().begin() + static_cast<long>(pass->start));
    if (auto changeLog = state_->cache->changeLog()) changeLog->setContent(Value::array(std::move(kept)));
    state_->cache->updateChangeNames();
  }
  if (pass->start == 0) state_->cache->reset();
  pass->replay = pass->start == 0;
  state_->updates.readQueue.async([this, pass] { runPass(pass); });
}

// Reads, decrypts, parses and validates one change file of a pass, logging each problem with its
// repair menu when `report` is set. Apply: the change goes into the cache (in recovery mode even a
// damaged one, as an empty change). Stop: the pass ends here. Invalid: validation refused it.
CorvaneStore::ChangeRead CorvaneStore::readChange(Pass& pass, const std::string& fileName, bool report) {
  ChangeRead read;
  const std::string folder = changesURL();
  const bool recovering = recover();
  const std::string path = pathJoin(folder, fileName);
  const std::string shortPath = report ? shortURL(path) : std::string();
  const StoreMenuItem ignore{"Ignore", kStoreMenuActionDiscardChange, path};
  const StoreMenuItem show{"Show in Finder", kStoreMenuActionShowInFinder, path};
  auto say = [&](const std::string& message, const char* type, const Value& change, std::vector<StoreMenuItem> menu) {
    if (report) log(message, type, change, std::move(menu));
  };

  if (!state_->volumes->isOnDisk(state_->env, path)) {
    say(fmt::format("Change file is not on disk: {}", shortPath), kCorvaneLogTypeError, Value(), {});
    pass.missing = true;
    pass.notOnDisk = true;
  }
  Value change;
  bool damaged = false;
  if (std::optional<Bytes> bytes = readBytes(state_->env, path); !bytes) {
    say(fmt::format("Missing change file: {}", shortPath), kCorvaneLogTypeWarning, Value(), {ignore});
    pass.missing = true;
    if (!recovering) return read.as(ChangeReading::Stop);
    damaged = true;
  } else if (std::optional<Bytes> plain = decrypt(*bytes); !plain) {
    say(fmt::format("Could not decrypt change file: {}", shortPath), kCorvaneLogTypeWarning, Value(), {ignore});
    pass.missing = true;
    if (!recovering) return read.as(ChangeReading::Stop);
    say(fmt::format("Incomplete change file: {}", shortPath), kCorvaneLogTypeWarning, Value(), {ignore, show});
    damaged = true;
  } else if (std::optional<Value> parsed = jsonToValue(asStringView(*plain)); !parsed || !parsed->isDictionary()) {
    say(fmt::format("Incomplete change file: {}", shortPath), kCorvaneLogTypeWarning, Value(), {ignore, show});
    pass.missing = true;
    if (!recovering) return read.as(ChangeReading::Stop);
    damaged = true;
  } else if (std::optional<std::string> bad = store_internal::nonPlainNameInChange(*parsed)) {
    // A name that would lead out of its folder: the file is damaged, whoever wrote it, and none
    // of its names is used.
    if (report) reportNonPlainName(path, *bad, *parsed);
    if (!recovering) return read.as(ChangeReading::Invalid);
    damaged = true;
  } else {
    change = *parsed;
  }
  if (damaged) {
    // Recovering goes on past the file: it counts as applied, with nothing in it, so that the
    // history keeps its place; its objects are read from their files from now on.
    change = dict({{"name", Value(fileName)}});
    pass.replay = false;
  }
  read.change = change;

  if (const Value& previous = change["previousName"]; previous.isString()) {
    if (change["name"].str() < previous.str() && report) {
      log(fmt::format("Date inconsistency in change file: {}. Use the menu File/Save as and create a new file.",
                      change["name"].str()),
          kCorvaneLogTypeError, change);
      setErrorLevel(kCorvaneLogTypeError);
    }
    const std::string previousPath = pathJoin(folder, previous.str());
    if (!state_->env->fileExists(previousPath)) {
      say(fmt::format("Missing change file: {}", previous.str()), kCorvaneLogTypeWarning, change,
          {StoreMenuItem{"Ignore", kStoreMenuActionInsertChange, previousPath}, show});
      pass.missing = true;
      if (!recovering) return read.as(ChangeReading::Stop);
    }
  }
  ValidatedChange validated = validateChange(change, false, report);
  read.combined = std::move(validated.combined);
  read.parsedObjects = std::move(validated.parsedObjects);
  return read.as(validated.valid ? ChangeReading::Apply : ChangeReading::Invalid);
}

void CorvaneStore::runPass(const std::shared_ptr<Pass>& pass) {
  for (size_t i = pass->start; i < pass->names.size() && !state_->updates.closed; ++i) {
    ChangeRead read = readChange(*pass, pass->names[i], true);
    if (read.outcome == ChangeReading::Stop) break;
    if (read.outcome == ChangeReading::Invalid) {
      onMain([pass] { pass->completion(false); });
      return;
    }
    setErrorLevel(kCorvaneLogTypeSuccess);
    const Value& change = read.change;
    const bool recovery = change["type"] == Value(kChangeTypeRecovery);
    const Value& content = recovery ? change["refreshes"] : change["changes"];
    if (content["insert"].isDictionary()) mergeWithDictionary(pass->inserted, content["insert"]);
    if (content["update"].isDictionary()) mergeWithDictionary(pass->updated, content["update"]);
    if (content["delete"].isDictionary()) mergeWithDictionary(pass->deleted, content["delete"]);
    if (recovery || pass->replay) foldReplayedChange(*pass, change, content, read.parsedObjects);
    const bool external = !pass->replay;
    onMain([this, change, external] { state_->cache->addChange(change, external); });
  }
  const bool recovering = recover();
  onMain([this, pass] { refreshInsertedObjects(pass->inserted, pass->updated, pass->deleted); });
  onMain([this, pass, recovering] {
    state_->updates.hasRemoteFiles = pass->notOnDisk;
    pass->completion(recovering || !(pass->missing || pass->notOnDisk));
  });
}

void CorvaneStore::foldReplayedChange(Pass& pass, const Value& change, const Value& content,
                                      const Value& parsedObjects) {
  auto forEachObject = [this](const Value& byEntity, const auto& visit) {
    for (const auto& [entityName, byUID] : byEntity.entries()) {
      const EntityDescription* entity = entityForName(entityName.str());
      if (entity == nullptr || !byUID.isDictionary()) continue;
      for (const auto& entry : byUID.entries()) {
        ObjectID id = newObjectIDForEntity(entity, entry.first);
        if (id) visit(*entity, entry.first.str(), id);
      }
    }
  };
  const std::string& name = change["name"].str();
  if (change["type"] == Value(kChangeTypeRecovery)) {
    // The objects of a discarded change are read from their files again.
    for (const char* type : {kChangeTypeInsert, kChangeTypeUpdate, kChangeTypeDelete}) {
      forEachObject(content[type], [&](const EntityDescription& entity, const std::string& uid, const ObjectID& id) {
        state_->cache->removeObjectID(id);
        pass.unfoldable.insert(entity.name() + "/" + uid);
      });
    }
    return;
  }
  for (const char* type : {kChangeTypeInsert, kChangeTypeUpdate}) {
    forEachObject(content[type], [&](const EntityDescription& entity, const std::string& uid, const ObjectID& id) {
      const std::string key = entity.name() + "/" + uid;
      if (pass.unfoldable.contains(key)) return;
      const std::string file = pathJoin(pathJoin(pathJoin(entitiesURL(), fileNameForEntity(entity)), uid), name);
      Value values = parsedObjects[key];
      if (!values.isDictionary()) {
        // Validation skips the inserts of an entity that the change also updates.
        if (std::optional<Bytes> bytes = readBytes(state_->env, file)) {
          if (std::optional<Bytes> plain = decrypt(*bytes)) {
            if (std::optional<Value> parsed = jsonToValue(asStringView(*plain)); parsed && parsed->isDictionary()) {
              values = *parsed;
            }
          }
        }
      }
      bool folded = false;
      if (values.isDictionary()) {
        try {
          state_->cache->updateCacheForObjectID(id, values, file);
          folded = true;
        } catch (const Exception& e) {
          log(e.name() + ": " + e.reason(), kCorvaneLogTypeError);
        }
      }
      if (!folded) {
        state_->cache->removeObjectID(id);
        pass.unfoldable.insert(key);
      }
    });
  }
  forEachObject(content[kChangeTypeDelete], [&](const EntityDescription&, const std::string&, const ObjectID& id) {
    state_->cache->removeObjectID(id);
  });
}

// ---- Validation ---------------------------------------------------------------------------------

Value CorvaneStore::combineChangeDictionary(const Value& updates, const Value& inserts) {
  Value combined = store_internal::mutableDictionaryCopy(updates);
  for (const auto& [entityName, byUID] : inserts.entries()) {
    if (combined.get(entityName).isNil()) {
      Value entry = Value::mutableDictionary();
      for (const auto& [uid, record] : byUID.entries()) entry.set(uid, record);
      combined.set(entityName, entry);
    }
    // An entity with updates keeps only them: its inserted objects go unchecked, as every
    // device has always done, so that all devices agree on which changes pass.
  }
  return combined;
}

Value CorvaneStore::validatedChanges(const Value& change, bool lightWeight) {
  ValidatedChange validated = validateChange(change, lightWeight, true);
  return validated.valid ? validated.combined : Value();
}

CorvaneStore::ValidatedChange CorvaneStore::validateChange(const Value& change, bool lightWeight, bool report) {
  const Value& changes = change["changes"];
  ValidatedChange result{false, combineChangeDictionary(changes["update"], changes["insert"]),
                         Value::mutableDictionary()};
  if (change["name"].isNil()) {
    if (report) log(fmt::format("Change incomplete {}", change.description()), kCorvaneLogTypeError);
    return result;
  }
  // Every name below becomes part of a path; a change with one that is not a plain file name is
  // refused even when recovering, since recovering would apply it.
  if (std::optional<std::string> bad = store_internal::nonPlainNameInChange(change)) {
    result.combined = Value::mutableDictionary();
    if (report) reportNonPlainName(std::string(), *bad, change);
    return result;
  }
  const std::string& name = change["name"].str();
  const std::string changePath = pathJoin(changesURL(), name);
  const std::string shortChange = shortURL(changePath);
  const bool recovering = recover();
  if (report) log(fmt::format("Begin validation {}", shortChange), kCorvaneLogTypeSuccess);
  const std::vector<StoreMenuItem> menu = {{"Ignore", kStoreMenuActionDiscardChange, changePath},
                                           {"Show in Finder", kStoreMenuActionShowInFinder, changePath}};
  bool failed = false;
  // Records a failure; answers whether validation stops here.
  auto fail = [&](const std::string& message, const char* type) {
    if (report) {
      log(message, type, change, menu);
      setErrorLevel(kCorvaneLogTypeWarning);
    }
    failed = true;
    return !recovering;
  };
  const std::string entities = entitiesURL();
  // One object's file; true when its failure stops validation.
  auto objectFileStops = [&](const std::string& entityName, const std::string& uid, const std::string& objectFile) {
    const std::string shortFile = shortURL(objectFile);
    std::optional<FileAttributes> attributes = state_->env->attributes(objectFile);
    if (!attributes) return fail(fmt::format("Missing file: {}", shortFile), kCorvaneLogTypeWarning);
    if (!state_->volumes->isOnDisk(state_->env, objectFile)) {
      return fail(fmt::format("File not on disk: {}", shortFile), kCorvaneLogTypeError);
    }
    if (attributes->size == 0) return fail(fmt::format("Empty file: {}", shortFile), kCorvaneLogTypeWarning);
    std::optional<Bytes> bytes = readBytes(state_->env, objectFile);
    if (!bytes) return fail(fmt::format("Missing file: {}", shortFile), kCorvaneLogTypeWarning);
    std::optional<Bytes> plain = decrypt(*bytes);
    if (!plain) {
      // Reported, but the other files are still checked.
      if (report) {
        log(fmt::format("Decryption error on file: {} {}", entityName, shortFile), kCorvaneLogTypeWarning, change);
        setErrorLevel(kCorvaneLogTypeWarning);
      }
      failed = true;
      return false;
    }
    std::optional<Value> parsed = jsonToValue(asStringView(*plain));
    if (!parsed || !parsed->isDictionary()) {
      return fail(fmt::format("Incomplete file: {}", shortFile), kCorvaneLogTypeWarning);
    }
    result.parsedObjects.set(Value(entityName + "/" + uid), *parsed);
    return false;
  };
  // One data file named by an object's record; true when its failure stops validation.
  auto dataFileStops = [&](const std::string& objectFolder, const Value& data) {
    const int64_t length = data["length"].longLongValue();
    if (length == 0) return false;
    const std::string dataFile = correctedDataURL(pathJoin(pathJoin(objectFolder, "Data"), data["name"].str()));
    const std::string shortData = shortURL(dataFile);
    std::optional<FileAttributes> attributes = state_->env->attributes(dataFile);
    if (!attributes || !state_->volumes->isOnDisk(state_->env, dataFile)) {
      return fail(fmt::format("Data file is not on disk: {}", shortData), kCorvaneLogTypeError);
    }
    if (static_cast<int64_t>(attributes->size) != length) {
      return fail(fmt::format("Missing or incomplete data file: {}", shortData), kCorvaneLogTypeWarning);
    }
    if (data["hash"].isString() && !lightWeight) {
      std::optional<Bytes> bytes = readBytes(state_->env, dataFile);
      if (!bytes || corvaneSHA256HexDigest(*bytes) != data["hash"].str()) {
        return fail(fmt::format("Hash mismatch for data file: {}", shortData), kCorvaneLogTypeWarning);
      }
    }
    return false;
  };
  // Every object's file and data files, until a failure stops validation.
  [&] {
    for (const auto& [entityName, byUID] : result.combined.entries()) {
      if (report) log(fmt::format("Begin validation of {}", entityName.str()), kCorvaneLogTypeSuccess);
      const std::string folder = fileNameForEntityName(entityName.str());
      if (folder.empty()) continue;
      for (const auto& [uid, record] : byUID.entries()) {
        const std::string objectFolder = pathJoin(pathJoin(entities, folder), uid.str());
        if (!lightWeight && objectFileStops(entityName.str(), uid.str(), pathJoin(objectFolder, name))) return;
        for (const Value& data : record["data"].elements()) {
          if (dataFileStops(objectFolder, data)) return;
        }
      }
    }
  }();
  if (failed) {
    if (report) {
      log(fmt::format("Failed validation {}", shortChange), kCorvaneLogTypeError, change);
      setErrorLevel(kCorvaneLogTypeError);
    }
    result.valid = recovering;
    return result;
  }
  if (report) {
    log(fmt::format("Completed validation {}", shortChange), kCorvaneLogTypeSuccess);
    setErrorLevel(kCorvaneLogTypeSuccess);
  }
  result.valid = true;
  return result;
}

std::vector<ChangeWaitingForFiles> CorvaneStore::changesWaitingForFiles() {
  std::vector<ChangeWaitingForFiles> waiting;
  const std::string folder = changesURL();
  std::vector<std::string> names;
  if (folder.empty() || !state_->env->listDirectory(folder, true, &names, nullptr)) return waiting;
  std::unordered_set<std::string> applied;
  const Value known = state_->cache->changes();
  for (const Value& change : known.elements()) applied.insert(change["name"].str());
  std::sort(names.begin(), names.end());
  const std::string entities = entitiesURL();
  for (const std::string& name : names) {
    if (!store_internal::hasJSONExtension(name) || applied.contains(name)) continue;
    std::optional<Bytes> bytes = readBytes(state_->env, pathJoin(folder, name));
    std::optional<Bytes> plain = bytes ? decrypt(*bytes) : std::nullopt;
    std::optional<Value> change = plain ? jsonToValue(asStringView(*plain)) : std::nullopt;
    // A change that names paths outside its folders is damaged, not waiting.
    if (!change || !change->isDictionary() || store_internal::nonPlainNameInChange(*change)) continue;
    const Value& changes = (*change)["changes"];
    const Value combined = combineChangeDictionary(changes["update"], changes["insert"]);
    ChangeWaitingForFiles entry;
    entry.name = name;
    entry.machineName = (*change)["session"]["machineName"].isString() ? (*change)["session"]["machineName"].str() : "";
    entry.fullUserName =
        (*change)["session"]["fullUserName"].isString() ? (*change)["session"]["fullUserName"].str() : "";
    auto there = [this](const std::string& path, std::optional<int64_t> length) {
      std::optional<FileAttributes> attributes = state_->env->attributes(path);
      if (!attributes || !state_->volumes->isOnDisk(state_->env, path)) return false;
      return length ? static_cast<int64_t>(attributes->size) == *length : attributes->size > 0;
    };
    for (const auto& [entityName, byUID] : combined.entries()) {
      const std::string entityFolder = fileNameForEntityName(entityName.str());
      if (entityFolder.empty() || !byUID.isDictionary()) continue;
      for (const auto& [uid, record] : byUID.entries()) {
        entry.objects.push_back(entityName.str() + "/" + uid.str());
        const std::string objectFolder = pathJoin(pathJoin(entities, entityFolder), uid.str());
        if (const std::string objectFile = pathJoin(objectFolder, name); !there(objectFile, std::nullopt)) {
          entry.missingFiles.push_back(shortURL(objectFile));
        }
        for (const Value& data : record["data"].elements()) {
          const int64_t length = data["length"].longLongValue();
          if (length == 0) continue;
          const std::string dataFile = correctedDataURL(pathJoin(pathJoin(objectFolder, "Data"), data["name"].str()));
          if (!there(dataFile, length)) entry.missingFiles.push_back(shortURL(dataFile));
        }
      }
    }
    if (!entry.missingFiles.empty()) waiting.push_back(std::move(entry));
  }
  return waiting;
}

void CorvaneStore::reportNonPlainName(const std::string& changePath, const std::string& name, const Value& change) {
  const std::string shortChange = changePath.empty() ? change["name"].description() : shortURL(changePath);
  std::vector<StoreMenuItem> menu;
  if (!changePath.empty()) {
    menu = {{"Ignore", kStoreMenuActionDiscardChange, changePath},
            {"Show in Finder", kStoreMenuActionShowInFinder, changePath}};
  }
  log(fmt::format("Invalid file name in change file: {} {}", shortChange, name), kCorvaneLogTypeWarning, change,
      std::move(menu));
  setErrorLevel(kCorvaneLogTypeWarning);
  log(fmt::format("Failed validation {}", shortChange), kCorvaneLogTypeError, change);
  setErrorLevel(kCorvaneLogTypeError);
}

std::string CorvaneStore::correctedDataURL(const std::string& path) {
  if (state_->env->fileExists(path)) return path;
  // A sync service that met two versions keeps one under a longer name ("<name> (1)").
  const std::string folder = pathDeletingLastComponent(path);
  const std::string name = pathLastComponent(path);
  std::vector<std::string> entries;
  if (!state_->env->listDirectory(folder, false, &entries, nullptr)) return path;
  for (const std::string& entry : entries) {
    if (entry.size() > name.size() && entry.compare(0, name.size(), name) == 0) return pathJoin(folder, entry);
  }
  return path;
}

// ---- Refreshing contexts ------------------------------------------------------------------------

void corvaneRefreshObject(ManagedObjectContext& context, ManagedObject* object, CorvaneStore& store) {
  if (object == nullptr) return;
  store.cache()->removeObjectID(object->objectID());
  CorvaneManagedObjectContext::ExternalMerge merging(dynamic_cast<CorvaneManagedObjectContext*>(&context));
  context.refreshObject(object, true);
}

std::shared_ptr<CorvaneManagedObjectContext> CorvaneManagedObjectContext::create(ConcurrencyType type) {
  return std::make_shared<CorvaneManagedObjectContext>(type);
}

void CorvaneStore::refreshInsertedObjects(const Value& inserted, const Value& updated, const Value& deleted) {
  if (state_->updates.closed) return;
  for (const std::shared_ptr<ManagedObjectContext>& context : contexts()) {
    if (dynamic_cast<CorvaneManagedObjectContext*>(context.get()) == nullptr) continue;
    std::shared_ptr<PersistentStoreCoordinator> coordinator = context->persistentStoreCoordinator();
    if (!coordinator || coordinator->persistentStores().empty()) continue;
    Value userInfo;
    context->performAndWait([&] {
      // Nobody can undo another device's edit.
      UndoManager::DisabledRegistration noUndo(context->undoManager());
      std::unordered_set<ObjectID, ObjectIDHash> refreshed;
      auto collect = [&](const Value& byEntity, Value& into, bool refresh) {
        for (const auto& [entityName, byUID] : byEntity.entries()) {
          const EntityDescription* entity = context->entity(entityName.str());
          if (entity == nullptr) continue;
          for (const auto& entry : byUID.entries()) {
            ObjectID id = newObjectIDForEntity(entity, entry.first);
            if (!id) continue;
            Retained<ManagedObject> object = context->objectWithID(id);
            if (refresh && refreshed.insert(id).second) corvaneRefreshObject(*context, object.get(), *this);
            into.append(Value::object(object.get()));
          }
        }
      };
      Value insertedObjects = Value::mutableSet();
      Value updatedObjects = Value::mutableSet();
      Value deletedObjects = Value::mutableSet();
      collect(inserted, insertedObjects, true);
      collect(updated, updatedObjects, true);
      collect(deleted, deletedObjects, false);
      for (const Value& gone : deletedObjects.elements()) insertedObjects.remove(gone);
      if (insertedObjects.empty() && updatedObjects.empty() && deletedObjects.empty()) return;
      userInfo = dict({{kInsertedObjectsKey, insertedObjects.copy()},
                       {kDeletedObjectsKey, deletedObjects.copy()},
                       {kUpdatedObjectsKey, updatedObjects.copy()}});
    });
    if (userInfo.isNil()) continue;
    NotificationCenter& center = NotificationCenter::defaultCenter();
    center.post(kCorvaneObjectsWillChangeExternallyNotification, context.get(), userInfo);
    center.post(kCorvaneObjectsChangedInManagingContextNotification, context.get(), userInfo);
    center.post(kCorvaneObjectsDidChangeExternallyNotification, context.get(), userInfo);
    if (state_->environment->documentNotifier) state_->environment->documentNotifier(context.get(), userInfo);
  }
}

}  // namespace corvane
