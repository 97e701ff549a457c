// Shared by the benchmarks that work through CorvaneDocument.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"

namespace corvane::bench {

// Options of a benchmark's document: its cache under `root`/`cache`, no keychain, defaults of
// its own in `root`.
inline DocumentOptions benchDocumentOptions(std::shared_ptr<ObjectModel> model, const std::string& root,
                                            const std::string& cache) {
  DocumentOptions o;
  o.model = std::move(model);
  o.application = ApplicationInfo{"org.corvane.bench", "bench", "1", "1.0", Value()};
  o.cacheRoot = root + "/" + cache;
  o.useKeychain = false;
  o.defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), root + "/defaults.plist");
  return o;
}

// Consolidates `document` and drives the main run loop until it is over; whether it swapped.
inline bool consolidateAndWait(CorvaneDocument& document) {
  std::optional<bool> swapped;
  document.consolidate([&swapped](bool done) { swapped = done; });
  RunLoop::main().runUntil([&swapped] { return swapped.has_value(); }, 24 * 3600);
  return swapped.value_or(false);
}

}  // namespace corvane::bench
