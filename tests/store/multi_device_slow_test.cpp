// A hundred seeds of three devices editing one document through a sync client that shows every
// misbehaviour at once. Set CORVANE_SEEDS to run another count, CORVANE_SEED to rerun one.
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
  // Duplicated entity folders are left out until merging them loses nothing (see the disabled
  // case in multi_device_test.cpp).
  knobs.dataFileRenameProbability = 0.2;
  return knobs;
}

// Not yet: some seeds still end with a save missing. Seen so far: 1006 and 1087 (a device's
// change log lacks other devices' saves after everything settled) and 1052 (the devices agree,
// but a person one of them inserted and nobody deleted is gone from all of them). The store's
// queues run on real threads, so which seeds fail varies from run to run. The sweep stays
// disabled until no seed loses a save; run it with --gtest_also_run_disabled_tests, one seed
// with CORVANE_SEED=<seed>.
TEST(MultiDeviceSeeds, DISABLED_HundredSeedsLoseNoSave) {
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
        run.devices = 3;
        run.rounds = 40;
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
