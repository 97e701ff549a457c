#include "corvane/foundation/json.h"

#include <gtest/gtest.h>

#include "support/printers.h"

#include <cmath>
#include <limits>

namespace corvane {
namespace {

TEST(JsonRead, MapsEachJsonKindToItsValueKind) {
  Error error;
  auto v = jsonToValue(R"({"s":"x","i":42,"neg":-7,"d":1.5,"t":true,"f":false,"n":null,"a":[1,2]})", &error);
  ASSERT_TRUE(v) << error.description();
  EXPECT_EQ((*v)["s"].str(), "x");
  EXPECT_EQ((*v)["i"].numberKind(), NumberKind::LongLong);
  EXPECT_EQ((*v)["i"].longLongValue(), 42);
  EXPECT_EQ((*v)["neg"].longLongValue(), -7);
  EXPECT_EQ((*v)["d"].numberKind(), NumberKind::Double);
  EXPECT_EQ((*v)["d"].doubleValue(), 1.5);
  EXPECT_TRUE((*v)["t"].isBoolean());
  EXPECT_TRUE((*v)["t"].boolValue());
  EXPECT_TRUE((*v)["f"].isBoolean());
  EXPECT_FALSE((*v)["f"].boolValue());
  EXPECT_TRUE((*v)["n"].isNull());
  EXPECT_EQ((*v)["a"].count(), 2u);
  EXPECT_FALSE(v->isMutable());
}

TEST(JsonRead, KeepsDocumentOrderAndLargeIntegersExactly) {
  auto v = jsonToValue(R"({"z":1,"a":2,"m":3,"big":9223372036854775807,"bigger":18446744073709551615})");
  ASSERT_TRUE(v);
  std::vector<std::string> keys;
  for (const auto& [k, _] : v->entries()) keys.push_back(k.str());
  EXPECT_EQ(keys, (std::vector<std::string>{"z", "a", "m", "big", "bigger"}));
  EXPECT_EQ((*v)["big"].longLongValue(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ((*v)["bigger"].unsignedLongLongValue(), std::numeric_limits<uint64_t>::max());
}

TEST(JsonRead, ExtremeNumbersAreExactZeroOrARefusal) {
  auto v = jsonToValue("[1e-1926514605, -1e-400, 0.5e-330, 123456789012345678901234567890, 1.7976931348623157e308]");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->at(0).doubleValue(), 0.0);
  EXPECT_EQ(v->at(1).doubleValue(), 0.0);
  EXPECT_TRUE(std::signbit(v->at(1).doubleValue()));
  EXPECT_EQ(v->at(2).doubleValue(), 0.0);
  EXPECT_EQ(v->at(3).numberKind(), NumberKind::Double);
  EXPECT_DOUBLE_EQ(v->at(3).doubleValue(), 1.2345678901234568e29);
  EXPECT_EQ(v->at(4).doubleValue(), 1.7976931348623157e308);
  for (const char* text :
       {"[1e400]", "[-1e1926514605]",
        "[1"
        "0000000000000000000000000000000000000000000000000000000"
        "000000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
        "000000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
        "000000000000000000000000000000000000000000000000000000000000000000000000000000000000000]"}) {
    Error error;
    EXPECT_FALSE(jsonToValue(text, &error)) << text;
    EXPECT_EQ(error.userInfo["reason"].str(), "Number too big to be stored in double.");
  }
  EXPECT_EQ(jsonToValue("0.1")->doubleValue(), 0.1) << "numbers convert exactly";
}

TEST(JsonRead, MutableOptionsMakeMutableContainersAndLeaves) {
  JsonReadOptions options;
  options.mutableContainers = true;
  options.mutableLeaves = true;
  auto v = jsonToValue(R"({"a":["x"]})", nullptr, options);
  ASSERT_TRUE(v);
  EXPECT_TRUE(v->isMutable());
  EXPECT_TRUE((*v)["a"].isMutable());
  EXPECT_TRUE((*v)["a"].at(0).isMutable());
}

TEST(JsonRead, InvalidTextGivesOffsetAndReasonNeverACrash) {
  struct Case {
    const char* text;
    size_t offset;
  } cases[] = {{"", 0}, {"{", 1}, {"{\"a\":}", 5}, {"[1,2", 4}, {"nul", 3}, {"[1] x", 4}, {"\"\xff\"", 1}};
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(jsonToValue(c.text, &error)) << c.text;
    EXPECT_EQ(error.userInfo["offset"].longLongValue(), static_cast<long long>(c.offset)) << c.text;
    EXPECT_NE(error.localizedDescription.find("byte " + std::to_string(c.offset)), std::string::npos)
        << error.localizedDescription;
    EXPECT_FALSE(error.userInfo["reason"].str().empty());
  }
}

TEST(JsonRead, UnpairedSurrogateEscapesAreRefused) {
  Error error;
  EXPECT_FALSE(jsonToValue(R"(["\udddd"])", &error));
  EXPECT_EQ(error.userInfo["reason"].str(), "Unpaired surrogate in a \\u escape.");
  EXPECT_FALSE(jsonToValue(R"({"\ud800x":1})", &error));
  auto paired = jsonToValue(R"(["\ud83d\ude00", "\u00fc"])");
  ASSERT_TRUE(paired);
  EXPECT_EQ(paired->at(0).str(), "😀");
  EXPECT_EQ(paired->at(1).str(), "ü");
}

TEST(JsonRead, RefusesHostileNestingInsteadOfExhaustingTheStack) {
  std::string deep(100000, '[');
  Error error;
  EXPECT_FALSE(jsonToValue(deep, &error));
  EXPECT_NE(error.localizedDescription.find("Nesting too deep"), std::string::npos);
  std::string ok = std::string(kMaxJsonDepth, '[') + std::string(kMaxJsonDepth, ']');
  EXPECT_TRUE(jsonToValue(ok));
}

TEST(JsonWrite, CompactAndPrettyForms) {
  Value v = dict({{"name", "a/b"}, {"n", 3}, {"ok", true}, {"list", arr({Value::null(), 2.5})}});
  EXPECT_EQ(*valueToJson(v), R"({"name":"a/b","n":3,"ok":true,"list":[null,2.5]})");
  EXPECT_EQ(*valueToJson(arr({1}), JsonStyle::Pretty), "[\n  1\n]");
}

TEST(JsonWrite, DecimalsAsExactTextAndWholeDoublesWithoutFraction) {
  Value v = arr({Value::decimal(*Decimal::fromString("0.1")), Value::doubleNumber(2.0), Value::doubleNumber(0.1)});
  EXPECT_EQ(*valueToJson(v), "[0.1,2,0.1]");
}

TEST(JsonWrite, RoundTripsStringsWithEscapes) {
  Value v = arr({"quote\" backslash\\ tab\t nul", "ü€😀"});
  auto text = valueToJson(v);
  ASSERT_TRUE(text);
  auto back = jsonToValue(*text);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, v);
}

TEST(JsonValidity, OnlyPlainJsonKindsWithStringKeys) {
  EXPECT_TRUE(isValidJSONObject(dict({{"a", arr({1, "x", Value::null(), true})}})));
  EXPECT_TRUE(isValidJSONObject(arr({})));
  EXPECT_FALSE(isValidJSONObject(Value("top-level string")));
  EXPECT_FALSE(isValidJSONObject(arr({Value::doubleNumber(std::nan(""))})));
  EXPECT_FALSE(isValidJSONObject(arr({Value::doubleNumber(INFINITY)})));
  EXPECT_FALSE(isValidJSONObject(dict({{1, "numeric key"}})));
  EXPECT_FALSE(isValidJSONObject(arr({Value::date(0)})));
  EXPECT_FALSE(isValidJSONObject(arr({Value::data(asBytes("x"))})));
  Error error;
  EXPECT_FALSE(valueToJson(arr({Value::date(0)}), JsonStyle::Compact, &error));
  EXPECT_EQ(error.code, 3851);
}

}  // namespace
}  // namespace corvane
