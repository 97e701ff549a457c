// Consolidation carried by a real sync engine: two Syncthing instances on loopback keep two
// devices' folders in step. The device that did not consolidate closes the document and says
// why; after syncing both open the consolidated package with the same objects.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "corvane/document/corvane_document.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/store/corvane_store.h"
#include "document/document_test_support.h"
#include "support/syncthing_cluster.h"

namespace corvane::testing {
namespace {

std::vector<std::string> names(ManagedObjectContext& context) {
  std::vector<std::string> out;
  for (const auto& person : context.fetch(FetchRequest("Person")).value_or(std::vector<Retained<ManagedObject>>{})) {
    out.push_back(person->stringValue("name"));
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST(ConsolidationOverSyncthing, TheOtherDeviceClosesAndThenOpensTheConsolidatedPackage) {
  ASSERT_TRUE(SyncthingCluster::installed()) << "syncthing is not installed: run scripts/bootstrap.sh";
  TempDir dir;
  setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  SyncthingCluster sync(dir / "engines", {dir / "laptop", dir / "desktop"});
  std::string failure;
  ASSERT_TRUE(sync.start(&failure)) << failure;

  auto ui = std::make_shared<ScriptedInteraction>();
  auto options = [&](const std::string& device) {
    DocumentOptions o;
    o.model = ObjectModel::fromJSON(kPeopleModelJSON, nullptr);
    o.application = ApplicationInfo{"com.example.Test", "Test", "7", "1.0", Value()};
    o.cacheRoot = dir / ("cache-" + device);
    o.machineName = device;
    o.interaction = ui;
    o.defaults = std::make_shared<UserDefaults>(Env::defaultEnv(), dir / (device + ".plist"));
    o.useKeychain = false;
    return o;
  };
  auto inSync = [&] {
    std::string error;
    const bool done = sync.waitUntilInSync(120, &error);
    EXPECT_TRUE(done) << error << "\n" << sync.log(0) << "\n" << sync.log(1);
    return done;
  };
  Error error;
  auto laptop = CorvaneDocument::open(dir / "laptop/Doc.corvane", options("Laptop"), &error);
  ASSERT_TRUE(laptop) << error.localizedDescription;
  for (const char* name : {"Ann", "Bob", "Cid"}) {
    laptop->context().insertNewObject("Person")->setValue("name", name);
    ASSERT_TRUE(laptop->save(&error)) << error.localizedDescription;
  }
  ASSERT_TRUE(inSync());
  auto desktop = CorvaneDocument::open(dir / "desktop/Doc.corvane", options("Desktop"), &error);
  ASSERT_TRUE(desktop) << error.localizedDescription;
  ASSERT_EQ(names(desktop->context()), names(laptop->context()));
  desktop->context().insertNewObject("Person")->setValue("name", "Dan");
  ASSERT_TRUE(desktop->save(&error)) << error.localizedDescription;
  ASSERT_TRUE(inSync());
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return names(laptop->context()).size() == 4; }, 60));

  std::optional<bool> swapped;
  laptop->consolidate([&swapped](bool done) { swapped = done; });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return swapped.has_value(); }, 60));
  ASSERT_TRUE(*swapped);
  ASSERT_TRUE(inSync());
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return desktop->isClosed(); }, 60));
  EXPECT_FALSE(laptop->isClosed());
  EXPECT_EQ(ui->alerts, std::vector<std::string>{"Optimize File"});

  desktop.reset();
  auto reopened = CorvaneDocument::open(dir / "desktop/Doc.corvane", options("Desktop"), &error);
  ASSERT_TRUE(reopened) << error.localizedDescription;
  EXPECT_EQ(names(reopened->context()), (std::vector<std::string>{"Ann", "Bob", "Cid", "Dan"}));
  EXPECT_EQ(reopened->store()->changesFileCount(), 1u);
  // Both go on from the consolidated package.
  reopened->context().insertNewObject("Person")->setValue("name", "Eve");
  ASSERT_TRUE(reopened->save(&error)) << error.localizedDescription;
  ASSERT_TRUE(inSync());
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return names(laptop->context()).size() == 5; }, 60));
}

}  // namespace
}  // namespace corvane::testing
