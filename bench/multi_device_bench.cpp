// Two devices on one document, as the user sees it.
//
// Arrival latency: with every delay set to zero, the time from a 10-object change file (its
// object files already there) appearing in the watched folder to the reader's context being
// told through "CorvaneObjectsDidChangeExternally". Reported as median and 99th percentile.
//
// Catch-up: a device that was away while the other wrote 1,000 saves opens and applies them,
// against the same device opening with an empty cache and replaying those 1,000 change files
// from scratch. The catch-up is run over histories of different lengths before the absence:
// its cost should follow the new changes only.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"

using namespace corvane;
namespace fs = std::filesystem;

namespace {

const char* kModel = R"({"entities": [{"name": "Item", "attributes": [
  {"name": "title", "type": "string"}, {"name": "count", "type": "integer32"}]}]})";

std::shared_ptr<ObjectModel> model() {
  static auto m = ObjectModel::fromJSON(kModel, nullptr);
  return m;
}

int readyCount = 0;

struct Device {
  std::shared_ptr<CorvanePersistentStoreCoordinator> coordinator;
  CorvaneStore* store = nullptr;
  std::shared_ptr<CorvaneManagedObjectContext> context;

  bool open(const std::string& package, const std::string& cacheRoot, bool watch) {
    auto* environment = new StoreEnvironment();
    environment->defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), cacheRoot + ".plist");
    Value options = Value::mutableDictionary();
    options.set(Value(kCorvaneCacheRootURLOption), Value(cacheRoot));
    options.set(Value(kCorvaneStoreEnvironmentOption), Value::object(environment));
    if (watch) {
      options.set(Value(kCorvaneChangeDebounceDelayOption), Value(0.0));
      options.set(Value(kCorvaneUpdateRetryDelayOption), Value(0.0));
      options.set(Value("CorvaneEventLatency"), Value(0.0));
    }
    coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model());
    const int before = readyCount;
    Error error;
    store = static_cast<CorvaneStore*>(
        coordinator->addPersistentStore(kCorvaneStoreType, "", package, options.copy(), &error));
    if (store == nullptr) return false;
    if (!RunLoop::main().runUntil([&] { return readyCount > before; }, 600)) return false;
    context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    context->setUndoManager(nullptr);
    return true;
  }

  void insert(int objects, int round) {
    for (int i = 0; i < objects; ++i) {
      auto item = context->insertNewObject("Item");
      item->setValue("title", "item " + std::to_string(round) + "." + std::to_string(i));
      item->setValue("count", i);
    }
    context->save(nullptr);
    store->waitForSaves();
    RunLoop::main().runOnce();
  }

  void close() {
    context.reset();
    if (store != nullptr) store->close();
    coordinator.reset();
    store = nullptr;
    RunLoop::main().discardPendingWork();
  }
};

std::string scratch(const std::string& name) {
  std::string path =
      Env::defaultEnv()->temporaryDirectory() + "/corvane-bench-" + std::to_string(::getpid()) + "-" + name;
  fs::remove_all(path);
  fs::create_directories(path);
  return path;
}

// Copies what `from` has and `to` lacks: object and data files first, change files last
// (renamed into place), and returns the paths of the change files.
std::vector<std::string> mirror(const std::string& from, const std::string& to, bool holdChanges) {
  std::vector<std::pair<fs::path, fs::path>> changes;
  for (const auto& entry : fs::recursive_directory_iterator(from)) {
    const fs::path relative = fs::relative(entry.path(), from);
    const fs::path target = fs::path(to) / relative;
    if (entry.is_directory()) {
      fs::create_directories(target);
      continue;
    }
    if (fs::exists(target) || relative.filename().string().starts_with(".")) continue;
    if (relative.begin()->string() == "Changes") {
      changes.emplace_back(entry.path(), target);
    } else {
      fs::copy_file(entry.path(), target);
    }
  }
  std::sort(changes.begin(), changes.end());
  std::vector<std::string> out;
  for (const auto& [source, target] : changes) {
    if (holdChanges) {
      fs::copy_file(source, fs::path(to) / ".held" / target.filename());
    } else {
      fs::copy_file(source, target);
    }
    out.push_back(target.string());
  }
  return out;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())))];
}

void BM_ArrivalLatency(benchmark::State& state) {
  const std::string root = scratch("arrival");
  Device writer, reader;
  if (!writer.open(root + "/A/Doc.corvane", root + "/A-cache", false))
    return state.SkipWithError("writer did not open");
  mirror(root + "/A/Doc.corvane", root + "/B/Doc.corvane", false);
  fs::create_directories(root + "/B/Doc.corvane/.held");
  if (!reader.open(root + "/B/Doc.corvane", root + "/B-cache", true)) return state.SkipWithError("reader did not open");
  // The store tells the contexts that have asked it for objects.
  FetchRequest request("Item");
  reader.context->fetch(request);
  int arrived = 0;
  auto observer = NotificationCenter::defaultCenter().addObserver(
      kCorvaneObjectsDidChangeExternallyNotification, reader.context.get(), [&](const Notification&) { ++arrived; });
  std::vector<double> latencies;
  int round = 0;
  for (auto _ : state) {
    writer.insert(10, round++);
    std::vector<std::string> held = mirror(root + "/A/Doc.corvane", root + "/B/Doc.corvane", true);
    const int before = arrived;
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& target : held) {
      fs::copy_file(fs::path(root) / "B/Doc.corvane/.held" / fs::path(target).filename(), target);
    }
    if (!RunLoop::main().runUntil([&] { return arrived > before; }, 20)) {
      return state.SkipWithError("the change was not applied within 20 s: is the folder watched?");
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    latencies.push_back(seconds * 1000);
    RunLoop::main().runUntil([&] { return !reader.store->isUpdating(); }, 20);
  }
  state.counters["median_ms"] = percentile(latencies, 0.5);
  state.counters["p99_ms"] = percentile(latencies, 0.99);
  reader.close();
  writer.close();
  fs::remove_all(root);
}
BENCHMARK(BM_ArrivalLatency)->UseManualTime()->Iterations(100)->Unit(benchmark::kMillisecond);

// Opens the reader after the writer saved `history` times (which the reader applied) and then
// `fresh` times more while the reader was away. Replaying: the same saves, but the reader
// opens them all for the first time with an empty cache.
void catchUp(benchmark::State& state, bool replay) {
  const int history = static_cast<int>(state.range(0));
  const int fresh = static_cast<int>(state.range(1));
  for (auto _ : state) {
    state.PauseTiming();
    const std::string root = scratch("catch-up");
    Device writer, reader;
    if (!writer.open(root + "/A/Doc.corvane", root + "/A-cache", false)) return state.SkipWithError("no writer");
    int round = 0;
    for (; round < history; ++round) writer.insert(1, round);
    if (!replay) {
      mirror(root + "/A/Doc.corvane", root + "/B/Doc.corvane", false);
      if (!reader.open(root + "/B/Doc.corvane", root + "/B-cache", false)) return state.SkipWithError("no reader");
      reader.close();
    }
    for (int i = 0; i < fresh; ++i, ++round) writer.insert(1, round);
    mirror(root + "/A/Doc.corvane", root + "/B/Doc.corvane", false);
    state.ResumeTiming();
    if (!reader.open(root + "/B/Doc.corvane", root + "/B-cache", false)) return state.SkipWithError("no reader");
    state.PauseTiming();
    reader.close();
    writer.close();
    fs::remove_all(root);
    state.ResumeTiming();
  }
}

void BM_CatchUp(benchmark::State& state) { catchUp(state, false); }
void BM_ReplayFromScratch(benchmark::State& state) { catchUp(state, true); }
BENCHMARK(BM_CatchUp)
    ->Args({0, 1000})
    ->Args({1000, 1000})
    ->Args({3000, 1000})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReplayFromScratch)
    ->Args({0, 1000})
    ->Args({1000, 1000})
    ->Args({3000, 1000})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  CorvaneStore::registerStoreType();
  auto ready = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                               [](const Notification&) { ++readyCount; });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
