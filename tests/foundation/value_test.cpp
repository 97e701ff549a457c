#include "corvane/foundation/value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "corvane/foundation/error.h"

namespace corvane {
namespace {

template <class F>
std::string exceptionName(F&& f) {
  try {
    f();
  } catch (const Exception& e) {
    return e.name();
  }
  return "<none>";
}

static_assert(sizeof(Value) == 16, "Value must stay a 16-byte handle");

// ---- Numbers --------------------------------------------------------------------------------

TEST(ValueNumberTest, EqualAcrossKindsByExactValue) {
  const Value one(1);
  EXPECT_EQ(one, Value(1.0));
  EXPECT_EQ(one, Value(true));
  EXPECT_EQ(one, Value::unsignedNumber(NumberKind::UnsignedChar, 1));
  EXPECT_EQ(one, Value(Decimal(1, 0, false)));
  EXPECT_EQ(one.hash(), Value(1.0).hash());
  EXPECT_EQ(one.hash(), Value(true).hash());
  EXPECT_EQ(one.hash(), Value(Decimal(10, -1, false)).hash());

  // A float keeps single precision: 0.1f is not 0.1.
  EXPECT_NE(Value::floatNumber(0.1f), Value(0.1));
  EXPECT_EQ(Value::floatNumber(0.5f), Value(0.5));

  // No lossy casts at the edges of the integer ranges.
  const Value int64Max(std::numeric_limits<int64_t>::max());
  EXPECT_NE(int64Max, Value(9.223372036854775807e18));  // that double is 2^63
  EXPECT_EQ(Value(std::numeric_limits<int64_t>::min()), Value(-0x1p63));
  const Value uint64Max(std::numeric_limits<uint64_t>::max());
  EXPECT_NE(uint64Max, Value(0x1p64));
  EXPECT_NE(uint64Max, Value(-1));
  EXPECT_EQ(Value(0x1p63), Value(uint64_t{1} << 63));
  EXPECT_EQ(Value(0x1p63).hash(), Value(uint64_t{1} << 63).hash());
  EXPECT_NE(Value(2), Value(2.5));
  EXPECT_EQ(Value(0.0), Value(-0.0));
  EXPECT_EQ(Value(0.0).hash(), Value(-0.0).hash());

  // Decimals: integral ones compare exactly, others through the double.
  const Value decimalTenth(*Decimal::fromString("0.1"));
  EXPECT_EQ(decimalTenth, Value(0.1));
  EXPECT_EQ(decimalTenth.hash(), Value(0.1).hash());
  const Value hugeDecimal(*Decimal::fromString("18446744073709551616"));
  EXPECT_NE(hugeDecimal, uint64Max);
  EXPECT_EQ(Value(*Decimal::fromString("18446744073709551615")), uint64Max);
  EXPECT_EQ(Value(*Decimal::fromString("18446744073709551615")).hash(), uint64Max.hash());
  EXPECT_NE(Value(*Decimal::fromString("4611686018427387905")), Value(0x1p62));  // 2^62 + 1

  // Numbers are never equal to other kinds.
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(0), Value::null());
  EXPECT_NE(Value(0), Value());
}

TEST(ValueNumberTest, KindsAreKeptAndNarrowed) {
  EXPECT_EQ(Value(1).numberKind(), NumberKind::Int);
  EXPECT_EQ(Value(int64_t{1}).numberKind(), NumberKind::LongLong);
  EXPECT_EQ(Value(uint64_t{1}).numberKind(), NumberKind::UnsignedLongLong);
  EXPECT_EQ(Value(1.5).numberKind(), NumberKind::Double);
  EXPECT_TRUE(Value(false).isBoolean());
  EXPECT_FALSE(Value(0).isBoolean());
  EXPECT_EQ(Value::number(NumberKind::Char, 300).longLongValue(), 127);
  EXPECT_EQ(Value::number(NumberKind::Bool, 7).longLongValue(), 1);
  EXPECT_EQ(Value::unsignedNumber(NumberKind::UnsignedShort, 70000).longLongValue(), 65535);
  EXPECT_EQ(Value::floatNumber(0.1f).doubleValue(), static_cast<double>(0.1f));
  EXPECT_TRUE(Value::floatNumber(1).isFloatingPoint());
  EXPECT_TRUE(Value::unsignedNumber(NumberKind::Index, 3).isUnsigned());
}

// Beyond the table below: truncation, text and the readings as booleans and decimals.
TEST(ValueNumberTest, ConversionsTruncateAndSaturate) {
  EXPECT_EQ(Value(3.9).intValue(), 3);
  EXPECT_EQ(Value(-3.9).intValue(), -3);
  EXPECT_EQ(Value(*Decimal::fromString("12.75")).intValue(), 12);
  EXPECT_EQ(Value("  42abc").intValue(), 42);
  EXPECT_EQ(Value("-2.5e3").doubleValue(), -2500);
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_TRUE(Value(" true").boolValue());
  EXPECT_TRUE(Value("0007").boolValue());
  EXPECT_FALSE(Value("no").boolValue());
  EXPECT_FALSE(Value("0").boolValue());
  EXPECT_TRUE(Value(0.5).boolValue());
  EXPECT_EQ(Value::floatNumber(0.1f).decimalValue().toString(), "0.1");
  EXPECT_EQ(Value(0.1).decimalValue().toString(), "0.1");
  EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).decimalValue().toString(), "18446744073709551615");
}

// Every typed read of every kind of value: hand-worked answers, never a wrapped number.
TEST(ValueNumberTest, TypedReadsOfEveryKindSaturateInsteadOfWrapping) {
  constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
  constexpr int32_t kMax32 = std::numeric_limits<int32_t>::max();
  constexpr int32_t kMin32 = std::numeric_limits<int32_t>::min();
  constexpr uint64_t kMaxU64 = std::numeric_limits<uint64_t>::max();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  auto decimal = [](const char* text) { return Value(*Decimal::fromString(text)); };
  struct Row {
    Value value;
    int64_t ll;
    int32_t i;
    uint64_t ull;
    double d;
    float f;
    bool b;
  };
  const Row rows[] = {
      {Value(1e300), kMax64, kMax32, kMaxU64, 1e300, INFINITY, true},
      {Value(-1e300), kMin64, kMin32, 0, -1e300, -INFINITY, true},
      {Value(kInf), kMax64, kMax32, kMaxU64, kInf, INFINITY, true},
      {Value(kNaN), 0, 0, 0, kNaN, NAN, false},
      {Value(kMaxU64), kMax64, kMax32, kMaxU64, 0x1p64, 0x1p64f, true},
      {Value(-1), -1, -1, 0, -1, -1, true},
      {Value(int64_t{0x100000001}), 0x100000001, kMax32, 0x100000001, 0x100000001, 0x1p32f, true},
      {Value(true), 1, 1, 1, 1, 1, true},
      {decimal("99999999999999999999999"), kMax64, kMax32, kMaxU64, 1e23, 1e23f, true},
      {decimal("-99999999999999999999999"), kMin64, kMin32, 0, -1e23, -1e23f, true},
      {decimal("-12.75"), -12, -12, 0, -12.75, -12.75f, true},
      // The whole part exactly: through a double it would read ...568.
      {decimal("12345678901234567.9"), 12345678901234567, kMax32, 12345678901234567, 12345678901234568.0,
       12345678901234568.0f, true},
      {decimal("1e100"), kMax64, kMax32, kMaxU64, 1e100, INFINITY, true},
      {Value(Decimal::notANumber()), 0, 0, 0, kNaN, NAN, false},
      {Value("99999999999999999999999"), kMax64, kMax32, kMaxU64, 1e23, 1e23f, true},
      {Value("-5"), -5, -5, 0, -5, -5, true},
      {Value("1e5"), 1, 1, 1, 1e5, 1e5f, true},
      {Value("12abc"), 12, 12, 12, 12, 12, true},
      {Value("1e400"), 1, 1, 1, kInf, INFINITY, true},
      {Value("-1e400"), -1, -1, 0, -kInf, -INFINITY, true},
      {Value("0.000001e-400"), 0, 0, 0, 0, 0, false},
      {Value("abc"), 0, 0, 0, 0, 0, false},
      {Value::date(5), 0, 0, 0, 0, 0, false},
      {arr({1}), 0, 0, 0, 0, 0, false},
      {Value::data(Bytes{1}), 0, 0, 0, 0, 0, false},
      {Value(), 0, 0, 0, 0, 0, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.value.description());
    EXPECT_EQ(row.value.longLongValue(), row.ll);
    EXPECT_EQ(row.value.intValue(), row.i);
    EXPECT_EQ(row.value.unsignedLongLongValue(), row.ull);
    if (std::isnan(row.d)) {
      EXPECT_TRUE(std::isnan(row.value.doubleValue()));
      EXPECT_TRUE(std::isnan(row.value.floatValue()));
    } else {
      EXPECT_EQ(row.value.doubleValue(), row.d);
      EXPECT_EQ(row.value.floatValue(), row.f);
    }
    EXPECT_EQ(row.value.boolValue(), row.b);
  }
}

TEST(ValueNumberTest, NarrowKindsClampWhatTheyCannotHold) {
  const std::pair<Value, int64_t> rows[] = {
      {Value::number(NumberKind::Short, 99999), 32767},
      {Value::number(NumberKind::Short, -99999), -32768},
      {Value::number(NumberKind::Int, int64_t{1} << 40), 2147483647},
      {Value::number(NumberKind::Char, -300), -128},
      {Value::number(NumberKind::UnsignedInt, -5), 0},
      {Value::unsignedNumber(NumberKind::UnsignedChar, 300), 255},
      {Value::unsignedNumber(NumberKind::LongLong, std::numeric_limits<uint64_t>::max()),
       std::numeric_limits<int64_t>::max()},
  };
  for (const auto& [value, expected] : rows) EXPECT_EQ(value.longLongValue(), expected) << value.description();
  EXPECT_EQ(Value::unsignedNumber(NumberKind::Index, std::numeric_limits<uint64_t>::max()).unsignedLongLongValue(),
            std::numeric_limits<uint64_t>::max());
}

TEST(ValueNumberTest, DescriptionIsShortestText) {
  EXPECT_EQ(Value(0.1).description(), "0.1");
  EXPECT_EQ(Value(1.0).description(), "1");
  EXPECT_EQ(Value(1e21).description(), "1e+21");
  EXPECT_EQ(Value(1e16).description(), "1e+16");
  EXPECT_EQ(Value(100000.0).description(), "100000");
  EXPECT_EQ(Value(123.456).description(), "123.456");
  EXPECT_EQ(Value(-0.00001).description(), "-1e-05");
  EXPECT_EQ(Value(0.0001).description(), "0.0001");
  EXPECT_EQ(Value(0.30000000000000004).description(), "0.30000000000000004");
  EXPECT_EQ(Value(12345678901234567.0).description(), "12345678901234568");
  EXPECT_EQ(Value::floatNumber(0.1f).description(), "0.1");
  EXPECT_EQ(Value::floatNumber(16777216.0f).description(), "16777216");
  EXPECT_EQ(Value(true).description(), "1");
  EXPECT_EQ(Value(false).description(), "0");
  EXPECT_EQ(Value(-42).description(), "-42");
  EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).description(), "18446744073709551615");
  EXPECT_EQ(Value(*Decimal::fromString("-0.50")).description(), "-0.5");
}

// ---- Dictionaries, sets, arrays -------------------------------------------------------------

std::vector<std::string> keyTexts(const Value& d) {
  std::vector<std::string> out;
  for (const auto& [k, v] : d.entries()) out.push_back(k.description());
  return out;
}

TEST(ValueDictionaryTest, KeepsInsertionOrderThroughReplaceAndRemove) {
  Value d = Value::mutableDictionary({{"b", 1}, {"a", 2}, {"c", 3}, {"a", 4}});
  EXPECT_EQ(keyTexts(d), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(d["a"], Value(4));  // a later duplicate replaces the earlier value

  d.set("b", "x");
  EXPECT_EQ(keyTexts(d), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(d["b"], Value("x"));
  d.remove("a");
  EXPECT_EQ(keyTexts(d), (std::vector<std::string>{"b", "c"}));
  d.set("c", Value());  // nil removes
  EXPECT_EQ(keyTexts(d), (std::vector<std::string>{"b"}));
  EXPECT_TRUE(d["missing"].isNil());

  // Keys meet by value across number kinds.
  d.set(1, "one");
  EXPECT_EQ(d.get(1.0), Value("one"));
  EXPECT_EQ(d.get(true), Value("one"));
  d.set(1.0, "uno");
  EXPECT_EQ(d.count(), 2u);
  EXPECT_EQ(d.get(1), Value("uno"));
}

TEST(ValueDictionaryTest, LargeDictionariesStayOrderedAndFindable) {
  Value d = Value::mutableDictionary();
  for (int i = 0; i < 1000; ++i) d.set(Value(std::to_string(i)), Value(i));
  for (int i = 0; i < 1000; i += 3) d.remove(Value(std::to_string(i)));
  d.set("1", "replaced");
  ASSERT_EQ(d.count(), 666u);
  EXPECT_EQ(d.entries()[0].first, Value("1"));
  EXPECT_EQ(d.entries()[0].second, Value("replaced"));
  EXPECT_EQ(d.entries()[1].first, Value("2"));
  EXPECT_EQ(d.entries().back().first, Value("998"));
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(d.contains(Value(std::to_string(i))), i % 3 != 0) << i;
  }
  EXPECT_EQ(d["500"], Value(500));

  // Built in one go, with duplicates.
  std::vector<std::pair<Value, Value>> entries;
  for (int i = 0; i < 100; ++i) entries.emplace_back(Value(i % 50), Value(i));
  const Value built = Value::dictionary(std::move(entries));
  EXPECT_EQ(built.count(), 50u);
  EXPECT_EQ(built.get(7), Value(57));
  EXPECT_EQ(built.entries()[7].first, Value(7));
}

TEST(ValueDictionaryTest, CopiesMutableKeys) {
  Value key = Value::mutableString("name");
  Value d = Value::mutableDictionary();
  d.set(key, 1);
  key.appendString("-changed");
  EXPECT_EQ(d["name"], Value(1));
  EXPECT_FALSE(d.entries()[0].first.isMutable());
  EXPECT_FALSE(d.entries()[0].first.isSameNode(key));
  // Immutable keys are shared as they are.
  const Value fixed("fixed");
  d.set(fixed, 2);
  EXPECT_TRUE(d.entries()[1].first.isSameNode(fixed));
}

TEST(ValueSetTest, MembersAreDistinctByValue) {
  const Value s = Value::set({1, 1.0, true, "a", Value::string("a"), Value(2)});
  EXPECT_EQ(s.count(), 3u);
  EXPECT_TRUE(s.contains(1));
  EXPECT_TRUE(s.contains(2.0));
  EXPECT_FALSE(s.contains("b"));

  Value ordered = Value::mutableOrderedSet({"c", "a", "c", "b"});
  EXPECT_EQ(ordered, Value::orderedSet({"c", "a", "b"}));
  ordered.append("a");
  ordered.insert(0, "b");
  EXPECT_EQ(ordered.count(), 3u);
  ordered.insert(0, "z");
  ordered.replaceAt(1, "a");  // already present elsewhere: unchanged
  EXPECT_EQ(ordered, Value::orderedSet({"z", "c", "a", "b"}));
  ordered.remove("c");
  EXPECT_EQ(ordered, Value::orderedSet({"z", "a", "b"}));

  Value big = Value::mutableSet();
  for (int i = 0; i < 500; ++i) big.append(Value(i % 250));
  EXPECT_EQ(big.count(), 250u);
  for (int i = 0; i < 250; i += 2) big.remove(Value(i));
  EXPECT_EQ(big.count(), 125u);
  EXPECT_TRUE(big.contains(249));
  EXPECT_FALSE(big.contains(248));
  big.append(Value(248.0));
  EXPECT_EQ(big.elements().back(), Value(248));
}

TEST(ValueEqualityTest, DeepWithOrderOnlyWhereItMatters) {
  EXPECT_EQ(dict({{"a", 1}, {"b", arr({1, 2})}}), dict({{"b", arr({1.0, 2})}, {"a", true}}));
  EXPECT_NE(arr({1, 2}), arr({2, 1}));
  EXPECT_EQ(Value::set({1, 2, 3}), Value::set({3, 2, 1}));
  EXPECT_NE(Value::orderedSet({1, 2}), Value::orderedSet({2, 1}));
  EXPECT_NE(arr({1, 2}), Value::orderedSet({1, 2}));    // different kinds
  EXPECT_EQ(arr({1, 2}), Value::mutableArray({1, 2}));  // mutability does not matter
  EXPECT_NE(dict({{"a", 1}}), dict({{"a", 2}}));
  EXPECT_NE(dict({{"a", 1}}), dict({{"b", 1}}));
  EXPECT_EQ(dict({{"a", 1}, {"b", 2}}).hash(), dict({{"b", 2}, {"a", 1}}).hash());
  EXPECT_EQ(Value::set({"x", "y"}).hash(), Value::set({"y", "x"}).hash());
  EXPECT_EQ(Value::data(toBytes("ab")), Value::mutableData(toBytes("ab")));
  EXPECT_NE(Value::data(toBytes("ab")), Value("ab"));
  EXPECT_EQ(Value::date(5), Value::date(5));
  EXPECT_FALSE(Value::date(5).isSameNode(Value::date(5)));  // equal but distinct nodes
  EXPECT_EQ(Value::null(), Value::null());
  EXPECT_EQ(Value(), Value());
  EXPECT_NE(Value(), Value::null());

  // Sets and dictionaries work as keys of each other.
  Value outer = Value::mutableDictionary();
  outer.set(dict({{"k", 1}}), "first");
  EXPECT_EQ(outer.get(dict({{"k", 1.0}})), Value("first"));
}

TEST(ValueMutationTest, ImmutableNodesAndWrongKindsThrow) {
  Value fixed = arr({1, 2});
  EXPECT_EQ(exceptionName([&] { fixed.append(3); }), "NSInternalInconsistencyException");
  EXPECT_EQ(exceptionName([&] { fixed.removeAllObjects(); }), "NSInternalInconsistencyException");
  Value frozenString("text");
  EXPECT_EQ(exceptionName([&] { frozenString.appendString("x"); }), "NSInternalInconsistencyException");
  EXPECT_EQ(exceptionName([&] { Value(dict({})).set("a", 1); }), "NSInternalInconsistencyException");

  Value list = Value::mutableArray();
  EXPECT_EQ(exceptionName([&] { list.set("a", 1); }), "NSInvalidArgumentException");
  EXPECT_EQ(exceptionName([&] { list.appendString("x"); }), "NSInvalidArgumentException");
  EXPECT_EQ(exceptionName([&] { Value(5).append(1); }), "NSInvalidArgumentException");
  EXPECT_EQ(exceptionName([&] { Value::date(1).mutableCopy(); }), "NSInvalidArgumentException");
  EXPECT_EQ(exceptionName([&] { Value::mutableDictionary().set(Value(), 1); }), "NSInvalidArgumentException");
  EXPECT_EQ(exceptionName([&] { list.insert(1, "x"); }), "NSRangeException");
  EXPECT_EQ(exceptionName([&] { list.removeAt(0); }), "NSRangeException");
  EXPECT_TRUE(list.empty());  // nothing changed

  Value text = Value::mutableString("ab");
  text.appendString("cd");
  EXPECT_EQ(text.str(), "abcd");
  text.setString("x");
  EXPECT_EQ(text.str(), "x");
  Value bytes = Value::mutableData();
  bytes.appendBytes(toBytes("hi"));
  EXPECT_EQ(toString(bytes.bytes()), "hi");

  // An array removes every equal element.
  Value withRepeats = Value::mutableArray({1, 2, 1.0, 3});
  withRepeats.remove(1);
  EXPECT_EQ(withRepeats, arr({2, 3}));
}

TEST(ValueCopyTest, CopiesShareNodesWherePossible) {
  const Value fixed = arr({"a", Value::mutableString("b")});
  EXPECT_TRUE(fixed.copy().isSameNode(fixed));
  EXPECT_EQ(fixed.identity(), Value(fixed).identity());
  EXPECT_EQ(Value(5).identity(), nullptr);
  EXPECT_FALSE(Value(5).isSameNode(Value(5)));

  const Value copyOfMutable = Value::mutableArray({1}).copy();
  EXPECT_FALSE(copyOfMutable.isMutable());

  // mutableCopy is shallow: a new container node holding the same children.
  Value changeable = fixed.mutableCopy();
  EXPECT_TRUE(changeable.isMutable());
  EXPECT_FALSE(changeable.isSameNode(fixed));
  EXPECT_TRUE(changeable.at(1).isSameNode(fixed.at(1)));
  changeable.append("c");
  EXPECT_EQ(fixed.count(), 2u);
  Value child = fixed.at(1);
  child.appendString("!");  // visible through both containers
  EXPECT_EQ(changeable.at(1).str(), "b!");

  Value d = dict({{"k", 1}}).mutableCopy();
  d.set("k", 2);
  EXPECT_EQ(d["k"], Value(2));
  EXPECT_EQ(Value::indexSet({{1, 2}}).mutableCopy().indexRanges(), (std::vector<IndexRange>{{1, 2}}));
  EXPECT_FALSE(Value::date(1).canMutableCopy());
  EXPECT_TRUE(Value("s").canMutableCopy());
}

TEST(ValueCycleTest, SelfContainingContainersTerminate) {
  Value a = Value::mutableArray({1});
  a.append(a);
  Value b = Value::mutableArray({1});
  b.append(b);
  EXPECT_EQ(a, a);
  EXPECT_EQ(a, b);  // the same shape, unfolded forever
  Value c = Value::mutableArray({2});
  c.append(c);
  EXPECT_NE(a, c);
  EXPECT_EQ(a.description(), "(\n    1,\n    (cycle)\n)");
  (void)a.hash();
  (void)Value::compare(a, b);

  Value d = Value::mutableDictionary();
  d.set("self", d);
  EXPECT_EQ(d.description(), "{\n    self = (cycle);\n}");
  EXPECT_EQ(d, d.mutableCopy());

  // Break the cycles so that the nodes are freed.
  a.removeAllObjects();
  b.removeAllObjects();
  c.removeAllObjects();
  d.removeAllObjects();
}

TEST(ValueCycleTest, DeeplyNestedValuesFreeWithoutDeepRecursion) {
  // So many levels would overflow the stack if each level's destructor called the next.
  Value chain = arr({});
  for (int i = 0; i < 300000; ++i) chain = arr({chain, i});
  EXPECT_EQ(chain.at(1), Value(299999));
  chain = Value();
  EXPECT_TRUE(chain.isNil());
}

TEST(ValueDescriptionTest, OldStylePropertyListForm) {
  const Value v = dict({{"name", "Ann Lee"},
                        {"age", 42},
                        {"tags", arr({"a", "b-c", ""})},
                        {"empty", arr({})},
                        {"nested", dict({{"k", Value::null()}})}});
  EXPECT_EQ(v.description(),
            "{\n"
            "    name = \"Ann Lee\";\n"
            "    age = 42;\n"
            "    tags = (\n"
            "        a,\n"
            "        \"b-c\",\n"
            "        \"\"\n"
            "    );\n"
            "    empty = (\n"
            "    );\n"
            "    nested = {\n"
            "        k = \"<null>\";\n"
            "    };\n"
            "}");
  EXPECT_EQ(Value("plain \"text\"").description(), "plain \"text\"");
  EXPECT_EQ(arr({"say \"hi\"\n"}).description(), "(\n    \"say \\\"hi\\\"\\n\"\n)");
  EXPECT_EQ(Value::data(Bytes{0x01, 0xab}).description(), "{length = 2, bytes = 0x01ab}");
  EXPECT_EQ(Value::date(0).description(), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(Value::date(-1).description(), "2000-12-31 23:59:59 +0000");
  EXPECT_EQ(Value::date(730000000.5).description(), "2024-02-19 01:46:40 +0000");
  EXPECT_EQ(Value::set({1}).description(), "{(\n    1\n)}");
  EXPECT_EQ(Value::indexSet({{1, 3}, {7, 1}}).description(), "[number of indexes: 4 (in 2 ranges), indexes: (1-3 7)]");
}

// ---- Other kinds ----------------------------------------------------------------------------

TEST(ValueIndexSetTest, RangesStaySortedAndCoalesced) {
  Value s = Value::indexSet({{10, 5}, {0, 2}, {2, 1}, {12, 10}, {30, 0}}, true);
  EXPECT_EQ(s.indexRanges(), (std::vector<IndexRange>{{0, 3}, {10, 12}}));
  EXPECT_EQ(s.count(), 15u);
  s.addIndexes({3, 7});  // touches both neighbours
  EXPECT_EQ(s.indexRanges(), (std::vector<IndexRange>{{0, 22}}));
  s.removeIndexes({5, 2});
  EXPECT_EQ(s.indexRanges(), (std::vector<IndexRange>{{0, 5}, {7, 15}}));
  s.removeIndexes({0, 100});
  EXPECT_TRUE(s.indexRanges().empty());
  s.addIndexes({std::numeric_limits<uint64_t>::max() - 1, 10});  // clamped, no overflow
  EXPECT_EQ(s.indexRanges(), (std::vector<IndexRange>{{std::numeric_limits<uint64_t>::max() - 1, 1}}));
  EXPECT_TRUE(Value::indexSet({{4, 2}}).contains(5));
  EXPECT_FALSE(Value::indexSet({{4, 2}}).contains(6));
  EXPECT_EQ(Value::indexSet({{1, 1}, {2, 1}}), Value::indexSet({{1, 2}}));
}

TEST(ValueURLTest, ResolvesAgainstBase) {
  const Value base = Value::url("http://a/b/c/d;p?q");
  auto resolve = [&](std::string_view rel) { return Value::url(rel, base).urlAbsoluteString(); };
  EXPECT_EQ(resolve("g"), "http://a/b/c/g");
  EXPECT_EQ(resolve("./g"), "http://a/b/c/g");
  EXPECT_EQ(resolve("g/"), "http://a/b/c/g/");
  EXPECT_EQ(resolve("/g"), "http://a/g");
  EXPECT_EQ(resolve("//g"), "http://g");
  EXPECT_EQ(resolve("?y"), "http://a/b/c/d;p?y");
  EXPECT_EQ(resolve("#s"), "http://a/b/c/d;p?q#s");
  EXPECT_EQ(resolve(""), "http://a/b/c/d;p?q");
  EXPECT_EQ(resolve(".."), "http://a/b/");
  EXPECT_EQ(resolve("../../../g"), "http://a/g");
  EXPECT_EQ(resolve("g;x=1/../y"), "http://a/b/c/y");
  EXPECT_EQ(resolve("mailto:x@y"), "mailto:x@y");
  EXPECT_EQ(Value::url("Data/file", Value::url("file:///docs/Doc.pkg/")).urlAbsoluteString(),
            "file:///docs/Doc.pkg/Data/file");

  const Value relative = Value::url("c/d", Value::url("http://a/b/"));
  EXPECT_EQ(relative.urlRelativeString(), Value("c/d"));
  EXPECT_EQ(relative.urlBase().urlAbsoluteString(), "http://a/b/");
  EXPECT_EQ(relative, Value::url("http://a/b/c/d"));  // same absolute string
  EXPECT_EQ(relative.hash(), Value::url("http://a/b/c/d").hash());
  EXPECT_TRUE(Value::url("x", Value("not a URL")).urlBase().isNil());
}

TEST(ValueCompareTest, OrdersByKindThenValue) {
  EXPECT_LT(Value::compare(Value(1), Value(1.5)), 0);
  EXPECT_EQ(Value::compare(Value(true), Value(1)), 0);
  EXPECT_GT(Value::compare(Value(std::numeric_limits<uint64_t>::max()), Value(0x1p63)), 0);
  EXPECT_LT(Value::compare(Value(std::numeric_limits<int64_t>::max()), Value(0x1p63)), 0);
  EXPECT_LT(Value::compare(Value(*Decimal::fromString("0.1")), Value(0.2)), 0);
  EXPECT_LT(Value::compare(Value("z"), Value("\xc3\xa9")), 0);  // U+00E9 sorts after z
  EXPECT_LT(Value::compare(Value("ab"), Value("abc")), 0);
  EXPECT_LT(Value::compare(Value::date(1), Value::date(2)), 0);
  EXPECT_LT(Value::compare(Value(), Value(0)), 0);      // nil first
  EXPECT_LT(Value::compare(Value(99), Value("1")), 0);  // numbers before strings
  EXPECT_LT(Value::compare(arr({1, 2}), arr({1, 3})), 0);
  EXPECT_EQ(Value::compare(Value::set({1, 2}), Value::set({2, 1})), 0);
  EXPECT_EQ(Value::compare(dict({{"a", 1}, {"b", 2}}), dict({{"b", 2}, {"a", 1}})), 0);

  std::vector<Value> mixed{"b", 2, Value(), 1.5, "a", true};
  std::sort(mixed.begin(), mixed.end(), [](const Value& x, const Value& y) { return Value::compare(x, y) < 0; });
  EXPECT_EQ(Value::array(mixed), arr({Value(), true, 1.5, 2, "a", "b"}));
}

}  // namespace
}  // namespace corvane
