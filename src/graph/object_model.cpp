#include "corvane/graph/object_model.h"

#include <functional>
#include <unordered_set>

namespace corvane {

namespace {

struct TypeEntry {
  std::string_view name;
  AttributeType type;
  std::string_view valueClass;
};

constexpr TypeEntry kTypes[] = {
    {"integer16", AttributeType::Integer16, "NSNumber"},
    {"integer32", AttributeType::Integer32, "NSNumber"},
    {"integer64", AttributeType::Integer64, "NSNumber"},
    {"decimal", AttributeType::Decimal, "NSDecimalNumber"},
    {"double", AttributeType::Double, "NSNumber"},
    {"float", AttributeType::Float, "NSNumber"},
    {"string", AttributeType::String, "NSString"},
    {"boolean", AttributeType::Boolean, "NSNumber"},
    {"date", AttributeType::Date, "NSDate"},
    {"binary", AttributeType::BinaryData, "NSData"},
    {"uuid", AttributeType::UUID, "NSUUID"},
    {"uri", AttributeType::URI, "NSURL"},
    {"transformable", AttributeType::Transformable, ""},
};

struct RuleEntry {
  std::string_view name;
  DeleteRule rule;
};

constexpr RuleEntry kRules[] = {
    {"noAction", DeleteRule::NoAction},
    {"nullify", DeleteRule::Nullify},
    {"cascade", DeleteRule::Cascade},
    {"deny", DeleteRule::Deny},
};

Error modelError(const std::string& message) {
  return Error(kCorvaneErrorDomain, -1, "Invalid object model: " + message);
}

std::string where(const EntityDescription& entity, const PropertyDescription* property = nullptr) {
  std::string text = "entity \"" + entity.name() + "\"";
  if (property != nullptr) text += ", property \"" + property->name() + "\"";
  return text;
}

}  // namespace

std::optional<AttributeType> attributeTypeFromName(std::string_view name) {
  for (const auto& t : kTypes) {
    if (t.name == name) return t.type;
  }
  return std::nullopt;
}

std::string_view attributeTypeName(AttributeType type) {
  for (const auto& t : kTypes) {
    if (t.type == type) return t.name;
  }
  return "undefined";
}

std::string_view defaultValueClassName(AttributeType type) {
  for (const auto& t : kTypes) {
    if (t.type == type) return t.valueClass;
  }
  return "";
}

std::optional<DeleteRule> deleteRuleFromName(std::string_view name) {
  for (const auto& r : kRules) {
    if (r.name == name) return r.rule;
  }
  return std::nullopt;
}

std::string_view deleteRuleName(DeleteRule rule) {
  for (const auto& r : kRules) {
    if (r.rule == rule) return r.name;
  }
  return "";
}

bool valueFitsAttributeType(const Value& value, AttributeType type) {
  switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Double:
    case AttributeType::Float:
    case AttributeType::Boolean:
      return value.isNumber();
    case AttributeType::Decimal:
      return value.isDecimal() || value.isNumber();
    case AttributeType::String:
    case AttributeType::UUID:
      return value.isString();
    case AttributeType::Date:
      return value.isDate();
    case AttributeType::BinaryData:
      return value.isData();
    case AttributeType::URI:
      return value.isURL() || value.isString();
    case AttributeType::Transformable:
    case AttributeType::Undefined:
      return true;
  }
  return true;
}

// ---- Properties ------------------------------------------------------------------------------

AttributeDescription::AttributeDescription(std::string name, EntityDescription* entity, AttributeType type)
    : PropertyDescription(std::move(name), entity), type_(type), valueClassName_(defaultValueClassName(type)) {}

AttributeDescription& AttributeDescription::setOptional(bool optional) {
  entity_->checkMutable();
  optional_ = optional;
  return *this;
}
AttributeDescription& AttributeDescription::setDefaultValue(const Value& value) {
  entity_->checkMutable();
  defaultValue_ = value;
  return *this;
}
AttributeDescription& AttributeDescription::setValueClassName(std::string name) {
  entity_->checkMutable();
  valueClassName_ = std::move(name);
  return *this;
}
AttributeDescription& AttributeDescription::setUserInfo(const Value& info) {
  entity_->checkMutable();
  userInfo_ = info;
  return *this;
}

RelationshipDescription::RelationshipDescription(std::string name, EntityDescription* entity, std::string destination)
    : PropertyDescription(std::move(name), entity), destinationName_(std::move(destination)) {}

RelationshipDescription& RelationshipDescription::setInverse(std::string inverseName) {
  entity_->checkMutable();
  inverseName_ = std::move(inverseName);
  return *this;
}
RelationshipDescription& RelationshipDescription::setToMany(bool toMany) {
  entity_->checkMutable();
  toMany_ = toMany;
  return *this;
}
RelationshipDescription& RelationshipDescription::setOrdered(bool ordered) {
  entity_->checkMutable();
  ordered_ = ordered;
  return *this;
}
RelationshipDescription& RelationshipDescription::setDeleteRule(DeleteRule rule) {
  entity_->checkMutable();
  deleteRule_ = rule;
  return *this;
}
RelationshipDescription& RelationshipDescription::setOptional(bool optional) {
  entity_->checkMutable();
  optional_ = optional;
  return *this;
}
RelationshipDescription& RelationshipDescription::setMinCount(uint32_t count) {
  entity_->checkMutable();
  minCount_ = count;
  return *this;
}
RelationshipDescription& RelationshipDescription::setMaxCount(uint32_t count) {
  entity_->checkMutable();
  maxCount_ = count;
  return *this;
}
RelationshipDescription& RelationshipDescription::setUserInfo(const Value& info) {
  entity_->checkMutable();
  userInfo_ = info;
  return *this;
}

// ---- Entities --------------------------------------------------------------------------------

void EntityDescription::checkMutable() const {
  if (model_->isFinalized()) {
    throw Exception("NSInternalInconsistencyException", "Can't modify an object model that is in use");
  }
}

AttributeDescription& EntityDescription::addAttribute(std::string name, AttributeType type) {
  checkMutable();
  auto* attribute = new AttributeDescription(std::move(name), this, type);
  ownProperties_.emplace_back(attribute);
  return *attribute;
}

RelationshipDescription& EntityDescription::addRelationship(std::string name, std::string destinationEntityName) {
  checkMutable();
  auto* relationship = new RelationshipDescription(std::move(name), this, std::move(destinationEntityName));
  ownProperties_.emplace_back(relationship);
  return *relationship;
}

EntityDescription& EntityDescription::setAbstract(bool abstract) {
  checkMutable();
  abstract_ = abstract;
  return *this;
}
EntityDescription& EntityDescription::setSuperentityName(std::string parent) {
  checkMutable();
  superentityName_ = std::move(parent);
  return *this;
}
EntityDescription& EntityDescription::setUserInfo(const Value& info) {
  checkMutable();
  userInfo_ = info;
  return *this;
}

std::vector<const EntityDescription*> EntityDescription::selfAndAllSubentities() const {
  std::vector<const EntityDescription*> out{this};
  for (const auto* sub : subentities_) {
    auto below = sub->selfAndAllSubentities();
    out.insert(out.end(), below.begin(), below.end());
  }
  return out;
}

bool EntityDescription::isKindOfEntity(const EntityDescription* other) const {
  for (const EntityDescription* e = this; e != nullptr; e = e->superentity_) {
    if (e == other) return true;
  }
  return false;
}

std::vector<const AttributeDescription*> EntityDescription::attributes() const {
  std::vector<const AttributeDescription*> out;
  for (const auto* p : properties_) {
    if (p->isAttribute()) out.push_back(static_cast<const AttributeDescription*>(p));
  }
  return out;
}

std::vector<const RelationshipDescription*> EntityDescription::relationships() const {
  std::vector<const RelationshipDescription*> out;
  for (const auto* p : properties_) {
    if (p->isRelationship()) out.push_back(static_cast<const RelationshipDescription*>(p));
  }
  return out;
}

int EntityDescription::propertyIndex(std::string_view name) const {
  // Models are small; a linear scan over short names beats hashing for the usual handful of
  // properties, and the map takes over for wide entities.
  if (properties_.size() <= 8) {
    for (size_t i = 0; i < properties_.size(); ++i) {
      if (properties_[i]->name() == name) return static_cast<int>(i);
    }
    return -1;
  }
  auto it = propertyIndex_.find(std::string(name));
  return it == propertyIndex_.end() ? -1 : it->second;
}

const PropertyDescription* EntityDescription::property(std::string_view name) const {
  int i = propertyIndex(name);
  return i < 0 ? nullptr : properties_[static_cast<size_t>(i)];
}

const AttributeDescription* EntityDescription::attribute(std::string_view name) const {
  const auto* p = property(name);
  return p != nullptr && p->isAttribute() ? static_cast<const AttributeDescription*>(p) : nullptr;
}

const RelationshipDescription* EntityDescription::relationship(std::string_view name) const {
  const auto* p = property(name);
  return p != nullptr && p->isRelationship() ? static_cast<const RelationshipDescription*>(p) : nullptr;
}

// ---- Model -----------------------------------------------------------------------------------

EntityDescription& ObjectModel::addEntity(std::string name) {
  if (finalized_) {
    throw Exception("NSInternalInconsistencyException", "Can't modify an object model that is in use");
  }
  entities_.emplace_back(new EntityDescription(std::move(name), this));
  return *entities_.back();
}

const EntityDescription* ObjectModel::entity(std::string_view name) const {
  auto it = byName_.find(std::string(name));
  return it == byName_.end() ? nullptr : it->second;
}

bool ObjectModel::finalize(Error* error) {
  if (finalized_) return true;
  byName_.clear();
  entityList_.clear();
  for (auto& e : entities_) {
    e->superentity_ = nullptr;
    e->subentities_.clear();
    e->properties_.clear();
    e->propertyIndex_.clear();
  }
  if (!checkEntityNames(error) || !resolveInheritance(error) || !resolveRelationships(error)) {
    byName_.clear();
    entityList_.clear();
    return false;
  }
  finalized_ = true;
  return true;
}

bool ObjectModel::checkEntityNames(Error* error) {
  for (auto& e : entities_) {
    if (e->name().empty()) return setError(error, modelError("an entity has no name"));
    if (!byName_.emplace(e->name(), e.get()).second) {
      return setError(error, modelError(where(*e) + ": duplicate entity name"));
    }
    entityList_.push_back(e.get());
  }
  return true;
}

bool ObjectModel::resolveInheritance(Error* error) {
  for (auto& e : entities_) {
    if (e->superentityName_.empty()) continue;
    auto it = byName_.find(e->superentityName_);
    if (it == byName_.end()) {
      return setError(error,
                      modelError(where(*e) + ": parent \"" + e->superentityName_ + "\" is not an entity of the model"));
    }
    e->superentity_ = it->second;
  }
  // Walk each chain once; a chain longer than the number of entities is a cycle.
  for (auto& e : entities_) {
    size_t steps = 0;
    for (const EntityDescription* p = e->superentity_; p != nullptr; p = p->superentity_) {
      if (++steps > entities_.size()) {
        return setError(error, modelError(where(*e) + ": the parent chain is a cycle"));
      }
    }
  }
  for (auto& e : entities_) {
    if (e->superentity_ != nullptr) {
      const_cast<EntityDescription*>(e->superentity_)->subentities_.push_back(e.get());
    }
  }
  // Properties: fill parents before children.
  std::function<bool(EntityDescription*)> fill = [&](EntityDescription* e) -> bool {
    if (!e->properties_.empty() || (e->ownProperties_.empty() && e->superentity_ == nullptr)) return true;
    if (e->superentity_ != nullptr) {
      auto* parent = const_cast<EntityDescription*>(e->superentity_);
      if (!fill(parent)) return false;
      e->properties_ = parent->properties_;
    }
    for (auto& p : e->ownProperties_) {
      if (p->name().empty()) return setError(error, modelError(where(*e) + ": a property has no name"));
      for (const auto* existing : e->properties_) {
        if (existing->name() == p->name()) {
          return setError(error, modelError(where(*e, p.get()) + ": duplicate property name"));
        }
      }
      e->properties_.push_back(p.get());
    }
    return true;
  };
  for (auto& e : entities_) {
    if (!fill(e.get())) return false;
    for (size_t i = 0; i < e->properties_.size(); ++i) {
      e->propertyIndex_.emplace(e->properties_[i]->name(), static_cast<int>(i));
    }
  }
  return true;
}

bool ObjectModel::resolveRelationships(Error* error) {
  for (auto& e : entities_) {
    for (auto& p : e->ownProperties_) {
      if (!p->isRelationship()) continue;
      auto* r = static_cast<RelationshipDescription*>(p.get());
      auto it = byName_.find(r->destinationName_);
      if (it == byName_.end()) {
        return setError(error, modelError(where(*e, r) + ": destination \"" + r->destinationName_ +
                                          "\" is not an entity of the model"));
      }
      r->destination_ = it->second;
    }
  }
  for (auto& e : entities_) {
    for (auto& p : e->ownProperties_) {
      if (!p->isRelationship()) continue;
      auto* r = static_cast<RelationshipDescription*>(p.get());
      if (r->inverseName_.empty()) return setError(error, modelError(where(*e, r) + ": no inverse relationship"));
      const RelationshipDescription* inverse = r->destination_->relationship(r->inverseName_);
      if (inverse == nullptr) {
        return setError(error, modelError(where(*e, r) + ": inverse \"" + r->inverseName_ +
                                          "\" is not a relationship of entity \"" + r->destination_->name() + "\""));
      }
      if (inverse->inverseName_ != r->name() || !e->isKindOfEntity(inverse->destination_)) {
        return setError(error, modelError(where(*e, r) + ": inverse \"" + r->inverseName_ + "\" of entity \"" +
                                          r->destination_->name() + "\" does not lead back to this relationship"));
      }
      if (r->ordered_ && !r->toMany_) {
        return setError(error, modelError(where(*e, r) + ": only a to-many relationship can be ordered"));
      }
      if (r->maxCount_ != 0 && r->minCount_ > r->maxCount_) {
        return setError(error, modelError(where(*e, r) + ": minCount is larger than maxCount"));
      }
      r->inverse_ = inverse;
    }
  }
  return true;
}

}  // namespace corvane
