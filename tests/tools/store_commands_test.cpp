// `corvane create / info / insert / update / delete / dump / changes`, run as the real binary the
// way a new user would: with and without a password, across reopening with the cache, without
// it, and from a second cache root.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"
#include "support/printers.h"
#include "support/temp_dir.h"
#include "support/test_models.h"
#include "tools/tool_runner.h"

namespace corvane {
namespace {

using testing::pathExists;
using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

const std::string& kModel = testing::kPeopleModelJSON;

using RunResult = testing::ToolRun;

class StoreCommandsTest : public ::testing::Test {
 protected:
  StoreCommandsTest() {
    writeTextFile(model, kModel);
    writeTextFile(dir / "photo.bin", "PHOTO");
  }

  // Runs the tool with standard input from /dev/null and a private home.
  RunResult run(std::vector<std::string> arguments, const std::vector<std::string>& environment = {}) {
    return testing::runTool(arguments, environment, "/dev/null", dir / "home");
  }

  std::string line(const RunResult& r) { return r.out.empty() ? r.out : r.out.substr(0, r.out.find('\n')); }
  Value dump(const std::vector<std::string>& extra = {}, const std::vector<std::string>& environment = {}) {
    std::vector<std::string> args = {"dump", package, "--model", model};
    args.insert(args.end(), extra.begin(), extra.end());
    RunResult r = run(args, environment);
    EXPECT_EQ(r.status, 0) << r.err;
    auto parsed = jsonToValue(r.out);
    return parsed ? *parsed : Value();
  }
  size_t changeFiles() {
    std::vector<std::string> names;
    EXPECT_TRUE(Env::defaultEnv()->listDirectory(package + "/Changes", true, &names, nullptr));
    return names.size();
  }

  TempDir dir;
  std::string package = dir / "Doc.corvane";
  std::string model = dir / "model.json";
};

TEST_F(StoreCommandsTest, Help) {
  RunResult r = run({"insert", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Usage"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("--recover"), std::string::npos) << r.out;
}

TEST_F(StoreCommandsTest, ANewUsersSessionWithEveryValueType) {
  RunResult created = run({"create", package, "--model", model, "--identifier", "DOC-1"});
  ASSERT_EQ(created.status, 0) << created.err;
  EXPECT_EQ(line(created), "DOC-1");

  RunResult acme = run({"insert", package, "--model", model, "Company", "name=Acme"});
  ASSERT_EQ(acme.status, 0) << acme.err;
  const std::string acmeUID = line(acme);
  ASSERT_EQ(acmeUID.size(), 36u);
  const std::string bob = line(run({"insert", package, "--model", model, "Person", "name=Bob"}));
  const std::string cid = line(run({"insert", package, "--model", model, "Person", "name=Cid"}));
  RunResult ann =
      run({"insert", package, "--model", model, "Person", "name=Ann", "age=42", "rank=-3", "serial=9007199254740993",
           "balance=12.50", "height=1.75", "weight=0.5", "active=true", "born=2024-05-17T09:41:07.250+0000",
           "photo=@" + (dir / "photo.bin"), "employer=Company/" + acmeUID, "friends=Person/" + bob + ",Person/" + cid,
           "children=Person/" + cid + ",Person/" + bob});
  ASSERT_EQ(ann.status, 0) << ann.err;
  const std::string annUID = line(ann);

  const Value expectedAnn = dict(
      {{"entity", "Person"},
       {"uid", Value(annUID)},
       {"name", "Ann"},
       {"age", 42},
       {"rank", -3},
       {"serial", 9007199254740993LL},
       {"balance", "12.5"},
       {"height", 1.75},
       {"weight", 0.5},
       {"active", true},
       {"born", "2024-05-17T09:41:07.250+0000"},
       {"photo", dict({{"length", 5}, {"sha256", "183514034b5bc90a17c2cff528642dcc290f1aef3bf0b5c5bdd6c12b1d3fe296"}})},
       {"friends", Value::array({Value("Person/" + std::min(bob, cid)), Value("Person/" + std::max(bob, cid))})},
       {"friendOf", Value::array()},
       {"children", arr({Value("Person/" + cid), Value("Person/" + bob)})},
       {"employer", Value("Company/" + acmeUID)}});
  Value all = dump();
  ASSERT_EQ(all.count(), 4u);
  EXPECT_EQ(all.at(0)["entity"], Value("Company"));  // entity name, then UID
  EXPECT_EQ(all.at(0)["staff"], arr({Value("Person/" + annUID)}));
  Value people = dump({"--entity", "Person", "--where", "name == 'Ann'"});
  ASSERT_EQ(people.count(), 1u);
  EXPECT_EQ(people.at(0), expectedAnn);
  // The key order of the output is fixed too.
  std::vector<Value> keys = people.at(0).keys();
  EXPECT_EQ(keys.front(), Value("entity"));
  EXPECT_EQ(keys[1], Value("uid"));

  // Updates: a value, a cleared value, one member added and one removed, a to-one cleared.
  RunResult updated = run({"update", package, "--model", model, "Person", annUID, "name=Ann B",
                           "friends-=Person/" + bob, "employer=", "--null", "age"});
  ASSERT_EQ(updated.status, 0) << updated.err;
  Value ann2 = dump({"--entity", "Person", "--where", "name BEGINSWITH 'Ann'"}).at(0);
  EXPECT_EQ(ann2["name"], Value("Ann B"));
  EXPECT_TRUE(ann2["age"].isNil());
  EXPECT_TRUE(ann2["employer"].isNil());
  EXPECT_EQ(ann2["friends"], arr({Value("Person/" + cid)}));
  ASSERT_EQ(run({"update", package, "--model", model, "Person", annUID, "friends+=Person/" + bob}).status, 0);
  EXPECT_EQ(dump({"--entity", "Person", "--sort", "name", "--limit", "1"}).at(0)["friends"].count(), 2u);

  ASSERT_EQ(run({"delete", package, "--model", model, "Person", bob}).status, 0);
  EXPECT_EQ(dump({"--entity", "Person"}).count(), 2u);

  // The same content without the cache, and from a second cache root (another device).
  const Value before = dump();
  EXPECT_TRUE(Env::defaultEnv()->removeItem(dir / "home/data", nullptr));
  EXPECT_EQ(dump(), before);
  EXPECT_EQ(dump({"--cache-root", dir / "device2"}), before);
  EXPECT_TRUE(pathExists(dir / "device2"));

  RunResult history = run({"changes", package, "--json"});
  ASSERT_EQ(history.status, 0) << history.err;
  Value changes = *jsonToValue(history.out);
  ASSERT_EQ(changes.count(), 7u);
  EXPECT_EQ(changes.at(3)["inserted"], Value(1));
  EXPECT_EQ(changes.at(3)["updated"], Value(3));  // Ann's friends and children see her through inverses
  EXPECT_EQ(changes.at(6)["deleted"], Value(1));
  EXPECT_EQ(changes.at(0)["recovery"], Value(false));
  RunResult text = run({"changes", package});
  EXPECT_NE(text.out.find("inserted 1, updated 0, deleted 0"), std::string::npos) << text.out;

  RunResult info = run({"info", package, "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  Value i = *jsonToValue(info.out);
  EXPECT_EQ(i["identifier"], Value("DOC-1"));
  EXPECT_EQ(i["encrypted"], Value(false));
  EXPECT_EQ(i["changeFiles"], Value(7));
  EXPECT_EQ(i["correctPackage"], Value(true));
  EXPECT_EQ(i["localVolume"], Value(true));
  EXPECT_TRUE(i["service"].isNull());
  EXPECT_NE(run({"info", package}).out.find("Change files:    7"), std::string::npos);
}

TEST_F(StoreCommandsTest, WithAPassword) {
  writeTextFile(dir / "pw", "s3cret\n");
  const std::vector<std::string> password = {"--password-file", dir / "pw"};
  std::vector<std::string> create = {"create", package, "--model", model};
  create.insert(create.end(), password.begin(), password.end());
  ASSERT_EQ(run(create).status, 0);
  RunResult ann =
      run({"insert", package, "--model", model, "Person", "name=Annabelle", "photo=@" + (dir / "photo.bin")},
          {"CORVANE_PASSWORD=s3cret"});
  ASSERT_EQ(ann.status, 0) << ann.err;
  Value people = dump(password);
  ASSERT_EQ(people.count(), 1u);
  EXPECT_EQ(people.at(0)["name"], Value("Annabelle"));
  EXPECT_TRUE(Env::defaultEnv()->removeItem(dir / "home/data", nullptr));
  EXPECT_EQ(dump({}, {"CORVANE_PASSWORD=s3cret"}), people);

  RunResult wrong = run({"dump", package, "--model", model}, {"CORVANE_PASSWORD=nope"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(wrong.err.find("wrong password"), std::string::npos) << wrong.err;
  RunResult none = run({"dump", package, "--model", model});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no password"), std::string::npos) << none.err;
  EXPECT_EQ(run({"info", package, "--json"}).out.find("\"encrypted\": true") != std::string::npos, true);
  RunResult history = run({"changes", package}, {"CORVANE_PASSWORD=s3cret"});
  EXPECT_EQ(history.status, 0);
  EXPECT_NE(history.out.find("inserted 1"), std::string::npos) << history.out;
}

TEST_F(StoreCommandsTest, MistakesAreNamedAndWriteNothing) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  auto expectFailure = [&](const std::vector<std::string>& args, const std::string& fragment, int status = 1) {
    const size_t before = changeFiles();
    RunResult r = run(args);
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(changeFiles(), before);
  };
  writeTextFile(dir / "bad.json", "{\"entities\": [");
  expectFailure({"insert", package, "--model", dir / "bad.json", "Person"}, "bad.json is not a valid model");
  expectFailure({"insert", package, "--model", dir / "missing.json", "Person"}, "missing.json: no such model file");
  expectFailure({"insert", package, "--model", model, "Robot"}, "unknown entity 'Robot'");
  expectFailure({"insert", package, "--model", model, "Person", "colour=red"},
                "Person has no attribute or relationship 'colour'");
  expectFailure({"insert", package, "--model", model, "Person", "age=old"}, "age: 'old' is not a 32-bit integer");
  expectFailure({"insert", package, "--model", model, "Person", "born=yesterday"}, "born: 'yesterday' is not a date");
  expectFailure({"insert", package, "--model", model, "Person", "active=maybe"},
                "active: 'maybe' is not true or false");
  expectFailure({"insert", package, "--model", model, "Person", "photo=@" + (dir / "nothing")}, "photo: ");
  expectFailure({"insert", package, "--model", model, "Person", "employer=Company/NOPE"}, "no object Company/NOPE");
  expectFailure({"insert", package, "--model", model, "Person", "name"}, "'name' is not KEY=VALUE", 2);
  expectFailure({"update", package, "--model", model, "Person", "NOPE", "name=x"}, "no Person with UID NOPE");
  expectFailure({"dump", dir / "elsewhere", "--model", model}, "is not a folder");
  EXPECT_TRUE(Env::defaultEnv()->createDirectory(dir / "plain", true, nullptr));
  expectFailure({"dump", dir / "plain", "--model", model}, "is not a Corvane package");
  expectFailure({"create", package, "--model", model}, "already exists");
  EXPECT_EQ(run({"insert"}).status, 2);
  EXPECT_EQ(run({"dump", package}).status, 2);  // --model is required
}

TEST_F(StoreCommandsTest, RecoveryChangesAreMarked) {
  ASSERT_EQ(run({"create", package, "--model", model}).status, 0);
  ASSERT_EQ(run({"insert", package, "--model", model, "Person", "name=Ann"}).status, 0);
  writeTextFile(package + "/Changes/2999-01-01-00-00-00.000.AAAAAAAA-0000-4000-8000-000000000001.json",
                "{\"name\": \"2999-01-01-00-00-00.000.AAAAAAAA-0000-4000-8000-000000000001.json\", \"type\": "
                "\"recovery\", \"refreshes\": {\"update\": {\"Person\": {\"X\": {}}}}}");
  Value changes = *jsonToValue(run({"changes", package, "--json"}).out);
  ASSERT_EQ(changes.count(), 2u);
  EXPECT_EQ(changes.at(1)["recovery"], Value(true));
  EXPECT_EQ(changes.at(1)["updated"], Value(1));
  EXPECT_NE(run({"changes", package}).out.find("[recovery]"), std::string::npos);
  // The recovery change is applied like any other: the tool opens the document fine.
  EXPECT_EQ(dump().count(), 1u);
}

}  // namespace
}  // namespace corvane
