// Shared by the benchmarks that work through CorvaneDocument.
#pragma once

#include <memory>
#include <string>

#include "corvane/document/corvane_document.h"
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

}  // namespace corvane::bench
