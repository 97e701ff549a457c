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

// Callers on several threads at once (the cache's binding asks off the main thread): exactly one
// starts a pass, every other one is told a pass is running. The pass here always fails (its
// change lists an object file that is not there), so each round needs a pass of its own.
TEST_F(StoreConcurrentTest, OnePassAtATimeWhateverThreadAsks) {
  OpenStore s = open();
  s.context->insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(save(s));
  const std::string first = s.store->cache()->changes().at(0)["name"].str();
  const std::string late = "9999-01-01-00-00-00.000.00000000-0000-0000-0000-000000000000.json";
  writeTextFile(
      package + "/Changes/" + late,
      fmt::format(R"({{"name":"{}","previousName":"{}","changes":{{"update":{{"Person":{{"GONE":{{}}}}}}}}}})", late,
                  first));
  auto rejections = [&] {
    const std::vector<std::string> all = messages(s.store);
    return std::count(all.begin(), all.end(), "Update in progress: Abort and trying again in some seconds");
  };
  const long before = rejections();
  constexpr int kRounds = 300;
  constexpr int kCallers = 4;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> waiting{kCallers};
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&] {
        --waiting;
        while (waiting.load() > 0) std::this_thread::yield();
        s.store->updateChanges();
      });
    }
    for (std::thread& caller : callers) caller.join();
    waitUntil([&] { return !s.store->isUpdating(); });
    drain();
  }
  EXPECT_EQ(rejections() - before, static_cast<long>(kRounds * (kCallers - 1)));
  close(s);
}

// A second caller while the first is still reading the metadata gets the metadata too, not an
// empty dictionary; setMetadata() drops what was kept, so each round fetches afresh.
TEST_F(StoreConcurrentTest, EveryMetadataCallerGetsTheMetadata) {
  OpenStore s = open();
  const std::string identifier = s.store->documentIdentifier();
  constexpr int kRounds = 100;
  constexpr int kCallers = 4;
  std::atomic<int> empty{0};
  for (int round = 0; round < kRounds; ++round) {
    s.store->setMetadata(dict({{"Round", Value(round)}}));
    std::atomic<int> waiting{kCallers};
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&] {
        --waiting;
        while (waiting.load() > 0) std::this_thread::yield();
        const Value metadata = s.store->metadata();
        if (metadata["DocumentIdentifier"] != Value(identifier) || metadata["Corvane"].isNil()) ++empty;
      });
    }
    for (std::thread& caller : callers) caller.join();
  }
  EXPECT_EQ(empty.load(), 0);
  EXPECT_EQ(s.store->metadata()["Round"], Value(kRounds - 1));
  close(s);
}

}  // namespace
}  // namespace corvane::testing
