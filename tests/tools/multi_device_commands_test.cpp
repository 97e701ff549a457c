// `corvane watch`, `verify`, `log`, `history`, `devices` and `repair`, run as the real binary on
// a document that this test writes through the library as another device would.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"
#include "support/temp_dir.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

using RunResult = testing::ToolRun;
using testing::startTool;
using testing::waitForExit;

const char* kModel = R"({"entities": [{"name": "Person", "attributes": [
  {"name": "name", "type": "string"}, {"name": "age", "type": "integer32"}]}]})";

// A document written by "Tablet" through the library, and the tool run as "Workstation".
class MultiDeviceCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeTextFile(modelPath, kModel);
    CorvaneStore::registerStoreType();
  }

  RunResult run(std::vector<std::string> arguments, const std::vector<std::string>& extraEnvironment = {}) {
    RunResult result;
    result.status = waitForExit(start(arguments, extraEnvironment));
    result.out = readTextFile(dir / "out");
    result.err = readTextFile(dir / "err");
    return result;
  }
  pid_t start(const std::vector<std::string>& arguments, const std::vector<std::string>& extraEnvironment = {}) {
    std::vector<std::string> environment = {"CORVANE_MACHINE_NAME=Workstation", "CORVANE_FULL_USER_NAME=Grace Hopper"};
    environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
    return startTool(arguments, environment, dir / "home", dir / "out", dir / "err");
  }
  std::vector<std::string> withModel(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--model", modelPath, "--cache-root", dir / "tool-cache"});
    return arguments;
  }

  // Opens the package as the device "Tablet" (in this process), runs `edit`, saves and closes.
  // Returns the UID of the first person.
  std::string tabletEdit(const std::function<void(ManagedObjectContext&)>& edit) {
    Error error;
    auto model = ObjectModel::fromJSON(kModel, &error);
    auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model);
    auto* environment = new StoreEnvironment();
    environment->defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), dir / "tablet.plist");
    Value options = Value::mutableDictionary();
    options.set(Value(kCorvaneCacheRootURLOption), Value(dir / "tablet-cache"));
    options.set(Value(kCorvaneStoreEnvironmentOption), Value::object(environment));
    int ready = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                                    [&](const Notification&) { ++ready; });
    auto* store = static_cast<CorvaneStore*>(
        coordinator->addPersistentStore(kCorvaneStoreType, "", package, options.copy(), &error));
    EXPECT_NE(store, nullptr) << error.localizedDescription;
    if (store == nullptr) return "";
    RunLoop::main().runUntil([&] { return ready > 0; }, 30);
    auto context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    edit(*context);
    EXPECT_TRUE(context->save(&error)) << error.localizedDescription;
    store->waitForSaves();
    FetchRequest request("Person");
    std::string uid;
    if (auto found = context->fetch(request); found && !found->empty()) {
      uid = store->uidForObjectID((*found)[0]->objectID(), context.get());
    }
    context.reset();
    store->close();
    coordinator.reset();
    CorvanePackage::waitForRecentFilesRegistration();
    RunLoop::main().discardPendingWork();
    return uid;
  }

  std::vector<std::string> changeFiles() {
    std::vector<std::string> names;
    EXPECT_TRUE(Env::defaultEnv()->listDirectory(package + "/Changes", true, &names, nullptr));
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir;
  std::string package = dir / "Doc.corvane";
  std::string modelPath = dir / "model.json";
};

TEST_F(MultiDeviceCommandsTest, HelpUsageAndMissingPackage) {
  for (const char* command : {"watch", "verify", "log", "history", "devices", "checksum", "repair", "fix-conflicts"}) {
    EXPECT_EQ(run({command}).status, 2) << command << " without arguments";
    if (std::string(command) != "history" && std::string(command) != "repair") {
      RunResult missing = run(withModel({command, dir / "nothing.corvane"}));
      EXPECT_EQ(missing.status, 1) << command;
      EXPECT_NE(missing.err.find("is not a folder"), std::string::npos) << command << ": " << missing.err;
    }
  }
  EXPECT_EQ(run(withModel({"repair", package, "mend", "x"})).status, 2);
  RunResult help = run({"verify", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("PKG"), std::string::npos);
}

TEST_F(MultiDeviceCommandsTest, VerifyHistoryDevicesAndLog) {
  const std::string uid = tabletEdit([](ManagedObjectContext& context) {
    auto ann = context.insertNewObject("Person");
    ann->setValue("name", "Ann");
    ann->setValue("age", 30);
  });
  ASSERT_FALSE(uid.empty());
  tabletEdit([](ManagedObjectContext& context) {
    FetchRequest request("Person");
    (*context.fetch(request))[0]->setValue("age", 31);
  });

  RunResult verified = run(withModel({"verify", package}));
  EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
  EXPECT_NE(verified.out.find("2 change files verified, no problem"), std::string::npos) << verified.out;

  RunResult history = run(withModel({"history", package, "Person", uid}));
  EXPECT_EQ(history.status, 0) << history.err;
  const size_t insert = history.out.find("insert Entities/");
  const size_t update = history.out.find("update Entities/");
  EXPECT_NE(insert, std::string::npos) << history.out;
  EXPECT_NE(update, std::string::npos) << history.out;
  EXPECT_LT(insert, update);
  EXPECT_NE(history.out.find("age = {\"value\":\"31\"}"), std::string::npos) << history.out;
  EXPECT_EQ(run(withModel({"history", package, "Nobody", uid})).status, 1);

  RunResult devices = run(withModel({"devices", package}));
  EXPECT_EQ(devices.status, 0) << devices.err;
  // The variables name this device; the sessions name the device that wrote.
  EXPECT_NE(devices.out.find("This device: Workstation (Grace Hopper)"), std::string::npos) << devices.out;
  EXPECT_NE(devices.out.find("Devices that wrote in the last 14 days:"), std::string::npos) << devices.out;

  // Two devices (two caches) that applied the same history agree on every checksum.
  RunResult checksum = run(withModel({"checksum", package}));
  EXPECT_EQ(checksum.status, 0) << checksum.err;
  EXPECT_TRUE(checksum.out.starts_with("history ")) << checksum.out;
  EXPECT_NE(checksum.out.find("\nPerson "), std::string::npos) << checksum.out;
  RunResult other = run({"checksum", package, "--model", modelPath, "--cache-root", dir / "other-cache"});
  EXPECT_EQ(other.out, checksum.out);

  RunResult log = run(withModel({"log", package}));
  EXPECT_EQ(log.status, 0) << log.err;
  EXPECT_NE(log.out.find("Error records: 0"), std::string::npos) << log.out;
  EXPECT_NE(log.out.find("info    Checksum: "), std::string::npos) << log.out;

  // A damaged object file is found, with its level, and the exit status says so.
  std::vector<std::string> objectFiles;
  EXPECT_TRUE(Env::defaultEnv()->listDirectory(package + "/Entities/Person/" + uid, true, &objectFiles, nullptr));
  std::sort(objectFiles.begin(), objectFiles.end());
  ASSERT_FALSE(objectFiles.empty());
  writeTextFile(package + "/Entities/Person/" + uid + "/" + objectFiles.back(), "{\"version\": ");
  RunResult damaged = run(withModel({"verify", package}));
  EXPECT_EQ(damaged.status, 1) << damaged.out;
  EXPECT_TRUE(damaged.out.find("warning ") != std::string::npos || damaged.out.find("error ") != std::string::npos)
      << damaged.out;
}

TEST_F(MultiDeviceCommandsTest, RepairDiscardsAndInsertsRecoveryChanges) {
  tabletEdit([](ManagedObjectContext& context) { context.insertNewObject("Person")->setValue("name", "Ann"); });
  tabletEdit([](ManagedObjectContext& context) { context.insertNewObject("Person")->setValue("name", "Bob"); });
  std::vector<std::string> names = changeFiles();
  ASSERT_EQ(names.size(), 2u);

  RunResult discarded = run(withModel({"repair", package, "discard", names[1]}));
  EXPECT_EQ(discarded.status, 0) << discarded.err;
  EXPECT_TRUE(Env::defaultEnv()->fileExists(package + "/InvalidChanges/" + names[1])) << discarded.out;
  EXPECT_EQ(run(withModel({"repair", package, "discard", "2000-01-01-no-such-change"})).status, 1);

  const std::string missing = "2001-01-01-00-00-00.000.0000.json";
  RunResult inserted = run(withModel({"repair", package, "insert-recovery", missing}));
  EXPECT_EQ(inserted.status, 0) << inserted.err;
  const std::string text = readTextFile(package + "/Changes/" + missing);
  EXPECT_NE(text.find("recovery"), std::string::npos) << text;
  EXPECT_EQ(run(withModel({"repair", package, "insert-recovery", missing})).status, 1);
}

TEST_F(MultiDeviceCommandsTest, WatchPrintsChangesFromAnotherDeviceAndStopsOnSignal) {
  tabletEdit([](ManagedObjectContext& context) { context.insertNewObject("Person")->setValue("name", "Ann"); });
  pid_t watcher = start(withModel({"watch", package}));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const std::string uid = tabletEdit([](ManagedObjectContext& context) {
    FetchRequest request("Person");
    (*context.fetch(request))[0]->setValue("name", "Ann B.");
  });
  std::string out;
  for (int i = 0; i < 200 && out.find("changed update Person") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    out = readTextFile(dir / "out");
  }
  kill(watcher, SIGTERM);
  EXPECT_EQ(waitForExit(watcher), 0);
  out = readTextFile(dir / "out");
  EXPECT_NE(out.find("watching " + package), std::string::npos) << out;
  EXPECT_NE(out.find(", 1 objects"), std::string::npos) << out;
  EXPECT_NE(out.find("changed update Person " + uid + " {"), std::string::npos) << out;
  EXPECT_NE(out.find(R"("name":"Ann B.")"), std::string::npos) << "the values as they are now\n" << out;
  EXPECT_NE(out.find("Completed validation Changes/"), std::string::npos) << out;
  EXPECT_NE(out.find("stopped"), std::string::npos) << out;

  RunResult bounded = run(withModel({"watch", package, "--for", "0.5"}));
  EXPECT_EQ(bounded.status, 0) << bounded.err;
  EXPECT_NE(bounded.out.find("stopped"), std::string::npos);
}

}  // namespace
}  // namespace corvane
