// Rebuilding a package from a device's cache, against the document's own consolidation (the
// same objects written as one change) in the same run.
//
//   A document of 100,000 notes in 1,000 folders (a to-one and its to-many inverse), saved in
//   10 changes and closed, so that its cache is complete on disk (set CORVANE_BENCH_OBJECTS for
//   another number of notes).
//   Rebuild: CorvaneRecovery::rebuildPackageToURL() from that cache into a new package.
//   Reference: CorvaneDocument::consolidate() of a copy of the document.
//
// Goal: the rebuild within 1.5 times the consolidation. Documents are made in $TMPDIR.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "bench_support.h"
#include "corvane/cache/cache.h"
#include "corvane/document/corvane_document.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/recovery/corvane_recovery.h"
#include "document_bench_support.h"

using namespace corvane;
namespace fs = std::filesystem;

namespace {

int objectCount() { return corvane::bench::sizeFromEnvironment("CORVANE_BENCH_OBJECTS", 100000); }

const std::string& root() { return corvane::bench::scratchFolder("corvane-recovery-bench"); }

std::shared_ptr<ObjectModel> model() {
  static const auto m = ObjectModel::fromJSON(
      R"({"entities": [
        {"name": "Note", "attributes": [{"name": "title", "type": "string"}, {"name": "count32", "type": "integer32"}],
         "relationships": [{"name": "folder", "destination": "Folder", "inverse": "notes"}]},
        {"name": "Folder", "attributes": [{"name": "name", "type": "string"}],
         "relationships": [{"name": "notes", "destination": "Note", "inverse": "folder", "toMany": true}]}]})",
      nullptr);
  return m;
}

DocumentOptions options(const std::string& cache) {
  return corvane::bench::benchDocumentOptions(model(), root(), cache);
}

const std::string& original() {
  static const std::string path = [] {
    const std::string p = root() + "/Original.corvane";
    Error error;
    auto doc = CorvaneDocument::open(p, options("device"), &error);
    if (!doc) std::exit(1);
    const int notes = objectCount();
    std::vector<Retained<ManagedObject>> folders;
    for (int i = 0; i < 1000; ++i) {
      folders.push_back(doc->context().insertNewObject("Folder"));
      folders.back()->setValue("name", "Folder " + std::to_string(i));
    }
    for (int i = 0; i < notes; ++i) {
      auto note = doc->context().insertNewObject("Note");
      note->setValue("title", "Note " + std::to_string(i));
      note->setValue("count32", Value(i));
      note->setToOne("folder", folders[static_cast<size_t>(i) % folders.size()].get());
      if (i % (notes / 10) == notes / 10 - 1 && !doc->save(&error)) std::exit(1);
    }
    if (!doc->save(&error)) std::exit(1);
    doc->close();
    return p;
  }();
  return path;
}

int round = 0;

void BM_Rebuild(benchmark::State& state) {
  RecoverySetup setup;
  setup.cacheRoots = {root() + "/device"};
  setup.storeCacheRoot = root() + "/rebuilt";
  for (auto _ : state) {
    CorvaneRecovery recovery(*CorvaneRecovery::cacheURLForStoreURL(original(), setup), model(), setup);
    Error error;
    if (!recovery.rebuildPackageToURL(root() + "/Rebuilt" + std::to_string(round++) + ".corvane", Value(), &error)) {
      state.SkipWithError("the rebuild failed");
    }
  }
}

void BM_Consolidate(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = root() + "/Copy" + std::to_string(round++) + ".corvane";
    fs::copy(original(), path, fs::copy_options::recursive);
    Error error;
    auto doc = CorvaneDocument::open(path, options("consolidating"), &error);
    state.ResumeTiming();
    const bool swapped = corvane::bench::consolidateAndWait(*doc);
    state.PauseTiming();
    if (!swapped) state.SkipWithError("the consolidation failed");
    doc.reset();
    state.ResumeTiming();
  }
}

BENCHMARK(BM_Rebuild)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Consolidate)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  (void)original();
  corvane::bench::TimeRatioReporter reporter({
      {"rebuild / consolidation", "BM_Rebuild/iterations:1", "BM_Consolidate/iterations:1", "<= 1.5"},
  });
  const int status = corvane::bench::runReporting(argc, argv, reporter);
  std::error_code ignored;
  fs::remove_all(root(), ignored);
  return status;
}
