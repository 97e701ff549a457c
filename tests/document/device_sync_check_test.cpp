// The device sync check: how the records of several devices compare, the poll and its time-out
// on a fake clock, and two devices checking through a real `corvane sync-server` over HTTPS.
#include "corvane/document/device_sync_check.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "corvane/foundation/json.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/store/corvane_store.h"
#include "document/document_test_support.h"

namespace corvane::testing {
namespace {

Value record(const std::string& device, const char* contentJSON, int version = 7, const char* bundle = "7",
             const char* checkSum = "ABC") {
  return Value::dictionary({{Value("deviceIdentifier"), Value(device)},
                            {Value("checkSum"), Value(checkSum)},
                            {Value("changesInfo"), Value("3 in Cache / 3 on Disk")},
                            {Value("contentChecksum"), *jsonToValue(contentJSON)},
                            {Value("contentChecksumVersion"), Value(version)},
                            {Value("bundleVersion"), Value(bundle)}});
}

Value answer(std::vector<Value> records) {
  Value all = Value::mutableDictionary();
  for (Value& r : records) all.set(Value(r["deviceIdentifier"].str()), r);
  return all;
}

TEST(DeviceSyncComparison, ContentIsComparedPartByPartUnlessTheDevicesRunDifferentBuilds) {
  using C = DeviceSyncCheck;
  // One device alone waits; this device is marked.
  C::Comparison alone = C::compare(answer({record("A", R"({"Note":"1"})")}), "A");
  EXPECT_EQ(alone.status, C::kWaiting);
  EXPECT_EQ(alone.devices.at(0)["deviceIdentifier"], Value("A (This device)"));
  // A part not yet computable on one side does not count.
  EXPECT_EQ(
      C::compare(answer({record("A", R"({"Note":"1","Tag":"2"})"), record("B", R"({"Note":"1","Tag":"incomplete"})")}),
                 "A")
          .status,
      C::kInSync);
  // Parts that differ, or exist on one side only, sorted without regard to case.
  C::Comparison apart = C::compare(answer({record("A", R"({"banana":"1","Apple":"2","cherry":"3","Same":"4"})"),
                                           record("B", R"({"banana":"9","Apple":"8","Same":"4"})"),
                                           record("C", R"({"banana":"7","Apple":"2","cherry":"3","Same":"4"})")}),
                                   "B");
  EXPECT_EQ(apart.status, C::kMismatch);
  EXPECT_EQ(apart.detail, std::optional<std::string>("Apple, banana, cherry"));
  // Different checksum versions or builds: only whether every device applied the same history.
  EXPECT_EQ(C::compare(answer({record("A", R"({"Note":"1"})", 7), record("B", R"({"Note":"2"})", 6)}), "A").status,
            C::kInSync);
  C::Comparison coarse =
      C::compare(answer({record("A", R"({"Note":"1"})", 7, "7"), record("B", R"({"Note":"1"})", 7, "8", "DEF")}), "A");
  EXPECT_EQ(coarse.status, C::kMismatch);
  EXPECT_FALSE(coarse.detail);
}

// Answers every post at once with what it is told to.
class ScriptedTransport final : public DeviceSyncTransport {
 public:
  void post(const std::string& url, const std::string& body,
            std::function<void(std::optional<std::string>)> done) override {
    urls.push_back(url);
    bodies.push_back(body);
    done(reply);
  }
  std::optional<std::string> reply;
  std::vector<std::string> urls, bodies;
};

TEST_F(DocumentTest, TheCheckPollsEveryFiveSecondsAndTimesOutAfterSixtyPolls) {
  Error error;
  auto doc = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(doc);
  auto transport = std::make_shared<ScriptedTransport>();
  transport->reply = valueToJson(answer({record("laptop", R"({})"), record("desktop", R"({})")}));
  DeviceSyncCheck check(*doc, {"https://sync.example.com/", std::string("laptop"), transport});
  check.pollDeviceInfo();
  EXPECT_TRUE(transport->urls.empty()) << "the panel is closed";
  check.setPanelOpen(true);
  // A poll is two turns of the run loop: the answer comes back through it, then the next timer.
  auto turn = [] {
    RunLoop::main().runOnce();
    RunLoop::main().runOnce();
  };
  check.pollDeviceInfo();
  turn();
  ASSERT_EQ(transport->urls, std::vector<std::string>{"https://sync.example.com/Tools/SyncTest/post.php"});
  const Value posted = *jsonToValue(transport->bodies[0]);
  EXPECT_EQ(posted["documentIdentifier"], Value(doc->documentIdentifier()));
  EXPECT_EQ(posted["deviceIdentifier"], Value("laptop"));
  EXPECT_EQ(posted["contentChecksumVersion"], Value(7));
  EXPECT_EQ(posted["checkSum"], Value(doc->store()->checkSum()));
  EXPECT_EQ(check.devicesStatusText(), std::optional<std::string>("All in Sync"));
  EXPECT_EQ(check.pollCount(), 1);
  // A failed request changes nothing and the next poll goes on.
  transport->reply.reset();
  for (int i = 0; i < 60; ++i) {
    env.advance(5);
    turn();
  }
  EXPECT_EQ(check.pollCount(), 61);
  EXPECT_EQ(check.devicesStatusText(), std::optional<std::string>("All in Sync"));
  EXPECT_TRUE(ui->alerts.empty());
  const size_t posts = transport->urls.size();
  env.advance(5);
  turn();
  // The 62nd call shows the time-out; its "Continue" starts again.
  EXPECT_EQ(ui->alerts, std::vector<std::string>{"Time out"});
  EXPECT_EQ(transport->urls.size(), posts + 1);
  EXPECT_EQ(check.pollCount(), 1);
  check.resetDeviceInfo();
  env.advance(5);
  turn();
  EXPECT_EQ(transport->urls.size(), posts + 1);
}

// Two devices with their own caches check one package through a real server over HTTPS.
TEST_F(DocumentTest, TwoDevicesSeeEachOtherThroughTheSyncServerOverHTTPS) {
  const std::string cert = dir / "cert.pem", key = dir / "key.pem";
  const std::string make =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
      "subjectAltName=IP:127.0.0.1 -keyout " +
      key + " -out " + cert + " >/dev/null 2>&1";
  ASSERT_EQ(std::system(make.c_str()), 0);
  const std::string log = dir / "server.log";
  const pid_t server = fork();
  if (server == 0) {
    if (freopen(log.c_str(), "w", stdout) == nullptr) _exit(126);
    execl(CORVANE_BINARY_DIR "/bin/corvane", "corvane", "sync-server", "--listen", "127.0.0.1:0", "--cert",
          cert.c_str(), "--key", key.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(server, 0);
  // It prints the port the system gave it.
  std::string port;
  for (int i = 0; i < 200 && port.empty(); ++i) {
    Bytes bytes;
    if (env.readFile(log, &bytes, nullptr)) {
      const std::string text(bytes.begin(), bytes.end());
      if (const size_t end = text.find('\n'); end != std::string::npos)
        port = text.substr(text.rfind(':', end) + 1, end - text.rfind(':', end) - 1);
    }
    if (port.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_FALSE(port.empty());
  Error error;
  auto laptop = CorvaneDocument::open(package, options(), &error);
  ASSERT_TRUE(laptop);
  laptop->context().insertNewObject("Person")->setValue("name", "Ann");
  ASSERT_TRUE(laptop->save(&error));
  auto desktop = CorvaneDocument::open(package, options("cacheB"), &error);
  ASSERT_TRUE(desktop);
  const std::string host = "https://127.0.0.1:" + port;
  auto transport = httpSyncTransport({5, cert});
  DeviceSyncCheck a(*laptop, {host, std::string("laptop"), transport, 0.2});
  DeviceSyncCheck b(*desktop, {host, std::string("desktop"), transport, 0.2});
  for (DeviceSyncCheck* check : {&a, &b}) {
    check->setPanelOpen(true);
    check->pollDeviceInfo();
  }
  // The answers come in real time; the polls wait on the fake clock, moved on meanwhile.
  auto settle = [&](const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i) {
      env.advance(0.2);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      RunLoop::main().runOnce();
    }
    return done();
  };
  EXPECT_TRUE(settle([&] { return a.status() == DeviceSyncCheck::kInSync && b.status() == DeviceSyncCheck::kInSync; }))
      << a.devicesStatusText().value_or("") << " / " << b.devicesStatusText().value_or("");
  EXPECT_EQ(a.devices().size(), 2u);
  // The desktop saves a company the laptop does not apply (it stopped watching).
  laptop->store()->unobserveDirectory();
  desktop->context().insertNewObject("Company")->setValue("name", "Acme");
  ASSERT_TRUE(desktop->save(&error));
  EXPECT_TRUE(settle([&] { return a.status() == DeviceSyncCheck::kMismatch; }));
  EXPECT_EQ(a.devicesStatusText(), std::optional<std::string>("Files do not match: Company"));
  a.resetDeviceInfo();
  b.resetDeviceInfo();
  kill(server, SIGTERM);
  int status = 0;
  waitpid(server, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace corvane::testing
