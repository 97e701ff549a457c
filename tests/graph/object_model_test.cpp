#include "corvane/graph/object_model.h"

#include <gtest/gtest.h>

#include "graph_fixture.h"

namespace corvane {
namespace {

using testing::testModel;

TEST(ObjectModel, LoadsEntitiesPropertiesAndInheritance) {
  auto model = testModel();
  ASSERT_TRUE(model);
  ASSERT_EQ(model->entities().size(), 9u);
  EXPECT_EQ(model->entities()[0]->name(), "Item");

  const EntityDescription* item = model->entity("Item");
  const EntityDescription* note = model->entity("Note");
  const EntityDescription* checklist = model->entity("Checklist");
  EXPECT_TRUE(item->isAbstract());
  EXPECT_EQ(note->superentity(), item);
  EXPECT_EQ(checklist->superentity(), note);
  ASSERT_EQ(item->subentities().size(), 1u);
  EXPECT_EQ(item->selfAndAllSubentities(), (std::vector<const EntityDescription*>{item, note, checklist}));
  EXPECT_TRUE(checklist->isKindOfEntity(item));
  EXPECT_FALSE(item->isKindOfEntity(note));

  // Inherited properties first, declaration order kept, same index in sub-entities.
  std::vector<std::string> names;
  for (const auto* p : checklist->properties()) names.push_back(p->name());
  EXPECT_EQ(names, (std::vector<std::string>{"title", "created", "body", "priority", "done", "folder", "tags",
                                             "attachments", "items"}));
  EXPECT_EQ(checklist->propertyIndex("body"), note->propertyIndex("body"));
  EXPECT_EQ(checklist->property("title")->entity(), item);
  EXPECT_EQ(note->propertyIndex("nope"), -1);

  const AttributeDescription* title = note->attribute("title");
  EXPECT_EQ(title->attributeType(), AttributeType::String);
  EXPECT_EQ(static_cast<int>(title->attributeType()), 700);
  EXPECT_EQ(title->valueClassName(), "NSString");
  EXPECT_FALSE(title->isOptional());
  EXPECT_EQ(title->defaultValue(), Value("Untitled"));
  EXPECT_EQ(note->attribute("priority")->defaultValue().numberKind(), NumberKind::Short);

  const RelationshipDescription* attachments = note->relationship("attachments");
  EXPECT_TRUE(attachments->isToMany());
  EXPECT_TRUE(attachments->isOrdered());
  EXPECT_EQ(attachments->deleteRule(), DeleteRule::Cascade);
  EXPECT_EQ(attachments->destinationEntity(), model->entity("Attachment"));
  EXPECT_EQ(attachments->inverseRelationship(), model->entity("Attachment")->relationship("note"));
  EXPECT_EQ(model->entity("Folder")->relationship("notes")->deleteRule(), DeleteRule::Deny);
  EXPECT_EQ(model->entity("Tag")->relationship("notes")->maxCount(), 3u);
  EXPECT_EQ(note->relationship("folder")->isOptional(), true);
  EXPECT_EQ(note->attributes().size(), 5u);
  EXPECT_EQ(note->relationships().size(), 3u);
}

TEST(ObjectModel, AttributeDefaultsAreReadInTheirType) {
  auto model = ObjectModel::fromJSON(
      R"({"entities":[{"name":"E","attributes":[
          {"name":"t","type":"transformable","valueClass":"NSColor"},
          {"name":"d","type":"decimal","default":"0.1"},
          {"name":"when","type":"date","default":100.5},
          {"name":"link","type":"uri","default":"https://example.com/"}]}]})");
  ASSERT_TRUE(model);
  const EntityDescription* e = model->entity("E");
  EXPECT_EQ(static_cast<int>(e->attribute("t")->attributeType()), 1800);
  EXPECT_EQ(e->attribute("t")->valueClassName(), "NSColor");
  EXPECT_EQ(e->attribute("d")->defaultValue(), Value::decimal(*Decimal::fromString("0.1")));
  EXPECT_EQ(e->attribute("when")->defaultValue(), Value::date(100.5));
  EXPECT_TRUE(e->attribute("link")->defaultValue().isURL());
}

TEST(ObjectModel, RefusesInconsistentModelsNamingEntityAndProperty) {
  struct Case {
    const char* json;
    const char* expected;
  };
  const Case cases[] = {
      {R"({"entities":[{"name":"A","relationships":[{"name":"b","destination":"Nope","inverse":"a"}]}]})",
       R"(entity "A", property "b": destination "Nope")"},
      {R"({"entities":[{"name":"A","relationships":[{"name":"b","destination":"B"}]},{"name":"B"}]})",
       R"(entity "A", property "b": no inverse)"},
      {R"({"entities":[{"name":"A","relationships":[{"name":"b","destination":"B","inverse":"x"}]},{"name":"B"}]})",
       R"(entity "A", property "b": inverse "x")"},
      {R"({"entities":[{"name":"A","relationships":[{"name":"b","destination":"B","inverse":"a"}]},
                      {"name":"B","relationships":[{"name":"a","destination":"B","inverse":"a"}]}]})",
       R"(entity "A", property "b": inverse "a" of entity "B" does not lead back)"},
      {R"({"entities":[{"name":"A"},{"name":"A"}]})", R"(entity "A": duplicate entity name)"},
      {R"({"entities":[{"name":"A","attributes":[{"name":"x","type":"string"},{"name":"x","type":"date"}]}]})",
       R"(entity "A", property "x": duplicate property name)"},
      {R"({"entities":[{"name":"P","attributes":[{"name":"x","type":"string"}]},
                      {"name":"C","parent":"P","attributes":[{"name":"x","type":"string"}]}]})",
       R"(entity "C", property "x": duplicate property name)"},
      {R"({"entities":[{"name":"A","attributes":[{"name":"x","type":"text"}]}]})",
       R"(entity "A", property "x": unknown attribute type "text")"},
      {R"({"entities":[{"name":"A","attributes":[{"name":"x","type":"integer16","default":"five"}]}]})",
       R"(entity "A", property "x": default value)"},
      {R"({"entities":[{"name":"A","relationships":[{"name":"b","destination":"A","inverse":"b","deleteRule":"explode"}]}]})",
       R"(entity "A", property "b": unknown delete rule)"},
      {R"({"entities":[{"name":"A","parent":"Z"}]})", R"(entity "A": parent "Z")"},
      {R"({"entities":[{"name":"A","parent":"B"},{"name":"B","parent":"A"}]})", "cycle"},
      {R"({"entities":[{"attributes":[]}]})", "every entity needs a \"name\""},
      {R"({"things":[]})", "\"entities\" array"},
      {R"({"entities":[)", "Invalid object model"},
  };
  for (const auto& c : cases) {
    Error error;
    EXPECT_FALSE(ObjectModel::fromJSON(c.json, &error)) << c.json;
    EXPECT_NE(error.localizedDescription.find(c.expected), std::string::npos)
        << "message: " << error.localizedDescription << "\nexpected: " << c.expected;
  }
}

TEST(ObjectModel, BuiltInCodeAndFrozenAfterFinalize) {
  ObjectModel model;
  EntityDescription& person = model.addEntity("Person");
  person.addAttribute("name", AttributeType::String).setOptional(false);
  EntityDescription& team = model.addEntity("Team");
  team.addRelationship("members", "Person").setInverse("team").setToMany(true).setDeleteRule(DeleteRule::Cascade);
  person.addRelationship("team", "Team").setInverse("members");
  Error error;
  ASSERT_TRUE(model.finalize(&error)) << error.localizedDescription;
  EXPECT_EQ(model.entity("Team")->relationship("members")->inverseRelationship(),
            model.entity("Person")->relationship("team"));
  EXPECT_THROW(model.addEntity("Late"), Exception);
  EXPECT_THROW(person.addAttribute("late", AttributeType::String), Exception);
}

TEST(ObjectModel, FileLoadingReportsMissingFile) {
  Error error;
  EXPECT_FALSE(ObjectModel::fromFile("/nonexistent/model.json", &error));
  EXPECT_FALSE(error.empty());
  auto model = ObjectModel::fromFile(std::string(CORVANE_SOURCE_DIR) + "/examples/notes_model.json", &error);
  ASSERT_TRUE(model) << error.localizedDescription;
  EXPECT_EQ(model->entity("Note")->relationship("tags")->inverseRelationship(),
            model->entity("Tag")->relationship("notes"));
}

}  // namespace
}  // namespace corvane
