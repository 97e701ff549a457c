// CorvaneStore: fingerprints for comparing devices (the applied history and the cached content)
// and the repair of entity folders that a sync service duplicated.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "corvane/cache/cache.h"
#include "corvane/cache/cache_item.h"
#include "corvane/foundation/folder_merge.h"
#include "corvane/foundation/log.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"
#include "corvane/store/corvane_store.h"
#include "store/store_state.h"

namespace corvane {

namespace {

constexpr const char* kIncomplete = "incomplete";

void appendLittleEndian64(std::string& out, uint64_t bits) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
}

// The bytes of one attribute value. Every device must produce the same bytes for the same
// value, whatever kind its cache happened to keep a number in: decimals by their exact text,
// other numbers as doubles; byte buffers only by length, so that comparing devices does not
// read every blob.
void appendAttributeValue(std::string& out, const Value& value) {
  if (value.isDate()) {
    // Milliseconds since 2001, truncated toward zero.
    const double ms = std::trunc(value.dateValue() * 1000.0);
    const int64_t whole = std::isfinite(ms) && std::fabs(ms) < 9.2e18 ? static_cast<int64_t>(ms) : 0;
    out += fmt::format("{}", whole);
  } else if (value.isDecimal()) {
    out += value.decimalValue().toString();
  } else if (value.isNumber()) {
    const double d = value.doubleValue();
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    appendLittleEndian64(out, bits);
  } else if (value.isData()) {
    appendLittleEndian64(out, static_cast<uint64_t>(value.bytes().size()));
  } else if (value.isString()) {
    out += value.str();
  } else {
    out += value.description();
  }
}

void appendRelationValue(std::string& out, const Value& value, bool ordered) {
  if (!(value.isSet() || value.isArray() || value.isOrderedSet())) {
    out += value.isString() ? value.str() : value.description();
    return;
  }
  std::vector<std::string> members;
  members.reserve(value.count());
  for (const Value& member : value.elements()) {
    members.push_back(member.isString() ? member.str() : member.description());
  }
  // A set has no order of its own; only an ordered relationship's order is content.
  if (value.isSet() || !ordered) std::sort(members.begin(), members.end());
  for (size_t i = 0; i < members.size(); ++i) {
    if (i > 0) out.push_back(',');
    out += members[i];
  }
}

std::string firstThreeBytesHex(const Bytes& digest) {
  return fmt::format("{:02X}{:02X}{:02X}", digest[0], digest[1], digest[2]);
}

bool lessCaseInsensitive(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) < std::tolower(y);
  });
}

}  // namespace

std::string CorvaneStore::checkSum() const {
  const Value changes = state_->cache->changes();
  std::string names;
  bool first = true;
  for (const Value& change : changes.elements()) {
    if (!first) names.push_back(',');
    first = false;
    const Value& name = change["name"];
    names += name.isString() ? name.str() : name.description();
  }
  return storeMD5String(names).substr(0, 6);
}

Value CorvaneStore::contentChecksum() {
  const std::string before = checkSum();
  Value previous;
  {
    MutexLock lock(&state_->checksums.mutex);
    previous = state_->checksums.content;
    if (!previous.isNil() && state_->checksums.lastCheckSum == before) return previous;
  }
  const double start = state_->env->monotonicNow();

  std::vector<const EntityDescription*> sortedEntities = entities();
  std::sort(sortedEntities.begin(), sortedEntities.end(),
            [](const EntityDescription* a, const EntityDescription* b) { return a->name() < b->name(); });

  std::vector<std::pair<Value, Value>> results;
  bool incomplete = false;
  std::string buffer;
  for (const EntityDescription* entity : sortedEntities) {
    const Value uidSet = state_->cache->objectUIDsForEntity(*entity);
    if (uidSet.count() == 0) continue;
    std::vector<std::string> uids;
    uids.reserve(uidSet.count());
    for (const Value& uid : uidSet.elements())
      if (uid.isString()) uids.push_back(uid.str());
    std::sort(uids.begin(), uids.end());

    std::vector<std::string> attributeNames;
    for (const AttributeDescription* attribute : entity->attributes()) attributeNames.push_back(attribute->name());
    std::sort(attributeNames.begin(), attributeNames.end());
    std::vector<std::pair<std::string, bool>> relationNames;  // name, ordered
    for (const RelationshipDescription* relationship : entity->relationships())
      relationNames.emplace_back(relationship->name(), relationship->isOrdered());
    std::sort(relationNames.begin(), relationNames.end());

    // The entity's bytes are gathered and digested once: the same digest as feeding them piece
    // by piece.
    buffer.clear();
    bool entityComplete = true;
    for (const std::string& uid : uids) {
      CorvaneCacheItemPtr item = state_->cache->cacheItemForObjectID(newObjectIDForEntity(entity, Value(uid)), nullptr);
      if (!item) {
        entityComplete = false;
        break;
      }
      buffer += uid;
      const Value attributes = item->attributes();
      for (const std::string& name : attributeNames) {
        const Value& value = attributes[name];
        if (value.isNil() || value.isNull()) continue;
        buffer += name;
        appendAttributeValue(buffer, value);
      }
      const Value relations = item->relations();
      for (const auto& [name, ordered] : relationNames) {
        const Value& value = relations[name];
        if (value.isNil()) continue;
        buffer += name;
        appendRelationValue(buffer, value, ordered);
      }
    }
    if (!entityComplete) {
      incomplete = true;
      results.emplace_back(Value(entity->name()), Value(kIncomplete));
      continue;
    }
    results.emplace_back(Value(entity->name()), Value(firstThreeBytesHex(md5(asBytes(buffer)))));
  }
  Value result = Value::dictionary(std::move(results));

  if (checkSum() != before) {
    logLine("contentChecksum discarded — cache changed during computation");
    return previous.isNil() ? result : previous;
  }
  if (incomplete) {
    logLine("contentChecksum incomplete — cache items still building");
    return result;
  }
  {
    MutexLock lock(&state_->checksums.mutex);
    state_->checksums.content = result;
    state_->checksums.lastCheckSum = before;
  }
  logLine(fmt::format("contentChecksum took {:.0f}ms for {} entities", (state_->env->monotonicNow() - start) * 1000.0,
                      result.count()));
  return result;
}

void CorvaneStore::fixSyncConflicts() {
  std::vector<std::string> known;
  for (const EntityDescription* entity : entities()) {
    std::string folder = fileNameForEntityName(entity->name());
    if (!folder.empty()) known.push_back(std::move(folder));
  }
  std::sort(known.begin(), known.end(), lessCaseInsensitive);

  const std::string root = entitiesURL();
  std::vector<std::string> entries;
  if (root.empty() || !state_->env->listDirectory(root, true, &entries, nullptr)) return;
  for (const std::string& entry : entries) {
    if (std::find(known.begin(), known.end(), entry) != known.end()) continue;
    // Longer names sharing a beginning come later in the order: "PersonGroup 2" belongs to
    // PersonGroup, not to Person.
    for (auto it = known.rbegin(); it != known.rend(); ++it) {
      if (entry.compare(0, it->size(), *it) != 0) continue;
      logLine(fmt::format("{} -> {}", entry, *it));
      // With an error the duplicate stays where it is, partly merged: its files are another
      // device's saves, and a later repair finishes the move.
      Error error;
      corvaneMergeContentsOfPath(state_->env, pathJoin(root, entry), pathJoin(root, *it), &error);
      if (!error.empty()) logError(error, "fixSyncConflicts");
      break;
    }
  }
}

}  // namespace corvane
