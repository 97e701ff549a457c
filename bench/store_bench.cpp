// The store on one device: saves, opens and a fetch, each against a reference doing the same
// work in the same run.
//
//   Saves (each one context save, waited for until every file is on disk):
//     one update of one object; 100 inserts; 10,000 inserts with a 4 KiB binary value each.
//     References: (a) the floor, writing the same number of files of the same sizes atomically
//     in a plain loop; (b) SQLite in WAL mode with synchronous=FULL, one transaction per save.
//   Opens of a document of 10,000 change files of 5 objects each:
//     with no cache (every change file replayed), against reading and parsing the same files
//     in a plain loop; and with a warm cache.
//   Fetch: a predicate matching 1% of 100,000 cached objects, against SQLite with the same rows
//     and query.
//
// Goals: saves within 1.5 times the floor; the cold open within 2 times its floor; the warm
// open under 5% of the cold one; the fetch within 2 times SQLite. The table at the end gives
// each time ratio (ours / reference). Documents are made in the system's temporary folder.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/cache/cache.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"

using namespace corvane;
namespace fs = std::filesystem;

namespace {

const char* kModel = R"({"entities": [{"name": "Item", "attributes": [
  {"name": "title", "type": "string"}, {"name": "count", "type": "integer32"},
  {"name": "grp", "type": "integer32"}, {"name": "payload", "type": "binary"}]}]})";

std::shared_ptr<ObjectModel> model() {
  static auto m = ObjectModel::fromJSON(kModel, nullptr);
  return m;
}

const std::string& root() { return corvane::bench::scratchFolder("corvane-store-bench"); }

int readyCount = 0;

// One device's view of a document: coordinator, store and a main-queue context.
struct Device {
  std::shared_ptr<CorvanePersistentStoreCoordinator> coordinator;
  CorvaneStore* store = nullptr;
  std::shared_ptr<CorvaneManagedObjectContext> context;

  bool open(const std::string& package, const std::string& cacheRoot) {
    static NotificationCenter::Observer observer = NotificationCenter::defaultCenter().addObserver(
        kCorvaneReadyNotification, nullptr, [](const Notification&) { ++readyCount; });
    auto* environment = new StoreEnvironment();
    environment->defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), root() + "/defaults.plist");
    Value options = Value::mutableDictionary();
    options.set(Value(kCorvaneCacheRootURLOption), Value(cacheRoot));
    options.set(Value(kCorvaneStoreEnvironmentOption), Value::object(environment));
    coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model());
    const int before = readyCount;
    Error error;
    store = static_cast<CorvaneStore*>(
        coordinator->addPersistentStore(kCorvaneStoreType, "", package, options.copy(), &error));
    if (store == nullptr) {
      std::fprintf(stderr, "open failed: %s\n", error.localizedDescription.c_str());
      return false;
    }
    RunLoop::main().runUntil([&] { return readyCount > before; }, 3600);
    context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    context->setUndoManager(nullptr);
    return true;
  }

  void save() {
    context->save(nullptr);
    store->waitForSaves();
  }

  void close() {
    if (store == nullptr) return;
    context.reset();
    store->close();
    coordinator.reset();
    store = nullptr;
    RunLoop::main().discardPendingWork();
  }
};

Bytes bytesOf(size_t size, int seed) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(i * 31 + static_cast<size_t>(seed));
  return b;
}

// ---- The floor: atomic writes of files of given sizes in a plain loop ---------------------------

void writeFilesAtomically(const std::string& folder, const std::vector<size_t>& sizes, int round) {
  Env* env = Env::defaultEnv();
  env->createDirectory(folder, true, nullptr);
  for (size_t i = 0; i < sizes.size(); ++i) {
    env->writeFileAtomically(folder + "/f" + std::to_string(round) + "-" + std::to_string(i),
                             bytesOf(sizes[i], static_cast<int>(i)), nullptr);
  }
}

// ---- SQLite in WAL mode, as durable as atomic writes -------------------------------------------

struct SQLite {
  sqlite3* db = nullptr;
  explicit SQLite(const std::string& path) {
    fs::remove(path);
    sqlite3_open(path.c_str(), &db);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=FULL");
    exec("CREATE TABLE item (id INTEGER PRIMARY KEY, uid TEXT, title TEXT, count INTEGER, grp INTEGER, payload BLOB)");
  }
  ~SQLite() { sqlite3_close(db); }
  void exec(const char* sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }
  void insert(int n, size_t blob, int first) {
    exec("BEGIN");
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO item (uid, title, count, grp, payload) VALUES (?, ?, ?, ?, ?)", -1, &s,
                       nullptr);
    for (int i = 0; i < n; ++i) {
      const std::string uid = Env::defaultEnv()->newUUIDString();
      const std::string title = "Item " + std::to_string(first + i);
      sqlite3_bind_text(s, 1, uid.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(s, 2, title.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int(s, 3, first + i);
      sqlite3_bind_int(s, 4, (first + i) % 100);
      if (blob > 0) {
        Bytes b = bytesOf(blob, first + i);
        sqlite3_bind_blob(s, 5, b.data(), static_cast<int>(b.size()), SQLITE_TRANSIENT);
      } else {
        sqlite3_bind_null(s, 5);
      }
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    exec("COMMIT");
  }
};

// ---- Saves ------------------------------------------------------------------------------------

// The sizes of the files one save of the store wrote, read from its package.
std::vector<size_t> lastSaveSizes(const std::string& package) {
  std::vector<fs::path> changes;
  for (const auto& e : fs::directory_iterator(package + "/Changes")) changes.push_back(e.path());
  std::sort(changes.begin(), changes.end());
  const std::string name = changes.back().filename().string();
  std::vector<size_t> sizes = {static_cast<size_t>(fs::file_size(changes.back()))};
  for (const auto& e : fs::recursive_directory_iterator(package + "/Entities")) {
    if (!e.is_regular_file()) continue;
    const bool objectFile = e.path().filename() == name;
    const bool dataFile = e.path().parent_path().filename() == "Data";
    if (objectFile ||
        (dataFile && fs::last_write_time(e.path()) >= fs::last_write_time(changes.back()) - std::chrono::hours(1))) {
      sizes.push_back(static_cast<size_t>(e.file_size()));
    }
  }
  return sizes;
}

std::map<std::string, std::vector<size_t>> saveSizes;  // by save kind, from the store's own runs

void insertItems(Device& d, int n, size_t blob, int first) {
  for (int i = 0; i < n; ++i) {
    auto item = d.context->insertNewObject("Item");
    item->setValue("title", "Item " + std::to_string(first + i));
    item->setValue("count", first + i);
    item->setValue("grp", (first + i) % 100);
    if (blob > 0) item->setValue("payload", Value::data(bytesOf(blob, first + i)));
  }
}

void BM_Store_UpdateOne(benchmark::State& state) {
  const std::string package = root() + "/update.corvane";
  fs::remove_all(package);
  Device d;
  d.open(package, root() + "/update-cache");
  insertItems(d, 1, 0, 0);
  d.save();
  FetchRequest request("Item");
  auto item = d.context->fetch(request)->at(0);
  int i = 0;
  for (auto _ : state) {
    item->setValue("title", "Title " + std::to_string(++i));
    d.save();
  }
  saveSizes["update"] = lastSaveSizes(package);
  d.close();
}

void BM_Store_Insert100(benchmark::State& state) {
  const std::string package = root() + "/insert100.corvane";
  fs::remove_all(package);
  Device d;
  d.open(package, root() + "/insert100-cache");
  int first = 0;
  for (auto _ : state) {
    insertItems(d, 100, 0, first);
    first += 100;
    d.save();
  }
  d.close();
  // Sizes of one such save: a fresh package with exactly one.
  fs::remove_all(package);
  Device one;
  one.open(package, root() + "/insert100-cache2");
  insertItems(one, 100, 0, 0);
  one.save();
  saveSizes["insert100"] = lastSaveSizes(package);
  one.close();
}

void BM_Store_Insert10000Binary(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const std::string package = root() + "/insert10000.corvane";
    fs::remove_all(package);
    fs::remove_all(root() + "/insert10000-cache");
    Device d;
    d.open(package, root() + "/insert10000-cache");
    insertItems(d, 10000, 4096, 0);
    state.ResumeTiming();
    d.save();
    state.PauseTiming();
    saveSizes["insert10000"] = lastSaveSizes(package);
    d.close();
    state.ResumeTiming();
  }
}

void floorSave(benchmark::State& state, const std::string& kind) {
  const std::vector<size_t>& sizes = saveSizes[kind];
  const std::string folder = root() + "/floor-" + kind;
  fs::remove_all(folder);
  int round = 0;
  for (auto _ : state) writeFilesAtomically(folder, sizes, round++);
  state.counters["files"] = static_cast<double>(sizes.size());
  fs::remove_all(folder);
}

void BM_Floor_UpdateOne(benchmark::State& state) { floorSave(state, "update"); }
void BM_Floor_Insert100(benchmark::State& state) { floorSave(state, "insert100"); }
void BM_Floor_Insert10000Binary(benchmark::State& state) { floorSave(state, "insert10000"); }

void BM_SQLite_UpdateOne(benchmark::State& state) {
  SQLite db(root() + "/update.sqlite");
  db.insert(1, 0, 0);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db.db, "UPDATE item SET title = ? WHERE id = 1", -1, &s, nullptr);
  int i = 0;
  for (auto _ : state) {
    const std::string title = "Title " + std::to_string(++i);
    db.exec("BEGIN");
    sqlite3_bind_text(s, 1, title.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(s);
    sqlite3_reset(s);
    db.exec("COMMIT");
  }
  sqlite3_finalize(s);
}

void BM_SQLite_Insert100(benchmark::State& state) {
  SQLite db(root() + "/insert100.sqlite");
  int first = 0;
  for (auto _ : state) {
    db.insert(100, 0, first);
    first += 100;
  }
}

void BM_SQLite_Insert10000Binary(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    SQLite db(root() + "/insert10000.sqlite");
    state.ResumeTiming();
    db.insert(10000, 4096, 0);
  }
}

// ---- Opens ------------------------------------------------------------------------------------

// A document of `changes` change files of `perChange` inserted objects each, written straight in
// the file formats (no store, no fsync): what another device's history looks like.
std::vector<std::string> writeHistory(const std::string& package, int changes, int perChange) {
  fs::remove_all(package);
  fs::create_directories(package + "/Changes");
  fs::create_directories(package + "/Entities/Item");
  {
    std::ofstream info(package + "/Info.plist");
    info
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
        << R"(<key>DocumentIdentifier</key><string>BENCH</string><key>Corvane</key><dict><key>CFBundleIdentifier</key>)"
        << R"(<string>org.corvane.Corvane</string></dict></dict></plist>)";
  }
  Env* env = Env::defaultEnv();
  std::vector<std::string> files;
  std::string previous;
  for (int c = 0; c < changes; ++c) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "2024-05-%02d-%02d-%02d-%02d.%03d", 1 + c / 86400, (c / 3600) % 24,
                  (c / 60) % 60, c % 60, 0);
    const std::string name = std::string(stamp) + "." + env->newUUIDString() + ".json";
    std::string records;
    for (int o = 0; o < perChange; ++o) {
      const std::string uid = env->newUUIDString();
      const int n = c * perChange + o;
      const std::string object = pathJoin(package + "/Entities/Item/" + uid, name);
      fs::create_directories(package + "/Entities/Item/" + uid);
      std::ofstream(object) << R"({"version":"1","type":"insert","payload":{"title":{"value":"Item )" << n
                            << R"("},"count":{"value":")" << n << R"("},"grp":{"value":")" << n % 100 << R"("}}})";
      files.push_back(object);
      // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about the one-expression form.
      if (o != 0) records += ',';
      records += '"';
      records += uid;
      records += "\":{}";
    }
    std::ofstream(package + "/Changes/" + name)
        << R"({"name":")" << name << R"(","date":"2024-05-17T09:41:07.250+0000","changes":{"insert":{"Item":{)"
        << records << R"(}}},"session":{"userName":"b","fullUserName":"B","machineName":"M","id":"S","version":"1",)"
        << R"("osVersion":"X"})" << (previous.empty() ? "" : R"(,"previousName":")" + previous + "\"") << "}";
    files.push_back(package + "/Changes/" + name);
    previous = name;
  }
  return files;
}

const std::string& historyPackage() {
  static const std::string package = root() + "/history.corvane";
  return package;
}

std::vector<std::string>& historyFiles() {
  static std::vector<std::string> files = writeHistory(historyPackage(), 10000, 5);
  return files;
}

void BM_Store_OpenNoCache(benchmark::State& state) {
  historyFiles();
  const std::string cache = root() + "/history-cold";
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(cache);
    Device d;
    state.ResumeTiming();
    d.open(historyPackage(), cache);
    state.PauseTiming();
    FetchRequest count("Item");
    if (d.context->count(count) != std::optional<size_t>(50000)) state.SkipWithError("not every object arrived");
    d.close();
    state.ResumeTiming();
  }
}

void BM_Floor_OpenNoCache(benchmark::State& state) {
  const std::vector<std::string>& files = historyFiles();
  Env* env = Env::defaultEnv();
  for (auto _ : state) {
    size_t parsed = 0;
    for (const std::string& file : files) {
      Bytes bytes;
      env->readFile(file, &bytes, nullptr);
      parsed += jsonToValue(asStringView(bytes)).has_value() ? 1 : 0;
    }
    benchmark::DoNotOptimize(parsed);
  }
}

void BM_Store_OpenWarmCache(benchmark::State& state) {
  historyFiles();
  const std::string cache = root() + "/history-warm";
  {
    Device first;
    first.open(historyPackage(), cache);
    first.close();
  }
  for (auto _ : state) {
    Device d;
    d.open(historyPackage(), cache);
    state.PauseTiming();
    d.close();
    state.ResumeTiming();
  }
}

// ---- Fetch ------------------------------------------------------------------------------------

void BM_Store_Fetch1Percent(benchmark::State& state) {
  const std::string package = root() + "/fetch.corvane";
  const std::string cache = root() + "/fetch-cache";
  writeHistory(package, 1, 100000);
  {
    Device first;  // replays the one change and saves the cache
    first.open(package, cache);
    first.close();
  }
  Device d;
  d.open(package, cache);
  // Measured once the cache has filled itself in the background.
  if (OperationQueue* index = d.store->cache()->indexQueue()) index->waitUntilAllOperationsAreFinished();
  FetchRequest request("Item");
  request.setPredicate(*Predicate::parse("grp == 7"));
  d.context->fetch(request);  // the entity's cache files are read once
  for (auto _ : state) {
    auto found = d.context->fetch(request);
    size_t titles = 0;
    for (const auto& item : *found) titles += item->stringValue("title").size();
    benchmark::DoNotOptimize(titles);
    if (found->size() != 1000) state.SkipWithError("wrong number of objects");
    d.context->reset();
  }
  d.close();
}

void BM_SQLite_Fetch1Percent(benchmark::State& state) {
  SQLite db(root() + "/fetch.sqlite");
  db.insert(100000, 0, 0);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db.db, "SELECT uid, title FROM item WHERE grp = 7", -1, &s, nullptr);
  for (auto _ : state) {
    size_t rows = 0, titles = 0;
    while (sqlite3_step(s) == SQLITE_ROW) {
      ++rows;
      titles += static_cast<size_t>(sqlite3_column_bytes(s, 1));
    }
    sqlite3_reset(s);
    benchmark::DoNotOptimize(titles);
    if (rows != 1000) state.SkipWithError("wrong number of rows");
  }
  sqlite3_finalize(s);
}

BENCHMARK(BM_Store_UpdateOne)->Unit(benchmark::kMillisecond)->Iterations(100);
BENCHMARK(BM_Floor_UpdateOne)->Unit(benchmark::kMillisecond)->Iterations(100);
BENCHMARK(BM_SQLite_UpdateOne)->Unit(benchmark::kMillisecond)->Iterations(100);
BENCHMARK(BM_Store_Insert100)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Floor_Insert100)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_SQLite_Insert100)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Store_Insert10000Binary)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Floor_Insert10000Binary)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SQLite_Insert10000Binary)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Store_OpenNoCache)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Floor_OpenNoCache)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Store_OpenWarmCache)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Store_Fetch1Percent)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_SQLite_Fetch1Percent)->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace

int main(int argc, char** argv) {
  CorvaneStore::registerStoreType();
  corvane::bench::TimeRatioReporter reporter({
      {"update one / floor", "BM_Store_UpdateOne/iterations:100", "BM_Floor_UpdateOne/iterations:100", "<= 1.5"},
      {"update one / SQLite", "BM_Store_UpdateOne/iterations:100", "BM_SQLite_UpdateOne/iterations:100", ""},
      {"100 inserts / floor", "BM_Store_Insert100/iterations:10", "BM_Floor_Insert100/iterations:10", "<= 1.5"},
      {"100 inserts / SQLite", "BM_Store_Insert100/iterations:10", "BM_SQLite_Insert100/iterations:10", ""},
      {"10,000 binary / floor", "BM_Store_Insert10000Binary/iterations:1", "BM_Floor_Insert10000Binary/iterations:1",
       "<= 1.5"},
      {"10,000 binary / SQLite", "BM_Store_Insert10000Binary/iterations:1", "BM_SQLite_Insert10000Binary/iterations:1",
       ""},
      {"open, no cache / floor", "BM_Store_OpenNoCache/iterations:2", "BM_Floor_OpenNoCache/iterations:2", "<= 2"},
      {"open, warm / no cache", "BM_Store_OpenWarmCache/iterations:5", "BM_Store_OpenNoCache/iterations:2", "< 0.05"},
      {"fetch 1% / SQLite", "BM_Store_Fetch1Percent/iterations:20", "BM_SQLite_Fetch1Percent/iterations:20", "<= 2"},
  });
  const int status = corvane::bench::runReporting(argc, argv, reporter);
  std::error_code ignored;
  fs::remove_all(root(), ignored);
  return status;
}
