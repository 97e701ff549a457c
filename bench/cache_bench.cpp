// Warm load of the local cache against the format alone: loading all 16 object tables of an
// entity holding 100,000 cached items (CorvaneCache::loadCachesForEntity) against reading the
// same 16 files and decoding them with FastCoder, in the same run. The ratio (cache time /
// reference time) says what the cache adds to the format; the goal is 1.2 or better. Before the
// benchmarks run, the memory the loaded cache takes is measured: the growth of the peak
// resident set while loading, and the heap still in use afterwards.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/cache/cache.h"
#include "corvane/cache/cache_store_services.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/graph/object_model.h"

namespace {

using namespace corvane;

constexpr int kItems = 100000;
constexpr const char* kHexDigits = "0123456789ABCDEF";

const char* kModelJSON = R"({"entities": [
  {"name": "Person", "attributes": [
    {"name": "name", "type": "string"}, {"name": "nickname", "type": "string"},
    {"name": "age", "type": "integer32"}, {"name": "balance", "type": "decimal"},
    {"name": "born", "type": "date"}, {"name": "active", "type": "boolean"}, {"name": "photo", "type": "binary"}],
   "relationships": [
    {"name": "employer", "destination": "Company", "inverse": "staff"},
    {"name": "friends", "destination": "Person", "inverse": "friendOf", "toMany": true},
    {"name": "friendOf", "destination": "Person", "inverse": "friends", "toMany": true}]},
  {"name": "Company", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "staff", "destination": "Person", "inverse": "employer", "toMany": true}]}
]})";

const ObjectModel& model() {
  static std::shared_ptr<ObjectModel> m = ObjectModel::fromJSON(kModelJSON);
  return *m;
}

// Only what loading and saving need: plain files, no password, a fixed cache root.
class BenchStore : public CorvaneCacheStoreServices {
 public:
  explicit BenchStore(std::string root) : root_(std::move(root)) {}
  Env* env() override { return Env::defaultEnv(); }
  std::optional<Bytes> decrypt(ByteView b) override { return Bytes(b.begin(), b.end()); }
  std::optional<Bytes> encrypt(ByteView b) override { return Bytes(b.begin(), b.end()); }
  void log(std::string_view, std::string_view) override {}
  void logError(const Error&, std::string_view) override {}
  std::vector<const EntityDescription*> entities() override { return model().entities(); }
  const EntityDescription* entityForName(std::string_view name) override { return model().entity(name); }
  ObjectID newObjectIDForEntity(const EntityDescription* e, const Value& r) override {
    return ObjectID::makePermanent(e, r, nullptr);
  }
  ObjectID objectIDForReferenceString(std::string_view) override { return ObjectID(); }
  void setObjectIDForReferenceString(std::string_view, const ObjectID&) override {}
  void preventFromSaving() override {}
  CorvaneCacheItemPtr loadValuesForObjectID(const ObjectID&, ManagedObjectContext*) override { return {}; }
  std::string entitiesURL() override { return root_ + "/pkg/Entities"; }
  std::string fileNameForEntity(const EntityDescription& e) override { return e.name(); }
  std::string correctedDataURL(const std::string& p) override { return p; }
  Value validatedChanges(const Value&, bool) override { return Value::dictionary(); }
  void refreshInsertedObjects(const Value&, const Value&, const Value&) override {}
  bool recover() override { return false; }
  void setRecover(bool) override {}
  std::optional<std::string> cacheRootURL() override { return root_ + "/caches"; }
  std::string cacheURL() override { return root_ + "/pkg/Cache"; }
  std::string upToChange() override { return {}; }
  void showAlert(const std::string&, const std::string&) override {}
  void revealInFileViewer(const std::string&) override {}

 private:
  std::string root_;
};

struct BenchData {
  std::string root;
  std::string package;
  std::unique_ptr<BenchStore> store;
  RunLoop loop;
  std::vector<std::string> files;  // the 16 object tables

  BenchData() {
    char pattern[] = "/tmp/corvane-cache-bench-XXXXXX";
    root = mkdtemp(pattern);
    package = root + "/pkg";
    store = std::make_unique<BenchStore>(root);
    CorvaneCacheItem::registerClass();
  }
  void removeFiles() { Env::defaultEnv()->removeItem(root, nullptr); }

  std::shared_ptr<CorvaneCache> boundCache() {
    auto cache = CorvaneCache::cacheForStore(store.get(), &loop);
    cache->setStoreURL(package);
    return cache;
  }

  // Writes the tables in a child process, so that the parent's peak memory is the load's alone.
  void prepare() {
    pid_t child = fork();
    if (child == 0) {
      writeTables();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    auto cache = boundCache();
    for (int i = 0; i < 16; ++i) files.push_back(cache->URL() + "/Person_" + kHexDigits[i] + ".fast");
  }

  void writeTables() {
    auto cache = boundCache();
    const EntityDescription* person = model().entity("Person");
    char uid[37];
    for (int i = 0; i < kItems; ++i) {
      std::snprintf(uid, sizeof uid, "%08X-%04X-4%03X-8%03X-%012X", static_cast<unsigned>(i * 2654435761u), i & 0xFFFF,
                    i & 0xFFF, (i * 7) & 0xFFF, i);
      auto ref = [](int n) {
        char text[64];
        std::snprintf(text, sizeof text, "Person/%08X-0000-4000-8000-%012X", static_cast<unsigned>(n * 2654435761u), n);
        return Value(text);
      };
      Value payload = dict({
          {"name", dict({{"value", Value("Person number " + std::to_string(i))}})},
          {"nickname", dict({{"value", Value("p" + std::to_string(i % 977))}})},
          {"age", dict({{"value", Value(std::to_string(18 + i % 70))}})},
          {"balance", dict({{"value", Value(std::to_string(i) + ".25")}})},
          {"born", dict({{"value", "1990-05-17T09:41:07.250+0000"}})},
          {"active", dict({{"value", Value(i % 2 == 0)}})},
          {"photo", dict({{"value", Value(std::string(uid) + ".jpg")}})},
          {"employer", dict({{"value", arr({Value("Company/C" + std::to_string(i % 100))})}})},
          {"friends", dict({{"addedValues", arr({ref(i + 1), ref(i + 2)})}})},
      });
      cache->updateCacheForObjectID(store->newObjectIDForEntity(person, Value(uid)),
                                    dict({{"payload", payload}, {"version", "1"}}), "");
    }
    cache->save();
  }
};

BenchData& data() {
  static BenchData* d = new BenchData();  // kept to the end of the process
  return *d;
}

double threadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

std::vector<Value> decodeFilesAlone() {
  std::vector<Value> roots;
  for (const std::string& file : data().files) {
    Bytes bytes;
    if (!Env::defaultEnv()->readFile(file, &bytes, nullptr)) std::abort();
    roots.push_back(FastCoder::objectWithData(bytes));
  }
  return roots;
}

// Both loads in every iteration, in alternating order, so that a busy machine slows both alike.
// Wall and thread CPU seconds of each side are summed; the manual time is the cache's.
void BM_WarmLoadAgainstFastCoder(benchmark::State& state) {
  const EntityDescription* person = model().entity("Person");
  double cacheWall = 0, cacheCPU = 0, referenceWall = 0, referenceCPU = 0;
  bool cacheFirst = true;
  for (auto _ : state) {
    // Each side frees what it loaded before the other starts, so both start from the same heap.
    auto loadCache = [&] {
      auto cache = data().boundCache();
      auto wall = std::chrono::steady_clock::now();
      double cpu = threadSeconds();
      cache->loadCachesForEntity(*person);
      cacheCPU += threadSeconds() - cpu;
      double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
      cacheWall += seconds;
      state.SetIterationTime(seconds);
    };
    auto loadReference = [&] {
      auto wall = std::chrono::steady_clock::now();
      double cpu = threadSeconds();
      std::vector<Value> roots = decodeFilesAlone();
      referenceCPU += threadSeconds() - cpu;
      referenceWall += std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
      benchmark::DoNotOptimize(roots);
    };
    if (cacheFirst) {
      loadCache();
      loadReference();
    } else {
      loadReference();
      loadCache();
    }
    cacheFirst = !cacheFirst;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["cache_ms"] = cacheWall / n * 1e3;
  state.counters["fastcoder_ms"] = referenceWall / n * 1e3;
  state.counters["ratio_wall"] = cacheWall / referenceWall;
  state.counters["ratio_cpu"] = cacheCPU / referenceCPU;
  state.counters["items_per_second"] = benchmark::Counter(kItems, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_WarmLoadAgainstFastCoder)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

long peakResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

// The cache first, while the process is still small, so that the peak's growth is its own.
void measureMemory() {
  const long peakBefore = peakResidentKiB();
  const size_t heapBefore = mallinfo2().uordblks;
  auto cache = data().boundCache();
  cache->loadCachesForEntity(*model().entity("Person"));
  const size_t heapAfter = mallinfo2().uordblks;
  const long peakAfter = peakResidentKiB();
  cache.reset();
  const size_t referenceBefore = mallinfo2().uordblks;
  std::vector<Value> roots = decodeFilesAlone();
  const size_t referenceAfter = mallinfo2().uordblks;
  uint64_t onDisk = 0;
  for (const std::string& file : data().files) onDisk += Env::defaultEnv()->attributes(file)->size;
  std::printf(
      "Memory for %d cached items: peak resident set +%.1f MiB while loading, heap in use +%.1f MiB after; the same "
      "files decoded by FastCoder alone: heap +%.1f MiB (files: %.1f MiB)\n",
      kItems, (peakAfter - peakBefore) / 1024.0, (heapAfter - heapBefore) / 1048576.0,
      (referenceAfter - referenceBefore) / 1048576.0, onDisk / 1048576.0);
}

// The ratios of the interleaved benchmark, which reports them as its counters.
class CacheReporter final : public corvane::bench::KeepingReporter {
 public:
  void printTable() const override {
    for (const auto& [name, run] : kept_) {
      if (!run.counters.contains("ratio_cpu")) continue;
      std::printf(
          "\nWarm load of %d items in 16 tables: cache %.1f ms, read + FastCoder alone %.1f ms; ratio %.3f by "
          "wall time, %.3f by CPU time (goal: 1.2 or better)\n",
          kItems, counter(run, "cache_ms"), counter(run, "fastcoder_ms"), counter(run, "ratio_wall"),
          counter(run, "ratio_cpu"));
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  data().prepare();
  measureMemory();
  CacheReporter reporter;
  const int status = corvane::bench::runReporting(argc, argv, reporter);
  data().removeFiles();
  return status;
}
