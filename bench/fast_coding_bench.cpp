// FastCoding against msgpack-c on a graph shaped like a cache file: a dictionary of 10,000
// items keyed by UUID string, each item a coded object holding an attributes dictionary
// (strings, integers, doubles, booleans, dates, decimals) and a relations dictionary of arrays
// of "Entity/UID" strings. msgpack gets the same graph, dates as doubles and decimals as
// strings, and each item as a map with its class name.
//
// Both sides start from and end with a Value graph, so the reference for decoding is msgpack's
// unpack plus the conversion of its objects into Values (the work a cache load needs); the
// bare unpack into msgpack's own zone is reported beside it. Ratios are msgpack's time over
// ours (above 1.0: we are faster). Peak memory is the most heap that one encode or decode
// holds above what was allocated before it, counted by interposing the allocator.
//
// Run: build/release/bench/fast_coding_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <msgpack.hpp>
#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"

// ---- Heap accounting ------------------------------------------------------------------------
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}
namespace {
std::atomic<int64_t> gHeapNow{0};
std::atomic<int64_t> gHeapPeak{0};
inline void heapAdd(void* p) {
  if (p == nullptr) return;
  int64_t now = gHeapNow.fetch_add(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed) +
                static_cast<int64_t>(malloc_usable_size(p));
  int64_t peak = gHeapPeak.load(std::memory_order_relaxed);
  while (now > peak && !gHeapPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
}
inline void heapRemove(void* p) {
  if (p != nullptr) gHeapNow.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
}
}  // namespace
extern "C" {
void* malloc(size_t n) {
  void* p = __libc_malloc(n);
  heapAdd(p);
  return p;
}
void* calloc(size_t a, size_t b) {
  void* p = __libc_calloc(a, b);
  heapAdd(p);
  return p;
}
void* realloc(void* old, size_t n) {
  heapRemove(old);
  void* p = __libc_realloc(old, n);
  heapAdd(p != nullptr ? p : (n == 0 ? nullptr : old));
  return p;
}
void free(void* p) {
  heapRemove(p);
  __libc_free(p);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
  void* p = __libc_memalign(alignment, n);
  if (p == nullptr) return 12;  // ENOMEM
  heapAdd(p);
  *out = p;
  return 0;
}
void* aligned_alloc(size_t alignment, size_t n) {
  void* p = __libc_memalign(alignment, n);
  heapAdd(p);
  return p;
}
void* memalign(size_t alignment, size_t n) {
  void* p = __libc_memalign(alignment, n);
  heapAdd(p);
  return p;
}
}
#define CORVANE_HEAP_COUNTED 1
#endif

namespace {

using namespace corvane;

// The heap held above the starting point while `work` runs, in MB.
template <class F>
double peakHeapMB(F work) {
#ifdef CORVANE_HEAP_COUNTED
  int64_t base = gHeapNow.load();
  gHeapPeak.store(base);
  work();
  return static_cast<double>(gHeapPeak.load() - base) / 1e6;
#else
  work();
  return 0;
#endif
}

// ---- The cache-shaped graph -----------------------------------------------------------------

class BenchItem final : public FastCodingObject {
 public:
  BenchItem(Value attributes, Value relations) : attributes_(std::move(attributes)), relations_(std::move(relations)) {}
  explicit BenchItem(FCNSDecoder& d)
      : attributes_(d.decodeObjectForKey("attributes")), relations_(d.decodeObjectForKey("relations")) {}
  std::string className() const override { return "BenchCacheItem"; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override {
    coder.encodeObject(attributes_, "attributes");
    coder.encodeObject(relations_, "relations");
  }
  const Value& attributes() const { return attributes_; }
  const Value& relations() const { return relations_; }

 private:
  Value attributes_, relations_;
};

uint64_t splitmix(uint64_t& s) {
  uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::string uuid(uint64_t& s) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  uint64_t a = splitmix(s), b = splitmix(s);
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) out += '-';
    uint64_t w = i < 16 ? a : b;
    out += hex[(w >> (4 * (i % 16))) & 15];
  }
  return out;
}

constexpr int kItems = 10000;

const Value& cacheGraph() {
  static const Value graph = [] {
    registerKeyedClass<BenchItem>("BenchCacheItem");
    uint64_t seed = 42;
    std::vector<std::string> uids;
    for (int i = 0; i < kItems; ++i) uids.push_back(uuid(seed));
    // Attribute and relation names come from the model, so they are shared strings.
    const Value kName("name"), kNote("note"), kCount("count"), kRank("rank"), kAmount("amount"), kRatio("ratio"),
        kDone("done"), kCreated("created"), kModified("modified"), kPrice("price"), kChildren("children"),
        kOwner("owner"), kTags("tags");
    auto ref = [&](const char* entity) {
      return Value(std::string(entity) + "/" + uids[splitmix(seed) % uids.size()]);
    };
    std::vector<std::pair<Value, Value>> items;
    items.reserve(kItems);
    for (int i = 0; i < kItems; ++i) {
      uint64_t r = splitmix(seed);
      Value attributes = Value::dictionary({
          {kName, Value("Item " + std::to_string(i))},
          {kNote, Value("A note about item " + std::to_string(i) + " that runs a little longer")},
          {kCount, Value::number(NumberKind::LongLong, static_cast<int64_t>(r % 1000000))},
          {kRank, Value(static_cast<int>(r % 100))},
          {kAmount, Value::doubleNumber(static_cast<double>(r % 100000) / 7.0)},
          {kRatio, Value::doubleNumber(static_cast<double>(r % 1000) / 1000.0)},
          {kDone, Value::boolean(r % 2 == 0)},
          {kCreated, Value::date(7.0e8 + static_cast<double>(r % 100000000))},
          {kModified, Value::date(7.5e8 + static_cast<double>(r % 10000000))},
          {kPrice, Value::decimal(Decimal(r % 1000000, -2, false))},
      });
      Value relations = Value::dictionary({
          {kChildren, arr({ref("Task"), ref("Task"), ref("Task")})},
          {kOwner, arr({ref("Person")})},
          {kTags, arr({ref("Tag"), ref("Tag")})},
      });
      items.emplace_back(Value(uids[i]), Value::object(new BenchItem(attributes, relations)));
    }
    return Value::dictionary(std::move(items));
  }();
  return graph;
}

// ---- msgpack reference ------------------------------------------------------------------------

using Packer = msgpack::packer<msgpack::sbuffer>;

void packString(Packer& pk, const std::string& s) {
  pk.pack_str(static_cast<uint32_t>(s.size()));
  pk.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
}

void pack(Packer& pk, const Value& v) {
  switch (v.kind()) {
    case ValueKind::Number:
      if (v.isBoolean()) {
        v.boolValue() ? pk.pack_true() : pk.pack_false();
      } else if (v.isFloatingPoint()) {
        pk.pack_double(v.doubleValue());
      } else {
        pk.pack_int64(v.longLongValue());
      }
      break;
    case ValueKind::Decimal:
      packString(pk, v.decimalValue().toString());
      break;
    case ValueKind::String:
      packString(pk, v.str());
      break;
    case ValueKind::Date:
      pk.pack_double(v.dateValue());
      break;
    case ValueKind::Array:
      pk.pack_array(static_cast<uint32_t>(v.count()));
      for (const Value& item : v.elements()) pack(pk, item);
      break;
    case ValueKind::Dictionary:
      pk.pack_map(static_cast<uint32_t>(v.count()));
      for (const auto& [key, value] : v.entries()) {
        pack(pk, key);
        pack(pk, value);
      }
      break;
    case ValueKind::Object: {
      auto* item = dynamic_cast<const BenchItem*>(v.objectPointer());
      pk.pack_map(3);
      packString(pk, "$class");
      packString(pk, item->className());
      packString(pk, "attributes");
      pack(pk, item->attributes());
      packString(pk, "relations");
      pack(pk, item->relations());
      break;
    }
    default:
      pk.pack_nil();
      break;
  }
}

Value toValue(const msgpack::object& o) {
  switch (o.type) {
    case msgpack::type::BOOLEAN:
      return Value::boolean(o.via.boolean);
    case msgpack::type::POSITIVE_INTEGER:
      return Value::number(NumberKind::LongLong, static_cast<int64_t>(o.via.u64));
    case msgpack::type::NEGATIVE_INTEGER:
      return Value::number(NumberKind::LongLong, o.via.i64);
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
      return Value::doubleNumber(o.via.f64);
    case msgpack::type::STR:
      return Value::string(std::string_view(o.via.str.ptr, o.via.str.size));
    case msgpack::type::ARRAY: {
      std::vector<Value> items;
      items.reserve(o.via.array.size);
      for (uint32_t i = 0; i < o.via.array.size; ++i) items.push_back(toValue(o.via.array.ptr[i]));
      return Value::array(std::move(items));
    }
    case msgpack::type::MAP: {
      const msgpack::object_kv* kv = o.via.map.ptr;
      if (o.via.map.size == 3 && kv[0].key.type == msgpack::type::STR &&
          std::string_view(kv[0].key.via.str.ptr, kv[0].key.via.str.size) == "$class") {
        return Value::object(new BenchItem(toValue(kv[1].val), toValue(kv[2].val)));
      }
      std::vector<std::pair<Value, Value>> entries;
      entries.reserve(o.via.map.size);
      for (uint32_t i = 0; i < o.via.map.size; ++i) entries.emplace_back(toValue(kv[i].key), toValue(kv[i].val));
      return Value::dictionary(std::move(entries));
    }
    default:
      return Value::null();
  }
}

// ---- Benchmarks -----------------------------------------------------------------------------

void finish(benchmark::State& state, size_t bytes, double peakMB) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.SetItemsProcessed(state.iterations() * kItems);
  state.counters["size_MB"] = static_cast<double>(bytes) / 1e6;
  state.counters["peak_heap_MB"] = peakMB;
}

void BM_FastCodingEncode(benchmark::State& state) {
  const Value& graph = cacheGraph();
  size_t size = 0;
  for (auto _ : state) {
    auto bytes = FastCoder::dataWithRootObject(graph);
    size = bytes->size();
    benchmark::DoNotOptimize(bytes);
  }
  finish(state, size, peakHeapMB([&] { benchmark::DoNotOptimize(FastCoder::dataWithRootObject(graph)); }));
}

void BM_MsgpackEncode(benchmark::State& state) {
  const Value& graph = cacheGraph();
  size_t size = 0;
  for (auto _ : state) {
    msgpack::sbuffer buffer;
    Packer pk(buffer);
    pack(pk, graph);
    size = buffer.size();
    benchmark::DoNotOptimize(buffer.data());
  }
  finish(state, size, peakHeapMB([&] {
           msgpack::sbuffer buffer;
           Packer pk(buffer);
           pack(pk, graph);
         }));
}

void BM_FastCodingDecode(benchmark::State& state) {
  Bytes bytes = *FastCoder::dataWithRootObject(cacheGraph());
  for (auto _ : state) {
    Value v = FastCoder::objectWithData(bytes);
    if (v.count() != kItems) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(v);
  }
  finish(state, bytes.size(), peakHeapMB([&] { benchmark::DoNotOptimize(FastCoder::objectWithData(bytes)); }));
}

msgpack::sbuffer packedGraph() {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pack(pk, cacheGraph());
  return buffer;
}

void BM_MsgpackDecode(benchmark::State& state) {
  msgpack::sbuffer buffer = packedGraph();
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
    Value v = toValue(handle.get());
    if (v.count() != kItems) state.SkipWithError("decoding failed");
    benchmark::DoNotOptimize(v);
  }
  finish(state, buffer.size(), peakHeapMB([&] {
           msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
           benchmark::DoNotOptimize(toValue(handle.get()));
         }));
}

void BM_MsgpackUnpackOnly(benchmark::State& state) {
  msgpack::sbuffer buffer = packedGraph();
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
    benchmark::DoNotOptimize(handle.get());
  }
  finish(state, buffer.size(), peakHeapMB([&] {
           msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
           benchmark::DoNotOptimize(handle.get());
         }));
}

BENCHMARK(BM_FastCodingEncode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MsgpackEncode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastCodingDecode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MsgpackDecode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MsgpackUnpackOnly)->Unit(benchmark::kMillisecond);

class CodingReporter final : public corvane::bench::KeepingReporter {
 public:
  void printTable() const override {
    std::printf(
        "\nCache-shaped graph of %d items; ratio = msgpack time / FastCoding time (goal: decode >= 1.0, "
        "encode >= 0.8)\n",
        kItems);
    std::printf("%-8s %16s %16s %14s %14s %7s\n", "", "FastCoding MB/s", "msgpack MB/s", "Fast peak MB",
                "msgpack peak MB", "ratio");
    auto row = [&](const char* label, const char* ours, const char* theirs) {
      const Run* a = find(ours);
      const Run* b = find(theirs);
      if (a == nullptr || b == nullptr) return;
      // CPU time: the machine this runs on is often shared, and wall time then measures the others.
      std::printf("%-8s %16.1f %16.1f %14.1f %14.1f %7.3f\n", label, counter(*a, "bytes_per_second") / 1e6,
                  counter(*b, "bytes_per_second") / 1e6, counter(*a, "peak_heap_MB"), counter(*b, "peak_heap_MB"),
                  b->GetAdjustedCPUTime() / a->GetAdjustedCPUTime());
    };
    row("encode", "BM_FastCodingEncode", "BM_MsgpackEncode");
    row("decode", "BM_FastCodingDecode", "BM_MsgpackDecode");
    row("unpack", "BM_FastCodingDecode", "BM_MsgpackUnpackOnly");
    std::printf("(unpack: msgpack into its own zone, without building Values; for reference only)\n");
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("process peak RSS: %.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1e3);
  }

 protected:
  // With --benchmark_repetitions the median stands for the benchmark.
  bool keeps(const Run& run) const override {
    if (run.error_occurred) return false;
    return run.run_type == Run::RT_Iteration || (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median");
  }
  std::string keyOf(const Run& run) const override { return run.run_name.function_name; }
};

}  // namespace

int main(int argc, char** argv) {
  CodingReporter reporter;
  return corvane::bench::runReporting(argc, argv, reporter);
}
