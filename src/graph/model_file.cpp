// Loading an ObjectModel from its JSON model file.
#include <cmath>

#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/object_model.h"

namespace corvane {

namespace {

class ModelReader {
 public:
  explicit ModelReader(Error* error) : error_(error) {}

  std::shared_ptr<ObjectModel> read(const Value& root) {
    if (!root.isDictionary() || !root["entities"].isArray()) {
      fail("the file must be an object with an \"entities\" array");
      return nullptr;
    }
    auto model = std::make_shared<ObjectModel>();
    for (const Value& entry : root["entities"].elements()) {
      if (!readEntity(*model, entry)) return nullptr;
    }
    if (!model->finalize(error_)) return nullptr;
    return model;
  }

 private:
  bool fail(const std::string& message) {
    return setError(error_, Error(kCorvaneErrorDomain, -1, "Invalid object model: " + message));
  }

  // Reads an optional boolean; false (with an error) when present but not a boolean.
  bool readBool(const Value& dict, const char* key, bool fallback, bool* out, const std::string& context) {
    const Value& v = dict[key];
    if (v.isNil()) {
      *out = fallback;
      return true;
    }
    if (!v.isBoolean()) return fail(context + ": \"" + key + "\" must be true or false");
    *out = v.boolValue();
    return true;
  }

  bool readCount(const Value& dict, const char* key, uint32_t* out, const std::string& context) {
    const Value& v = dict[key];
    if (v.isNil()) {
      *out = 0;
      return true;
    }
    if (!v.isNumber() || v.isBoolean() || v.doubleValue() < 0 || v.doubleValue() > 4294967295.0 ||
        v.doubleValue() != std::floor(v.doubleValue())) {
      return fail(context + ": \"" + key + "\" must be a whole number of 0 or more");
    }
    *out = static_cast<uint32_t>(v.longLongValue());
    return true;
  }

  static std::string where(const std::string& entity, const std::string& property = {}) {
    std::string text = "entity \"" + entity + "\"";
    if (!property.empty()) text += ", property \"" + property + "\"";
    return text;
  }

  bool readEntity(ObjectModel& model, const Value& entry) {
    if (!entry.isDictionary() || !entry["name"].isString() || entry["name"].str().empty()) {
      return fail("every entity needs a \"name\"");
    }
    const std::string& name = entry["name"].str();
    EntityDescription& entity = model.addEntity(name);
    bool abstract = false;
    if (!readBool(entry, "abstract", false, &abstract, where(name))) return false;
    entity.setAbstract(abstract);
    const Value& parent = entry["parent"];
    if (parent.isString()) {
      entity.setSuperentityName(parent.str());
    } else if (!parent.isNil() && !parent.isNull()) {
      return fail(where(name) + ": \"parent\" must be an entity name");
    }
    for (const char* key : {"attributes", "relationships"}) {
      const Value& list = entry[key];
      if (!list.isNil() && !list.isArray()) return fail(where(name) + ": \"" + key + "\" must be an array");
    }
    for (const Value& a : entry["attributes"].elements()) {
      if (!readAttribute(entity, a)) return false;
    }
    for (const Value& r : entry["relationships"].elements()) {
      if (!readRelationship(entity, r)) return false;
    }
    return true;
  }

  bool readAttribute(EntityDescription& entity, const Value& entry) {
    if (!entry.isDictionary() || !entry["name"].isString() || entry["name"].str().empty()) {
      return fail(where(entity.name()) + ": every attribute needs a \"name\"");
    }
    const std::string& name = entry["name"].str();
    const std::string context = where(entity.name(), name);
    const Value& typeName = entry["type"];
    auto type = typeName.isString() ? attributeTypeFromName(typeName.str()) : std::nullopt;
    if (!type) return fail(context + ": unknown attribute type \"" + typeName.description() + "\"");
    AttributeDescription& attribute = entity.addAttribute(name, *type);
    bool optional = true;
    if (!readBool(entry, "optional", true, &optional, context)) return false;
    attribute.setOptional(optional);
    const Value& valueClass = entry["valueClass"];
    if (valueClass.isString()) {
      attribute.setValueClassName(valueClass.str());
    } else if (!valueClass.isNil()) {
      return fail(context + ": \"valueClass\" must be a class name");
    }
    const Value& def = entry["default"];
    if (!def.isNil() && !def.isNull()) {
      auto converted = convertDefault(def, *type);
      if (!converted) return fail(context + ": default value does not fit the attribute type");
      attribute.setDefaultValue(*converted);
    }
    return true;
  }

  // Default values come as JSON scalars; turn them into the attribute's value kind.
  static std::optional<Value> convertDefault(const Value& v, AttributeType type) {
    switch (type) {
      case AttributeType::Integer16:
      case AttributeType::Integer32:
      case AttributeType::Integer64: {
        if (!v.isNumber() || v.isBoolean() || v.doubleValue() != std::floor(v.doubleValue())) return std::nullopt;
        NumberKind kind = type == AttributeType::Integer16   ? NumberKind::Short
                          : type == AttributeType::Integer32 ? NumberKind::Int
                                                             : NumberKind::LongLong;
        return Value::number(kind, v.longLongValue());
      }
      case AttributeType::Double:
        if (!v.isNumber() || v.isBoolean()) return std::nullopt;
        return Value::doubleNumber(v.doubleValue());
      case AttributeType::Float:
        if (!v.isNumber() || v.isBoolean()) return std::nullopt;
        return Value::floatNumber(v.floatValue());
      case AttributeType::Decimal: {
        if (v.isString()) {
          auto d = Decimal::fromString(v.str());
          if (!d) return std::nullopt;
          return Value::decimal(*d);
        }
        if (!v.isNumber() || v.isBoolean()) return std::nullopt;
        return Value::decimal(v.decimalValue());
      }
      case AttributeType::Boolean:
        if (!v.isBoolean()) return std::nullopt;
        return v;
      case AttributeType::String:
      case AttributeType::UUID:
        if (!v.isString()) return std::nullopt;
        return v;
      case AttributeType::Date:
        if (!v.isNumber() || v.isBoolean()) return std::nullopt;
        return Value::date(v.doubleValue());
      case AttributeType::URI:
        if (!v.isString()) return std::nullopt;
        return Value::url(v.str());
      case AttributeType::BinaryData:
        return std::nullopt;
      case AttributeType::Transformable:
      case AttributeType::Undefined:
        return v;
    }
    return std::nullopt;
  }

  bool readRelationship(EntityDescription& entity, const Value& entry) {
    if (!entry.isDictionary() || !entry["name"].isString() || entry["name"].str().empty()) {
      return fail(where(entity.name()) + ": every relationship needs a \"name\"");
    }
    const std::string& name = entry["name"].str();
    const std::string context = where(entity.name(), name);
    if (!entry["destination"].isString()) return fail(context + ": \"destination\" must be an entity name");
    RelationshipDescription& r = entity.addRelationship(name, entry["destination"].str());
    if (entry["inverse"].isString()) {
      r.setInverse(entry["inverse"].str());
    } else if (!entry["inverse"].isNil()) {
      return fail(context + ": \"inverse\" must be a relationship name");
    }
    bool toMany = false, ordered = false, optional = true;
    uint32_t minCount = 0, maxCount = 0;
    if (!readBool(entry, "toMany", false, &toMany, context) || !readBool(entry, "ordered", false, &ordered, context) ||
        !readBool(entry, "optional", true, &optional, context) || !readCount(entry, "minCount", &minCount, context) ||
        !readCount(entry, "maxCount", &maxCount, context)) {
      return false;
    }
    r.setToMany(toMany).setOrdered(ordered).setOptional(optional).setMinCount(minCount).setMaxCount(maxCount);
    const Value& rule = entry["deleteRule"];
    if (!rule.isNil()) {
      auto parsed = rule.isString() ? deleteRuleFromName(rule.str()) : std::nullopt;
      if (!parsed) return fail(context + ": unknown delete rule \"" + rule.description() + "\"");
      r.setDeleteRule(*parsed);
    }
    return true;
  }

  Error* error_;
};

}  // namespace

std::shared_ptr<ObjectModel> ObjectModel::fromJSON(std::string_view json, Error* error) {
  Error parseError;
  auto root = jsonToValue(json, &parseError);
  if (!root) {
    setError(error, Error(kCorvaneErrorDomain, -1, "Invalid object model: " + parseError.localizedDescription));
    return nullptr;
  }
  return ModelReader(error).read(*root);
}

std::shared_ptr<ObjectModel> ObjectModel::fromFile(const std::string& path, Error* error, Env* env) {
  if (env == nullptr) env = Env::defaultEnv();
  Bytes bytes;
  if (!env->readFile(path, &bytes, error)) return nullptr;
  return fromJSON(asStringView(bytes), error);
}

}  // namespace corvane
