// Repairs offered to the host and the metadata of a store.
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class RepairsTest : public StoreTest {};

TEST_F(RepairsTest, RemovingAChangesObjectFiles) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  auto bob = s.context->insertNewObject("Person");
  ASSERT_TRUE(save(s));
  env.advance(1);
  ann->setValue("name", "Ann B");
  ASSERT_TRUE(save(s));
  const std::vector<std::string> changes = list(package + "/Changes");
  ASSERT_EQ(changes.size(), 2u);
  const std::string annUID = storeUID(ann->objectID());
  const std::string bobUID = storeUID(bob->objectID());
  // Not an insert: only the change's own object file goes.
  s.store->removeChange(readJSON(package + "/Changes/" + changes[1]), dict({{"Person", arr({Value(annUID)})}}), false);
  EXPECT_EQ(list(package + "/Entities/Person/" + annUID), std::vector<std::string>{changes[0]});
  // An insert: the whole object folder goes.
  s.store->removeChange(readJSON(package + "/Changes/" + changes[0]), dict({{"Person", arr({Value(bobUID)})}}), true);
  EXPECT_FALSE(pathExists(package + "/Entities/Person/" + bobUID));
  close(s);
}

TEST_F(RepairsTest, FakeChangesCarryTheirRefreshes) {
  OpenStore s = open();
  const std::string path = package + "/Changes/2024-01-01-00-00-00.000.AAAAAAAA-0000-4000-8000-000000000001.json";
  const Value refreshes = dict({{"update", dict({{"Person", dict({{"U", dict({})}})}})}});
  ASSERT_TRUE(s.store->writeFakeChangeToURL(path, refreshes));
  EXPECT_EQ(readJSON(path),
            dict({{"name", Value(pathLastComponent(path))}, {"type", "recovery"}, {"refreshes", refreshes}}));
  ASSERT_TRUE(s.store->writeFakeChangeToURL(path, Value()));
  EXPECT_TRUE(readJSON(path)["refreshes"].isNil());
  close(s);
}

TEST_F(RepairsTest, MetadataJoinsTheInfoDictionaryWithoutWritingIt) {
  OpenStore s = open(dict({{"DocumentInfo", dict({{"Title", "T"}})}}));
  const std::string before = readTextFile(package + "/Info.plist");
  EXPECT_EQ(s.store->metadata()["DocumentInfo"], dict({{"Title", "T"}}));
  s.store->setMetadata(dict({{"Extra", "x"}}));
  const Value metadata = s.store->metadata();
  EXPECT_EQ(metadata["Extra"], Value("x"));
  EXPECT_EQ(metadata["DocumentInfo"], dict({{"Title", "T"}}));
  EXPECT_EQ(readTextFile(package + "/Info.plist"), before);
  close(s);
}

}  // namespace
}  // namespace corvane::testing
