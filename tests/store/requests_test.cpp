// Fetches of every result type, values of one object, relationships, IDs and URIs, rebuilding an
// object from its files, refreshing contexts after another device's change, blocked saves and
// whole-graph copies.
#include <algorithm>

#include "corvane/foundation/application_info.h"
#include "corvane/store/corvane_store_options.h"
#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class RequestsTest : public StoreTest {
 protected:
  // Ten people aged 0..9 named P0..P9, the odd ones employed by Acme.
  void fill(OpenStore& s) {
    auto acme = s.context->insertNewObject("Company");
    acme->setValue("name", "Acme");
    for (int i = 0; i < 10; ++i) {
      auto p = s.context->insertNewObject("Person");
      p->setValue("name", "P" + std::to_string(i));
      p->setValue("age", i);
      if (i % 2 == 1) p->setToOne("employer", acme.get());
    }
    auto gadget = s.context->insertNewObject("Gadget");
    gadget->setValue("label", "G");
    ASSERT_TRUE(save(s));
  }
};

TEST_F(RequestsTest, FetchesOfEveryResultType) {
  OpenStore s = open();
  FetchRequest count("Person");
  count.setResultType(FetchResultType::Count);
  // Nothing applied yet: counts are zero.
  EXPECT_EQ(s.context->count(FetchRequest("Person")), std::optional<size_t>(0));
  fill(s);
  close(s);
  OpenStore r = open();  // answers come from the cache, not from the context's memory

  EXPECT_EQ(r.context->count(FetchRequest("Person")), std::optional<size_t>(10));
  FetchRequest adults("Person");
  adults.setPredicate(*Predicate::parse("age >= 5"));
  EXPECT_EQ(r.context->count(adults), std::optional<size_t>(5));

  FetchRequest sorted("Person");
  sorted.setPredicate(*Predicate::parse("age >= 2"));
  sorted.setSortDescriptors({SortDescriptor("age", false)});
  sorted.setFetchLimit(3);
  auto top = r.context->fetch(sorted);
  ASSERT_TRUE(top);
  ASSERT_EQ(top->size(), 3u);
  EXPECT_EQ((*top)[0]->int64Value("age"), 9);
  EXPECT_EQ((*top)[2]->int64Value("age"), 7);

  // Key paths through relationships reach the related objects.
  FetchRequest employed("Person");
  employed.setPredicate(*Predicate::parse("employer.name == 'Acme'"));
  auto ids = r.context->fetchObjectIDs(employed);
  ASSERT_TRUE(ids);
  EXPECT_EQ(ids->size(), 5u);

  FetchRequest dictionaries("Person");
  dictionaries.setResultType(FetchResultType::Dictionary);
  dictionaries.setPredicate(*Predicate::parse("name == 'P3'"));
  dictionaries.setPropertiesToFetch({"name", "age"});
  auto rows = r.context->fetchDictionaries(dictionaries);
  ASSERT_TRUE(rows);
  ASSERT_EQ(rows->size(), 1u);
  EXPECT_EQ((*rows)[0], dict({{"name", "P3"}, {"age", 3}}));
  EXPECT_TRUE((*rows)[0]["age"].isNumber());  // the attribute's own kind, not a decimal

  // Sub-entities, and an unknown entity.
  EXPECT_EQ(r.context->count(FetchRequest("Thing")), std::optional<size_t>(1));
  FetchRequest onlyThings("Thing");
  onlyThings.setIncludesSubentities(false);
  EXPECT_EQ(r.context->count(onlyThings), std::optional<size_t>(0));
  close(r);
}

TEST_F(RequestsTest, ValuesRelationshipsAndIdentifiers) {
  OpenStore s = open();
  fill(s);
  close(s);
  OpenStore r = open();
  FetchRequest acmeRequest("Company");
  auto acme = r.context->fetch(acmeRequest)->at(0);
  EXPECT_EQ(acme->toMany("staff").size(), 5u);
  const ObjectID id = acme->objectID();
  EXPECT_FALSE(id.isTemporaryID());
  const std::string uid = storeUID(id);
  EXPECT_EQ(uid.size(), 36u);
  EXPECT_EQ(storeSavePath(id), "Company/" + uid);

  // A to-one relationship answers one ID; a to-many one its collection.
  const RelationshipDescription& staff = *id.entity()->relationship("staff");
  auto members = r.store->newValueForRelationship(staff, id, r.context.get(), nullptr);
  ASSERT_TRUE(members);
  EXPECT_EQ(members->count(), 5u);
  auto person = ObjectID::fromValue(members->at(0));
  const RelationshipDescription& employer = *person.entity()->relationship("employer");
  auto target = r.store->newValueForRelationship(employer, person, r.context.get(), nullptr);
  ASSERT_TRUE(target);
  EXPECT_EQ(ObjectID::fromValue(*target), id);

  // URIs resolve by entity and UID, whatever prefix or store identity they carry.
  auto* coordinator = r.coordinator.get();
  EXPECT_EQ(coordinator->managedObjectIDForURIRepresentation(id.uriRepresentation()), id);
  EXPECT_EQ(coordinator->managedObjectIDForURIRepresentation("x-corvane://OTHER/Company/pt" + uid), id);
  EXPECT_EQ(coordinator->managedObjectIDForURIRepresentation("x-corvane://OTHER/Company/P" + uid), id);
  EXPECT_EQ(storeUID(coordinator->managedObjectIDForURIRepresentation("x-corvane://S/Company/xp1")), "xp1");
  EXPECT_FALSE(coordinator->managedObjectIDForURIRepresentation("x-corvane://S/Robot/p1"));

  // A closed store hands out no IDs.
  r.store->setClosed(true);
  EXPECT_FALSE(r.store->newObjectIDForEntity(id.entity(), Value(uid)));
  r.store->setClosed(false);
  close(r);
}

TEST_F(RequestsTest, RebuildingAnObjectFromItsFilesUpToAChange) {
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ann->setValue("name", "v1");
  ASSERT_TRUE(save(s));
  for (const char* name : {"v2", "v3"}) {
    env.advance(1);
    ann->setValue("name", name);
    ASSERT_TRUE(save(s));
  }
  const std::vector<std::string> changes = list(package + "/Changes");
  ASSERT_EQ(changes.size(), 3u);
  const std::string uid = storeUID(ann->objectID());
  const EntityDescription& person = ann->entity();
  const std::vector<std::string> files = s.store->changesFilesFor(person, uid);
  ASSERT_EQ(files.size(), 3u);
  EXPECT_TRUE(std::is_sorted(files.begin(), files.end()));
  EXPECT_EQ(s.store->loadValuesForEntity(person, uid, nullptr)->attributes()["name"], Value("v3"));
  EXPECT_EQ(s.store->loadValuesForEntity(person, uid, nullptr, changes[1])->attributes()["name"], Value("v2"));

  // A file that is only a placeholder, or gone, or undecipherable: no object and an issue.
  volumes->remote.insert(files[1]);
  EXPECT_FALSE(s.store->loadValuesForEntity(person, uid, nullptr));
  volumes->remote.clear();
  writeTextFile(files[2], "not json");
  EXPECT_FALSE(s.store->loadValuesForEntity(person, uid, nullptr));
  env.unreadable.insert(files[0]);
  EXPECT_FALSE(s.store->loadValuesForEntity(person, uid, nullptr));
  env.unreadable.clear();
  const Value issues = s.store->loadingIssues();
  ASSERT_GE(issues.count(), 3u);
  EXPECT_EQ(issues.at(0)["type"], Value(kLoadingIssueRemoteFile));
  EXPECT_EQ(issues.at(0)["url"], Value("file://" + files[1]));
  EXPECT_EQ(issues.at(1)["type"], Value(kLoadingIssueEmptyFile));
  EXPECT_EQ(issues.at(2)["type"], Value(kLoadingIssueMissingFile));
  EXPECT_TRUE(issues.at(0)["date"].isDate());
  close(s);
}

TEST_F(RequestsTest, AnotherDevicesChangeRefreshesOpenContextsWithThreeNotifications) {
  OpenStore a = open();
  auto ann = a.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  auto gone = a.context->insertNewObject("Person");
  gone->setValue("name", "Gone");
  ASSERT_TRUE(save(a));
  const ObjectID annID = ann->objectID();
  ASSERT_EQ(ann->stringValue("name"), "Ann");  // registered in A's context

  // Device B renames Ann, deletes Gone and adds Bob.
  const std::string rootA = cacheRoot;
  cacheRoot = dir / "cachesB";
  OpenStore b = open();
  FetchRequest everyone("Person");
  auto people = b.context->fetch(everyone);
  ASSERT_TRUE(people);
  for (const auto& p : *people) {
    if (p->stringValue("name") == "Ann") p->setValue("name", "Ann B");
    if (p->stringValue("name") == "Gone") b.context->deleteObject(p.get());
  }
  b.context->insertNewObject("Person")->setValue("name", "Bob");
  env.advance(5);
  ASSERT_TRUE(save(b));
  close(b);
  cacheRoot = rootA;

  std::vector<std::string> order;
  Value received;
  NotificationCenter& center = NotificationCenter::defaultCenter();
  auto will =
      center.addObserver(kCorvaneObjectsWillChangeExternallyNotification, a.context.get(), [&](const Notification& n) {
        order.push_back("will");
        received = n.userInfo;
      });
  auto platform = center.addObserver(kCorvaneObjectsChangedInManagingContextNotification, a.context.get(),
                                     [&](const Notification&) { order.push_back("private"); });
  auto did = center.addObserver(kCorvaneObjectsDidChangeExternallyNotification, a.context.get(),
                                [&](const Notification&) { order.push_back("did"); });
  update(a.store);
  EXPECT_EQ(order, (std::vector<std::string>{"will", "private", "did"}));
  EXPECT_EQ(received[kInsertedObjectsKey].count(), 1u);
  EXPECT_EQ(received[kUpdatedObjectsKey].count(), 1u);
  EXPECT_EQ(received[kDeletedObjectsKey].count(), 1u);
  EXPECT_EQ(a.context->objectWithID(annID)->stringValue("name"), "Ann B");
  EXPECT_EQ(a.context->count(everyone), std::optional<size_t>(2));
  // The refresh is nobody's edit to undo.
  EXPECT_FALSE(a.context->hasChanges());
  close(a);
}

TEST_F(RequestsTest, SavesAreRefusedWhileBlocked) {
  ApplicationInfo host;
  host.name = "Ledger";
  ApplicationInfo::setCurrent(host);
  OpenStore s = open();
  auto ann = s.context->insertNewObject("Person");
  ASSERT_TRUE(save(s));
  s.store->preventFromSaving();
  ann->setValue("name", "x");
  Error error;
  EXPECT_FALSE(s.context->save(&error));
  EXPECT_EQ(error.domain, kFrameworkBundleIdentifier);
  EXPECT_EQ(error.code, -1);
  EXPECT_EQ(error.localizedDescription, "Because it was created with a newer version of Ledger.");
  EXPECT_EQ(error.recoverySuggestion, "Please update to version .");  // sessions of this host carry no version
  EXPECT_EQ(list(package + "/Changes").size(), 1u);
  s.context->rollback();
  close(s);
  ApplicationInfo::setCurrent(ApplicationInfo());
}

TEST_F(RequestsTest, AWholeGraphIsCopiedAsOneChangeWithAnonymising) {
  OpenStore source = open();
  auto acme = source.context->insertNewObject("Company");
  acme->setValue("name", "Acme Corporation");
  auto ann = source.context->insertNewObject("Person");
  ann->setValue("name", "Annabelle");
  ann->setValue("age", 42);
  ann->setToOne("employer", acme.get());
  ASSERT_TRUE(save(source));

  const std::string copy = dir / "Copy.corvane";
  OpenStore target = open(Value(), nullptr, copy);
  ASSERT_TRUE(target);
  const Value anonymize =
      dict({{kCorvaneAnonymizeOptions,
             dict({{"entities", dict({{"Person", dict({{"name", dict({{"type", "truncate"}})},
                                                       {"age", dict({{"type", "nullify"}})}})}})}})}});
  std::vector<double> progress;
  bool done = false;
  target.store->writeAllObjectsInContext(
      source.context, source.store, anonymize, [&](double p) { progress.push_back(p); },
      [&](bool written) { done = written; });
  waitUntil([&] { return done; });
  const std::vector<std::string> changes = list(copy + "/Changes");
  ASSERT_EQ(changes.size(), 1u);
  const Value change = readJSON(copy + "/Changes/" + changes[0]);
  EXPECT_EQ(change["session"]["id"], Value(source.store->session()));  // the source's session
  EXPECT_EQ(change["changes"]["insert"].count(), 2u);
  // The objects keep their UIDs; values are anonymised on the way.
  const Value annFile = readJSON(copy + "/Entities/Person/" + storeUID(ann->objectID()) + "/" + changes[0]);
  EXPECT_EQ(annFile["payload"]["name"], dict({{"value", "A…e"}}));
  EXPECT_EQ(annFile["payload"]["age"], dict({{"value", "0"}}));
  EXPECT_EQ(annFile["payload"]["employer"], dict({{"value", arr({Value("Company/" + storeUID(acme->objectID()))})}}));
  EXPECT_EQ(progress.back(), 1.0);
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_GE(progress.size(), 4u);  // at least one report per entity of the model
  close(target);
  close(source);
}

}  // namespace
}  // namespace corvane::testing
