// The writer's bytes, derived by hand from the format rules, and the same bytes read back.
// Offsets in the comments count from the first header byte; the first value starts at 20.
#include <gtest/gtest.h>

#include <cmath>

#include "coding/fast_internal.h"
#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"
#include "fast_test_util.h"

namespace corvane {
namespace {

using namespace testing_fast;

TEST(FastWriter, NilRootGivesNoData) { EXPECT_FALSE(FastCoder::dataWithRootObject(Value()).has_value()); }

TEST(FastWriter, NumbersTakeTheSmallestCode) {
  EXPECT_EQ(encode(Value(true)), cat({header(0, 0, 0), {0x0D}}));
  EXPECT_EQ(encode(Value(false)), cat({header(0, 0, 0), {0x0E}}));
  EXPECT_EQ(encode(Value(1)), cat({header(0, 0, 0), {0x2D}}));
  EXPECT_EQ(encode(Value(0)), cat({header(0, 0, 0), {0x2E}}));
  EXPECT_EQ(encode(Value(-1)), cat({header(0, 0, 0), {0x0F, 0xFF}}));
  // 16 at offset 20, one pad byte, the u16 at 22.
  EXPECT_EQ(encode(Value(300)), cat({header(0, 0, 0), {0x10, 0x00, 0x2C, 0x01}}));
  // 17 at 20, three pad bytes, the u32 at 24.
  EXPECT_EQ(encode(Value(70000)), cat({header(0, 0, 0), {0x11, 0, 0, 0, 0x70, 0x11, 0x01, 0x00}}));
  // 18 at 20, three pad bytes (24 is a multiple of 8), the i64 at 24.
  EXPECT_EQ(encode(Value::number(NumberKind::LongLong, int64_t{1} << 40)),
            cat({header(0, 0, 0), {0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0}}));
  // A long-long that fits in 8 bits still takes one byte.
  EXPECT_EQ(encode(Value::number(NumberKind::LongLong, 5)), cat({header(0, 0, 0), {0x0F, 0x05}}));
  EXPECT_EQ(encode(Value::doubleNumber(0.5)), cat({header(0, 0, 0), {0x14, 0, 0, 0}, f64(0.5)}));
  EXPECT_EQ(encode(Value::floatNumber(1.0f)), cat({header(0, 0, 0), {0x13, 0, 0, 0, 0x00, 0x00, 0x80, 0x3F}}));
}

TEST(FastWriter, LongAndIndexKindsGoThroughThirtyTwoBits) {
  // 2^40 + 5 keeps only its low 32 bits: 5.
  EXPECT_EQ(encode(Value::number(NumberKind::Long, (int64_t{1} << 40) + 5)), cat({header(0, 0, 0), {0x0F, 0x05}}));
  EXPECT_EQ(encode(Value::unsignedNumber(NumberKind::Index, uint64_t{1} << 40)), cat({header(0, 0, 0), {0x2E}}));
  // A char kind holds what fits in 8 bits (0x1FF is clamped when the value is made).
  EXPECT_EQ(encode(Value::number(NumberKind::Char, 0x1FF)), cat({header(0, 0, 0), {0x0F, 0x7F}}));
  EXPECT_EQ(encode(Value::number(NumberKind::Char, -1)), cat({header(0, 0, 0), {0x0F, 0xFF}}));
  // An index of 2^63 and more still goes through its low 32 bits, not a saturated value.
  EXPECT_EQ(encode(Value::unsignedNumber(NumberKind::Index, (uint64_t{1} << 63) + 5)),
            cat({header(0, 0, 0), {0x0F, 0x05}}));
  // A kind no encoder knows writes nothing after the header.
  EXPECT_EQ(encode(Value::number(NumberKind::Unknown, 7)), header(0, 0, 0));
}

TEST(FastWriter, NumbersReadBackWithTheirWidthKind) {
  Value v = FastCoder::objectWithData(cat({header(0, 0, 0), {0x10, 0x00, 0x2C, 0x01}}));
  EXPECT_EQ(v.numberKind(), NumberKind::Short);
  EXPECT_EQ(v.intValue(), 300);
  v = FastCoder::objectWithData(cat({header(0, 0, 0), {0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0}}));
  EXPECT_EQ(v.numberKind(), NumberKind::LongLong);
  EXPECT_EQ(v.longLongValue(), int64_t{1} << 40);
  v = FastCoder::objectWithData(cat({header(0, 0, 0), {0x0D}}));
  EXPECT_TRUE(v.isBoolean());
  EXPECT_TRUE(v.boolValue());
  v = FastCoder::objectWithData(cat({header(0, 0, 0), {0x2D}}));
  EXPECT_FALSE(v.isBoolean());
  EXPECT_EQ(v.intValue(), 1);
  v = FastCoder::objectWithData(cat({header(0, 0, 0), {0x0F, 0xFF}}));
  EXPECT_EQ(v.numberKind(), NumberKind::Char);
  EXPECT_EQ(v.intValue(), -1);
}

TEST(FastWriter, MutableStringSharedTwiceIsWrittenOnce) {
  Value a = Value::mutableString("a");
  Bytes expected = cat({header(2, 0, 0),
                        {0x0A, 0, 0, 0},
                        u32(2),          // immutable array at 20, count at 24
                        {0x17, 'a', 0},  // the mutable string at 28 takes object index 0
                        {0x02, 0x00}});  // then an alias to it; the array takes index 1
  EXPECT_EQ(encode(arr({a, a})), expected);

  Value back = FastCoder::objectWithData(expected);
  ASSERT_EQ(back.count(), 2u);
  EXPECT_TRUE(back.at(0).isMutable());
  EXPECT_EQ(back.at(0).str(), "a");
  EXPECT_TRUE(back.at(0).isSameNode(back.at(1)));
}

TEST(FastWriter, EqualImmutableStringsOnceEqualDatesTwice) {
  Value s1 = Value::string("ab");
  Value s2 = Value::string("ab");
  ASSERT_FALSE(s1.isSameNode(s2));
  Bytes strings = cat({header(1, 0, 1), {0x0A, 0, 0, 0}, u32(2), {0x08}, cstr("ab"), {0x05, 0x00}});
  EXPECT_EQ(encode(arr({s1, s2})), strings);

  Value d1 = Value::date(1.5);
  Value d2 = Value::date(1.5);
  // Array at 20; first date type at 28, padded to 32; second at 40, padded to 48.
  Bytes dates =
      cat({header(3, 0, 0), {0x0A, 0, 0, 0}, u32(2), {0x30, 0, 0, 0}, f64(1.5), {0x30, 0, 0, 0, 0, 0, 0, 0}, f64(1.5)});
  EXPECT_EQ(encode(arr({d1, d2})), dates);

  Value back = FastCoder::objectWithData(dates);
  ASSERT_EQ(back.count(), 2u);
  EXPECT_TRUE(back.at(0).isDate());
  EXPECT_EQ(back.at(0).dateValue(), 1.5);
  EXPECT_FALSE(back.at(0).isSameNode(back.at(1)));
}

TEST(FastWriter, ContainersAndTheirRegistrationPoints) {
  // An empty immutable array takes its object index after its (absent) children.
  EXPECT_EQ(encode(Value::array()), cat({header(1, 0, 0), {0x0A, 0, 0, 0}, u32(0)}));
  // A 3-byte data object is followed by one zero byte.
  EXPECT_EQ(encode(Value::data(Bytes{1, 2, 3})), cat({header(1, 0, 0), {0x15, 0, 0, 0}, u32(3), {1, 2, 3, 0}}));
  EXPECT_EQ(encode(Value::mutableData(Bytes{9})), cat({header(1, 0, 0), {0x1C, 0, 0, 0}, u32(1), {9, 0, 0, 0}}));

  // A dictionary writes each value before its key.
  Bytes entry = cat({header(1, 0, 2), {0x09, 0, 0, 0}, u32(1), {0x08}, cstr("v"), {0x08}, cstr("k")});
  EXPECT_EQ(encode(dict({{"k", "v"}})), entry);
  Value back = FastCoder::objectWithData(entry);
  EXPECT_EQ(back, dict({{"k", "v"}}));
  EXPECT_FALSE(back.isMutable());

  // A mutable dictionary registers before its entries, so it can hold itself.
  Value self = Value::mutableDictionary();
  self.set("self", self);
  Bytes cyclic = cat({header(1, 0, 1), {0x18, 0, 0, 0}, u32(1), {0x02, 0x00, 0x08}, cstr("self")});
  EXPECT_EQ(encode(self), cyclic);
  self.removeAllObjects();
  back = FastCoder::objectWithData(cyclic);
  ASSERT_TRUE(back.isDictionary());
  EXPECT_TRUE(back["self"].isSameNode(back));
  back.removeAllObjects();

  // Sets and ordered sets; a mutable array holding itself.
  EXPECT_EQ(encode(Value::set({Value(1)})), cat({header(1, 0, 0), {0x0B, 0, 0, 0}, u32(1), {0x2D}}));
  EXPECT_EQ(encode(Value::mutableOrderedSet({Value(0)})), cat({header(1, 0, 0), {0x1B, 0, 0, 0}, u32(1), {0x2E}}));
  Value loop = Value::mutableArray();
  loop.append(loop);
  Bytes loopBytes = cat({header(1, 0, 0), {0x19, 0, 0, 0}, u32(1), {0x02, 0x00}});
  EXPECT_EQ(encode(loop), loopBytes);
  loop.removeAllObjects();
  back = FastCoder::objectWithData(loopBytes);
  ASSERT_TRUE(back.isArray());
  EXPECT_TRUE(back.at(0).isSameNode(back));
  back.removeAllObjects();
}

// An object at index 256 is referred to by Alias16, padded so that the u16 is at an even offset.
TEST(FastWriter, Alias16PadsOnlyOnAnEvenOffset) {
  std::vector<Value> items;
  for (int i = 0; i < 256; ++i) items.push_back(Value::mutableString());  // indices 1 ... 256
  Value last = items.back();
  items.push_back(last);
  // Root at 20 (index 0), count at 24, 256 strings of 2 bytes from 28 to 539, alias at 540.
  Bytes even = cat({header(257, 0, 0), {0x19, 0, 0, 0}, u32(257)});
  for (int i = 0; i < 256; ++i) even.insert(even.end(), {0x17, 0x00});
  even.insert(even.end(), {0x03, 0x00, 0x00, 0x01});
  EXPECT_EQ(encode(Value::mutableArray(items)), even);

  // One more byte before the alias puts its type byte at 541, and the u16 follows at once.
  items.insert(items.end() - 1, Value(true));
  Bytes odd = cat({header(257, 0, 0), {0x19, 0, 0, 0}, u32(258)});
  for (int i = 0; i < 256; ++i) odd.insert(odd.end(), {0x17, 0x00});
  odd.insert(odd.end(), {0x0D, 0x03, 0x00, 0x01});
  EXPECT_EQ(encode(Value::mutableArray(items)), odd);

  Value back = FastCoder::objectWithData(odd);
  ASSERT_EQ(back.count(), 258u);
  EXPECT_TRUE(back.at(257).isSameNode(back.at(255)));
}

TEST(FastWriter, AliasDictionaryWritesTheValueAtItsKeyPath) {
  Value root = dict({{"items", arr({"a", "b", dict({{"name", "N"}})})}, {"ref", dict({{"$alias", "items.2.name"}})}});
  Bytes expected = cat({header(3, 0, 6), {0x09, 0, 0, 0}, u32(2),  // root dictionary at 20
                        {0x0A, 0, 0, 0}, u32(3),                   // "items" value at 28
                        {0x08},          cstr("a"),                // string 0
                        {0x08},          cstr("b"),                // string 1
                        {0x09, 0},       u32(1),                   // {"name": "N"} at 42, count at 44
                        {0x08},          cstr("N"),                // string 2
                        {0x08},          cstr("name"),             // string 3
                        {0x08},          cstr("items"),            // string 4
                        {0x05, 0x02},                              // the alias dictionary: "N" again
                        {0x08},          cstr("ref")});            // string 5
  EXPECT_EQ(encode(root), expected);
}

TEST(FastWriter, ScalarsOfTheirOwnKind) {
  EXPECT_EQ(encode(Value::null()), cat({header(0, 0, 0), {0x01}}));
  EXPECT_EQ(encode(Value::date(2.0)), cat({header(1, 0, 0), {0x30, 0, 0, 0}, f64(2.0)}));

  // The decimal record is aligned to a multiple of 20: type at 20, 19 zero bytes, record at 40.
  // 0.1: exponent -1 (FF), one mantissa word (length 1 at bit 8), compact (bit 13); mantissa 1.
  Bytes decimal = cat({header(0, 0, 0), {0x2C}, zeros(19), {0xFF, 0x21, 0x00, 0x00, 0x01, 0x00}, zeros(14)});
  EXPECT_EQ(encode(Value::decimal(*Decimal::fromString("0.1"))), decimal);
  Value back = FastCoder::objectWithData(decimal);
  ASSERT_TRUE(back.isDecimal());
  EXPECT_EQ(back.decimalValue().toString(), "0.1");

  // A URL: its relative string through the string table, Nil for no base, then the URL itself
  // takes string index 1; the second reference is a string alias.
  Value url = Value::url("a");
  Bytes urls = cat({header(1, 0, 2), {0x0A, 0, 0, 0}, u32(2), {0x21, 0x08}, cstr("a"), {0x00, 0x05, 0x01}});
  EXPECT_EQ(encode(arr({url, Value::url("a")})), urls);
  back = FastCoder::objectWithData(urls);
  ASSERT_EQ(back.count(), 2u);
  EXPECT_TRUE(back.at(0).isURL());
  EXPECT_EQ(back.at(0).urlAbsoluteString(), "a");
  EXPECT_TRUE(back.at(0).isSameNode(back.at(1)));

  // Index sets: u32 location and length per range.
  Bytes indexes = cat({header(1, 0, 0), {0x2A, 0, 0, 0}, u32(1), u32(5), u32(2)});
  EXPECT_EQ(encode(Value::indexSet({IndexRange{5, 2}})), indexes);
  back = FastCoder::objectWithData(indexes);
  ASSERT_TRUE(back.isIndexSet());
  EXPECT_EQ(back.indexRanges(), (std::vector<IndexRange>{{5, 2}}));
}

TEST(FastWriter, StructureValuesAndTheirDeliberateOffsets) {
  EXPECT_EQ(encode(Value::point(1, 2)), cat({header(1, 0, 0), {0x22, 0, 0, 0}, f64(1), f64(2)}));
  EXPECT_EQ(encode(Value::range(7, 3)), cat({header(1, 0, 0), {0x25, 0, 0, 0}, u32(7), u32(3)}));
  Value back = FastCoder::objectWithData(cat({header(1, 0, 0), {0x25, 0, 0, 0}, u32(7), u32(3)}));
  EXPECT_EQ(back.rangeValue(), (IndexRange{7, 3}));

  // The affine transform is written without padding, right after its type byte at 20...
  Bytes affine = cat({header(1, 0, 0), {0x27}, f64(1), f64(0), f64(0), f64(1), f64(5), f64(6)});
  EXPECT_EQ(encode(Value::affineTransform(1, 0, 0, 1, 5, 6)), affine);
  // ...and the reader aligns to 24 first, which runs past the end here.
  Error error;
  EXPECT_TRUE(FastCoder::objectWithData(affine, &error).isNil());
  EXPECT_EQ(error.localizedDescription, "Unexpected EOF when parsing object starting at 24");

  // A structure value takes an object index that the reader does not count, so an alias
  // written after it points one past the reader's table.
  Value m = Value::mutableString("m");
  Bytes shifted =
      cat({header(3, 0, 0), {0x19, 0, 0, 0}, u32(3), {0x22, 0, 0, 0}, f64(0), f64(0), {0x17, 'm', 0}, {0x02, 0x02}});
  EXPECT_EQ(encode(Value::mutableArray({Value::point(0, 0), m, m})), shifted);
  EXPECT_TRUE(FastCoder::objectWithData(shifted, &error).isNil());
  EXPECT_EQ(error.localizedDescription, "Attempted to read cache object at index 2, but cache object count is 2");
}

// ---- Objects ----------------------------------------------------------------------------

class Shape : public FastCodingObject {
 public:
  std::string className() const override { return "TestShape"; }
  Value valueForKey(std::string_view key) const override {
    if (key == "x") return x;
    if (key == "y") return y;
    return Value();
  }
  void setValueForKey(std::string_view key, const Value& v) override {
    if (key == "x") x = v;
    if (key == "y") y = v;
  }
  Value x, y;
};

class Solid : public Shape {
 public:
  std::string className() const override { return "TestSolid"; }
  Value valueForKey(std::string_view key) const override { return key == "z" ? z : Shape::valueForKey(key); }
  void setValueForKey(std::string_view key, const Value& v) override {
    if (key == "z") {
      z = v;
    } else {
      Shape::setValueForKey(key, v);
    }
  }
  Value z;
};

class FastWriterObjects : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    registerPropertyClass<Shape>("TestShape", {"x", "y"});
    registerPropertyClass<Solid>("TestSolid", {"z"}, "TestShape");
  }
};

TEST_F(FastWriterObjects, PropertiesOfTheSubclassComeFirst) {
  auto* solid = new Solid();
  solid->x = Value(1);
  solid->y = Value(0);
  solid->z = Value(3);
  Value object = Value::object(solid);
  // Definition at 20: name and NUL from 21 to 30, one pad byte, count at 32, keys from 36 to
  // 41; then Object8 with class index 0 and the values z, x, y.
  Bytes expected = cat({header(1, 1, 0),
                        {0x1D},
                        cstr("TestSolid"),
                        {0},
                        u32(3),
                        cstr("z"),
                        cstr("x"),
                        cstr("y"),
                        {0x1E, 0x00, 0x0F, 0x03, 0x2D, 0x2E}});
  EXPECT_EQ(encode(object), expected);

  Value back = FastCoder::objectWithData(expected);
  auto* read = dynamic_cast<Solid*>(back.objectPointer());
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->z, Value(3));
  EXPECT_EQ(read->x, Value(1));
  EXPECT_EQ(read->y, Value(0));
}

TEST_F(FastWriterObjects, SecondObjectOfAClassReusesItsDefinition) {
  auto* a = new Shape();
  auto* b = new Shape();
  Value pair = arr({Value::object(a), Value::object(b)});
  Bytes expected = cat({header(3, 1, 0),
                        {0x0A, 0, 0, 0},
                        u32(2),
                        {0x1D},
                        cstr("TestShape"),
                        {0},
                        u32(2),
                        cstr("x"),
                        cstr("y"),
                        {0x1E, 0x00, 0x00, 0x00, 0x1E, 0x00, 0x00, 0x00}});
  EXPECT_EQ(encode(pair), expected);
}

// A getter that makes a new node on every call and drops the previous one: a node freed
// during the walk must not lend its address, and so its index, to the next one.
class FreshGetter : public FastCodingObject {
 public:
  std::string className() const override { return "TestFresh"; }
  Value valueForKey(std::string_view) const override {
    last_ = Value();  // freed first, so that the allocator may hand out the same address
    last_ = Value::mutableArray();
    return last_;
  }
  mutable Value last_;
};

TEST(FastWriterFreshValues, NodesMadeByGettersAreNeverTakenForEarlierOnes) {
  registerPropertyClass<FreshGetter>("TestFresh", {"a", "b"});
  Bytes expected = cat({header(3, 1, 0),
                        {0x1D},
                        cstr("TestFresh"),
                        {0},
                        u32(2),
                        cstr("a"),
                        cstr("b"),
                        {0x1E, 0x00},
                        {0x19, 0x00},
                        u32(0),
                        {0x19, 0, 0, 0},
                        u32(0)});
  for (int i = 0; i < 20; ++i) EXPECT_EQ(hex(encode(Value::object(new FreshGetter()))), hex(expected));
}

TEST(FastWriterUnknownClass, ReadsAsDictionaryAndWritesBackTheSameBytes) {
  // The name and its NUL fill 21 to 31, so the count follows at 32 without padding.
  Bytes stream =
      cat({header(1, 1, 0), {0x1D}, cstr("MissingOne"), u32(2), cstr("b"), cstr("a"), {0x1E, 0x00, 0x0F, 0x07, 0x01}});
  Value back = FastCoder::objectWithData(stream);
  ASSERT_TRUE(back.isDictionary());
  EXPECT_TRUE(back.isMutable());
  EXPECT_EQ(back, dict({{"$class", "MissingOne"}, {"b", 7}, {"a", Value::null()}}));
  EXPECT_EQ(encode(back), stream);

  // A nil property value leaves its key out, as key-value setting on a dictionary does.
  stream.back() = 0x00;
  back = FastCoder::objectWithData(stream);
  EXPECT_EQ(back, dict({{"$class", "MissingOne"}, {"b", 7}}));

  // Two such dictionaries, the second with a key the first lacks: a wider definition follows.
  Value one = dict({{"$class", "K"}, {"p", 1}});
  Value two = dict({{"$class", "K"}, {"q", 0}, {"p", 1}});
  Bytes expected = cat({header(3, 2, 0),
                        {0x0A, 0, 0, 0},
                        u32(2),
                        {0x1D},
                        cstr("K"),
                        {0},
                        u32(1),
                        cstr("p"),
                        {0x1E, 0x00, 0x2D},  // def at 28, count at 32
                        {0x1D},
                        cstr("K"),
                        u32(2),
                        cstr("p"),
                        cstr("q"),  // def at 41, count at 44
                        {0x1E, 0x01, 0x2D, 0x2E}});
  EXPECT_EQ(encode(arr({one, two})), expected);
}

class Coded : public FastCodingObject {
 public:
  Coded() = default;
  explicit Coded(FCNSDecoder& d) : name(d.decodeObjectForKey("name")), n(d.decodeIntForKey("n")) {}
  std::string className() const override { return "TestCoded"; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override {
    coder.encodeObject(name, "name");
    coder.encodeInt(n, "n");
  }
  Value name;
  int n = 0;
};

TEST(FastWriterCoded, PairsValueFirstThenANilTerminator) {
  registerKeyedClass<Coded>("TestCoded");
  auto* c = new Coded();
  Value object = Value::object(c);  // owns c
  c->name = Value("v");
  c->n = 7;
  Bytes expected = cat({header(1, 0, 4),
                        {0x2B, 0x08},
                        cstr("TestCoded"),
                        {0x08},
                        cstr("v"),
                        {0x08},
                        cstr("name"),
                        {0x0F, 0x07, 0x08},
                        cstr("n"),
                        {0x00}});
  EXPECT_EQ(encode(object), expected);

  Value back = FastCoder::objectWithData(expected);
  auto* read = dynamic_cast<Coded*>(back.objectPointer());
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->name, Value("v"));
  EXPECT_EQ(read->n, 7);

  // A nil object writes no pair at all.
  c->name = Value();
  EXPECT_EQ(encode(object),
            cat({header(1, 0, 2), {0x2B, 0x08}, cstr("TestCoded"), {0x0F, 0x07, 0x08}, cstr("n"), {0x00}}));
}

TEST(FastWriterCoded, UnknownCodedClassAndKeyedArchiveWriteBackUnchanged) {
  Bytes coded = cat({header(1, 0, 4),
                     {0x2B, 0x08},
                     cstr("Elsewhere"),
                     {0x2D, 0x08},
                     cstr("k"),
                     {0x08},
                     cstr("x"),
                     {0x08},
                     cstr("j"),
                     {0x00}});
  Value back = FastCoder::objectWithData(coded);
  ASSERT_TRUE(back.isObject());
  EXPECT_EQ(back.objectPointer()->className(), "Elsewhere");
  EXPECT_EQ(back.objectPointer()->valueForKey("j"), Value("x"));
  EXPECT_EQ(encode(back), coded);

  // 47 at 20; the reader skips the Data type byte as padding because 21 is not a multiple of 4.
  Bytes archive = cat({header(2, 0, 0), {0x2F, 0x15, 0, 0}, u32(3), {1, 2, 3, 0}});
  back = FastCoder::objectWithData(archive);
  ASSERT_TRUE(back.isObject());
  auto* keyed = dynamic_cast<KeyedArchiveObject*>(back.objectPointer());
  ASSERT_NE(keyed, nullptr);
  EXPECT_EQ(keyed->archive(), Value::data(Bytes{1, 2, 3}));
  EXPECT_EQ(encode(back), archive);
}

}  // namespace
}  // namespace corvane
