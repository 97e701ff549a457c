#include "store/store_test_support.h"

namespace corvane::testing {
namespace {

class StoreSmokeTest : public StoreTest {};

TEST_F(StoreSmokeTest, CreateSaveReopenFetch) {
  OpenStore a = open();
  ASSERT_TRUE(a);
  auto ann = a.context->insertNewObject("Person");
  ann->setValue("name", "Ann");
  ann->setValue("age", 42);
  ASSERT_TRUE(save(a));
  close(a);

  OpenStore b = open();
  ASSERT_TRUE(b);
  FetchRequest request("Person");
  auto found = b.context->fetch(request);
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1u);
  EXPECT_EQ((*found)[0]->stringValue("name"), "Ann");
  EXPECT_EQ((*found)[0]->int64Value("age"), 42);
  close(b);

  env.removeItem(cacheRoot, nullptr);
  OpenStore c = open();
  ASSERT_TRUE(c);
  auto again = c.context->fetch(request);
  ASSERT_TRUE(again);
  ASSERT_EQ(again->size(), 1u);
  EXPECT_EQ((*again)[0]->stringValue("name"), "Ann");
  close(c);
}

}  // namespace
}  // namespace corvane::testing
