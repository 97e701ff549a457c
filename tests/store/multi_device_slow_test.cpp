// A hundred seeds of three devices editing one document through a sync client that shows every
// misbehaviour at once.
#include <cstdlib>

#include "store/multi_device_support.h"

namespace corvane::testing {
namespace {

SyncKnobs everything() {
  SyncKnobs knobs;
  knobs.delay = 1;
  knobs.jitter = 2;
  knobs.objectFileLag = 3;
  knobs.changeFileShuffle = 5;
  knobs.partialFileProbability = 0.2;
  knobs.placeholderProbability = 0.2;
  knobs.stepInterval = 1;
  knobs.duplicateFolderProbability = 0.2;
  knobs.dataFileRenameProbability = 0.2;
  return knobs;
}

uint64_t fromEnvironment(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : fallback;
}

// Seeds 1000 to 1099 by default, so that a failure here fails again on the next run; another
// hundred with CORVANE_SEED=<first> CORVANE_SEEDS=100, one seed alone with CORVANE_SEED=<seed>.
// A seed replays the same run: the test drives every save, delivery and pass on a fake clock.
// CORVANE_DEVICES and CORVANE_ROUNDS make longer runs with more devices.
TEST(MultiDeviceSeeds, HundredSeedsLoseNoSave) {
  uint64_t first = 1000, count = 100;
  if (const char* one = std::getenv("CORVANE_SEED")) first = std::strtoull(one, nullptr, 10), count = 1;
  if (const char* n = std::getenv("CORVANE_SEEDS")) count = std::strtoull(n, nullptr, 10);
  for (uint64_t seed = first; seed < first + count; ++seed) {
    // A fresh fixture per seed: its own folders, caches and clock.
    class Run : public MultiDeviceTest {
     public:
      void TestBody() override {}
      void go(uint64_t seed) {
        RandomRun run;
        run.seed = seed;
        run.knobs = everything();
        run.devices = static_cast<int>(fromEnvironment("CORVANE_DEVICES", 3));
        run.rounds = static_cast<int>(fromEnvironment("CORVANE_ROUNDS", 40));
        // Every fourth seed, the last device's clock runs an hour behind.
        if (seed % 4 == 3) run.clockBehind = 3600;
        runRandom(run);
        TearDown();
      }
    };
    {
      Run run;
      run.go(seed);
    }
    if (::testing::Test::HasFailure()) {
      ADD_FAILURE() << "failing seed: " << seed << " (rerun with CORVANE_SEED=" << seed << ")";
      return;
    }
  }
}

}  // namespace
}  // namespace corvane::testing
