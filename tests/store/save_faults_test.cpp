// A save reaches the disk whole, or fails, says so and leaves nothing a device would read; a crash
// at any point loses no save that was reported as done. Every file operation of one save is made
// to fail, and the process to die, in turn.
#include <algorithm>
#include <cerrno>

#include "corvane/store/corvane_store_options.h"
#include "corvane/testing/fault_injection_env.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

// What a device shows: "name" of each person, sorted, with the bytes of the photos.
std::vector<std::string> people(OpenStore& s) {
  FetchRequest request("Person");
  std::vector<std::string> out;
  if (auto found = s.context->fetch(request)) {
    for (const auto& person : *found) {
      const Value photo = person->valueForKey("photo");
      out.push_back(person->stringValue("name") +
                    (photo.isData() ? "+" + std::string(asStringView(photo.bytes())) : ""));
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

const std::vector<std::string> kBefore = {"Ann", "Bob"};
const std::vector<std::string> kAfter = {"Ann Smith", "Cid+portrait"};

class SaveFaultsTest : public StoreTest, public ::testing::WithParamInterface<bool> {
 protected:
  SaveFaultsTest() { environment_->env = &faults; }

  // A new package per round, so that every round starts from the same two saved people.
  OpenStore openRound(int round) {
    roundFolder = dir / ("round" + std::to_string(round));
    package = roundFolder + "/Doc.corvane";
    cacheRoot = roundFolder + "/cache";
    OpenStore a = open(passwordOption());
    auto ann = a.context->insertNewObject("Person");
    ann->setValue("name", "Ann");
    a.context->insertNewObject("Person")->setValue("name", "Bob");
    EXPECT_TRUE(save(a));
    return a;
  }
  // Renames Ann, deletes Bob and inserts Cid with a photo (a data file), in one save.
  void edit(OpenStore& a) {
    env.advance(1);  // after the first save, as a person's next edit is
    FetchRequest request("Person");
    const auto found = a.context->fetch(request);
    ASSERT_TRUE(found);
    for (const auto& person : *found) {
      if (person->stringValue("name") == "Ann") person->setValue("name", "Ann Smith");
      if (person->stringValue("name") == "Bob") a.context->deleteObject(person.get());
    }
    auto cid = a.context->insertNewObject("Person");
    cid->setValue("name", "Cid");
    cid->setValue("photo", Value::data(asBytes("portrait")));
  }
  Value passwordOption(const Value& extra = Value()) {
    Value o = extra.isNil() ? Value::mutableDictionary() : extra.mutableCopy();
    if (GetParam()) o.set(Value(kCorvanePasswordOption), Value("pw"));
    return o.copy();
  }
  // Another device: its own new cache, no faults.
  OpenStore openOther() {
    return open(passwordOption(dict({{kCorvaneCacheRootURLOption, Value(roundFolder + "/other")}})));
  }
  // What a device logged beyond success: a change pointing at a missing file shows here.
  std::vector<std::string> troubles(CorvaneStore* store) {
    drain();
    std::vector<std::string> out;
    for (const StoreLogEntry& entry : store->logEntries()) {
      if (entry.type != kCorvaneLogTypeSuccess && entry.message != "Reset Log" && entry.message != "No changes found") {
        out.push_back(entry.message);
      }
    }
    return out;
  }

  FaultInjectionEnv faults{&env};
  std::string roundFolder;  // the package and the caches of one round: what faults reach
};

TEST_P(SaveFaultsTest, EveryFailingFileOperationFailsTheWholeSaveAndARetrySucceeds) {
  int tried = 0;
  size_t seen = 0;
  for (int n = 1;; ++n) {
    ASSERT_LT(n, 100) << "the save never ended";
    SCOPED_TRACE("failing operation " + std::to_string(n));
    OpenStore a = openRound(n);
    const std::string before = a.store->lastCachedChange()["name"].str();
    edit(a);
    faults.limitToFolder(package);  // the save's own files
    faults.failOperation(faults.operationCount() + static_cast<uint64_t>(n), n % 2 == 0 ? EIO : ENOSPC);
    Error error;
    const bool saved = a.context->save(&error);
    const std::vector<std::string> injected = faults.injected();
    const bool hit = injected.size() > seen;
    SCOPED_TRACE(hit ? injected.back() : "past the save's operations");
    seen = injected.size();
    faults.reset();
    faults.limitToFolder("");
    if (hit) ++tried;

    OpenStore b = openOther();
    if (saved) {
      EXPECT_EQ(people(b), kAfter);
    } else {
      EXPECT_TRUE(hit) << error.localizedDescription;
      EXPECT_FALSE(error.localizedDescription.empty());
      // Nothing of the failed save is recorded or announced; the context keeps it for a retry.
      EXPECT_EQ(a.store->lastCachedChange()["name"].str(), before);
      EXPECT_TRUE(a.context->hasChanges());
      EXPECT_EQ(people(b), kBefore);
      ASSERT_TRUE(save(a));
      update(b.store);
      EXPECT_EQ(people(b), kAfter);
    }
    EXPECT_EQ(people(a), kAfter);
    EXPECT_EQ(troubles(b.store), std::vector<std::string>{});
    close(b);
    close(a);
    faults.reset();
    if (!hit) break;  // past the save's last operation
  }
  EXPECT_GE(tried, 6);  // the edit writes three object files, a data file, folders and the change
  std::printf("file operations made to fail: %d\n", tried);
}

TEST_P(SaveFaultsTest, ACrashAtAnyPointLosesNoSaveReportedAsDone) {
  int crashes = 0;
  const CrashLanding landings[] = {CrashLanding::Nothing, CrashLanding::TemporaryFile, CrashLanding::Whole};
  for (int n = 1;; ++n) {
    ASSERT_LT(n, 100) << "the save and closing never ended";
    for (CrashLanding landing : landings) {
      SCOPED_TRACE("crash at operation " + std::to_string(n) + ", landing " + std::to_string(int(landing)));
      const int round = n * 3 + static_cast<int>(landing);
      OpenStore a = openRound(round);
      edit(a);
      // The save and the closing that follows, package and cache: the nth operation from here.
      faults.limitToFolder(roundFolder);
      faults.crashAt(faults.operationCount() + static_cast<uint64_t>(n), landing);
      Error error;
      const bool saved = a.context->save(&error);
      close(a);  // after a crash the dead process writes nothing more, not even its cache
      const bool crashed = faults.crashed();
      faults.reset();
      faults.limitToFolder("");
      if (!crashed) {
        EXPECT_TRUE(saved) << error.localizedDescription;
        EXPECT_GE(crashes, 18);
        std::printf("crash points tried: %d\n", crashes);
        return;  // past the last operation of the save and of closing
      }
      ++crashes;

      // The restarted device, with the cache it had, and a new device agree; neither lost a
      // reported save, and neither meets a change that points at a missing file.
      OpenStore again = open(passwordOption());
      OpenStore b = openOther();
      const std::vector<std::string> seen = people(again);
      if (saved) {
        EXPECT_EQ(seen, kAfter);
      } else {
        EXPECT_TRUE(seen == kBefore || seen == kAfter) << ::testing::PrintToString(seen);
      }
      EXPECT_EQ(people(b), seen);
      EXPECT_EQ(troubles(b.store), std::vector<std::string>{});
      EXPECT_EQ(troubles(again.store), std::vector<std::string>{});
      // And it carries on.
      again.context->insertNewObject("Person")->setValue("name", "Dan");
      EXPECT_TRUE(save(again));
      close(b);
      close(again);
      if (::testing::Test::HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(PlainAndEncrypted, SaveFaultsTest, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Encrypted" : "Plain"; });

}  // namespace
}  // namespace corvane::testing
