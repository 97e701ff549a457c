// Fingerprints for comparing devices: the applied history's checksum, the cached content's
// checksum (its byte layout, what it ignores, when it is kept), and the merge of entity folders
// that a sync service duplicated.
#include <fmt/format.h>

#include "corvane/security/digest.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

// "%02X%02X%02X" of the first three bytes of the MD5 of `bytes`.
std::string shortDigest(const std::string& bytes) {
  const Bytes digest = md5(asBytes(bytes));
  return fmt::format("{:02X}{:02X}{:02X}", digest[0], digest[1], digest[2]);
}

class ChecksumTest : public StoreTest {
 protected:
  OpenStore openOtherDevice() {
    const std::string mine = cacheRoot;
    cacheRoot = dir / "cachesB";
    OpenStore b = open();
    cacheRoot = mine;
    return b;
  }
};

TEST_F(ChecksumTest, HistoryChecksumIsTheStartOfTheMD5OfTheNamesJoinedByCommas) {
  OpenStore s = open();
  EXPECT_EQ(s.store->checkSum(), "D41D8C");  // MD5("") = D41D8CD98F00B204E9800998ECF8427E
  s.store->cache()->addChange(dict({{"name", "2024-01-01.a.json"}}), false);
  s.store->cache()->addChange(dict({{"name", "2024-01-02.b.json"}}), false);
  drain();
  // MD5("2024-01-01.a.json,2024-01-02.b.json") = 478559...
  EXPECT_EQ(s.store->checkSum(), "478559");
  close(s);
}

TEST_F(ChecksumTest, ContentChecksumFeedsUIDNamesAndValuesInSortedOrder) {
  OpenStore s = open();
  auto acme = s.context->insertNewObject("Company");
  acme->setValue("name", "Acme");
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("born", Value::date(10.5));  // 10500 ms after 2001
  ann->setValue("height", 1.5);
  ASSERT_TRUE(save(s));
  const std::string acmeUID = storeUID(acme->objectID());
  const std::string annUID = storeUID(ann->objectID());

  const Value sums = s.store->contentChecksum();
  // Attributes by name, then relationships by name: an empty to-many relationship is present,
  // its members joined make "".
  EXPECT_EQ(sums["Company"], Value(shortDigest(acmeUID + "name" + "Acme" + "staff")));
  // born: milliseconds in decimal; height: the cache keeps numbers as decimals, fed as text.
  EXPECT_EQ(sums["Person"],
            Value(shortDigest(annUID + "born10500" + "height1.5" + "nameAnn" + "children" + "friendOf" + "friends")))
      << "attributes: " << s.store->cache()->cacheItemForObjectID(ann->objectID())->attributes().description()
      << " relations: " << s.store->cache()->cacheItemForObjectID(ann->objectID())->relations().description();
  EXPECT_TRUE(sums["Gadget"].isNil()) << "an entity without objects is left out";
  EXPECT_EQ(sums.count(), 2u);
  close(s);
}

TEST_F(ChecksumTest, DevicesWithTheSameContentAgreeWhateverOrderTheirCachesGrewIn) {
  OpenStore a = open();
  std::vector<Retained<ManagedObject>> people;
  for (const char* name : {"Zoe", "Ann", "Max"}) {
    auto person = a.context->insertNewObject("Person");
    person->setValue("name", name);
    people.push_back(person);
    ASSERT_TRUE(save(a));
  }
  people[0]->addToMany("friends", people[2].get());
  people[0]->addToMany("friends", people[1].get());
  ASSERT_TRUE(save(a));
  const Value onA = a.store->contentChecksum();
  close(a);

  // B builds its cache in one pass, from the files.
  OpenStore b = openOtherDevice();
  EXPECT_EQ(b.store->checkSum(), [&] {
    OpenStore again = open();
    std::string sum = again.store->checkSum();
    close(again);
    return sum;
  }());
  EXPECT_EQ(b.store->contentChecksum(), onA);
  close(b);
}

TEST_F(ChecksumTest, ByteBuffersCountByLengthAndTheResultIsKeptUntilTheHistoryChanges) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("photo", Value::data(asBytes("AAAA")));
  ASSERT_TRUE(save(s));
  const Value first = s.store->contentChecksum();
  const std::string history = s.store->checkSum();

  ann->setValue("photo", Value::data(asBytes("BBBB")));
  ASSERT_TRUE(save(s));
  EXPECT_NE(s.store->checkSum(), history);
  EXPECT_EQ(s.store->contentChecksum(), first) << "same length, same checksum";

  ann->setValue("name", "Anne");
  ASSERT_TRUE(save(s));
  const Value renamed = s.store->contentChecksum();
  EXPECT_NE(renamed, first);
  EXPECT_EQ(s.store->contentChecksum(), renamed);
  close(s);
}

TEST_F(ChecksumTest, AnItemThatCannotBeBuiltMakesItsEntityIncompleteAndTheResultIsNotKept) {
  OpenStore s = open();
  auto acme = s.context->insertNewObject("Company");
  acme->setValue("name", "Acme");
  ASSERT_TRUE(save(s));
  const ObjectID id = acme->objectID();
  const std::string uid = storeUID(id);
  // The object's file cannot be read and the cache forgets the item: it cannot be rebuilt.
  const std::vector<std::string> files = list(package + "/Entities/Company/" + uid);
  ASSERT_EQ(files.size(), 1u);
  env.unreadable.insert(package + "/Entities/Company/" + uid + "/" + files[0]);
  s.store->cache()->removeObjectID(id);
  s.store->cache()->addObjectUIDs(dict({{"Company", dict({{uid, true}})}}), false);
  const Value sums = s.store->contentChecksum();
  EXPECT_EQ(sums["Company"], Value("incomplete"));
  // Not kept: once the file is readable again the entity is complete.
  env.unreadable.clear();
  EXPECT_EQ(s.store->contentChecksum()["Company"].str().size(), 6u);
  close(s);
}

// A model whose folder names share beginnings.
constexpr const char* kGroupModel = R"({"entities": [
  {"name": "Person", "attributes": [{"name": "name", "type": "string"}]},
  {"name": "PersonGroup", "attributes": [{"name": "name", "type": "string"}]}]})";

TEST_F(ChecksumTest, DuplicatedEntityFoldersMergeIntoTheLongestKnownNameTheyBeginWith) {
  Error error;
  auto model = ObjectModel::fromJSON(kGroupModel, &error);
  ASSERT_TRUE(model) << error.localizedDescription;
  auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model);
  const int before = readyCount_;
  auto* store =
      static_cast<CorvaneStore*>(coordinator->addPersistentStore(kCorvaneStoreType, "", package, options(), &error));
  ASSERT_NE(store, nullptr) << error.localizedDescription;
  waitUntil([&] { return readyCount_ > before; });

  const std::string entities = package + "/Entities";
  writeTextFile(entities + "/Person/u1/c1.json", "kept");
  writeTextFile(entities + "/Person 2/u2/c2.json", "person");
  writeTextFile(entities + "/PersonGroup 2/g1/c3.json", "group");
  writeTextFile(entities + "/Other/x/c4.json", "left alone");
  store->fixSyncConflicts();

  EXPECT_EQ(list(entities), (std::vector<std::string>{"Other", "Person", "PersonGroup"}));
  EXPECT_EQ(readTextFile(entities + "/Person/u1/c1.json"), "kept");
  EXPECT_EQ(readTextFile(entities + "/Person/u2/c2.json"), "person");
  EXPECT_EQ(readTextFile(entities + "/PersonGroup/g1/c3.json"), "group");
  EXPECT_FALSE(env.fileExists(entities + "/Person/g1"));
  store->close();
  coordinator.reset();
  RunLoop::main().discardPendingWork();
}

}  // namespace
}  // namespace corvane::testing
