// Saves from a private-queue context while the main thread fetches and the cache fills itself in
// the background: every save arrives, and every change file's previous change exists. Saves
// while passes re-apply the history behind late changes: the history ends in folder order.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class StoreConcurrentTest : public StoreTest {};

TEST_F(StoreConcurrentTest, SavesOnAPrivateQueueWhileTheMainThreadFetches) {
  OpenStore s = open();
  auto writer = CorvaneManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  writer->setPersistentStoreCoordinator(s.coordinator);
  std::atomic<int> saved{0};
  std::atomic<bool> failed{false};
  constexpr int kSaves = 20;
  writer->perform([&] {
    for (int i = 0; i < kSaves; ++i) {
      for (int j = 0; j < 5; ++j) {
        auto person = writer->insertNewObject("Person");
        person->setValue("name", "P" + std::to_string(i * 5 + j));
        person->setValue("photo", Value::data(asBytes("photo " + std::to_string(i))));
      }
      if (!writer->save()) failed = true;
      ++saved;
    }
  });
  FetchRequest everyone("Person");
  size_t last = 0;
  while (saved.load() < kSaves) {
    auto count = s.context->count(everyone);
    ASSERT_TRUE(count);
    last = *count;
    RunLoop::main().runOnce();
  }
  EXPECT_FALSE(failed.load());
  s.store->waitForSaves();
  drain();
  EXPECT_GE(s.context->count(everyone).value_or(0), last);
  EXPECT_EQ(s.context->count(everyone), std::optional<size_t>(kSaves * 5));
  const std::vector<std::string> files = list(package + "/Changes");
  EXPECT_EQ(files.size(), static_cast<size_t>(kSaves));
  for (const std::string& name : files) {
    const Value change = readJSON(package + "/Changes/" + name);
    const Value& previous = change["previousName"];
    if (previous.isString()) {
      EXPECT_TRUE(pathExists(package + "/Changes/" + previous.str())) << name;
    }
  }
  writer.reset();
  close(s);

  // Everything is there for a device that opens the package for the first time.
  cacheRoot = dir / "second";
  OpenStore second = open();
  EXPECT_EQ(second.context->count(everyone), std::optional<size_t>(kSaves * 5));
  close(second);
}

TEST_F(StoreConcurrentTest, SavesWhilePassesReapplyTheHistoryBehindLateChanges) {
  OpenStore s = open();
  s.context->insertNewObject("Person")->setValue("name", "First");
  ASSERT_TRUE(save(s));
  const std::string first = s.store->cache()->changes().at(0)["name"].str();
  env.advance(60);
  auto writer = CorvaneManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  writer->setPersistentStoreCoordinator(s.coordinator);
  std::atomic<bool> done{false};
  constexpr int kSaves = 10;
  writer->perform([&] {
    for (int i = 0; i < kSaves; ++i) {
      writer->insertNewObject("Person")->setValue("name", "P" + std::to_string(i));
      writer->save();
    }
    done = true;
  });
  // Late changes from another device, each dated just after the first save.
  for (int i = 0; !done.load() || i < 3; ++i) {
    const std::string late = first.substr(0, 23) + fmt::format(".{:08X}-0000-4000-8000-000000000000.json", i);
    ASSERT_TRUE(s.store->writeFakeChangeToURL(package + "/Changes/" + late, Value()));
    update(s.store);
  }
  s.store->waitForSaves();
  update(s.store);
  std::vector<std::string> files = list(package + "/Changes");
  std::sort(files.begin(), files.end());
  std::vector<std::string> applied;
  const Value changes = s.store->cache()->changes();
  for (const Value& change : changes.elements()) applied.push_back(change["name"].str());
  EXPECT_EQ(applied, files);
  FetchRequest everyone("Person");
  EXPECT_EQ(s.context->count(everyone), std::optional<size_t>(kSaves + 1));
  writer.reset();
  close(s);
}

}  // namespace
}  // namespace corvane::testing
