#include "corvane/cache/value_transformers.h"

#include <gtest/gtest.h>

#include <set>

#include "cache/cache_test_support.h"
#include "corvane/foundation/decimal.h"
#include "corvane/foundation/error.h"

namespace corvane {
namespace {

using testing::cacheTestModel;

const AttributeDescription& attribute(const char* name) { return *cacheTestModel()->entity("Person")->attribute(name); }

template <class T>
bool isA(const std::shared_ptr<ValueTransformer>& t) {
  if (t == nullptr) return false;
  const ValueTransformer& transformer = *t;
  return typeid(transformer) == typeid(T);
}

std::string noTransformerReason(const AttributeDescription& a, const Value& version = Value()) {
  try {
    CorvaneValueTransformerForAttribute(a, version);
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "No Transformer");
    return e.reason();
  }
  return "no exception";
}

TEST(ValueTransformerLookup, GoesByClassTypeAndVersionInFourSteps) {
  EXPECT_TRUE(isA<CorvaneNSStringValueTransformer>(CorvaneValueTransformerForAttribute(attribute("name"))));
  // Booleans are found at the second step, by their attribute type 800.
  EXPECT_TRUE(
      isA<CorvaneNSNumber800ValueTransformer>(CorvaneValueTransformerForAttribute(attribute("active"), Value("1"))));
  // Every other number goes by its class alone.
  EXPECT_TRUE(isA<CorvaneNSNumberValueTransformer>(CorvaneValueTransformerForAttribute(attribute("age"), Value("1"))));
  EXPECT_TRUE(isA<CorvaneNSDecimalNumberValueTransformer>(CorvaneValueTransformerForAttribute(attribute("balance"))));
  EXPECT_TRUE(isA<CorvaneNSDataValueTransformer>(CorvaneValueTransformerForAttribute(attribute("photo"))));
  // Dates: version 2 (string or number) has its own transformer; any other version falls back.
  EXPECT_TRUE(isA<CorvaneNSDateValueTransformer2>(CorvaneValueTransformerForAttribute(attribute("born"), Value("2"))));
  EXPECT_TRUE(isA<CorvaneNSDateValueTransformer2>(CorvaneValueTransformerForAttribute(attribute("born"), Value(2))));
  EXPECT_TRUE(isA<CorvaneNSDateValueTransformer>(CorvaneValueTransformerForAttribute(attribute("born"), Value("3"))));
  EXPECT_TRUE(isA<CorvaneNSDateValueTransformer>(CorvaneValueTransformerForAttribute(attribute("born"))));

  // A name with class, type and version wins over every shorter one.
  struct Shout : ValueTransformer {
    Value transformedValue(const Value& v) const override { return Value(v.str() + "!"); }
  };
  auto shout = std::make_shared<Shout>();
  auto& registry = ValueTransformerRegistry::shared();
  registry.setValueTransformer(shout, "CorvaneNSString700ValueTransformer9");
  EXPECT_EQ(CorvaneValueTransformerForAttribute(attribute("name"), Value(9)), shout);
  EXPECT_FALSE(CorvaneValueTransformerForAttribute(attribute("name"), Value(8)) == shout);
  registry.setValueTransformer(nullptr, "CorvaneNSString700ValueTransformer9");
}

TEST(ValueTransformerLookup, ClassesWithoutTransformerRaiseNoTransformer) {
  EXPECT_EQ(noTransformerReason(attribute("homepage")), "Not found: CorvaneNSURLValueTransformer");
  EXPECT_EQ(noTransformerReason(attribute("homepage"), Value("2")), "Not found: CorvaneNSURLValueTransformer");
}

TEST(NumberValueTransformer, CarriesNumbersAsExactDecimalText) {
  CorvaneNSNumberValueTransformer t;
  // 0.1 arrives as the decimal 0.1, whether the change file held text or a JSON number.
  EXPECT_EQ(t.transformedValue(Value("0.1")), Value(*Decimal::fromString("0.1")));
  EXPECT_EQ(t.transformedValue(Value(0.1)).kind(), ValueKind::Decimal);
  EXPECT_EQ(t.transformedValue(Value(0.1)).description(), "0.1");
  // Digits beyond a double's precision survive.
  EXPECT_EQ(t.transformedValue(Value("9007199254740993")).description(), "9007199254740993");
  EXPECT_EQ(t.transformedValue(Value("-12.50")).description(), "-12.5");
  EXPECT_TRUE(t.transformedValue(Value("twelve")).isDecimal());
  EXPECT_EQ(t.transformedValue(Value("twelve")).description(), "NaN");
  EXPECT_TRUE(t.transformedValue(Value()).isNil());

  EXPECT_EQ(t.reverseTransformedValue(Value(42)), Value("42"));
  EXPECT_EQ(t.reverseTransformedValue(Value(*Decimal::fromString("0.10"))), Value("0.1"));
  EXPECT_EQ(t.reverseTransformedValue(Value(0.25)), Value("0.25"));
  EXPECT_TRUE(t.reverseTransformedValue(Value()).isNil());
}

// What another device may send for a number attribute, what the cache keeps, and what an
// Integer16 / Integer32 attribute then shows (the store gives the object the value in the
// attribute's number kind): clamped to the type's range, never wrapped.
TEST(NumberValueTransformer, ForeignValuesKeepTheirMeaningForIntegerAttributes) {
  CorvaneNSNumberValueTransformer t;
  auto shown = [](const Value& v, NumberKind kind) { return Value::number(kind, v.longLongValue()).longLongValue(); };
  struct Row {
    Value sent;
    const char* kept;  // description of the transformed value
    ValueKind keptKind;
    int64_t int16;
    int64_t int32;
  };
  const Row rows[] = {
      {Value("99999999999999999999999"), "99999999999999999999999", ValueKind::Decimal, 32767, 2147483647},
      {Value("-99999999999999999999999"), "-99999999999999999999999", ValueKind::Decimal, -32768, -2147483648LL},
      {Value("1e5"), "100000", ValueKind::Decimal, 32767, 100000},
      {Value(99999), "99999", ValueKind::Decimal, 32767, 99999},
      {Value("12abc"), "NaN", ValueKind::Decimal, 0, 0},
      {Value(""), "NaN", ValueKind::Decimal, 0, 0},
      {Value("NaN"), "NaN", ValueKind::Decimal, 0, 0},
      {Value(true), "1", ValueKind::Decimal, 1, 1},
      {Value(false), "0", ValueKind::Decimal, 0, 0},
      {Value(2.7), "2.7", ValueKind::Decimal, 2, 2},
      {Value(-2.7), "-2.7", ValueKind::Decimal, -2, -2},
      // Real numbers beyond a decimal's exponent are numbers still, not not-a-number.
      {Value("1e300"), "1e+300", ValueKind::Number, 32767, 2147483647},
      {Value(-1e300), "-1e+300", ValueKind::Number, -32768, -2147483648LL},
      {Value("1e-300"), "1e-300", ValueKind::Number, 0, 0},
      {Value::date(0), "NaN", ValueKind::Decimal, 0, 0},
      {dict({{"a", 1}}), "NaN", ValueKind::Decimal, 0, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.sent.description());
    const Value kept = t.transformedValue(row.sent);
    EXPECT_EQ(kept.kind(), row.keptKind);
    EXPECT_EQ(kept.description(), row.kept);
    EXPECT_EQ(shown(kept, NumberKind::Short), row.int16);
    EXPECT_EQ(shown(kept, NumberKind::Int), row.int32);
  }
}

TEST(NumberValueTransformer, WhatItWritesReadsBackToTheSameValue) {
  CorvaneNSNumberValueTransformer t;
  const std::pair<Value, const char*> rows[] = {
      {Value::number(NumberKind::Short, 32767), "32767"},
      {Value(Decimal::notANumber()), "NaN"},
      {Value(1e300), "1e+300"},
      {Value(true), "1"},
      {Value(*Decimal::fromString("-99999999999999999999999")), "-99999999999999999999999"},
  };
  for (const auto& [model, text] : rows) {
    const Value written = t.reverseTransformedValue(model);
    EXPECT_EQ(written, Value(text));
    EXPECT_EQ(t.transformedValue(written), model) << text;
  }
}

// A string attribute keeps what was sent, number or not; the host reads its text.
TEST(StringValueTransformer, KeepsValuesOfAnyKindAsTheyAre) {
  CorvaneNSStringValueTransformer t;
  const std::pair<Value, const char*> rows[] = {
      {Value("Ann"), "Ann"}, {Value(123), "123"},      {Value(0.25), "0.25"},
      {Value(true), "1"},    {Value(1e300), "1e+300"}, {Value(*Decimal::fromString("0.10")), "0.1"},
  };
  for (const auto& [sent, text] : rows) {
    const Value kept = t.transformedValue(sent);
    EXPECT_EQ(kept, sent);
    EXPECT_EQ(kept.kind(), sent.kind());
    EXPECT_EQ(kept.description(), text);
    EXPECT_EQ(t.reverseTransformedValue(kept), sent);
  }
  EXPECT_TRUE(t.transformedValue(Value()).isNil());
}

TEST(BooleanValueTransformer, PassesValuesThroughWhateverTheirForm) {
  CorvaneNSNumber800ValueTransformer t;
  for (const Value& v : {Value(true), Value(false), Value(1), Value("YES"), Value()}) {
    EXPECT_EQ(t.transformedValue(v), v);
    EXPECT_EQ(t.transformedValue(v).kind(), v.kind());
    EXPECT_EQ(t.reverseTransformedValue(v), v);
  }
  EXPECT_TRUE(t.transformedValue(Value(true)).isBoolean());
}

TEST(DateValueTransformer, WritesGMTOrTheDeviceZoneAndReadsBoth) {
  const double instant = 700000000.25;  // 2023-03-08 20:26:40.250 GMT
  CorvaneNSDateValueTransformer gmt;
  EXPECT_EQ(gmt.reverseTransformedValue(Value::date(instant)), Value("2023-03-08T20:26:40.250+0000"));
  EXPECT_EQ(gmt.transformedValue(Value("2023-03-08T20:26:40.250+0000")), Value::date(instant));

  ManualClockEnv paris;
  paris.setTimeZoneOffset(2 * 3600);
  ManualClockEnv newYork;
  newYork.setTimeZoneOffset(-5 * 3600);
  CorvaneNSDateValueTransformer2 writer(&paris);
  CorvaneNSDateValueTransformer2 reader(&newYork);
  const Value text = writer.reverseTransformedValue(Value::date(instant));
  EXPECT_EQ(text, Value("2023-03-08T22:26:40.250+0200"));
  EXPECT_EQ(reader.transformedValue(text), Value::date(instant));
  // Each reads the other's text, since the offset travels with it.
  EXPECT_EQ(gmt.transformedValue(text), Value::date(instant));
  EXPECT_EQ(reader.transformedValue(Value("2023-03-08T20:26:40.250+0000")), Value::date(instant));

  // Text that is no date, and values that are no text, give nil (a missing value).
  EXPECT_TRUE(gmt.transformedValue(Value("yesterday")).isNil());
  EXPECT_TRUE(gmt.transformedValue(Value(12)).isNil());
  EXPECT_TRUE(gmt.transformedValue(Value()).isNil());
  EXPECT_TRUE(gmt.reverseTransformedValue(Value()).isNil());
}

TEST(DataValueTransformer, NamesEveryWrittenValueAnew) {
  CorvaneNSDataValueTransformer t;
  EXPECT_EQ(t.transformedValue(Value("9C1E.png")), Value("9C1E.png"));
  const Value bytes = Value::data(toBytes("abc"));
  std::set<std::string> names;
  for (int i = 0; i < 2; ++i) {
    Value name = t.reverseTransformedValue(bytes);
    ASSERT_TRUE(name.isString());
    EXPECT_EQ(name.str().size(), 36u);
    EXPECT_EQ(name.str().find_first_not_of("0123456789ABCDEF-"), std::string::npos);
    names.insert(name.str());
  }
  EXPECT_EQ(names.size(), 2u);
  EXPECT_TRUE(t.reverseTransformedValue(Value()).isNil());
}

TEST(ChangeCountValueTransformer, CountsTheUIDsOfEveryEntity) {
  auto t = ValueTransformerRegistry::shared().valueTransformerForName("CorvaneChangeCountValueTransformer");
  ASSERT_NE(t, nullptr);
  EXPECT_FALSE(t->allowsReverseTransformation());
  Value change = testing::changeRecord(
      "c1", {{"insert", {{"Person", {"A", "B"}}, {"Company", {"C"}}}}, {"delete", {{"Person", {"D"}}}}});
  EXPECT_EQ(t->transformedValue(change), Value("Inserted 3, Updated 0, Deleted 1"));
  EXPECT_EQ(t->transformedValue(dict({{"name", "x"}})), Value("Inserted 0, Updated 0, Deleted 0"));
}

}  // namespace
}  // namespace corvane
