// The keyed-coding bridge: every coder operation's bytes, every decoder conversion, and the
// class registry's aggregation of property keys.
#include <gtest/gtest.h>

#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"
#include "fast_test_util.h"

namespace corvane {
namespace {

using namespace testing_fast;

class AllKinds : public FastCodingObject {
 public:
  AllKinds() = default;
  explicit AllKinds(FCNSDecoder& d)
      : b(d.decodeBoolForKey("b")),
        i(d.decodeInt32ForKey("i")),
        l(d.decodeIntegerForKey("l")),
        f(d.decodeFloatForKey("f")),
        dbl(d.decodeDoubleForKey("d")),
        m(d.decodeObjectForKey("m")),
        hasC(d.containsValueForKey("c")),
        missingInt(d.decodeInt64ForKey("nope")),
        missingBool(d.decodeBoolForKey("nope")) {
    size_t length = 99;
    ByteView y = d.decodeBytesForKey("y", &length);
    bytes.assign(y.begin(), y.end());
    EXPECT_EQ(length, 1u);
    d.decodeBytesForKey("nope", &missingLength);
  }
  std::string className() const override { return "AllKinds"; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override {
    coder.encodeBool(b, "b");
    coder.encodeInt32(i, "i");
    coder.encodeInteger(l, "l");
    coder.encodeFloat(f, "f");
    coder.encodeDouble(dbl, "d");
    coder.encodeBytes(bytes, "y");
    coder.encodeConditionalObject(m, "c");  // not written yet: nothing
    coder.encodeObject(m, "m");
    coder.encodeConditionalObject(m, "c");  // now an alias
    coder.encodeObject(Value(), "nil");     // nothing
  }
  bool b = true;
  int32_t i = 300;
  int64_t l = int64_t{1} << 40;
  float f = 0.5f;
  double dbl = 2.0;
  Bytes bytes{7};
  Value m = Value::mutableString("z");
  bool hasC = false;
  int64_t missingInt = -1;
  bool missingBool = true;
  size_t missingLength = 99;
};

TEST(KeyedCodingBridge, EveryCoderOperationAndItsDecoder) {
  registerKeyedClass<AllKinds>("AllKinds");
  Bytes expected = cat({header(3, 0, 9),
                        {0x2B, 0x08},
                        cstr("AllKinds"),  // 20
                        {0x0D, 0x08},
                        cstr("b"),  // 31
                        {0x10, 0x2C, 0x01, 0x08},
                        cstr("i"),  // 35, value at 36
                        {0x12},
                        zeros(6),
                        {0, 0, 0, 0, 0, 1, 0, 0},
                        {0x08},
                        cstr("l"),  // 41, value at 48
                        {0x13, 0x00, 0x00, 0x00, 0x3F, 0x08},
                        cstr("f"),  // 59, value at 60
                        {0x14, 0, 0, 0, 0},
                        f64(2.0),
                        {0x08},
                        cstr("d"),  // 67, value at 72
                        {0x15},
                        u32(1),
                        {7, 0, 0, 0},
                        {0x08},
                        cstr("y"),  // 83, fresh data: object 0
                        {0x17},
                        cstr("z"),
                        {0x08},
                        cstr("m"),  // 95, object 1
                        {0x02, 0x01, 0x08},
                        cstr("c"),  // 101
                        {0x00}});   // the object is 2
  Value object = Value::object(new AllKinds());
  EXPECT_EQ(hex(encode(object)), hex(expected));

  Value back = FastCoder::objectWithData(expected);
  auto* read = dynamic_cast<AllKinds*>(back.objectPointer());
  ASSERT_NE(read, nullptr);
  EXPECT_TRUE(read->b);
  EXPECT_EQ(read->i, 300);
  EXPECT_EQ(read->l, int64_t{1} << 40);
  EXPECT_EQ(read->f, 0.5f);
  EXPECT_EQ(read->dbl, 2.0);
  EXPECT_EQ(read->bytes, Bytes{7});
  EXPECT_EQ(read->m, Value("z"));
  EXPECT_TRUE(read->m.isMutable());
  EXPECT_TRUE(read->hasC);
  EXPECT_EQ(read->missingInt, 0);
  EXPECT_FALSE(read->missingBool);
  EXPECT_EQ(read->missingLength, 0u);
}

TEST(KeyedCodingBridge, RecordingCoderAndStandaloneDecoder) {
  AllKinds k;
  auto pairs = FCNSCoder::recordPairs(k);
  ASSERT_EQ(pairs.size(), 7u);  // nothing for the conditional objects or the nil
  EXPECT_EQ(pairs[0].first, Value(true));
  EXPECT_TRUE(pairs[0].first.isBoolean());
  EXPECT_EQ(pairs[0].second, Value("b"));
  EXPECT_EQ(pairs[6].second, Value("m"));

  FCNSDecoder::Pairs properties = {{Value("n"), Value("12")}, {Value("n"), Value(3.9)}};
  FCNSDecoder decoder(&properties);
  EXPECT_TRUE(decoder.allowsKeyedCoding());
  EXPECT_EQ(decoder.decodeIntForKey("n"), 3);  // the later pair wins; truncating conversion
  EXPECT_EQ(decoder.decodeDoubleForKey("n"), 3.9);
  EXPECT_FALSE(decoder.containsValueForKey("m"));
  EXPECT_TRUE(decoder.decodeObjectForKey("m").isNil());
}

TEST(ClassRegistryTest, AggregatesSubclassKeysFirstAndStopsAtUnknownSuperclasses) {
  auto& registry = ClassRegistry::shared();
  registry.registerClass(ClassInfo{"RegBase", "", {"a", "b"}, {}, {}});
  registry.registerClass(ClassInfo{"RegMiddle", "RegBase", {"c"}, {}, {}});
  registry.registerClass(ClassInfo{"RegLeaf", "RegMiddle", {"d"}, {}, {}});
  registry.registerClass(ClassInfo{"RegOrphan", "NotRegistered", {"e"}, {}, {}});
  registry.registerClass(ClassInfo{"RegLoopA", "RegLoopB", {"x"}, {}, {}});
  registry.registerClass(ClassInfo{"RegLoopB", "RegLoopA", {"y"}, {}, {}});
  EXPECT_EQ(registry.aggregatePropertyKeys("RegLeaf"), (std::vector<std::string>{"d", "c", "a", "b"}));
  EXPECT_EQ(registry.aggregatePropertyKeys("RegOrphan"), (std::vector<std::string>{"e"}));
  EXPECT_EQ(registry.aggregatePropertyKeys("RegLoopA"), (std::vector<std::string>{"x", "y"}));
  EXPECT_TRUE(registry.aggregatePropertyKeys("Nobody").empty());
  EXPECT_EQ(registry.find("Nobody"), nullptr);
  ASSERT_NE(registry.find("RegBase"), nullptr);

  // Re-registering replaces what later lookups see (and drops the cached aggregation).
  registry.registerClass(ClassInfo{"RegMiddle", "RegBase", {"c2"}, {}, {}});
  EXPECT_EQ(registry.aggregatePropertyKeys("RegLeaf"), (std::vector<std::string>{"d", "c2", "a", "b"}));
}

class Colour : public FastCodingObject {
 public:
  std::string className() const override { return "NSColorSpace"; }
  bool supportsKeyedCoding() const override { return true; }
};

class PlainObject : public Object {
 public:
  std::string className() const override { return "PlainObject"; }
};

TEST(KeyedCodingBridge, ObjectsWithoutAFastForm) {
  // A keyed archive that cannot be produced writes a Nil in its place; the object still
  // takes an index.
  EXPECT_EQ(encode(Value::object(new Colour())), cat({header(1, 0, 0), {0x2F, 0x00}}));
  // An object that is no FastCodingObject goes by properties, with no keys.
  EXPECT_EQ(encode(Value::object(new PlainObject())),
            cat({header(1, 1, 0), {0x1D}, cstr("PlainObject"), {0, 0, 0}, u32(0), {0x1E, 0x00}}));
}

}  // namespace
}  // namespace corvane
