// Packages rebuilt from the caches devices keep: what a cache folder is read as, the rebuilt
// objects and relationships, the names recovered packages get, and damaged caches.
#include "corvane/recovery/corvane_recovery.h"

#include <fmt/format.h>

#include <algorithm>

#include "corvane/cache/cache.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/graph/fetch_request.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/store/corvane_store.h"
#include "document/document_test_support.h"

namespace corvane::testing {
namespace {

class RecoveryTest : public DocumentTest {
 protected:
  RecoverySetup setup() {
    RecoverySetup s;
    s.env = &env;
    s.application = ApplicationInfo{
        "com.example.Test", "Test", "7", "1.0",
        Value::array({Value::dictionary({{Value("CFBundleTypeExtensions"), Value::array({Value("notes")})}})})};
    s.cacheRoots = {dir / "cacheA"};
    s.defaults = defaults;
    s.storeCacheRoot = dir / "rebuilt-caches";
    s.interaction = ui;
    return s;
  }
  // A document with people, a company and a gadget, saved and closed; its cache stays.
  void makeDocument(const std::string& path, std::optional<std::string> password = std::nullopt) {
    DocumentOptions o = options();
    o.password = std::move(password);
    Error error;
    auto doc = CorvaneDocument::open(path, o, &error);
    EXPECT_TRUE(doc) << error.localizedDescription;
    ManagedObjectContext& c = doc->context();
    auto acme = c.insertNewObject("Company");
    acme->setValue("name", "Acme");
    auto ann = c.insertNewObject("Person");
    ann->setValue("name", "Ann");
    ann->setValue("age", Value(41));
    ann->setValue("balance", Value::decimal(*Decimal::fromString("12.50")));
    ann->setDate("born", 100.5);
    ann->setValue("photo", Value::data(Bytes{1, 2, 3}));
    ann->setToOne("employer", acme.get());
    for (const char* name : {"Cid", "Bob"}) {
      auto child = c.insertNewObject("Person");
      child->setValue("name", name);
      ann->insertIntoOrdered("children", child.get(), 99);
      child->addToMany("friends", ann.get());
    }
    c.insertNewObject("Gadget")->setValue("label", "Drill");
    EXPECT_TRUE(doc->save(&error)) << error.localizedDescription;
    doc->close();
  }
  // Every object as a line: entity, values (binary data aside) and relationships by name.
  static std::vector<std::string> describe(ManagedObjectContext& c) {
    std::vector<std::string> lines;
    for (const char* entity : {"Person", "Company", "Gadget"}) {
      FetchRequest request(entity);
      request.setIncludesSubentities(false);
      for (const auto& o : c.fetch(request).value_or(std::vector<Retained<ManagedObject>>{})) {
        std::string line = std::string(entity) + " ";
        for (const char* key : {"name", "label", "age", "balance", "born"}) {
          if (o->entity().property(key) != nullptr && !o->isNil(key))
            line += fmt::format(" {}={}", key, o->value(key).description());
        }
        if (o->entity().property("employer") != nullptr) {
          if (auto e = o->toOne("employer")) line += " employer=" + e->stringValue("name");
          if (auto p = o->toOne("parent")) line += " parent=" + p->stringValue("name");
          for (const auto& child : o->toMany("children")) line += " child=" + child->stringValue("name");
          std::vector<std::string> friends;
          for (const auto& f : o->toMany("friends")) friends.push_back(f->stringValue("name"));
          for (const auto& f : o->toMany("friendOf")) friends.push_back("of:" + f->stringValue("name"));
          std::sort(friends.begin(), friends.end());
          for (const auto& f : friends) line += " friend=" + f;
        }
        if (o->entity().property("staff") != nullptr) line += fmt::format(" staff={}", o->toMany("staff").size());
        lines.push_back(line);
      }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

TEST_F(RecoveryTest, EntitiesAreFoundByFileNameAndNamesAreMadeSafe) {
  const std::string folder = dir / "cache";
  ASSERT_TRUE(env.createDirectory(folder, true, nullptr));
  for (const char* name : {"Invoice_uids.fast", "Invoice_A.fast", "Invoice_a.fast", "Changes.fast", "Line_Item_3.fast",
                           "Invoice_AB.fast", "Invoice_G.fast", "Order_G.fast", "plain.fast"}) {
    ASSERT_TRUE(env.writeFileAtomically(pathJoin(folder, name), Bytes{}, nullptr));
  }
  CorvaneRecovery recovery(folder, nullptr, setup());
  std::optional<std::vector<std::string>> entities = recovery.availableEntitiesWithError(nullptr);
  ASSERT_TRUE(entities);
  std::sort(entities->begin(), entities->end());
  EXPECT_EQ(*entities, (std::vector<std::string>{"Invoice", "Line_Item"}));
  Error error;
  EXPECT_FALSE(CorvaneRecovery(dir / "nothing", nullptr, setup()).availableEntitiesWithError(&error));
  EXPECT_EQ(error.code, 1001);
  EXPECT_EQ(error.domain, "CorvaneRecovery");

  EXPECT_EQ(CorvaneRecovery::filesystemSafeString("  My:Doc/2024  "), "My_Doc_2024");
  EXPECT_EQ(CorvaneRecovery::filesystemSafeString("a*b?c\"d<e>f|g\\h"), "a_b_c_d_e_f_g_h");
  EXPECT_EQ(CorvaneRecovery::filesystemSafeString(std::string(60, 'x')), std::string(50, 'x'));
  EXPECT_EQ(CorvaneRecovery::filesystemSafeString(std::string(50, 'x')), std::string(50, 'x'));
  // A log whose document name is only blanks names the folder instead.
  ASSERT_TRUE(env.writeFileAtomically(
      pathJoin(folder, "Changes.fast"),
      *FastCoder::dataWithRootObject(Value::array({Value::dictionary({{Value("name"), Value("   ")}})})), nullptr));
  EXPECT_EQ(CorvaneRecovery::suggestedNameForCacheURL(folder, &env), "Recovered_Cache_cache");
  ASSERT_TRUE(env.writeFileAtomically(
      pathJoin(folder, "Changes.fast"),
      *FastCoder::dataWithRootObject(Value::array({Value::dictionary({{Value("name"), Value("a:b.json")}})})),
      nullptr));
  EXPECT_EQ(CorvaneRecovery::suggestedNameForCacheURL(folder, &env), "Recovered_a_b.json_cache");
  EXPECT_EQ(CorvaneRecovery::documentFileExtension(ApplicationInfo{}), "fast");
}

TEST_F(RecoveryTest, ARebuiltPackageHoldsEveryObjectAndBothSidesOfEveryRelationshipButNoBinaryData) {
  const std::string lost = dir / "Lost.corvane";
  makeDocument(lost);
  std::vector<std::string> before;
  {
    Error error;
    auto doc = CorvaneDocument::open(lost, options(), &error);
    ASSERT_TRUE(doc);
    before = describe(doc->context());
  }
  ASSERT_TRUE(env.removeItem(lost, nullptr));
  std::unique_ptr<CorvaneRecovery> recovery = CorvaneRecovery::recoveryWithStoreURL(lost, model, setup());
  ASSERT_TRUE(recovery);
  EXPECT_FALSE(recovery->isEncrypted());
  std::vector<std::string> messages;
  recovery->setProgressBlock([&](int64_t, int64_t, const std::string& m) { messages.push_back(m); });
  Error error;
  ASSERT_TRUE(recovery->rebuildPackageToURL(dir / "Rebuilt.corvane", Value(), &error)) << error.description();
  EXPECT_EQ(messages.front(), "Setting up Core Data stack...");
  EXPECT_EQ(messages.back(), "Saved 5 objects");

  auto rebuilt = CorvaneDocument::open(dir / "Rebuilt.corvane", options("other"), &error);
  ASSERT_TRUE(rebuilt) << error.localizedDescription;
  EXPECT_EQ(describe(rebuilt->context()), before);
  FetchRequest photos("Person");
  photos.setPredicate(*Predicate::parse("photo != nil"));
  EXPECT_EQ(rebuilt->context().count(photos), std::optional<size_t>(0));  // binary data stays lost
}

TEST_F(RecoveryTest, AToManyWhoseTargetsArePartlyMissingKeepsTheOnesThatExist) {
  const std::string lost = dir / "Lost.corvane";
  makeDocument(lost);
  ASSERT_TRUE(env.removeItem(lost, nullptr));
  auto recovery = CorvaneRecovery::recoveryWithStoreURL(lost, model, setup());
  ASSERT_TRUE(recovery);
  // Bob's item is gone from the list of people.
  std::vector<std::string> people = *recovery->UIDsForEntity("Person", nullptr);
  std::vector<Value> kept;
  for (const std::string& uid : people) {
    if ((*recovery->cacheItemForEntity("Person", uid, nullptr))["attributes"]["name"] != Value("Bob")) {
      kept.emplace_back(uid);
    }
  }
  ASSERT_EQ(kept.size(), 2u);
  ASSERT_TRUE(env.writeFileAtomically(pathJoin(recovery->cacheURL(), "Person_uids.fast"),
                                      *FastCoder::dataWithRootObject(Value::array(kept)), nullptr));
  Error error;
  ASSERT_TRUE(recovery->rebuildPackageToURL(dir / "Rebuilt.corvane", Value(), &error)) << error.description();
  auto rebuilt = CorvaneDocument::open(dir / "Rebuilt.corvane", options("other"), &error);
  ASSERT_TRUE(rebuilt);
  FetchRequest anns("Person");
  anns.setPredicate(*Predicate::parse("name == 'Ann'"));
  auto ann = rebuilt->context().fetch(anns).value_or(std::vector<Retained<ManagedObject>>{});
  ASSERT_EQ(ann.size(), 1u);
  ASSERT_EQ(ann[0]->toMany("children").size(), 1u);
  EXPECT_EQ(ann[0]->toMany("children")[0]->stringValue("name"), "Cid");
}

TEST_F(RecoveryTest, RecoveringEverythingSkipsLivingAndEncryptedDocumentsAndNeverOverwrites) {
  ASSERT_TRUE(env.createDirectory(dir / "one", true, nullptr));
  ASSERT_TRUE(env.createDirectory(dir / "two", true, nullptr));
  makeDocument(dir / "one/Notes.corvane");
  makeDocument(dir / "two/Notes.corvane");
  makeDocument(dir / "Living.corvane");
  makeDocument(dir / "Secret.corvane", std::string("secret"));
  ASSERT_TRUE(env.removeItem(dir / "one/Notes.corvane", nullptr));
  ASSERT_TRUE(env.removeItem(dir / "two/Notes.corvane", nullptr));
  ASSERT_TRUE(env.removeItem(dir / "Secret.corvane", nullptr));

  std::vector<std::string> messages;
  Error error;
  std::optional<std::string> folder = CorvaneRecovery::recoverAllCachesToDesktop(
      model, setup(), {}, [&](int64_t, int64_t, const std::string& m) { messages.push_back(m); }, &error);
  ASSERT_TRUE(folder) << error.description();
  EXPECT_EQ(*folder, env.home + "/Desktop/Recovered");
  std::vector<std::string> names;
  ASSERT_TRUE(env.listDirectory(*folder, true, &names, nullptr));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Notes 1.notes", "Notes.notes"}));
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "⏭️  Skipping (file exists): Living.corvane"), 1);
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [](const std::string& m) { return m.starts_with("⚠️  Skipping encrypted cache: "); }),
            1);
  EXPECT_EQ(messages.back(), "📁 Files saved to: " + *folder);
  EXPECT_EQ(messages[messages.size() - 2], "✨ Recovery complete! 4 cache(s) processed.");

  // A second run, with the panel and the alert instead of a block, writes beside the first.
  ui->button = 0;
  folder = CorvaneRecovery::recoverAllCachesToDesktop(model, setup(), {}, nullptr, &error);
  ASSERT_TRUE(folder);
  EXPECT_EQ(*folder, env.home + "/Desktop/Recovered 1");
  EXPECT_EQ(ui->alerts, std::vector<std::string>{"Recovery Complete"});
  EXPECT_EQ(ui->reveals, std::vector<std::string>{*folder});
}

TEST_F(RecoveryTest, DamagedAndEncryptedCachesGiveTheirErrorsAndNeverCrash) {
  makeDocument(dir / "Secret.corvane", std::string("secret"));
  auto secret = CorvaneRecovery::recoveryWithStoreURL(dir / "Secret.corvane", model, setup());
  ASSERT_TRUE(secret);
  EXPECT_TRUE(secret->isEncrypted());
  secret->setPassword("secret");
  Error error;
  EXPECT_FALSE(secret->UIDsForEntity("Person", &error));
  EXPECT_EQ(error.code, 1003);
  EXPECT_EQ(error.localizedDescription, "Encrypted caches are not yet supported");

  makeDocument(dir / "Plain.corvane");
  auto plain = CorvaneRecovery::recoveryWithStoreURL(dir / "Plain.corvane", model, setup());
  ASSERT_TRUE(plain);
  const std::string folder = plain->cacheURL();
  const std::string uid = plain->UIDsForEntity("Company", nullptr)->front();
  const std::string table = pathJoin(folder, fmt::format("Company_{}.fast", uid.front()));
  Bytes bytes;
  ASSERT_TRUE(env.readFile(table, &bytes, nullptr));
  struct Case {
    std::string file;
    std::optional<Bytes> content;
    int code;
  };
  const Bytes half(bytes.begin(), bytes.begin() + static_cast<long>(bytes.size() / 2));
  const std::vector<Case> cases = {
      {table, half, 0},  // a truncated table: refused one way or another
      {table, FastCoder::dataWithRootObject(Value::array({Value("x")})), 1008},
      {table, FastCoder::dataWithRootObject(Value::dictionary()), 1009},
      {pathJoin(folder, "Company_uids.fast"), FastCoder::dataWithRootObject(Value("text")), 1004},
      {table, std::nullopt, 1007},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    if (c.content) {
      ASSERT_TRUE(env.writeFileAtomically(c.file, *c.content, nullptr));
    } else {
      ASSERT_TRUE(env.removeItem(c.file, nullptr));
    }
    Error failure;
    const bool read = c.file.ends_with("_uids.fast") ? plain->UIDsForEntity("Company", &failure).has_value()
                                                     : plain->cacheItemForEntity("Company", uid, &failure).has_value();
    EXPECT_FALSE(read);
    if (c.code != 0) {
      EXPECT_EQ(failure.code, c.code);
    }
    EXPECT_EQ(failure.domain, "CorvaneRecovery");
  }
  Error failure;
  EXPECT_FALSE(plain->cacheItemForEntity("Company", "", &failure));
  EXPECT_EQ(failure.code, 1006);
  // A rebuild goes on past what it cannot read.
  ASSERT_TRUE(plain->rebuildPackageToURL(dir / "Rebuilt.corvane", Value(), &failure)) << failure.description();
  EXPECT_FALSE(CorvaneRecovery(folder, nullptr, setup()).rebuildPackageToURL(dir / "X.corvane", Value(), &failure));
  EXPECT_EQ(failure.code, 1013);
}

}  // namespace
}  // namespace corvane::testing
