#include "corvane/foundation/plist.h"

#include <gtest/gtest.h>

#include "corvane/foundation/env.h"
#include "support/printers.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

const char* kXml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>DocumentIdentifier</key>
	<string>ABC</string>
	<key>Encryption</key>
	<dict>
		<key>Rounds</key>
		<integer>100000</integer>
		<key>Salt</key>
		<data>AAEC/w==</data>
	</dict>
	<key>Created</key>
	<date>2024-05-17T09:41:07Z</date>
	<key>Negative</key>
	<integer>-5</integer>
	<key>Ratio</key>
	<real>0.25</real>
	<key>Flag</key>
	<true/>
	<key>List</key>
	<array><string>a</string></array>
</dict>
</plist>
)";

TEST(PropertyList, ReadsEveryXmlKind) {
  Error error;
  auto v = propertyListFromBytes(asBytes(kXml), &error);
  ASSERT_TRUE(v) << error.description();
  EXPECT_EQ((*v)["DocumentIdentifier"].str(), "ABC");
  EXPECT_EQ((*v)["Encryption"]["Rounds"].longLongValue(), 100000);
  const Value& salt = (*v)["Encryption"]["Salt"];
  ASSERT_TRUE(salt.isData());
  EXPECT_EQ(Bytes(salt.bytes().begin(), salt.bytes().end()), (Bytes{0x00, 0x01, 0x02, 0xff}));
  // 2024-05-17T09:41:07Z is 737631667 seconds after 2001-01-01.
  ASSERT_TRUE((*v)["Created"].isDate());
  EXPECT_DOUBLE_EQ((*v)["Created"].dateValue(), 737631667.0);
  EXPECT_EQ((*v)["Negative"].longLongValue(), -5);
  EXPECT_EQ((*v)["Ratio"].doubleValue(), 0.25);
  EXPECT_TRUE((*v)["Flag"].isBoolean());
  EXPECT_EQ((*v)["List"].at(0).str(), "a");
}

TEST(PropertyList, XmlOutputReadsBackWithDatesAndDataKept) {
  // The XML form keeps whole seconds of a date, as the platform's XML form does.
  Value v = dict({{"date", Value::date(737631667.0)},
                  {"data", Value::data(asBytes(std::string("\0\x01z", 3)))},
                  {"n", -12},
                  {"flag", false},
                  {"nested", dict({{"k", arr({"x", 2.5})}})}});
  auto xml = xmlPropertyListBytes(v);
  ASSERT_TRUE(xml);
  EXPECT_NE(asStringView(*xml).find("<key>nested</key>"), std::string::npos);
  auto back = propertyListFromBytes(*xml);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, v);
  EXPECT_TRUE((*back)["date"].isDate());
  EXPECT_TRUE((*back)["data"].isData());
}

TEST(PropertyList, XmlTextIsTheUsualFormWithFarDatesKept) {
  Value v = dict({{"a&b", "<x>"},
                  {"n", -3},
                  {"empty", arr({})},
                  {"d", Value::data(asBytes("abcd"))},
                  {"late", Value::date(3124137600.0)},
                  {"early", Value::date(-3187296000.0)}});
  auto xml = xmlPropertyListBytes(v);
  ASSERT_TRUE(xml);
  EXPECT_EQ(
      asStringView(*xml),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n"
      "\t<key>a&amp;b</key>\n\t<string>&lt;x&gt;</string>\n"
      "\t<key>n</key>\n\t<integer>-3</integer>\n"
      "\t<key>empty</key>\n\t<array/>\n"
      "\t<key>d</key>\n\t<data>YWJjZA==</data>\n"
      "\t<key>late</key>\n\t<date>2100-01-01T00:00:00Z</date>\n"
      "\t<key>early</key>\n\t<date>1900-01-01T00:00:00Z</date>\n"
      "</dict>\n"
      "</plist>\n");
}

TEST(PropertyList, RefusesValuesWithoutAPlistForm) {
  EXPECT_FALSE(isValidPropertyList(arr({Value::null()})));
  EXPECT_FALSE(isValidPropertyList(dict({{1, "x"}})));
  EXPECT_FALSE(isValidPropertyList(Value::point(1, 2)));
  Error error;
  EXPECT_FALSE(xmlPropertyListBytes(arr({Value::null()}), &error));
  EXPECT_FALSE(error.localizedDescription.empty());
}

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return out;
}

// {"a": 1, "b": "xy"} laid out by hand: magic, five objects, a one-byte offset table and the
// trailer (offset size 1, reference size 1, 5 objects, top object 0, table at 22).
TEST(BinaryPropertyList, ReadsAHandLaidOutFile) {
  Bytes bytes = fromHex(
      "62706c6973743030"  // bplist00
      "d201020304"        // 8: dictionary of 2: keys 1, 2; values 3, 4
      "5161"              // 13: "a"
      "5162"              // 15: "b"
      "1001"              // 17: integer 1
      "527879"            // 19: "xy"
      "080d0f1113"        // 22: offset table
      "000000000000"
      "01"
      "01"
      "0000000000000005"
      "0000000000000000"
      "0000000000000016");
  Error error;
  auto v = propertyListFromBytes(bytes, &error);
  ASSERT_TRUE(v) << error.description();
  EXPECT_EQ(*v, dict({{"a", 1}, {"b", "xy"}}));
}

// Written by Python's plistlib (an independent writer): every kind, UTF-16 text, a negative
// and a 16-byte integer.
TEST(BinaryPropertyList, ReadsWhatAnotherWriterWrote) {
  Bytes bytes = fromHex(
      "62706c6973743030d90102030405060708090a0b0c0d0e0f1011125453616c7456526f756e6473534e656753426967545265616c"
      "54466c6167544e616d655743726561746564544c69737444000102ff12000186a013fffffffffffffffb140000000000000000800000"
      "0000000005233fd000000000000009680047007200fc00df00650020d83dde003341c5fbaed9800000a21314516110010"
      "81b20272b2f34393e464b50555e6f78798a939698000000000000010100000000000000150000000000000000000000000000009a");
  Error error;
  auto v = propertyListFromBytes(bytes, &error);
  ASSERT_TRUE(v) << error.description();
  EXPECT_EQ(Bytes((*v)["Salt"].bytes().begin(), (*v)["Salt"].bytes().end()), (Bytes{0, 1, 2, 255}));
  EXPECT_EQ((*v)["Rounds"].longLongValue(), 100000);
  EXPECT_EQ((*v)["Neg"].longLongValue(), -5);
  EXPECT_EQ((*v)["Big"].unsignedLongLongValue(), 9223372036854775813ull);
  EXPECT_EQ((*v)["Real"].doubleValue(), 0.25);
  EXPECT_TRUE((*v)["Flag"].isBoolean());
  EXPECT_EQ((*v)["Name"].str(), "Grüße 😀");
  EXPECT_DOUBLE_EQ((*v)["Created"].dateValue(), 737631667.0);
  EXPECT_EQ((*v)["List"], arr({"a", 1}));
}

TEST(BinaryPropertyList, HostileFilesAreRefusedNeverACrash) {
  const char* tail =
      "000000000000"
      "01"
      "01"
      "0000000000000002"
      "0000000000000000";
  struct Case {
    const char* name;
    std::string hex;
  } cases[] = {
      {"integer key", std::string("62706c6973743030") + "d10101" + "1001" + "080b" + tail + "000000000000000d"},
      {"array holding itself", std::string("62706c6973743030") + "a100" + "1001" + "080a" + tail + "000000000000000c"},
      {"reference out of range",
       std::string("62706c6973743030") + "a109" + "1001" + "080a" + tail + "000000000000000c"},
      {"count beyond the file",
       std::string("62706c6973743030") + "4f13ffffffffffffffff" + "1001" + "0812" + tail + "0000000000000014"},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(propertyListFromBytes(fromHex(c.hex), &error)) << c.name;
    EXPECT_NE(error.localizedDescription.find("correct format"), std::string::npos) << c.name;
  }
}

TEST(PropertyList, BadInputIsAnErrorNeverACrash) {
  const char* inputs[] = {"", "garbage", "<plist><dict><key>a</key></dict>", "bplist00\xff\xff\xff",
                          "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><integer>x</integer>"};
  for (const char* input : inputs) {
    Error error;
    auto v = propertyListFromBytes(asBytes(input), &error);
    if (!v) {
      EXPECT_FALSE(error.localizedDescription.empty()) << input;
    }
  }
  // Truncations of a valid binary list.
  Value sample = dict({{"a", arr({1, "two", Value::date(3)})}});
  auto xml = xmlPropertyListBytes(sample);
  ASSERT_TRUE(xml);
  for (size_t n = 0; n < xml->size(); n += 7) {
    propertyListFromBytes(ByteView(xml->data(), n));
  }
}

TEST(PropertyList, FilesAreWrittenAtomicallyAndReadBack) {
  testing::TempDir dir;
  Env* env = Env::defaultEnv();
  std::string path = dir / "Info.plist";
  Value v = dict({{"Version", 1}});
  Error error;
  ASSERT_TRUE(writePropertyListFile(env, path, v, &error)) << error.description();
  Value back;
  ASSERT_TRUE(readPropertyListFile(env, path, &back, &error, true));
  EXPECT_EQ(back, v);
  EXPECT_TRUE(back.isMutable());
  EXPECT_FALSE(readPropertyListFile(env, dir / "missing.plist", &back, &error));
}

}  // namespace
}  // namespace corvane
