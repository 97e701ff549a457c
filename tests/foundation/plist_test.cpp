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

TEST(PropertyList, RefusesValuesWithoutAPlistForm) {
  EXPECT_FALSE(isValidPropertyList(arr({Value::null()})));
  EXPECT_FALSE(isValidPropertyList(dict({{1, "x"}})));
  EXPECT_FALSE(isValidPropertyList(Value::point(1, 2)));
  Error error;
  EXPECT_FALSE(xmlPropertyListBytes(arr({Value::null()}), &error));
  EXPECT_FALSE(error.localizedDescription.empty());
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
