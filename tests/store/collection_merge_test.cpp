#include "corvane/store/collection_merge.h"

#include <gtest/gtest.h>

#include "support/printers.h"

#include "corvane/foundation/error.h"

namespace corvane {
namespace {

Value mdict(std::initializer_list<std::pair<Value, Value>> e) { return dict(e, true); }

TEST(CollectionMerge, NestedDictionariesMergeKeyByKey) {
  Value a = mdict({{"A", mdict({{"u1", mdict({})}})}});
  Value b = dict({{"A", dict({{"u2", dict({})}})}});
  Value result;
  ASSERT_TRUE(Merge::mergeObj(a, b, &result));
  EXPECT_TRUE(result.isSameNode(a)) << "a mutable target is changed in place";
  EXPECT_EQ(result, dict({{"A", dict({{"u1", dict({})}, {"u2", dict({})}})}}));
}

TEST(CollectionMerge, ValueAlreadyPresentWinsWhenValuesCannotMerge) {
  Value a = mdict({{"k", "x"}, {"n", 1}, {"d", mdict({{"z", 1}})}});
  mergeWithDictionary(a, dict({{"k", "y"}, {"n", 2}, {"d", "string"}, {"new", 3}}));
  EXPECT_EQ(a, dict({{"k", "x"}, {"n", 1}, {"d", dict({{"z", 1}})}, {"new", 3}}));
}

TEST(CollectionMerge, ImmutableValueIsReplacedByAMutableCopyHoldingBoth) {
  Value inner = dict({{"u1", 1}});
  Value a = mdict({{"A", inner}});
  mergeWithDictionary(a, dict({{"A", dict({{"u2", 2}})}}));
  EXPECT_FALSE(a["A"].isSameNode(inner));
  EXPECT_TRUE(a["A"].isMutable());
  EXPECT_EQ(a["A"], dict({{"u1", 1}, {"u2", 2}}));
  EXPECT_EQ(inner, dict({{"u1", 1}})) << "the immutable original is untouched";
}

TEST(CollectionMerge, ChoosesTheTargetInTheDocumentedOrder) {
  Value result;
  // b is the mutable one: it becomes the target.
  Value b = Value::mutableArray({2});
  ASSERT_TRUE(Merge::mergeObj(arr({1}), b, &result));
  EXPECT_TRUE(result.isSameNode(b));
  EXPECT_EQ(b, arr({2, 1}));
  // Neither is mutable: a's mutable copy takes b's members.
  Value a = arr({1, 2});
  ASSERT_TRUE(Merge::mergeObj(a, arr({2, 3}), &result));
  EXPECT_EQ(result, arr({1, 2, 3}));
  EXPECT_EQ(a, arr({1, 2}));
  // A string cannot merge with a dictionary; b's copy cannot take a string either.
  result = Value("untouched");
  EXPECT_FALSE(Merge::mergeObj("x", dict({{"a", 1}}), &result));
  EXPECT_FALSE(Merge::mergeObj(1, 2, &result));
  EXPECT_EQ(result, Value("untouched"));
}

TEST(CollectionMerge, ArraysSkipOrKeepDuplicates) {
  Value a = Value::mutableArray({1, 2});
  mergeWithArray(a, arr({2, 3}));
  EXPECT_EQ(a, arr({1, 2, 3}));
  Value b = Value::mutableArray({1, 2});
  mergeWithArray(b, arr({2, 3}), true);
  EXPECT_EQ(b, arr({1, 2, 2, 3}));
  Value c = Value::mutableArray({1});
  mergeWithSet(c, Value::set({1, 5}));
  EXPECT_EQ(c, arr({1, 5}));
}

TEST(CollectionMerge, SetGainsArrayMembersOnce) {
  Value s = Value::mutableSet({"a"});
  mergeWithObj(s, arr({"b", "a", "b"}));
  EXPECT_EQ(s, Value::set({"a", "b"}));
  EXPECT_EQ(s.count(), 2u);
}

TEST(CollectionMerge, MutabilityIsWhatTheInstanceAccepts) {
  EXPECT_TRUE(isMutableObj(Value::mutableDictionary()));
  EXPECT_TRUE(isMutableObj(Value::mutableSet()));
  EXPECT_FALSE(isMutableObj(arr({})));
  EXPECT_FALSE(isMutableObj(Value::mutableString("s")));
  EXPECT_TRUE(canMergeWithObj(Value::set(), arr({})));
  EXPECT_FALSE(canMergeWithObj(Value::dictionary(), arr({})));
  EXPECT_FALSE(canMergeWithObj("s", "t"));
}

TEST(CollectionMerge, WrongKindRaisesMergeExceptionWithExactReason) {
  Value a = Value::mutableArray({1});
  try {
    mergeWithObj(a, "x");
    FAIL() << "expected MergeException";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "MergeException");
    EXPECT_EQ(e.reason(), "Attempted to merge objects of different types: " + a.description() + "\n,\n x");
  }
}

}  // namespace
}  // namespace corvane
