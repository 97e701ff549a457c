// The device of the crash test: it opens a document through the real store and saves in a loop
// until it is killed. What it prints is what it was told: the crash test holds the store to
// every save that this program reported as done.
//
//   crash_saver <package> <cache root> <seed> [password]
//
// Standard output, one JSON line each, flushed at once:
//   open  {"objects": [...]}            every person the device holds once the opening pass is over
//   begin {"save": n, "objects": [...]}  what the next save is about to write (inserts without UID)
//   saved {"save": n, "objects": [...]}  the save returned success; objects carry their UIDs
//   failed {"save": n, "error": "..."}   the save returned an error (and the program stops)
// An object is {"op", "uid", "name", "age", "serial", "photo" (SHA-256 of the bytes, or "")}.
//
// Every choice comes from the seed and what the device found on opening, so that a run replays
// the same saves up to the moment of the kill.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/digest.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"
#include "support/test_models.h"

using namespace corvane;

namespace {

class CrashDeviceEnv final : public EnvWrapper {
 public:
  CrashDeviceEnv() : EnvWrapper(Env::defaultEnv()) {}
  std::string machineName() override { return "Crasher"; }
};

Value describe(const char* op, const std::string& uid, const ManagedObject& person) {
  const Value photo = person.value("photo");
  return dict({{"op", Value(op)},
               {"uid", Value(uid)},
               {"name", Value(person.stringValue("name"))},
               {"age", Value(static_cast<long long>(person.int64Value("age")))},
               {"serial", Value(static_cast<long long>(person.int64Value("serial")))},
               {"photo", Value(photo.isData() ? corvaneSHA256HexDigest(photo.bytes()) : std::string())}});
}

// One line, written and flushed in one go so that a kill leaves it whole or absent.
void emit(const char* kind, const Value& body) {
  const std::string line = std::string(kind) + " " + valueToJson(body).value_or("{}") + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

int fail(const std::string& message) {
  std::fprintf(stderr, "crash_saver: %s\n", message.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return fail("usage: crash_saver <package> <cache root> <seed> [password]");
  const std::string package = argv[1];
  const std::string cacheRoot = argv[2];
  const uint64_t seed = std::strtoull(argv[3], nullptr, 10);
  std::mt19937_64 random(seed);
  auto below = [&](uint64_t n) { return static_cast<int64_t>(random() % n); };

  Error error;
  std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(testing::kPeopleModelJSON, &error);
  if (!model) return fail("model: " + error.localizedDescription);
  CorvaneStore::registerStoreType();
  CrashDeviceEnv env;
  auto* environment = new StoreEnvironment();
  environment->env = &env;
  environment->defaults = std::make_shared<UserDefaults>(&env, cacheRoot + "/defaults.plist");
  environment->encryptionRounds = 1000;  // a real device uses more; the kill must meet saves, not key stretching
  Value options = Value::mutableDictionary();
  options.set(Value(kCorvaneCacheRootURLOption), Value(cacheRoot));
  options.set(Value(kCorvaneStoreEnvironmentOption), Value::object(environment));
  if (argc > 4) options.set(Value(kCorvanePasswordOption), Value(std::string(argv[4])));

  int ready = 0;
  auto observer = NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                                  [&ready](const Notification&) { ++ready; });
  auto coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(model);
  auto* store = static_cast<CorvaneStore*>(
      coordinator->addPersistentStore(kCorvaneStoreType, "", package, options.copy(), &error));
  if (store == nullptr) return fail("open: " + error.localizedDescription);
  if (!RunLoop::main().runUntil([&ready] { return ready > 0; }, 60)) return fail("the opening pass did not end");
  auto context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
  context->setPersistentStoreCoordinator(coordinator);
  context->setUndoManager(nullptr);

  // The people this device holds, in name order so that a seed picks the same ones again.
  std::vector<Retained<ManagedObject>> people;
  if (auto found = context->fetch(FetchRequest("Person"), &error)) {
    people = *found;
  } else {
    return fail("fetch: " + error.localizedDescription);
  }
  std::sort(people.begin(), people.end(),
            [](const auto& a, const auto& b) { return a->stringValue("name") < b->stringValue("name"); });
  Value held = Value::mutableArray();
  for (const auto& person : people) {
    held.append(describe("held", store->uidForObjectID(person->objectID(), context.get()), *person));
  }
  emit("open", dict({{"objects", held}}));

  int64_t serial = static_cast<int64_t>(seed % 100000) * 100000;
  for (int64_t round = 0;; ++round) {
    struct Touched {
      const char* op;
      Retained<ManagedObject> person;
      std::string uid;  // known before the save for updates and deletes
      Value deleted;    // a deleted person as it was, for it cannot be read once deleted
    };
    std::vector<Touched> touched;
    // One round in four brings a photo big enough that writing its data file takes a while.
    auto photo = [&] {
      Bytes bytes(static_cast<size_t>(4096 + below(60000)));
      const uint8_t fill = static_cast<uint8_t>(random());
      for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(fill + i * 7);
      return Value::data(std::move(bytes));
    };
    const bool withPhoto = below(4) == 0;
    for (int64_t n = 0, count = 1 + below(2); n < count; ++n) {
      auto person = context->insertNewObject("Person");
      const std::string name = "s" + std::to_string(seed) + "-" + std::to_string(round) + "-" + std::to_string(n);
      person->setValue("name", Value(name));
      person->setValue("age", Value(static_cast<long long>(below(100))));
      person->setValue("serial", Value(static_cast<long long>(++serial)));
      if (withPhoto && n == 0) person->setValue("photo", photo());
      touched.push_back({"insert", person, {}, {}});
    }
    if (!people.empty() && below(3) == 0) {
      auto& person = people[static_cast<size_t>(below(static_cast<uint64_t>(people.size())))];
      person->setValue("age", Value(static_cast<long long>(below(100))));
      person->setValue("serial", Value(static_cast<long long>(++serial)));
      if (below(4) == 0) person->setValue("photo", photo());
      touched.push_back({"update", person, store->uidForObjectID(person->objectID(), context.get()), {}});
    }
    if (people.size() > 1 && below(5) == 0) {
      const auto at = people.begin() + below(static_cast<uint64_t>(people.size()));
      // Not the one updated in this round: one object, one operation per save.
      if (touched.back().person.get() != at->get()) {
        const std::string uid = store->uidForObjectID((*at)->objectID(), context.get());
        touched.push_back({"delete", *at, uid, describe("delete", uid, **at)});
        context->deleteObject(at->get());
        people.erase(at);
      }
    }

    Value planned = Value::mutableArray();
    for (const auto& t : touched) planned.append(t.deleted.isNil() ? describe(t.op, t.uid, *t.person) : t.deleted);
    emit("begin", dict({{"save", Value(static_cast<long long>(round))}, {"objects", planned}}));
    if (!context->save(&error)) {
      emit("failed",
           dict({{"save", Value(static_cast<long long>(round))}, {"error", Value(error.localizedDescription)}}));
      return 2;
    }
    Value saved = Value::mutableArray();
    for (const auto& t : touched) {
      const std::string uid = t.uid.empty() ? store->uidForObjectID(t.person->objectID(), context.get()) : t.uid;
      saved.append(t.deleted.isNil() ? describe(t.op, uid, *t.person) : t.deleted);
      if (std::string(t.op) == "insert") people.push_back(t.person);
    }
    emit("saved", dict({{"save", Value(static_cast<long long>(round))}, {"objects", saved}}));
    // What a host's run loop would do between two saves: log entries and cache updates. And a
    // millisecond passes, as between two saves of a person: change names carry the time to the
    // millisecond, and two in one millisecond would sort by their random UUIDs alone.
    RunLoop::main().runOnce();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}
