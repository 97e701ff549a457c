#include "corvane/cache/cache_collection.h"

#include <gtest/gtest.h>

#include "cache/cache_test_support.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/log.h"

namespace corvane {
namespace {

using testing::CacheHarness;
using testing::FakeStore;

class CacheCollectionTest : public ::testing::Test {
 protected:
  CacheHarness h;
  std::string folder = h.dir / "cache";

  void SetUp() override { ASSERT_TRUE(h.env.createDirectory(folder, true, nullptr)); }

  std::string url(const std::string& key) { return folder + "/" + key; }
  void writeFile(const std::string& key, ByteView bytes) {
    ASSERT_TRUE(h.env.writeFileAtomically(url(key) + ".fast", bytes, nullptr));
  }
  Bytes readFile(const std::string& key) {
    Bytes bytes;
    EXPECT_TRUE(h.env.readFile(url(key) + ".fast", &bytes, nullptr));
    return bytes;
  }
  void writeGraph(const std::string& key, const Value& root) {
    writeFile(key, *h.store.encrypt(*FastCoder::dataWithRootObject(root)));
  }
};

TEST_F(CacheCollectionTest, ABadFileIsLoggedOnceAndReadsAsEmptyDirtyContent) {
  h.store.setPassword("right");
  Bytes plainGood = *FastCoder::dataWithRootObject(Value::mutableDictionary({{"A", Value("some longer text")}}));
  SeaCrypto other(&h.env);
  other.setSalt(Bytes(64, 0x5A));
  other.setRounds(1000);
  other.setPassword(std::string_view("wrong"));
  struct Case {
    const char* name;
    Bytes bytes;
  };
  const Case cases[] = {
      {"zero bytes", {}},
      {"garbage", toBytes("this is not a cache file, not even close to one")},
      {"truncated", *h.store.encrypt(ByteView(plainGood).first(plainGood.size() / 2))},
      {"other password", *other.encryptData(plainGood)},
  };
  writeGraph("Person_1", Value::mutableDictionary({{"K", 1}}));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture console;  // the reader may say why on the console; the store's log is what counts
    writeFile("Person_0", c.bytes);
    FakeStore& store = h.store;
    const size_t logged = store.logs().size();
    auto table = CorvaneCacheDictionary::dictionaryWithStore(&store, url("Person_0"));
    EXPECT_EQ(table->content(), Value::dictionary());
    EXPECT_TRUE(table->invalid());
    EXPECT_TRUE(table->corruptionDetected());
    auto logs = store.logs();
    ASSERT_EQ(logs.size(), logged + 1);
    EXPECT_TRUE(logs.back().first.starts_with("Cache corruption detected in Person_0: ")) << logs.back().first;
    EXPECT_EQ(logs.back().second, "CorvaneLogTypeError");
    // The bad file stays until the next save replaces it.
    EXPECT_EQ(readFile("Person_0"), c.bytes);
    // Nothing else is lost: the neighbouring table reads as it was.
    auto neighbour = CorvaneCacheDictionary::dictionaryWithStore(&store, url("Person_1"));
    EXPECT_EQ(neighbour->count(), 1u);
    EXPECT_FALSE(neighbour->corruptionDetected());

    table->setValue(Value("new"), Value("N"));
    ASSERT_TRUE(table->saveIfNeeded());
    EXPECT_FALSE(table->invalid());
    auto reread = CorvaneCacheDictionary::dictionaryWithStore(&store, url("Person_0"));
    EXPECT_EQ(reread->content(), dict({{"N", "new"}}));
    EXPECT_FALSE(reread->corruptionDetected());
  }
}

TEST_F(CacheCollectionTest, AMissingFileOrAFileOfTheWrongShape) {
  auto missing = CorvaneCacheArray::arrayWithStore(&h.store, url("Changes"));
  EXPECT_EQ(missing->content(), Value::array());
  EXPECT_FALSE(missing->invalid());
  EXPECT_FALSE(missing->corruptionDetected());
  EXPECT_TRUE(h.store.logs().empty());

  // A UID table file that holds a dictionary is as unusable as garbage.
  writeGraph("Person_uids", Value::dictionary({{"A", 1}}));
  auto uids = CorvaneCacheSet::setWithStore(&h.store, url("Person_uids"));
  EXPECT_EQ(uids->count(), 0u);
  EXPECT_TRUE(uids->corruptionDetected());
  EXPECT_EQ(h.store.logMessages(),
            std::vector<std::string>{"Cache corruption detected in Person_uids: the file does not hold an array"});
}

TEST_F(CacheCollectionTest, ASetIsWrittenAsAnArrayAndDuplicatesCollapse) {
  writeGraph("Person_uids", arr({"A", "B", "A"}));
  auto uids = CorvaneCacheSet::setWithStore(&h.store, url("Person_uids"));
  EXPECT_EQ(uids->content(), Value::set({"A", "B"}));
  uids->removeObjects(arr({"A", "Z"}));
  uids->addObjects(arr({"C"}));
  EXPECT_TRUE(uids->invalid());
  ASSERT_TRUE(uids->saveIfNeeded());
  // Derived from the format: an immutable array (10) of two strings (8), registered after them.
  // clang-format off
  const Bytes expected = {0x54, 0x53, 0x41, 0x46, 0x03, 0x00, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,  // 1 object, 2 strings
                          0x0A, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,  // array of 2
                          0x08, 'B', 0x00, 0x08, 'C', 0x00};
  // clang-format on
  EXPECT_EQ(readFile("Person_uids"), expected);
}

TEST_F(CacheCollectionTest, DictionaryChangesMarkDirtyWithoutDisturbingReaders) {
  auto table = CorvaneCacheDictionary::dictionaryWithStore(&h.store, url("Person_0"));
  table->setValue(Value(1), Value("A"));
  table->setValue(Value(2), Value("B"));
  ASSERT_TRUE(table->saveIfNeeded());
  EXPECT_FALSE(table->invalid());

  // A reader holding the content goes on seeing what it got.
  Value held = table->content();
  table->setValue(Value(3), Value("C"));
  table->setValue(Value(), Value("A"));  // nil removes
  table->removeObjectForKey(Value("B"));
  EXPECT_TRUE(table->invalid());
  EXPECT_EQ(held, dict({{"A", 1}, {"B", 2}}));
  EXPECT_EQ(table->content(), dict({{"C", 3}}));
}

TEST_F(CacheCollectionTest, AnArrayRemovesEveryOccurrence) {
  auto log = CorvaneCacheArray::arrayWithStore(&h.store, url("Changes"));
  log->addObjects(arr({"a", "b", "a", "c"}));
  log->removeObject(Value("a"));
  EXPECT_EQ(log->content(), arr({"b", "c"}));
  log->addObject(Value("b"));
  log->removeObjects(Value::set({"b"}));
  EXPECT_EQ(log->content(), arr({"c"}));
  EXPECT_FALSE(log->content().isMutable());
}

TEST_F(CacheCollectionTest, AFailedSaveRemovesTheFileAndStaysDirty) {
  auto table = CorvaneCacheDictionary::dictionaryWithStore(&h.store, url("Person_0"));
  table->setValue(Value(1), Value("A"));
  ASSERT_TRUE(table->saveIfNeeded());
  table->setValue(Value(2), Value("A"));
  h.env.failWrites = true;
  EXPECT_TRUE(table->saveIfNeeded());  // no stale file: the old one is removed
  EXPECT_TRUE(table->invalid());
  EXPECT_FALSE(h.env.fileExists(url("Person_0") + ".fast"));  // never a stale file
  h.env.failWrites = false;
  ASSERT_TRUE(table->saveIfNeeded());
  EXPECT_FALSE(table->invalid());
  EXPECT_EQ(CorvaneCacheDictionary::dictionaryWithStore(&h.store, url("Person_0"))->content(), dict({{"A", 2}}));
}

TEST_F(CacheCollectionTest, SaveInBundleWritesWhatItLoadedEvenWhenClean) {
  h.store.setPassword("pw");
  ASSERT_TRUE(h.env.createDirectory(h.package + "/Cache", true, nullptr));
  writeGraph("Person_uids", arr({"A"}));
  auto uids = CorvaneCacheSet::setWithStore(&h.store, url("Person_uids"));
  EXPECT_FALSE(uids->isLoaded());
  uids->saveInBundle();
  EXPECT_FALSE(uids->invalid());
  Bytes copy;
  ASSERT_TRUE(h.env.readFile(h.package + "/Cache/Person_uids.fast", &copy, nullptr));
  // Enciphered like every cache file of a password-protected document.
  EXPECT_NE(asStringView(copy).substr(0, 4), "TSAF");
  EXPECT_EQ(FastCoder::objectWithData(*h.store.decrypt(copy)), arr({"A"}));
}

}  // namespace
}  // namespace corvane
