// Several devices editing one document through folders that a SyncSimulator mirrors.
//
// Each device opens its own copy of the package, with its own cache root, machine name and
// wall clock (a fixed offset from the test's clock, so a device can run behind), and saves
// through its own context. The test drives everything on the main run loop: saves, the
// simulator's deliveries (on the test's fake monotonic clock) and update passes, one at a
// time, so that a seed replays the same run. settleAll() lets every file arrive and every
// device catch up; expectConverged() then checks that no save was lost.
//
// To look into a failing run: CORVANE_DUMP_LOGS=1 prints every device's log and the sync
// client's steps at the check, CORVANE_KEEP_TEST_DIRS=1 keeps the folders.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "corvane/document/volume.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/testing/sync_simulator.h"
#include "store/store_test_support.h"

namespace corvane::testing {

// The test's clock under a device's name, with the device's wall clock `offset` seconds off.
class DeviceEnv final : public EnvWrapper {
 public:
  DeviceEnv(Env* clock, std::string machine) : EnvWrapper(clock), machine_(std::move(machine)) {}
  double now() override { return target()->now() + offset; }
  std::string machineName() override { return machine_; }
  std::string fullUserName() override { return "User of " + machine_; }
  double offset = 0;

 private:
  std::string machine_;
};

// Placeholders that the simulator leaves (files without blocks) are not on disk, as the
// document layer tells a real store.
class DeviceVolumes final : public StoreVolumeQueries {
 public:
  bool isOnDisk(Env* env, const std::string& path) override { return CorvaneIsOnDisk(env, path); }
};

struct Device {
  std::string name;
  std::string folder;  // the synchronised folder that holds the package
  std::string package;
  std::string cacheRoot;
  std::unique_ptr<DeviceEnv> env;
  Value environmentValue;
  OpenStore opened;
  std::vector<std::string> saves;        // the change files this device wrote
  std::set<std::string> appliedEarlier;  // applied in an earlier session
};

// What one device holds: "Entity/UID" -> its values, as text.
using Snapshot = std::map<std::string, std::string>;

class MultiDeviceTest : public StoreTest {
 protected:
  // Adds a device with its own folder; call addFolders() once all are added.
  Device& addDevice(const std::string& name) {
    auto device = std::make_unique<Device>();
    device->name = name;
    device->folder = dir / (name + "/Sync");
    device->package = device->folder + "/Doc.corvane";
    device->cacheRoot = dir / (name + "/cache");
    device->env = std::make_unique<DeviceEnv>(&env, name);
    auto* environment = new StoreEnvironment();
    environment->env = device->env.get();
    environment->defaults = std::make_shared<UserDefaults>(&env, dir / (name + "/defaults.plist"));
    environment->volumes = std::make_shared<DeviceVolumes>();
    environment->encryptionRounds = 1000;
    device->environmentValue = Value::object(environment);
    env.createDirectory(device->folder, true, nullptr);
    devices_.push_back(std::move(device));
    return *devices_.back();
  }

  void startSync(uint64_t seed, const SyncKnobs& knobs) {
    sync_ = std::make_unique<SyncSimulator>(&env, seed, knobs);
    for (auto& device : devices_) sync_->addFolder(device->folder);
  }

  Value deviceOptions(Device& device, const Value& extra = Value()) {
    Value o = Value::mutableDictionary();
    o.set(Value(kCorvaneCacheRootURLOption), Value(device.cacheRoot));
    o.set(Value(kCorvaneStoreEnvironmentOption), device.environmentValue);
    for (const auto& [key, value] : extra.entries()) o.set(key, value);
    return o.copy();
  }

  bool openDevice(Device& device, const Value& extra = Value()) {
    OpenStore& opened = device.opened;
    opened.coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(storeTestModel());
    const int before = readyCount_;
    Error error;
    auto* added = opened.coordinator->addPersistentStore(kCorvaneStoreType, "", device.package,
                                                         deviceOptions(device, extra), &error);
    EXPECT_NE(added, nullptr) << device.name << ": " << error.localizedDescription;
    if (added == nullptr) return false;
    opened.store = static_cast<CorvaneStore*>(added);
    const bool done = RunLoop::main().runUntil([&] { return readyCount_ > before; }, 60);
    EXPECT_TRUE(done) << device.name << ": the opening pass did not end";
    opened.context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    opened.context->setPersistentStoreCoordinator(opened.coordinator);
    quiet();
    return done;
  }

  // The log lives as long as the store: what a device applied before it closed is not in the
  // log of its next session.
  void closeDevice(Device& device) {
    if (device.opened) {
      const std::set<std::string> applied = appliedChanges(device);
      device.appliedEarlier.insert(applied.begin(), applied.end());
    }
    close(device.opened);
  }

  // The simulator mirrors files only; a sync client also brings the package's empty folders.
  void settleNewPackage() {
    sync_->scan();
    sync_->settle();
    for (auto& device : devices_) {
      for (const char* folder : {"/Changes", "/Entities"}) env.createDirectory(device->package + folder, true, nullptr);
    }
  }

  // Runs the main loop until nothing is left to do: no pass of any device under way (a timer
  // of the folder watching may have started one) and no work queued. Whatever the test does
  // next then meets the same state on every run of a seed.
  void quiet() {
    for (int round = 0; round < 1000; ++round) {
      for (auto& device : devices_) {
        CorvaneStore* store = device->opened.store;
        if (store != nullptr) {
          EXPECT_TRUE(RunLoop::main().runUntil([&] { return !store->isUpdating(); }, 60)) << device->name;
        }
      }
      const bool busy = std::any_of(devices_.begin(), devices_.end(), [](const auto& d) {
        return d->opened.store != nullptr && d->opened.store->isUpdating();
      });
      if (RunLoop::main().runOnce() == 0 && !busy) return;
    }
  }

  // Saves the device's context and records the change file the save wrote. A millisecond
  // passes first, as it would between two real saves, so that no two changes share a time
  // and their order never hangs on their random UUIDs.
  bool saveDevice(Device& device) {
    env.advance(0.001);
    quiet();
    std::vector<std::string> before = list(device.package + "/Changes");
    if (!save(device.opened)) return false;
    quiet();
    std::vector<std::string> after = list(device.package + "/Changes");
    std::set<std::string> old(before.begin(), before.end());
    for (const std::string& name : after) {
      if (!name.starts_with(".") && !old.contains(name)) device.saves.push_back(name);
    }
    return true;
  }

  // One update pass on the device, run to its end.
  bool updateDevice(Device& device) {
    CorvaneStore* store = device.opened.store;
    if (store == nullptr) return false;
    if (!RunLoop::main().runUntil([&] { return !store->isUpdating(); }, 60)) return false;
    const int before = readyCount_;
    store->updateChanges();
    const bool done = RunLoop::main().runUntil([&] { return readyCount_ > before && !store->isUpdating(); }, 60);
    EXPECT_TRUE(done) << device.name << ": the update pass did not end";
    quiet();
    return done;
  }

  // Moves the clock on and lets the simulator deliver what is due.
  void tick(double seconds) {
    env.advance(seconds);
    sync_->scan();
    sync_->deliverDue();
    quiet();
  }

  // Every file arrives (save the dropped ones), each open device merges the folders the sync
  // client duplicated, as a document does when it finds them, and catches up.
  void settleAll() {
    sync_->settle();
    for (int round = 0; round < 2; ++round) {
      for (auto& device : devices_) {
        if (!device->opened) continue;
        device->opened.store->fixSyncConflicts();
        updateDevice(*device);
      }
    }
  }

  // The device's objects read through a fresh context (so nothing stale from its own).
  Snapshot snapshot(Device& device) {
    Snapshot out;
    auto context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(device.opened.coordinator);
    for (const char* entity : {"Person", "Company"}) {
      FetchRequest request(entity);
      auto found = context->fetch(request);
      EXPECT_TRUE(found) << device.name;
      if (!found) continue;
      for (const auto& object : *found) {
        std::string uid = device.opened.store->uidForObjectID(object->objectID(), context.get());
        std::ostringstream values;
        values << object->stringValue("name");
        if (std::string(entity) == "Person") {
          values << " age=" << object->int64Value("age") << " serial=" << object->int64Value("serial");
          const Value photo = object->value("photo");
          if (photo.isData()) values << " photo=" << photo.bytes().size();
        }
        out[std::string(entity) + "/" + uid] = values.str();
      }
    }
    return out;
  }

  // Names of the changes in the device's cache log.
  std::set<std::string> appliedChanges(Device& device) {
    std::set<std::string> names;
    const Value changes = device.opened.store->cache()->changes();
    for (const Value& change : changes.elements()) names.insert(change["name"].str());
    return names;
  }

  // All open devices hold the same objects and every save of every device is in every
  // device's change log; the log names each change it validated from another device.
  void expectConverged(const std::string& context) {
    SCOPED_TRACE(context);
    if (std::getenv("CORVANE_DUMP_LOGS") != nullptr) {
      for (auto& device : devices_) {
        if (!device->opened) continue;
        std::cerr << "---- log of " << device->name << ", newest first\n";
        for (const std::string& m : messages(device->opened.store)) std::cerr << "  " << m << "\n";
      }
      std::cerr << "---- what the sync client did\n";
      for (const std::string& h : sync_->history()) std::cerr << "  " << h << "\n";
    }
    Device* first = nullptr;
    Snapshot reference;
    Value referenceChecksum;
    std::string referenceHistory;
    for (auto& device : devices_) {
      if (!device->opened) continue;
      Snapshot mine = snapshot(*device);
      const Value checksum = device->opened.store->contentChecksum();
      if (first == nullptr) {
        first = device.get();
        reference = mine;
        referenceChecksum = checksum;
        referenceHistory = device->opened.store->checkSum();
      } else {
        EXPECT_EQ(mine, reference) << device->name << " differs from " << first->name;
        EXPECT_EQ(checksum, referenceChecksum) << device->name << " and " << first->name << " content checksums";
        EXPECT_EQ(device->opened.store->checkSum(), referenceHistory) << device->name << " history checksum";
      }
      const std::set<std::string> applied = appliedChanges(*device);
      const std::vector<std::string> log = messages(device->opened.store);
      for (auto& other : devices_) {
        for (const std::string& save : other->saves) {
          EXPECT_TRUE(applied.contains(save)) << device->name << " lacks " << other->name << "'s save " << save;
        }
      }
      for (const std::string& name : applied) {
        if (std::find(device->saves.begin(), device->saves.end(), name) != device->saves.end()) continue;
        if (device->appliedEarlier.contains(name)) continue;
        const std::string completed = "Completed validation Changes/" + name;
        const bool logged =
            std::any_of(log.begin(), log.end(), [&](const std::string& m) { return m.starts_with(completed); });
        EXPECT_TRUE(logged) << device->name << "'s log does not say it applied " << name << "\n"
                            << ::testing::PrintToString(log);
      }
    }
  }

  Retained<ManagedObject> insertPerson(Device& device, const std::string& name, int64_t age) {
    auto person = device.opened.context->insertNewObject("Person");
    person->setValue("name", name);
    person->setValue("age", age);
    return person;
  }

  // The device's people as its own context sees them, by name.
  std::vector<Retained<ManagedObject>> people(Device& device) {
    FetchRequest request("Person");
    auto found = device.opened.context->fetch(request);
    std::vector<Retained<ManagedObject>> out = found ? *found : std::vector<Retained<ManagedObject>>{};
    std::sort(out.begin(), out.end(),
              [](const auto& a, const auto& b) { return a->stringValue("name") < b->stringValue("name"); });
    return out;
  }

  Retained<ManagedObject> personNamed(Device& device, const std::string& name) {
    for (auto& person : people(device)) {
      if (person->stringValue("name") == name) return person;
    }
    return nullptr;
  }

  // One seeded run: random saves (inserts, updates, deletes) by random devices, with
  // deliveries and update passes in between; devices close for a stretch and catch up when they
  // reopen, and the last device's clock may run behind. Then everything settles and no save may
  // be lost.
  struct RandomRun {
    uint64_t seed = 0;
    SyncKnobs knobs;
    int devices = 3;
    int rounds = 30;
    // How far the last device's clock runs behind. An edit from such a device sorts before the
    // changes it has already seen and loses against them (see the clock test), so only the runs
    // with the clocks together check that a value written once is the value.
    double clockBehind = 0;
  };

  void runRandom(const RandomRun& run) {
    const std::string trace = "seed " + std::to_string(run.seed);
    SCOPED_TRACE(trace);
    std::mt19937_64 random(run.seed);
    auto below = [&](uint64_t n) { return n == 0 ? 0 : static_cast<size_t>(random() % n); };
    for (int i = 0; i < run.devices; ++i) addDevice(std::string("Device") + static_cast<char>('A' + i));
    devices_.back()->env->offset = -run.clockBehind;
    startSync(run.seed, run.knobs);
    ASSERT_TRUE(openDevice(*devices_[0]));
    settleNewPackage();
    for (size_t i = 1; i < devices_.size(); ++i) ASSERT_TRUE(openDevice(*devices_[i]));

    std::set<std::string> inserted, deleted;
    std::map<std::string, std::vector<int64_t>> serials;  // name -> the serials its updates set
    int64_t serial = 0;
    for (int round = 0; round < run.rounds; ++round) {
      Device& device = *devices_[below(devices_.size())];
      const size_t open = static_cast<size_t>(
          std::count_if(devices_.begin(), devices_.end(), [](const auto& d) { return static_cast<bool>(d->opened); }));
      const size_t op = below(10);
      if (!device.opened) {
        ASSERT_TRUE(openDevice(device)) << "reopening " << device.name;
      } else if (op == 9 && open > 1) {
        closeDevice(device);
      } else {
        auto everyone = people(device);
        if (op <= 4 || everyone.empty()) {
          for (size_t n = 0, count = 1 + below(3); n < count; ++n) {
            const std::string name = device.name + "-" + std::to_string(round) + "-" + std::to_string(n);
            auto person = insertPerson(device, name, static_cast<int64_t>(below(90)));
            if (below(3) == 0) person->setValue("photo", Value::data(Bytes(16 + below(64), 0x5A)));
            inserted.insert(name);
          }
        } else if (op <= 7) {
          auto& person = everyone[below(everyone.size())];
          person->setValue("serial", ++serial);
          person->setValue("age", static_cast<int64_t>(below(90)));
          serials[person->stringValue("name")].push_back(serial);
        } else {
          auto& person = everyone[below(everyone.size())];
          deleted.insert(person->stringValue("name"));
          device.opened.context->deleteObject(person.get());
        }
        ASSERT_TRUE(saveDevice(device));
      }
      tick(static_cast<double>(below(4)));
      if (below(2) == 0) {
        Device& other = *devices_[below(devices_.size())];
        if (other.opened) updateDevice(other);
      }
    }
    for (auto& device : devices_) {
      if (!device->opened) {
        ASSERT_TRUE(openDevice(*device));
      }
    }
    settleAll();
    expectConverged(trace);

    // Nothing that was saved and not deleted is missing; a value written once is the value.
    Snapshot held = snapshot(*devices_[0]);
    std::map<std::string, std::string> byName;
    for (const auto& [key, values] : held) byName[values.substr(0, values.find(' '))] = values;
    for (const std::string& name : inserted) {
      if (deleted.contains(name)) continue;
      ASSERT_TRUE(byName.contains(name)) << name << " was lost";
      auto updates = serials.find(name);
      if (run.clockBehind == 0 && updates != serials.end() && updates->second.size() == 1) {
        EXPECT_NE(byName[name].find(" serial=" + std::to_string(updates->second[0])), std::string::npos)
            << name << ": " << byName[name];
      }
    }
  }

  void TearDown() override {
    for (auto& device : devices_) closeDevice(*device);
  }

  std::vector<std::unique_ptr<Device>> devices_;
  std::unique_ptr<SyncSimulator> sync_;
};

}  // namespace corvane::testing
