// The reader's refusals (each with its exact reason), its header rules, and the parts of a
// graph that only the reader decides: replacement after awakening, nested coded objects.
#include <gtest/gtest.h>

#include <stdexcept>

#include "coding/fast_internal.h"
#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/log.h"
#include "fast_test_util.h"

namespace corvane {
namespace {

using namespace testing_fast;

// Reads `stream` expecting nil with `reason` both logged and reported.
void expectRefused(const Bytes& stream, const std::string& reason, bool propertyList = false) {
  LogCapture log;
  Error error;
  Value v = propertyList ? FastCoder::propertyListWithData(stream, &error) : FastCoder::objectWithData(stream, &error);
  EXPECT_TRUE(v.isNil()) << reason;
  EXPECT_EQ(error.localizedDescription, reason);
  EXPECT_TRUE(log.contains(reason)) << reason;
}

TEST(FastReader, MalformedStreamsGiveNilWithTheirReason) {
  expectRefused(cat({header(0, 0, 0), {0x02, 0x00}}),
                "Attempted to read cache object at index 0, but cache object count is 0");
  expectRefused(cat({header(0, 0, 0), {0x05, 0x03}}),
                "Attempted to read cache object at index 3, but cache object count is 0");
  expectRefused(cat({header(0, 0, 0), {0x1E, 0x05}}),
                "Attempted to read cache object at index 5, but cache object count is 0");
  expectRefused(cat({header(0, 0, 0), {49}}), "FastCoding cannot decode object of type: 49");
  expectRefused(cat({header(0, 0, 0), {0xFF}}), "FastCoding cannot decode object of type: 255");
  // A string without its NUL before the end.
  expectRefused(cat({header(0, 0, 0), {0x08, 'a', 'b'}}), "Unexpected EOF when parsing object starting at 21");
  // Nothing after the header.
  expectRefused(header(0, 0, 0), "Unexpected EOF when parsing object starting at 20");
  // A data length far beyond the input: the padded block is checked at once, after the length.
  expectRefused(cat({header(0, 0, 0), {0x15, 0, 0, 0}, u32(0xFFFFFFFF), {1, 2}}),
                "Unexpected EOF when parsing object starting at 28");
  // The EOF offset is the aligned one: a u32 due at 24 in a 22-byte stream.
  expectRefused(cat({header(0, 0, 0), {0x11, 0x00}}), "Unexpected EOF when parsing object starting at 24");
  // The decimal record aligns to 40.
  expectRefused(cat({header(0, 0, 0), {0x2C}, zeros(25)}), "Unexpected EOF when parsing object starting at 40");
}

TEST(FastReader, PropertyListsRefuseObjectsAndNil) {
  Bytes object = cat({header(1, 1, 0), {0x1D}, cstr("Thing"), {0}, u32(0), {0x1E, 0x00}});
  EXPECT_TRUE(FastCoder::objectWithData(object).isDictionary());
  expectRefused(object, "FastCoding cannot decode object of type: 29", true);
  expectRefused(cat({header(0, 0, 0), {0x1E, 0x00}}), "FastCoding cannot decode object of type: 30", true);
  expectRefused(cat({header(0, 0, 0), {0x00}}), "FastCoding cannot decode object of type: 0", true);
  expectRefused(cat({header(0, 0, 0), {0x2B, 0x00, 0x00}}), "FastCoding cannot decode object of type: 43", true);
  expectRefused(cat({header(0, 0, 0), {0x2F}}), "FastCoding cannot decode object of type: 47", true);
  Value plist = FastCoder::propertyListWithData(cat({header(1, 0, 1), {0x0A, 0, 0, 0}, u32(1), {0x08}, cstr("x")}));
  EXPECT_EQ(plist, arr({"x"}));
}

TEST(FastReader, HeaderRules) {
  LogCapture log;
  // Too short or not ours: nil, and nothing logged.
  EXPECT_TRUE(FastCoder::objectWithData(Bytes{0x54, 0x53, 0x41, 0x46, 3, 0, 3}).isNil());
  EXPECT_TRUE(FastCoder::objectWithData(Bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0', 0, 0, 0, 0}).isNil());
  EXPECT_TRUE(log.lines().empty());
  // An unsupported major version is logged; the minor version is never checked.
  Bytes v4 = header(0, 0, 0);
  v4[4] = 4;
  v4[6] = 1;
  v4.push_back(0x0D);
  EXPECT_TRUE(FastCoder::objectWithData(v4).isNil());
  EXPECT_TRUE(log.contains("This version of the FastCoding library doesn't support FastCoding version 4.1 files"));
  Bytes minor9 = cat({header(0, 0, 0), {0x0D}});
  minor9[6] = 9;
  EXPECT_EQ(FastCoder::objectWithData(minor9), Value(true));
  // A cut header (8 to 19 bytes) raises to the caller.
  Bytes cut = header(0, 0, 0);
  cut.resize(14);
  EXPECT_THROW(FastCoder::objectWithData(cut), Exception);
  cut.resize(8);
  try {
    FastCoder::objectWithData(cut);
    ADD_FAILURE() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "FastCodingException");
    EXPECT_EQ(e.reason(), "Unexpected EOF when parsing object starting at 8");
  }
  // Bytes after the root are ignored.
  EXPECT_EQ(FastCoder::objectWithData(cat({header(0, 0, 0), {0x2D, 0xFF, 0xFF}})), Value(1));
}

TEST(FastReader, CountsAreOnlyHints) {
  // Huge header and collection counts over a tiny input: the reader fails on the input's end
  // instead of reserving what the counts claim.
  Bytes hostile = cat({header(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF), {0x0A, 0, 0, 0}, u32(0xFFFFFFFF), {0x2D}});
  expectRefused(hostile, "Unexpected EOF when parsing object starting at 29");
  expectRefused(cat({header(0, 0, 0), {0x09, 0, 0, 0}, u32(0xFFFFFFFF)}),
                "Unexpected EOF when parsing object starting at 28");
  expectRefused(cat({header(0, 0, 0), {0x2A, 0, 0, 0}, u32(0xFFFFFFFF), u32(1)}),
                "Unexpected EOF when parsing object starting at 32");
  expectRefused(cat({header(0, 0, 0), {0x1D, 'C', 0, 0}, u32(0xFFFFFFFF)}),
                "Unexpected EOF when parsing object starting at 28");
}

TEST(FastReader, DeepNestingIsRefusedNotOverflowed) {
  Bytes deep = header(0, 0, 0);
  for (int i = 0; i < 100000; ++i) {
    Bytes level = cat({{0x19, 0, 0, 0}, u32(1)});
    deep.insert(deep.end(), level.begin(), level.end());
  }
  deep.push_back(0x2D);
  Error error;
  EXPECT_TRUE(FastCoder::objectWithData(deep, &error).isNil());
  EXPECT_NE(error.localizedDescription.find("nested deeper"), std::string::npos);
}

TEST(FastReader, InvalidUTF8ReadsAsNil) {
  EXPECT_TRUE(FastCoder::objectWithData(cat({header(0, 0, 1), {0x08, 0xC3, 0x28, 0x00}})).isNil());
  EXPECT_EQ(FastCoder::objectWithData(cat({header(0, 0, 1), {0x08, 0xC3, 0xA9, 0x00}})), Value("\xC3\xA9"));
}

// ---- Objects built by the reader --------------------------------------------------------

class Stand : public FastCodingObject {
 public:
  std::string className() const override { return "TestStand"; }
  void setValueForKey(std::string_view key, const Value& v) override {
    if (key == "x") x = v;
  }
  Value valueForKey(std::string_view key) const override { return key == "x" ? x : Value(); }
  Value awakeAfterFastCoding() override {
    seenWhileReading = x;  // kept outside the object, so that no cycle is left behind
    x = Value();
    return Value("replacement");
  }
  Value x;
  static inline Value seenWhileReading;
};

TEST(FastReader, AwakeningReplacesTheObjectForLaterAliasesOnly) {
  registerPropertyClass<Stand>("TestStand", {"x"});
  // Root mutable array (index 0); the object takes index 1 and its property x refers to it;
  // a later alias to index 1 finds the replacement.
  Bytes stream = cat({header(2, 1, 1),
                      {0x19, 0, 0, 0},
                      u32(2),
                      {0x1D},
                      cstr("TestStand"),
                      {0x00},
                      u32(1),
                      cstr("x"),
                      {0x1E, 0x00, 0x02, 0x01, 0x02, 0x01}});
  Value root = FastCoder::objectWithData(stream);
  ASSERT_EQ(root.count(), 2u);
  EXPECT_EQ(root.at(0), Value("replacement"));
  EXPECT_EQ(root.at(1), Value("replacement"));
  EXPECT_NE(dynamic_cast<Stand*>(Stand::seenWhileReading.objectPointer()), nullptr);
  Stand::seenWhileReading = Value();
}

class Nested : public FastCodingObject {
 public:
  explicit Nested(FCNSDecoder& d) : tag(d.decodeObjectForKey("tag")), inner(d.decodeObjectForKey("inner")) {}
  std::string className() const override { return "TestNested"; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override {
    coder.encodeObject(inner, "inner");
    coder.encodeObject(tag, "tag");
  }
  Value tag, inner;
};

class Throwing : public FastCodingObject {
 public:
  explicit Throwing(FCNSDecoder& d) {
    if (d.decodeBoolForKey("std")) throw std::runtime_error("not ours");
    throw Exception("FastCodingException", "refused by initialiser");
  }
  std::string className() const override { return "TestThrowing"; }
};

TEST(FastReader, NestedCodedObjectsSeeTheirOwnKeys) {
  registerKeyedClass<Nested>("TestNested");
  // Outer: pairs (inner -> Inner object, tag -> "t"); Inner: pair (tag -> "u").
  Bytes stream = cat({header(2, 0, 5),
                      {0x2B, 0x08},
                      cstr("TestNested"),
                      {0x2B, 0x05, 0x00, 0x08},
                      cstr("u"),
                      {0x08},
                      cstr("tag"),
                      {0x00, 0x08},
                      cstr("inner"),
                      {0x08},
                      cstr("t"),
                      {0x05, 0x02, 0x00}});
  Value outer = FastCoder::objectWithData(stream);
  auto* o = dynamic_cast<Nested*>(outer.objectPointer());
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->tag, Value("t"));
  auto* i = dynamic_cast<Nested*>(o->inner.objectPointer());
  ASSERT_NE(i, nullptr);
  EXPECT_EQ(i->tag, Value("u"));
  EXPECT_TRUE(i->inner.isNil());
  EXPECT_EQ(encode(outer), stream);
}

TEST(FastReader, InitialiserExceptionsOfTheLibraryAreCaughtOthersPassOn) {
  registerKeyedClass<Throwing>("TestThrowing");
  expectRefused(cat({header(0, 0, 1), {0x2B, 0x08}, cstr("TestThrowing"), {0x00}}), "refused by initialiser");
  Bytes other = cat({header(0, 0, 2), {0x2B, 0x08}, cstr("TestThrowing"), {0x0D, 0x08}, cstr("std"), {0x00}});
  EXPECT_THROW(FastCoder::objectWithData(other), std::runtime_error);
}

TEST(FastReader, SharedSubgraphsAndCyclesSurviveARoundTrip) {
  Value shared = Value::mutableArray({Value("s")});
  Value root = Value::mutableDictionary();
  root.set("a", shared);
  root.set("b", arr({shared, Value::date(3)}));
  root.set("me", root);
  auto bytes = FastCoder::dataWithRootObject(root);
  ASSERT_TRUE(bytes.has_value());
  root.removeAllObjects();
  std::vector<Value> nodes;
  Value back = detail::parseFastCoding(*bytes, {}, nullptr, &nodes);
  ASSERT_TRUE(back.isDictionary());
  EXPECT_TRUE(back["me"].isSameNode(back));
  EXPECT_TRUE(back["a"].isSameNode(back["b"].at(0)));
  EXPECT_EQ(back["b"].at(1), Value::date(3));
  EXPECT_EQ(FastCoder::dataWithRootObject(back), bytes);
  detail::breakCycles(nodes);

  // Stored data refuses the cycle (and frees what it read: the leak checker would see it),
  // but not a subgraph that is merely shared.
  Error error;
  EXPECT_TRUE(FastCoder::acyclicObjectWithData(*bytes, &error).isNil());
  EXPECT_EQ(error.localizedDescription, "Object at index 0 is referenced from inside itself");
  root = Value::mutableDictionary();
  root.set("a", shared);
  root.set("b", arr({shared}));
  Value tree = FastCoder::acyclicObjectWithData(*FastCoder::dataWithRootObject(root));
  EXPECT_TRUE(tree["a"].isSameNode(tree["b"].at(0)));
}

}  // namespace
}  // namespace corvane
