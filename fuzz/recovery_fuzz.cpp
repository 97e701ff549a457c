// Recovery reads cache folders that may be damaged: the input becomes, in turn, an entity's UID
// list and the table of its items, and every read must give an answer or an error, never a
// crash. The first byte picks which file the rest is.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "corvane/foundation/env.h"
#include "corvane/recovery/corvane_recovery.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string folder = [] {
    std::string path = Env::defaultEnv()->temporaryDirectory() + "/corvane-recovery-fuzz-" + std::to_string(::getpid());
    (void)Env::defaultEnv()->createDirectory(path, true, nullptr);
    return path;
  }();
  if (size == 0) return 0;
  Env* env = Env::defaultEnv();
  const Bytes content(data + 1, data + size);
  const bool uids = (data[0] & 1) != 0;
  (void)env->removeItem(folder + "/Note_uids.fast", nullptr);
  (void)env->removeItem(folder + "/Note_A.fast", nullptr);
  if (!env->writeFileAtomically(folder + (uids ? "/Note_uids.fast" : "/Note_A.fast"), content, nullptr)) return 0;
  CorvaneRecovery recovery(folder);
  (void)recovery.availableEntitiesWithError(nullptr);
  (void)recovery.isEncrypted();
  (void)recovery.UIDsForEntity("Note", nullptr);
  (void)recovery.cacheItemForEntity("Note", "A1", nullptr);
  (void)CorvaneRecovery::suggestedNameForCacheURL(folder, env);
  return 0;
}
