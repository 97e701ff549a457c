#include "corvane/cache/cache_item.h"

#include <gtest/gtest.h>

#include "cache/cache_test_support.h"
#include "corvane/cache/cache_collection.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/decimal.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::cacheTestModel;
using testing::kUID0;
using testing::kUID1;

const EntityDescription& person() { return *cacheTestModel()->entity("Person"); }

using testing::entry;
Value refs(std::initializer_list<Value> items) { return arr(items); }

class CacheItemTest : public ::testing::Test {
 protected:
  CacheHarness h;
  CorvaneCacheItemPtr item = CorvaneCacheItem::create();
  ObjectID id = h.store.idFor("Person", kUID0);

  void fold(const Value& values, const Value& version = Value("1")) {
    item->updateValues(values, person(), "", version);
  }
};

TEST_F(CacheItemTest, FoldsAttributesThroughTheirTransformers) {
  fold(dict({{"name", entry("Ann")},
             {"age", entry("42")},
             {"height", entry(1.75)},
             {"active", entry(true)},
             {"born", entry("2023-03-08T20:26:40.000+0000")},
             {"photo", entry("F00D.jpg")},
             {"nickname", Value("not an entry")}}));
  Value attributes = item->attributes();
  EXPECT_EQ(attributes["name"], Value("Ann"));
  EXPECT_EQ(attributes["age"], Value(Decimal::fromInt64(42)));
  EXPECT_TRUE(attributes["age"].isDecimal());
  EXPECT_EQ(attributes["height"].description(), "1.75");
  EXPECT_TRUE(attributes["active"].isBoolean());
  EXPECT_EQ(attributes["born"], Value::date(700000000));
  // Binary attributes keep only their file name, apart from the attributes.
  EXPECT_FALSE(attributes.contains("photo"));
  EXPECT_EQ(item->data()["photo"], Value("F00D.jpg"));
  // A non-dictionary entry is skipped, so the default still applies later.
  EXPECT_FALSE(attributes.contains("nickname"));
}

TEST_F(CacheItemTest, DefaultsFillOnlyEmptySlotsAndNilClears) {
  fold(dict({{"nickname", Value::dictionary()}}));
  EXPECT_EQ(item->attributes()["nickname"], Value("Anon"));
  fold(dict({{"nickname", entry("Bee")}, {"name", entry("Ann")}, {"photo", entry("1.jpg")}}));
  EXPECT_EQ(item->attributes()["nickname"], Value("Bee"));
  // A nil for an attribute that has a value clears it, default or not.
  fold(dict({{"nickname", Value::dictionary()}, {"name", Value::dictionary()}, {"photo", Value::dictionary()}}));
  EXPECT_FALSE(item->attributes().contains("nickname"));
  EXPECT_FALSE(item->attributes().contains("name"));
  EXPECT_FALSE(item->data().contains("photo"));
}

TEST_F(CacheItemTest, AnAttributeWithoutTransformerStopsTheFoldAndChangesNothing) {
  fold(dict({{"name", entry("Ann")}}));
  try {
    fold(dict({{"name", entry("Bob")}, {"homepage", entry("http://x")}}));
    FAIL() << "expected No Transformer";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "No Transformer");
  }
  EXPECT_EQ(item->attributes()["name"], Value("Ann"));
}

TEST_F(CacheItemTest, FoldsToManyAddedRemovedAndOrderedValues) {
  fold(dict(
      {{"children", dict({{"addedValues", refs({"Person/A", "Person/B", "Person/C", "Person/B", "Person/D"})}})}}));
  // Every copy of a removed reference goes.
  fold(dict({{"children", dict({{"removedValues", refs({"Person/B"})}})}}));
  EXPECT_EQ(item->relations()["children"], refs({"Person/A", "Person/C", "Person/D"}));
  // Listed references come first in the listed order, once each; unknown ones are ignored;
  // the others keep their order. Worked by hand: moving D, then X (absent), then C, then D to
  // the front of [A, C, D, A] gives [D, C, A, A].
  fold(dict({{"children", dict({{"addedValues", refs({"Person/A"})},
                                {"orderedValues", refs({"Person/D", "Person/C", "Person/X", "Person/D"})}})}}));
  EXPECT_EQ(item->relations()["children"], refs({"Person/D", "Person/C", "Person/A", "Person/A"}));
  // Values of the wrong kind are skipped.
  fold(dict({{"children", dict({{"addedValues", Value("Person/E")}, {"removedValues", Value(3)}})}}));
  EXPECT_EQ(item->relations()["children"], refs({"Person/D", "Person/C", "Person/A", "Person/A"}));
}

TEST_F(CacheItemTest, FoldsToOneOnlyAsAnArrayStartingWithAString) {
  fold(dict({{"employer", entry(refs({"Company/1"}))}}));
  EXPECT_EQ(item->relations()["employer"], refs({"Company/1"}));
  fold(dict({{"employer", entry(Value::array())}}));
  EXPECT_FALSE(item->relations().contains("employer"));
  fold(dict({{"employer", entry(refs({"Company/1"}))}}));
  fold(dict({{"employer", entry(refs({Value(7), "Company/2"}))}}));
  EXPECT_FALSE(item->relations().contains("employer"));
}

TEST_F(CacheItemTest, ResolvesRelationshipsLazilyThroughTheStoresIDTable) {
  fold(dict({{"name", entry("Ann")},
             {"employer", entry(refs({std::string("Company/") + kUID1}))},
             {"friends", dict({{"addedValues", refs({std::string("Person/") + kUID1, "Alien/123", Value(5)})}})},
             {"children", dict({{"addedValues", refs({std::string("Person/") + kUID1})}})}}));
  EXPECT_FALSE(item->hasParsedRelations());
  EXPECT_EQ(item->valueForKey("name", id, &h.store, nullptr), Value("Ann"));
  Value employer = item->valueForKey("employer", id, &h.store, nullptr);
  EXPECT_EQ(ObjectID::fromValue(employer), h.store.idFor("Company", kUID1));
  // The resolved ID is entered in the store's table and found there next time.
  EXPECT_EQ(h.store.objectIDForReferenceString(std::string("Company/") + kUID1), ObjectID::fromValue(employer));

  Value friends = item->valueForKey("friends", id, &h.store, nullptr);
  ASSERT_TRUE(friends.isSet());
  EXPECT_EQ(friends, Value::set({h.store.idFor("Person", kUID1).asValue()}));
  // A target of an entity the model lacks makes the store refuse saves; it is left out.
  EXPECT_GE(h.store.preventedSaves.load(), 1);
  EXPECT_TRUE(item->valueForKey("children", id, &h.store, nullptr).isOrderedSet());
  EXPECT_TRUE(item->valueForKey("nothing", id, &h.store, nullptr).isNil());

  // Attribute-only changes keep the resolved relationships; relationship changes drop them.
  fold(dict({{"name", entry("Bea")}}));
  EXPECT_TRUE(item->hasParsedRelations());
  fold(dict({{"employer", Value::dictionary()}}));
  EXPECT_FALSE(item->hasParsedRelations());
  EXPECT_TRUE(item->valueForKey("employer", id, &h.store, nullptr).isNil());
}

TEST_F(CacheItemTest, ReadsBinaryValuesFromThePackageOnlyForTheValueSets) {
  h.store.setPassword("secret");
  const std::string dataFolder = h.package + "/Entities/Person/" + kUID0 + "/Data";
  ASSERT_TRUE(h.env.createDirectory(dataFolder, true, nullptr));
  ASSERT_TRUE(h.env.writeFileAtomically(dataFolder + "/p.jpg", *h.store.encrypt(asBytes("JPEG")), nullptr));
  fold(dict({{"name", entry("Ann")},
             {"photo", entry("p.jpg")},
             {"employer", entry(refs({std::string("Company/") + kUID1}))},
             {"friends", dict({{"addedValues", refs({std::string("Person/") + kUID1})}})}}));

  // Never through valueForKey: binary values are read only for whole value sets.
  EXPECT_TRUE(item->valueForKey("photo", id, &h.store, nullptr).isNil());
  EXPECT_FALSE(item->hasParsedData());

  Value values = item->valuesForObjectID(id, &h.store, nullptr);
  EXPECT_EQ(values["photo"], Value::data(toBytes("JPEG")));
  EXPECT_EQ(values["name"], Value("Ann"));
  EXPECT_TRUE(values["employer"].isObject());
  EXPECT_FALSE(values.contains("friends"));  // to-many relationships are fetched apart

  Value all = item->allValuesForObjectID(id, &h.store, nullptr);
  EXPECT_TRUE(all["friends"].isSet());
  EXPECT_TRUE(all["photo"].isData());
  EXPECT_TRUE(item->allValuesForObjectID(id, &h.store, nullptr).isSameNode(all));  // remembered

  item->compact();
  EXPECT_FALSE(item->hasParsedData());
  EXPECT_FALSE(item->hasValueMemo());

  // A change drops the memo and the binary values even when it touches attributes only.
  item->allValuesForObjectID(id, &h.store, nullptr);
  fold(dict({{"name", entry("Bea")}}));
  EXPECT_FALSE(item->hasValueMemo());
  EXPECT_FALSE(item->hasParsedData());
  EXPECT_TRUE(item->hasParsedRelations());

  // A missing data file is logged and its value left out.
  fold(dict({{"photo", entry("gone.jpg")}}));
  EXPECT_FALSE(item->valuesForObjectID(id, &h.store, nullptr).contains("photo"));
  EXPECT_EQ(h.store.errorDomains(), std::vector<std::string>{"CorvaneReadOperation"});
}

TEST_F(CacheItemTest, ExtraDataIsKeptUntilTheNextChange) {
  item->setExtraData(Value("v"), Value("k"));
  EXPECT_EQ(item->extraDataForKey(Value("k")), Value("v"));
  EXPECT_TRUE(item->extraDataForKey(Value(1)).isNil());
  fold(dict({{"name", entry("Ann")}}));
  EXPECT_TRUE(item->extraDataForKey(Value("k")).isNil());
  item->setExtraData(Value("v"), Value("k"));
  item->resetExtraData();
  EXPECT_EQ(item->extraData(), Value::dictionary());
}

TEST_F(CacheItemTest, CodesUnderItsFiveKeysAsAKeyedObject) {
  fold(dict({{"name", entry("x")}}));
  auto table = CorvaneCacheDictionary::dictionaryWithStore(&h.store, "");
  table->setValue(item.value(), Value("A"));
  auto bytes = FastCoder::dataWithRootObject(table->content());
  ASSERT_TRUE(bytes.has_value());
  // Derived from the format's rules: a mutable dictionary (24) of one entry whose value is a
  // coded object (43) of class "CorvaneCacheItem" with the pairs attributes, relations,
  // extraData, data (each value before its key; state is nil and left out), ended by Nil.
  // clang-format off
  const Bytes expected = {
      0x54, 0x53, 0x41, 0x46, 0x03, 0x00, 0x03, 0x00,  // "TSAF", version 3.3
      0x06, 0x00, 0x00, 0x00,                          // 6 objects: root, 4 dictionaries, the item
      0x00, 0x00, 0x00, 0x00,                          // no classes
      0x08, 0x00, 0x00, 0x00,                          // 8 strings
      0x18, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,  // @20 mutable dictionary, 1 entry
      0x2B,                                            // @28 coded object
      0x08, 'C', 'o', 'r', 'v', 'a', 'n', 'e', 'C', 'a', 'c', 'h', 'e', 'I', 't', 'e', 'm', 0x00,
      0x18, 0x01, 0x00, 0x00, 0x00,                    // @47 attributes: 1 entry (count at 48)
      0x08, 'x', 0x00, 0x08, 'n', 'a', 'm', 'e', 0x00,  // "x" under "name"
      0x08, 'a', 't', 't', 'r', 'i', 'b', 'u', 't', 'e', 's', 0x00,
      0x18, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,        // @73 relations: pad to 76, count 0
      0x08, 'r', 'e', 'l', 'a', 't', 'i', 'o', 'n', 's', 0x00,
      0x18, 0x00, 0x00, 0x00, 0x00,                    // @91 extraData: count 0 at 92
      0x08, 'e', 'x', 't', 'r', 'a', 'D', 'a', 't', 'a', 0x00,
      0x18, 0x00, 0x00, 0x00, 0x00,                    // @107 data: count 0 at 108
      0x08, 'd', 'a', 't', 'a', 0x00,
      0x00,                                            // @118 end of the pairs
      0x08, 'A', 0x00,                                 // the key "A"
  };
  // clang-format on
  EXPECT_EQ(*bytes, expected);

  // Read back, the five keys come as they were; a missing key reads as nil.
  item->setState(Value("kept"));
  Value root = FastCoder::objectWithData(*FastCoder::dataWithRootObject(table->content()));
  auto back = CorvaneCacheItemPtr::fromValue(root["A"]);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->attributes(), dict({{"name", "x"}}));
  EXPECT_EQ(back->relations(), Value::dictionary());
  EXPECT_EQ(back->state(), Value("kept"));
  FCNSDecoder::Pairs none;
  FCNSDecoder empty(&none);
  CorvaneCacheItem bare(empty);
  EXPECT_TRUE(bare.attributes().isNil());
  EXPECT_TRUE(bare.state().isNil());
}

}  // namespace
}  // namespace corvane
