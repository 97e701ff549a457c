// Consolidation of a long-lived document, against references doing the same work in the same
// run.
//
//   A document of 100,000 objects spread over 10,000 change files (10 inserts per save; set
//   CORVANE_BENCH_CHANGES for another number of saves), made once through the document.
//   Consolidate: CorvaneDocument::consolidate() to its end (the whole-graph write, the swap and
//     the document's catching up with its new package), against the floor: writing the same
//     object files (same folders, names and sizes) and the change file atomically in a plain loop.
//   First open on a new device (a new cache root) of the consolidated package, against the first
//     open of the same content before consolidation.
//
// Goals: consolidation within 2 times its floor; the first open after consolidation faster than
// before. Documents are made in the system's temporary folder ($TMPDIR).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "bench_support.h"
#include "corvane/document/corvane_document.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_store.h"
#include "document_bench_support.h"

using namespace corvane;
namespace fs = std::filesystem;

namespace {

constexpr int kObjectsPerChange = 10;

int changeCount() { return corvane::bench::sizeFromEnvironment("CORVANE_BENCH_CHANGES", 10000); }

const std::string& root() { return corvane::bench::scratchFolder("corvane-consolidation-bench"); }

DocumentOptions options(const std::string& cache) {
  static const auto model = ObjectModel::fromJSON(
      R"({"entities": [{"name": "Note", "attributes": [
        {"name": "title", "type": "string"}, {"name": "body", "type": "string"},
        {"name": "count32", "type": "integer32"}]}]})",
      nullptr);
  return corvane::bench::benchDocumentOptions(model, root(), cache);
}

// The original document, made once: 10 notes per save.
const std::string& original() {
  static const std::string path = [] {
    const std::string p = root() + "/Original.corvane";
    Error error;
    auto doc = CorvaneDocument::open(p, options("maker"), &error);
    if (!doc) {
      std::fprintf(stderr, "cannot make the document: %s\n", error.localizedDescription.c_str());
      std::exit(1);
    }
    const int changes = changeCount();
    for (int c = 0; c < changes; ++c) {
      for (int i = 0; i < kObjectsPerChange; ++i) {
        auto note = doc->context().insertNewObject("Note");
        note->setValue("title", "Note " + std::to_string(c * kObjectsPerChange + i));
        note->setValue("body", "A line of text that a note might well hold, long enough to matter.");
        note->setValue("count32", Value(c));
      }
      if (!doc->save(&error)) {
        std::fprintf(stderr, "save failed: %s\n", error.localizedDescription.c_str());
        std::exit(1);
      }
      if (c % 1000 == 999) std::fprintf(stderr, "made %d of %d changes\n", c + 1, changes);
    }
    doc->close();
    return p;
  }();
  return path;
}

const std::string kConsolidated = "/Consolidated.corvane";
// The object and change files the consolidation wrote, relative to the package, and their sizes.
std::vector<std::pair<std::string, size_t>> writtenFiles;
int round = 0;

void BM_Consolidate(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = root() + kConsolidated;
    fs::remove_all(path);
    fs::copy(original(), path, fs::copy_options::recursive);
    Error error;
    auto doc = CorvaneDocument::open(path, options("consolidating"), &error);
    state.ResumeTiming();
    const bool swapped = corvane::bench::consolidateAndWait(*doc);
    state.PauseTiming();
    if (!swapped) state.SkipWithError("the consolidation failed");
    doc->close();
    doc.reset();
    writtenFiles.clear();
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
      const std::string relative = fs::relative(entry.path(), path).string();
      if (entry.is_regular_file() && (relative.starts_with("Entities/") || relative.starts_with("Changes/"))) {
        writtenFiles.emplace_back(relative, static_cast<size_t>(entry.file_size()));
      }
    }
    state.ResumeTiming();
  }
  state.counters["files"] = static_cast<double>(writtenFiles.size());
}

void BM_Floor_WriteTheSameFiles(benchmark::State& state) {
  Env* env = Env::defaultEnv();
  for (auto _ : state) {
    const std::string folder = root() + "/floor-" + std::to_string(round++);
    for (const auto& [relative, size] : writtenFiles) {
      const std::string path = pathJoin(folder, relative);
      const std::string parent = pathDeletingLastComponent(path);
      if (!env->fileExists(parent)) (void)env->createDirectory(parent, true, nullptr);
      (void)env->writeFileAtomically(path, Bytes(size, 'x'), nullptr);
    }
  }
}

void firstOpen(benchmark::State& state, const std::string& package) {
  for (auto _ : state) {
    const std::string cache = "new-device-" + std::to_string(round++);
    Error error;
    auto doc = CorvaneDocument::open(package, options(cache), &error);
    state.PauseTiming();
    if (!doc) state.SkipWithError("the open failed");
    doc.reset();
    fs::remove_all(root() + "/" + cache);
    state.ResumeTiming();
  }
}

void BM_FirstOpen_BeforeConsolidation(benchmark::State& state) { firstOpen(state, original()); }
void BM_FirstOpen_AfterConsolidation(benchmark::State& state) { firstOpen(state, root() + kConsolidated); }

BENCHMARK(BM_Consolidate)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Floor_WriteTheSameFiles)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FirstOpen_BeforeConsolidation)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FirstOpen_AfterConsolidation)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  (void)original();  // made before any timing starts
  corvane::bench::TimeRatioReporter reporter({
      {"consolidate / floor", "BM_Consolidate/iterations:1", "BM_Floor_WriteTheSameFiles/iterations:1", "<= 2"},
      {"first open: after / before", "BM_FirstOpen_AfterConsolidation/iterations:2",
       "BM_FirstOpen_BeforeConsolidation/iterations:2", "< 1"},
  });
  const int status = corvane::bench::runReporting(argc, argv, reporter);
  std::error_code ignored;
  fs::remove_all(root(), ignored);
  return status;
}
