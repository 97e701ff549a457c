// The object model: which entities exist, which attributes and relationships each has.
//
// A model is built in code (addEntity, addAttribute, addRelationship, then finalize) or loaded
// from a JSON model file (ObjectModel::fromJSON / fromFile):
//
//   {"entities": [{"name": "Note", "abstract": false, "parent": "Item",
//     "attributes": [{"name": "title", "type": "string", "optional": true, "default": "Untitled"}],
//     "relationships": [{"name": "tags", "destination": "Tag", "inverse": "notes", "toMany": true,
//                        "ordered": false, "deleteRule": "nullify", "optional": true,
//                        "minCount": 0, "maxCount": 0}]}]}
//
// finalize() resolves parents, destinations and inverses and refuses an inconsistent model with
// an error naming the entity and the property. After finalize() the model is frozen: it may be
// shared (std::shared_ptr<const ObjectModel>) and read from any thread, and every description
// pointer stays valid as long as the model lives. A model must outlive the coordinators,
// contexts, objects and object IDs that use it.
//
// Properties keep declaration order; a sub-entity's properties() begin with its parent's, so a
// property has the same index in an entity and in all of its sub-entities.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class Env;
class EntityDescription;
class ObjectModel;

// Attribute types with the platform's numbers (they appear in files and store code).
enum class AttributeType : int {
  Undefined = 0,
  Integer16 = 100,
  Integer32 = 200,
  Integer64 = 300,
  Decimal = 400,
  Double = 500,
  Float = 600,
  String = 700,
  Boolean = 800,
  Date = 900,
  BinaryData = 1000,
  UUID = 1100,
  URI = 1200,
  Transformable = 1800,
};

// Delete rules with the platform's numbers.
enum class DeleteRule : int { NoAction = 0, Nullify = 1, Cascade = 2, Deny = 3 };

// "integer16", "string", ... as in model files; nullopt for an unknown name.
std::optional<AttributeType> attributeTypeFromName(std::string_view name);
std::string_view attributeTypeName(AttributeType type);
// "NSNumber", "NSString", "NSDecimalNumber", "NSDate", "NSData", "NSUUID", "NSURL"; empty for
// transformable and undefined.
std::string_view defaultValueClassName(AttributeType type);
std::optional<DeleteRule> deleteRuleFromName(std::string_view name);
std::string_view deleteRuleName(DeleteRule rule);
// True when `value` (not nil) is of the kind an attribute of `type` holds: a number for the
// numeric and boolean types, a decimal or number for Decimal, a string for String and UUID, a
// date, data, or URL (or string) for URI. Transformable and Undefined accept anything.
bool valueFitsAttributeType(const Value& value, AttributeType type);

class PropertyDescription {
 public:
  PropertyDescription(const PropertyDescription&) = delete;
  PropertyDescription& operator=(const PropertyDescription&) = delete;
  virtual ~PropertyDescription() = default;

  const std::string& name() const { return name_; }
  // The entity that declares the property (for inherited properties, the parent).
  const EntityDescription* entity() const { return entity_; }
  bool isOptional() const { return optional_; }
  const Value& userInfo() const { return userInfo_; }
  virtual bool isAttribute() const { return false; }
  virtual bool isRelationship() const { return false; }

 protected:
  PropertyDescription(std::string name, EntityDescription* entity) : name_(std::move(name)), entity_(entity) {}
  friend class ObjectModel;
  friend class EntityDescription;

  std::string name_;
  EntityDescription* entity_;
  bool optional_ = true;
  Value userInfo_;
};

class AttributeDescription : public PropertyDescription {
 public:
  AttributeType attributeType() const { return type_; }
  // The class name the platform gives values of this attribute ("NSString", ...), or the
  // model's "valueClass" for a transformable attribute.
  const std::string& valueClassName() const { return valueClassName_; }
  const Value& defaultValue() const { return defaultValue_; }
  bool isAttribute() const override { return true; }

  // Building (before the model is finalized). Each returns *this so calls chain.
  AttributeDescription& setOptional(bool optional);
  AttributeDescription& setDefaultValue(const Value& value);
  AttributeDescription& setValueClassName(std::string name);
  AttributeDescription& setUserInfo(const Value& info);

 private:
  friend class EntityDescription;
  AttributeDescription(std::string name, EntityDescription* entity, AttributeType type);

  AttributeType type_;
  std::string valueClassName_;
  Value defaultValue_;
};

class RelationshipDescription : public PropertyDescription {
 public:
  const std::string& destinationEntityName() const { return destinationName_; }
  const EntityDescription* destinationEntity() const { return destination_; }
  const std::string& inverseName() const { return inverseName_; }
  const RelationshipDescription* inverseRelationship() const { return inverse_; }
  bool isToMany() const { return toMany_; }
  bool isOrdered() const { return ordered_; }
  DeleteRule deleteRule() const { return deleteRule_; }
  // Bounds on the number of related objects, checked on save. 0 means no bound.
  uint32_t minCount() const { return minCount_; }
  uint32_t maxCount() const { return maxCount_; }
  bool isRelationship() const override { return true; }

  RelationshipDescription& setInverse(std::string inverseName);
  RelationshipDescription& setToMany(bool toMany);
  RelationshipDescription& setOrdered(bool ordered);
  RelationshipDescription& setDeleteRule(DeleteRule rule);
  RelationshipDescription& setOptional(bool optional);
  RelationshipDescription& setMinCount(uint32_t count);
  RelationshipDescription& setMaxCount(uint32_t count);
  RelationshipDescription& setUserInfo(const Value& info);

 private:
  friend class EntityDescription;
  friend class ObjectModel;
  RelationshipDescription(std::string name, EntityDescription* entity, std::string destination);

  std::string destinationName_;
  std::string inverseName_;
  const EntityDescription* destination_ = nullptr;
  const RelationshipDescription* inverse_ = nullptr;
  bool toMany_ = false;
  bool ordered_ = false;
  DeleteRule deleteRule_ = DeleteRule::Nullify;
  uint32_t minCount_ = 0;
  uint32_t maxCount_ = 0;
};

class EntityDescription {
 public:
  EntityDescription(const EntityDescription&) = delete;
  EntityDescription& operator=(const EntityDescription&) = delete;

  const std::string& name() const { return name_; }
  bool isAbstract() const { return abstract_; }
  const ObjectModel* model() const { return model_; }
  const EntityDescription* superentity() const { return superentity_; }
  const std::string& superentityName() const { return superentityName_; }
  // Direct sub-entities in model order.
  const std::vector<const EntityDescription*>& subentities() const { return subentities_; }
  // This entity followed by all of its sub-entities, recursively (depth first, model order).
  std::vector<const EntityDescription*> selfAndAllSubentities() const;
  // True when this entity is `other` or descends from it.
  bool isKindOfEntity(const EntityDescription* other) const;

  // Inherited properties first, then the entity's own, each in declaration order.
  const std::vector<const PropertyDescription*>& properties() const { return properties_; }
  std::vector<const AttributeDescription*> attributes() const;
  std::vector<const RelationshipDescription*> relationships() const;
  // Index of a property in properties(), or -1.
  int propertyIndex(std::string_view name) const;
  const PropertyDescription* property(std::string_view name) const;
  const AttributeDescription* attribute(std::string_view name) const;
  const RelationshipDescription* relationship(std::string_view name) const;
  const Value& userInfo() const { return userInfo_; }

  // Building (before the model is finalized).
  AttributeDescription& addAttribute(std::string name, AttributeType type);
  RelationshipDescription& addRelationship(std::string name, std::string destinationEntityName);
  EntityDescription& setAbstract(bool abstract);
  EntityDescription& setSuperentityName(std::string parent);
  EntityDescription& setUserInfo(const Value& info);

 private:
  friend class ObjectModel;
  friend class AttributeDescription;
  friend class RelationshipDescription;
  EntityDescription(std::string name, ObjectModel* model) : name_(std::move(name)), model_(model) {}
  void checkMutable() const;

  std::string name_;
  ObjectModel* model_;
  bool abstract_ = false;
  std::string superentityName_;
  const EntityDescription* superentity_ = nullptr;
  std::vector<const EntityDescription*> subentities_;
  std::vector<std::unique_ptr<PropertyDescription>> ownProperties_;
  std::vector<const PropertyDescription*> properties_;
  std::unordered_map<std::string, int> propertyIndex_;
  Value userInfo_;
};

class ObjectModel {
 public:
  ObjectModel() = default;
  ObjectModel(const ObjectModel&) = delete;
  ObjectModel& operator=(const ObjectModel&) = delete;

  // Parses a JSON model file's text and finalizes the model; nullptr and an error naming the
  // entity and property when the text is not a valid model.
  static std::shared_ptr<ObjectModel> fromJSON(std::string_view json, Error* error = nullptr);
  // Reads the file through `env` (the default Env when null) and parses it.
  static std::shared_ptr<ObjectModel> fromFile(const std::string& path, Error* error = nullptr, Env* env = nullptr);

  // Adds an entity; throws Exception("NSInternalInconsistencyException") after finalize().
  EntityDescription& addEntity(std::string name);
  // Resolves parents, destinations and inverses, copies inherited properties and checks the
  // whole model. Returns false with an error when the model is inconsistent; the model then
  // stays unfinalized.
  bool finalize(Error* error = nullptr);
  bool isFinalized() const { return finalized_; }

  // Entities in declaration order.
  const std::vector<const EntityDescription*>& entities() const { return entityList_; }
  const EntityDescription* entity(std::string_view name) const;

 private:
  bool checkEntityNames(Error* error);
  bool resolveInheritance(Error* error);
  bool resolveRelationships(Error* error);

  std::vector<std::unique_ptr<EntityDescription>> entities_;
  std::vector<const EntityDescription*> entityList_;
  std::unordered_map<std::string, const EntityDescription*> byName_;
  bool finalized_ = false;
};

}  // namespace corvane
