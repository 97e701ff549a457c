// JSON: parsing change-file bytes into Values against RapidJSON parsing the same bytes into
// its own document (the reference), and compact writing of the same value.
#include <rapidjson/document.h>

#include <string>

#include "bench_support.h"
#include "corvane/foundation/json.h"

namespace {

using corvane::Value;

// A change file as a save of 200 objects writes it, and an object file's payload.
std::string changeFileText() {
  std::string uidBase = "5C1E0E9A-1B6B-4C7E-9E2F-0D8F6A3C";
  std::string s = R"({"name":"2024-05-17-09-41-07.250.5C1E0E9A-1B6B-4C7E-9E2F-0D8F6A3C2B11.json",)"
                  R"("date":"2024-05-17T09:41:07.250+0000","changes":{"insert":{"Note":{)";
  for (int i = 0; i < 200; ++i) {
    char uid[8];
    std::snprintf(uid, sizeof uid, "%04X", i);
    if (i) s += ",";
    s += "\"" + uidBase + uid +
         "\":{\"data\":[{\"length\":4096,\"hash\":"
         "\"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08\",\"name\":\"" +
         uidBase + uid + "\"}]}";
  }
  s += R"(}},"update":{"Tag":{)";
  for (int i = 0; i < 50; ++i) {
    if (i) s += ",";
    s += "\"" + uidBase + "1" + std::to_string(100 + i) + "\":{}";
  }
  s +=
      R"(}}},"session":{"userName":"ann","fullUserName":"Ann Example","machineName":"ann-laptop",)"
      R"("id":"0D8F6A3C-2B11-4C7E-9E2F-5C1E0E9A1B6B","version":"412","osVersion":"Debian GNU/Linux 12"},)"
      R"("previousName":"2024-05-17-09-40-00.000.0D8F6A3C-2B11-4C7E-9E2F-5C1E0E9A1B6B.json",)"
      R"("payload":{"title":{"value":"Groceries"},"count":{"value":"12"},"price":{"value":"3.25"},)"
      R"("tags":{"addedValues":["Tag/5C1E0E9A-1B6B-4C7E-9E2F-0D8F6A3C0001","Tag/5C1E0E9A-1B6B-4C7E-9E2F-0D8F6A3C0002"]}}})";
  return s;
}

const std::string& text() {
  static const std::string t = changeFileText();
  return t;
}

void BM_ValueParse(benchmark::State& state) {
  for (auto _ : state) {
    auto v = corvane::jsonToValue(text());
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text().size()));
}

// The reference does the same checking work as our reader: UTF-8 validation and exact
// floating-point conversion.
constexpr unsigned kSameChecks = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseFullPrecisionFlag;

void BM_RapidJSONParse(benchmark::State& state) {
  for (auto _ : state) {
    rapidjson::Document d;
    d.Parse<kSameChecks>(text().data(), text().size());
    benchmark::DoNotOptimize(d);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text().size()));
}

void BM_ValueWriteCompact(benchmark::State& state) {
  Value v = *corvane::jsonToValue(text());
  size_t bytes = 0;
  for (auto _ : state) {
    auto out = corvane::valueToJson(v);
    bytes += out->size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

BENCHMARK(BM_ValueParse);
BENCHMARK(BM_RapidJSONParse);
BENCHMARK(BM_ValueWriteCompact);

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::runWithRatios(argc, argv, "JSON parsing into Value / RapidJSON into its document (goal 0.7)",
                                       "bytes_per_second",
                                       {{"parse change file", "BM_ValueParse", "BM_RapidJSONParse"}});
}
