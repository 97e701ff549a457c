// Streams of major version 2, written out by hand: u32 type codes, padded strings, one table.
#include <gtest/gtest.h>

#include "corvane/coding/fast_coder.h"
#include "fast_test_util.h"

namespace corvane {
namespace {

using namespace testing_fast;

Bytes legacyHeader(uint32_t objects) { return cat({{0x54, 0x53, 0x41, 0x46, 0x02, 0x00, 0x03, 0x00}, u32(objects)}); }

TEST(FastLegacyReader, RootString) {
  EXPECT_EQ(FastCoder::objectWithData(cat({legacyHeader(1), u32(2), {'a', 'b', 'c', 0}})), Value("abc"));
  // "abcd" and its NUL take five bytes, padded to eight.
  Value v = FastCoder::objectWithData(cat({legacyHeader(1), u32(15), {'a', 'b', 'c', 'd', 0, 0, 0, 0}}));
  EXPECT_EQ(v, Value("abcd"));
  EXPECT_TRUE(v.isMutable());
}

TEST(FastLegacyReader, NumbersTakeTableSlotsAndCanBeAliased) {
  // [5, alias 0, true, alias 0]: the number took slot 0.
  Value v = FastCoder::objectWithData(
      cat({legacyHeader(2), u32(4), u32(4), u32(9), u32(5), u32(1), u32(0), u32(7), u32(1), u32(0)}));
  ASSERT_EQ(v.count(), 4u);
  EXPECT_EQ(v.at(0), Value(5));
  EXPECT_EQ(v.at(1), Value(5));
  EXPECT_EQ(v.at(2), Value(true));
  EXPECT_EQ(v.at(3), Value(5));
  // [true, date]: the date's double sits at offset 28, not aligned to 8, and is read there.
  v = FastCoder::objectWithData(cat({legacyHeader(2), u32(4), u32(2), u32(7), u32(14), f64(1.5)}));
  ASSERT_EQ(v.count(), 2u);
  EXPECT_EQ(v.at(1), Value::date(1.5));
}

TEST(FastLegacyReader, ContainersAndObjects) {
  // {"k": "v"}: value then key; Null is code 0 and Nil is 23.
  EXPECT_EQ(
      FastCoder::objectWithData(cat({legacyHeader(3), u32(3), u32(1), u32(2), {'v', 0, 0, 0}, u32(2), {'k', 0, 0, 0}})),
      dict({{"k", "v"}}));
  EXPECT_EQ(FastCoder::objectWithData(cat({legacyHeader(0), u32(0)})), Value::null());
  EXPECT_TRUE(FastCoder::objectWithData(cat({legacyHeader(0), u32(23)})).isNil());

  // A class definition (slot 0), then the instance naming slot 0, then its one property.
  Value object = FastCoder::objectWithData(cat({legacyHeader(2),
                                                u32(21),
                                                {'T', 'h', 'i', 'n', 'g', 0, 0, 0},
                                                u32(1),
                                                {'p', 0, 0, 0},
                                                u32(22),
                                                u32(0),
                                                u32(9),
                                                u32(7)}));
  EXPECT_EQ(object, dict({{"$class", "Thing"}, {"p", 7}}));

  // A mutable array holding itself.
  Value loop = FastCoder::objectWithData(cat({legacyHeader(1), u32(17), u32(1), u32(1), u32(0)}));
  ASSERT_TRUE(loop.isArray());
  EXPECT_TRUE(loop.at(0).isSameNode(loop));
  loop.removeAllObjects();

  // Index set, range and data.
  EXPECT_EQ(FastCoder::objectWithData(cat({legacyHeader(1), u32(32), u32(1), u32(4), u32(3)})).indexRanges(),
            (std::vector<IndexRange>{{4, 3}}));
  EXPECT_EQ(FastCoder::objectWithData(cat({legacyHeader(1), u32(28), u32(4), u32(3)})).rangeValue(),
            (IndexRange{4, 3}));
  EXPECT_EQ(FastCoder::objectWithData(cat({legacyHeader(1), u32(13), u32(2), {1, 2, 0, 0}})), Value::data(Bytes{1, 2}));
}

// Unlike version 3, these failures are not turned into nil: they reach the caller.
TEST(FastLegacyReader, FailuresReachTheCaller) {
  auto reasonOf = [](const Bytes& stream) -> std::string {
    try {
      FastCoder::objectWithData(stream);
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "FastCodingException");
      return e.reason();
    }
    return "no exception";
  };
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(1), u32(0)})),
            "Attempted to read cache object at index 0, but cache object count is 0");
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(273)})), "FastCoding cannot decode object of type: 273");
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(34)})), "FastCoding cannot decode object of type: 34");
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(2), {'a', 'b'}})), "Unexpected EOF when parsing object starting at 16");
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(2), {'a', 'b', 'c', 'd', 0}})),
            "Unexpected EOF when parsing object starting at 16");
  EXPECT_EQ(reasonOf(cat({legacyHeader(0), u32(4), u32(0xFFFFFFFF), u32(7)})),
            "Unexpected EOF when parsing object starting at 24");
  Bytes cut = legacyHeader(0);
  cut.resize(10);
  EXPECT_EQ(reasonOf(cut), "Unexpected EOF when parsing object starting at 8");
  // An instance naming a slot that holds no class definition.
  EXPECT_EQ(reasonOf(cat({legacyHeader(1), u32(4), u32(2), u32(9), u32(1), u32(22), u32(0)})),
            "FastCoding cannot decode object of type: 22");
}

}  // namespace
}  // namespace corvane
