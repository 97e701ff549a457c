// Two devices, one document: a laptop and a desktop edit the same task list through two
// folders that a (simulated) cloud-sync client mirrors, and neither loses anything.
//
// Each device opens its own copy of the package with its own local cache and its own machine
// name, as two computers would. Between the steps, SyncSimulator carries the files each device
// wrote to the other folder, and each device runs an update pass that applies the other's
// change files. At the end both devices must hold the same tasks: the program prints both
// content checksums and exits with status 1 if they differ.
//
//   build/debug/bin/example_two_devices [examples/two_devices_model.json]
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/object_model.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "corvane/testing/sync_simulator.h"

using namespace corvane;

namespace {

// The real Env under another computer's name, so that one process can play two devices.
class DeviceEnv final : public EnvWrapper {
 public:
  DeviceEnv(std::string machine, std::string user) : EnvWrapper(Env::defaultEnv()), machine_(machine), user_(user) {}
  std::string machineName() override { return machine_; }
  std::string fullUserName() override { return user_; }

 private:
  std::string machine_, user_;
};

class Device {
 public:
  Device(std::string name, std::string user, const std::string& folder)
      : name_(std::move(name)), env_(name_, std::move(user)), folder_(folder) {}

  const std::string& name() const { return name_; }
  std::string package() const { return folder_ + "/Tasks.corvane"; }
  CorvaneStore* store() const { return document_->store(); }

  bool open(const std::shared_ptr<ObjectModel>& model) {
    // Everything this device differs in travels in its options: its computer's name (through
    // its Env), its cache, its settings. Nothing is set up for the whole process.
    DocumentOptions options;
    options.model = model;
    options.application = ApplicationInfo{"org.corvane.examples.Tasks", "Tasks", "1", "1.0", Value()};
    options.env = &env_;
    options.cacheRoot = folder_ + "/cache";
    options.defaults = std::make_shared<UserDefaults>(&env_, folder_ + "/settings.plist");
    Error error;
    document_ = CorvaneDocument::open(package(), options, &error);  // ready: caught up
    if (!document_) {
      std::fprintf(stderr, "%s could not open the document: %s\n", name_.c_str(), error.localizedDescription.c_str());
      return false;
    }
    // What a host application does to show other devices' edits: subscribe.
    watch_ = document_->onExternalChanges([this](const ExternalChanges& changes) {
      std::printf("  %-7s sees from the other device:", name_.c_str());
      describe("added", changes.inserted);
      describe("changed", changes.updated);
      if (!changes.deleted.empty()) std::printf(" %zu deleted", changes.deleted.size());
      std::printf("\n");
    });
    return true;
  }

  Retained<ManagedObject> add(const std::string& title, int priority) {
    auto task = document_->context().insertNewObject("Task");
    task->setValue("title", title);
    task->setValue("priority", priority);
    return task;
  }

  Retained<ManagedObject> find(const std::string& title) {
    for (const auto& task : tasks()) {
      if (task->stringValue("title") == title) return task;
    }
    return nullptr;
  }

  // Sets one value of the task with that title (if the device has it).
  void set(const std::string& title, const char* key, const Value& value) {
    if (auto task = find(title)) task->setValue(key, value);
  }

  void remove(const std::string& title) {
    if (auto task = find(title)) document_->context().deleteObject(task.get());
  }

  // Returns once the save is on disk, ready to travel.
  bool save() {
    Error error;
    if (!document_->save(&error)) {
      std::fprintf(stderr, "%s could not save: %s\n", name_.c_str(), error.localizedDescription.c_str());
      return false;
    }
    return true;
  }

  // Applies the change files that arrived from the other device (a document also does this by
  // itself a few seconds after files arrive; the demo does not wait for that).
  bool update() {
    const size_t before = store()->finishedPasses();
    store()->updateChanges();
    return RunLoop::main().runUntil([&] { return store()->finishedPasses() > before; }, 30);
  }

  std::vector<Retained<ManagedObject>> tasks() {
    FetchRequest request("Task");
    auto found = document_->context().fetch(request);
    std::vector<Retained<ManagedObject>> out = found ? *found : std::vector<Retained<ManagedObject>>{};
    std::sort(out.begin(), out.end(),
              [](const auto& a, const auto& b) { return a->stringValue("title") < b->stringValue("title"); });
    return out;
  }

  // The store's content checksum: per entity, a digest of every cached object's values, the
  // same on every device holding the same content whatever order it arrived in. While the
  // cache is still filling in the background an entity says "incomplete"; wait for it.
  std::string contentChecksum() {
    std::string text;
    RunLoop::main().runUntil(
        [&] {
          text.clear();
          bool complete = true;
          const Value checksums = store()->contentChecksum();
          for (const auto& [entity, digest] : checksums.entries()) {
            complete = complete && digest.str() != "incomplete";
            text += (text.empty() ? "" : ", ") + entity.str() + " " + digest.str();
          }
          return complete;
        },
        30);
    return text;
  }

  void print() {
    std::printf("  %-7s holds:", name_.c_str());
    for (const auto& task : tasks()) {
      std::printf(" [%s] %s (p%lld);", task->boolValue("done") ? "x" : " ", task->stringValue("title").c_str(),
                  static_cast<long long>(task->int64Value("priority")));
    }
    std::printf("\n");
  }

  void close() {
    watch_.unsubscribe();
    document_.reset();  // closes: saves what is left and the cache
  }

 private:
  void describe(const char* what, const std::vector<Retained<ManagedObject>>& objects) {
    if (objects.empty()) return;
    std::printf(" %s", what);
    const char* separator = " ";
    for (const auto& object : objects) {
      std::printf("%s\"%s\"", separator, object->stringValue("title").c_str());
      separator = ", ";
    }
    std::printf(";");
  }

  std::string name_;
  DeviceEnv env_;
  std::string folder_;
  std::unique_ptr<CorvaneDocument> document_;
  Subscription watch_;
};

int fail(const char* what) {
  std::fprintf(stderr, "two_devices: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Error error;
  auto model = ObjectModel::fromFile(argc > 1 ? argv[1] : "examples/two_devices_model.json", &error);
  if (!model) {
    std::fprintf(stderr, "Could not load the model: %s\n", error.localizedDescription.c_str());
    return 1;
  }
  // The library's console messages (folders watched, caches saved) would drown the story;
  // CORVANE_DEMO_VERBOSE=1 shows them.
  if (std::getenv("CORVANE_DEMO_VERBOSE") == nullptr) setLogSink([](LogLevel, std::string_view) {});

  // Two folders stand for the synchronised folder on two computers.
  Env* env = Env::defaultEnv();
  const std::string root = env->temporaryDirectory() + "/corvane-two-devices-" + std::to_string(::getpid());
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root + "/laptop");
  std::filesystem::create_directories(root + "/desktop/Tasks.corvane");
  std::printf("Two devices edit one document through two folders mirrored by a sync client:\n  %s/{laptop,desktop}\n\n",
              root.c_str());

  auto laptop = std::make_unique<Device>("Laptop", "Ada Lovelace", root + "/laptop");
  auto desktop = std::make_unique<Device>("Desktop", "Ada Lovelace", root + "/desktop");

  // The sync client brings files late and out of order; everything arrives eventually.
  SyncKnobs knobs;
  knobs.delay = 0.5;
  knobs.jitter = 0.5;
  knobs.objectFileLag = 1;
  knobs.changeFileShuffle = 1;
  SyncSimulator sync(env, 2026, knobs);
  auto settle = [&] {
    sync.scan();
    sync.settle();
  };

  std::printf("1. The laptop creates the document and adds three tasks.\n");
  if (!laptop->open(model)) return fail("the laptop could not open the document");
  laptop->add("Buy milk", 1);
  laptop->add("Write report", 3);
  laptop->add("Water plants", 2);
  if (!laptop->save()) return 1;
  sync.addFolder(laptop->package());
  sync.addFolder(desktop->package());
  settle();

  std::printf("2. The desktop opens its copy and catches up.\n");
  if (!desktop->open(model)) return fail("the desktop could not open the document");
  desktop->print();

  std::printf("3. Both edit at the same time, before any file travels.\n");
  laptop->set("Buy milk", "done", Value(true));
  laptop->set("Write report", "priority", Value(5));
  laptop->add("Call the bank", 2);
  desktop->set("Write report", "done", Value(true));
  desktop->remove("Water plants");
  desktop->add("Book flights", 1);
  if (!laptop->save() || !desktop->save()) return 1;

  std::printf("4. The sync client carries the files; each device applies the other's changes.\n");
  settle();
  if (!laptop->update() || !desktop->update()) return fail("an update pass did not finish");

  std::printf("5. The laptop goes offline and edits; the desktop edits too; then they meet again.\n");
  laptop->close();
  desktop->set("Call the bank", "title", Value("Call the bank about the loan"));
  if (!desktop->save()) return 1;
  settle();
  if (!laptop->open(model)) return fail("the laptop could not reopen the document");
  laptop->print();
  laptop->add("Pack bags", 4);
  if (!laptop->save()) return 1;
  settle();
  if (!desktop->update()) return fail("an update pass did not finish");

  std::printf("\nIn the end:\n");
  laptop->print();
  desktop->print();
  const std::string a = laptop->contentChecksum();
  const std::string b = desktop->contentChecksum();
  std::printf("  Laptop  content checksum: %s\n  Desktop content checksum: %s\n", a.c_str(), b.c_str());
  laptop->close();
  desktop->close();
  CorvanePackage::waitForRecentFilesRegistration();
  std::filesystem::remove_all(root);
  if (a != b) return fail("the devices disagree");
  std::printf("Both devices hold the same document.\n");
  return 0;
}
