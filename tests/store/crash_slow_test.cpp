// A device killed in the middle of its saves loses none that it reported as done.
//
// crash_saver opens a document through the real store and saves in a loop, printing each save
// that returned success. The test kills it with SIGKILL at a seeded moment, then holds the
// package to what was printed:
//   - every change file and object file in the package reads (decrypts) and parses; the only
//     other files are hidden leftovers of interrupted atomic writes, which readers skip;
//   - a second device with a new cache opens the package, its opening pass logs no error, and
//     it holds every printed save (inserts present, values as written, deletes gone);
//   - the killed device reopens its own cache (a copy of it, taken at the kill), holds the
//     same, and saves once more;
//   - the next run of crash_saver reopens the killed device's own cache, left as the kill left
//     it, and must hold the same again before it saves on.
// A save under way at the kill may or may not be there, but whole or not at all per object.
// Runs follow each other on one package (CORVANE_CRASH_CHAIN runs each, default 10); one
// package in four has a password.
//
// Seeds 3000 to 3099 by default; CORVANE_SEED=<first> and CORVANE_SEEDS=<count> choose others.
// Everything but the moment of the kill follows from the seed. On failure the test names the
// seed, the run and the printed saves that are missing; CORVANE_KEEP_TEST_DIRS=1 keeps the
// folders, with each run's output in run-<seed>.out / .err.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "corvane/graph/fetch_request.h"
#include "corvane/security/digest.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

uint64_t numberFromEnvironment(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : fallback;
}

// One person as the files should hold it.
struct Person {
  std::string name;
  long long age = 0;
  long long serial = 0;
  std::string photo;  // SHA-256 of the bytes, "" without a photo
  bool operator==(const Person&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Person& p) {
  return out << p.name << " age=" << p.age << " serial=" << p.serial << " photo=" << p.photo.substr(0, 8);
}

Person personFrom(const Value& line) {
  return {line["name"].str(), line["age"].longLongValue(), line["serial"].longLongValue(), line["photo"].str()};
}

using People = std::map<std::string, Person>;  // by UID

// What crash_saver printed before it died.
struct ChildOutput {
  std::optional<People> opened;  // the device's objects after its opening pass
  std::vector<Value> saved;      // the bodies of "saved" lines, in order
  Value inFlight;                // the last "begin" body that has no "saved" line
  std::string failure;           // a "failed" line or a line that does not parse
};

ChildOutput parseOutput(const std::string& text) {
  ChildOutput out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (lines.eof()) break;  // the last line has no newline: cut by the kill, so never printed
    const size_t space = line.find(' ');
    const std::string kind = line.substr(0, space);
    std::optional<Value> body = space == std::string::npos ? std::nullopt : jsonToValue(line.substr(space + 1));
    if (!body || !body->isDictionary()) {
      out.failure = "unreadable line: " + line;
      continue;
    }
    if (kind == "open") {
      People held;
      for (const Value& object : (*body)["objects"].elements()) held[object["uid"].str()] = personFrom(object);
      out.opened = held;
    } else if (kind == "begin") {
      out.inFlight = *body;
    } else if (kind == "saved") {
      out.saved.push_back(*body);
      out.inFlight = Value();
    } else {
      out.failure = line;
    }
  }
  return out;
}

// The Env of the verifying devices: real files and the real clock (the change names of their
// saves must sort among the crashed device's), under a name of their own.
class VerifierEnv final : public EnvWrapper {
 public:
  VerifierEnv() : EnvWrapper(Env::defaultEnv()) {}
  std::string machineName() override { return "Verifier"; }
};

// One package and the device that keeps crashing on it.
struct Chain {
  std::string package;
  std::string cacheRoot;  // the crashing device's
  std::optional<std::string> password;
  People expected;                                               // what every device must hold now
  std::map<std::string, std::pair<uint64_t, long long>> origin;  // UID -> seed and save that last wrote it
  std::set<std::string> deleted;                                 // UIDs that printed saves deleted
  std::set<std::string> errors;  // what the new devices' opening passes logged as errors
};

class CrashTest : public StoreTest {
 protected:
  CrashTest() { environment_->env = &realEnv_; }

  // The outcome of one run: empty when it passed.
  std::vector<std::string> problems_;
  std::set<std::pair<uint64_t, long long>> lostSaves_;  // seed and number of the printed saves undone
  void problem(const std::string& text) { problems_.push_back(text); }

  void runChain(uint64_t firstSeed, uint64_t count, bool withPassword, std::vector<std::string>* report) {
    Chain chain;
    chain.package = dir / ("Doc-" + std::to_string(firstSeed) + ".corvane");
    chain.cacheRoot = dir / ("crasher-cache-" + std::to_string(firstSeed));
    if (withPassword) chain.password = "crash-" + std::to_string(firstSeed);
    for (uint64_t seed = firstSeed; seed < firstSeed + count; ++seed) {
      problems_.clear();
      lostSaves_.clear();
      runOnce(chain, seed, seed + 1 == firstSeed + count);
      if (problems_.empty()) continue;
      std::ostringstream text;
      text << "seed " << seed << " (run " << (seed - firstSeed + 1) << " of " << count << " on "
           << pathLastComponent(chain.package) << (chain.password ? ", with password" : "")
           << "; rerun with CORVANE_SEED=" << firstSeed << " CORVANE_SEEDS=" << (seed - firstSeed + 1) << "):";
      if (!lostSaves_.empty()) {
        text << "\n  printed saves lost, in whole or in part:";
        for (const auto& [lostSeed, number] : lostSaves_) {
          text << " " << number << (lostSeed != seed ? " (of seed " + std::to_string(lostSeed) + ")" : "");
        }
      }
      const size_t shown = std::min<size_t>(problems_.size(), 12);
      for (size_t i = 0; i < shown; ++i) text << "\n  " << problems_[i];
      if (shown < problems_.size()) text << "\n  ... and " << (problems_.size() - shown) << " more";
      report->push_back(text.str());
    }
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(chain.package, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
      if (isLeftover(it->path().filename().string())) ++leftoversFound_;
    }
  }

  void runOnce(Chain& chain, uint64_t seed, bool last) {
    std::mt19937_64 random(seed * 7919 + 17);
    if (std::filesystem::exists(chain.package)) plantLeftovers(chain, random);
    const std::string outPath = dir / ("run-" + std::to_string(seed) + ".out");
    const std::string errPath = dir / ("run-" + std::to_string(seed) + ".err");
    // From a few milliseconds (still opening) to a few hundred (many saves in), evenly on a
    // logarithmic scale so that the early moments get their share.
    const double u = static_cast<double>(random() % 10000) / 10000.0;
    const auto delay = std::chrono::microseconds(static_cast<long long>(3000.0 * std::pow(100.0, u)));
    const std::string outcome = runChild(chain, seed, delay, outPath, errPath);
    if (!outcome.empty()) problem(outcome + "; its standard error:\n" + readTextFile(errPath));
    const ChildOutput output = parseOutput(readTextFile(outPath));
    if (!output.failure.empty()) problem("the device reported: " + output.failure);
    if (output.opened) compare(chain, *output.opened, Value(), "the device reopening its cache after the last kill");

    for (const Value& save : output.saved) applyPrintedSave(chain, save, seed);
    if (!std::filesystem::exists(chain.package)) {
      // Killed before the package was made: nothing to hold it to, unless something was printed.
      if (!output.saved.empty()) problem("the package is gone after " + std::to_string(output.saved.size()) + " saves");
      return;
    }
    verifyFresh(chain, output.inFlight);
    verifyReopened(chain, copyOfCache(chain, seed), "a copy of its cache", true);
    // No next run will reopen the crashing device's own cache as the last kill left it: do it here.
    if (last) verifyReopened(chain, chain.cacheRoot, "its cache", false);
    if (!interaction->alerts.empty()) {
      problem("a device showed alerts: " + ::testing::PrintToString(interaction->alerts));
    }
    interaction->alerts.clear();
  }

  // ---- The crashing device -----------------------------------------------------------------

  // Starts crash_saver, kills it `delay` after the start, and says what went wrong, if anything.
  std::string runChild(const Chain& chain, uint64_t seed, std::chrono::microseconds delay, const std::string& outPath,
                       const std::string& errPath) {
    const std::string home = dir / "home";
    std::vector<std::string> args = {CORVANE_CRASH_SAVER_PATH, chain.package, chain.cacheRoot, std::to_string(seed)};
    if (chain.password) args.push_back(*chain.password);
    std::vector<std::string> environment = {"PATH=/usr/bin:/bin", "HOME=" + home, "XDG_DATA_HOME=" + home + "/data",
                                            "XDG_CACHE_HOME=" + home + "/cache", "XDG_CONFIG_HOME=" + home + "/config"};
    if (const char* asan = std::getenv("ASAN_OPTIONS")) environment.push_back(std::string("ASAN_OPTIONS=") + asan);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
      // Only what is safe between fork and exec in a process with threads.
      int in = ::open("/dev/null", O_RDONLY);
      int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (in < 0 || out < 0 || err < 0) _exit(126);
      dup2(in, 0);
      dup2(out, 1);
      dup2(err, 2);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    if (pid < 0) return "could not start crash_saver";
    std::this_thread::sleep_until(start + delay);
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      return "crash_saver ended by itself before the kill (status " + std::to_string(status) + ")";
    }
    kill(pid, SIGKILL);
    if (waitpid(pid, &status, 0) != pid) return "could not wait for crash_saver";
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
      return "crash_saver ended by itself before the kill (status " + std::to_string(status) + ")";
    }
    return {};
  }

  void applyPrintedSave(Chain& chain, const Value& save, uint64_t seed) {
    for (const Value& object : save["objects"].elements()) {
      const std::string uid = object["uid"].str();
      if (object["op"].str() == "delete") {
        chain.expected.erase(uid);
        chain.deleted.insert(uid);
      } else {
        chain.expected[uid] = personFrom(object);
      }
      chain.origin[uid] = {seed, save["save"].longLongValue()};
    }
  }

  // Hidden leftovers such as a kill leaves in the middle of an atomic write, in the folders that
  // readers list: the change files and an object's folder with its data files.
  void plantLeftovers(const Chain& chain, std::mt19937_64& random) {
    auto hex = [&] {
      char text[16];
      std::snprintf(text, sizeof text, "%012llx", static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFULL));
      return std::string(text);
    };
    const std::string name = "2001-01-01-00-00-00.000." + realEnv_.newUUIDString() + ".json";
    writeTextFile(chain.package + "/Changes/." + name + "." + hex() + ".tmp", R"({"name": ")" + name);
    ++leftoversPlanted_;
    std::vector<std::string> objects;
    for (const std::string& entity : list(chain.package + "/Entities")) {
      const std::string folder = chain.package + "/Entities/" + entity;
      for (const std::string& object : list(folder)) objects.push_back(folder + "/" + object);
    }
    if (objects.empty()) return;
    const std::string object = objects[random() % objects.size()];
    writeTextFile(object + "/." + name + "." + hex() + ".tmp", R"({"version": ")");
    writeTextFile(object + "/Data/." + realEnv_.newUUIDString() + "." + hex() + ".tmp", "half a photo");
    leftoversPlanted_ += 2;
  }

  // ---- The package -------------------------------------------------------------------------

  bool isLeftover(const std::string& name) {
    static const std::regex pattern(R"(^\..+\.[0-9a-f]{12}\.tmp$)");
    return std::regex_match(name, pattern);
  }

  // Reads a change or object file as a reader would: decrypted with the package's password and
  // parsed as a JSON object.
  std::optional<Value> readPackageFile(CorvaneStore* store, const std::string& path) {
    Bytes bytes;
    if (!env.readFile(path, &bytes, nullptr)) return std::nullopt;
    std::optional<Bytes> plain = store->decrypt(bytes);
    if (!plain) return std::nullopt;
    std::optional<Value> parsed = jsonToValue(asStringView(*plain));
    if (!parsed || !parsed->isDictionary()) return std::nullopt;
    return parsed;
  }

  void checkFiles(const Chain& chain, CorvaneStore* reader) {
    auto checkFolder = [&](const std::string& folder, bool changes) {
      std::vector<std::string> names;
      env.listDirectory(folder, false, &names, nullptr);
      for (const std::string& name : names) {
        const std::string path = folder + "/" + name;
        if (std::filesystem::is_directory(path)) continue;
        if (name.starts_with(".")) {
          if (!isLeftover(name)) problem("a hidden file that no atomic write leaves: " + path);
          continue;
        }
        if (changes && !name.ends_with(".json")) {
          problem("a file that is no change file in Changes/: " + name);
        } else if (std::optional<Value> content = readPackageFile(reader, path); !content) {
          problem("half written or unreadable: " + path);
        } else if (changes && (*content)["name"].str() != name) {
          problem("the change file " + name + " names itself " + (*content)["name"].str());
        }
      }
    };
    checkFolder(chain.package + "/Changes", true);
    std::vector<std::string> entities;
    env.listDirectory(chain.package + "/Entities", true, &entities, nullptr);
    for (const std::string& entity : entities) {
      const std::string entityFolder = chain.package + "/Entities/" + entity;
      for (const std::string& object : list(entityFolder)) checkFolder(entityFolder + "/" + object, false);
    }
  }

  // ---- The devices that check -------------------------------------------------------------

  OpenStore openDevice(const Chain& chain, const std::string& root) {
    Value extra = Value::mutableDictionary();
    extra.set(Value(kCorvaneCacheRootURLOption), Value(root));
    if (chain.password) extra.set(Value(kCorvanePasswordOption), Value(*chain.password));
    Error error;
    OpenStore opened = open(extra, &error, chain.package);
    if (!opened) problem("could not open the package: " + error.localizedDescription);
    return opened;
  }

  // Closes the device and removes its cache, unless it is the crashing device's own.
  void closeDevice(OpenStore& opened, const std::string& root, bool keepCache = false) {
    close(opened);
    if (!keepCache) std::filesystem::remove_all(root);
  }

  People snapshot(OpenStore& opened) {
    People held;
    auto context = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(opened.coordinator);
    Error error;
    auto found = context->fetch(FetchRequest("Person"), &error);
    if (!found) {
      problem("could not fetch: " + error.localizedDescription);
      return held;
    }
    for (const auto& person : *found) {
      const Value photo = person->value("photo");
      held[opened.store->uidForObjectID(person->objectID(), context.get())] =
          Person{person->stringValue("name"), person->int64Value("age"), person->int64Value("serial"),
                 photo.isData() ? corvaneSHA256HexDigest(photo.bytes()) : std::string()};
    }
    return held;
  }

  // The problems of a device that holds `held` where the chain expects its objects; a save under
  // way at the kill (`inFlight`) may have happened or not.
  void compare(const Chain& chain, const People& held, const Value& inFlight, const std::string& who) {
    std::map<std::string, Value> pending;  // UID (or name, for an insert) -> the object in flight
    for (const Value& object : inFlight["objects"].elements()) {
      pending[object["op"].str() == "insert" ? object["name"].str() : object["uid"].str()] = object;
    }
    // Names the printed save that wrote the object, and counts it among the lost ones.
    auto origin = [&](const std::string& uid) {
      auto it = chain.origin.find(uid);
      if (it == chain.origin.end()) return std::string(" (saved by a verifier)");
      lostSaves_.insert(it->second);
      return " (printed as save " + std::to_string(it->second.second) + " of seed " + std::to_string(it->second.first) +
             ")";
    };
    for (const auto& [uid, person] : chain.expected) {
      auto it = held.find(uid);
      auto flight = pending.find(uid);
      const bool maybe = flight != pending.end();
      if (it == held.end()) {
        if (!(maybe && flight->second["op"].str() == "delete")) {
          problem(who + " misses " + uid + " " + ::testing::PrintToString(person) + origin(uid));
        }
      } else if (it->second != person && !(maybe && it->second == personFrom(flight->second))) {
        std::ostringstream text;
        text << who << " holds " << uid << " as " << it->second << " instead of " << person << origin(uid);
        problem(text.str());
      }
    }
    for (const auto& [uid, person] : held) {
      if (chain.expected.contains(uid)) continue;
      if (chain.deleted.contains(uid)) {
        problem(who + " still holds " + uid + " " + ::testing::PrintToString(person) + ", deleted" + origin(uid));
        continue;
      }
      auto flight = pending.find(person.name);
      if (flight == pending.end() || personFrom(flight->second) != person) {
        problem(who + " holds " + uid + " " + ::testing::PrintToString(person) + ", which no save wrote");
      }
    }
  }

  // A device that never saw the package before brings itself up to date.
  void verifyFresh(Chain& chain, const Value& inFlight) {
    const std::string root = dir / "fresh-cache";
    OpenStore fresh = openDevice(chain, root);
    if (!fresh) return;
    checkFiles(chain, fresh.store);
    // An error stays in the package for every later device to find: each is told once.
    for (const StoreLogEntry& entry : logOf(fresh.store)) {
      if (entry.type == kCorvaneLogTypeError && chain.errors.insert(entry.message).second) {
        problem("a new device's opening pass logged: " + entry.message);
      }
    }
    const People held = snapshot(fresh);
    compare(chain, held, inFlight, "a new device");
    // What happened to the save under way is settled now; a device that differs is told so
    // above, and the runs after it are held to what the package holds.
    chain.expected = held;
    closeDevice(fresh, root);
  }

  // The crashed device opens its cache (under `root`), holds what it should and saves once more.
  void verifyReopened(Chain& chain, const std::string& root, const std::string& how, bool saveOnce) {
    OpenStore device = openDevice(chain, root);
    if (!device) return;
    compare(chain, snapshot(device), Value(), "the killed device reopening " + how);
    if (saveOnce) {
      auto person = device.context->insertNewObject("Person");
      const std::string name = "verifier-" + realEnv_.newUUIDString();
      person->setValue("name", Value(name));
      person->setValue("serial", Value(static_cast<long long>(-1)));
      Error error;
      if (!device.context->save(&error)) {
        problem("the killed device could not save once more: " + error.localizedDescription);
      } else {
        device.store->waitForSaves();
        drain();
        if (const Value failures = device.store->errorRecords(); !failures.empty()) {
          problem("the killed device's save once more failed: " + failures.at(0)["description"].str());
        }
        const std::string uid = device.store->uidForObjectID(person->objectID(), device.context.get());
        chain.expected[uid] = Person{name, 0, -1, ""};
        compare(chain, snapshot(device), Value(), "the killed device after saving once more");
      }
    }
    closeDevice(device, root, root == chain.cacheRoot);
  }

  std::string copyOfCache(const Chain& chain, uint64_t seed) {
    const std::string copy = dir / ("copied-cache-" + std::to_string(seed));
    std::error_code error;
    // Killed before the cache had its folder: the copy is empty too.
    std::filesystem::create_directories(copy, error);
    if (std::filesystem::exists(chain.cacheRoot)) {
      std::filesystem::copy(chain.cacheRoot, copy, std::filesystem::copy_options::recursive, error);
    }
    if (error) problem("could not copy the killed device's cache: " + error.message());
    return copy;
  }

  std::vector<StoreLogEntry> logOf(CorvaneStore* store) {
    drain();
    return store->logEntries();
  }

  VerifierEnv realEnv_;
  size_t leftoversPlanted_ = 0;
  size_t leftoversFound_ = 0;
};

TEST_F(CrashTest, KilledDeviceLosesNoReportedSave) {
  const uint64_t first = numberFromEnvironment("CORVANE_SEED", 3000);
  const uint64_t count = numberFromEnvironment("CORVANE_SEEDS", std::getenv("CORVANE_SEED") != nullptr ? 1 : 100);
  const uint64_t chainLength = std::max<uint64_t>(1, numberFromEnvironment("CORVANE_CRASH_CHAIN", 10));
  std::vector<std::string> failures;
  for (uint64_t seed = first; seed < first + count; seed += chainLength) {
    // The password follows from the chain's first seed, so that a rerun of a seed gets it too.
    const bool withPassword = (seed / chainLength) % 4 == 3;
    runChain(seed, std::min(chainLength, first + count - seed), withPassword, &failures);
  }
  std::cout << "crash runs: " << (count - failures.size()) << " of " << count << " lost nothing; the packages hold "
            << leftoversFound_ << " leftovers of atomic writes, " << leftoversPlanted_ << " of them planted\n";
  for (const std::string& failure : failures) ADD_FAILURE() << failure;
}

}  // namespace
}  // namespace corvane::testing
