// Value against RapidJSON's DOM doing the same work: building a thousand small records (the
// shape of a cache item's attributes), looking keys up in them, and comparing two equal sets of
// records deeply. RapidJSON allocates from a memory pool and frees it in one go, so it is the
// floor for a dynamic value type; the ratio (Value's rate / RapidJSON's) says how close we come.
// Run with --benchmark_counters_tabular=true; the ratios are printed at the end.
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/foundation/value.h"

namespace {

using corvane::Value;

constexpr int kRecords = 1000;

std::string uidFor(int i) { return "4F1C2D3E5A6B7C8D9E0F1A" + std::to_string(i % 10); }

std::vector<Value> buildValues() {
  static const Value kUID("uid"), kName("name"), kCount("count"), kScore("score"), kTags("tags"), kFlag("flag");
  std::vector<Value> records;
  records.reserve(kRecords);
  for (int i = 0; i < kRecords; ++i) {
    std::vector<std::pair<Value, Value>> entries;
    entries.reserve(6);
    entries.emplace_back(kUID, Value::string(uidFor(i)));
    entries.emplace_back(kName, Value::string("Ann"));
    entries.emplace_back(kCount, Value(i));
    entries.emplace_back(kScore, Value(i * 0.25));
    entries.emplace_back(kTags, Value::array({Value::string("red"), Value::string("green"), Value::string("blue")}));
    entries.emplace_back(kFlag, Value(i % 2 == 0));
    records.push_back(Value::dictionary(std::move(entries)));
  }
  return records;
}

void buildDocument(rapidjson::Document& doc) {
  auto& a = doc.GetAllocator();
  doc.SetArray();
  doc.Reserve(kRecords, a);
  for (int i = 0; i < kRecords; ++i) {
    rapidjson::Value record(rapidjson::kObjectType);
    const std::string uid = uidFor(i);
    record.AddMember("uid", rapidjson::Value(uid.c_str(), static_cast<rapidjson::SizeType>(uid.size()), a), a);
    record.AddMember("name", rapidjson::Value("Ann", a), a);
    record.AddMember("count", i, a);
    record.AddMember("score", i * 0.25, a);
    rapidjson::Value tags(rapidjson::kArrayType);
    tags.PushBack(rapidjson::Value("red", a), a).PushBack(rapidjson::Value("green", a), a);
    tags.PushBack(rapidjson::Value("blue", a), a);
    record.AddMember("tags", tags, a);
    record.AddMember("flag", i % 2 == 0, a);
    doc.PushBack(record, a);
  }
}

void BM_ValueBuild(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<Value> records = buildValues();
    benchmark::DoNotOptimize(records.data());
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_RapidJSONBuild(benchmark::State& state) {
  for (auto _ : state) {
    rapidjson::Document doc;
    buildDocument(doc);
    benchmark::DoNotOptimize(&doc);
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_ValueLookup(benchmark::State& state) {
  const std::vector<Value> records = buildValues();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const Value& r : records) sum += r["count"].longLongValue() + static_cast<int64_t>(r["name"].count());
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_RapidJSONLookup(benchmark::State& state) {
  rapidjson::Document doc;
  buildDocument(doc);
  for (auto _ : state) {
    int64_t sum = 0;
    for (const auto& r : doc.GetArray()) {
      sum += r.FindMember("count")->value.GetInt64() + r.FindMember("name")->value.GetStringLength();
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_ValueEqual(benchmark::State& state) {
  const Value a = Value::array(buildValues());
  const Value b = Value::array(buildValues());
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_RapidJSONEqual(benchmark::State& state) {
  rapidjson::Document a;
  rapidjson::Document b;
  buildDocument(a);
  buildDocument(b);
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
  state.SetItemsProcessed(state.iterations() * kRecords);
}

BENCHMARK(BM_ValueBuild);
BENCHMARK(BM_RapidJSONBuild);
BENCHMARK(BM_ValueLookup);
BENCHMARK(BM_RapidJSONLookup);
BENCHMARK(BM_ValueEqual);
BENCHMARK(BM_RapidJSONEqual);

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::runWithRatios(argc, argv, "Value records/s / RapidJSON records/s", "items_per_second",
                                       {{"build", "BM_ValueBuild", "BM_RapidJSONBuild"},
                                        {"lookup", "BM_ValueLookup", "BM_RapidJSONLookup"},
                                        {"equal", "BM_ValueEqual", "BM_RapidJSONEqual"}},
                                       1.0, "rec/s");
}
