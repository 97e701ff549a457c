// The content checksum that devices compare: 100,000 cached objects of one entity (a title, a
// count and a group each), computed afresh every iteration (a change record is added to the
// history first, so the kept result does not count).
//
// Reference: the floor, digesting the same bytes (UIDs, names and value texts) held in a plain
// vector, which is what is left when looking up the cache and its items costs nothing.
//
// Goal: under 1 s for the 100,000 objects; the table at the end gives objects per second and
// the ratio to the floor.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/cache/cache.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"

using namespace corvane;
namespace fs = std::filesystem;

namespace {

constexpr int kObjects = 100000;

const char* kModel = R"({"entities": [{"name": "Item", "attributes": [
  {"name": "title", "type": "string"}, {"name": "count", "type": "integer32"},
  {"name": "grp", "type": "integer32"}]}]})";

std::string uidFor(int i) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-0000-4000-8000-%012d", i * 2654435761u, i);
  return text;
}

struct Document {
  std::string root;
  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  CorvaneStore* store = nullptr;
  int changes = 0;

  Document() {
    root = (fs::temp_directory_path() / ("corvane-checksum-bench-" + std::to_string(::getpid()))).string();
    fs::create_directories(root);
    CorvaneStore::registerStoreType();
    static int ready = 0;
    static NotificationCenter::Observer observer = NotificationCenter::defaultCenter().addObserver(
        kCorvaneReadyNotification, nullptr, [](const Notification&) { ++ready; });
    auto* environment = new StoreEnvironment();
    environment->defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), root + "/defaults.plist");
    Value options = Value::mutableDictionary();
    options.set(Value(kCorvaneCacheRootURLOption), Value(root + "/caches"));
    options.set(Value(kCorvaneStoreEnvironmentOption), Value::object(environment));
    coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(ObjectModel::fromJSON(kModel, nullptr));
    const int before = ready;
    Error error;
    store = static_cast<CorvaneStore*>(
        coordinator->addPersistentStore(kCorvaneStoreType, "", root + "/Doc.corvane", options.copy(), &error));
    if (store == nullptr) {
      std::fprintf(stderr, "open failed: %s\n", error.localizedDescription.c_str());
      std::exit(1);
    }
    RunLoop::main().runUntil([&] { return ready > before; }, 3600);

    // The items go straight into the cache, as an update pass folds them in.
    const EntityDescription* entity = store->entityForName("Item");
    Value uids = Value::mutableDictionary();
    for (int i = 0; i < kObjects; ++i) {
      const std::string uid = uidFor(i);
      Value payload = dict({{"title", dict({{"value", Value("Item " + std::to_string(i))}})},
                            {"count", dict({{"value", Value(std::to_string(i))}})},
                            {"grp", dict({{"value", Value(std::to_string(i % 100))}})}});
      store->cache()->updateCacheForObjectID(store->newObjectIDForEntity(entity, Value(uid)),
                                             dict({{"payload", payload}, {"version", "1"}}), "bench");
      uids.set(Value(uid), Value(true));
    }
    store->cache()->addObjectUIDs(dict({{"Item", uids}}), false);
  }

  ~Document() {
    store->close();
    coordinator.reset();
    RunLoop::main().discardPendingWork();
    std::error_code ignored;
    fs::remove_all(root, ignored);
  }

  // A new history, so that the kept checksum is not answered.
  void touchHistory() {
    store->cache()->addChange(dict({{"name", Value("bench-" + std::to_string(++changes) + ".json")}}), false);
  }
};

Document& document() {
  static Document d;
  return d;
}

void BM_Store_ContentChecksum(benchmark::State& state) {
  Document& d = document();
  for (auto _ : state) {
    state.PauseTiming();
    d.touchHistory();
    state.ResumeTiming();
    Value sums = d.store->contentChecksum();
    if (sums["Item"].str().size() != 6) state.SkipWithError(("unexpected result " + sums.description()).c_str());
    benchmark::DoNotOptimize(sums);
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}

void BM_Floor_ContentChecksum(benchmark::State& state) {
  struct Row {
    std::string uid, title, count, grp;
  };
  std::vector<Row> rows;
  for (int i = 0; i < kObjects; ++i) {
    rows.push_back({uidFor(i), "Item " + std::to_string(i), std::to_string(i), std::to_string(i % 100)});
  }
  for (auto _ : state) {
    std::vector<const Row*> sorted;
    for (const Row& row : rows) sorted.push_back(&row);
    std::sort(sorted.begin(), sorted.end(), [](const Row* a, const Row* b) { return a->uid < b->uid; });
    std::string buffer;
    for (const Row* row : sorted) {
      buffer += row->uid;
      buffer += "count";
      buffer += row->count;
      buffer += "grp";
      buffer += row->grp;
      buffer += "title";
      buffer += row->title;
    }
    benchmark::DoNotOptimize(md5(asBytes(buffer)));
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}

}  // namespace

BENCHMARK(BM_Store_ContentChecksum)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Floor_ContentChecksum)->Unit(benchmark::kMillisecond)->Iterations(5);

int main(int argc, char** argv) {
  return corvane::bench::runWithRatios(
      argc, argv, "Content checksum of 100,000 cached objects (items per second)", "items_per_second",
      {{"contentChecksum", "BM_Store_ContentChecksum/iterations:5", "BM_Floor_ContentChecksum/iterations:5"}}, 1e3,
      "k/s");
}
