// The JSON notation of FastCoding graphs: every kind printed, read back, and written as bytes.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/coding/fast_json.h"
#include "fast_test_util.h"

namespace corvane {
namespace {

using namespace testing_fast;

std::string compact(const Value& v) { return fastGraphToJson(v, false).value_or("<failed>"); }

TEST(FastJson, EveryKindHasItsNotation) {
  std::array<double, 16> identity{};
  for (int i = 0; i < 4; ++i) identity[i * 5] = 1;
  Value graph = arr({Value(),
                     Value::null(),
                     Value(true),
                     Value(-3),
                     Value(0.25),
                     Value::decimal(*Decimal::fromString("0.10")),
                     Value("s"),
                     Value::data(Bytes{0, 1, 2, 0xFF}),
                     Value::date(-1.5),
                     Value::set({Value(1)}),
                     Value::orderedSet({Value(2)}),
                     Value::url("b", Value::url("http://h/")),
                     Value::point(1, 2),
                     Value::size(3, 4),
                     Value::rect(1, 2, 3, 4),
                     Value::range(5, 6),
                     Value::vector(7, 8),
                     Value::affineTransform(1, 0, 0, 1, 9, 10),
                     Value::transform3D(identity),
                     Value::indexSet({IndexRange{1, 2}, IndexRange{7, 1}}),
                     dict({{Value(1), "one"}}),
                     dict({{"$data", "not data"}}),
                     dict({{"k", Value::unsignedNumber(NumberKind::UnsignedLongLong, ~uint64_t{0})}}),
                     Value::doubleNumber(NAN)});
  std::string expected =
      R"([{"$nil":true},null,true,-3,0.25,{"$decimal":"0.1"},"s",{"$data":"AAEC/w=="},{"$date":-1.5},)"
      R"({"$set":[1]},{"$orderedSet":[2]},{"$url":"b","$base":{"$url":"http://h/","$base":null}},)"
      R"({"$point":[1.0,2.0]},{"$size":[3.0,4.0]},{"$rect":[1.0,2.0,3.0,4.0]},{"$range":[5,6]},)"
      R"({"$vector":[7.0,8.0]},{"$affineTransform":[1.0,0.0,0.0,1.0,9.0,10.0]},)"
      R"({"$transform3D":[1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0,0.0,0.0,0.0,0.0,1.0]},)"
      R"({"$indexSet":[[1,2],[7,1]]},{"$dictionary":[[1,"one"]]},{"$dictionary":[["$data","not data"]]},)"
      R"({"k":18446744073709551615},NaN])";
  EXPECT_EQ(compact(graph), expected);

  auto back = fastGraphFromJson(expected, false);
  ASSERT_TRUE(back.has_value());
  ASSERT_EQ(back->count(), graph.count());
  for (size_t i = 0; i + 1 < graph.count(); ++i) EXPECT_EQ(back->at(i), graph.at(i)) << i;
  EXPECT_TRUE(std::isnan(back->at(graph.count() - 1).doubleValue()));
  EXPECT_EQ(compact(*back), expected);
}

TEST(FastJson, CyclesObjectsAndSharing) {
  Value loop = Value::mutableArray();
  Value shared = arr({"x"});
  loop.append(shared);
  loop.append(shared);
  loop.append(loop);
  EXPECT_EQ(compact(loop), R"([["x"],["x"],{"$cycle":true}])");
  loop.removeAllObjects();

  // An unknown class read from a file and an unknown coded class both print as objects.
  Value object = FastCoder::objectWithData(
      cat({header(1, 1, 0), {0x1D}, cstr("MissingOne"), u32(1), cstr("b"), {0x1E, 0x00, 0x0F, 0x07}}));
  EXPECT_EQ(compact(object), R"({"$class":"MissingOne","b":7})");
  Value coded = FastCoder::objectWithData(
      cat({header(1, 0, 3), {0x2B, 0x08}, cstr("Elsewhere"), {0x2D, 0x08}, cstr("k"), {0x00}}));
  EXPECT_EQ(compact(coded), R"({"$class":"Elsewhere","k":1})");

  EXPECT_FALSE(fastGraphFromJson(R"([{"$cycle":true}])", false).has_value());
}

TEST(FastJson, EncodingWritesTheSmallestNumbersAndImmutableContainers) {
  auto v = fastGraphFromJson(R"({"a": 300})", false);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(encode(*v), cat({header(1, 0, 1), {0x09, 0, 0, 0}, u32(1), {0x10, 0x00, 0x2C, 0x01, 0x08}, cstr("a")}));
  v = fastGraphFromJson(R"([1, 2.5])", true);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(encode(*v), cat({header(1, 0, 0), {0x19, 0, 0, 0}, u32(2), {0x2D, 0x14, 0, 0}, f64(2.5)}));
  // An object of an unknown class becomes the "$class" dictionary the reader would make.
  v = fastGraphFromJson(R"({"$class": "MissingOne", "b": 7})", false);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(encode(*v),
            cat({header(1, 1, 0), {0x1D}, cstr("MissingOne"), u32(1), cstr("b"), {0x1E, 0x00, 0x0F, 0x07}}));

  Error error;
  EXPECT_FALSE(fastGraphFromJson(R"({"$data": "@@@@"})", false, &error).has_value());
  EXPECT_EQ(error.localizedDescription, "$data is not valid base64");
  EXPECT_FALSE(fastGraphFromJson(R"({"$point": [1]})", false, &error).has_value());
  EXPECT_FALSE(fastGraphFromJson(R"([1] [2])", false, &error).has_value());
  EXPECT_FALSE(fastGraphFromJson(R"({"$nope": 1})", false, &error).has_value());
  EXPECT_EQ(error.localizedDescription, "unknown notation $nope");
}

// {"$alias": key path} is the writer's alias dictionary: it reads as that dictionary, prints
// back as itself, and encodes as the value found along the path.
TEST(FastJson, AliasDictionariesRoundTripAndEncodeAsTheirTarget) {
  const std::string text = R"({"a":[5,"x"],"b":{"$alias":"a.1"}})";
  auto v = fastGraphFromJson(text, false);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(v->lookup("b"), dict({{"$alias", "a.1"}}));
  EXPECT_EQ(compact(*v), text);
  // Root dictionary 9, the array 10 with 5 as Int8 and "x" (string 0), key "a" (string 1); then
  // the alias finds "x" again (StringAlias8 0) and key "b" (string 2). Objects: array, root.
  EXPECT_EQ(encode(*v), cat({header(2, 0, 3),
                             {0x09, 0, 0, 0},
                             u32(2),
                             {0x0A, 0, 0, 0},
                             u32(2),
                             {0x0F, 0x05, 0x08},
                             cstr("x"),
                             {0x08},
                             cstr("a"),
                             {0x05, 0x00, 0x08},
                             cstr("b")}));
  // A path that leads nowhere writes Nil in its place.
  v = fastGraphFromJson(R"([{"$alias":"7.q"}])", true);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(encode(*v), cat({header(1, 0, 0), {0x19, 0, 0, 0}, u32(1), {0x00}}));

  // Only a one-entry dictionary with a string is an alias dictionary; others keep the pair form.
  for (const Value& other : {dict({{"$alias", 5}}), dict({{"$alias", "p"}, {"k", 1}})}) {
    const std::string printed = compact(other);
    EXPECT_EQ(printed.rfind(R"({"$dictionary":)", 0), 0u) << printed;
    EXPECT_EQ(fastGraphFromJson(printed, false), other) << printed;
  }
  Error error;
  EXPECT_FALSE(fastGraphFromJson(R"({"$alias": 5})", false, &error).has_value());
  EXPECT_EQ(error.localizedDescription, "$alias takes a key path string");
}

TEST(FastJson, AURLBaseIsANestedURLOrItsText) {
  // "b" (string 0), then the base: 33, "http://h/" (string 1), no base (Nil), the base URL
  // registered (string 2), then the URL itself (string 3).
  const Bytes bytes = cat({header(0, 0, 4), {0x21, 0x08}, cstr("b"), {0x21, 0x08}, cstr("http://h/"), {0x00}});
  for (const char* text : {R"({"$url":"b","$base":"http://h/"})", R"({"$url":"b","$base":{"$url":"http://h/"}})"}) {
    auto v = fastGraphFromJson(text, false);
    ASSERT_TRUE(v.has_value()) << text;
    EXPECT_EQ(*v, Value::url("b", Value::url("http://h/")));
    EXPECT_EQ(v->urlAbsoluteString(), "http://h/b");
    EXPECT_EQ(encode(*v), bytes) << text;
    EXPECT_EQ(compact(*v), R"({"$url":"b","$base":{"$url":"http://h/","$base":null}})");
  }
  Error error;
  EXPECT_FALSE(fastGraphFromJson(R"({"$url":"b","$base":3})", false, &error).has_value());
  EXPECT_EQ(error.localizedDescription, "$base takes a URL, a URL string or null");
}

}  // namespace
}  // namespace corvane
