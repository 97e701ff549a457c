// StoreDiagnostics: the history of one object, built from its own change files for display.
#include <fmt/format.h>

#include <algorithm>

#include "corvane/foundation/date_format.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/object_id.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_diagnostics.h"
#include "store/store_internal.h"

namespace corvane {

namespace {

// The path of an object ID's URI ("/Entity/pUID" of "x-coredata://STORE/Entity/pUID").
std::string uriPath(const std::string& uri) {
  const size_t scheme = uri.find("://");
  if (scheme == std::string::npos) return uri;
  const size_t slash = uri.find('/', scheme + 3);
  return slash == std::string::npos ? std::string() : uri.substr(slash);
}

}  // namespace

Value StoreDiagnostics::changesHistoryForObjectID(const ObjectID& objectID, ManagedObjectContext* context) const {
  const EntityDescription* entity = objectID.entity();
  std::vector<std::string> files;
  if (entity != nullptr) {
    const std::string uid = store_.uidForObjectID(objectID, context);
    if (!uid.empty()) files = store_.changesFilesFor(*entity, uid);
  }

  std::vector<Value> paths(files.begin(), files.end());
  Value head = dict({{"name", Value("Object")},
                     {"value", Value(uriPath(objectID.uriRepresentation()))},
                     {"paths", Value::array(std::move(paths))}});

  auto readRecord = [this](const std::string& path) -> std::optional<Value> {
    std::optional<Bytes> bytes = store_internal::readBytes(store_.env(), path);
    if (!bytes) return std::nullopt;
    std::optional<Bytes> plain = store_.decrypt(*bytes);
    if (!plain) return std::nullopt;
    std::optional<Value> parsed = jsonToValue(asStringView(*plain));
    if (!parsed || !parsed->isDictionary()) return std::nullopt;
    return parsed;
  };

  std::vector<std::pair<double, Value>> rows;
  const std::string changesFolder = store_.changesURL();
  for (const std::string& file : files) {
    const std::string changePath = pathJoin(changesFolder, pathLastComponent(file));
    std::optional<Value> change = readRecord(changePath);
    if (!change || (*change)["changes"].count() == 0) continue;

    const Value& session = (*change)["session"];
    const Value& version = session["version"];
    auto text = [](const Value& v) {
      return v.isString() ? v.str() : (v.isNil() ? std::string("(null)") : v.description());
    };
    const std::string value =
        version.isNil()
            ? fmt::format("{} ({})", text(session["fullUserName"]), text(session["machineName"]))
            : fmt::format("{} ({}, {})", text(session["fullUserName"]), text(session["machineName"]), text(version));
    const std::optional<double> date = store_internal::dateFromChangeValue((*change)["date"]);

    Value row = Value::mutableDictionary();
    if (!version.isNil()) row.set(Value("version"), version);
    row.set(Value("value"), Value(value));
    if (date) {
      row.set(Value("date"), Value::date(*date));
      row.set(Value("name"), Value(displayDateString(*date, DateStyle::Medium, DateStyle::Medium, store_.env())));
    } else {
      row.set(Value("name"), Value("(null)"));
    }
    row.set(Value("URL"), Value(changePath));

    std::vector<Value> children;
    if (std::optional<Value> object = readRecord(file)) {
      const Value& payload = (*object)["payload"];
      if (payload.isDictionary()) {
        for (const auto& [key, entry] : payload.entries()) {
          if (entry.isNil()) continue;
          children.push_back(dict({{"name", key}, {"value", entry}}));
        }
      }
    }
    row.set(Value("children"), Value::array(std::move(children)));
    rows.emplace_back(date.value_or(-1e300), row.copy());
  }
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first > b.first; });

  std::vector<Value> result;
  result.reserve(rows.size() + 1);
  result.push_back(std::move(head));
  for (auto& [date, row] : rows) result.push_back(std::move(row));
  return Value::array(std::move(result));
}

}  // namespace corvane
