// The tool opens documents as an application does, through CorvaneDocument: the document's
// opening checks, its alerts and progress on the terminal, `rebuild-cache`, and what a one-shot
// command says about a change whose files a sync client has not delivered yet.
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "support/temp_dir.h"
#include "support/test_models.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

using RunResult = testing::ToolRun;

class DocumentCommandsTest : public ::testing::Test {
 protected:
  DocumentCommandsTest() { writeTextFile(model, testing::kPeopleModelJSON); }

  RunResult run(const std::vector<std::string>& arguments) {
    return testing::runTool(arguments, {"CORVANE_MACHINE_NAME=Workstation"}, "/dev/null", home);
  }
  std::string firstLine(const RunResult& r) { return r.out.substr(0, r.out.find('\n')); }
  // Starts `corvane sync-server` on a free loopback port; its process and port ("" if it did not
  // come up).
  std::pair<pid_t, std::string> startSyncServer(std::vector<std::string> more) {
    std::vector<std::string> args = {"sync-server", "--listen", "127.0.0.1:0"};
    args.insert(args.end(), more.begin(), more.end());
    const pid_t pid = testing::startTool(args, {}, home, dir / "server.out", dir / "server.err");
    for (int i = 0; i < 200; ++i) {
      const std::string out = readTextFile(dir / "server.out");
      if (const size_t at = out.find("listening on ");
          at != std::string::npos && out.find('\n', at) != std::string::npos) {
        const std::string line = out.substr(at, out.find('\n', at) - at);
        return {pid, line.substr(line.rfind(':') + 1)};
      }
      usleep(50000);
    }
    return {pid, ""};
  }
  Value dump() {
    RunResult r = run({"dump", package, "--model", model});
    EXPECT_EQ(r.status, 0) << r.err;
    auto parsed = jsonToValue(r.out);
    return parsed ? *parsed : Value();
  }

  TempDir dir;
  std::string home = dir / "home";
  std::string package = dir / "Doc.corvane";
  std::string model = dir / "model.json";
};

TEST_F(DocumentCommandsTest, ABackupCopyIsRefusedWithTheNameOfTheOriginal) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  const std::string backup = dir / "Doc.corvane.2024-01-01_10-00-00.backup";
  ASSERT_TRUE(Env::defaultEnv()->copyItem(package, backup, nullptr));
  // The message itself is the document's (DocumentTest.ABackupIsRefusedNamingTheOriginal).
  RunResult r = run({"insert", backup, "--model", model, "Person"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("corvane: This is a backup created while optimizing the file."), std::string::npos) << r.err;
  std::vector<std::string> changes;
  (void)Env::defaultEnv()->listDirectory(backup + "/Changes", true, &changes, nullptr);  // none: nothing either
  EXPECT_TRUE(changes.empty()) << "nothing was written into the backup";
}

TEST_F(DocumentCommandsTest, OptimizeAsksThenConsolidatesAndKeepsTheOldPackageAsABackup) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  for (const char* name : {"name=Ann", "name=Bob"}) {
    ASSERT_EQ(run({"insert", package, "--model", model, "Person", name}).status, 0);
  }
  const Value before = dump();
  RunResult unconfirmed = run({"optimize", package, "--model", model});  // no terminal to confirm on
  EXPECT_EQ(unconfirmed.status, 1);
  EXPECT_NE(unconfirmed.err.find("give --yes"), std::string::npos) << unconfirmed.err;
  RunResult r = run({"optimize", package, "--model", model, "--yes"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string marker = "the previous package is kept as ";
  const size_t at = r.out.find(marker);
  ASSERT_NE(at, std::string::npos) << r.out;
  const std::string backup = r.out.substr(at + marker.size(), r.out.find('\n', at) - at - marker.size());
  std::vector<std::string> changes, old;
  ASSERT_TRUE(Env::defaultEnv()->listDirectory(package + "/Changes", true, &changes, nullptr));
  ASSERT_TRUE(Env::defaultEnv()->listDirectory(backup + "/Changes", true, &old, nullptr));
  EXPECT_EQ(changes.size(), 1u);
  EXPECT_EQ(old.size(), 2u);
  EXPECT_EQ(dump(), before);
}

TEST_F(DocumentCommandsTest, CopyUpToEachChangeDumpsWhatAReplayOfTheHistoryUpToItShows) {
  Env* env = Env::defaultEnv();
  writeTextFile(dir / "source.pw", "secret\n");
  writeTextFile(dir / "copy.pw", "other\n");
  for (const bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted ? "encrypted original" : "plain original");
    package = dir / (encrypted ? "Secret.corvane" : "Doc.corvane");
    std::vector<std::string> password;
    if (encrypted) password = {"--password-file", dir / "source.pw"};
    auto with = [&](std::vector<std::string> args, const std::vector<std::string>& more) {
      args.insert(args.end(), more.begin(), more.end());
      return args;
    };
    ASSERT_EQ(run(with({"create", package, "--model", model}, password)).status, 0);
    RunResult ann = run(with({"insert", package, "--model", model, "Person", "name=Ann"}, password));
    ASSERT_EQ(ann.status, 0) << ann.err;
    RunResult bob = run(with({"insert", package, "--model", model, "Person", "name=Bob"}, password));
    ASSERT_EQ(bob.status, 0) << bob.err;
    ASSERT_EQ(run(with({"update", package, "--model", model, "Person", firstLine(ann), "age=41"}, password)).status, 0);
    ASSERT_EQ(run(with({"delete", package, "--model", model, "Person", firstLine(bob)}, password)).status, 0);
    std::vector<std::string> changes;
    ASSERT_TRUE(env->listDirectory(package + "/Changes", true, &changes, nullptr));
    std::sort(changes.begin(), changes.end());
    ASSERT_EQ(changes.size(), 4u);

    for (size_t i = 0; i < changes.size(); ++i) {
      SCOPED_TRACE(changes[i]);
      // The reference: the package with its later change files taken away, opened afresh.
      const std::string replay = dir / fmt::format("replay-{}-{}.corvane", encrypted, i);
      ASSERT_TRUE(env->copyItem(package, replay, nullptr));
      for (size_t later = i + 1; later < changes.size(); ++later) {
        ASSERT_TRUE(env->removeItem(replay + "/Changes/" + changes[later], nullptr));
      }
      RunResult expected = run(with({"dump", replay, "--model", model}, password));
      ASSERT_EQ(expected.status, 0) << expected.err;

      const std::string copy = dir / fmt::format("copy-{}-{}.corvane", encrypted, i);
      std::vector<std::string> copyPassword;
      if (i % 2 == 1) {
        copyPassword = {"--password-file", dir / (encrypted ? "source.pw" : "copy.pw")};
      } else if (encrypted) {
        copyPassword = {"--no-password", "--source-password-file", dir / "source.pw"};
      }
      // The name as `corvane changes` prints it, with or without its extension.
      const std::string name = i == 0 ? pathDeletingExtension(changes[i]) : changes[i];
      RunResult copied = run(with({"copy", package, copy, "--model", model, "--up-to", name}, copyPassword));
      ASSERT_EQ(copied.status, 0) << copied.err;
      EXPECT_EQ(copied.out.find(i % 2 == 1 ? "(encrypted)" : "(not encrypted)") != std::string::npos, true)
          << copied.out;
      std::vector<std::string> reading;
      if (i % 2 == 1) reading = {"--password-file", dir / (encrypted ? "source.pw" : "copy.pw")};
      RunResult actual = run(with({"dump", copy, "--model", model}, reading));
      ASSERT_EQ(actual.status, 0) << actual.err;
      EXPECT_EQ(actual.out, expected.out);
    }
    std::vector<std::string> after;
    ASSERT_TRUE(env->listDirectory(package + "/Changes", true, &after, nullptr));
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, changes) << "the original is never touched";
  }
}

TEST_F(DocumentCommandsTest, RecoverRebuildsALostDocumentFromThisDevicesCache) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  RunResult acme = run({"insert", package, "--model", model, "Company", "name=Acme"});
  ASSERT_EQ(acme.status, 0) << acme.err;
  RunResult ann = run({"insert", package, "--model", model, "Person", "name=Ann", "balance=12.50",
                       "employer=Company/" + firstLine(acme)});
  ASSERT_EQ(ann.status, 0) << ann.err;
  ASSERT_EQ(run({"insert", package, "--model", model, "Person", "name=Bob", "parent=Person/" + firstLine(ann)}).status,
            0);
  const Value lost = dump();
  ASSERT_TRUE(Env::defaultEnv()->removeItem(package, nullptr));

  RunResult listed = run({"recover", "list", "--json"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  std::optional<Value> caches = jsonToValue(listed.out);
  ASSERT_TRUE(caches && caches->count() == 1) << listed.out;
  EXPECT_EQ((*caches).at(0)["original"], Value(package));
  EXPECT_EQ((*caches).at(0)["originalExists"], Value(false));
  EXPECT_EQ((*caches).at(0)["entities"]["Person"].longLongValue(), 2);

  RunResult all = run({"recover", "all", "--model", model});
  ASSERT_EQ(all.status, 0) << all.err;
  EXPECT_NE(all.out.find("✅ Recovered: Doc.corvane"), std::string::npos) << all.out;
  const std::string folder = home + "/Desktop/Recovered";
  EXPECT_TRUE(all.out.ends_with(folder + "\n")) << all.out;
  package = folder + "/Doc.corvane";
  EXPECT_EQ(dump(), lost);  // the same objects under the same UIDs

  // One cache, named by the lost document's path, into a place of one's choosing.
  RunResult one = run({"recover", dir / "Doc.corvane", dir / "Again.corvane", "--model", model});
  ASSERT_EQ(one.status, 0) << one.err;
  package = dir / "Again.corvane";
  EXPECT_EQ(dump(), lost);
  RunResult again = run({"recover", dir / "Doc.corvane", dir / "Again.corvane", "--model", model});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("already exists"), std::string::npos) << again.err;
}

// Two devices (two copies of the package, two caches, two identifiers) check through a real
// sync server over HTTPS, whose certificate the test makes.
TEST_F(DocumentCommandsTest, SyncCheckTellsWhetherTwoDevicesSeeTheSameContent) {
  const std::string cert = dir / "cert.pem", key = dir / "key.pem";
  ASSERT_EQ(std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                         "subjectAltName=IP:127.0.0.1 -keyout " +
                         key + " -out " + cert + " >/dev/null 2>&1")
                            .c_str()),
            0);
  // Records live 2 s, so that the second round sees nothing of the first.
  const auto started = startSyncServer({"--cert", cert, "--key", key, "--ttl", "2"});
  const pid_t server = started.first;
  const std::string& port = started.second;  // not a structured binding: clang 14 cannot capture those
  ASSERT_FALSE(port.empty()) << readTextFile(dir / "server.err");
  const std::string laptop = dir / "laptop/Doc.corvane", desktop = dir / "desktop/Doc.corvane";
  ASSERT_EQ(run({"create", laptop, "--model", model}).status, 0);
  ASSERT_EQ(run({"insert", laptop, "--model", model, "Person", "name=Ann"}).status, 0);
  ASSERT_TRUE(Env::defaultEnv()->createDirectory(dir / "desktop", true, nullptr));
  ASSERT_TRUE(Env::defaultEnv()->copyItem(laptop, desktop, nullptr));
  auto check = [&](const std::string& device, const std::string& copy, const std::string& out) {
    return testing::startTool(
        {"sync-check", copy, "--model", model, "--server", "https://127.0.0.1:" + port, "--cacert", cert, "--interval",
         "0.2", "--polls", "15", "--cache-root", dir / ("cache-" + device)},
        {"CORVANE_DEVICE_IDENTIFIER=" + device}, home, out, out + ".err");
  };
  // Alone, the laptop waits, and gives up after its polls.
  pid_t a = check("laptop", laptop, dir / "a.out");
  EXPECT_EQ(testing::waitForExit(a), 3);
  EXPECT_NE(readTextFile(dir / "a.out").find("Waiting for other devices. Open the same panel on all your machines."),
            std::string::npos);
  usleep(2500000);
  // Both at once: in sync.
  a = check("laptop", laptop, dir / "a.out");
  pid_t b = check("desktop", desktop, dir / "b.out");
  EXPECT_EQ(testing::waitForExit(a), 0) << readTextFile(dir / "a.out") << readTextFile(dir / "a.out.err");
  EXPECT_EQ(testing::waitForExit(b), 0) << readTextFile(dir / "b.out");
  EXPECT_NE(readTextFile(dir / "a.out").find("laptop (This device)"), std::string::npos);
  EXPECT_NE(readTextFile(dir / "a.out").find("All in Sync"), std::string::npos);
  // The desktop saves a company that has not reached the laptop's copy.
  ASSERT_EQ(
      run({"insert", desktop, "--model", model, "Company", "name=Acme", "--cache-root", dir / "cache-desktop"}).status,
      0);
  usleep(2500000);
  a = check("laptop", laptop, dir / "a.out");
  b = check("desktop", desktop, dir / "b.out");
  EXPECT_EQ(testing::waitForExit(a), 1);
  EXPECT_EQ(testing::waitForExit(b), 1);
  EXPECT_NE(readTextFile(dir / "a.out").find("Files do not match: Company"), std::string::npos)
      << readTextFile(dir / "a.out");
  kill(server, SIGTERM);
  EXPECT_EQ(testing::waitForExit(server), 0);
  EXPECT_NE(readTextFile(dir / "server.out").find("POST /Tools/SyncTest/post.php 200"), std::string::npos);
}

TEST_F(DocumentCommandsTest, TheSyncServerRefusesBadRequestsAndOutlivesSlowOnes) {
  const auto [server, port] = startSyncServer({});
  ASSERT_FALSE(port.empty()) << readTextFile(dir / "server.err");
  const std::string url = "http://127.0.0.1:" + port + "/Tools/SyncTest/post.php";
  auto post = [&](const std::string& bodyFile) {
    const std::string command = "curl -s -o " + dir / "answer" +
                                " -w '%{http_code}' --max-time 10 -H "
                                "'Content-Type: application/json' --data-binary @" +
                                bodyFile + " " + url + " > " + dir / "code";
    (void)std::system(command.c_str());
    return readTextFile(dir / "code");
  };
  // A client that sends half a request and waits holds one connection, not the server.
  const std::string slow = "bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + port +
                           "; printf \"POST /Tools/SyncTest/post.php HTTP/1.1\\r\\nHost: x\\r\\n\" >&3; sleep 3' &";
  ASSERT_EQ(std::system(slow.c_str()), 0);
  writeTextFile(dir / "bad.json", "{\"deviceIdentifier\": \"A\"}");
  writeTextFile(dir / "broken.json", "{\"documentIdentifier\": ");
  writeTextFile(dir / "big.json",
                "{\"documentIdentifier\": \"" + std::string(100000, 'x') + "\", \"deviceIdentifier\": \"A\"}");
  writeTextFile(dir / "good.json", "{\"documentIdentifier\": \"D\", \"deviceIdentifier\": \"A\", \"checkSum\": \"X\"}");
  EXPECT_EQ(post(dir / "bad.json"), "400");
  EXPECT_EQ(post(dir / "broken.json"), "400");
  EXPECT_EQ(post(dir / "big.json"), "413");
  EXPECT_EQ(post(dir / "good.json"), "200");
  std::optional<Value> answer = jsonToValue(readTextFile(dir / "answer"));
  ASSERT_TRUE(answer);
  EXPECT_EQ((*answer)["A"]["checkSum"], Value("X"));  // only the good record was kept
  EXPECT_EQ(answer->count(), 1u);
  kill(server, SIGTERM);
  EXPECT_EQ(testing::waitForExit(server), 0);
}

TEST_F(DocumentCommandsTest, WatchStopsWhenAnotherDeviceOptimizesTheDocument) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  ASSERT_EQ(run({"insert", package, "--model", model, "Person", "name=Ann"}).status, 0);
  const pid_t watch =
      testing::startTool({"watch", package, "--model", model, "--cache-root", dir / "watcher", "--for", "60"},
                         {"CORVANE_MACHINE_NAME=Desktop"}, home, dir / "watch.out", dir / "watch.err");
  for (int i = 0; i < 300 && readTextFile(dir / "watch.out").find("watching") == std::string::npos; ++i) {
    usleep(100'000);
  }
  ASSERT_EQ(run({"optimize", package, "--model", model, "--yes"}).status, 0);
  EXPECT_EQ(testing::waitForExit(watch), 0);  // long before its 60 seconds
  EXPECT_NE(readTextFile(dir / "watch.out").find("stopped: the document was optimized on another device"),
            std::string::npos);
  EXPECT_NE(readTextFile(dir / "watch.err").find("This file was optimized on another device and has been closed."),
            std::string::npos)
      << readTextFile(dir / "watch.err");
}

TEST_F(DocumentCommandsTest, RebuildCacheDrawsItsProgressOnlyOnATerminal) {
  RunResult help = run({"rebuild-cache", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--model"), std::string::npos) << help.out;
  EXPECT_EQ(run({"rebuild-cache", package}).status, 2);  // --model is required

  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  ASSERT_EQ(run({"insert", package, "--model", model, "Person", "name=Ann"}).status, 0);
  ASSERT_EQ(run({"insert", package, "--model", model, "Company", "name=Acme"}).status, 0);
  const Value before = dump();
  ASSERT_EQ(before.count(), 2u);

  RunResult quiet = run({"rebuild-cache", package, "--model", model});
  EXPECT_EQ(quiet.status, 0) << quiet.err;
  EXPECT_EQ(firstLine(quiet), "rebuilt the cache of " + package);
  EXPECT_EQ(quiet.err.find("Rebuilding"), std::string::npos) << "no terminal, no progress bar: " << quiet.err;

  std::string terminal;
  RunResult drawn =
      testing::runToolOnTerminal({"rebuild-cache", package, "--model", model}, {}, home, "", "", &terminal);
  EXPECT_EQ(drawn.status, 0) << terminal;
  EXPECT_NE(terminal.find("Rebuilding cache for: Company"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("Rebuilding cache for: Person"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("] 50% "), std::string::npos) << terminal;
  EXPECT_EQ(dump(), before);
}

TEST_F(DocumentCommandsTest, TheICloudDriveWarningAsksOnTheTerminalAndCanBeSilenced) {
  const std::string cloud = home + "/Library/Mobile Documents/com~apple~CloudDocs";
  ASSERT_TRUE(Env::defaultEnv()->createDirectory(cloud, true, nullptr));
  package = cloud + "/Doc.corvane";
  RunResult created = run({"create", package, "--model", model});
  ASSERT_EQ(created.status, 0) << created.err;
  // Without a terminal: the warning, answered with its default.
  EXPECT_NE(created.err.find("corvane: This file is saved on iCloud Drive"), std::string::npos) << created.err;

  std::string terminal;
  RunResult asked =
      testing::runToolOnTerminal({"dump", package, "--model", model}, {}, home, "1\ny\n", "[1]: ", &terminal);
  EXPECT_EQ(asked.status, 0) << terminal;
  EXPECT_NE(terminal.find("1) I have a Backup  2) Show in Finder"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("Do not show this message again? [y/N]"), std::string::npos) << terminal;

  RunResult silenced = run({"dump", package, "--model", model});
  EXPECT_EQ(silenced.status, 0) << silenced.err;
  EXPECT_EQ(silenced.err.find("iCloud Drive"), std::string::npos) << silenced.err;
}

// A sync client delivered the change file of another device, but not yet the object file it
// names.
TEST_F(DocumentCommandsTest, AChangeWaitingForItsFilesIsNamedOnceInPlainWords) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  ASSERT_EQ(run({"insert", package, "--model", model, "Person", "name=Ann"}).status, 0);
  const std::string uid = "B0B0B0B0-0000-4000-8000-000000000001";
  const std::string name = "2999-01-01-00-00-00.000.7AB1E700-0000-4000-8000-000000000002.json";
  writeTextFile(package + "/Changes/" + name,
                "{\"name\":\"" + name +
                    "\",\"date\":\"2999-01-01T00:00:00.000+0000\",\"changes\":{\"insert\":{"
                    "\"Person\":{\"" +
                    uid +
                    "\":{}}}},\"session\":{\"userName\":\"ada\",\"fullUserName\":\"Ada "
                    "Lovelace\",\"machineName\":\"Tablet\",\"id\":\"S1\",\"version\":\"1\"}}");
  const std::string objectFile = "Entities/Person/" + uid + "/" + name;
  const std::string notice = "corvane: the change " + name +
                             " from Tablet (Ada Lovelace) is still waiting for its "
                             "file " +
                             objectFile;

  RunResult dumped = run({"dump", package, "--model", model});
  EXPECT_EQ(dumped.status, 0) << dumped.err;
  EXPECT_EQ(jsonToValue(dumped.out).value_or(Value()).count(), 1u) << dumped.out;
  EXPECT_NE(dumped.err.find(notice), std::string::npos) << dumped.err;
  EXPECT_NE(dumped.err.find("a later run will apply it"), std::string::npos) << dumped.err;
  EXPECT_EQ(dumped.err.find(notice, dumped.err.find(notice) + 1), std::string::npos) << "said once\n" << dumped.err;
  EXPECT_EQ(dumped.err.find("Missing files: Abort"), std::string::npos) << dumped.err;
  EXPECT_EQ(std::count(dumped.err.begin(), dumped.err.end(), '\n'), 1) << "nothing but the notice\n" << dumped.err;

  // The object is not there yet: the command says where it will come from.
  RunResult updated = run({"update", package, "--model", model, "Person", uid, "name=Bob"});
  EXPECT_EQ(updated.status, 1);
  EXPECT_NE(updated.err.find("corvane: no Person with UID " + uid + " in " + package + "; it is in the change " + name +
                             " from Tablet (Ada Lovelace), which is still waiting for its files"),
            std::string::npos)
      << updated.err;
  RunResult deleted = run({"delete", package, "--model", model, "Person", "NOPE"});
  EXPECT_EQ(deleted.status, 1);
  EXPECT_NE(deleted.err.find("1 change is still waiting for their files: a later run may find it"), std::string::npos)
      << deleted.err;

  // The file arrives: the next run applies the change and has nothing to say.
  writeTextFile(package + "/" + objectFile,
                "{\"version\":\"1\",\"type\":\"insert\",\"payload\":{\"name\":{\"value\":\"Bob\"}}}");
  RunResult later = run({"dump", package, "--model", model, "--where", "name == 'Bob'"});
  EXPECT_EQ(later.status, 0) << later.err;
  EXPECT_EQ(jsonToValue(later.out).value_or(Value()).count(), 1u) << later.out;
  EXPECT_EQ(later.err.find("waiting"), std::string::npos) << later.err;
  EXPECT_EQ(run({"update", package, "--model", model, "Person", uid, "name=Bobby"}).status, 0);
}

// `corvane deletes`: the report of objects deleted by earlier runs and the file --save leaves.
TEST_F(DocumentCommandsTest, ReportsDeletionsAndSavesTheReportOnTheDesktop) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  const std::string ann = firstLine(run({"insert", package, "--model", model, "Person", "name=Ann"}));
  ASSERT_EQ(ann.size(), 36u);
  RunResult none = run({"deletes", package, "Person", "--model", model});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(none.out, "No deleted Person objects found in recent changes\n");

  ASSERT_EQ(run({"delete", package, "--model", model, "Person", ann}).status, 0);
  RunResult report = run({"deletes", package, "Person", "--model", model, "--save"});
  ASSERT_EQ(report.status, 0) << report.err;
  EXPECT_EQ(report.out.rfind("=== Deleted Person Objects ===\n\n\n--- Person (1 objects) ---\n", 0), 0u) << report.out;
  EXPECT_NE(report.out.find(" Person " + ann + " was deleted by "), std::string::npos);
  EXPECT_NE(report.out.find("   ↳ Created on "), std::string::npos);
  const std::string trailer = "\nTotal: 1 deleted Person objects (last 50 per entity type)\n";
  const size_t end = report.out.find(trailer);
  ASSERT_NE(end, std::string::npos);
  const std::string path = report.out.substr(end + trailer.size());
  ASSERT_TRUE(path.starts_with(home + "/Desktop/Deleted_Person_Objects_")) << path;
  ASSERT_TRUE(path.ends_with(".txt\n"));
  EXPECT_EQ(readTextFile(path.substr(0, path.size() - 1)), report.out.substr(0, end + trailer.size()));

  EXPECT_EQ(run({"deletes", package, "Nobody", "--model", model}).status, 1);
  EXPECT_EQ(run({"deletes", package, "--model", model}).status, 2);
}

}  // namespace
}  // namespace corvane
