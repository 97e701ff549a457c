// The update pass on what other devices control. A small package (plain or encrypted) is saved
// once with the real store; each input replaces one of its change files, object files or data
// files, or Info.plist, or adds a change file, then the package is opened with an empty cache
// folder, brought up to date and read. No crash, no hang, and no file outside the package and
// the cache folder is read or written: the Env aborts on any other path.
//
// Input: byte 0 picks the package (bit 7: encrypted) and the file (the rest, modulo the number
// of files plus one for a new change file); byte 1 bit 0 asks, in the encrypted package, for the
// content to be encrypted with the package's key first, so that the fuzzer reaches the parsers
// behind the cipher there too. The rest is the file's new content.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/plist.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/object_model.h"
#include "corvane/security/sea_crypto.h"
#include "corvane/store/corvane_managed_object_context.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_persistent_store_coordinator.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/corvane_store_options.h"
#include "corvane/store/store_environment.h"

namespace {

using namespace corvane;

constexpr const char* kModel = R"({"entities": [
  {"name": "Person", "attributes": [
    {"name": "name", "type": "string"}, {"name": "age", "type": "integer32"},
    {"name": "born", "type": "date"}, {"name": "photo", "type": "binary"}],
   "relationships": [
    {"name": "friends", "destination": "Person", "inverse": "friendOf", "toMany": true},
    {"name": "friendOf", "destination": "Person", "inverse": "friends", "toMany": true},
    {"name": "employer", "destination": "Company", "inverse": "staff"}]},
  {"name": "Company", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "staff", "destination": "Person", "inverse": "employer", "toMany": true}]}
]})";
constexpr const char* kPassword = "fuzz";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "update_pass_fuzz: %s\n", what.c_str());
  std::abort();
}

bool under(const std::string& path, const std::string& folder) {
  return path == folder || path.starts_with(folder + "/");
}

// Lets the store reach the package and the cache folder (and the settings file of this
// process's user defaults) only; any other path aborts.
class FencedEnv final : public EnvWrapper {
 public:
  explicit FencedEnv(Env* target) : EnvWrapper(target) {}
  std::vector<std::string> allowed;
  bool fenced = false;

  bool readFile(const std::string& p, Bytes* out, Error* e) override { return check(p), target()->readFile(p, out, e); }
  bool writeFileAtomically(const std::string& p, ByteView d, Error* e) override {
    return check(p), target()->writeFileAtomically(p, d, e);
  }
  bool fileExists(const std::string& p, bool* isDirectory) override {
    return query(p), target()->fileExists(p, isDirectory);
  }
  std::optional<FileAttributes> attributes(const std::string& p) override { return query(p), target()->attributes(p); }
  bool listDirectory(const std::string& p, bool hidden, std::vector<std::string>* names, Error* e) override {
    return query(p), target()->listDirectory(p, hidden, names, e);
  }
  bool createDirectory(const std::string& p, bool intermediates, Error* e) override {
    return check(p), target()->createDirectory(p, intermediates, e);
  }
  bool removeItem(const std::string& p, Error* e) override { return check(p), target()->removeItem(p, e); }
  bool moveItem(const std::string& from, const std::string& to, Error* e) override {
    return check(from), check(to), target()->moveItem(from, to, e);
  }
  bool copyItem(const std::string& from, const std::string& to, Error* e) override {
    return check(from), check(to), target()->copyItem(from, to, e);
  }
  std::optional<std::string> trashItem(const std::string& p, Error* e) override {
    return check(p), target()->trashItem(p, e);
  }
  std::optional<Bytes> extendedAttribute(const std::string& p, const std::string& name) override {
    return query(p), target()->extendedAttribute(p, name);
  }
  bool setExtendedAttribute(const std::string& p, const std::string& name, ByteView value, Error* e) override {
    return check(p), target()->setExtendedAttribute(p, name, value, e);
  }
  bool removeExtendedAttribute(const std::string& p, const std::string& name) override {
    return check(p), target()->removeExtendedAttribute(p, name);
  }
  std::optional<uint64_t> freeSpace(const std::string& p) override { return query(p), target()->freeSpace(p); }

  // While the seed package is made, the same UIDs, change names, salt and IVs every time, so
  // that the seed inputs in the corpus name the files of the package they are tried on.
  bool seeding = false;
  bool randomBytes(uint8_t* out, size_t n) override {
    if (!seeding) return target()->randomBytes(out, n);
    std::lock_guard<std::mutex> lock(seedMutex_);
    for (size_t i = 0; i < n; ++i) {
      seedState_ = seedState_ * 6364136223846793005ULL + 1442695040888963407ULL;
      out[i] = static_cast<uint8_t>(seedState_ >> 56);
    }
    return true;
  }
  double now() override {
    if (!seeding) return target()->now();
    std::lock_guard<std::mutex> lock(seedMutex_);
    return seedClock_ += 0.001;
  }

 private:
  std::mutex seedMutex_;
  uint64_t seedState_ = 1;
  double seedClock_ = 737719200.0;
  // Looking without reading or writing: the recent-files record also looks for a Time Machine
  // backup of the package on every mounted volume, which is the process's own business.
  void query(const std::string& path) const {
    if (fenced && path.find("/Backups.backupdb") != std::string::npos && path.find('\0') == std::string::npos) return;
    check(path);
  }
  void check(const std::string& path) const {
    if (!fenced) return;
    if (path.find('\0') == std::string::npos && path.find("/../") == std::string::npos && !path.ends_with("/..")) {
      for (const std::string& folder : allowed) {
        if (under(path, folder)) return;
      }
    }
    fail("path outside the package and the cache folder: " + path);
  }
};

struct SeedFile {
  std::string relative;
  Bytes bytes;
};

struct Seed {
  std::string folder;  // the untouched seed package
  bool encrypted = false;
  std::vector<SeedFile> files;  // change, object and data files, and Info.plist
  std::string lastChange;       // the name of its last change file
  std::optional<SeaCrypto> cipher;
};

struct Fixture {
  std::string root, work, cacheRoot, settings, defaultsFile;
  FencedEnv* env = nullptr;
  std::shared_ptr<ObjectModel> model;
  Value environment;
  Seed seeds[2];
  int ready = 0;
  NotificationCenter::Observer readyObserver;
};

Fixture* fixture = nullptr;

Value storeOptions(bool encrypted, const std::string& cacheRoot) {
  Value options = Value::mutableDictionary();
  options.set(Value(kCorvaneCacheRootURLOption), Value(cacheRoot));
  options.set(Value(kCorvaneStoreEnvironmentOption), fixture->environment);
  if (encrypted) options.set(Value("password"), Value(kPassword));
  return options.copy();
}

struct Opened {
  std::shared_ptr<CorvanePersistentStoreCoordinator> coordinator;
  CorvaneStore* store = nullptr;
  std::shared_ptr<CorvaneManagedObjectContext> context;
};

Opened openAndUpdate(const std::string& package, bool encrypted, const std::string& cacheRoot) {
  Opened opened;
  opened.coordinator = std::make_shared<CorvanePersistentStoreCoordinator>(fixture->model);
  const int before = fixture->ready;
  Error error;
  auto* added = opened.coordinator->addPersistentStore(kCorvaneStoreType, "", package,
                                                       storeOptions(encrypted, cacheRoot), &error);
  if (added == nullptr) return opened;
  opened.store = static_cast<CorvaneStore*>(added);
  // The pass at opening ends with "CorvaneReady", whatever it met.
  if (!RunLoop::main().runUntil([&] { return fixture->ready > before; }, 20)) fail("the update pass did not end");
  opened.context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
  opened.context->setPersistentStoreCoordinator(opened.coordinator);
  return opened;
}

void close(Opened& opened) {
  if (opened.store != nullptr) {
    opened.context.reset();
    opened.store->close();
  }
  opened.coordinator.reset();  // the store goes, and its cache's background work stops
  CorvanePackage::waitForRecentFilesRegistration();
  RunLoop::main().discardPendingWork();
}

void readEverything(Opened& opened) {
  if (opened.context == nullptr) return;
  for (const char* entity : {"Person", "Company"}) {
    FetchRequest request(entity);
    auto objects = opened.context->fetch(request);
    if (!objects) continue;
    for (const auto& object : *objects) {
      for (const auto* property : object->entity().properties()) (void)object->value(property->name());
    }
  }
}

void collectFiles(Env* env, const std::string& root, const std::string& relative, std::vector<SeedFile>* out) {
  std::vector<std::string> names;
  if (!env->listDirectory(relative.empty() ? root : root + "/" + relative, false, &names, nullptr)) return;
  for (const std::string& name : names) {
    const std::string child = relative.empty() ? name : relative + "/" + name;
    bool isDirectory = false;
    env->fileExists(root + "/" + child, &isDirectory);
    if (isDirectory) {
      if (child == "Errors" || child == "Cache") continue;
      collectFiles(env, root, child, out);
    } else {
      Bytes bytes;
      if (!env->readFile(root + "/" + child, &bytes, nullptr)) fail("cannot read the seed file " + child);
      out->push_back({child, std::move(bytes)});
    }
  }
}

// Two saves: the first inserts people with every kind of value and a company, the second
// updates and relates them, so that the package has a chain of two changes.
void makeSeed(Seed& seed, bool encrypted) {
  seed.encrypted = encrypted;
  seed.folder = fixture->root + (encrypted ? "/seed-encrypted.corvane" : "/seed-plain.corvane");
  Opened opened = openAndUpdate(seed.folder, encrypted, fixture->root + "/seed-caches");
  if (opened.store == nullptr) fail("cannot create the seed package");
  auto ann = opened.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("age", Value(42));
  ann->setValue("born", Value::date(737719200.0));
  ann->setValue("photo", Value::data(asBytes("PHOTO BYTES")));
  auto bob = opened.context->insertNewObject("Person");
  bob->setValue("name", "Bob");
  auto acme = opened.context->insertNewObject("Company");
  acme->setValue("name", "Acme");
  if (!opened.context->save()) fail("cannot save the seed");
  opened.store->waitForSaves();
  RunLoop::main().runFor(0.05);
  ann->setToOne("employer", acme.get());
  ann->addToMany("friends", bob.get());
  bob->setValue("name", "Bob B");
  if (!opened.context->save()) fail("cannot save the seed");
  opened.store->waitForSaves();
  RunLoop::main().runFor(0.05);
  close(opened);

  collectFiles(fixture->env, seed.folder, "", &seed.files);
  for (const SeedFile& file : seed.files) {
    if (file.relative.starts_with("Changes/")) seed.lastChange = file.relative.substr(8);
  }
  if (seed.lastChange.empty()) fail("the seed package has no change file");
  if (encrypted) {
    Value info;
    if (!readPropertyListFile(fixture->env, seed.folder + "/Info.plist", &info, nullptr)) fail("no seed Info.plist");
    const Value& encryption = info["Encryption"];
    seed.cipher.emplace(fixture->env);
    seed.cipher->setSalt(Bytes(encryption["Salt"].bytes().begin(), encryption["Salt"].bytes().end()));
    seed.cipher->setRounds(encryption["Rounds"].longLongValue());
    seed.cipher->setPassword(std::string_view(kPassword));
  }
}

void copyTree(Env* env, const std::string& from, const std::string& to) {
  if (env->fileExists(to) && !env->removeItem(to, nullptr)) fail("cannot remove " + to);
  if (!env->copyItem(from, to, nullptr)) fail("cannot copy " + from);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setLogSink([](LogLevel, std::string_view) {});
  fixture = new Fixture();
  // In memory where there is such a folder: every atomic write flushes to disk.
  char folder[] = "/dev/shm/update-pass-fuzz-XXXXXX";
  if (mkdtemp(folder) == nullptr) fail("cannot make a temporary folder");
  fixture->root = folder;
  std::atexit([] { (void)Env::defaultEnv()->removeItem(fixture->root, nullptr); });  // best effort at exit
  // Trash, caches and settings stay inside the temporary folder.
  for (const char* variable : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
    setenv(variable, (fixture->root + "/" + variable).c_str(), 1);
  }
  fixture->work = fixture->root + "/work.corvane";
  fixture->cacheRoot = fixture->root + "/caches";
  fixture->settings = fixture->root + "/settings";
  fixture->defaultsFile = fixture->settings + "/defaults.plist";
  fixture->env = new FencedEnv(Env::defaultEnv());
  Error error;
  fixture->model = ObjectModel::fromJSON(kModel, &error);
  if (!fixture->model) fail("bad model: " + error.localizedDescription);
  CorvaneStore::registerStoreType();
  auto* environment = new StoreEnvironment();
  environment->env = fixture->env;
  environment->defaults = std::make_shared<UserDefaults>(fixture->env, fixture->defaultsFile);
  environment->encryptionRounds = 1000;
  environment->interaction = std::make_shared<HeadlessInteraction>();
  fixture->environment = Value::object(environment);
  fixture->readyObserver = NotificationCenter::defaultCenter().addObserver(
      kCorvaneReadyNotification, nullptr, [](const Notification&) { ++fixture->ready; });
  fixture->env->seeding = true;
  makeSeed(fixture->seeds[0], false);
  makeSeed(fixture->seeds[1], true);
  fixture->env->seeding = false;
  // The user defaults (the recent-files record) are the process's own settings.
  fixture->env->allowed = {fixture->work, fixture->cacheRoot, fixture->settings};
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  Seed& seed = fixture->seeds[(data[0] & 0x80) != 0 ? 1 : 0];
  const size_t choice = (data[0] & 0x7F) % (seed.files.size() + 1);
  Bytes content(data + 2, data + size);
  if (seed.encrypted && (data[1] & 1) != 0) {
    std::optional<Bytes> sealed = seed.cipher->encryptData(content);
    if (!sealed) return 0;
    content = std::move(*sealed);
  }

  Env* env = fixture->env;
  if (env->fileExists(fixture->cacheRoot) && !env->removeItem(fixture->cacheRoot, nullptr)) {
    fail("cannot remove " + fixture->cacheRoot);
  }
  copyTree(env, seed.folder, fixture->work);
  // The chosen file, or a change file that sorts after the last one.
  const std::string relative =
      choice < seed.files.size() ? seed.files[choice].relative : "Changes/" + seed.lastChange + "~.json";
  if (!env->writeFileAtomically(fixture->work + "/" + relative, content, nullptr)) fail("cannot write " + relative);

  fixture->env->fenced = true;
  Opened opened = openAndUpdate(fixture->work, seed.encrypted, fixture->cacheRoot);
  readEverything(opened);
  close(opened);
  fixture->env->fenced = false;
  return 0;
}
