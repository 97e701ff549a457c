#include "store/multi_device_support.h"

namespace corvane::testing {
namespace {

class MultiDeviceFixedTest : public MultiDeviceTest {
 protected:
  // Two devices on one document, both open and in step.
  void twoDevices(const SyncKnobs& knobs = {}) {
    Device& a = addDevice("Laptop");
    addDevice("Desktop");
    startSync(7, knobs);
    ASSERT_TRUE(openDevice(a));
    settleNewPackage();
    ASSERT_TRUE(openDevice(desktop()));
  }
  Device& laptop() { return *devices_[0]; }
  Device& desktop() { return *devices_[1]; }
};

TEST_F(MultiDeviceFixedTest, ConcurrentEditsOfSameAndDifferentObjectsConverge) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  insertPerson(laptop(), "Ann", 30);
  insertPerson(laptop(), "Bob", 40);
  insertPerson(laptop(), "Cid", 50);
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  ASSERT_EQ(people(desktop()).size(), 3u);

  // Before any file travels: both change Ann (different properties), both insert, one deletes
  // Bob while the other changes Cid.
  env.advance(1);
  personNamed(laptop(), "Ann")->setValue("age", 31);
  insertPerson(laptop(), "Dee", 20);
  laptop().opened.context->deleteObject(personNamed(laptop(), "Bob").get());
  ASSERT_TRUE(saveDevice(laptop()));
  env.advance(1);
  personNamed(desktop(), "Ann")->setValue("serial", 7);
  personNamed(desktop(), "Cid")->setValue("age", 51);
  insertPerson(desktop(), "Eve", 25);
  ASSERT_TRUE(saveDevice(desktop()));

  settleAll();
  expectConverged("concurrent edits");
  Snapshot held = snapshot(laptop());
  std::set<std::string> values;
  for (const auto& [key, text] : held) values.insert(text);
  EXPECT_EQ(values, (std::set<std::string>{"Ann age=31 serial=7", "Cid age=51 serial=0", "Dee age=20 serial=0",
                                           "Eve age=25 serial=0"}));
}

TEST_F(MultiDeviceFixedTest, ConcurrentUpdatesOfOneValueEndWithTheLaterSave) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  insertPerson(laptop(), "Ann", 30);
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  personNamed(laptop(), "Ann")->setValue("age", 1);
  ASSERT_TRUE(saveDevice(laptop()));
  env.advance(2);
  personNamed(desktop(), "Ann")->setValue("age", 2);
  ASSERT_TRUE(saveDevice(desktop()));
  settleAll();
  expectConverged("same value");
  EXPECT_EQ(personNamed(laptop(), "Ann")->int64Value("age"), 2);
  EXPECT_EQ(personNamed(desktop(), "Ann")->int64Value("age"), 2);
}

TEST_F(MultiDeviceFixedTest, ClosedDeviceCatchesUpWhenItOpens) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  insertPerson(laptop(), "Ann", 30);
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  closeDevice(desktop());
  for (int i = 0; i < 5; ++i) {
    env.advance(60);
    insertPerson(laptop(), "Later " + std::to_string(i), i);
    ASSERT_TRUE(saveDevice(laptop()));
  }
  env.advance(1);
  personNamed(laptop(), "Ann")->setValue("age", 99);
  ASSERT_TRUE(saveDevice(laptop()));
  sync_->scan();
  sync_->settle();
  ASSERT_TRUE(openDevice(desktop()));
  EXPECT_EQ(people(desktop()).size(), 6u);
  EXPECT_EQ(personNamed(desktop(), "Ann")->int64Value("age"), 99);
  expectConverged("after reopening");
}

TEST_F(MultiDeviceFixedTest, DeviceWithClockBehindStillConverges) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  desktop().env->offset = -3600;
  insertPerson(laptop(), "Ann", 30);
  insertPerson(desktop(), "Bob", 40);
  ASSERT_TRUE(saveDevice(laptop()));
  ASSERT_TRUE(saveDevice(desktop()));
  settleAll();
  expectConverged("clock behind");
  EXPECT_EQ(people(laptop()).size(), 2u);
  env.advance(5);
  personNamed(desktop(), "Bob")->setValue("age", 41);
  personNamed(laptop(), "Ann")->setValue("age", 31);
  ASSERT_TRUE(saveDevice(desktop()));
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  expectConverged("clock behind, updates");
  EXPECT_EQ(personNamed(laptop(), "Bob")->int64Value("age"), 41);
  EXPECT_EQ(personNamed(desktop(), "Ann")->int64Value("age"), 31);
}

// A change is named by its device's clock; only its "date" is corrected to follow the change it
// was made after. So an edit by a device whose clock runs an hour behind, made after it applied
// another device's insert, sorts before that insert: every device replays it first, the insert's
// values win everywhere, and every device's log says why, with the advice to save a new copy.
TEST_F(MultiDeviceFixedTest, AnEditFromADeviceWithItsClockBehindSortsFirstEverywhereAndIsReported) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  desktop().env->offset = -3600;
  insertPerson(laptop(), "Ann", 30);
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  env.advance(5);
  personNamed(desktop(), "Ann")->setValue("age", 45);
  ASSERT_TRUE(saveDevice(desktop()));
  settleAll();
  expectConverged("clock behind");

  const std::string insert = laptop().saves.back();
  const std::string edit = desktop().saves.back();
  ASSERT_LT(edit, insert);
  auto changeFile = [&](const std::string& name) {
    Bytes bytes;
    EXPECT_TRUE(env.readFile(desktop().package + "/Changes/" + name, &bytes, nullptr));
    return jsonToValue(asStringView(bytes)).value_or(Value());
  };
  const Value change = changeFile(edit);
  EXPECT_EQ(change["previousName"].str(), insert);
  EXPECT_GT(change["date"].str(), changeFile(insert)["date"].str()) << "the date follows the insert's";
  for (Device* device : {&laptop(), &desktop()}) {
    EXPECT_EQ(personNamed(*device, "Ann")->int64Value("age"), 30) << device->name;
    EXPECT_TRUE(entryWith(device->opened.store, "Date inconsistency in change file: ",
                          edit + ". Use the menu File/Save as and create a new file."))
        << device->name;
  }
}

TEST_F(MultiDeviceFixedTest, ChangeFileWhoseObjectFilesNeverArriveLosesNothingAndIsReported) {
  ASSERT_NO_FATAL_FAILURE(twoDevices());
  insertPerson(laptop(), "Ann", 30);
  ASSERT_TRUE(saveDevice(laptop()));
  settleAll();
  // The laptop's next save reaches the desktop without its object file.
  env.advance(1);
  insertPerson(laptop(), "Bob", 40);
  personNamed(laptop(), "Ann")->setValue("age", 31);
  ASSERT_TRUE(saveDevice(laptop()));
  const std::string change = laptop().saves.back();
  Bytes bytes;
  ASSERT_TRUE(env.readFile(laptop().package + "/Changes/" + change, &bytes, nullptr));
  ASSERT_TRUE(env.writeFileAtomically(desktop().package + "/Changes/" + change, bytes, nullptr));
  updateDevice(desktop());

  Snapshot held = snapshot(desktop());
  ASSERT_EQ(held.size(), 1u) << ::testing::PrintToString(messages(desktop().opened.store));
  EXPECT_EQ(held.begin()->second, "Ann age=30 serial=0");
  const std::vector<std::string> log = messages(desktop().opened.store);
  EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& m) {
    return m.find("Missing") != std::string::npos || m.find("missing") != std::string::npos;
  })) << "the desktop does not report the missing object file";
}

// Each misbehaviour of sync clients on its own, a few fixed seeds each, two and three devices.
struct KnobCase {
  const char* name;
  SyncKnobs knobs;
};

void PrintTo(const KnobCase& knob, std::ostream* out) { *out << knob.name; }

std::vector<KnobCase> knobCases() {
  std::vector<KnobCase> cases;
  auto add = [&](const char* name, auto set) {
    SyncKnobs knobs;
    set(knobs);
    cases.push_back({name, knobs});
  };
  add("Immediate", [](SyncKnobs&) {});
  add("Delayed", [](SyncKnobs& k) { k.delay = 2, k.jitter = 3; });
  add("ObjectFilesAfterChangeFile", [](SyncKnobs& k) { k.delay = 1, k.objectFileLag = 5; });
  add("ChangeFilesOutOfOrder", [](SyncKnobs& k) { k.delay = 1, k.changeFileShuffle = 8; });
  add("PartialFiles", [](SyncKnobs& k) { k.delay = 1, k.partialFileProbability = 0.5, k.stepInterval = 1; });
  add("Placeholders", [](SyncKnobs& k) { k.delay = 1, k.placeholderProbability = 0.5, k.stepInterval = 2; });
  add("RenamedDataFiles", [](SyncKnobs& k) { k.delay = 1, k.dataFileRenameProbability = 0.5; });
  add("DuplicatedFolders", [](SyncKnobs& k) { k.delay = 1, k.duplicateFolderProbability = 0.5; });
  return cases;
}

class MultiDeviceKnobTest : public MultiDeviceTest, public ::testing::WithParamInterface<KnobCase> {};

TEST_P(MultiDeviceKnobTest, EveryDeviceEndsWithEverySave) {
  for (uint64_t seed : {1u, 2u}) {
    RandomRun run;
    run.seed = seed;
    run.knobs = GetParam().knobs;
    run.devices = seed == 1 ? 2 : 3;
    run.rounds = 12;
    runRandom(run);
    if (HasFatalFailure() || HasFailure()) return;
    for (auto& device : devices_) closeDevice(*device);
    devices_.clear();
    sync_.reset();
    env.removeItem(dir / "DeviceA", nullptr);
    env.removeItem(dir / "DeviceB", nullptr);
    env.removeItem(dir / "DeviceC", nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(MultiDevice, MultiDeviceKnobTest, ::testing::ValuesIn(knobCases()),
                         [](const auto& knob) { return std::string(knob.param.name); });

}  // namespace
}  // namespace corvane::testing
