// Watching the Changes folder: one pass after a quiet period, passes deferred while one runs,
// this device's own files ignored, and a closed store ignoring everything. Timers run on the
// fake clock; only the kernel's hand-over of file events is waited for, in bounded real time.
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class StoreWatchTest : public StoreTest {
 protected:
  // Lets the stream's reader thread hand pending inotify events to the main loop.
  void letEventsArrive() {
    RunLoop::main().runUntil([] { return false; }, 0.3);
  }
  void advanceAndRun(double seconds) {
    env.advance(seconds);
    RunLoop::main().runOnce();
  }
  // Saves one new company on a second device (own cache) into the same package.
  void saveOnOtherDevice(const std::string& name) {
    const std::string mine = cacheRoot;
    cacheRoot = dir / "cachesB";
    OpenStore b = open();
    b.context->insertNewObject("Company")->setValue("name", name);
    save(b);
    // Not close(): that drops the main loop's pending work, the other store's batches with it.
    b.context.reset();
    b.store->close();
    b.coordinator.reset();
    cacheRoot = mine;
  }
  static size_t companies(OpenStore& s) {
    FetchRequest request("Company");
    return s.context->count(request).value_or(0);
  }
};

TEST_F(StoreWatchTest, FileEventsStartOnePassFiveSecondsAfterTheLastOne) {
  OpenStore a = open();
  drain();
  const int before = readyCount_;
  a.store->invalidatePaths({package + "/Changes/x.json"});
  advanceAndRun(3.0);
  a.store->invalidatePaths({package + "/Changes/y.json"});  // the burst goes on: the pass moves
  advanceAndRun(4.9);
  EXPECT_EQ(readyCount_, before) << "the first event's pass was not cancelled";
  advanceAndRun(0.2);
  waitUntil([&] { return readyCount_ == before + 1; });
  EXPECT_TRUE(entryContaining(a.store, "No new changes to apply"));
  // An empty batch is no event.
  a.store->invalidatePaths({});
  advanceAndRun(6.0);
  drain();
  EXPECT_EQ(readyCount_, before + 1);
  close(a);

  // The delay is a store option, for hosts and tests that cannot wait.
  OpenStore quick = open(dict({{kCorvaneChangeDebounceDelayOption, 0.5}}));
  drain();
  const int quickBefore = readyCount_;
  quick.store->invalidatePaths({package + "/Changes/z.json"});
  advanceAndRun(0.5);
  waitUntil([&] { return readyCount_ == quickBefore + 1; });
  close(quick);
}

TEST_F(StoreWatchTest, APassAskedForDuringAPassRunsTenSecondsLater) {
  OpenStore a = open();
  a.store->unobserveDirectory();  // only the calls below start passes
  saveOnOtherDevice("Acme");
  drain();
  const int before = readyCount_;
  a.store->updateChanges();  // reads on the read queue; finishes on the main loop
  EXPECT_TRUE(a.store->isUpdating());
  a.store->updateChanges();
  waitUntil([&] { return readyCount_ == before + 1; });
  EXPECT_TRUE(entryContaining(a.store, "Update in progress: Abort and trying again in some seconds"));
  EXPECT_EQ(companies(a), 1u);
  advanceAndRun(9.9);
  drain();
  EXPECT_EQ(readyCount_, before + 1);
  advanceAndRun(0.2);
  waitUntil([&] { return readyCount_ == before + 2; });
  EXPECT_TRUE(entryContaining(a.store, "No new changes to apply"));
  // A successful pass states the history's checksum.
  EXPECT_TRUE(entryContaining(a.store, "Checksum: " + a.store->checkSum()));
  close(a);
}

TEST_F(StoreWatchTest, AnotherDevicesSaveIsAppliedButOwnSavesStartNoPass) {
  OpenStore a = open();
  EXPECT_TRUE(a.store->isObservingDirectory());
  EXPECT_TRUE(entryContaining(a.store, "Added listener to: " + package + "/Changes"));

  // Own save: its change file is announced to the stream before it is written.
  const int beforeOwn = readyCount_;
  a.context->insertNewObject("Company")->setValue("name", "Mine");
  save(a);
  letEventsArrive();
  advanceAndRun(2.1);
  advanceAndRun(5.1);
  letEventsArrive();
  EXPECT_EQ(readyCount_, beforeOwn) << "this device's own save started a pass";

  // Another device's save arrives as a batch after the latency, then waits out the debounce.
  saveOnOtherDevice("Theirs");
  letEventsArrive();
  const int before = readyCount_;
  advanceAndRun(2.1);  // the batch
  advanceAndRun(4.8);
  EXPECT_EQ(readyCount_, before);
  advanceAndRun(0.3);
  waitUntil([&] { return readyCount_ > before; });
  drain();
  EXPECT_EQ(companies(a), 2u);
  close(a);
}

TEST_F(StoreWatchTest, AClosedStoreIgnoresEverything) {
  OpenStore a = open();
  drain();
  a.store->setClosed(true);
  EXPECT_FALSE(a.store->isObservingDirectory());
  const int before = readyCount_;
  saveOnOtherDevice("Late");
  letEventsArrive();
  a.store->invalidatePaths({package + "/Changes/late.json"});
  advanceAndRun(2.1);
  advanceAndRun(5.1);
  letEventsArrive();
  RunLoop::main().runOnce();
  // The other device's open and close posted its own Ready; none came from this store.
  EXPECT_LE(readyCount_, before + 1);
  EXPECT_FALSE(entryContaining(a.store, "Completed validation"));
  EXPECT_EQ(a.store->cache()->changes().count(), 0u);
  close(a);
}

}  // namespace
}  // namespace corvane::testing
