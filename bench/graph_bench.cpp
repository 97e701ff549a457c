// The object graph against SQLite doing the same work in memory.
//
// Insert: 100,000 objects of a five-attribute entity inserted into a context and saved into
// the in-memory store, against SQLite inserting the same rows with a prepared statement in
// one transaction. Fetch: a predicate matching 1% of 100,000 objects, the result sorted and
// each result's name read, against SQLite running the same query on a table without index and
// reading the same column. The ratio is the graph's time over SQLite's (goal: 2.0 or less).
// Run with --benchmark_counters_tabular=true; the ratios are printed at the end.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_support.h"
#include "corvane/graph/in_memory_store.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/graph/persistent_store_coordinator.h"

namespace {

using namespace corvane;

constexpr int kRows = 100000;

std::shared_ptr<ObjectModel> recordModel() {
  static std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(R"({"entities": [{"name": "Record", "attributes": [
      {"name": "name", "type": "string"}, {"name": "count", "type": "integer64"}, {"name": "score", "type": "double"},
      {"name": "created", "type": "date"}, {"name": "flag", "type": "boolean"}]}]})");
  return model;
}

std::string nameOf(int i) { return "record " + std::to_string(i); }
double scoreOf(int i) { return static_cast<double>((i * 7919) % 100003) / 7.0; }

struct GraphStack {
  std::shared_ptr<PersistentStoreCoordinator> coordinator = std::make_shared<PersistentStoreCoordinator>(recordModel());
  GraphStack() { coordinator->addPersistentStore(kInMemoryStoreType, "", "", Value()); }
  std::shared_ptr<ManagedObjectContext> context() const {
    auto c = ManagedObjectContext::create(ConcurrencyType::MainQueue);
    c->setPersistentStoreCoordinator(coordinator);
    c->setUndoManager(nullptr);  // bulk work, as an importer would do it
    return c;
  }
};

void insertRecords(ManagedObjectContext& c) {
  const EntityDescription* entity = c.entity("Record");
  for (int i = 0; i < kRows; ++i) {
    auto r = c.insertNewObject(entity);
    r->setValue("name", nameOf(i));
    r->setValue("count", static_cast<long long>(i));
    r->setValue("score", scoreOf(i));
    r->setDate("created", 700000000.0 + i);
    r->setValue("flag", i % 2 == 0);
  }
}

void BM_GraphInsertSave(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto stack = std::make_unique<GraphStack>();
    auto c = stack->context();
    state.ResumeTiming();
    insertRecords(*c);
    if (!c->save()) state.SkipWithError("save failed");
    state.PauseTiming();
    c.reset();
    stack.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

sqlite3* openSQLite() {
  sqlite3* db = nullptr;
  sqlite3_open(":memory:", &db);
  sqlite3_exec(db, "CREATE TABLE record (name TEXT, count INTEGER, score REAL, created REAL, flag INTEGER)", nullptr,
               nullptr, nullptr);
  return db;
}

void insertSQLite(sqlite3* db) {
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO record VALUES (?, ?, ?, ?, ?)", -1, &insert, nullptr);
  for (int i = 0; i < kRows; ++i) {
    std::string name = nameOf(i);
    sqlite3_bind_text(insert, 1, name.c_str(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(insert, 2, i);
    sqlite3_bind_double(insert, 3, scoreOf(i));
    sqlite3_bind_double(insert, 4, 700000000.0 + i);
    sqlite3_bind_int(insert, 5, i % 2 == 0);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
}

void BM_SQLiteInsert(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = openSQLite();
    state.ResumeTiming();
    insertSQLite(db);
    state.PauseTiming();
    sqlite3_close(db);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_GraphFetch(benchmark::State& state) {
  GraphStack stack;
  {
    auto c = stack.context();
    insertRecords(*c);
    c->save();
  }
  FetchRequest request("Record");
  request.setPredicate(Predicate::parse("count < 1000"));  // 1%
  request.setSortDescriptors({SortDescriptor("score", false)});
  size_t found = 0;
  for (auto _ : state) {
    auto c = stack.context();  // a fresh context: results are faults, values come from the store
    auto results = c->fetch(request);
    if (!results) state.SkipWithError("fetch failed");
    for (const auto& r : *results) benchmark::DoNotOptimize(r->value("name"));
    found = results->size();
  }
  if (found != kRows / 100) state.SkipWithError("wrong number of results");
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_SQLiteFetch(benchmark::State& state) {
  sqlite3* db = openSQLite();
  insertSQLite(db);
  sqlite3_stmt* query = nullptr;
  sqlite3_prepare_v2(db, "SELECT name FROM record WHERE count < 1000 ORDER BY score DESC", -1, &query, nullptr);
  size_t found = 0;
  for (auto _ : state) {
    found = 0;
    while (sqlite3_step(query) == SQLITE_ROW) {
      benchmark::DoNotOptimize(sqlite3_column_text(query, 0));
      ++found;
    }
    sqlite3_reset(query);
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  if (found != kRows / 100) state.SkipWithError("wrong number of results");
  state.SetItemsProcessed(state.iterations() * kRows);
}

BENCHMARK(BM_GraphInsertSave)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SQLiteInsert)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_GraphFetch)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SQLiteFetch)->Unit(benchmark::kMillisecond)->UseRealTime();

// The ratio table of real and CPU times.
class GraphReporter final : public corvane::bench::KeepingReporter {
 public:
  // Real time and the CPU time of the benchmark thread; on a busy machine the CPU times
  // are the steadier comparison.
  void printTable() const override {
    std::printf("\nObject graph time / SQLite time (goal: 2.0 or less)\n");
    std::printf("%-8s %14s %14s %11s %14s %14s %10s\n", "work", "graph real ms", "SQLite real ms", "real ratio",
                "graph CPU ms", "SQLite CPU ms", "CPU ratio");
    for (const char* work : {"Insert", "Fetch"}) {
      const Run* ours = findPrefix(std::string("BM_Graph") + work);
      const Run* theirs = findPrefix(std::string("BM_SQLite") + work);
      if (ours == nullptr || theirs == nullptr) continue;
      const double ourReal = ours->GetAdjustedRealTime(), theirReal = theirs->GetAdjustedRealTime();
      const double ourCPU = ours->GetAdjustedCPUTime(), theirCPU = theirs->GetAdjustedCPUTime();
      std::printf("%-8s %14.2f %14.2f %11.2f %14.2f %14.2f %10.2f\n", work, ourReal, theirReal, ourReal / theirReal,
                  ourCPU, theirCPU, ourCPU / theirCPU);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  GraphReporter reporter;
  return corvane::bench::runReporting(argc, argv, reporter);
}
